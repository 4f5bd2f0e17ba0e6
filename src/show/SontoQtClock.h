#pragma once
// The application's clock: main-thread work and timers go through Qt's event loop
// on the thread of the QCoreApplication; time, sleeping and detached workers are the
// system's own. Make it on the main thread after the QCoreApplication, then install it.

#include <QObject>

#include <map>
#include <memory>
#include <mutex>

#include "foundation/KyoClock.h"

class QTimer;

class SontoQtClock : public KyoClock {
 public:
  SontoQtClock();
  ~SontoQtClock() override;

  double wallClockSeconds() override;
  double monotonicSeconds() override;
  void sleepUntil(double monotonicTime) override;
  void detachThread(std::function<void()> work) override;
  // Queued on the main thread's event loop; with wait, the caller blocks until it ran.
  void runOnMain(std::function<void()> work, bool wait) override;
  bool isMainThread() override;
  // Any thread; the QTimer itself lives on the main thread.
  TimerId startTimer(double intervalSeconds, bool repeats, std::function<void()> fire) override;
  void stopTimer(TimerId timer) override;

  size_t activeTimerCount();

 private:
  struct Timer {
    QTimer* timer = nullptr;  // null until made on the main thread
    std::shared_ptr<std::function<void()>> fire;
  };

  void makeTimer(TimerId id, double intervalSeconds, bool repeats);

  KyoPlainClock m_system;
  std::unique_ptr<QObject> m_context;  // lives on the main thread; queued calls go to it
  // Guards m_timers and m_nextTimer; taken by any thread, never while a timer fires.
  std::mutex m_mutex;
  std::map<TimerId, Timer> m_timers;
  TimerId m_nextTimer = 1;
};
