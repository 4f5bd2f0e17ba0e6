#include "audio/KyoAudioBusses.h"

#include <algorithm>

KyoAudioBusses::KyoAudioBusses() : m_renderMap(std::make_unique<KyoRenderInfoList>()) {
  m_renderMap->count = kKyoBusCount;
  m_freeBusses.reserve(kKyoBusCount);
  for (uint32_t bus = kKyoBusCount; bus-- > 0;) m_freeBusses.push_back(bus);
  m_attachedAudio.reserve(kKyoBusCount);
  m_audioToUsedBus.reserve(kKyoBusCount);
}

std::optional<uint32_t> KyoAudioBusses::take(const std::shared_ptr<KyoAudioAttachable>& audio) {
  if (m_freeBusses.empty()) return std::nullopt;
  const uint32_t bus = m_freeBusses.back();
  m_attachedAudio.push_back(audio);
  m_audioToUsedBus[audio.get()] = bus;
  m_freeBusses.pop_back();
  return bus;
}

std::optional<uint32_t> KyoAudioBusses::give(const KyoAudioAttachable* audio,
                                             std::shared_ptr<KyoAudioAttachable>& released) {
  auto it = m_audioToUsedBus.find(audio);
  if (it == m_audioToUsedBus.end()) return std::nullopt;
  const uint32_t bus = it->second;
  m_freeBusses.push_back(bus);
  m_audioToUsedBus.erase(it);
  auto found =
      std::find_if(m_attachedAudio.begin(), m_attachedAudio.end(), [audio](const auto& a) { return a.get() == audio; });
  if (found != m_attachedAudio.end()) {
    released = std::move(*found);
    m_attachedAudio.erase(found);
  }
  return bus;
}

std::vector<std::shared_ptr<KyoAudioAttachable>> KyoAudioBusses::releaseAll() {
  std::vector<std::shared_ptr<KyoAudioAttachable>> released;
  released.swap(m_attachedAudio);
  m_audioToUsedBus.clear();
  return released;
}

std::optional<uint32_t> KyoAudioBusses::busOf(const KyoAudioAttachable* audio) const {
  auto it = m_audioToUsedBus.find(audio);
  if (it == m_audioToUsedBus.end()) return std::nullopt;
  return it->second;
}
