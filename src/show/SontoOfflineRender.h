#pragma once
// A show rendered faster than real time, the same on every run: a workspace on an
// offline device, pulled cycle by cycle on the virtual clock, with a script of what
// the operator does applied at cycle boundaries exactly as the window and the MIDI
// input would apply it.
//
// Per cycle, in this order: workers started by the last step finish their part; the
// events due are applied in one synced batch; the read-ahead of every cue that can
// sound holds the frames the cycle will take (waited for in real time, since the fill
// threads run on their own); the cycle is rendered; virtual time moves on by its
// length, firing the timers (progress, clean-up, fades) that fall in it.
//
// Main thread (the virtual clock's), with that clock installed as the current one.

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "show/SontoEventScript.h"

class KyoAudioDevice;
class KyoAudioMetaBuffer;
class KyoVirtualClock;
class Workspace;

class SontoOfflineRender {
 public:
  static constexpr double kDefaultSampleRate = 48000;
  static constexpr uint32_t kDefaultBufferFrames = 512;
  static constexpr uint32_t kDefaultChannels = 2;
  // Rendered seconds after which a render "until done" gives up (a looping cue
  // never ends by itself, nor does a script with events past it).
  static constexpr double kUntilDoneCapSeconds = 600;
  // Real seconds a cycle waits for a cue's read-ahead before it renders without it.
  static constexpr double kReadAheadPatienceSeconds = 10;

  struct Result {
    int64_t frames = 0;         // rendered and handed to the sink
    bool reachedCap = false;    // stopped by the cap with cues still sounding
    uint64_t lateCycles = 0;    // cycles rendered before a read-ahead was ready
    bool sinkRefused = false;   // the sink answered false; the render stopped there
    bool deviceFailed = false;  // the device stopped rendering (closed under the render)
  };
  // A block of rendered audio: one vector per channel, of which the first `frames`
  // samples count. Answers false to stop the render (a write that failed).
  using Sink = std::function<bool(const std::vector<std::vector<float>>& block, uint32_t frames)>;

  // Makes and opens an offline device; null (with the reason in error) when the
  // parameters are out of range or the device does not open.
  static std::unique_ptr<SontoOfflineRender> create(KyoVirtualClock& clock, double sampleRate = kDefaultSampleRate,
                                                    uint32_t bufferFrames = kDefaultBufferFrames,
                                                    uint32_t channels = kDefaultChannels,
                                                    std::string* error = nullptr);
  // Closes and destroys the device. Release the workspace first.
  ~SontoOfflineRender();
  SontoOfflineRender(const SontoOfflineRender&) = delete;
  SontoOfflineRender& operator=(const SontoOfflineRender&) = delete;

  std::shared_ptr<KyoAudioDevice> device() const { return m_device; }
  double sampleRate() const { return m_sampleRate; }
  uint32_t bufferFrames() const { return m_bufferFrames; }
  uint32_t channels() const { return m_channels; }

  // Moves a workspace that is on another device (a read binds the file's own) to
  // this one, keeping its routing and levels.
  bool adopt(Workspace& workspace);

  // Renders `seconds` exactly (rounded to whole frames), or, when seconds is 0 or
  // less, until every cue has stopped and the last event is past, whole cycles, up
  // to the cap. Events are in time order (as the script gives them).
  Result render(Workspace& workspace, const std::vector<SontoScriptEvent>& events, double seconds, const Sink& sink);
  // The same into memory: one vector per channel.
  std::vector<std::vector<float>> renderToMemory(Workspace& workspace, const std::vector<SontoScriptEvent>& events,
                                                 double seconds, Result* result = nullptr);

 private:
  SontoOfflineRender(KyoVirtualClock& clock, double sampleRate, uint32_t bufferFrames, uint32_t channels);
  void applyEvents(Workspace& workspace, const SontoScriptEvent* first, const SontoScriptEvent* last);
  // False when a cue that can sound had no full read-ahead within the patience.
  bool waitForReadAhead(Workspace& workspace);

  KyoVirtualClock& m_clock;
  double m_sampleRate;
  uint32_t m_bufferFrames;
  uint32_t m_channels;
  uint32_t m_deviceID = 0;
  std::shared_ptr<KyoAudioDevice> m_device;
  std::set<std::string> m_heldKeys;   // keys down and not yet up: a second down is a repeat
  // Read-ahead that missed its patience, until it is ready again.
  std::set<std::weak_ptr<KyoAudioMetaBuffer>, std::owner_less<>> m_gaveUpOn;
};
