// The render engine's cost: N playing stereo sources on the busses of an offline
// device at 48 kHz with 128-frame cycles. "period_fraction" is the render time of one
// cycle divided by the cycle's duration (2.67 ms): 0.5 is half of one core.

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "CycleMeasure.h"
#include "audio/KyoAudioDeviceTestSupport.h"

using sonto::test::OfflineDevice;
using sonto::test::TestSource;

namespace {

constexpr double kRate = 48000.0;
constexpr uint32_t kFrames = 128;

// sources, channels, and a meter feed: a thread reading the device's levels of one
// channel pair 20 times a second, as the window's meter timer does.
void engineCycle(benchmark::State& state, uint32_t sources, uint32_t channels, bool meterFeed) {
  OfflineDevice dev{channels, kRate, kFrames};
  if (!dev.device || !dev.device->open()) {
    state.SkipWithError("the offline device would not open");
    return;
  }
  std::vector<std::shared_ptr<TestSource>> playing;
  for (uint32_t i = 0; i < sources; ++i) {
    // Stereo pairs spread over the device's first channels, as cues routed to outputs.
    const uint32_t left = (2 * i) % std::min(channels, kKyoLogicalChannels);
    auto s = std::make_shared<TestSource>(dev.device.get(), std::vector<uint32_t>{left, left + 1 < channels ? left + 1 : 0},
                                          TestSource::Signal::Constant, 0.001f);
    if (!dev.device->_attachAudio(s)) {
      state.SkipWithError("attach failed");
      return;
    }
    s->_play();
    playing.push_back(std::move(s));
  }
  std::atomic<bool> stop{false};
  std::thread feed;
  if (meterFeed) {
    feed = std::thread([&] {
      while (!stop.load()) {
        for (uint32_t c = 0; c < 2; ++c) {
          benchmark::DoNotOptimize(dev.device->outPostAveragePowerAtChannel(c));
          benchmark::DoNotOptimize(dev.device->outPostPeakHoldLevelAtChannel(c));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
    });
  }
  sonto::test::measureCycles(state, dev, kRate, kFrames);
  stop.store(true);
  if (feed.joinable()) feed.join();
}

void BM_EngineCycle(benchmark::State& state) {
  engineCycle(state, uint32_t(state.range(0)), uint32_t(state.range(1)), false);
}

// The same cycle with and without the meter feed, side by side in one run.
void BM_EngineCycleMeterFeed(benchmark::State& state) { engineCycle(state, 200, 2, state.range(0) != 0); }

BENCHMARK(BM_EngineCycleMeterFeed)->ArgName("feed")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

BENCHMARK(BM_EngineCycle)
    ->ArgNames({"sources", "channels"})
    ->ArgsProduct({{1, 50, 200, 500}, {2, 64}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
