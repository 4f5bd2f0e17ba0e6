// The matrix mixer alone, pulled by hand: gains to the sample, silence skipped,
// outputs shared by several busses, meters, and bad addresses.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "audio/KyoMatrixMixer.h"

namespace {

constexpr uint32_t kFrames = 64;

// An input bus whose channel c carries (c + 1) * base on every frame, or garbage
// flagged as silence.
struct Feed {
  float base = 1.0f;
  bool silentFlag = false;  // answer OutputIsSilence with garbage in the buffers
  int markChannel = -1;     // mark this channel silent, with garbage in it
  int pulls = 0;
  uint32_t lastBus = 0xFFFF;

  static int32_t render(void* target, uint32_t* flags, const KyoAudioTimeStamp*, uint32_t bus, uint32_t frames,
                        AudioBufferList* data) {
    auto* self = static_cast<Feed*>(target);
    ++self->pulls;
    self->lastBus = bus;
    for (uint32_t c = 0; c < data->mNumberBuffers; ++c) {
      auto* d = static_cast<float*>(data->mBuffers[c].mData);
      const bool garbage = self->silentFlag || int(c) == self->markChannel;
      for (uint32_t i = 0; i < frames; ++i) d[i] = garbage ? 1000.0f : self->base * float(c + 1);
      if (int(c) == self->markChannel) KyoMarkChannelSilent(data->mBuffers[c]);
    }
    if (self->silentFlag) *flags |= kKyoRenderAction_OutputIsSilence;
    return 0;
  }
  KyoRenderInfo info() { return KyoRenderInfo{this, "feed", &Feed::render}; }
};

struct Output {
  explicit Output(uint32_t channels) : list(KyoAudioBufferListCreate(channels, kFrames, false)) {}
  ~Output() { KyoAudioBufferListFree(list); }
  float at(uint32_t c, uint32_t i = 0) const { return static_cast<const float*>(list->mBuffers[c].mData)[i]; }
  AudioBufferList* list;
};

// Master, every input and every output volume at 1; with diagonal, input i to output i at 1 too.
bool unityGains(KyoMatrixMixer& mixer, uint32_t inputs, uint32_t outputs, bool diagonal) {
  bool ok = mixer.setParameter(0, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement, 1.0f) == 0;
  for (uint32_t i = 0; i < inputs; ++i) {
    ok = ok && mixer.setParameter(0, kKyoAudioUnitScope_Input, i, 1.0f) == 0;
    if (diagonal && i < outputs)
      ok = ok && mixer.setParameter(0, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(i, i), 1.0f) == 0;
  }
  for (uint32_t o = 0; o < outputs; ++o) ok = ok && mixer.setParameter(0, kKyoAudioUnitScope_Output, o, 1.0f) == 0;
  return ok;
}

// Busses of 2, 1 and 2 channels (input channels 0-1, 2, 3-4) into 3 outputs.
class MatrixMixerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mixer.setElementCount(kKyoAudioUnitScope_Input, 3), 0);
    const uint32_t widths[3] = {2, 1, 2};
    for (uint32_t b = 0; b < 3; ++b) {
      ASSERT_EQ(mixer.setStreamFormat(kKyoAudioUnitScope_Input, b, KyoAudioStreamDescription(48000, widths[b])), 0);
      ASSERT_EQ(mixer.setRenderCallback(b, feeds[b].info()), 0);
      feeds[b].base = float(b + 1) * 10.0f;
    }
    ASSERT_EQ(mixer.setStreamFormat(kKyoAudioUnitScope_Output, 0, KyoAudioStreamDescription(48000, 3)), 0);
    ASSERT_EQ(mixer.setMaximumFramesPerSlice(kFrames), 0);
    ASSERT_EQ(mixer.initialize(), 0);
  }

  void set(uint32_t id, KyoAudioUnitScope scope, uint32_t element, float v) {
    ASSERT_EQ(mixer.setParameter(id, scope, element, v), 0) << element;
  }
  void crosspoint(uint32_t in, uint32_t out, float v) {
    set(0, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(in, out), v);
  }
  void unity() { ASSERT_TRUE(unityGains(mixer, 5, 3, false)); }
  int32_t render(Output& out, uint32_t flags = 0, double sampleTime = 0) {
    lastFlags = flags;
    KyoAudioTimeStamp ts;
    ts.mSampleTime = sampleTime;
    return mixer.render(&lastFlags, &ts, 0, kFrames, out.list);
  }

  KyoMatrixMixer mixer;
  Feed feeds[3];
  uint32_t lastFlags = 0;
};

TEST_F(MatrixMixerTest, EveryGainStageScalesToTheSample) {
  unity();
  // Input channels carry: bus0 10, 20; bus1 20; bus2 30, 60.
  crosspoint(0, 0, 1.0f);
  crosspoint(1, 0, 0.5f);                                                   // 20 * 0.5 = 10 into out 0
  crosspoint(2, 1, 0.25f);                                                  // 20 * 0.25 = 5 into out 1
  crosspoint(4, 1, 2.0f);                                                   // 60 * 2 = 120 into out 1
  set(0, kKyoAudioUnitScope_Input, 4, 0.5f);                                // 120 -> 60
  set(0, kKyoAudioUnitScope_Output, 1, 0.5f);                               // (5 + 60) * 0.5
  set(0, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement, 2.0f);  // everything doubled

  Output out(3);
  ASSERT_EQ(render(out), 0);
  for (uint32_t i = 0; i < kFrames; ++i) {
    EXPECT_FLOAT_EQ(out.at(0, i), (10.0f + 10.0f) * 2.0f);
    EXPECT_FLOAT_EQ(out.at(1, i), (5.0f + 60.0f) * 0.5f * 2.0f);
    EXPECT_EQ(out.at(2, i), 0.0f);  // nothing routed: written as zeros
  }
  EXPECT_EQ(lastFlags & kKyoRenderAction_OutputIsSilence, 0u);
  for (auto& f : feeds) EXPECT_EQ(f.pulls, 1);
  EXPECT_EQ(feeds[2].lastBus, 2u);  // a callback learns which input bus it feeds
}

TEST_F(MatrixMixerTest, SilenceFromAnInputIsSkippedAndDisabledBussesArentPulled) {
  unity();
  for (uint32_t i = 0; i < 5; ++i) crosspoint(i, 0, 1.0f);
  feeds[0].silentFlag = true;  // its garbage must not reach the output
  feeds[2].markChannel = 1;    // input channel 4's garbage must not either
  ASSERT_EQ(mixer.setParameter(KyoMatrixMixer::kParameterEnable, kKyoAudioUnitScope_Input, 1, 0.0f), 0);

  Output out(3);
  ASSERT_EQ(render(out), 0);
  EXPECT_FLOAT_EQ(out.at(0, 0), 30.0f);  // only bus 2's first channel
  EXPECT_FLOAT_EQ(out.at(0, kFrames - 1), 30.0f);
  EXPECT_EQ(feeds[1].pulls, 0);
  EXPECT_EQ(feeds[0].pulls, 1);  // silent inputs are still pulled: their time goes on

  // A master at 0 still pulls every enabled bus.
  set(0, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement, 0.0f);
  ASSERT_EQ(render(out), 0);
  EXPECT_EQ(feeds[0].pulls, 2);
  EXPECT_EQ(feeds[2].pulls, 2);
  EXPECT_EQ(out.at(0, 0), 0.0f);
  EXPECT_NE(lastFlags & kKyoRenderAction_OutputIsSilence, 0u);
}

TEST_F(MatrixMixerTest, MarksItsOwnSilentOutputsOnlyWhenTheCallerAcceptsMarks) {
  unity();
  crosspoint(0, 2, 1.0f);
  Output out(3);
  for (uint32_t c = 0; c < 3; ++c) std::fill_n(static_cast<float*>(out.list->mBuffers[c].mData), kFrames, 7.0f);

  ASSERT_EQ(render(out, kKyoRenderAction_MarkSilentChannels), 0);
  for (uint32_t c = 0; c < 2; ++c) EXPECT_TRUE(KyoIsChannelMarkedSilent(out.list->mBuffers[c])) << c;
  EXPECT_EQ(out.list->mBuffers[2].mDataByteSize, kFrames * sizeof(float));
  EXPECT_FLOAT_EQ(out.at(2), 10.0f);

  KyoAudioBufferListResetSizes(out.list, kFrames);
  ASSERT_EQ(render(out, 0), 0);
  for (uint32_t c = 0; c < 2; ++c) {
    EXPECT_EQ(out.list->mBuffers[c].mDataByteSize, kFrames * sizeof(float));
    EXPECT_EQ(out.at(c, kFrames - 1), 0.0f);
  }
}

TEST_F(MatrixMixerTest, LevelMatrixRoundTripsAndRefusesAWrongSize) {
  unity();
  crosspoint(3, 2, 0.75f);
  uint32_t dims[2];
  uint32_t size = sizeof dims;
  ASSERT_EQ(mixer.getProperty(kKyoAudioUnitProperty_MatrixDimensions, kKyoAudioUnitScope_Global, 0, dims, &size), 0);
  EXPECT_EQ(dims[0], 5u);
  EXPECT_EQ(dims[1], 3u);

  std::vector<float> levels(6 * 4);
  size = uint32_t(levels.size() * sizeof(float));
  ASSERT_EQ(mixer.getProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(), &size),
            0);
  EXPECT_FLOAT_EQ(levels[3 * 4 + 2], 0.75f);  // row 3, column 2
  EXPECT_FLOAT_EQ(levels[3 * 4 + 3], 1.0f);   // input volume at the row's end
  EXPECT_FLOAT_EQ(levels.back(), 1.0f);       // master last

  levels[3 * 4 + 2] = 0.125f;
  levels.back() = 0.5f;
  ASSERT_EQ(mixer.setProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(), size),
            0);
  float v = 0;
  ASSERT_EQ(mixer.getParameter(0, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(3, 2), &v), 0);
  EXPECT_FLOAT_EQ(v, 0.125f);
  ASSERT_EQ(mixer.getParameter(0, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement, &v), 0);
  EXPECT_FLOAT_EQ(v, 0.5f);

  EXPECT_NE(
      mixer.setProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(), size - 4), 0);
  size = 8;
  EXPECT_NE(mixer.getProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(), &size),
            0);
}

TEST_F(MatrixMixerTest, BadAddressesAndStatesAnswerAStatus) {
  struct Case {
    uint32_t id;
    KyoAudioUnitScope scope;
    uint32_t element;
    float value;
    int32_t status;
  } cases[] = {
      {0, kKyoAudioUnitScope_Input, 5, 1.0f, kKyoAudioUnitErr_InvalidElement},
      {0, kKyoAudioUnitScope_Output, 3, 1.0f, kKyoAudioUnitErr_InvalidElement},
      {0, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(5, 0), 1.0f, kKyoAudioUnitErr_InvalidElement},
      {0, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(0, 3), 1.0f, kKyoAudioUnitErr_InvalidElement},
      {1, kKyoAudioUnitScope_Input, 3, 1.0f, kKyoAudioUnitErr_InvalidElement},
      {1, kKyoAudioUnitScope_Output, 0, 1.0f, kKyoAudioUnitErr_InvalidScope},
      {7, kKyoAudioUnitScope_Global, 0, 1.0f, kKyoAudioUnitErr_InvalidParameter},
      {0, kKyoAudioUnitScope_Input, 0, NAN, kKyoAudioUnitErr_InvalidPropertyValue},
      {3000, kKyoAudioUnitScope_Output, 0, 1.0f, kKyoAudioUnitErr_InvalidParameter},
  };
  for (const auto& c : cases)
    EXPECT_EQ(mixer.setParameter(c.id, c.scope, c.element, c.value), c.status) << c.id << " " << c.element;

  Output out(3);
  KyoAudioTimeStamp ts;
  uint32_t flags = 0;
  EXPECT_EQ(mixer.render(&flags, &ts, 0, kFrames + 1, out.list), kKyoAudioUnitErr_TooManyFramesToProcess);
  EXPECT_EQ(mixer.render(&flags, &ts, 1, kFrames, out.list), kKyoAudioUnitErr_InvalidElement);
  // Formats and sizes are fixed while initialized.
  EXPECT_EQ(mixer.setStreamFormat(kKyoAudioUnitScope_Output, 0, KyoAudioStreamDescription(48000, 4)),
            kKyoAudioUnitErr_CannotDoInCurrentContext);
  EXPECT_EQ(mixer.setElementCount(kKyoAudioUnitScope_Input, 4), kKyoAudioUnitErr_CannotDoInCurrentContext);

  KyoMatrixMixer fresh;
  EXPECT_EQ(fresh.setParameter(0, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement, 1.0f),
            kKyoAudioUnitErr_Uninitialized);
  EXPECT_EQ(fresh.render(&flags, &ts, 0, kFrames, out.list), kKyoAudioUnitErr_Uninitialized);
  KyoAudioStreamDescription interleaved(48000, 2);
  interleaved.setFlags(kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked);
  EXPECT_EQ(fresh.setStreamFormat(kKyoAudioUnitScope_Input, 0, interleaved), kKyoAudioUnitErr_FormatNotSupported);
}

// A send's split mixer: several output busses pulled one by one in a cycle must pull
// their inputs once, and a new time stamp pulls again.
TEST(MatrixMixerOutputs, SeveralOutputBussesShareOnePullPerCycle) {
  KyoMatrixMixer mixer;
  Feed feed;
  feed.base = 1.0f;
  ASSERT_EQ(mixer.setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(48000, 3)), 0);
  ASSERT_EQ(mixer.setElementCount(kKyoAudioUnitScope_Output, 2), 0);
  ASSERT_EQ(mixer.setStreamFormat(kKyoAudioUnitScope_Output, 0, KyoAudioStreamDescription(48000, 2)), 0);
  ASSERT_EQ(mixer.setStreamFormat(kKyoAudioUnitScope_Output, 1, KyoAudioStreamDescription(48000, 1)), 0);
  ASSERT_EQ(mixer.setMaximumFramesPerSlice(kFrames), 0);
  ASSERT_EQ(mixer.setRenderCallback(0, feed.info()), 0);
  ASSERT_EQ(mixer.initialize(), 0);
  ASSERT_TRUE(unityGains(mixer, 3, 3, true));
  Output main(2), aux(1);
  KyoAudioTimeStamp ts;
  uint32_t flags = 0;
  ASSERT_EQ(mixer.render(&flags, &ts, 0, kFrames, main.list), 0);
  ASSERT_EQ(mixer.render(&flags, &ts, 1, kFrames, aux.list), 0);
  EXPECT_EQ(feed.pulls, 1);
  EXPECT_FLOAT_EQ(main.at(1), 2.0f);
  EXPECT_FLOAT_EQ(aux.at(0), 3.0f);  // output channel 2 is the first of bus 1
  ts.mSampleTime = kFrames;
  ASSERT_EQ(mixer.render(&flags, &ts, 1, kFrames, aux.list), 0);
  EXPECT_EQ(feed.pulls, 2);
}

// Meters on a known sine: 750 Hz at 48 kHz repeats every 64 frames, so every cycle
// holds whole periods and hits the crest exactly.
TEST(MatrixMixerMeters, SinePowerAndPeakFollowTheBallistics) {
  constexpr double kRate = 48000;
  constexpr float kAmplitude = 0.5f;
  struct Sine {
    bool on = true;
    uint64_t n = 0;
    static int32_t render(void* t, uint32_t*, const KyoAudioTimeStamp*, uint32_t, uint32_t frames,
                          AudioBufferList* data) {
      auto* s = static_cast<Sine*>(t);
      auto* d = static_cast<float*>(data->mBuffers[0].mData);
      for (uint32_t i = 0; i < frames; ++i, ++s->n)
        d[i] = s->on ? float(kAmplitude * std::sin(2 * M_PI * 750.0 * double(s->n) / kRate)) : 0.0f;
      return 0;
    }
  } sine;
  KyoMatrixMixer mixer;
  ASSERT_EQ(mixer.setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(kRate, 1)), 0);
  ASSERT_EQ(mixer.setStreamFormat(kKyoAudioUnitScope_Output, 0, KyoAudioStreamDescription(kRate, 1)), 0);
  ASSERT_EQ(mixer.setRenderCallback(0, KyoRenderInfo{&sine, "sine", &Sine::render}), 0);
  uint32_t on = 1;
  ASSERT_EQ(mixer.setProperty(kKyoAudioUnitProperty_MeteringMode, kKyoAudioUnitScope_Global, 0, &on, sizeof on), 0);
  ASSERT_EQ(mixer.initialize(), 0);
  ASSERT_TRUE(unityGains(mixer, 1, 1, true));
  Output out(1);
  auto cycles = [&](double seconds) {
    for (int i = 0; i < int(seconds * kRate / kFrames); ++i) {
      uint32_t flags = 0;
      KyoAudioTimeStamp ts;
      ASSERT_EQ(mixer.render(&flags, &ts, 0, kFrames, out.list), 0);
    }
  };
  auto read = [&](uint32_t id) {
    float v = 0;
    EXPECT_EQ(mixer.getParameter(id, kKyoAudioUnitScope_Output, 0, &v), 0);
    return v;
  };
  const float peakDb = float(20 * std::log10(kAmplitude));
  EXPECT_FLOAT_EQ(read(KyoMatrixMixer::kParameterPostAveragePower), KyoMatrixMixer::kMeterFloorDecibels);

  cycles(0.5);  // well past the 75 ms time constant
  EXPECT_NEAR(read(KyoMatrixMixer::kParameterPostAveragePower), peakDb - 3.0103f, 0.01f);
  EXPECT_NEAR(read(KyoMatrixMixer::kParameterPostPeakHoldLevel), peakDb, 0.001f);

  sine.on = false;
  cycles(0.9);  // within the 1 s hold the peak stays
  EXPECT_NEAR(read(KyoMatrixMixer::kParameterPostPeakHoldLevel), peakDb, 0.001f);
  EXPECT_LT(read(KyoMatrixMixer::kParameterPostAveragePower), -60.0f);
  cycles(0.6);  // hold over after 1 s; then 20 dB/s for the remaining ~0.5 s
  const float fallen = read(KyoMatrixMixer::kParameterPostPeakHoldLevel);
  EXPECT_NEAR(fallen, peakDb - 20.0f * (1.5f - 1.0f), 0.3f);
}

}  // namespace
