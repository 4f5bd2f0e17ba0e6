#include "effects/KyoEffectBus.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "EffectTestSupport.h"

using namespace sonto::test;

namespace {

// A detached gain effect whose setting waits as pending state, as it does for a saved chain.
std::shared_ptr<KyoEffect> gainEffect(float db) {
  auto live = effectWithURI(kGainURI);
  if (!live || !live->open()) return nullptr;
  live->setValue(db, kGainParameter);
  return KyoEffect::effectWithProperties(live->properties());
}

// The owner's side of a chain: a stream whose last unit (a 0 dB gain) is pulled by
// hand, rebuilt in the order a source rebuilds.
class ChainOwner {
 public:
  explicit ChainOwner(KyoEffectBus& bus) : m_bus(bus), m_destination(gainEffect(0.0f)) {}

  bool rebuild(double rate, uint32_t channels, uint32_t maxFrames = 512) {
    m_bus.saveState();
    m_bus.removeEffectsFromStream(&m_stream);
    m_stream.removeEffect(m_destination.get());
    m_stream.destroy();
    if (!m_stream.create() || !m_stream.open()) return false;
    if (!m_stream.addEffect(m_destination.get())) return false;
    m_bus.addEffectsToStream(&m_stream);
    const KyoAudioStreamDescription format(rate, channels);
    m_bus.setFormat(format);
    m_bus.restoreState();
    m_bus.setProperties();
    if (!m_destination->setStreamFormat(format)) return false;
    for (const auto& effect : m_bus.effects()) {
      if (auto* unit = effect->audioUnit()) unit->setMaximumFramesPerSlice(maxFrames);
    }
    m_destination->audioUnit()->setMaximumFramesPerSlice(maxFrames);
    if (!m_stream.initialize()) return false;
    m_bus.connectEffectsToEffect(m_destination.get());
    KyoEffect* head = m_bus.lastUsedEffect() ? m_bus.lastUsedEffect().get() : m_destination.get();
    if (!head->setRenderCallback(m_source.renderInfo())) return false;
    m_bus.setParameters();
    return true;
  }

  // Render thread: one cycle from the destination.
  int32_t pull(AudioBufferList* out, uint32_t frames) {
    uint32_t flags = 0;
    KyoAudioTimeStamp timeStamp;
    return m_destination->render(&flags, &timeStamp, 0, frames, out);
  }

  KyoAudioUnit* destinationUnit() { return m_destination->audioUnit(); }
  KyoStream& stream() { return m_stream; }
  uint64_t position() const { return m_source.position(); }
  ~ChainOwner() {
    m_bus.removeEffectsFromStream(&m_stream);
    m_stream.removeEffect(m_destination.get());
  }

 private:
  KyoEffectBus& m_bus;
  KyoStream m_stream;
  std::shared_ptr<KyoEffect> m_destination;
  TestSignalSource m_source;
};

void expectChainGain(ChainOwner& owner, uint32_t channels, uint32_t frames, float db) {
  const uint64_t start = owner.position();
  TestBufferList out(channels, frames);
  ASSERT_EQ(owner.pull(out.list(), frames), 0);
  expectScaledSignal(out, start, dbFactor(db), 2e-6f);
}

}  // namespace

TEST(KyoEffectBus, AudioEntersAtTheLastEffectAndPassesByOnesThatRefuseTheFormat) {
  if (!haveMDAPlugins()) GTEST_SKIP() << "mda-lv2 is not installed";
  // A chain of three channels: the stereo overdrive cannot take part, but stays on
  // the list. (One channel it would take, feeding both inputs.)
  auto a = gainEffect(-6.0f);
  auto b = effectWithURI(kMDAOverdriveURI);
  auto c = gainEffect(-3.0f);
  ASSERT_TRUE(a && b && c);
  KyoEffectBus bus(3);
  bus.setEffects({a, b, c});

  LogCapture log;
  ChainOwner owner(bus);
  ASSERT_TRUE(owner.rebuild(44100.0, 3));
  EXPECT_TRUE(log.contains("Error: MDA Overdrive does not support input format: "));
  EXPECT_TRUE(log.contains("Error: MDA Overdrive does not support output format: "));
  EXPECT_EQ(bus.usedEffects(), (std::vector<std::shared_ptr<KyoEffect>>{a, c}));
  EXPECT_EQ(bus.lastUsedEffect(), c);
  EXPECT_EQ(bus.effects().size(), 3u);
  EXPECT_TRUE(owner.stream().containsEffect(b.get()));

  // The wiring is c -> a -> destination.
  EXPECT_EQ(owner.destinationUnit()->inputUnit(0), a->audioUnit());
  EXPECT_EQ(a->audioUnit()->inputUnit(0), c->audioUnit());
  EXPECT_FALSE(b->audioUnit()->hasInput(0));
  for (uint32_t frames : {1u, 64u, 511u, 512u}) expectChainGain(owner, 3, frames, -9.0f);
  EXPECT_DOUBLE_EQ(bus.latency(), 2 * kGainLatencyFrames / 44100.0);

  // In stereo and in mono all three take part, and the overdrive's settings were kept meanwhile.
  b->setValue(0.7f, 0);
  ASSERT_TRUE(owner.rebuild(44100.0, 2));
  EXPECT_EQ(bus.usedEffects().size(), 3u);
  ASSERT_TRUE(owner.rebuild(44100.0, 1));
  EXPECT_EQ(bus.usedEffects().size(), 3u);
  EXPECT_EQ(bus.lastUsedEffect(), c);
  EXPECT_FLOAT_EQ(b->valueForParameter(0), 0.7f);
}

TEST(KyoEffectBus, AnEmptyBusFeedsTheDestinationAndSettingsSurviveEveryRebuild) {
  KyoEffectBus bus;
  bus.setName("Cue 1");
  EXPECT_EQ(bus.description(), "[Cue 1 with 0 effects]");
  EXPECT_EQ(bus.lastUsedEffect(), nullptr);
  EXPECT_EQ(bus.tailTime() + bus.latency(), 0.0);
  ChainOwner owner(bus);
  ASSERT_TRUE(owner.rebuild(48000.0, 2));
  expectChainGain(owner, 2, 256, 0.0f);

  auto a = gainEffect(-6.0f);
  bus.addEffect(a);
  ASSERT_TRUE(owner.rebuild(48000.0, 2));
  expectChainGain(owner, 2, 300, -6.0f);

  // A change made while live is what the next rebuild carries over, at any format.
  a->setValue(-12.0f, kGainParameter);
  a->setEnabled(true);
  const struct {
    double rate;
    uint32_t channels;
    uint32_t maxFrames;
  } formats[] = {{48000.0, 2, 512}, {96000.0, 1, 64}, {44100.0, 6, 1024}, {22050.0, 2, 37}};
  for (const auto& format : formats) {
    ASSERT_TRUE(owner.rebuild(format.rate, format.channels, format.maxFrames));
    EXPECT_FLOAT_EQ(a->valueForParameter(kGainParameter), -12.0f);
    expectChainGain(owner, format.channels, std::min(format.maxFrames, 300u), -12.0f);
  }

  // Bypassed, it passes the sound unchanged, adds no latency and survives a rebuild too.
  a->setEnabled(false);
  ASSERT_TRUE(owner.rebuild(48000.0, 2));
  EXPECT_FALSE(a->enabled());
  EXPECT_EQ(bus.latency(), 0.0);
  expectChainGain(owner, 2, 128, 0.0f);
}

TEST(KyoEffectBus, RemovedEffectsLeaveTheGraphAtTheNextRebuild) {
  auto a = gainEffect(-6.0f);
  auto b = gainEffect(-1.0f);
  KyoEffectBus bus;
  bus.setEffects({a, b});
  ChainOwner owner(bus);
  ASSERT_TRUE(owner.rebuild(48000.0, 2));
  EXPECT_EQ(bus.lastUsedEffect(), b);

  // Nothing and duplicates are ignored.
  bus.addEffect(nullptr);
  bus.addEffect(a);
  EXPECT_EQ(bus.effects().size(), 2u);
  EXPECT_FALSE(bus.containsEffect(nullptr));

  // Removed and added again before a rebuild: it stands in both lists.
  bus.removeEffect(a);
  EXPECT_FALSE(bus.containsEffect(a));
  EXPECT_TRUE(owner.stream().containsEffect(a.get()));
  bus.addEffect(a);
  EXPECT_TRUE(bus.containsEffect(a));
  ASSERT_EQ(bus.deadEffects().size(), 1u);
  EXPECT_EQ(bus.effects().back(), a);

  bus.removeEffect(b);
  ASSERT_TRUE(owner.rebuild(48000.0, 2));
  EXPECT_TRUE(bus.deadEffects().empty());
  EXPECT_FALSE(owner.stream().containsEffect(b.get()));
  EXPECT_EQ(b->stream(), nullptr);
  EXPECT_EQ(bus.lastUsedEffect(), a);
  expectChainGain(owner, 2, 128, -6.0f);

  // setEffects with nothing empties the list; the old ones wait to leave the graph.
  bus.setEffects({});
  EXPECT_TRUE(bus.effects().empty());
  EXPECT_EQ(bus.deadEffects().size(), 1u);
  ASSERT_TRUE(owner.rebuild(48000.0, 2));
  EXPECT_EQ(a->stream(), nullptr);
  EXPECT_EQ(bus.lastUsedEffect(), nullptr);
  expectChainGain(owner, 2, 128, 0.0f);
}

TEST(KyoEffectBus, TheCodedFormKeepsOrderAndSettingsButNotTheUsedList) {
  auto a = gainEffect(-6.0f);
  auto b = gainEffect(-2.0f);
  auto missing = KyoEffect::effectWithCoder([] {
    KyoEffectProperties p;
    const std::string uri = "urn:sonto:test:uninstalled";
    p.component.assign(uri.begin(), uri.end());
    p.name = p.displayName = "Vanished";
    p.settings = "kept as it was";
    return p;
  }());
  KyoEffectBus bus(2);
  bus.setName("Aux A");
  bus.setEffects({a, missing, b});
  LogCapture log;
  {
    ChainOwner owner(bus);
    ASSERT_TRUE(owner.rebuild(48000.0, 2));
    EXPECT_EQ(bus.usedEffects().size(), 2u);
    a->setValue(-7.0f, kGainParameter);
    expectChainGain(owner, 2, 64, -9.0f);
  }
  const KyoEffectBusCoding coding = bus.encode();
  EXPECT_EQ(coding.name, "Aux A");
  EXPECT_EQ(coding.channels, 2u);
  ASSERT_EQ(coding.effects.size(), 3u);
  EXPECT_EQ(coding.effects[1].settings, "kept as it was");

  auto decoded = KyoEffectBus::busWithCoder(coding);
  EXPECT_EQ(decoded->name(), "Aux A");
  EXPECT_TRUE(decoded->usedEffects().empty());
  EXPECT_TRUE(decoded->deadEffects().empty());
  ASSERT_EQ(decoded->effects().size(), 3u);
  EXPECT_EQ(decoded->effects()[1]->name(), "Vanished");
  ChainOwner owner(*decoded);
  ASSERT_TRUE(owner.rebuild(48000.0, 2));
  EXPECT_EQ(decoded->usedEffects().size(), 2u);
  EXPECT_EQ(decoded->lastUsedEffect(), decoded->effects()[2]);
  expectChainGain(owner, 2, 256, -9.0f);
  EXPECT_EQ(decoded->encode().effects[1], coding.effects[1]);
}

TEST(KyoEffectBus, TailTimeAddsUpOverEnabledEffects) {
  if (!haveMDAPlugins()) GTEST_SKIP() << "mda-lv2 is not installed";
  auto delay = effectWithURI(kMDADelayURI);
  auto reverb = effectWithURI(kMDAAmbienceURI);
  ASSERT_TRUE(delay && reverb);
  KyoEffectBus bus(2);
  bus.setEffects({delay, reverb, gainEffect(0.0f)});
  ChainOwner owner(bus);
  ASSERT_TRUE(owner.rebuild(48000.0, 2));
  const double both = bus.tailTime();
  EXPECT_DOUBLE_EQ(both, delay->tailTime() + reverb->tailTime());
  EXPECT_GT(delay->tailTime(), 0.0);
  reverb->setEnabled(false);
  EXPECT_DOUBLE_EQ(bus.tailTime(), delay->tailTime());
}

TEST(KyoEffectBus, TheRenderPathAllocatesNothingWhileParametersChangeFromAnotherThread) {
  auto a = gainEffect(-6.0f);
  auto b = gainEffect(0.0f);
  KyoEffectBus bus(2);
  bus.setEffects({a, b});
  ChainOwner owner(bus);
  ASSERT_TRUE(owner.rebuild(48000.0, 2, 256));

  std::atomic<bool> rendering{true};
  int badCycles = 0;
  std::thread control([&] {
    for (int step = 0; rendering.load(); ++step) {
      b->setValue((float)(step % 12) * -1.0f, kGainParameter);
      (void)b->valueForParameter(kGainParameter);
      (void)bus.latency();
    }
  });
  TestBufferList out(2, 256);
  const uint64_t allocations = allocationsOnRenderThread([&] {
    for (int cycle = 0; cycle < 400; ++cycle) {
      if (owner.pull(out.list(), 256) != 0) ++badCycles;
      // Whatever gain the other thread set, it is one of its values at every frame.
      for (uint32_t f = 0; f < 256; ++f)
        badCycles += !std::isfinite(out.channel(0)[f]) || std::fabs(out.channel(0)[f]) > 1.0f;
    }
    rendering.store(false);
  });
  control.join();
  EXPECT_EQ(badCycles, 0);
  EXPECT_EQ(allocations, 0u);

  // Once the changes stop, the chain is exact again.
  b->setValue(-4.0f, kGainParameter);
  expectChainGain(owner, 2, 256, -10.0f);
}
