#include "effects/KyoAudioSource.h"

#include <cmath>

#include "audio/KyoAudioComponentDescription.h"
#include "audio/KyoAudioFile.h"
#include "audio/KyoMatrixMixer.h"
#include "effects/KyoAudioSend.h"
#include "effects/KyoEffect.h"
#include "effects/KyoEffectBus.h"
#include "foundation/KyoLog.h"

namespace {
constexpr double kFadeStepSeconds = 0.01;
}

// --- Life ---

std::shared_ptr<KyoAudioSource> KyoAudioSource::create() {
  std::shared_ptr<KyoAudioSource> source(new KyoAudioSource());
  source->m_stream = std::make_unique<KyoStream>();
  source->m_mixer = KyoEffect::effectWithDescription(KyoAudioComponentDescription::appleMatrixMixer());
  source->m_effectBus = std::make_shared<KyoEffectBus>();
  if (!source->m_mixer || !source->m_stream->create()) {
    KyoLog("Error: KyoAudioSource could not create a stream.");
    return nullptr;
  }
  source->m_mixer->registerRenderInfo(&source->m_mixerRenderInfo);
  source->_registerFinalRenderInfo(&source->m_finalRenderInfo);
  // The send's format may have changed: rebuild if it is this source's send.
  std::weak_ptr<KyoAudioSource> weak = source;
  source->m_sendObserver = KyoScopedObserver(
      KyoNotificationCenter::defaultCenter(), kKyoAudioSendDidUpdateStreamNotification,
      [weak](const KyoNotification& notification) {
        std::shared_ptr<KyoAudioSource> self = weak.lock();
        if (self && self->m_send && notification.sender == self->m_send.get()) self->_updateStream();
      });
  return source;
}

KyoAudioSource::~KyoAudioSource() {
  m_sendObserver.reset();
  m_validStream.store(false);
  stopCleanupTimer();
  if (m_device) {
    // The device holds its attached objects, so nothing renders this one any more.
    m_device->_detachAudio(this);
    m_device->disengage();
  }
  std::shared_ptr<KyoAudioMetaBuffer> oldBuffer;
  {
    KyoMutexLocker lock(m_renderMutex);
    std::lock_guard<std::mutex> levels(m_levelsMutex);
    oldBuffer = std::move(m_buffer);
    m_readInfo = {};
    if (m_stream) {
      m_stream->uninitialize();
      if (m_mixer) m_stream->removeEffect(m_mixer.get());
      // The effects belong to the cue as well: they must not keep a pointer to this stream.
      if (m_effectBus) m_effectBus->removeEffectsFromStream(m_stream.get());
      m_stream->close();
      m_stream->destroy();
    }
  }
  if (oldBuffer) oldBuffer->killWorker();
}

// --- Settings ---

void KyoAudioSource::setAlias(std::shared_ptr<KyoAlias> alias) {
  if (alias == m_alias) return;
  m_alias = std::move(alias);
  _updateStream();
}

void KyoAudioSource::setDevice(std::shared_ptr<KyoAudioDevice> device) {
  if (device == m_device) return;
  stopAndDetach();
  if (m_device) m_device->disengage();
  m_device = std::move(device);
  if (m_device) m_device->engage();
  _updateStream();
}

std::shared_ptr<KyoAudioSending> KyoAudioSource::send() const { return m_send; }

void KyoAudioSource::setSend(std::shared_ptr<KyoAudioSend> send) {
  if (send == m_send) return;
  stopAndDetach();
  m_send = std::move(send);
  _updateStream();
}

std::vector<std::shared_ptr<KyoEffect>> KyoAudioSource::effects() const { return m_effectBus->effects(); }

void KyoAudioSource::setEffects(const std::vector<std::shared_ptr<KyoEffect>>& effects) {
  m_effectBus->setEffects(effects);
  _updateStream();
}

void KyoAudioSource::addEffect(const std::shared_ptr<KyoEffect>& effect) {
  if (!effect || m_effectBus->containsEffect(effect)) return;
  m_effectBus->addEffect(effect);
  _updateStream();
}

void KyoAudioSource::removeEffect(const std::shared_ptr<KyoEffect>& effect) {
  if (!effect || !m_effectBus->containsEffect(effect)) return;
  m_effectBus->removeEffect(effect);
  _updateStream();
}

// The rebuild. Main thread. The formats and the new slice player (which opens the
// file and starts filling) are made before the render path is shut out, and the old
// player, whose fill threads may be inside a disk read, is killed after it is let in
// again: a render that slipped past the flag waits for graph work only, never the disk.
void KyoAudioSource::_updateStream() {
  std::optional<KyoAudioStreamDescription> fileFormat;
  if (m_alias) fileFormat = KyoAudioFile::fileFormatForAlias(m_alias);
  std::optional<KyoAudioStreamDescription> inFeed = m_device ? m_device->_inFeedFormat() : std::nullopt;
  // What the bus that this source feeds takes: the send's or the device's.
  std::optional<KyoAudioStreamDescription> target =
      m_send ? m_send->inputFormat() : m_device ? m_device->_outFeedFormat() : std::nullopt;
  // A cue whose file is missing stays silent rather than playing the live input.
  const std::optional<KyoAudioStreamDescription>& feed = m_alias ? fileFormat : inFeed;
  const bool canBuild = m_device && feed && target && feed->channels() > 0;
  // Asked here: the device's locks come before this source's, never inside them.
  const uint32_t maximumFrames = m_device ? m_device->_maximumFramesPerSlice() : 0;

  std::optional<KyoAudioStreamDescription> newFormat;
  std::shared_ptr<KyoAudioMetaBuffer> newBuffer;
  if (canBuild) {
    // Rate and sample format follow the device; the reader converts the file to them.
    newFormat = *target;
    newFormat->setChannels(feed->channels());
    if (m_alias) {
      std::vector<KyoSliceDescription> keptSlices = m_buffer ? m_buffer->slices() : std::vector<KyoSliceDescription>{};
      newBuffer = KyoAudioMetaBuffer::create(m_alias, newFormat);
      // The position isn't carried over: the new player starts at the head of its playlist.
      if (newBuffer && !keptSlices.empty()) {
        newBuffer->setSlices(keptSlices);
        newBuffer->goToTime(0.0);
      }
    }
  }

  std::shared_ptr<KyoAudioMetaBuffer> oldBuffer;
  m_validStream.store(false);
  {
    KyoMutexLocker lock(m_renderMutex);
    std::lock_guard<std::mutex> levelsLock(m_levelsMutex);

    // The mixer's only state is its level matrix, which is kept by hand below, since
    // its shape may change; the effects keep their whole state across.
    m_effectBus->saveState();
    std::vector<float> levels;
    const uint32_t oldIn = m_mixerInChannels, oldOut = m_mixerOutChannels;
    if (KyoAudioUnit* unit = m_mixer->audioUnit(); unit && unit->isInitialized()) {
      uint32_t dimensions[2] = {0, 0};
      uint32_t size = sizeof dimensions;
      if (unit->getProperty(kKyoAudioUnitProperty_MatrixDimensions, kKyoAudioUnitScope_Global, 0, dimensions,
                            &size) == 0) {
        levels.resize(size_t(dimensions[0] + 1) * (dimensions[1] + 1));
        size = uint32_t(levels.size() * sizeof(float));
        if (unit->getProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(),
                              &size) != 0) {
          levels.clear();
        }
      }
    }

    m_stream->uninitialize();
    m_stream->removeEffect(m_mixer.get());
    m_effectBus->removeEffectsFromStream(m_stream.get());
    m_stream->close();

    m_streamFormat.reset();
    m_fileChannels = 0;
    m_mixerInChannels = 0;
    m_mixerOutChannels = 0;
    oldBuffer = std::move(m_buffer);
    m_readInfo = {};
    if (fileFormat) m_fileChannels = fileFormat->channels();

    bool built = canBuild && (!m_alias || newBuffer);
    if (built) {
      built = m_stream->addEffect(m_mixer.get());
      m_effectBus->addEffectsToStream(m_stream.get());
      built = built && m_stream->open();
    }
    if (built) {
      m_streamFormat = newFormat;
      m_mixerInChannels = newFormat->channels();
      m_mixerOutChannels = target->channels();

      m_mixer->setInputBusCount(1);
      m_mixer->setOutputBusCount(1);
      m_mixer->setInputStreamFormat(*m_streamFormat);
      m_mixer->setOutputStreamFormat(*target);
      if (KyoAudioUnit* unit = m_mixer->audioUnit()) {
        const uint32_t metering = 1;
        unit->setProperty(kKyoAudioUnitProperty_MeteringMode, kKyoAudioUnitScope_Global, 0, &metering,
                          sizeof metering);
        if (maximumFrames > 0) unit->setMaximumFramesPerSlice(maximumFrames);
      }

      m_effectBus->setFormat(*m_streamFormat);
      m_effectBus->restoreState();
      m_effectBus->setProperties();

      KyoError error;
      built = m_stream->initialize(&error);
    }
    if (built) {
      // The head of the chain is where audio enters: the last effect in use, or the mixer.
      KyoEffect* head = m_effectBus->lastUsedEffect().get();
      if (head) m_effectBus->connectEffectsToEffect(m_mixer.get());
      built = (head ? head : m_mixer.get())->setRenderCallback(m_finalRenderInfo);
      m_effectBus->setParameters();

      if (!levels.empty() && oldIn == m_mixerInChannels && oldOut == m_mixerOutChannels) {
        if (KyoAudioUnit* unit = m_mixer->audioUnit()) {
          unit->setProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(),
                            uint32_t(levels.size() * sizeof(float)));
        }
      }

      if (m_alias) {
        m_buffer = newBuffer;
        m_buffer->registerReadFramesInfo(&m_readInfo);
      } else {
        m_device->registerReadFramesInfo(&m_readInfo);
      }
    }
    if (built) {
      m_validStream.store(true);
    } else {
      m_streamFormat.reset();
      m_mixerInChannels = 0;
      m_mixerOutChannels = 0;
    }
  }
  if (oldBuffer) oldBuffer->killWorker();
  if (newBuffer && newBuffer != m_buffer) newBuffer->killWorker();
}

// --- Transport ---

void KyoAudioSource::startCleanupTimer() {
  std::weak_ptr<KyoAudioSource> weak = weak_from_this();
  m_cleanupTimer = KyoCurrentClock().startTimer(kCleanupIntervalSeconds, true, [weak] {
    if (std::shared_ptr<KyoAudioSource> source = weak.lock()) source->_detachIfFinished();
  });
}

// Before the device or send changes: a source on its way to a bus, or on one, stops
// and leaves it, while the device and send are still the old ones.
void KyoAudioSource::stopAndDetach() {
  if (!m_cleanupTimer) return;
  stop();
  stopCleanupTimer();
  if (m_device) m_device->_detachAudio(this);
}

void KyoAudioSource::stopCleanupTimer() {
  if (!m_cleanupTimer) return;
  KyoCurrentClock().stopTimer(*m_cleanupTimer);
  m_cleanupTimer.reset();
}

void KyoAudioSource::play() {
  if (!m_device) {
    KyoLog("Error: could not play %s; no audio device", description().c_str());
    return;
  }
  if (!m_validStream.load()) {
    if (!m_alias && !m_device->enableInput()) {
      KyoLog("Warning: you tried to play an KyoAudioSource with no file and a device without inputs enabled.");
    }
    KyoLog("Error: could not play %s; no valid stream", description().c_str());
    return;
  }
  if (isPlaying()) return;
  m_timeWeWereStopped.store(0.0);
  stopCleanupTimer();
  if (!m_device->_attachAudio(shared_from_this())) return;
  startCleanupTimer();
  m_device->performAction<&KyoAudioSource::_play>(this);
}

void KyoAudioSource::stop() {
  if (m_device) m_device->performAction<&KyoAudioSource::_stop>(this);
}

void KyoAudioSource::hardStop() {
  if (m_device) m_device->performAction<&KyoAudioSource::_hardStop>(this);
}

void KyoAudioSource::devamp() {
  if (m_device) m_device->performAction<&KyoAudioSource::_devamp>(this);
}

void KyoAudioSource::goToTime(double seconds) {
  if (m_buffer) m_buffer->goToTime(seconds);
}

void KyoAudioSource::_play() { m_runState.store(kPlayingBit); }

void KyoAudioSource::_stop() {
  m_runState.fetch_and(~kPlayingBit);
  m_timeWeWereStopped.store(KyoWallClockSeconds());
}

void KyoAudioSource::_hardStop() {
  m_runState.store(kHardStoppedBit);
  m_timeWeWereStopped.store(KyoWallClockSeconds());
}

// May run on the render thread. During a rebuild it is dropped: the new player
// starts from its slices anyway.
void KyoAudioSource::_devamp() {
  if (!m_renderMutex.tryLock()) return;
  if (m_validStream.load() && m_buffer) m_buffer->devamp();
  m_renderMutex.unlock();
}

bool KyoAudioSource::wasStopped() const {
  const uint32_t state = m_runState.load();
  if (state & kHardStoppedBit) return true;
  return !(state & kPlayingBit) && m_timeWeWereStopped.load() > 0.0;
}

bool KyoAudioSource::isFinished() const {
  if (m_runState.load() & kHardStoppedBit) return true;
  const double now = KyoWallClockSeconds();
  const double tail = tailTime();
  if (wasStopped() && now > m_timeWeWereStopped.load() + tail) return true;
  if (m_buffer && m_buffer->isFinished() && now > m_buffer->approximateTimeOfFinish() + tail) return true;
  return false;
}

void KyoAudioSource::_detachIfFinished() {
  if (!isFinished()) return;
  m_runState.fetch_and(~kPlayingBit);
  if (m_device) m_device->_detachAudio(this);
  stopCleanupTimer();
  KyoAudioSourceDelegate* delegate = m_delegate.load();
  if (!delegate) return;
  KyoClock& clock = KyoCurrentClock();
  if (clock.isMainThread()) {
    delegate->audioSourceDidFinish(this);
  } else {
    std::shared_ptr<KyoAudioSource> self = shared_from_this();
    clock.runOnMain([self, delegate] { delegate->audioSourceDidFinish(self.get()); }, false);
  }
}

// --- Information ---

std::vector<KyoSliceDescription> KyoAudioSource::slices() const {
  return m_buffer ? m_buffer->slices() : std::vector<KyoSliceDescription>{};
}

void KyoAudioSource::setSlices(const std::vector<KyoSliceDescription>& slices) {
  if (m_buffer) m_buffer->setSlices(slices);
}

double KyoAudioSource::tailTime() const { return m_effectBus->tailTime(); }

uint32_t KyoAudioSource::micChannels() const {
  return !m_alias && m_device ? m_device->inputChannels() : 0;
}

double KyoAudioSource::fileLengthInSeconds() const { return m_buffer ? m_buffer->fileLengthInSeconds() : 0; }
double KyoAudioSource::currentFileTime() const { return m_buffer ? m_buffer->currentFileTime() : 0; }
double KyoAudioSource::startTime() const { return m_buffer ? m_buffer->startTime() : 0; }
double KyoAudioSource::endTime() const { return m_buffer ? m_buffer->endTime() : 0; }
double KyoAudioSource::audioLengthInSeconds() const { return m_buffer ? m_buffer->audioLengthInSeconds() : 0.0; }
double KyoAudioSource::elapsedPlayTime() const { return m_buffer ? m_buffer->elapsedPlayTime() : 0.0; }
double KyoAudioSource::elapsedLogicalTime() const {
  if (!m_alias) return elapsedPlayTime();
  return m_buffer ? m_buffer->elapsedLogicalTime() : 0.0;
}
double KyoAudioSource::timeUntilLoop() const { return m_buffer ? m_buffer->timeUntilLoop() : -1.0; }

// --- Volumes ---

void KyoAudioSource::setMixerValue(float value, uint32_t parameter, KyoAudioUnitScope scope, uint32_t element) {
  m_mixer->setValue(value, parameter, scope, element);
}

float KyoAudioSource::mixerValue(uint32_t parameter, KyoAudioUnitScope scope, uint32_t element) const {
  return m_mixer->valueForParameter(parameter, scope, element);
}

float KyoAudioSource::masterVolume() const {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load()) return 0.0f;
  return mixerValue(KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement);
}

void KyoAudioSource::setMasterVolume(float volume) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load()) return;
  setMixerValue(volume, KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement);
}

void KyoAudioSource::setInputVolume(float volume, uint32_t channel) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load() || !_validInputChannel(channel)) return;
  setMixerValue(volume, KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Input, channel);
}

void KyoAudioSource::setOutputVolume(float volume, uint32_t channel) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load() || !_validOutputChannel(channel)) return;
  setMixerValue(volume, KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Output, channel);
}

void KyoAudioSource::setCrosspointVolume(float volume, uint32_t input, uint32_t output) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load() || !_validInputChannel(input) || !_validOutputChannel(output)) return;
  setMixerValue(volume, KyoMatrixMixer::kParameterVolume, kKyoAudioUnitScope_Global,
                KyoMatrixMixer::crosspointElement(input, output));
}

void KyoAudioSource::setVolume(float volume, uint32_t row, uint32_t column) {
  if (row == 0 && column == 0) {
    setMasterVolume(volume);
  } else if (row == 0) {
    setOutputVolume(volume, column - 1);
  } else if (column == 0) {
    setInputVolume(volume, row - 1);
  } else {
    setCrosspointVolume(volume, row - 1, column - 1);
  }
}

// The column counts from 0 among the aux channels, which lie behind the main
// channels of the matrix.
void KyoAudioSource::setAuxVolume(float volume, uint32_t row, uint32_t column) {
  if (!m_send) {
    KyoLog("Error: setAuxVolume: KyoAudioSource has no send.");
    return;
  }
  setVolume(volume, row, column + m_send->splitMixerInChannels() + 1 - m_send->auxChannels());
}

void KyoAudioSource::setSilentVolumes() {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load()) return;
  const auto volume = KyoMatrixMixer::kParameterVolume;
  setMixerValue(0.0f, volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement);
  for (uint32_t out = 0; out < m_mixerOutChannels; ++out) setMixerValue(0.0f, volume, kKyoAudioUnitScope_Output, out);
  for (uint32_t in = 0; in < m_mixerInChannels; ++in) {
    setMixerValue(0.0f, volume, kKyoAudioUnitScope_Input, in);
    for (uint32_t out = 0; out < m_mixerOutChannels; ++out) {
      setMixerValue(0.0f, volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(in, out));
    }
  }
}

// Leaves the rest of the matrix alone, so a cue's own routing adds to the diagonal.
void KyoAudioSource::setDefaultVolumes() {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load()) {
    KyoLog("Warning: KyoAudioSource could not set default volumes because there was no valid stream.");
    return;
  }
  const auto volume = KyoMatrixMixer::kParameterVolume;
  setMixerValue(1.0f, volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement);
  for (uint32_t out = 0; out < m_mixerOutChannels; ++out) setMixerValue(1.0f, volume, kKyoAudioUnitScope_Output, out);
  for (uint32_t in = 0; in < m_mixerInChannels; ++in) setMixerValue(1.0f, volume, kKyoAudioUnitScope_Input, in);
  for (uint32_t i = 0; i < m_mixerInChannels && i < m_mixerOutChannels; ++i) {
    setMixerValue(1.0f, volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(i, i));
  }
}

float KyoAudioSource::_computeFadeWithStartVolume(float startVolume, float endVolume, double duration,
                                                  double elapsed) {
  // The loop keeps elapsed below the duration, so it isn't clamped here.
  if (!(duration > 0.0)) return endVolume;
  const double f = std::cos(elapsed / duration * M_PI) * 0.5 + 0.5;
  return float(endVolume + (startVolume - endVolume) * f);
}

void KyoAudioSource::fadeToMasterVolume(float volume, double seconds) {
  // Taking a new number is what cancels the fade before.
  m_fadeIndex.fetch_add(1);
  std::shared_ptr<KyoAudioSource> self = shared_from_this();
  KyoCurrentClock().detachThread([self, volume, seconds] { self->_fade(seconds, volume); });
}

// On the fade's own worker, paced by the installed clock. A source that stops drops
// its fade without the final write.
void KyoAudioSource::_fade(double duration, float finalVolume) {
  KyoClock& clock = KyoCurrentClock();
  const float startVolume = masterVolume();
  const int32_t index = m_fadeIndex.load();
  const double start = clock.monotonicSeconds();
  while (isPlaying()) {
    const double elapsed = clock.monotonicSeconds() - start;
    if (!(elapsed < duration) || m_fadeIndex.load() != index) break;
    setMasterVolume(_computeFadeWithStartVolume(startVolume, finalVolume, duration, elapsed));
    clock.sleepUntil(clock.monotonicSeconds() + kFadeStepSeconds);
  }
  if (isPlaying() && m_fadeIndex.load() == index) setMasterVolume(finalVolume);
}

// --- Meters ---

float KyoAudioSource::outPostAveragePowerAtChannel(uint32_t channel) const {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load() || !_validOutputChannel(channel)) return KyoMatrixMixer::kMeterFloorDecibels;
  return mixerValue(KyoMatrixMixer::kParameterPostAveragePower, kKyoAudioUnitScope_Output, channel);
}

float KyoAudioSource::outPostPeakHoldLevelAtChannel(uint32_t channel) const {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!m_validStream.load() || !_validOutputChannel(channel)) return KyoMatrixMixer::kMeterFloorDecibels;
  return mixerValue(KyoMatrixMixer::kParameterPostPeakHoldLevel, kKyoAudioUnitScope_Output, channel);
}

float KyoAudioSource::outPostAveragePowerAtAuxChannel(uint32_t channel) const {
  if (!m_send) return 0.0f;
  return outPostAveragePowerAtChannel(channel + m_send->splitMixerInChannels() - m_send->auxChannels());
}

float KyoAudioSource::outPostPeakHoldLevelAtAuxChannel(uint32_t channel) const {
  if (!m_send) return 0.0f;
  return outPostPeakHoldLevelAtChannel(channel + m_send->splitMixerInChannels() - m_send->auxChannels());
}

std::string KyoAudioSource::description() const {
  if (!m_alias && !m_device) return "[empty audio source]";
  const std::string what = m_alias ? m_alias->description() : m_device->description();
  const std::string where = m_device ? m_device->description() : std::string("(null)");
  if (m_send) return "[" + what + " played to " + where + " through " + m_send->description() + "]";
  return "[" + what + " played to " + where + "]";
}

// --- Rendering ---

namespace {
void silence(uint32_t* ioActionFlags, uint32_t frames, AudioBufferList* ioData) {
  if (ioActionFlags && (*ioActionFlags & kKyoRenderAction_MarkSilentChannels)) {
    for (uint32_t c = 0; c < ioData->mNumberBuffers; ++c) KyoMarkChannelSilent(ioData->mBuffers[c]);
    *ioActionFlags |= kKyoRenderAction_OutputIsSilence;
    return;
  }
  KyoAudioBufferListSilence(ioData, 0, frames);
}
}  // namespace

// Render thread, from the device's bus, inside the device's render mutex.
int32_t KyoAudioSource::render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t,
                               uint32_t frames, AudioBufferList* ioData) {
  if (m_validStream.load(std::memory_order_acquire) && !(m_runState.load(std::memory_order_relaxed) & kHardStoppedBit)) {
    m_renderMutex.lock();
    // A rebuild that began after the first look has cleared the flag by now.
    if (!m_validStream.load(std::memory_order_acquire)) {
      m_renderMutex.unlock();
      silence(ioActionFlags, frames, ioData);
      return 0;
    }
    const int32_t status = m_mixerRenderInfo.call(ioActionFlags, timeStamp, 0, frames, ioData);
    if (status != 0) KYO_LOG_STATUS(status);
    m_renderMutex.unlock();
    return status;
  }
  silence(ioActionFlags, frames, ioData);
  return 0;
}

void KyoAudioSource::_registerFinalRenderInfo(KyoRenderInfo* info) {
  KyoRegisterRenderEntry<&KyoAudioSource::_finalRender>(this, info,
                                                        "_finalRender:timeStamp:busNumber:numberFrames:data:");
}

// Render thread, at the head of the chain, always inside render() and so under
// m_renderMutex. Stopped but not hard-stopped, silence enters so the effects ring out.
int32_t KyoAudioSource::_finalRender(uint32_t*, const KyoAudioTimeStamp*, uint32_t, uint32_t frames,
                                     AudioBufferList* ioData) {
  const uint32_t state = m_runState.load(std::memory_order_relaxed);
  if ((state & kPlayingBit) && !(state & kHardStoppedBit) && m_readInfo.method) {
    // The reader fills what it hasn't got with silence.
    m_readInfo.method(m_readInfo.target, frames, ioData, 0);
    return 0;
  }
  KyoAudioBufferListSilence(ioData, 0, frames);
  return 0;
}
