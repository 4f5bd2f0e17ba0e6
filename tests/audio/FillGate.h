#pragma once
// Holds the fill thread of every read-ahead stream created during its life in front
// of its next file read, as a disk that does not answer would, and lets through only
// the frames granted, or everything once open. A stream stuck there cannot be
// killed: open the gate first. Destroy the streams before it.

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "audio/KyoAudioBuffer.h"

namespace sonto::test {

class FillGate {
 public:
  explicit FillGate(bool open = false) : m_open(open) {
    KyoAudioBuffer::setFillLimiterForTesting([this](uint32_t wanted) {
      std::unique_lock<std::mutex> lock(m_mutex);
      ++m_waiting;
      m_cv.wait(lock, [&] { return m_budget > 0 || m_open; });
      --m_waiting;
      if (m_open) return wanted;
      uint32_t n = std::min(wanted, m_budget);
      m_budget -= n;
      return n;
    });
  }
  ~FillGate() {
    open();
    KyoAudioBuffer::setFillLimiterForTesting(nullptr);
  }
  FillGate(const FillGate&) = delete;
  FillGate& operator=(const FillGate&) = delete;

  void grant(uint32_t frames) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_budget += frames;
    m_cv.notify_all();
  }
  void open() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = true;
    m_cv.notify_all();
  }
  void close() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = false;
  }
  // How many fill threads wait in the gate.
  int waiting() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_waiting;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  uint32_t m_budget = 0;
  bool m_open;
  int m_waiting = 0;
};

}  // namespace sonto::test
