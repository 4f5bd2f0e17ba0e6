#pragma once
// Names an audio unit: its type (a four-character code: 'aufx' effect, 'aumf'
// effect with MIDI input, 'aumu' instrument, 'augn' generator, 'aumx' mixer) and
// the LV2 URI of the plugin that implements it. This is how an effect or a mixer is
// found and saved. A value type; the catalogue lookups live with the effects.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/KyoLog.h"

constexpr uint32_t kAudioUnitType_Effect = KyoFourCC("aufx");
constexpr uint32_t kAudioUnitType_MusicEffect = KyoFourCC("aumf");
constexpr uint32_t kAudioUnitType_MusicDevice = KyoFourCC("aumu");
constexpr uint32_t kAudioUnitType_Generator = KyoFourCC("augn");
constexpr uint32_t kAudioUnitType_Mixer = KyoFourCC("aumx");

// The URI of the engine's own matrix mixer, which no LV2 bundle provides.
inline constexpr const char* kKyoMatrixMixerURI = "urn:sonto:matrix-mixer";

class KyoAudioComponentDescription {
 public:
  KyoAudioComponentDescription() = default;  // type 0, no URI
  KyoAudioComponentDescription(uint32_t type, std::string uri);

  static KyoAudioComponentDescription descriptionWithType(uint32_t type, const std::string& uri) {
    return KyoAudioComponentDescription(type, uri);
  }
  // From a saved "component" blob: the URI only. The type stays 0 until the
  // catalogue, which knows the plugin, fills it.
  static KyoAudioComponentDescription descriptionWithState(const std::vector<uint8_t>& state);
  // The engine's matrix mixer, asked for whenever a mixer is needed.
  static KyoAudioComponentDescription appleMatrixMixer();

  // The URI as raw UTF-8 bytes; setState puts them back, leaving the type alone.
  std::vector<uint8_t> state() const;
  void setState(const std::vector<uint8_t>& state);

  uint32_t type() const { return m_type; }
  void setType(uint32_t type) {
    m_type = type;
    m_name.clear();
  }
  const std::string& uri() const { return m_uri; }
  void setURI(const std::string& uri) {
    m_uri = uri;
    m_name.clear();
  }

  bool acceptsMIDIInput() const;
  bool isEffect() const;
  bool isInstrument() const;
  bool isPlayer() const;

  // The plugin's name once the catalogue has given one, else "type: URI".
  std::string name() const;
  void setName(const std::string& name) { m_name = name; }

  // Type and URI; a cached name does not count.
  bool isEqual(const KyoAudioComponentDescription& other) const {
    return m_type == other.m_type && m_uri == other.m_uri;
  }
  bool operator==(const KyoAudioComponentDescription& other) const { return isEqual(other); }
  // Upper 16 bits of the type ORed with the low 16 bits of the URI's hash.
  size_t hash() const;

 private:
  uint32_t m_type = 0;
  std::string m_uri;
  std::string m_name;
};

template <>
struct std::hash<KyoAudioComponentDescription> {
  size_t operator()(const KyoAudioComponentDescription& d) const { return d.hash(); }
};
