#include "effects/KyoLV2Worker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "support/AllocationCounter.h"

using namespace sonto::test;

namespace {

// A plugin's worker side: work() answers each request with the request's bytes
// reversed, records which thread did it, and lets the test wait for a count.
struct FakePlugin {
  std::mutex mutex;
  std::condition_variable done;
  uint32_t worked = 0;
  std::thread::id workThread;
  // Render thread only; fixed room, since a plugin's reply handler must not allocate either.
  uint8_t responses[16][8] = {};
  uint32_t responseSizes[16] = {};
  uint32_t responseCount = 0;
  uint32_t endRuns = 0;
  bool answer = true;

  static LV2_Worker_Status work(LV2_Handle instance, LV2_Worker_Respond_Function respond,
                                LV2_Worker_Respond_Handle handle, uint32_t size, const void* data) {
    auto* self = static_cast<FakePlugin*>(instance);
    std::vector<uint8_t> reply(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
    std::reverse(reply.begin(), reply.end());
    if (self->answer) respond(handle, size, reply.data());
    std::lock_guard<std::mutex> lock(self->mutex);
    self->workThread = std::this_thread::get_id();
    ++self->worked;
    self->done.notify_all();
    return LV2_WORKER_SUCCESS;
  }
  static LV2_Worker_Status response(LV2_Handle instance, uint32_t size, const void* body) {
    auto* self = static_cast<FakePlugin*>(instance);
    if (self->responseCount < 16 && size <= 8) {
      std::memcpy(self->responses[self->responseCount], body, size);
      self->responseSizes[self->responseCount++] = size;
    }
    return LV2_WORKER_SUCCESS;
  }
  static LV2_Worker_Status endRun(LV2_Handle instance) {
    ++static_cast<FakePlugin*>(instance)->endRuns;
    return LV2_WORKER_SUCCESS;
  }
  uint32_t workedSoFar() {
    std::lock_guard<std::mutex> lock(mutex);
    return worked;
  }
  void waitFor(uint32_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    done.wait(lock, [&] { return worked >= count; });
  }
};

const LV2_Worker_Interface kInterface = {FakePlugin::work, FakePlugin::response, FakePlugin::endRun};

LV2_Worker_Status schedule(KyoLV2Worker& worker, const std::vector<uint8_t>& bytes) {
  auto* feature = static_cast<const LV2_Worker_Schedule*>(worker.feature()->data);
  return feature->schedule_work(feature->handle, (uint32_t)bytes.size(), bytes.data());
}

}  // namespace

TEST(KyoLV2MessageRing, MessagesComeOutWholeAndInOrderAcrossTheWrap) {
  KyoLV2MessageRing ring(64);
  std::vector<uint8_t> out(64);
  uint32_t size = 0;
  EXPECT_FALSE(ring.read(out.data(), 64, &size));
  // Sizes that walk the write position around the end many times at odd offsets.
  uint8_t next = 0;
  for (uint32_t round = 0; round < 200; ++round) {
    const uint32_t length = round % 23;
    std::vector<uint8_t> message(length);
    for (auto& b : message) b = next++;
    ASSERT_TRUE(ring.write(message.data(), length));
    ASSERT_EQ(ring.nextSize(), length);
    ASSERT_TRUE(ring.read(out.data(), 64, &size));
    ASSERT_EQ(size, length);
    ASSERT_TRUE(std::equal(message.begin(), message.end(), out.begin())) << "round " << round;
  }
  // Full: a message that does not fit whole is refused and leaves the ring as it was.
  std::vector<uint8_t> big(40, 7);
  EXPECT_TRUE(ring.write(big.data(), 40));
  EXPECT_FALSE(ring.write(big.data(), 20));
  EXPECT_TRUE(ring.write(big.data(), 16));  // 44 + 20 = 64 exactly
  EXPECT_FALSE(ring.write(big.data(), 0));
  EXPECT_FALSE(ring.write(big.data(), 100));
  // A reader with too little room leaves the message in place.
  EXPECT_FALSE(ring.read(out.data(), 39, &size));
  EXPECT_TRUE(ring.read(out.data(), 64, &size));
  EXPECT_EQ(size, 40u);
  EXPECT_TRUE(ring.read(out.data(), 64, &size));
  EXPECT_EQ(size, 16u);
}

TEST(KyoLV2MessageRing, OneWriterAndOneReaderOnTwoThreadsLoseAndTearNothing) {
  KyoLV2MessageRing ring(256);
  constexpr uint32_t kCount = 20000;
  std::thread writer([&] {
    for (uint32_t i = 0; i < kCount;) {
      uint32_t words[4] = {i, i * 3, ~i, i + 11};
      if (ring.write(words, (i % 4 + 1) * 4)) ++i;
      else std::this_thread::yield();
    }
  });
  uint32_t expected = 0;
  uint32_t words[4];
  uint32_t size = 0;
  while (expected < kCount) {
    if (!ring.read(words, sizeof words, &size)) {
      std::this_thread::yield();
      continue;
    }
    ASSERT_EQ(size, (expected % 4 + 1) * 4);
    ASSERT_EQ(words[0], expected);
    const uint32_t want[4] = {expected, expected * 3, ~expected, expected + 11};
    ASSERT_EQ(std::memcmp(words, want, size), 0) << expected;
    ++expected;
  }
  writer.join();
}

TEST(KyoLV2Worker, WorkRunsOffTheRenderThreadAndRepliesArriveOnlyAtTheNextRunInOrder) {
  FakePlugin plugin;
  KyoLV2Worker worker(1024);
  worker.start(&plugin, &kInterface);
  ASSERT_TRUE(worker.isRunning());

  std::thread::id renderThread;
  resetWatchedAllocations();
  std::vector<LV2_Worker_Status> statuses;
  statuses.reserve(8);
  uint32_t countBefore = 99;
  std::thread render([&] {
    ScopedAllocationWatch watch;
    renderThread = std::this_thread::get_id();
    // The first cycle schedules three jobs; the second, after the work is done, gets the replies.
    worker.deliverResponses();
    for (uint8_t request = 1; request <= 3; ++request) {
      const uint8_t bytes[3] = {request, uint8_t(request + 1), uint8_t(request + 2)};
      auto* feature = static_cast<const LV2_Worker_Schedule*>(worker.feature()->data);
      statuses.push_back(feature->schedule_work(feature->handle, sizeof bytes, bytes));
    }
    worker.endRun();
    plugin.waitFor(3);
    countBefore = plugin.responseCount;
    worker.deliverResponses();
    worker.endRun();
    worker.deliverResponses();
  });
  render.join();
  EXPECT_EQ(watchedAllocations(), 0u);
  EXPECT_EQ(statuses, std::vector<LV2_Worker_Status>(3, LV2_WORKER_SUCCESS));
  EXPECT_NE(plugin.workThread, renderThread);
  EXPECT_EQ(plugin.endRuns, 2u);
  EXPECT_EQ(countBefore, 0u);  // replies wait for a run
  ASSERT_EQ(plugin.responseCount, 3u);
  for (uint8_t i = 0; i < 3; ++i) {
    ASSERT_EQ(plugin.responseSizes[i], 3u);
    EXPECT_EQ(std::vector<uint8_t>(plugin.responses[i], plugin.responses[i] + 3),
              (std::vector<uint8_t>{uint8_t(i + 3), uint8_t(i + 2), uint8_t(i + 1)}));
  }
}

TEST(KyoLV2Worker, AFullQueueOrAMissingInterfaceRefusesWithoutBlocking) {
  {
    // Without an interface nothing runs and every request is refused.
    KyoLV2Worker worker(64);
    worker.start(nullptr, nullptr);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_EQ(schedule(worker, {1, 2, 3}), LV2_WORKER_ERR_NO_SPACE);
    EXPECT_EQ(worker.droppedRequests(), 1u);
    worker.deliverResponses();
    worker.endRun();
  }
  {
    // A request larger than the ring never fits.
    FakePlugin plugin;
    KyoLV2Worker worker(64);
    worker.start(&plugin, &kInterface);
    EXPECT_EQ(schedule(worker, std::vector<uint8_t>(200, 1)), LV2_WORKER_ERR_NO_SPACE);
    EXPECT_EQ(schedule(worker, std::vector<uint8_t>(8, 2)), LV2_WORKER_SUCCESS);
    plugin.waitFor(1);
    EXPECT_EQ(worker.droppedRequests(), 1u);
    worker.stop();
    EXPECT_FALSE(worker.isRunning());
    // Replies left behind by a stop are gone: a new instance must not see the old one's.
    worker.deliverResponses();
    EXPECT_EQ(plugin.responseCount, 0u);
  }
}

TEST(KyoLV2Worker, StopWhileRequestsPourInJoinsCleanlyAndCanStartAgain) {
  FakePlugin plugin;
  plugin.answer = false;
  KyoLV2Worker worker(4096);
  for (int round = 0; round < 3; ++round) {
    worker.start(&plugin, &kInterface);
    std::atomic<bool> go{true};
    std::thread render([&] {
      uint32_t n = 0;
      while (go.load()) {
        schedule(worker, {uint8_t(n++)});
        std::this_thread::yield();
      }
    });
    plugin.waitFor(plugin.workedSoFar() + 10);
    go.store(false);
    render.join();
    worker.stop();
  }
  EXPECT_FALSE(worker.isRunning());
}
