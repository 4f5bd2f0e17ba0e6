#pragma once
// The workspace log: what played and the warnings of the grid, kept in the show
// file for the operator. Not the diagnostic log. Main thread, except that a save
// reads it from its own thread while the main thread waits.

#include <QJsonObject>

#include <memory>
#include <string>
#include <vector>

class SontoLogger {
 public:
  static constexpr const char* kLogUpdatedNotification = "SontoLogUpdatedNotification";

  SontoLogger();

  // Stamps the message with the local time of the installed clock, unless muted.
  void appendLog(const std::string& message);
  void clearLog();
  // Answers the new value.
  bool toggleMute();
  bool muted() const { return m_muted; }

  // Entries joined by newlines with one at the end; empty for an empty log.
  std::string stringWithContentsOfLog() const;
  const std::vector<std::string>& log() const { return *m_log; }
  void setLog(std::shared_ptr<std::vector<std::string>> log);
  void setLog(const std::vector<std::string>& log);

  // Shares the entries with this logger; muting is not copied.
  std::shared_ptr<SontoLogger> copy() const;

  // {"$class": "SontoLogger", "log": [...]}
  QJsonObject archive() const;
  // Entries that are not strings are skipped; anything else missing gives an empty log.
  static std::shared_ptr<SontoLogger> fromArchive(const QJsonObject& archive);

  // "yyyy-MM-dd HH:mm:ss - message", local time.
  static std::string entryForMessage(const std::string& message, double wallClockSeconds);

 private:
  std::shared_ptr<std::vector<std::string>> m_log;
  bool m_muted = false;
};
