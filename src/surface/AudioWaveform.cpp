#include "surface/AudioWaveform.h"

#include <algorithm>
#include <cmath>

#include "audio/KyoAudioBuffer.h"
#include "audio/KyoAudioFile.h"
#include "audio/KyoAudioStreamDescription.h"
#include "foundation/KyoAlias.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "surface/AudioWaveformView.h"

namespace {

std::atomic<int> gRunningLoaders{0};

// The entries' time line: the engine's canonical rate.
constexpr uint64_t kTimeLineRate = 44100;
// Seconds of audio in the stream's ring.
constexpr double kRingSeconds = 20.0;
// How often the view is told of new entries, at most.
constexpr double kTellInterval = 0.05;
// How long the worker waits for the ring to refill before it looks again: short for
// the first few milliseconds, since the fill thread hands over a chunk every few
// milliseconds and each look that comes late leaves it idle; then longer by a tenth
// at each look, so that a slow disk or decoder costs few wakes and at most about a
// tenth more time.
constexpr double kRefillPoll = 0.0001;
constexpr double kRefillPollPatience = 0.005;
constexpr double kRefillPollLongest = 0.02;
// Entries reduced per read of the stream: a read takes the ring's lock once, so a
// run of entries costs one lock where one entry per read would cost thousands.
constexpr uint32_t kEntriesPerRead = 4096;

// Seconds times entries per second, truncated to an entry, for any float.
uint32_t entryIndex(float value) {
  if (!(value > 0.0f)) return 0;
  if (value >= 4294967040.0f) return UINT32_MAX;
  return uint32_t(value);
}

}  // namespace

int AudioWaveform::runningLoaders() { return gRunningLoaders.load(); }

std::shared_ptr<AudioWaveform> AudioWaveform::create(std::shared_ptr<KyoAlias> alias, float framesPerSample) {
  if (!alias || !(framesPerSample >= 1.0f)) {
    KyoLog("Error: AudioWaveform unable to create buffer with file: %s",
           alias ? alias->description().c_str() : "(null)");
    return nullptr;
  }
  const KyoAudioStreamDescription timeLine = KyoAudioStreamDescription::canonicalDescription();
  // The file's own rate, so that the stream converts nothing (see the header).
  KyoAudioStreamDescription format = timeLine;
  if (auto fileFormat = KyoAudioFile::fileFormatForAlias(alias)) format.setSampleRate(fileFormat->sampleRate());
  std::shared_ptr<AudioWaveform> waveform(new AudioWaveform());
  waveform->m_audioBuffer =
      KyoAudioBuffer::create(alias, 0.0, 0.0, uint32_t(format.sampleRate() * kRingSeconds), format, true);
  if (!waveform->m_audioBuffer) {
    KyoLog("Error: AudioWaveform unable to create buffer with file: %s", alias->description().c_str());
    return nullptr;
  }
  const double length = waveform->m_audioBuffer->fileLengthInSeconds();
  waveform->m_framesPerSample = length < 10.0 ? 1.0f : std::trunc(framesPerSample);
  waveform->m_framesPerEntry = uint32_t(waveform->m_framesPerSample);
  waveform->m_framesPerSecond = float(timeLine.sampleRate());
  const KyoAudioStreamDescription& readFormat = waveform->m_audioBuffer->readFormat();
  waveform->m_fileRate = readFormat.sampleRate();
  const double total = length * double(waveform->m_framesPerSecond / waveform->m_framesPerSample);
  waveform->m_totalSamples = total > 0 ? uint32_t(std::min(total, double(UINT32_MAX))) : 0;

  // Room for a run of entries, at the file's rate, with a frame to spare for rounding.
  const double framesPerRead =
      double(kEntriesPerRead) * waveform->m_framesPerEntry * waveform->m_fileRate / waveform->m_framesPerSecond;
  waveform->m_entriesPerRead = kEntriesPerRead;
  const uint32_t listFrames = uint32_t(std::ceil(framesPerRead)) + 2;
  waveform->m_audioBufferList = KyoAudioBufferListCreate(readFormat.channels(), listFrames, false);
  if (!waveform->m_audioBufferList) {
    KyoLog("Error: AudioWaveform unable to create buffer with file: %s", alias->description().c_str());
    return nullptr;
  }
  waveform->m_pooledMax = std::make_unique_for_overwrite<float[]>(listFrames);
  waveform->m_pooledMin = std::make_unique_for_overwrite<float[]>(listFrames);
  waveform->m_waveformMax = std::make_unique_for_overwrite<float[]>(waveform->m_totalSamples);
  waveform->m_waveformMin = std::make_unique_for_overwrite<float[]>(waveform->m_totalSamples);
  waveform->m_summaryMax = std::make_unique_for_overwrite<float[]>(waveform->m_totalSamples / kSummaryBlock);
  waveform->m_summaryMin = std::make_unique_for_overwrite<float[]>(waveform->m_totalSamples / kSummaryBlock);
  // No delay before the first look: the worker waits for the ring anyway.
  waveform->_loadWaveform();
  return waveform;
}

AudioWaveform::~AudioWaveform() {
  // The stream's own destructor stops and joins its fill thread, so nothing it reads
  // into outlives it; no killWorker of ours is needed.
  m_audioBuffer.reset();
  KyoAudioBufferListFree(m_audioBufferList);
}

// The worker drains whatever the ring holds, then waits for the fill thread to refill
// it, rather than sleeping a fixed time between passes: the time until complete is
// then bounded by the decoder, not by the pacing. The view is still told at most
// every 50 ms, on the main thread, so the display grows from left to right in steps.
void AudioWaveform::_loadWaveform() {
  if (m_started.exchange(true)) return;
  gRunningLoaders.fetch_add(1);
  KyoCurrentClock().detachThread([self = shared_from_this()]() mutable {
    self->_loadFromThread();
    self->m_complete.store(true, std::memory_order_release);
    if (self->live()) self->_tellView();
    // Let go first: the last owner may be this thread, and the stream's fill thread
    // is joined then; the count says that nothing of the waveform runs any more.
    self.reset();
    gRunningLoaders.fetch_sub(1);
  });
}

uint64_t AudioWaveform::_frameOfEntry(uint64_t entry) const {
  const uint64_t timeLineFrame = entry * m_framesPerEntry;
  const double rate = m_fileRate;
  if (rate == kTimeLineRate) return timeLineFrame;
  // Whole rates (all of them in practice) exactly: the first frame at or after the
  // entry's start time.
  if (rate == std::floor(rate) && rate < 1.0e7)
    return (timeLineFrame * uint64_t(rate) + kTimeLineRate - 1) / kTimeLineRate;
  return uint64_t(std::ceil(double(timeLineFrame) * rate / double(kTimeLineRate)));
}

// How many entries one at a time would take from a ring of `count` frames: each
// needs more frames in the ring than it takes before its read, so a last group of
// frames at the very end of the file stays unread.
uint32_t AudioWaveform::_entriesReadable(uint32_t first, uint32_t count) const {
  const uint64_t base = _frameOfEntry(first);
  auto readable = [&](uint64_t j) { return _frameOfEntry(first + j + 1) - base < count; };
  if (!readable(0)) return 0;
  uint64_t entries = uint64_t(double(count) * m_framesPerSecond / (double(m_framesPerEntry) * m_fileRate));
  entries = std::max<uint64_t>(entries, 1);
  while (entries > 1 && !readable(entries - 1)) --entries;
  while (entries < UINT32_MAX && readable(entries)) ++entries;
  return uint32_t(entries);
}

void AudioWaveform::_loadFromThread() {
  KyoClock& clock = KyoCurrentClock();
  double lastTold = clock.monotonicSeconds();
  double poll = kRefillPoll;
  double waited = 0.0;
  while (live()) {
    const uint32_t valid = m_validSamples.load(std::memory_order_relaxed);
    if (valid >= m_totalSamples) break;
    const uint32_t count = m_audioBuffer->count();
    const uint32_t entries = std::min({m_totalSamples - valid, m_entriesPerRead, _entriesReadable(valid, count)});
    if (entries == 0) {
      // Nothing more will come once the file's end is in the ring or read out.
      if (m_audioBuffer->isFinished() || m_audioBuffer->isFilled()) break;
      // A read of nothing wakes the fill thread if the ring is low: a wake sent while
      // it was still reading is lost, and this one may be the only reader left.
      m_audioBuffer->readFrames(0, m_audioBufferList, 0);
      clock.sleepFor(poll);
      waited += poll;
      if (waited > kRefillPollPatience) poll = std::min(poll * 1.1, kRefillPollLongest);
      continue;
    }
    poll = kRefillPoll;
    waited = 0.0;
    const uint32_t frames = uint32_t(_frameOfEntry(valid + entries) - _frameOfEntry(valid));
    KyoAudioBufferListResetSizes(m_audioBufferList, frames);
    const uint32_t got = m_audioBuffer->readFrames(frames, m_audioBufferList, 0);
    _reduce(valid, entries, got);
    const double now = clock.monotonicSeconds();
    if (now - lastTold >= kTellInterval) {
      lastTold = now;
      _tellView();
    }
  }
}

// Entries [first, first + entries) from the `frames` frames in the list; entries that
// got no frames (a short read) are 0 and 0. Then the summary of every block that is
// now whole, and only then the new count, with release order.
//
// The channels are pooled frame by frame first, in loops the compiler vectorizes;
// each entry then scans one short run with two chains per extreme, since a single
// chain of compares waits on itself at every sample.
void AudioWaveform::_reduce(uint32_t first, uint32_t entries, uint32_t frames) {
  const uint32_t channels = m_audioBufferList->mNumberBuffers;
  const float* high = KyoAudioBufferListChannel(m_audioBufferList, 0);
  const float* low = high;
  if (channels > 1) {
    float* __restrict pooledMax = m_pooledMax.get();
    float* __restrict pooledMin = m_pooledMin.get();
    const float* __restrict c0 = KyoAudioBufferListChannel(m_audioBufferList, 0);
    const float* __restrict c1 = KyoAudioBufferListChannel(m_audioBufferList, 1);
    for (uint32_t f = 0; f < frames; ++f) {
      pooledMax[f] = c1[f] > c0[f] ? c1[f] : c0[f];
      pooledMin[f] = c1[f] < c0[f] ? c1[f] : c0[f];
    }
    for (uint32_t c = 2; c < channels; ++c) {
      const float* __restrict cn = KyoAudioBufferListChannel(m_audioBufferList, c);
      for (uint32_t f = 0; f < frames; ++f) {
        pooledMax[f] = cn[f] > pooledMax[f] ? cn[f] : pooledMax[f];
        pooledMin[f] = cn[f] < pooledMin[f] ? cn[f] : pooledMin[f];
      }
    }
    high = pooledMax;
    low = pooledMin;
  }
  const uint64_t base = _frameOfEntry(first);
  uint32_t begin = 0;
  for (uint32_t e = 0; e < entries; ++e) {
    const uint32_t next = uint32_t(_frameOfEntry(first + e + 1) - base);
    const uint32_t end = std::min(next, frames);
    float high0 = -1.0f, high1 = -1.0f, low0 = 1.0f, low1 = 1.0f;
    uint32_t f = begin;
    for (; f + 1 < end; f += 2) {
      high0 = high[f] > high0 ? high[f] : high0;
      high1 = high[f + 1] > high1 ? high[f + 1] : high1;
      low0 = low[f] < low0 ? low[f] : low0;
      low1 = low[f + 1] < low1 ? low[f + 1] : low1;
    }
    if (f < end) {
      high0 = high[f] > high0 ? high[f] : high0;
      low0 = low[f] < low0 ? low[f] : low0;
    }
    float entryHigh = high1 > high0 ? high1 : high0;
    float entryLow = low1 < low0 ? low1 : low0;
    if (entryLow > entryHigh || begin >= end) {
      entryHigh = 0.0f;
      entryLow = 0.0f;
    }
    m_waveformMax[first + e] = entryHigh;
    m_waveformMin[first + e] = entryLow;
    begin = next;
  }
  const uint32_t now = first + entries;
  for (uint32_t block = first / kSummaryBlock; (block + 1) * kSummaryBlock <= now; ++block) {
    const uint32_t begin = block * kSummaryBlock;
    float high = m_waveformMax[begin];
    float low = m_waveformMin[begin];
    for (uint32_t i = begin + 1; i < begin + kSummaryBlock; ++i) {
      high = m_waveformMax[i] > high ? m_waveformMax[i] : high;
      low = m_waveformMin[i] < low ? m_waveformMin[i] : low;
    }
    m_summaryMax[block] = high;
    m_summaryMin[block] = low;
  }
  m_validSamples.store(now, std::memory_order_release);
}

// Queued to the main thread without waiting, so the worker never stalls on a busy
// interface; one request at a time is enough, since it repaints what has come by then.
void AudioWaveform::_tellView() {
  if (m_tellPending.exchange(true)) return;
  KyoCurrentClock().runOnMain(
      [weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        self->m_tellPending.store(false);
        if (!self->live() || !self->m_waveformView) return;
        if (auto* view = qobject_cast<AudioWaveformView*>(self->m_waveformView.data()))
          view->_waveformDidGrow();
        else
          self->m_waveformView->update();
      },
      false);
}

void AudioWaveform::_range(float startTime, float endTime, uint32_t& first, uint32_t& last) const {
  const uint32_t valid = m_validSamples.load(std::memory_order_acquire);
  const float entriesPerSecond = m_framesPerSecond / m_framesPerSample;
  first = entryIndex(startTime * entriesPerSecond);
  last = std::min(entryIndex(endTime * entriesPerSecond), valid);
}

// Entries [first, last), all below validSamples; whole blocks by their summary. The
// same comparisons as a straight scan, so the answers are identical.
void AudioWaveform::_scan(uint32_t first, uint32_t last, float& high, float& low) const {
  auto entries = [&](uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; ++i) {
      high = m_waveformMax[i] > high ? m_waveformMax[i] : high;
      low = m_waveformMin[i] < low ? m_waveformMin[i] : low;
    }
  };
  const uint32_t firstBlock = first / kSummaryBlock + (first % kSummaryBlock != 0);
  const uint32_t lastBlock = last / kSummaryBlock;
  if (firstBlock >= lastBlock) {
    entries(first, last);
    return;
  }
  entries(first, firstBlock * kSummaryBlock);
  for (uint32_t b = firstBlock; b < lastBlock; ++b) {
    high = m_summaryMax[b] > high ? m_summaryMax[b] : high;
    low = m_summaryMin[b] < low ? m_summaryMin[b] : low;
  }
  entries(lastBlock * kSummaryBlock, last);
}

void AudioWaveform::extremesBetweenStartTime(float startTime, float endTime, float& maxValue, float& minValue) const {
  maxValue = 0.0f;
  minValue = 0.0f;
  uint32_t first = 0;
  uint32_t last = 0;
  _range(startTime, endTime, first, last);
  if (first >= last) return;
  _scan(first, last, maxValue, minValue);
  maxValue = std::min(maxValue, 1.0f);
}

float AudioWaveform::maxValueBetweenStartTime(float startTime, float endTime) const {
  float high = 0.0f;
  float low = 0.0f;
  extremesBetweenStartTime(startTime, endTime, high, low);
  return high;
}

float AudioWaveform::minValueBetweenStartTime(float startTime, float endTime) const {
  float high = 0.0f;
  float low = 0.0f;
  extremesBetweenStartTime(startTime, endTime, high, low);
  return low;
}
