// The waveform against a plain decode of the same file, and the view's full repaint,
// on the offscreen platform. Files are made at run time in a temporary folder.
//
//   QT_QPA_PLATFORM=offscreen ./bench/sonto_surface_bench
#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <QApplication>
#include <QImage>
#include <QScrollArea>
#include <QScrollBar>
#include <algorithm>
#include <chrono>
#include <memory>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "audio/KyoAudioBuffer.h"
#include "audio/KyoAudioBufferList.h"
#include "audio/KyoAudioDevice.h"
#include "audio/KyoHAL.h"
#include "foundation/KyoAlias.h"
#include "foundation/KyoClock.h"
#include "show/AudioCue.h"
#include "show/AudioCueSourceKyo.h"
#include "show/SontoQtClock.h"
#include "support/TestFiles.h"
#include "surface/AudioWaveform.h"
#include "surface/AudioWaveformView.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A cue's file as the view needs it: its alias and length, nothing that plays.
class FileSource : public AudioCueSource {
 public:
  void setDevice(std::shared_ptr<KyoAudioDevice>) override {}
  std::shared_ptr<KyoAudioDevice> sharedDevice() const override { return nullptr; }
  void setAlias(std::shared_ptr<KyoAlias> alias) override {
    m_alias = alias;
    m_length = 0;
    if (!alias) return;
    SF_INFO info{};
    if (SNDFILE* f = sf_open(alias->fullPath().c_str(), SFM_READ, &info)) {
      m_length = double(info.frames) / info.samplerate;
      sf_close(f);
    }
  }
  bool isValid() const override { return m_length > 0; }
  uint32_t fileChannels() const override { return 2; }
  double fileLengthInSeconds() const override { return m_length; }
  void setDefaultVolumes() override {}
  void setCrosspointVolume(float, uint32_t, uint32_t) override {}
  void setSlice(double, double, int) override {}
  void goToTime(double) override {}
  void hardStop() override {}
  std::shared_ptr<KyoAlias> alias() const override { return m_alias; }

 private:
  std::shared_ptr<KyoAlias> m_alias;
  double m_length = 0;
};

// A ramp file made once per name in the run's temporary folder.
std::string rampFile(const char* name, int format, int rate, int channels, int64_t frames) {
  const std::string path = sonto::test::temporaryPath(name);
  sonto::test::writeRampFile(path, SF_FORMAT_WAV | format, rate, channels, frames);
  return path;
}

const std::string& tenMinuteFile() {
  static const std::string path = rampFile("ten-minutes.wav", SF_FORMAT_PCM_16, 48000, 2, int64_t(48000) * 600);
  return path;
}

const std::string& hourFile() {
  static const std::string path = rampFile("one-hour.wav", SF_FORMAT_PCM_16, 44100, 1, int64_t(44100) * 3600);
  return path;
}

// What any program would do to read the file: libsndfile into floats, block by block.
double plainDecodeSeconds(const std::string& path) {
  const auto start = Clock::now();
  SF_INFO info{};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  std::vector<float> block(65536 * size_t(info.channels));
  float sink = 0;
  while (sf_count_t n = sf_readf_float(f, block.data(), 65536)) sink += block[size_t(n - 1)];
  sf_close(f);
  benchmark::DoNotOptimize(sink);
  return secondsSince(start);
}

// The read-ahead stream alone, as the waveform makes it (the file's rate, a 20 s
// ring), drained as fast as it fills: the floor under the waveform's time.
double streamOnlySeconds(const std::string& path) {
  const auto start = Clock::now();
  auto stream = KyoAudioBuffer::create(KyoAlias::aliasWithPath(path), 0, 0, 48000 * 20,
                                       KyoAudioStreamDescription(48000, 2), true);
  AudioBufferList* list = KyoAudioBufferListCreate(2, 65536, false);
  KyoPlainClock real;
  while (!stream->isFinished()) {
    const uint32_t count = std::min<uint32_t>(stream->count(), 65536);
    if (count == 0) {
      if (stream->isFilled()) break;
      stream->readFrames(0, list, 0);
      real.sleepFor(0.0001);
      continue;
    }
    KyoAudioBufferListResetSizes(list, count);
    stream->readFrames(count, list, 0);
  }
  KyoAudioBufferListFree(list);
  stream.reset();
  return secondsSince(start);
}

// Time until the waveform is complete, and until the first screenful of a 1200-pixel
// view at the zoom that fits the file is drawable (at that zoom the screen is the
// whole file) and at 300 pixels per second; the plain decode of the same file in the
// same iteration, and the ratio.
void BM_WaveformLoad(benchmark::State& state) {
  const std::string& path = tenMinuteFile();
  for (auto _ : state) {
    const double plain = plainDecodeSeconds(path);
    const double streamOnly = streamOnlySeconds(path);
    const auto start = Clock::now();
    auto waveform = AudioWaveform::create(KyoAlias::aliasWithPath(path), 10.0f);
    const double length = 600.0;
    const double fitScreen = 1200.0 / (1200.0 / length);
    const double zoomedScreen = 1200.0 / 300.0;
    double fitAt = 0, zoomedAt = 0;
    KyoPlainClock real;
    while (!waveform->isComplete()) {
      const double loaded = waveform->loadedSeconds();
      if (zoomedAt == 0 && loaded >= zoomedScreen) zoomedAt = secondsSince(start);
      if (fitAt == 0 && loaded >= fitScreen - 0.01) fitAt = secondsSince(start);
      real.sleepFor(0.001);
    }
    const double complete = secondsSince(start);
    if (fitAt == 0) fitAt = complete;
    if (zoomedAt == 0) zoomedAt = complete;
    waveform->setLive(false);
    waveform.reset();
    state.SetIterationTime(complete);
    state.counters["plain_ms"] = plain * 1e3;
    state.counters["complete_ms"] = complete * 1e3;
    state.counters["fit_screen_ms"] = fitAt * 1e3;
    state.counters["300pps_screen_ms"] = zoomedAt * 1e3;
    state.counters["stream_only_ms"] = streamOnly * 1e3;
    state.counters["ratio"] = complete / plain;
  }
}
BENCHMARK(BM_WaveformLoad)->UseManualTime()->Iterations(1)->Repetitions(5)->Unit(benchmark::kMillisecond);

// One full repaint of a 1200-pixel screen, rendered into an image, at 300 pixels per
// second and at the widest zoom of a one-hour file, over 200 paints.
void BM_WaveformPaint(benchmark::State& state) {
  const bool widest = state.range(0) == 1;
  AudioCue::setSourceFactory([] { return std::make_unique<FileSource>(); });
  auto cue = AudioCue::createWithFile(hourFile(), nullptr);
  QScrollArea scroll;
  scroll.setFrameShape(QFrame::NoFrame);
  scroll.resize(1200, 160);
  auto* view = new AudioWaveformView(&scroll);
  scroll.setWidget(view);
  scroll.setWidgetResizable(false);
  scroll.show();
  view->setCue(cue.get());
  KyoPlainClock real;
  while (view->waveform() && !view->waveform()->isComplete()) real.sleepFor(0.01);
  if (!widest) view->setPixelsPerSecond(300.0f);
  QApplication::processEvents();
  const int x = widest ? 0 : int(view->width() / 2);
  const QRegion region(x, 0, 1200, view->height());
  QImage image(1200, view->height(), QImage::Format_ARGB32_Premultiplied);
  std::vector<double> times;
  for (auto _ : state) {
    const auto start = Clock::now();
    view->render(&image, QPoint(), region);
    const double t = secondsSince(start);
    times.push_back(t);
    state.SetIterationTime(t);
  }
  std::sort(times.begin(), times.end());
  state.counters["pps"] = view->pixelsPerSecond();
  state.counters["loaded"] = view->waveform() ? view->waveform()->loadedSeconds() : 0.0;
  state.counters["median_ms"] = times[times.size() / 2] * 1e3;
  state.counters["worst_ms"] = times.back() * 1e3;
  view->setCue(nullptr);
  AudioCue::setSourceFactory(nullptr);
}
BENCHMARK(BM_WaveformPaint)->Arg(0)->Arg(1)->UseManualTime()->Iterations(200)->Unit(benchmark::kMillisecond);

// One engine cycle (480 frames at 48 kHz) of twenty looping cues on an offline device,
// without (0) and with (1) the inspector's work beside it: a view following a playing
// cue, and waveforms of the ten-minute file computed one after the other on their
// worker. The two medians should agree within noise: the waveform never touches the
// playing cues' audio.
void BM_EngineCycleWhileInspecting(benchmark::State& state) {
  const bool inspecting = state.range(0) == 1;
  AudioCueSourceKyo::install();
  const KyoAudioObjectID id = KyoHAL::shared().createOfflineDevice(2, 48000, 480, 0);
  auto device = KyoAudioDevice::deviceWithID(id);
  device->open();
  static const std::string loop = rampFile("engine-loop.wav", SF_FORMAT_FLOAT, 48000, 2, 48000 * 4);
  std::vector<std::shared_ptr<AudioCue>> cues;
  for (int i = 0; i < 20; ++i) {
    cues.push_back(AudioCue::createWithFile(loop, device));
    cues.back()->setLoops(true);
  }
  KyoPlainClock real;
  real.sleepFor(0.5);  // the read-ahead of every cue fills
  device->startSyncedActions();
  for (const auto& cue : cues) cue->play();
  device->endSyncedActions();
  QScrollArea scroll;
  scroll.resize(800, 160);
  auto* view = new AudioWaveformView(&scroll);
  scroll.setWidget(view);
  std::atomic<bool> busy{inspecting};
  std::thread loader;
  if (inspecting) {
    view->setCue(cues[0].get());
    loader = std::thread([&busy] {
      while (busy.load()) {
        auto waveform = AudioWaveform::create(KyoAlias::aliasWithPath(tenMinuteFile()), 10.0f);
        KyoPlainClock clock;
        while (busy.load() && waveform && !waveform->isComplete()) clock.sleepFor(0.001);
        if (waveform) waveform->setLive(false);
      }
    });
  }
  KyoHAL::shared().pullOffline(id, 10);
  std::vector<double> times;
  int cycle = 0;
  // Cycles paced as a device would pull them, so that the read-ahead keeps up.
  double next = real.monotonicSeconds();
  for (auto _ : state) {
    if (++cycle % 64 == 0) KyoHAL::shared().clearOfflineRecording(id);
    const auto start = Clock::now();
    KyoHAL::shared().pullOffline(id, 1);
    times.push_back(secondsSince(start));
    state.PauseTiming();
    if (inspecting && cycle % 10 == 0) {
      view->refreshCursorPosition();
      QApplication::processEvents();
    }
    next += 0.01;
    real.sleepUntil(next);
    state.ResumeTiming();
  }
  busy.store(false);
  if (loader.joinable()) loader.join();
  std::sort(times.begin(), times.end());
  state.counters["median_us"] = times[times.size() / 2] * 1e6;
  state.counters["p99_us"] = times[times.size() * 99 / 100] * 1e6;
  view->setCue(nullptr);
  for (const auto& cue : cues) cue->hardStop();
  cues.clear();
  device->close();
  device.reset();
  KyoHAL::shared().destroyOfflineDevice(id);
  AudioCue::setSourceFactory(nullptr);
}
BENCHMARK(BM_EngineCycleWhileInspecting)->Arg(0)->Arg(1)->Iterations(1500)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  KyoInstallClock(std::make_shared<SontoQtClock>());
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  KyoPlainClock real;
  while (AudioWaveform::runningLoaders() > 0) real.sleepFor(0.01);
  return 0;
}
