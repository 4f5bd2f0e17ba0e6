#include "audio/KyoAudioStreamDescription.h"

#include <cstdio>
#include <cstring>

KyoAudioStreamDescription::KyoAudioStreamDescription() {
  m_description = AudioStreamBasicDescription{44100.0, kAudioFormatLinearPCM, 41, 4, 1, 4, 1, 32, 0};
}

KyoAudioStreamDescription::KyoAudioStreamDescription(const AudioStreamBasicDescription& description)
    : m_description(description) {}

KyoAudioStreamDescription::KyoAudioStreamDescription(double rate, uint32_t channels) : KyoAudioStreamDescription() {
  setSampleRate(rate);
  setChannels(channels);
}

void KyoAudioStreamDescription::clear() { std::memset(&m_description, 0, sizeof m_description); }

void KyoAudioStreamDescription::setFlags(uint32_t flags) {
  m_description.mFormatFlags = flags;
  _normalizeBytesPerFrame();
}

void KyoAudioStreamDescription::setChannels(uint32_t channels) {
  m_description.mChannelsPerFrame = channels;
  _normalizeBytesPerFrame();
}

void KyoAudioStreamDescription::setBitsPerChannel(uint32_t bits) {
  m_description.mBitsPerChannel = bits;
  _normalizeBytesPerFrame();
}

void KyoAudioStreamDescription::_normalizeBytesPerFrame() {
  uint32_t bytes = m_description.mBitsPerChannel / 8;
  if (isInterleaved()) bytes *= m_description.mChannelsPerFrame;
  m_description.mBytesPerFrame = bytes;
  m_description.mBytesPerPacket = bytes;
}

// Float and packed only: the engine's own description carries the non-interleaved
// bit and so is not "canonical" by this test.
bool KyoAudioStreamDescription::isCanonicalFormat() const {
  return isLinearPCMFormat() && (m_description.mFormatFlags | 9u) == 9u && m_description.mBitsPerChannel == 32 &&
         m_description.mFramesPerPacket == 1;
}

bool KyoAudioStreamDescription::isEqualToDescription(const KyoAudioStreamDescription* other) const {
  if (other) return isEqualToDescription(*other);
  KyoAudioStreamDescription zero;
  zero.clear();
  return isEqualToDescription(zero);
}

bool KyoAudioStreamDescription::isEqualToDescription(const KyoAudioStreamDescription& other) const {
  const auto& a = m_description;
  const auto& b = other.m_description;
  return a.mSampleRate == b.mSampleRate && a.mFormatID == b.mFormatID && a.mFormatFlags == b.mFormatFlags &&
         a.mBytesPerPacket == b.mBytesPerPacket && a.mFramesPerPacket == b.mFramesPerPacket &&
         a.mBytesPerFrame == b.mBytesPerFrame && a.mChannelsPerFrame == b.mChannelsPerFrame &&
         a.mBitsPerChannel == b.mBitsPerChannel;
}

std::string KyoAudioStreamDescription::humanFormat() const {
  struct Entry {
    uint32_t code;
    const char* name;
  };
  static const Entry table[] = {
      {KyoFourCC("lpcm"), "Linear-PCM"},    {KyoFourCC("ac-3"), "AC3"},
      {KyoFourCC("cac3"), "60958AC3"},      {KyoFourCC("ima4"), "Apple-IMA4"},
      {KyoFourCC("aac "), "MPEG4-AAC"},     {KyoFourCC("celp"), "MPEG4-CELP"},
      {KyoFourCC("hvxc"), "MPEG4-HVXC"},    {KyoFourCC("twvq"), "MPEG4-TwinVQ"},
      {KyoFourCC("MAC3"), "MACE3"},         {KyoFourCC("MAC6"), "MACE6"},
      {KyoFourCC("ulaw"), "ULaw"},          {KyoFourCC("alaw"), "ALaw"},
      {KyoFourCC("QDMC"), "QDesign"},       {KyoFourCC("QDM2"), "QDesign2"},
      {KyoFourCC("Qclp"), "QUALCOMM"},      {KyoFourCC(".mp1"), "MP1"},
      {KyoFourCC(".mp2"), "MP2"},           {KyoFourCC(".mp3"), "MP3"},
      {KyoFourCC("alac"), "Apple-Lossless"}, {KyoFourCC("aach"), "MEPG4-AAC_HE"},
      {KyoFourCC("aacl"), "MEPG4-AAC_LD"},  {KyoFourCC("aacp"), "MEPG4-AAC_HE_V2"},
      {KyoFourCC("aacs"), "MEPG4-AAC_Spatial"}, {KyoFourCC("samr"), "AMR"},
      {KyoFourCC("AUDB"), "Audible"},       {KyoFourCC("ilbc"), "iLBC"},
      {0x6D730011, "DVIIntelIMA"},          {0x6D730031, "MicrosoftGSM"},
      {KyoFourCC("aes3"), "AES3"},
  };
  for (const auto& e : table)
    if (e.code == m_description.mFormatID) return e.name;
  return "Unknown";
}

std::string KyoAudioStreamDescription::description() const {
  // The four bytes of the format as they lie in memory (little-endian here).
  char code[5] = {};
  std::memcpy(code, &m_description.mFormatID, 4);
  const char* format =
      "[ %.2f hz | %d channel | %d bit | '%4.4s'-%s | %d bytes per packet | %d frames per packet | "
      "%d bytes per frame | %s";
  auto print = [&](char* out, size_t size) {
    return std::snprintf(out, size, format, m_description.mSampleRate, int(m_description.mChannelsPerFrame),
                         int(m_description.mBitsPerChannel), code, humanFormat().c_str(),
                         int(m_description.mBytesPerPacket), int(m_description.mFramesPerPacket),
                         int(m_description.mBytesPerFrame), isInterleaved() ? "Interleaved ]" : "Non-interleaved ]");
  };
  // A rate from a broken file can be any double, hundreds of digits long.
  const int length = print(nullptr, 0);
  if (length < 0) return {};
  std::string line(size_t(length) + 1, '\0');
  print(line.data(), line.size());
  line.resize(size_t(length));
  return line;
}
