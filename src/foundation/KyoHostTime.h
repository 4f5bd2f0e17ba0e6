#pragma once
// Host time stamps of the device layer: ticks of CLOCK_MONOTONIC in nanoseconds.

#include <cstdint>

double KyoSecondsFromHostTime(uint64_t hostTime);
// Truncated to whole ticks; negative or nan seconds give 0, too many the largest tick.
uint64_t KyoHostTimeFromSeconds(double seconds);
