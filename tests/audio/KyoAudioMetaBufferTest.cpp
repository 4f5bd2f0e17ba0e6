// The slice player on real files made at test time: playlists with loops of odd
// lengths compared sample by sample against a frame-by-frame model of the
// playlist, the position arithmetic on huge values, the play-out, drop-outs that
// keep the time line, and a render-like thread racing a control thread.

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "FillGate.h"
#include "audio/KyoAudioFile.h"
#include "audio/KyoAudioMetaBuffer.h"
#include "foundation/KyoClock.h"
#include "support/AllocationCounter.h"
#include "support/EncodedFiles.h"
#include "support/TestFiles.h"
#include "support/Waiting.h"

using namespace sonto::test;

namespace {

constexpr double kRate = 44100;
constexpr uint32_t kChannels = 2;

struct List : ListHolder {
  explicit List(uint32_t frames) : ListHolder(kChannels, frames, false) {}
};

// ---------------------------------------------------------------------------
// Files and the reference of what they hold

std::shared_ptr<KyoAlias> rampFile(const std::string& name, int format, int64_t frames) {
  std::string path = temporaryPath(name);
  if (!writeRampFile(path, format, kRate, kChannels, frames)) return nullptr;
  return KyoAlias::aliasWithPath(path);
}

// The whole file read straight through the file reader, in the player's format.
Channels straightRead(const std::shared_ptr<KyoAlias>& alias) {
  KyoAudioFile file(alias);
  file.setReadFormat(KyoAudioStreamDescription(kRate, kChannels));
  return readAll(file, kChannels, 4096);
}

// Reads once the streams can deliver the whole request; answers the frames read.
uint32_t readWhenReady(KyoAudioMetaBuffer& player, List& list, uint32_t frames) {
  if (!eventually([&] { return player.isReadyToRead(frames); })) {
    ADD_FAILURE() << "never ready to read " << frames << " frames";
    return 0;
  }
  return player.readFrames(frames, list.get(), 0);
}

std::shared_ptr<KyoAudioMetaBuffer> makePlayer(const std::shared_ptr<KyoAlias>& alias) {
  auto player = KyoAudioMetaBuffer::create(alias, KyoAudioStreamDescription(kRate, kChannels));
  EXPECT_TRUE(player);
  return player;
}

Channels rampReference(int64_t frames) {
  Channels out(kChannels, std::vector<float>(size_t(frames)));
  for (uint32_t c = 0; c < kChannels; ++c)
    for (int64_t f = 0; f < frames; ++f) out[c][size_t(f)] = rampSample(f, c);
  return out;
}

// ---------------------------------------------------------------------------
// The playlist, played one frame at a time: what the player must deliver.

struct Piece {
  int64_t startFrame, endFrame;
  int32_t playCount;
};

std::vector<KyoSliceDescription> describe(const std::vector<Piece>& pieces) {
  std::vector<KyoSliceDescription> out;
  for (const Piece& p : pieces) out.push_back({double(p.startFrame) / kRate, double(p.endFrame) / kRate, p.playCount});
  return out;
}

class PlaylistModel {
 public:
  explicit PlaylistModel(std::vector<Piece> pieces) : m_pieces(std::move(pieces)) { goTo(0); }

  void goTo(int64_t frames) {
    m_remaining.clear();
    for (const Piece& p : m_pieces) m_remaining.push_back(p.playCount);
    m_index = 0;
    m_frame = m_pieces.front().startFrame;
    bool wrapped = false;
    for (int64_t i = 0; i < frames && m_index < m_pieces.size(); ++i) next(wrapped);
  }

  // The file frame heard next, or -1 for silence once the playlist is over.
  // wrapped: the frame after this one is a jump back.
  int64_t next(bool& wrapped) {
    wrapped = false;
    if (m_index >= m_pieces.size()) return -1;
    int64_t heard = m_frame++;
    if (m_frame == m_pieces[m_index].endFrame) {
      if (m_remaining[m_index] == 1) {
        ++m_index;
      } else {
        --m_remaining[m_index];
        m_frame = m_pieces[m_index].startFrame;
        wrapped = true;
      }
    }
    return heard;
  }

  void devamp() {
    size_t j = m_index;
    while (j < m_pieces.size() && m_remaining[j] == 1) ++j;
    if (j < m_pieces.size()) m_remaining[j] = 1;
  }

  bool isOver() const { return m_index >= m_pieces.size(); }

 private:
  std::vector<Piece> m_pieces;
  std::vector<int64_t> m_remaining;
  size_t m_index = 0;
  int64_t m_frame = 0;
};

struct Event {
  int64_t atOutputFrame;
  bool seek;  // else devamp
  int64_t seekFrames;
};

struct Scenario {
  const char* name;
  std::vector<Piece> pieces;
  std::vector<Event> events;
};

// Loops of odd lengths (4998, 4999, 4808 frames), one that meets the request sizes
// exactly, counted, endless, devamped and sought into.
const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> all = {
      {"endless loop left by devamp", {{0, 7001, 1}, {7001, 11999, -1}, {11999, 20011, 1}}, {{30011, false, 0}}},
      {"counted loops", {{1000, 5999, 3}, {5999, 10807, 2}, {10807, 15300, 1}}, {}},
      {"seek into a second pass, then into an endless loop",
       {{0, 7001, 1}, {7001, 11999, -1}, {11999, 20011, 1}},
       {{3000, true, 1000}, {9001, true, 40000}, {20000, false, 0}}},
      {"boundaries on request edges", {{0, 8192, 1}, {8192, 16384, 3}, {16384, 21000, 1}}, {}},
  };
  return all;
}

// Reads the scenario through the player in requests of `request` frames, waiting
// before each read until the streams can deliver it, and compares every sample
// with the model. Frames after a second jump inside one request (a request longer
// than a loop) must be silence: no stream stands there yet.
void playAndCompare(const std::shared_ptr<KyoAlias>& alias, const Channels& reference, const Scenario& scenario,
                    uint32_t request) {
  auto player = makePlayer(alias);
  ASSERT_TRUE(player);
  player->setSlices(describe(scenario.pieces));
  ASSERT_EQ(player->slices().size(), scenario.pieces.size());
  player->goToTime(0);
  PlaylistModel model(scenario.pieces);

  List list(request);
  size_t nextEvent = 0;
  int64_t output = 0;
  int trailing = 0;  // requests read after the model went silent
  int64_t mismatches = 0;
  std::string firstMismatch;
  while (trailing < 2) {
    while (nextEvent < scenario.events.size() && scenario.events[nextEvent].atOutputFrame <= output) {
      const Event& e = scenario.events[nextEvent++];
      if (e.seek) {
        player->goToTime(double(e.seekFrames) / kRate);
        model.goTo(e.seekFrames);
      } else {
        player->devamp();
        model.devamp();
      }
    }
    ASSERT_TRUE(eventually([&] { return player->isReadyToRead(request); })) << "at output frame " << output;
    ASSERT_EQ(player->readFrames(request, list.get(), 0), request);
    int wraps = 0;
    for (uint32_t i = 0; i < request; ++i) {
      bool wrapped = false;
      const int64_t next = model.next(wrapped);
      const int64_t frame = wraps >= 2 ? -1 : next;  // the position moves on without a sound
      for (uint32_t c = 0; c < kChannels; ++c) {
        float expected = frame < 0 ? 0.0f : reference[c][size_t(frame)];
        float got = list.channel(c)[i];
        if (got != expected && mismatches++ == 0)
          firstMismatch =
              (testing::Message() << "output frame " << output + i << " channel " << c << ": expected file frame "
                                  << frame << " (" << expected << "), got " << got)
                  .GetString();
      }
      wraps += wrapped;
    }
    output += request;
    if (model.isOver()) ++trailing;
  }
  EXPECT_EQ(mismatches, 0) << firstMismatch;
  player->killWorker();
}

struct FormatCase {
  const char* name;
  int sndfileFormat;  // 0: compare against a straight read (a lossy format)
  int fileFormat;
};

class SlicePlayerFormat : public ::testing::TestWithParam<FormatCase> {};

TEST_P(SlicePlayerFormat, LoopsCountsDevampsAndSeeksAreSampleExact) {
  const FormatCase& fc = GetParam();
  auto alias = rampFile(std::string("exact-") + fc.name, fc.fileFormat, 60000);
  if (!alias && fc.sndfileFormat == 0) GTEST_SKIP() << "libsndfile cannot write " << fc.name;
  ASSERT_TRUE(alias);
  Channels reference = fc.sndfileFormat ? rampReference(60000) : straightRead(alias);
  ASSERT_GE(reference[0].size(), 20011u);
  for (const Scenario& scenario : scenarios()) {
    for (uint32_t request : {1u, 37u, 128u, 441u, 4096u, 6007u}) {
      // One frame a read is tens of thousands of reads: once, on the plain format.
      if (request == 1 && (fc.fileFormat != (SF_FORMAT_WAV | SF_FORMAT_FLOAT) || &scenario != &scenarios()[1]))
        continue;
      SCOPED_TRACE(testing::Message() << scenario.name << ", " << request << " frames a read");
      playAndCompare(alias, reference, scenario, request);
      if (HasFatalFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, SlicePlayerFormat,
                         ::testing::Values(FormatCase{"wav", 1, SF_FORMAT_WAV | SF_FORMAT_FLOAT},
                                           FormatCase{"flac", 1, SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
                                           FormatCase{"mp3", 0, SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III}),
                         [](const testing::TestParamInfo<FormatCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Playlists and the position

TEST(KyoAudioMetaBufferTest, CreationRefusesWhatCannotPlay) {
  auto alias = rampFile("create.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 4410);
  std::string junkPath = temporaryPath("create-junk.wav");
  std::ofstream(junkPath) << "RIFF but not really";
  KyoAudioStreamDescription format(kRate, kChannels);
  EXPECT_EQ(KyoAudioMetaBuffer::create(alias, std::nullopt), nullptr);
  EXPECT_EQ(KyoAudioMetaBuffer::create(alias, KyoAudioStreamDescription(0, kChannels)), nullptr);
  for (auto bad : {std::shared_ptr<KyoAlias>(), KyoAlias::aliasWithPath(junkPath),
                   KyoAlias::aliasWithPath(temporaryPath("absent.wav"))})
    EXPECT_EQ(KyoAudioMetaBuffer::create(bad, format), nullptr);

  auto player = KyoAudioMetaBuffer::create(alias, format);
  ASSERT_TRUE(player);
  EXPECT_DOUBLE_EQ(player->fileLengthInSeconds(), 0.1);
  EXPECT_EQ(player->fileChannels(), kChannels);
  auto whole = player->slices();
  ASSERT_EQ(whole.size(), 1u);
  EXPECT_EQ(whole[0].startTime, 0.0);
  EXPECT_EQ(whole[0].endTime, 0.1);
  EXPECT_EQ(whole[0].playCount, 1);
  // The owner may forget killWorker: the destructor stops the threads.
}

TEST(KyoAudioMetaBufferTest, InvalidSliceListsLeaveThePlaylistAlone) {
  auto alias = rampFile("slices.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 88200);  // 2 s
  auto player = makePlayer(alias);
  ASSERT_TRUE(player);
  const std::vector<KyoSliceDescription> good = {{0.5, 1.0, 2}, {1.0, 1.5, -1}};
  player->setSlices(good);
  ASSERT_EQ(player->slices().size(), 2u);

  const double justOver = std::nextafter(0.1, 1.0);
  struct Case {
    const char* name;
    std::vector<KyoSliceDescription> slices;
    bool accepted;
  };
  const Case cases[] = {
      {"negative start", {{-0.1, 0.5, 1}}, false},
      {"play count 0", {{0.0, 0.5, 0}}, false},
      {"exactly 0.1 s", {{0.0, 0.1, 1}}, false},
      {"0.1 s by subtraction", {{0.5, 0.6, 1}}, false},
      {"end before start", {{0.9, 0.5, 1}}, false},
      {"end past the file", {{1.5, 2.0000001, 1}}, false},
      {"a gap between slices", {{0.0, 0.5, 1}, {0.5000001, 1.0, 1}}, false},
      {"bad second entry", {{0.0, 0.5, 1}, {0.5, 0.55, 1}}, false},
      {"0.1 s and one step", {{0.0, justOver, 1}}, true},
      {"end at the file's end", {{1.0, 2.0, 3}}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    player->setSlices(good);
    player->setSlices(c.slices);
    auto now = player->slices();
    if (c.accepted) {
      ASSERT_EQ(now.size(), c.slices.size());
      EXPECT_EQ(now[0].startTime, c.slices[0].startTime);
      EXPECT_EQ(now[0].endTime, c.slices[0].endTime);
      EXPECT_EQ(now[0].playCount, c.slices[0].playCount);
    } else {
      ASSERT_EQ(now.size(), 2u);
      EXPECT_EQ(now[1].playCount, -1);
    }
  }

  // Lengths: a counted slice as often as it plays, an endless one once.
  player->setSlices(good);
  EXPECT_DOUBLE_EQ(player->audioLengthInSeconds(), 0.5 * 2 + 0.5);
  EXPECT_DOUBLE_EQ(player->startTime(), 0.5);
  EXPECT_DOUBLE_EQ(player->endTime(), 1.5);
  // An empty list is the whole file once.
  player->setSlices({});
  ASSERT_EQ(player->slices().size(), 1u);
  EXPECT_DOUBLE_EQ(player->audioLengthInSeconds(), 2.0);
  EXPECT_DOUBLE_EQ(player->endTime(), 2.0);
  player->killWorker();
}

// Seeks replay the playlist in arithmetic, exactly, up to positions no show reaches.
TEST(KyoAudioMetaBufferTest, SeekPositionsAreExactForHugeValues) {
  auto alias = rampFile("seek.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 88200);
  auto player = makePlayer(alias);
  ASSERT_TRUE(player);
  // 4500 frames once, 4999 frames for ever (frames 4500 to 9499).
  player->setSlices(describe({{0, 4500, 1}, {4500, 9499, -1}}));

  struct Seek {
    int64_t seekFrames, expectedFrame;
  };
  const int64_t loop = 4999;
  const int64_t huge = int64_t(1) << 50;  // frames; the seconds stay exact in a double
  const Seek cases[] = {{0, 0},
                        {4409, 4409},
                        {4499, 4499},
                        {4500, 4500},
                        {4500 + loop - 1, 4500 + loop - 1},
                        {4500 + loop, 4500},
                        {4500 + 7 * loop + 123, 4500 + 123},
                        {huge, 4500 + (huge - 4500) % loop}};
  for (const Seek& c : cases) {
    SCOPED_TRACE(c.seekFrames);
    player->goToTime(double(c.seekFrames) / kRate);
    EXPECT_EQ(int64_t(player->currentFileTime() * kRate + 0.5), c.expectedFrame);
    EXPECT_EQ(int64_t(player->elapsedPlayTime() * kRate + 0.5), c.seekFrames);
    // The logical position counts the endless slice once: it never runs past its end.
    EXPECT_EQ(int64_t(player->elapsedLogicalTime() * kRate + 0.5), c.expectedFrame);
    EXPECT_NEAR(player->timeUntilLoop(), double(9499 - c.expectedFrame) / kRate, 1e-9);
  }

  // Counted slices run out; a seek past the playing length lands on the last end.
  player->setSlices(describe({{0, 4500, 1}, {4500, 9499, 3}, {9499, 14090, 2}}));
  const int64_t played = 4500 + 3 * loop + 2 * 4591;
  for (Seek c : {Seek{4500 + 2 * loop + 7, 4507}, Seek{4500 + 3 * loop, 9499}, Seek{4500 + 3 * loop + 4591 + 10, 9509},
                 Seek{played - 1, 14089}, Seek{played, 14090}, Seek{huge, 14090}}) {
    SCOPED_TRACE(c.seekFrames);
    player->goToTime(double(c.seekFrames) / kRate);
    EXPECT_EQ(int64_t(player->currentFileTime() * kRate + 0.5), c.expectedFrame);
    EXPECT_EQ(int64_t(player->elapsedLogicalTime() * kRate + 0.5), std::min(c.seekFrames, played));
  }
  player->killWorker();
}

// A play-once cue: the last read gives its audio then silence, the player notices
// the end only on the read after, and the play time runs on while the file time stays.
TEST(KyoAudioMetaBufferTest, PlayOnceFinishesOnTheReadAfterTheLastFrame) {
  auto alias = rampFile("once.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 30000);
  auto player = makePlayer(alias);
  ASSERT_TRUE(player);
  player->setSlices(describe({{1000, 10001, 1}}));
  player->goToTime(0);
  List list(1000);
  for (int64_t done = 0; done < 9000; done += 1000) ASSERT_EQ(readWhenReady(*player, list, 1000), 1000u);
  EXPECT_EQ(readWhenReady(*player, list, 1000), 1000u);
  EXPECT_EQ(list.channel(1)[0], rampSample(10000, 1));
  EXPECT_EQ(list.channel(1)[1], 0.0f);
  EXPECT_EQ(list.channel(0)[999], 0.0f);
  EXPECT_FALSE(player->isFinished());
  EXPECT_DOUBLE_EQ(player->timeUntilLoop(), 0.0);

  double before = KyoWallClockSeconds();
  std::fill_n(list.channel(0), 1000, 1.0f);
  EXPECT_EQ(player->readFrames(1000, list.get(), 0), 1000u);
  EXPECT_TRUE(player->isFinished());
  EXPECT_GE(player->approximateTimeOfFinish(), before);
  EXPECT_EQ(list.channel(0)[500], 0.0f);
  player->readFrames(1000, list.get(), 0);
  EXPECT_DOUBLE_EQ(player->elapsedPlayTime(), 12000 / kRate);
  EXPECT_DOUBLE_EQ(player->currentFileTime(), 10001 / kRate);

  // A seek brings it back.
  player->goToTime(0.01);
  EXPECT_FALSE(player->isFinished());
  EXPECT_DOUBLE_EQ(player->currentFileTime(), 1441 / kRate);
  ASSERT_EQ(readWhenReady(*player, list, 1000), 1000u);
  EXPECT_EQ(list.channel(0)[0], rampSample(1441, 0));
  player->killWorker();
}

// ---------------------------------------------------------------------------
// Drop-outs

// A wall clock that the test moves by hand; everything else is the real clock.
class HandWallClock : public KyoPlainClock {
 public:
  double wallClockSeconds() override { return m_wall.load(); }
  void advance(double seconds) { m_wall.store(m_wall.load() + seconds); }

 private:
  std::atomic<double> m_wall{2.0e9};
};

// Installs a clock for one test and puts the plain one back, whatever happens.
struct ClockInstallation {
  explicit ClockInstallation(std::shared_ptr<KyoClock> clock) { KyoInstallClock(std::move(clock)); }
  ~ClockInstallation() { KyoInstallClock(nullptr); }
};

// The disk does not answer: reads give counted silence, and once it does the
// audio stands where it would have stood. The loss is reported at most once a
// second, and a seek forgets what is owed.
TEST(KyoAudioMetaBufferTest, DropOutsKeepTheTimeLineAndAreReportedOnceASecond) {
  auto alias = rampFile("drops.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 60000);
  auto clock = std::make_shared<HandWallClock>();
  ClockInstallation installed(clock);
  LogCapture log;
  FillGate gate;
  auto player = makePlayer(alias);
  ASSERT_TRUE(player);
  auto reports = [&] { return log.matching("Warning: dropped"); };
  List list(700);
  auto readSilence = [&] {
    std::fill_n(list.channel(0), 700, 1.0f);
    EXPECT_EQ(player->readFrames(700, list.get(), 0), 700u);
    EXPECT_EQ(*std::max_element(list.channel(0), list.channel(0) + 700), 0.0f);
  };

  readSilence();  // no report came before, so this one is reported at once
  ASSERT_TRUE(eventually([&] { return reports().size() == 1; }));
  readSilence();
  readSilence();
  clock->advance(0.9);
  readSilence();
  clock->advance(0.2);  // 1.1 s since the first report
  readSilence();
  ASSERT_TRUE(eventually([&] { return reports().size() == 2; }));
  readSilence();  // owed, not reported within the second

  gate.open();
  List small(441);
  EXPECT_EQ(readWhenReady(*player, small, 441), 441u);
  for (uint32_t c = 0; c < kChannels; ++c)
    for (uint32_t i = 0; i < 441; ++i) ASSERT_EQ(small.channel(c)[i], rampSample(6 * 700 + i, c)) << i;
  const std::string file = " : " + alias->description();
  ASSERT_EQ(reports().size(), 2u);
  EXPECT_EQ(reports()[0], "Warning: dropped 700 frames (0.02 seconds of audio)" + file);
  EXPECT_EQ(reports()[1], "Warning: dropped 2800 frames (0.06 seconds of audio)" + file);

  // A seek zeroes the 700 frames still owed and restarts the window.
  player->goToTime(0.2);
  clock->advance(5);
  ASSERT_EQ(readWhenReady(*player, small, 441), 441u);
  EXPECT_EQ(small.channel(0)[0], rampSample(8820, 0));
  player->killWorker();
  player.reset();
  EXPECT_EQ(reports().size(), 2u);
}

// A control thread that seeks or changes the playlist while a stream's fill thread
// is stuck in a disk read must not keep the render thread waiting for that read.
TEST(KyoAudioMetaBufferTest, ControlThreadsNeverHoldTheRenderThreadForADiskRead) {
  auto alias = rampFile("stuck.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 60000);
  FillGate gate(true);
  for (int kind = 0; kind < 2; ++kind) {
    SCOPED_TRACE(kind == 0 ? "goToTime" : "setSlices");
    auto player = makePlayer(alias);
    ASSERT_TRUE(player);
    ASSERT_TRUE(eventually([&] { return player->isReadyToPlay(); }));
    // Take the ring below half: its fill thread wakes and is held in its next read.
    gate.close();
    List list(11100);
    player->readFrames(11100, list.get(), 0);
    ASSERT_TRUE(eventually([&] { return gate.waiting() == 1; }));

    std::atomic<bool> controlDone{false};
    std::thread control([&] {
      if (kind == 0)
        player->goToTime(0.3);
      else
        player->setSlices(describe({{0, 30000, 2}}));
      controlDone = true;
    });
    // The replacement streams are built only once the control thread has let go of
    // the player; their fill threads then wait in the gate beside the stuck one.
    EXPECT_TRUE(eventually([&] { return gate.waiting() >= 2; }));
    std::atomic<bool> readDone{false};
    std::thread render([&] {
      List small(256);
      player->readFrames(256, small.get(), 0);
      readDone = true;
    });
    EXPECT_TRUE(eventually([&] { return readDone.load(); }));
    // The control thread is still waiting for the stuck read; nothing else is.
    EXPECT_FALSE(controlDone.load());
    gate.open();
    render.join();
    control.join();
    EXPECT_TRUE(controlDone.load());
    player->killWorker();
  }
}

// ---------------------------------------------------------------------------
// Threads

// A render-like thread reads at a steady pace while a control thread seeks,
// changes playlists and devamps. No race, no deadlock, no allocation on the
// reader, and the player still plays exactly afterwards.
TEST(KyoAudioMetaBufferTest, RenderAndControlThreadsTogether) {
  auto alias = rampFile("threads.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 60000);
  auto player = makePlayer(alias);
  ASSERT_TRUE(player);
  KyoReadFramesInfo info;
  player->registerReadFramesInfo(&info);
  ASSERT_EQ(info.target, player.get());
  const auto looped = describe({{0, 5003, 1}, {5003, 9998, -1}, {9998, 20000, 1}});
  player->setSlices(looped);
  player->goToTime(0);

  std::atomic<bool> stop{false};
  std::atomic<uint64_t> reads{0};
  std::atomic<uint64_t> allocations{0};
  std::thread render([&] {
    List list(256);
    // One read before watching: first-touch work of the thread is not the normal path.
    info.method(info.target, 256, list.get(), 0);
    resetWatchedAllocations();
    {
      ScopedAllocationWatch watch;
      double next = KyoMonotonicSeconds();
      while (!stop.load()) {
        info.method(info.target, 256, list.get(), 0);
        reads.fetch_add(1);
        next += 0.001;
        KyoCurrentClock().sleepUntil(next);
      }
    }
    allocations = watchedAllocations();
  });

  for (int round = 0; round < 40; ++round) {
    const int step = round % 5;
    if (step == 0 || step == 3) player->goToTime(step == 0 ? 0.05 * (round % 7) : 0.0);
    if (step == 1) player->devamp();
    if (step == 2) player->setSlices(round % 2 ? looped : describe({{2000, 12000, 3}}));
    if (step == 4) (void)(player->timeUntilLoop() + player->elapsedLogicalTime() + player->isReadyToPlay());
    uint64_t seen = reads.load();
    ASSERT_TRUE(eventually([&] { return reads.load() >= seen + 3; }));
  }
  stop = true;
  render.join();
  EXPECT_EQ(allocations.load(), 0u);

  // Still exact after all that.
  player->setSlices(looped);
  player->goToTime(12000 / kRate);  // 2002 frames into the second pass of the loop
  List list(4000);
  ASSERT_EQ(readWhenReady(*player, list, 4000), 4000u);
  for (uint32_t i = 0; i < 4000; ++i) {
    int64_t frame = 5003 + (2002 + i) % 4995;  // wraps at 9998
    ASSERT_EQ(list.channel(0)[i], rampSample(frame, 0)) << i;
  }
  player->killWorker();
}

}  // namespace
