#include "effects/KyoAudioSend.h"

#include <algorithm>

#include "audio/KyoAudioComponentDescription.h"
#include "audio/KyoMatrixMixer.h"
#include "effects/KyoEffect.h"
#include "effects/KyoEffectBus.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"

// --- Life ---

std::shared_ptr<KyoAudioSend> KyoAudioSend::create() {
  std::shared_ptr<KyoAudioSend> send(new KyoAudioSend());
  send->m_stream = std::make_unique<KyoStream>();
  send->m_splitMixer = KyoEffect::effectWithDescription(KyoAudioComponentDescription::appleMatrixMixer());
  send->m_mergeMixer = KyoEffect::effectWithDescription(KyoAudioComponentDescription::appleMatrixMixer());
  if (!send->m_splitMixer || !send->m_mergeMixer || !send->m_stream->create()) {
    KyoLog("Error: KyoAudioSend could not create a stream.");
    return nullptr;
  }
  send->m_mergeMixer->registerRenderInfo(&send->m_mergeMixerRenderInfo);
  send->_registerFinalRenderInfo(&send->m_finalRenderInfo);
  return send;
}

// The device holds an attached send, so nothing renders this one any more.
KyoAudioSend::~KyoAudioSend() {
  m_validStream.store(false);
  std::vector<std::shared_ptr<KyoAudioAttachable>> released;
  {
    KyoMutexLocker lock(m_renderMutex);
    std::lock_guard<std::mutex> levels(m_levelsMutex);
    if (m_stream) {
      tearDownLocked();
      m_stream->destroy();
    }
    released = m_busses.releaseAll();
  }
  released.clear();
  if (m_device) m_device->disengage();
}

// --- Settings ---

void KyoAudioSend::setDevice(std::shared_ptr<KyoAudioDevice> device) {
  if (device == m_device) return;
  if (m_device) {
    m_device->_detachAudio(this);
    m_device->disengage();
  }
  m_device = std::move(device);
  if (m_device) m_device->engage();
  updateStream();
}

void KyoAudioSend::addEffectBus(const std::shared_ptr<KyoEffectBus>& bus) {
  if (!bus || std::find(m_effectBusses.begin(), m_effectBusses.end(), bus) != m_effectBusses.end()) return;
  m_effectBusses.push_back(bus);
  updateStream();
}

void KyoAudioSend::removeEffectBus(const std::shared_ptr<KyoEffectBus>& bus) {
  auto found = std::find(m_effectBusses.begin(), m_effectBusses.end(), bus);
  if (!bus || found == m_effectBusses.end()) return;
  m_deadBusses.push_back(bus);
  m_effectBusses.erase(found);
  updateStream();
}

void KyoAudioSend::removeAllEffectBusses() {
  m_deadBusses.insert(m_deadBusses.end(), m_effectBusses.begin(), m_effectBusses.end());
  m_effectBusses.clear();
  updateStream();
}

std::shared_ptr<KyoEffectBus> KyoAudioSend::busAtChannel(uint32_t channel) const {
  if (channel == 0) return nullptr;
  uint32_t remainder = channel;
  for (const auto& bus : m_effectBusses) {
    if (remainder <= bus->channels()) return bus;
    remainder -= bus->channels();
  }
  return nullptr;
}

// --- The rebuild ---

// Main thread. The device is asked before the send's mutex is taken, since its locks
// come first. The sources that play through the send rebuild after the mutex is let
// go, for the same reason, while the send still answers silence: it becomes valid
// once all of them feed its new format.
void KyoAudioSend::updateStream() {
  const std::optional<KyoAudioStreamDescription> deviceFormat = m_device ? m_device->_outFeedFormat() : std::nullopt;
  const uint32_t maximumFrames = m_device ? m_device->_maximumFramesPerSlice() : 0;
  m_validStream.store(false);
  bool built;
  {
    KyoMutexLocker lock(m_renderMutex);
    std::lock_guard<std::mutex> levels(m_levelsMutex);
    built = rebuildLocked(deviceFormat, maximumFrames);
  }
  if (!built) return;
  KyoNotificationCenter::defaultCenter().postNotification(kKyoAudioSendDidUpdateStreamNotification, this);
  m_validStream.store(true);
}

// Both mutexes held: takes every unit off the stream.
void KyoAudioSend::tearDownLocked() {
  for (const auto& bus : m_effectBusses) bus->saveState();
  m_stream->uninitialize();
  m_stream->removeEffect(m_splitMixer.get());
  m_stream->removeEffect(m_mergeMixer.get());
  for (const auto& bus : m_effectBusses) bus->removeEffectsFromStream(m_stream.get());
  for (const auto& bus : m_deadBusses) bus->removeEffectsFromStream(m_stream.get());
  m_deadBusses.clear();
  m_stream->close();
}

bool KyoAudioSend::rebuildLocked(const std::optional<KyoAudioStreamDescription>& deviceFormat, uint32_t maximumFrames) {
  tearDownLocked();
  m_auxChannels.store(0);
  m_splitMixerInChannels.store(0);
  m_inputFormat.reset();
  if (!m_device || !deviceFormat) return false;

  KyoEffect* split = m_splitMixer.get();
  KyoEffect* merge = m_mergeMixer.get();
  bool built = m_stream->addEffect(split) && m_stream->addEffect(merge);
  for (const auto& bus : m_effectBusses) bus->addEffectsToStream(m_stream.get());
  if (!built || !m_stream->open()) return false;

  uint32_t auxChannels = 0;
  for (const auto& bus : m_effectBusses) auxChannels += bus->channels();
  const uint32_t inChannels = deviceFormat->channels() + auxChannels;
  m_auxChannels.store(auxChannels);
  m_splitMixerInChannels.store(inChannels);
  KyoAudioStreamDescription input = *deviceFormat;
  input.setChannels(inChannels);
  auto withChannels = [&](uint32_t channels) {
    KyoAudioStreamDescription format = *deviceFormat;
    format.setChannels(channels);
    return format;
  };
  const uint32_t n = uint32_t(m_effectBusses.size());

  split->setInputBusCount(kKyoBusCount);
  split->setOutputBusCount(n + 1);
  for (uint32_t bus = 0; bus < kKyoBusCount; ++bus) split->setInputStreamFormat(input, bus);
  split->setOutputStreamFormat(*deviceFormat);
  merge->setInputBusCount(n + 1);
  merge->setOutputBusCount(1);
  merge->setInputStreamFormat(*deviceFormat);
  merge->setOutputStreamFormat(*deviceFormat);
  for (uint32_t i = 1; i <= n; ++i) {
    const KyoAudioStreamDescription aux = withChannels(m_effectBusses[i - 1]->channels());
    split->setOutputStreamFormat(aux, i);
    merge->setInputStreamFormat(aux, i);
  }
  if (maximumFrames > 0) {
    split->audioUnit()->setMaximumFramesPerSlice(maximumFrames);
    merge->audioUnit()->setMaximumFramesPerSlice(maximumFrames);
  }
  for (const auto& bus : m_effectBusses) {
    bus->setFormat(withChannels(bus->channels()));
    bus->restoreState();
    bus->setProperties();
  }
  if (!m_stream->initialize()) return false;

  built = split->connectBus(0, merge, 0);
  for (uint32_t i = 1; i <= n; ++i) {
    KyoEffectBus& bus = *m_effectBusses[i - 1];
    // An aux chain with no effect that took its format passes the audio as it is.
    if (std::shared_ptr<KyoEffect> head = bus.lastUsedEffect()) {
      bus.connectEffectsToEffect(merge, i);
      built = split->connectBus(i, head.get(), 0) && built;
    } else {
      built = split->connectBus(i, merge, i) && built;
    }
  }
  for (uint32_t bus = 0; bus < kKyoBusCount; ++bus) built = split->setRenderCallback(m_finalRenderInfo, bus) && built;
  for (const auto& bus : m_effectBusses) bus->setParameters();
  if (!built) return false;

  // Unity everywhere but the aux returns, which stay closed until routed.
  KyoAudioUnit* splitUnit = split->audioUnit();
  KyoAudioUnit* mergeUnit = merge->audioUnit();
  const auto volume = KyoMatrixMixer::kParameterVolume;
  splitUnit->setParameter(volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement, 1.0f);
  for (uint32_t c = 0; c < inChannels; ++c) {
    for (uint32_t in = c; in < inChannels * kKyoBusCount; in += inChannels) {
      splitUnit->setParameter(volume, kKyoAudioUnitScope_Input, in, 1.0f);
      splitUnit->setParameter(volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(in, c), 1.0f);
    }
    splitUnit->setParameter(volume, kKyoAudioUnitScope_Output, c, 1.0f);
    mergeUnit->setParameter(volume, kKyoAudioUnitScope_Input, c, 1.0f);
  }
  mergeUnit->setParameter(volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement, 1.0f);
  for (uint32_t c = 0; c < deviceFormat->channels(); ++c) {
    mergeUnit->setParameter(volume, kKyoAudioUnitScope_Output, c, 1.0f);
    mergeUnit->setParameter(volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(c, c), 1.0f);
  }

  // Attached sources keep their busses and map entries; only the enables are new.
  for (uint32_t bus = 0; bus < kKyoBusCount; ++bus)
    splitUnit->setParameter(KyoMatrixMixer::kParameterEnable, kKyoAudioUnitScope_Input, bus, 0.0f);
  for (const auto& [audio, bus] : m_busses.usedBusses())
    splitUnit->setParameter(KyoMatrixMixer::kParameterEnable, kKyoAudioUnitScope_Input, bus, 1.0f);
  m_inputFormat = input;
  return true;
}

// --- Busses ---

void KyoAudioSend::_setEnabled(bool enabled, uint32_t bus) {
  if (bus >= kKyoBusCount) return;
  KyoAudioUnit* unit = m_splitMixer->audioUnit();
  if (!unit || !unit->isInitialized()) return;
  const int32_t status =
      unit->setParameter(KyoMatrixMixer::kParameterEnable, kKyoAudioUnitScope_Input, bus, enabled ? 1.0f : 0.0f);
  if (status) KYO_LOG_STATUS(status);
}

bool KyoAudioSend::_attachAudio(const std::shared_ptr<KyoAudioAttachable>& audio) {
  if (!audio) return false;
  KYO_LOG_AT(3, "%s attaching %s", description().c_str(), audio->description().c_str());
  if (m_busses.busOf(audio.get())) return true;
  const std::optional<uint32_t> bus = m_busses.take(audio);
  if (!bus) {
    KyoLog("Error: No busses left for send %s; can't attach %s", description().c_str(), audio->description().c_str());
    return false;
  }
  KyoMutexLocker lock(m_renderMutex);
  audio->registerRenderInfo(&m_busses.entry(*bus));
  _setEnabled(true, *bus);
  return true;
}

void KyoAudioSend::_detachAudio(KyoAudioAttachable* audio) {
  if (!audio) return;
  KYO_LOG_AT(3, "%s detaching %s", description().c_str(), audio->description().c_str());
  // Let go of outside the lock; the caller still holds the object anyway.
  std::shared_ptr<KyoAudioAttachable> released;
  const std::optional<uint32_t> bus = m_busses.give(audio, released);
  if (!bus) return;
  KyoMutexLocker lock(m_renderMutex);
  _setEnabled(false, *bus);
  m_busses.entry(*bus) = KyoRenderInfo{};
}

// --- Volumes ---

void KyoAudioSend::setMixerVolume(KyoEffect* mixer, float volume, uint32_t scope, uint32_t element) {
  if (!mixer || !m_validStream.load()) return;
  KyoAudioUnit* unit = mixer->audioUnit();
  if (!unit) return;
  const int32_t status =
      unit->setParameter(KyoMatrixMixer::kParameterVolume, KyoAudioUnitScope(scope), element, volume);
  if (status) KYO_LOG_STATUS_DETAIL(status, "element=" + std::to_string(element));
}

void KyoAudioSend::_setMasterVolume(float volume, KyoEffect* mixer) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  setMixerVolume(mixer, volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::kMasterElement);
}

void KyoAudioSend::_setOutputVolume(float volume, uint32_t channel, KyoEffect* mixer) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  setMixerVolume(mixer, volume, kKyoAudioUnitScope_Output, channel);
}

void KyoAudioSend::_setRawInputVolume(float volume, uint32_t channel, KyoEffect* mixer) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  setMixerVolume(mixer, volume, kKyoAudioUnitScope_Input, channel);
}

void KyoAudioSend::_setRawCrosspointVolume(float volume, uint32_t input, uint32_t output, KyoEffect* mixer) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  setMixerVolume(mixer, volume, kKyoAudioUnitScope_Global, KyoMatrixMixer::crosspointElement(input, output));
}

void KyoAudioSend::_setSplitterInputVolume(float volume, uint32_t channel) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  const uint32_t stride = m_splitMixerInChannels.load();
  for (uint32_t in = channel; stride > 0 && in < stride * kKyoBusCount; in += stride)
    setMixerVolume(m_splitMixer.get(), volume, kKyoAudioUnitScope_Input, in);
}

void KyoAudioSend::_setSplitterCrosspointVolume(float volume, uint32_t input, uint32_t output) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  const uint32_t stride = m_splitMixerInChannels.load();
  for (uint32_t in = input; stride > 0 && in < stride * kKyoBusCount; in += stride)
    setMixerVolume(m_splitMixer.get(), volume, kKyoAudioUnitScope_Global,
                   KyoMatrixMixer::crosspointElement(in, output));
}

void KyoAudioSend::setAuxCrosspointVolume(float volume, uint32_t input, uint32_t output) {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  const uint32_t mergeInput = m_splitMixerInChannels.load() + input - m_auxChannels.load();
  setMixerVolume(m_mergeMixer.get(), volume, kKyoAudioUnitScope_Global,
                 KyoMatrixMixer::crosspointElement(mergeInput, output));
}

void KyoAudioSend::_printVolumesForMixer(KyoEffect* mixer) const {
  std::lock_guard<std::mutex> lock(m_levelsMutex);
  if (!mixer || !m_validStream.load()) return;
  if (auto* unit = dynamic_cast<KyoMatrixMixer*>(mixer->audioUnit())) unit->printVolumes();
}

std::string KyoAudioSend::description() const {
  return m_device ? "[KyoAudioSend assigned to " + m_device->description() + "]" : "[unassigned KyoAudioSend]";
}

// --- Rendering ---

// Render thread, from the device's bus, inside the device's render mutex.
int32_t KyoAudioSend::render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t, uint32_t frames,
                             AudioBufferList* ioData) {
  if (m_validStream.load(std::memory_order_acquire)) {
    m_renderMutex.lock();
    // A rebuild that began after the first look has cleared the flag by now.
    if (m_validStream.load(std::memory_order_acquire)) {
      const int32_t status = int16_t(m_mergeMixerRenderInfo.call(ioActionFlags, timeStamp, 0, frames, ioData));
      if (status != 0) KYO_LOG_STATUS(status);
      m_renderMutex.unlock();
      return status;
    }
    m_renderMutex.unlock();
  }
  KyoAudioBufferListSilence(ioData, 0, frames);
  return 0;
}

void KyoAudioSend::_registerFinalRenderInfo(KyoRenderInfo* info) {
  KyoRegisterRenderEntry<&KyoAudioSend::_finalRender>(this, info,
                                                      "_finalRender:timeStamp:busNumber:numberFrames:data:");
}

// Render thread, per enabled input bus of the split mixer; always inside render() and
// so under m_renderMutex.
int32_t KyoAudioSend::_finalRender(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber,
                                   uint32_t frames, AudioBufferList* ioData) {
  if (!m_validStream.load(std::memory_order_relaxed) || busNumber >= kKyoBusCount) {
    KyoAudioBufferListSilence(ioData, 0, frames);
    return 0;
  }
  const KyoRenderInfo& entry = m_busses.entry(busNumber);
  // The mixer's buffers still hold another bus's audio: a bus that gave nothing says
  // so, rather than let that through again.
  if (!entry.target || entry.call(ioActionFlags, timeStamp, 0, frames, ioData) != 0) {
    if (ioActionFlags) {
      *ioActionFlags |= kKyoRenderAction_OutputIsSilence;
    } else {
      KyoAudioBufferListSilence(ioData, 0, frames);
    }
  }
  return 0;
}
