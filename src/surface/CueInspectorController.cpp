#include "surface/CueInspectorController.h"

#include <QButtonGroup>
#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QScrollArea>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioUtilities.h"
#include "effects/KyoEffect.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoStringUtilities.h"
#include "show/AudioCue.h"
#include "show/SontoUndoManager.h"
#include "show/Workspace.h"
#include "surface/AudioWaveformView.h"
#include "surface/WorkspaceController.h"

namespace {

QString qString(const std::string& text) { return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())); }

QColor deviceColor(const KyoRGBA& c) { return QColor::fromRgbF(float(c.red), float(c.green), float(c.blue), float(c.alpha)); }

// How one observed property of a cue is read and written back by an undo step.
template <typename T>
struct CueProperty {
  T (*get)(const AudioCue&);
  void (*set)(AudioCue&, const T&);
  const char* actionName;
};

const CueProperty<std::string> kName{[](const AudioCue& c) { return c.name(); },
                                     [](AudioCue& c, const std::string& v) { c.setName(v); }, "Change Name"};
const CueProperty<std::string> kHotkey{[](const AudioCue& c) { return c.hotkey(); },
                                       [](AudioCue& c, const std::string& v) { c.setHotkey(v); }, "Change Hotkey"};
const CueProperty<std::optional<int>> kMidiNote{[](const AudioCue& c) { return c.midiNote(); },
                                                [](AudioCue& c, const std::optional<int>& v) {
                                                  if (v) {
                                                    c.setMidiNote(*v);
                                                  } else {
                                                    c.setMidiTrigger(QByteArray());
                                                  }
                                                },
                                                "Change MIDI Note"};
const CueProperty<SontoColor> kColor{[](const AudioCue& c) { return c.color(); },
                                     [](AudioCue& c, const SontoColor& v) { c.setColor(v); }, "Change Color"};
const CueProperty<float> kVolume{[](const AudioCue& c) { return c.volume(); },
                                 [](AudioCue& c, const float& v) { c.setVolume(v); }, "Change Cue Volume"};
const CueProperty<double> kStartTime{[](const AudioCue& c) { return c.startTime(); },
                                     [](AudioCue& c, const double& v) { c.setStartTime(v); }, "Change Start Time"};
const CueProperty<double> kEndTime{[](const AudioCue& c) { return c.endTime(); },
                                   [](AudioCue& c, const double& v) { c.setEndTime(v); }, "Change End Time"};

// Registers the step that puts `old` back. While the inspector follows the cue, the
// step's own change registers the opposite step through the observer; when it does
// not (another cue is shown by then), the step registers it itself, so that redo
// still works.
template <typename T>
void registerRestore(SontoUndoManager* undo, const std::weak_ptr<AudioCue>& weak, T old, const CueProperty<T>& property,
                     QPointer<CueInspectorController> inspector) {
  auto cue = weak.lock();
  if (!undo || !cue) return;
  undo->registerUndo(cue.get(), [undo, weak, old, &property, inspector] {
    auto cue = weak.lock();
    if (!cue) return;
    const bool followed = inspector && inspector->observes(cue.get());
    T now = property.get(*cue);
    property.set(*cue, old);
    if (!followed) registerRestore(undo, weak, now, property, inspector);
  });
  if (!undo->isUndoing()) undo->setActionName(QString::fromLatin1(property.actionName));
}

// The pasteboard type of a dragged effect row: its index in the chain, as decimal text.
constexpr const char* kReorderTableType = "SontoReorderTableType";

// Both steps register their own inverse, so that redo works as undo does.
void moveEffectUndoably(SontoUndoManager* undo, const std::weak_ptr<AudioCue>& weak, size_t from, size_t to) {
  auto cue = weak.lock();
  if (!cue) return;
  cue->moveEffectAtIndex(from, to);
  if (!undo) return;
  undo->registerUndo(cue.get(), [undo, weak, from, to] { moveEffectUndoably(undo, weak, to, from); });
  if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Reorder Effects"));
}

void setEffectEnabledUndoably(SontoUndoManager* undo, const std::weak_ptr<AudioCue>& weak,
                              const std::shared_ptr<KyoEffect>& effect, bool enabled) {
  auto cue = weak.lock();
  if (!cue || effect->enabled() == enabled) return;
  cue->setEffectEnabled(effect, enabled);
  // A unit without a bypass keeps its state, and then there is nothing to undo.
  if (!undo || effect->enabled() != enabled) return;
  undo->registerUndo(cue.get(), [undo, weak, effect, enabled] { setEffectEnabledUndoably(undo, weak, effect, !enabled); });
  if (!undo->isUndoing()) undo->setActionName(enabled ? QStringLiteral("Enable Effect") : QStringLiteral("Bypass Effect"));
}

QString midiNoteText(const std::optional<int>& note) { return note ? QString::number(*note) : QString(); }

QLabel* fieldLabel(const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
  return label;
}

}  // namespace

// -- The backdrop and the swatches

void CueInspectorView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  const QRectF bounds = rect();
  // Lighter at the top, as the pane's light falls from the grid above.
  QLinearGradient gradient(bounds.topLeft(), bounds.bottomLeft());
  gradient.setColorAt(0.0, QColor::fromRgbF(0.2f, 0.192f, 0.192f));
  gradient.setColorAt(1.0, QColor::fromRgbF(0.161f, 0.153f, 0.153f));
  painter.fillRect(bounds, gradient);
  painter.fillRect(QRectF(0, 0, bounds.width(), 1.0), QColor::fromRgbF(0, 0, 0, 0.75f));
  painter.fillRect(QRectF(0, 1.0, bounds.width(), 1.0), QColor::fromRgbF(1, 1, 1, 0.1f));
}

SontoColorCell::SontoColorCell(const SontoColor& color, QWidget* parent) : QAbstractButton(parent), m_color(color) {
  setCheckable(true);
  setToolTip(qString(color.name()));
  setFocusPolicy(Qt::TabFocus);
  setAccessibleName(qString(color.name()));
}

void SontoColorCell::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const QRectF swatch = QRectF(rect()).adjusted(3.0, 3.0, -3.0, -3.0);
  // The colour of the cue shown glows, so that it reads at a glance.
  if (isChecked()) {
    const QColor glow = QColor::fromRgbF(0.478f, 0.678f, 0.859f);
    for (int ring = 3; ring >= 1; --ring) {
      QColor c = glow;
      c.setAlphaF(0.25f * static_cast<float>(4 - ring));
      painter.setPen(QPen(c, ring * 1.5));
      painter.setBrush(Qt::NoBrush);
      painter.drawRect(swatch.adjusted(-1.0, -1.0, 1.0, 1.0));
    }
  }
  QLinearGradient gradient(swatch.topLeft(), swatch.bottomLeft());
  gradient.setColorAt(0.0, deviceColor(m_color.gradient().startColor()));
  gradient.setColorAt(1.0, deviceColor(m_color.gradient().endColor()));
  painter.fillRect(swatch, gradient);
  painter.setPen(QPen(QColor::fromRgbF(0, 0, 0, 0.2f), 1.0));
  painter.drawRect(swatch.adjusted(0.5, 0.5, -0.5, -0.5));
  if (hasFocus()) {
    painter.setPen(QPen(QColor(255, 255, 255, 200), 1.0, Qt::DotLine));
    painter.drawRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5));
  }
}

// -- The controller

CueInspectorController::CueInspectorController(WorkspaceController* workspaceController, QWidget* parentView)
    : m_workspaceController(workspaceController), m_view(new CueInspectorView(parentView)) {
  m_view->setObjectName(QStringLiteral("cueInspector"));
  buildView();
  refreshContents();
}

CueInspectorController::~CueInspectorController() {
  setCue(nullptr);
  delete m_view;
}

SontoUndoManager* CueInspectorController::undoManager() const {
  return m_workspaceController ? m_workspaceController->undoManager() : nullptr;
}

void CueInspectorController::buildView() {
  auto* outer = new QVBoxLayout(m_view);
  outer->setContentsMargins(10, 8, 10, 8);
  m_noCueLabel = new QLabel(QStringLiteral("No Cue Selected"), m_view);
  m_noCueLabel->setAlignment(Qt::AlignCenter);
  m_noCueLabel->setStyleSheet(QStringLiteral("color: rgb(150, 150, 150); font-size: 16pt;"));
  outer->addWidget(m_noCueLabel);

  m_fields = new QWidget(m_view);
  outer->addWidget(m_fields, 1);
  auto* row = new QHBoxLayout(m_fields);
  row->setContentsMargins(0, 0, 0, 0);
  row->setSpacing(14);

  // Left: the cue's identity and level.
  auto* left = new QWidget(m_fields);
  auto* grid = new QGridLayout(left);
  grid->setContentsMargins(0, 0, 0, 0);
  grid->setVerticalSpacing(6);
  m_name = new QLineEdit(left);
  m_name->setObjectName(QStringLiteral("name"));
  m_name->setMinimumWidth(200);
  grid->addWidget(fieldLabel(QStringLiteral("Name"), left), 0, 0);
  grid->addWidget(m_name, 0, 1, 1, 3);

  m_hotkey = new QLineEdit(left);
  m_hotkey->setObjectName(QStringLiteral("hotkey"));
  m_hotkey->setFixedWidth(44);
  m_hotkey->setAlignment(Qt::AlignCenter);
  m_hotkey->setToolTip(QStringLiteral("The key that fires the cue"));
  m_midiNote = new QLineEdit(left);
  m_midiNote->setObjectName(QStringLiteral("midiNote"));
  m_midiNote->setFixedWidth(52);
  m_midiNote->setAlignment(Qt::AlignCenter);
  m_midiNote->setToolTip(QStringLiteral("The MIDI note (0 to 127) that fires the cue"));
  m_captureButton = new QPushButton(QStringLiteral("Capture"), left);
  m_captureButton->setToolTip(QStringLiteral("Take the next MIDI note played as the cue's note"));
  auto* keys = new QHBoxLayout;
  keys->setSpacing(6);
  keys->addWidget(m_hotkey);
  keys->addSpacing(8);
  keys->addWidget(new QLabel(QStringLiteral("MIDI note"), left));
  keys->addWidget(m_midiNote);
  keys->addWidget(m_captureButton);
  keys->addStretch(1);
  grid->addWidget(fieldLabel(QStringLiteral("Key"), left), 1, 0);
  grid->addLayout(keys, 1, 1, 1, 3);

  m_volumeSlider = new QSlider(Qt::Horizontal, left);
  m_volumeSlider->setObjectName(QStringLiteral("volume"));
  m_volumeSlider->setRange(0, kVolumeSteps);
  m_volumeSlider->setMinimumWidth(160);
  m_volumeLabel = new QLabel(left);
  m_volumeLabel->setMinimumWidth(70);
  grid->addWidget(fieldLabel(QStringLiteral("Volume"), left), 2, 0);
  grid->addWidget(m_volumeSlider, 2, 1, 1, 2);
  grid->addWidget(m_volumeLabel, 2, 3);

  auto* swatches = new QHBoxLayout;
  swatches->setSpacing(2);
  m_colors = new QButtonGroup(this);
  m_colors->setExclusive(true);
  for (const std::string& name : SontoColor::colors()) {
    auto* cell = new SontoColorCell(SontoColor::colorWithName(name), left);
    m_colors->addButton(cell);
    swatches->addWidget(cell);
  }
  swatches->addStretch(1);
  grid->addWidget(fieldLabel(QStringLiteral("Colour"), left), 3, 0);
  grid->addLayout(swatches, 3, 1, 1, 3);

  m_previewToggle = new QToolButton(left);
  m_previewToggle->setObjectName(QStringLiteral("preview"));
  m_previewToggle->setToolButtonStyle(Qt::ToolButtonTextOnly);
  m_previewToggle->setMinimumSize(96, 30);
  m_effectsButton = new QToolButton(left);
  m_effectsButton->setObjectName(QStringLiteral("effects"));
  m_effectsButton->setText(QStringLiteral("Add Effect"));
  m_effectsButton->setPopupMode(QToolButton::InstantPopup);
  m_effectsButton->setMinimumHeight(30);
  m_effectsMenu = new QMenu(m_effectsButton);
  m_effectsButton->setMenu(m_effectsMenu);
  auto* buttons = new QHBoxLayout;
  buttons->addWidget(m_previewToggle);
  buttons->addWidget(m_effectsButton);
  buttons->addStretch(1);
  grid->addLayout(buttons, 4, 1, 1, 3);
  m_output = new QComboBox(left);
  m_output->setObjectName(QStringLiteral("output"));
  m_output->setFocusPolicy(Qt::TabFocus);
  m_output->setToolTip(QStringLiteral("The device and channel pair this cue plays on"));
  connect(m_output, &QComboBox::activated, this, &CueInspectorController::changeOutputDevice);
  grid->addWidget(fieldLabel(QStringLiteral("Output"), left), 5, 0);
  grid->addWidget(m_output, 5, 1, 1, 3);
  grid->setRowStretch(6, 1);
  row->addWidget(left);

  // Middle: the waveform with the in and out times.
  auto* middle = new QWidget(m_fields);
  auto* waveColumn = new QVBoxLayout(middle);
  waveColumn->setContentsMargins(0, 0, 0, 0);
  waveColumn->setSpacing(6);
  m_waveformScroll = new QScrollArea(middle);
  m_waveformScroll->setObjectName(QStringLiteral("waveformScrollView"));
  m_waveformScroll->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  m_waveformScroll->setMinimumHeight(90);
  m_waveformScroll->setFrameShape(QFrame::NoFrame);
  m_waveformView = new AudioWaveformView(m_waveformScroll);
  m_waveformScroll->setWidget(m_waveformView);
  m_waveformScroll->setWidgetResizable(false);
  waveColumn->addWidget(m_waveformScroll, 1);
  auto* times = new QHBoxLayout;
  m_startTimeField = new QLineEdit(middle);
  m_startTimeField->setObjectName(QStringLiteral("startTime"));
  m_startTimeField->setFixedWidth(110);
  m_startTimeField->setToolTip(QStringLiteral("Where the cue starts in its file (mm:ss.fff)"));
  m_endTimeField = new QLineEdit(middle);
  m_endTimeField->setObjectName(QStringLiteral("endTime"));
  m_endTimeField->setFixedWidth(110);
  m_endTimeField->setToolTip(QStringLiteral("Where the cue ends in its file (mm:ss.fff)"));
  auto* fromSelection = new QPushButton(QStringLiteral("Set from Selection"), middle);
  fromSelection->setToolTip(QStringLiteral("Play only the range selected on the waveform"));
  times->addWidget(new QLabel(QStringLiteral("Start"), middle));
  times->addWidget(m_startTimeField);
  times->addSpacing(10);
  times->addWidget(new QLabel(QStringLiteral("End"), middle));
  times->addWidget(m_endTimeField);
  times->addSpacing(10);
  times->addWidget(fromSelection);
  times->addStretch(1);
  waveColumn->addLayout(times);
  row->addWidget(middle, 1);

  // Right: the cue's effects, in order.
  auto* right = new QWidget(m_fields);
  auto* effectsColumn = new QVBoxLayout(right);
  effectsColumn->setContentsMargins(0, 0, 0, 0);
  effectsColumn->addWidget(new QLabel(QStringLiteral("Effects"), right));
  m_effectsTable = new KyoEffectListView(right);
  m_effectsTable->setObjectName(QStringLiteral("effectsTable"));
  m_effectsTable->setFixedWidth(170);
  m_effectsTable->setDelegate(this);
  m_effectsTable->setDataSource(this);
  effectsColumn->addWidget(m_effectsTable, 1);
  row->addWidget(right);

  for (QLineEdit* field : {m_name, m_hotkey, m_midiNote, m_startTimeField, m_endTimeField}) {
    field->installEventFilter(this);
  }
  m_effectsTable->installEventFilter(this);

  connect(m_name, &QLineEdit::editingFinished, this, [this] {
    if (m_cue) m_cue->setName(m_name->text().toStdString());
  });
  connect(m_hotkey, &QLineEdit::textEdited, this, &CueInspectorController::updateHotkey);
  connect(m_hotkey, &QLineEdit::editingFinished, this, [this] {
    if (m_cue) m_cue->setHotkey(m_hotkey->text().toStdString());
  });
  connect(m_midiNote, &QLineEdit::editingFinished, this, &CueInspectorController::updateMIDINote);
  connect(m_captureButton, &QPushButton::clicked, this, &CueInspectorController::captureMIDINote);
  connect(m_volumeSlider, &QSlider::valueChanged, this, &CueInspectorController::setVolumeFromSlider);
  connect(m_volumeSlider, &QSlider::sliderReleased, this, &CueInspectorController::setFinalVolumeFromSlider);
  connect(m_colors, &QButtonGroup::buttonClicked, this, [this](QAbstractButton* button) {
    if (auto* cell = qobject_cast<SontoColorCell*>(button)) changeColor(cell->color().name());
  });
  connect(m_previewToggle, &QToolButton::clicked, this, &CueInspectorController::togglePreview);
  connect(m_effectsMenu, &QMenu::aboutToShow, this, &CueInspectorController::buildEffectsMenu);
  connect(m_startTimeField, &QLineEdit::editingFinished, this, [this] { setStartTime(m_startTimeField->text()); });
  connect(m_endTimeField, &QLineEdit::editingFinished, this, [this] { setEndTime(m_endTimeField->text()); });
  connect(fromSelection, &QPushButton::clicked, this, &CueInspectorController::setStartEndFromSelection);
}

// The scan of every installed plug-in is slow, so the menu is made when first opened
// and the prototypes are kept for the life of the process.
void CueInspectorController::buildEffectsMenu() {
  if (m_effectsMenuBuilt) return;
  m_effectsMenuBuilt = true;
  static KyoEffectStorage storage;
  const std::optional<KyoEffectMenu> menu = KyoEffect::menuOfAllEffectsByManufacturer(&storage);
  if (!menu || menu->submenus.empty()) {
    m_effectsMenu->addAction(QStringLiteral("No effects installed"))->setEnabled(false);
    return;
  }
  for (const KyoEffectMenu::Submenu& submenu : menu->submenus) {
    QMenu* maker = m_effectsMenu->addMenu(qString(submenu.title));
    for (const KyoEffectMenu::Item& item : submenu.items) {
      std::shared_ptr<KyoEffect> prototype = item.effect;
      maker->addAction(qString(item.title), this, [this, prototype] { addEffect(prototype); });
    }
  }
}

void CueInspectorController::setCue(std::shared_ptr<AudioCue> cue) {
  if (cue == m_cue) return;
  for (auto& connection : m_observers) disconnect(connection);
  m_observers.clear();
  m_cue = std::move(cue);
  if (m_cue) observeCue();
  setCaptureMIDI(false);
  refreshContents();
}

void CueInspectorController::observeCue() {
  AudioCue* cue = m_cue.get();
  m_seen = Seen{cue->name(),   cue->hotkey(),    cue->midiNote(), cue->color(),
                cue->volume(), cue->startTime(), cue->endTime()};
  auto follow = [this, cue](auto signal, void (CueInspectorController::*slot)()) {
    m_observers.push_back(connect(cue, signal, this, slot));
  };
  follow(&AudioCue::progressChanged, &CueInspectorController::updatePreviewImage);
  follow(&AudioCue::playingChanged, &CueInspectorController::updatePreviewImage);
  follow(&AudioCue::colorChanged, &CueInspectorController::colorChanged);
  follow(&AudioCue::nameChanged, &CueInspectorController::nameChanged);
  follow(&AudioCue::startTimeChanged, &CueInspectorController::startTimeChanged);
  follow(&AudioCue::endTimeChanged, &CueInspectorController::endTimeChanged);
  follow(&AudioCue::hotkeyChanged, &CueInspectorController::hotkeyChanged);
  follow(&AudioCue::volumeChanged, &CueInspectorController::volumeChanged);
  follow(&AudioCue::midiNoteChanged, &CueInspectorController::midiNoteChanged);
  follow(&AudioCue::effectsChanged, &CueInspectorController::refreshEffects);
  follow(&AudioCue::fileChanged, &CueInspectorController::refreshContents);
}

// -- What follows the cue

void CueInspectorController::nameChanged() {
  const std::string old = std::exchange(m_seen.name, m_cue->name());
  m_name->setText(qString(m_cue->name()));
  if (old != m_cue->name()) registerRestore(undoManager(), std::weak_ptr<AudioCue>(m_cue), old, kName, this);
}

void CueInspectorController::hotkeyChanged() {
  const std::string old = std::exchange(m_seen.hotkey, m_cue->hotkey());
  m_hotkey->setText(qString(m_cue->hotkey()));
  if (old != m_cue->hotkey()) registerRestore(undoManager(), std::weak_ptr<AudioCue>(m_cue), old, kHotkey, this);
}

void CueInspectorController::midiNoteChanged() {
  const std::optional<int> old = std::exchange(m_seen.midiNote, m_cue->midiNote());
  if (!m_captureMIDI) m_midiNote->setText(midiNoteText(m_cue->midiNote()));
  if (old != m_cue->midiNote()) registerRestore(undoManager(), std::weak_ptr<AudioCue>(m_cue), old, kMidiNote, this);
}

// Registered even when the colour is the same, as every change of it is.
void CueInspectorController::colorChanged() {
  const SontoColor old = std::exchange(m_seen.color, m_cue->color());
  registerRestore(undoManager(), std::weak_ptr<AudioCue>(m_cue), old, kColor, this);
  updateColor();
}

void CueInspectorController::startTimeChanged() {
  const double old = std::exchange(m_seen.startTime, m_cue->startTime());
  registerRestore(undoManager(), std::weak_ptr<AudioCue>(m_cue), old, kStartTime, this);
  m_waveformView->setCue(m_cue.get());
  refreshTimes();
}

void CueInspectorController::endTimeChanged() {
  const double old = std::exchange(m_seen.endTime, m_cue->endTime());
  registerRestore(undoManager(), std::weak_ptr<AudioCue>(m_cue), old, kEndTime, this);
  m_waveformView->setCue(m_cue.get());
  refreshTimes();
}

// While a slider change is open the steps in between register nothing; its end
// registers one step back to where it began.
void CueInspectorController::volumeChanged() {
  const float old = std::exchange(m_seen.volume, m_cue->volume());
  refreshVolumeLabel();
  if (m_volumeCopy > -std::numeric_limits<float>::infinity()) return;
  const QSignalBlocker blocker(m_volumeSlider);
  m_volumeSlider->setValue(static_cast<int>(std::lround(m_cue->volume() * kVolumeSteps)));
  if (old != m_cue->volume()) registerRestore(undoManager(), std::weak_ptr<AudioCue>(m_cue), old, kVolume, this);
}

// -- Refreshing

void CueInspectorController::refreshContents() {
  m_volumeCopy = -std::numeric_limits<float>::infinity();
  ++m_finalVolumeGeneration;
  const bool hasCue = m_cue != nullptr;
  m_noCueLabel->setVisible(!hasCue);
  m_fields->setVisible(hasCue);
  m_waveformView->setCue(m_cue.get());
  if (!hasCue) return;
  updateColor();
  m_name->setText(qString(m_cue->name()));
  m_name->setToolTip(qString(m_cue->file()));
  m_hotkey->setText(qString(m_cue->hotkey()));
  if (!m_captureMIDI) m_midiNote->setText(midiNoteText(m_cue->midiNote()));
  {
    const QSignalBlocker blocker(m_volumeSlider);
    m_volumeSlider->setValue(static_cast<int>(std::lround(m_cue->volume() * kVolumeSteps)));
  }
  refreshVolumeLabel();
  refreshTimes();
  refreshEffects();
  refreshOutput();
  m_previewToggle->setEnabled(true);
  updatePreviewImage();
}

void CueInspectorController::refreshTimes() {
  if (!m_cue) return;
  m_startTimeField->setText(qString(stringByFormattingSeconds(m_cue->startTime(), 3)));
  m_endTimeField->setText(qString(stringByFormattingSeconds(m_cue->endTime(), 3)));
}

void CueInspectorController::refreshVolumeLabel() {
  if (!m_cue) return;
  m_volumeLabel->setText(volumeText(m_cue->volume()));
  m_volumeSlider->setToolTip(m_volumeLabel->text());
}

QString CueInspectorController::volumeText(float volume) {
  if (volume <= 0.0f) return QStringLiteral("-inf dB");
  static const KyoAudioUtilities utilities;
  const double db = utilities.linearToDb(volume);
  if (db > -0.05 && db < 0.05) return QStringLiteral("0.0 dB");
  return QString::asprintf("%+.1f dB", db);
}

void CueInspectorController::refreshEffects() {
  m_effectsTable->reloadData();
}

void CueInspectorController::updateColor() {
  if (!m_cue) return;
  for (QAbstractButton* button : m_colors->buttons()) {
    auto* cell = static_cast<SontoColorCell*>(button);
    if (cell->color().isEqualToColor(m_cue->color())) {
      cell->setChecked(true);
      return;
    }
  }
}

void CueInspectorController::updatePreviewImage() {
  const bool playing = m_cue && m_cue->playing();
  m_previewToggle->setText(playing ? QStringLiteral("\u25A0  Stop") : QStringLiteral("\u25B6  Preview"));
  m_previewToggle->setToolTip(playing ? QStringLiteral("Stop the cue") : QStringLiteral("Play the cue"));
  m_waveformView->refreshCursorPosition();
}

// -- Actions

void CueInspectorController::changeColor(const std::string& name) {
  if (m_cue) m_cue->setColor(SontoColor::colorWithName(name));
}

void CueInspectorController::togglePreview() {
  if (!m_cue) return;
  if (m_cue->isPlaying()) {
    m_cue->stop();
  } else {
    m_cue->play();
  }
}

// Each key typed replaces the last: the field holds one key, selected.
void CueInspectorController::updateHotkey() {
  if (!m_cue) return;
  const std::string text = m_hotkey->text().toStdString();
  std::string parsed = AudioCue::parseHotkey(text);
  // The newest character typed is the one meant, wherever the cursor put it.
  if (text.size() > 1 && m_hotkey->cursorPosition() > 0) {
    const QString typed = m_hotkey->text().mid(m_hotkey->cursorPosition() - 1, 1);
    parsed = AudioCue::parseHotkey(typed.toStdString());
  }
  m_hotkey->setText(qString(parsed));
  m_hotkey->selectAll();
}

void CueInspectorController::updateMIDINote() {
  if (!m_cue || m_captureMIDI) return;
  const int note = AudioCue::parseMidiNote(KyoIntValue(m_midiNote->text().toStdString()));
  m_midiNote->setText(QString::asprintf("%d", note));
  m_cue->setMidiNote(note);
}

void CueInspectorController::setStartTime(const QString& text) {
  if (m_cue) m_cue->setStartTime(secondsFromFormattedString(text.toStdString()));
  refreshTimes();
}

void CueInspectorController::setEndTime(const QString& text) {
  if (m_cue) m_cue->setEndTime(secondsFromFormattedString(text.toStdString()));
  refreshTimes();
}

void CueInspectorController::setStartEndFromSelection() {
  m_waveformView->setStartAndEndFromSelection();
  m_waveformView->clearSelection();
}

void CueInspectorController::setVolumeFromSlider() {
  if (!m_cue) return;
  if (m_volumeCopy == -std::numeric_limits<float>::infinity()) m_volumeCopy = m_cue->volume();
  m_cue->setVolume(static_cast<float>(m_volumeSlider->value()) / kVolumeSteps);
  // The end of the change is the release of a dragged slider; a key or the wheel
  // ends it as soon as the event loop is free.
  const unsigned generation = ++m_finalVolumeGeneration;
  if (m_volumeSlider->isSliderDown()) return;
  QPointer<CueInspectorController> self(this);
  KyoCurrentClock().runOnMain(
      [self, generation] {
        if (self && self->m_finalVolumeGeneration == generation) self->setFinalVolumeFromSlider();
      },
      false);
}

void CueInspectorController::setFinalVolumeFromSlider() {
  KYO_LOG_AT(3, "set final");
  if (!m_cue || m_volumeCopy == m_cue->volume()) return;
  KYO_LOG_AT(3, "new volume");
  const float begun = std::exchange(m_volumeCopy, -std::numeric_limits<float>::infinity());
  m_seen.volume = m_cue->volume();
  m_cue->setVolume(m_cue->volume());
  registerRestore(undoManager(), std::weak_ptr<AudioCue>(m_cue), begun, kVolume, this);
}

void CueInspectorController::setCaptureMIDI(bool capture) {
  m_captureMIDI = capture;
  if (capture) {
    m_midiNote->setText(QStringLiteral("..."));
    m_captureButton->setText(QStringLiteral("Waiting..."));
  } else {
    if (m_cue) m_midiNote->setText(midiNoteText(m_cue->midiNote()));
    m_captureButton->setText(QStringLiteral("Capture"));
  }
}

void CueInspectorController::addEffect(const std::shared_ptr<KyoEffect>& prototype) {
  if (!m_cue || !prototype) return;
  std::shared_ptr<KyoEffect> effect = prototype->copy();
  if (!effect) return;
  m_cue->addEffect(effect);
  if (SontoUndoManager* undo = undoManager()) {
    std::weak_ptr<AudioCue> weak = m_cue;
    undo->registerUndo(m_cue.get(), [weak, effect] {
      if (auto cue = weak.lock()) cue->removeEffect(effect);
    });
    if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Add Effect"));
  }
  effect->openEditor();
}

void CueInspectorController::removeEffect() {
  if (!m_cue || !m_cue->effects()) return;
  auto* selected = static_cast<KyoEffect*>(m_effectsTable->selectedItem());
  if (selected) removeEffect(selected->shared_from_this());
}

void CueInspectorController::removeEffect(const std::shared_ptr<KyoEffect>& effect) {
  if (!m_cue || !m_cue->effects()) return;
  const auto& effects = *m_cue->effects();
  const auto place = std::find(effects.begin(), effects.end(), effect);
  if (place == effects.end()) return;
  const size_t index = static_cast<size_t>(place - effects.begin());
  effect->closeEditor();
  if (SontoUndoManager* undo = undoManager()) {
    std::weak_ptr<AudioCue> weak = m_cue;
    // Back into the place it had in the chain, not at the end.
    undo->registerUndo(m_cue.get(), [weak, effect, index] {
      auto cue = weak.lock();
      if (!cue) return;
      cue->addEffect(effect);
      cue->moveEffectAtIndex(cue->effects()->size() - 1, std::min(index, cue->effects()->size() - 1));
    });
    if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Remove Effect"));
  }
  m_cue->removeEffect(effect);
  refreshEffects();
}

void CueInspectorController::deleteEffect(KyoEffectListView*, const std::shared_ptr<KyoEffect>& effect) {
  removeEffect(effect);
}

void CueInspectorController::setEffectEnabled(KyoEffectListView*, const std::shared_ptr<KyoEffect>& effect,
                                              bool enabled) {
  setEffectEnabledUndoably(undoManager(), m_cue, effect, enabled);
}

// -- The effects list's rows and drags

int CueInspectorController::numberOfChildrenOfItem(KyoOutlineView*, KyoOutlineItem item) {
  if (item || !m_cue || !m_cue->effects()) return 0;
  return static_cast<int>(m_cue->effects()->size());
}

KyoOutlineItem CueInspectorController::child(KyoOutlineView*, int index, KyoOutlineItem) {
  return (*m_cue->effects())[static_cast<size_t>(index)].get();
}

bool CueInspectorController::writeItems(KyoOutlineView* view, const std::vector<KyoOutlineItem>& items,
                                        QMimeData* pasteboard) {
  if (items.empty()) return false;
  const int index = view->indexOfItem(items.front());
  if (index < 0) return false;
  pasteboard->setData(QString::fromLatin1(kReorderTableType), QByteArray::number(index));
  return true;
}

// Effects go between rows only, never onto one.
Qt::DropAction CueInspectorController::validateDrop(KyoOutlineView*, const QMimeData* pasteboard, KyoOutlineItem item,
                                                    int) {
  if (item || !m_cue || !pasteboard->hasFormat(QString::fromLatin1(kReorderTableType))) return Qt::IgnoreAction;
  return Qt::MoveAction;
}

bool CueInspectorController::acceptDrop(KyoOutlineView*, const QMimeData* pasteboard, KyoOutlineItem, int childIndex) {
  bool ok = false;
  const long from = pasteboard->data(QString::fromLatin1(kReorderTableType)).toLong(&ok);
  const long count = m_cue && m_cue->effects() ? static_cast<long>(m_cue->effects()->size()) : 0;
  if (!ok || from < 0 || from >= count) return false;
  // The drop names a gap between rows (-1 below them all); the row leaves its own place first.
  long to = childIndex < 0 ? count : childIndex;
  if (to > from) --to;
  to = std::clamp(to, 0L, count - 1);
  moveEffectUndoably(undoManager(), m_cue, static_cast<size_t>(from), static_cast<size_t>(to));
  return true;
}

// -- Keys in the fields

bool CueInspectorController::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() != QEvent::KeyPress) return QObject::eventFilter(watched, event);
  auto* key = static_cast<QKeyEvent*>(event);
  if (watched == m_effectsTable) {
    // Delete here removes an effect, never the selected cue.
    if (key->key() == Qt::Key_Delete || key->key() == Qt::Key_Backspace) {
      removeEffect();
      return true;
    }
    return false;
  }
  if (qobject_cast<QLineEdit*>(watched)) return doCommandBySelector(key);
  return false;
}

bool CueInspectorController::doCommandBySelector(QKeyEvent* event) {
  WorkspaceController* window = m_workspaceController;
  if (!window) return false;
  if (event->key() == Qt::Key_Escape) {
    window->cancel();
    return true;
  }
  if (!(event->modifiers() & Qt::ControlModifier)) return false;
  switch (event->key()) {
    case Qt::Key_Down: window->moveDown(); return true;
    case Qt::Key_Up: window->moveUp(); return true;
    case Qt::Key_Left: window->moveLeft(); return true;
    case Qt::Key_Right: window->moveRight(); return true;
    default: return false;
  }
}

// -- Output

void CueInspectorController::setOutputs(const QStringList& titles, std::vector<OutputChoice> choices) {
  m_outputChoices = std::move(choices);
  const QSignalBlocker blocker(m_output);
  m_output->clear();
  m_output->addItems(titles);
  refreshOutput();
}

void CueInspectorController::refreshOutput() {
  if (!m_cue) return;
  const auto& device = m_cue->audioDevice();
  const QSignalBlocker blocker(m_output);
  m_output->setCurrentIndex(
      device ? m_output->findText(WorkspaceController::outputTitle(*device, m_cue->deviceChannel())) : -1);
}

// Another pair of the cue's device re-routes it; another device takes the cue over,
// opened and set to the cue's level.
void CueInspectorController::changeOutputDevice(int index) {
  if (!m_cue || index < 0 || static_cast<size_t>(index) >= m_outputChoices.size()) return;
  const OutputChoice choice = m_outputChoices[static_cast<size_t>(index)];
  const auto current = m_cue->audioDevice();
  if (current && !current->died() && current->deviceID() == choice.device->deviceID()) {
    if (choice.channel != m_cue->deviceChannel()) m_cue->setDeviceChannel(choice.channel);
    return;
  }
  if (current) current->close();
  choice.device->open();
  choice.device->setMasterVolume(m_cue->volume());
  m_cue->setAudioDevice(choice.device);
  m_cue->setDeviceChannel(choice.channel);
}
