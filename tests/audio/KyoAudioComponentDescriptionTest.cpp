#include <gtest/gtest.h>

#include <unordered_set>

#include "audio/KyoAudioComponentDescription.h"

TEST(KyoAudioComponentDescription, KindsByType) {
  struct Case {
    const char type[5];
    bool midi, effect, instrument, player;
  };
  const Case cases[] = {
      {"aufx", false, true, false, false},  {"aumf", true, true, false, false},
      {"aumu", true, false, true, false},   {"augn", false, false, false, true},
      {"aumx", false, false, false, false}, {"\0\0\0\0", false, false, false, false},
  };
  for (const auto& c : cases) {
    KyoAudioComponentDescription d(KyoFourCC(c.type), "urn:x");
    EXPECT_EQ(d.acceptsMIDIInput(), c.midi) << c.type;
    EXPECT_EQ(d.isEffect(), c.effect) << c.type;
    EXPECT_EQ(d.isInstrument(), c.instrument) << c.type;
    EXPECT_EQ(d.isPlayer(), c.player) << c.type;
  }
}

TEST(KyoAudioComponentDescription, EqualityHashAndState) {
  const std::string uri = "http://lsp-plug.in/plugins/lv2/comp_delay_mono";
  KyoAudioComponentDescription a(kAudioUnitType_Effect, uri);
  KyoAudioComponentDescription b(kAudioUnitType_Effect, uri);
  b.setName("Delay");  // a cached name does not count
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_NE(a, KyoAudioComponentDescription(kAudioUnitType_MusicEffect, uri));
  EXPECT_NE(a, KyoAudioComponentDescription(kAudioUnitType_Effect, uri + "2"));
  EXPECT_EQ(a.hash() & 0xFFFF0000u, size_t(kAudioUnitType_Effect) & 0xFFFF0000u);

  std::unordered_set<KyoAudioComponentDescription> set{a, b, KyoAudioComponentDescription::appleMatrixMixer()};
  EXPECT_EQ(set.size(), 2u);

  // The saved blob is the URI; restoring it keeps the type.
  const std::vector<uint8_t> state = a.state();
  EXPECT_EQ(std::string(state.begin(), state.end()), uri);
  KyoAudioComponentDescription restored(kAudioUnitType_Effect, "urn:other");
  restored.setState(state);
  EXPECT_EQ(restored, a);
  KyoAudioComponentDescription fromState = KyoAudioComponentDescription::descriptionWithState(state);
  EXPECT_EQ(fromState.uri(), uri);
  EXPECT_EQ(fromState.type(), 0u);

  // A blob from a damaged file: a stray zero ends the URI; empty data, no URI.
  std::vector<uint8_t> damaged{'u', 'r', 'n', 0, 'x'};
  EXPECT_EQ(KyoAudioComponentDescription::descriptionWithState(damaged).uri(), "urn");
  EXPECT_EQ(KyoAudioComponentDescription::descriptionWithState({}).uri(), "");
}

TEST(KyoAudioComponentDescription, FallbackName) {
  KyoAudioComponentDescription d(kAudioUnitType_Effect, "urn:a");
  d.setName("Reverb");
  EXPECT_EQ(d.name(), "Reverb");
  d.setURI("urn:b");  // another plugin: the cached name goes
  EXPECT_EQ(d.name(), "aufx: urn:b");
  EXPECT_EQ(KyoAudioComponentDescription().name(), "....: ");
}
