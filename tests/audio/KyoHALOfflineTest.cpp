// The offline device: cycles pulled on the caller's thread, recorded exactly.

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "audio/KyoHAL.h"

namespace {

// Writes a value that names channel, frame and cycle, so that the recording can be
// checked sample by sample: channel * 2^20 + absolute frame (exact in a float).
struct Writer {
  uint32_t cycles = 0;
  uint32_t lastFrames = 0;
  uint32_t lastChannels = 0;
  bool sawInput = false;
  double expectedSampleTime = 0;
  bool sampleTimeWrong = false;
  bool outputNotZeroed = false;
};

void writeProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output,
               double sampleTime) {
  auto* w = static_cast<Writer*>(client);
  if (sampleTime != w->expectedSampleTime) w->sampleTimeWrong = true;
  w->expectedSampleTime = sampleTime + frames;
  w->cycles++;
  w->lastFrames = frames;
  w->lastChannels = output->mNumberBuffers;
  w->sawInput = input != nullptr;
  for (uint32_t c = 0; c < output->mNumberBuffers; ++c) {
    auto* d = static_cast<float*>(output->mBuffers[c].mData);
    if (output->mBuffers[c].mDataByteSize != frames * sizeof(float)) w->outputNotZeroed = true;
    for (uint32_t i = 0; i < frames; ++i) {
      if (d[i] != 0.0f) w->outputNotZeroed = true;
      d[i] = float(c * (1u << 20) + uint32_t(sampleTime) + i);
    }
  }
}

// Copies input channel c to output channel c.
void echoProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output, double) {
  auto* cycles = static_cast<std::atomic<int>*>(client);
  cycles->fetch_add(1);
  if (!input) return;
  for (uint32_t c = 0; c < output->mNumberBuffers && c < input->mNumberBuffers; ++c)
    std::copy_n(static_cast<const float*>(input->mBuffers[c].mData), frames, static_cast<float*>(output->mBuffers[c].mData));
}

class OfflineDevice {
 public:
  OfflineDevice(uint32_t outputs, double rate, uint32_t frames, uint32_t inputs = 0)
      : id(KyoHAL::shared().createOfflineDevice(outputs, rate, frames, inputs)) {}
  ~OfflineDevice() { KyoHAL::shared().destroyOfflineDevice(id); }
  const KyoAudioObjectID id;
};

struct Shape {
  uint32_t channels;
  uint32_t frames;
  uint32_t cycles;
};

class KyoHALOfflineShapes : public ::testing::TestWithParam<Shape> {};

TEST_P(KyoHALOfflineShapes, RecordsExactlyWhatTheCallbackWrote) {
  const Shape shape = GetParam();
  OfflineDevice device(shape.channels, 44100, shape.frames);
  ASSERT_NE(device.id, 0u);
  KyoHAL& hal = KyoHAL::shared();
  Writer writer;
  ASSERT_EQ(hal.startIO(device.id, false, writeProc, &writer), kKyoHALNoError);
  // In two pulls, so that appending to the recording is covered too.
  ASSERT_EQ(hal.pullOffline(device.id, shape.cycles / 2), kKyoHALNoError);
  ASSERT_EQ(hal.pullOffline(device.id, shape.cycles - shape.cycles / 2), kKyoHALNoError);
  EXPECT_EQ(writer.cycles, shape.cycles);
  EXPECT_EQ(writer.lastFrames, shape.frames);
  EXPECT_EQ(writer.lastChannels, shape.channels);
  EXPECT_FALSE(writer.sawInput);
  EXPECT_FALSE(writer.sampleTimeWrong);
  EXPECT_FALSE(writer.outputNotZeroed);

  auto recording = hal.offlineRecording(device.id);
  ASSERT_EQ(recording.size(), shape.channels);
  const size_t total = size_t(shape.frames) * shape.cycles;
  for (uint32_t c = 0; c < shape.channels; ++c) {
    ASSERT_EQ(recording[c].size(), total);
    for (size_t f = 0; f < total; ++f)
      ASSERT_EQ(recording[c][f], float(c * (1u << 20) + f)) << "channel " << c << " frame " << f;
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
  std::atomic<int> cycles{0};
  ASSERT_EQ(hal.startIO(device.id, true, echoProc, &cycles), kKyoHALNoError);
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

  // Without input enabled the callback gets none.
  Writer writer;
  ASSERT_EQ(hal.startIO(device.id, false, writeProc, &writer), kKyoHALNoError);
  ASSERT_EQ(hal.pullOffline(device.id, 1), kKyoHALNoError);
  EXPECT_FALSE(writer.sawInput);
  hal.stopIO(device.id);
}

TEST(KyoHALOffline, RefusesBadShapesAndMisuse) {
  KyoHAL& hal = KyoHAL::shared();
  EXPECT_EQ(hal.createOfflineDevice(0, 48000, 512), 0u);
  EXPECT_EQ(hal.createOfflineDevice(2, 0, 512), 0u);
  EXPECT_EQ(hal.createOfflineDevice(2, NAN, 512), 0u);
  EXPECT_EQ(hal.createOfflineDevice(2, -48000, 512), 0u);
  EXPECT_EQ(hal.createOfflineDevice(2, 48000, 0), 0u);
  EXPECT_EQ(hal.createOfflineDevice(2, 48000, 1u << 30), 0u);
  EXPECT_EQ(hal.createOfflineDevice(100000, 48000, 512), 0u);

  OfflineDevice device(2, 48000, 32);
  Writer writer;
  EXPECT_EQ(hal.pullOffline(device.id, 1), kKyoHALNotRunningError);
  EXPECT_EQ(hal.stopIO(device.id), kKyoHALNotRunningError);
  EXPECT_EQ(hal.startIO(device.id, false, nullptr, nullptr), kKyoHALIllegalOperationError);
  ASSERT_EQ(hal.startIO(device.id, false, writeProc, &writer), kKyoHALNoError);
  EXPECT_EQ(hal.startIO(device.id, false, writeProc, &writer), kKyoHALIllegalOperationError);
  EXPECT_EQ(hal.pullOffline(device.id, 0), kKyoHALNoError);
  EXPECT_EQ(writer.cycles, 0u);

  // A smaller buffer takes effect at the next pull; one out of range is refused.
  EXPECT_EQ(hal.setBufferSizeInFrames(device.id, 0), kKyoHALIllegalOperationError);
  EXPECT_EQ(hal.setBufferSizeInFrames(device.id, 16), kKyoHALNoError);
  ASSERT_EQ(hal.pullOffline(device.id, 2), kKyoHALNoError);
  EXPECT_EQ(writer.lastFrames, 16u);
  KyoHALDeviceProperties properties;
  ASSERT_EQ(hal.properties(device.id, properties), kKyoHALNoError);
  EXPECT_EQ(properties.bufferSizeInFrames, 16u);
  EXPECT_EQ(hal.stopIO(device.id), kKyoHALNoError);

  EXPECT_EQ(hal.pullOffline(12345678, 1), kKyoHALBadDeviceError);
  EXPECT_EQ(hal.startIO(12345678, false, writeProc, &writer), kKyoHALBadDeviceError);
  EXPECT_EQ(hal.properties(12345678, properties), kKyoHALBadDeviceError);
}

// Stopping or pulling from inside the callback would wait for itself: refused.
struct Reentrant {
  KyoAudioObjectID id;
  int32_t stopStatus = 0;
  int32_t pullStatus = 0;
  int32_t bufferStatus = 0;
  int32_t propertiesStatus = -1;
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
  {
    OfflineDevice device(2, 48000, 64);
    first = device.id;
    ASSERT_GT(first, kKyoAudioObjectSystemObject);
    KyoHALDeviceProperties properties;
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
  KyoHALDeviceProperties properties;
  EXPECT_EQ(hal.properties(first, properties), kKyoHALBadDeviceError);
  EXPECT_EQ(hal.deviceWithUID(uid), 0u);
  OfflineDevice second(2, 48000, 64);
  EXPECT_GT(second.id, first);
}

// Pulled from one thread while another stops it: once stopIO has returned, no
// callback is running and none starts.
struct Counting {
  std::atomic<int> inside{0};
  std::atomic<int> cycles{0};
};

void countingProc(void* client, uint32_t frames, const AudioBufferList*, AudioBufferList* output, double) {
  auto* c = static_cast<Counting*>(client);
  c->inside.fetch_add(1);
  static_cast<float*>(output->mBuffers[0].mData)[frames - 1] = 1.0f;
  c->cycles.fetch_add(1);
  c->inside.fetch_sub(1);
}

TEST(KyoHALOffline, StopFromAnotherThreadWaitsForThePull) {
  KyoHAL& hal = KyoHAL::shared();
  for (int round = 0; round < 20; ++round) {
    OfflineDevice device(1, 48000, 16);
    Counting counting;
    ASSERT_EQ(hal.startIO(device.id, false, countingProc, &counting), kKyoHALNoError);
    std::atomic<bool> started{false};
    std::thread puller([&] {
      started.store(true);
      while (hal.pullOffline(device.id, 4) == kKyoHALNoError) {
      }
    });
    while (!started.load() || counting.cycles.load() < round) std::this_thread::yield();
    ASSERT_EQ(hal.stopIO(device.id), kKyoHALNoError);
    EXPECT_EQ(counting.inside.load(), 0);
    int after = counting.cycles.load();
    puller.join();
    EXPECT_EQ(counting.cycles.load(), after);
  }
}

}  // namespace
