#pragma once
// A single-producer, single-consumer ring of audio frames. The producer (a fill
// thread) only ever stores writeIndex, the consumer (often the render thread) only
// readIndex; the mutex is held around the loads and stores of the two indices and
// never while samples are copied, so the render thread waits a handful of
// instructions at most. One slot always stays empty: equal indices mean empty.

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "audio/KyoAudioBufferList.h"

struct KyoAudioRingBuffer {
  AudioBufferList* bufferList;  // size frames per channel
  // Priority-inheriting: the render thread takes it. Guards the two indices only;
  // taken by the producer and the consumer, after every other lock of the render path.
  pthread_mutex_t mutex;
  // Stored under the mutex; atomic so that Count and Space may read them without it.
  std::atomic<uint32_t> readIndex;
  std::atomic<uint32_t> writeIndex;
  uint32_t size;  // capacity asked for, plus 1
};

KyoAudioRingBuffer* KyoAudioRingBufferCreate(uint32_t channels, uint32_t frames, bool interleaved);
void KyoAudioRingBufferFree(KyoAudioRingBuffer* ring);

// Count and Space read the indices without the lock: a stale value errs on the safe
// side for the side that asks (the consumer sees fewer frames, the producer less room).
uint32_t KyoAudioRingBufferCount(KyoAudioRingBuffer* ring);
uint32_t KyoAudioRingBufferCapacity(KyoAudioRingBuffer* ring);
uint32_t KyoAudioRingBufferSpace(KyoAudioRingBuffer* ring);

// Consumer side: discards up to frames from the read side.
uint32_t KyoAudioRingBufferDrop(KyoAudioRingBuffer* ring, uint32_t frames);
// Producer side: takes up to frames from list (starting at offset) into the ring.
uint32_t KyoAudioRingBufferWrite(KyoAudioRingBuffer* ring, const AudioBufferList* list, uint32_t offset,
                                 uint32_t frames);
// Producer side without a copy: the free slots, at most `frames` of them, as up to two
// runs of the ring's own buffer list (the second from slot 0). The producer fills them
// in place and then publishes the frames it wrote with Commit; the consumer never
// reads free slots, so no lock is held while they are filled. Answers the run count.
struct KyoAudioRingBufferRun {
  uint32_t start;
  uint32_t frames;
};
int KyoAudioRingBufferFreeRuns(KyoAudioRingBuffer* ring, uint32_t frames, KyoAudioRingBufferRun runs[2]);
bool KyoAudioRingBufferCommit(KyoAudioRingBuffer* ring, uint32_t frames);
// Consumer side: gives up to frames from the ring into list, starting at offset.
uint32_t KyoAudioRingBufferRead(KyoAudioRingBuffer* ring, AudioBufferList* list, uint32_t offset, uint32_t frames);

// Lock and unlock the index mutex; a failure is logged with the given text.
int _LockRingBuffer(KyoAudioRingBuffer* ring, const char* message);
int _UnlockRingBuffer(KyoAudioRingBuffer* ring, const char* message);
