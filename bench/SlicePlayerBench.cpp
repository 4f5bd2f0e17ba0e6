// The slice player from the render thread's side: the cost of one read of a
// stereo 44.1 kHz file in a loop (128 and 512 frames), with the allocations made
// by that read counted; and the time from creating a player to its first full
// ring, when a cue could start with no drop-out, as the median over 100 files.
//
// Reads run as fast as the fill threads allow: before each read the benchmark
// waits, untimed, until the read can be served from the rings, so every timed read
// is the normal path (ring copy, boundary check, position arithmetic) and never the
// silence of a drop-out. Files are made at start and sit in the page cache.

#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "audio/KyoAudioMetaBuffer.h"
#include "foundation/KyoClock.h"
#include "support/AllocationCounter.h"
#include "support/TestFiles.h"

namespace {

constexpr double kRate = 44100;
constexpr uint32_t kChannels = 2;

std::string makeFile(const std::string& name, double seconds) {
  std::string path = sonto::test::temporaryPath(name);
  sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, kRate, kChannels, int64_t(seconds * kRate));
  return path;
}

void waitUntil(const std::function<bool()>& ready) {
  while (!ready()) KyoCurrentClock().sleepFor(0.0001);
}

// One render-thread read, 128 or 512 frames, of a file looping for ever over 4.5 s
// after a 0.5 s lead-in, so the timed reads include loop jumps.
void BM_SlicePlayerRead(benchmark::State& state) {
  const uint32_t frames = uint32_t(state.range(0));
  static const std::string path = makeFile("bench-slice-read.wav", 6);
  auto player = KyoAudioMetaBuffer::create(KyoAlias::aliasWithPath(path), KyoAudioStreamDescription(kRate, kChannels));
  if (!player) {
    state.SkipWithError("no player");
    return;
  }
  player->setSlices({{0.0, 0.5, 1}, {0.5, 5.0, -1}});
  player->goToTime(0);
  KyoReadFramesInfo info;
  player->registerReadFramesInfo(&info);
  AudioBufferList* list = KyoAudioBufferListCreate(kChannels, frames, false);
  waitUntil([&] { return player->isReadyToPlay(); });

  sonto::test::resetWatchedAllocations();
  uint64_t reads = 0;
  for (auto _ : state) {
    waitUntil([&] { return player->isReadyToRead(frames); });
    sonto::test::watchAllocationsOnThisThread(true);
    double start = KyoMonotonicSeconds();
    info.method(info.target, frames, list, 0);
    double end = KyoMonotonicSeconds();
    sonto::test::watchAllocationsOnThisThread(false);
    state.SetIterationTime(end - start);
    benchmark::DoNotOptimize(list);
    ++reads;
  }
  state.counters["allocations_per_read"] = double(sonto::test::watchedAllocations()) / double(std::max<uint64_t>(reads, 1));
  state.counters["malloc_counted"] = sonto::test::countsMalloc() ? 1 : 0;
  state.counters["loop_jumps"] = double(reads) * frames / (4.5 * kRate);
  player->killWorker();
  KyoAudioBufferListFree(list);
}
BENCHMARK(BM_SlicePlayerRead)->Arg(128)->Arg(512)->UseManualTime()->Unit(benchmark::kNanosecond)->Iterations(20000);

// From create to isReadyToPlay, for 100 different files: the tending thread opens
// each stream and its fill thread fills the ring (22050 frames). Looped players
// need a second stream at the loop's start before they are ready.
void BM_SlicePlayerTimeToFirstFullRing(benchmark::State& state) {
  const bool looped = state.range(0) != 0;
  static const std::vector<std::string> paths = [] {
    std::vector<std::string> p;
    for (int i = 0; i < 100; ++i) p.push_back(makeFile("bench-ready-" + std::to_string(i) + ".wav", 2));
    return p;
  }();
  const KyoAudioStreamDescription format(kRate, kChannels);
  std::vector<double> seconds;
  for (auto _ : state) {
    for (const std::string& path : paths) {
      auto alias = KyoAlias::aliasWithPath(path);
      double start = KyoMonotonicSeconds();
      auto player = KyoAudioMetaBuffer::create(alias, format);
      if (!player) {
        state.SkipWithError("no player");
        return;
      }
      if (looped) player->setSlices({{0.25, 1.5, -1}});
      player->goToTime(0);
      waitUntil([&] { return player->isReadyToPlay(); });
      seconds.push_back(KyoMonotonicSeconds() - start);
      player->killWorker();
    }
  }
  std::sort(seconds.begin(), seconds.end());
  auto at = [&](double q) { return seconds[size_t(q * double(seconds.size() - 1))] * 1e3; };
  state.counters["median_ms"] = at(0.5);
  state.counters["p90_ms"] = at(0.9);
  state.counters["max_ms"] = seconds.back() * 1e3;
  state.counters["players"] = double(seconds.size());
}
BENCHMARK(BM_SlicePlayerTimeToFirstFullRing)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
