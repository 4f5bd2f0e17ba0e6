// The waveform data of real files made at test time, read back through its own
// stream and worker: extremes against the samples, the resolution rule, files that go
// bad while they load, and queries racing the worker.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>

#include "SurfaceTestSupport.h"
#include "audio/FillGate.h"
#include "foundation/KyoAlias.h"
#include "support/TestFiles.h"
#include "surface/AudioWaveform.h"

namespace {

using Channels = std::vector<std::vector<float>>;

std::shared_ptr<AudioWaveform> loaded(const std::string& path, float framesPerSample = 10.0f) {
  auto waveform = AudioWaveform::create(KyoAlias::aliasWithPath(path), framesPerSample);
  if (waveform) {
    EXPECT_TRUE(pumpUntil([&] { return waveform->isComplete(); }));
  }
  return waveform;
}

// Every worker gone before the next test, so nothing outlives what it reads.
class WaveformData : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(pumpUntil([] { return AudioWaveform::runningLoaders() == 0; }));
  }
};

// The extremes of the file's own frames whose times fall in entries [first, last):
// an entry of `perEntry` frames of the 44.1 kHz time line holds the frames at `rate`
// from its start time on, up to the next entry's.
void reference(const Channels& file, double rate, uint32_t perEntry, uint32_t first, uint32_t last, float& high,
               float& low) {
  auto frameOf = [&](uint64_t e) { return uint64_t(std::ceil(double(e * perEntry) * rate / 44100.0 - 1e-9)); };
  high = 0.0f;
  low = 0.0f;
  for (const auto& channel : file)
    for (uint64_t f = frameOf(first); f < frameOf(last) && f < channel.size(); ++f) {
      high = std::max(high, channel[f]);
      low = std::min(low, channel[f]);
    }
  high = std::min(high, 1.0f);
}

}  // namespace

// Files whose extremes are known from their samples, queried over single entries,
// runs across summary blocks, the whole file, the far side of the end, and a range
// inside one entry (empty).
TEST_F(WaveformData, KnownFilesGiveTheirExtremes) {
  struct Case {
    const char* name;
    double rate;
    double seconds;
    std::function<float(int64_t frame, int channel)> sample;
    int channels;
  };
  const Case cases[] = {
      {"ramp, every frame", 44100, 1.0, [](int64_t f, int) { return float(f % 200 - 100) / 100.0f; }, 1},
      {"square, odd period", 44100, 12.0, [](int64_t f, int c) { return c ? -0.75f : (f % 13 < 7 ? 0.5f : -0.25f); },
       2},
      {"channels differ", 44100, 11.0, [](int64_t f, int c) { return c ? -0.6f * float(f % 3) : 0.3f; }, 2},
      {"clipped", 44100, 10.5, [](int64_t f, int) { return f % 1000 == 7 ? -1.7f : (f % 5 ? 1.5f : 0.2f); }, 1},
      {"48 kHz stereo", 48000, 10.0,
       [](int64_t f, int c) { return float((f * 7 + c * 3) % 101 - 50) / 50.0f * (f % 997 == 0 ? 1.3f : 0.9f); }, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Channels file(size_t(c.channels), std::vector<float>(size_t(c.rate * c.seconds)));
    for (int ch = 0; ch < c.channels; ++ch)
      for (size_t f = 0; f < file[size_t(ch)].size(); ++f) file[size_t(ch)][f] = c.sample(int64_t(f), ch);
    const std::string path = sonto::test::temporaryPath(std::string(c.name) + ".wav");
    ASSERT_TRUE(sonto::test::writeFloatWav(path, c.rate, file));
    auto waveform = loaded(path);
    ASSERT_TRUE(waveform);
    const uint32_t perEntry = uint32_t(waveform->framesPerSample());
    const uint32_t valid = waveform->validSamples();
    // All but a last group that is not more than one entry's frames.
    EXPECT_GE(valid + 2, waveform->totalSamples());
    const float entriesPerSecond = 44100.0f / float(perEntry);
    const std::pair<float, float> ranges[] = {{0.0f, 0.001f},  {0.5f, 0.5003f}, {0.25f, 0.75f}, {0.1f, 9.9f},
                                              {0.0f, 1000.0f}, {2.0f, 2.0f},    {30.0f, 40.0f}, {0.3f, 0.30001f}};
    for (auto [start, end] : ranges) {
      SCOPED_TRACE(testing::Message() << start << " to " << end);
      const uint32_t first = uint32_t(start * entriesPerSecond);
      const uint32_t last = std::min(uint32_t(end * entriesPerSecond), valid);
      float high = 0.0f, low = 0.0f;
      if (first < last) reference(file, c.rate, perEntry, first, last, high, low);
      EXPECT_EQ(waveform->maxValueBetweenStartTime(start, end), high);
      EXPECT_EQ(waveform->minValueBetweenStartTime(start, end), low);
    }
    waveform->setLive(false);
  }
}

// Ten seconds or more keep one entry per ten frames, anything shorter every frame;
// a file read out leaves unread only a last group of frames no larger than an entry.
TEST_F(WaveformData, ResolutionFollowsTheLength) {
  struct Case {
    int64_t frames;
    float framesPerSample;
    uint32_t totalSamples;
  } cases[] = {{441000, 10.0f, 44100}, {440559, 1.0f, 440559}, {44100 * 30 + 5, 10.0f, 132300}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.frames);
    const std::string path = sonto::test::temporaryPath("length-" + std::to_string(c.frames) + ".wav");
    ASSERT_TRUE(sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 1, c.frames));
    auto waveform = loaded(path);
    ASSERT_TRUE(waveform);
    EXPECT_EQ(waveform->framesPerSample(), c.framesPerSample);
    EXPECT_NEAR(double(waveform->totalSamples()), double(c.totalSamples), 1.0);
    const int64_t unread = c.frames - int64_t(waveform->validSamples()) * int64_t(c.framesPerSample);
    EXPECT_GE(unread, 0);
    if (waveform->validSamples() < waveform->totalSamples()) {
      EXPECT_LE(unread, int64_t(c.framesPerSample));
    }
  }
  EXPECT_FALSE(AudioWaveform::create(KyoAlias::aliasWithPath(sonto::test::temporaryPath("none.wav")), 10.0f));
}

// A file deleted, cut short or overwritten while its waveform loads: the worker stops
// (or reads what the open file still gives), nothing crashes, the tail stays flat.
TEST_F(WaveformData, FileThatGoesBadWhileLoadingStops) {
  struct Case {
    const char* name;
    std::function<void(const std::string&)> damage;
    bool tailFlat;
  } cases[] = {
      {"deleted", [](const std::string& p) { std::filesystem::remove(p); }, false},
      {"cut short", [](const std::string& p) { ASSERT_EQ(truncate(p.c_str(), 4096), 0); }, true},
      {"overwritten",  // with NaN, header and all
       [](const std::string& p) {
         std::ofstream(p, std::ios::in | std::ios::out | std::ios::binary) << std::string(4 << 20, '\xff');
       },
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = sonto::test::temporaryPath(std::string("bad-") + c.name + ".wav");
    ASSERT_TRUE(sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 44100, 2, 44100 * 60));
    sonto::test::FillGate gate;
    auto waveform = AudioWaveform::create(KyoAlias::aliasWithPath(path), 10.0f);
    ASSERT_TRUE(waveform);
    gate.grant(44100 * 5);
    ASSERT_TRUE(pumpUntil([&] { return waveform->loadedSeconds() > 4.9; }));
    c.damage(path);
    gate.open();
    ASSERT_TRUE(pumpUntil([&] { return waveform->isComplete(); }));
    EXPECT_LE(waveform->validSamples(), waveform->totalSamples());
    EXPECT_GT(waveform->maxValueBetweenStartTime(0.0f, 4.0f), 0.0f);
    if (c.tailFlat) {
      EXPECT_LT(waveform->loadedSeconds(), 59.0);
      EXPECT_EQ(waveform->maxValueBetweenStartTime(59.0f, 60.0f), 0.0f);
      EXPECT_EQ(waveform->minValueBetweenStartTime(59.0f, 60.0f), 0.0f);
    }
  }
}

// Queries on the main thread while the worker writes: an answer is either nothing
// yet or the finished value, never a half-written entry (ThreadSanitizer watches the
// arrays and the count).
TEST_F(WaveformData, QueriesRaceTheLoader) {
  // Every group of ten frames holds +0.5 and -0.25.
  Channels file(2, std::vector<float>(44100 * 120));
  for (size_t f = 0; f < file[0].size(); ++f) {
    file[0][f] = f % 2 ? 0.5f : -0.25f;
    file[1][f] = 0.125f;
  }
  const std::string path = sonto::test::temporaryPath("race.wav");
  ASSERT_TRUE(sonto::test::writeFloatWav(path, 44100, file));
  auto waveform = AudioWaveform::create(KyoAlias::aliasWithPath(path), 10.0f);
  ASSERT_TRUE(waveform);
  std::mt19937 random(1);
  std::uniform_real_distribution<float> time(0.0f, 120.0f);
  while (!waveform->isComplete()) {
    const float a = time(random), b = time(random);
    const float start = std::min(a, b), end = std::max(a, b) + 0.01f;
    const double loadedBefore = waveform->loadedSeconds();
    const float high = waveform->maxValueBetweenStartTime(start, end);
    const float low = waveform->minValueBetweenStartTime(start, end);
    ASSERT_TRUE(high == 0.0f || high == 0.5f) << high;
    ASSERT_TRUE(low == 0.0f || low == -0.25f) << low;
    if (loadedBefore > double(start) + 0.01) {
      ASSERT_EQ(high, 0.5f);
      ASSERT_EQ(low, -0.25f);
    }
  }
  EXPECT_EQ(waveform->maxValueBetweenStartTime(0.0f, 120.0f), 0.5f);
  EXPECT_EQ(waveform->minValueBetweenStartTime(0.0f, 120.0f), -0.25f);
}
