// The read-ahead stream on real files made at test time: its refusals, sample-exact
// reading of a range, the range's end, and the dropped-frame debt that keeps a
// stream on its time line when the reader outruns the disk.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "FillGate.h"
#include "audio/KyoAudioBuffer.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "support/EncodedFiles.h"
#include "support/TestFiles.h"
#include "support/Waiting.h"

using namespace sonto::test;

namespace {

using sonto::test::eventually;
using sonto::test::LogCapture;

constexpr double kRate = 44100;

std::shared_ptr<KyoAlias> rampAlias(const std::string& name, uint32_t channels, int64_t frames) {
  std::string path = temporaryPath(name);
  EXPECT_TRUE(writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, kRate, channels, frames));
  return KyoAlias::aliasWithPath(path);
}

int64_t firstRampMismatch(ListHolder& list, uint32_t channels, uint32_t frames, int64_t firstFrame) {
  for (uint32_t i = 0; i < frames; ++i)
    for (uint32_t c = 0; c < channels; ++c)
      if (list.channel(c)[i] != rampSample(firstFrame + i, c)) return i;
  return -1;
}

}  // namespace

TEST(KyoAudioBufferTest, RefusesBadParametersWithItsMessages) {
  auto stereo = rampAlias("refuse-stereo.wav", 2, 44100);  // one second
  std::string path = stereo->fullPath();
  std::string junkPath = temporaryPath("junk.wav");
  std::ofstream(junkPath) << "this is not audio";
  auto junk = KyoAlias::aliasWithPath(junkPath);
  KyoAudioStreamDescription format(kRate, 2);
  KyoAudioStreamDescription mono(kRate, 1);

  struct Case {
    const char* name;
    std::shared_ptr<KyoAlias> alias;
    double start, end;
    uint32_t size;
    std::optional<KyoAudioStreamDescription> format;
    bool match;
    std::string message;
  };
  const std::string invalid = "Error: can't initialize KyoAudioBuffer; invalid parameter(s) for file: ";
  const Case cases[] = {
      {"null alias", nullptr, 0, 0, 1024, format, false, invalid + "(null)"},
      {"negative start", stereo, -0.5, 0, 1024, format, false, invalid + path},
      {"ring of 511", stereo, 0, 0, 511, format, false, invalid + path},
      {"no format", stereo, 0, 0, 1024, std::nullopt, false, invalid + path},
      {"not audio", junk, 0, 0, 1024, format, false, "Error: KyoAudioBuffer given an invalid file: " + junkPath},
      {"channels differ", stereo, 0, 0, 1024, mono, false,
       "Error: KyoAudioBuffer format channels (1) did not have the same number of channels as the file (2): " + path},
      {"start at the end", stereo, 1.0, 0, 1024, format, false,
       "Error: KyoAudioBuffer end time (1.000000) was <= start time (1.000000) for file: " + path},
      {"start past the end", stereo, 3.0, 5.0, 1024, format, false,
       "Error: KyoAudioBuffer end time (1.000000) was <= start time (3.000000) for file: " + path},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    EXPECT_EQ(KyoAudioBuffer::create(c.alias, c.start, c.end, c.size, c.format, c.match), nullptr);
    auto lines = log.lines();
    EXPECT_NE(std::find(lines.begin(), lines.end(), c.message), lines.end())
        << "got: " << (lines.empty() ? std::string("nothing") : lines.back());
  }

  // What the refusals border on is accepted.
  auto smallest = KyoAudioBuffer::create(stereo, 0, 0, 512, format, false);
  ASSERT_TRUE(smallest);
  EXPECT_DOUBLE_EQ(smallest->endTime(), 1.0);  // an end of 0 means the file's end
  smallest->killWorker();
  auto matched = KyoAudioBuffer::create(stereo, 0.25, 0.5, 1024, mono, true);
  ASSERT_TRUE(matched);
  EXPECT_EQ(matched->readFormat().channels(), 2u);
  EXPECT_EQ(matched->fileChannels(), 2u);
  EXPECT_EQ(matched->startFrame(), 11025);
  matched->killWorker();
  matched->killWorker();  // a second kill returns at once
}

// A range read in odd request sizes comes out sample for sample, with the range's
// last read answering only what remains; reads past it answer 0.
TEST(KyoAudioBufferTest, ReadsARangeExactlyToItsEnd) {
  auto alias = rampAlias("range.wav", 2, 60000);
  for (uint32_t request : {1u, 37u, 441u, 4096u, 9000u}) {
    SCOPED_TRACE(request);
    // 0.25 s to 1.2 s: 41895 frames from frame 11025, through several refills of the ring.
    auto stream = KyoAudioBuffer::create(alias, 0.25, 1.2, 10000, KyoAudioStreamDescription(kRate, 2), false);
    ASSERT_TRUE(stream);
    const int64_t total = int64_t((1.2 - 0.25) * kRate);
    ListHolder list(2, request, false);
    int64_t done = 0;
    int64_t mismatch = -1;
    while (done < total) {
      ASSERT_TRUE(eventually([&] { return stream->count() >= std::min<int64_t>(request, total - done); }));
      uint32_t got = stream->readFrames(request, list.get(), 0);
      ASSERT_EQ(int64_t(got), std::min<int64_t>(request, total - done));
      if (mismatch < 0) {
        int64_t bad = firstRampMismatch(list, 2, got, 11025 + done);
        if (bad >= 0) mismatch = done + bad;
      }
      done += got;
    }
    EXPECT_EQ(mismatch, -1);
    EXPECT_EQ(stream->framesRead(), total);
    EXPECT_TRUE(stream->isFinished());
    EXPECT_EQ(stream->readFrames(request, list.get(), 0), 0u);
    stream->killWorker();
  }
}

// Near the end of the file the fill thread meets the end: the stream is finished
// while frames remain, the ring drains, and then reads answer 0.
TEST(KyoAudioBufferTest, EndOfFileDrainsTheRingThenAnswersNothing) {
  auto alias = rampAlias("short.wav", 1, 3000);
  auto stream = KyoAudioBuffer::create(alias, 0, 0, 4096, KyoAudioStreamDescription(kRate, 1), false);
  ASSERT_TRUE(stream);
  ASSERT_TRUE(eventually([&] { return stream->isFilled(); }));
  EXPECT_EQ(stream->count(), 3000u);
  ListHolder list(1, 4096, false);
  // Down to below half the ring: the fill thread wakes, reads nothing more, and
  // marks the end of the file.
  EXPECT_EQ(stream->readFrames(1100, list.get(), 0), 1100u);
  EXPECT_EQ(firstRampMismatch(list, 1, 1100, 0), -1);
  ASSERT_TRUE(eventually([&] { return stream->isFinished(); }));
  EXPECT_EQ(stream->count(), 1900u);
  EXPECT_EQ(stream->readFrames(4096, list.get(), 0), 1900u);
  EXPECT_EQ(firstRampMismatch(list, 1, 1900, 1100), -1);
  EXPECT_EQ(stream->readFrames(10, list.get(), 0), 0u);
  stream->killWorker();
}

// The reader takes 100 frames when only 60 are there: it gets 60, and the stream
// later discards the 40 it owes, so the frames after stand where they would have.
TEST(KyoAudioBufferTest, ShortfallIsDroppedLaterToKeepTheTimeLine) {
  auto alias = rampAlias("debt.wav", 2, 20000);
  FillGate gate;
  gate.grant(60);
  auto stream = KyoAudioBuffer::create(alias, 0, 0, 1024, KyoAudioStreamDescription(kRate, 2), false);
  ASSERT_TRUE(stream);
  ListHolder list(2, 200, false);

  ASSERT_TRUE(eventually([&] { return stream->count() == 60; }));
  EXPECT_EQ(stream->readFrames(100, list.get(), 0), 60u);
  EXPECT_EQ(firstRampMismatch(list, 2, 60, 0), -1);
  EXPECT_EQ(stream->framesRead(), 60);

  // Ten more arrive: fewer than the 40 owed. They are dropped, and this request of
  // 50 goes undelivered as well, so the debt is 30 + 50.
  gate.grant(10);
  ASSERT_TRUE(eventually([&] { return stream->count() == 10; }));
  EXPECT_EQ(stream->readFrames(50, list.get(), 0), 0u);
  EXPECT_EQ(stream->framesRead(), 70);
  EXPECT_EQ(stream->count(), 0u);

  // Once the disk catches up, the next frame delivered is frame 70 + 80 = 150: the
  // reader has asked for 100 + 50 frames in all and is now at 150 on the time line.
  gate.grant(1000);
  ASSERT_TRUE(eventually([&] { return stream->count() == 1000; }));
  EXPECT_EQ(stream->readFrames(100, list.get(), 0), 100u);
  EXPECT_EQ(firstRampMismatch(list, 2, 100, 150), -1);
  EXPECT_EQ(stream->framesRead(), 250);

  // drop() owes frames at once; they go on the next read.
  stream->drop(33);
  EXPECT_EQ(stream->readFrames(7, list.get(), 0), 7u);
  EXPECT_EQ(firstRampMismatch(list, 2, 7, 283), -1);
  gate.open();
  stream->killWorker();
}

// A stream whose fill thread is inside a slow read is killed only once that read
// ends, and the kill then returns with the thread gone.
TEST(KyoAudioBufferTest, KillWaitsForAReadInProgress) {
  auto alias = rampAlias("kill.wav", 1, 20000);
  FillGate gate;
  auto stream = KyoAudioBuffer::create(alias, 0, 0, 1024, KyoAudioStreamDescription(kRate, 1), false);
  ASSERT_TRUE(stream);
  ASSERT_TRUE(eventually([&] { return gate.waiting() > 0; }));
  std::atomic<bool> killed{false};
  std::thread killer([&] {
    stream->killWorker();
    killed = true;
  });
  // The fill thread sits in the gate; the kill cannot finish before it is let go.
  KyoCurrentClock().sleepFor(0.05);
  EXPECT_FALSE(killed.load());
  gate.open();
  killer.join();
  EXPECT_EQ(stream->count(), 1024u);  // the read in progress completed
}
