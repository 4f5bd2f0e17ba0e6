#pragma once
// Stand-ins for what the show model meets outside: an audio source that answers
// what it was told, a cue that counts its transport calls, a workspace with a log.

#include <QUrl>

#include <memory>
#include <string>
#include <vector>

#include "show/AudioCue.h"
#include "show/Cart.h"
#include "show/SontoLogger.h"
#include "support/Waiting.h"

struct FakeSourceState {
  bool valid = true;
  uint32_t fileChannels = 2;
  double fileLength = 12.5;
  std::shared_ptr<KyoAudioDevice> device;
  std::string aliasPath;
  int aliasCount = 0;
  std::vector<std::tuple<float, uint32_t, uint32_t>> crosspoints;
  double sliceStart = -1, sliceEnd = -1;
  int slicePlayCount = 0;
  int hardStops = 0;
};

class FakeCueSource : public AudioCueSource {
 public:
  explicit FakeCueSource(std::shared_ptr<FakeSourceState> state) : m_state(std::move(state)) {}
  void setDevice(std::shared_ptr<KyoAudioDevice> device) override { m_state->device = std::move(device); }
  std::shared_ptr<KyoAudioDevice> sharedDevice() const override { return m_state->device; }
  void setAlias(std::shared_ptr<KyoAlias> alias) override;
  bool isValid() const override { return m_state->valid; }
  uint32_t fileChannels() const override { return m_state->fileChannels; }
  double fileLengthInSeconds() const override { return m_state->fileLength; }
  void setDefaultVolumes() override {}
  void setCrosspointVolume(float volume, uint32_t input, uint32_t output) override {
    m_state->crosspoints.emplace_back(volume, input, output);
  }
  void setSlice(double startTime, double endTime, int playCount) override {
    m_state->sliceStart = startTime;
    m_state->sliceEnd = endTime;
    m_state->slicePlayCount = playCount;
  }
  void goToTime(double) override {}
  void hardStop() override { ++m_state->hardStops; }

 private:
  std::shared_ptr<FakeSourceState> m_state;
};

// Installs a factory whose sources all report into `last`, the state of the newest one.
struct FakeSourceFactory {
  std::shared_ptr<FakeSourceState> templateState = std::make_shared<FakeSourceState>();
  std::vector<std::shared_ptr<FakeSourceState>> made;
  FakeSourceFactory();
  ~FakeSourceFactory();
  FakeSourceState& last() { return *made.back(); }
};

class CountingCue : public AudioCue {
 public:
  int downs = 0, ups = 0, hardStops = 0, pauses = 0, stops = 0;
  void triggerDown() override { ++downs; }
  void triggerUp() override { ++ups; }
  void hardStop() override { ++hardStops; }
  void pause() override { ++pauses; }
  void stop() override { ++stops; }
};

std::shared_ptr<CountingCue> countingCue(const std::string& name, const std::string& hotkey = {},
                                         int midiNote = -1);

// Files on disk: a fresh folder under the test's temporary folder, whole files as bytes.
std::string makeFolder(const std::string& name);
void writeBytes(const std::string& path, const std::string& bytes);
std::string readBytes(const std::string& path);
QUrl urlOf(const std::string& path);

// How many caught log lines contain the text.
inline size_t countLines(sonto::test::LogCapture& log, const std::string& text) {
  size_t n = 0;
  for (const std::string& line : log.lines()) n += line.find(text) != std::string::npos;
  return n;
}

struct FakeWorkspace : CartWorkspace {
  SontoLogger log;
  SontoLogger* logger() override { return &log; }
};

// --- The real engine under the show: an offline device pulled by hand, virtual time ---

class KyoAudioDevice;
class KyoAudioSource;
class KyoVirtualClock;

namespace showtest {

// Installs a virtual clock for the life of the object (made on the main thread, which
// becomes the clock's main thread); the plain clock comes back afterwards.
struct VirtualTime {
  VirtualTime();
  ~VirtualTime();
  std::shared_ptr<KyoVirtualClock> clock;
};

// An offline device, opened with default levels: the caller pulls its cycles.
struct OfflineDevice {
  OfflineDevice(uint32_t channels = 2, double rate = 48000, uint32_t frames = 480);
  ~OfflineDevice();
  bool pull(uint32_t cycles);
  std::vector<std::vector<float>> recording();
  void clear();
  double cycleSeconds() const { return frames / rate; }
  uint32_t id = 0;
  double rate;
  uint32_t frames;
  std::shared_ptr<KyoAudioDevice> device;
};

// Installs the engine's sources for cues made while it lives.
struct EngineSources {
  EngineSources();
  ~EngineSources();
};

// A 32-bit float WAV whose samples encode their frame number (sonto::test::rampSample).
std::string rampFile(const std::string& name, double rate, uint32_t channels, int64_t frames);
KyoAudioSource* engineSource(const AudioCue& cue);
// Waits in real time for the cue's read-ahead (fill threads run on their own).
bool waitUntilReady(const AudioCue& cue);
// Cycle by cycle: one cycle rendered, then virtual time moved on by its length, so
// that timers and workers see the time that the output has reached.
void render(OfflineDevice& device, KyoVirtualClock& clock, uint32_t cycles);

}  // namespace showtest
