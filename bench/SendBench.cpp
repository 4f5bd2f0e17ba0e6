// What a send costs: N live sources (each its own stream and mixer, reading the
// device's stereo input) played straight to the busses of an offline device at 48 kHz
// with 128-frame cycles, against the same sources through one send whose aux bus of
// 2 channels runs one effect, with each source's channels sent to it and the returns
// routed back. The ratio of the "period_fraction" of the two rows of one N is the
// send's price per cycle.

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "CycleMeasure.h"
#include "audio/KyoAudioComponentDescription.h"
#include "audio/KyoAudioDeviceTestSupport.h"
#include "effects/KyoAudioSend.h"
#include "effects/KyoAudioSource.h"
#include "effects/KyoEffect.h"
#include "effects/KyoEffectBus.h"

using sonto::test::OfflineDevice;

namespace {

constexpr double kRate = 48000.0;
constexpr uint32_t kFrames = 128;
constexpr const char* kAuxPluginURI = "http://drobilla.net/plugins/mda/Overdrive";

void BM_SendCycle(benchmark::State& state) {
  const auto count = int(state.range(0));
  const bool throughSend = state.range(1) != 0;
  OfflineDevice dev{2, kRate, kFrames, 2};
  dev.device->setEnableInput(true);
  if (!dev.device->open()) {
    state.SkipWithError("the offline device would not open");
    return;
  }
  dev.device->setDefaultVolumes();

  std::shared_ptr<KyoAudioSend> send;
  if (throughSend) {
    send = KyoAudioSend::create();
    send->setDevice(dev.device);
    auto bus = std::make_shared<KyoEffectBus>(2);
    auto effect = KyoEffect::effectWithDescription(KyoAudioComponentDescription(kAudioUnitType_Effect, kAuxPluginURI));
    if (!effect) {
      state.SkipWithError("the aux effect is not installed");
      return;
    }
    bus->setEffects({effect});
    send->addEffectBus(bus);
    if (!bus->lastUsedEffect()) {
      state.SkipWithError("the aux effect did not take the bus's format");
      return;
    }
    send->setAuxCrosspointVolume(1.0f, 0, 0);
    send->setAuxCrosspointVolume(1.0f, 1, 1);
  }
  std::vector<std::shared_ptr<KyoAudioSource>> sources;
  dev.device->startSyncedActions();
  for (int i = 0; i < count; ++i) {
    auto source = KyoAudioSource::create();
    source->setDevice(dev.device);
    if (send) source->setSend(send);
    source->setDefaultVolumes();
    if (send) {
      source->setAuxVolume(0.5f, 1, 0);
      source->setAuxVolume(0.5f, 2, 1);
    }
    source->play();
    sources.push_back(source);
  }
  dev.device->endSyncedActions();

  sonto::test::measureCycles(state, dev, kRate, kFrames);

  // Off the send first: while attached, the send and its sources hold each other.
  for (auto& source : sources) {
    source->hardStop();
    source->setSend(nullptr);
  }
}

BENCHMARK(BM_SendCycle)
    ->ArgNames({"sources", "send"})
    ->ArgsProduct({{10, 200}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
