// The audio source on the offline device, with files made at test time: sample-exact
// play and routing, levels, effects across rebuilds, stop with a tail against a hard
// stop, the clean-up timer on a virtual clock, bad input, and the render thread under
// real threads.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <fstream>
#include <thread>

#include "EffectTestSupport.h"
#include "SourceTestSupport.h"
#include "audio/KyoAudioComponentDescription.h"
#include "audio/KyoAudioDevice.h"
#include "audio/KyoHAL.h"
#include "audio/KyoMatrixMixer.h"
#include "effects/KyoAudioSource.h"
#include "effects/KyoEffect.h"
#include "effects/KyoEffectBus.h"
#include "foundation/KyoClock.h"
#include "support/TestFiles.h"

using namespace sonto::test;

namespace {

// Frames of a recorded channel that are not silent.
size_t soundingFrames(const std::vector<float>& channel) {
  return channel.size() - size_t(std::count(channel.begin(), channel.end(), 0.0f));
}

}  // namespace

// --- Sample exactness and routing ---

TEST(KyoAudioSource, FileArrivesAtTheDeviceSampleForSample) {
  const struct {
    const char* name;
    double rate;
    uint32_t bufferFrames, fileChannels;
    float master;
    bool monoToBoth;
  } cases[] = {{"stereo48k128", 48000, 128, 2, 1.0f, false}, {"stereo44k100", 44100, 100, 2, 0.5f, false},
               {"stereo96k1024", 96000, 1024, 2, 0.25f, false}, {"mono48k64", 48000, 64, 1, 1.0f, false},
               {"monoBoth48k333", 48000, 333, 1, 0.5f, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Device d(2, c.rate, c.bufferFrames);
    ASSERT_TRUE(d.device && d.device->isOpen());
    const int64_t frames = 9000;  // not a multiple of any buffer size tried
    auto source = loadedSource(d, rampFile(std::string(c.name) + ".wav", c.rate, c.fileChannels, frames));
    EXPECT_EQ(source->fileChannels(), c.fileChannels);
    EXPECT_EQ(source->mixerInChannels(), c.fileChannels);
    EXPECT_EQ(source->mixerOutChannels(), kKyoLogicalChannels);
    source->setMasterVolume(c.master);
    if (c.monoToBoth) source->setVolume(1.0f, 1, 2);  // input 0 to logical channel 1 as well

    source->play();
    EXPECT_TRUE(source->isPlaying());
    const uint32_t cycles = uint32_t(frames / c.bufferFrames) + 3;
    auto rec = d.record(cycles);
    ASSERT_EQ(rec.size(), 2u);
    ASSERT_EQ(rec[0].size(), size_t(cycles) * c.bufferFrames);
    for (uint32_t out = 0; out < 2; ++out) {
      const bool routed = out < c.fileChannels || c.monoToBoth;
      const uint32_t fileChannel = c.fileChannels == 1 ? 0 : out;
      expectFrames(
          rec[out], [&](int64_t i) { return routed && i < frames ? rampSample(i, fileChannel) * c.master : 0.0f; },
          "channel " + std::to_string(out));
    }
  }
}

TEST(KyoAudioSource, SlicesSurviveARebuildAndPlayFromTheirFirstFrame) {
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("slices.wav", 48000, 2, 48000));
  source->setSlices({{0.1, 0.25, 2}});
  source->setMasterVolume(0.5f);
  source->setEffects({});  // a rebuild: new player, same slices, same levels
  waitUntilReady(*source);
  source->play();
  auto rec = d.record(130);
  // Two passes of frames 4800 to 11999, seamless, then silence.
  expectFrames(rec[0], [](int64_t i) { return i < 14400 ? rampSample(4800 + i % 7200, 0) * 0.5f : 0.0f; });
}

TEST(KyoAudioSource, VolumesAndRoutingOnTheSourcesMixer) {
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("levels.wav", 48000, 2, 48000));
  EXPECT_EQ(source->outPostPeakHoldLevelAtChannel(0), KyoMatrixMixer::kMeterFloorDecibels);
  // Channel numbers at the counts are ignored, inside them they act.
  source->setInputVolume(0.0f, 2);
  source->setOutputVolume(0.0f, kKyoLogicalChannels);
  source->setCrosspointVolume(0.0f, 2, 0);
  source->setVolume(0.5f, 0, 2);   // output 1 at half
  source->setVolume(1.0f, 1, 2);   // input 0 onto output 1 as well
  source->setVolume(0.0f, 2, 0);   // input 1 off
  source->play();
  auto rec = d.record(4);
  expectFrames(rec[0], [](int64_t i) { return rampSample(i, 0); });
  expectFrames(rec[1], [](int64_t i) { return rampSample(i, 0) * 0.5f; });
  source->setSilentVolumes();
  EXPECT_EQ(source->masterVolume(), 0.0f);
  rec = d.record(2);
  EXPECT_EQ(soundingFrames(rec[0]) + soundingFrames(rec[1]), 0u);
  source->setDefaultVolumes();
  d.pull(8);
  EXPECT_GT(source->outPostPeakHoldLevelAtChannel(0), -40.0f);
  EXPECT_GT(source->outPostAveragePowerAtChannel(0), -60.0f);
  EXPECT_EQ(source->outPostAveragePowerAtAuxChannel(0), 0.0f);
}

// --- Effects ---

TEST(KyoAudioSource, GainPluginAndRebuildsKeepLevelsAndSettings) {
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("gain.wav", 48000, 2, 96000));
  auto gain = effectWithURI(kGainURI);
  ASSERT_TRUE(gain);
  source->setEffects({gain});
  ASSERT_TRUE(source->isValid());
  waitUntilReady(*source);
  ASSERT_EQ(source->effectBus()->lastUsedEffect(), gain);
  gain->setValue(-6.0f, kGainParameter);
  source->setMasterVolume(0.5f);
  source->setVolume(0.0f, 2, 0);  // input 1 off: a level the rebuild must keep

  const float factor = dbFactor(-6.0f);
  auto check = [&](const char* when) {
    source->play();
    auto rec = d.record(8);
    size_t wrong = 0;
    for (size_t i = 0; i < rec[0].size(); ++i) {
      const float expected = rampSample(int64_t(i), 0) * factor * 0.5f;
      if (std::fabs(rec[0][i] - expected) > 1e-6f * std::fabs(expected) + 1e-9f) ++wrong;
      if (rec[1][i] != 0.0f) ++wrong;
    }
    EXPECT_EQ(wrong, 0u) << when;
    source->hardStop();
  };
  check("first build");

  // The same list again rebuilds; so does a new device.
  source->setEffects({gain});
  waitUntilReady(*source);
  check("after setEffects");

  Device other(2, 48000, 128);
  source->setDevice(other.device);
  waitUntilReady(*source);
  source->play();
  auto rec = other.record(4);
  EXPECT_NEAR(rec[0][100], rampSample(100, 0) * factor * 0.5f, 1e-6);
  EXPECT_EQ(soundingFrames(rec[1]), 0u);
  source->hardStop();
  source->setDevice(nullptr);
  EXPECT_FALSE(source->isValid());
}

TEST(KyoAudioSource, MissingPluginLeavesTheSourcePlayableAndSaysWhy) {
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("missing.wav", 48000, 2, 48000));
  KyoEffectProperties saved;
  saved.component = KyoAudioComponentDescription(kAudioUnitType_Effect, "urn:sonto:test:not-installed").state();
  saved.name = "Vanished Reverb";
  auto restored = KyoEffect::effectWithCoder(saved);
  ASSERT_TRUE(restored);
  LogCapture log;
  source->setEffects({restored});
  EXPECT_TRUE(source->isValid());
  EXPECT_TRUE(log.contains("Vanished Reverb"));  // the line names the effect left out
  waitUntilReady(*source);
  source->setDefaultVolumes();
  source->play();
  expectFrames(d.record(4)[0], [](int64_t i) { return rampSample(i, 0); });
  EXPECT_EQ(source->effects().size(), 1u);  // kept on the list, to be saved again
}

// --- Stop, hard stop and the clean-up timer, on virtual time ---

class SourceTimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clock = std::make_shared<KyoVirtualClock>();
    KyoInstallClock(clock);
    clock->settle();  // this thread is the main thread
  }
  void TearDown() override { KyoInstallClock(nullptr); }

  struct Delegate : KyoAudioSourceDelegate {
    void audioSourceDidFinish(KyoAudioSource*) override { calls++; }
    int calls = 0;
  };

  std::shared_ptr<KyoVirtualClock> clock;
};

TEST_F(SourceTimeTest, StopRingsOutTheTailAndTheDelegateFollowsIt) {
  if (!haveMDAPlugins()) GTEST_SKIP() << "mda plugins not installed";
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("tail.wav", 48000, 2, 48000 * 4));
  Delegate delegate;
  source->setDelegate(&delegate);
  auto delay = effectWithURI(kMDADelayURI);
  ASSERT_TRUE(delay);
  source->setEffects({delay});
  waitUntilReady(*source);
  const double tail = source->tailTime();
  ASSERT_GT(tail, 1.0);

  source->play();
  d.pull(40);
  source->stop();
  EXPECT_TRUE(source->wasStopped());
  EXPECT_FALSE(source->isFinished());
  // A second: the delay's repeats carry on with silence going in.
  EXPECT_GT(soundingFrames(d.record(375)[0]), 0u);
  ASSERT_TRUE(d.device->_busOfAudio(source.get()));

  clock->advance(tail - 0.5);
  EXPECT_EQ(delegate.calls, 0);
  EXPECT_TRUE(d.device->_busOfAudio(source.get()));
  clock->advance(1.6);  // the tail is over, and the next tick of the timer has come
  EXPECT_TRUE(source->isFinished());
  EXPECT_EQ(delegate.calls, 1);
  EXPECT_FALSE(d.device->_busOfAudio(source.get()));
  clock->advance(3.0);
  EXPECT_EQ(delegate.calls, 1);  // the timer went with the detach
}

TEST_F(SourceTimeTest, HardStopIsSilentInTheNextCycleAndFinishedAtOnce) {
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("hard.wav", 48000, 2, 48000 * 2));
  Delegate delegate;
  source->setDelegate(&delegate);
  if (haveMDAPlugins()) {
    source->setEffects({effectWithURI(kMDADelayURI)});
    waitUntilReady(*source);
  }
  source->play();
  d.pull(20);
  source->hardStop();
  EXPECT_TRUE(source->isFinished());
  EXPECT_FALSE(source->isPlaying());
  auto rec = d.record(10);
  EXPECT_EQ(soundingFrames(rec[0]) + soundingFrames(rec[1]), 0u);
  clock->advance(1.0);
  EXPECT_EQ(delegate.calls, 1);

  // Play again after a hard stop: audio flows, from the player's present position.
  source->play();
  EXPECT_TRUE(source->isPlaying());
  EXPECT_FALSE(source->wasStopped());
  EXPECT_GT(soundingFrames(d.record(10)[0]), 0u);
}

TEST_F(SourceTimeTest, ActionsOfABatchLandInOneCycleAndTheFileEndFinishes) {
  Device d(2, 48000, 128);
  const int64_t frames = 1000;
  auto a = loadedSource(d, rampFile("batchA.wav", 48000, 2, frames));
  auto b = loadedSource(d, rampFile("batchB.wav", 48000, 1, frames));
  Delegate delegate;
  a->setDelegate(&delegate);
  d.device->startSyncedActions();
  a->play();
  b->play();
  a->play();  // a second play does nothing
  EXPECT_FALSE(a->isPlaying());
  d.device->endSyncedActions();
  auto rec = d.record(12);
  EXPECT_TRUE(a->isPlaying());
  // Both start on the same frame: their sum is exact from frame 0, then silence.
  expectFrames(rec[0], [&](int64_t i) { return i < frames ? rampSample(i, 0) + rampSample(i, 0) : 0.0f; });
  EXPECT_TRUE(a->buffer()->isFinished());
  clock->advance(1.0);
  EXPECT_EQ(delegate.calls, 1);
  EXPECT_FALSE(d.device->_busOfAudio(a.get()));
  EXPECT_FALSE(a->isPlaying());
}

TEST_F(SourceTimeTest, FadeFollowsARaisedCosineAndStopsWithTheSource) {
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("fade.wav", 48000, 2, 48000 * 4));
  source->play();
  source->fadeToMasterVolume(0.0f, 1.0);
  clock->advance(0.5);
  EXPECT_NEAR(source->masterVolume(), 0.5f, 0.02f);
  clock->advance(0.6);
  EXPECT_EQ(source->masterVolume(), 0.0f);

  source->setMasterVolume(1.0f);
  source->fadeToMasterVolume(0.0f, 1.0);
  clock->advance(0.25);
  const float during = source->masterVolume();
  source->stop();
  clock->advance(1.0);
  EXPECT_EQ(source->masterVolume(), during);  // dropped, with no final write

  EXPECT_FLOAT_EQ(KyoAudioSource::_computeFadeWithStartVolume(1.0f, 0.0f, 2.0, 0.0), 1.0f);
  EXPECT_NEAR(KyoAudioSource::_computeFadeWithStartVolume(1.0f, 0.0f, 2.0, 1.0), 0.5f, 1e-6);
  EXPECT_EQ(KyoAudioSource::_computeFadeWithStartVolume(1.0f, 0.25f, 0.0, 1.0), 0.25f);
}

// --- Bad input and invalid states ---

TEST(KyoAudioSource, InvalidSourcesRefuseToPlayAndSayWhy) {
  const std::string garbage = temporaryPath("garbage.wav");
  std::ofstream(garbage) << "RIFF but not really a wave file at all";
  struct Case {
    const char* name;
    bool device;
    std::string path;  // empty: no alias
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"no device", false, rampFile("nodevice.wav", 48000, 2, 100), {"; no audio device"}},
      {"live without input", true, "",
       {"Warning: you tried to play an KyoAudioSource with no file and a device without inputs enabled.",
        "; no valid stream"}},
      {"missing file", true, temporaryPath("never-written.wav"), {"; no valid stream"}},
      {"broken file", true, garbage, {"; no valid stream"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Device d(2, 48000, 128);
    auto source = KyoAudioSource::create();
    if (c.device) source->setDevice(d.device);
    if (!c.path.empty()) source->setAlias(KyoAlias::aliasWithPath(c.path));
    LogCapture log;
    source->play();
    EXPECT_FALSE(source->isPlaying());
    for (const std::string& line : c.lines) EXPECT_TRUE(log.contains(line)) << line;
    if (c.device) {
      EXPECT_FALSE(source->isValid());
    }
    source->setMasterVolume(1.0f);
    EXPECT_EQ(source->masterVolume(), 0.0f);
    source->setDefaultVolumes();
    EXPECT_TRUE(log.contains("Warning: KyoAudioSource could not set default volumes because there was no valid stream."));
    source->setAuxVolume(1.0f, 1, 0);
    EXPECT_TRUE(log.contains("Error: setAuxVolume: KyoAudioSource has no send."));
    EXPECT_EQ(source->slices().size(), 0u);
    EXPECT_EQ(source->timeUntilLoop(), -1.0);
    d.pull(2);
  }
  EXPECT_EQ(KyoAudioSource::create()->description(), "[empty audio source]");
}

TEST(KyoAudioSource, LiveSourcePlaysTheDevicesInput) {
  Device d(2, 48000, 128, 2);
  d.device->close();
  d.device->setEnableInput(true);
  ASSERT_TRUE(d.device->open());
  d.device->setDefaultVolumes();
  std::vector<std::vector<float>> input(2, std::vector<float>(128 * 8));
  for (size_t i = 0; i < input[0].size(); ++i) {
    input[0][i] = float(i + 1) / 2048.0f;
    input[1][i] = -float(i + 1) / 2048.0f;
  }
  KyoHAL::shared().setOfflineInput(d.id, input);
  auto source = KyoAudioSource::create();
  source->setDevice(d.device);
  ASSERT_TRUE(source->isValid());
  EXPECT_EQ(source->fileChannels(), 0u);
  EXPECT_EQ(source->micChannels(), 2u);
  source->setDefaultVolumes();
  source->play();
  auto rec = d.record(8);
  // The input of a cycle reaches the output in the same cycle.
  EXPECT_EQ(rec, input);
}

// --- Threads ---

TEST(KyoAudioSource, RenderThreadAllocatesNothingWhilePlaying) {
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("alloc.wav", 48000, 2, 48000 * 2));
  if (haveMDAPlugins()) {
    source->setEffects({effectWithURI(kMDADelayURI)});
    waitUntilReady(*source);
  }
  source->play();
  // The device's offline recording grows as it pulls, so the source is pulled alone here.
  TestBufferList out(kKyoLogicalChannels, 128);
  KyoAudioTimeStamp ts;
  EXPECT_EQ(allocationsOnRenderThread([&] {
              for (int cycle = 0; cycle < 300; ++cycle) {
                uint32_t flags = 0;
                ts.mSampleTime = cycle * 128.0;
                source->render(&flags, &ts, 0, 128, out.list());
                if (cycle == 150) source->_stop();
              }
            }),
            0u);
  source->hardStop();
}

TEST(KyoAudioSource, MainThreadChangesWhileTheDeviceIsPulled) {
  Device d(2, 48000, 128);
  auto source = loadedSource(d, rampFile("threads.wav", 48000, 2, 48000 * 4));
  const bool mda = haveMDAPlugins();
  std::atomic<bool> done{false};
  std::thread render([&] {
    while (!done.load()) {
      KyoHAL::shared().pullOffline(d.id, 4);
      KyoHAL::shared().clearOfflineRecording(d.id);
    }
  });
  auto gain = effectWithURI(kGainURI);
  for (int round = 0; round < 20; ++round) {
    source->play();
    source->setMasterVolume(0.1f * float(round % 10));
    source->setVolume(0.5f, 1, 2);
    source->fadeToMasterVolume(1.0f, 0.05);
    if (round % 4 == 1) source->setEffects({gain});
    if (round % 4 == 2 && mda) source->addEffect(effectWithURI(kMDADelayURI));
    if (round % 4 == 3) source->setEffects({});
    (void)source->outPostPeakHoldLevelAtChannel(0);
    d.device->startSyncedActions();
    source->devamp();
    if (round % 2) source->stop(); else source->hardStop();
    d.device->endSyncedActions();
    source->_detachIfFinished();
  }
  done = true;
  render.join();
  EXPECT_TRUE(source->isValid());
}
