#include "audio/KyoAudioMetaBuffer.h"

#include <algorithm>
#include <limits>

#include "audio/KyoAudioFile.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"

namespace {

constexpr uint32_t kStreamBufferFrames = 22050;
constexpr double kMinimumSliceSeconds = 0.1;
constexpr double kDroppedFramesReportInterval = 1.0;  // seconds of wall clock

int64_t saturatingAdd(int64_t a, int64_t b) {
  int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum))
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  return sum;
}

int64_t floorDiv(int64_t a, int64_t b) {  // b > 0
  int64_t q = a / b;
  return (a % b != 0 && a < 0) ? q - 1 : q;
}

}  // namespace

// ---------------------------------------------------------------------------
// Creation and teardown

std::shared_ptr<KyoAudioMetaBuffer> KyoAudioMetaBuffer::create(std::shared_ptr<KyoAlias> alias,
                                                               const std::optional<KyoAudioStreamDescription>& format) {
  if (!alias || !format || !(format->sampleRate() > 0)) return nullptr;
  double fileEndTime = 0;
  uint32_t fileChannels = 0;
  {
    KyoAudioFile file(alias);
    fileEndTime = file.fileLengthInSeconds();
    fileChannels = file.fileChannels();
  }
  if (!(fileEndTime > 0)) return nullptr;

  std::shared_ptr<KyoAudioMetaBuffer> player(new KyoAudioMetaBuffer());
  player->m_alias = alias->copy();
  player->m_aliasDescription = alias->description();
  player->m_format = *format;
  player->m_fileEndTime = fileEndTime;
  player->m_fileChannels = fileChannels;
  player->installWholeFile();
  if (pthread_cond_init(&player->m_condition, nullptr) != 0) return nullptr;
  player->m_conditionMade = true;
  // The first call of the wall clock may set it up; keep that off the render thread.
  (void)KyoWallClockSeconds();
  // Joined by killWorker, so the thread never outlives the player.
  player->m_thread = std::thread([raw = player.get()] { raw->_tendBuffersFromThread(); });
  return player;
}

KyoAudioMetaBuffer::~KyoAudioMetaBuffer() {
  killWorker();
  DeadStreams dead{std::move(m_bufferA), std::move(m_bufferB)};
  dead.kill();
  if (m_conditionMade) pthread_cond_destroy(&m_condition);
}

void KyoAudioMetaBuffer::DeadStreams::kill() {
  if (a) a->killWorker();
  if (b) b->killWorker();
  a.reset();
  b.reset();
}

void KyoAudioMetaBuffer::killWorker() {
  KyoStopWorkerThread(
      m_mutex, m_condition, m_thread, [this] { m_keepTendingBuffers = false; }, [this] { return m_tendingThreadGone; });
}

// Unhooks both streams; the caller kills them after releasing the mutex, since a
// killWorker waits for a fill thread to leave its disk read.
KyoAudioMetaBuffer::DeadStreams KyoAudioMetaBuffer::_destroyBuffers() {
  m_playbackBuffer = nullptr;
  DeadStreams dead{std::move(m_bufferA), std::move(m_bufferB)};
  m_bufferA.reset();
  m_bufferB.reset();
  m_bufferAReadInfo = KyoReadFramesInfo{};
  m_bufferBReadInfo = KyoReadFramesInfo{};
  m_killA = m_killB = false;
  return dead;
}

void KyoAudioMetaBuffer::installWholeFile() {
  double rate = m_format.sampleRate();
  m_slices.assign(1, KyoSlice{0, m_fileEndTime, 0, KyoFramesFromSeconds(m_fileEndTime, rate), 1, 1});
  m_totalSliceTime = m_fileEndTime;
}

// ---------------------------------------------------------------------------
// Playlist

void KyoAudioMetaBuffer::setSlices(const std::vector<KyoSliceDescription>& entries) {
  for (size_t i = 0; i < entries.size(); ++i) {
    const KyoSliceDescription& e = entries[i];
    if (!(e.startTime >= 0) || e.playCount == 0 || !(e.endTime - e.startTime > kMinimumSliceSeconds) ||
        !(e.startTime < e.endTime) || e.endTime > m_fileEndTime)
      return;
    if (i > 0 && e.startTime != entries[i - 1].endTime) return;
  }

  double rate = m_format.sampleRate();
  std::vector<KyoSlice> fresh;
  fresh.reserve(entries.size());
  double total = 0;
  for (const KyoSliceDescription& e : entries) {
    fresh.push_back(KyoSlice{e.startTime, e.endTime, KyoFramesFromSeconds(e.startTime, rate),
                             KyoFramesFromSeconds(e.endTime, rate), int64_t(e.playCount), int64_t(e.playCount)});
    // An endless slice counts once in the playing length.
    total += (e.endTime - e.startTime) * double(e.playCount < 0 ? 1 : e.playCount);
  }

  m_mutex.lock();
  DeadStreams dead = _destroyBuffers();
  m_isFinished.store(false);
  if (entries.empty()) {
    fresh.swap(m_slices);
    installWholeFile();
  } else {
    fresh.swap(m_slices);
    m_totalSliceTime = total;
  }
  m_stateChanged = true;
  pthread_cond_signal(&m_condition);
  m_mutex.unlock();
  dead.kill();
}

std::vector<KyoSliceDescription> KyoAudioMetaBuffer::slices() {
  KyoMutexLocker lock(m_mutex);
  std::vector<KyoSliceDescription> out;
  out.reserve(m_slices.size());
  for (const KyoSlice& s : m_slices) out.push_back({s.startTime, s.endTime, int32_t(s.playCount)});
  return out;
}

void KyoAudioMetaBuffer::goToTime(double seconds) {
  m_mutex.lock();
  // A seek to 0 that would change nothing keeps the streams already built for the
  // start, so that a cue's first start finds them full. Decided on the state itself
  // rather than on whether the tending thread has acted since the last playlist:
  // that would leave the position before a new first slice when the thread wins.
  if (seconds == 0 && isAtStart()) {
    m_mutex.unlock();
    return;
  }
  DeadStreams dead = _destroyBuffers();
  for (KyoSlice& s : m_slices) s.remainingPlays = s.playCount;
  int64_t frames = KyoFramesFromSeconds(seconds, m_format.sampleRate());
  m_totalFramesRead.store(frames);
  m_totalFramesReadSansInfLoops = 0;
  m_elapsedLogicalFrame.store(0);
  m_playbackFrame.store(m_slices.empty() ? 0 : m_slices.front().startFrame);
  // Replays the playlist, loops and all, in arithmetic.
  advancePosition(frames);
  m_totalDroppedFrames = 0;
  m_lastTimeWeLoggedDroppedFrames = KyoWallClockSeconds();
  m_isFinished.store(false);
  m_stateChanged = true;
  pthread_cond_signal(&m_condition);
  m_mutex.unlock();
  dead.kill();
}

bool KyoAudioMetaBuffer::isAtStart() const {
  if (m_totalFramesRead.load() != 0 || m_totalFramesReadSansInfLoops != 0 || m_elapsedLogicalFrame.load() != 0 ||
      m_isFinished.load())
    return false;
  if (m_playbackFrame.load() != (m_slices.empty() ? 0 : m_slices.front().startFrame)) return false;
  for (const KyoSlice& s : m_slices)
    if (s.remainingPlays != s.playCount) return false;
  return true;
}

void KyoAudioMetaBuffer::devamp() {
  KyoMutexLocker lock(m_mutex);
  size_t next = nextLoopSlice();
  if (next >= m_slices.size()) return;
  KyoSlice& s = m_slices[next];
  s.remainingPlays = 1;
  // Counted and endless slices take the same path on purpose.
  m_totalFramesReadSansInfLoops = saturatingAdd(m_totalFramesReadSansInfLoops, m_playbackFrame.load() - s.startFrame);
  if (m_playbackBuffer == m_bufferA.get())
    m_killB = true;
  else
    m_killA = true;
  m_stateChanged = true;
  pthread_cond_signal(&m_condition);
}

// ---------------------------------------------------------------------------
// Queries

double KyoAudioMetaBuffer::startTime() {
  KyoMutexLocker lock(m_mutex);
  return m_slices.empty() ? 0 : double(m_slices.front().startFrame) / m_format.sampleRate();
}

double KyoAudioMetaBuffer::endTime() {
  KyoMutexLocker lock(m_mutex);
  return m_slices.empty() ? 0 : m_slices.back().endTime;
}

double KyoAudioMetaBuffer::audioLengthInSeconds() {
  KyoMutexLocker lock(m_mutex);
  return m_totalSliceTime;
}

double KyoAudioMetaBuffer::elapsedPlayTime() const {
  return double(m_totalFramesRead.load(std::memory_order_relaxed)) / m_format.sampleRate();
}

double KyoAudioMetaBuffer::elapsedLogicalTime() const {
  return double(m_elapsedLogicalFrame.load(std::memory_order_relaxed)) / m_format.sampleRate();
}

double KyoAudioMetaBuffer::currentFileTime() const {
  return double(m_playbackFrame.load(std::memory_order_relaxed)) / m_format.sampleRate();
}

double KyoAudioMetaBuffer::timeUntilLoop() {
  KyoMutexLocker lock(m_mutex);
  return double(framesToBoundary(nextLoopSlice())) / m_format.sampleRate();
}

bool KyoAudioMetaBuffer::isReadyToPlay() {
  KyoMutexLocker lock(m_mutex);
  if (!m_playbackBuffer || m_stateChanged) return false;
  bool loopAhead = nextLoopSlice() < m_slices.size();
  if (loopAhead && (!m_bufferA || !m_bufferB || m_killA || m_killB)) return false;
  if (m_bufferA && !m_bufferA->isFilled()) return false;
  if (m_bufferB && !m_bufferB->isFilled()) return false;
  return true;
}

namespace {
// The stream can hand over frames now, or has all it will ever have.
bool holds(KyoAudioBuffer* stream, uint32_t frames) {
  return stream->count() >= frames || stream->isFilled() || stream->isFinished();
}
}  // namespace

bool KyoAudioMetaBuffer::isReadyToRead(uint32_t frames) {
  KyoMutexLocker lock(m_mutex);
  if (m_isFinished.load()) return true;
  size_t next = nextLoopSlice();
  uint32_t toBoundary = framesToBoundary(next);
  if (toBoundary == 0) return true;
  if (!m_playbackBuffer || !holds(m_playbackBuffer, std::min(frames, toBoundary))) return false;
  if (frames <= toBoundary || next >= m_slices.size()) return true;
  KyoAudioBuffer* spare = m_playbackBuffer == m_bufferA.get() ? (m_killB ? nullptr : m_bufferB.get())
                                                              : (m_killA ? nullptr : m_bufferA.get());
  return spare && holds(spare, frames - toBoundary);
}

// ---------------------------------------------------------------------------
// Position arithmetic (mutex held)

size_t KyoAudioMetaBuffer::sliceAtFrame(int64_t frame) const {
  for (size_t i = 0; i < m_slices.size(); ++i)
    if (m_slices[i].endFrame > frame) return i;
  return m_slices.size();
}

// The next place where the stream must jump back: the first slice from the
// playing one on that is not on its last pass; the slice count when none is.
size_t KyoAudioMetaBuffer::nextLoopSlice() const {
  size_t i = sliceAtFrame(m_playbackFrame.load(std::memory_order_relaxed));
  while (i < m_slices.size() && m_slices[i].remainingPlays == 1) ++i;
  return i;
}

uint32_t KyoAudioMetaBuffer::framesToBoundary(size_t nextLoop) const {
  if (m_slices.empty()) return 0;
  int64_t end = nextLoop < m_slices.size() ? m_slices[nextLoop].endFrame : m_slices.back().endFrame;
  int64_t frames = end - m_playbackFrame.load(std::memory_order_relaxed);
  if (frames <= 0) return 0;
  return frames > int64_t(UINT32_MAX) ? UINT32_MAX : uint32_t(frames);
}

// Moves the position by frames along the playlist, counting plays down; answers
// whether a slice boundary or a loop was crossed. Exact for any 64-bit count.
bool KyoAudioMetaBuffer::advancePosition(int64_t frames) {
  int64_t frame = m_playbackFrame.load(std::memory_order_relaxed);
  size_t i = sliceAtFrame(frame);
  if (i >= m_slices.size() || frames <= 0) return false;
  int64_t sans = m_totalFramesReadSansInfLoops;
  int64_t logical = m_elapsedLogicalFrame.load(std::memory_order_relaxed);
  int64_t left = frames;
  bool crossed = false;
  while (left > 0 && i < m_slices.size()) {
    KyoSlice& s = m_slices[i];
    int64_t length = s.endFrame - s.startFrame;
    if (length <= 0) {  // a slice shorter than one frame at this rate
      frame = s.endFrame;
      ++i;
      continue;
    }
    // offset lies below length; it is negative while the position is before the slice.
    int64_t offset = frame - s.startFrame;
    // wraps = floor((offset + left) / length) and within = (offset + left) mod length,
    // without forming offset + left, which may not fit.
    int64_t rest = offset + left % length;
    int64_t restWraps = floorDiv(rest, length);
    int64_t wraps = left / length + restWraps;
    int64_t within = rest - restWraps * length;

    if (s.remainingPlays >= 0 && wraps >= s.remainingPlays) {
      // This slice's plays run out inside the move.
      int64_t used = (s.remainingPlays - 1) * length + (length - offset);
      sans = saturatingAdd(sans, used);
      logical = sans;
      left -= used;
      s.remainingPlays = 1;
      frame = s.endFrame;
      ++i;
      crossed = true;
      continue;
    }
    bool counted = s.remainingPlays > 0;
    if (wraps < 0) {  // the move ends before the slice starts
      frame += left;
      wraps = 0;
      within = 0;
    } else {
      frame = s.startFrame + within;
    }
    if (wraps != 0) crossed = true;
    // An endless slice goes on growing more negative.
    s.remainingPlays = counted ? s.remainingPlays - wraps : saturatingAdd(s.remainingPlays, -wraps);
    if (counted) sans = saturatingAdd(sans, left);
    logical = counted ? sans : saturatingAdd(sans, within);
    left = 0;
  }
  m_playbackFrame.store(frame, std::memory_order_relaxed);
  m_totalFramesReadSansInfLoops = sans;
  m_elapsedLogicalFrame.store(logical, std::memory_order_relaxed);
  return crossed;
}

// ---------------------------------------------------------------------------
// Render thread

// Reads from the playback stream through its cached entry; a shortfall becomes
// silence behind what came, counted as dropped unless the stream has ended.
uint32_t KyoAudioMetaBuffer::readFromPlayback(uint32_t frames, AudioBufferList* list, uint32_t offset) {
  const KyoReadFramesInfo& info = m_playbackBuffer == m_bufferA.get() ? m_bufferAReadInfo : m_bufferBReadInfo;
  uint32_t got = info.method ? info.method(info.target, frames, list, offset) : 0;
  if (got < frames) {
    if (!m_playbackBuffer->isFinished()) countDroppedFrames(frames - got);
    KyoAudioBufferListSilence(list, offset + got, frames - got);
  }
  return got;
}

void KyoAudioMetaBuffer::countDroppedFrames(uint32_t frames) {
  m_totalDroppedFrames = uint32_t(std::min<uint64_t>(uint64_t(m_totalDroppedFrames) + frames, UINT32_MAX));
}

uint32_t KyoAudioMetaBuffer::readFrames(uint32_t frames, AudioBufferList* list, uint32_t /*offset*/) {
  m_mutex.lock();
  if (m_isFinished.load(std::memory_order_relaxed)) {
    KyoAudioBufferListSilence(list, 0, frames);
  } else if (framesToBoundary(nextLoopSlice()) == 0) {
    // The playlist played out on the previous call.
    m_isFinished.store(true);
    m_timeWeNoticedWeWereFinished.store(KyoWallClockSeconds());
    KyoAudioBufferListSilence(list, 0, frames);
  } else {
    // One piece per boundary inside the request. A request up to a loop's length
    // is at most two reads: up to the boundary from the playing stream, the rest
    // from the spare that waits at the jump's target. A longer one meets a second
    // boundary with no stream standing there; its rest is counted silence, so
    // that what is delivered never falls out of step with the position.
    uint32_t done = 0;
    while (done < frames) {
      size_t next = nextLoopSlice();
      uint32_t toBoundary = framesToBoundary(next);
      uint32_t rest = frames - done;
      if (toBoundary == 0) {
        KyoAudioBufferListSilence(list, done, rest);  // the playlist ends inside this request
        break;
      }
      uint32_t want = std::min(rest, toBoundary);
      if (!m_playbackBuffer) {
        countDroppedFrames(want);
        KyoAudioBufferListSilence(list, done, want);
      } else {
        readFromPlayback(want, list, done);
        if (want == toBoundary) {
          // The stream has done its work: the spare, standing at the jump's target, takes over.
          if (m_playbackBuffer == m_bufferA.get()) {
            m_killA = true;
            m_playbackBuffer = m_killB ? nullptr : m_bufferB.get();
          } else {
            m_killB = true;
            m_playbackBuffer = m_killA ? nullptr : m_bufferA.get();
          }
          m_stateChanged = true;
          pthread_cond_signal(&m_condition);
        }
      }
      if (advancePosition(want)) m_stateChanged = true;
      done += want;
    }
  }

  m_totalFramesRead.store(saturatingAdd(m_totalFramesRead.load(std::memory_order_relaxed), frames),
                          std::memory_order_relaxed);

  // The report itself is formatted and written by the tending thread; here it costs
  // a clock read per call while frames are owed, and a signal once a second.
  if (m_totalDroppedFrames != 0) {
    double now = KyoWallClockSeconds();
    if (now - m_lastTimeWeLoggedDroppedFrames > kDroppedFramesReportInterval) {
      m_droppedFramesToReport += m_totalDroppedFrames;
      m_totalDroppedFrames = 0;
      m_lastTimeWeLoggedDroppedFrames = now;
      pthread_cond_signal(&m_condition);
    }
  }
  m_mutex.unlock();
  return frames;
}

// ---------------------------------------------------------------------------
// Tending thread

void KyoAudioMetaBuffer::logDroppedFrames(uint64_t frames) {
  KyoLog("Warning: dropped %lu frames (%.2f seconds of audio) : %s", (unsigned long)frames,
         double(float(double(frames) / m_format.sampleRate())), m_aliasDescription.c_str());
}

// Builds and destroys the streams, away from the render thread. Holds the mutex
// except while it destroys, opens or logs.
void KyoAudioMetaBuffer::_tendBuffersFromThread() {
  int status = m_mutex.lock();
  if (status != 0) KYO_LOG_STATUS(status);
  double rate = m_format.sampleRate();
  while (m_keepTendingBuffers) {
    DeadStreams dead;
    if (m_killA) {
      if (m_playbackBuffer == m_bufferA.get()) m_playbackBuffer = nullptr;
      dead.a = std::move(m_bufferA);
      m_bufferA.reset();
      m_bufferAReadInfo = KyoReadFramesInfo{};
      m_killA = false;
    }
    if (m_killB) {
      if (m_playbackBuffer == m_bufferB.get()) m_playbackBuffer = nullptr;
      dead.b = std::move(m_bufferB);
      m_bufferB.reset();
      m_bufferBReadInfo = KyoReadFramesInfo{};
      m_killB = false;
    }

    bool wantA = false, wantB = false, aPlays = false;
    double startA = 0, startB = 0, streamEnd = 0;
    if (!m_slices.empty()) {
      streamEnd = m_slices.back().endTime;
      size_t next = nextLoopSlice();
      bool spare = next < m_slices.size() && m_slices[next].startTime >= 0;
      if (!m_bufferA && !m_bufferB) {
        // Playback needs a stream now, and the spare if a loop lies ahead.
        startA = double(m_playbackFrame.load()) / rate;
        wantA = streamEnd > startA;
        aPlays = true;
        if (spare) {
          wantB = true;
          startB = m_slices[next].startTime;
        }
      } else if (spare && !m_bufferA) {
        wantA = true;
        startA = m_slices[next].startTime;
      } else if (spare && !m_bufferB) {
        wantB = true;
        startB = m_slices[next].startTime;
      }
    }
    int64_t snapshot = m_playbackFrame.load();
    uint64_t report = m_droppedFramesToReport;
    m_droppedFramesToReport = 0;
    m_stateChanged = false;
    m_mutex.unlock();

    dead.kill();
    if (report != 0) logDroppedFrames(report);
    std::shared_ptr<KyoAudioBuffer> newA, newB;
    if (wantA) newA = KyoAudioBuffer::create(m_alias, startA, streamEnd, kStreamBufferFrames, m_format, false);
    if (wantB) newB = KyoAudioBuffer::create(m_alias, startB, streamEnd, kStreamBufferFrames, m_format, false);

    m_mutex.lock();
    if (m_stateChanged) {
      // Overtaken while opening: throw the streams away and decide again.
      if (newA || newB) {
        m_mutex.unlock();
        DeadStreams stale{std::move(newA), std::move(newB)};
        stale.kill();
        m_mutex.lock();
      }
      continue;
    }
    if (newA) {
      m_bufferA = std::move(newA);
      m_bufferA->registerReadFramesInfo(&m_bufferAReadInfo);
    }
    if (newB) {
      m_bufferB = std::move(newB);
      m_bufferB->registerReadFramesInfo(&m_bufferBReadInfo);
    }
    if (aPlays && m_bufferA) {
      m_playbackBuffer = m_bufferA.get();
      // Catch up with the frames that played (as silence) while the stream opened.
      int64_t moved = m_playbackFrame.load() - snapshot;
      if (moved != 0) m_playbackBuffer->drop(uint32_t(moved));
    }
    if (m_keepTendingBuffers && !m_stateChanged && m_droppedFramesToReport == 0 && !m_killA && !m_killB) {
      status = pthread_cond_wait(&m_condition, m_mutex.native());
      if (status != 0) KYO_LOG_STATUS(status);
    }
  }
  m_tendingThreadGone = true;
  status = pthread_cond_signal(&m_condition);
  if (status != 0) KYO_LOG_STATUS(status);
  status = m_mutex.unlock();
  if (status != 0) KYO_LOG_STATUS(status);
}
