// Levels, fades and meters of an open KyoAudioDevice. The mixer carries 24000 input
// channels (500 busses of 48), but callers speak of 48 logical channels: every bus gets
// the same input volumes and crosspoints, so a signal sounds the same on any bus.

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoMatrixMixer.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"

std::shared_ptr<KyoMatrixMixer> KyoAudioDevice::currentMixer() const {
  std::lock_guard<std::mutex> lock(m_mixerMutex);
  return m_mixer;
}

float KyoAudioDevice::masterVolume() const {
  auto mixer = currentMixer();
  if (!mixer) return 0.0f;
  float value = 0.0f;
  int32_t status = mixer->getParameter(KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Global,
                                       KyoMatrixMixer::kMasterElement, &value);
  if (status) {
    KYO_LOG_STATUS(status);
    return 0.0f;
  }
  return value;
}

// Doesn't ask whether the device is open: a closed device has no mixer to write to.
void KyoAudioDevice::setMasterVolume(float volume) {
  auto mixer = currentMixer();
  if (!mixer) return;
  int32_t status = mixer->setParameter(KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Global,
                                       KyoMatrixMixer::kMasterElement, volume);
  if (status) KYO_LOG_STATUS(status);
}

void KyoAudioDevice::_setRawInputVolume(float volume, uint32_t channel) {
  auto mixer = currentMixer();
  if (!mixer) return;
  int32_t status = mixer->setParameter(KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Input, channel, volume);
  if (status) KYO_LOG_STATUS(status);
}

void KyoAudioDevice::_setRawCrosspointVolume(float volume, uint32_t input, uint32_t output) {
  auto mixer = currentMixer();
  if (!mixer) return;
  int32_t status = mixer->setParameter(KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Global,
                                       KyoMatrixMixer::crosspointElement(input, output), volume);
  if (status)
    KYO_LOG_STATUS_DETAIL(status, "input=" + std::to_string(int(input)) + ", output=" + std::to_string(int(output)));
}

// The caller gives a logical channel; any other number walks from there in steps of 48.
void KyoAudioDevice::setInputVolume(float volume, uint32_t channel) {
  for (uint32_t c = channel; c < kMixerInputChannels; c += kKyoLogicalChannels) _setRawInputVolume(volume, c);
}

void KyoAudioDevice::setOutputVolume(float volume, uint32_t channel) {
  auto mixer = currentMixer();
  if (!mixer) return;
  int32_t status = mixer->setParameter(KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Output, channel, volume);
  if (status) KYO_LOG_STATUS(status);
}

void KyoAudioDevice::setCrosspointVolume(float volume, uint32_t input, uint32_t output) {
  for (uint32_t c = input; c < kMixerInputChannels; c += kKyoLogicalChannels)
    _setRawCrosspointVolume(volume, c, output);
}

void KyoAudioDevice::setVolume(float volume, uint32_t row, uint32_t column) {
  if (row == 0 && column == 0)
    setMasterVolume(volume);
  else if (row == 0)
    setOutputVolume(volume, column - 1);
  else if (column == 0)
    setInputVolume(volume, row - 1);
  else
    setCrosspointVolume(volume, row - 1, column - 1);
}

std::optional<KyoAudioDevice::MixerShape> KyoAudioDevice::mixerShape() const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  if (!m_mixerInDesc || !m_mixerOutDesc) return std::nullopt;
  return MixerShape{m_mixerInDesc->channels(), m_mixerOutDesc->channels()};
}

void KyoAudioDevice::setSilentCrosspoints() {
  const auto shape = mixerShape();
  if (!shape) return;
  const MixerShape s = *shape;
  for (uint32_t i = 0; i < s.logical; ++i)
    for (uint32_t o = 0; o < s.device; ++o) setCrosspointVolume(0.0f, i, o);
}

void KyoAudioDevice::setSilentVolumes() {
  if (!isOpen()) return;
  const auto shape = mixerShape();
  if (!shape) return;
  const MixerShape s = *shape;
  setMasterVolume(0.0f);
  for (uint32_t o = 0; o < s.device; ++o) setOutputVolume(0.0f, o);
  for (uint32_t i = 0; i < s.logical; ++i) setInputVolume(0.0f, i);
  setSilentCrosspoints();
}

void KyoAudioDevice::setDefaultVolumes() {
  if (!isOpen()) return;
  const auto shape = mixerShape();
  if (!shape) return;
  const MixerShape s = *shape;
  setMasterVolume(1.0f);
  for (uint32_t o = 0; o < s.device; ++o) setOutputVolume(1.0f, o);
  for (uint32_t i = 0; i < s.logical; ++i) setInputVolume(1.0f, i);
  setSilentCrosspoints();
  for (uint32_t i = 0; i < s.logical && i < s.device; ++i) setCrosspointVolume(1.0f, i, i);
}

// --- Fades ---

float KyoAudioDevice::_computeFadeWithStartVolume(float startVolume, float endVolume, double duration, double elapsed) {
  if (!(duration > 0.0)) return endVolume;
  const float t = float(std::min(duration, elapsed) / duration);
  const float f = float(std::cos(double(t) * M_PI) * 0.5 + 0.5);
  return endVolume + (startVolume - endVolume) * f;
}

void KyoAudioDevice::fadeToMasterVolume(float volume, double seconds) {
  // Taking a new number is what cancels the fade before.
  m_fadeIndex.fetch_add(1);
  std::shared_ptr<KyoAudioDevice> self = shared_from_this();
  KyoCurrentClock().detachThread([self, seconds, volume] { self->_fade(seconds, volume); });
}

// On the fade's own thread; the installed clock paces it, so a virtual clock drives it in tests.
void KyoAudioDevice::_fade(double duration, float finalVolume) {
  KyoClock& clock = KyoCurrentClock();
  const float startVolume = masterVolume();
  const int32_t index = m_fadeIndex.load();
  const double start = clock.monotonicSeconds();
  for (;;) {
    const double elapsed = clock.monotonicSeconds() - start;
    if (!isOpen() || !(elapsed < duration) || m_fadeIndex.load() != index) break;
    setMasterVolume(_computeFadeWithStartVolume(startVolume, finalVolume, duration, elapsed));
    clock.sleepUntil(clock.monotonicSeconds() + kFadeStepSeconds);
  }
  if (isOpen() && m_fadeIndex.load() == index) setMasterVolume(finalVolume);
}

// --- Meters ---

float KyoAudioDevice::outputMeter(uint32_t parameter, uint32_t channel) const {
  auto mixer = currentMixer();
  float value = 0.0f;
  int32_t status = mixer ? mixer->getParameter(parameter, kKyoAudioUnitScope_Output, channel, &value)
                         : kKyoAudioUnitErr_Uninitialized;
  if (status) {
    KYO_LOG_STATUS(status);
    return 0.0f;
  }
  return value;
}

float KyoAudioDevice::outPostAveragePowerAtChannel(uint32_t channel) const {
  return outputMeter(KyoMatrixMixer::kParameterPostAveragePower, channel);
}

float KyoAudioDevice::outPostPeakHoldLevelAtChannel(uint32_t channel) const {
  return outputMeter(KyoMatrixMixer::kParameterPostPeakHoldLevel, channel);
}

// For a developer: the whole matrix on standard output (24000 rows on a device).
void KyoAudioDevice::printVolumes() const {
  if (auto mixer = currentMixer()) mixer->printVolumes();
}
