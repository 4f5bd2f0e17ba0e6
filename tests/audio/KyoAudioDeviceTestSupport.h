#pragma once
// Synthetic sources for the engine's tests: each writes a known signal on chosen
// logical channels of its bus, starts and stops through the action queue, and marks
// the channels it leaves silent, as a source's own mixer does.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioRendering.h"
#include "audio/KyoHAL.h"

namespace sonto::test {

class TestSource : public KyoAudioAttachable {
 public:
  enum class Signal {
    Ramp,      // frame number since the start of play, plus one: 1, 2, 3, ...
    Constant,  // m_value on every frame
    Sine,      // m_value * sin(2 pi m_frequency n / m_rate)
  };

  TestSource(KyoAudioDevice* device, std::vector<uint32_t> channels, Signal signal = Signal::Ramp, float value = 1.0f)
      : m_device(device), m_channels(std::move(channels)), m_signal(signal), m_value(value) {}

  KyoAudioDevice* device() const override { return m_device; }
  std::string description() const override { return "[test source]"; }
  void registerRenderInfo(KyoRenderInfo* info) override { KyoRegisterRenderInfo(this, info); }

  int32_t render(uint32_t* flags, const KyoAudioTimeStamp*, uint32_t, uint32_t frames, AudioBufferList* data) override {
    m_renders.fetch_add(1, std::memory_order_relaxed);
    const bool mark = (*flags & kKyoRenderAction_MarkSilentChannels) != 0;
    const bool playing = m_playing.load(std::memory_order_relaxed);
    for (uint32_t c = 0; c < data->mNumberBuffers; ++c) {
      bool live = playing;
      if (live) {
        live = false;
        for (uint32_t ch : m_channels) live = live || ch == c;
      }
      AudioBuffer& b = data->mBuffers[c];
      if (!live) {
        if (mark) {
          KyoMarkChannelSilent(b);
        } else {
          for (uint32_t i = 0; i < frames; ++i) static_cast<float*>(b.mData)[i] = 0.0f;
        }
        continue;
      }
      auto* d = static_cast<float*>(b.mData);
      for (uint32_t i = 0; i < frames; ++i) d[i] = sample(m_position + i);
    }
    if (!playing && mark) *flags |= kKyoRenderAction_OutputIsSilence;
    if (playing) m_position += frames;
    return 0;
  }

  float sample(uint64_t n) const {
    switch (m_signal) {
      case Signal::Ramp:
        return float(n + 1);
      case Signal::Constant:
        return m_value;
      case Signal::Sine:
        return float(m_value * std::sin(2.0 * M_PI * m_frequency * double(n) / m_rate));
    }
    return 0.0f;
  }

  // The actions, as a source queues them: a flag write.
  void _play() { m_playing.store(true, std::memory_order_relaxed); }
  void _stop() { m_playing.store(false, std::memory_order_relaxed); }

  bool playing() const { return m_playing.load(); }
  uint64_t renders() const { return m_renders.load(); }
  void setSine(double frequency, double rate) {
    m_signal = Signal::Sine;
    m_frequency = frequency;
    m_rate = rate;
  }

 private:
  KyoAudioDevice* m_device;
  std::vector<uint32_t> m_channels;
  Signal m_signal;
  float m_value;
  double m_frequency = 1000.0;
  double m_rate = 48000.0;
  std::atomic<bool> m_playing{false};
  std::atomic<uint64_t> m_renders{0};
  uint64_t m_position = 0;  // render thread only
};

// Counts what a device tells its delegate, on whichever thread it tells it.
struct DeviceWatch : KyoAudioDeviceDelegate {
  std::atomic<int> opened{0}, closed{0}, died{0};
  std::atomic<bool> wasOpenWhenTold{true};
  void audioDeviceDidOpen(KyoAudioDevice*) override { opened++; }
  void audioDeviceDidClose(KyoAudioDevice*) override { closed++; }
  void audioDeviceDidDie(KyoAudioDevice* device) override {
    wasOpenWhenTold.store(device->isOpen());
    died++;
  }
};

// True when samples [from, to) all equal value; else which one does not.
inline ::testing::AssertionResult allEqual(const std::vector<float>& samples, float value, size_t from = 0,
                                           size_t to = SIZE_MAX) {
  for (size_t i = from; i < std::min(to, samples.size()); ++i)
    if (samples[i] != value) return ::testing::AssertionFailure() << "frame " << i << " is " << samples[i];
  return ::testing::AssertionSuccess();
}

// An offline device of the layer, with its KyoAudioDevice, destroyed with the fixture.
struct OfflineDevice {
  OfflineDevice(uint32_t channels, double rate, uint32_t frames, uint32_t inputs = 0) {
    id = KyoHAL::shared().createOfflineDevice(channels, rate, frames, inputs);
    device = KyoAudioDevice::deviceWithID(id);
  }
  ~OfflineDevice() {
    if (device) device->close();
    device.reset();
    KyoHAL::shared().destroyOfflineDevice(id);
  }
  int32_t pull(uint32_t cycles) { return KyoHAL::shared().pullOffline(id, cycles); }
  std::vector<std::vector<float>> recording() { return KyoHAL::shared().offlineRecording(id); }
  void clear() { KyoHAL::shared().clearOfflineRecording(id); }

  KyoAudioObjectID id = 0;
  std::shared_ptr<KyoAudioDevice> device;
};

}  // namespace sonto::test
