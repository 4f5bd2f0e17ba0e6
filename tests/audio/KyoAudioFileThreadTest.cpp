// The reader as the read-ahead stream uses it: made, formatted and positioned on
// one thread, then read on another; and several readers working at once on their
// own threads, on both decoding paths (run under ThreadSanitizer).

#include <gtest/gtest.h>
#include <sndfile.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "audio/KyoAudioFile.h"
#include "support/EncodedFiles.h"
#include "support/TestFiles.h"

using namespace sonto::test;

namespace {

constexpr int64_t kFrames = 30000;

struct Source {
  std::string path;
  double rate;
  uint32_t channels;
};

// A ramp as WAV (libsndfile) and the same ramp as PCM in a MOV (FFmpeg).
std::vector<Source> makeSources() {
  std::vector<Source> sources;
  std::string wav = temporaryPath("thread-ramp.wav");
  EXPECT_TRUE(writeRampFile(wav, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, kFrames));
  sources.push_back({wav, 48000, 2});
  std::string mov = temporaryPath("thread-ramp.mov");
  EXPECT_TRUE(encodeWithFFmpeg(wav, "-c:a pcm_s16le", mov));
  sources.push_back({mov, 48000, 2});
  return sources;
}

// Frames from `start` on, checked against the ramp; answers the first mismatch or -1.
int64_t checkRamp(const Channels& got, int64_t start) {
  for (uint32_t c = 0; c < got.size(); ++c)
    for (size_t i = 0; i < got[c].size(); ++i)
      if (got[c][i] != rampSample(start + int64_t(i), c)) return int64_t(i);
  return -1;
}

}  // namespace

TEST(KyoAudioFileThreadTest, PositionedOnOneThreadAndReadOnAnother) {
  for (const Source& source : makeSources()) {
    SCOPED_TRACE(source.path);
    auto file = openFile(source.path);
    ASSERT_TRUE(file->validFile());
    file->setReadFormat(KyoAudioStreamDescription(source.rate, source.channels));
    file->goToFrame(12345);
    Channels got;
    std::thread fill([&] { got = readAll(*file, source.channels, 441); });
    fill.join();
    ASSERT_EQ(int64_t(got[0].size()), kFrames - 12345);
    EXPECT_EQ(checkRamp(got, 12345), -1);
  }
}

TEST(KyoAudioFileThreadTest, ReadersOnTheirOwnThreadsDoNotDisturbEachOther) {
  const std::vector<Source> sources = makeSources();
  constexpr int kThreads = 4;
  std::mutex lock;
  std::vector<std::string> failures;  // which reader, which round, what went wrong
  auto fail = [&](const Source& source, int round, const std::string& what) {
    std::lock_guard<std::mutex> hold(lock);
    failures.push_back(source.path + " round " + std::to_string(round) + ": " + what);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const Source& source = sources[size_t(t) % sources.size()];
      // Opening on the worker too: both decoders' open paths run side by side.
      for (int round = 0; round < 3; ++round) {
        auto file = openFile(source.path);
        if (!file->validFile()) return fail(source, round, "not valid");
        file->setReadFormat(KyoAudioStreamDescription(source.rate, source.channels));
        int64_t start = 1000 * (t + 1) + round;
        file->goToFrame(start);
        Channels got = readSome(*file, source.channels, 5000, 256 + 64 * uint32_t(t));
        if (got[0].size() != 5000u) fail(source, round, std::to_string(got[0].size()) + " frames read");
        if (const int64_t at = checkRamp(got, start); at != -1) fail(source, round, "wrong at " + std::to_string(at));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& failure : failures) ADD_FAILURE() << failure;
}
