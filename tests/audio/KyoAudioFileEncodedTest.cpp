// Compressed and container formats, encoded at test time with the ffmpeg command
// line: which decoder takes them, that lossy formats come back exactly as long as
// they went in and without delay (so that a loop has no gap), that lossless ones
// through FFmpeg come back sample for sample, and that a seek followed by reads
// gives what a straight read gives.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>

#include "audio/KyoAudioFile.h"
#include "support/EncodedFiles.h"
#include "support/TestFiles.h"

using namespace sonto::test;

namespace {

// How long the decoded file must be.
enum class Length {
  exact,   // as long as what went in: the container states it, the decoder honours it
  stated,  // as long as the container states, which FFmpeg's own AAC encoder writes up
           // to one packet short of what went in (its last packet's duration)
  atLeast  // the format does not state it: at least what went in, padding included
};

struct EncodedCase {
  const char* name;       // file name, extension included
  const char* arguments;  // ffmpeg output options
  const char* decoder;    // which path must open it
  double rate;
  uint32_t channels;
  bool lossless;  // compare with the ramp sample by sample
  Length length;
  // Largest difference between a seek followed by reads and a straight read.
  double seekTolerance;
};

constexpr int64_t kFrames = 77777;  // not a multiple of any codec's frame size
constexpr int64_t kAacPacketFrames = 1024;

// AAC noise substitution (on by default in FFmpeg's encoder) fills bands from the
// decoder's random generator, whose state depends on everything decoded since the
// decoder was opened: after a seek those bands hold other noise, at the level of
// the band. The cases that check seeks exactly switch it off; one case keeps it.
const EncodedCase kCases[] = {
    {"lame.mp3", "-c:a libmp3lame -b:a 192k", "libsndfile", 44100, 2, false, Length::exact, 1e-4},
    {"aac.m4a", "-c:a aac -aac_pns 0 -b:a 192k", "ffmpeg", 44100, 2, false, Length::stated, 1e-4},
    {"aac48.m4a", "-c:a aac -aac_pns 0 -b:a 128k", "ffmpeg", 48000, 1, false, Length::stated, 1e-4},
    {"aac-noise.m4a", "-c:a aac -b:a 96k", "ffmpeg", 44100, 2, false, Length::stated, 0.05},
    {"opus.opus", "-c:a libopus -b:a 160k", "libsndfile", 48000, 2, false, Length::exact, 1e-4},
    {"vorbis.ogg", "-c:a libvorbis -q:a 6", "libsndfile", 44100, 2, false, Length::exact, 1e-4},
    {"video.mp4",
     "-f lavfi -i color=c=black:s=64x48:r=25 -map 1:v -map 0:a -shortest -c:v mpeg4 -c:a aac -aac_pns 0 -b:a 192k",
     "ffmpeg", 48000, 2, false, Length::stated, 1e-4},
    {"pcm.mov", "-c:a pcm_s24le", "ffmpeg", 48000, 6, true, Length::exact, 0.0},
    {"flac.mkv", "-c:a flac", "ffmpeg", 44100, 2, true, Length::atLeast, 0.0},
    {"alac.m4a", "-c:a alac", "ffmpeg", 96000, 2, true, Length::exact, 0.0},
    {"adts.aac", "-c:a aac -aac_pns 0 -b:a 128k", "ffmpeg", 44100, 1, false, Length::atLeast, 1e-4},
};

std::string sourceFile(const EncodedCase& c) {
  std::string path = temporaryPath(std::string("source-") + c.name + ".wav");
  if (c.lossless)
    EXPECT_TRUE(writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, c.rate, c.channels, kFrames));
  else
    EXPECT_TRUE(writeChirpWav(path, c.rate, c.channels, kFrames));
  return path;
}

std::string encodedFile(const EncodedCase& c) {
  std::string path = temporaryPath(c.name);
  if (!encodeWithFFmpeg(sourceFile(c), c.arguments, path)) return {};
  return path;
}

double largestDifference(const Channels& a, const Channels& b, int64_t bStart) {
  double worst = 0;
  for (size_t c = 0; c < a.size(); ++c)
    for (size_t i = 0; i < a[c].size() && bStart + int64_t(i) < int64_t(b[c].size()); ++i)
      worst = std::max(worst, double(std::fabs(a[c][i] - b[c][size_t(bStart) + i])));
  return worst;
}

}  // namespace

TEST(KyoAudioFileEncodedTest, EachFormatOpensPlaysAndSeeksLikeAStraightRead) {
  for (const EncodedCase& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string path = encodedFile(c);
    ASSERT_FALSE(path.empty()) << "ffmpeg could not encode " << c.name;
    auto file = openFile(path);
    ASSERT_TRUE(file->validFile());
    EXPECT_EQ(file->decoderName(), c.decoder);
    EXPECT_EQ(file->usingQuickTime(), std::string(c.decoder) == "ffmpeg");
    ASSERT_TRUE(file->fileFormat());
    EXPECT_EQ(file->fileFormat()->sampleRate(), c.rate);
    EXPECT_EQ(file->fileChannels(), c.channels);

    file->setReadFormat(KyoAudioStreamDescription(c.rate, c.channels));
    Channels straight = readAll(*file, c.channels, 1000);
    EXPECT_TRUE(file->isFinished());
    if (c.length == Length::atLeast) {
      EXPECT_GE(int64_t(straight[0].size()), kFrames);
    } else {
      // No priming at the start, no padding at the end.
      int64_t expected = kFrames;
      if (c.length == Length::stated) {
        expected = statedLengthByFFprobe(path);
        EXPECT_GT(expected, kFrames - kAacPacketFrames);
        EXPECT_LE(expected, kFrames);
      }
      EXPECT_EQ(file->_fileLengthInFrames(), expected);
      EXPECT_EQ(int64_t(straight[0].size()), expected);
    }

    if (c.lossless) {
      for (uint32_t ch = 0; ch < c.channels; ++ch)
        for (size_t i = 0; i < straight[ch].size(); ++i)
          ASSERT_EQ(straight[ch][i], rampSample(int64_t(i), ch)) << "channel " << ch << " frame " << i;
    } else if (c.length != Length::atLeast) {
      std::vector<float> source(static_cast<size_t>(kFrames));
      for (int64_t i = 0; i < kFrames; ++i) source[size_t(i)] = chirpSample(i, c.rate, 0);
      EXPECT_EQ(delayAgainst(straight[0], source, 2500), 0);
    }

    for (int64_t frame : {int64_t(0), int64_t(1), int64_t(1023), int64_t(1024), int64_t(4097), int64_t(30001),
                          kFrames - 2000, int64_t(12)}) {
      SCOPED_TRACE(frame);
      file->goToFrame(frame);
      EXPECT_FALSE(file->isFinished());
      Channels got = readSome(*file, c.channels, 3000, 512);
      ASSERT_EQ(int64_t(got[0].size()), std::min<int64_t>(3000, int64_t(straight[0].size()) - frame));
      EXPECT_LE(largestDifference(got, straight, frame), c.seekTolerance);
    }
  }
}

// A lossy file converted to another rate on reading: its length scales, and a seek
// still meets the straight read.
TEST(KyoAudioFileEncodedTest, ConvertedLossyFileSeeksLikeAStraightRead) {
  const EncodedCase& c = kCases[1];  // AAC in M4A, through FFmpeg
  std::string path = encodedFile(c);
  ASSERT_FALSE(path.empty());
  auto file = openFile(path);
  file->setReadFormat(KyoAudioStreamDescription(48000, c.channels));
  Channels straight = readAll(*file, c.channels, 1000);
  EXPECT_NEAR(double(straight[0].size()), double(statedLengthByFFprobe(path)) * 48000 / 44100, 2.0);
  for (int64_t frame : {int64_t(147), int64_t(20000), int64_t(50001)}) {
    SCOPED_TRACE(frame);
    file->goToFrame(frame);
    Channels got = readSome(*file, c.channels, 2000, 333);
    ASSERT_EQ(got[0].size(), 2000u);
    EXPECT_LT(largestDifference(got, straight, std::llround(double(frame) * 48000 / 44100)), 1e-4);
  }
}
