#include "audio/KyoAudioBufferList.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {
constexpr uint32_t kSampleBytes = 4;

uint32_t bufferFrames(const AudioBuffer& b) {
  return b.mNumberChannels ? b.mDataByteSize / b.mNumberChannels / kSampleBytes : 0;
}
}  // namespace

AudioBufferList* KyoAudioBufferListAllocateHeader(uint32_t buffers) {
  size_t bytes = sizeof(AudioBufferList) + sizeof(AudioBuffer) * (buffers > 0 ? buffers - 1 : 0);
  auto* list = static_cast<AudioBufferList*>(std::calloc(1, bytes));
  if (list) list->mNumberBuffers = buffers;
  return list;
}

AudioBufferList* KyoAudioBufferListCreate(uint32_t channels, uint32_t frames, bool interleaved) {
  if (channels == 0 || frames == 0) return nullptr;
  uint32_t buffers = interleaved ? 1 : channels;
  uint32_t perBuffer = interleaved ? channels : 1;
  AudioBufferList* list = KyoAudioBufferListAllocateHeader(buffers);
  if (!list) return nullptr;
  for (uint32_t i = 0; i < buffers; ++i) {
    size_t bytes = size_t(frames) * perBuffer * kSampleBytes;
    void* data = std::calloc(1, bytes);
    if (!data) {
      list->mNumberBuffers = i;
      KyoAudioBufferListFree(list);
      return nullptr;
    }
    list->mBuffers[i] = AudioBuffer{perBuffer, uint32_t(bytes), data};
  }
  return list;
}

void KyoAudioBufferListFree(AudioBufferList* list) {
  if (!list) return;
  for (uint32_t i = 0; i < list->mNumberBuffers; ++i) std::free(list->mBuffers[i].mData);
  std::free(list);
}

bool KyoAudioBufferListHasSameLayout(const AudioBufferList* a, const AudioBufferList* b) {
  if (!a || !b || a->mNumberBuffers != b->mNumberBuffers) return false;
  for (uint32_t i = 0; i < a->mNumberBuffers; ++i)
    if (a->mBuffers[i].mNumberChannels != b->mBuffers[i].mNumberChannels) return false;
  return true;
}

uint32_t KyoAudioBufferListFrameCapacity(const AudioBufferList* list) {
  if (!list || list->mNumberBuffers == 0) return 0;
  return bufferFrames(list->mBuffers[0]);
}

uint32_t KyoAudioBufferListCopy(const AudioBufferList* source, uint32_t sourceOffset, AudioBufferList* destination,
                                uint32_t destinationOffset, uint32_t frames) {
  if (!source || !destination || frames == 0) return 0;
  if (!KyoAudioBufferListHasSameLayout(source, destination)) return 0;
  uint32_t sourceCapacity = KyoAudioBufferListFrameCapacity(source);
  uint32_t destinationCapacity = KyoAudioBufferListFrameCapacity(destination);
  if (sourceOffset > sourceCapacity || destinationOffset > destinationCapacity) return 0;
  uint32_t n = std::min({frames, sourceCapacity - sourceOffset, destinationCapacity - destinationOffset});
  if (n == 0) return 0;
  for (uint32_t i = 0; i < destination->mNumberBuffers; ++i) {
    uint32_t ch = destination->mBuffers[i].mNumberChannels;
    auto* d = static_cast<float*>(destination->mBuffers[i].mData) + size_t(destinationOffset) * ch;
    if (i < source->mNumberBuffers) {
      auto* s = static_cast<const float*>(source->mBuffers[i].mData) + size_t(sourceOffset) * ch;
      std::memcpy(d, s, size_t(n) * ch * kSampleBytes);
    } else {
      std::memset(d, 0, size_t(n) * ch * kSampleBytes);
    }
  }
  return n;
}

uint32_t KyoAudioBufferListSilence(AudioBufferList* list, uint32_t offset, uint32_t frames) {
  if (!list) return 0;
  uint32_t capacity = KyoAudioBufferListFrameCapacity(list);
  if (offset > capacity) return 0;
  uint32_t n = std::min(frames, capacity - offset);
  for (uint32_t i = 0; i < list->mNumberBuffers; ++i) {
    uint32_t ch = list->mBuffers[i].mNumberChannels;
    if (list->mBuffers[i].mData)
      std::memset(static_cast<float*>(list->mBuffers[i].mData) + size_t(offset) * ch, 0, size_t(n) * ch * kSampleBytes);
  }
  return n;
}

void KyoAudioBufferListResetSizes(AudioBufferList* list, uint32_t frames) {
  if (!list) return;
  for (uint32_t i = 0; i < list->mNumberBuffers; ++i)
    list->mBuffers[i].mDataByteSize = frames * kSampleBytes * list->mBuffers[i].mNumberChannels;
}

uint32_t KyoAudioBufferListChannelCount(const AudioBufferList* list) {
  if (!list) return 0;
  uint32_t n = 0;
  for (uint32_t i = 0; i < list->mNumberBuffers; ++i) n += list->mBuffers[i].mNumberChannels;
  return n;
}
