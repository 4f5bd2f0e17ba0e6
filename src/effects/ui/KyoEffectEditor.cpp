#include "effects/ui/KyoEffectEditor.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QDialog>
#include <QDialogButtonBox>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QListWidget>
#include <QMenu>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QTimer>
#include <QVBoxLayout>

#include <cstdio>

#include "effects/ui/KyoEffectEditorX11.h"
#include "effects/ui/KyoEffectPresets.h"
#include "effects/ui/KyoGenericEffectView.h"

namespace {
// The interface shows changes made elsewhere (undo, a preset, the plugin's own
// automation) at this rate.
constexpr int kPollIntervalMs = 33;
}  // namespace

KyoEffectEditor::KyoEffectEditor(KyoEffect& effect) : QWidget(nullptr, Qt::Window), m_effect(effect) {
  setObjectName(QStringLiteral("KyoEffectEditor"));
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);

  auto* strip = new QWidget(this);
  strip->setFixedHeight(kStripHeight);
  auto* stripLayout = new QHBoxLayout(strip);
  stripLayout->setContentsMargins(10, 0, 10, 0);
  m_enabledButton = new QCheckBox(tr("Enabled"), strip);
  connect(m_enabledButton, &QCheckBox::toggled, this, [this](bool on) { m_effect.setEnabled(on); });
  m_presetsButton = new QPushButton(tr("Presets"), strip);
  m_presetsMenu = new QMenu(m_presetsButton);
  m_presetsButton->setMenu(m_presetsMenu);
  stripLayout->addWidget(m_enabledButton);
  stripLayout->addStretch(1);
  stripLayout->addWidget(m_presetsButton);
  layout->addWidget(strip);

  m_pluginView = KyoEffectPluginView::create(effect, this);
  if (m_pluginView) {
    layout->addWidget(m_pluginView, 1, Qt::AlignHCenter);
    connect(m_pluginView, &KyoEffectPluginView::closeRequested, this, [this] { close(); });
  } else {
    m_genericView = new KyoGenericEffectView(effect);
    auto* scroll = new QScrollArea(this);
    scroll->setWidget(m_genericView);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    layout->addWidget(scroll, 1);
  }

  updateEnabled();
  updateTitle();
  buildPresetsMenu();
  fitToContent();

  // Posted on the main thread today; queued all the same so that a later caller on
  // another thread cannot touch the widgets.
  m_bypassObserver = KyoScopedObserver(KyoNotificationCenter::defaultCenter(), kKyoBypassChangedNotification,
                                       [self = QPointer<KyoEffectEditor>(this)](const KyoNotification&) {
                                         QMetaObject::invokeMethod(
                                             qApp, [self] { if (self) self->updateEnabled(); }, Qt::QueuedConnection);
                                       });
  m_pollTimer = new QTimer(this);
  m_pollTimer->setInterval(kPollIntervalMs);
  connect(m_pollTimer, &QTimer::timeout, this, &KyoEffectEditor::poll);
  m_pollTimer->start();
}

KyoEffectEditor::~KyoEffectEditor() {
  m_bypassObserver.reset();
  // The plugin's interface goes before the window it lives in.
  delete m_pluginView;
  m_pluginView = nullptr;
}

void KyoEffectEditor::install() {
  KyoEffect::setEditorFactory([](KyoEffect& effect) -> std::unique_ptr<KyoEffectEditorWindow> {
    auto editor = std::make_unique<KyoEffectEditor>(effect);
    editor->showWindow();
    return editor;
  });
}

void KyoEffectEditor::fitToContent() {
  QSize content = m_pluginView ? m_pluginView->sizeHint() : m_genericView->sizeHint();
  // A long list of controls scrolls rather than running off the screen.
  const QScreen* screen = QGuiApplication::primaryScreen();
  // A plugin's own interface cannot scroll: it gets its whole height.
  const int tallest = m_pluginView ? content.height() : screen ? screen->availableGeometry().height() * 3 / 4 : 700;
  resize(std::max(kMinimumWidth, content.width()), std::min(tallest, content.height() + kStripHeight));
  setMinimumWidth(kMinimumWidth);
  if (screen) move(screen->availableGeometry().center() - rect().center());
}

void KyoEffectEditor::showWindow() {
  show();
  raise();
  activateWindow();
}

void KyoEffectEditor::close() { QWidget::close(); }

std::string KyoEffectEditor::frame() const {
  const QRect r = geometry();
  char text[96];
  snprintf(text, sizeof text, "{{%d, %d}, {%d, %d}}", r.x(), r.y(), r.width(), r.height());
  return text;
}

void KyoEffectEditor::setFrame(const std::string& frame, bool display) {
  double x = 0, y = 0, width = 0, height = 0;
  if (sscanf(frame.c_str(), " {{%lf , %lf} , {%lf , %lf}}", &x, &y, &width, &height) != 4 || width <= 0 ||
      height <= 0) {
    return;
  }
  // A plugin's own interface keeps its size; only the place is restored.
  if (m_pluginView) {
    move((int)x, (int)y);
  } else {
    setGeometry((int)x, (int)y, std::max(kMinimumWidth, (int)width), (int)height);
  }
  if (display) update();
}

void KyoEffectEditor::closeEvent(QCloseEvent* event) {
  QWidget::closeEvent(event);
  // The effect drops its window in editorWillClose: not from inside this window's
  // own event handler, but on the loop's next turn.
  QTimer::singleShot(0, this, [this] { m_effect.editorWillClose(); });
}

void KyoEffectEditor::updateTitle() {
  m_shownPresetName = m_effect.currentPresetName();
  setWindowTitle(QStringLiteral("%1 : %2")
                     .arg(QString::fromStdString(m_effect.displayName()), QString::fromStdString(m_shownPresetName)));
}

void KyoEffectEditor::updateEnabled() {
  const QSignalBlocker block(m_enabledButton);
  m_enabledButton->setChecked(m_effect.enabled());
}

void KyoEffectEditor::poll() {
  if (m_genericView) m_genericView->refresh();
  if (m_pluginView) m_pluginView->sendChangedValues();
  if (m_enabledButton->isChecked() != m_effect.enabled()) updateEnabled();
  if (m_shownPresetName != m_effect.currentPresetName()) updateTitle();
}

void KyoEffectEditor::buildPresetsMenu() {
  m_presetsMenu->clear();
  m_presetsMenu->addAction(tr("Load..."), this, &KyoEffectEditor::loadPreset);
  m_presetsMenu->addAction(tr("Save..."), this, &KyoEffectEditor::savePreset);
  m_presetsMenu->addAction(tr("Manage..."), this, &KyoEffectEditor::manageUserPresets);
  m_presetsMenu->addSeparator();
  const KyoEffectPresetGroups groups = KyoEffectPresets::presetGroups(m_effect);
  const auto addGroup = [this](const QString& title, const std::vector<KyoEffectPresetItem>& items) {
    QMenu* menu = m_presetsMenu->addMenu(title);
    if (items.empty()) menu->addAction(tr("<none>"))->setEnabled(false);
    for (const KyoEffectPresetItem& item : items) {
      menu->addAction(QString::fromStdString(item.label), this, [this, item] {
        if (item.number >= 0) {
          m_effect.setFactoryPreset(item.number, item.label);
        } else {
          m_effect.setUserPreset(item.path);
        }
        poll();
      });
    }
  };
  addGroup(tr("Factory"), groups.factory);
  addGroup(tr("System"), groups.system);
  addGroup(tr("User"), groups.user);
}

void KyoEffectEditor::loadPreset() {
  const QString path = KyoEffectPresets::choosePresetFile(this);
  if (path.isEmpty()) return;
  m_effect.setUserPreset(path.toStdString());
  poll();
}

void KyoEffectEditor::savePreset() {
  QString name = QString::fromStdString(m_effect.currentPresetName());
  for (;;) {
    name = KyoEffectPresets::askPresetName(this, name);
    if (name.isEmpty()) return;
    KyoEffectPresets::SaveResult result = KyoEffectPresets::saveUserPreset(m_effect, name.toStdString(), false);
    if (result == KyoEffectPresets::SaveResult::Exists) {
      // "Cancel" asks for another name.
      if (!KyoEffectPresets::confirmReplace(this, QString::fromStdString(KyoEffectPresets::cleanName(name.toStdString()))))
        continue;
      result = KyoEffectPresets::saveUserPreset(m_effect, name.toStdString(), true);
    }
    break;
  }
  buildPresetsMenu();
  updateTitle();
}

void KyoEffectEditor::manageUserPresets() {
  // Not modal: the show goes on behind it, and no test waits on it.
  auto* dialog = new QDialog(this);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setObjectName(QStringLiteral("KyoEffectPresetsManager"));
  dialog->setWindowTitle(tr("User Presets"));
  auto* layout = new QVBoxLayout(dialog);
  auto* list = new QListWidget(dialog);
  layout->addWidget(list);
  auto* buttons = new QDialogButtonBox(dialog);
  QPushButton* remove = buttons->addButton(tr("Remove"), QDialogButtonBox::ActionRole);
  QPushButton* add = buttons->addButton(tr("Add..."), QDialogButtonBox::ActionRole);
  buttons->addButton(QDialogButtonBox::Close);
  layout->addWidget(buttons);

  const auto reload = [this, list] {
    const QSignalBlocker block(list);
    list->clear();
    for (const KyoEffectPresetItem& item : KyoEffectPresets::userPresets(m_effect)) {
      auto* row = new QListWidgetItem(QString::fromStdString(item.label), list);
      row->setData(Qt::UserRole, QString::fromStdString(item.path));
      row->setFlags(row->flags() | Qt::ItemIsEditable);
    }
    buildPresetsMenu();
  };
  reload();
  remove->setEnabled(false);
  connect(list, &QListWidget::currentRowChanged, remove, [remove](int row) { remove->setEnabled(row >= 0); });
  connect(list, &QListWidget::itemChanged, dialog, [this, reload](QListWidgetItem* item) {
    KyoEffectPresets::renameUserPreset(m_effect, item->data(Qt::UserRole).toString().toStdString(),
                                       item->text().toStdString());
    QTimer::singleShot(0, this, reload);
  });
  connect(remove, &QPushButton::clicked, dialog, [list, reload] {
    if (QListWidgetItem* item = list->currentItem()) {
      KyoEffectPresets::removeUserPreset(item->data(Qt::UserRole).toString().toStdString());
      reload();
    }
  });
  connect(add, &QPushButton::clicked, this, [this, dialog] {
    dialog->close();
    savePreset();
  });
  connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::close);
  dialog->show();
}
