#include "show/ShowTestSupport.h"

#include "foundation/KyoAlias.h"

void FakeCueSource::setAlias(std::shared_ptr<KyoAlias> alias) {
  ++m_state->aliasCount;
  m_state->aliasPath = alias ? alias->fullPath() : "";
}

FakeSourceFactory::FakeSourceFactory() {
  AudioCue::setSourceFactory([this] {
    made.push_back(std::make_shared<FakeSourceState>(*templateState));
    return std::make_unique<FakeCueSource>(made.back());
  });
}

FakeSourceFactory::~FakeSourceFactory() { AudioCue::setSourceFactory(nullptr); }

std::shared_ptr<CountingCue> countingCue(const std::string& name, const std::string& hotkey, int midiNote) {
  auto cue = std::make_shared<CountingCue>();
  cue->setName(name);
  cue->setHotkey(hotkey);
  if (midiNote >= 0) cue->setMidiNote(midiNote);
  return cue;
}

#include <sndfile.h>

#include <mutex>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioMetaBuffer.h"
#include "audio/KyoHAL.h"
#include "effects/KyoAudioSource.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "show/AudioCueSourceKyo.h"
#include "support/TestFiles.h"

namespace showtest {

VirtualTime::VirtualTime() : clock(std::make_shared<KyoVirtualClock>()) { KyoInstallClock(clock); }

VirtualTime::~VirtualTime() {
  clock->settle();
  KyoInstallClock(nullptr);
}

OfflineDevice::OfflineDevice(uint32_t channels, double sampleRate, uint32_t bufferFrames)
    : rate(sampleRate), frames(bufferFrames) {
  id = KyoHAL::shared().createOfflineDevice(channels, rate, frames, 0);
  device = KyoAudioDevice::deviceWithID(id);
  if (device) device->open();
}

OfflineDevice::~OfflineDevice() {
  if (device) device->close();
  device.reset();
  KyoHAL::shared().destroyOfflineDevice(id);
}

bool OfflineDevice::pull(uint32_t cycles) { return KyoHAL::shared().pullOffline(id, cycles) == 0; }
std::vector<std::vector<float>> OfflineDevice::recording() { return KyoHAL::shared().offlineRecording(id); }
void OfflineDevice::clear() { KyoHAL::shared().clearOfflineRecording(id); }

EngineSources::EngineSources() { AudioCueSourceKyo::install(); }
EngineSources::~EngineSources() { AudioCue::setSourceFactory(nullptr); }

std::string rampFile(const std::string& name, double rate, uint32_t channels, int64_t frames) {
  const std::string path = sonto::test::temporaryPath(name);
  if (!sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, rate, channels, frames)) return {};
  return path;
}

KyoAudioSource* engineSource(const AudioCue& cue) {
  auto* source = dynamic_cast<AudioCueSourceKyo*>(cue.audioSource());
  return source ? source->source() : nullptr;
}

bool waitUntilReady(const AudioCue& cue) {
  KyoAudioSource* source = engineSource(cue);
  if (!source) return false;
  KyoPlainClock waiter;
  for (int i = 0; i < 5000; ++i) {
    if (source->buffer() && source->buffer()->isReadyToPlay()) return true;
    waiter.sleepFor(0.002);
  }
  return false;
}

void render(OfflineDevice& device, KyoVirtualClock& clock, uint32_t cycles) {
  for (uint32_t i = 0; i < cycles; ++i) {
    // Workers started since the last cycle (hard stops, panics) do their part first.
    clock.settle();
    device.pull(1);
    clock.advance(device.cycleSeconds());
  }
}

namespace {
std::mutex& logMutex() {
  static std::mutex mutex;
  return mutex;
}
std::vector<std::string>& caught() {
  static std::vector<std::string> lines;
  return lines;
}
}  // namespace

LogLines::LogLines() {
  {
    std::lock_guard<std::mutex> lock(logMutex());
    caught().clear();
  }
  KyoSetLogSink([](const std::string& line) {
    std::lock_guard<std::mutex> lock(logMutex());
    caught().push_back(line);
  });
}

LogLines::~LogLines() { KyoSetLogSink(nullptr); }

std::vector<std::string> LogLines::lines() const {
  std::lock_guard<std::mutex> lock(logMutex());
  return caught();
}

size_t LogLines::count(const std::string& text) const {
  size_t n = 0;
  for (const std::string& line : lines()) n += line.find(text) != std::string::npos;
  return n;
}

}  // namespace showtest
