#pragma once
// Shared by the effect tests: the test plugins' URIs, buffers, effects made ready to
// render, and renders checked against the test signal.

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "audio/KyoAudioBufferList.h"
#include "audio/KyoAudioRendering.h"
#include "effects/KyoEffect.h"
#include "support/AllocationCounter.h"
#include "support/Waiting.h"

namespace sonto::test {

inline constexpr const char* kGainURI = "urn:sonto:test:gain";
inline constexpr const char* kNeedyURI = "urn:sonto:test:needy";
inline constexpr const char* kMissingBinaryURI = "urn:sonto:test:missing-binary";
inline constexpr const char* kMDAOverdriveURI = "http://drobilla.net/plugins/mda/Overdrive";
inline constexpr const char* kMDADelayURI = "http://drobilla.net/plugins/mda/Delay";
inline constexpr const char* kMDADetuneURI = "http://drobilla.net/plugins/mda/Detune";
inline constexpr const char* kMDAAmbienceURI = "http://drobilla.net/plugins/mda/Ambience";
inline constexpr uint32_t kGainParameter = 0;  // the fixture's gain port, in dB
inline constexpr float kGainLatencyFrames = 64.0f;

// The factor a gain of db decibels multiplies by.
inline float dbFactor(float db) { return std::pow(10.0f, db / 20.0f); }

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

// Checks every channel of out against testSignal() from frame start on, times factor:
// to 4 ULPs when tolerance is 0, bit for bit when it is kExactly, else within tolerance.
inline constexpr float kExactly = -1.0f;
void expectScaledSignal(TestBufferList& out, uint64_t start, float factor, float tolerance = 0.0f);

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

// An effect, with no unit yet, of the plugin uri names.
inline std::shared_ptr<KyoEffect> effectWithURI(const std::string& uri) {
  return KyoEffect::effectWithDescription(KyoAudioComponentDescription(kAudioUnitType_Effect, uri));
}

// Opens the effect and readies it to render at the given format, fed by source.
inline bool attach(KyoEffect& effect, double rate, uint32_t channels, TestSignalSource& source) {
  return effect.open() && effect.setStreamFormat(KyoAudioStreamDescription(rate, channels)) &&
         effect.setRenderCallback(source.renderInfo()) && effect.initialize();
}

// Opens a matrix mixer effect with inputs in and outputs out at 48 kHz, initialized
// unless told not to; null when it does not open.
std::shared_ptr<KyoEffect> readyMixer(std::shared_ptr<KyoEffect> mixer, uint32_t inputs, uint32_t outputs,
                                      bool initialize = true);

// Runs body on a thread of its own watched by the allocation counter (a stand-in render
// thread); answers what that thread allocated.
template <class Body>
uint64_t allocationsOnRenderThread(Body body) {
  resetWatchedAllocations();
  std::thread([&] {
    ScopedAllocationWatch watch;
    body();
  }).join();
  return watchedAllocations();
}

// Renders cycles of frames from effect on a watched thread: every cycle's output,
// channel after channel, the first failing status (0 when none) and the allocations.
struct Rendering {
  std::vector<float> samples;
  int32_t status = 0;
  uint64_t allocations = 0;
};
Rendering renderCycles(KyoEffect& effect, uint32_t channels, uint32_t frames, int cycles);

}  // namespace sonto::test
