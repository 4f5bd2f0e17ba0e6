#include "show/ShowTestSupport.h"

#include <sys/stat.h>

#include <fstream>

#include "foundation/KyoAlias.h"
#include "support/TestFiles.h"

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

std::string makeFolder(const std::string& name) {
  const std::string path = sonto::test::temporaryPath(name);
  mkdir(path.c_str(), 0755);
  return path;
}

void writeBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

QUrl urlOf(const std::string& path) { return QUrl::fromLocalFile(QString::fromStdString(path)); }

std::shared_ptr<CountingCue> countingCue(const std::string& name, const std::string& hotkey, int midiNote) {
  auto cue = std::make_shared<CountingCue>();
  cue->setName(name);
  cue->setHotkey(hotkey);
  if (midiNote >= 0) cue->setMidiNote(midiNote);
  return cue;
}

#include <sndfile.h>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioMetaBuffer.h"
#include "audio/KyoHAL.h"
#include "effects/KyoAudioSource.h"
#include "foundation/KyoClock.h"
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

}  // namespace showtest
