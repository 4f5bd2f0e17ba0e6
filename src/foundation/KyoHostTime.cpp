#include "foundation/KyoHostTime.h"

#include <cmath>

namespace {
// Time base of nanosecond ticks: seconds = ticks * numerator / (denominator * 1e9).
// Both directions go through the exact ticks per second rather than the inexact
// 1e-9 seconds per tick, which would turn one second into 999999999 ticks.
constexpr double kNumerator = 1.0;
constexpr double kDenominator = 1.0;
constexpr double kTicksPerSecond = (kDenominator * 1e9) / kNumerator;
}  // namespace

double KyoSecondsFromHostTime(uint64_t hostTime) { return double(hostTime) / kTicksPerSecond; }

uint64_t KyoHostTimeFromSeconds(double seconds) {
  const double ticks = seconds * kTicksPerSecond;
  if (!(ticks > 0.0)) return 0;
  if (ticks >= 18446744073709551615.0) return UINT64_MAX;
  return uint64_t(ticks);
}
