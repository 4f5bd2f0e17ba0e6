#include "audio/KyoAudioRingBuffer.h"

#include <algorithm>
#include <new>

#include "foundation/KyoLog.h"

static_assert(std::atomic<uint32_t>::is_always_lock_free);

namespace {

uint32_t countOf(uint32_t readIndex, uint32_t writeIndex, uint32_t size) {
  return writeIndex >= readIndex ? writeIndex - readIndex : writeIndex + size - readIndex;
}

uint32_t spaceOf(uint32_t readIndex, uint32_t writeIndex, uint32_t size) {
  uint32_t space = size + readIndex - 1 - writeIndex;
  return writeIndex < readIndex ? space - size : space;
}

bool snapshot(KyoAudioRingBuffer* ring, const char* lockText, const char* unlockText, uint32_t& readIndex,
              uint32_t& writeIndex) {
  if (_LockRingBuffer(ring, lockText) != 0) return false;
  readIndex = ring->readIndex.load(std::memory_order_relaxed);
  writeIndex = ring->writeIndex.load(std::memory_order_relaxed);
  return _UnlockRingBuffer(ring, unlockText) == 0;
}

bool store(std::atomic<uint32_t>& index, uint32_t value, KyoAudioRingBuffer* ring, const char* lockText,
           const char* unlockText) {
  if (_LockRingBuffer(ring, lockText) != 0) return false;
  index.store(value, std::memory_order_relaxed);
  return _UnlockRingBuffer(ring, unlockText) == 0;
}

uint32_t listRoom(const AudioBufferList* list, uint32_t offset) {
  uint32_t capacity = KyoAudioBufferListFrameCapacity(list);
  return offset < capacity ? capacity - offset : 0;
}

}  // namespace

KyoAudioRingBuffer* KyoAudioRingBufferCreate(uint32_t channels, uint32_t frames, bool interleaved) {
  if (channels == 0 || frames == 0 || frames == UINT32_MAX) return nullptr;
  auto* ring = new (std::nothrow) KyoAudioRingBuffer;
  if (!ring) return nullptr;
  ring->size = frames + 1;
  ring->bufferList = KyoAudioBufferListCreate(channels, ring->size, interleaved);
  if (!ring->bufferList) {
    delete ring;
    return nullptr;
  }
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
  int status = pthread_mutex_init(&ring->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (status != 0) {
    KYO_LOG_STATUS(status);
    KyoAudioBufferListFree(ring->bufferList);
    delete ring;
    return nullptr;
  }
  ring->readIndex.store(0);
  ring->writeIndex.store(0);
  return ring;
}

void KyoAudioRingBufferFree(KyoAudioRingBuffer* ring) {
  if (!ring) return;
  KyoAudioBufferListFree(ring->bufferList);
  pthread_mutex_destroy(&ring->mutex);
  delete ring;
}

uint32_t KyoAudioRingBufferCount(KyoAudioRingBuffer* ring) {
  if (!ring) return 0;
  return countOf(ring->readIndex.load(std::memory_order_relaxed), ring->writeIndex.load(std::memory_order_relaxed),
                 ring->size);
}

uint32_t KyoAudioRingBufferCapacity(KyoAudioRingBuffer* ring) { return ring ? ring->size - 1 : 0; }

uint32_t KyoAudioRingBufferSpace(KyoAudioRingBuffer* ring) {
  if (!ring) return 0;
  return spaceOf(ring->readIndex.load(std::memory_order_relaxed), ring->writeIndex.load(std::memory_order_relaxed),
                 ring->size);
}

uint32_t KyoAudioRingBufferDrop(KyoAudioRingBuffer* ring, uint32_t frames) {
  if (!ring) return 0;
  static const char* lockText = "unable to lock mutex during drop";
  static const char* unlockText = "unable to unlock mutex during drop";
  uint32_t readIndex = 0, writeIndex = 0;
  if (!snapshot(ring, lockText, unlockText, readIndex, writeIndex)) return 0;
  uint32_t n = std::min(frames, countOf(readIndex, writeIndex, ring->size));
  if (n == 0) return 0;
  if (!store(ring->readIndex, (readIndex + n) % ring->size, ring, lockText, unlockText)) return 0;
  return n;
}

uint32_t KyoAudioRingBufferWrite(KyoAudioRingBuffer* ring, const AudioBufferList* list, uint32_t offset,
                                 uint32_t frames) {
  if (!ring || !list) return 0;
  static const char* lockText = "unable to lock mutex during read from ABL";
  static const char* unlockText = "unable to unlock mutex during read from ABL";
  uint32_t readIndex = 0, writeIndex = 0;
  if (!snapshot(ring, lockText, unlockText, readIndex, writeIndex)) return 0;
  uint32_t n = std::min({frames, listRoom(list, offset), spaceOf(readIndex, writeIndex, ring->size)});
  if (n == 0) return 0;
  // Up to the ring's end, then the rest from slot 0.
  uint32_t first = std::min(n, ring->size - writeIndex);
  uint32_t moved = KyoAudioBufferListCopy(list, offset, ring->bufferList, writeIndex, first);
  if (moved == first && moved < n) moved += KyoAudioBufferListCopy(list, offset + first, ring->bufferList, 0, n - first);
  if (moved == 0) return 0;
  if (!store(ring->writeIndex, (writeIndex + moved) % ring->size, ring, lockText, unlockText)) return 0;
  return moved;
}

int KyoAudioRingBufferFreeRuns(KyoAudioRingBuffer* ring, uint32_t frames, KyoAudioRingBufferRun runs[2]) {
  if (!ring) return 0;
  static const char* lockText = "unable to lock mutex during look for free space";
  static const char* unlockText = "unable to unlock mutex during look for free space";
  uint32_t readIndex = 0, writeIndex = 0;
  if (!snapshot(ring, lockText, unlockText, readIndex, writeIndex)) return 0;
  const uint32_t n = std::min(frames, spaceOf(readIndex, writeIndex, ring->size));
  if (n == 0) return 0;
  const uint32_t first = std::min(n, ring->size - writeIndex);
  runs[0] = {writeIndex, first};
  if (first == n) return 1;
  runs[1] = {0, n - first};
  return 2;
}

bool KyoAudioRingBufferCommit(KyoAudioRingBuffer* ring, uint32_t frames) {
  if (!ring) return false;
  static const char* lockText = "unable to lock mutex during commit";
  static const char* unlockText = "unable to unlock mutex during commit";
  uint32_t readIndex = 0, writeIndex = 0;
  if (!snapshot(ring, lockText, unlockText, readIndex, writeIndex)) return false;
  if (frames == 0 || frames > spaceOf(readIndex, writeIndex, ring->size)) return frames == 0;
  return store(ring->writeIndex, (writeIndex + frames) % ring->size, ring, lockText, unlockText);
}

uint32_t KyoAudioRingBufferRead(KyoAudioRingBuffer* ring, AudioBufferList* list, uint32_t offset, uint32_t frames) {
  if (!ring || !list) return 0;
  static const char* lockText = "unable to lock mutex during write to ABL";
  static const char* unlockText = "unable to unlock mutex during write to ABL";
  uint32_t readIndex = 0, writeIndex = 0;
  if (!snapshot(ring, lockText, unlockText, readIndex, writeIndex)) return 0;
  uint32_t n = std::min({frames, listRoom(list, offset), countOf(readIndex, writeIndex, ring->size)});
  if (n == 0) return 0;
  uint32_t first = std::min(n, ring->size - readIndex);
  uint32_t moved = KyoAudioBufferListCopy(ring->bufferList, readIndex, list, offset, first);
  if (moved == first && moved < n) moved += KyoAudioBufferListCopy(ring->bufferList, 0, list, offset + first, n - first);
  if (moved == 0) return 0;
  if (!store(ring->readIndex, (readIndex + moved) % ring->size, ring, lockText, unlockText)) return 0;
  return moved;
}

// Standard error is flushed with every log line, so the locks themselves do not
// flush: a flush takes the stream's own lock, which the render thread must not wait on.
int _LockRingBuffer(KyoAudioRingBuffer* ring, const char* message) {
  int status = pthread_mutex_lock(&ring->mutex);
  if (status != 0) KYO_LOG_STATUS_DETAIL(status, message);
  return status;
}

int _UnlockRingBuffer(KyoAudioRingBuffer* ring, const char* message) {
  int status = pthread_mutex_unlock(&ring->mutex);
  if (status != 0) KYO_LOG_STATUS_DETAIL(status, message);
  return status;
}
