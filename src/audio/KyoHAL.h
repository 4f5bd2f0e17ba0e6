#pragma once
// The device layer under KyoAudioDevice, in place of a hardware abstraction layer:
// a catalogue of output devices addressed by number, properties read on demand,
// change and death events on a listener thread, and one render callback per open
// device. Backends: "jack" (a JACK server), "alsa" (playback PCMs), "null" (No
// Output: a real-time clock that discards) and "offline" (pulled by its owner).
//
// Device numbers are never 0 and never reused within a process. A device that goes
// away keeps its number; its properties then read as failures.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "audio/KyoAudioBufferList.h"
#include "foundation/KyoLog.h"

using KyoAudioObjectID = uint32_t;
constexpr KyoAudioObjectID kKyoAudioObjectSystemObject = 1;

// Statuses, as the platform's would be: 0 is success.
constexpr int32_t kKyoHALNoError = 0;
constexpr int32_t kKyoHALBadDeviceError = KyoFourCC("!dev");
constexpr int32_t kKyoHALUnknownPropertyError = KyoFourCC("who?");
constexpr int32_t kKyoHALNotRunningError = KyoFourCC("stop");
constexpr int32_t kKyoHALIllegalOperationError = KyoFourCC("nope");
constexpr int32_t kKyoHALUnsupportedError = KyoFourCC("unsp");

// Property selectors (scope 'glob' unless said).
constexpr uint32_t kKyoPropertyDevices = KyoFourCC("dev#");              // system: device list changed
constexpr uint32_t kKyoPropertyDefaultInput = KyoFourCC("dIn ");         // system
constexpr uint32_t kKyoPropertyDefaultOutput = KyoFourCC("dOut");        // system
constexpr uint32_t kKyoPropertyDefaultSystemOutput = KyoFourCC("sOut");  // system
constexpr uint32_t kKyoPropertyDeviceIsAlive = KyoFourCC("livn");        // device died
constexpr uint32_t kKyoPropertyProcessorOverload = KyoFourCC("over");    // device overloaded (xrun)
constexpr uint32_t kKyoPropertyNominalSampleRate = KyoFourCC("nsrt");
constexpr uint32_t kKyoScopeGlobal = KyoFourCC("glob");
constexpr uint32_t kKyoScopeInput = KyoFourCC("inpt");
constexpr uint32_t kKyoScopeOutput = KyoFourCC("outp");

struct KyoHALDeviceProperties {
  std::string uid;       // "jack:default", "alsa:NAME", "null", "offline:N"
  std::string modelUID;  // backend name
  std::string name;
  std::string manufacturer;
  double nominalSampleRate = 0;
  uint32_t clockDomain = 0;
  uint32_t inputChannels = 0;
  uint32_t outputChannels = 0;
  uint32_t bufferSizeInFrames = 0;
  uint32_t minBufferSizeInFrames = 0;
  uint32_t maxBufferSizeInFrames = 0;
  bool alive = true;
};

// Called once per cycle on the device's render thread. input is null without input;
// output has one non-interleaved float buffer per device output channel, zeroed.
using KyoHALIOProc = void (*)(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output,
                              double sampleTime);

// An event: the device (kKyoAudioObjectSystemObject for system events) and selector.
using KyoHALListener = std::function<void(KyoAudioObjectID object, uint32_t selector)>;

class KyoHALBackend;

class KyoHAL {
 public:
  static KyoHAL& shared();

  // Listed devices: every backend's outputs, in a stable order, "null" last.
  std::vector<KyoAudioObjectID> allDevices();
  KyoAudioObjectID defaultOutputDevice();  // JACK if a server runs, else ALSA "default", else null
  KyoAudioObjectID defaultInputDevice();   // 0 when there is none
  KyoAudioObjectID deviceWithUID(const std::string& uid);  // 0 when unknown

  // kKyoHALNoError and the properties, or a status (gone device: kKyoHALBadDeviceError).
  int32_t properties(KyoAudioObjectID device, KyoHALDeviceProperties& out);
  int32_t setBufferSizeInFrames(KyoAudioObjectID device, uint32_t frames);

  // Events arrive on a listener thread of the layer, never the caller's.
  uint64_t addListener(KyoHALListener listener);
  void removeListener(uint64_t token);

  // Starts a render callback on the device, one per client: several clients (open
  // shows) may drive the same device at once. Answers a status; on failure the
  // callback never runs. stopIO stops the client's callback (every client's when
  // null), returns only after its last call has returned, and takes no lock that a
  // callback takes.
  int32_t startIO(KyoAudioObjectID device, bool enableInput, KyoHALIOProc proc, void* client,
                  const std::string& clientName = {});
  int32_t stopIO(KyoAudioObjectID device, void* client = nullptr);

  // Offline devices: not listed, never default. pullOffline renders cycles on the
  // caller's thread and appends them to the device's recording.
  KyoAudioObjectID createOfflineDevice(uint32_t outputChannels, double sampleRate, uint32_t bufferSizeInFrames,
                                       uint32_t inputChannels = 0);
  int32_t pullOffline(KyoAudioObjectID device, uint32_t cycles);
  // The recording so far, one vector per output channel; clearRecording empties it.
  std::vector<std::vector<float>> offlineRecording(KyoAudioObjectID device);
  void clearOfflineRecording(KyoAudioObjectID device);
  // Input for an offline device, consumed cycle by cycle (one vector per channel).
  void setOfflineInput(KyoAudioObjectID device, std::vector<std::vector<float>> input);
  void destroyOfflineDevice(KyoAudioObjectID device);

  // Tests: forget the backends' state and look again (e.g. after starting jackd).
  void rescan();

 private:
  KyoHAL();
  struct State;
  std::unique_ptr<State> m_state;
};
