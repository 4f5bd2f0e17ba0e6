// The render engine's cost: N playing stereo sources on the busses of an offline
// device at 48 kHz with 128-frame cycles. "period_fraction" is the render time of one
// cycle divided by the cycle's duration (2.67 ms): 0.5 is half of one core.

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "CycleMeasure.h"
#include "audio/KyoAudioDeviceTestSupport.h"

using sonto::test::OfflineDevice;
using sonto::test::TestSource;

namespace {

constexpr double kRate = 48000.0;
constexpr uint32_t kFrames = 128;

void BM_EngineCycle(benchmark::State& state) {
  const auto sources = uint32_t(state.range(0));
  const auto channels = uint32_t(state.range(1));
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
  sonto::test::measureCycles(state, dev, kRate, kFrames);
}

BENCHMARK(BM_EngineCycle)
    ->ArgNames({"sources", "channels"})
    ->ArgsProduct({{1, 50, 200, 500}, {2, 64}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
