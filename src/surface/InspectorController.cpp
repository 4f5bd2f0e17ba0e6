#include "surface/InspectorController.h"

#include <QEvent>
#include <QTableWidget>
#include <QVariantAnimation>

#include "show/AudioCue.h"
#include "surface/BrokenCueController.h"
#include "surface/CueInspectorController.h"
#include "surface/WorkspaceController.h"

InspectorController::InspectorController(WorkspaceController* workspaceController, QWidget* pane)
    : QObject(pane), m_workspaceController(workspaceController), m_inspectorView(pane) {
  m_cueInspectorController = std::make_unique<CueInspectorController>(workspaceController, m_inspectorView);

  // The slot of the broken cue list: the safety check's controller fills it.
  m_brokenCueView = new QWidget(m_inspectorView);
  m_brokenCueView->setObjectName(QStringLiteral("brokenCueView"));
  m_brokenCueView->setAutoFillBackground(true);
  m_brokenCueView->setGeometry(frameForBrokenCueView());
  m_inspectorView->installEventFilter(this);
  refreshInspector();
}

InspectorController::~InspectorController() {
  if (m_slide) m_slide->stop();
  m_inspectorView->removeEventFilter(this);
}

AudioCue* InspectorController::cue() const { return m_cueInspectorController->cue(); }

void InspectorController::setCue(std::shared_ptr<AudioCue> cue) {
  m_cueInspectorController->setCue(std::move(cue));
  refreshInspector();
}

// With no cue the inspector shows its empty state rather than stale fields.
void InspectorController::refreshInspector() {
  if (m_brokenCueViewIsVisible) return;
  QWidget* view = m_cueInspectorController->view();
  view->setGeometry(frameForInspectorView());
  view->show();
  m_cueInspectorController->refreshContents();
}

QRect InspectorController::frameForInspectorView() const {
  QRect bounds = m_inspectorView->rect();
  if (m_brokenCueViewIsVisible) bounds.translate(0, -bounds.height());
  return bounds;
}

QRect InspectorController::frameForBrokenCueView() const {
  QRect bounds = m_inspectorView->rect();
  if (!m_brokenCueViewIsVisible) bounds.translate(0, bounds.height());
  return bounds;
}

void InspectorController::showBrokenCueView() {
  if (!m_workspaceController) return;
  if (m_brokenCueController) m_brokenCueController->hidePopover();
  m_workspaceController->setEditMode();
  m_workspaceController->showInspector();
  if (!m_brokenCueViewIsVisible) toggleBrokenCueView();
}

void InspectorController::toggleBrokenCueView() {
  WorkspaceController* window = m_workspaceController;
  if (!window) return;
  const bool was = m_brokenCueViewIsVisible;
  if (window->inShowMode()) {
    window->setEditMode();
    m_brokenCueViewIsVisible = true;
  } else if (window->isInspectorVisible()) {
    m_brokenCueViewIsVisible = !m_brokenCueViewIsVisible;
  } else {
    m_brokenCueViewIsVisible = true;
  }
  if (was && !m_brokenCueViewIsVisible) {
    slide();
    window->makeCartFirstResponder();
  } else {
    window->showInspector();
    slide();
    if (m_brokenCueController) {
      m_brokenCueController->hidePopover();
      m_brokenCueController->brokenCueTableView()->setFocus(Qt::OtherFocusReason);
    }
  }
  if (m_brokenCueController) m_brokenCueController->reloadData();
  refreshInspector();
}

// Both views move by one pane's height. No cross-fade: an opacity effect would
// repaint the whole inspector for every strip the waveform's cursor redraws.
void InspectorController::slide() {
  if (m_slide) m_slide->stop();
  QWidget* cueView = m_cueInspectorController->view();
  const QRect cueFrom = cueView->geometry(), cueTo = frameForInspectorView();
  const QRect listFrom = m_brokenCueView->geometry(), listTo = frameForBrokenCueView();
  auto* animation = new QVariantAnimation(this);
  animation->setDuration(kSlideMilliseconds);
  animation->setStartValue(0.0);
  animation->setEndValue(1.0);
  auto lerp = [](const QRect& a, const QRect& b, double t) {
    return QRect(a.x() + static_cast<int>((b.x() - a.x()) * t), a.y() + static_cast<int>((b.y() - a.y()) * t),
                 b.width(), b.height());
  };
  connect(animation, &QVariantAnimation::valueChanged, this, [=, this](const QVariant& value) {
    const double t = value.toDouble();
    cueView->setGeometry(lerp(cueFrom, cueTo, t));
    m_brokenCueView->setGeometry(lerp(listFrom, listTo, t));
  });
  m_slide = animation;
  animation->start(QAbstractAnimation::DeleteWhenStopped);
}

// The views keep their places when the pane is resized.
bool InspectorController::eventFilter(QObject* watched, QEvent* event) {
  if (watched == m_inspectorView && event->type() == QEvent::Resize) {
    if (m_slide) m_slide->stop();
    m_cueInspectorController->view()->setGeometry(frameForInspectorView());
    m_brokenCueView->setGeometry(frameForBrokenCueView());
  }
  return QObject::eventFilter(watched, event);
}

bool InspectorController::processMIDIMessages(const std::vector<SontoMIDIMessage>& messages) {
  CueInspectorController* inspector = m_cueInspectorController.get();
  if (!inspector->captureMIDI()) return false;
  // A batch that the channel filter emptied leaves the capture waiting.
  if (messages.empty()) return true;
  if (AudioCue* cue = inspector->cue()) cue->setMidiTriggerFrom(messages.front());
  inspector->setCaptureMIDI(false);
  return true;
}
