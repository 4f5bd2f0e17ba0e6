#include "show/WorkspaceSettings.h"

#include <cmath>

#include "foundation/KyoLog.h"

namespace {

KyoHotKey keyWith(uint16_t keyCode, uint16_t character) {
  KyoHotKey key;
  key.setKeyCode(keyCode);
  key.setKeyCharacter(character);
  return key;
}

// A whole number in 0...65535, as the key fields are stored.
std::optional<uint16_t> unsignedShort(const QJsonValue& v) {
  if (!v.isDouble()) return std::nullopt;
  const double d = v.toDouble();
  if (!(d >= 0.0 && d <= 65535.0) || d != std::floor(d)) return std::nullopt;
  return static_cast<uint16_t>(d);
}

// Booleans as written, and 0 or 1 as older writers stored them.
std::optional<bool> flag(const QJsonValue& v) {
  if (v.isBool()) return v.toBool();
  if (v.isDouble() && (v.toDouble() == 0.0 || v.toDouble() == 1.0)) return v.toDouble() == 1.0;
  return std::nullopt;
}

}  // namespace

void WorkspaceSettings::resetToDefaults() {
  m_midiChannel = 0;
  m_panicDuration = 1.0f;
  m_pauseAllKey = keyWith(33, '[');
  m_resumeAllKey = keyWith(30, ']');
  m_duckMasterKey = keyWith(43, ',');
  m_performSafetyCheck = false;
}

bool WorkspaceSettings::setMidiChannel(long channel) {
  if (channel < 0 || channel > kMaxMidiChannel) return false;
  m_midiChannel = channel;
  return true;
}

bool WorkspaceSettings::setPanicDuration(float seconds) {
  if (!(seconds >= 0.0f)) return false;
  m_panicDuration = seconds;
  return true;
}

void WorkspaceSettings::clearHotkey(int tag) {
  switch (tag) {
    case kPauseAllTag: m_pauseAllKey.setEmpty(); break;
    case kResumeAllTag: m_resumeAllKey.setEmpty(); break;
    case kDuckMasterTag: m_duckMasterKey.setEmpty(); break;
    default: break;
  }
}

std::set<std::string> WorkspaceSettings::hotkeys() const {
  return {m_pauseAllKey.displayString(), m_resumeAllKey.displayString(), m_duckMasterKey.displayString()};
}

QJsonObject WorkspaceSettings::descriptorObject(const KyoHotKey::Descriptor& d) {
  QJsonObject o;
  if (d.keyCode) o.insert("keyCode", static_cast<qint64>(*d.keyCode));
  if (d.keyCharacter) o.insert("keyCharacter", static_cast<qint64>(*d.keyCharacter));
  if (d.capsLock) o.insert("capsLock", *d.capsLock);
  if (d.shift) o.insert("shift", *d.shift);
  if (d.control) o.insert("control", *d.control);
  if (d.option) o.insert("option", *d.option);
  if (d.command) o.insert("command", *d.command);
  if (d.function) o.insert("function", *d.function);
  return o;
}

KyoHotKey::Descriptor WorkspaceSettings::descriptorFromObject(const QJsonObject& o) {
  KyoHotKey::Descriptor d;
  d.keyCode = unsignedShort(o.value("keyCode"));
  d.keyCharacter = unsignedShort(o.value("keyCharacter"));
  d.capsLock = flag(o.value("capsLock"));
  d.shift = flag(o.value("shift"));
  d.control = flag(o.value("control"));
  d.option = flag(o.value("option"));
  d.command = flag(o.value("command"));
  d.function = flag(o.value("function"));
  return d;
}

QJsonObject WorkspaceSettings::state() const {
  QJsonObject keyMap;
  keyMap.insert(kPauseAllKey, descriptorObject(m_pauseAllKey.descriptor()));
  keyMap.insert(kResumeAllKey, descriptorObject(m_resumeAllKey.descriptor()));
  keyMap.insert(kDuckMasterKey, descriptorObject(m_duckMasterKey.descriptor()));
  QJsonObject midi;
  midi.insert(kMidiChannelKey, static_cast<qint64>(m_midiChannel));
  QJsonObject general;
  general.insert(kPanicDurationKey, static_cast<double>(m_panicDuration));
  general.insert(kPerformSafetyCheckKey, m_performSafetyCheck);
  QJsonObject state;
  state.insert(kKeyMapKey, keyMap);
  state.insert(kMIDIControlsKey, midi);
  state.insert(kGeneralSettingsKey, general);
  return state;
}

void WorkspaceSettings::setState(const std::optional<QJsonObject>& state) {
  if (!state) return;
  const QJsonValue keyMap = state->value(kKeyMapKey);
  if (keyMap.isObject()) {
    const QJsonObject map = keyMap.toObject();
    // A missing entry hands an empty descriptor on, which leaves that key as it is.
    m_pauseAllKey.setDescriptor(descriptorFromObject(map.value(kPauseAllKey).toObject()));
    m_resumeAllKey.setDescriptor(descriptorFromObject(map.value(kResumeAllKey).toObject()));
    m_duckMasterKey.setDescriptor(descriptorFromObject(map.value(kDuckMasterKey).toObject()));
  }
  const QJsonValue midi = state->value(kMIDIControlsKey);
  if (midi.isObject()) {
    const QJsonValue channel = midi.toObject().value(kMidiChannelKey);
    if (channel.isDouble()) {
      const double value = channel.toDouble();
      if (value != std::floor(value) || !setMidiChannel(static_cast<long>(value))) {
        KyoLog("Ignoring MIDI channel %g of the settings: not 0 to 16", value);
      }
    }
  }
  const QJsonValue general = state->value(kGeneralSettingsKey);
  if (general.isObject()) {
    const QJsonObject g = general.toObject();
    if (const auto check = flag(g.value(kPerformSafetyCheckKey))) m_performSafetyCheck = *check;
    const QJsonValue duration = g.value(kPanicDurationKey);
    if (duration.isDouble() && !setPanicDuration(static_cast<float>(duration.toDouble()))) {
      KyoLog("Ignoring panic duration %g of the settings: negative", duration.toDouble());
    }
  }
}
