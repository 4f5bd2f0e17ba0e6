#pragma once
// The one place where the system reads the time, sleeps until a time, runs work on
// the main thread and runs timers. The application installs a clock backed by its
// event loop; the offline renderer installs a virtual one whose time moves only as
// cycles are rendered, so that a rendered show comes out the same on every run.

#include <cstdint>
#include <functional>
#include <memory>

class KyoClock {
 public:
  using TimerId = uint64_t;

  virtual ~KyoClock() = default;

  // Seconds since the epoch (wall clock) and seconds on a clock that never jumps.
  virtual double wallClockSeconds() = 0;
  virtual double monotonicSeconds() = 0;

  // Blocks the calling thread until monotonicSeconds() reaches the given time.
  virtual void sleepUntil(double monotonicTime) = 0;
  void sleepFor(double seconds) { sleepUntil(monotonicSeconds() + seconds); }

  // Runs a short-lived worker (fade, panic, hard stop) detached. The clock knows of
  // it, so that a virtual clock can wait for its work at each step of time.
  virtual void detachThread(std::function<void()> work) = 0;

  // Work for the main thread. With wait, returns after it has run; called on the
  // main thread it runs at once.
  virtual void runOnMain(std::function<void()> work, bool wait) = 0;
  virtual bool isMainThread() = 0;

  // Timers run on the main thread. A repeating timer fires every interval until stopped.
  virtual TimerId startTimer(double intervalSeconds, bool repeats, std::function<void()> fire) = 0;
  virtual void stopTimer(TimerId timer) = 0;
};

// The installed clock; a plain real-time clock until another is installed.
KyoClock& KyoCurrentClock();
// Keeps the clock alive for the rest of the process; null goes back to the plain one.
void KyoInstallClock(std::shared_ptr<KyoClock> clock);

// Wall-clock seconds of the installed clock, as a 64-bit float.
double KyoWallClockSeconds();
// Monotonic seconds of the installed clock.
double KyoMonotonicSeconds();

// Real clocks, and a main loop that is pumped by whoever owns the main thread
// (tests and the command line call processEvents; the application uses its own).
class KyoPlainClock : public KyoClock {
 public:
  KyoPlainClock();
  ~KyoPlainClock() override;

  double wallClockSeconds() override;
  double monotonicSeconds() override;
  void sleepUntil(double monotonicTime) override;
  void detachThread(std::function<void()> work) override;
  void runOnMain(std::function<void()> work, bool wait) override;
  bool isMainThread() override;
  TimerId startTimer(double intervalSeconds, bool repeats, std::function<void()> fire) override;
  void stopTimer(TimerId timer) override;

  // Makes the calling thread the main thread.
  void adoptMainThread();
  // Runs queued work and due timers once; answers how many ran.
  int processEvents();
  // Pumps the main loop until the monotonic time has passed or the predicate holds.
  void runFor(double seconds, const std::function<bool()>& until = {});

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// Time moves only by advance. Sleepers wake and timers fire at the step where their
// time falls, in time order; advance returns once every woken worker has gone back
// to sleep or ended, so what happens in a step does not depend on the scheduler.
class KyoVirtualClock : public KyoClock {
 public:
  explicit KyoVirtualClock(double startWallSeconds = 1.0e9);
  ~KyoVirtualClock() override;

  double wallClockSeconds() override;
  double monotonicSeconds() override;
  void sleepUntil(double monotonicTime) override;
  void detachThread(std::function<void()> work) override;
  void runOnMain(std::function<void()> work, bool wait) override;
  bool isMainThread() override;
  TimerId startTimer(double intervalSeconds, bool repeats, std::function<void()> fire) override;
  void stopTimer(TimerId timer) override;

  // Called on the main thread. Moves time forward to now + seconds, firing timers,
  // waking sleepers and running main-thread work at each due time on the way.
  void advance(double seconds);
  // Runs queued main-thread work and waits for running workers, without moving time.
  void settle();
  int runningWorkers();

 private:
  struct State;
  std::unique_ptr<State> m_state;
};
