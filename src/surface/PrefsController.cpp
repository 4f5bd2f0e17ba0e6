#include "surface/PrefsController.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QSettings>
#include <QVBoxLayout>

#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

PrefsController::PrefsController(QWidget* parent) : QDialog(parent) {
  setWindowTitle(QStringLiteral("Preferences"));
  m_logLevel = new QComboBox(this);
  const char* const names[] = {"0: errors", "1: warnings", "2: information", "3: everything"};
  for (int level = 0; level <= kHighestLogLevel; ++level) m_logLevel->addItem(QString::fromLatin1(names[level]), level);
  auto* form = new QFormLayout;
  form->addRow(QStringLiteral("Log level:"), m_logLevel);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::close);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(buttons);

  QSettings defaults;
  if (!restoreGeometry(defaults.value(QString::fromLatin1(kFrameKey)).toByteArray())) adjustSize();
  const int stored = defaults.value(QString::fromLatin1(kLogLevelKey), 0).toInt();
  const int index = m_logLevel->findData(stored);
  m_logLevel->setCurrentIndex(index >= 0 ? index : 0);
  connect(m_logLevel, &QComboBox::activated, this, [this](int index) { setLogLevel(m_logLevel->itemData(index).toInt()); });
  connect(this, &QDialog::finished, this, [this] { QSettings().setValue(QString::fromLatin1(kFrameKey), saveGeometry()); });
}

PrefsController::~PrefsController() = default;

PrefsController& PrefsController::shared() {
  // Parentless and kept for the application's life, as a preferences window is.
  static auto* prefs = new PrefsController();
  return *prefs;
}

void PrefsController::setLogLevel(int level) {
  QSettings().setValue(QString::fromLatin1(kLogLevelKey), level);
  KyoEnvironment::setLogLevel(level);
  KyoLog("Setting log level to %li", static_cast<long>(level));
}
