#include "surface/SettingsController.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFileInfo>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>
#include <charconv>
#include <cmath>

#include "surface/VarnHotKeyTextView.h"

namespace {

// Index of a clear button in m_clearButtons; -1 for a tag without one.
int clearButtonSlot(int tag) {
  switch (tag) {
    case WorkspaceSettings::kPauseAllTag:
      return 0;
    case WorkspaceSettings::kResumeAllTag:
      return 1;
    case WorkspaceSettings::kDuckMasterTag:
      return 2;
    default:
      return -1;
  }
}

// The shortest text that reads back as the same float, with a decimal point, so
// that 0.1 shows as "0.1" and not as its double expansion.
QString secondsText(float seconds) {
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, seconds);
  QString text = QString::fromLatin1(buffer, static_cast<qsizetype>(result.ptr - buffer));
  if (std::isfinite(seconds) && !text.contains(QLatin1Char('.')) && !text.contains(QLatin1Char('e'))) {
    text += QStringLiteral(".0");
  }
  return text;
}

// Seconds as typed, in C notation or the operator's locale; null for anything that
// is not a finite number.
std::optional<float> parseSeconds(const QString& typed) {
  const QString text = typed.trimmed();
  bool ok = false;
  float value = QLocale::c().toFloat(text, &ok);
  if (!ok) value = QLocale().toFloat(text, &ok);
  if (!ok || !std::isfinite(value)) return std::nullopt;
  return value;
}

}  // namespace

SettingsController::SettingsController(WorkspaceSettings& settings, QWidget* parent, std::function<void()> cancel)
    : QDialog(parent), m_settings(settings), m_cancel(std::move(cancel)) {
  setWindowTitle(QStringLiteral("Settings"));
  setWindowModality(Qt::WindowModal);

  auto* midiBox = new QGroupBox(QStringLiteral("MIDI Controls"), this);
  auto* midiLayout = new QHBoxLayout(midiBox);
  midiLayout->addWidget(new QLabel(QStringLiteral("Channel"), midiBox));
  m_midiChannelField = new QComboBox(midiBox);
  midiLayout->addWidget(m_midiChannelField, 1);

  auto* generalBox = new QGroupBox(QStringLiteral("General Settings"), this);
  auto* generalLayout = new QGridLayout(generalBox);
  generalLayout->addWidget(new QLabel(QStringLiteral("Panic fade"), generalBox), 0, 0);
  m_panicDurationField = new QLineEdit(generalBox);
  m_panicDurationField->setAlignment(Qt::AlignRight);
  generalLayout->addWidget(m_panicDurationField, 0, 1);
  generalLayout->addWidget(new QLabel(QStringLiteral("seconds"), generalBox), 0, 2);
  m_performSafetyCheckView = new QCheckBox(QStringLiteral("Perform safety check before show mode"), generalBox);
  generalLayout->addWidget(m_performSafetyCheckView, 1, 0, 1, 3);

  auto* keyBox = new QGroupBox(QStringLiteral("Key Map"), this);
  auto* keyLayout = new QGridLayout(keyBox);
  m_pauseAllView = addHotKeyRow(keyLayout, 0, QStringLiteral("Pause all"), WorkspaceSettings::kPauseAllTag);
  m_resumeAllView = addHotKeyRow(keyLayout, 1, QStringLiteral("Resume all"), WorkspaceSettings::kResumeAllTag);
  m_duckMasterView = addHotKeyRow(keyLayout, 2, QStringLiteral("Duck master"), WorkspaceSettings::kDuckMasterTag);

  m_resetButton = new QPushButton(QStringLiteral("Reset to Defaults"), this);
  m_closeButton = new QPushButton(QStringLiteral("Close"), this);
  // Return in the panic field or a hot key field ends that entry; it must not press
  // a button of the sheet as well.
  for (QPushButton* button : findChildren<QPushButton*>()) {
    button->setAutoDefault(false);
    button->setDefault(false);
  }
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(m_resetButton);
  buttons->addStretch(1);
  buttons->addWidget(m_closeButton);

  auto* layout = new QVBoxLayout(this);
  layout->addWidget(midiBox);
  layout->addWidget(generalBox);
  layout->addWidget(keyBox);
  layout->addLayout(buttons);

  connect(m_midiChannelField, &QComboBox::currentIndexChanged, this, [this] { selectedMIDIChannel(); });
  connect(m_panicDurationField, &QLineEdit::editingFinished, this, [this] { setThePanicDuration(); });
  connect(m_performSafetyCheckView, &QCheckBox::toggled, this,
          [this](bool on) { change([&] { m_settings.setShouldPerformSafetyChecks(on); }); });
  connect(m_pauseAllView, &VarnHotKeyTextView::hotKeyDidChange, this,
          [this] { hotKeyDidChange(m_pauseAllView, m_settings.pauseAllKey()); });
  connect(m_resumeAllView, &VarnHotKeyTextView::hotKeyDidChange, this,
          [this] { hotKeyDidChange(m_resumeAllView, m_settings.resumeAllKey()); });
  connect(m_duckMasterView, &VarnHotKeyTextView::hotKeyDidChange, this,
          [this] { hotKeyDidChange(m_duckMasterView, m_settings.duckMasterKey()); });
  connect(m_resetButton, &QPushButton::clicked, this, [this] { resetToDefaults(); });
  connect(m_closeButton, &QPushButton::clicked, this, [this] { closeWindow(); });

  refreshView();
}

SettingsController::~SettingsController() {
  // The fields outlive this part of the object; the focus leaving the panic field as
  // they go would end its editing into a controller that is no longer there.
  for (QObject* child : findChildren<QObject*>()) disconnect(child, nullptr, this, nullptr);
}

VarnHotKeyTextView* SettingsController::addHotKeyRow(QGridLayout* grid, int row, const QString& title, int tag) {
  QWidget* box = grid->parentWidget();
  auto* view = new VarnHotKeyTextView(box);
  auto* clear = new QPushButton(QStringLiteral("Clear"), box);
  clear->setProperty("tag", tag);
  m_clearButtons[clearButtonSlot(tag)] = clear;
  grid->addWidget(new QLabel(title, box), row, 0);
  grid->addWidget(view, row, 1);
  grid->addWidget(clear, row, 2);
  connect(view, &VarnHotKeyTextView::cancel, this, [this] { cancel(); });
  connect(clear, &QPushButton::clicked, this, [this, tag] { clearHotkey(tag); });
  return view;
}

QPushButton* SettingsController::clearButton(int tag) const {
  const int slot = clearButtonSlot(tag);
  return slot < 0 ? nullptr : m_clearButtons[slot];
}

template <typename Edit>
void SettingsController::change(Edit&& edit) {
  const QJsonObject before = m_settings.state();
  edit();
  refreshView();
  if (m_settings.state() != before) emit stateChanged();
}

void SettingsController::refreshView() {
  updateMIDIChannelField();
  m_panicDurationField->setText(secondsText(m_settings.panicDuration()));
  {
    const QSignalBlocker blocker(m_performSafetyCheckView);
    m_performSafetyCheckView->setChecked(m_settings.shouldPerformSafetyChecks());
  }
  m_pauseAllView->setKey(m_settings.pauseAllKey());
  m_resumeAllView->setKey(m_settings.resumeAllKey());
  m_duckMasterView->setKey(m_settings.duckMasterKey());
}

void SettingsController::updateMIDIChannelField() {
  const QSignalBlocker blocker(m_midiChannelField);
  m_midiChannelField->clear();
  m_midiChannelField->addItem(QStringLiteral("Any channel"), 0);
  for (int channel = 1; channel <= WorkspaceSettings::kMaxMidiChannel; ++channel) {
    m_midiChannelField->addItem(QString::number(channel), channel);
  }
  m_midiChannelField->setCurrentIndex(static_cast<int>(m_settings.midiChannel()));
}

void SettingsController::selectedMIDIChannel() {
  const QVariant channel = m_midiChannelField->currentData();
  if (!channel.isValid()) return;
  change([&] { m_settings.setMidiChannel(channel.toInt()); });
}

void SettingsController::setThePanicDuration() {
  const std::optional<float> seconds = parseSeconds(m_panicDurationField->text());
  change([&] {
    // -0 would read back as "-0.0"; it is the same cut as 0.
    if (seconds) m_settings.setPanicDuration(*seconds == 0.0f ? 0.0f : *seconds);
  });
}

void SettingsController::hotKeyDidChange(VarnHotKeyTextView* view, KyoHotKey& key) {
  change([&] { key = view->key(); });
}

void SettingsController::resetToDefaults() {
  change([&] { m_settings.resetToDefaults(); });
}

void SettingsController::clearHotkey(int tag) {
  change([&] { m_settings.clearHotkey(tag); });
}

void SettingsController::cancel() {
  if (m_cancel) m_cancel();
}

void SettingsController::closeWindow() { done(QDialog::Accepted); }

void SettingsController::setRepresentedFilename(const QString& filename) {
  setWindowFilePath(filename);
  const QString name = QFileInfo(filename).fileName();
  setWindowTitle(name.isEmpty() ? QStringLiteral("Settings") : QStringLiteral("Settings \u2014 %1").arg(name));
}

void SettingsController::keyPressEvent(QKeyEvent* event) {
  // The sheet has nothing to cancel: Escape is the panic, as in the window behind.
  if (event->key() == Qt::Key_Escape) {
    event->accept();
    cancel();
    return;
  }
  QDialog::keyPressEvent(event);
}

void SettingsController::showEvent(QShowEvent* event) {
  refreshView();
  QDialog::showEvent(event);
}
