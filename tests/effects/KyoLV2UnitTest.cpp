#include "effects/KyoLV2Unit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>

#include "EffectTestSupport.h"
#include "effects/KyoLV2World.h"

using namespace sonto::test;

namespace {

std::unique_ptr<KyoLV2Unit> gainUnit(double rate, uint32_t channels, uint32_t maxFrames = 4096) {
  auto unit = KyoLV2Unit::create(kGainURI);
  if (!unit) return nullptr;
  EXPECT_EQ(unit->setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(rate, channels)), 0);
  EXPECT_EQ(unit->setStreamFormat(kKyoAudioUnitScope_Output, 0, KyoAudioStreamDescription(rate, channels)), 0);
  EXPECT_EQ(unit->setMaximumFramesPerSlice(maxFrames), 0);
  EXPECT_EQ(unit->initialize(), 0);
  return unit;
}

}  // namespace

TEST(KyoLV2World, CatalogueListsHostablePluginsAndSkipsOnesWithoutALibrary) {
  KyoLV2World& world = KyoLV2World::shared();
  const KyoLV2CatalogueEntry* gain = world.catalogueEntry(kGainURI);
  ASSERT_NE(gain, nullptr);
  EXPECT_EQ(gain->type, kKyoEffectType);
  EXPECT_EQ(gain->componentName(), "Sonto Tests: Test Gain");
  EXPECT_EQ(world.catalogueEntry(kMissingBinaryURI), nullptr);
  EXPECT_EQ(world.catalogueEntry(kNeedyURI), nullptr);  // needs a feature this host lacks
  EXPECT_EQ(world.catalogueEntry("urn:sonto:test:nothing-here"), nullptr);

  // The map is one table for the process: the same URI, the same number, from any thread.
  LV2_URID first = world.map("urn:sonto:test:some-uri");
  LV2_URID fromThread = 0;
  std::thread([&] { fromThread = world.map("urn:sonto:test:some-uri"); }).join();
  EXPECT_EQ(first, fromThread);
  EXPECT_STREQ(world.unmap(first), "urn:sonto:test:some-uri");
  EXPECT_EQ(world.unmap(0), nullptr);
  EXPECT_EQ(world.unmap(first + 100000), nullptr);
}

TEST(KyoLV2Unit, PluginsThatCannotBeHostedAreRefusedWithALogLine) {
  struct Case {
    const char* uri;
    int32_t status;
    const char* reason;
  };
  const Case cases[] = {
      {"urn:sonto:test:nothing-here", -2005, "no such plugin is installed"},
      {kNeedyURI, kKyoAudioUnitErr_FailedInitialization, "needs the host feature urn:sonto:test:feature-nobody-has"},
      {kMissingBinaryURI, kKyoAudioUnitErr_FailedInitialization, "could not be instantiated"},
  };
  for (const Case& c : cases) {
    LogCapture log;
    int32_t status = 0;
    EXPECT_EQ(KyoLV2Unit::create(c.uri, &status), nullptr) << c.uri;
    EXPECT_EQ(status, c.status) << c.uri;
    EXPECT_TRUE(log.contains(c.reason)) << c.uri;
    EXPECT_TRUE(log.contains("Error: " + std::to_string(c.status))) << c.uri;
  }
}

TEST(KyoLV2Unit, GainIsExactAcrossBlockSplitsChannelsAndBypass) {
  // Sizes around the maximum slice: the unit runs long calls in pieces and must neither
  // skip nor repeat a frame at the seams. A mono plugin runs one instance per channel,
  // in place as in a chain; bypassed, the input passes untouched and adds no latency.
  const struct {
    uint32_t channels, maxFrames, frames;
    bool inPlace, bypass;
  } cases[] = {
      {1, 64, 1, false, false},   {1, 64, 63, false, false},  {1, 64, 64, false, false}, {1, 64, 65, false, false},
      {1, 64, 1000, false, false}, {2, 4096, 512, true, false}, {1, 4096, 100, false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.channels << " channels, " << c.frames << " frames, bypass " << c.bypass);
    auto unit = gainUnit(48000.0, c.channels, c.maxFrames);
    ASSERT_NE(unit, nullptr);
    EXPECT_EQ(unit->instanceCount(), c.channels);
    ASSERT_TRUE(unit->setParameterValue(kGainParameter, -6.0f));
    unit->setBypass(c.bypass);
    EXPECT_DOUBLE_EQ(unit->latency(), c.bypass ? 0.0 : kGainLatencyFrames / 48000.0);
    TestBufferList in(c.channels, c.frames), out(c.channels, c.frames);
    in.fillSignal();
    TestBufferList& result = c.inPlace ? in : out;
    unit->process(in.list(), result.list(), c.frames);
    expectScaledSignal(result, 0, c.bypass ? 1.0f : dbFactor(-6.0f), c.bypass ? kExactly : 0.0f);
  }
}

TEST(KyoLV2Unit, ParametersAreClampedAndUnknownOnesRefused) {
  auto unit = gainUnit(44100.0, 1);
  ASSERT_NE(unit, nullptr);
  ASSERT_EQ(unit->parameterIDs().size(), 1u);  // the latency output is no parameter
  const KyoLV2Port* gain = unit->parameter(kGainParameter);
  ASSERT_NE(gain, nullptr);
  EXPECT_EQ(gain->name, "Gain");
  EXPECT_FLOAT_EQ(gain->minimum, -90.0f);
  EXPECT_FLOAT_EQ(gain->maximum, 24.0f);

  const struct {
    uint32_t id;
    KyoAudioUnitScope scope;
    float value;
    int32_t status;
    float after;
  } cases[] = {
      {kGainParameter, kKyoAudioUnitScope_Global, 100.0f, 0, 24.0f},
      {kGainParameter, kKyoAudioUnitScope_Global, -1000.0f, 0, -90.0f},
      {kGainParameter, kKyoAudioUnitScope_Global, NAN, kKyoAudioUnitErr_InvalidParameter, -90.0f},
      {1, kKyoAudioUnitScope_Global, 1.0f, kKyoAudioUnitErr_InvalidParameter, -90.0f},
      {99, kKyoAudioUnitScope_Global, 1.0f, kKyoAudioUnitErr_InvalidParameter, -90.0f},
      {kGainParameter, kKyoAudioUnitScope_Input, 1.0f, kKyoAudioUnitErr_InvalidScope, -90.0f},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(unit->setParameter(c.id, c.scope, 0, c.value), c.status) << c.id << " " << c.value;
    EXPECT_FLOAT_EQ(unit->parameterValue(kGainParameter), c.after) << c.id << " " << c.value;
  }
}

TEST(KyoLV2Unit, FormatsOutsideThePluginAreRefused) {
  auto gain = KyoLV2Unit::create(kGainURI);
  ASSERT_NE(gain, nullptr);
  EXPECT_EQ(gain->supportedChannels(true), -1);
  EXPECT_EQ(gain->setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(48000.0, 6)), 0);
  // Different channel counts on the two sides cannot be mapped onto per-channel instances.
  EXPECT_EQ(gain->setStreamFormat(kKyoAudioUnitScope_Output, 0, KyoAudioStreamDescription(48000.0, 2)), 0);
  EXPECT_EQ(gain->initialize(), kKyoAudioUnitErr_FormatNotSupported);
  EXPECT_EQ(gain->setElementCount(kKyoAudioUnitScope_Input, 2), kKyoAudioUnitErr_PropertyNotWritable);

  if (!haveMDAPlugins()) GTEST_SKIP() << "mda-lv2 is not installed";
  auto stereo = KyoLV2Unit::create(kMDAOverdriveURI);
  ASSERT_NE(stereo, nullptr);
  EXPECT_EQ(stereo->supportedChannels(true), 2);
  EXPECT_EQ(stereo->setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(48000.0, 3)),
            kKyoAudioUnitErr_FormatNotSupported);
  EXPECT_EQ(stereo->setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(48000.0, 2)), 0);
  // One channel is taken too: it feeds both inputs.
  EXPECT_EQ(stereo->setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(48000.0, 1)), 0);
}

TEST(KyoLV2Unit, StateAndPresetsRoundTrip) {
  auto unit = gainUnit(48000.0, 1);
  ASSERT_NE(unit, nullptr);
  unit->setParameterValue(kGainParameter, -7.5f);
  const std::string state = unit->saveState("My Setting");
  ASSERT_FALSE(state.empty());

  auto other = gainUnit(44100.0, 2);
  ASSERT_NE(other, nullptr);
  std::string label;
  ASSERT_TRUE(other->restoreState(state, &label));
  EXPECT_FLOAT_EQ(other->parameterValue(kGainParameter), -7.5f);
  EXPECT_EQ(label, "My Setting");

  // Broken text and another plugin's state leave the unit as it was.
  LogCapture log;
  EXPECT_FALSE(other->restoreState("this is not turtle {{{"));
  EXPECT_FALSE(other->restoreState(""));
  EXPECT_FLOAT_EQ(other->parameterValue(kGainParameter), -7.5f);
  if (haveMDAPlugins()) {
    auto overdrive = KyoLV2Unit::create(kMDAOverdriveURI);
    ASSERT_NE(overdrive, nullptr);
    EXPECT_FALSE(other->restoreState(overdrive->saveState()));
    EXPECT_TRUE(log.contains("the saved settings belong to"));
  }

  const std::vector<KyoLV2Preset> presets = unit->factoryPresets();
  ASSERT_EQ(presets.size(), 2u);
  ASSERT_TRUE(unit->loadPreset(presets[1].uri));
  EXPECT_FLOAT_EQ(unit->parameterValue(kGainParameter), 3.0f);
  EXPECT_FALSE(unit->loadPreset("urn:sonto:test:no-such-preset"));
}

TEST(KyoLV2Unit, ReinitializingAtAnotherFormatKeepsTheSettings) {
  auto unit = gainUnit(48000.0, 1);
  ASSERT_NE(unit, nullptr);
  unit->setParameterValue(kGainParameter, -3.0f);
  unit->uninitialize();
  ASSERT_EQ(unit->setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(96000.0, 3)), 0);
  ASSERT_EQ(unit->setStreamFormat(kKyoAudioUnitScope_Output, 0, KyoAudioStreamDescription(96000.0, 3)), 0);
  ASSERT_EQ(unit->initialize(), 0);
  EXPECT_EQ(unit->instanceCount(), 3u);
  EXPECT_DOUBLE_EQ(unit->latency(), kGainLatencyFrames / 96000.0);
  TestBufferList io(3, 32);
  io.fillSignal();
  unit->process(io.list(), io.list(), 32);
  expectScaledSignal(io, 0, dbFactor(-3.0f));
}

TEST(KyoLV2Unit, ProcessAllocatesNothingOnTheRenderThread) {
  auto unit = gainUnit(48000.0, 2, 256);
  ASSERT_NE(unit, nullptr);
  TestBufferList io(2, 1000);
  io.fillSignal();
  EXPECT_EQ(allocationsOnRenderThread([&] {
              for (int cycle = 0; cycle < 50; ++cycle) {
                unit->setParameterValue(kGainParameter, (float)(cycle % 10) - 5.0f);
                unit->process(io.list(), io.list(), 1000);
              }
            }),
            0u);
}

TEST(KyoLV2Unit, RealPluginsRunWithoutAllocatingAndKeepTheirState) {
  if (!haveMDAPlugins()) GTEST_SKIP() << "mda-lv2 is not installed";
  for (const char* uri : {kMDAOverdriveURI, kMDADelayURI, kMDADetuneURI}) {
    auto unit = KyoLV2Unit::create(uri);
    ASSERT_NE(unit, nullptr) << uri;
    ASSERT_EQ(unit->initialize(), 0) << uri;
    ASSERT_FALSE(unit->parameterIDs().empty());
    const uint32_t id = unit->parameterIDs().front();
    const KyoLV2Port* port = unit->parameter(id);
    const float value = port->minimum + (port->maximum - port->minimum) * 0.3f;
    unit->setParameterValue(id, value);

    TestBufferList io(2, 4096);
    io.fillSignal();
    EXPECT_EQ(allocationsOnRenderThread([&] { unit->process(io.list(), io.list(), 4096); }), 0u) << uri;
    for (uint32_t f = 0; f < 4096; ++f) ASSERT_TRUE(std::isfinite(io.channel(0)[f])) << uri;

    auto copy = KyoLV2Unit::create(uri);
    ASSERT_TRUE(copy->restoreState(unit->saveState()));
    EXPECT_FLOAT_EQ(copy->parameterValue(id), value) << uri;
  }
}
