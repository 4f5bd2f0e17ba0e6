#include "support/EncodedFiles.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "audio/KyoAudioFile.h"
#include "audio/KyoAudioStreamDescription.h"
#include "support/TestFiles.h"

namespace sonto::test {

ListHolder::ListHolder(uint32_t channels, uint32_t frames, bool interleaved)
    : m_list(KyoAudioBufferListCreate(channels, frames, interleaved)) {}

ListHolder::~ListHolder() { KyoAudioBufferListFree(m_list); }

std::unique_ptr<KyoAudioFile> openFile(const std::string& path) {
  return std::make_unique<KyoAudioFile>(KyoAlias::aliasWithPath(path));
}

Channels readSome(KyoAudioFile& file, uint32_t channels, int64_t limit, uint32_t chunk) {
  Channels out(channels);
  ListHolder list(channels, chunk, false);
  int64_t total = 0;
  while (total < limit) {
    list.reset(chunk);
    uint32_t want = uint32_t(std::min<int64_t>(chunk, limit - total));
    uint32_t got = file.readFrames(want, list.get());
    if (got == 0) break;
    for (uint32_t c = 0; c < channels; ++c) out[c].insert(out[c].end(), list.channel(c), list.channel(c) + got);
    total += got;
  }
  return out;
}

float sineSample(double t, double hz, uint32_t c) {
  return float(0.5 * std::sin(2.0 * M_PI * hz * t + 0.7 * c));
}

bool writeSineWav(const std::string& path, double rate, uint32_t channels, int64_t frames, double hz) {
  Channels data(channels, std::vector<float>(size_t(frames)));
  for (uint32_t c = 0; c < channels; ++c)
    for (int64_t i = 0; i < frames; ++i) data[c][size_t(i)] = sineSample(double(i) / rate, hz, c);
  return writeFloatWav(path, rate, data);
}

float chirpSample(int64_t frame, double rate, uint32_t c) {
  double t = double(frame) / rate;
  return float(0.4 * std::sin(2.0 * M_PI * (200.0 * t + 900.0 * t * t) + 0.9 * c));
}

bool writeChirpWav(const std::string& path, double rate, uint32_t channels, int64_t frames) {
  Channels data(channels, std::vector<float>(size_t(frames)));
  for (uint32_t c = 0; c < channels; ++c)
    for (int64_t i = 0; i < frames; ++i) data[c][size_t(i)] = chirpSample(i, rate, c);
  return writeFloatWav(path, rate, data);
}

int64_t delayAgainst(const std::vector<float>& decoded, const std::vector<float>& source, int64_t range) {
  const int64_t window = 4096;
  const int64_t middle = int64_t(std::min(decoded.size(), source.size())) / 2;
  if (middle - range - window / 2 < 0 || middle + range + window / 2 > int64_t(decoded.size())) return INT64_MAX;
  int64_t best = INT64_MAX;
  double bestError = 1e300;
  for (int64_t lag = -range; lag <= range; ++lag) {
    double error = 0;
    for (int64_t i = middle - window / 2; i < middle + window / 2; ++i) {
      double d = double(decoded[size_t(i + lag)]) - double(source[size_t(i)]);
      error += d * d;
    }
    if (error < bestError) {
      bestError = error;
      best = lag;
    }
  }
  return best;
}

bool encodeWithFFmpeg(const std::string& source, const std::string& arguments, const std::string& destination) {
  std::string command = "ffmpeg -nostdin -hide_banner -loglevel error -y -i '" + source + "' " + arguments + " '" +
                        destination + "'";
  return run(command) == 0;
}

int64_t statedLengthByFFprobe(const std::string& path) {
  std::string command = "ffprobe -v error -select_streams a:0 -show_entries stream=duration_ts -of csv=p=0 '" + path + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  char line[128] = {};
  bool read = std::fgets(line, sizeof line, pipe) != nullptr;
  pclose(pipe);
  if (!read) return -1;
  char* end = nullptr;
  long long value = std::strtoll(line, &end, 10);
  return end == line ? -1 : int64_t(value);
}

}  // namespace sonto::test

// libsndfile leaks its Vorbis header state when an Ogg file cut short fails to open
// (inside sf_open_fd, nothing the caller can free); the tests open such files on
// purpose.
extern "C" const char* __lsan_default_suppressions() { return "leak:vorbis_info_init\n"; }
