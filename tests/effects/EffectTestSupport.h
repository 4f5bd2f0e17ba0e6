#pragma once
// Shared by the effect tests: the test plugins' URIs, buffers, and effects made ready to render.

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>

#include "audio/KyoAudioBufferList.h"
#include "audio/KyoAudioRendering.h"
#include "effects/KyoEffect.h"
#include "support/Waiting.h"

namespace sonto::test {

inline constexpr const char* kGainURI = "urn:sonto:test:gain";
inline constexpr const char* kNeedyURI = "urn:sonto:test:needy";
inline constexpr const char* kMissingBinaryURI = "urn:sonto:test:missing-binary";
inline constexpr const char* kMDAOverdriveURI = "http://drobilla.net/plugins/mda/Overdrive";
inline constexpr const char* kMDADelayURI = "http://drobilla.net/plugins/mda/Delay";
inline constexpr const char* kMDADetuneURI = "http://drobilla.net/plugins/mda/Detune";
inline constexpr uint32_t kGainParameter = 0;   // the fixture's gain port, in dB
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

}  // namespace sonto::test
