#pragma once
// A time range of a file presented as a stream that can be read without touching
// the disk: one ring, one file reader and one fill thread that keeps the ring full.
// If the reader outruns the disk the stream keeps its place on the time line: it
// delivers fewer frames at once and later discards as many as it failed to deliver.
//
// Threads: created and killed on a control thread (opening a file is slow); read by
// one consumer at a time, which may be the render thread: a read takes only the
// ring's short index lock and signals the fill thread, never waits for it.

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "audio/KyoAudioReading.h"
#include "audio/KyoAudioRingBuffer.h"
#include "audio/KyoAudioStreamDescription.h"
#include "audio/KyoMutex.h"
#include "foundation/KyoAlias.h"

class KyoAudioFile;

// Seconds to a frame position, truncated toward zero and clamped to what a position
// holds. A product that lies within rounding error below a whole frame counts as
// that frame, so that a position turned into seconds and back (frame / rate * rate)
// lands where it started: a stream built at a player's position starts on its frame.
int64_t KyoFramesFromSeconds(double seconds, double rate);

class KyoAudioBuffer : public KyoAudioReading {
 public:
  // Null, with a log line saying why, when the parameters, the file or its channels
  // do not fit. An endTime of 0 (or past the file's end) means the file's end.
  static std::shared_ptr<KyoAudioBuffer> create(std::shared_ptr<KyoAlias> alias, double startTime, double endTime,
                                                uint32_t bufferSize,
                                                const std::optional<KyoAudioStreamDescription>& format,
                                                bool matchFileChannels);
  // Stops the fill thread if the owner has not.
  ~KyoAudioBuffer() override;
  KyoAudioBuffer(const KyoAudioBuffer&) = delete;
  KyoAudioBuffer& operator=(const KyoAudioBuffer&) = delete;

  // Stops the fill thread and returns when it has gone; blocks for as long as a
  // file read in progress takes. Called by the owner, off the render thread.
  void killWorker();

  // Consumer side, real-time safe.
  uint32_t readFrames(uint32_t frames, AudioBufferList* list, uint32_t offset) override;
  void registerReadFramesInfo(KyoReadFramesInfo* info) override { KyoRegisterReadFramesInfo(this, info); }
  // Frames to discard on the next read, as if they had been delivered.
  void drop(uint32_t frames) { m_totalDroppedFrames.fetch_add(frames, std::memory_order_relaxed); }

  uint32_t count() { return KyoAudioRingBufferCount(m_ringBuffer); }
  // The range is read out, or the file has given its last frame (frames may remain).
  bool isFinished() const;
  int64_t framesRead() const { return m_totalFramesRead.load(std::memory_order_relaxed); }
  // The ring is full, or holds everything up to the file's end (a file read gave
  // less than it was asked for, which a decoder does only at the end).
  bool isFilled() {
    return m_atEndOfFile.load() || m_fileEndInRing.load() ||
           KyoAudioRingBufferCount(m_ringBuffer) == KyoAudioRingBufferCapacity(m_ringBuffer);
  }

  int64_t startFrame() const { return m_startFrame; }
  double startTime() const { return m_startTime; }
  double endTime() const { return m_endTime; }
  const KyoAudioStreamDescription& readFormat() const { return m_readFormat; }
  uint32_t bufferSize() const { return m_bufferSize; }

  // Taken from the file at creation: the file itself belongs to the fill thread.
  uint32_t fileChannels() const { return m_fileChannels; }
  double fileLengthInSeconds() const { return m_fileLengthInSeconds; }
  const std::optional<KyoAudioStreamDescription>& fileFormat() const { return m_fileFormat; }

  std::string description() const { return m_description; }

  // Tests only: when set, streams created afterwards ask it, on their fill thread,
  // how many of the free frames they may read now (it may block). 0 skips the read.
  using FillLimiter = std::function<uint32_t(uint32_t wantedFrames)>;
  static void setFillLimiterForTesting(FillLimiter limiter);

 private:
  KyoAudioBuffer() = default;
  void _fillBufferFromThread();
  void signalFillThread();

  std::shared_ptr<KyoAlias> m_alias;
  double m_startTime = 0;
  double m_endTime = 0;
  uint32_t m_bufferSize = 0;
  std::unique_ptr<KyoAudioFile> m_file;  // the fill thread's alone once it runs
  KyoAudioStreamDescription m_readFormat;
  // The ring's own buffers, seen through a header of the fill thread's: the file
  // decodes straight into the ring's free slots, with no staging copy.
  AudioBufferList* m_ringView = nullptr;
  KyoAudioRingBuffer* m_ringBuffer = nullptr;
  int64_t m_startFrame = 0;
  int64_t m_totalFramesToRead = 0;
  // Consumer's counters. The debt is also added to by drop(), from the same
  // consumer's side (the slice player calls both under its own mutex).
  std::atomic<int64_t> m_totalFramesRead{0};
  std::atomic<int64_t> m_totalDroppedFrames{0};
  std::atomic<bool> m_keepFillingBuffer{true};
  std::atomic<bool> m_atEndOfFile{false};
  std::atomic<bool> m_fileEndInRing{false};
  // Held by the fill thread except in its wait, so a killWorker caller may block on
  // it for a file read. Never taken by the reader.
  KyoMutex m_mutex;
  pthread_cond_t m_condition;
  bool m_conditionMade = false;
  bool m_fillThreadGone = false;  // under m_mutex
  std::thread m_thread;
  FillLimiter m_fillLimiter;

  uint32_t m_fileChannels = 0;
  double m_fileLengthInSeconds = 0;
  std::optional<KyoAudioStreamDescription> m_fileFormat;
  std::string m_description;
};

static_assert(std::atomic<int64_t>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);
