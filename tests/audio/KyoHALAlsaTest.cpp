// ALSA devices through alsa-lib's own PCMs, with no sound card needed: "null", and
// PCMs of a private ~/.asoundrc (a file PCM that records what was written, one
// that cannot write, one that goes away).

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "HALTestSupport.h"
#include "foundation/KyoClock.h"

using namespace sonto::test;

namespace {

// A private HOME for the whole run, set before main while this is the only thread:
// alsa-lib reads it (for ~/.asoundrc) on the device layer's threads.
const std::string kHome = [] {
  std::string home = temporaryPath("alsa-home");
  mkdir(home.c_str(), 0700);
  setenv("HOME", home.c_str(), 1);
  return home;
}();

class KyoHALAlsa : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { writeConfiguration(true); }

  static std::string recordingPath() { return kHome + "/recorded.raw"; }

  static void writeConfiguration(bool withVanishing) {
    // Written aside and renamed, so that a scan on the listener thread never reads half a file.
    std::string path = kHome + "/.asoundrc";
    std::ofstream rc(path + ".new");
    rc << "pcm.sontorecord {\n  type file\n  slave.pcm \"null\"\n  file \"" << recordingPath()
       << "\"\n  format \"raw\"\n  hint { show on description \"Sonto test recorder\" }\n}\n";
    rc << "pcm.sontonocard {\n  type hw\n  card 31\n  hint { show on description \"Sonto test no card\" }\n}\n";
    if (withVanishing)
      rc << "pcm.sontovanishing {\n  type null\n  hint { show on description \"Sonto test vanishing\" }\n}\n";
    rc.close();
    std::rename((path + ".new").c_str(), path.c_str());
    // A fresh look reads the configuration again.
    KyoHAL::shared().rescan();
  }
};

TEST_F(KyoHALAlsa, NullPcmIsListedAndRendersWithoutAllocating) {
  ASSERT_FALSE(kHome.empty());
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = hal.deviceWithUID("alsa:null");
  ASSERT_NE(id, 0u) << "alsa-lib's null PCM is not in the hint list";
  KyoHALDeviceProperties p;
  ASSERT_EQ(hal.properties(id, p), kKyoHALNoError);
  EXPECT_EQ(p.modelUID, "alsa");
  EXPECT_EQ(p.outputChannels, 2u);
  EXPECT_EQ(p.nominalSampleRate, 48000);
  EXPECT_EQ(p.bufferSizeInFrames, 512u);
  EXPECT_NE(hal.defaultOutputDevice(), id);

  for (int round = 0; round < 4; ++round) {
    Cycles cycles;
    cycles.expectedFrames = 512;
    cycles.expectedOutputs = 2;
    ASSERT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALNoError);
    EXPECT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALIllegalOperationError);
    ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 3; }));
    if (round == 0) {
      EXPECT_EQ(allocationsOverCycles(cycles, 50), 0u);
    }
    stopAndCheck(id, cycles);
    EXPECT_EQ(cycles.inputChannels.load(), -1);
    KyoCurrentClock().sleepFor(0.005);
    EXPECT_FALSE(cycles.calledAfterStop.load());
  }
  EXPECT_EQ(hal.stopIO(id), kKyoHALNotRunningError);
}

// The file PCM keeps every written frame: what arrives on disk is the ramp, frame
// by frame, from frame 0, with no gap or repeat, at the period that was asked for.
TEST_F(KyoHALAlsa, FilePcmRecordsExactlyWhatWasRendered) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = hal.deviceWithUID("alsa:sontorecord");
  ASSERT_NE(id, 0u) << "the private ~/.asoundrc was not read";
  ASSERT_EQ(hal.setBufferSizeInFrames(id, 256), kKyoHALNoError);
  EXPECT_EQ(hal.setBufferSizeInFrames(id, 3), kKyoHALIllegalOperationError);
  std::remove(recordingPath().c_str());
  Cycles cycles;
  cycles.expectedFrames = 256;
  cycles.expectedOutputs = 2;
  ASSERT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALNoError);
  ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 40; }));
  stopAndCheck(id, cycles);

  std::ifstream file(recordingPath(), std::ios::binary);
  ASSERT_TRUE(file.good());
  std::vector<float> samples;
  for (float value; file.read(reinterpret_cast<char*>(&value), sizeof value);) samples.push_back(value);
  ASSERT_EQ(samples.size() % 2, 0u);
  int64_t frames = int64_t(samples.size() / 2);
  EXPECT_GE(frames, 30 * 256);
  EXPECT_LE(frames, int64_t(cycles.count.load()) * 256);
  int64_t wrong = 0;
  for (int64_t f = 0; f < frames; ++f)
    for (uint32_t c = 0; c < 2; ++c)
      if (samples[size_t(f * 2 + c)] != rampSample(f, c) && wrong++ < 5)
        ADD_FAILURE() << "frame " << f << " channel " << c << ": " << samples[size_t(f * 2 + c)];
  EXPECT_EQ(wrong, 0);
  ASSERT_EQ(hal.setBufferSizeInFrames(id, 512), kKyoHALNoError);
}

// A PCM on a card that is not there is not listed; one that leaves the
// configuration leaves the list ('livn', 'dev#'), and starting it fails with a
// logged status; back again, it has its old number.
TEST_F(KyoHALAlsa, BrokenAndVanishedPcmsFailWithALoggedStatus) {
  KyoHAL& hal = KyoHAL::shared();
  EXPECT_EQ(hal.deviceWithUID("alsa:sontonocard"), 0u);

  KyoAudioObjectID vanishing = hal.deviceWithUID("alsa:sontovanishing");
  ASSERT_NE(vanishing, 0u);
  EventLog events;
  writeConfiguration(false);
  EXPECT_EQ(hal.deviceWithUID("alsa:sontovanishing"), 0u);
  auto all = hal.allDevices();
  EXPECT_EQ(std::find(all.begin(), all.end(), vanishing), all.end());
  {
    LogCapture capture;
    Cycles cycles;
    EXPECT_EQ(hal.startIO(vanishing, false, rampProc, &cycles), kKyoHALBadDeviceError);
    EXPECT_TRUE(capture.contains("Error: "));
  }
  EXPECT_TRUE(eventually([&] { return events.saw(vanishing, kKyoPropertyDeviceIsAlive); }));
  EXPECT_TRUE(eventually([&] { return events.saw(kKyoAudioObjectSystemObject, kKyoPropertyDevices); }));

  // Back in the configuration: the same number again.
  writeConfiguration(true);
  EXPECT_EQ(hal.deviceWithUID("alsa:sontovanishing"), vanishing);
}

}  // namespace
