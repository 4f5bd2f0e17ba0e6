#include "foundation/KyoClock.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <future>
#include <limits>
#include <list>
#include <map>
#include <mutex>
#include <thread>

namespace {

double readClock(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

struct Timer {
  double due = 0;
  double interval = 0;
  bool repeats = false;
  std::function<void()> fire;
};

// Timers by id; the next due is found by a scan, since a show has a handful.
using TimerMap = std::map<KyoClock::TimerId, Timer>;

bool nextDueTimer(const TimerMap& timers, double limit, KyoClock::TimerId& id, double& due) {
  bool found = false;
  for (const auto& [tid, t] : timers) {
    if (t.due <= limit && (!found || t.due < due)) {
      found = true;
      id = tid;
      due = t.due;
    }
  }
  return found;
}

std::atomic<KyoClock*> gClock{nullptr};

KyoClock& plainDefault() {
  // Never destroyed, like every installed clock: detached workers may outlive main.
  static KyoPlainClock& clock = *new KyoPlainClock;
  return clock;
}

}  // namespace

KyoClock& KyoCurrentClock() {
  KyoClock* c = gClock.load(std::memory_order_acquire);
  return c ? *c : plainDefault();
}

void KyoInstallClock(std::shared_ptr<KyoClock> clock) {
  // Clocks are few and live for the process: threads may still hold a reference.
  static std::mutex& m = *new std::mutex;
  static auto& keep = *new std::list<std::shared_ptr<KyoClock>>;
  std::lock_guard<std::mutex> lock(m);
  if (clock) keep.push_back(clock);
  gClock.store(clock.get(), std::memory_order_release);
}

double KyoWallClockSeconds() { return KyoCurrentClock().wallClockSeconds(); }
double KyoMonotonicSeconds() { return KyoCurrentClock().monotonicSeconds(); }

// ---------------------------------------------------------------------------
// Plain clock

struct KyoPlainClock::State {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::function<void()>> queue;
  TimerMap timers;
  TimerId nextTimer = 1;
  std::thread::id mainThread = std::this_thread::get_id();
};

KyoPlainClock::KyoPlainClock() : m_state(std::make_unique<State>()) {}
KyoPlainClock::~KyoPlainClock() = default;

double KyoPlainClock::wallClockSeconds() { return readClock(CLOCK_REALTIME); }
double KyoPlainClock::monotonicSeconds() { return readClock(CLOCK_MONOTONIC); }

void KyoPlainClock::sleepUntil(double monotonicTime) {
  timespec ts{};
  double whole = 0;
  double frac = std::modf(monotonicTime, &whole);
  if (monotonicTime <= 0) return;
  ts.tv_sec = time_t(whole);
  ts.tv_nsec = long(frac * 1e9);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

void KyoPlainClock::detachThread(std::function<void()> work) { std::thread(std::move(work)).detach(); }

bool KyoPlainClock::isMainThread() {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->mainThread == std::this_thread::get_id();
}

void KyoPlainClock::adoptMainThread() {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  m_state->mainThread = std::this_thread::get_id();
}

void KyoPlainClock::runOnMain(std::function<void()> work, bool wait) {
  if (isMainThread()) {
    work();
    return;
  }
  if (!wait) {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->queue.push_back(std::move(work));
    m_state->cv.notify_all();
    return;
  }
  auto done = std::make_shared<std::promise<void>>();
  auto future = done->get_future();
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->queue.push_back([w = std::move(work), done] {
      w();
      done->set_value();
    });
    m_state->cv.notify_all();
  }
  future.wait();
}

KyoClock::TimerId KyoPlainClock::startTimer(double intervalSeconds, bool repeats, std::function<void()> fire) {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  TimerId id = m_state->nextTimer++;
  m_state->timers[id] = Timer{monotonicSeconds() + intervalSeconds, intervalSeconds, repeats, std::move(fire)};
  m_state->cv.notify_all();
  return id;
}

void KyoPlainClock::stopTimer(TimerId timer) {
  // The timer's work is let go of outside the lock: its captures may read the clock.
  std::function<void()> released;
  std::lock_guard<std::mutex> lock(m_state->mutex);
  auto it = m_state->timers.find(timer);
  if (it == m_state->timers.end()) return;
  released = std::move(it->second.fire);
  m_state->timers.erase(it);
}

int KyoPlainClock::processEvents() {
  int ran = 0;
  std::deque<std::function<void()>> work;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    work.swap(m_state->queue);
  }
  for (auto& w : work) {
    w();
    ++ran;
  }
  double now = monotonicSeconds();
  for (;;) {
    std::function<void()> fire;
    {
      std::lock_guard<std::mutex> lock(m_state->mutex);
      TimerId id = 0;
      double due = 0;
      if (!nextDueTimer(m_state->timers, now, id, due)) break;
      Timer& t = m_state->timers[id];
      if (t.repeats && t.interval > 0) {
        fire = t.fire;
        t.due += t.interval * std::max(1.0, std::floor((now - t.due) / t.interval) + 1);
      } else {
        fire = std::move(t.fire);  // freed after the call, outside the lock
        m_state->timers.erase(id);
      }
    }
    fire();
    ++ran;
  }
  return ran;
}

void KyoPlainClock::runFor(double seconds, const std::function<bool()>& until) {
  adoptMainThread();
  double end = monotonicSeconds() + seconds;
  for (;;) {
    processEvents();
    if (until && until()) return;
    double now = monotonicSeconds();
    if (now >= end) return;
    std::unique_lock<std::mutex> lock(m_state->mutex);
    double wake = std::min(end, now + 0.005);
    m_state->cv.wait_for(lock, std::chrono::duration<double>(wake - now),
                         [this] { return !m_state->queue.empty(); });
  }
}

// ---------------------------------------------------------------------------
// Virtual clock

struct KyoVirtualClock::State {
  std::mutex mutex;
  std::condition_variable cv;  // the main thread's, in settle: work queued, a worker asleep or done
  double now = 0;
  double startWall = 0;
  std::deque<std::function<void()>> queue;
  TimerMap timers;
  TimerId nextTimer = 1;
  std::thread::id mainThread = std::this_thread::get_id();
  // Each with its own condition, so that waking one worker or telling the main thread
  // that one went to sleep does not stir every other sleeper: thousands of fades
  // started at one instant would otherwise cost a wake-up of each per step.
  struct Sleeper {
    explicit Sleeper(double wakeAt) : target(wakeAt) {}
    double target;
    bool woken = false;
    std::condition_variable wake;
  };
  std::list<Sleeper> sleepers;
  int running = 0;  // workers awake: started and not yet asleep or ended
};

KyoVirtualClock::KyoVirtualClock(double startWallSeconds) : m_state(std::make_unique<State>()) {
  m_state->startWall = startWallSeconds;
}

KyoVirtualClock::~KyoVirtualClock() = default;

double KyoVirtualClock::wallClockSeconds() {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->startWall + m_state->now;
}

double KyoVirtualClock::monotonicSeconds() {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->now;
}

void KyoVirtualClock::sleepUntil(double monotonicTime) {
  std::unique_lock<std::mutex> lock(m_state->mutex);
  if (monotonicTime <= m_state->now) return;
  if (m_state->mainThread == std::this_thread::get_id()) return;  // the main thread never sleeps in virtual time
  auto it = m_state->sleepers.emplace(m_state->sleepers.end(), monotonicTime);
  --m_state->running;
  m_state->cv.notify_all();
  it->wake.wait(lock, [&] { return it->woken; });
  // advance counted this worker as running again when it woke it.
  m_state->sleepers.erase(it);
}

void KyoVirtualClock::detachThread(std::function<void()> work) {
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    ++m_state->running;
  }
  std::thread([this, w = std::move(work)]() mutable {
    w();
    // What the work holds goes before it counts as done: a caller that waits for the
    // workers may then tear down what they referred to.
    w = nullptr;
    std::lock_guard<std::mutex> lock(m_state->mutex);
    --m_state->running;
    m_state->cv.notify_all();
  }).detach();
}

bool KyoVirtualClock::isMainThread() {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->mainThread == std::this_thread::get_id();
}

void KyoVirtualClock::runOnMain(std::function<void()> work, bool wait) {
  if (isMainThread()) {
    work();
    return;
  }
  auto done = std::make_shared<std::promise<void>>();
  auto future = done->get_future();
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->queue.push_back([w = std::move(work), done] {
      w();
      done->set_value();
    });
    m_state->cv.notify_all();
  }
  if (wait) future.wait();
}

KyoClock::TimerId KyoVirtualClock::startTimer(double intervalSeconds, bool repeats, std::function<void()> fire) {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  TimerId id = m_state->nextTimer++;
  m_state->timers[id] = Timer{m_state->now + intervalSeconds, intervalSeconds, repeats, std::move(fire)};
  return id;
}

void KyoVirtualClock::stopTimer(TimerId timer) {
  // The timer's work is let go of outside the lock: its captures may read the clock.
  std::function<void()> released;
  std::lock_guard<std::mutex> lock(m_state->mutex);
  auto it = m_state->timers.find(timer);
  if (it == m_state->timers.end()) return;
  released = std::move(it->second.fire);
  m_state->timers.erase(it);
}

int KyoVirtualClock::runningWorkers() {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->running;
}

void KyoVirtualClock::settle() {
  std::unique_lock<std::mutex> lock(m_state->mutex);
  m_state->mainThread = std::this_thread::get_id();
  for (;;) {
    if (!m_state->queue.empty()) {
      auto w = std::move(m_state->queue.front());
      m_state->queue.pop_front();
      lock.unlock();
      w();
      w = nullptr;  // its captures go outside the lock: their destructors may read the clock
      lock.lock();
      continue;
    }
    if (m_state->running == 0) return;
    m_state->cv.wait(lock, [&] { return m_state->running == 0 || !m_state->queue.empty(); });
  }
}

void KyoVirtualClock::advance(double seconds) {
  settle();
  double target;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    target = m_state->now + std::max(0.0, seconds);
  }
  for (;;) {
    std::function<void()> fire;
    {
      std::lock_guard<std::mutex> lock(m_state->mutex);
      double next = std::numeric_limits<double>::infinity();
      for (const auto& s : m_state->sleepers)
        if (!s.woken) next = std::min(next, s.target);
      TimerId id = 0;
      double due = 0;
      bool timer = nextDueTimer(m_state->timers, target, id, due);
      if (timer) next = std::min(next, due);
      if (next > target) {
        m_state->now = target;
        break;
      }
      m_state->now = std::max(m_state->now, next);
      if (timer && due <= next) {
        // Timers before sleepers at one instant: a timer's work is main-thread work.
        Timer& t = m_state->timers[id];
        if (t.repeats && t.interval > 0) {
          fire = t.fire;
          t.due += t.interval;
        } else {
          fire = std::move(t.fire);  // freed after the call, outside the lock
          m_state->timers.erase(id);
        }
      } else {
        for (auto& s : m_state->sleepers)
          if (!s.woken && s.target <= m_state->now) {
            s.woken = true;
            ++m_state->running;
            s.wake.notify_one();
          }
      }
    }
    if (fire) fire();
    settle();
  }
  settle();
}
