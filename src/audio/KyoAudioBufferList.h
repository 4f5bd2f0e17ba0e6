#pragma once
// The buffer list that the whole engine passes around: a count of buffers, each with
// a channel count, a size in bytes and a data pointer. All samples are 32-bit floats;
// frame counts are bytes over 4 over the channels of the first buffer.

#include <cstdint>

struct AudioBuffer {
  uint32_t mNumberChannels;
  uint32_t mDataByteSize;
  void* mData;
};

struct AudioBufferList {
  uint32_t mNumberBuffers;
  AudioBuffer mBuffers[1];  // really mNumberBuffers long
};

// A list header with room for n buffers, no data blocks; freed with free().
AudioBufferList* KyoAudioBufferListAllocateHeader(uint32_t buffers);

AudioBufferList* KyoAudioBufferListCreate(uint32_t channels, uint32_t frames, bool interleaved);
void KyoAudioBufferListFree(AudioBufferList* list);
bool KyoAudioBufferListHasSameLayout(const AudioBufferList* a, const AudioBufferList* b);
uint32_t KyoAudioBufferListFrameCapacity(const AudioBufferList* list);
uint32_t KyoAudioBufferListCopy(const AudioBufferList* source, uint32_t sourceOffset, AudioBufferList* destination,
                                uint32_t destinationOffset, uint32_t frames);
uint32_t KyoAudioBufferListSilence(AudioBufferList* list, uint32_t offset, uint32_t frames);
void KyoAudioBufferListResetSizes(AudioBufferList* list, uint32_t frames);
uint32_t KyoAudioBufferListChannelCount(const AudioBufferList* list);

// Sample access for a non-interleaved list: channel c of the list.
inline float* KyoAudioBufferListChannel(AudioBufferList* list, uint32_t c) {
  return static_cast<float*>(list->mBuffers[c].mData);
}
