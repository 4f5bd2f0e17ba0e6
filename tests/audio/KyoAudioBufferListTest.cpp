#include <gtest/gtest.h>

#include "audio/KyoAudioBufferList.h"
#include "support/EncodedFiles.h"

using sonto::test::ListHolder;

namespace {

// Every sample of buffer b gets a value that names its buffer and position.
void number(AudioBufferList* list) {
  for (uint32_t b = 0; b < list->mNumberBuffers; ++b) {
    auto* data = static_cast<float*>(list->mBuffers[b].mData);
    uint32_t samples = list->mBuffers[b].mDataByteSize / 4;
    for (uint32_t i = 0; i < samples; ++i) data[i] = float(1000 * (b + 1) + i);
  }
}

float at(const AudioBufferList* list, uint32_t buffer, uint32_t sample) {
  return static_cast<const float*>(list->mBuffers[buffer].mData)[sample];
}

TEST(KyoAudioBufferList, CreateMakesZeroedBuffersOfEitherLayout) {
  struct Case {
    uint32_t channels, frames;
    bool interleaved;
    uint32_t buffers, perBuffer;
  };
  for (Case c : {Case{1, 10, false, 1, 1}, Case{3, 10, false, 3, 1}, Case{3, 10, true, 1, 3}, Case{8, 1, true, 1, 8}}) {
    SCOPED_TRACE(testing::Message() << c.channels << (c.interleaved ? " interleaved" : " planar"));
    ListHolder list(c.channels, c.frames, c.interleaved);
    ASSERT_TRUE(list.get());
    ASSERT_EQ(list.get()->mNumberBuffers, c.buffers);
    for (uint32_t b = 0; b < c.buffers; ++b) {
      EXPECT_EQ(list.get()->mBuffers[b].mNumberChannels, c.perBuffer);
      EXPECT_EQ(list.get()->mBuffers[b].mDataByteSize, c.frames * c.perBuffer * 4);
      for (uint32_t i = 0; i < c.frames * c.perBuffer; ++i) ASSERT_EQ(at(list.get(), b, i), 0.0f);
    }
    EXPECT_EQ(KyoAudioBufferListFrameCapacity(list.get()), c.frames);
    EXPECT_EQ(KyoAudioBufferListChannelCount(list.get()), c.channels);
  }
  EXPECT_EQ(KyoAudioBufferListCreate(0, 10, false), nullptr);
  EXPECT_EQ(KyoAudioBufferListCreate(2, 0, true), nullptr);
}

TEST(KyoAudioBufferList, LayoutComparesBufferCountAndChannelsOnly) {
  ListHolder a(2, 10, false);
  ListHolder b(2, 99, false);
  ListHolder c(2, 10, true);
  ListHolder d(1, 10, false);
  EXPECT_TRUE(KyoAudioBufferListHasSameLayout(a.get(), b.get()));
  EXPECT_FALSE(KyoAudioBufferListHasSameLayout(a.get(), c.get()));
  EXPECT_FALSE(KyoAudioBufferListHasSameLayout(a.get(), d.get()));
  EXPECT_FALSE(KyoAudioBufferListHasSameLayout(a.get(), nullptr));
  EXPECT_FALSE(KyoAudioBufferListHasSameLayout(nullptr, nullptr));
}

TEST(KyoAudioBufferList, CopyTakesTheSmallestOfRequestAndWhatIsLeftOnEachSide) {
  struct Case {
    uint32_t sourceOffset, destinationOffset, frames, expected;
  };
  // Source 10 frames, destination 6 frames, both stereo interleaved.
  for (Case c : {Case{0, 0, 4, 4}, Case{0, 0, 50, 6}, Case{7, 0, 50, 3}, Case{2, 5, 50, 1}, Case{10, 0, 5, 0},
                 Case{0, 6, 5, 0}, Case{11, 0, 5, 0}, Case{0, 7, 5, 0}, Case{3, 2, 0, 0}}) {
    SCOPED_TRACE(testing::Message() << c.sourceOffset << "," << c.destinationOffset << "," << c.frames);
    ListHolder source(2, 10, true);
    ListHolder destination(2, 6, true);
    number(source.get());
    EXPECT_EQ(KyoAudioBufferListCopy(source.get(), c.sourceOffset, destination.get(), c.destinationOffset, c.frames),
              c.expected);
    for (uint32_t f = 0; f < 6; ++f)
      for (uint32_t ch = 0; ch < 2; ++ch) {
        bool copied = f >= c.destinationOffset && f < c.destinationOffset + c.expected;
        float want = copied ? float(1000 + (c.sourceOffset + f - c.destinationOffset) * 2 + ch) : 0.0f;
        ASSERT_EQ(at(destination.get(), 0, f * 2 + ch), want) << "frame " << f << " channel " << ch;
      }
  }
}

TEST(KyoAudioBufferList, CopyRefusesOtherLayoutsAndNullLists) {
  ListHolder planar(2, 8, false);
  ListHolder interleaved(2, 8, true);
  number(planar.get());
  EXPECT_EQ(KyoAudioBufferListCopy(planar.get(), 0, interleaved.get(), 0, 8), 0u);
  EXPECT_EQ(at(interleaved.get(), 0, 0), 0.0f);
  EXPECT_EQ(KyoAudioBufferListCopy(nullptr, 0, planar.get(), 0, 8), 0u);
  EXPECT_EQ(KyoAudioBufferListCopy(planar.get(), 0, nullptr, 0, 8), 0u);
  // Planar buffers are copied each into its own.
  ListHolder other(2, 8, false);
  EXPECT_EQ(KyoAudioBufferListCopy(planar.get(), 1, other.get(), 0, 8), 7u);
  EXPECT_EQ(at(other.get(), 0, 0), 1001.0f);
  EXPECT_EQ(at(other.get(), 1, 6), 2007.0f);
}

TEST(KyoAudioBufferList, SilenceZeroesOnlyTheRangeThatFits) {
  struct Case {
    uint32_t offset, frames, expected;
  };
  for (Case c : {Case{0, 3, 3}, Case{2, 100, 6}, Case{8, 5, 0}, Case{9, 5, 0}, Case{4, 0, 0}}) {
    SCOPED_TRACE(testing::Message() << c.offset << "," << c.frames);
    ListHolder list(3, 8, false);
    number(list.get());
    EXPECT_EQ(KyoAudioBufferListSilence(list.get(), c.offset, c.frames), c.expected);
    for (uint32_t b = 0; b < 3; ++b)
      for (uint32_t f = 0; f < 8; ++f) {
        bool zeroed = f >= c.offset && f < c.offset + c.expected;
        ASSERT_EQ(at(list.get(), b, f), zeroed ? 0.0f : float(1000 * (b + 1) + f));
      }
  }
  EXPECT_EQ(KyoAudioBufferListSilence(nullptr, 0, 4), 0u);
}

TEST(KyoAudioBufferList, ResetSizesUndoesADecoderShrinkingTheBuffers) {
  ListHolder list(4, 32, true);
  list.get()->mBuffers[0].mDataByteSize = 4 * 4 * 5;  // a decoder delivered 5 frames
  EXPECT_EQ(KyoAudioBufferListFrameCapacity(list.get()), 5u);
  KyoAudioBufferListResetSizes(list.get(), 32);
  EXPECT_EQ(KyoAudioBufferListFrameCapacity(list.get()), 32u);
  EXPECT_EQ(list.get()->mBuffers[0].mDataByteSize, 32u * 4 * 4);
  KyoAudioBufferListResetSizes(nullptr, 32);
  EXPECT_EQ(KyoAudioBufferListFrameCapacity(nullptr), 0u);
  EXPECT_EQ(KyoAudioBufferListChannelCount(nullptr), 0u);
}

}  // namespace
