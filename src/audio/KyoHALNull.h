#pragma once
// "No Output": always present, renders on a thread of its own paced by the
// monotonic clock as a sound card would be, and discards what it gets.

#include <atomic>

#include "audio/KyoHALBackend.h"

class KyoHALNull : public KyoHALBackend {
 public:
  static constexpr uint32_t kChannels = 2;
  static constexpr double kSampleRate = 48000;
  static constexpr uint32_t kDefaultBufferSize = 512;
  static constexpr uint32_t kMinBufferSize = 16;
  static constexpr uint32_t kMaxBufferSize = 8192;

  const char* name() const override { return "null"; }
  std::vector<KyoHALDeviceProperties> scan(const std::vector<std::string>& uidsInUse) override;
  std::unique_ptr<KyoHALStream> start(const KyoHALDeviceProperties& device, const KyoHALStreamParameters& parameters,
                                      int32_t& status) override;
  // Takes effect at the next cycle of a running stream.
  int32_t setBufferSizeInFrames(const std::string& uid, uint32_t frames) override;

  static KyoHALDeviceProperties deviceProperties(uint32_t bufferSize);

 private:
  std::atomic<uint32_t> m_bufferSize{kDefaultBufferSize};
};
