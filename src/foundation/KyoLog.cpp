#include "foundation/KyoLog.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "foundation/KyoEnvironment.h"

namespace {
std::mutex& sinkMutex() {
  // Never destroyed: threads that outlive main may still log.
  static std::mutex& m = *new std::mutex;
  return m;
}
KyoLogSink& sink() {
  static KyoLogSink& s = *new KyoLogSink;
  return s;
}

void emit(std::string line) {
  while (!line.empty() && line.back() == '\n') line.pop_back();
  std::lock_guard<std::mutex> lock(sinkMutex());
  if (sink()) {
    sink()(line);
    return;
  }
  std::fputs(line.c_str(), stderr);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

std::string vformat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char small[512];
  int n = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return {};
  if (size_t(n) < sizeof small) return std::string(small, size_t(n));
  std::string big(size_t(n) + 1, '\0');
  std::vsnprintf(big.data(), big.size(), format, args);
  big.resize(size_t(n));
  return big;
}
}  // namespace

void KyoLog(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string line = vformat(format, args);
  va_end(args);
  emit(std::move(line));
}

std::string KyoFourCharString(uint32_t code) {
  std::string s(4, '.');
  for (int i = 0; i < 4; ++i) {
    unsigned char c = (unsigned char)(code >> (24 - 8 * i));
    if (c >= 32 && c < 127) s[size_t(i)] = char(c);
  }
  return s;
}

void KyoLogStatus(int32_t status, const char* function, int line) {
  if (KyoEnvironment::logLevel() < kKyoDebugLogLevel) return;
  KyoLog("Error: %d [%s] | %s [line %d]", status, KyoFourCharString(uint32_t(status)).c_str(), function, line);
}

void KyoLogStatusDetail(int32_t status, const std::string& detail, const char* function, int line) {
  if (KyoEnvironment::logLevel() < kKyoDebugLogLevel) return;
  KyoLog("Error: %d [%s] %s | %s [line %d]", status, KyoFourCharString(uint32_t(status)).c_str(), detail.c_str(),
         function, line);
}

void KyoSetLogSink(KyoLogSink s) {
  std::lock_guard<std::mutex> lock(sinkMutex());
  sink() = std::move(s);
}
