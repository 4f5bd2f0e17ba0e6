// The libsndfile path. The file is opened by descriptor so that "not found" and
// "too many open files" come from errno exactly and are never confused with a
// format that libsndfile does not know.

#include <fcntl.h>
#include <sndfile.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "audio/KyoFileDecoder.h"
#include "foundation/KyoLog.h"

namespace {

// libsndfile keeps the message of a failed open in one global buffer: opens from
// several threads (streams being built side by side) take turns. Answers the open
// file, or null with the library's reason in `failure`.
SNDFILE* openDescriptor(int fd, SF_INFO& info, std::string* failure) {
  static std::mutex guard;
  std::lock_guard<std::mutex> lock(guard);
  SNDFILE* file = sf_open_fd(fd, SFM_READ, &info, SF_FALSE);
  if (!file && failure) *failure = sf_strerror(nullptr);
  return file;
}

// Frames decoded ahead of a seek target in lossy formats.
constexpr int64_t kLossySeekPrerollFrames = 8192;

uint32_t formatIDForSubtype(int subtype) {
  switch (subtype) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE:
      return kAudioFormatLinearPCM;
    case SF_FORMAT_ULAW:
      return KyoFourCC("ulaw");
    case SF_FORMAT_ALAW:
      return KyoFourCC("alaw");
    case SF_FORMAT_IMA_ADPCM:
      return KyoFourCC("ima4");
    case SF_FORMAT_GSM610:
      return 0x6D730031;
    case SF_FORMAT_VORBIS:
      return KyoFourCC("vorb");
    case SF_FORMAT_OPUS:
      return KyoFourCC("opus");
    case SF_FORMAT_ALAC_16:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
    case SF_FORMAT_ALAC_32:
      return KyoFourCC("alac");
    case SF_FORMAT_MPEG_LAYER_I:
      return KyoFourCC(".mp1");
    case SF_FORMAT_MPEG_LAYER_II:
      return KyoFourCC(".mp2");
    case SF_FORMAT_MPEG_LAYER_III:
      return KyoFourCC(".mp3");
    default:
      return 0;
  }
}

uint32_t bitsForSubtype(int subtype) {
  switch (subtype) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
      return 8;
    case SF_FORMAT_PCM_16:
      return 16;
    case SF_FORMAT_PCM_24:
      return 24;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_FLOAT:
      return 32;
    case SF_FORMAT_DOUBLE:
      return 64;
    default:
      return 0;  // compressed: no fixed sample size
  }
}

class SndfileDecoder final : public KyoFileDecoder {
 public:
  SndfileDecoder(int fd, SNDFILE* file, const SF_INFO& info) : m_fd(fd), m_file(file), m_info(info) {
    int subtype = info.format & SF_FORMAT_SUBMASK;
    AudioStreamBasicDescription& d = m_format;
    std::memset(&d, 0, sizeof d);
    d.mSampleRate = info.samplerate;
    d.mFormatID = formatIDForSubtype(subtype);
    d.mChannelsPerFrame = uint32_t(info.channels);
    d.mBitsPerChannel = bitsForSubtype(subtype);
    d.mFramesPerPacket = 1;
    if (d.mFormatID == kAudioFormatLinearPCM) {
      d.mFormatFlags = kAudioFormatFlagIsPacked;
      if (subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE)
        d.mFormatFlags |= kAudioFormatFlagIsFloat;
      else if (subtype != SF_FORMAT_PCM_U8)
        d.mFormatFlags |= 1u << 2;  // signed integer
      d.mBytesPerFrame = d.mBitsPerChannel / 8 * d.mChannelsPerFrame;
      d.mBytesPerPacket = d.mBytesPerFrame;
    }
    m_lossy = d.mFormatID != kAudioFormatLinearPCM;
  }

  ~SndfileDecoder() override {
    if (m_file) sf_close(m_file);
    ::close(m_fd);
  }

  const char* name() const override { return "libsndfile"; }
  AudioStreamBasicDescription fileFormat() const override { return m_format; }
  int64_t lengthInFrames() const override { return m_info.frames; }

  bool seek(int64_t frame) override {
    // Some of libsndfile's decoders (FLAC among them) refuse every later seek once
    // one has failed on damaged or missing data: start them afresh.
    if (m_broken && !reopen()) return false;
    m_failedSeek = false;
    // A lossy decoder lands on the frame but its first output after a seek lacks
    // the previous packet's overlap: start earlier and decode forward to the frame.
    int64_t start = m_lossy ? std::max<int64_t>(0, frame - kLossySeekPrerollFrames) : frame;
    if (sf_seek(m_file, start, SEEK_SET) < 0) {
      m_failedSeek = m_broken = true;
      return false;
    }
    std::vector<float> scratch;
    for (int64_t left = frame - start; left > 0;) {
      sf_count_t step = std::min<sf_count_t>(left, 4096);
      scratch.resize(size_t(step) * m_format.mChannelsPerFrame);
      sf_count_t got = sf_readf_float(m_file, scratch.data(), step);
      if (got <= 0) {
        m_failedSeek = m_broken = true;
        return false;
      }
      left -= got;
    }
    return true;
  }

  uint32_t read(float* interleaved, uint32_t frames) override {
    if (m_failedSeek || !m_file) return 0;
    sf_count_t n = sf_readf_float(m_file, interleaved, frames);
    if (n <= 0) {
      int error = sf_error(m_file);
      if (error != SF_ERR_NO_ERROR) {
        KYO_LOG_STATUS_DETAIL(error, std::string(sf_strerror(m_file)));
        m_broken = true;
      }
      return 0;
    }
    return uint32_t(n);
  }

 private:
  bool reopen() {
    if (m_file) sf_close(m_file);
    SF_INFO info{};
    m_file = ::lseek(m_fd, 0, SEEK_SET) == 0 ? openDescriptor(m_fd, info, nullptr) : nullptr;
    m_broken = m_file == nullptr;
    m_failedSeek = m_broken;
    return !m_broken;
  }

  int m_fd;
  SNDFILE* m_file;
  SF_INFO m_info;
  AudioStreamBasicDescription m_format;
  bool m_lossy = false;  // a compressed format whose decoder carries state across packets
  bool m_failedSeek = false;
  bool m_broken = false;  // a seek or read failed: reopen before the next seek
};

}  // namespace

std::unique_ptr<KyoFileDecoder> KyoFileDecoderOpenSndfile(const std::string& path, KyoFileOpenResult& result,
                                                         std::string& detail) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    detail = std::strerror(error);
    if (error == ENOENT || error == ENOTDIR)
      result = KyoFileOpenResult::notFound;
    else if (error == EMFILE || error == ENFILE)
      result = KyoFileOpenResult::tooManyFiles;
    else
      result = KyoFileOpenResult::notHandled;
    return nullptr;
  }
  SF_INFO info{};
  SNDFILE* file = openDescriptor(fd, info, &detail);
  if (!file) {
    ::close(fd);
    result = KyoFileOpenResult::notHandled;
    return nullptr;
  }
  if (info.channels <= 0 || uint32_t(info.channels) > kKyoFileMaxChannels || info.samplerate < kKyoFileMinSampleRate ||
      info.samplerate > kKyoFileMaxSampleRate || info.frames < 0) {
    detail = "unusable sample rate or channel count in the header";
    sf_close(file);
    ::close(fd);
    result = KyoFileOpenResult::notHandled;
    return nullptr;
  }
  result = KyoFileOpenResult::opened;
  return std::make_unique<SndfileDecoder>(fd, file, info);
}
