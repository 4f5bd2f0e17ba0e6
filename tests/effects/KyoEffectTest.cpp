#include "effects/KyoEffect.h"

#include <gtest/gtest.h>

#include <cmath>

#include "EffectTestSupport.h"
#include "effects/KyoEffectCatalogue.h"
#include "effects/KyoLV2Unit.h"

using namespace sonto::test;

namespace {

float dbFactor(float db) { return std::pow(10.0f, db / 20.0f); }

KyoAudioComponentDescription gainDescription() { return KyoAudioComponentDescription(kAudioUnitType_Effect, kGainURI); }

// An effect with a unit of its own at the given format, fed by source.
std::shared_ptr<KyoEffect> liveEffect(const KyoAudioComponentDescription& description, double rate, uint32_t channels,
                                      TestSignalSource& source) {
  auto effect = KyoEffect::effectWithDescription(description);
  if (!effect || !effect->open()) return nullptr;
  EXPECT_TRUE(effect->setStreamFormat(KyoAudioStreamDescription(rate, channels)));
  EXPECT_TRUE(effect->setRenderCallback(source.renderInfo()));
  EXPECT_TRUE(effect->initialize());
  return effect;
}

void expectGain(KyoEffect& effect, uint32_t channels, uint32_t frames, float db, uint64_t startFrame = 0) {
  TestBufferList out(channels, frames);
  uint32_t flags = 0;
  KyoAudioTimeStamp timeStamp;
  ASSERT_EQ(effect.render(&flags, &timeStamp, 0, frames, out.list()), 0);
  for (uint32_t c = 0; c < channels; ++c) {
    for (uint32_t f = 0; f < frames; ++f) {
      ASSERT_FLOAT_EQ(out.channel(c)[f], testSignal((uint32_t)(startFrame + f), c) * dbFactor(db))
          << "channel " << c << " frame " << f;
    }
  }
}

}  // namespace

TEST(KyoEffect, FixtureFromItsDescriptionRendersExactlyMinusSixDecibels) {
  TestSignalSource source;
  auto effect = liveEffect(gainDescription(), 48000.0, 2, source);
  ASSERT_NE(effect, nullptr);
  EXPECT_EQ(effect->manufacturer(), "Sonto Tests");
  EXPECT_EQ(effect->name(), "Test Gain");
  EXPECT_EQ(effect->displayName(), "Test Gain");
  EXPECT_EQ(effect->titleOfParameter(kGainParameter), "Gain");
  effect->setValue(-6.0f, kGainParameter);
  EXPECT_FLOAT_EQ(effect->valueForParameter(kGainParameter), -6.0f);
  expectGain(*effect, 2, 256, -6.0f);
  EXPECT_DOUBLE_EQ(effect->latency(), kGainLatencyFrames / 48000.0);
}
