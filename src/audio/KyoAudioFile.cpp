#include "audio/KyoAudioFile.h"

#include <soxr.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <vector>

#include "audio/KyoFileDecoder.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoFileKind.h"
#include "foundation/KyoLog.h"

namespace {

// Frames per step between the decoder, the resampler and the caller's buffers:
// small enough that the scratch blocks stay in cache.
constexpr uint32_t kChunkFrames = 2048;

// Input frames decoded ahead of a seek target so that the resampler's filter has
// its full history there; scaled by the ratio when going down in rate.
constexpr int64_t kResamplerPrerollFrames = 4096;

// Longest run of input frames after which the two rates' sample grids meet again
// that a seek will decode through to keep the straight-through grid, in seconds.
constexpr double kMaxGridPeriodSeconds = 4.0;

std::string displayNameFor(const KyoAlias& alias) {
  std::string path = alias.fullPath();
  return path.empty() ? alias.lastKnownFullPath() : path;
}

void deinterleaveStereo(const float* __restrict source, float* __restrict left, float* __restrict right,
                        uint32_t frames) {
  uint32_t i = 0;
#if defined(__SSE2__)
  for (; i + 4 <= frames; i += 4) {
    const __m128 a = _mm_loadu_ps(source + 2 * i);      // L0 R0 L1 R1
    const __m128 b = _mm_loadu_ps(source + 2 * i + 4);  // L2 R2 L3 R3
    _mm_storeu_ps(left + i, _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
    _mm_storeu_ps(right + i, _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
  }
#endif
  for (; i < frames; ++i) {
    left[i] = source[2 * i];
    right[i] = source[2 * i + 1];
  }
}

// Copies `frames` interleaved frames of `sourceChannels` into the caller's list at
// frame `at`: channel c from source channel c, silence where the source has none.
void scatter(const float* source, uint32_t sourceChannels, uint32_t frames, AudioBufferList* list, uint32_t at) {
  if (list->mNumberBuffers == 1 && list->mBuffers[0].mNumberChannels > 1) {
    uint32_t out = list->mBuffers[0].mNumberChannels;
    float* dst = static_cast<float*>(list->mBuffers[0].mData) + size_t(at) * out;
    if (out == sourceChannels) {
      std::memcpy(dst, source, sizeof(float) * frames * out);
      return;
    }
    uint32_t common = std::min(out, sourceChannels);
    for (uint32_t i = 0; i < frames; ++i) {
      for (uint32_t c = 0; c < common; ++c) dst[c] = source[c];
      for (uint32_t c = common; c < out; ++c) dst[c] = 0.0f;
      dst += out;
      source += sourceChannels;
    }
    return;
  }
  const uint32_t common = std::min(list->mNumberBuffers, sourceChannels);
  for (uint32_t b = common; b < list->mNumberBuffers; ++b) {
    float* dst = static_cast<float*>(list->mBuffers[b].mData);
    if (dst) std::memset(dst + at, 0, sizeof(float) * frames);
  }
  if (sourceChannels == 1) {
    if (float* dst = static_cast<float*>(list->mBuffers[0].mData)) std::memcpy(dst + at, source, sizeof(float) * frames);
    return;
  }
  // This copy is most of what reading costs over the decoder itself: stereo, the
  // common case, goes four frames at a time.
  if (sourceChannels == 2 && common == 2 && list->mBuffers[0].mData && list->mBuffers[1].mData) {
    deinterleaveStereo(source, static_cast<float*>(list->mBuffers[0].mData) + at,
                       static_cast<float*>(list->mBuffers[1].mData) + at, frames);
    return;
  }
  // Pairs of channels in one pass: the stride is known, so the compiler keeps the
  // loop tight.
  uint32_t b = 0;
  for (; b + 1 < common; b += 2) {
    float* left = static_cast<float*>(list->mBuffers[b].mData);
    float* right = static_cast<float*>(list->mBuffers[b + 1].mData);
    const float* src = source + b;
    if (left && right) {
      left += at;
      right += at;
      for (uint32_t i = 0; i < frames; ++i, src += sourceChannels) {
        left[i] = src[0];
        right[i] = src[1];
      }
    } else {
      for (uint32_t c = 0; c < 2; ++c) {
        float* dst = static_cast<float*>(list->mBuffers[b + c].mData);
        if (!dst) continue;
        dst += at;
        for (uint32_t i = 0; i < frames; ++i) dst[i] = src[size_t(i) * sourceChannels + c];
      }
    }
  }
  if (b < common) {
    float* dst = static_cast<float*>(list->mBuffers[b].mData);
    if (!dst) return;
    dst += at;
    const float* src = source + b;
    for (uint32_t i = 0; i < frames; ++i) dst[i] = src[size_t(i) * sourceChannels];
  }
}

uint32_t listFrameCapacity(const AudioBufferList* list) {
  uint32_t capacity = UINT32_MAX;
  for (uint32_t b = 0; b < list->mNumberBuffers; ++b) {
    const AudioBuffer& buffer = list->mBuffers[b];
    uint32_t channels = std::max<uint32_t>(buffer.mNumberChannels, 1);
    capacity = std::min(capacity, buffer.mDataByteSize / 4 / channels);
  }
  return list->mNumberBuffers ? capacity : 0;
}

// The frames that decode from the decoder's present position to the end.
int64_t countFrames(KyoFileDecoder& file) {
  std::vector<float> scratch(size_t(kChunkFrames) * file.channels());
  int64_t total = 0;
  while (uint32_t got = file.read(scratch.data(), kChunkFrames)) total += got;
  return total;
}

}  // namespace

// The open decoder and the conversion state between it and the caller.
struct KyoAudioFile::Decoder {
  std::unique_ptr<KyoFileDecoder> file;
  int64_t lengthInFrames = 0;  // at the file's rate
  uint32_t fileChannels = 0;
  double fileRate = 0;

  double readRate = 0;
  soxr_t resampler = nullptr;
  std::vector<float> input;    // decoded frames waiting for the resampler, interleaved
  uint32_t inputOffset = 0;    // frames of `input` already taken
  uint32_t inputFrames = 0;    // frames held in `input`
  bool inputEnded = false;     // the decoder has given its last frame
  std::vector<float> output;   // the resampler's or the decoder's frames, interleaved
  int64_t discardFrames = 0;   // output frames still to drop after a seek

  ~Decoder() { closeResampler(); }

  void closeResampler() {
    if (resampler) soxr_delete(resampler);
    resampler = nullptr;
  }

  void resetPipeline() {
    inputOffset = inputFrames = 0;
    inputEnded = false;
    discardFrames = 0;
    if (resampler) soxr_clear(resampler);
  }

  // Frames at the read rate, interleaved with the file's channels, into `output`.
  uint32_t pull(uint32_t frames) {
    if (!resampler) {
      uint32_t got = inputEnded ? 0 : file->read(output.data(), frames);
      if (got == 0) inputEnded = true;
      return got;
    }
    uint32_t produced = 0;
    while (produced == 0) {
      if (inputOffset == inputFrames && !inputEnded) {
        inputOffset = 0;
        inputFrames = file->read(input.data(), kChunkFrames);
        if (inputFrames == 0) inputEnded = true;
      }
      size_t consumed = 0, made = 0;
      const float* in = inputEnded ? nullptr : input.data() + size_t(inputOffset) * fileChannels;
      soxr_error_t error = soxr_process(resampler, in, inputFrames - inputOffset, &consumed, output.data(), frames, &made);
      if (error) {
        KYO_LOG_STATUS_DETAIL(-1, std::string(error));
        return 0;
      }
      inputOffset += uint32_t(consumed);
      produced = uint32_t(made);
      if (made == 0 && inputEnded) break;  // flushed: the end of the data
    }
    return produced;
  }
};

KyoAudioFile::KyoAudioFile() : KyoAudioFile(nullptr) {}

KyoAudioFile::KyoAudioFile(std::shared_ptr<KyoAlias> alias) { setAlias(std::move(alias)); }

KyoAudioFile::~KyoAudioFile() { _closeFile(); }

double KyoAudioFile::fileLengthInSecondsForAlias(const std::shared_ptr<KyoAlias>& alias) {
  if (!alias || alias->fullPath().empty()) return 0;
  KyoAudioFile file(alias);
  return file.fileLengthInSeconds();
}

std::optional<KyoAudioStreamDescription> KyoAudioFile::fileFormatForAlias(const std::shared_ptr<KyoAlias>& alias) {
  if (!alias || alias->fullPath().empty()) return std::nullopt;
  KyoAudioFile file(alias);
  return file.fileFormat();
}

void KyoAudioFile::setAlias(std::shared_ptr<KyoAlias> alias) {
  m_alias = std::move(alias);
  _openFile();
}

void KyoAudioFile::_openFile() {
  if (!m_alias) return;
  _closeFile();
  std::string path = m_alias->fullPath();
  std::string name = displayNameFor(*m_alias);
  auto refuse = [&name](const std::string& why) { KyoLog("Error: Cannot read '%s': %s", name.c_str(), why.c_str()); };
  // Before any open: a FIFO would hold this thread until a writer came.
  if (std::string why = KyoFileUnreadableReason(path); !why.empty()) return refuse(why);

  KyoFileOpenResult result = KyoFileOpenResult::notFound;
  std::string detail;
  std::unique_ptr<KyoFileDecoder> file;
  if (!path.empty()) file = KyoFileDecoderOpenSndfile(path, result, detail);
  if (!file) {
    if (result == KyoFileOpenResult::tooManyFiles) {
      KyoLog("Error: Too many files open when opening %s", name.c_str());
      return;
    }
    if (result == KyoFileOpenResult::notFound) {
      KyoLog("Error: Could not find file %s", name.c_str());
      return;
    }
    file = KyoFileDecoderOpenFFmpeg(path, name);
    if (!file) {
      _closeFile();
      return;
    }
  }

  // A damaged file can open and still not play: a FLAC whose first frame is damaged
  // cannot go to its start (refused), a cut Ogg states the largest count as its
  // length (what decodes is counted, and plays).
  int64_t length = file->lengthInFrames();
  const double maxFrames = kKyoFileMaxLengthInSeconds * file->sampleRate();
  const char* damage = nullptr;
  if (!file->seek(0)) {
    damage = "its start cannot be decoded";
  } else if (length < 0 || double(length) > maxFrames) {
    KYO_LOG_AT(3, "%s states %lld frames; counting them", name.c_str(), (long long)length);
    length = countFrames(*file);
    if (length == 0 || !file->seek(0)) damage = "no sound can be decoded from it";
  }
  if (damage) return refuse(std::string("it is damaged: ") + damage + "; replace it with a good copy");

  m_decoder = std::make_unique<Decoder>();
  m_decoder->file = std::move(file);
  m_decoder->lengthInFrames = length;
  m_decoder->fileChannels = m_decoder->file->channels();
  m_decoder->fileRate = m_decoder->file->sampleRate();
  m_fileFormat = KyoAudioStreamDescription(m_decoder->file->fileFormat());
  setReadFormat(std::nullopt);
}

void KyoAudioFile::_closeFile() {
  m_decoder.reset();
  m_fileFormat.reset();
  m_fileLengthInSeconds = 0;
}

bool KyoAudioFile::validFile() const { return m_decoder != nullptr; }

bool KyoAudioFile::usingQuickTime() const {
  return m_decoder && std::strcmp(m_decoder->file->name(), "ffmpeg") == 0;
}

std::string KyoAudioFile::decoderName() const { return m_decoder ? m_decoder->file->name() : std::string(); }

std::optional<KyoAudioStreamDescription> KyoAudioFile::fileFormat() { return m_fileFormat; }

uint32_t KyoAudioFile::fileChannels() { return m_fileFormat ? m_fileFormat->channels() : 0; }

int64_t KyoAudioFile::_fileLengthInFrames() { return m_decoder ? m_decoder->lengthInFrames : 0; }

double KyoAudioFile::fileLengthInSeconds() {
  if (m_fileLengthInSeconds == 0 && m_decoder && m_fileFormat && m_fileFormat->sampleRate() > 0)
    m_fileLengthInSeconds = double(_fileLengthInFrames()) / m_fileFormat->sampleRate();
  return m_fileLengthInSeconds;
}

void KyoAudioFile::setReadFormat(const std::optional<KyoAudioStreamDescription>& format) {
  if (!m_decoder) return;
  Decoder& d = *m_decoder;
  double rate = format ? format->sampleRate() : d.fileRate;
  if (!(rate >= kKyoFileMinSampleRate && rate <= kKyoFileMaxSampleRate)) {
    KYO_LOG_STATUS_DETAIL(-50, "unusable read sample rate " + std::to_string(rate));
    return;
  }
  d.closeResampler();
  d.readRate = rate;
  uint32_t outputFrames = kChunkFrames;
  if (rate != d.fileRate) {
    soxr_error_t error = nullptr;
    soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    soxr_runtime_spec_t runtime = soxr_runtime_spec(1);  // no worker threads of its own
    d.resampler = soxr_create(d.fileRate, rate, d.fileChannels, &error, &io, &quality, &runtime);
    if (!d.resampler) {
      KYO_LOG_STATUS_DETAIL(-50, std::string(error ? error : "resampler"));
      d.readRate = d.fileRate;
    } else {
      d.input.assign(size_t(kChunkFrames) * d.fileChannels, 0.0f);
    }
  }
  d.output.assign(size_t(outputFrames) * d.fileChannels, 0.0f);
  // A new conversion starts from the decoder's present position: restart the
  // pipeline there so that no frames of the old rate are left in it.
  d.resetPipeline();
}

void KyoAudioFile::goToFrame(int64_t frame) {
  m_atEndOfFile = false;
  if (!m_decoder) return;
  Decoder& d = *m_decoder;
  if (frame < 0) frame = 0;
  d.resetPipeline();

  int64_t seekFrame = frame;
  if (d.resampler) {
    // The resampler's first output frame lies on the first input frame. Start it far
    // enough ahead of the target for the filter to be full, at an input frame where
    // the grids of both rates meet, and drop output up to the frame nearest the
    // target: the same samples as reading straight through to it.
    double in = d.fileRate, out = d.readRate;
    int64_t preroll = int64_t(std::ceil(kResamplerPrerollFrames * std::max(1.0, in / out)));
    int64_t target = std::llround(double(frame) * out / in);  // at the read rate
    bool integral = in == std::floor(in) && out == std::floor(out);
    int64_t inRate = int64_t(in), outRate = int64_t(out);
    int64_t g = integral ? std::gcd(inRate, outRate) : 1;
    int64_t periodIn = integral ? inRate / g : 0, periodOut = integral ? outRate / g : 0;
    if (integral && double(periodIn) <= kMaxGridPeriodSeconds * in) {
      int64_t k = std::min((frame - preroll) / periodIn, target / periodOut);
      if (frame - preroll < 0) k = 0;
      seekFrame = k * periodIn;
      d.discardFrames = target - k * periodOut;
    } else {
      seekFrame = std::max<int64_t>(0, frame - preroll);
      d.discardFrames = std::llround(double(frame - seekFrame) * out / in);
    }
  }
  if (!d.file->seek(seekFrame)) {
    KYO_LOG_STATUS_DETAIL(-1, "cannot seek to frame " + std::to_string(frame));
    d.inputEnded = true;
  }
}

uint32_t KyoAudioFile::readFrames(uint32_t frames, AudioBufferList* list, uint32_t offset) {
  // The decoder always writes at the start of the list; callers pass 0 for offset.
  (void)offset;
  if (m_atEndOfFile || !m_decoder || !list || list->mNumberBuffers == 0) return 0;
  Decoder& d = *m_decoder;
  frames = std::min(frames, listFrameCapacity(list));

  uint32_t done = 0;
  bool ended = false;
  while (done < frames) {
    // Ask for no more than the caller still takes plus what a seek still drops, so
    // that nothing decoded is ever left over between calls.
    int64_t want = std::min<int64_t>(kChunkFrames, int64_t(frames - done) + d.discardFrames);
    uint32_t got = d.pull(uint32_t(want));
    if (got == 0) {
      ended = true;
      break;
    }
    uint32_t skip = uint32_t(std::min<int64_t>(d.discardFrames, got));
    d.discardFrames -= skip;
    uint32_t keep = got - skip;
    scatter(d.output.data() + size_t(skip) * d.fileChannels, d.fileChannels, keep, list, done);
    done += keep;
  }

  for (uint32_t b = 0; b < list->mNumberBuffers; ++b)
    list->mBuffers[b].mDataByteSize = done * 4 * std::max<uint32_t>(list->mBuffers[b].mNumberChannels, 1);
  if (done == 0 && ended) m_atEndOfFile = true;
  return done;
}
