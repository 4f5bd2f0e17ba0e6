// Broken and hostile files: each gives its own clear log lines, an invalid reader
// (or one that ends early), and never a crash. Run under ASan and UBSan as well.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "audio/KyoAudioFile.h"
#include "foundation/KyoLog.h"
#include "support/EncodedFiles.h"
#include "support/TestFiles.h"
#include "support/Waiting.h"

using namespace sonto::test;

namespace {

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void put16(std::vector<uint8_t>& b, uint32_t v) {
  b.push_back(uint8_t(v));
  b.push_back(uint8_t(v >> 8));
}
void put32(std::vector<uint8_t>& b, uint32_t v) {
  put16(b, v & 0xFFFF);
  put16(b, v >> 16);
}

// A 16-bit PCM WAV whose header states the given rate and channel count, followed by
// a little data.
std::vector<uint8_t> wavWithHeader(uint32_t rate, uint32_t channels) {
  const uint32_t dataBytes = 4000;
  std::vector<uint8_t> b = {'R', 'I', 'F', 'F'};
  put32(b, 36 + dataBytes);
  b.insert(b.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
  put32(b, 16);
  put16(b, 1);
  put16(b, channels);
  put32(b, rate);
  put32(b, rate * channels * 2);
  put16(b, channels * 2);
  put16(b, 16);
  b.insert(b.end(), {'d', 'a', 't', 'a'});
  put32(b, dataBytes);
  for (uint32_t i = 0; i < dataBytes; ++i) b.push_back(uint8_t(i * 7));
  return b;
}

// Opens the file, expecting it to be refused: invalid, no format, no length, reads
// and seeks answering nothing, and a log that says why.
std::string expectRefused(const std::string& path) {
  LogCapture log;
  auto file = openFile(path);
  EXPECT_FALSE(file->validFile());
  EXPECT_FALSE(file->fileFormat());
  EXPECT_EQ(file->fileChannels(), 0u);
  EXPECT_EQ(file->fileLengthInSeconds(), 0.0);
  file->setReadFormat(KyoAudioStreamDescription(44100, 2));
  file->goToFrame(100);
  ListHolder list(2, 256, false);
  EXPECT_EQ(file->readFrames(256, list.get()), 0u);
  EXPECT_FALSE(log.lines().empty());
  return log.all();
}

// The fallback's refusal: either it could not make sense of the file (three lines:
// the file, the library's code, its description) or what it found holds no audio.
void expectFallbackRefusal(const std::string& path, const std::string& log) {
  const std::string noAudio = "Error: Couldn't find any audio in the file: " + path + "\n";
  if (log == noAudio) return;
  const std::string first = "Error: Could not create KyoAudioFile with file: " + path + "\n       Code: ";
  size_t at = log.find(first);
  ASSERT_NE(at, std::string::npos) << log;
  size_t description = log.find("\n       Description: ", at + first.size());
  ASSERT_NE(description, std::string::npos) << log;
  EXPECT_GT(log.size(), description + 22) << "an empty description: " << log;
}

// Reads whatever a damaged file gives, to its end; answers the frames read.
int64_t readToTheEnd(KyoAudioFile& file) {
  uint32_t channels = file.fileChannels();
  file.setReadFormat(KyoAudioStreamDescription(file.fileFormat()->sampleRate(), channels));
  ListHolder list(channels, 1024, false);
  int64_t total = 0;
  for (int guard = 0; guard < 100000; ++guard) {
    list.reset(1024);
    uint32_t got = file.readFrames(1024, list.get());
    if (got == 0) break;
    total += got;
  }
  EXPECT_TRUE(file.isFinished());
  return total;
}

}  // namespace

TEST(KyoAudioFileBadInputTest, MissingFileIsReportedOnceAsNotFoundWithNoFallback) {
  std::string path = temporaryPath("gone.wav");
  ASSERT_TRUE(writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 1, 100));
  auto alias = KyoAlias::aliasWithPath(path);
  ASSERT_TRUE(alias);
  ASSERT_EQ(alias->fullPath(), path);  // resolved once, as a loaded cue's alias is
  ASSERT_EQ(::unlink(path.c_str()), 0);

  LogCapture log;
  KyoAudioFile file(alias);
  EXPECT_FALSE(file.validFile());
  ASSERT_EQ(log.lines().size(), 1u) << log.all();
  EXPECT_EQ(log.lines()[0], "Error: Could not find file " + path);
}

TEST(KyoAudioFileBadInputTest, RunningOutOfFileHandlesGivesItsOwnMessageAndNoFallback) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // The sanitizers' runtime opens files of its own while it checks (type lookups),
  // and reports nonsense when every descriptor is taken.
  GTEST_SKIP() << "not under a sanitizer: it needs descriptors of its own";
#endif
  std::string path = temporaryPath("handles.wav");
  ASSERT_TRUE(writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 1, 100));
  auto alias = KyoAlias::aliasWithPath(path);
  ASSERT_TRUE(alias);

  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  // Take every handle below a low limit, then try to open.
  rlimit low = saved;
  low.rlim_cur = std::min<rlim_t>(saved.rlim_cur, 512);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<int> taken;
  for (int fd; (fd = ::dup(2)) >= 0;) taken.push_back(fd);
  ASSERT_EQ(errno, EMFILE);

  std::vector<std::string> lines;
  KyoSetLogSink([&lines](const std::string& line) { lines.push_back(line); });
  bool valid;
  {
    KyoAudioFile file(alias);
    valid = file.validFile();
  }
  KyoSetLogSink(nullptr);
  for (int fd : taken) ::close(fd);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);

  EXPECT_FALSE(valid);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "Error: Too many files open when opening " + path);

  // With handles back, the same alias opens.
  KyoAudioFile again(alias);
  EXPECT_TRUE(again.validFile());
}

// Files that are no audio, WAV headers that claim absurd rates or channel counts, and
// a video without sound, which has a message of its own.
TEST(KyoAudioFileBadInputTest, FilesThatAreNotAudioAreRefusedWithTheFallbacksLines) {
  std::mt19937 random(1234);
  std::vector<uint8_t> noise(64 * 1024);
  for (uint8_t& byte : noise) byte = uint8_t(random());
  std::string film = temporaryPath("film-source.mp4");
  ASSERT_EQ(run("ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i color=c=black:s=64x48:r=25:d=1 "
                "-c:v mpeg4 '" +
                film + "'"),
            0);

  struct Case {
    const char* name;
    std::vector<uint8_t> bytes;
    bool soundless = false;
  };
  const Case cases[] = {
      {"empty.wav", {}},
      {"noise.wav", noise},
      {"noise.flac", noise},
      {"noise.m4a", noise},
      {"text.aiff", {'n', 'o', 't', ' ', 'a', 'u', 'd', 'i', 'o', '\n'}},
      {"zero-hz.wav", wavWithHeader(0, 2)},
      {"ten-thousand-channels.wav", wavWithHeader(44100, 10000)},
      {"zero-channels.wav", wavWithHeader(44100, 0)},
      {"four-gigahertz.wav", wavWithHeader(4000000000u, 1)},
      {"silent-film.mp4", readBytes(film), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string path = temporaryPath(c.name);
    writeBytes(path, c.bytes);
    std::string log = expectRefused(path);
    if (c.soundless)
      EXPECT_EQ(log, "Error: Couldn't find any audio in the file: " + path + "\n");
    else
      expectFallbackRefusal(path, log);
  }
}

// Random bytes named .mp3 are the hardest case: MPEG audio has no header to check,
// and a decoder can find frame syncs in noise. Either the file is refused, or what
// comes out is finite, bounded and ends.
TEST(KyoAudioFileBadInputTest, RandomBytesNamedMp3NeverCrash) {
  for (unsigned seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<uint8_t> noise(48 * 1024);
    for (uint8_t& byte : noise) byte = uint8_t(random());
    std::string path = temporaryPath("noise" + std::to_string(seed) + ".mp3");
    writeBytes(path, noise);
    LogCapture log;
    auto file = openFile(path);
    if (!file->validFile()) {
      EXPECT_NE(log.all().find("Error: "), std::string::npos);
      continue;
    }
    EXPECT_LT(readToTheEnd(*file), int64_t(noise.size()) * 8);
  }
}

TEST(KyoAudioFileBadInputTest, AFolderOrAFileWhoseReadsFailIsRefused) {
  std::string folder = temporaryPath("folder.wav");
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  std::string log = expectRefused(folder);
  EXPECT_NE(log.find(folder), std::string::npos) << log;

  // A file that opens but whose every read fails (EIO). Permissions would do the
  // same for other users, but the tests may run as root, whom they do not stop.
  std::string path = temporaryPath("io-error.wav");
  ASSERT_EQ(::symlink("/proc/self/mem", path.c_str()), 0);
  log = expectRefused(path);
  EXPECT_NE(log.find("Error: Could not create KyoAudioFile with file: "), std::string::npos) << log;
  EXPECT_NE(log.find("Description: Input/output error"), std::string::npos) << log;
}

TEST(KyoAudioFileBadInputTest, AFileWithoutReadPermissionIsRefused) {
  if (::geteuid() == 0) GTEST_SKIP() << "running as root: permissions do not stop reading (see the EIO case)";
  std::string path = temporaryPath("locked.wav");
  ASSERT_TRUE(writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 1, 100));
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  std::string log = expectRefused(path);
  EXPECT_NE(log.find(path), std::string::npos) << log;
}

// A file cut in half: what is there plays, the end comes early, and nothing reads
// past the data.
TEST(KyoAudioFileBadInputTest, FilesCutInHalfPlayWhatIsThereAndEnd) {
  const int64_t frames = 40000;
  struct Case {
    const char* name;
    const char* arguments;  // ffmpeg options from a WAV, or null for a libsndfile ramp
    int format;
  };
  const Case cases[] = {
      {"cut.wav", nullptr, SF_FORMAT_WAV | SF_FORMAT_PCM_16},
      {"cut.aiff", nullptr, SF_FORMAT_AIFF | SF_FORMAT_PCM_24},
      {"cut.flac", nullptr, SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
      {"cut.mp3", "-c:a libmp3lame -b:a 128k", 0},
      {"cut.ogg", "-c:a libvorbis", 0},
      {"cut-faststart.m4a", "-c:a aac -movflags +faststart", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string whole = temporaryPath(std::string("whole-") + c.name);
    if (c.arguments) {
      std::string source = temporaryPath(std::string("source-") + c.name + ".wav");
      ASSERT_TRUE(writeChirpWav(source, 44100, 2, frames));
      ASSERT_TRUE(encodeWithFFmpeg(source, c.arguments, whole));
    } else {
      ASSERT_TRUE(writeRampFile(whole, c.format, 44100, 2, frames));
    }
    std::vector<uint8_t> bytes = readBytes(whole);
    bytes.resize(bytes.size() / 2);
    std::string path = temporaryPath(c.name);
    writeBytes(path, bytes);

    LogCapture log;
    auto file = openFile(path);
    if (!file->validFile()) {
      // Refused outright is acceptable for a container whose index is gone; it must say so.
      expectFallbackRefusal(path, log.all());
      continue;
    }
    int64_t got = readToTheEnd(*file);
    EXPECT_GT(got, 0);
    EXPECT_LT(got, frames * 3 / 4);
    if (!c.arguments) {
      // Lossless: what is there is exact, up to where the data stops.
      file->goToFrame(0);
      Channels data = readSome(*file, 2, 5000, 1000);
      ASSERT_EQ(data[0].size(), 5000u);
      for (uint32_t ch = 0; ch < 2; ++ch)
        for (size_t i = 0; i < data[ch].size(); ++i) ASSERT_EQ(data[ch][i], rampSample(int64_t(i), ch)) << i;
    }
    // A seek past what is left ends at once, and no seek crashes.
    file->goToFrame(frames - 10);
    ListHolder list(2, 512, false);
    EXPECT_EQ(file->readFrames(512, list.get()), 0u);
    file->goToFrame(100);
    list.reset(512);
    EXPECT_GT(file->readFrames(512, list.get()), 0u);
  }
}

// Hostile media: what could hold the opening thread (a FIFO waits for a writer) or
// read without end is refused before any open; a cut Ogg plays what decodes, with
// that length; a FLAC that cannot go to its start is refused. Refusals say why.
TEST(KyoAudioFileBadInputTest, HostileMediaIsRefusedInWordsOrPlaysWhatDecodes) {
  const std::string fifo = temporaryPath("fifo.wav"), ogg = temporaryPath("cut.ogg"),
                    flac = temporaryPath("flipped.flac");
  ASSERT_TRUE(makeAnsweredFifo(fifo));
  ASSERT_TRUE(writeRampFile(ogg, SF_FORMAT_OGG | SF_FORMAT_VORBIS, 44100, 2, 441000));
  ASSERT_TRUE(writeRampFile(flac, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 44100, 2, 44100));
  std::vector<uint8_t> bytes = readBytes(ogg);
  writeBytes(ogg, std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(bytes.size() / 2)));
  // Past "fLaC" and its metadata blocks (a last-block bit, a 24-bit length) into the first frame.
  bytes = readBytes(flac);
  size_t at = 4;
  for (bool last = false; !last; at += 4 + size_t(bytes.at(at + 1) << 16 | bytes.at(at + 2) << 8 | bytes.at(at + 3)))
    last = bytes[at] & 0x80;
  bytes.at(at + 20) ^= 0xFF;
  writeBytes(flac, bytes);
  // Each path with its refusal; none: it plays what decodes.
  const std::pair<std::string, std::string> cases[] = {
      {fifo, "it is a FIFO, not a regular file"},
      {"/dev/null", "it is a device, not a regular file"},
      {ogg, ""},
      {flac, "it is damaged: its start cannot be decoded; replace it with a good copy"},
  };
  for (const auto& [path, refusal] : cases) {
    SCOPED_TRACE(path);
    if (!refusal.empty()) {
      EXPECT_EQ(expectRefused(path), "Error: Cannot read '" + path + "': " + refusal + "\n");
      continue;
    }
    auto file = openFile(path);
    ASSERT_TRUE(file->validFile());
    EXPECT_LT(file->_fileLengthInFrames(), 441000);
    EXPECT_EQ(readToTheEnd(*file), file->_fileLengthInFrames());
  }
}
