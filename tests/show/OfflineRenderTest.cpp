// The offline renderer: a show under a script of keys and notes, rendered on the
// virtual clock and checked sample by sample against what its cues must play (ramp
// files whose samples encode their frame number); the same render with a starved
// disk; the script's bad lines.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/stat.h>

#include <cstdlib>

#include "ShowTestSupport.h"
#include "audio/KyoAudioBuffer.h"
#include "audio/KyoAudioDevice.h"
#include "foundation/KyoClock.h"
#include "show/AudioCue.h"
#include "show/SontoEventScript.h"
#include "show/SontoOfflineRender.h"
#include "show/Workspace.h"
#include "support/TestFiles.h"

using namespace showtest;
using sonto::test::rampSample;

namespace {

struct Format {
  double rate;
  uint32_t frames;
};

// One sound of the expected output: a file from frame 0, from `start` to `end` (output
// frames, end exclusive), looping every `loop` frames when loop is not 0.
struct Sound {
  int64_t start, end, loop = 0;
  float gain = 1.0f;
  int64_t fileOffset = 0;  // the file frame at `start`
};

std::vector<std::vector<float>> expectedOutput(size_t length, const std::vector<Sound>& sounds) {
  std::vector<std::vector<float>> out(2, std::vector<float>(length, 0.0f));
  for (uint32_t c = 0; c < 2; ++c) {
    for (const Sound& s : sounds) {
      for (int64_t f = s.start; f < s.end && f < int64_t(length); ++f) {
        int64_t frame = f - s.start + s.fileOffset;
        if (s.loop) frame %= s.loop;
        out[c][size_t(f)] += rampSample(frame, c) * s.gain;
      }
    }
  }
  return out;
}

// Frames that differ, with the first few reported.
size_t differences(const std::vector<std::vector<float>>& got, const std::vector<std::vector<float>>& want) {
  size_t wrong = 0;
  for (size_t c = 0; c < want.size(); ++c) {
    for (size_t f = 0; f < want[c].size(); ++f) {
      const float g = f < got.at(c).size() ? got[c][f] : NAN;
      if (g != want[c][f] && wrong++ < 4) ADD_FAILURE() << "channel " << c << " frame " << f << ": " << g << " != " << want[c][f];
    }
  }
  return wrong;
}

class OfflineRenderTest : public ::testing::TestWithParam<Format> {
 protected:
  void SetUp() override {
    setenv("XDG_CACHE_HOME", sonto::test::temporaryPath("cache").c_str(), 1);
    std::string error;
    renderer = SontoOfflineRender::create(*time.clock, rate(), GetParam().frames, 2, &error);
    ASSERT_TRUE(renderer) << error;
    workspace = std::make_unique<Workspace>(renderer->device());
    workspace->addCart(std::make_shared<Cart>());
  }
  void TearDown() override {
    KyoAudioBuffer::setFillLimiterForTesting(nullptr);
    time.clock->settle();
    if (workspace) workspace->close();
    workspace.reset();
    time.clock->settle();
    renderer.reset();
  }
  double rate() const { return GetParam().rate; }
  int64_t framesOf(double seconds) const { return SontoEventScript::firstFrame(seconds, rate()); }
  // The output frame where an event at this time takes effect: its cycle's start.
  int64_t at(double seconds) const {
    const int64_t b = GetParam().frames;
    return (framesOf(seconds) + b - 1) / b * b;
  }
  std::shared_ptr<AudioCue> addCue(const std::string& name, double seconds, unsigned long index, Cart* cart = nullptr) {
    const std::string path = rampFile(name + "-" + std::to_string(int(rate())) + ".wav", rate(), 2, framesOf(seconds));
    auto cue = AudioCue::createWithFile(path, renderer->device());
    EXPECT_TRUE(cue && cue->isLoaded()) << name;
    cart = cart ? cart : workspace->carts().front().get();
    cart->setCue(cue, index);
    cue->setCart(cart);
    return cue;
  }
  std::vector<SontoScriptEvent> script(const std::string& text) {
    std::string error;
    auto events = SontoEventScript::parse(text, "test", &error);
    EXPECT_TRUE(events) << error;
    return events ? *events : std::vector<SontoScriptEvent>{};
  }

  VirtualTime time;  // first in, last out
  EngineSources sources;
  std::unique_ptr<SontoOfflineRender> renderer;
  std::unique_ptr<Workspace> workspace;
};

// A loop by MIDI on the show's channel, a hold cue by key, a solo cue by key that
// cuts the loop; a cue with the same key on the second cart stays silent.
constexpr const char* kShowScript = R"(# the operator
0.03  note 60 on channel 1      # another channel: filtered out
0.05  note 60 on 100 channel 2  # the loop
0.06  note 60 off channel 2     # no hold: nothing
0.10  key q down                # the hold cue
0.12  key Q down                # still held: a repeat, dropped
0.40  key Q up
0.70  key W down                # solo
0.75  key W up
)";

TEST_P(OfflineRenderTest, ShowUnderAScriptIsSampleExactAndEndsWithItsLastCue) {
  workspace->setMidiChannel(2);
  auto loop = addCue("loop", 0.2, 0);
  loop->setLoops(true);
  loop->setMidiNote(60);
  auto hold = addCue("hold", 2.0, 1);
  hold->setHotkey("Q");
  hold->setHold(true);
  auto solo = addCue("solo", 0.5, 2);
  solo->setHotkey("W");
  solo->setSolo(true);
  auto secondCart = std::make_shared<Cart>();
  workspace->addCart(secondCart);
  addCue("elsewhere", 1.0, 0, secondCart.get())->setHotkey("W");

  SontoOfflineRender::Result result;
  auto out = renderer->renderToMemory(*workspace, script(kShowScript), 0, &result);
  const int64_t soloEnd = at(0.70) + framesOf(0.5);
  ASSERT_GE(result.frames, soloEnd) << "the render lasts until the last cue has played out";
  auto want = expectedOutput(size_t(result.frames),
                             {{at(0.05), at(0.70), framesOf(0.2)}, {at(0.10), at(0.40)}, {at(0.70), soloEnd}});
  EXPECT_EQ(differences(out, want), 0u);
  EXPECT_EQ(result.lateCycles, 0u);
  EXPECT_FALSE(result.reachedCap);
  EXPECT_EQ(result.frames % GetParam().frames, 0) << "until done renders whole cycles";
  EXPECT_LE(result.frames, soloEnd + framesOf(AudioCue::kProgressInterval) + 2 * GetParam().frames)
      << "the render ends within a progress tick of the last cue";
  EXPECT_FALSE(loop->playing());
  EXPECT_FALSE(solo->playing());
}

// The transport of the whole show and the master level, on one long cue; the pause
// and the resume each given 150,000 times at their instant, which must change nothing
// and take time linear in the events (a schedule quadratic in them takes minutes).
TEST_P(OfflineRenderTest, TransportAndMasterEventsLandOnTheirCycles) {
  addCue("long", 2.0, 0)->setHotkey("1");
  std::string repeated;
  for (const char* line : {"0.1 pause-all\n", "0.2 resume-all\n"})
    for (int i = 0; i < 150000; ++i) repeated += line;
  SontoOfflineRender::Result result;
  auto out = renderer->renderToMemory(
      *workspace, script("0 key 1 down\n" + repeated + "0.3 volume 0.5\n0.4 stop-all\n"), 0.45, &result);
  ASSERT_EQ(result.frames, framesOf(0.45)) << "a given length is exact to the frame";
  const int64_t paused = at(0.2) - at(0.1);
  auto want = expectedOutput(size_t(framesOf(0.45)), {{0, at(0.1)},
                                                      {at(0.2), at(0.3), 0, 1.0f, at(0.1)},
                                                      {at(0.3), at(0.4), 0, 0.5f, at(0.3) - paused}});
  EXPECT_EQ(differences(out, want), 0u);
}

// A disk that hands over a few frames at a time with a pause between: the render
// waits for the read-ahead and comes out the same.
TEST_P(OfflineRenderTest, StarvedDiskGivesTheSameRender) {
  auto loop = addCue("fastloop", 0.2, 0);
  loop->setLoops(true);
  loop->setHotkey("1");
  auto fast = renderer->renderToMemory(*workspace, script("0.01 key 1 down\n0.5 stop-all\n"), 0.6);
  KyoAudioBuffer::setFillLimiterForTesting([](uint32_t wanted) {
    KyoPlainClock().sleepFor(0.0005);
    return std::min<uint32_t>(wanted, 97);
  });
  auto slowLoop = addCue("slowloop", 0.2, 1);
  slowLoop->setLoops(true);
  slowLoop->setHotkey("2");
  SontoOfflineRender::Result result;
  auto slow = renderer->renderToMemory(*workspace, script("0.01 key 2 down\n0.5 stop-all\n"), 0.6, &result);
  EXPECT_EQ(result.lateCycles, 0u);
  EXPECT_EQ(differences(slow, fast), 0u);
  EXPECT_EQ(differences(fast, expectedOutput(fast[0].size(), {{at(0.01), at(0.5), framesOf(0.2)}})), 0u);
}

INSTANTIATE_TEST_SUITE_P(Formats, OfflineRenderTest,
                         ::testing::Values(Format{48000, 512}, Format{44100, 100}, Format{96000, 1024}),
                         [](const auto& info) {
                           return std::to_string(int(info.param.rate)) + "x" + std::to_string(info.param.frames);
                         });

TEST(EventScriptTest, BadLinesAreNamedByTheirNumber) {
  const struct {
    const char* line;
    const char* message;
  } cases[] = {
      {"1 jump", "unknown action 'jump'"},
      {"x panic", "bad time 'x'"},
      {"-1 panic", "bad time '-1'"},
      {"nan panic", "bad time 'nan'"},
      {"1e999 panic", "bad time '1e999'"},
      {"2", "missing action"},
      {"1 key", "'key' needs a key"},
      {"1 key QW down", "'QW' is not one key"},
      {"1 key Q press", "expected 'down' or 'up'"},
      {"1 note 128 on", "bad note '128'"},
      {"1 note 60 hit", "expected 'on' or 'off'"},
      {"1 note 60 on 200", "bad velocity '200'"},
      {"1 note 60 on channel 17", "bad channel '17'"},
      {"1 note 60 on channel", "bad channel ''"},
      {"1 volume loud", "bad gain 'loud'"},
      {"1 volume -0.5", "bad gain '-0.5'"},
      {"1 panic now", "unexpected 'now' after 'panic'"},
      {"1 note 60 off 0 channel 3 x", "unexpected 'x'"},
  };
  for (const auto& c : cases) {
    std::string error;
    const std::string text = "# header\n\n0.5 duck\r\n" + std::string(c.line) + "\n9 panic\n";
    EXPECT_FALSE(SontoEventScript::parse(text, "events.txt", &error)) << c.line;
    EXPECT_EQ(error.rfind("events.txt:4: " + std::string(c.message), 0), 0u) << c.line << " -> " << error;
  }

  std::string error;
  EXPECT_FALSE(SontoEventScript::readFile(sonto::test::temporaryPath("no-such-script"), &error));
  EXPECT_NE(error.find("cannot be read"), std::string::npos) << error;
  EXPECT_FALSE(SontoEventScript::readFile(sonto::test::temporaryFolder(), &error)) << "a folder is no script";
}

// Files that no operator writes but a script may be given: each is refused in a
// message of one short line, without waiting on a FIFO or reading past the cap, or
// read as meant.
TEST(EventScriptTest, HostileScriptsAreRefusedInShortOrReadAsMeant) {
  const std::string fifo = sonto::test::temporaryPath("script-fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string atCap = std::string(SontoEventScript::kMaxFileBytes - 7, '#') + "\n1 duck";
  const std::string accents = "ééééééééééééééééééé";  // 38 bytes
  const struct {
    std::string path, text, message;  // no message: read
  } cases[] = {
      {"past", "86400 duck\n1e15 panic", ":2: time '1e15' is past the longest render (86400 seconds)"},
      {"bom", "\xEF\xBB\xBF" "0.5 duck\n", ""},
      {"long", "1 " + std::string(1 << 20, 'x'), ":1: unknown action '" + std::string(40, 'x') + "…'"},
      {"accents", "1 key a" + accents + accents + " down", ":1: 'a" + accents + "…' is not one key"},
      {"cap", atCap, ""},
      {"over", atCap + "\n", ": cannot be read: larger than 4 MB, the most an event script may be"},
      {"/dev/zero", "", ": cannot be read: not a regular file"},
      {fifo, "", ": cannot be read: not a regular file"},
  };
  for (const auto& c : cases) {
    const std::string path = c.path[0] == '/' ? c.path : sonto::test::temporaryPath(c.path);
    if (!c.text.empty()) writeBytes(path, c.text);
    std::string error;
    EXPECT_EQ(bool(SontoEventScript::readFile(path, &error)), c.message.empty()) << c.path;
    EXPECT_EQ(error, c.message.empty() ? "" : path + c.message);
  }
}

TEST(EventScriptTest, EventsComeInTimeOrderWithTheirArguments) {
  auto events = SontoEventScript::parse("2 key é up\n1 note 5 off 64 channel 16 # trailing\n1 volume 0.25\n"
                                        "0 hard-stop-all\n1 note 7 on",
                                        "s");
  ASSERT_TRUE(events);
  ASSERT_EQ(events->size(), 5u);
  using A = SontoScriptEvent::Action;
  const auto& e = *events;
  EXPECT_EQ(e[0].action, A::HardStopAll);
  EXPECT_EQ(e[1].action, A::NoteOff) << "equal times keep the order of the lines";
  EXPECT_EQ(e[1].note, 5);
  EXPECT_EQ(e[1].velocity, 64);
  EXPECT_EQ(e[1].channel, 16);
  EXPECT_EQ(e[2].gain, 0.25f);
  EXPECT_EQ(e[3].velocity, 127);
  EXPECT_EQ(e[3].channel, 1);
  EXPECT_EQ(e[4].key, "É") << "keys are stored as cues store them";
  EXPECT_EQ(e[4].line, 1);

  // Times on a frame land on it; others on the frame after.
  EXPECT_EQ(SontoEventScript::firstFrame(0.1, 48000), 4800);
  EXPECT_EQ(SontoEventScript::firstFrame(0.7, 44100), 30870);
  EXPECT_EQ(SontoEventScript::firstFrame(1.0 / 3, 48000), 16000);
  EXPECT_EQ(SontoEventScript::firstFrame(0.00001, 48000), 1);
}

// --- sonto render, the binary built beside the tests ---

std::vector<std::vector<float>> readWav(const std::string& path, SF_INFO& info) {
  info = {};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (!file) return {};
  std::vector<float> interleaved(size_t(info.frames) * size_t(info.channels));
  sf_readf_float(file, interleaved.data(), info.frames);
  sf_close(file);
  std::vector<std::vector<float>> channels(size_t(info.channels), std::vector<float>(size_t(info.frames)));
  for (size_t f = 0; f < size_t(info.frames); ++f)
    for (size_t c = 0; c < channels.size(); ++c) channels[c][f] = interleaved[f * channels.size() + c];
  return channels;
}

TEST(RenderCommandTest, SavedShowRendersToAWavAndBadInputGetsItsStatus) {
  const std::string binary = sonto::test::sontoBinary();
  if (binary.empty()) GTEST_SKIP() << "the sonto binary is not built beside the tests";
  setenv("XDG_CACHE_HOME", sonto::test::temporaryPath("cache").c_str(), 1);
  const std::string folder = makeFolder("render-command");
  const std::string show = folder + "/Show.sonto";
  {
    VirtualTime time;
    EngineSources sources;
    OfflineDevice device(2, 48000, 256);
    Workspace workspace(device.device);
    auto cart = std::make_shared<Cart>();
    workspace.addCart(cart);
    auto cue = AudioCue::createWithFile(rampFile("command.wav", 48000, 2, 14400), device.device);
    cue->setHotkey("1");
    cart->setCue(cue, 0);
    cue->setCart(cart.get());
    SavingError error;
    ASSERT_TRUE(workspace.writeToURL(urlOf(show), &error)) << error.message;
    workspace.close();
    time.clock->settle();
  }
  writeBytes(folder + "/events.txt", "# fire the only cue\n0.02 key 1 down\n");
  writeBytes(folder + "/bad.txt", "0.02 key 1 down\n0.5 jump\n");
  const std::string out = folder + "/out.wav", err = folder + "/err.txt";
  auto run = [&](const std::string& arguments) {
    return sonto::test::run("'" + binary + "' render " + arguments + " >/dev/null 2>'" + err + "'");
  };

  const std::string whole = "'" + show + "' -o '" + out + "' --buffer 256 --events '" + folder + "/events.txt'";
  ASSERT_EQ(run(whole), 0) << readBytes(err);
  const std::string firstRun = readBytes(out);
  ASSERT_EQ(run(whole), 0) << readBytes(err);
  EXPECT_TRUE(readBytes(out) == firstRun) << "the same render, byte for byte, header included";
  EXPECT_EQ(readBytes(err).find("sonto render"), std::string::npos) << readBytes(err);
  EXPECT_EQ(readBytes(out).substr(0, 4), "RIFF");
  SF_INFO info;
  auto samples = readWav(out, info);
  EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  EXPECT_EQ(info.samplerate, 48000);
  ASSERT_EQ(info.channels, 2);
  // 0.02 s is frame 960, inside the fourth cycle of 256: the cue starts on the fifth.
  ASSERT_GE(info.frames, 1024 + 14400);
  EXPECT_EQ(differences(samples, expectedOutput(size_t(info.frames), {{1024, 1024 + 14400}})), 0u);

  // Levels that no control can set, written into the file by hand, play at the most
  // a control can set (the cue and the master at 1): the same samples, all finite.
  const std::string loud = folder + "/Loud.sonto";
  sonto::test::run("cp -r '" + show + "' '" + loud + "'");
  std::string document = readBytes(loud + "/document");
  for (const auto& [from, to] : {std::pair<std::string, std::string>{"\"masterVolume\":1,", "\"masterVolume\":1000,"},
                                 {"\"volume\":1", "\"volume\":3e38"}}) {
    ASSERT_NE(document.find(from), std::string::npos) << from;
    document.replace(document.find(from), from.size(), to);
  }
  writeBytes(loud + "/document", document);
  ASSERT_EQ(run("'" + loud + "' -o '" + out + "' --buffer 256 --events '" + folder + "/events.txt'"), 0);
  EXPECT_NE(readBytes(err).find("The master level was 1000, outside 0 to 1; it plays at 1"), std::string::npos)
      << readBytes(err);
  EXPECT_EQ(differences(readWav(out, info), samples), 0u);
  // And the check says so, where the untouched show has nothing to say.
  const std::string checked = folder + "/check.txt";
  EXPECT_EQ(sonto::test::run("'" + binary + "' check '" + show + "' >'" + checked + "'"), 0) << readBytes(checked);
  EXPECT_EQ(sonto::test::run("'" + binary + "' check '" + loud + "' >'" + checked + "'"), 1);
  EXPECT_EQ(readBytes(checked), loud + ": The volume of the cue \"command\" was 3e+38, outside 0 to 1; it plays at 1\n" +
                                    loud + ": The master level was 1000, outside 0 to 1; it plays at 1\n");

  // Another process, another length: the same samples.
  ASSERT_EQ(run("'" + show + "' -o '" + out + "' --seconds 0.25 --rate 48000 --buffer 256 --events '" + folder +
                "/events.txt'"),
            0)
      << readBytes(err);
  auto part = readWav(out, info);
  ASSERT_EQ(info.frames, 12000);
  for (auto& channel : samples) channel.resize(12000);
  EXPECT_EQ(differences(part, samples), 0u);

  const struct {
    std::string arguments;
    int status;
    std::string message;
  } failures[] = {
      {"", 2, "no workspace given"},
      {"'" + show + "'", 2, "no output given"},
      {"'" + show + "' -o x.wav --rate 12.5", 2, "bad rate '12.5'"},
      {"'" + show + "' -o x.wav --buffer 0", 2, "bad buffer size '0'"},
      {"'" + show + "' -o x.wav --seconds -1", 2, "bad length '-1'"},
      {"'" + show + "' -o x.wav --loud", 2, "unknown option '--loud'"},
      {"'" + show + "' -o x.wav --events '" + folder + "/bad.txt'", 2, folder + "/bad.txt:2: unknown action 'jump'"},
      {"'" + show + "' -o x.wav --events /dev/zero", 2, "/dev/zero: cannot be read: not a regular file"},
      {"'" + folder + "/Missing.sonto' -o '" + out + "'", 1, "Missing.sonto: cannot be opened: "},
      {"'" + show + "' -o '" + folder + "/no/such/folder.wav'", 1, "cannot be written"},
  };
  for (const auto& f : failures) {
    EXPECT_EQ(run(f.arguments), f.status) << f.arguments;
    EXPECT_NE(readBytes(err).find(f.message), std::string::npos) << f.arguments << ": " << readBytes(err);
  }
}

}  // namespace
