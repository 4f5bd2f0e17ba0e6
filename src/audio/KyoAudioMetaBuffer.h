#pragma once
// The slice player: one audio file turned into one gapless, sample-exact stream,
// a playlist of contiguous ranges of the file (slices), each played a set number of
// times or for ever. It keeps at most two read-ahead streams, the one playing and a
// spare waiting where the next loop jumps back to, so that a loop jump is a switch
// from one filled ring to the other inside a single render call.
//
// Threads: a control thread (setSlices, goToTime, devamp, killWorker, the queries),
// the render thread (readFrames alone) and the player's own tending thread, which
// builds and destroys the streams. Nothing slow happens with the player's mutex
// held: streams are unhooked under the lock and destroyed after it is released.

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "audio/KyoAudioBuffer.h"
#include "audio/KyoAudioReading.h"
#include "audio/KyoAudioStreamDescription.h"
#include "audio/KyoMutex.h"
#include "foundation/KyoAlias.h"

// One entry of a playlist as callers give and receive it. playCount: how many times
// the range plays; negative means for ever; 0 is refused.
struct KyoSliceDescription {
  double startTime = 0;  // seconds in the file
  double endTime = 0;    // seconds in the file
  int32_t playCount = 1;
};

// One entry of the playlist as the player keeps it. Frames are in the read format's rate.
struct KyoSlice {
  double startTime;
  double endTime;
  int64_t startFrame;
  int64_t endFrame;  // first frame after the slice
  int64_t playCount;
  int64_t remainingPlays;  // counted down while playing; 1 is the last pass; negative for ever
};

class KyoAudioMetaBuffer : public KyoAudioReading {
 public:
  // Null, silently, when the alias or format is missing, the format's rate is not
  // above 0, or the file has no length. Starts the tending thread.
  static std::shared_ptr<KyoAudioMetaBuffer> create(std::shared_ptr<KyoAlias> alias,
                                                    const std::optional<KyoAudioStreamDescription>& format);
  // Stops the tending thread and the streams if the owner has not.
  ~KyoAudioMetaBuffer() override;
  KyoAudioMetaBuffer(const KyoAudioMetaBuffer&) = delete;
  KyoAudioMetaBuffer& operator=(const KyoAudioMetaBuffer&) = delete;

  // Stops the tending thread and returns when it has gone. Control thread.
  void killWorker();

  // Control thread. An invalid list is refused silently and the playlist stays; an
  // empty list installs the whole file once. Does not move the position.
  void setSlices(const std::vector<KyoSliceDescription>& slices);
  std::vector<KyoSliceDescription> slices();
  // Seconds along the playlist, loops counted.
  void goToTime(double seconds);
  // Leaves the loop ahead: its slice plays out once more and playback runs on.
  void devamp();

  double startTime();
  double endTime();
  uint32_t fileChannels() const { return m_fileChannels; }
  double fileLengthInSeconds() const { return m_fileEndTime; }
  double audioLengthInSeconds();
  // Display values, read without the lock.
  double elapsedPlayTime() const;
  double elapsedLogicalTime() const;
  double currentFileTime() const;
  double timeUntilLoop();
  bool isFinished() const { return m_isFinished.load(); }
  double approximateTimeOfFinish() const { return m_timeWeNoticedWeWereFinished.load(); }
  // The playback stream is in place, the spare too when a loop lies ahead, and every
  // ring is full (or holds the file's end): a cue can start with no drop-out.
  bool isReadyToPlay();
  // A read of this many frames now would deliver audio wherever audio is due, with
  // no counted silence. Any thread; takes the player's mutex.
  bool isReadyToRead(uint32_t frames);

  // Render thread. Always answers frames: what is not audio is silence. The offset
  // is ignored; the list is written from frame 0.
  uint32_t readFrames(uint32_t frames, AudioBufferList* list, uint32_t offset) override;
  void registerReadFramesInfo(KyoReadFramesInfo* info) override { KyoRegisterReadFramesInfo(this, info); }

 private:
  KyoAudioMetaBuffer() = default;

  struct DeadStreams {
    std::shared_ptr<KyoAudioBuffer> a, b;
    void kill();
  };

  // All below with m_mutex held.
  DeadStreams _destroyBuffers();
  size_t sliceAtFrame(int64_t frame) const;
  size_t nextLoopSlice() const;
  uint32_t framesToBoundary(size_t nextLoop) const;
  bool advancePosition(int64_t frames);
  void installWholeFile();
  bool isAtStart() const;
  uint32_t readFromPlayback(uint32_t frames, AudioBufferList* list, uint32_t offset);
  void countDroppedFrames(uint32_t frames);

  void _tendBuffersFromThread();
  void logDroppedFrames(uint64_t frames);

  std::shared_ptr<KyoAlias> m_alias;
  std::string m_aliasDescription;  // for the dropped-frames report
  KyoAudioStreamDescription m_format;
  double m_fileEndTime = 0;
  uint32_t m_fileChannels = 0;
  std::vector<KyoSlice> m_slices;
  double m_totalSliceTime = 0;
  // Written under the mutex; atomic for the display queries that read without it.
  std::atomic<int64_t> m_totalFramesRead{0};
  int64_t m_totalFramesReadSansInfLoops = 0;
  std::atomic<int64_t> m_elapsedLogicalFrame{0};
  std::atomic<int64_t> m_playbackFrame{0};
  KyoAudioBuffer* m_playbackBuffer = nullptr;  // bufferA, bufferB or null
  std::shared_ptr<KyoAudioBuffer> m_bufferA;
  std::shared_ptr<KyoAudioBuffer> m_bufferB;
  KyoReadFramesInfo m_bufferAReadInfo;
  KyoReadFramesInfo m_bufferBReadInfo;
  bool m_killA = false;
  bool m_killB = false;
  bool m_keepTendingBuffers = true;
  std::atomic<bool> m_isFinished{false};
  std::atomic<double> m_timeWeNoticedWeWereFinished{0};
  uint32_t m_totalDroppedFrames = 0;
  double m_lastTimeWeLoggedDroppedFrames = 0;
  uint64_t m_droppedFramesToReport = 0;  // handed from the render thread to the tending thread
  bool m_stateChanged = false;
  // Guards everything above. Taken by the render thread (after a source's mutex,
  // before a ring's), the control thread and the tending thread, each briefly.
  KyoMutex m_mutex;
  pthread_cond_t m_condition;  // wakes the tending thread; acknowledges its end
  bool m_conditionMade = false;
  bool m_tendingThreadGone = false;
  std::thread m_thread;
};

static_assert(std::atomic<int64_t>::is_always_lock_free);
static_assert(std::atomic<double>::is_always_lock_free);
