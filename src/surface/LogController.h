#pragma once
// The window of a workspace's log: every entry of what played, redrawn whole when
// the logger announces a change, with buttons to pause logging and to clear it.
// A window of its own even when it has a parent. Main thread only.

#include <QWidget>
#include <memory>

#include "foundation/KyoNotificationCenter.h"

class QPlainTextEdit;
class QPushButton;
class SontoLogger;

class LogController : public QWidget {
  Q_OBJECT

 public:
  explicit LogController(std::shared_ptr<SontoLogger> logger, QWidget* parent = nullptr);
  ~LogController() override;

  const std::shared_ptr<SontoLogger>& logger() const { return m_logger; }
  // Follows the new logger's notifications instead of the old one's; null shows an
  // empty log with the buttons disabled.
  void setLogger(std::shared_ptr<SontoLogger> logger);

  void refreshLog();
  void toggleMute();
  void updateMuteButton();
  void clearLog();

  QPlainTextEdit* textView() const { return m_textView; }
  QPushButton* muteButton() const { return m_muteButton; }
  QPushButton* clearButton() const { return m_clearButton; }

 private:
  QPlainTextEdit* m_textView = nullptr;
  std::shared_ptr<SontoLogger> m_logger;
  QPushButton* m_muteButton = nullptr;
  QPushButton* m_clearButton = nullptr;
  KyoScopedObserver m_observer;
};
