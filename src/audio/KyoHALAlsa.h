#pragma once
// ALSA playback PCMs, one device per name in ALSA's device hints ("alsa:" plus the
// name: "alsa:default", "alsa:hw:CARD=PCH,DEV=0", "alsa:null"...). A running device
// has a render thread of ours, real-time where the system allows it, writing one
// period at a time. An underrun is an overload; a write that finds the device lost
// (unplugged) is its death. The list is watched by the layer's once-a-second scan,
// which re-reads the hint list and probes only names it has not seen.

#include <map>
#include <mutex>
#include <string>

#include "audio/KyoHALBackend.h"

// alsa-lib writes its own complaints to standard error ("ALSA lib seq_hw.c:466: ...
// open /dev/snd/seq failed"); from the first call on they go to the log at the
// developers' level instead, as whoever called says what failed in words.
void KyoALSAReportToLog();

class KyoHALAlsa : public KyoHALBackend {
 public:
  static constexpr uint32_t kDefaultBufferSize = 512;
  static constexpr uint32_t kMinBufferSize = 16;
  static constexpr uint32_t kMaxBufferSize = 8192;
  // A PCM that takes any channel count up to this or beyond (a plug or null PCM)
  // is offered as stereo.
  static constexpr uint32_t kMaxChannels = 64;

  const char* name() const override { return "alsa"; }
  std::vector<KyoHALDeviceProperties> scan(const std::vector<std::string>& uidsInUse) override;
  void forget() override;
  std::unique_ptr<KyoHALStream> start(const KyoHALDeviceProperties& device, const KyoHALStreamParameters& parameters,
                                      int32_t& status) override;
  // Applies at the next start.
  int32_t setBufferSizeInFrames(const std::string& uid, uint32_t frames) override;

 private:
  struct Probe {
    bool present = false;
    KyoHALDeviceProperties properties;
  };
  Probe probe(const std::string& pcmName, const std::string& description);

  // alsa-lib's configuration is global and not safe to read while another thread
  // reloads it: the hint list, probes, opens and closes are serialized here. Never
  // taken by a render thread.
  std::mutex m_mutex;
  std::map<std::string, Probe> m_probes;             // by PCM name
  std::map<std::string, uint32_t> m_bufferSizes;     // by UID, when set
};
