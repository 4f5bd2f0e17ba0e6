// Render streams: the life of the graph, its answers and errors, and a chain of units
// pulled by hand, checked to the sample.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "audio/KyoMatrixMixer.h"
#include "audio/KyoStream.h"
#include "foundation/KyoLog.h"

namespace {

// Scales its one input by a gain; can be told to fail its initialization.
class GainUnit : public KyoAudioUnit {
 public:
  explicit GainUnit(float gain, bool failInit = false) : KyoAudioUnit(1, 1), m_gain(gain), m_failInit(failInit) {}
  int32_t render(uint32_t* flags, const KyoAudioTimeStamp* ts, uint32_t output, uint32_t frames,
                 AudioBufferList* data) override {
    if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
    if (output != 0) return kKyoAudioUnitErr_InvalidElement;
    if (frames > maximumFramesPerSlice()) return kKyoAudioUnitErr_TooManyFramesToProcess;
    int32_t status = pullInput(0, flags, ts, frames, data);
    if (status) return status;
    for (uint32_t c = 0; c < data->mNumberBuffers; ++c)
      for (uint32_t i = 0; i < frames; ++i) static_cast<float*>(data->mBuffers[c].mData)[i] *= m_gain;
    return 0;
  }
  int inits = 0, uninits = 0;

 protected:
  int32_t initializeUnit() override {
    ++inits;
    return m_failInit ? kKyoAudioUnitErr_FailedInitialization : 0;
  }
  void uninitializeUnit() override { ++uninits; }

 private:
  float m_gain;
  bool m_failInit;
};

// A render callback: channel c, frame n gives (c + 1) * 1000 + n.
int32_t feed(void*, uint32_t*, const KyoAudioTimeStamp*, uint32_t, uint32_t frames, AudioBufferList* data) {
  for (uint32_t c = 0; c < data->mNumberBuffers; ++c)
    for (uint32_t i = 0; i < frames; ++i) static_cast<float*>(data->mBuffers[c].mData)[i] = float((c + 1) * 1000 + i);
  return 0;
}

// An effect that adds one gain unit, as an effect adds its own unit.
class FakeEffect : public KyoStreamEffect {
 public:
  bool addToStream(KyoStream* stream, KyoError* error) override {
    int32_t node = 0;
    int32_t status = stream->addNode(std::make_shared<GainUnit>(1.0f), &node);
    if (status) {
      if (error) *error = KyoError{kAUGraphErrorDomain, status};
      return false;
    }
    setStream(stream, node);
    return true;
  }
  KyoStream* stream() const override { return m_stream; }
  int32_t node() const override { return m_node; }
  void setStream(KyoStream* stream, int32_t node) override {
    m_stream = stream;
    m_node = node;
  }
  void closeEditor() override { ++editorCloses; }
  int editorCloses = 0;

 private:
  KyoStream* m_stream = nullptr;
  int32_t m_node = 0;
};

TEST(KyoStreamLife, EveryStateChangeIsIdempotentAndTheOrderIsEnforced) {
  KyoStream s;
  EXPECT_FALSE(s.hasGraph());
  EXPECT_FALSE(s.isOpen());
  EXPECT_FALSE(s.isRunning());
  EXPECT_FALSE(s.start());  // no graph: false, and no error
  EXPECT_TRUE(s.stop());
  EXPECT_TRUE(s.destroy());
  EXPECT_TRUE(s.close());

  ASSERT_TRUE(s.create());
  ASSERT_TRUE(s.create());
  KyoError error;
  EXPECT_FALSE(s.initialize(&error));  // not open yet
  EXPECT_EQ(error.domain, kAUGraphErrorDomain);
  EXPECT_EQ(error.code, kKyoStreamErr_CannotDoInCurrentContext);

  auto gain = std::make_shared<GainUnit>(1.0f);
  int32_t node = 0;
  ASSERT_EQ(s.addNode(gain, &node), 0);
  EXPECT_EQ(node, 1);
  ASSERT_TRUE(s.open());
  ASSERT_TRUE(s.open());
  ASSERT_TRUE(s.initialize());
  ASSERT_TRUE(s.initialize());
  EXPECT_EQ(gain->inits, 1);
  EXPECT_TRUE(gain->isInitialized());
  ASSERT_TRUE(s.start());
  EXPECT_TRUE(s.isRunning());
  // Closing goes back through stop and uninitialize.
  ASSERT_TRUE(s.close());
  EXPECT_FALSE(s.isRunning());
  EXPECT_FALSE(s.isInitialized());
  EXPECT_FALSE(gain->isInitialized());
  EXPECT_EQ(gain->uninits, 1);
  ASSERT_TRUE(s.close());
  EXPECT_FALSE(s.start());  // not initialized
  ASSERT_TRUE(s.destroy());
  EXPECT_FALSE(s.hasGraph());
  EXPECT_EQ(s.cpuLoad(), 0.0f);
}

TEST(KyoStreamLife, AFailedInitializationLeavesEveryUnitUninitializedWithAnError) {
  KyoStream s;
  ASSERT_TRUE(s.create());
  auto good = std::make_shared<GainUnit>(1.0f);
  auto bad = std::make_shared<GainUnit>(1.0f, true);
  int32_t a = 0, b = 0;
  ASSERT_EQ(s.addNode(good, &a), 0);
  ASSERT_EQ(s.addNode(bad, &b), 0);
  ASSERT_TRUE(s.open());
  KyoError error;
  EXPECT_FALSE(s.initialize(&error));
  EXPECT_EQ(error.code, kKyoAudioUnitErr_FailedInitialization);
  EXPECT_FALSE(good->isInitialized());
  EXPECT_FALSE(s.isInitialized());
}

TEST(KyoStreamNodes, BadNodesAnswerStatusesAndNoGraphCountsAsFailure) {
  KyoStream s;
  EXPECT_EQ(s.numberOfNodes(), KyoStream::kNodeCountFailure);
  int32_t node = 0;
  EXPECT_EQ(s.addNode(std::make_shared<GainUnit>(1.0f), &node), kKyoStreamErr_NoGraph);
  ASSERT_TRUE(s.create());
  EXPECT_EQ(s.numberOfNodes(), 0u);
  auto unit = std::make_shared<GainUnit>(1.0f);
  ASSERT_EQ(s.addNode(unit, &node), 0);
  EXPECT_EQ(s.addNode(unit, &node), kKyoStreamErr_InvalidConnection);  // the same unit twice
  EXPECT_EQ(s.addNode(nullptr, &node), kKyoAudioUnitErr_InvalidPropertyValue);
  EXPECT_EQ(s.removeNode(0), 0);
  EXPECT_EQ(s.removeNode(99), kKyoStreamErr_NodeNotFound);
  EXPECT_EQ(s.connectOutputOfNode(node, 0, 99, 0), kKyoStreamErr_NodeNotFound);
  EXPECT_EQ(s.connectOutputOfNode(node, 0, node, 0), kKyoStreamErr_InvalidConnection);
  EXPECT_EQ(s.setInputCallback(KyoRenderInfo{nullptr, nullptr, &feed}, node, 5), kKyoAudioUnitErr_InvalidElement);
  EXPECT_EQ(s.disconnectInputOfNode(99, 0), kKyoStreamErr_NodeNotFound);
  EXPECT_EQ(s.audioUnitForNode(99), nullptr);
  EXPECT_EQ(s.audioUnitForNode(node), unit.get());
  EXPECT_EQ(s.numberOfNodes(), 1u);
}

// feed -> gain 0.5 -> gain 0.25 -> matrix mixer (one 2-channel bus to 2 outputs, swapped)
TEST(KyoStreamChain, AChainPulledByHandGivesTheExactSamplesAndARemovedNodeCutsIt) {
  constexpr uint32_t frames = 64;
  KyoStream s;
  ASSERT_TRUE(s.create());
  auto first = std::make_shared<GainUnit>(0.5f);
  auto second = std::make_shared<GainUnit>(0.25f);
  auto mixer = std::make_shared<KyoMatrixMixer>();
  int32_t n1 = 0, n2 = 0, n3 = 0;
  ASSERT_EQ(s.addNode(first, &n1), 0);
  ASSERT_EQ(s.addNode(second, &n2), 0);
  ASSERT_EQ(s.addNode(mixer, &n3), 0);
  ASSERT_TRUE(s.open());
  ASSERT_EQ(mixer->setElementCount(kKyoAudioUnitScope_Input, 1), 0);
  ASSERT_EQ(mixer->setElementCount(kKyoAudioUnitScope_Output, 1), 0);
  const KyoAudioStreamDescription two(48000.0, 2);
  for (auto* u : std::initializer_list<KyoAudioUnit*>{first.get(), second.get(), mixer.get()}) {
    ASSERT_EQ(u->setStreamFormat(kKyoAudioUnitScope_Input, 0, two), 0);
    ASSERT_EQ(u->setStreamFormat(kKyoAudioUnitScope_Output, 0, two), 0);
  }
  ASSERT_TRUE(s.initialize());
  ASSERT_EQ(s.setInputCallback(KyoRenderInfo{nullptr, nullptr, &feed}, n1, 0), 0);
  ASSERT_EQ(s.connectOutputOfNode(n1, 0, n2, 0), 0);
  ASSERT_EQ(s.connectOutputOfNode(n2, 0, n3, 0), 0);
  using M = KyoMatrixMixer;
  ASSERT_EQ(mixer->setParameter(M::kParameterVolume, kKyoAudioUnitScope_Global, M::kMasterElement, 1.0f), 0);
  for (uint32_t c = 0; c < 2; ++c) {
    ASSERT_EQ(mixer->setParameter(M::kParameterVolume, kKyoAudioUnitScope_Input, c, 1.0f), 0);
    ASSERT_EQ(mixer->setParameter(M::kParameterVolume, kKyoAudioUnitScope_Output, c, 1.0f), 0);
    ASSERT_EQ(mixer->setParameter(M::kParameterVolume, kKyoAudioUnitScope_Global, M::crosspointElement(c, 1 - c), 1.0f),
              0);
  }

  AudioBufferList* out = KyoAudioBufferListCreate(2, frames, false);
  KyoAudioTimeStamp ts;
  uint32_t flags = 0;
  ASSERT_EQ(mixer->render(&flags, &ts, 0, frames, out), 0);
  for (uint32_t i = 0; i < frames; ++i) {
    ASSERT_EQ(KyoAudioBufferListChannel(out, 0)[i], float(2000 + i) * 0.125f) << i;
    ASSERT_EQ(KyoAudioBufferListChannel(out, 1)[i], float(1000 + i) * 0.125f) << i;
  }

  // Removing the middle node disconnects the mixer's input: it then renders silence.
  ASSERT_EQ(s.removeNode(n2), 0);
  EXPECT_FALSE(mixer->hasInput(0));
  EXPECT_EQ(s.numberOfNodes(), 2u);
  KyoAudioBufferListResetSizes(out, frames);
  flags = 0;
  mixer->render(&flags, &ts, 0, frames, out);
  for (uint32_t c = 0; c < 2; ++c)
    for (uint32_t i = 0; i < frames; ++i) ASSERT_EQ(KyoAudioBufferListChannel(out, c)[i], 0.0f);

  // clearConnections takes the callback off the first unit too.
  ASSERT_TRUE(s.clearConnections());
  EXPECT_FALSE(first->hasInput(0));
  KyoAudioBufferListFree(out);
}

TEST(KyoStreamEffects, AddRemoveAndTheEffectOfAnotherStream) {
  KyoStream s, other;
  ASSERT_TRUE(s.create());
  ASSERT_TRUE(other.create());
  FakeEffect effect, foreign;
  ASSERT_TRUE(s.addEffect(&effect));
  ASSERT_TRUE(other.addEffect(&foreign));
  EXPECT_TRUE(s.containsEffect(&effect));
  EXPECT_FALSE(s.containsEffect(&foreign));
  EXPECT_NE(s.audioUnitForEffect(&effect), nullptr);

  // Nothing, or another stream's effect: true, and nothing changes.
  EXPECT_TRUE(s.removeEffect(nullptr));
  EXPECT_TRUE(s.removeEffect(&foreign));
  EXPECT_EQ(foreign.stream(), &other);
  EXPECT_EQ(foreign.editorCloses, 0);
  EXPECT_EQ(other.numberOfNodes(), 1u);

  EXPECT_TRUE(s.removeEffect(&effect));
  EXPECT_EQ(effect.editorCloses, 1);
  EXPECT_EQ(effect.stream(), nullptr);
  EXPECT_EQ(effect.node(), 0);
  EXPECT_EQ(s.numberOfNodes(), 0u);
  EXPECT_FALSE(s.addEffect(nullptr));

  // An effect whose node can't be added gives the stream's error.
  KyoStream none;
  KyoError error;
  FakeEffect orphan;
  EXPECT_FALSE(none.addEffect(&orphan, &error));
  EXPECT_EQ(error.domain, kAUGraphErrorDomain);
  EXPECT_EQ(error.code, kKyoStreamErr_NoGraph);
}

}  // namespace
