#include "show/SontoOfflineRender.h"

#include <algorithm>
#include <cmath>

#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioMetaBuffer.h"
#include "audio/KyoHAL.h"
#include "audio/KyoHALOffline.h"
#include "effects/KyoAudioSource.h"
#include "foundation/KyoClock.h"
#include "show/AudioCue.h"
#include "show/AudioCueSourceKyo.h"
#include "show/Workspace.h"

namespace {

using Action = SontoScriptEvent::Action;

template <typename F>
void forEachAudioCue(Workspace& workspace, F f) {
  for (const auto& cart : workspace.carts()) {
    for (const auto& [index, cue] : cart->cues()) {
      if (auto* audioCue = dynamic_cast<AudioCue*>(cue.get())) f(*audioCue);
    }
  }
}

KyoAudioSource* engineSourceOf(const AudioCue& cue) {
  auto* source = dynamic_cast<AudioCueSourceKyo*>(cue.audioSource());
  return source ? source->source() : nullptr;
}

// Sounding, about to sound (started in the batch just applied) or fading out.
bool isActive(const AudioCue& cue) { return cue.playing() || cue.isPlaying() || cue.isPanicking(); }

}  // namespace

SontoOfflineRender::SontoOfflineRender(KyoVirtualClock& clock, double sampleRate, uint32_t bufferFrames,
                                       uint32_t channels)
    : m_clock(clock), m_sampleRate(sampleRate), m_bufferFrames(bufferFrames), m_channels(channels) {}

std::unique_ptr<SontoOfflineRender> SontoOfflineRender::create(KyoVirtualClock& clock, double sampleRate,
                                                               uint32_t bufferFrames, uint32_t channels,
                                                               std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error) *error = why;
    return nullptr;
  };
  if (!(sampleRate >= 8000 && sampleRate <= 384000)) return fail("sample rate out of range (8000 to 384000 Hz)");
  if (bufferFrames < 16 || bufferFrames > 8192) return fail("buffer size out of range (16 to 8192 frames)");
  if (channels < 1 || channels > KyoHALOffline::kMaxChannels) return fail("channel count out of range");
  std::unique_ptr<SontoOfflineRender> render(new SontoOfflineRender(clock, sampleRate, bufferFrames, channels));
  render->m_deviceID = KyoHAL::shared().createOfflineDevice(channels, sampleRate, bufferFrames, 0);
  render->m_device = render->m_deviceID ? KyoAudioDevice::deviceWithID(render->m_deviceID) : nullptr;
  if (!render->m_device || !render->m_device->open()) return fail("the offline device does not open");
  return render;
}

SontoOfflineRender::~SontoOfflineRender() {
  if (m_device) m_device->close();
  m_device.reset();
  if (m_deviceID) KyoHAL::shared().destroyOfflineDevice(m_deviceID);
}

bool SontoOfflineRender::adopt(Workspace& workspace) {
  if (workspace.audioDevice() == m_device) return true;
  return workspace.changeOutputDevice(m_device, workspace.deviceChannel());
}

void SontoOfflineRender::applyEvents(Workspace& workspace, const SontoScriptEvent* first,
                                     const SontoScriptEvent* last) {
  std::shared_ptr<KyoAudioDevice> device = workspace.audioDevice();
  Cart* cart = workspace.carts().empty() ? nullptr : workspace.carts().front().get();
  std::vector<SontoMIDIMessage> notes;
  // Notes that follow one another arrive as one batch, as the MIDI input hands them.
  auto sendNotes = [&] {
    if (!notes.empty()) workspace.processMIDIMessages(notes);
    notes.clear();
  };
  if (device) device->startSyncedActions();
  for (const SontoScriptEvent* e = first; e != last; ++e) {
    if (e->action != Action::NoteOn && e->action != Action::NoteOff) sendNotes();
    switch (e->action) {
      case Action::KeyDown: {
        // A key that is already down sends repeats, which the window drops.
        if (!m_heldKeys.insert(e->key).second || !cart) break;
        const std::vector<std::string> shortcuts = cart->shortcuts();
        if (std::find(shortcuts.begin(), shortcuts.end(), e->key) != shortcuts.end())
          cart->triggerDownWithShortcut(e->key);
        break;
      }
      case Action::KeyUp: {
        m_heldKeys.erase(e->key);
        if (!cart) break;
        const std::vector<std::string> shortcuts = cart->shortcuts();
        if (std::find(shortcuts.begin(), shortcuts.end(), e->key) != shortcuts.end())
          cart->triggerUpWithShortcut(e->key);
        break;
      }
      case Action::NoteOn: notes.push_back(SontoMIDIMessage::noteOn(e->note, e->velocity, e->channel)); break;
      case Action::NoteOff: notes.push_back(SontoMIDIMessage::noteOff(e->note, e->velocity, e->channel)); break;
      case Action::Panic: workspace.panic(); break;
      case Action::PauseAll: workspace.pauseAll(); break;
      case Action::ResumeAll: workspace.resumeAll(); break;
      case Action::StopAll: workspace.stopAll(); break;
      case Action::HardStopAll: workspace.hardStopAll(); break;
      case Action::Duck: workspace.duck(); break;
      case Action::Unduck: workspace.unduck(); break;
      case Action::Volume: workspace.setMasterVolume(e->gain); break;
    }
  }
  sendNotes();
  if (device) device->endSyncedActions();
}

bool SontoOfflineRender::waitForReadAhead(Workspace& workspace) {
  bool allReady = true;
  KyoPlainClock realTime;  // the fill threads run in real time, whatever the installed clock
  forEachAudioCue(workspace, [&](AudioCue& cue) {
    KyoAudioSource* source = engineSourceOf(cue);
    if (!source || !source->isValid() || !isActive(cue)) return;
    std::shared_ptr<KyoAudioMetaBuffer> buffer = source->buffer();
    if (!buffer) return;
    const double deadline = realTime.monotonicSeconds() + kReadAheadPatienceSeconds;
    while (!buffer->isReadyToRead(m_bufferFrames)) {
      // A read-ahead that never fills (its file went away) costs the patience once.
      if (m_gaveUpOn.count(buffer) || realTime.monotonicSeconds() > deadline) {
        m_gaveUpOn.insert(buffer);
        allReady = false;
        return;
      }
      realTime.sleepFor(0.0005);
    }
    m_gaveUpOn.erase(buffer);
  });
  return allReady;
}

SontoOfflineRender::Result SontoOfflineRender::render(Workspace& workspace, const std::vector<SontoScriptEvent>& events,
                                                      double seconds, const Sink& sink) {
  Result result;
  const bool untilDone = !(seconds > 0);
  const int64_t totalFrames =
      untilDone ? SontoEventScript::firstFrame(kUntilDoneCapSeconds, m_sampleRate)
                : std::max<int64_t>(1, SontoEventScript::firstFrame(seconds, m_sampleRate));
  const double cycleSeconds = double(m_bufferFrames) / m_sampleRate;
  // The cycle before which each event is applied: the first that starts at or after it.
  auto cycleOf = [&](const SontoScriptEvent& e) {
    return (SontoEventScript::firstFrame(e.time, m_sampleRate) + m_bufferFrames - 1) / m_bufferFrames;
  };
  m_heldKeys.clear();
  size_t next = 0;

  for (int64_t cycle = 0; result.frames < totalFrames; ++cycle) {
    m_clock.settle();
    size_t end = next;
    while (end < events.size() && cycleOf(events[end]) <= cycle) ++end;
    if (end > next) {
      applyEvents(workspace, events.data() + next, events.data() + end);
      next = end;
      m_clock.settle();
    }
    if (!waitForReadAhead(workspace)) ++result.lateCycles;
    const int32_t status = KyoHAL::shared().pullOffline(m_deviceID, 1);
    std::vector<std::vector<float>> block = KyoHAL::shared().offlineRecording(m_deviceID);
    KyoHAL::shared().clearOfflineRecording(m_deviceID);
    if (status != 0 || block.size() != m_channels || block[0].size() != m_bufferFrames) {
      result.deviceFailed = true;
      break;
    }
    const uint32_t frames = uint32_t(std::min<int64_t>(m_bufferFrames, totalFrames - result.frames));
    if (sink && !sink(block, frames)) {
      result.sinkRefused = true;
      break;
    }
    result.frames += frames;
    m_clock.advance(cycleSeconds);

    if (untilDone) {
      bool active = next < events.size();
      forEachAudioCue(workspace, [&](AudioCue& cue) { active = active || isActive(cue); });
      if (!active) break;
      if (result.frames >= totalFrames) result.reachedCap = true;
    }
  }
  m_clock.settle();
  return result;
}

std::vector<std::vector<float>> SontoOfflineRender::renderToMemory(Workspace& workspace,
                                                                   const std::vector<SontoScriptEvent>& events,
                                                                   double seconds, Result* result) {
  std::vector<std::vector<float>> channels(m_channels);
  Result done = render(workspace, events, seconds, [&](const std::vector<std::vector<float>>& block, uint32_t frames) {
    for (size_t c = 0; c < channels.size() && c < block.size(); ++c)
      channels[c].insert(channels[c].end(), block[c].begin(), block[c].begin() + frames);
    return true;
  });
  if (result) *result = done;
  return channels;
}
