// "No Output" and the layer around it: listing, the render thread, stopping while
// cycles run, events on the listener thread.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "audio/KyoHAL.h"
#include "foundation/KyoClock.h"
#include "support/AllocationCounter.h"
#include "support/Waiting.h"

namespace {

using sonto::test::eventually;

KyoAudioObjectID nullDevice() { return KyoHAL::shared().deviceWithUID("null"); }

TEST(KyoHALNull, IsListedLastWithItsShape) {
  KyoHAL& hal = KyoHAL::shared();
  auto all = hal.allDevices();
  ASSERT_FALSE(all.empty());
  KyoAudioObjectID id = nullDevice();
  ASSERT_NE(id, 0u);
  EXPECT_EQ(all.back(), id);
  std::set<KyoAudioObjectID> distinct(all.begin(), all.end());
  EXPECT_EQ(distinct.size(), all.size());
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
    if (hal.properties(device, q) == kKyoHALNoError && (q.modelUID == "jack" || q.uid == "alsa:default"))
      otherDefault = true;
  }
  if (!otherDefault) {
    EXPECT_EQ(hal.defaultOutputDevice(), id);
  }
  EXPECT_EQ(hal.deviceWithUID("no such device"), 0u);
  EXPECT_EQ(hal.deviceWithUID(""), 0u);
}

struct Render {
  std::atomic<int> cycles{0};
  std::atomic<int> inside{0};
  std::atomic<bool> wrongShape{false};
  std::atomic<bool> notZeroed{false};
  std::atomic<bool> sampleTimeWrong{false};
  std::atomic<bool> watch{false};
  std::atomic<pthread_t> thread{};
  double nextSampleTime = 0;  // render thread only
};

void renderProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output,
                double sampleTime) {
  auto* r = static_cast<Render*>(client);
  r->inside.fetch_add(1);
  if (r->watch.load()) sonto::test::watchAllocationsOnThisThread(true);
  r->thread.store(pthread_self());
  if (frames != 512 || input || output->mNumberBuffers != 2) r->wrongShape.store(true);
  if (sampleTime != r->nextSampleTime) r->sampleTimeWrong.store(true);
  r->nextSampleTime = sampleTime + frames;
  for (uint32_t c = 0; c < output->mNumberBuffers; ++c) {
    auto* d = static_cast<float*>(output->mBuffers[c].mData);
    for (uint32_t i = 0; i < frames; ++i) {
      if (d[i] != 0) r->notZeroed.store(true);
      d[i] = 1.0f;  // must be gone by the next cycle
    }
  }
  r->cycles.fetch_add(1);
  r->inside.fetch_sub(1);
}

TEST(KyoHALNull, RendersOnItsOwnThreadWithoutAllocating) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = nullDevice();
  Render render;
  ASSERT_EQ(hal.startIO(id, true, renderProc, &render), kKyoHALNoError);
  EXPECT_EQ(hal.startIO(id, false, renderProc, &render), kKyoHALIllegalOperationError);
  ASSERT_TRUE(eventually([&] { return render.cycles.load() >= 2; }));
  // From here on the render thread is watched between and inside callbacks.
  sonto::test::resetWatchedAllocations();
  render.watch.store(true);
  int from = render.cycles.load();
  ASSERT_TRUE(eventually([&] { return render.cycles.load() >= from + 6; }));
  EXPECT_EQ(sonto::test::watchedAllocations(), 0u);
  ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
  EXPECT_FALSE(pthread_equal(render.thread.load(), pthread_self()));
  EXPECT_FALSE(render.wrongShape.load());
  EXPECT_FALSE(render.notZeroed.load());
  EXPECT_FALSE(render.sampleTimeWrong.load());
  EXPECT_EQ(hal.stopIO(id), kKyoHALNotRunningError);
}

TEST(KyoHALNull, StopReturnsAfterTheLastCallback) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = nullDevice();
  ASSERT_EQ(hal.setBufferSizeInFrames(id, 16), kKyoHALNoError);
  for (int round = 0; round < 25; ++round) {
    Render render;
    ASSERT_EQ(hal.startIO(id, false, renderProc, &render), kKyoHALNoError);
    if (round % 2) eventually([&] { return render.cycles.load() >= 1; });
    ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
    EXPECT_EQ(render.inside.load(), 0);
    int after = render.cycles.load();
    KyoCurrentClock().sleepFor(0.001);
    EXPECT_EQ(render.cycles.load(), after);
  }
  ASSERT_EQ(hal.setBufferSizeInFrames(id, 4), kKyoHALIllegalOperationError);
  ASSERT_EQ(hal.setBufferSizeInFrames(id, 512), kKyoHALNoError);
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
    s->stopStatus.store(KyoHAL::shared().stopIO(KyoHAL::shared().deviceWithUID("null")));
  }
}

TEST(KyoHALNull, OverloadReachesListenersOnTheListenerThread) {
  KyoHAL& hal = KyoHAL::shared();
  KyoAudioObjectID id = nullDevice();
  std::mutex mutex;
  std::vector<std::pair<KyoAudioObjectID, uint32_t>> events;
  std::vector<pthread_t> threads;
  uint64_t token = hal.addListener([&](KyoAudioObjectID object, uint32_t selector) {
    std::lock_guard<std::mutex> lock(mutex);
    events.emplace_back(object, selector);
    threads.push_back(pthread_self());
  });
  ASSERT_NE(token, 0u);
  Slow slow;
  ASSERT_EQ(hal.startIO(id, false, slowProc, &slow), kKyoHALNoError);
  ASSERT_TRUE(eventually([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return std::count(events.begin(), events.end(), std::make_pair(id, kKyoPropertyProcessorOverload)) > 0;
  }));
  ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
  EXPECT_EQ(slow.stopStatus.load(), kKyoHALIllegalOperationError);
  hal.removeListener(token);
  size_t seen = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (pthread_t t : threads) {
      EXPECT_FALSE(pthread_equal(t, pthread_self()));
      EXPECT_FALSE(pthread_equal(t, slow.thread.load()));
    }
    seen = events.size();
  }
  slow.cycles.store(0);
  ASSERT_EQ(hal.startIO(id, false, slowProc, &slow), kKyoHALNoError);
  eventually([&] { return slow.cycles.load() >= 4; });
  ASSERT_EQ(hal.stopIO(id), kKyoHALNoError);
  std::lock_guard<std::mutex> lock(mutex);
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
