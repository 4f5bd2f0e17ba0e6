#pragma once
// An audio file reduced to the highest and the lowest sample of each group of frames,
// all channels pooled, filled in the background while the waveform view is already
// on screen. The file is read through a read-ahead stream of its own, so drawing a
// waveform never touches a cue that plays the same file.
//
// Entries are laid on a 44.1 kHz time line: a file of 10 seconds or more keeps one
// entry per framesPerSample frames of it (the view asks for 10, so 4410 entries a
// second), a shorter one every frame (44100 a second). The file is read at its own
// rate, and an entry takes the file's frames that fall within its span of time: a
// 44.1 kHz file gives exactly framesPerSample frames per entry. Converting the whole
// file to 44.1 kHz first would cost several times its decoding (the resampler
// dominates), for peaks that are no truer than the file's own samples.
//
// Threads: created, queried and released on the main thread. One loading worker per
// waveform writes the arrays and publishes validSamples with release order after
// both arrays (and the summary) have their entries, so a query, which acquires it,
// sees finished entries only. The stream's fill thread is the ring's producer.

#include <QPointer>
#include <QWidget>
#include <atomic>
#include <cstdint>
#include <memory>

#include "audio/KyoAudioBufferList.h"

class KyoAlias;
class KyoAudioBuffer;

class AudioWaveform : public std::enable_shared_from_this<AudioWaveform> {
 public:
  // Null, with a log line, when no stream can be made of the file (gone, unreadable).
  static std::shared_ptr<AudioWaveform> create(std::shared_ptr<KyoAlias> alias, float framesPerSample);
  // Frees the arrays and lets go of the stream; the stream stops its own fill thread.
  ~AudioWaveform();
  AudioWaveform(const AudioWaveform&) = delete;
  AudioWaveform& operator=(const AudioWaveform&) = delete;

  // Extremes of the entries from startTime up to endTime (seconds), as far as they are
  // loaded: the highest is at least 0 and at most 1, the lowest at most 0 and not
  // limited, since a clipped file may go below -1. An empty or unloaded range gives 0.
  float maxValueBetweenStartTime(float startTime, float endTime) const;
  float minValueBetweenStartTime(float startTime, float endTime) const;
  // Both at once, as the view draws them; the same answers as the two above.
  void extremesBetweenStartTime(float startTime, float endTime, float& maxValue, float& minValue) const;

  // Loading goes on while set. The view clears it before letting go; the worker stops
  // at its next look.
  bool live() const { return m_live.load(std::memory_order_acquire); }
  void setLive(bool live) { m_live.store(live, std::memory_order_release); }

  // Told on the main thread, at most every 50 ms, when new entries have come. Not owned.
  QWidget* waveformView() const { return m_waveformView.data(); }
  void setWaveformView(QWidget* view) { m_waveformView = view; }

  // Starts the loading worker; once only (the factory calls it).
  void _loadWaveform();

  float framesPerSample() const { return m_framesPerSample; }
  float framesPerSecond() const { return m_framesPerSecond; }
  uint32_t totalSamples() const { return m_totalSamples; }
  uint32_t validSamples() const { return m_validSamples.load(std::memory_order_acquire); }
  // Seconds of the file that the loaded entries cover.
  double loadedSeconds() const { return double(validSamples()) * m_framesPerSample / m_framesPerSecond; }
  // The worker has ended: everything read, the file ended early, or abandoned.
  bool isComplete() const { return m_complete.load(std::memory_order_acquire); }
  // Workers that still run, over all waveforms: tests wait for none before they end.
  static int runningLoaders();

  // Entries per summary block: a query over many entries takes the blocks' extremes
  // instead of scanning, so a column of a long file at the widest zoom stays cheap.
  static constexpr uint32_t kSummaryBlock = 128;

 private:
  AudioWaveform() = default;
  void _loadFromThread();
  // First frame of the file (at its own rate) that belongs to the entry.
  uint64_t _frameOfEntry(uint64_t entry) const;
  uint32_t _entriesReadable(uint32_t first, uint32_t count) const;
  void _reduce(uint32_t first, uint32_t entries, uint32_t frames);
  void _tellView();
  void _range(float startTime, float endTime, uint32_t& first, uint32_t& last) const;
  void _scan(uint32_t first, uint32_t last, float& high, float& low) const;

  std::atomic<bool> m_live{true};
  std::shared_ptr<KyoAudioBuffer> m_audioBuffer;
  float m_framesPerSample = 0;
  float m_framesPerSecond = 0;    // of the time line: 44100
  uint32_t m_framesPerEntry = 0;  // framesPerSample, truncated
  double m_fileRate = 0;          // the stream's read rate: the file's own
  uint32_t m_totalSamples = 0;
  // Written by the worker alone, read by queries on the main thread.
  std::atomic<uint32_t> m_validSamples{0};
  // Room for a run of entries' frames, non-interleaved; the worker's alone.
  AudioBufferList* m_audioBufferList = nullptr;
  uint32_t m_entriesPerRead = 0;
  // The channels' extremes per frame of the list, so that entries scan one array.
  std::unique_ptr<float[]> m_pooledMax;
  std::unique_ptr<float[]> m_pooledMin;
  // Not cleared: nothing reads an entry at or above validSamples.
  std::unique_ptr<float[]> m_waveformMax;
  std::unique_ptr<float[]> m_waveformMin;
  // Extremes of each whole block of kSummaryBlock entries, written before
  // validSamples passes the block's end.
  std::unique_ptr<float[]> m_summaryMax;
  std::unique_ptr<float[]> m_summaryMin;
  QPointer<QWidget> m_waveformView;  // main thread only
  std::atomic<bool> m_tellPending{false};
  std::atomic<bool> m_started{false};
  std::atomic<bool> m_complete{false};
};

static_assert(std::atomic<uint32_t>::is_always_lock_free);
