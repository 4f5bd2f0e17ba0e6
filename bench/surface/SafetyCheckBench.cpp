// The safety check over a show of 10 carts of 25 cues, 20 of them broken or clashing:
// the check alone, and the window's whole reload (the check, the table, the label).
// It runs after every edit, so it must stay far below what an operator would notice.
//
//   QT_QPA_PLATFORM=offscreen ./bench/sonto_surface_bench --benchmark_filter=SafetyCheck
#include <benchmark/benchmark.h>

#include <QApplication>
#include <memory>
#include <string>

#include "show/AudioCue.h"
#include "show/Cart.h"
#include "show/SafetyConcern.h"
#include "show/Workspace.h"
#include "SurfaceTestSupport.h"
#include "surface/BrokenCueController.h"
#include "surface/GridController.h"
#include "surface/WorkspaceController.h"

namespace {

constexpr int kCarts = 10, kCuesPerCart = 25;

// Per cart: the last cue's file is missing, and the one before it takes the first
// cue's key: two concerns a cart, twenty in the show.
std::unique_ptr<WorkspaceController> showWindow() {
  auto window = std::make_unique<WorkspaceController>(std::make_shared<Workspace>());
  FakeSources sources;
  for (int c = 0; c < kCarts; ++c) {
    if (c > 0) window->newTab();
    GridController* grid = window->gridControllers()[static_cast<size_t>(c)].get();
    grid->cart()->setSize({5, 5});
    for (int i = 0; i < kCuesPerCart; ++i) {
      sources.valid = i != kCuesPerCart - 1;
      auto cue = AudioCue::createWithFile("/show/cue" + std::to_string(i) + ".wav", window->workspace()->audioDevice());
      cue->setName("Cue " + std::to_string(c * kCuesPerCart + i + 1));
      cue->setHotkey(Cart::defaultHotkeyForInternalIndex(i == kCuesPerCart - 2 ? 0 : static_cast<unsigned long>(i)));
      cue->setMidiNote(i);
      grid->cart()->setCue(cue, static_cast<unsigned long>(i));
      cue->setCart(grid->cart());
    }
  }
  return window;
}

void BM_SafetyCheck(benchmark::State& state) {
  auto window = showWindow();
  size_t found = 0;
  for (auto _ : state) {
    if (state.range(0) == 0) {
      found = window->brokenOrFlaggedCues().size();
    } else {
      window->brokenCueController()->executeReloadData();
      found = window->brokenCueController()->brokenOrFlaggedCues().size();
    }
    benchmark::DoNotOptimize(found);
  }
  state.counters["concerns"] = static_cast<double>(found);
  window->closeWithoutAsking();
  QApplication::processEvents();
}
BENCHMARK(BM_SafetyCheck)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
