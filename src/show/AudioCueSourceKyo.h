#pragma once
// The cue's source over the engine's KyoAudioSource: what the application installs
// at start, and what the playback tests run on.

#include <memory>

#include "show/AudioCueSource.h"

class KyoAudioSource;

class AudioCueSourceKyo final : public AudioCueSource {
 public:
  // Null when the engine cannot make a source. Main thread.
  static std::unique_ptr<AudioCueSourceKyo> create();
  // Every cue made from now on plays through the engine.
  static void install();

  explicit AudioCueSourceKyo(std::shared_ptr<KyoAudioSource> source);
  ~AudioCueSourceKyo() override;

  KyoAudioSource* source() const { return m_source.get(); }

  void setDevice(std::shared_ptr<KyoAudioDevice> device) override;
  std::shared_ptr<KyoAudioDevice> sharedDevice() const override;
  void setAlias(std::shared_ptr<KyoAlias> alias) override;
  bool isValid() const override;
  uint32_t fileChannels() const override;
  double fileLengthInSeconds() const override;
  void setDefaultVolumes() override;
  void setCrosspointVolume(float volume, uint32_t input, uint32_t output) override;
  void setSlice(double startTime, double endTime, int playCount) override;
  void goToTime(double seconds) override;
  void hardStop() override;
  void play() override;
  void stop() override;
  bool isPlaying() const override;
  bool isFinished() const override;
  void setMasterVolume(float volume) override;
  void fadeToMasterVolume(float volume, double seconds) override;
  double elapsedLogicalTime() const override;
  double elapsedPlayTime() const override;
  double audioLengthInSeconds() const override;
  double startTime() const override;
  double endTime() const override;
  double currentFileTime() const override;
  std::shared_ptr<KyoAlias> alias() const override;
  void setEffects(const std::vector<std::shared_ptr<KyoEffect>>& effects) override;
  void addEffect(const std::shared_ptr<KyoEffect>& effect) override;
  void removeEffect(const std::shared_ptr<KyoEffect>& effect) override;

 private:
  // Shared: the engine's own workers (fades, clean-up) keep it alive past the cue.
  std::shared_ptr<KyoAudioSource> m_source;
};
