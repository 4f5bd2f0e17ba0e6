// The offline device: cycles pulled on the caller's thread, recorded exactly.

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "HALTestSupport.h"

using namespace sonto::test;

namespace {

// Copies input channel c to output channel c.
void echoProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output, double) {
  static_cast<std::atomic<int>*>(client)->fetch_add(1);
  for (uint32_t c = 0; input && c < output->mNumberBuffers && c < input->mNumberBuffers; ++c)
    std::copy_n(static_cast<const float*>(input->mBuffers[c].mData), frames,
                static_cast<float*>(output->mBuffers[c].mData));
}

class OfflineDevice {
 public:
  OfflineDevice(uint32_t outputs, double rate, uint32_t frames, uint32_t inputs = 0)
      : id(KyoHAL::shared().createOfflineDevice(outputs, rate, frames, inputs)) {}
  ~OfflineDevice() { KyoHAL::shared().destroyOfflineDevice(id); }
  const KyoAudioObjectID id;
};

struct Shape {
  uint32_t channels, frames, cycles;
};

class KyoHALOfflineShapes : public ::testing::TestWithParam<Shape> {};

TEST_P(KyoHALOfflineShapes, RecordsExactlyWhatTheCallbackWrote) {
  const Shape shape = GetParam();
  OfflineDevice device(shape.channels, 44100, shape.frames);
  ASSERT_NE(device.id, 0u);
  KyoHAL& hal = KyoHAL::shared();
  Cycles cycles;
  cycles.expectedFrames = shape.frames;
  cycles.expectedOutputs = shape.channels;
  ASSERT_EQ(hal.startIO(device.id, false, rampProc, &cycles), kKyoHALNoError);
  // In two pulls, so that appending to the recording is covered too.
  ASSERT_EQ(hal.pullOffline(device.id, shape.cycles / 2), kKyoHALNoError);
  ASSERT_EQ(hal.pullOffline(device.id, shape.cycles - shape.cycles / 2), kKyoHALNoError);
  EXPECT_EQ(cycles.count.load(), int(shape.cycles));
  EXPECT_EQ(cycles.inputChannels.load(), -1);
  EXPECT_FALSE(cycles.wrongShape.load());

  // The ramp tells channel and frame apart over fewer than 2^14 frames.
  auto recording = hal.offlineRecording(device.id);
  ASSERT_EQ(recording.size(), shape.channels);
  const size_t total = size_t(shape.frames) * shape.cycles;
  for (uint32_t c = 0; c < shape.channels; ++c) {
    ASSERT_EQ(recording[c].size(), total);
    for (size_t f = 0; f < total; ++f)
      ASSERT_EQ(recording[c][f], rampSample(int64_t(f), c)) << "channel " << c << " frame " << f;
  }
  hal.clearOfflineRecording(device.id);
  EXPECT_TRUE(hal.offlineRecording(device.id)[0].empty());
  EXPECT_EQ(hal.stopIO(device.id), kKyoHALNoError);
}

INSTANTIATE_TEST_SUITE_P(Shapes, KyoHALOfflineShapes,
                         ::testing::Values(Shape{1, 1, 7}, Shape{2, 512, 10}, Shape{8, 64, 5}, Shape{3, 4096, 3},
                                           Shape{48, 128, 2}));

TEST(KyoHALOffline, InputIsConsumedCycleByCycleAndPaddedWithSilence) {
  OfflineDevice device(2, 48000, 100, 2);
  ASSERT_NE(device.id, 0u);
  KyoHAL& hal = KyoHAL::shared();
  // 250 frames: two whole cycles and half of a third; channel 1 is shorter still.
  std::vector<std::vector<float>> input(2);
  for (int i = 0; i < 250; ++i) input[0].push_back(float(i + 1));
  for (int i = 0; i < 30; ++i) input[1].push_back(-float(i + 1));
  hal.setOfflineInput(device.id, input);
  std::atomic<int> echoes{0};
  ASSERT_EQ(hal.startIO(device.id, true, echoProc, &echoes), kKyoHALNoError);
  ASSERT_EQ(hal.pullOffline(device.id, 1), kKyoHALNoError);
  ASSERT_EQ(hal.pullOffline(device.id, 3), kKyoHALNoError);
  auto recording = hal.offlineRecording(device.id);
  ASSERT_EQ(recording[0].size(), 400u);
  for (int i = 0; i < 400; ++i) {
    ASSERT_EQ(recording[0][i], i < 250 ? float(i + 1) : 0.0f) << i;
    ASSERT_EQ(recording[1][i], i < 30 ? -float(i + 1) : 0.0f) << i;
  }
  // New input starts at the next cycle.
  hal.setOfflineInput(device.id, {{5, 6, 7}, {}});
  hal.clearOfflineRecording(device.id);
  ASSERT_EQ(hal.pullOffline(device.id, 1), kKyoHALNoError);
  recording = hal.offlineRecording(device.id);
  EXPECT_EQ(recording[0][0], 5.0f);
  EXPECT_EQ(recording[0][2], 7.0f);
  EXPECT_EQ(recording[0][3], 0.0f);
  hal.stopIO(device.id);

  // Without input enabled the callback gets none; with it, whole input buffers.
  for (bool withInput : {false, true}) {
    Cycles cycles;
    cycles.nextSampleTime = -1;
    ASSERT_EQ(hal.startIO(device.id, withInput, rampProc, &cycles), kKyoHALNoError);
    ASSERT_EQ(hal.pullOffline(device.id, 1), kKyoHALNoError);
    EXPECT_EQ(cycles.inputChannels.load(), withInput ? 2 : -1);
    EXPECT_FALSE(cycles.wrongShape.load());
    hal.stopIO(device.id);
  }
}

TEST(KyoHALOffline, RefusesBadShapesAndMisuse) {
  KyoHAL& hal = KyoHAL::shared();
  struct Bad {
    uint32_t channels;
    double rate;
    uint32_t frames;
  };
  for (Bad b : {Bad{0, 48000, 512}, Bad{2, 0, 512}, Bad{2, NAN, 512}, Bad{2, -48000, 512}, Bad{2, 48000, 0},
                Bad{2, 48000, 1u << 30}, Bad{100000, 48000, 512}})
    EXPECT_EQ(hal.createOfflineDevice(b.channels, b.rate, b.frames), 0u)
        << b.channels << " " << b.rate << " " << b.frames;

  OfflineDevice device(2, 48000, 32);
  Cycles cycles;
  EXPECT_EQ(hal.pullOffline(device.id, 1), kKyoHALNotRunningError);
  EXPECT_EQ(hal.stopIO(device.id), kKyoHALNotRunningError);
  EXPECT_EQ(hal.startIO(device.id, false, nullptr, nullptr), kKyoHALIllegalOperationError);
  ASSERT_EQ(hal.startIO(device.id, false, rampProc, &cycles), kKyoHALNoError);
  EXPECT_EQ(hal.startIO(device.id, false, rampProc, &cycles), kKyoHALIllegalOperationError);
  EXPECT_EQ(hal.pullOffline(device.id, 0), kKyoHALNoError);
  EXPECT_EQ(cycles.count.load(), 0);

  // A smaller buffer takes effect at the next pull; one out of range is refused.
  EXPECT_EQ(hal.setBufferSizeInFrames(device.id, 0), kKyoHALIllegalOperationError);
  EXPECT_EQ(hal.setBufferSizeInFrames(device.id, 16), kKyoHALNoError);
  ASSERT_EQ(hal.pullOffline(device.id, 2), kKyoHALNoError);
  EXPECT_EQ(cycles.frames.load(), 16u);
  KyoHALDeviceProperties properties;
  ASSERT_EQ(hal.properties(device.id, properties), kKyoHALNoError);
  EXPECT_EQ(properties.bufferSizeInFrames, 16u);
  EXPECT_EQ(hal.stopIO(device.id), kKyoHALNoError);

  EXPECT_EQ(hal.pullOffline(12345678, 1), kKyoHALBadDeviceError);
  EXPECT_EQ(hal.startIO(12345678, false, rampProc, &cycles), kKyoHALBadDeviceError);
  EXPECT_EQ(hal.properties(12345678, properties), kKyoHALBadDeviceError);
}

// Stopping or pulling from inside the callback would wait for itself: refused.
struct Reentrant {
  KyoAudioObjectID id;
  int32_t stopStatus = 0, pullStatus = 0, bufferStatus = 0, propertiesStatus = -1;
};

void reentrantProc(void* client, uint32_t, const AudioBufferList*, AudioBufferList*, double) {
  auto* r = static_cast<Reentrant*>(client);
  r->stopStatus = KyoHAL::shared().stopIO(r->id);
  r->pullStatus = KyoHAL::shared().pullOffline(r->id, 1);
  r->bufferStatus = KyoHAL::shared().setBufferSizeInFrames(r->id, 8);
  KyoHALDeviceProperties properties;
  r->propertiesStatus = KyoHAL::shared().properties(r->id, properties);
}

TEST(KyoHALOffline, CallbackCannotStopOrPullItsOwnDevice) {
  OfflineDevice device(1, 48000, 32);
  Reentrant r{device.id};
  ASSERT_EQ(KyoHAL::shared().startIO(device.id, false, reentrantProc, &r), kKyoHALNoError);
  ASSERT_EQ(KyoHAL::shared().pullOffline(device.id, 1), kKyoHALNoError);
  EXPECT_EQ(r.stopStatus, kKyoHALIllegalOperationError);
  EXPECT_EQ(r.pullStatus, kKyoHALIllegalOperationError);
  EXPECT_EQ(r.bufferStatus, kKyoHALIllegalOperationError);
  EXPECT_EQ(r.propertiesStatus, kKyoHALNoError);
  EXPECT_EQ(KyoHAL::shared().stopIO(device.id), kKyoHALNoError);
}

TEST(KyoHALOffline, NotListedFoundByUIDNumbersNeverReused) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID first;
  std::string uid;
  KyoHALDeviceProperties properties;
  {
    OfflineDevice device(2, 48000, 64);
    first = device.id;
    ASSERT_GT(first, kKyoAudioObjectSystemObject);
    ASSERT_EQ(hal.properties(first, properties), kKyoHALNoError);
    uid = properties.uid;
    EXPECT_EQ(uid.rfind("offline:", 0), 0u);
    EXPECT_EQ(properties.outputChannels, 2u);
    EXPECT_EQ(properties.nominalSampleRate, 48000);
    EXPECT_EQ(hal.deviceWithUID(uid), first);
    auto all = hal.allDevices();
    EXPECT_EQ(std::count(all.begin(), all.end(), first), 0);
    EXPECT_NE(hal.defaultOutputDevice(), first);
  }
  EXPECT_EQ(hal.properties(first, properties), kKyoHALBadDeviceError);
  EXPECT_EQ(hal.deviceWithUID(uid), 0u);
  OfflineDevice second(2, 48000, 64);
  EXPECT_GT(second.id, first);
}

// Pulled from one thread while another stops it: once stopIO has returned, no
// callback is running and none starts.
TEST(KyoHALOffline, StopFromAnotherThreadWaitsForThePull) {
  KyoHAL& hal = KyoHAL::shared();
  for (int round = 0; round < 20; ++round) {
    OfflineDevice device(1, 48000, 16);
    Cycles cycles;
    ASSERT_EQ(hal.startIO(device.id, false, rampProc, &cycles), kKyoHALNoError);
    std::atomic<bool> started{false};
    std::thread puller([&] {
      started.store(true);
      while (hal.pullOffline(device.id, 4) == kKyoHALNoError) {
      }
    });
    while (!started.load() || cycles.count.load() < round) std::this_thread::yield();
    ASSERT_EQ(hal.stopIO(device.id), kKyoHALNoError);
    cycles.stopped.store(true);
    EXPECT_EQ(cycles.inside.load(), 0);
    puller.join();
    EXPECT_FALSE(cycles.calledAfterStop.load());
  }
}

}  // namespace
