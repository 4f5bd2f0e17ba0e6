#pragma once
// Stand-ins for what the show model meets outside: an audio source that answers
// what it was told, a cue that counts its transport calls, a workspace with a log.

#include <memory>
#include <string>
#include <vector>

#include "show/AudioCue.h"
#include "show/Cart.h"
#include "show/SontoLogger.h"

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

struct FakeWorkspace : CartWorkspace {
  SontoLogger log;
  SontoLogger* logger() override { return &log; }
};
