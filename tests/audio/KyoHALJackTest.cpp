// The JACK device against a real, private jackd on the dummy driver: listing,
// cycles, input, the server's death and a server that is not there.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "HALTestSupport.h"
#include "foundation/KyoClock.h"
#include "support/JackServer.h"

using namespace sonto::test;

namespace {

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

// A device on a fresh private server, found by a fresh look.
KyoAudioObjectID startedDevice(JackServer& server, unsigned period) {
  EXPECT_TRUE(server.start(period)) << server.error();
  KyoHAL::shared().rescan();
  return KyoHAL::shared().deviceWithUID("jack:" + server.name());
}

// Cycles of a JACK device: its period, two outputs, and a sample time that may
// start anywhere.
struct JackCycles : Cycles {
  explicit JackCycles(uint32_t period = 128) {
    expectedFrames = period;
    expectedOutputs = 2;
    nextSampleTime = -1;
  }
};

TEST(KyoHALJack, ServerIsListedAsTheDefaultAndRendersWithoutAllocating) {
  SKIP_WITHOUT_JACKD();
  JackServer server;
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = startedDevice(server, 128);
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

  JackCycles cycles;
  ASSERT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALNoError);
  EXPECT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALIllegalOperationError);
  ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 4; }));
  EXPECT_EQ(allocationsOverCycles(cycles, 20), 0u);
  stopAndCheck(id, cycles);
  EXPECT_EQ(cycles.inputChannels.load(), -1);
  EXPECT_EQ(hal.stopIO(id), kKyoHALNotRunningError);

  // Open again, with the capture ports this time, then stop while cycles run.
  for (int round = 0; round < 3; ++round) {
    JackCycles again;
    ASSERT_EQ(hal.startIO(id, true, rampProc, &again), kKyoHALNoError);
    ASSERT_TRUE(eventually([&] { return again.count.load() >= 2; }));
    stopAndCheck(id, again);
    EXPECT_EQ(again.inputChannels.load(), 2);
    KyoCurrentClock().sleepFor(0.01);
    EXPECT_FALSE(again.calledAfterStop.load());
  }
  EXPECT_FALSE(cycles.calledAfterStop.load());

  // Two shows on the one server: two clients, each with its own cycles.
  JackCycles first, second;
  ASSERT_EQ(hal.startIO(id, false, rampProc, &first), kKyoHALNoError);
  ASSERT_EQ(hal.startIO(id, false, rampProc, &second), kKyoHALNoError);
  ASSERT_TRUE(eventually([&] { return first.count.load() >= 2 && second.count.load() >= 2; }));
  ASSERT_EQ(hal.stopIO(id, &first), kKyoHALNoError);
  const int from = second.count.load();
  EXPECT_TRUE(eventually([&] { return second.count.load() >= from + 2; }));
  stopAndCheck(id, second);
  EXPECT_FALSE(first.wrongShape.load());
}

// Death while open: 'livn' on the listener thread, then stop answers without hanging
// and the device leaves the list; the same server name found again keeps its number.
TEST(KyoHALJack, ServerDeathIsTheDeviceDeath) {
  SKIP_WITHOUT_JACKD();
  KyoHAL& hal = KyoHAL::shared();
  for (int signal : {SIGKILL, SIGTERM}) {
    SCOPED_TRACE(signal == SIGKILL ? "SIGKILL" : "SIGTERM");
    JackServer server;
    KyoAudioObjectID id = startedDevice(server, 128);
    ASSERT_NE(id, 0u);
    EventLog log;
    JackCycles cycles;
    ASSERT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALNoError);
    ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 2; }));

    server.kill(signal);
    ASSERT_TRUE(eventually([&] { return log.saw(id, kKyoPropertyDeviceIsAlive); }));
    KyoHALDeviceProperties p;
    EXPECT_EQ(hal.properties(id, p), kKyoHALBadDeviceError);
    EXPECT_EQ(hal.stopIO(id), kKyoHALNoError);
    EXPECT_EQ(cycles.inside.load(), 0);
    EXPECT_TRUE(log.toldElsewhere(cycles.thread.load()));
    // Without a server, the default output falls back and the device is gone.
    ASSERT_TRUE(eventually([&] {
      auto all = hal.allDevices();
      return std::find(all.begin(), all.end(), id) == all.end();
    }));
    EXPECT_EQ(hal.deviceWithUID("jack:" + server.name()), 0u);
    EXPECT_NE(hal.defaultOutputDevice(), id);
    EXPECT_NE(hal.deviceWithUID("null"), 0u);
    EXPECT_TRUE(eventually([&] { return log.saw(kKyoAudioObjectSystemObject, kKyoPropertyDevices); }));
    EXPECT_TRUE(eventually([&] { return log.saw(kKyoAudioObjectSystemObject, kKyoPropertyDefaultOutput); }));
    EXPECT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALBadDeviceError);

    // The same server again: the same device number, alive, and it opens.
    EXPECT_EQ(startedDevice(server, 128), id);
    ASSERT_EQ(hal.properties(id, p), kKyoHALNoError);
    EXPECT_TRUE(p.alive);
    JackCycles again;
    ASSERT_EQ(hal.startIO(id, false, rampProc, &again), kKyoHALNoError);
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
  KyoAudioObjectID id = startedDevice(server, 256);
  ASSERT_NE(id, 0u);
  KyoHALDeviceProperties p;
  ASSERT_EQ(hal.properties(id, p), kKyoHALNoError);
  EXPECT_EQ(p.bufferSizeInFrames, 256u);
  server.kill(SIGKILL);
  LogCapture capture;
  JackCycles cycles(256);
  int32_t status = hal.startIO(id, false, rampProc, &cycles);
  EXPECT_NE(status, kKyoHALNoError);
  EXPECT_TRUE(capture.contains("Error: ")) << "the failure was not logged";
  EXPECT_EQ(cycles.count.load(), 0);
  EXPECT_EQ(hal.stopIO(id), status == kKyoHALNoError ? kKyoHALNoError : kKyoHALNotRunningError);
}

}  // namespace
