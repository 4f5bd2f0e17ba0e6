#pragma once
// Remembers a display by three identities and finds it again: the system's display
// number (the screen's connector, which may change between boots), the serial number,
// and the product name, tried in that order. So the number wins over the serial, and
// the bare name is the last resort: of two displays of one model with no serial, the
// first in the screen list is taken. Main thread (screens are the GUI's).

#include <QJsonObject>
#include <QString>

#include <cstdint>

class QScreen;

namespace KyoNSScreen {
// A number per connector: the same output gives the same number on every start.
uint32_t displayID(const QScreen* screen);
// The product name, "Unnamed" when the display gives none.
QString displayName(const QScreen* screen);
// Empty when the display gives none.
QString serialNumber(const QScreen* screen);
QScreen* screenWithDisplayID(uint32_t displayID);
QScreen* screenWithSerialNumber(const QString& serial);
QScreen* screenWithDisplayName(const QString& name);
}  // namespace KyoNSScreen

class KyoDisplayAlias {
 public:
  KyoDisplayAlias() = default;
  explicit KyoDisplayAlias(const QScreen* screen);
  static KyoDisplayAlias displayAliasWithScreen(const QScreen* screen) { return KyoDisplayAlias(screen); }

  uint32_t displayID() const { return m_displayID; }
  const QString& serial() const { return m_serial; }
  const QString& name() const { return m_name; }

  QScreen* matchingScreen() const;
  bool matchingDisplayIsAttached() const { return matchingScreen() != nullptr; }

  // Keys "displayID", "serial", "name".
  QJsonObject archive() const;
  static KyoDisplayAlias decoded(const QJsonObject& archive);

 private:
  uint32_t m_displayID = 0;
  QString m_serial;
  QString m_name;
};
