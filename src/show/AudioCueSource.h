#pragma once
// What a cue needs of its audio source. The source itself lives in the effects
// library (AudioCueSourceKyo wraps it); the cue reaches it only through this seam,
// and the application hands the factory over at start. Tests of the records hand
// over a fake, which may leave the transport at its silent defaults.

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class KyoAlias;
class KyoAudioDevice;
class KyoEffect;

class AudioCueSource {
 public:
  virtual ~AudioCueSource() = default;

  virtual void setDevice(std::shared_ptr<KyoAudioDevice> device) = 0;
  virtual std::shared_ptr<KyoAudioDevice> sharedDevice() const = 0;
  virtual void setAlias(std::shared_ptr<KyoAlias> alias) = 0;

  // False when the file could not be opened or decoded.
  virtual bool isValid() const = 0;
  virtual uint32_t fileChannels() const = 0;
  virtual double fileLengthInSeconds() const = 0;

  virtual void setDefaultVolumes() = 0;
  virtual void setCrosspointVolume(float volume, uint32_t input, uint32_t output) = 0;
  // One slice of the file, in seconds; a negative play count plays it for ever.
  virtual void setSlice(double startTime, double endTime, int playCount) = 0;
  virtual void goToTime(double seconds) = 0;
  // Silence from the next audio cycle on.
  virtual void hardStop() = 0;

  // Transport (main thread, except hardStop and the volumes, which any thread may
  // call). Inside the device's batch a start or stop takes effect at the batch's cycle.
  virtual void play() {}
  // Stops with the effects' tail and keeps the place.
  virtual void stop() {}
  virtual bool isPlaying() const { return false; }
  // Stopped or at its end, the tail included.
  virtual bool isFinished() const { return true; }

  // Linear gains.
  virtual void setMasterVolume(float /*volume*/) {}
  // Returns at once; the level moves on a worker of the clock.
  virtual void fadeToMasterVolume(float /*volume*/, double /*seconds*/) {}

  // Seconds. Logical time is the place in the slice; play time counts every frame played.
  virtual double elapsedLogicalTime() const { return 0.0; }
  virtual double elapsedPlayTime() const { return 0.0; }
  virtual double audioLengthInSeconds() const { return 0.0; }
  virtual double startTime() const { return 0.0; }
  virtual double endTime() const { return 0.0; }
  // Where playback stands in the file, in seconds: the waveform's cursor.
  virtual double currentFileTime() const { return 0.0; }
  // The file the source reads, as it was last given; null without one.
  virtual std::shared_ptr<KyoAlias> alias() const { return nullptr; }

  virtual void setEffects(const std::vector<std::shared_ptr<KyoEffect>>& /*effects*/) {}
  virtual void addEffect(const std::shared_ptr<KyoEffect>& /*effect*/) {}
  virtual void removeEffect(const std::shared_ptr<KyoEffect>& /*effect*/) {}
};

using AudioCueSourceFactory = std::function<std::unique_ptr<AudioCueSource>()>;
