#include "show/SontoQtClock.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

// Pumps the event loop until the predicate holds. The bound only keeps a broken
// build from hanging; nothing here measures time.
bool pumpUntil(const std::function<bool()>& done) {
  for (int i = 0; i < 200000 && !done(); ++i) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
  }
  return done();
}

}  // namespace

TEST(SontoQtClock, RunOnMainFromWorkersWithAndWithoutWaiting) {
  SontoQtClock clock;
  EXPECT_TRUE(clock.isMainThread());
  int ranHere = 0;
  clock.runOnMain([&] { ++ranHere; }, false);
  EXPECT_EQ(ranHere, 1) << "on the main thread the work runs at once";

  // Touched only on the main thread; the waiting worker reads it after its call returns.
  int counter = 0;
  std::atomic<bool> workerDone{false};
  std::atomic<int> seenByWorker{-1};
  std::atomic<bool> workerSawMain{true};
  std::thread worker([&] {
    workerSawMain = clock.isMainThread();
    for (int i = 0; i < 20; ++i) clock.runOnMain([&] { ++counter; }, true);
    int seen = 0;
    clock.runOnMain([&] { seen = counter; }, true);
    seenByWorker = seen;
    clock.runOnMain([&] { workerDone = true; }, false);
  });
  EXPECT_TRUE(pumpUntil([&] { return workerDone.load(); }));
  worker.join();
  EXPECT_FALSE(workerSawMain.load());
  EXPECT_EQ(seenByWorker.load(), 20);
  EXPECT_EQ(counter, 20);
}

TEST(SontoQtClock, OneShotAndRepeatingTimers) {
  SontoQtClock clock;
  int oneShot = 0;
  int repeating = 0;
  clock.startTimer(0.001, false, [&] { ++oneShot; });
  KyoClock::TimerId id = 0;
  id = clock.startTimer(0.001, true, [&] {
    if (++repeating == 3) clock.stopTimer(id);  // stopping from inside its own work
  });
  EXPECT_TRUE(pumpUntil([&] { return repeating >= 3 && oneShot >= 1; }));
  // A few more turns: neither may fire again.
  for (int i = 0; i < 20; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 2);
  EXPECT_EQ(oneShot, 1);
  EXPECT_EQ(repeating, 3);
  EXPECT_EQ(clock.activeTimerCount(), 0u);
}

TEST(SontoQtClock, TimersStartedAndStoppedFromAWorker) {
  SontoQtClock clock;
  std::atomic<int> fired{0};
  std::atomic<int> cancelledFired{0};
  std::atomic<bool> started{false};
  KyoClock::TimerId kept = 0;
  std::thread worker([&] {
    // Stopped before the main thread has made it: it must never run.
    auto cancelled = clock.startTimer(0.0, false, [&] { ++cancelledFired; });
    clock.stopTimer(cancelled);
    kept = clock.startTimer(0.001, true, [&] {
      EXPECT_TRUE(clock.isMainThread());
      ++fired;
    });
    started = true;
  });
  worker.join();
  ASSERT_TRUE(started.load());
  EXPECT_TRUE(pumpUntil([&] { return fired.load() >= 2; }));
  std::thread stopper([&] { clock.stopTimer(kept); });
  stopper.join();
  for (int i = 0; i < 20; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 2);
  const int after = fired.load();
  for (int i = 0; i < 20; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 2);
  EXPECT_EQ(fired.load(), after);
  EXPECT_EQ(cancelledFired.load(), 0);
  EXPECT_EQ(clock.activeTimerCount(), 0u);
}

TEST(SontoQtClock, SleepAndDetachedWorkers) {
  SontoQtClock clock;
  const double start = clock.monotonicSeconds();
  clock.sleepUntil(start + 0.002);
  EXPECT_GE(clock.monotonicSeconds(), start + 0.002);
  clock.sleepUntil(start - 10.0);  // a time in the past returns at once
  EXPECT_GT(clock.wallClockSeconds(), 1.0e9);
  std::atomic<bool> onMain{false};
  std::atomic<bool> ran{false};
  clock.detachThread([&] {
    clock.runOnMain([&] { onMain = clock.isMainThread(); }, true);
    ran = true;  // the last thing the worker touches
  });
  EXPECT_TRUE(pumpUntil([&] { return ran.load(); }));
  EXPECT_TRUE(onMain.load());
}
