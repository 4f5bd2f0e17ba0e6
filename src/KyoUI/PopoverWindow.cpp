#include "KyoUI/PopoverWindow.h"

#include <QCoreApplication>
#include <QKeyEvent>

PopoverWindow::PopoverWindow(QWidget* view, QPointF screenPoint, int side, QWidget* parentWindow)
    : MAAttachedWindow(view, screenPoint, nullptr, side, 0, parentWindow) {}

void PopoverWindow::resignKey() {
  if (m_resigned) return;
  m_resigned = true;
  emit didResignKey();
  if (QWidget* parent = parentWidget(); parent && isActiveWindow()) parent->window()->activateWindow();
}

bool PopoverWindow::event(QEvent* event) {
  if (event->type() == QEvent::WindowActivate || event->type() == QEvent::Show) m_resigned = false;
  if (event->type() == QEvent::WindowDeactivate) resignKey();
  return MAAttachedWindow::event(event);
}

void PopoverWindow::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) return MAAttachedWindow::keyPressEvent(event);
  if (QWidget* parent = parentWidget()) {
    // A copy, since the parent's handlers may accept or ignore it as their own.
    QWidget* window = parent->window();
    QWidget* target = window->focusWidget() ? window->focusWidget() : window;
    QKeyEvent copy(event->type(), event->key(), event->modifiers(), event->nativeScanCode(), event->nativeVirtualKey(),
                   event->nativeModifiers(), event->text(), event->isAutoRepeat(), event->count());
    QCoreApplication::sendEvent(target, &copy);
  }
  event->accept();
  resignKey();
}
