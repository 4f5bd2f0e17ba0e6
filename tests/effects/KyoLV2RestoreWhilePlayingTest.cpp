// A state restored while the render thread runs the effect must never let a cycle of
// the dry input through: the restored plugin is swapped in between cycles.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "EffectTestSupport.h"
#include "effects/KyoLV2Unit.h"
#include "effects/KyoLV2World.h"

using namespace sonto::test;

namespace {

// x42 balance keeps state of its own, so its restore goes through the plugin.
constexpr const char* kBalanceURI = "http://gareus.org/oss/lv2/balance";
constexpr uint32_t kFrames = 128;

int32_t parameterForSymbol(const KyoLV2Unit& unit, const std::string& symbol) {
  for (uint32_t id : unit.parameterIDs()) {
    if (unit.parameter(id)->symbol == symbol) return (int32_t)id;
  }
  return -1;
}

}  // namespace

TEST(KyoLV2RestoreWhilePlaying, NoCycleOfDrySoundWhileTheStateIsRestoredAgainAndAgain) {
  if (!KyoLV2World::shared().pluginForURI(kBalanceURI)) GTEST_SKIP() << "x42-plugins is not installed";
  auto unit = KyoLV2Unit::create(kBalanceURI);
  ASSERT_NE(unit, nullptr);
  ASSERT_EQ(unit->setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(48000.0, 2)), 0);
  ASSERT_EQ(unit->setStreamFormat(kKyoAudioUnitScope_Output, 0, KyoAudioStreamDescription(48000.0, 2)), 0);
  ASSERT_EQ(unit->initialize(), 0);
  const int32_t trim = parameterForSymbol(*unit, "trim");
  ASSERT_GE(trim, 0);
  ASSERT_TRUE(unit->setParameterValue((uint32_t)trim, -12.0f));
  const std::string state = unit->saveState();
  ASSERT_FALSE(state.empty());

  std::atomic<bool> stop{false};
  std::atomic<uint32_t> cycles{0};
  std::atomic<uint32_t> dryCycles{0};
  std::thread render([&] {
    TestBufferList input(2, kFrames);
    TestBufferList output(2, kFrames);
    uint32_t position = 0;
    while (!stop.load()) {
      for (uint32_t c = 0; c < 2; ++c) {
        for (uint32_t f = 0; f < kFrames; ++f) input.channel(c)[f] = testSignal(position + f, c) + 0.25f;
      }
      position += kFrames;
      unit->process(input.list(), output.list(), kFrames);
      bool dry = true;
      for (uint32_t c = 0; c < 2 && dry; ++c) {
        for (uint32_t f = 0; f < kFrames && dry; ++f) dry = output.channel(c)[f] == input.channel(c)[f];
      }
      if (dry) dryCycles.fetch_add(1);
      cycles.fetch_add(1);
    }
  });
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(unit->restoreState(state));
    // Let the render thread in between restores, without counting on time.
    const uint32_t seen = cycles.load();
    while (cycles.load() < seen + 2) std::this_thread::yield();
  }
  stop.store(true);
  render.join();
  EXPECT_GT(cycles.load(), 80u);
  EXPECT_EQ(dryCycles.load(), 0u);
  EXPECT_EQ(unit->parameterValue((uint32_t)trim), -12.0f);
}
