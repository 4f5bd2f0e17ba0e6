#include "show/SontoQtClock.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>
#include <QTimer>

#include <cmath>

SontoQtClock::SontoQtClock() : m_context(std::make_unique<QObject>()) {
  if (QCoreApplication* app = QCoreApplication::instance()) m_context->moveToThread(app->thread());
}

SontoQtClock::~SontoQtClock() {
  std::map<TimerId, Timer> timers;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    timers.swap(m_timers);
  }
  for (auto& [id, entry] : timers) delete entry.timer;
}

double SontoQtClock::wallClockSeconds() { return m_system.wallClockSeconds(); }
double SontoQtClock::monotonicSeconds() { return m_system.monotonicSeconds(); }
void SontoQtClock::sleepUntil(double monotonicTime) { m_system.sleepUntil(monotonicTime); }
void SontoQtClock::detachThread(std::function<void()> work) { m_system.detachThread(std::move(work)); }

bool SontoQtClock::isMainThread() { return QThread::currentThread() == m_context->thread(); }

void SontoQtClock::runOnMain(std::function<void()> work, bool wait) {
  if (!work) return;
  if (isMainThread()) {
    work();
    return;
  }
  QMetaObject::invokeMethod(m_context.get(), std::move(work),
                            wait ? Qt::BlockingQueuedConnection : Qt::QueuedConnection);
}

KyoClock::TimerId SontoQtClock::startTimer(double intervalSeconds, bool repeats, std::function<void()> fire) {
  TimerId id;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    id = m_nextTimer++;
    m_timers[id].fire = std::make_shared<std::function<void()>>(std::move(fire));
  }
  if (QCoreApplication::closingDown()) return id;  // nothing fires any more; see stopTimer
  if (isMainThread()) {
    makeTimer(id, intervalSeconds, repeats);
  } else {
    QMetaObject::invokeMethod(
        m_context.get(), [this, id, intervalSeconds, repeats] { makeTimer(id, intervalSeconds, repeats); },
        Qt::QueuedConnection);
  }
  return id;
}

// Main thread. A timer stopped before it was made is simply not made.
void SontoQtClock::makeTimer(TimerId id, double intervalSeconds, bool repeats) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_timers.find(id);
  if (it == m_timers.end()) return;
  auto* timer = new QTimer();
  timer->setTimerType(Qt::PreciseTimer);
  timer->setSingleShot(!repeats);
  const double ms = std::isfinite(intervalSeconds) ? std::max(0.0, intervalSeconds * 1000.0) : 0.0;
  timer->setInterval(static_cast<int>(std::min(ms, 2.0e9)));
  QObject::connect(timer, &QTimer::timeout, timer, [this, id, repeats] {
    std::shared_ptr<std::function<void()>> fire;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      auto found = m_timers.find(id);
      if (found == m_timers.end()) return;
      fire = found->second.fire;
      if (!repeats) {
        found->second.timer->deleteLater();
        m_timers.erase(found);
      }
    }
    // Called without the lock, so that the work may start and stop timers.
    (*fire)();
  });
  it->second.timer = timer;
  timer->start();
}

void SontoQtClock::stopTimer(TimerId id) {
  QTimer* timer = nullptr;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_timers.find(id);
    if (it == m_timers.end()) return;
    timer = it->second.timer;
    m_timers.erase(it);
  }
  if (!timer) return;
  if (QCoreApplication::closingDown()) {
    // The application is going: its pending events are being destroyed, with the
    // lock on them held, and a release from there may land here. Posting would wait
    // for that lock on this same thread; no timer work runs any more anyway.
    if (isMainThread()) delete timer;
    return;
  }
  if (isMainThread()) {
    timer->stop();
    timer->deleteLater();  // it may be the timer whose work is running now
  } else {
    QMetaObject::invokeMethod(
        m_context.get(),
        [timer] {
          timer->stop();
          timer->deleteLater();
        },
        Qt::QueuedConnection);
  }
}

size_t SontoQtClock::activeTimerCount() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_timers.size();
}
