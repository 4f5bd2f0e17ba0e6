#include <gtest/gtest.h>

#include <cstring>

#include "audio/KyoAudioStreamDescription.h"

TEST(KyoAudioStreamDescription, CanonicalFormatAndNormalizedSizes) {
  KyoAudioStreamDescription d;
  const AudioStreamBasicDescription expected{44100.0, kAudioFormatLinearPCM, 41, 4, 1, 4, 1, 32, 0};
  EXPECT_EQ(std::memcmp(d.streamDescriptionPtr(), &expected, sizeof expected), 0);
  EXPECT_FALSE(d.isInterleaved());
  EXPECT_TRUE(d.isLinearPCMFormat());
  EXPECT_FALSE(d.isCanonicalFormat());  // carries the non-interleaved bit
  d.setFlags(9);
  EXPECT_TRUE(d.isCanonicalFormat());
  d.setFramesPerPacket(2);
  EXPECT_FALSE(d.isCanonicalFormat());

  // Non-interleaved: one channel per buffer, whatever the channel count.
  KyoAudioStreamDescription six = KyoAudioStreamDescription::descriptionWithRate(48000.0, 6);
  EXPECT_EQ(six.bytesPerFrame(), 4u);
  EXPECT_EQ(six.bytesPerPacket(), 4u);
  six.setFlags(six.flags() & ~kAudioFormatFlagIsNonInterleaved);
  EXPECT_TRUE(six.isInterleaved());
  EXPECT_EQ(six.bytesPerFrame(), 24u);
  EXPECT_EQ(six.bytesPerPacket(), 24u);
  six.setBitsPerChannel(16);
  EXPECT_EQ(six.bytesPerFrame(), 12u);
  six.setBitsPerChannel(12);  // integer division of the bits
  EXPECT_EQ(six.bytesPerFrame(), 6u);

  // Setters that do not normalize, and the one that then overwrites.
  KyoAudioStreamDescription e;
  e.setBytesPerFrame(99);
  e.setSampleRate(96000.0);
  e.setFormat(KyoFourCC("alaw"));
  e.setBytesPerPacket(7);
  EXPECT_EQ(e.bytesPerFrame(), 99u);
  EXPECT_EQ(e.bytesPerPacket(), 7u);
  e.setChannels(2);
  EXPECT_EQ(e.bytesPerFrame(), 4u);
  EXPECT_EQ(e.bytesPerPacket(), 4u);

  e.clear();
  AudioStreamBasicDescription zero{};
  EXPECT_EQ(std::memcmp(e.streamDescriptionPtr(), &zero, sizeof zero), 0);
}

TEST(KyoAudioStreamDescription, Equality) {
  AudioStreamBasicDescription raw{48000.0, kAudioFormatLinearPCM, 41, 4, 1, 4, 2, 32, 0};
  KyoAudioStreamDescription a(raw);
  raw.mReserved = 77;
  KyoAudioStreamDescription b(raw);
  EXPECT_TRUE(a.isEqualToDescription(b));  // mReserved does not count
  EXPECT_TRUE(a == b);

  auto differsBy = [&](auto change) {
    AudioStreamBasicDescription other{48000.0, kAudioFormatLinearPCM, 41, 4, 1, 4, 2, 32, 0};
    change(other);
    return !a.isEqualToDescription(KyoAudioStreamDescription(other));
  };
  EXPECT_TRUE(differsBy([](auto& d) { d.mSampleRate = 48000.000001; }));
  EXPECT_TRUE(differsBy([](auto& d) { d.mFormatID = 0; }));
  EXPECT_TRUE(differsBy([](auto& d) { d.mFormatFlags = 9; }));
  EXPECT_TRUE(differsBy([](auto& d) { d.mBytesPerPacket = 8; }));
  EXPECT_TRUE(differsBy([](auto& d) { d.mFramesPerPacket = 2; }));
  EXPECT_TRUE(differsBy([](auto& d) { d.mBytesPerFrame = 8; }));
  EXPECT_TRUE(differsBy([](auto& d) { d.mChannelsPerFrame = 1; }));
  EXPECT_TRUE(differsBy([](auto& d) { d.mBitsPerChannel = 16; }));

  // Nothing compares as the all-zero description.
  KyoAudioStreamDescription cleared;
  cleared.clear();
  EXPECT_TRUE(cleared.isEqualToDescription(nullptr));
  EXPECT_FALSE(a.isEqualToDescription(nullptr));
}

TEST(KyoAudioStreamDescription, TextForms) {
  KyoAudioStreamDescription d(48000.0, 2);
  EXPECT_EQ(d.description(),
            "[ 48000.00 hz | 2 channel | 32 bit | 'mcpl'-Linear-PCM | 4 bytes per packet | 1 frames per packet | "
            "4 bytes per frame | Non-interleaved ]");
  d.setFlags(9);
  d.setFormat(KyoFourCC(".mp3"));
  EXPECT_EQ(d.humanFormat(), "MP3");
  EXPECT_NE(d.description().find("'3pm.'-MP3"), std::string::npos);
  EXPECT_NE(d.description().find("| Interleaved ]"), std::string::npos);

  struct Case {
    uint32_t code;
    const char* name;
  };
  const Case names[] = {{KyoFourCC("aach"), "MEPG4-AAC_HE"}, {0x6D730011, "DVIIntelIMA"},
                        {0x6D730031, "MicrosoftGSM"},        {KyoFourCC("aes3"), "AES3"},
                        {KyoFourCC("Qclp"), "QUALCOMM"},     {KyoFourCC("alac"), "Apple-Lossless"},
                        {KyoFourCC("flac"), "Unknown"},      {0, "Unknown"}};
  for (const auto& c : names) {
    d.setFormat(c.code);
    EXPECT_EQ(d.humanFormat(), c.name);
  }

  // A rate from a broken file prints whole, however long.
  d.setSampleRate(1e300);
  const std::string line = d.description();
  EXPECT_GT(line.size(), 300u);
  EXPECT_EQ(line.substr(line.size() - 13), "Interleaved ]");
}
