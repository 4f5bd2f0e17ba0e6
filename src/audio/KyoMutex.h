#pragma once
// A plain pthread mutex with priority inheritance, for every lock that the render
// thread takes: the render thread runs at real-time priority, and a holder of
// ordinary priority must be lifted while it holds the lock. lock() and unlock()
// answer the pthread status, so callers can log failures as the engine does.

#include <pthread.h>

#include <thread>

#include "foundation/KyoLog.h"

class KyoMutex {
 public:
  KyoMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
  }
  ~KyoMutex() { pthread_mutex_destroy(&m_mutex); }
  KyoMutex(const KyoMutex&) = delete;
  KyoMutex& operator=(const KyoMutex&) = delete;

  int lock() { return pthread_mutex_lock(&m_mutex); }
  int unlock() { return pthread_mutex_unlock(&m_mutex); }
  bool tryLock() { return pthread_mutex_trylock(&m_mutex) == 0; }
  pthread_mutex_t* native() { return &m_mutex; }

 private:
  pthread_mutex_t m_mutex;
};

class KyoMutexLocker {
 public:
  explicit KyoMutexLocker(KyoMutex& m) : m_mutex(m) { m_mutex.lock(); }
  ~KyoMutexLocker() { m_mutex.unlock(); }
  KyoMutexLocker(const KyoMutexLocker&) = delete;
  KyoMutexLocker& operator=(const KyoMutexLocker&) = delete;

 private:
  KyoMutex& m_mutex;
};

// Ends a worker thread that waits on `condition` under `mutex`: `stop` (called under
// the mutex) tells it to leave, and the call returns once `gone` (read under the
// mutex) holds and the thread is joined. Statuses are logged, as the engine does.
template <class Stop, class Gone>
void KyoStopWorkerThread(KyoMutex& mutex, pthread_cond_t& condition, std::thread& thread, Stop stop, Gone gone) {
  if (!thread.joinable()) return;
  int status = mutex.lock();
  if (status != 0) KYO_LOG_STATUS(status);
  stop();
  status = pthread_cond_signal(&condition);
  if (status != 0) KYO_LOG_STATUS(status);
  while (!gone()) {
    status = pthread_cond_wait(&condition, mutex.native());
    if (status != 0) {
      KYO_LOG_STATUS(status);
      break;
    }
  }
  status = mutex.unlock();
  if (status != 0) KYO_LOG_STATUS(status);
  thread.join();
}
