#include "audio/KyoAudioComponentDescription.h"

#include <functional>
#include <utility>

KyoAudioComponentDescription::KyoAudioComponentDescription(uint32_t type, std::string uri)
    : m_type(type), m_uri(std::move(uri)) {}

KyoAudioComponentDescription KyoAudioComponentDescription::descriptionWithState(const std::vector<uint8_t>& state) {
  KyoAudioComponentDescription d;
  d.setState(state);
  return d;
}

KyoAudioComponentDescription KyoAudioComponentDescription::appleMatrixMixer() {
  return KyoAudioComponentDescription(kAudioUnitType_Mixer, kKyoMatrixMixerURI);
}

std::vector<uint8_t> KyoAudioComponentDescription::state() const {
  return std::vector<uint8_t>(m_uri.begin(), m_uri.end());
}

void KyoAudioComponentDescription::setState(const std::vector<uint8_t>& state) {
  // A blob from a file: stop at a stray zero byte so that the URI stays a clean string.
  size_t length = 0;
  while (length < state.size() && state[length] != 0) ++length;
  m_uri.assign(reinterpret_cast<const char*>(state.data()), length);
  m_name.clear();
}

bool KyoAudioComponentDescription::acceptsMIDIInput() const {
  return m_type == kAudioUnitType_MusicEffect || m_type == kAudioUnitType_MusicDevice;
}

bool KyoAudioComponentDescription::isEffect() const {
  return m_type == kAudioUnitType_MusicEffect || m_type == kAudioUnitType_Effect;
}

bool KyoAudioComponentDescription::isInstrument() const { return m_type == kAudioUnitType_MusicDevice; }

bool KyoAudioComponentDescription::isPlayer() const { return m_type == kAudioUnitType_Generator; }

std::string KyoAudioComponentDescription::name() const {
  if (!m_name.empty()) return m_name;
  return KyoFourCharString(m_type) + ": " + m_uri;
}

size_t KyoAudioComponentDescription::hash() const {
  return (std::hash<std::string>{}(m_uri) & 0xFFFFu) | (size_t(m_type) & 0xFFFF0000u);
}
