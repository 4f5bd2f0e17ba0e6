#pragma once
// Shared by the effect tests: the test plugins' URIs, buffers, and a log catcher.

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "audio/KyoAudioBufferList.h"
#include "audio/KyoAudioRendering.h"

namespace sonto::test {

inline constexpr const char* kGainURI = "urn:sonto:test:gain";
inline constexpr const char* kNeedyURI = "urn:sonto:test:needy";
inline constexpr const char* kMissingBinaryURI = "urn:sonto:test:missing-binary";
inline constexpr const char* kMDAOverdriveURI = "http://drobilla.net/plugins/mda/Overdrive";
inline constexpr const char* kMDADelayURI = "http://drobilla.net/plugins/mda/Delay";
inline constexpr const char* kMDADetuneURI = "http://drobilla.net/plugins/mda/Detune";
inline constexpr uint32_t kGainParameter = 0;   // the fixture's gain port, in dB
inline constexpr float kGainLatencyFrames = 64.0f;

// True when the mda plugins are installed (they come from the install script).
bool haveMDAPlugins();

// A non-interleaved float list that frees itself.
class TestBufferList {
 public:
  TestBufferList(uint32_t channels, uint32_t frames);
  ~TestBufferList();
  TestBufferList(const TestBufferList&) = delete;
  TestBufferList& operator=(const TestBufferList&) = delete;

  AudioBufferList* list() { return m_list; }
  float* channel(uint32_t c) { return KyoAudioBufferListChannel(m_list, c); }
  uint32_t frames() const { return m_frames; }
  // A different, non-trivial signal per channel: a ramp with a channel offset.
  void fillSignal();

 private:
  AudioBufferList* m_list;
  uint32_t m_frames;
};

// The signal fillSignal() writes at frame f of channel c.
float testSignal(uint32_t frame, uint32_t channel);

// A render callback that plays testSignal() from frame 0 on, one channel per buffer,
// and counts what it was asked for. Render thread; no allocation.
class TestSignalSource {
 public:
  KyoRenderInfo renderInfo();
  uint64_t position() const { return m_position; }
  uint32_t calls() const { return m_calls; }

 private:
  static int32_t render(void* target, uint32_t* flags, const KyoAudioTimeStamp* timeStamp, uint32_t bus,
                        uint32_t frames, AudioBufferList* data);
  uint64_t m_position = 0;
  uint32_t m_calls = 0;
};

// Collects log lines while it lives.
class LogCatcher {
 public:
  LogCatcher();
  ~LogCatcher();
  std::vector<std::string> lines() const;
  bool contains(const std::string& text) const;

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lines;
};

}  // namespace sonto::test
