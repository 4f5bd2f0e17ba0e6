#pragma once
// Helpers for the file reader's tests and benchmarks: encoded files made at test
// time with the ffmpeg command line, sine files, and reading a KyoAudioFile into
// plain vectors.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audio/KyoAudioBufferList.h"

class KyoAudioFile;

namespace sonto::test {

using Channels = std::vector<std::vector<float>>;

// An owned buffer list of `frames` frames.
class ListHolder {
 public:
  ListHolder(uint32_t channels, uint32_t frames, bool interleaved);
  ~ListHolder();
  ListHolder(const ListHolder&) = delete;
  ListHolder& operator=(const ListHolder&) = delete;
  AudioBufferList* get() { return m_list; }
  float* channel(uint32_t c) { return KyoAudioBufferListChannel(m_list, c); }
  void reset(uint32_t frames) { KyoAudioBufferListResetSizes(m_list, frames); }

 private:
  AudioBufferList* m_list;
};

// Opens a file through an alias of its path (the file must exist).
std::unique_ptr<KyoAudioFile> openFile(const std::string& path);

// Reads non-interleaved until the end (or `limit` frames), `chunk` frames a call.
Channels readSome(KyoAudioFile& file, uint32_t channels, int64_t limit, uint32_t chunk);
inline Channels readAll(KyoAudioFile& file, uint32_t channels, uint32_t chunk) {
  return readSome(file, channels, INT64_MAX, chunk);
}

// A sine of `hz` at time t seconds on channel c; each channel has its own phase.
float sineSample(double t, double hz, uint32_t c);
bool writeSineWav(const std::string& path, double rate, uint32_t channels, int64_t frames, double hz);

// A sweep from 200 Hz upwards, distinct at every frame so that a delay of any
// number of frames shows; each channel has its own phase.
float chirpSample(int64_t frame, double rate, uint32_t c);
bool writeChirpWav(const std::string& path, double rate, uint32_t channels, int64_t frames);

// The delay of `decoded` against `source` in frames, searched within +-`range`
// around the middle of the signal: 0 for a gapless decoder.
int64_t delayAgainst(const std::vector<float>& decoded, const std::vector<float>& source, int64_t range);

// Encodes `source` with the ffmpeg command line and the given arguments (codec and
// options) into `destination`. Answers false when ffmpeg fails.
bool encodeWithFFmpeg(const std::string& source, const std::string& arguments, const std::string& destination);

// The length in frames that the container states for its first audio stream, as
// ffprobe reads it: an outside witness of what the file claims. -1 when unknown.
int64_t statedLengthByFFprobe(const std::string& path);

}  // namespace sonto::test
