#include "foundation/KyoClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

// A fade-like worker stepping every 10 ms in virtual time: each step happens at its
// exact time, and advance returns only once the worker has done the step's work.
TEST(KyoVirtualClock, WorkersStepAtTheirTimeAndAdvanceWaitsForThem) {
  KyoVirtualClock clock;
  std::vector<double> seen;
  std::atomic<bool> done{false};
  clock.detachThread([&] {
    double start = clock.monotonicSeconds();
    for (int i = 1; i <= 10; ++i) {
      clock.sleepUntil(start + i * 0.01);
      seen.push_back(clock.monotonicSeconds());
    }
    done = true;
  });
  clock.advance(0.035);
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_DOUBLE_EQ(seen[0], 0.01);
  EXPECT_DOUBLE_EQ(seen[2], 0.03);
  EXPECT_DOUBLE_EQ(clock.monotonicSeconds(), 0.035);
  clock.advance(1.0);
  EXPECT_TRUE(done);
  EXPECT_EQ(seen.size(), 10u);
  EXPECT_EQ(clock.runningWorkers(), 0);
}

TEST(KyoVirtualClock, TimersFireInOrderAndWorkersReachTheMainThread) {
  KyoVirtualClock clock;
  std::vector<int> order;
  int ticks = 0;
  auto repeating = clock.startTimer(0.1, true, [&] { ++ticks; });
  clock.startTimer(0.25, false, [&] { order.push_back(2); });
  clock.startTimer(0.05, false, [&] { order.push_back(1); });
  clock.detachThread([&] {
    clock.sleepFor(0.3);
    clock.runOnMain([&] { order.push_back(3); }, true);  // waits for the main thread
  });
  clock.advance(0.45);
  EXPECT_EQ(ticks, 4);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  clock.stopTimer(repeating);
  clock.advance(1.0);
  EXPECT_EQ(ticks, 4);
}

TEST(KyoPlainClock, RunOnMainFromAnotherThreadWaitsForThePump) {
  KyoPlainClock clock;
  clock.adoptMainThread();
  std::atomic<int> value{0};
  std::thread worker([&] { clock.runOnMain([&] { value = 7; }, true); });
  clock.runFor(5.0, [&] { return value.load() == 7; });
  worker.join();
  EXPECT_EQ(value, 7);
}
