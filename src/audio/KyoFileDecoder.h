#pragma once
// The two decoding paths under KyoAudioFile: libsndfile, and FFmpeg for what
// libsndfile cannot open. A decoder gives the file's own frames as interleaved
// 32-bit float at the file's own rate and channel count; conversion to the
// caller's format happens above it. One thread at a time, never the render thread.

#include <cstdint>
#include <memory>
#include <string>

#include "audio/KyoAudioStreamDescription.h"

class KyoFileDecoder {
 public:
  virtual ~KyoFileDecoder() = default;

  virtual const char* name() const = 0;
  virtual AudioStreamBasicDescription fileFormat() const = 0;
  double sampleRate() const { return fileFormat().mSampleRate; }
  uint32_t channels() const { return fileFormat().mChannelsPerFrame; }
  // Frames at the file's rate. Some formats only estimate it; reads report the
  // real end when it comes.
  virtual int64_t lengthInFrames() const = 0;
  // Positions the next read at this frame exactly. False when the frame cannot be
  // reached; the next read then gives nothing.
  virtual bool seek(int64_t frame) = 0;
  // Up to `frames` frames into `interleaved` (frames times channels floats).
  // Answers the frames given; 0 means the end of the data (or an error that ends it,
  // logged by the decoder).
  virtual uint32_t read(float* interleaved, uint32_t frames) = 0;
};

// Why an open attempt failed, for the caller's decision to try the other path.
enum class KyoFileOpenResult { opened, notFound, tooManyFiles, notHandled };

// libsndfile. Answers null with `result` set when it does not open the file; a
// file that libsndfile does not know gives notHandled and `detail` its reason.
std::unique_ptr<KyoFileDecoder> KyoFileDecoderOpenSndfile(const std::string& path, KyoFileOpenResult& result,
                                                         std::string& detail);

// FFmpeg: the first audio stream of any container it reads, video files included.
// Logs its own failure lines (with `displayName` for the file) and answers null.
std::unique_ptr<KyoFileDecoder> KyoFileDecoderOpenFFmpeg(const std::string& path, const std::string& displayName);

// Sanity limits on what a file may claim, so that a broken header cannot ask for
// absurd buffers.
constexpr double kKyoFileMinSampleRate = 1000.0;
constexpr double kKyoFileMaxSampleRate = 1536000.0;
constexpr uint32_t kKyoFileMaxChannels = 256;
// A stated length beyond this is no length at all (a cut Ogg states the largest count).
constexpr double kKyoFileMaxLengthInSeconds = 7 * 24 * 3600.0;
