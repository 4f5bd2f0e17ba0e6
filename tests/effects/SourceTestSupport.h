#pragma once
// Shared by the tests of sources and sends: an offline device, ramp files made at
// test time, loaded sources and frame-by-frame checks of what the device recorded.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <chrono>
#include <memory>
#include <thread>
#include <string>
#include <vector>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoHAL.h"
#include "effects/KyoAudioSource.h"
#include "foundation/KyoClock.h"
#include "support/TestFiles.h"

namespace sonto::test {

struct Device {
  Device(uint32_t channels, double rate, uint32_t frames, uint32_t inputs = 0) {
    id = KyoHAL::shared().createOfflineDevice(channels, rate, frames, inputs);
    device = KyoAudioDevice::deviceWithID(id);
    if (device && device->open()) device->setDefaultVolumes();
  }
  ~Device() {
    // A fade's own thread may still hold a source, and so the device: it lets go
    // within its fade. Otherwise the device could outlive the device layer at exit.
    // Real time, whatever clock the test installed.
    for (int i = 0; i < 5000 && device.use_count() > 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (device) device->close();
    device.reset();
    KyoHAL::shared().destroyOfflineDevice(id);
  }
  void pull(uint32_t cycles) { ASSERT_EQ(KyoHAL::shared().pullOffline(id, cycles), 0); }
  // What the next cycles play, alone.
  std::vector<std::vector<float>> record(uint32_t cycles) {
    KyoHAL::shared().clearOfflineRecording(id);
    EXPECT_EQ(KyoHAL::shared().pullOffline(id, cycles), 0);
    return KyoHAL::shared().offlineRecording(id);
  }
  KyoAudioObjectID id = 0;
  std::shared_ptr<KyoAudioDevice> device;
};

inline std::string rampFile(const std::string& name, double rate, uint32_t channels, int64_t frames) {
  const std::string path = temporaryPath(name);
  EXPECT_TRUE(writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, rate, channels, frames));
  return path;
}

// The fill threads need real time to fill the rings; this waits for them, not for a tempo.
inline void waitUntilReady(KyoAudioSource& source) {
  KyoPlainClock waiter;
  for (int i = 0; i < 5000 && !(source.buffer() && source.buffer()->isReadyToPlay()); ++i) waiter.sleepFor(0.002);
  ASSERT_TRUE(source.buffer() && source.buffer()->isReadyToPlay());
}

inline std::shared_ptr<KyoAudioSource> loadedSource(Device& d, const std::string& path) {
  auto source = KyoAudioSource::create();
  source->setDevice(d.device);
  source->setAlias(KyoAlias::aliasWithPath(path));
  EXPECT_TRUE(source->isValid());
  waitUntilReady(*source);
  source->setDefaultVolumes();
  return source;
}

// Every frame of a recorded channel must equal expected(frame); the first misses are shown.
template <class Expected>
void expectFrames(const std::vector<float>& channel, Expected expected, const std::string& what = "") {
  size_t wrong = 0;
  for (size_t i = 0; i < channel.size(); ++i) {
    const float want = expected(int64_t(i));
    if (channel[i] != want && wrong++ < 3)
      ADD_FAILURE() << what << " frame " << i << ": " << channel[i] << " != " << want;
  }
  EXPECT_EQ(wrong, 0u) << what;
}

}  // namespace sonto::test
