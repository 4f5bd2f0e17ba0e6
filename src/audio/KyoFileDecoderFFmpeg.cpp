// The FFmpeg path: what libsndfile does not open, the sound of video files included.
//
// Frame positions count from the first sample that the decoder gives when reading
// from the start, after the codec's own priming samples are trimmed (FFmpeg applies
// the skip of the container's edit list or the stream's initial padding itself).
// The end padding is not always trimmed by FFmpeg: where the container states the
// exact length (the MP4 family), reads stop there.
//
// Seeking lands on packets: the demuxer is sent ahead of the target by a pre-roll,
// the decoder is flushed and decodes forward, and the samples before the target are
// dropped. The position of the first decoded frame comes from its timestamp, so
// this is done only for containers whose timestamps count samples; the others are
// decoded from the start up to the target.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/error.h>
}

#include <algorithm>
#include <mutex>
#include <cstring>
#include <vector>

#include "audio/KyoFileDecoder.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

namespace {

// Frames decoded before a seek target at least, on top of the codec's own pre-roll:
// the frames after a flush that the codec's overlap or bit reservoir spoils.
constexpr int64_t kSeekPrerollFrames = 8192;
// Consecutive undecodable packets after which the data counts as ended.
constexpr int kMaxConsecutiveErrors = 500;

std::string errorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

void logOpenFailure(const std::string& name, int code, const std::string& description) {
  KyoLog("Error: Could not create KyoAudioFile with file: %s", name.c_str());
  KyoLog("       Code: %i", code);
  KyoLog("       Description: %s", description.c_str());
}

bool demuxerHasSampleTimestamps(const char* name) {
  static const char* const kNames[] = {"mov", "matroska", "ogg", "flac", "wav", "aiff", "caf", "w64", "asf"};
  for (const char* n : kNames)
    if (std::strstr(name, n)) return true;
  return false;
}

// One decoded frame's samples, appended as interleaved float for `channels`
// channels: the frame's first ones, silence for any it lacks.
void appendInterleaved(const AVFrame* frame, uint32_t channels, std::vector<float>& out) {
  const int samples = frame->nb_samples;
  const int frameChannels = frame->ch_layout.nb_channels;
  const auto format = AVSampleFormat(frame->format);
  const bool planar = av_sample_fmt_is_planar(format);
  size_t base = out.size();
  out.resize(base + size_t(samples) * channels);
  float* dst = out.data() + base;
  for (uint32_t c = 0; c < channels; ++c) {
    if (int(c) >= frameChannels) {
      for (int i = 0; i < samples; ++i) dst[size_t(i) * channels + c] = 0.0f;
      continue;
    }
    const uint8_t* data = planar ? frame->extended_data[c] : frame->extended_data[0];
    const int stride = planar ? 1 : frameChannels;
    const int first = planar ? 0 : int(c);
    float* d = dst + c;
    switch (av_get_packed_sample_fmt(format)) {
      case AV_SAMPLE_FMT_U8: {
        auto s = reinterpret_cast<const uint8_t*>(data);
        for (int i = 0; i < samples; ++i) d[size_t(i) * channels] = (float(s[first + i * stride]) - 128.0f) / 128.0f;
        break;
      }
      case AV_SAMPLE_FMT_S16: {
        auto s = reinterpret_cast<const int16_t*>(data);
        for (int i = 0; i < samples; ++i) d[size_t(i) * channels] = float(s[first + i * stride]) / 32768.0f;
        break;
      }
      case AV_SAMPLE_FMT_S32: {
        auto s = reinterpret_cast<const int32_t*>(data);
        for (int i = 0; i < samples; ++i) d[size_t(i) * channels] = float(double(s[first + i * stride]) / 2147483648.0);
        break;
      }
      case AV_SAMPLE_FMT_S64: {
        auto s = reinterpret_cast<const int64_t*>(data);
        for (int i = 0; i < samples; ++i)
          d[size_t(i) * channels] = float(double(s[first + i * stride]) / 9223372036854775808.0);
        break;
      }
      case AV_SAMPLE_FMT_FLT: {
        auto s = reinterpret_cast<const float*>(data);
        for (int i = 0; i < samples; ++i) d[size_t(i) * channels] = s[first + i * stride];
        break;
      }
      case AV_SAMPLE_FMT_DBL: {
        auto s = reinterpret_cast<const double*>(data);
        for (int i = 0; i < samples; ++i) d[size_t(i) * channels] = float(s[first + i * stride]);
        break;
      }
      default:
        for (int i = 0; i < samples; ++i) d[size_t(i) * channels] = 0.0f;
        break;
    }
  }
}

class FFmpegDecoder final : public KyoFileDecoder {
 public:
  ~FFmpegDecoder() override { close(); }

  // Logs its failure lines itself; false leaves nothing open.
  bool open(const std::string& path, const std::string& name) {
    m_path = path;
    int status = avformat_open_input(&m_format, path.c_str(), nullptr, nullptr);
    if (status < 0) {
      logOpenFailure(name, status, errorText(status));
      return false;
    }
    status = avformat_find_stream_info(m_format, nullptr);
    if (status < 0) {
      logOpenFailure(name, status, errorText(status));
      return false;
    }
    const AVCodec* codec = nullptr;
    m_streamIndex = av_find_best_stream(m_format, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (m_streamIndex == AVERROR_STREAM_NOT_FOUND) {
      KyoLog("Error: Couldn't find any audio in the file: %s", name.c_str());
      return false;
    }
    if (m_streamIndex < 0 || !codec) {
      status = m_streamIndex < 0 ? m_streamIndex : AVERROR_DECODER_NOT_FOUND;
      logOpenFailure(name, status, errorText(status));
      return false;
    }
    m_stream = m_format->streams[m_streamIndex];
    for (unsigned i = 0; i < m_format->nb_streams; ++i)
      if (int(i) != m_streamIndex) m_format->streams[i]->discard = AVDISCARD_ALL;

    m_decoder = codec;
    if ((status = openCodec()) < 0) {
      logOpenFailure(name, status, errorText(status));
      return false;
    }
    const int rate = m_codec->sample_rate;
    const int channels = m_codec->ch_layout.nb_channels;
    if (channels <= 0 || uint32_t(channels) > kKyoFileMaxChannels || rate < kKyoFileMinSampleRate ||
        rate > kKyoFileMaxSampleRate) {
      logOpenFailure(name, AVERROR_INVALIDDATA,
                     "unusable sample rate " + std::to_string(rate) + " or channel count " + std::to_string(channels));
      return false;
    }
    m_packet = av_packet_alloc();
    m_frame = av_frame_alloc();
    if (!m_packet || !m_frame) {
      logOpenFailure(name, AVERROR(ENOMEM), errorText(AVERROR(ENOMEM)));
      return false;
    }

    std::memset(&m_description, 0, sizeof m_description);
    m_description.mSampleRate = rate;
    m_description.mFormatID = formatIDForCodec(m_codec->codec_id);
    m_description.mChannelsPerFrame = uint32_t(channels);
    m_description.mFramesPerPacket = uint32_t(std::max(m_codec->frame_size, 0));
    m_description.mBitsPerChannel = uint32_t(m_codec->bits_per_raw_sample);
    m_rate = rate;
    m_channels = uint32_t(channels);
    // Timestamps place a frame exactly only in containers that count samples, in a
    // time base no coarser than one sample (Matroska's milliseconds are not).
    m_exactTimestamps = demuxerHasSampleTimestamps(m_format->iformat->name) &&
                        int64_t(m_stream->time_base.den) >= int64_t(m_stream->time_base.num) * rate;

    const AVRational perSample{1, rate};
    if (m_stream->duration != AV_NOPTS_VALUE && m_stream->duration > 0) {
      m_length = av_rescale_q(m_stream->duration, m_stream->time_base, perSample);
    } else if (m_format->duration != AV_NOPTS_VALUE && m_format->duration > 0) {
      m_length = av_rescale_q(m_format->duration, AV_TIME_BASE_Q, perSample);
    }
    // The MP4 family states the length after the encoder's delay and padding; FFmpeg
    // trims the delay but may give the padding of the last packet.
    m_trimAtLength = m_length > 0 && std::strstr(m_format->iformat->name, "mov") != nullptr;

    // The first frame fixes where frame 0 lies on the timestamps, and proves that
    // the stream decodes at all.
    m_syncing = true;
    m_syncTarget = 0;
    m_originKnown = false;
    if (!decodeNext() && m_pending.empty()) {
      logOpenFailure(name, AVERROR_INVALIDDATA, "no audio could be decoded from the file");
      return false;
    }
    return true;
  }

  const char* name() const override { return "ffmpeg"; }
  AudioStreamBasicDescription fileFormat() const override { return m_description; }
  int64_t lengthInFrames() const override { return m_length; }

  bool seek(int64_t frame) override {
    if (frame < 0) frame = 0;
    if (m_trimAtLength && frame > m_length) return false;
    m_pending.clear();
    m_pendingOffset = 0;
    m_ended = false;
    m_errors = 0;
    m_syncing = true;
    m_syncTarget = frame;

    if (m_exactTimestamps && m_originKnown) {
      int64_t preroll = kSeekPrerollFrames + std::max(m_codec->seek_preroll, 0);
      for (int attempt = 0; attempt < 4; ++attempt, preroll *= 4) {
        if (frame - preroll <= 0) break;  // from the start
        if (!seekDemuxer(frame - preroll)) break;
        if (!decodeNext()) break;
        if (m_syncedPosition <= frame) return true;  // landed before: decoded forward to it
        // Landed after the target: go further back.
        m_pending.clear();
        m_pendingOffset = 0;
        m_syncing = true;
      }
    }
    return restartAndSkipTo(frame);
  }

  uint32_t read(float* interleaved, uint32_t frames) override {
    uint32_t done = 0;
    while (done < frames) {
      size_t available = m_pending.size() / m_channels - m_pendingOffset;
      if (available == 0) {
        if (m_ended || !decodeNext()) break;
        continue;
      }
      uint32_t n = uint32_t(std::min<size_t>(available, frames - done));
      std::memcpy(interleaved + size_t(done) * m_channels, m_pending.data() + m_pendingOffset * m_channels,
                  sizeof(float) * n * m_channels);
      m_pendingOffset += n;
      done += n;
    }
    return done;
  }

 private:
  static uint32_t formatIDForCodec(AVCodecID id) {
    switch (id) {
      case AV_CODEC_ID_AAC:
        return KyoFourCC("aac ");
      case AV_CODEC_ID_MP3:
        return KyoFourCC(".mp3");
      case AV_CODEC_ID_MP2:
        return KyoFourCC(".mp2");
      case AV_CODEC_ID_AC3:
        return KyoFourCC("ac-3");
      case AV_CODEC_ID_ALAC:
        return KyoFourCC("alac");
      case AV_CODEC_ID_PCM_MULAW:
        return KyoFourCC("ulaw");
      case AV_CODEC_ID_PCM_ALAW:
        return KyoFourCC("alaw");
      case AV_CODEC_ID_OPUS:
        return KyoFourCC("opus");
      case AV_CODEC_ID_VORBIS:
        return KyoFourCC("vorb");
      case AV_CODEC_ID_FLAC:
        return KyoFourCC("flac");
      default:
        break;
    }
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(id);
    if (descriptor && std::strncmp(descriptor->name, "pcm_", 4) == 0) return kAudioFormatLinearPCM;
    return 0;
  }

  int openCodec() {
    avcodec_free_context(&m_codec);
    m_codec = avcodec_alloc_context3(m_decoder);
    if (!m_codec) return AVERROR(ENOMEM);
    int status = avcodec_parameters_to_context(m_codec, m_stream->codecpar);
    if (status < 0) return status;
    m_codec->pkt_timebase = m_stream->time_base;
    m_codec->thread_count = 1;
    return avcodec_open2(m_codec, m_decoder, nullptr);
  }

  void close() {
    av_frame_free(&m_frame);
    av_packet_free(&m_packet);
    avcodec_free_context(&m_codec);
    avformat_close_input(&m_format);
  }

  int64_t samplesOf(int64_t timestamp) const {
    return av_rescale_q(timestamp, m_stream->time_base, AVRational{1, m_rate});
  }

  bool seekDemuxer(int64_t frame) {
    int64_t ts = av_rescale_q(frame, AVRational{1, m_rate}, m_stream->time_base) + m_originTimestamp;
    if (av_seek_frame(m_format, m_streamIndex, ts, AVSEEK_FLAG_BACKWARD) < 0) return false;
    avcodec_flush_buffers(m_codec);
    m_flushed = false;
    m_ended = false;
    return true;
  }

  // For containers without sample timestamps, or when the demuxer will not land
  // before the target: decode from the beginning and drop up to the target.
  bool restartAndSkipTo(int64_t frame) {
    m_pending.clear();
    m_pendingOffset = 0;
    m_ended = false;
    // Back to the very first packet (the one before frame 0 when the codec primes),
    // with a decoder as fresh as at opening, so that the frames come out as they
    // did the first time.
    bool rewound = (m_firstPacketTimestamp != AV_NOPTS_VALUE &&
                    av_seek_frame(m_format, m_streamIndex, m_firstPacketTimestamp, AVSEEK_FLAG_BACKWARD) >= 0) ||
                   avformat_seek_file(m_format, -1, INT64_MIN, 0, 0, 0) >= 0;
    int status = rewound ? openCodec() : AVERROR(EIO);
    if (status < 0) {
      KYO_LOG_STATUS_DETAIL(status, "cannot rewind " + m_path + ": " + errorText(status));
      m_ended = true;
      return false;
    }
    m_flushed = false;
    // From the start, a container without sample timestamps is counted: frame 0 is
    // the first sample given. The others keep placing frames by their timestamps.
    m_position = 0;
    m_syncing = m_exactTimestamps && !m_positionFromCount;
    m_syncTarget = frame;
    if (!decodeNext()) {
      m_ended = true;
      return frame <= m_position;
    }
    return true;
  }

  // Decodes the next frame of our stream into m_pending (dropping what lies before a
  // seek target and after a stated length). False at the end of the data.
  bool decodeNext() {
    while (true) {
      int status = avcodec_receive_frame(m_codec, m_frame);
      if (status == 0) {
        bool kept = takeFrame();
        av_frame_unref(m_frame);
        if (kept) return true;
        if (m_ended) return false;
        continue;
      }
      if (status == AVERROR_EOF) {
        m_ended = true;
        return false;
      }
      if (status != AVERROR(EAGAIN)) {
        if (++m_errors > kMaxConsecutiveErrors) {
          KYO_LOG_STATUS_DETAIL(status, "decoding stopped on " + m_path + ": " + errorText(status));
          m_ended = true;
          return false;
        }
      }
      if (m_flushed) {
        m_ended = true;
        return false;
      }
      status = av_read_frame(m_format, m_packet);
      if (status < 0) {
        // The end of the file or a read error: drain what the decoder still holds.
        if (status != AVERROR_EOF) KYO_LOG_AT(3, "read ended on %s: %s", m_path.c_str(), errorText(status).c_str());
        avcodec_send_packet(m_codec, nullptr);
        m_flushed = true;
        continue;
      }
      if (m_packet->stream_index == m_streamIndex) {
        if (!m_firstPacketSeen) {
          m_firstPacketSeen = true;
          m_firstPacketTimestamp = m_packet->pts != AV_NOPTS_VALUE ? m_packet->pts : m_packet->dts;
        }
        status = avcodec_send_packet(m_codec, m_packet);
        if (status < 0 && status != AVERROR(EAGAIN) && ++m_errors > kMaxConsecutiveErrors) {
          KYO_LOG_STATUS_DETAIL(status, "decoding stopped on " + m_path + ": " + errorText(status));
          av_packet_unref(m_packet);
          m_ended = true;
          return false;
        }
      }
      av_packet_unref(m_packet);
    }
  }

  // Places the received frame on the frame line; answers whether any of it is kept.
  bool takeFrame() {
    m_errors = 0;
    const int64_t samples = m_frame->nb_samples;
    if (samples <= 0) return false;
    int64_t timestamp = m_frame->best_effort_timestamp;
    int64_t position = m_position;
    if (m_syncing) {
      if (!m_originKnown) {
        m_originTimestamp = timestamp == AV_NOPTS_VALUE ? 0 : timestamp;
        m_originSamples = samplesOf(m_originTimestamp);
        m_originKnown = true;
        position = 0;
        m_positionFromCount = timestamp == AV_NOPTS_VALUE;
      } else if (timestamp != AV_NOPTS_VALUE) {
        position = samplesOf(timestamp) - m_originSamples;
      }
      m_syncedPosition = position;
      m_syncing = false;
    }
    m_position = position + samples;

    int64_t first = std::max<int64_t>(0, m_syncTarget - position);
    int64_t last = samples;
    if (m_trimAtLength) last = std::min(last, m_length - position);
    if (first >= last) {
      if (m_trimAtLength && position + first >= m_length) m_ended = true;
      return false;
    }
    m_pending.clear();
    m_pendingOffset = size_t(first);
    appendInterleaved(m_frame, m_channels, m_pending);
    m_pending.resize(size_t(last) * m_channels);
    m_syncTarget = position + last;  // from here on nothing is dropped
    return true;
  }

  std::string m_path;
  AVFormatContext* m_format = nullptr;
  AVCodecContext* m_codec = nullptr;
  AVStream* m_stream = nullptr;
  AVPacket* m_packet = nullptr;
  AVFrame* m_frame = nullptr;
  int m_streamIndex = -1;
  AudioStreamBasicDescription m_description{};
  int m_rate = 0;
  uint32_t m_channels = 0;
  int64_t m_length = 0;
  bool m_trimAtLength = false;
  bool m_exactTimestamps = false;

  const AVCodec* m_decoder = nullptr;
  int64_t m_firstPacketTimestamp = AV_NOPTS_VALUE;  // stream time base
  bool m_firstPacketSeen = false;
  int64_t m_originTimestamp = 0;  // stream time base: where frame 0 lies
  int64_t m_originSamples = 0;
  bool m_originKnown = false;
  bool m_positionFromCount = false;

  int64_t m_position = 0;    // frame after the last decoded frame
  int64_t m_syncTarget = 0;  // frames before this one are dropped
  bool m_syncing = false;    // the next frame's timestamp sets m_position
  int64_t m_syncedPosition = 0;  // where the first frame after the last sync lay
  bool m_flushed = false;
  bool m_ended = false;
  int m_errors = 0;
  std::vector<float> m_pending;  // decoded, interleaved, not yet read
  size_t m_pendingOffset = 0;    // frames of m_pending already read
};

}  // namespace

std::unique_ptr<KyoFileDecoder> KyoFileDecoderOpenFFmpeg(const std::string& path, const std::string& displayName) {
  // FFmpeg's own warnings would end up among our log lines for every odd file. Its
  // level is a plain global: set once, whatever thread opens the first file.
  static std::once_flag quiet;
  std::call_once(quiet, [] {
    if (KyoEnvironment::logLevel() < 3) av_log_set_level(AV_LOG_QUIET);
  });
  auto decoder = std::make_unique<FFmpegDecoder>();
  if (!decoder->open(path, displayName)) return nullptr;
  return decoder;
}
