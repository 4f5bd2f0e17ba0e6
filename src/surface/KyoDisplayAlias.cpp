#include "surface/KyoDisplayAlias.h"

#include <QGuiApplication>
#include <QScreen>

#include "foundation/KyoLog.h"

namespace KyoNSScreen {

// FNV-1a of the connector's name: stable across starts, unlike a list position.
uint32_t displayID(const QScreen* screen) {
  if (!screen) return 0;
  uint32_t hash = 2166136261u;
  for (char byte : screen->name().toUtf8()) {
    hash ^= static_cast<uint8_t>(byte);
    hash *= 16777619u;
  }
  return hash;
}

QString displayName(const QScreen* screen) {
  if (!screen) return {};
  const QString model = screen->model().trimmed();
  return model.isEmpty() ? QStringLiteral("Unnamed") : model;
}

QString serialNumber(const QScreen* screen) { return screen ? screen->serialNumber() : QString(); }

namespace {
template <typename Match>
QScreen* firstScreen(Match match) {
  for (QScreen* screen : QGuiApplication::screens()) {
    if (match(screen)) return screen;
  }
  return nullptr;
}
}  // namespace

QScreen* screenWithDisplayID(uint32_t id) {
  return firstScreen([id](QScreen* screen) { return displayID(screen) == id; });
}

// A display that gives no serial matches no serial, not even an empty one.
QScreen* screenWithSerialNumber(const QString& serial) {
  if (serial.isEmpty()) return nullptr;
  return firstScreen([&serial](QScreen* screen) { return serialNumber(screen) == serial; });
}

QScreen* screenWithDisplayName(const QString& name) {
  if (name.isEmpty()) return nullptr;
  return firstScreen([&name](QScreen* screen) { return displayName(screen) == name; });
}

}  // namespace KyoNSScreen

KyoDisplayAlias::KyoDisplayAlias(const QScreen* screen)
    : m_displayID(KyoNSScreen::displayID(screen)),
      m_serial(KyoNSScreen::serialNumber(screen)),
      m_name(KyoNSScreen::displayName(screen)) {}

QScreen* KyoDisplayAlias::matchingScreen() const {
  if (QScreen* screen = KyoNSScreen::screenWithDisplayID(m_displayID)) return screen;
  if (QScreen* screen = KyoNSScreen::screenWithSerialNumber(m_serial)) return screen;
  return KyoNSScreen::screenWithDisplayName(m_name);
}

QJsonObject KyoDisplayAlias::archive() const {
  return {{QStringLiteral("displayID"), static_cast<qint64>(m_displayID)},
          {QStringLiteral("serial"), m_serial},
          {QStringLiteral("name"), m_name}};
}

KyoDisplayAlias KyoDisplayAlias::decoded(const QJsonObject& archive) {
  KyoDisplayAlias alias;
  alias.m_displayID = static_cast<uint32_t>(archive.value(QStringLiteral("displayID")).toInteger());
  alias.m_serial = archive.value(QStringLiteral("serial")).toString();
  alias.m_name = archive.value(QStringLiteral("name")).toString();
  KyoLog("decoded with id %u, serial %s, name %s", alias.m_displayID, alias.m_serial.toUtf8().constData(),
         alias.m_name.toUtf8().constData());
  return alias;
}
