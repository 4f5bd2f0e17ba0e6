#pragma once
// The per-workspace settings: MIDI channel filter, panic fade, the three workspace
// hot keys and the safety check switch. The values live here, not in a window; the
// settings sheet shows and edits them. Their dictionary form is the "settings"
// entry of the workspace file. Main thread.

#include <QJsonObject>

#include <optional>
#include <set>
#include <string>

#include "foundation/KyoHotKey.h"

class WorkspaceSettings {
 public:
  static constexpr const char* kKeyMapKey = "Key Map";
  static constexpr const char* kPauseAllKey = "pauseAll";
  static constexpr const char* kResumeAllKey = "resumeAll";
  static constexpr const char* kDuckMasterKey = "duckMaster";
  static constexpr const char* kMIDIControlsKey = "MIDI Controls";
  static constexpr const char* kMidiChannelKey = "midiChannel";
  static constexpr const char* kGeneralSettingsKey = "General Settings";
  static constexpr const char* kPanicDurationKey = "panicDuration";
  static constexpr const char* kPerformSafetyCheckKey = "performSafetyCheck";

  // Tags of the clear buttons.
  static constexpr int kPauseAllTag = 1;
  static constexpr int kResumeAllTag = 2;
  static constexpr int kDuckMasterTag = 5;

  static constexpr long kMaxMidiChannel = 16;

  WorkspaceSettings() { resetToDefaults(); }

  void resetToDefaults();

  // 0 is any channel, 1 to 16 that channel.
  long midiChannel() const { return m_midiChannel; }
  // Values outside 0 to 16 are refused; answers whether the value was taken.
  bool setMidiChannel(long channel);
  // Seconds of the panic fade; 0 is a cut.
  float panicDuration() const { return m_panicDuration; }
  // A negative (or not-a-number) duration is refused and the old one kept.
  bool setPanicDuration(float seconds);

  KyoHotKey& pauseAllKey() { return m_pauseAllKey; }
  KyoHotKey& resumeAllKey() { return m_resumeAllKey; }
  KyoHotKey& duckMasterKey() { return m_duckMasterKey; }
  const KyoHotKey& pauseAllKey() const { return m_pauseAllKey; }
  const KyoHotKey& resumeAllKey() const { return m_resumeAllKey; }
  const KyoHotKey& duckMasterKey() const { return m_duckMasterKey; }
  // Empties the hot key of a clear button's tag; other tags change nothing.
  void clearHotkey(int tag);

  bool shouldPerformSafetyChecks() const { return m_performSafetyCheck; }
  void setShouldPerformSafetyChecks(bool value) { m_performSafetyCheck = value; }

  // The display strings of the three hot keys, for the safety check.
  std::set<std::string> hotkeys() const;

  QJsonObject state() const;
  // A section or entry that is missing, or of the wrong type, keeps its present value.
  void setState(const std::optional<QJsonObject>& state);

  static QJsonObject descriptorObject(const KyoHotKey::Descriptor& descriptor);
  static KyoHotKey::Descriptor descriptorFromObject(const QJsonObject& object);

 private:
  long m_midiChannel = 0;
  float m_panicDuration = 1.0f;
  KyoHotKey m_pauseAllKey;
  KyoHotKey m_resumeAllKey;
  KyoHotKey m_duckMasterKey;
  bool m_performSafetyCheck = false;
};
