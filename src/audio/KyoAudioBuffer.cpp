#include "audio/KyoAudioBuffer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>

#include "audio/KyoAudioFile.h"
#include "foundation/KyoLog.h"

namespace {

std::mutex gLimiterMutex;
KyoAudioBuffer::FillLimiter gFillLimiter;

const char* describe(const std::shared_ptr<KyoAlias>& alias, std::string& storage) {
  storage = alias ? alias->description() : std::string("(null)");
  return storage.c_str();
}

}  // namespace

int64_t KyoFramesFromSeconds(double seconds, double rate) {
  double frames = seconds * rate;
  if (!(frames > 0)) return 0;
  if (frames >= 9.2233720368547748e18) return std::numeric_limits<int64_t>::max();
  double whole = std::nearbyint(frames);
  // A round trip through seconds is off by a few units in the last place at most.
  if (whole > frames && whole - frames <= frames * 1e-15) return int64_t(whole);
  return int64_t(frames);
}

void KyoAudioBuffer::setFillLimiterForTesting(FillLimiter limiter) {
  std::lock_guard<std::mutex> lock(gLimiterMutex);
  gFillLimiter = std::move(limiter);
}

std::shared_ptr<KyoAudioBuffer> KyoAudioBuffer::create(std::shared_ptr<KyoAlias> alias, double startTime,
                                                       double endTime, uint32_t bufferSize,
                                                       const std::optional<KyoAudioStreamDescription>& format,
                                                       bool matchFileChannels) {
  std::string text;
  if (!alias || !(startTime >= 0) || bufferSize < 512 || !format || !(format->sampleRate() > 0)) {
    KyoLog("Error: can't initialize KyoAudioBuffer; invalid parameter(s) for file: %s", describe(alias, text));
    return nullptr;
  }

  std::shared_ptr<KyoAudioBuffer> stream(new KyoAudioBuffer());
  stream->m_alias = alias;
  stream->m_startTime = startTime;
  stream->m_endTime = endTime;
  stream->m_bufferSize = bufferSize;
  stream->m_description = describe(alias, text);
  stream->m_file = std::make_unique<KyoAudioFile>(alias);
  KyoAudioFile& file = *stream->m_file;
  if (!file.validFile()) {
    KyoLog("Error: KyoAudioBuffer given an invalid file: %s", stream->m_description.c_str());
    return nullptr;
  }
  stream->m_fileFormat = file.fileFormat();
  stream->m_fileChannels = file.fileChannels();
  stream->m_fileLengthInSeconds = file.fileLengthInSeconds();

  stream->m_readFormat = *format;
  if (matchFileChannels) {
    stream->m_readFormat.setChannels(stream->m_fileChannels);
  } else if (stream->m_readFormat.channels() != stream->m_fileChannels) {
    KyoLog(
        "Error: KyoAudioBuffer format channels (%lu) did not have the same number of channels as the file (%lu): "
        "%s",
        (unsigned long)stream->m_readFormat.channels(), (unsigned long)stream->m_fileChannels,
        stream->m_description.c_str());
    return nullptr;
  }
  file.setReadFormat(stream->m_readFormat);

  // An end time of 0 means the file's end.
  if (!(stream->m_startTime < stream->m_endTime) || stream->m_endTime > stream->m_fileLengthInSeconds)
    stream->m_endTime = stream->m_fileLengthInSeconds;
  if (!(stream->m_startTime < stream->m_endTime)) {
    KyoLog("Error: KyoAudioBuffer end time (%f) was <= start time (%f) for file: %s", stream->m_endTime,
           stream->m_startTime, stream->m_description.c_str());
    return nullptr;
  }

  uint32_t channels = stream->m_readFormat.channels();
  bool interleaved = stream->m_readFormat.isInterleaved();
  stream->m_ringBuffer = KyoAudioRingBufferCreate(channels, bufferSize, interleaved);
  if (!stream->m_ringBuffer) {
    KyoLog("Error: can't initialize KyoAudioBuffer; invalid parameter(s) for file: %s", stream->m_description.c_str());
    return nullptr;
  }
  const AudioBufferList* ring = stream->m_ringBuffer->bufferList;
  stream->m_ringView = KyoAudioBufferListAllocateHeader(ring->mNumberBuffers);
  if (!stream->m_ringView) return nullptr;
  stream->m_ringView->mNumberBuffers = ring->mNumberBuffers;
  for (uint32_t b = 0; b < ring->mNumberBuffers; ++b) stream->m_ringView->mBuffers[b] = ring->mBuffers[b];

  // Both ends as frame positions, so that the count agrees with the frames a
  // player computes for the same times.
  double readRate = stream->m_readFormat.sampleRate();
  stream->m_totalFramesToRead =
      KyoFramesFromSeconds(stream->m_endTime, readRate) - KyoFramesFromSeconds(stream->m_startTime, readRate);
  int status = pthread_cond_init(&stream->m_condition, nullptr);
  if (status != 0) {
    KYO_LOG_STATUS(status);
    return nullptr;
  }
  stream->m_conditionMade = true;

  double fileRate = stream->m_fileFormat ? stream->m_fileFormat->sampleRate() : stream->m_readFormat.sampleRate();
  stream->m_startFrame = KyoFramesFromSeconds(stream->m_startTime, fileRate);
  file.goToFrame(stream->m_startFrame);

  {
    std::lock_guard<std::mutex> lock(gLimiterMutex);
    stream->m_fillLimiter = gFillLimiter;
  }
  file.detachFromCurrentThread();
  // Joined by killWorker, so the thread never outlives the stream.
  stream->m_thread = std::thread([raw = stream.get()] { raw->_fillBufferFromThread(); });
  return stream;
}

KyoAudioBuffer::~KyoAudioBuffer() {
  killWorker();
  std::free(m_ringView);
  KyoAudioRingBufferFree(m_ringBuffer);
  if (m_conditionMade) pthread_cond_destroy(&m_condition);
}

void KyoAudioBuffer::killWorker() {
  KyoStopWorkerThread(
      m_mutex, m_condition, m_thread, [this] { m_keepFillingBuffer.store(false); },
      [this] { return m_fillThreadGone; });
}

// Fill thread. One wake-up reads all the free space in one file read, so a wake at
// the half-way mark reads at least half the ring at once. It reads on past the
// range's end: the reader's count bounds the stream.
void KyoAudioBuffer::_fillBufferFromThread() {
  if (m_file->usingQuickTime()) m_file->attachToCurrentThread();
  int status = m_mutex.lock();
  if (status != 0) KYO_LOG_STATUS(status);
  while (m_keepFillingBuffer.load()) {
    // A test's limiter that cut the read short is asked again at once, so that a
    // throttled fill thread waits in the limiter rather than for a reader's signal.
    bool limited = false;
    if (!m_atEndOfFile.load()) {
      uint32_t space = KyoAudioRingBufferSpace(m_ringBuffer);
      if (space != 0 && m_fillLimiter) {
        uint32_t allowed = m_fillLimiter(space);
        limited = allowed < space;
        space = std::min(space, allowed);
      }
      if (space != 0) {
        // Straight into the free slots: at most two runs, the second from the ring's
        // start. A run the file cannot fill is the file's end.
        KyoAudioRingBufferRun runs[2];
        const int count = KyoAudioRingBufferFreeRuns(m_ringBuffer, space, runs);
        uint32_t total = 0;
        bool shortRead = false;
        for (int r = 0; r < count && !shortRead; ++r) {
          // The view starts at the run: the decoder writes at the start of its list.
          const AudioBufferList* ring = m_ringBuffer->bufferList;
          for (uint32_t b = 0; b < m_ringView->mNumberBuffers; ++b) {
            const uint32_t bytesPerFrame = 4 * std::max<uint32_t>(ring->mBuffers[b].mNumberChannels, 1);
            m_ringView->mBuffers[b].mData = static_cast<char*>(ring->mBuffers[b].mData) + size_t(runs[r].start) * bytesPerFrame;
            m_ringView->mBuffers[b].mDataByteSize = runs[r].frames * bytesPerFrame;
          }
          const uint32_t got = m_file->readFrames(runs[r].frames, m_ringView, 0);
          total += got;
          shortRead = got < runs[r].frames;
        }
        if (total == 0) {
          m_atEndOfFile.store(true);
        } else {
          KyoAudioRingBufferCommit(m_ringBuffer, total);
          if (shortRead) m_fileEndInRing.store(true);
        }
      }
    }
    if (m_keepFillingBuffer.load() && !limited) {
      status = pthread_cond_wait(&m_condition, m_mutex.native());
      if (status != 0) KYO_LOG_STATUS(status);
    }
  }
  m_fillThreadGone = true;
  status = pthread_cond_signal(&m_condition);
  if (status != 0) KYO_LOG_STATUS(status);
  status = m_mutex.unlock();
  if (status != 0) KYO_LOG_STATUS(status);
  if (m_file->usingQuickTime()) m_file->detachFromCurrentThread();
}

// Consumer side: no lock of the stream, only a signal. A signal that arrives while
// the fill thread is reading is lost, which is harmless: the next read below the
// half mark signals again.
void KyoAudioBuffer::signalFillThread() { pthread_cond_signal(&m_condition); }

bool KyoAudioBuffer::isFinished() const {
  return m_totalFramesRead.load(std::memory_order_relaxed) == m_totalFramesToRead || m_atEndOfFile.load();
}

uint32_t KyoAudioBuffer::readFrames(uint32_t frames, AudioBufferList* list, uint32_t offset) {
  int64_t framesRead = m_totalFramesRead.load(std::memory_order_relaxed);
  if (framesRead >= m_totalFramesToRead) return 0;

  int64_t debt = m_totalDroppedFrames.load(std::memory_order_relaxed);
  if (debt != 0) {
    // Never drop past the range's end: frames beyond it are not part of this stream.
    int64_t request = std::min({debt, m_totalFramesToRead - framesRead, int64_t(UINT32_MAX)});
    uint32_t dropped = KyoAudioRingBufferDrop(m_ringBuffer, uint32_t(request));
    framesRead += dropped;
    m_totalFramesRead.store(framesRead, std::memory_order_relaxed);
    debt = m_totalDroppedFrames.fetch_sub(dropped, std::memory_order_relaxed) - dropped;
    if (debt != 0) {
      // Still behind: this request goes undelivered as well.
      m_totalDroppedFrames.fetch_add(frames, std::memory_order_relaxed);
      if (!m_atEndOfFile.load()) signalFillThread();
      return 0;
    }
  }

  int64_t left = m_totalFramesToRead - framesRead;
  uint32_t want = int64_t(frames) < left ? frames : uint32_t(left);
  uint32_t got = KyoAudioRingBufferRead(m_ringBuffer, list, offset, want);
  framesRead += got;
  m_totalFramesRead.store(framesRead, std::memory_order_relaxed);

  if (got == want) {
    if (m_atEndOfFile.load() || framesRead == m_totalFramesToRead) return want;
    if (float(KyoAudioRingBufferCount(m_ringBuffer)) / float(m_bufferSize) <= 0.5f) signalFillThread();
    return want;
  }
  m_totalDroppedFrames.fetch_add(want - got, std::memory_order_relaxed);
  if (!m_atEndOfFile.load()) signalFillThread();
  return got;
}
