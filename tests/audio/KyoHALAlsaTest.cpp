// ALSA devices through alsa-lib's own PCMs, with no sound card needed: "null", and
// PCMs of a private ~/.asoundrc (a file PCM that records what was written, one
// that cannot write, one that goes away).

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "audio/KyoHAL.h"
#include "foundation/KyoClock.h"
#include "support/AllocationCounter.h"
#include "support/TestFiles.h"
#include "support/Waiting.h"

namespace {

using sonto::test::eventually;
using sonto::test::LogCapture;

struct Cycles {
  std::atomic<int> count{0};
  std::atomic<int> inside{0};
  std::atomic<bool> stopped{false};
  std::atomic<bool> calledAfterStop{false};
  std::atomic<bool> wrongShape{false};
  std::atomic<bool> watch{false};
  std::atomic<uint32_t> frames{0};
  std::atomic<pthread_t> thread{};
  double nextSampleTime = 0;  // render thread only
};

// Writes the ramp of the frame numbers the device has asked for so far.
void rampProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output, double sampleTime) {
  auto* c = static_cast<Cycles*>(client);
  c->inside.fetch_add(1);
  if (c->watch.load()) sonto::test::watchAllocationsOnThisThread(true);
  if (c->stopped.load()) c->calledAfterStop.store(true);
  c->thread.store(pthread_self());
  c->frames.store(frames);
  if (input || output->mNumberBuffers != 2 || sampleTime != c->nextSampleTime) c->wrongShape.store(true);
  c->nextSampleTime = sampleTime + frames;
  for (uint32_t b = 0; b < output->mNumberBuffers; ++b) {
    auto* d = static_cast<float*>(output->mBuffers[b].mData);
    for (uint32_t i = 0; i < frames; ++i) {
      if (d[i] != 0) c->wrongShape.store(true);
      d[i] = sonto::test::rampSample(int64_t(sampleTime) + i, b);
    }
  }
  c->count.fetch_add(1);
  c->inside.fetch_sub(1);
}

// A private HOME for the whole run, set before main while this is the only thread:
// alsa-lib reads it (for ~/.asoundrc) on the device layer's threads.
const std::string kHome = [] {
  std::string home = sonto::test::temporaryPath("alsa-home");
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
    ASSERT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALNoError);
    EXPECT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALIllegalOperationError);
    ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 3; }));
    if (round == 0) {
      sonto::test::resetWatchedAllocations();
      cycles.watch.store(true);
      int from = cycles.count.load();
      ASSERT_TRUE(eventually([&] { return cycles.count.load() >= from + 50; }));
      EXPECT_EQ(sonto::test::watchedAllocations(), 0u);
    }
    ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
    cycles.stopped.store(true);
    EXPECT_EQ(cycles.inside.load(), 0);
    EXPECT_EQ(cycles.frames.load(), 512u);
    EXPECT_FALSE(cycles.wrongShape.load());
    EXPECT_FALSE(pthread_equal(cycles.thread.load(), pthread_self()));
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
  ASSERT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALNoError);
  ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 40; }));
  ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
  EXPECT_EQ(cycles.frames.load(), 256u);
  EXPECT_FALSE(cycles.wrongShape.load());

  std::ifstream file(recordingPath(), std::ios::binary);
  ASSERT_TRUE(file.good());
  std::vector<float> samples;
  float value;
  while (file.read(reinterpret_cast<char*>(&value), sizeof value)) samples.push_back(value);
  ASSERT_EQ(samples.size() % 2, 0u);
  int64_t frames = int64_t(samples.size() / 2);
  EXPECT_GE(frames, 30 * 256);
  EXPECT_LE(frames, int64_t(cycles.count.load()) * 256);
  int64_t wrong = 0;
  for (int64_t f = 0; f < frames; ++f)
    for (uint32_t c = 0; c < 2; ++c)
      if (samples[size_t(f * 2 + c)] != sonto::test::rampSample(f, c) && wrong++ < 5)
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
  std::mutex mutex;
  std::vector<std::pair<KyoAudioObjectID, uint32_t>> events;
  uint64_t token = hal.addListener([&](KyoAudioObjectID object, uint32_t selector) {
    std::lock_guard<std::mutex> lock(mutex);
    events.emplace_back(object, selector);
  });
  auto saw = [&](KyoAudioObjectID object, uint32_t selector) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::find(events.begin(), events.end(), std::make_pair(object, selector)) != events.end();
  };
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
  EXPECT_TRUE(eventually([&] { return saw(vanishing, kKyoPropertyDeviceIsAlive); }));
  EXPECT_TRUE(eventually([&] { return saw(kKyoAudioObjectSystemObject, kKyoPropertyDevices); }));

  // Back in the configuration: the same number again.
  writeConfiguration(true);
  EXPECT_EQ(hal.deviceWithUID("alsa:sontovanishing"), vanishing);
  hal.removeListener(token);
}

}  // namespace
