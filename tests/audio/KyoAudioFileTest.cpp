// Reading and seeking through KyoAudioFile on the libsndfile path, sample by sample
// against the ramp that was written, with and without rate conversion.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <memory>
#include <vector>

#include "audio/KyoAudioBufferList.h"
#include "audio/KyoAudioFile.h"
#include "support/EncodedFiles.h"
#include "support/TestFiles.h"

using namespace sonto::test;

namespace {

struct LosslessCase {
  const char* name;
  int format;
  double rate;
  uint32_t channels;
};

const LosslessCase kLossless[] = {
    {"pcm16.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 2},
    {"pcm24.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 48000, 1},
    {"pcm32.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_32, 96000, 6},
    {"float.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 22050, 8},
    {"pcm16.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 192000, 2},
    {"pcm24.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 88200, 3},
    {"pcm16.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 32000, 1},
};

constexpr int64_t kRampFrames = 50000;  // crosses the ramp's period and odd chunk ends

std::string rampFile(const LosslessCase& c) {
  std::string path = temporaryPath(std::string("ramp-") + std::to_string(int(c.rate)) + "-" +
                                   std::to_string(c.channels) + "-" + c.name);
  EXPECT_TRUE(writeRampFile(path, c.format, c.rate, c.channels, kRampFrames)) << path;
  return path;
}

// The first frame where `got` differs from the ramp from `start` on, or -1.
int64_t firstRampMismatch(const Channels& got, int64_t start) {
  for (uint32_t c = 0; c < got.size(); ++c)
    for (size_t i = 0; i < got[c].size(); ++i)
      if (got[c][i] != rampSample(start + int64_t(i), c)) return int64_t(i);
  return -1;
}

}  // namespace

TEST(KyoAudioFileTest, LosslessFormatsReadExactlyInOddChunks) {
  for (const LosslessCase& c : kLossless) {
    SCOPED_TRACE(c.name);
    auto file = openFile(rampFile(c));
    ASSERT_TRUE(file->validFile());
    EXPECT_EQ(file->decoderName(), "libsndfile");
    EXPECT_FALSE(file->usingQuickTime());
    ASSERT_TRUE(file->fileFormat());
    EXPECT_EQ(file->fileFormat()->sampleRate(), c.rate);
    EXPECT_EQ(file->fileChannels(), c.channels);
    EXPECT_EQ(file->_fileLengthInFrames(), kRampFrames);
    EXPECT_DOUBLE_EQ(file->fileLengthInSeconds(), double(kRampFrames) / c.rate);

    file->setReadFormat(KyoAudioStreamDescription(c.rate, c.channels));
    Channels got = readAll(*file, c.channels, 1237);
    ASSERT_EQ(got[0].size(), size_t(kRampFrames));
    EXPECT_EQ(firstRampMismatch(got, 0), -1);
    EXPECT_TRUE(file->isFinished());
  }
}

TEST(KyoAudioFileTest, EndOfFileComesOnTheReadAfterTheLastFramesAndASeekClearsIt) {
  auto file = openFile(rampFile(kLossless[0]));
  file->setReadFormat(KyoAudioStreamDescription(44100, 2));
  file->goToFrame(kRampFrames - 100);
  ListHolder list(2, 512, false);
  EXPECT_EQ(file->readFrames(512, list.get()), 100u);  // what remains
  EXPECT_FALSE(file->isFinished());
  EXPECT_EQ(list.get()->mBuffers[0].mDataByteSize, 100u * 4);  // shrunk to what came
  list.reset(512);
  EXPECT_EQ(file->readFrames(512, list.get()), 0u);
  EXPECT_TRUE(file->isFinished());
  EXPECT_EQ(file->readFrames(512, list.get()), 0u);

  file->goToFrame(10);
  EXPECT_FALSE(file->isFinished());
  list.reset(512);
  // The offset argument has no effect: frames land at the start of the list.
  ASSERT_EQ(file->readFrames(512, list.get(), 100), 512u);
  EXPECT_EQ(list.channel(1)[0], rampSample(10, 1));

  // A seek beyond the end gives nothing and then the end.
  file->goToFrame(kRampFrames + 5000);
  list.reset(512);
  EXPECT_EQ(file->readFrames(512, list.get()), 0u);
  EXPECT_TRUE(file->isFinished());
}

TEST(KyoAudioFileTest, SeeksLandOnTheExactFrame) {
  for (const LosslessCase& c : {kLossless[1], kLossless[5]}) {
    SCOPED_TRACE(c.name);
    auto file = openFile(rampFile(c));
    file->setReadFormat(KyoAudioStreamDescription(c.rate, c.channels));
    for (int64_t frame : {int64_t(0), int64_t(1), int64_t(4095), int64_t(16383), int64_t(16384), int64_t(33333),
                          kRampFrames - 1, int64_t(7)}) {
      SCOPED_TRACE(frame);
      file->goToFrame(frame);
      Channels got = readSome(*file, c.channels, 3000, 1000);
      ASSERT_EQ(got[0].size(), size_t(std::min<int64_t>(3000, kRampFrames - frame)));
      EXPECT_EQ(firstRampMismatch(got, frame), -1);
    }
  }
}

TEST(KyoAudioFileTest, InterleavedReadFormatAndChannelCountsThatDiffer) {
  LosslessCase c = kLossless[2];  // six channels
  std::string path = rampFile(c);

  auto file = openFile(path);
  KyoAudioStreamDescription interleaved(c.rate, c.channels);
  interleaved.setFlags(interleaved.flags() & ~kAudioFormatFlagIsNonInterleaved);
  file->setReadFormat(interleaved);
  file->goToFrame(20000);
  ListHolder list(c.channels, 700, true);
  ASSERT_EQ(file->readFrames(700, list.get()), 700u);
  const float* samples = static_cast<const float*>(list.get()->mBuffers[0].mData);
  for (uint32_t i = 0; i < 700; ++i)
    for (uint32_t ch = 0; ch < c.channels; ++ch)
      ASSERT_EQ(samples[i * c.channels + ch], rampSample(20000 + i, ch)) << i << " " << ch;

  // Fewer channels asked for: the first ones. More: the rest is silence.
  for (uint32_t channels : {2u, 8u}) {
    SCOPED_TRACE(channels);
    auto other = openFile(path);
    other->setReadFormat(KyoAudioStreamDescription(c.rate, channels));
    ListHolder l(channels, 500, false);
    for (uint32_t ch = 0; ch < channels; ++ch) std::fill_n(l.channel(ch), 500, 9.0f);
    ASSERT_EQ(other->readFrames(500, l.get()), 500u);
    for (uint32_t ch = 0; ch < channels; ++ch)
      for (uint32_t i = 0; i < 500; ++i)
        ASSERT_EQ(l.channel(ch)[i], ch < c.channels ? rampSample(i, ch) : 0.0f) << ch << " " << i;
  }
}

// Rate conversion: the converted signal lies where it should in time (no delay, no
// drift), its length is the scaled length, and a seek followed by reads gives what a
// straight read gives at that point.
TEST(KyoAudioFileTest, RateConversionKeepsTimeAndSeeksMatchAStraightRead) {
  struct RateCase {
    double fileRate, readRate;
    uint32_t channels;
  };
  const RateCase cases[] = {{44100, 48000, 2}, {48000, 44100, 1},  {96000, 44100, 2},
                            {22050, 48000, 1}, {192000, 48000, 1}, {44100, 44101, 1}};
  for (const RateCase& rc : cases) {
    SCOPED_TRACE(std::to_string(rc.fileRate) + " -> " + std::to_string(rc.readRate));
    const int64_t frames = int64_t(rc.fileRate * 1.5);
    const double hz = 440.0;
    std::string path =
        temporaryPath("sine-" + std::to_string(int(rc.fileRate)) + "-" + std::to_string(int(rc.readRate)) + ".wav");
    ASSERT_TRUE(writeSineWav(path, rc.fileRate, rc.channels, frames, hz));

    auto file = openFile(path);
    file->setReadFormat(KyoAudioStreamDescription(rc.readRate, rc.channels));
    Channels straight = readAll(*file, rc.channels, 999);
    double expectedLength = double(frames) * rc.readRate / rc.fileRate;
    EXPECT_NEAR(double(straight[0].size()), expectedLength, 2.0);

    // Away from the edges the converted sine is the sine at the read rate.
    double worst = 0;
    for (size_t i = 2000; i + 2000 < straight[0].size(); i += 7)
      for (uint32_t c = 0; c < rc.channels; ++c)
        worst = std::max(worst, double(std::fabs(straight[c][i] - sineSample(double(i) / rc.readRate, hz, c))));
    EXPECT_LT(worst, 1e-3);

    for (int64_t frame :
         {int64_t(0), int64_t(1), int64_t(100), int64_t(2047), int64_t(12345), frames / 2, frames - 3000}) {
      SCOPED_TRACE(frame);
      file->goToFrame(frame);
      Channels got = readSome(*file, rc.channels, 2000, 777);
      int64_t start = std::llround(double(frame) * rc.readRate / rc.fileRate);
      ASSERT_GT(got[0].size(), 0u);
      double diff = 0;
      for (uint32_t c = 0; c < rc.channels; ++c)
        for (size_t i = 0; i < got[c].size() && start + int64_t(i) < int64_t(straight[c].size()); ++i)
          diff = std::max(diff, double(std::fabs(got[c][i] - straight[c][size_t(start) + i])));
      EXPECT_LT(diff, 1e-4);
    }
  }
}

TEST(KyoAudioFileTest, ClassOperationsAndAliasChanges) {
  std::string path = rampFile(kLossless[0]);
  auto alias = KyoAlias::aliasWithPath(path);
  EXPECT_DOUBLE_EQ(KyoAudioFile::fileLengthInSecondsForAlias(alias), double(kRampFrames) / 44100);
  ASSERT_TRUE(KyoAudioFile::fileFormatForAlias(alias));
  EXPECT_EQ(KyoAudioFile::fileFormatForAlias(alias)->channels(), 2u);
  EXPECT_EQ(KyoAudioFile::fileLengthInSecondsForAlias(nullptr), 0);
  EXPECT_FALSE(KyoAudioFile::fileFormatForAlias(nullptr));
  EXPECT_FALSE(KyoAudioFile::fileFormatForAlias(std::make_shared<KyoAlias>()));

  KyoAudioFile file;
  EXPECT_FALSE(file.validFile());
  EXPECT_EQ(file.decoderName(), "");
  EXPECT_EQ(file.fileChannels(), 0u);
  EXPECT_EQ(file.fileLengthInSeconds(), 0);
  ListHolder list(2, 64, false);
  EXPECT_EQ(file.readFrames(64, list.get()), 0u);

  file.setAlias(alias);
  EXPECT_TRUE(file.validFile());
  file.setAlias(KyoAlias::aliasWithPath(rampFile(kLossless[2])));
  EXPECT_EQ(file.fileChannels(), 6u);

  KyoReadFramesInfo info;
  file.registerReadFramesInfo(&info);
  file.registerReadFramesInfo(nullptr);
  ASSERT_EQ(info.target, &file);
  ListHolder six(6, 64, false);
  file.setReadFormat(KyoAudioStreamDescription(96000, 6));
  EXPECT_EQ(info.method(info.target, 64, six.get(), 0), 64u);
  EXPECT_EQ(six.channel(5)[63], rampSample(63, 5));
}
