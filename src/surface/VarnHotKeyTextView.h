#pragma once
// The small field in which the operator sets a workspace hot key: it takes no text,
// it records the next key press into its KyoHotKey and shows the key's display
// string. Tab moves on, Return ends the entry, Escape is the show's cancel (panic).
// Main thread only.

#include <QPointer>
#include <QString>
#include <QWidget>

#include "foundation/KyoHotKey.h"

class VarnHotKeyTextView : public QWidget {
  Q_OBJECT

 public:
  // Cleared by every key release, as the grid's held-key marker.
  static constexpr const char* kKeyDownEnvironmentKey = "VarnKeyDownGO";

  explicit VarnHotKeyTextView(QWidget* parent = nullptr);

  // The value is owned by the view. A caller that changed key() in place passes it
  // back to setKey to redraw.
  KyoHotKey& key() { return m_key; }
  const KyoHotKey& key() const { return m_key; }
  void setKey(const KyoHotKey& key);

  // A view that is not editable drops every key, Tab included.
  bool isEditable() const { return m_editable; }
  void setEditable(bool editable) { m_editable = editable; }

  // Where Shift+Tab goes instead of the focus chain's previous widget; none by default.
  QWidget* previousKeyView() const { return m_previousKeyView; }
  void setPreviousKeyView(QWidget* view) { m_previousKeyView = view; }

  // The text as shown: the key's display string.
  const QString& displayedText() const { return m_text; }
  void refreshView();

  QSize sizeHint() const override;

 signals:
  // Around every capture attempt, also one that the key refused.
  void hotKeyWillChange();
  void hotKeyDidChange();
  // Escape: the show's cancel, in every open workspace.
  void cancel();

 protected:
  bool event(QEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void keyReleaseEvent(QKeyEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  bool focusNextPrevChild(bool next) override;

 private:
  KyoHotKey m_key;
  QString m_text;
  bool m_editable = true;
  QPointer<QWidget> m_previousKeyView;
};
