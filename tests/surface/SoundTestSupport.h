#pragma once
// The real engine under the window's tests: an offline device pulled by hand,
// engine sources, virtual time, ramp files, and a JACK client that sends MIDI.

#include <jack/jack.h>
#include <jack/midiport.h>
#include <sndfile.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioMetaBuffer.h"
#include "audio/KyoHAL.h"
#include "effects/KyoAudioSource.h"
#include "foundation/KyoClock.h"
#include "show/AudioCue.h"
#include "show/AudioCueSourceKyo.h"
#include "show/SontoQtClock.h"
#include "audio/KyoMIDIInput.h"
#include "support/JackServer.h"
#include "support/TestFiles.h"
#include "surface/SontoDocumentController.h"

namespace sonto::test {

inline constexpr double kRate = 48000;
inline constexpr uint32_t kFrames = 480;

// An offline device pulled by hand, keeping what it rendered.
struct Offline {
  Offline() {
    id = KyoHAL::shared().createOfflineDevice(2, kRate, kFrames, 0);
    device = KyoAudioDevice::deviceWithID(id);
    if (device) device->open();
  }
  ~Offline() {
    if (device) device->close();
    device.reset();
    KyoHAL::shared().destroyOfflineDevice(id);
  }
  std::vector<float> left() { return KyoHAL::shared().offlineRecording(id).at(0); }
  KyoAudioObjectID id = 0;
  std::shared_ptr<KyoAudioDevice> device;
};

// Cues made while it lives play through the engine.
struct EngineSources {
  EngineSources() { AudioCueSourceKyo::install(); }
  ~EngineSources() { AudioCue::setSourceFactory(nullptr); }
};

// Virtual time for the test's life; the application's clock comes back after.
struct VirtualTime {
  VirtualTime() : clock(std::make_shared<KyoVirtualClock>()) { KyoInstallClock(clock); }
  ~VirtualTime() {
    clock->settle();
    KyoInstallClock(std::make_shared<SontoQtClock>());
  }
  // One cycle rendered, then time moved on by its length.
  void render(Offline& out, int cycles) {
    for (int i = 0; i < cycles; ++i) {
      clock->settle();
      KyoHAL::shared().pullOffline(out.id, 1);
      clock->advance(kFrames / kRate);
    }
  }
  std::shared_ptr<KyoVirtualClock> clock;
};

inline std::string ramp(const std::string& name, int64_t frames) {
  const std::string path = sonto::test::temporaryPath(name);
  EXPECT_TRUE(sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_FLOAT, kRate, 2, frames));
  return path;
}

// Waits, in real time and for ten seconds at most, until the cue's read-ahead
// answers `ready` (or, with `orGone`, until it has none).
template <typename Ready>
bool waitForReadAhead(Cue* cue, Ready ready, bool orGone = false) {
  auto* audio = dynamic_cast<AudioCue*>(cue);
  auto* source = audio ? dynamic_cast<AudioCueSourceKyo*>(audio->audioSource()) : nullptr;
  if (!source) return false;
  KyoPlainClock real;
  for (int i = 0; i < 5000; ++i) {
    const std::shared_ptr<KyoAudioMetaBuffer> buffer = source->source()->buffer();
    if (buffer ? ready(*buffer) : orGone) return true;
    real.sleepFor(0.002);
  }
  return false;
}

inline bool readyToPlay(Cue* cue) {
  return waitForReadAhead(cue, [](KyoAudioMetaBuffer& buffer) { return buffer.isReadyToPlay(); });
}

// Cycles pulled one at a time, each once the cue's read-ahead holds its frames: a
// pull runs faster than real time and would otherwise outrun the disk.
inline bool pullWhenReady(Offline& out, Cue* cue, int cycles) {
  for (int cycle = 0; cycle < cycles; ++cycle) {
    if (!waitForReadAhead(cue, [](KyoAudioMetaBuffer& buffer) { return buffer.isReadyToRead(kFrames); }, true)) {
      return false;
    }
    KyoHAL::shared().pullOffline(out.id, 1);
  }
  return true;
}

// A JACK client that writes a script of raw messages into its MIDI output, all in
// one cycle, when asked.
class MIDISender {
 public:
  MIDISender() {
    m_client = jack_client_open("sender", JackNoStartServer, nullptr);
    if (!m_client) return;
    m_port = jack_port_register(m_client, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    jack_set_process_callback(m_client, &MIDISender::process, this);
    jack_activate(m_client);
  }
  ~MIDISender() {
    if (m_client) jack_client_close(m_client);
  }
  bool ok() const { return m_client && m_port; }
  jack_client_t* client() const { return m_client; }
  std::string portName() const { return jack_port_name(m_port); }
  // Any thread other than the process one; the next cycle writes it.
  void send(std::vector<std::vector<uint8_t>> script) {
    while (m_pending.load()) {
      KyoPlainClock().sleepFor(0.001);
    }
    m_script = std::move(script);
    m_pending = true;
  }

 private:
  static int process(jack_nframes_t frames, void* arg) {
    auto* self = static_cast<MIDISender*>(arg);
    void* buffer = jack_port_get_buffer(self->m_port, frames);
    jack_midi_clear_buffer(buffer);
    if (self->m_pending.load()) {
      jack_nframes_t time = 0;
      for (const auto& bytes : self->m_script) jack_midi_event_write(buffer, time++, bytes.data(), bytes.size());
      self->m_pending = false;
    }
    return 0;
  }
  jack_client_t* m_client = nullptr;
  jack_port_t* m_port = nullptr;
  std::vector<std::vector<uint8_t>> m_script;
  std::atomic<bool> m_pending{false};
};


// A private JACK server with the application's MIDI input on it, which hands every
// batch to the open shows as the application does.
struct JackMIDIInput {
  // Empty when this machine can run it, else why not.
  static std::string unavailable() {
    if (!JackServer::installed()) return "jackd is not installed: no JACK MIDI to send from";
    if (JackServer::processServerName().empty()) return "every private JACK server name is taken";
    return {};
  }
  bool start() {
    if (!server.start()) {
      error = server.error();
      return false;
    }
    KyoMIDIError midiError;
    stream = KyoMIDIPortInputStream::create(midiError);
    if (!stream || !stream->hasJack()) {
      error = midiError.name + ": " + midiError.reason;
      return false;
    }
    stream->setMessageDestination(
        [](const KyoMIDIMessages& batch) { SontoDocumentController::sharedDocumentController().takeMIDIMessages(batch); });
    return true;
  }
  ~JackMIDIInput() {
    if (stream) stream->setMessageDestination(nullptr);
  }
  // Connects a sender's output port to the input.
  bool connect(MIDISender& sender) const {
    return jack_connect(sender.client(), sender.portName().c_str(), stream->jackPortName().c_str()) == 0;
  }
  JackServer server;
  std::unique_ptr<KyoMIDIPortInputStream> stream;
  std::string error;
};

}  // namespace sonto::test
