// The virtual clock with many workers asleep at one instant, as a script's fades and
// panics all started in one cycle leave them: detach N workers that sleep one step,
// then move time on. "per_worker" is real time over N; it stays flat while the clock
// wakes only the workers that are due.

#include <benchmark/benchmark.h>

#include <chrono>

#include "foundation/KyoClock.h"

namespace {

void BM_VirtualClockSleepersAtOneInstant(benchmark::State& state) {
  const auto workers = int(state.range(0));
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    KyoVirtualClock clock;
    for (int i = 0; i < workers; ++i) clock.detachThread([&clock] { clock.sleepUntil(0.01); });
    clock.advance(0.01);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(took.count());
    state.counters["per_worker"] = took.count() / workers;
  }
}

}  // namespace

BENCHMARK(BM_VirtualClockSleepersAtOneInstant)
    ->Arg(500)
    ->Arg(2000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
