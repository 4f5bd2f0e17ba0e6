// Fades of the master, driven step by step by a virtual clock, and the post-mixer
// meters read after known signals.

#include <gtest/gtest.h>

#include <cmath>

#include "KyoAudioDeviceTestSupport.h"
#include "audio/KyoMatrixMixer.h"
#include "foundation/KyoClock.h"

using sonto::test::OfflineDevice;
using sonto::test::TestSource;

namespace {

constexpr double kStep = KyoAudioDevice::kFadeStepSeconds;

class AudioDeviceFade : public ::testing::Test {
 protected:
  void SetUp() override {
    KyoInstallClock(clock);
    clock->settle();  // this thread is the clock's main thread
    ASSERT_TRUE(dev.device && dev.device->open());
  }
  void TearDown() override {
    dev.device->close();
    // Lets every fade thread see the close and end before the clock goes.
    clock->advance(0.1);
    clock->settle();
    EXPECT_EQ(clock->runningWorkers(), 0);
    KyoInstallClock(nullptr);
  }
  // Steps the clock through a fade begun just now: the master follows the curve at
  // every step and ends exactly on the target.
  void followsTheCurve(float from, float to, double duration) {
    const int steps = int(std::lround(duration / kStep));
    for (int step = 1; step < steps; ++step) {
      clock->advance(kStep);
      EXPECT_NEAR(dev.device->masterVolume(),
                  KyoAudioDevice::_computeFadeWithStartVolume(from, to, duration, step * kStep), 1e-4)
          << "step " << step;
    }
    clock->advance(2 * kStep);
    EXPECT_EQ(dev.device->masterVolume(), to);
  }

  std::shared_ptr<KyoVirtualClock> clock = std::make_shared<KyoVirtualClock>();
  OfflineDevice dev{2, 48000.0, 128};
};

TEST(AudioDeviceFadeCurve, RaisedCosineEndsAndMiddle) {
  struct Case {
    float from, to;
    double duration, elapsed;
    float expected;
  } cases[] = {
      {1.0f, 0.0f, 1.0, 0.0, 1.0f}, {1.0f, 0.0f, 1.0, 0.5, 0.5f},      {1.0f, 0.0f, 1.0, 1.0, 0.0f},
      {1.0f, 0.0f, 1.0, 2.0, 0.0f}, {0.0f, 1.0f, 2.0, 0.5, 0.146447f}, {0.2f, 0.6f, 1.0, 0.25, 0.258579f},
      {0.3f, 0.9f, 0.0, 0.0, 0.9f}, {0.3f, 0.9f, -1.0, 0.0, 0.9f},
  };
  for (const auto& c : cases)
    EXPECT_NEAR(KyoAudioDevice::_computeFadeWithStartVolume(c.from, c.to, c.duration, c.elapsed), c.expected, 1e-5)
        << c.from << "->" << c.to << " over " << c.duration << " at " << c.elapsed;
}

TEST_F(AudioDeviceFade, TheMasterFollowsTheCurveStepByStepAndEndsExactly) {
  dev.device->fadeToMasterVolume(0.0f, 0.1);
  clock->settle();
  EXPECT_NEAR(dev.device->masterVolume(), 1.0f, 1e-6);
  followsTheCurve(1.0f, 0.0f, 0.1);
  EXPECT_EQ(clock->runningWorkers(), 0);
  // A fade of no length sets the level at once.
  dev.device->fadeToMasterVolume(0.25f, 0.0);
  clock->settle();
  EXPECT_EQ(dev.device->masterVolume(), 0.25f);
}

TEST_F(AudioDeviceFade, ASecondFadeTakesOverFromTheLevelReached) {
  dev.device->fadeToMasterVolume(0.0f, 1.0);
  clock->settle();
  clock->advance(50 * kStep);
  const float reached = dev.device->masterVolume();
  EXPECT_NEAR(reached, 0.5f, 0.02f);
  const int32_t before = dev.device->fadeIndex();
  dev.device->fadeToMasterVolume(1.0f, 0.2);
  EXPECT_NE(dev.device->fadeIndex(), before);
  clock->settle();
  EXPECT_NEAR(dev.device->masterVolume(), reached, 1e-4);  // no jump
  followsTheCurve(reached, 1.0f, 0.2);
  // The first fade would have ended now at 0: it must have given up.
  clock->advance(1.0);
  EXPECT_EQ(dev.device->masterVolume(), 1.0f);
}

TEST_F(AudioDeviceFade, ClosingMidFadeEndsItWithoutAFinalWrite) {
  dev.device->fadeToMasterVolume(0.0f, 0.5);
  clock->settle();
  clock->advance(10 * kStep);
  EXPECT_LT(dev.device->masterVolume(), 1.0f);
  dev.device->close();
  ASSERT_TRUE(dev.device->open());  // a fresh mixer at the defaults
  EXPECT_EQ(dev.device->masterVolume(), 1.0f);
  clock->advance(1.0);
  EXPECT_EQ(dev.device->masterVolume(), 1.0f);
  EXPECT_EQ(clock->runningWorkers(), 0);
}

// --- Meters ---

float decibels(double linearPower) { return float(10.0 * std::log10(linearPower)); }

TEST(AudioDeviceMeters, ASineReadsItsPowerAndPeakThenHoldsAndFalls) {
  constexpr double rate = 48000.0;
  constexpr uint32_t frames = 128;
  OfflineDevice dev{2, rate, frames};
  ASSERT_TRUE(dev.device->open());
  auto s = std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{0}, TestSource::Signal::Sine, 0.5f);
  s->setSine(1000.0, rate);
  ASSERT_TRUE(dev.device->_attachAudio(s));

  EXPECT_EQ(dev.device->outPostAveragePowerAtChannel(0), KyoMatrixMixer::kMeterFloorDecibels);
  s->_play();
  // Ten time constants of the power average: it has settled.
  const uint32_t settle = uint32_t(std::ceil(10 * KyoMatrixMixer::kMeterPowerTimeConstantSeconds * rate / frames));
  ASSERT_EQ(dev.pull(settle), 0);
  // A sine of amplitude a has a mean square of a^2 / 2; 1 kHz at 48 kHz hits its crest exactly.
  EXPECT_NEAR(dev.device->outPostAveragePowerAtChannel(0), decibels(0.5 * 0.5 / 2), 0.05);
  EXPECT_NEAR(dev.device->outPostPeakHoldLevelAtChannel(0), 20 * std::log10(0.5), 0.01);
  // The silent channel reads the floor.
  EXPECT_EQ(dev.device->outPostAveragePowerAtChannel(1), KyoMatrixMixer::kMeterFloorDecibels);
  EXPECT_EQ(dev.device->outPostPeakHoldLevelAtChannel(1), KyoMatrixMixer::kMeterFloorDecibels);

  // Gain after the mixer shows: the master at half is 6 dB down.
  dev.device->setMasterVolume(0.5f);
  ASSERT_EQ(dev.pull(settle), 0);
  EXPECT_NEAR(dev.device->outPostAveragePowerAtChannel(0), decibels(0.25 * 0.25 / 2), 0.05);
  dev.device->setMasterVolume(1.0f);
  ASSERT_EQ(dev.pull(settle), 0);

  s->_stop();
  // Within the hold the peak stays where it was.
  const uint32_t halfHold = uint32_t(KyoMatrixMixer::kMeterPeakHoldSeconds * rate / frames / 2);
  ASSERT_EQ(dev.pull(halfHold), 0);
  EXPECT_NEAR(dev.device->outPostPeakHoldLevelAtChannel(0), 20 * std::log10(0.5), 0.01);
  EXPECT_LT(dev.device->outPostAveragePowerAtChannel(0), -30.0f);  // about -38 dB after half a second
  // Then it falls at the stated rate: one second after the hold, that many dB lower.
  const uint32_t fallSecond = uint32_t(rate / frames);
  ASSERT_EQ(dev.pull(halfHold + fallSecond), 0);
  EXPECT_NEAR(dev.device->outPostPeakHoldLevelAtChannel(0),
              20 * std::log10(0.5) - KyoMatrixMixer::kMeterPeakFallDecibelsPerSecond, 0.5);
  // And at last down to the floor.
  ASSERT_EQ(dev.pull(10 * fallSecond), 0);
  EXPECT_EQ(dev.device->outPostPeakHoldLevelAtChannel(0), KyoMatrixMixer::kMeterFloorDecibels);
  EXPECT_EQ(dev.device->outPostAveragePowerAtChannel(0), KyoMatrixMixer::kMeterFloorDecibels);
}

TEST(AudioDeviceMeters, AClippingSampleShowsAboveZeroDecibels) {
  OfflineDevice dev{1, 48000.0, 64};
  ASSERT_TRUE(dev.device->open());
  auto s = std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{0}, TestSource::Signal::Constant, 2.0f);
  ASSERT_TRUE(dev.device->_attachAudio(s));
  s->_play();
  ASSERT_EQ(dev.pull(1), 0);
  EXPECT_NEAR(dev.device->outPostPeakHoldLevelAtChannel(0), 20 * std::log10(2.0), 0.01);
  // No clipping in the engine: the device gets the sample as mixed.
  auto rec = dev.recording();
  for (float v : rec[0]) ASSERT_EQ(v, 2.0f);
  // A channel the device doesn't have answers a status, logged, and reads 0.
  EXPECT_EQ(dev.device->outPostAveragePowerAtChannel(5), 0.0f);
}

// Whatever the engine mixes, a sample that is not a number never reaches the device
// layer: it goes out as silence and is counted; its neighbours are untouched.
TEST(AudioDeviceMeters, SamplesThatAreNotNumbersGoOutAsSilence) {
  OfflineDevice dev{2, 48000.0, 64};
  ASSERT_TRUE(dev.device->open());
  std::vector<std::shared_ptr<TestSource>> sources{
      std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{0}, TestSource::Signal::Constant, NAN),
      std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{1}, TestSource::Signal::Constant, 0.5f)};
  for (auto& s : sources) {
    ASSERT_TRUE(dev.device->_attachAudio(s));
    s->_play();
  }
  ASSERT_EQ(dev.pull(3), 0);
  auto rec = dev.recording();
  for (float v : rec[0]) ASSERT_EQ(v, 0.0f);
  for (float v : rec[1]) ASSERT_EQ(v, 0.5f);
  EXPECT_EQ(dev.device->nonFiniteSamplesReplaced(), 3u * 64u);
  // Two huge finite levels overflow into infinities: silenced as well.
  dev.device->setMasterVolume(3e38f);
  dev.device->setOutputVolume(3e38f, 1);
  ASSERT_EQ(dev.pull(1), 0);
  rec = dev.recording();
  EXPECT_EQ(rec[1].back(), 0.0f);
  EXPECT_EQ(dev.device->nonFiniteSamplesReplaced(), 3u * 64u + 2u * 64u);
}

TEST(AudioDevicePrint, TheMatrixPrintsAsARowPerInputChannelThenTheOutputs) {
  OfflineDevice dev{3, 48000.0, 64};
  dev.device->printVolumes();  // closed: prints nothing, no crash
  ASSERT_TRUE(dev.device->open());
  dev.device->setMasterVolume(0.5f);
  dev.device->setVolume(0.25f, 2, 3);  // logical 1 to device 2, on every bus
  ::testing::internal::CaptureStdout();
  dev.device->printVolumes();
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("\n\tInput Channels = 24000, Output Channels = 3\n\tGlobal Volume: 0.500\n", 0), 0u);
  size_t lines = 0;
  for (char c : out) lines += c == '\n';
  EXPECT_EQ(lines, 3u + 24000u + 1u);
  EXPECT_NE(out.find("\t1.000   (1.000) (0.000) (0.000) \n\t1.000   (0.000) (1.000) (0.250) \n"), std::string::npos);
  EXPECT_NE(out.find("\t         1.000   1.000   1.000  \n"), std::string::npos);
}

}  // namespace
