#pragma once
// A small sheet over a window with one line of text and a bar that only says "busy",
// for work of unknown length (a save). It appears only when the work outlasts a
// moment, so that a quick save does not flash it. Main thread only.

#include <QPointer>
#include <QString>
#include <QWidget>

class SontoProgressSheet : public QWidget {
  Q_OBJECT

 public:
  // Seconds of work before the sheet shows itself.
  static constexpr int kShowAfterMilliseconds = 300;

  explicit SontoProgressSheet(const QString& text, QWidget* window);
  // Shows itself over the window if not hidden before the moment has passed.
  void showOnWindow();
  // Hides and deletes itself.
  void hideSheet();

 private:
  QPointer<QWidget> m_window;
  bool m_finished = false;
};
