#pragma once
// Diagnostic log: one line per call on standard error, flushed at once so that a
// crash never eats the last lines. Platform statuses are never thrown; they are
// logged here with their number and their four bytes and the call answers a failure.

#include <cstdint>
#include <functional>
#include <string>

// printf-style line; a newline is added when the text has none.
void KyoLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The log level from which the lines for developers are written: statuses with
// their numbers, functions and line numbers. What an operator sees is said in words
// by the caller, at level 0.
constexpr long kKyoDebugLogLevel = 1;

// "Error: %d [%4.4s] | %s [line %d]", at the debug level.
void KyoLogStatus(int32_t status, const char* function, int line);
// "Error: %d [%4.4s] %s | %s [line %d]", at the debug level.
void KyoLogStatusDetail(int32_t status, const std::string& detail, const char* function, int line);

// The four bytes of a status or four-character code as text, highest byte first;
// bytes that are not printable show as '.'.
std::string KyoFourCharString(uint32_t code);

// Tests and the application may divert the lines; null restores standard error.
// The sink is called with the line without its newline.
using KyoLogSink = std::function<void(const std::string& line)>;
void KyoSetLogSink(KyoLogSink sink);

#define KYO_LOG_STATUS(status) KyoLogStatus((int32_t)(status), __PRETTY_FUNCTION__, __LINE__)
#define KYO_LOG_STATUS_DETAIL(status, detail) \
  KyoLogStatusDetail((int32_t)(status), (detail), __PRETTY_FUNCTION__, __LINE__)

constexpr uint32_t KyoFourCC(const char (&s)[5]) {
  return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) | (uint32_t(uint8_t(s[2])) << 8) |
         uint32_t(uint8_t(s[3]));
}
