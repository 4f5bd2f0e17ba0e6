// N sources playing real stereo 48 kHz files through a 2-channel offline device at
// 48 kHz with 128-frame buffers: render time per cycle as a fraction of the buffer
// period, frames dropped by the read-ahead, and resident memory per loaded source.
//
// The offline device renders as fast as it is pulled, but the sources' fill threads
// work in real time, so pulls are paced as a real device would pace them: one cycle
// per 128 / 48000 seconds on the monotonic clock. Only the pull itself is timed. The
// streams are left to fill before play, and every source starts in the same cycle,
// so the output must be exactly N times the file: a dropped frame shows as a wrong
// sample, and the player's own "dropped" warnings are counted as well.

#include <benchmark/benchmark.h>
#include <sndfile.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "audio/KyoAudioComponentDescription.h"
#include "audio/KyoAudioDevice.h"
#include "audio/KyoHAL.h"
#include "effects/KyoAudioSource.h"
#include "effects/KyoEffect.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "support/TestFiles.h"

namespace {

constexpr double kRate = 48000.0;
constexpr uint32_t kFrames = 128;
constexpr double kPeriodSeconds = kFrames / kRate;
constexpr uint32_t kMeasuredCycles = 750;  // two seconds of audio
constexpr const char* kLightPluginURI = "http://drobilla.net/plugins/mda/Overdrive";

double residentBytes() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return double(resident) * double(sysconf(_SC_PAGESIZE));
}

const std::string& benchFile() {
  static const std::string path = [] {
    std::string p = sonto::test::temporaryPath("bench-stereo-48k.wav");
    sonto::test::writeRampFile(p, SF_FORMAT_WAV | SF_FORMAT_PCM_16, kRate, 2, int64_t(kRate * 20));
    return p;
  }();
  return path;
}

std::atomic<uint64_t> g_droppedWarnings{0};

void BM_SourcesPlaying(benchmark::State& state) {
  const int count = int(state.range(0));
  const bool withPlugin = state.range(1) != 0;
  KyoSetLogSink([](const std::string& line) {
    if (line.find("dropped") != std::string::npos) g_droppedWarnings++;
  });
  g_droppedWarnings = 0;

  KyoPlainClock pacer;
  const KyoAudioObjectID id = KyoHAL::shared().createOfflineDevice(2, kRate, kFrames);
  std::shared_ptr<KyoAudioDevice> device = KyoAudioDevice::deviceWithID(id);
  device->open();
  device->setDefaultVolumes();
  const std::string& path = benchFile();

  const double before = residentBytes();
  std::vector<std::shared_ptr<KyoAudioSource>> sources;
  for (int i = 0; i < count; ++i) {
    auto source = KyoAudioSource::create();
    source->setDevice(device);
    source->setAlias(KyoAlias::aliasWithPath(path));
    if (withPlugin) {
      auto effect = KyoEffect::effectWithDescription(KyoAudioComponentDescription(kAudioUnitType_Effect, kLightPluginURI));
      if (effect) source->setEffects({effect});
    }
    source->setDefaultVolumes();
    sources.push_back(source);
  }
  for (auto& source : sources) {
    while (!(source->buffer() && source->buffer()->isReadyToPlay())) pacer.sleepFor(0.005);
  }
  const double perSource = (residentBytes() - before) / count;

  device->startSyncedActions();
  for (auto& source : sources) source->play();
  device->endSyncedActions();
  KyoHAL::shared().clearOfflineRecording(id);

  double worst = 0, total = 0;
  uint64_t cycles = 0;
  for (auto _ : state) {
    double iteration = 0;
    double next = pacer.monotonicSeconds();
    for (uint32_t c = 0; c < kMeasuredCycles; ++c) {
      pacer.sleepUntil(next);
      const double start = pacer.monotonicSeconds();
      KyoHAL::shared().pullOffline(id, 1);
      const double took = pacer.monotonicSeconds() - start;
      worst = std::max(worst, took);
      total += took;
      iteration += took;
      next += kPeriodSeconds;
      if (next < pacer.monotonicSeconds()) next = pacer.monotonicSeconds();  // never catch up in a burst
    }
    cycles += kMeasuredCycles;
    state.SetIterationTime(iteration);
  }

  // Every source started on the same frame: the mix is count times the file, in order.
  auto recording = KyoHAL::shared().offlineRecording(id);
  uint64_t wrong = 0;
  for (uint32_t ch = 0; ch < 2; ++ch) {
    const auto& samples = recording[ch];
    for (size_t i = 0; i < samples.size(); ++i) {
      const double expected = double(count) * sonto::test::rampSample(int64_t(i), ch);
      if (std::fabs(samples[i] - expected) > 1e-4 * std::max(1.0, std::fabs(expected))) wrong++;
    }
  }
  for (auto& source : sources) source->hardStop();
  sources.clear();
  device->close();
  device.reset();
  KyoHAL::shared().destroyOfflineDevice(id);
  KyoSetLogSink(nullptr);

  state.counters["mean_load"] = total / double(cycles) / kPeriodSeconds;
  state.counters["worst_load"] = worst / kPeriodSeconds;
  state.counters["wrong_samples"] = double(wrong);
  state.counters["dropped_warnings"] = double(g_droppedWarnings.load());
  state.counters["rss_MiB_per_source"] = perSource / (1024.0 * 1024.0);
}

}  // namespace

BENCHMARK(BM_SourcesPlaying)
    ->ArgsProduct({{1, 50, 200, 500}, {0}})
    ->Args({50, 1})
    ->ArgNames({"sources", "plugin"})
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
