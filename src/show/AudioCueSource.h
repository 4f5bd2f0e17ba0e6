#pragma once
// What a cue record needs of its audio source. The source itself lives in the
// effects library; until the cue's playback is wired to it, the record reaches it
// only through this seam, and the application hands the factory over at start.
// Tests hand over a fake.

#include <cstdint>
#include <functional>
#include <memory>

class KyoAlias;
class KyoAudioDevice;

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
};

using AudioCueSourceFactory = std::function<std::unique_ptr<AudioCueSource>()>;
