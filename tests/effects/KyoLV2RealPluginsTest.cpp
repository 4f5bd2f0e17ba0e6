// Installed third-party plugins: one whose atom ports are sized by rsz:minimumSize
// (x42 fil4, 64 KiB and more) and one that cannot run without the worker (x42
// convoLV2). Each test is skipped when its package is not installed.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "EffectTestSupport.h"
#include "effects/KyoEffect.h"
#include "effects/KyoLV2Unit.h"
#include "effects/KyoLV2World.h"

using namespace sonto::test;

namespace {

constexpr const char* kFilterURI = "http://gareus.org/oss/lv2/fil4#stereo";
constexpr const char* kConvolverURI = "http://gareus.org/oss/lv2/convoLV2#Stereo";

void expectRunsAndRoundTrips(const std::string& uri, bool needsWorker) {
  const auto* entry = KyoLV2World::shared().catalogueEntry(uri);
  ASSERT_NE(entry, nullptr) << uri << " is installed but not catalogued";
  TestSignalSource source;
  auto effect = effectWithURI(uri);
  ASSERT_TRUE(effect && attach(*effect, 48000.0, 2, source));
  auto* unit = dynamic_cast<KyoLV2Unit*>(effect->audioUnit());
  ASSERT_NE(unit, nullptr);
  EXPECT_EQ(unit->worker(0) != nullptr, needsWorker);
  EXPECT_TRUE(!needsWorker || unit->worker(0)->isRunning());
  // Settings away from the defaults, so that a restore that drops them shows.
  for (const auto& [title, id] : effect->parameterMenu()) {
    const KyoLV2Port* port = unit->parameter(id);
    if (port && !port->toggled) effect->setValue(port->minimum + (port->maximum - port->minimum) * 0.3f, id);
  }

  const Rendering first = renderCycles(*effect, 2, 256, 8);
  EXPECT_EQ(first.status, 0);
  EXPECT_EQ(first.allocations, 0u);
  for (float sample : first.samples) ASSERT_TRUE(std::isfinite(sample));

  // A new effect from the saved form, fed the same signal from its start, sounds the same.
  auto restored = KyoEffect::effectWithProperties(effect->properties());
  ASSERT_NE(restored, nullptr);
  TestSignalSource fresh;
  ASSERT_TRUE(attach(*restored, 48000.0, 2, fresh));
  ASSERT_TRUE(restored->setParameters());
  const Rendering again = renderCycles(*restored, 2, 256, 8);
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(std::memcmp(again.samples.data(), first.samples.data(), first.samples.size() * sizeof(float)), 0);
  for (const auto& [title, id] : effect->parameterMenu()) {
    EXPECT_EQ(restored->valueForParameter(id), effect->valueForParameter(id)) << title;
  }
}

}  // namespace

TEST(KyoLV2RealPlugins, AtomPortsSizedByTheirMinimumRunWithoutAllocatingAndRoundTrip) {
  if (!KyoLV2World::shared().pluginForURI(kFilterURI)) GTEST_SKIP() << "x42-plugins is not installed";
  auto unit = KyoLV2Unit::create(kFilterURI);
  ASSERT_NE(unit, nullptr);
  bool sawLargeAtomPort = false;
  for (const KyoLV2Port& port : unit->ports()) {
    if (port.kind == KyoLV2Port::Kind::Atom) sawLargeAtomPort = sawLargeAtomPort || port.atomBufferSize >= 65888;
  }
  EXPECT_TRUE(sawLargeAtomPort);
  expectRunsAndRoundTrips(kFilterURI, false);
}

TEST(KyoLV2RealPlugins, APluginThatRequiresTheWorkerIsCataloguedRunsAndRoundTrips) {
  if (!KyoLV2World::shared().pluginForURI(kConvolverURI)) GTEST_SKIP() << "x42-plugins is not installed";
  EXPECT_EQ(KyoLV2World::missingFeature(KyoLV2World::shared().pluginForURI(kConvolverURI)), "");
  expectRunsAndRoundTrips(kConvolverURI, true);
}

// A mono stream through stereo plugins: both inputs take the one channel and the two
// outputs fold back into it: a balance at its defaults passes the signal as it came,
// without allocating.
TEST(KyoLV2RealPlugins, AMonoStreamRunsThroughAStereoPlugin) {
  constexpr const char* kBalanceURI = "http://gareus.org/oss/lv2/balance";
  if (!KyoLV2World::shared().pluginForURI(kBalanceURI)) GTEST_SKIP() << "x42-plugins is not installed";
  TestSignalSource source;
  auto balance = effectWithURI(kBalanceURI);
  ASSERT_TRUE(balance && attach(*balance, 48000.0, 1, source)) << "a mono format is taken";
  const Rendering mono = renderCycles(*balance, 1, 256, 8);
  EXPECT_EQ(mono.status, 0);
  EXPECT_EQ(mono.allocations, 0u);
  for (uint32_t i = 0; i < mono.samples.size(); ++i) ASSERT_NEAR(mono.samples[i], testSignal(i, 0), 1e-6f) << i;
}
