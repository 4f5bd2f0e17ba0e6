#include "support/EncodedFiles.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>

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

bool encodeWithFFmpeg(const std::string& source, const std::string& arguments, const std::string& destination) {
  std::string command = "ffmpeg -nostdin -hide_banner -loglevel error -y -i '" + source + "' " + arguments + " '" +
                        destination + "'";
  return run(command) == 0;
}

}  // namespace sonto::test
