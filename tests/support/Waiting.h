#pragma once
// Waiting for what real threads bring about, and catching the log lines they write.

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/KyoClock.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

namespace sonto::test {

// Polls a condition that another thread makes true. The limit only keeps a fault
// from hanging the run; it measures nothing.
template <class Predicate>
bool eventually(Predicate predicate, double limitSeconds = 20) {
  const double end = KyoMonotonicSeconds() + limitSeconds;
  while (!predicate()) {
    if (KyoMonotonicSeconds() > end) return false;
    KyoCurrentClock().sleepFor(0.001);
  }
  return true;
}

// Collects the log lines written, by any thread, while it lives, the lines for
// developers included.
class LogCapture {
 public:
  LogCapture() : m_level(KyoEnvironment::logLevel()) {
    KyoEnvironment::setLogLevel(std::max(m_level, kKyoDebugLogLevel));
    KyoSetLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_lines.push_back(line);
    });
  }
  ~LogCapture() {
    KyoSetLogSink(nullptr);
    KyoEnvironment::setLogLevel(m_level);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }
  // Every line, each ended by a newline.
  std::string all() {
    std::string text;
    for (const auto& line : lines()) text += line + "\n";
    return text;
  }
  bool contains(const std::string& text) { return all().find(text) != std::string::npos; }
  std::vector<std::string> matching(const std::string& prefix) {
    std::vector<std::string> found;
    for (const auto& line : lines())
      if (line.compare(0, prefix.size(), prefix) == 0) found.push_back(line);
    return found;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
  }

 private:
  const long m_level;
  std::mutex m_mutex;
  std::vector<std::string> m_lines;
};

}  // namespace sonto::test
