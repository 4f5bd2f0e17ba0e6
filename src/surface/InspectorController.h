#pragma once
// The pane under the grid in edit mode. It holds the cue inspector and, one pane's
// height below it out of sight, the list of broken cues, and slides between the two.
// It is also the first to hear a MIDI batch, for as long as a note is being
// captured. Main thread only.

#include <QObject>
#include <QPointer>
#include <QWidget>

#include <memory>
#include <vector>

#include "show/SontoMIDIMessage.h"

class AudioCue;
class BrokenCueController;
class CueInspectorController;
class QVariantAnimation;
class WorkspaceController;

class InspectorController : public QObject {
  Q_OBJECT

 public:
  // Milliseconds of the slide between the inspector and the broken cue list.
  static constexpr int kSlideMilliseconds = 200;

  InspectorController(WorkspaceController* workspaceController, QWidget* pane);
  ~InspectorController() override;

  QWidget* inspectorView() const { return m_inspectorView; }
  CueInspectorController* cueInspectorController() const { return m_cueInspectorController.get(); }
  QWidget* brokenCueView() const { return m_brokenCueView; }
  bool brokenCueViewIsVisible() const { return m_brokenCueViewIsVisible; }
  BrokenCueController* brokenCueController() const { return m_brokenCueController; }
  void setBrokenCueController(BrokenCueController* controller) { m_brokenCueController = controller; }

  AudioCue* cue() const;
  void setCue(std::shared_ptr<AudioCue> cue);
  void refreshInspector();

  // The swap between the cue and the list of broken cues.
  void showBrokenCueView();
  void toggleBrokenCueView();

  // True when the batch was taken as a captured note; then no cue fires.
  bool processMIDIMessages(const std::vector<SontoMIDIMessage>& messages);

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  QRect frameForInspectorView() const;
  QRect frameForBrokenCueView() const;
  void slide();

  WorkspaceController* m_workspaceController;
  QWidget* m_inspectorView;
  std::unique_ptr<CueInspectorController> m_cueInspectorController;
  QWidget* m_brokenCueView = nullptr;
  BrokenCueController* m_brokenCueController = nullptr;
  bool m_brokenCueViewIsVisible = false;
  QPointer<QVariantAnimation> m_slide;
};
