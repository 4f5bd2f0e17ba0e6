#pragma once
// One stream format. A new description is the engine's canonical format: 32-bit
// float, packed, non-interleaved linear PCM, 44.1 kHz, one channel. Between streams
// only the rate and the channel count differ. A value type; "no format" is an empty
// std::optional.

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/KyoLog.h"

struct AudioStreamBasicDescription {
  double mSampleRate;
  uint32_t mFormatID;
  uint32_t mFormatFlags;
  uint32_t mBytesPerPacket;
  uint32_t mFramesPerPacket;
  uint32_t mBytesPerFrame;
  uint32_t mChannelsPerFrame;
  uint32_t mBitsPerChannel;
  uint32_t mReserved;
};
static_assert(sizeof(AudioStreamBasicDescription) == 40);

constexpr uint32_t kAudioFormatLinearPCM = KyoFourCC("lpcm");
constexpr uint32_t kAudioFormatFlagIsFloat = 1u << 0;
constexpr uint32_t kAudioFormatFlagIsPacked = 1u << 3;
constexpr uint32_t kAudioFormatFlagIsNonInterleaved = 1u << 5;

class KyoAudioStreamDescription {
 public:
  KyoAudioStreamDescription();  // the canonical format
  explicit KyoAudioStreamDescription(const AudioStreamBasicDescription& description);
  KyoAudioStreamDescription(double rate, uint32_t channels);

  // The class operation "description": a new canonical description.
  static KyoAudioStreamDescription canonicalDescription() { return KyoAudioStreamDescription(); }
  static KyoAudioStreamDescription descriptionWithBasicDescription(const AudioStreamBasicDescription& d) {
    return KyoAudioStreamDescription(d);
  }
  static KyoAudioStreamDescription descriptionWithRate(double rate, uint32_t channels) {
    return KyoAudioStreamDescription(rate, channels);
  }

  void clear();
  AudioStreamBasicDescription streamDescription() const { return m_description; }
  const AudioStreamBasicDescription* streamDescriptionPtr() const { return &m_description; }
  AudioStreamBasicDescription* streamDescriptionPtr() { return &m_description; }
  void setStreamDescription(const AudioStreamBasicDescription& d) { m_description = d; }

  double sampleRate() const { return m_description.mSampleRate; }
  uint32_t format() const { return m_description.mFormatID; }
  uint32_t flags() const { return m_description.mFormatFlags; }
  uint32_t bytesPerPacket() const { return m_description.mBytesPerPacket; }
  uint32_t framesPerPacket() const { return m_description.mFramesPerPacket; }
  uint32_t bytesPerFrame() const { return m_description.mBytesPerFrame; }
  uint32_t channels() const { return m_description.mChannelsPerFrame; }
  uint32_t bitsPerChannel() const { return m_description.mBitsPerChannel; }

  void setSampleRate(double rate) { m_description.mSampleRate = rate; }
  void setFormat(uint32_t format) { m_description.mFormatID = format; }
  void setFlags(uint32_t flags);
  void setBytesPerPacket(uint32_t v) { m_description.mBytesPerPacket = v; }
  void setFramesPerPacket(uint32_t v) { m_description.mFramesPerPacket = v; }
  void setBytesPerFrame(uint32_t v) { m_description.mBytesPerFrame = v; }
  void setChannels(uint32_t channels);
  void setBitsPerChannel(uint32_t bits);

  bool isInterleaved() const { return (m_description.mFormatFlags & kAudioFormatFlagIsNonInterleaved) == 0; }
  bool isLinearPCMFormat() const { return m_description.mFormatID == kAudioFormatLinearPCM; }
  bool isCanonicalFormat() const;
  // Rate (exact), format, flags, packet and frame sizes, channels and bits; not
  // mReserved. Null compares as an all-zero description.
  bool isEqualToDescription(const KyoAudioStreamDescription& other) const;
  bool isEqualToDescription(const KyoAudioStreamDescription* other) const;
  bool operator==(const KyoAudioStreamDescription& other) const { return isEqualToDescription(other); }

  std::string humanFormat() const;
  std::string description() const;

 private:
  void _normalizeBytesPerFrame();
  AudioStreamBasicDescription m_description;
};
