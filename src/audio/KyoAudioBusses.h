#pragma once
// The 500 busses of a device or of a send: which are free, what is attached to which,
// and the render map through which the render thread calls each attached object. The
// attached objects are held here for as long as they have a bus.
//
// Threads: the owner's configuring thread calls everything; the owner fills and clears
// the map's entries under its render mutex, inside which the render thread reads them.

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "audio/KyoAudioRendering.h"

class KyoAudioBusses {
 public:
  // Every bus free, bus 0 the next to be used; the map empty.
  KyoAudioBusses();
  KyoAudioBusses(const KyoAudioBusses&) = delete;
  KyoAudioBusses& operator=(const KyoAudioBusses&) = delete;

  // The next free bus, now audio's; nothing when none is left. The entry is the caller's to fill.
  std::optional<uint32_t> take(const std::shared_ptr<KyoAudioAttachable>& audio);
  // Frees audio's bus, which is the next to be used, and answers it; nothing for audio
  // without a bus. The object is handed over in released, to be let go of outside locks.
  std::optional<uint32_t> give(const KyoAudioAttachable* audio, std::shared_ptr<KyoAudioAttachable>& released);
  // Every attached object, handed over; the busses stay as they are.
  std::vector<std::shared_ptr<KyoAudioAttachable>> releaseAll();

  std::optional<uint32_t> busOf(const KyoAudioAttachable* audio) const;
  const std::unordered_map<const KyoAudioAttachable*, uint32_t>& usedBusses() const { return m_audioToUsedBus; }
  bool hasAudio() const { return !m_attachedAudio.empty(); }
  size_t freeCount() const { return m_freeBusses.size(); }
  KyoRenderInfo& entry(uint32_t bus) { return m_renderMap->infos[bus]; }

 private:
  std::vector<uint32_t> m_freeBusses;  // next to be used at the back
  std::vector<std::shared_ptr<KyoAudioAttachable>> m_attachedAudio;
  std::unordered_map<const KyoAudioAttachable*, uint32_t> m_audioToUsedBus;
  std::unique_ptr<KyoRenderInfoList> m_renderMap;
};
