// `sonto info` as an operator runs it: the real binary (built beside the tests),
// its exit status, and what it prints on each stream.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <sstream>
#include <string>

#include "support/TestFiles.h"

using namespace sonto::test;

namespace {

struct Outcome {
  int status;
  std::string out, err;
};

Outcome runInfo(const std::string& binary, const std::string& arguments) {
  std::string out = temporaryPath("info.out"), err = temporaryPath("info.err");
  int status = run("'" + binary + "' info " + arguments + " >'" + out + "' 2>'" + err + "'");
  return {status, sonto::test::readText(out), sonto::test::readText(err)};
}

}  // namespace

TEST(InfoCommandTest, DescribesGoodFilesAndExplainsBadOnes) {
  std::string binary = sontoBinary();
  if (binary.empty()) GTEST_SKIP() << "the sonto binary is not built beside the tests";

  std::string good = temporaryPath("good file.wav");
  ASSERT_TRUE(writeRampFile(good, SF_FORMAT_WAV | SF_FORMAT_PCM_24, 48000, 2, 96000));
  std::string video = temporaryPath("clip.mp4");
  ASSERT_EQ(run("ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i color=c=black:s=64x48:r=25:d=1 "
                "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=1 -c:v mpeg4 -c:a aac -shortest '" +
                video + "'"),
            0);
  std::string garbage = temporaryPath("garbage.wav");
  std::ofstream(garbage) << "this is not audio at all\n";
  std::string missing = temporaryPath("missing.wav");
  std::string fifo = temporaryPath("info-fifo.wav");
  ASSERT_TRUE(makeAnsweredFifo(fifo));
  const std::string loop = temporaryPath("loop.wav");
  ASSERT_EQ(run("ln -sf '" + loop + "' '" + loop + "'"), 0);

  Outcome one = runInfo(binary, "'" + good + "'");
  EXPECT_EQ(one.status, 0);
  EXPECT_EQ(one.err, "");
  EXPECT_NE(one.out.find(good), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("libsndfile"), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("48000 Hz"), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("channels:    2"), std::string::npos) << one.out;
  EXPECT_NE(one.out.find("96000 frames, 2.000 seconds"), std::string::npos) << one.out;

  Outcome film = runInfo(binary, "'" + video + "'");
  EXPECT_EQ(film.status, 0) << film.err;
  EXPECT_NE(film.out.find("ffmpeg"), std::string::npos) << film.out;
  EXPECT_NE(film.out.find("44100 Hz"), std::string::npos) << film.out;

  // Any file that fails makes the status 1; the good ones are still described.
  Outcome mixed =
      runInfo(binary, "'" + good + "' '" + garbage + "' '" + missing + "' '" + fifo + "' '" + loop + "'");
  EXPECT_EQ(mixed.status, 1);
  EXPECT_NE(mixed.out.find(good), std::string::npos);
  EXPECT_EQ(mixed.out.find(garbage), std::string::npos) << "a bad file belongs on standard error";
  EXPECT_NE(mixed.err.find(garbage + ": cannot be read: "), std::string::npos) << mixed.err;
  EXPECT_NE(mixed.err.find(missing + ": cannot be read: file not found"), std::string::npos) << mixed.err;
  EXPECT_NE(mixed.err.find(fifo + ": cannot be read: it is a FIFO, not a regular file\n"), std::string::npos);
  EXPECT_NE(mixed.err.find(loop + ": cannot be read: its symbolic links lead round in a loop\n"), std::string::npos);
  // One line per bad file: the reason, not the reader's whole log.
  EXPECT_EQ(std::count(mixed.err.begin(), mixed.err.end(), '\n'), 4) << mixed.err;

  Outcome none = runInfo(binary, "");
  EXPECT_NE(none.status, 0);
  EXPECT_NE(none.err.find("usage"), std::string::npos) << none.err;
}
