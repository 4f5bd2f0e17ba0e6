#pragma once
// The measured part of the engine's benchmarks: single cycles of an offline device,
// pulled after a warm-up in which the recording reaches its size and caches settle.
// "period_fraction" is the render time of one cycle over the cycle's duration, printed
// with a seconds suffix ("0.055s" is 5.5 %); "render_allocs" counts the allocations of
// the pulling thread, which stands in for the render thread.

#include <benchmark/benchmark.h>

#include "audio/KyoAudioDeviceTestSupport.h"
#include "support/AllocationCounter.h"

namespace sonto::test {

inline void measureCycles(benchmark::State& state, OfflineDevice& dev, double rate, uint32_t frames) {
  for (int i = 0; i < 50; ++i) {
    dev.pull(1);
    dev.clear();
  }
  resetWatchedAllocations();
  watchAllocationsOnThisThread(true);
  for (auto _ : state) {
    dev.pull(1);
    dev.clear();  // keeps the capacity: a few stores
  }
  watchAllocationsOnThisThread(false);
  state.counters["period_fraction"] = benchmark::Counter(double(state.iterations()) * frames / rate,
                                                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["render_allocs"] = double(watchedAllocations());
}

}  // namespace sonto::test
