#pragma once
// The attached window of the broken cue warning: it points at a button of its parent
// window, and every key but Return and Enter goes on to that window, so the show's
// keys keep working while it is up. Main thread only.

#include "KyoUI/MAAttachedWindow.h"

class QKeyEvent;

class PopoverWindow : public MAAttachedWindow {
  Q_OBJECT

 public:
  // `screenPoint` on the screen; `parentWindow` is the window of the button, which the
  // popover stays above and whose moves it follows.
  PopoverWindow(QWidget* view, QPointF screenPoint, int side, QWidget* parentWindow);

  // Gives up the key status: didResignKey, once until the popover is shown or active
  // again, and the parent window becomes active.
  void resignKey();

 signals:
  // The popover lost the activation (a click elsewhere) or passed a key on. The owner
  // closes it.
  void didResignKey();

 protected:
  bool event(QEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;

 private:
  bool m_resigned = false;
};
