#pragma once
// A device callback that checks every cycle it is given and writes the ramp of the
// frames asked for so far, and a listener that keeps the layer's events: shared by
// the tests of every kind of device.

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "audio/KyoHAL.h"
#include "support/AllocationCounter.h"
#include "support/TestFiles.h"
#include "support/Waiting.h"

namespace sonto::test {

struct Cycles {
  std::atomic<int> count{0}, inside{0};
  std::atomic<bool> stopped{false}, calledAfterStop{false}, wrongShape{false}, watch{false};
  std::atomic<uint32_t> frames{0}, outputs{0};
  std::atomic<int> inputChannels{-1};  // -1: the cycle came without an input list
  std::atomic<pthread_t> thread{};
  uint32_t expectedFrames = 0;   // 0: any
  uint32_t expectedOutputs = 0;  // 0: any
  double nextSampleTime = 0;     // render thread only; below 0 the first cycle may start anywhere
};

// Wrong shape: frames or outputs not as expected, a gap in the sample time, an output
// that did not arrive zeroed or whole, an input buffer that is not whole.
inline void rampProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output,
                     double sampleTime) {
  auto* c = static_cast<Cycles*>(client);
  c->inside.fetch_add(1);
  if (c->watch.load()) watchAllocationsOnThisThread(true);
  if (c->stopped.load()) c->calledAfterStop.store(true);
  c->thread.store(pthread_self());
  c->frames.store(frames);
  c->outputs.store(output->mNumberBuffers);
  bool wrong = (c->expectedFrames && frames != c->expectedFrames) ||
               (c->expectedOutputs && output->mNumberBuffers != c->expectedOutputs) ||
               (c->nextSampleTime >= 0 && sampleTime != c->nextSampleTime);
  c->nextSampleTime = sampleTime + frames;
  for (uint32_t b = 0; b < output->mNumberBuffers; ++b) {
    auto* d = static_cast<float*>(output->mBuffers[b].mData);
    if (!d || output->mBuffers[b].mDataByteSize != frames * sizeof(float)) {
      wrong = true;
      continue;
    }
    for (uint32_t i = 0; i < frames; ++i) {
      wrong = wrong || d[i] != 0;
      d[i] = rampSample(int64_t(sampleTime) + i, b);
    }
  }
  c->inputChannels.store(input ? int(input->mNumberBuffers) : -1);
  for (uint32_t b = 0; input && b < input->mNumberBuffers; ++b)
    wrong = wrong || !input->mBuffers[b].mData || input->mBuffers[b].mDataByteSize != frames * sizeof(float);
  if (wrong) c->wrongShape.store(true);
  c->count.fetch_add(1);
  c->inside.fetch_sub(1);
}

// Watches the render thread for `more` cycles once it runs: answers its allocations.
inline uint64_t allocationsOverCycles(Cycles& cycles, int more) {
  resetWatchedAllocations();
  cycles.watch.store(true);
  const int from = cycles.count.load();
  EXPECT_TRUE(eventually([&] { return cycles.count.load() >= from + more; }));
  return watchedAllocations();
}

// Stops the device and checks what every stop promises: no callback inside, none on
// this thread, every cycle well formed.
inline void stopAndCheck(KyoAudioObjectID id, Cycles& cycles) {
  ASSERT_EQ(KyoHAL::shared().stopIO(id), kKyoHALNoError);
  cycles.stopped.store(true);
  EXPECT_EQ(cycles.inside.load(), 0);
  EXPECT_FALSE(pthread_equal(cycles.thread.load(), pthread_self()));
  EXPECT_FALSE(cycles.wrongShape.load());
}

// Every (object, selector) the layer tells, and the threads it told them on.
class EventLog {
 public:
  EventLog() {
    m_token = KyoHAL::shared().addListener([this](KyoAudioObjectID object, uint32_t selector) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_events.emplace_back(object, selector);
      m_threads.push_back(pthread_self());
    });
  }
  ~EventLog() { remove(); }
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  void remove() {
    if (m_token) KyoHAL::shared().removeListener(m_token);
    m_token = 0;
  }
  bool saw(KyoAudioObjectID object, uint32_t selector) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::find(m_events.begin(), m_events.end(), std::make_pair(object, selector)) != m_events.end();
  }
  size_t size() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events.size();
  }
  // True when no event was told on this thread or on `other`.
  bool toldElsewhere(pthread_t other) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (pthread_t t : m_threads)
      if (pthread_equal(t, pthread_self()) || pthread_equal(t, other)) return false;
    return true;
  }
  uint64_t token() const { return m_token; }

 private:
  std::mutex m_mutex;
  std::vector<std::pair<KyoAudioObjectID, uint32_t>> m_events;
  std::vector<pthread_t> m_threads;
  uint64_t m_token = 0;
};

}  // namespace sonto::test
