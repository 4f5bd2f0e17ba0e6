#include "show/AudioCueSourceKyo.h"

#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioMetaBuffer.h"
#include "effects/KyoAudioSource.h"
#include "show/AudioCue.h"

std::unique_ptr<AudioCueSourceKyo> AudioCueSourceKyo::create() {
  std::shared_ptr<KyoAudioSource> source = KyoAudioSource::create();
  if (!source) return nullptr;
  return std::make_unique<AudioCueSourceKyo>(std::move(source));
}

void AudioCueSourceKyo::install() {
  AudioCue::setSourceFactory([]() -> std::unique_ptr<AudioCueSource> { return create(); });
}

AudioCueSourceKyo::AudioCueSourceKyo(std::shared_ptr<KyoAudioSource> source) : m_source(std::move(source)) {}

AudioCueSourceKyo::~AudioCueSourceKyo() = default;

void AudioCueSourceKyo::setDevice(std::shared_ptr<KyoAudioDevice> device) { m_source->setDevice(std::move(device)); }
std::shared_ptr<KyoAudioDevice> AudioCueSourceKyo::sharedDevice() const { return m_source->sharedDevice(); }
void AudioCueSourceKyo::setAlias(std::shared_ptr<KyoAlias> alias) { m_source->setAlias(std::move(alias)); }
bool AudioCueSourceKyo::isValid() const { return m_source->isValid(); }
uint32_t AudioCueSourceKyo::fileChannels() const { return m_source->fileChannels(); }
double AudioCueSourceKyo::fileLengthInSeconds() const { return m_source->fileLengthInSeconds(); }
void AudioCueSourceKyo::setDefaultVolumes() { m_source->setDefaultVolumes(); }

void AudioCueSourceKyo::setCrosspointVolume(float volume, uint32_t input, uint32_t output) {
  m_source->setCrosspointVolume(volume, input, output);
}

void AudioCueSourceKyo::setSlice(double startTime, double endTime, int playCount) {
  m_source->setSlices({KyoSliceDescription{startTime, endTime, playCount}});
}

void AudioCueSourceKyo::goToTime(double seconds) { m_source->goToTime(seconds); }
void AudioCueSourceKyo::hardStop() { m_source->hardStop(); }
void AudioCueSourceKyo::play() { m_source->play(); }
void AudioCueSourceKyo::stop() { m_source->stop(); }
bool AudioCueSourceKyo::isPlaying() const { return m_source->isPlaying(); }
bool AudioCueSourceKyo::isFinished() const { return m_source->isFinished(); }
void AudioCueSourceKyo::setMasterVolume(float volume) { m_source->setMasterVolume(volume); }
void AudioCueSourceKyo::fadeToMasterVolume(float volume, double seconds) { m_source->fadeToMasterVolume(volume, seconds); }
double AudioCueSourceKyo::elapsedLogicalTime() const { return m_source->elapsedLogicalTime(); }
double AudioCueSourceKyo::elapsedPlayTime() const { return m_source->elapsedPlayTime(); }
double AudioCueSourceKyo::audioLengthInSeconds() const { return m_source->audioLengthInSeconds(); }
double AudioCueSourceKyo::startTime() const { return m_source->startTime(); }
double AudioCueSourceKyo::endTime() const { return m_source->endTime(); }
double AudioCueSourceKyo::currentFileTime() const { return m_source->currentFileTime(); }
std::shared_ptr<KyoAlias> AudioCueSourceKyo::alias() const { return m_source->alias(); }

void AudioCueSourceKyo::setEffects(const std::vector<std::shared_ptr<KyoEffect>>& effects) {
  m_source->setEffects(effects);
}
void AudioCueSourceKyo::addEffect(const std::shared_ptr<KyoEffect>& effect) { m_source->addEffect(effect); }
void AudioCueSourceKyo::removeEffect(const std::shared_ptr<KyoEffect>& effect) { m_source->removeEffect(effect); }
