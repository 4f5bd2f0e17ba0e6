#pragma once
// Shared effect chains for many sources, as an aux send on a mixing desk. To its
// sources it looks like a device: 500 busses and a render map. To the device it is one
// thing on one bus of 48 channels. Inside, a split mixer takes every source, passes the
// 48 main channels straight on and the aux channels (behind them) through the effect
// busses, and a merge mixer joins it all back into 48 channels.
//
// Channel numbers run on through the busses of both mixers: aux channel a is channel
// 48 + a at the end of the split mixer and at the input of the merge mixer. Aux returns
// stay silent on the merge mixer until setAuxCrosspointVolume() routes them.
//
// Threads. The main thread sets the device and the effect busses (each a rebuild),
// attaches and detaches. The device's render thread calls render(), and through the
// split mixer _finalRender() for each enabled bus. Volume writes may come from any thread.
//
// Locks. m_renderMutex: the render thread once per cycle, inside the device's render
// mutex and outside the sources' own; attach and detach around the map and the enable;
// a rebuild, which clears m_validStream first so that a render that comes later goes
// to silence instead of waiting. m_levelsMutex: volume writers and the rebuild (inside
// m_renderMutex), so that nobody writes to a mixer unit that a rebuild replaces; the
// render thread never takes it.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/KyoAudioBusses.h"
#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioRendering.h"
#include "audio/KyoAudioStreamDescription.h"
#include "audio/KyoMutex.h"
#include "audio/KyoStream.h"

class KyoEffect;
class KyoEffectBus;

// Posted on the main thread, with the send as sender, after each successful rebuild:
// the sources that play through it rebuild, since the format they feed may have changed.
inline constexpr const char* kKyoAudioSendDidUpdateStreamNotification = "KyoAudioSendDidUpdateStream";

class KyoAudioSend final : public KyoAudioSending, public std::enable_shared_from_this<KyoAudioSend> {
 public:
  // Null, with "Error: KyoAudioSend could not create a stream.", when the stream or a
  // mixer cannot be made. Main thread.
  static std::shared_ptr<KyoAudioSend> create();
  ~KyoAudioSend() override;
  KyoAudioSend(const KyoAudioSend&) = delete;
  KyoAudioSend& operator=(const KyoAudioSend&) = delete;

  // --- Settings (main thread) ---
  KyoAudioDevice* device() const override { return m_device.get(); }
  std::shared_ptr<KyoAudioDevice> sharedDevice() const { return m_device; }
  void setDevice(std::shared_ptr<KyoAudioDevice> device);
  // A send on a device looks like a source without a send.
  std::shared_ptr<KyoAudioSending> send() const override { return nullptr; }
  // The format that its sources have to produce: the device's bus format, 48 channels
  // plus the aux channels. Nothing while the send is invalid.
  const std::optional<KyoAudioStreamDescription>& inputFormat() const { return m_inputFormat; }
  uint32_t auxChannels() const { return m_auxChannels.load(); }
  uint32_t splitMixerInChannels() const { return m_splitMixerInChannels.load(); }
  bool isValid() const { return m_validStream.load(); }

  std::vector<std::shared_ptr<KyoEffectBus>> effectBusses() const { return m_effectBusses; }
  // Nothing, or a bus already in, is ignored.
  void addEffectBus(const std::shared_ptr<KyoEffectBus>& bus);
  void removeEffectBus(const std::shared_ptr<KyoEffectBus>& bus);
  void removeAllEffectBusses();
  // Aux channels count from 1 across the busses; 0 and past the end answer nothing.
  std::shared_ptr<KyoEffectBus> busAtChannel(uint32_t channel) const;
  void updateStream();

  // --- Busses for sources (main thread, from the device's attach and detach) ---
  bool hasAudioAttached() const override { return m_busses.hasAudio(); }
  bool _attachAudio(const std::shared_ptr<KyoAudioAttachable>& audio) override;
  void _detachAudio(KyoAudioAttachable* audio) override;
  // The enable of an input bus of the split mixer; nothing above 499 or without a mixer.
  void _setEnabled(bool enabled, uint32_t bus);
  // The bus an object holds, or nothing (tests and diagnostics).
  std::optional<uint32_t> _busOfAudio(const KyoAudioAttachable* audio) const { return m_busses.busOf(audio); }
  size_t _freeBusCount() const { return m_busses.freeCount(); }

  // --- Volumes: linear gains (any thread; nothing while invalid) ---
  KyoEffect* splitMixer() const { return m_splitMixer.get(); }
  KyoEffect* mergeMixer() const { return m_mergeMixer.get(); }
  void _setMasterVolume(float volume, KyoEffect* mixer);
  void _setOutputVolume(float volume, uint32_t channel, KyoEffect* mixer);
  void _setRawInputVolume(float volume, uint32_t channel, KyoEffect* mixer);
  void _setRawCrosspointVolume(float volume, uint32_t input, uint32_t output, KyoEffect* mixer);
  // A channel of one bus, written on all 500 busses of the split mixer.
  void _setSplitterInputVolume(float volume, uint32_t channel);
  void _setSplitterCrosspointVolume(float volume, uint32_t input, uint32_t output);
  // Routes aux return channel input (counted from 0 among the aux channels) to a main
  // channel on the merge mixer.
  void setAuxCrosspointVolume(float volume, uint32_t input, uint32_t output);
  void _printVolumesForMixer(KyoEffect* mixer) const;

  std::string description() const override;

  // --- Rendering (render thread) ---
  void registerRenderInfo(KyoRenderInfo* info) override { KyoRegisterRenderInfo(this, info); }
  int32_t render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber, uint32_t frames,
                 AudioBufferList* ioData) override;
  void _registerFinalRenderInfo(KyoRenderInfo* info);
  int32_t _finalRender(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber, uint32_t frames,
                       AudioBufferList* ioData);

 private:
  KyoAudioSend() = default;
  // The rebuild proper, under both mutexes; answers whether the stream stands.
  bool rebuildLocked(const std::optional<KyoAudioStreamDescription>& deviceFormat, uint32_t maximumFrames);
  void tearDownLocked();
  // With m_levelsMutex held: a volume parameter of a mixer, if it is built.
  void setMixerVolume(KyoEffect* mixer, float volume, uint32_t scope, uint32_t element);

  std::shared_ptr<KyoAudioDevice> m_device;
  std::unique_ptr<KyoStream> m_stream;
  std::atomic<bool> m_validStream{false};
  std::shared_ptr<KyoEffect> m_splitMixer, m_mergeMixer;
  KyoRenderInfo m_mergeMixerRenderInfo;
  KyoRenderInfo m_finalRenderInfo;
  // Written by the rebuild, read by volume writers on any thread.
  std::atomic<uint32_t> m_auxChannels{0};
  std::atomic<uint32_t> m_splitMixerInChannels{0};
  std::optional<KyoAudioStreamDescription> m_inputFormat;
  std::vector<std::shared_ptr<KyoEffectBus>> m_effectBusses;
  std::vector<std::shared_ptr<KyoEffectBus>> m_deadBusses;  // off the list, still in the graph

  KyoAudioBusses m_busses;  // main thread; the map's entries also under m_renderMutex

  mutable KyoMutex m_renderMutex;
  mutable std::mutex m_levelsMutex;
};

static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<uint32_t>::is_always_lock_free);
