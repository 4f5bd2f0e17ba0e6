#pragma once
// The editor of one cue under the grid: name, key, MIDI note with capture, volume,
// colour, preview, effects, and the waveform with the in and out times.
//
// The fields never write undo steps themselves. They change the cue; the controller
// follows the cue's changes, and every change, wherever it came from (a field, the
// waveform, a menu, an undo), registers its own inverse and refreshes its field. So a
// change made elsewhere is undone the same way as one typed here. Main thread only.

#include <QAbstractButton>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QWidget>

#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "effects/ui/KyoEffectListView.h"
#include "foundation/SontoColor.h"

class AudioCue;
class KyoAudioDevice;
class QComboBox;
class AudioWaveformView;
class KyoEffect;
class QButtonGroup;
class QLabel;
class QLineEdit;
class QMenu;
class QPushButton;
class QScrollArea;
class QSlider;
class QToolButton;
class SontoUndoManager;
class WorkspaceController;

// The gradient backdrop of the pane.
class CueInspectorView : public QWidget {
  Q_OBJECT
 public:
  using QWidget::QWidget;

 protected:
  void paintEvent(QPaintEvent* event) override;
};

// One swatch of the palette; checked for the colour of the cue shown.
class SontoColorCell : public QAbstractButton {
  Q_OBJECT
 public:
  SontoColorCell(const SontoColor& color, QWidget* parent);
  const SontoColor& color() const { return m_color; }
  QSize sizeHint() const override { return {26, 26}; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  SontoColor m_color;
};

class CueInspectorController : public QObject, public KyoOutlineViewDataSource, public KyoEffectListDelegate {
  Q_OBJECT

 public:
  // Slider positions per unit of linear gain.
  static constexpr int kVolumeSteps = 1000;

  explicit CueInspectorController(WorkspaceController* workspaceController, QWidget* parentView = nullptr);
  ~CueInspectorController() override;

  CueInspectorView* view() const { return m_view; }
  AudioCue* cue() const { return m_cue.get(); }
  // Whether changes of this cue are being followed, and so made undoable, here.
  bool observes(const AudioCue* cue) const { return cue && cue == m_cue.get(); }
  void setCue(std::shared_ptr<AudioCue> cue);
  WorkspaceController* workspaceController() const { return m_workspaceController; }

  // The rows of the window's output popup, given again whenever it is rebuilt.
  struct OutputChoice {
    std::shared_ptr<KyoAudioDevice> device;
    long channel = 1;
  };
  void setOutputs(const QStringList& titles, std::vector<OutputChoice> choices);
  void changeOutputDevice(int index);

  void refreshContents();
  void updateColor();
  void updatePreviewImage();

  // Actions of the fields, as the operator's input calls them.
  void changeColor(const std::string& name);
  void togglePreview();
  void updateHotkey();
  void updateMIDINote();
  void setStartTime(const QString& text);
  void setEndTime(const QString& text);
  void setStartEndFromSelection();
  void setVolumeFromSlider();
  void setFinalVolumeFromSlider();

  // MIDI learn: the next note that reaches the window becomes the cue's trigger.
  bool captureMIDI() const { return m_captureMIDI; }
  void setCaptureMIDI(bool capture);
  void captureMIDINote() { setCaptureMIDI(!m_captureMIDI); }

  void addEffect(const std::shared_ptr<KyoEffect>& prototype);
  // The selected effect, as the Delete key asks.
  void removeEffect();
  void removeEffect(const std::shared_ptr<KyoEffect>& effect);

  // The effects list: its rows are the cue's effects, in the order of the chain.
  int numberOfChildrenOfItem(KyoOutlineView* view, KyoOutlineItem item) override;
  KyoOutlineItem child(KyoOutlineView* view, int index, KyoOutlineItem item) override;
  bool writeItems(KyoOutlineView* view, const std::vector<KyoOutlineItem>& items, QMimeData* pasteboard) override;
  Qt::DropAction validateDrop(KyoOutlineView* view, const QMimeData* pasteboard, KyoOutlineItem item,
                              int childIndex) override;
  bool acceptDrop(KyoOutlineView* view, const QMimeData* pasteboard, KyoOutlineItem item, int childIndex) override;
  void deleteEffect(KyoEffectListView* view, const std::shared_ptr<KyoEffect>& effect) override;
  void setEffectEnabled(KyoEffectListView* view, const std::shared_ptr<KyoEffect>& effect, bool enabled) override;

  // The widgets, for the window's focus chain and for tests.
  QLabel* noCueLabel() const { return m_noCueLabel; }
  QLineEdit* nameField() const { return m_name; }
  QLineEdit* hotkeyField() const { return m_hotkey; }
  QLineEdit* midiNoteField() const { return m_midiNote; }
  QPushButton* captureButton() const { return m_captureButton; }
  QSlider* volumeSlider() const { return m_volumeSlider; }
  QLabel* volumeLabel() const { return m_volumeLabel; }
  QButtonGroup* colors() const { return m_colors; }
  QToolButton* previewToggle() const { return m_previewToggle; }
  QToolButton* effectsButton() const { return m_effectsButton; }
  KyoEffectListView* effectsTable() const { return m_effectsTable; }
  QLineEdit* startTimeField() const { return m_startTimeField; }
  QLineEdit* endTimeField() const { return m_endTimeField; }
  AudioWaveformView* waveformView() const { return m_waveformView; }
  QScrollArea* waveformScrollView() const { return m_waveformScroll; }
  float volumeCopy() const { return m_volumeCopy; }

  // "-6.0 dB", or "-inf dB" for silence: operators read levels in decibels.
  static QString volumeText(float volume);

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void buildView();
  void buildEffectsMenu();
  void observeCue();
  void refreshEffects();
  void refreshTimes();
  void refreshOutput();
  void refreshVolumeLabel();
  SontoUndoManager* undoManager() const;
  // The field editors' commands that belong to the window: Escape is the panic,
  // Ctrl and an arrow move in the grid.
  bool doCommandBySelector(QKeyEvent* event);

  // What the cue held when last seen, so that a change knows its old value.
  struct Seen {
    std::string name;
    std::string hotkey;
    std::optional<int> midiNote;
    SontoColor color = SontoColor::defaultColor();
    float volume = 0.0f;
    double startTime = 0.0;
    double endTime = 0.0;
  };
  void nameChanged();
  void hotkeyChanged();
  void midiNoteChanged();
  void colorChanged();
  void volumeChanged();
  void startTimeChanged();
  void endTimeChanged();

  WorkspaceController* m_workspaceController;
  CueInspectorView* m_view = nullptr;
  std::shared_ptr<AudioCue> m_cue;
  std::vector<QMetaObject::Connection> m_observers;
  Seen m_seen;

  QLabel* m_noCueLabel = nullptr;
  QWidget* m_fields = nullptr;
  QLineEdit* m_name = nullptr;
  QLineEdit* m_hotkey = nullptr;
  QLineEdit* m_midiNote = nullptr;
  bool m_captureMIDI = false;
  QToolButton* m_effectsButton = nullptr;
  QSlider* m_volumeSlider = nullptr;
  QLabel* m_volumeLabel = nullptr;
  QPushButton* m_captureButton = nullptr;
  QMenu* m_effectsMenu = nullptr;
  bool m_effectsMenuBuilt = false;
  KyoEffectListView* m_effectsTable = nullptr;
  QButtonGroup* m_colors = nullptr;
  AudioWaveformView* m_waveformView = nullptr;
  QScrollArea* m_waveformScroll = nullptr;
  QLineEdit* m_startTimeField = nullptr;
  QLineEdit* m_endTimeField = nullptr;
  QToolButton* m_previewToggle = nullptr;
  QComboBox* m_output = nullptr;
  std::vector<OutputChoice> m_outputChoices;
  // The volume before a slider drag; -infinity while no drag is open.
  float m_volumeCopy = -std::numeric_limits<float>::infinity();
  // Counts scheduled ends of a slider change, so that only the last one acts.
  unsigned m_finalVolumeGeneration = 0;
};
