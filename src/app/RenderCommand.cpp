// sonto render WORKSPACE -o OUT.wav [--rate HZ] [--buffer FRAMES] [--seconds S]
// [--events FILE]: the show rendered on an offline device, faster than real time and
// the same on every run, into a 32-bit float WAV with the device's channels.
// Exit status: 0 rendered; 1 the workspace cannot be opened or the output written;
// 2 usage or a bad events file.

#include <cstdio>
#include <string>

#include "app/Commands.h"

#ifdef SONTO_HAS_SHOW

#include <QCoreApplication>
#include <QUrl>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "show/AudioCueSourceKyo.h"
#include "show/SontoEventScript.h"
#include "show/SontoOfflineRender.h"
#include "show/Workspace.h"

namespace {

// The longest render, which is also the latest time an event script may name.
constexpr double kMaxSeconds = SontoEventScript::kMaxSeconds;

int usage(const std::string& problem) {
  if (!problem.empty()) std::fprintf(stderr, "sonto render: %s\n", problem.c_str());
  std::fprintf(stderr,
               "usage: sonto render WORKSPACE -o OUT.wav [--rate HZ] [--buffer FRAMES] [--seconds S] "
               "[--events FILE]\n");
  return 2;
}

std::optional<double> numberOf(const std::string& text) {
  double value = 0;
  auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (status != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

struct Options {
  std::string workspace, output, events;
  double rate = SontoOfflineRender::kDefaultSampleRate;
  uint32_t buffer = SontoOfflineRender::kDefaultBufferFrames;
  double seconds = 0;  // 0: until done
};

// Answers the problem, empty when the arguments are good.
std::string parseArguments(int argc, char** argv, Options& o) {
  for (int i = 0; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool takesValue = arg == "-o" || arg == "--rate" || arg == "--buffer" || arg == "--seconds" || arg == "--events";
    if (takesValue && i + 1 >= argc) return arg + " needs a value";
    if (arg == "-o") {
      o.output = argv[++i];
    } else if (arg == "--events") {
      o.events = argv[++i];
    } else if (arg == "--rate") {
      std::optional<double> rate = numberOf(argv[++i]);
      if (!rate || *rate != std::floor(*rate) || *rate < 8000 || *rate > 384000)
        return std::string("bad rate '") + argv[i] + "' (8000 to 384000 Hz)";
      o.rate = *rate;
    } else if (arg == "--buffer") {
      std::optional<double> frames = numberOf(argv[++i]);
      if (!frames || *frames != std::floor(*frames) || *frames < 16 || *frames > 8192)
        return std::string("bad buffer size '") + argv[i] + "' (16 to 8192 frames)";
      o.buffer = uint32_t(*frames);
    } else if (arg == "--seconds") {
      std::optional<double> seconds = numberOf(argv[++i]);
      if (!seconds || *seconds <= 0 || *seconds > kMaxSeconds)
        return std::string("bad length '") + argv[i] + "' (seconds, above 0, at most a day)";
      o.seconds = *seconds;
    } else if (!arg.empty() && arg[0] == '-') {
      return "unknown option '" + arg + "'";
    } else if (o.workspace.empty()) {
      o.workspace = arg;
    } else {
      return "one workspace at a time ('" + arg + "' is a second)";
    }
  }
  if (o.workspace.empty()) return "no workspace given";
  if (o.output.empty()) return "no output given (-o OUT.wav)";
  return {};
}

// A WAV of 32-bit floats, written block by block; RF64 when the most it may hold
// (frames) is past the 4 GB that a WAV can address.
class WavWriter {
 public:
  bool open(const std::string& path, double rate, uint32_t channels, int64_t maxFrames) {
    SF_INFO info{};
    info.samplerate = int(rate);
    info.channels = int(channels);
    const bool large = double(maxFrames) * channels * sizeof(float) > 4.0e9;
    info.format = (large ? SF_FORMAT_RF64 : SF_FORMAT_WAV) | SF_FORMAT_FLOAT;
    m_file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!m_file) return false;
    // The PEAK chunk carries the time of writing: the same render would differ.
    sf_command(m_file, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    m_channels = channels;
    return true;
  }
  bool write(const std::vector<std::vector<float>>& block, uint32_t frames) {
    m_interleaved.resize(size_t(frames) * m_channels);
    for (uint32_t f = 0; f < frames; ++f)
      for (uint32_t c = 0; c < m_channels; ++c) m_interleaved[size_t(f) * m_channels + c] = block[c][f];
    return sf_writef_float(m_file, m_interleaved.data(), frames) == sf_count_t(frames);
  }
  std::string error() const { return sf_strerror(m_file); }
  bool close() {
    const bool ok = !m_file || sf_close(m_file) == 0;
    m_file = nullptr;
    return ok;
  }
  ~WavWriter() { close(); }

 private:
  SNDFILE* m_file = nullptr;
  uint32_t m_channels = 0;
  std::vector<float> m_interleaved;
};

int render(const Options& o, const std::vector<SontoScriptEvent>& events) {
  // The virtual clock first: everything the workspace starts runs on rendered time.
  auto clock = std::make_shared<KyoVirtualClock>();
  KyoInstallClock(clock);
  AudioCueSourceKyo::install();
  std::string error;
  std::unique_ptr<SontoOfflineRender> renderer = SontoOfflineRender::create(*clock, o.rate, o.buffer,
                                                                           SontoOfflineRender::kDefaultChannels, &error);
  if (!renderer) {
    std::fprintf(stderr, "sonto render: %s\n", error.c_str());
    KyoInstallClock(nullptr);
    return 1;
  }
  int status = 0;
  {
    Workspace workspace(renderer->device());
    SavingError saving;
    // The reader's own log lines, minus the one that the failure repeats.
    std::vector<std::string> readLog;
    std::mutex readLogMutex;  // the cues' own threads log too
    KyoSetLogSink([&](const std::string& line) {
      std::lock_guard<std::mutex> lock(readLogMutex);
      readLog.push_back(line);
    });
    const bool read = workspace.readFromURL(QUrl::fromLocalFile(QString::fromStdString(o.workspace)), &saving);
    KyoSetLogSink(nullptr);
    std::lock_guard<std::mutex> lock(readLogMutex);
    for (const std::string& line : readLog) {
      if (read || line != saving.message) std::fprintf(stderr, "%s\n", line.c_str());
    }
    if (!read) {
      std::fprintf(stderr, "sonto render: %s: cannot be opened: %s\n", o.workspace.c_str(), saving.message.c_str());
      status = 1;
    } else if (!renderer->adopt(workspace)) {
      std::fprintf(stderr, "sonto render: the offline device does not take the show\n");
      status = 1;
    }
    for (const auto& cart : workspace.carts()) {
      for (const auto& [index, cue] : cart->cues()) {
        if (status == 0 && cue->isBroken())
          std::fprintf(stderr, "sonto render: warning: cue \"%s\" of \"%s\" will not play: %s\n", cue->name().c_str(),
                       cart->name().c_str(), cue->brokenExplanation().c_str());
      }
    }

    WavWriter wav;
    if (status == 0 && !wav.open(o.output, o.rate, renderer->channels(),
                                 int64_t(std::ceil((o.seconds > 0 ? o.seconds : SontoOfflineRender::kUntilDoneCapSeconds) * o.rate)) + o.buffer)) {
      std::fprintf(stderr, "sonto render: %s: cannot be written: %s\n", o.output.c_str(), sf_strerror(nullptr));
      status = 1;
    }
    if (status == 0) {
      const SontoOfflineRender::Result result =
          renderer->render(workspace, events, o.seconds, [&wav](const std::vector<std::vector<float>>& block,
                                                                uint32_t frames) { return wav.write(block, frames); });
      const std::string writeError = result.sinkRefused ? wav.error() : std::string();
      if (!wav.close() || result.sinkRefused || result.deviceFailed) {
        std::fprintf(stderr, "sonto render: %s: %s\n", o.output.c_str(),
                     result.deviceFailed ? "the offline device stopped rendering"
                                         : ("cannot be written: " + writeError).c_str());
        ::unlink(o.output.c_str());
        status = 1;
      } else {
        if (result.reachedCap)
          std::fprintf(stderr,
                       "sonto render: cues were still playing after %.0f seconds; stopped there "
                       "(--seconds renders a given length)\n",
                       SontoOfflineRender::kUntilDoneCapSeconds);
        if (result.lateCycles)
          std::fprintf(stderr,
                       "sonto render: warning: %llu cycles were rendered before a cue's read-ahead was ready; "
                       "they may differ between runs\n",
                       (unsigned long long)result.lateCycles);
        std::printf("%s: %u channels, %.0f Hz, %lld frames (%.3f seconds)\n", o.output.c_str(), renderer->channels(),
                    o.rate, (long long)result.frames, double(result.frames) / o.rate);
        std::fflush(stdout);
      }
    }
    workspace.close();
  }
  // The workspace's last hard stops run on workers of the clock.
  clock->settle();
  renderer.reset();
  KyoInstallClock(nullptr);
  return status;
}

}  // namespace

int sontoRenderCommand(int argc, char** argv) {
  Options options;
  const std::string problem = parseArguments(argc, argv, options);
  if (!problem.empty()) return usage(problem);
  std::vector<SontoScriptEvent> events;
  if (!options.events.empty()) {
    std::string error;
    auto parsed = SontoEventScript::readFile(options.events, &error);
    if (!parsed) {
      std::fprintf(stderr, "sonto render: %s\n", error.c_str());
      return 2;
    }
    events = std::move(*parsed);
  }
  if (options.seconds > 0) {
    const int64_t end = SontoEventScript::firstFrame(options.seconds, options.rate);
    const auto late = std::count_if(events.begin(), events.end(), [&](const SontoScriptEvent& e) {
      const int64_t cycleStart = (SontoEventScript::firstFrame(e.time, options.rate) + options.buffer - 1) /
                                 options.buffer * options.buffer;
      return cycleStart >= end;
    });
    if (late > 0)
      std::fprintf(stderr, "sonto render: warning: %ld events fall in no rendered cycle (the render ends at %g seconds) and are not applied\n",
                   long(late), options.seconds);
  }
  // Qt Core wants its application object for what the workspace file reads.
  std::unique_ptr<QCoreApplication> app;
  static int qtArgc = 1;
  static char qtName[] = "sonto";
  static char* qtArgv[] = {qtName, nullptr};
  if (!QCoreApplication::instance()) app = std::make_unique<QCoreApplication>(qtArgc, qtArgv);
  return render(options, events);
}

#else

int sontoRenderCommand(int, char**) {
  std::fprintf(stderr, "sonto render: not in this build (it needs the show model)\n");
  return 2;
}

#endif
