// The render engine of an output device, on the offline device: cycles are pulled by
// hand, so every expectation is about exact frames.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KyoAudioDeviceTestSupport.h"
#include "support/Waiting.h"

using namespace sonto::test;

namespace {

constexpr uint32_t kFrames = 128;

class AudioDeviceEngine : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(dev.device && dev.device->open()); }

  std::shared_ptr<TestSource> attach(std::vector<uint32_t> channels,
                                     TestSource::Signal signal = TestSource::Signal::Ramp, float value = 1.0f) {
    auto s = std::make_shared<TestSource>(dev.device.get(), std::move(channels), signal, value);
    EXPECT_TRUE(dev.device->_attachAudio(s));
    return s;
  }
  void play(const std::shared_ptr<TestSource>& s) { dev.device->performAction<&TestSource::_play>(s.get()); }
  void stop(const std::shared_ptr<TestSource>& s) { dev.device->performAction<&TestSource::_stop>(s.get()); }

  OfflineDevice dev{4, 48000.0, kFrames};
};

// --- Timing of actions ---

TEST_F(AudioDeviceEngine, ABatchSoundsWholeFromTheFirstFrameOfTheNextCycle) {
  auto a = attach({0});
  auto b = attach({1});
  auto c = attach({2});
  ASSERT_EQ(dev.pull(3), 0);

  dev.device->startSyncedActions();
  play(a);
  play(b);
  // Collected but not handed over: a cycle now must not start anything.
  ASSERT_EQ(dev.pull(1), 0);
  play(c);
  dev.device->endSyncedActions();
  ASSERT_EQ(dev.pull(2), 0);

  auto rec = dev.recording();
  const size_t start = 4 * kFrames;
  for (uint32_t ch = 0; ch < 3; ++ch) {
    ASSERT_EQ(rec[ch].size(), 6 * kFrames);
    ASSERT_TRUE(allEqual(rec[ch], 0.0f, 0, start)) << "channel " << ch;
    // The ramp is 1 at a source's first played frame: all three start on the same sample.
    for (size_t i = start; i < rec[ch].size(); ++i)
      ASSERT_EQ(rec[ch][i], float(i - start + 1)) << "channel " << ch << " frame " << i;
  }
  EXPECT_TRUE(allEqual(rec[3], 0.0f));
}

TEST_F(AudioDeviceEngine, ActionsWithoutABatchRunAtOnceAndLandInTheNextCycle) {
  auto a = attach({0});
  ASSERT_EQ(dev.pull(2), 0);
  play(a);
  EXPECT_TRUE(a->playing());
  ASSERT_EQ(dev.pull(1), 0);
  auto rec = dev.recording();
  ASSERT_TRUE(allEqual(rec[0], 0.0f, 0, 2 * kFrames));
  for (size_t i = 0; i < kFrames; ++i) ASSERT_EQ(rec[0][2 * kFrames + i], float(i + 1));
}

TEST_F(AudioDeviceEngine, BatchesRunInOrderAndAStopAndStartInOneBatchLeavesItPlaying) {
  auto a = attach({0});
  dev.device->startSyncedActions();
  play(a);
  stop(a);
  play(a);
  dev.device->endSyncedActions();
  // A second batch handed over before the cycle runs after the first.
  dev.device->startSyncedActions();
  stop(a);
  dev.device->endSyncedActions();
  ASSERT_EQ(dev.pull(1), 0);
  EXPECT_FALSE(a->playing());
  EXPECT_TRUE(allEqual(dev.recording()[0], 0.0f));
}

TEST_F(AudioDeviceEngine, ClosingDropsAPendingBatchAndAnOpenOneStartsNothing) {
  auto a = attach({0});
  for (int batch = 0; batch < 2; ++batch) {  // one handed over, one still open
    dev.device->startSyncedActions();
    play(a);
    if (batch == 0) dev.device->endSyncedActions();
  }
  dev.device->close();
  EXPECT_FALSE(a->playing());
  EXPECT_FALSE(dev.device->_batchIsOpen());
  EXPECT_EQ(dev.pull(1), kKyoHALNotRunningError);
  // With the batch gone an action acts at once; ending a batch that isn't there changes nothing.
  play(a);
  EXPECT_TRUE(a->playing());
  dev.device->endSyncedActions();
  EXPECT_FALSE(dev.device->_batchIsOpen());
}

// A send: one bus of the device for all the sources that play through it.
class FakeSend : public KyoAudioSending {
 public:
  explicit FakeSend(KyoAudioDevice* device) : m_device(device) {}
  KyoAudioDevice* device() const override { return m_device; }
  std::string description() const override { return "[fake send]"; }
  void registerRenderInfo(KyoRenderInfo* info) override { KyoRegisterRenderInfo(this, info); }
  int32_t render(uint32_t* flags, const KyoAudioTimeStamp*, uint32_t, uint32_t frames, AudioBufferList* data) override {
    for (uint32_t c = 0; c < data->mNumberBuffers; ++c)
      std::fill_n(static_cast<float*>(data->mBuffers[c].mData), frames, 0.0f);
    *flags |= kKyoRenderAction_OutputIsSilence;
    return 0;
  }
  bool _attachAudio(const std::shared_ptr<KyoAudioAttachable>& audio) override {
    if (refuse) return false;
    for (auto* a : m_attached)
      if (a == audio.get()) return true;
    m_attached.push_back(audio.get());
    return true;
  }
  void _detachAudio(KyoAudioAttachable* audio) override { std::erase(m_attached, audio); }
  bool hasAudioAttached() const override { return !m_attached.empty(); }
  bool refuse = false;

 private:
  KyoAudioDevice* m_device;
  std::vector<KyoAudioAttachable*> m_attached;
};

class SentSource : public TestSource {
 public:
  SentSource(KyoAudioDevice* device, std::shared_ptr<FakeSend> send)
      : TestSource(device, {0}), m_send(std::move(send)) {}
  std::shared_ptr<KyoAudioSending> send() const override { return m_send; }

 private:
  std::shared_ptr<FakeSend> m_send;
};

TEST_F(AudioDeviceEngine, SourcesOnASendShareItsBusUntilTheLastOneLeaves) {
  auto send = std::make_shared<FakeSend>(dev.device.get());
  auto a = std::make_shared<SentSource>(dev.device.get(), send);
  auto b = std::make_shared<SentSource>(dev.device.get(), send);
  ASSERT_TRUE(dev.device->_attachAudio(a));
  ASSERT_TRUE(dev.device->_attachAudio(b));
  EXPECT_EQ(dev.device->_freeBusCount(), size_t(kKyoBusCount - 1));
  EXPECT_EQ(dev.device->_busOfAudio(send.get()), 0u);
  EXPECT_FALSE(dev.device->_busOfAudio(a.get()));  // the send holds the bus, not the source
  dev.device->_detachAudio(a.get());
  EXPECT_EQ(dev.device->_busOfAudio(send.get()), 0u);
  dev.device->_detachAudio(b.get());
  EXPECT_FALSE(dev.device->_busOfAudio(send.get()));
  EXPECT_EQ(dev.device->_freeBusCount(), size_t(kKyoBusCount));

  LogCapture log;
  send->refuse = true;
  EXPECT_FALSE(dev.device->_attachAudio(a));
  EXPECT_TRUE(log.contains("could not attach"));
  OfflineDevice other{2, 48000.0, kFrames};
  auto elsewhere = std::make_shared<SentSource>(dev.device.get(), std::make_shared<FakeSend>(other.device.get()));
  EXPECT_FALSE(dev.device->_attachAudio(elsewhere));
  EXPECT_TRUE(log.contains("is not the assigned device for send"));
}

// --- Busses ---

TEST_F(AudioDeviceEngine, FiveHundredBussesThenARefusalAndAFreedBusIsReusedFirst) {
  std::vector<std::shared_ptr<TestSource>> sources;
  for (uint32_t i = 0; i < kKyoBusCount; ++i) {
    sources.push_back(std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{0}));
    ASSERT_TRUE(dev.device->_attachAudio(sources.back())) << i;
    ASSERT_EQ(dev.device->_busOfAudio(sources.back().get()), i);
  }
  EXPECT_EQ(dev.device->_freeBusCount(), 0u);

  auto extra = std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{0});
  {
    LogCapture log;
    EXPECT_FALSE(dev.device->_attachAudio(extra));
    EXPECT_TRUE(log.contains("No busses left for device"));
  }
  EXPECT_FALSE(dev.device->_busOfAudio(extra.get()));

  dev.device->_detachAudio(sources[123].get());
  dev.device->_detachAudio(sources[7].get());
  EXPECT_FALSE(dev.device->_busOfAudio(sources[7].get()));
  EXPECT_EQ(dev.device->_freeBusCount(), 2u);
  ASSERT_TRUE(dev.device->_attachAudio(extra));
  EXPECT_EQ(dev.device->_busOfAudio(extra.get()), 7u);  // the last freed
  ASSERT_TRUE(dev.device->_attachAudio(sources[7]));
  EXPECT_EQ(dev.device->_busOfAudio(sources[7].get()), 123u);
  // All 500 render in a cycle without trouble.
  ASSERT_EQ(dev.pull(1), 0);
  EXPECT_EQ(sources[0]->renders(), 1u);
  EXPECT_EQ(extra->renders(), 1u);
}

TEST_F(AudioDeviceEngine, AttachingTwiceKeepsOneBusAndDetachingTwiceIsHarmless) {
  auto a = attach({0});
  const size_t freeBusses = dev.device->_freeBusCount();
  EXPECT_TRUE(dev.device->_attachAudio(a));
  EXPECT_EQ(dev.device->_freeBusCount(), freeBusses);
  ASSERT_EQ(dev.pull(1), 0);
  EXPECT_EQ(a->renders(), 1u);  // one bus, one pull per cycle
  dev.device->_detachAudio(a.get());
  dev.device->_detachAudio(a.get());
  dev.device->_detachAudio(nullptr);
  EXPECT_EQ(dev.device->_freeBusCount(), size_t(kKyoBusCount));
  ASSERT_EQ(dev.pull(1), 0);
  EXPECT_EQ(a->renders(), 1u);  // a detached bus isn't pulled
}

TEST_F(AudioDeviceEngine, FeedFormatAndAttachRefusingAClosedDeviceAnotherDevicesSourceAndNull) {
  auto format = dev.device->_outFeedFormat();
  ASSERT_TRUE(format);
  EXPECT_EQ(format->channels(), kKyoLogicalChannels);
  EXPECT_EQ(format->sampleRate(), 48000.0);
  EXPECT_GE(dev.device->_maximumFramesPerSlice(), kFrames);
  EXPECT_FALSE(dev.device->_inFeedFormat());  // no input on this device

  OfflineDevice other{2, 48000.0, kFrames};
  LogCapture log;
  EXPECT_FALSE(dev.device->_attachAudio(std::make_shared<TestSource>(other.device.get(), std::vector<uint32_t>{0})));
  EXPECT_TRUE(log.contains("is not the assigned device for"));
  EXPECT_FALSE(dev.device->_attachAudio(nullptr));
  dev.device->close();
  EXPECT_FALSE(dev.device->_attachAudio(std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{0})));
  EXPECT_TRUE(log.contains("is not open"));
  EXPECT_FALSE(dev.device->_outFeedFormat());
  EXPECT_EQ(dev.device->_maximumFramesPerSlice(), 0u);
}

// --- Levels ---

struct LevelCase {
  const char* name;
  uint32_t row, column;  // setVolume addressing
  float volume;
  float expected0, expected1;  // device channels 0 and 1 for a constant 0.5 on logical channel 0
};

class AudioDeviceLevels : public AudioDeviceEngine, public ::testing::WithParamInterface<LevelCase> {};

TEST_P(AudioDeviceLevels, SetVolumeAddressesEveryStageToTheSample) {
  const LevelCase& c = GetParam();
  // Two sources on two busses: logical channel volumes hold on every bus.
  auto a = attach({0}, TestSource::Signal::Constant, 0.25f);
  auto b = attach({0}, TestSource::Signal::Constant, 0.25f);
  a->_play();
  b->_play();
  dev.device->setCrosspointVolume(0.5f, 0, 1);  // logical 0 also to device 1 at half
  dev.device->setVolume(c.volume, c.row, c.column);
  ASSERT_EQ(dev.pull(2), 0);
  auto rec = dev.recording();
  for (size_t i = 0; i < rec[0].size(); ++i) {
    ASSERT_FLOAT_EQ(rec[0][i], c.expected0) << c.name << " frame " << i;
    ASSERT_FLOAT_EQ(rec[1][i], c.expected1) << c.name << " frame " << i;
  }
  EXPECT_TRUE(allEqual(rec[2], 0.0f));
}

INSTANTIATE_TEST_SUITE_P(Stages, AudioDeviceLevels,
                         ::testing::Values(LevelCase{"defaults", 0, 0, 1.0f, 0.5f, 0.25f},
                                           LevelCase{"master", 0, 0, 0.5f, 0.25f, 0.125f},
                                           LevelCase{"output 1", 0, 2, 0.25f, 0.5f, 0.0625f},
                                           LevelCase{"input 0", 1, 0, 0.5f, 0.25f, 0.125f},
                                           LevelCase{"input 1 (unused)", 2, 0, 0.0f, 0.5f, 0.25f},
                                           LevelCase{"crosspoint 0 to 0", 1, 1, 0.125f, 0.0625f, 0.25f},
                                           LevelCase{"crosspoint 0 to 1 off", 1, 2, 0.0f, 0.5f, 0.0f}));

TEST_F(AudioDeviceEngine, SilentVolumesSilenceAndDefaultsRestoreTheDiagonal) {
  auto a = attach({0, 1, 2, 3}, TestSource::Signal::Constant, 0.5f);
  a->_play();
  dev.device->setSilentVolumes();
  EXPECT_EQ(dev.device->masterVolume(), 0.0f);
  ASSERT_EQ(dev.pull(1), 0);
  for (auto& ch : dev.recording()) ASSERT_TRUE(allEqual(ch, 0.0f));
  dev.clear();
  dev.device->setDefaultVolumes();
  ASSERT_EQ(dev.pull(1), 0);
  for (auto& ch : dev.recording()) ASSERT_TRUE(allEqual(ch, 0.5f));
}

TEST_F(AudioDeviceEngine, ALogicalChannelBeyondTheDeviceIsHeardOnlyThroughACrosspoint) {
  auto a = attach({40}, TestSource::Signal::Constant, 0.5f);
  a->_play();
  ASSERT_EQ(dev.pull(1), 0);
  for (auto& ch : dev.recording()) ASSERT_TRUE(allEqual(ch, 0.0f));
  dev.clear();
  dev.device->setVolume(1.0f, 41, 4);  // logical 40 to device 3
  ASSERT_EQ(dev.pull(1), 0);
  auto rec = dev.recording();
  EXPECT_TRUE(allEqual(rec[3], 0.5f));
  EXPECT_TRUE(allEqual(rec[0], 0.0f));
}

TEST_F(AudioDeviceEngine, VolumesOnAClosedDeviceAreIgnoredAndReadAsZero) {
  dev.device->close();
  dev.device->setMasterVolume(0.5f);
  dev.device->setVolume(0.5f, 3, 3);
  EXPECT_EQ(dev.device->masterVolume(), 0.0f);
  EXPECT_EQ(dev.device->outPostPeakHoldLevelAtChannel(0), 0.0f);
  // Reopening starts from the defaults again.
  ASSERT_TRUE(dev.device->open());
  EXPECT_EQ(dev.device->masterVolume(), 1.0f);
}

// --- Live input ---

TEST(AudioDeviceInput, TheInputBlockOfACycleIsReadableByASourceInThatCycle) {
  OfflineDevice dev{2, 48000.0, kFrames, 2};
  dev.device->setEnableInput(true);
  ASSERT_TRUE(dev.device->open());
  auto format = dev.device->_inFeedFormat();
  ASSERT_TRUE(format);
  EXPECT_EQ(format->channels(), 2u);

  // A source that plays what the device reads from its input on logical channels 0 and 1.
  struct Echo : TestSource {
    using TestSource::TestSource;
    // Render records call the class they name, without virtual dispatch.
    void registerRenderInfo(KyoRenderInfo* info) override { KyoRegisterRenderInfo(this, info); }
    int32_t render(uint32_t* flags, const KyoAudioTimeStamp* ts, uint32_t bus, uint32_t frames,
                   AudioBufferList* data) override {
      TestSource::render(flags, ts, bus, frames, data);
      AudioBufferList* two = KyoAudioBufferListCreate(2, frames, false);  // test only: not a real-time source
      device()->readFrames(frames, two, 0);
      for (uint32_t c = 0; c < 2; ++c) {
        data->mBuffers[c].mDataByteSize = frames * sizeof(float);
        std::copy_n(static_cast<float*>(two->mBuffers[c].mData), frames, static_cast<float*>(data->mBuffers[c].mData));
      }
      KyoAudioBufferListFree(two);
      *flags &= ~kKyoRenderAction_OutputIsSilence;
      return 0;
    }
  };
  auto echo = std::make_shared<Echo>(dev.device.get(), std::vector<uint32_t>{});
  ASSERT_TRUE(dev.device->_attachAudio(echo));
  std::vector<std::vector<float>> input(2, std::vector<float>(2 * kFrames));
  for (size_t i = 0; i < 2 * kFrames; ++i) {
    input[0][i] = float(i) / 1024.0f;
    input[1][i] = -float(i) / 1024.0f;
  }
  KyoHAL::shared().setOfflineInput(dev.id, input);
  ASSERT_EQ(dev.pull(3), 0);
  auto rec = dev.recording();
  for (uint32_t c = 0; c < 2; ++c)
    EXPECT_EQ(std::vector<float>(rec[c].begin(), rec[c].begin() + 2 * kFrames), input[c]) << c;
  EXPECT_TRUE(allEqual(rec[0], 0.0f, 2 * kFrames, 3 * kFrames));
}

}  // namespace
