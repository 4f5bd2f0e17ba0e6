// "No Output" and the layer around it: listing, the render thread, stopping while
// cycles run, events on the listener thread.

#include <gtest/gtest.h>

#include <set>

#include "HALTestSupport.h"
#include "foundation/KyoClock.h"

using namespace sonto::test;

namespace {

KyoAudioObjectID nullDevice() { return KyoHAL::shared().deviceWithUID("null"); }

TEST(KyoHALNull, IsListedLastWithItsShape) {
  KyoHAL& hal = KyoHAL::shared();
  auto all = hal.allDevices();
  KyoAudioObjectID id = nullDevice();
  ASSERT_NE(id, 0u);
  EXPECT_EQ(all.back(), id);
  EXPECT_EQ(std::set<KyoAudioObjectID>(all.begin(), all.end()).size(), all.size());
  for (KyoAudioObjectID device : all) EXPECT_GT(device, kKyoAudioObjectSystemObject);

  KyoHALDeviceProperties p;
  ASSERT_EQ(hal.properties(id, p), kKyoHALNoError);
  EXPECT_EQ(p.uid, "null");
  EXPECT_EQ(p.name, "No Output");
  EXPECT_EQ(p.outputChannels, 2u);
  EXPECT_EQ(p.inputChannels, 0u);
  EXPECT_EQ(p.nominalSampleRate, 48000);
  EXPECT_EQ(p.bufferSizeInFrames, 512u);
  EXPECT_TRUE(p.alive);

  // The same number after a fresh look, and the default when nothing else is.
  hal.rescan();
  EXPECT_EQ(nullDevice(), id);
  bool otherDefault = false;
  for (KyoAudioObjectID device : hal.allDevices()) {
    KyoHALDeviceProperties q;
    otherDefault |= hal.properties(device, q) == kKyoHALNoError && (q.modelUID == "jack" || q.uid == "alsa:default");
  }
  if (!otherDefault) {
    EXPECT_EQ(hal.defaultOutputDevice(), id);
  }
  EXPECT_EQ(hal.deviceWithUID("no such device"), 0u);
  EXPECT_EQ(hal.deviceWithUID(""), 0u);
}

TEST(KyoHALNull, RendersOnItsOwnThreadWithoutAllocating) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = nullDevice();
  Cycles cycles;
  cycles.expectedFrames = 512;
  cycles.expectedOutputs = 2;
  // Asked with input: the device has none, and gives none.
  ASSERT_EQ(hal.startIO(id, true, rampProc, &cycles), kKyoHALNoError);
  EXPECT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALIllegalOperationError);
  ASSERT_TRUE(eventually([&] { return cycles.count.load() >= 2; }));
  EXPECT_EQ(allocationsOverCycles(cycles, 6), 0u);
  stopAndCheck(id, cycles);
  EXPECT_EQ(cycles.inputChannels.load(), -1);
  EXPECT_EQ(hal.stopIO(id), kKyoHALNotRunningError);
}

TEST(KyoHALNull, StopReturnsAfterTheLastCallback) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = nullDevice();
  ASSERT_EQ(hal.setBufferSizeInFrames(id, 16), kKyoHALNoError);
  for (int round = 0; round < 25; ++round) {
    Cycles cycles;
    ASSERT_EQ(hal.startIO(id, false, rampProc, &cycles), kKyoHALNoError);
    if (round % 2) eventually([&] { return cycles.count.load() >= 1; });
    stopAndCheck(id, cycles);
    KyoCurrentClock().sleepFor(0.001);
    EXPECT_FALSE(cycles.calledAfterStop.load());
  }
  ASSERT_EQ(hal.setBufferSizeInFrames(id, 4), kKyoHALIllegalOperationError);
  ASSERT_EQ(hal.setBufferSizeInFrames(id, 512), kKyoHALNoError);
}

// Two open shows on one device: each client has its own callback, and stopping one
// leaves the other running.
TEST(KyoHALNull, EachClientDrivesTheDeviceAndStopsAlone) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = nullDevice();
  Cycles first, second;
  ASSERT_EQ(hal.startIO(id, false, rampProc, &first), kKyoHALNoError);
  ASSERT_EQ(hal.startIO(id, false, rampProc, &second), kKyoHALNoError);
  EXPECT_EQ(hal.startIO(id, false, rampProc, &first), kKyoHALIllegalOperationError);
  ASSERT_TRUE(eventually([&] { return first.count.load() >= 2 && second.count.load() >= 2; }));

  ASSERT_EQ(hal.stopIO(id, &first), kKyoHALNoError);
  first.stopped.store(true);
  EXPECT_EQ(first.inside.load(), 0);
  EXPECT_EQ(hal.stopIO(id, &first), kKyoHALNotRunningError);
  const int from = second.count.load();
  EXPECT_TRUE(eventually([&] { return second.count.load() >= from + 2; }));
  EXPECT_FALSE(first.calledAfterStop.load());

  ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);  // every client's
  second.stopped.store(true);
  EXPECT_EQ(second.inside.load(), 0);
  EXPECT_EQ(hal.stopIO(id), kKyoHALNotRunningError);
  EXPECT_FALSE(first.wrongShape.load() || second.wrongShape.load());
}

// A callback that overruns its period raises 'over', delivered on the layer's
// listener thread: neither the caller's nor the render thread.
struct Slow {
  std::atomic<int> cycles{0};
  std::atomic<pthread_t> thread{};
  std::atomic<int32_t> stopStatus{1};
};

void slowProc(void* client, uint32_t, const AudioBufferList*, AudioBufferList*, double) {
  auto* s = static_cast<Slow*>(client);
  s->thread.store(pthread_self());
  if (s->cycles.fetch_add(1) == 2) {
    // Three periods of 512 frames at 48 kHz and more.
    KyoCurrentClock().sleepFor(0.05);
    s->stopStatus.store(KyoHAL::shared().stopIO(nullDevice()));
  }
}

TEST(KyoHALNull, OverloadReachesListenersOnTheListenerThread) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = nullDevice();
  EventLog events;
  ASSERT_NE(events.token(), 0u);
  Slow slow;
  ASSERT_EQ(hal.startIO(id, false, slowProc, &slow), kKyoHALNoError);
  ASSERT_TRUE(eventually([&] { return events.saw(id, kKyoPropertyProcessorOverload); }));
  ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
  EXPECT_EQ(slow.stopStatus.load(), kKyoHALIllegalOperationError);
  events.remove();
  EXPECT_TRUE(events.toldElsewhere(slow.thread.load()));
  const size_t seen = events.size();
  slow.cycles.store(0);
  ASSERT_EQ(hal.startIO(id, false, slowProc, &slow), kKyoHALNoError);
  eventually([&] { return slow.cycles.load() >= 4; });
  ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
  EXPECT_EQ(events.size(), seen) << "a removed listener was called";
}

TEST(KyoHALNull, ListenerMayRemoveItselfAndStopTheDevice) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = nullDevice();
  std::atomic<uint64_t> token{0};
  std::atomic<int> calls{0};
  std::atomic<int32_t> stopStatus{1};
  token.store(hal.addListener([&](KyoAudioObjectID object, uint32_t selector) {
    if (object != id || selector != kKyoPropertyProcessorOverload) return;
    if (calls.fetch_add(1) == 0) {
      // As the engine closes a dead device: from the listener thread.
      stopStatus.store(hal.stopIO(id));
      hal.removeListener(token.load());
    }
  }));
  Slow slow;
  ASSERT_EQ(hal.startIO(id, false, slowProc, &slow), kKyoHALNoError);
  ASSERT_TRUE(eventually([&] { return stopStatus.load() != 1; }));
  EXPECT_EQ(stopStatus.load(), kKyoHALNoError);
  EXPECT_EQ(calls.load(), 1);
  EXPECT_EQ(hal.stopIO(id), kKyoHALNotRunningError);
}

}  // namespace
