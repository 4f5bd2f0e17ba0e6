// The render engine of an open KyoAudioDevice: the mixer, the busses and their render
// records, the action queue and the cycle itself.

#include <algorithm>
#include <cstdlib>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoMatrixMixer.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

namespace {
// The mixer is sized for cycles up to this, or the device's cycle if larger.
constexpr uint32_t kPreferredMaximumFrames = 4096;
}  // namespace

// --- Use count ---

void KyoAudioDevice::engage() {
  int32_t old;
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    old = m_engaged++;
  }
  // A failed open leaves the count as it is: the next engage tries again.
  if (old >= 0 && !isOpen()) open();
}

void KyoAudioDevice::disengage() {
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    int32_t old = m_engaged--;
    if (old > 1) return;
    m_engaged = 0;
  }
  if (isOpen()) close();
}

int32_t KyoAudioDevice::engaged() const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  return m_engaged;
}

void KyoAudioDevice::setClientName(const std::string& name) {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  m_clientName = name;
}

std::string KyoAudioDevice::clientName() const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  return m_clientName;
}

// --- Open and close ---

bool KyoAudioDevice::open() {
  // So a delegate sees the close of an earlier opening ahead of this open.
  close();

  std::unique_lock<std::mutex> lock(m_engineMutex);
  KyoHALDeviceProperties p;
  // The operator's line says it in words; the status goes to the developers' level.
  auto tell = [&](const char* why) {
    KyoLog("Cannot open the output \"%s\": %s. Choose another output; until then this show is not heard.",
           p.name.empty() ? "(unnamed)" : p.name.c_str(), why);
  };
  if (!readProperties(p, __PRETTY_FUNCTION__, __LINE__)) {
    tell("it is no longer there");
    return false;
  }
  if (p.outputChannels == 0 || p.nominalSampleRate <= 0) {
    KYO_LOG_STATUS_DETAIL(kKyoHALUnsupportedError, p.name + " has no outputs or no rate");
    tell("it has no output channels or no sample rate");
    return false;
  }

  // Released outside the locks, after a failure.
  std::vector<std::shared_ptr<KyoAudioAttachable>> released;
  auto fail = [&](int32_t status, int line, const char* why = "the mixer for it could not be set up") {
    KyoLogStatus(status, __PRETTY_FUNCTION__, line);
    tell(status == kKyoHALBadDeviceError ? "it is no longer there" : why);
    closeLocked(released);
    return false;
  };

  m_mixerOutDesc = KyoAudioStreamDescription(p.nominalSampleRate, p.outputChannels);
  m_mixerInDesc = KyoAudioStreamDescription(p.nominalSampleRate, kKyoLogicalChannels);
  m_maximumFrames = std::max(p.bufferSizeInFrames, kPreferredMaximumFrames);
  if (p.maxBufferSizeInFrames) m_maximumFrames = std::min(m_maximumFrames, std::max(p.maxBufferSizeInFrames, p.bufferSizeInFrames));

  auto mixer = std::make_shared<KyoMatrixMixer>();
  int32_t status;
  if ((status = mixer->setElementCount(kKyoAudioUnitScope_Input, kKyoBusCount))) return fail(status, __LINE__);
  if ((status = mixer->setElementCount(kKyoAudioUnitScope_Output, 1))) return fail(status, __LINE__);
  for (uint32_t bus = 0; bus < kKyoBusCount; ++bus)
    if ((status = mixer->setStreamFormat(kKyoAudioUnitScope_Input, bus, *m_mixerInDesc))) return fail(status, __LINE__);
  if ((status = mixer->setStreamFormat(kKyoAudioUnitScope_Output, 0, *m_mixerOutDesc))) return fail(status, __LINE__);
  if ((status = mixer->setMaximumFramesPerSlice(m_maximumFrames))) return fail(status, __LINE__);

  KyoRegisterRenderEntry<&KyoAudioDevice::outRenderCallback>(this, &m_outRenderInfo,
                                               "outRenderCallback:timeStamp:busNumber:numberFrames:data:");
  for (uint32_t bus = 0; bus < kKyoBusCount; ++bus)
    if ((status = mixer->setRenderCallback(bus, m_outRenderInfo))) return fail(status, __LINE__);
  uint32_t metering = 1;
  if ((status = mixer->setProperty(kKyoAudioUnitProperty_MeteringMode, kKyoAudioUnitScope_Global, 0, &metering,
                                   sizeof metering)))
    return fail(status, __LINE__);
  if ((status = mixer->initialize())) return fail(status, __LINE__);

  const bool withInput = m_enableInput.load() && p.inputChannels > 0;
  if (withInput) {
    m_inputDesc = KyoAudioStreamDescription(p.nominalSampleRate, p.inputChannels);
    KyoRegisterRenderEntry<&KyoAudioDevice::inRenderCallback>(this, &m_inRenderInfo,
                                                "inRenderCallback:timeStamp:busNumber:numberFrames:data:");
    m_bufferList = KyoAudioBufferListCreate(p.inputChannels, m_maximumFrames, false);
    if (!m_bufferList) return fail(kKyoHALUnsupportedError, __LINE__);
  }

  m_busses = std::make_unique<KyoAudioBusses>();
  for (uint32_t bus = 0; bus < kKyoBusCount; ++bus) mixer->setParameter(KyoMatrixMixer::kParameterEnable, kKyoAudioUnitScope_Input, bus, 0.0f);

  {
    std::lock_guard<std::mutex> mixerLock(m_mixerMutex);
    m_mixer = mixer;
  }
  m_renderMixer = mixer.get();
  m_open.store(true);
  lock.unlock();
  setDefaultVolumes();
  lock.lock();

  KyoRegisterRenderEntry<&KyoAudioDevice::notifyCallback>(this, &m_notifyInfo,
                                                          "notifyCallback:timeStamp:busNumber:numberFrames:data:");
  if (!m_open.load()) return false;  // closed meanwhile by another thread
  status = KyoHAL::shared().startIO(m_deviceID, withInput, &KyoAudioDevice::ioProc, this, m_clientName);
  if (status != kKyoHALNoError) {
    fail(status, __LINE__, "it would not start playing (is another program holding it?)");
    lock.unlock();
    if (auto* d = delegate()) d->audioDeviceDidClose(this);
    return false;
  }
  m_ioRunning.store(true);
  startNonFiniteReports();
  lock.unlock();
  if (auto* d = delegate()) d->audioDeviceDidOpen(this);
  return true;
}

void KyoAudioDevice::close() {
  std::vector<std::shared_ptr<KyoAudioAttachable>> released;
  bool wasOpen;
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    wasOpen = closeLocked(released);
  }
  // The attached objects simply lose their busses; they aren't told. Released here,
  // outside every lock, since a last release may come back to this device.
  released.clear();
  // Only a real close is news: open() closes first, and a closed device may be closed again.
  if (!wasOpen) return;
  if (auto* d = delegate()) d->audioDeviceDidClose(this);
}

// m_engineMutex held.
bool KyoAudioDevice::closeLocked(std::vector<std::shared_ptr<KyoAudioAttachable>>& released) {
  // Stop the cycles first: stopIO returns after the last callback, which takes
  // m_renderMutex, so it must not be held here yet.
  if (m_ioRunning.exchange(false)) {
    int32_t status = KyoHAL::shared().stopIO(m_deviceID, this);
    if (status != kKyoHALNoError && status != kKyoHALNotRunningError) KYO_LOG_STATUS(status);
  }
  const bool wasOpen = m_open.exchange(false);
  if (m_nonFiniteTimer) {
    // A clock swapped since (tests do) took its timers with it.
    if (&KyoCurrentClock() == m_nonFiniteClock) KyoCurrentClock().stopTimer(m_nonFiniteTimer);
    m_nonFiniteTimer = 0;
  }
  // A fade running now gives up at its next step, even if the device opens again.
  m_fadeIndex.fetch_add(1);

  std::shared_ptr<KyoMatrixMixer> mixer;
  {
    std::lock_guard<std::mutex> mixerLock(m_mixerMutex);
    mixer = std::move(m_mixer);
  }
  KyoActionInfo* batch = m_actionsToSync;
  KyoActionInfo* pending;
  {
    KyoMutexLocker render(m_renderMutex);
    m_renderMixer = nullptr;
    m_mixerInDesc.reset();
    m_mixerOutDesc.reset();
    m_inputDesc.reset();
    KyoAudioBufferListFree(m_bufferList);
    m_bufferList = nullptr;
    if (m_busses) released = m_busses->releaseAll();
    m_busses.reset();
    pending = m_actions;
    m_actions = nullptr;
    m_actionsToSync = nullptr;
  }
  freeActionList(batch);
  freeActionList(pending);
  reclaimUsedActions();
  m_maximumFrames = 0;
  // The mixer goes when the last volume writer lets go of it.
  mixer.reset();
  return wasOpen;
}

// --- Formats ---

std::optional<KyoAudioStreamDescription> KyoAudioDevice::_outFeedFormat() const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  return m_open.load() ? m_mixerInDesc : std::nullopt;
}

std::optional<KyoAudioStreamDescription> KyoAudioDevice::_inFeedFormat() const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  return m_open.load() && m_enableInput.load() ? m_inputDesc : std::nullopt;
}

uint32_t KyoAudioDevice::_maximumFramesPerSlice() const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  return m_maximumFrames;
}

// --- Busses ---

int32_t KyoAudioDevice::_setEnabled(bool enabled, uint32_t bus) {
  if (bus >= kKyoBusCount) return 0;
  auto mixer = currentMixer();
  if (!mixer) return kKyoAudioUnitErr_Uninitialized;
  int32_t status =
      mixer->setParameter(KyoMatrixMixer::kParameterEnable, kKyoAudioUnitScope_Input, bus, enabled ? 1.0f : 0.0f);
  if (status) KYO_LOG_STATUS(status);
  return status;
}

bool KyoAudioDevice::_attachAudio(const std::shared_ptr<KyoAudioAttachable>& audio) {
  if (!audio) return false;
  std::lock_guard<std::mutex> lock(m_engineMutex);
  if (!m_open.load()) {
    KyoLog("Error: %s is not open, so it can't attach %s", description().c_str(), audio->description().c_str());
    return false;
  }
  std::shared_ptr<KyoAudioAttachable> thing = audio;
  if (std::shared_ptr<KyoAudioSending> send = audio->send()) {
    if (send->device() != this) {
      KyoLog("Error: %s is not the assigned device for send %s", description().c_str(), send->description().c_str());
      return false;
    }
    if (!send->_attachAudio(audio)) {
      KyoLog("Error: %s could not attach %s to send %s", description().c_str(), audio->description().c_str(),
             send->description().c_str());
      return false;
    }
    thing = send;
  } else if (audio->device() != this) {
    KyoLog("Error: %s is not the assigned device for %s", description().c_str(), audio->description().c_str());
    return false;
  }
  KYO_LOG_AT(3, "%s attaching %s", description().c_str(), thing->description().c_str());
  if (m_busses->busOf(thing.get())) return true;
  const std::optional<uint32_t> bus = m_busses->take(thing);
  if (!bus) {
    KyoLog("Error: No busses left for device %s; can't attach %s", description().c_str(),
           thing->description().c_str());
    return false;
  }
  KyoMutexLocker render(m_renderMutex);
  thing->registerRenderInfo(&m_busses->entry(*bus));
  m_renderMixer->setParameter(KyoMatrixMixer::kParameterEnable, kKyoAudioUnitScope_Input, *bus, 1.0f);
  return true;
}

void KyoAudioDevice::_detachAudio(KyoAudioAttachable* audio) {
  if (!audio) return;
  std::shared_ptr<KyoAudioAttachable> released;  // let go of outside the lock
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    if (!m_open.load()) return;
    KyoAudioAttachable* thing = audio;
    std::shared_ptr<KyoAudioSending> send = audio->send();
    if (send) {
      send->_detachAudio(audio);
      // The send keeps its bus while any of its sources is attached.
      if (send->hasAudioAttached()) return;
      thing = send.get();
    }
    KYO_LOG_AT(3, "%s detaching %s", description().c_str(), thing->description().c_str());
    const std::optional<uint32_t> bus = m_busses->give(thing, released);
    if (!bus) return;
    KyoMutexLocker render(m_renderMutex);
    m_renderMixer->setParameter(KyoMatrixMixer::kParameterEnable, kKyoAudioUnitScope_Input, *bus, 0.0f);
    m_busses->entry(*bus) = KyoRenderInfo{};
  }
}

std::optional<uint32_t> KyoAudioDevice::_busOfAudio(const KyoAudioAttachable* audio) const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  return m_busses ? m_busses->busOf(audio) : std::nullopt;
}

size_t KyoAudioDevice::_freeBusCount() const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  return m_busses ? m_busses->freeCount() : 0;
}

// --- Action queue ---

void KyoAudioDevice::freeActionList(KyoActionInfo* node) {
  while (node) {
    KyoActionInfo* next = node->next;
    delete node;
    node = next;
  }
}

void KyoAudioDevice::reclaimUsedActions() { freeActionList(m_usedActions.exchange(nullptr)); }

void KyoAudioDevice::startSyncedActions() {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  reclaimUsedActions();
  if (!m_actionsToSync) m_actionsToSync = m_actionsToSyncTail = new KyoActionInfo{};
}

bool KyoAudioDevice::_batchIsOpen() const {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  return m_actionsToSync != nullptr;
}

void KyoAudioDevice::performAction(void* target, KyoActionMethod method, const char* selector) {
  if (!method) return;
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    if (m_actionsToSync) {
      KyoActionInfo* tail = m_actionsToSyncTail;
      tail->target = target;
      tail->selector = selector;
      tail->method = method;
      tail->next = m_actionsToSyncTail = new KyoActionInfo{};
      return;
    }
  }
  method(target);
}

void KyoAudioDevice::endSyncedActions() {
  std::lock_guard<std::mutex> lock(m_engineMutex);
  reclaimUsedActions();
  if (!m_actionsToSync) return;
  KyoMutexLocker render(m_renderMutex);
  if (!m_actions) {
    m_actions = m_actionsToSync;
  } else {
    m_actionsTail->next = m_actionsToSync;
  }
  m_actionsTail = m_actionsToSyncTail;
  m_actionsToSync = nullptr;
}

// Render thread, before and after each cycle.
int32_t KyoAudioDevice::notifyCallback(uint32_t*, const KyoAudioTimeStamp*, uint32_t, uint32_t, AudioBufferList*) {
  KyoMutexLocker render(m_renderMutex);
  KyoActionInfo* node = m_actions;
  m_actions = nullptr;
  while (node) {
    if (node->method) node->method(node->target);
    KyoActionInfo* next = node->next;
    // Handed back, not freed: the render thread doesn't free.
    node->next = m_usedActions.load(std::memory_order_relaxed);
    while (!m_usedActions.compare_exchange_weak(node->next, node, std::memory_order_release,
                                                std::memory_order_relaxed)) {
    }
    node = next;
  }
  return 0;
}

// --- The cycle (render thread) ---

void KyoAudioDevice::ioProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output,
                            double sampleTime) {
  auto* device = static_cast<KyoAudioDevice*>(client);
  KyoAudioTimeStamp timeStamp;
  timeStamp.mSampleTime = sampleTime;
  uint32_t flags = kKyoRenderAction_PreRender;
  device->m_notifyInfo.call(&flags, &timeStamp, 0, frames, output);
  if (input && device->m_bufferList) {
    flags = 0;
    device->m_inRenderInfo.call(&flags, &timeStamp, 1, frames, const_cast<AudioBufferList*>(input));
  }
  flags = 0;
  int32_t status = device->m_renderMixer->render(&flags, &timeStamp, 0, frames, output);
  flags = kKyoRenderAction_PostRender;
  if (status != 0) flags |= kKyoRenderAction_PostRenderError;
  device->m_notifyInfo.call(&flags, &timeStamp, 0, frames, output);
  // The last word before the device layer: nothing that is not a number goes out.
  if (const uint32_t replaced = silenceNonFinite(output, frames)) {
    device->m_nonFinite->replaced.fetch_add(replaced, std::memory_order_relaxed);
  }
}

// Render thread. A sample is finite unless its exponent bits are all set; the test
// on the bits keeps the loop free of branches, so it costs next to nothing.
uint32_t KyoAudioDevice::silenceNonFinite(AudioBufferList* output, uint32_t frames) {
  if (!output) return 0;
  uint32_t replaced = 0;
  for (uint32_t b = 0; b < output->mNumberBuffers; ++b) {
    AudioBuffer& buffer = output->mBuffers[b];
    if (!buffer.mData) continue;
    const uint32_t count =
        std::min<uint32_t>(buffer.mDataByteSize / sizeof(float), frames * std::max<uint32_t>(buffer.mNumberChannels, 1));
    auto* samples = static_cast<uint32_t*>(buffer.mData);  // the same bits as the floats
    for (uint32_t i = 0; i < count; ++i) {
      const bool bad = (samples[i] & 0x7F800000u) == 0x7F800000u;
      replaced += bad;
      samples[i] = bad ? 0u : samples[i];
    }
  }
  return replaced;
}

// m_engineMutex held. On whatever thread the clock's timers fire (the main loop in
// the window), never the render thread.
void KyoAudioDevice::startNonFiniteReports() {
  if (m_nonFiniteTimer) return;
  const std::string deviceName = name();
  m_nonFiniteClock = &KyoCurrentClock();
  m_nonFiniteTimer = KyoCurrentClock().startTimer(1.0, true, [count = m_nonFinite, deviceName] {
    const uint64_t replaced = count->replaced.load(std::memory_order_relaxed);
    const uint64_t before = count->reported.exchange(replaced);
    if (replaced == before) return;
    KyoLog("Output \"%s\": %llu samples that were not numbers were sent as silence (a broken effect or file?)",
           deviceName.c_str(), static_cast<unsigned long long>(replaced - before));
  });
}

int32_t KyoAudioDevice::outRenderCallback(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber,
                                          uint32_t frames, AudioBufferList* ioData) {
  KyoMutexLocker render(m_renderMutex);
  const KyoRenderInfo& entry = m_busses->entry(busNumber);
  if (!entry.target) {
    // A bus emptied between the mixer's look at its enable and this call.
    *ioActionFlags |= kKyoRenderAction_OutputIsSilence;
    return 0;
  }
  // The bus number doesn't travel on: in the object it is the output of its last unit.
  return int16_t(entry.call(ioActionFlags, timeStamp, 0, frames, ioData));
}

// The device layer hands over the input block; it is kept for the live sources of this cycle.
int32_t KyoAudioDevice::inRenderCallback(uint32_t*, const KyoAudioTimeStamp*, uint32_t, uint32_t frames,
                                         AudioBufferList* ioData) {
  KyoMutexLocker render(m_renderMutex);
  if (!m_bufferList) return 0;
  const uint32_t n = std::min(frames, m_maximumFrames);
  KyoAudioBufferListResetSizes(m_bufferList, n);
  if (KyoAudioBufferListCopy(ioData, 0, m_bufferList, 0, n) != n) KyoAudioBufferListSilence(m_bufferList, 0, n);
  return 0;
}

// Render thread, within a bus's render: no lock of its own.
uint32_t KyoAudioDevice::readFrames(uint32_t frames, AudioBufferList* list, uint32_t offset) {
  uint32_t copied = m_bufferList ? KyoAudioBufferListCopy(m_bufferList, 0, list, offset, frames) : 0;
  if (copied < frames) KyoAudioBufferListSilence(list, offset + copied, frames - copied);
  return copied;
}
