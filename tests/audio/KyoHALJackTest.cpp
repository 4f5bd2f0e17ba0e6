// The JACK device against a real, private jackd on the dummy driver: listing,
// cycles, input, the server's death and a server that is not there.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "audio/KyoHAL.h"
#include "foundation/KyoClock.h"
#include "support/AllocationCounter.h"
#include "support/JackServer.h"
#include "support/Waiting.h"

namespace {

using sonto::test::eventually;
using sonto::test::LogCapture;

using sonto::test::JackServer;

// Before main, while this is the only thread: the device layer's threads read the
// environment, so it is set once for the whole run, to a server no one else runs.
const bool kServerNamed = [] {
  setenv("JACK_DEFAULT_SERVER", JackServer::processServerName().c_str(), 1);
  return true;
}();

#define SKIP_WITHOUT_JACKD()                                                  \
  do {                                                                        \
    if (!JackServer::installed()) {                                           \
      GTEST_SKIP() << "jackd or jack_wait is not installed";                  \
    }                                                                         \
    if (JackServer::processServerName().empty()) {                            \
      GTEST_SKIP() << "every private JACK server name is held by other runs"; \
    }                                                                         \
  } while (0)

struct Cycles {
  std::atomic<int> count{0};
  std::atomic<int> inside{0};
  std::atomic<bool> stopped{false};
  std::atomic<bool> calledAfterStop{false};
  std::atomic<bool> wrongShape{false};
  std::atomic<bool> sampleTimeWrong{false};
  std::atomic<bool> watch{false};
  std::atomic<uint32_t> inputChannels{0};
  std::atomic<pthread_t> thread{};
  uint32_t expectedFrames = 128;
  uint32_t expectedOutputs = 2;
  double nextSampleTime = -1;  // render thread only
};

void countingProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output,
                  double sampleTime) {
  auto* c = static_cast<Cycles*>(client);
  c->inside.fetch_add(1);
  if (c->watch.load()) sonto::test::watchAllocationsOnThisThread(true);
  if (c->stopped.load()) c->calledAfterStop.store(true);
  c->thread.store(pthread_self());
  if (frames != c->expectedFrames || output->mNumberBuffers != c->expectedOutputs) c->wrongShape.store(true);
  for (uint32_t b = 0; b < output->mNumberBuffers; ++b) {
    auto* d = static_cast<float*>(output->mBuffers[b].mData);
    if (!d || output->mBuffers[b].mDataByteSize != frames * sizeof(float)) {
      c->wrongShape.store(true);
      continue;
    }
    for (uint32_t i = 0; i < frames; ++i) {
      if (d[i] != 0) c->wrongShape.store(true);  // outputs arrive zeroed
      d[i] = 0.25f;
    }
  }
  if (input) {
    c->inputChannels.store(input->mNumberBuffers);
    for (uint32_t b = 0; b < input->mNumberBuffers; ++b)
      if (!input->mBuffers[b].mData || input->mBuffers[b].mDataByteSize != frames * sizeof(float))
        c->wrongShape.store(true);
  }
  if (c->nextSampleTime >= 0 && sampleTime != c->nextSampleTime) c->sampleTimeWrong.store(true);
  c->nextSampleTime = sampleTime + frames;
  c->count.fetch_add(1);
  c->inside.fetch_sub(1);
}

struct EventLog {
  std::mutex mutex;
  std::vector<std::pair<KyoAudioObjectID, uint32_t>> events;
  std::vector<pthread_t> threads;
  uint64_t token = 0;

  explicit EventLog(KyoHAL& hal) {
    token = hal.addListener([this](KyoAudioObjectID object, uint32_t selector) {
      std::lock_guard<std::mutex> lock(mutex);
      events.emplace_back(object, selector);
      threads.push_back(pthread_self());
    });
  }
  ~EventLog() { KyoHAL::shared().removeListener(token); }
  bool saw(KyoAudioObjectID object, uint32_t selector) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::find(events.begin(), events.end(), std::make_pair(object, selector)) != events.end();
  }
};

TEST(KyoHALJack, ServerIsListedAsTheDefaultAndRendersWithoutAllocating) {
  SKIP_WITHOUT_JACKD();
  JackServer server;
  ASSERT_TRUE(server.start(128)) << server.error();
  KyoHAL& hal = KyoHAL::shared();
  hal.rescan();
  KyoAudioObjectID id = hal.deviceWithUID("jack:" + server.name());
  ASSERT_NE(id, 0u);
  auto all = hal.allDevices();
  EXPECT_NE(std::find(all.begin(), all.end(), id), all.end());
  EXPECT_GT(id, kKyoAudioObjectSystemObject);
  EXPECT_EQ(hal.defaultOutputDevice(), id);
  EXPECT_EQ(hal.defaultInputDevice(), id);

  KyoHALDeviceProperties p;
  ASSERT_EQ(hal.properties(id, p), kKyoHALNoError);
  EXPECT_EQ(p.modelUID, "jack");
  EXPECT_EQ(p.outputChannels, 2u);
  EXPECT_EQ(p.inputChannels, 2u);
  EXPECT_EQ(p.nominalSampleRate, 48000);
  EXPECT_EQ(p.bufferSizeInFrames, 128u);

  Cycles cycles;
  ASSERT_EQ(hal.startIO(id, false, countingProc, &cycles), kKyoHALNoError);
  EXPECT_EQ(hal.startIO(id, false, countingProc, &cycles), kKyoHALIllegalOperationError);
  ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 4; }));
  sonto::test::resetWatchedAllocations();
  cycles.watch.store(true);
  int from = cycles.count.load();
  ASSERT_TRUE(eventually([&] { return cycles.count.load() >= from + 20; }));
  EXPECT_EQ(sonto::test::watchedAllocations(), 0u);
  ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
  cycles.stopped.store(true);
  EXPECT_EQ(cycles.inside.load(), 0);
  EXPECT_FALSE(pthread_equal(cycles.thread.load(), pthread_self()));
  EXPECT_FALSE(cycles.wrongShape.load());
  EXPECT_FALSE(cycles.sampleTimeWrong.load());
  EXPECT_EQ(cycles.inputChannels.load(), 0u);
  EXPECT_EQ(hal.stopIO(id), kKyoHALNotRunningError);

  // Open again, with the capture ports this time, then stop while cycles run.
  for (int round = 0; round < 3; ++round) {
    Cycles again;
    ASSERT_EQ(hal.startIO(id, true, countingProc, &again), kKyoHALNoError);
    ASSERT_TRUE(eventually([&] { return again.count.load() >= 2; }));
    ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
    again.stopped.store(true);
    EXPECT_EQ(again.inside.load(), 0);
    EXPECT_EQ(again.inputChannels.load(), 2u);
    EXPECT_FALSE(again.wrongShape.load());
    KyoCurrentClock().sleepFor(0.01);
    EXPECT_FALSE(again.calledAfterStop.load());
  }
  EXPECT_FALSE(cycles.calledAfterStop.load());
}

// Death while open: 'livn' on the listener thread, then stop answers without hanging
// and the device leaves the list; the same server name found again keeps its number.
TEST(KyoHALJack, ServerDeathIsTheDeviceDeath) {
  SKIP_WITHOUT_JACKD();
  for (int signal : {SIGKILL, SIGTERM}) {
    SCOPED_TRACE(signal == SIGKILL ? "SIGKILL" : "SIGTERM");
    JackServer server;
    ASSERT_TRUE(server.start(128)) << server.error();
    KyoHAL& hal = KyoHAL::shared();
    hal.rescan();
    KyoAudioObjectID id = hal.deviceWithUID("jack:" + server.name());
    ASSERT_NE(id, 0u);
    KyoAudioObjectID null = hal.deviceWithUID("null");
    EventLog log(hal);
    Cycles cycles;
    ASSERT_EQ(hal.startIO(id, false, countingProc, &cycles), kKyoHALNoError);
    ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 2; }));

    server.kill(signal);
    ASSERT_TRUE(eventually([&] { return log.saw(id, kKyoPropertyDeviceIsAlive); }));
    KyoHALDeviceProperties p;
    EXPECT_EQ(hal.properties(id, p), kKyoHALBadDeviceError);
    EXPECT_EQ(hal.stopIO(id), kKyoHALNoError);
    EXPECT_EQ(cycles.inside.load(), 0);
    {
      std::lock_guard<std::mutex> lock(log.mutex);
      for (pthread_t t : log.threads) {
        EXPECT_FALSE(pthread_equal(t, pthread_self()));
        EXPECT_FALSE(pthread_equal(t, cycles.thread.load()));
      }
    }
    // Without a server, the default output falls back and the device is gone.
    ASSERT_TRUE(eventually([&] {
      auto all = hal.allDevices();
      return std::find(all.begin(), all.end(), id) == all.end();
    }));
    EXPECT_EQ(hal.deviceWithUID("jack:" + server.name()), 0u);
    EXPECT_NE(hal.defaultOutputDevice(), id);
    EXPECT_TRUE(eventually([&] { return log.saw(kKyoAudioObjectSystemObject, kKyoPropertyDevices); }));
    EXPECT_TRUE(eventually([&] { return log.saw(kKyoAudioObjectSystemObject, kKyoPropertyDefaultOutput); }));
    EXPECT_NE(null, 0u);
    EXPECT_EQ(hal.startIO(id, false, countingProc, &cycles), kKyoHALBadDeviceError);

    // The same server again: the same device number, alive, and it opens.
    ASSERT_TRUE(server.start(128)) << server.error();
    hal.rescan();
    EXPECT_EQ(hal.deviceWithUID("jack:" + server.name()), id);
    ASSERT_EQ(hal.properties(id, p), kKyoHALNoError);
    EXPECT_TRUE(p.alive);
    Cycles again;
    ASSERT_EQ(hal.startIO(id, false, countingProc, &again), kKyoHALNoError);
    ASSERT_TRUE(eventually([&] { return again.count.load() >= 2; }));
    EXPECT_EQ(hal.stopIO(id), kKyoHALNoError);
  }
}

// A server that is not there is not listed, and a device whose server went away
// while closed fails to start with a logged status instead of waiting for it.
TEST(KyoHALJack, NoServerNoDeviceAndStartFails) {
  SKIP_WITHOUT_JACKD();
  KyoHAL& hal = KyoHAL::shared();
  ASSERT_TRUE(kServerNamed);
  {
    JackServer absent;  // not started
    hal.rescan();
    for (KyoAudioObjectID device : hal.allDevices()) {
      KyoHALDeviceProperties p;
      if (hal.properties(device, p) == kKyoHALNoError) {
        EXPECT_NE(p.modelUID, "jack") << p.uid;
      }
    }
    EXPECT_EQ(hal.deviceWithUID("jack:" + absent.name()), 0u);
  }

  JackServer server;
  ASSERT_TRUE(server.start(256)) << server.error();
  hal.rescan();
  KyoAudioObjectID id = hal.deviceWithUID("jack:" + server.name());
  ASSERT_NE(id, 0u);
  KyoHALDeviceProperties p;
  ASSERT_EQ(hal.properties(id, p), kKyoHALNoError);
  EXPECT_EQ(p.bufferSizeInFrames, 256u);
  server.kill(SIGKILL);
  LogCapture capture;
  Cycles cycles;
  int32_t status = hal.startIO(id, false, countingProc, &cycles);
  EXPECT_NE(status, kKyoHALNoError);
  EXPECT_TRUE(capture.contains("Error: ")) << "the failure was not logged";
  EXPECT_EQ(cycles.count.load(), 0);
  EXPECT_EQ(hal.stopIO(id), status == kKyoHALNoError ? kKyoHALNoError : kKyoHALNotRunningError);
}

}  // namespace
