// Decode throughput of KyoAudioFile against libsndfile alone on the same file, as
// the ratio of their times (counter "ratio": 1.0 is no cost at all for the reader's
// conversion to non-interleaved float and its bookkeeping). Each iteration opens and
// decodes the whole file both ways, one after the other. Times are the thread's CPU
// time, not the wall clock: on a shared machine the wall clock mostly measures the
// other processes. The iteration time reported is the reader's; "wall ratio" is the
// same ratio by the monotonic clock, for comparison.
//
// "native" reads at the file's own rate; "to48k" makes the reader convert 44.1 kHz to
// 48 kHz with libsoxr, which the plain library does not do: its ratio shows the cost
// of the conversion.

#include <benchmark/benchmark.h>
#include <sndfile.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "audio/KyoAudioFile.h"
#include "audio/KyoAudioStreamDescription.h"
#include "foundation/KyoClock.h"
#include "support/EncodedFiles.h"
#include "support/TestFiles.h"

namespace {

using namespace sonto::test;

constexpr double kFileRate = 44100.0;
constexpr uint32_t kChannels = 2;
constexpr int64_t kFileFrames = int64_t(kFileRate * 20);  // twenty seconds
constexpr uint32_t kChunkFrames = 1024;                    // frames per read call, both ways

enum class Format { wav, flac, mp3 };

// Made once: a 16-bit WAV, a FLAC and a 192 kbit/s MP3 of the same sweep.
const std::string& fileFor(Format format) {
  static const std::vector<std::string> paths = [] {
    std::string source = temporaryPath("bench-source.wav");
    std::vector<std::string> made(3);
    if (!writeChirpWav(source, kFileRate, kChannels, kFileFrames)) return made;
    made[0] = temporaryPath("bench.wav");
    made[1] = temporaryPath("bench.flac");
    made[2] = temporaryPath("bench.mp3");
    if (!encodeWithFFmpeg(source, "-c:a pcm_s16le", made[0])) made[0].clear();
    if (!encodeWithFFmpeg(source, "-c:a flac", made[1])) made[1].clear();
    if (!encodeWithFFmpeg(source, "-c:a libmp3lame -b:a 192k", made[2])) made[2].clear();
    return made;
  }();
  return paths[size_t(format)];
}

// CPU seconds used by the calling thread so far.
double threadCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

// libsndfile alone: interleaved float at the file's rate, no conversion.
int64_t decodePlain(const std::string& path) {
  SF_INFO info{};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  if (!file) return 0;
  std::vector<float> buffer(size_t(kChunkFrames) * size_t(info.channels));
  int64_t total = 0;
  for (sf_count_t got; (got = sf_readf_float(file, buffer.data(), kChunkFrames)) > 0;) {
    benchmark::DoNotOptimize(buffer.data());
    total += got;
  }
  sf_close(file);
  return total;
}

// The reader as the read-ahead stream uses it: non-interleaved float at `rate`.
int64_t decodeReader(const std::string& path, double rate) {
  KyoAudioFile file(KyoAlias::aliasWithPath(path));
  if (!file.validFile()) return 0;
  file.setReadFormat(KyoAudioStreamDescription(rate, kChannels));
  ListHolder list(kChannels, kChunkFrames, false);
  int64_t total = 0;
  for (;;) {
    list.reset(kChunkFrames);
    uint32_t got = file.readFrames(kChunkFrames, list.get());
    if (got == 0) break;
    benchmark::DoNotOptimize(list.channel(0));
    total += got;
  }
  return total;
}

void decodeAgainstPlain(benchmark::State& state, Format format, double readRate) {
  const std::string& path = fileFor(format);
  if (path.empty()) {
    state.SkipWithError("could not make the test file (ffmpeg)");
    return;
  }
  double plainSeconds = 0, readerSeconds = 0, plainWall = 0, readerWall = 0;
  int64_t readerFrames = 0;
  for (auto _ : state) {
    double wall0 = KyoMonotonicSeconds(), cpu0 = threadCpuSeconds();
    int64_t plain = decodePlain(path);
    double wall1 = KyoMonotonicSeconds(), cpu1 = threadCpuSeconds();
    int64_t frames = decodeReader(path, readRate);
    double wall2 = KyoMonotonicSeconds(), cpu2 = threadCpuSeconds();
    if (plain == 0 || frames == 0) {
      state.SkipWithError("the file could not be decoded");
      return;
    }
    plainSeconds += cpu1 - cpu0;
    readerSeconds += cpu2 - cpu1;
    plainWall += wall1 - wall0;
    readerWall += wall2 - wall1;
    readerFrames += frames;
    state.SetIterationTime(cpu2 - cpu1);
  }
  state.counters["ratio"] = plainSeconds > 0 ? readerSeconds / plainSeconds : 0;
  state.counters["wall ratio"] = plainWall > 0 ? readerWall / plainWall : 0;
  state.counters["x realtime"] = readerSeconds > 0 ? double(readerFrames) / readRate / readerSeconds : 0;
}

}  // namespace

BENCHMARK_CAPTURE(decodeAgainstPlain, wav_native, Format::wav, kFileRate)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeAgainstPlain, flac_native, Format::flac, kFileRate)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeAgainstPlain, mp3_native, Format::mp3, kFileRate)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeAgainstPlain, wav_to48k, Format::wav, 48000.0)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeAgainstPlain, flac_to48k, Format::flac, 48000.0)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeAgainstPlain, mp3_to48k, Format::mp3, 48000.0)->UseManualTime()->Unit(benchmark::kMillisecond);
