#include "show/SontoLogger.h"

#include <QDateTime>
#include <QJsonArray>

#include <cmath>

#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"

SontoLogger::SontoLogger() : m_log(std::make_shared<std::vector<std::string>>()) {}

std::string SontoLogger::entryForMessage(const std::string& message, double wallClockSeconds) {
  const auto ms = static_cast<qint64>(std::floor(wallClockSeconds * 1000.0));
  const QString stamp = QDateTime::fromMSecsSinceEpoch(ms).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
  return stamp.toStdString() + " - " + message;
}

void SontoLogger::appendLog(const std::string& message) {
  if (m_muted) {
    KyoLog("muted: %s", message.c_str());
    return;
  }
  m_log->push_back(entryForMessage(message, KyoWallClockSeconds()));
  KyoNotificationCenter::defaultCenter().postNotification(kLogUpdatedNotification, this);
}

void SontoLogger::clearLog() {
  m_log->clear();
  KyoNotificationCenter::defaultCenter().postNotification(kLogUpdatedNotification, this);
}

bool SontoLogger::toggleMute() {
  m_muted = !m_muted;
  return m_muted;
}

std::string SontoLogger::stringWithContentsOfLog() const {
  std::string text;
  for (const std::string& entry : *m_log) {
    text += entry;
    text += '\n';
  }
  return text;
}

void SontoLogger::setLog(std::shared_ptr<std::vector<std::string>> log) {
  m_log = log ? std::move(log) : std::make_shared<std::vector<std::string>>();
}

void SontoLogger::setLog(const std::vector<std::string>& log) {
  m_log = std::make_shared<std::vector<std::string>>(log);
}

std::shared_ptr<SontoLogger> SontoLogger::copy() const {
  auto logger = std::make_shared<SontoLogger>();
  logger->setLog(m_log);
  return logger;
}

QJsonObject SontoLogger::archive() const {
  QJsonArray entries;
  for (const std::string& entry : *m_log) entries.append(QString::fromStdString(entry));
  QJsonObject object;
  object.insert(QStringLiteral("$class"), QStringLiteral("SontoLogger"));
  object.insert(QStringLiteral("log"), entries);
  return object;
}

std::shared_ptr<SontoLogger> SontoLogger::fromArchive(const QJsonObject& archive) {
  auto logger = std::make_shared<SontoLogger>();
  const QJsonArray entries = archive.value(QStringLiteral("log")).toArray();
  for (const QJsonValue& entry : entries) {
    if (entry.isString()) logger->m_log->push_back(entry.toString().toStdString());
  }
  return logger;
}
