// What a cue does when it is triggered, paused, stopped, panicked or edited while it
// sounds. The source makes the sound; the cue decides when.

#include <algorithm>
#include <cmath>

#include "audio/KyoAudioDevice.h"
#include "effects/KyoEffect.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"
#include "show/AudioCue.h"
#include "show/Cart.h"
#include "show/Workspace.h"

static_assert(std::atomic<bool>::is_always_lock_free, "run-state flags are read by workers without a lock");

namespace {
// Edits of the in and out points smaller than this change nothing (seconds).
constexpr double kTimeTolerance = 0.00001;
}  // namespace

// --- Triggers ---

void AudioCue::triggerDown() {
  // A toggle on the cue's own flag: a paused cue counts as started, so it stops.
  if (playing()) {
    stop();
    return;
  }
  // Reaches every cue of every workspace, this one too (idle now, it only rewinds).
  if (solo()) KyoNotificationCenter::defaultCenter().postNotification(kHardStopNotification, this);
  play();
}

void AudioCue::triggerUp() {
  if (hold()) stop();
}

// --- Transport ---

void AudioCue::play() {
  if (isDead()) return;
  if (Cart* owner = cart()) owner->logPlayOfCue(*this);
  setPlaying(true);
  startProgressTimer();
  if (!m_audioSource) return;
  // Also lifts the level back after a panic fade left it at 0.
  m_audioSource->setMasterVolume(m_volume);
  if (!m_audioSource->isPlaying()) m_audioSource->play();
}

void AudioCue::pause() {
  if (!isPlaying()) return;
  KYO_LOG_AT(3, "   pause %s", description().c_str());
  setPaused(true);
  // The source keeps its place; `playing` stays true, so a trigger now stops.
  m_audioSource->stop();
}

void AudioCue::resume() {
  setPaused(false);
  if (playing()) play();
}

void AudioCue::stop() {
  KYO_LOG_AT(3, "   stop %s", description().c_str());
  // A panic worker that is still waiting ends without a stop of its own.
  if (m_doPanic.exchange(false)) emit doPanicChanged();
  if (m_audioSource) {
    m_audioSource->stop();
    m_audioSource->goToTime(0.0);
  }
  stopProgressTimer();
  setProgress(0.0f);
  setPlaying(false);
  setPaused(false);
}

void AudioCue::hardStop() {
  std::shared_ptr<AudioCue> self = weak_from_this().lock();
  if (!self || !_isActionRunning()) {
    _hardStop();
    return;
  }
  // A sounding cue is cut on a worker, so that a solo cue or a panic never waits
  // for the cues it silences.
  KyoCurrentClock().detachThread([self]() mutable {
    if (self->m_audioSource) self->m_audioSource->hardStop();
    // The bookkeeping, and the last reference, go back to the main thread.
    KyoCurrentClock().runOnMain(
        [self = std::move(self)]() mutable {
          std::shared_ptr<AudioCue> cue = std::move(self);
          cue->stop();
        },
        false);
  });
}

void AudioCue::_hardStop() {
  if (m_audioSource) m_audioSource->hardStop();
  stop();
}

void AudioCue::releaseOnMain(std::shared_ptr<AudioCue> self) {
  // Released in the body, not with the closure: a clock may destroy its closures
  // under its own lock, and a cue's destructor reads the clock.
  KyoCurrentClock().runOnMain([self = std::move(self)]() mutable { self.reset(); }, false);
}

// --- Panic ---

void AudioCue::_panicAction() {
  if (!_isActionRunning()) {
    stop();
    return;
  }
  std::shared_ptr<AudioCue> self = weak_from_this().lock();
  CartWorkspace* workspace = cart() ? cart()->workspace() : nullptr;
  const double duration = workspace ? workspace->panicDuration() : Workspace::kDefaultPanicDuration;
  if (!self) {
    // Not shared (a cue being torn down): no worker may hold it, so cut at once.
    hardStop();
    return;
  }
  KyoCurrentClock().detachThread([self, duration]() mutable {
    self->_panic(duration);
    releaseOnMain(std::move(self));
  });
}

void AudioCue::storeDoPanicFromWorker(bool doPanic) {
  m_doPanic.store(doPanic);
  std::shared_ptr<AudioCue> self = weak_from_this().lock();
  if (!self) return;
  KyoCurrentClock().runOnMain(
      [self = std::move(self)]() mutable {
        std::shared_ptr<AudioCue> cue = std::move(self);
        emit cue->doPanicChanged();
      },
      false);
}

// On the panic worker. The lock stands for one fade at a time and is only tried: a
// second panic during the fade finds it taken and cuts the cue at once.
void AudioCue::_panic(double duration) {
  KyoClock& clock = KyoCurrentClock();
  std::shared_ptr<AudioCue> self = shared_from_this();
  if (duration > 0.0 && m_panicLock.try_lock()) {
    storeDoPanicFromWorker(true);
    const double start = clock.monotonicSeconds();
    if (m_audioSource) m_audioSource->fadeToMasterVolume(0.0f, duration);
    while (m_doPanic.load() && clock.monotonicSeconds() - start < duration) {
      clock.sleepUntil(clock.monotonicSeconds() + kPanicStep);
    }
    // A stop or hard stop during the fade has cleared the flag: nothing more to do.
    if (m_doPanic.load()) clock.runOnMain([self] { self->stop(); }, true);
    m_panicLock.unlock();
  } else {
    clock.runOnMain([self] { self->hardStop(); }, true);
  }
}

// --- Progress ---

void AudioCue::startProgressTimer() {
  // One timer per cue: a resume replaces the one it finds.
  stopProgressTimer();
  m_progressTimer = KyoCurrentClock().startTimer(kProgressInterval, true, [this] { updateProgress(); });
}

void AudioCue::stopProgressTimer() {
  if (!m_progressTimer) return;
  KyoCurrentClock().stopTimer(m_progressTimer);
  m_progressTimer = 0;
}

void AudioCue::updateProgress() {
  float progress = 1.0f;
  if (m_audioSource) {
    const double length = m_audioSource->audioLengthInSeconds();
    // No length (a broken or empty file) counts as the end.
    if (length > 0.0) progress = static_cast<float>(std::min(1.0, m_audioSource->elapsedLogicalTime() / length));
  }
  setProgress(progress);
  // A loop's end is no end: a tick that falls exactly on it would stop the cue.
  const bool atEnd = progress == 1.0f && !m_loops;
  if (atEnd || !m_audioSource || m_audioSource->isFinished()) audioFinished();
}

void AudioCue::audioFinished() {
  // The timer runs on through a pause, with the source stopped: that is no end.
  if (!paused()) stop();
}

// --- Status ---

bool AudioCue::isPlaying() const { return m_audioSource && m_audioSource->isPlaying(); }
bool AudioCue::isLoaded() const { return m_audioSource && m_audioSource->isValid(); }
double AudioCue::elapsedTime() const { return m_audioSource ? m_audioSource->elapsedLogicalTime() : 0.0; }
double AudioCue::remainingTime() const {
  return m_audioSource ? m_audioSource->audioLengthInSeconds() - elapsedTime() : 0.0;
}

// --- Ducking of the cue itself (nothing calls it; the workspace ducks the master) ---

void AudioCue::duck() {
  if (m_audioSource) m_audioSource->fadeToMasterVolume(kDuckVolume, kDuckSeconds);
  setVolumeValue(kDuckVolume);
}

void AudioCue::unduck() {
  if (m_audioSource) m_audioSource->fadeToMasterVolume(1.0f, kDuckSeconds);
  setVolumeValue(1.0f);
}

// --- Live edits ---

void AudioCue::setVolume(float volume) {
  setVolumeValue(volume);
  if (m_audioSource) m_audioSource->setMasterVolume(volume);
}

void AudioCue::setLoops(bool loops) {
  if (loops == m_loops) return;
  const bool wasPlaying = isPlaying();
  const double time = elapsedTime();
  setLoopsValue(loops);
  updateSlices();
  if (wasPlaying) {
    m_audioSource->goToTime(time);
    play();
  }
}

void AudioCue::setStartTime(double seconds) {
  const double old = m_startTime;
  const double sourceStart = m_audioSource ? m_audioSource->startTime() : old;
  if (std::fabs(seconds - old) < kTimeTolerance && std::fabs(seconds - sourceStart) < kTimeTolerance) return;
  KYO_LOG_AT(3, "   start %s at time %g", description().c_str(), seconds);
  const bool wasRunning = isRunning();
  pause();
  seconds = std::max(std::min(seconds, m_endTime), 0.0);
  // Keeps the place in the file: the slice now starts earlier or later by the change.
  // The place is the logical one, within the present round of a loop.
  const double position = old - seconds + elapsedTime();
  setStartTimeValue(seconds);
  updateSlices();
  if (m_audioSource) m_audioSource->goToTime(position);
  if (wasRunning) resume();
}

void AudioCue::setEndTime(double seconds) {
  const double sourceEnd = m_audioSource ? m_audioSource->endTime() : m_endTime;
  if (std::fabs(seconds - m_endTime) < kTimeTolerance && std::fabs(seconds - sourceEnd) < kTimeTolerance) return;
  const bool wasPlaying = isPlaying();
  const double time = elapsedTime();
  seconds = std::max(seconds, m_startTime);
  // A source without its file keeps what it was given, so times survive a lost file.
  if (m_audioSource && m_audioSource->isValid() && seconds > m_audioSource->fileLengthInSeconds()) {
    seconds = m_audioSource->fileLengthInSeconds();
  }
  pause();
  setEndTimeValue(seconds);
  updateSlices();
  if (m_audioSource) m_audioSource->goToTime(time);
  if (wasPlaying) resume();
}

void AudioCue::loadActionAt(double seconds) {
  KYO_LOG_AT(3, "   load %s to time %g", description().c_str(), seconds);
  if (m_audioSource) m_audioSource->goToTime(seconds);
}

void AudioCue::setMonoCrosspoint() {
  if (m_audioSource && m_audioSource->fileChannels() == 1) m_audioSource->setCrosspointVolume(1.0f, 0, 1);
}

void AudioCue::setAudioDevice(std::shared_ptr<KyoAudioDevice> device) {
  // Each workspace has a device object of its own, even on the same hardware, and a
  // closed object never sounds again: the object counts, not the hardware.
  if (device == m_audioDevice && (!m_audioSource || m_audioSource->sharedDevice() == device)) return;
  m_audioDevice = std::move(device);
  const bool wasPlaying = isPlaying();
  const double time = elapsedTime();
  if (m_audioSource) {
    m_audioSource->setDevice(m_audioDevice);
    m_audioSource->setDefaultVolumes();
    m_audioSource->setMasterVolume(m_volume);
    setMonoCrosspoint();
  }
  updateSlices();
  if (wasPlaying && m_audioSource) {
    m_audioSource->goToTime(time);
    play();
  }
  emit audioDeviceChanged();
}

void AudioCue::setDeviceChannel(long channel) {
  setDeviceChannelValue(channel);
  Workspace::routeOutputs(m_audioDevice.get(), m_deviceChannel);
}

// --- Effects: a rebuilt chain starts from the top, so the place is put back ---

void AudioCue::addEffect(const std::shared_ptr<KyoEffect>& effect) {
  if (!effect) return;
  const bool wasPlaying = isPlaying();
  const double time = elapsedTime();
  m_effects->push_back(effect);
  emit effectsChanged();
  if (!m_audioSource) return;
  m_audioSource->addEffect(effect);
  if (wasPlaying) m_audioSource->goToTime(time);
}

void AudioCue::removeEffect(const std::shared_ptr<KyoEffect>& effect) {
  auto it = std::find(m_effects->begin(), m_effects->end(), effect);
  if (it == m_effects->end()) return;
  const bool wasPlaying = isPlaying();
  const double time = elapsedTime();
  m_effects->erase(it);
  emit effectsChanged();
  if (!m_audioSource) return;
  m_audioSource->removeEffect(effect);
  if (wasPlaying) m_audioSource->goToTime(time);
}

void AudioCue::moveEffectAtIndex(size_t from, size_t to) {
  if (from >= m_effects->size() || to >= m_effects->size()) {
    KyoLog("Cannot move effect %zu to %zu of %zu.", from, to, m_effects->size());
    return;
  }
  std::shared_ptr<KyoEffect> effect = (*m_effects)[from];
  m_effects->erase(m_effects->begin() + static_cast<long>(from));
  m_effects->insert(m_effects->begin() + static_cast<long>(to), std::move(effect));
  emit effectsChanged();
  updateEffects();
}

void AudioCue::setEffectEnabled(const std::shared_ptr<KyoEffect>& effect, bool enabled) {
  if (std::find(m_effects->begin(), m_effects->end(), effect) == m_effects->end()) return;
  effect->setEnabled(enabled);
  emit effectsChanged();
}

void AudioCue::updateEffects() {
  const bool wasPlaying = isPlaying();
  const double time = elapsedTime();
  for (const auto& effect : *m_effects) effect->saveState();
  if (!m_audioSource) return;
  m_audioSource->setEffects({});
  m_audioSource->setEffects(*m_effects);
  if (wasPlaying) m_audioSource->goToTime(time);
}

void AudioCue::closeEffectEditors() {
  for (const auto& effect : *m_effects) effect->closeEditor();
}
