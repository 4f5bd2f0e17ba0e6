#include "surface/VarnHotKeyTextView.h"

#include <QKeyEvent>
#include <QPainter>
#include <any>

#include "foundation/KyoEnvironment.h"
#include "foundation/KyoKeyCodes.h"
#include "surface/SontoKeyEvents.h"
#include "surface/SontoTheme.h"

namespace {

QColor rgb(double red, double green, double blue, double alpha = 1.0) {
  return QColor::fromRgbF(static_cast<float>(red), static_cast<float>(green), static_cast<float>(blue),
                          static_cast<float>(alpha));
}

}  // namespace

VarnHotKeyTextView::VarnHotKeyTextView(QWidget* parent) : QWidget(parent) {
  setFocusPolicy(Qt::StrongFocus);
  setAttribute(Qt::WA_OpaquePaintEvent);
  // Keys are read from their physical position, so no input method may compose them.
  setAttribute(Qt::WA_InputMethodEnabled, false);
  QFont font = this->font();
  font.setPointSizeF(14.0);
  setFont(font);
  refreshView();
}

void VarnHotKeyTextView::setKey(const KyoHotKey& key) {
  m_key = key;
  refreshView();
}

void VarnHotKeyTextView::refreshView() {
  m_text = QString::fromStdString(m_key.displayString());
  update();
}

QSize VarnHotKeyTextView::sizeHint() const {
  const QFontMetrics metrics(font());
  return {std::max(110, metrics.horizontalAdvance(m_text) + 16), metrics.height() + 8};
}

bool VarnHotKeyTextView::event(QEvent* event) {
  if (event->type() == QEvent::ShortcutOverride && m_editable) {
    // While recording, a key that is also a menu shortcut (Ctrl+Z, a cue key) is
    // the key being set, not a command.
    event->accept();
    return true;
  }
  if (event->type() == QEvent::KeyPress && !m_editable) {
    event->accept();
    return true;
  }
  return QWidget::event(event);
}

bool VarnHotKeyTextView::focusNextPrevChild(bool next) {
  if (!next && m_previousKeyView) {
    m_previousKeyView->setFocus(Qt::BacktabFocusReason);
    return true;
  }
  return QWidget::focusNextPrevChild(next);
}

void VarnHotKeyTextView::keyPressEvent(QKeyEvent* event) {
  event->accept();
  const KyoKeyEvent keyEvent = SontoKeyEventFromQt(*event);
  const int qtKey = event->key();
  // Tab reaches here only with Control or Alt down; it moves on all the same.
  if (keyEvent.keyCode == KyoKeyCode::kTab || qtKey == Qt::Key_Tab || qtKey == Qt::Key_Backtab) {
    focusNextPrevChild(qtKey != Qt::Key_Backtab && !(event->modifiers() & Qt::ShiftModifier));
    return;
  }
  if (keyEvent.keyCode == KyoKeyCode::kEscape || qtKey == Qt::Key_Escape) {
    emit cancel();
    return;
  }
  if (keyEvent.keyCode == KyoKeyCode::kReturn || keyEvent.keyCode == KyoKeyCode::kKeypadEnter ||
      qtKey == Qt::Key_Return || qtKey == Qt::Key_Enter) {
    clearFocus();
    return;
  }
  emit hotKeyWillChange();
  // A key without a known position could not be matched later to the one pressed,
  // since every unknown key would look the same: refused like the other non-keys.
  if (keyEvent.keyCode != KyoKeyCode::kUnknown) m_key.setFromKeyEvent(keyEvent);
  refreshView();
  emit hotKeyDidChange();
}

void VarnHotKeyTextView::keyReleaseEvent(QKeyEvent* event) {
  KyoEnvironment::setObject(std::any(), kKeyDownEnvironmentKey);
  QWidget::keyReleaseEvent(event);
}

void VarnHotKeyTextView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  const int w = width();
  const int h = height();
  painter.fillRect(QRect(0, 0, w, 1), rgb(0.25, 0.246, 0.246, 0.45));
  painter.fillRect(QRect(0, 1, w, h - 1), rgb(0.08, 0.08, 0.08));
  const QRect inner = rect().adjusted(1, 1, -1, -1);
  painter.fillRect(inner, rgb(0.105, 0.101, 0.101));
  if (hasFocus()) {
    // The theme's focus ring: the operator must see which key is being recorded.
    painter.setPen(QPen(QColor(SontoTheme::kSelectionRed, SontoTheme::kSelectionGreen, SontoTheme::kSelectionBlue), 2));
    painter.drawRect(rect().adjusted(1, 1, -1, -1));
  }
  painter.setPen(Qt::white);
  painter.setFont(font());
  painter.drawText(rect().adjusted(3, 2, -3, -2), Qt::AlignCenter, m_text);
}
