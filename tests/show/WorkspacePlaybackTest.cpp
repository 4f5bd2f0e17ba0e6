// Cue playback heard on the real engine: workspaces on offline devices pulled cycle
// by cycle, virtual time moved on by each cycle's length, files whose samples encode
// their frame number. What a cue does is checked in the rendered output.

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "ShowTestSupport.h"
#include "audio/KyoAudioDevice.h"
#include "effects/KyoAudioSource.h"
#include "foundation/KyoClock.h"
#include "show/Workspace.h"
#include "support/TestFiles.h"

using namespace showtest;
using sonto::test::rampSample;

namespace {

constexpr double kRate = 48000;
constexpr uint32_t kFrames = 480;  // 10 ms, one fade step per cycle

// Frames of `channel` from `from` on that differ from the file played from `fileFrame`
// at `gain`; prints the first few.
size_t wrongFrames(const std::vector<float>& channel, size_t from, size_t count, int64_t fileFrame, uint32_t fileChannel,
                   float gain = 1.0f) {
  size_t wrong = 0;
  for (size_t i = 0; i < count && from + i < channel.size(); ++i) {
    const float expected = rampSample(fileFrame + int64_t(i), fileChannel) * gain;
    if (channel[from + i] != expected && wrong++ < 3) {
      ADD_FAILURE() << "frame " << from + i << ": " << channel[from + i] << " != " << expected;
    }
  }
  return wrong;
}

bool silent(const std::vector<float>& channel, size_t from, size_t count = SIZE_MAX) {
  for (size_t i = from; i < channel.size() && i - from < count; ++i) {
    if (channel[i] != 0.0f) return false;
  }
  return true;
}

// The gain of one cycle against the file, from its loudest sample.
float cycleGain(const std::vector<float>& channel, size_t cycle, int64_t fileFrameAtCycle) {
  float best = 0.0f, gain = 0.0f;
  for (size_t i = 0; i < kFrames; ++i) {
    const float reference = rampSample(fileFrameAtCycle + int64_t(i), 0);
    if (std::fabs(reference) > best) {
      best = std::fabs(reference);
      gain = channel[cycle * kFrames + i] / reference;
    }
  }
  return gain;
}

class PlaybackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_CACHE_HOME", sonto::test::temporaryPath("cache").c_str(), 1);
    ASSERT_TRUE(out.device && out.device->isOpen());
    workspace = std::make_unique<Workspace>(out.device);
    cart = std::make_shared<Cart>();
    workspace->addCart(cart);
  }
  void TearDown() override {
    time.clock->settle();
    if (workspace) workspace->close();
    workspace.reset();
    cart.reset();
    time.clock->settle();
  }

  std::shared_ptr<AudioCue> addCue(const std::string& name, double seconds, unsigned long index,
                                   std::shared_ptr<KyoAudioDevice> device = nullptr, Cart* into = nullptr) {
    const std::string path = rampFile(name + ".wav", kRate, 2, int64_t(seconds * kRate));
    auto cue = AudioCue::createWithFile(path, device ? device : out.device);
    EXPECT_TRUE(cue && engineSource(*cue) && cue->isLoaded()) << name;
    (into ? into : cart.get())->setCue(cue, index);
    cue->setCart(into ? into : cart.get());
    EXPECT_TRUE(waitUntilReady(*cue)) << name;
    return cue;
  }
  void step(uint32_t cycles) { render(out, *time.clock, cycles); }
  // Renders far faster than real time: the read-ahead of the playing cue gets its
  // real time every few cycles, as a real device would give it, so that a drop-out of
  // a loaded machine is not taken for a fault of the cue.
  void stepFed(const AudioCue& cue, uint32_t cycles) {
    while (cycles > 0) {
      const uint32_t n = std::min<uint32_t>(cycles, 10);
      step(n);
      cycles -= n;
      // Mid-play there is no readiness to wait for: a short real pause lets the
      // fill threads top the ring up (10 cycles are far less than the ring holds).
      if (cue.isPlaying()) KyoPlainClock().sleepFor(0.03);
    }
  }
  std::vector<float> channel(uint32_t c) { return out.recording().at(c); }

  VirtualTime time;  // first in, last out: everything below runs on it
  EngineSources sources;
  OfflineDevice out{2, kRate, kFrames};
  std::unique_ptr<Workspace> workspace;
  std::shared_ptr<Cart> cart;
};

}  // namespace

// --- The state table, heard ---

TEST_F(PlaybackTest, TriggerStartsInTheNextCycleAndASecondTriggerStopsAndRewinds) {
  auto cue = addCue("toggle", 1.0, 0);
  step(2);
  cue->triggerDown();
  EXPECT_TRUE(cue->playing());
  step(10);
  auto left = channel(0), right = channel(1);
  EXPECT_TRUE(silent(left, 0, 2 * kFrames));
  EXPECT_EQ(wrongFrames(left, 2 * kFrames, 10 * kFrames, 0, 0), 0u);
  EXPECT_EQ(wrongFrames(right, 2 * kFrames, 10 * kFrames, 0, 1), 0u);

  cue->triggerDown();  // Running: stop, and stop rewinds
  EXPECT_FALSE(cue->playing());
  EXPECT_FALSE(cue->paused());
  EXPECT_EQ(cue->progress(), 0.0f);
  out.clear();
  step(3);
  EXPECT_TRUE(silent(channel(0), 0));

  ASSERT_TRUE(waitUntilReady(*cue));
  cue->triggerDown();
  out.clear();
  step(3);
  EXPECT_EQ(wrongFrames(channel(0), 0, 3 * kFrames, 0, 0), 0u) << "a new start begins at the top";
}

TEST_F(PlaybackTest, HoldPlaysWhileHeldAndTheReleaseStops) {
  auto cue = addCue("hold", 1.0, 0);
  cue->setHold(true);
  cue->triggerDown();
  step(4);
  cue->triggerUp();
  EXPECT_FALSE(cue->playing());
  step(3);
  auto left = channel(0);
  EXPECT_EQ(wrongFrames(left, 0, 4 * kFrames, 0, 0), 0u);
  EXPECT_TRUE(silent(left, 4 * kFrames));

  // Without hold a release does nothing in any state.
  auto plain = addCue("plain", 1.0, 1);
  plain->triggerDown();
  plain->triggerUp();
  EXPECT_TRUE(plain->playing());
  plain->stop();
}

TEST_F(PlaybackTest, PauseKeepsThePlaceAndResumeContinuesIt) {
  auto cue = addCue("pause", 1.0, 0);
  cue->triggerDown();
  step(5);
  cue->pause();
  EXPECT_TRUE(cue->playing());
  EXPECT_TRUE(cue->paused());
  EXPECT_FALSE(cue->isPlaying());
  step(4);
  cue->resume();
  EXPECT_FALSE(cue->paused());
  step(5);
  auto left = channel(0);
  EXPECT_EQ(wrongFrames(left, 0, 5 * kFrames, 0, 0), 0u);
  EXPECT_TRUE(silent(left, 5 * kFrames, 4 * kFrames));
  EXPECT_EQ(wrongFrames(left, 9 * kFrames, 5 * kFrames, 5 * kFrames, 0), 0u) << "resume goes on from the pause";

  // The progress timer runs through a pause without taking it for the end.
  cue->pause();
  step(30);
  EXPECT_TRUE(cue->playing());
  EXPECT_TRUE(cue->paused());

  // A paused cue counts as started: a trigger stops and rewinds it, and a resume
  // afterwards does nothing audible.
  cue->triggerDown();
  EXPECT_FALSE(cue->playing());
  EXPECT_FALSE(cue->paused());
  cue->resume();
  out.clear();
  step(3);
  EXPECT_TRUE(silent(channel(0), 0));
  EXPECT_FALSE(cue->playing());
}

TEST_F(PlaybackTest, InputsOnAnIdleCue) {
  auto cue = addCue("idle", 1.0, 0);
  cue->pause();
  EXPECT_FALSE(cue->paused());
  cue->setPaused(true);
  cue->resume();  // clears paused only
  EXPECT_FALSE(cue->paused());
  EXPECT_FALSE(cue->playing());
  cue->panic();
  cue->hardStop();
  cue->triggerUp();
  step(3);
  EXPECT_TRUE(silent(channel(0), 0));
  EXPECT_FALSE(cue->playing());
  EXPECT_FALSE(cue->isPanicking());
}

TEST_F(PlaybackTest, DeadCueNeitherPlaysNorLogs) {
  auto cue = addCue("dead", 1.0, 0);
  const size_t lines = workspace->logger()->log().size();
  cue->setDead(true);
  cue->triggerDown();
  step(3);
  EXPECT_TRUE(silent(channel(0), 0));
  EXPECT_FALSE(cue->playing());
  EXPECT_EQ(workspace->logger()->log().size(), lines);
}

TEST_F(PlaybackTest, EndOfFileReachesTheCueWithinATick) {
  auto cue = addCue("short", 0.25, 0);
  cue->triggerDown();
  EXPECT_EQ(workspace->logger()->log().size(), 1u) << "each play writes a line";
  step(25);
  EXPECT_TRUE(cue->playing());
  EXPECT_GT(cue->progress(), 0.5f);
  step(12);  // the file's end plus one tick of the timer
  EXPECT_FALSE(cue->playing());
  EXPECT_EQ(cue->progress(), 0.0f);
  auto left = channel(0);
  EXPECT_EQ(wrongFrames(left, 0, 12000, 0, 0), 0u);
  EXPECT_TRUE(silent(left, 12000));
}

TEST_F(PlaybackTest, LoopingCueOnlyEndsByStop) {
  auto cue = addCue("loop", 0.2, 0);  // 9600 frames: a timer tick falls on each loop's end
  cue->setLoops(true);
  ASSERT_TRUE(waitUntilReady(*cue));
  cue->triggerDown();
  // Rendered far faster than real time: the read-ahead is given its real time now
  // and then, as a real device would give it.
  for (int i = 0; i < 13; ++i) {
    step(5);
    ASSERT_TRUE(waitUntilReady(*cue));
  }
  EXPECT_TRUE(cue->playing());
  auto left = channel(0);
  size_t wrong = 0;
  for (size_t i = 0; i < left.size(); ++i) wrong += left[i] != rampSample(int64_t(i % 9600), 0);
  EXPECT_EQ(wrong, 0u) << "the loop is gapless and sample-exact";
  cue->stop();
  EXPECT_FALSE(cue->playing());
}

// --- Solo ---

TEST_F(PlaybackTest, SoloStopsEveryOtherCueInEveryWorkspace) {
  OfflineDevice second(2, kRate, kFrames);
  Workspace other(second.device);
  auto otherCart = std::make_shared<Cart>();
  other.addCart(otherCart);
  auto here = addCue("here", 2.0, 0);
  auto beside = addCue("beside", 2.0, 1);
  auto solo = addCue("solo", 2.0, 0, second.device, otherCart.get());
  solo->setSolo(true);

  here->triggerDown();
  beside->triggerDown();
  step(3);
  solo->triggerDown();
  time.clock->settle();
  out.clear();
  for (int i = 0; i < 5; ++i) {
    time.clock->settle();
    out.pull(1);
    second.pull(1);
    time.clock->advance(out.cycleSeconds());
  }
  EXPECT_FALSE(here->playing());
  EXPECT_FALSE(beside->playing());
  EXPECT_TRUE(solo->playing());
  EXPECT_TRUE(silent(channel(0), 0)) << "the other cues are cut in the next cycle";
  auto soloOut = second.recording().at(0);
  EXPECT_EQ(wrongFrames(soloOut, 0, 5 * kFrames, 0, 0), 0u) << "the solo cue starts at its top";

  // Solo acts at the start only: a cue started afterwards plays beside it.
  ASSERT_TRUE(waitUntilReady(*here));
  here->triggerDown();
  EXPECT_TRUE(solo->playing());
  // A solo cue triggered while it plays just stops, and sends no hard stop.
  solo->triggerDown();
  EXPECT_FALSE(solo->playing());
  EXPECT_TRUE(here->playing());
  here->stop();
  otherCart.reset();
}

// --- Panic ---

TEST_F(PlaybackTest, PanicFadesToSilenceOverTheDurationThenStops) {
  auto cue = addCue("panic", 3.0, 0);
  cue->triggerDown();
  step(5);
  out.clear();
  workspace->setPaused(true);
  workspace->panic();
  EXPECT_FALSE(workspace->isPaused()) << "panic clears the pause";
  stepFed(*cue, 50);
  EXPECT_TRUE(cue->isPanicking());
  EXPECT_TRUE(cue->playing());
  stepFed(*cue, 55);
  EXPECT_FALSE(cue->playing());
  EXPECT_FALSE(cue->isPanicking());

  auto left = channel(0);
  std::vector<float> gains;
  for (size_t c = 0; c < 100; ++c) gains.push_back(cycleGain(left, c, int64_t((5 + c) * kFrames)));
  EXPECT_GT(gains[0], 0.99f);
  for (size_t c = 1; c < gains.size(); ++c) EXPECT_LE(gains[c], gains[c - 1] + 1e-6f) << "cycle " << c;
  // A raised cosine: half way down at half the time.
  EXPECT_NEAR(gains[50], 0.5f, 0.05f);
  EXPECT_LT(gains[95], 0.01f);
  EXPECT_TRUE(silent(left, 101 * kFrames)) << "silent once the second has passed";

  // Played again, it sounds at its own level, not at the end of the fade.
  ASSERT_TRUE(waitUntilReady(*cue));
  cue->setVolume(0.5f);
  out.clear();
  cue->triggerDown();
  step(3);
  EXPECT_EQ(wrongFrames(channel(0), 0, 3 * kFrames, 0, 0, 0.5f), 0u);
  cue->stop();
}

TEST_F(PlaybackTest, SecondPanicDuringTheFadeCutsAtOnce) {
  auto cue = addCue("twice", 3.0, 0);
  auto other = addCue("other", 3.0, 1);
  cue->triggerDown();
  other->triggerDown();
  step(2);
  workspace->panic();
  step(20);
  EXPECT_TRUE(cue->isPanicking());
  workspace->panic();
  out.clear();
  step(2);
  EXPECT_TRUE(silent(channel(0), 0));
  EXPECT_FALSE(cue->playing());
  EXPECT_FALSE(other->playing());
  // The first fade's workers end without a further stop.
  step(100);
  EXPECT_EQ(time.clock->runningWorkers(), 0);
  EXPECT_FALSE(cue->isPanicking());
}

TEST_F(PlaybackTest, PanicDurationZeroCutsOnTheFirstPress) {
  auto cue = addCue("cut", 3.0, 0);
  workspace->setPanicDuration(0.0f);
  cue->triggerDown();
  step(2);
  workspace->panic();
  out.clear();
  step(1);
  EXPECT_TRUE(silent(channel(0), 0));
  EXPECT_FALSE(cue->playing());
}

TEST_F(PlaybackTest, PauseDuringAPanicStillEndsInStop) {
  auto cue = addCue("pausedpanic", 3.0, 0);
  cue->triggerDown();
  step(2);
  workspace->panic();
  step(10);
  cue->pause();
  EXPECT_TRUE(cue->paused());
  step(95);
  EXPECT_FALSE(cue->playing());
  EXPECT_FALSE(cue->paused());
}

// --- The master level and ducking ---

TEST_F(PlaybackTest, DuckingMovesTheMasterOverEightTenthsOfASecondAndBack) {
  auto cue = addCue("duck", 4.0, 0);
  cue->triggerDown();
  step(2);
  out.clear();
  workspace->duck();
  EXPECT_TRUE(workspace->isDucked()) << "the flag turns at the start of the fade";
  stepFed(*cue, 90);
  auto left = channel(0);
  EXPECT_GT(cycleGain(left, 0, 2 * kFrames), 0.99f);
  EXPECT_NEAR(cycleGain(left, 40, 42 * kFrames), (1.0f + 0.15f) / 2, 0.05f);
  EXPECT_FLOAT_EQ(cycleGain(left, 85, 87 * kFrames), Workspace::kDefaultDuckedVolume);
  EXPECT_FLOAT_EQ(workspace->masterVolume(), Workspace::kDefaultDuckedVolume);

  // The slider moves the ducked level at once and leaves the plain level alone.
  workspace->setMasterVolume(0.25f);
  EXPECT_EQ(workspace->undoManager()->undoActionName(), QString("Ducking Volume Change"));
  EXPECT_FLOAT_EQ(workspace->duckedVolume(), 0.25f);
  EXPECT_FLOAT_EQ(workspace->storedMasterVolume(), 1.0f);
  out.clear();
  stepFed(*cue, 2);
  EXPECT_FLOAT_EQ(cycleGain(channel(0), 1, 93 * kFrames), 0.25f);

  workspace->unduck();
  EXPECT_FALSE(workspace->isDucked());
  stepFed(*cue, 90);
  EXPECT_FLOAT_EQ(workspace->masterVolume(), 1.0f) << "unduck restores the level from before the duck";
  cue->stop();
}

TEST_F(PlaybackTest, MasterChangesAreUndoneIntoTheLevelInForce) {
  SontoUndoManager& undo = *workspace->undoManager();
  workspace->setMasterVolume(0.5f);
  EXPECT_EQ(undo.undoActionName(), QString("Volume Change"));
  EXPECT_FLOAT_EQ(workspace->masterVolume(), 0.5f);
  EXPECT_FLOAT_EQ(workspace->previousVolume(), 1.0f);
  // Undone while ducked, the change made before the duck sets the ducked level.
  workspace->setDucked(true);
  undo.undo();
  EXPECT_FLOAT_EQ(workspace->duckedVolume(), 1.0f);
  EXPECT_FLOAT_EQ(workspace->storedMasterVolume(), 0.5f);
  EXPECT_EQ(undo.redoActionName(), QString("Volume Change")) << "names are kept across undo";
  workspace->setDucked(false);
  undo.redo();
  EXPECT_FLOAT_EQ(workspace->storedMasterVolume(), 0.15f);
}

TEST_F(PlaybackTest, DuckTwiceAndUnduckWithoutDuck) {
  workspace->unduck();
  step(90);
  EXPECT_FLOAT_EQ(workspace->masterVolume(), 1.0f);
  workspace->duck();
  step(90);
  workspace->duck();
  step(90);
  EXPECT_FLOAT_EQ(workspace->masterVolume(), Workspace::kDefaultDuckedVolume);
}

// --- Live edits ---

TEST_F(PlaybackTest, LoopPointsEditedDuringPlayKeepThePlaceAndStayGapless) {
  auto cue = addCue("edits", 1.0, 0);
  cue->setLoops(true);
  ASSERT_TRUE(waitUntilReady(*cue));
  cue->triggerDown();
  step(20);  // 0.2 s in
  cue->setEndTime(0.5);
  EXPECT_TRUE(cue->playing());
  ASSERT_TRUE(waitUntilReady(*cue));
  step(40);  // on to 0.5 s, then round from the top
  cue->setStartTime(0.1);
  EXPECT_DOUBLE_EQ(cue->startTime(), 0.1);
  ASSERT_TRUE(waitUntilReady(*cue));
  step(60);
  EXPECT_TRUE(cue->playing());

  auto left = channel(0);
  // Expected: 0 to 0.5 s, then from 0 again (the start edit falls at 0.1 s into the
  // second round, which is where the new slice begins), on to 0.5 s, then from 0.1 s.
  std::vector<int64_t> expected;
  for (int64_t f = 0; f < 24000; ++f) expected.push_back(f);
  for (int64_t f = 0; f < 4800; ++f) expected.push_back(f);
  while (expected.size() < left.size()) {
    for (int64_t f = 4800; f < 24000 && expected.size() < left.size(); ++f) expected.push_back(f);
  }
  size_t wrong = 0;
  for (size_t i = 0; i < left.size(); ++i) {
    if (left[i] != rampSample(expected[i], 0) && wrong++ < 3) {
      ADD_FAILURE() << "frame " << i << ": " << left[i] << " != file frame " << expected[i];
    }
  }
  EXPECT_EQ(wrong, 0u);
  cue->stop();
}

TEST_F(PlaybackTest, StartTimeIsLimitedToTheEndTime) {
  auto cue = addCue("limits", 1.0, 0);
  cue->setEndTime(0.5);
  cue->setStartTime(0.8);
  EXPECT_DOUBLE_EQ(cue->startTime(), 0.5);
  cue->setStartTime(-1.0);
  EXPECT_DOUBLE_EQ(cue->startTime(), 0.0);
  cue->setEndTime(7.0);
  EXPECT_DOUBLE_EQ(cue->endTime(), 1.0) << "the end is held to the file";
}

TEST_F(PlaybackTest, VolumeEditAppliesInTheNextCycle) {
  auto cue = addCue("volume", 1.0, 0);
  cue->triggerDown();
  step(2);
  cue->setVolume(0.25f);
  step(2);
  auto left = channel(0);
  EXPECT_EQ(wrongFrames(left, 2 * kFrames, 2 * kFrames, 2 * kFrames, 0, 0.25f), 0u);
  cue->stop();
}

// --- The grid ---

TEST_F(PlaybackTest, ResizingDuringPlaySilencesCuesOutsideAndBringsThemBack) {
  cart->setSize({4, 4});
  auto inside = addCue("inside", 2.0, 0);
  auto outsideA = addCue("outA", 2.0, 3);   // column 3
  auto outsideB = addCue("outB", 2.0, 7);   // row 1, column 3
  inside->triggerDown();
  outsideA->triggerDown();
  outsideB->triggerDown();
  step(2);
  const size_t before = workspace->logger()->log().size();
  cart->setSize({3, 4});
  EXPECT_TRUE(outsideA->isDead());
  EXPECT_TRUE(outsideB->isDead());
  EXPECT_FALSE(inside->isDead());
  out.clear();
  step(3);
  EXPECT_FALSE(outsideA->playing());
  EXPECT_FALSE(outsideB->playing());
  EXPECT_TRUE(inside->playing());
  EXPECT_EQ(wrongFrames(channel(0), 0, 3 * kFrames, 2 * kFrames, 0), 0u) << "only the cue inside sounds";
  const auto& log = workspace->logger()->log();
  ASSERT_EQ(log.size(), before + 1);
  EXPECT_NE(log.back().find(Cart::kOutsideWarning), std::string::npos);

  outsideA->triggerDown();
  EXPECT_FALSE(outsideA->playing()) << "a dead cue does not start";
  cart->setSize({4, 4});
  EXPECT_FALSE(outsideA->isDead());
  ASSERT_TRUE(waitUntilReady(*outsideA));
  outsideA->triggerDown();
  EXPECT_TRUE(outsideA->playing());
  workspace->stopAll();
}

// --- Routing ---

TEST(WorkspaceRoutingTest, DeviceChannelMovesTheLogicalOutputsAlong) {
  setenv("XDG_CACHE_HOME", sonto::test::temporaryPath("cache").c_str(), 1);
  VirtualTime time;
  EngineSources sources;
  struct Case {
    long channel;
    int firstSounding;  // device channel of logical output 1, or -1 for none
  };
  for (const Case c : {Case{3, 2}, Case{0, 0}, Case{-4, 0}, Case{5, -1}, Case{4, 3}}) {
    OfflineDevice out(4, kRate, kFrames);
    Workspace workspace(out.device);
    workspace.setDeviceChannel(c.channel);
    EXPECT_EQ(workspace.deviceChannel(), c.channel > 0 ? c.channel : 1);
    auto cue = AudioCue::createWithFile(rampFile("route.wav", kRate, 2, 9600), out.device);
    ASSERT_TRUE(waitUntilReady(*cue));
    cue->triggerDown();
    render(out, *time.clock, 3);
    auto rec = out.recording();
    for (int d = 0; d < 4; ++d) {
      const int logical = c.firstSounding < 0 ? -1 : d - c.firstSounding;
      if (logical == 0 || logical == 1) {
        EXPECT_EQ(wrongFrames(rec[d], 0, 3 * kFrames, 0, uint32_t(logical)), 0u) << c.channel << " on " << d;
      } else {
        EXPECT_TRUE(silent(rec[d], 0)) << "channel " << c.channel << ": device channel " << d;
      }
    }
    cue->stop();
    time.clock->settle();
    workspace.close();
  }
}

// --- Threads: the device renders on its own thread while the main thread plays ---

TEST_F(PlaybackTest, TriggersAndPanicsWhileTheDeviceRendersOnItsOwnThread) {
  std::vector<std::shared_ptr<AudioCue>> cues;
  for (unsigned long i = 0; i < 4; ++i) cues.push_back(addCue("thread" + std::to_string(i), 2.0, i));
  cues[3]->setSolo(true);
  std::atomic<bool> done{false};
  std::thread renderer([&] {
    while (!done.load()) out.pull(1);
  });
  for (int round = 0; round < 20; ++round) {
    workspace->audioDevice()->startSyncedActions();
    cues[round % 3]->triggerDown();
    workspace->audioDevice()->endSyncedActions();
    time.clock->advance(0.05);
    if (round % 5 == 4) workspace->panic();
    if (round % 7 == 6) cues[3]->triggerDown();
    if (round % 4 == 3) workspace->pauseAll();
    if (round % 4 == 0) workspace->resumeAll();
    time.clock->advance(0.05);
  }
  workspace->panic();
  time.clock->advance(1.2);
  workspace->panic();
  time.clock->advance(0.2);
  done = true;
  renderer.join();
  time.clock->settle();
  for (const auto& cue : cues) {
    EXPECT_FALSE(cue->playing());
    EXPECT_FALSE(cue->isPanicking());
  }
  EXPECT_EQ(time.clock->runningWorkers(), 0);
}
