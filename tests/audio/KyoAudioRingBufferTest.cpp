#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "audio/KyoAudioRingBuffer.h"
#include "support/EncodedFiles.h"

using sonto::test::ListHolder;

namespace {

using RingPtr = std::unique_ptr<KyoAudioRingBuffer, decltype(&KyoAudioRingBufferFree)>;

RingPtr makeRing(uint32_t channels, uint32_t frames, bool interleaved) {
  return RingPtr(KyoAudioRingBufferCreate(channels, frames, interleaved), KyoAudioRingBufferFree);
}

// Sample of frame f, channel c: unique per frame and channel.
float valueOf(uint64_t f, uint32_t c) { return float(f % 1000003) + 0.25f * float(c); }

float& sampleAt(AudioBufferList* list, uint32_t frame, uint32_t channel) {
  if (list->mNumberBuffers == 1) {
    uint32_t ch = list->mBuffers[0].mNumberChannels;
    return static_cast<float*>(list->mBuffers[0].mData)[size_t(frame) * ch + channel];
  }
  return static_cast<float*>(list->mBuffers[channel].mData)[frame];
}

void fill(AudioBufferList* list, uint32_t channels, uint32_t offset, uint32_t frames, uint64_t firstValue) {
  for (uint32_t i = 0; i < frames; ++i)
    for (uint32_t c = 0; c < channels; ++c) sampleAt(list, offset + i, c) = valueOf(firstValue + i, c);
}

// Answers the index of the first wrong frame, or -1.
int64_t firstMismatch(AudioBufferList* list, uint32_t channels, uint32_t offset, uint32_t frames, uint64_t firstValue) {
  for (uint32_t i = 0; i < frames; ++i)
    for (uint32_t c = 0; c < channels; ++c)
      if (sampleAt(list, offset + i, c) != valueOf(firstValue + i, c)) return i;
  return -1;
}

struct Layout {
  uint32_t channels;
  bool interleaved;
};

class RingLayout : public ::testing::TestWithParam<Layout> {};

TEST_P(RingLayout, HoldsExactlyItsCapacityAndNoMore) {
  auto [channels, interleaved] = GetParam();
  for (uint32_t capacity : {1u, 7u, 512u}) {
    SCOPED_TRACE(capacity);
    auto ring = makeRing(channels, capacity, interleaved);
    ASSERT_TRUE(ring);
    EXPECT_EQ(KyoAudioRingBufferCapacity(ring.get()), capacity);
    EXPECT_EQ(KyoAudioRingBufferCount(ring.get()), 0u);
    EXPECT_EQ(KyoAudioRingBufferSpace(ring.get()), capacity);

    ListHolder in(channels, capacity + 5, interleaved);
    fill(in.get(), channels, 0, capacity + 5, 0);
    EXPECT_EQ(KyoAudioRingBufferWrite(ring.get(), in.get(), 0, capacity + 5), capacity);
    EXPECT_EQ(KyoAudioRingBufferCount(ring.get()), capacity);
    EXPECT_EQ(KyoAudioRingBufferSpace(ring.get()), 0u);
    // The spare slot is never filled.
    EXPECT_EQ(KyoAudioRingBufferWrite(ring.get(), in.get(), 0, 1), 0u);

    ListHolder out(channels, capacity + 5, interleaved);
    EXPECT_EQ(KyoAudioRingBufferRead(ring.get(), out.get(), 0, capacity + 5), capacity);
    EXPECT_EQ(firstMismatch(out.get(), channels, 0, capacity, 0), -1);
    EXPECT_EQ(KyoAudioRingBufferRead(ring.get(), out.get(), 0, 1), 0u);
    EXPECT_EQ(KyoAudioRingBufferSpace(ring.get()), capacity);
  }
}

TEST_P(RingLayout, WrapsAroundTheEndInTwoPiecesAndOneIndexMove) {
  auto [channels, interleaved] = GetParam();
  auto ring = makeRing(channels, 10, interleaved);  // 11 slots
  ListHolder in(channels, 20, interleaved);
  ListHolder out(channels, 20, interleaved);
  fill(in.get(), channels, 0, 20, 100);

  ASSERT_EQ(KyoAudioRingBufferWrite(ring.get(), in.get(), 0, 7), 7u);
  ASSERT_EQ(KyoAudioRingBufferRead(ring.get(), out.get(), 0, 7), 7u);
  // The next 9 frames run over the end of the storage: slots 7..10 then 0..4.
  ASSERT_EQ(KyoAudioRingBufferWrite(ring.get(), in.get(), 7, 9), 9u);
  EXPECT_EQ(ring->writeIndex.load(), 5u);
  EXPECT_EQ(KyoAudioRingBufferCount(ring.get()), 9u);
  EXPECT_EQ(KyoAudioRingBufferSpace(ring.get()), 1u);

  // Read into the list at an offset, across the wrap.
  ASSERT_EQ(KyoAudioRingBufferRead(ring.get(), out.get(), 3, 9), 9u);
  EXPECT_EQ(ring->readIndex.load(), 5u);
  EXPECT_EQ(firstMismatch(out.get(), channels, 3, 9, 107), -1);
  EXPECT_EQ(KyoAudioRingBufferCount(ring.get()), 0u);

  // Filled in place: the free slots 5..10 and 0..3 as two runs, published together;
  // a commit beyond the free space is refused and moves nothing.
  KyoAudioRingBufferRun runs[2];
  ASSERT_EQ(KyoAudioRingBufferFreeRuns(ring.get(), 100, runs), 2);
  EXPECT_EQ(runs[0].start, 5u);
  EXPECT_EQ(runs[0].frames, 6u);
  EXPECT_EQ(runs[1].start, 0u);
  EXPECT_EQ(runs[1].frames, 4u);
  EXPECT_EQ(KyoAudioRingBufferFreeRuns(ring.get(), 3, runs), 1);
  EXPECT_FALSE(KyoAudioRingBufferCommit(ring.get(), 11));
  EXPECT_EQ(KyoAudioRingBufferCount(ring.get()), 0u);
  fill(ring->bufferList, channels, 5, 6, 300);
  fill(ring->bufferList, channels, 0, 2, 306);
  ASSERT_TRUE(KyoAudioRingBufferCommit(ring.get(), 8));
  ASSERT_EQ(KyoAudioRingBufferRead(ring.get(), out.get(), 0, 20), 8u);
  EXPECT_EQ(firstMismatch(out.get(), channels, 0, 8, 300), -1);
}

TEST_P(RingLayout, DropDiscardsFromTheReadSideAcrossTheWrap) {
  auto [channels, interleaved] = GetParam();
  auto ring = makeRing(channels, 8, interleaved);
  ListHolder in(channels, 8, interleaved);
  ListHolder out(channels, 8, interleaved);
  fill(in.get(), channels, 0, 8, 0);
  ASSERT_EQ(KyoAudioRingBufferWrite(ring.get(), in.get(), 0, 6), 6u);
  ASSERT_EQ(KyoAudioRingBufferDrop(ring.get(), 5), 5u);
  fill(in.get(), channels, 0, 8, 6);
  ASSERT_EQ(KyoAudioRingBufferWrite(ring.get(), in.get(), 0, 7), 7u);  // wraps
  EXPECT_EQ(KyoAudioRingBufferDrop(ring.get(), 3), 3u);                // frames 5, 6, 7
  EXPECT_EQ(KyoAudioRingBufferRead(ring.get(), out.get(), 0, 8), 5u);
  EXPECT_EQ(firstMismatch(out.get(), channels, 0, 5, 8), -1);
  EXPECT_EQ(KyoAudioRingBufferDrop(ring.get(), 100), 0u);
}

INSTANTIATE_TEST_SUITE_P(Layouts, RingLayout,
                         ::testing::Values(Layout{1, false}, Layout{2, false}, Layout{2, true}, Layout{6, true}));

TEST(KyoAudioRingBuffer, RequestsAreBoundedByTheListAndTheRing) {
  auto ring = makeRing(2, 64, false);
  ListHolder big(2, 100, false);
  ListHolder small(2, 10, false);
  fill(big.get(), 2, 0, 100, 0);

  // Bounded by what the list holds after the offset.
  EXPECT_EQ(KyoAudioRingBufferWrite(ring.get(), big.get(), 95, 50), 5u);
  EXPECT_EQ(KyoAudioRingBufferWrite(ring.get(), big.get(), 100, 50), 0u);
  EXPECT_EQ(KyoAudioRingBufferWrite(ring.get(), big.get(), 101, 50), 0u);
  // Bounded by what the ring holds.
  EXPECT_EQ(KyoAudioRingBufferRead(ring.get(), small.get(), 0, 1000), 5u);
  EXPECT_EQ(firstMismatch(small.get(), 2, 0, 5, 95), -1);
  EXPECT_EQ(KyoAudioRingBufferWrite(ring.get(), big.get(), 0, 30), 30u);
  EXPECT_EQ(KyoAudioRingBufferRead(ring.get(), small.get(), 4, 1000), 6u);
  EXPECT_EQ(firstMismatch(small.get(), 2, 4, 6, 0), -1);
  EXPECT_EQ(KyoAudioRingBufferRead(ring.get(), small.get(), 11, 5), 0u);
  EXPECT_EQ(KyoAudioRingBufferCount(ring.get()), 24u);

  // A list of another layout moves nothing.
  ListHolder mono(1, 10, false);
  ListHolder interleaved(2, 10, true);
  EXPECT_EQ(KyoAudioRingBufferRead(ring.get(), mono.get(), 0, 5), 0u);
  EXPECT_EQ(KyoAudioRingBufferWrite(ring.get(), interleaved.get(), 0, 5), 0u);
  EXPECT_EQ(KyoAudioRingBufferCount(ring.get()), 24u);
}

TEST(KyoAudioRingBuffer, RefusesEmptyShapesAndToleratesNull) {
  EXPECT_EQ(KyoAudioRingBufferCreate(0, 10, false), nullptr);
  EXPECT_EQ(KyoAudioRingBufferCreate(2, 0, false), nullptr);
  ListHolder list(1, 4, false);
  EXPECT_EQ(KyoAudioRingBufferCount(nullptr), 0u);
  EXPECT_EQ(KyoAudioRingBufferSpace(nullptr), 0u);
  EXPECT_EQ(KyoAudioRingBufferCapacity(nullptr), 0u);
  EXPECT_EQ(KyoAudioRingBufferWrite(nullptr, list.get(), 0, 4), 0u);
  EXPECT_EQ(KyoAudioRingBufferRead(nullptr, list.get(), 0, 4), 0u);
  EXPECT_EQ(KyoAudioRingBufferDrop(nullptr, 4), 0u);
  KyoAudioRingBufferFree(nullptr);
  auto ring = makeRing(1, 4, false);
  EXPECT_EQ(KyoAudioRingBufferWrite(ring.get(), nullptr, 0, 4), 0u);
  EXPECT_EQ(KyoAudioRingBufferRead(ring.get(), nullptr, 0, 4), 0u);
}

// A producer and a consumer on two threads, with chunk sizes that never line up
// with the ring: every frame must arrive once, in order, on every channel.
TEST(KyoAudioRingBuffer, ProducerAndConsumerThreadsMoveEveryFrameInOrder) {
  constexpr uint32_t kChannels = 2;
  constexpr uint64_t kTotal = 400000;
  auto ring = makeRing(kChannels, 1021, false);

  std::thread producer([&] {
    ListHolder in(kChannels, 700, false);
    uint64_t sent = 0;
    uint32_t step = 0;
    while (sent < kTotal) {
      uint32_t chunk = uint32_t(std::min<uint64_t>(1 + (step++ * 37) % 700, kTotal - sent));
      fill(in.get(), kChannels, 0, chunk, sent);
      uint32_t done = 0;
      while (done < chunk) {
        uint32_t n = KyoAudioRingBufferWrite(ring.get(), in.get(), done, chunk - done);
        if (n == 0) std::this_thread::yield();
        done += n;
      }
      sent += chunk;
    }
  });

  ListHolder out(kChannels, 900, false);
  uint64_t received = 0;
  uint32_t step = 0;
  int64_t mismatchAt = -1;
  while (received < kTotal) {
    uint32_t chunk = 1 + (step++ * 53) % 900;
    uint32_t n = KyoAudioRingBufferRead(ring.get(), out.get(), 0, chunk);
    if (n == 0) {
      std::this_thread::yield();
      continue;
    }
    if (mismatchAt < 0) {
      int64_t bad = firstMismatch(out.get(), kChannels, 0, n, received);
      if (bad >= 0) mismatchAt = int64_t(received) + bad;
    }
    received += n;
  }
  producer.join();
  EXPECT_EQ(mismatchAt, -1);
  EXPECT_EQ(received, kTotal);
  EXPECT_EQ(KyoAudioRingBufferCount(ring.get()), 0u);
}

}  // namespace
