#pragma once
// One thing that can play: an audio file through a slice player, or, with no file,
// the live input of the device. It owns a small render stream (its effect chain, then
// a matrix mixer at the end) that stands ready between plays, and it is attached to a
// bus of the device, or of its send, only while it sounds.
//
// Threads. The main thread sets the file, device, send and effects (each a rebuild of
// the stream), plays and stops, and runs the clean-up timer. A send's rebuild, on the
// main thread, rebuilds the sources that play through it. The device's render thread
// calls render() and _finalRender() and runs the queued actions. Volume writes and
// fades may come from any thread.
//
// Locks. m_renderMutex: the render thread once per cycle, and a rebuild or the
// destructor (main thread), which clear m_validStream before they take it, so that a
// render that comes later goes to silence instead of waiting. Nothing slow happens
// under it: the new slice player is made before and the old one killed after. It
// comes after the render mutex of the device or send that pulls it. m_levelsMutex:
// volume writers, meter readers and the rebuild (inside m_renderMutex), so that nobody
// writes to a mixer unit that a rebuild is replacing; the render thread never takes it.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioMetaBuffer.h"
#include "audio/KyoAudioReading.h"
#include "audio/KyoAudioRendering.h"
#include "audio/KyoAudioStreamDescription.h"
#include "audio/KyoMutex.h"
#include "audio/KyoStream.h"
#include "foundation/KyoAlias.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoNotificationCenter.h"

class KyoEffect;
class KyoEffectBus;
class KyoAudioSend;
class KyoAudioSource;

// Told on the main thread when a source has finished, its effects' tail included.
class KyoAudioSourceDelegate {
 public:
  virtual ~KyoAudioSourceDelegate() = default;
  virtual void audioSourceDidFinish(KyoAudioSource* source) {}
};

class KyoAudioSource final : public KyoAudioAttachable, public std::enable_shared_from_this<KyoAudioSource> {
 public:
  static constexpr double kCleanupIntervalSeconds = 1.0;

  // Null, with "Error: KyoAudioSource could not create a stream.", when the stream
  // or its mixer cannot be made. Main thread.
  static std::shared_ptr<KyoAudioSource> create();
  // Detaches from the device, if still attached, and kills the slice player.
  ~KyoAudioSource() override;
  KyoAudioSource(const KyoAudioSource&) = delete;
  KyoAudioSource& operator=(const KyoAudioSource&) = delete;

  // Seconds: the shortest slice worth playing.
  static double minSliceDuration() { return 0.1; }

  KyoAudioSourceDelegate* delegate() const { return m_delegate.load(); }
  void setDelegate(KyoAudioSourceDelegate* delegate) { m_delegate.store(delegate); }

  // --- Settings (main thread); each rebuilds the stream when the value really changes ---
  std::shared_ptr<KyoAlias> alias() const { return m_alias; }
  void setAlias(std::shared_ptr<KyoAlias> alias);
  KyoAudioDevice* device() const override { return m_device.get(); }
  std::shared_ptr<KyoAudioDevice> sharedDevice() const { return m_device; }
  void setDevice(std::shared_ptr<KyoAudioDevice> device);
  // With a send, the source feeds one of the send's busses instead of the device's,
  // in the send's format: 48 main channels and the aux channels behind them.
  std::shared_ptr<KyoAudioSending> send() const override;
  std::shared_ptr<KyoAudioSend> sharedSend() const { return m_send; }
  void setSend(std::shared_ptr<KyoAudioSend> send);
  std::vector<std::shared_ptr<KyoEffect>> effects() const;
  void setEffects(const std::vector<std::shared_ptr<KyoEffect>>& effects);  // always rebuilds
  void addEffect(const std::shared_ptr<KyoEffect>& effect);
  void removeEffect(const std::shared_ptr<KyoEffect>& effect);
  KyoEffectBus* effectBus() const { return m_effectBus.get(); }

  // --- Transport (main thread) ---
  void play();
  void stop();
  void hardStop();
  void devamp();
  void goToTime(double seconds);
  // The actions, run by the device's queue: on the render thread inside a batch, at
  // once on the caller's thread without one. Each is a store or two.
  void _play();
  void _stop();
  void _hardStop();
  void _devamp();

  bool isPlaying() const { return (m_runState.load() & kPlayingBit) != 0; }
  bool isFinished() const;
  bool wasStopped() const;
  bool isValid() const { return m_validStream.load(); }
  // Timer of the main loop: detaches once finished, tail included, and tells the delegate.
  void _detachIfFinished();

  // --- Information ---
  std::vector<KyoSliceDescription> slices() const;
  void setSlices(const std::vector<KyoSliceDescription>& slices);
  double tailTime() const;  // seconds
  uint32_t micChannels() const;
  uint32_t fileChannels() const { return m_alias ? m_fileChannels : 0; }
  double fileLengthInSeconds() const;
  double currentFileTime() const;
  double startTime() const;
  double endTime() const;
  double audioLengthInSeconds() const;
  double elapsedPlayTime() const;
  double elapsedLogicalTime() const;
  double timeUntilLoop() const;
  uint32_t mixerInChannels() const { return m_mixerInChannels; }
  uint32_t mixerOutChannels() const { return m_mixerOutChannels; }
  std::optional<KyoAudioStreamDescription> streamFormat() const { return m_streamFormat; }

  // --- Volumes: linear gains on the source's own mixer (any thread) ---
  float masterVolume() const;
  void setMasterVolume(float volume);
  void setInputVolume(float volume, uint32_t channel);
  void setOutputVolume(float volume, uint32_t channel);
  void setCrosspointVolume(float volume, uint32_t input, uint32_t output);
  // Row 0 column 0: master; row 0: output column-1; column 0: input row-1; else crosspoint.
  void setVolume(float volume, uint32_t row, uint32_t column);
  void setAuxVolume(float volume, uint32_t row, uint32_t column);
  void setSilentVolumes();
  void setDefaultVolumes();
  // A raised-cosine fade of the master in 10 ms steps on a worker of the clock, for as
  // long as the source plays; a newer fade ends it without its final write.
  void fadeToMasterVolume(float volume, double seconds);
  int32_t fadeIndex() const { return m_fadeIndex.load(); }
  static float _computeFadeWithStartVolume(float startVolume, float endVolume, double duration, double elapsed);

  // --- Meters: decibels after the mixer ---
  float outPostAveragePowerAtChannel(uint32_t channel) const;
  float outPostPeakHoldLevelAtChannel(uint32_t channel) const;
  float outPostAveragePowerAtAuxChannel(uint32_t channel) const;
  float outPostPeakHoldLevelAtAuxChannel(uint32_t channel) const;

  std::string description() const override;

  // --- Rendering (render thread) ---
  void registerRenderInfo(KyoRenderInfo* info) override { KyoRegisterRenderInfo(this, info); }
  int32_t render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber, uint32_t frames,
                 AudioBufferList* ioData) override;
  void _registerFinalRenderInfo(KyoRenderInfo* info);
  int32_t _finalRender(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber,
                       uint32_t frames, AudioBufferList* ioData);

  // The slice player of the present stream (tests and diagnostics; main thread).
  std::shared_ptr<KyoAudioMetaBuffer> buffer() const { return m_buffer; }

 private:
  KyoAudioSource() = default;
  void _updateStream();
  void _fade(double duration, float finalVolume);
  bool _validInputChannel(uint32_t channel) const { return channel < m_mixerInChannels; }
  bool _validOutputChannel(uint32_t channel) const { return channel < m_mixerOutChannels; }
  // With m_levelsMutex held.
  void setMixerValue(float value, uint32_t parameter, KyoAudioUnitScope scope, uint32_t element);
  float mixerValue(uint32_t parameter, KyoAudioUnitScope scope, uint32_t element) const;
  void stopCleanupTimer();
  void stopAndDetach();
  void startCleanupTimer();

  std::atomic<KyoAudioSourceDelegate*> m_delegate{nullptr};
  std::shared_ptr<KyoAlias> m_alias;
  uint32_t m_fileChannels = 0;
  std::shared_ptr<KyoAudioDevice> m_device;
  std::shared_ptr<KyoAudioSend> m_send;
  KyoScopedObserver m_sendObserver;
  std::unique_ptr<KyoStream> m_stream;
  std::optional<KyoAudioStreamDescription> m_streamFormat;
  std::shared_ptr<KyoEffect> m_mixer;
  uint32_t m_mixerInChannels = 0;
  uint32_t m_mixerOutChannels = 0;
  std::shared_ptr<KyoEffectBus> m_effectBus;
  std::shared_ptr<KyoAudioMetaBuffer> m_buffer;
  std::optional<KyoClock::TimerId> m_cleanupTimer;

  // Read by the render thread without a lock. Playing and hard-stopped change
  // together in the actions, so they share one word and one store.
  static constexpr uint32_t kPlayingBit = 1, kHardStoppedBit = 2;
  std::atomic<bool> m_validStream{false};
  std::atomic<uint32_t> m_runState{0};
  std::atomic<double> m_timeWeWereStopped{0.0};

  KyoRenderInfo m_mixerRenderInfo;
  KyoRenderInfo m_finalRenderInfo;
  KyoReadFramesInfo m_readInfo;  // m_renderMutex
  mutable KyoMutex m_renderMutex;
  mutable std::mutex m_levelsMutex;
  std::atomic<int32_t> m_fadeIndex{0};
};

static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::atomic<double>::is_always_lock_free);
static_assert(std::atomic<int32_t>::is_always_lock_free);
