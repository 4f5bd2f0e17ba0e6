#pragma once
// The preferences window: the process-wide log level, kept in the user defaults
// under "LogLevel" and applied at once. One for the application. Main thread only.

#include <QDialog>

class QComboBox;

class PrefsController : public QDialog {
  Q_OBJECT

 public:
  static constexpr const char* kLogLevelKey = "LogLevel";
  static constexpr const char* kFrameKey = "PrefsController";
  static constexpr int kHighestLogLevel = 3;  // 3 logs everything, down to each cycle's news

  explicit PrefsController(QWidget* parent = nullptr);
  ~PrefsController() override;

  // The one window, made on first use.
  static PrefsController& shared();

  // The popup's choice: stored, applied and logged.
  void setLogLevel(int level);
  QComboBox* logLevelPopup() const { return m_logLevel; }

 private:
  QComboBox* m_logLevel = nullptr;
};
