#pragma once
// An output device: a view over the device layer (KyoHAL) that reads every property
// afresh, and, once open, the render engine of the device: a matrix mixer of 500
// busses of 48 logical channels, one attached object per bus called through a render
// record, a queue of actions that take effect together between two cycles, and the
// levels, fades and meters of the device.
//
// Threads. The main thread opens, closes, attaches, detaches and collects batches.
// The device's render thread runs the cycle (notifications, bus callbacks, the mixer).
// The device layer's listener thread delivers property changes and may close a device
// that died. Volume writes and fades may come from any thread.
//
// Locks, outermost first: m_engineMutex (main and listener threads: open, close,
// attach, detach, batches; never the render thread), then m_renderMutex (the render
// thread once per bus and per notification; others for a handful of instructions),
// then the mutex of a send, then that of a source. m_mixerMutex only guards the
// swapping of the mixer pointer for volume writers and is never held with another.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "audio/KyoAudioBusses.h"
#include "audio/KyoAudioReading.h"
#include "audio/KyoAudioRendering.h"
#include "audio/KyoAudioStreamDescription.h"
#include "audio/KyoHAL.h"
#include "audio/KyoMutex.h"

class KyoMatrixMixer;

inline constexpr const char* kKyoAudioHardwareDeviceListDidChangeNotification =
    "KyoAudioHardwareDeviceListDidChangeNotification";
inline constexpr const char* kKyoAudioHardwareDefaultInputDeviceDidChangeNotification =
    "KyoAudioHardwareDefaultInputDeviceDidChangeNotification";
inline constexpr const char* kKyoAudioHardwareDefaultOutputDeviceDidChangeNotification =
    "KyoAudioHardwareDefaultOutputDeviceDidChangeNotification";
inline constexpr const char* kKyoAudioHardwareDefaultSystemOutputDeviceDidChangeNotification =
    "KyoAudioHardwareDefaultSystemOutputDeviceDidChangeNotification";
// Sender: the device. User info: "AudioObjectID", "PropertySelector", "PropertyScope",
// "PropertyElement", each a uint32_t.
inline constexpr const char* kKyoAudioDevicePropertyDidChangeNotification =
    "KyoAudioDevicePropertyDidChangeNotification";

// Delegate of the class: hardware-wide changes, on the device layer's listener thread.
class KyoAudioDeviceClassDelegate {
 public:
  virtual ~KyoAudioDeviceClassDelegate() = default;
  virtual void audioHardwareDeviceListDidChange() {}
  virtual void audioHardwareDefaultInputDeviceDidChange() {}
  virtual void audioHardwareDefaultOutputDeviceDidChange() {}
  virtual void audioHardwareDefaultSystemOutputDeviceDidChange() {}
};

// Delegate of one device. Death, overload and rate changes arrive on the listener
// thread; open and close on the thread that opened or closed.
class KyoAudioDeviceDelegate {
 public:
  virtual ~KyoAudioDeviceDelegate() = default;
  virtual void audioDeviceDidDie(KyoAudioDevice* device) {}
  virtual void audioDeviceDidOverload(KyoAudioDevice* device) {}
  virtual void audioDeviceNominalSampleRateDidChange(KyoAudioDevice* device) {}
  virtual void audioDeviceDidOpen(KyoAudioDevice* device) {}
  virtual void audioDeviceDidClose(KyoAudioDevice* device) {}
};

class KyoAudioDevice : public KyoAudioReading, public std::enable_shared_from_this<KyoAudioDevice> {
 public:
  static constexpr uint32_t kMixerInputChannels = kKyoBusCount * kKyoLogicalChannels;  // 24000
  static constexpr double kFadeStepSeconds = 0.01;

  // --- Catalogue (any thread but the render thread) ---

  static KyoAudioDeviceClassDelegate* delegateOfClass();
  static void setDelegateOfClass(KyoAudioDeviceClassDelegate* delegate);

  static std::vector<std::shared_ptr<KyoAudioDevice>> allDevices();
  static std::vector<std::shared_ptr<KyoAudioDevice>> devicesWithInputsAndOutputs();
  static std::shared_ptr<KyoAudioDevice> defaultInputDevice();
  static std::shared_ptr<KyoAudioDevice> defaultOutputDevice();
  // A new object on every call; nothing for id 0.
  static std::shared_ptr<KyoAudioDevice> deviceWithID(KyoAudioObjectID deviceID);
  static std::shared_ptr<KyoAudioDevice> deviceWithUID(const std::string& uid);
  static std::shared_ptr<KyoAudioDevice> deviceWithName(const std::string& name);
  // This platform has no aggregate devices: nothing, and a line in the log once.
  static std::shared_ptr<KyoAudioDevice> createAggregateNamed(const std::string& name,
                                                             const std::vector<std::string>& deviceUIDs);

  ~KyoAudioDevice() override;
  KyoAudioDevice(const KyoAudioDevice&) = delete;
  KyoAudioDevice& operator=(const KyoAudioDevice&) = delete;

  std::string description() const { return name(); }
  KyoAudioDeviceDelegate* delegate() const { return m_delegate.load(); }
  void setDelegate(KyoAudioDeviceDelegate* delegate) { m_delegate.store(delegate); }
  bool died() const { return m_died.load(); }
  // The name of this device's client where the system names clients (JACK): taken
  // at the next open. Empty: "Sonto".
  void setClientName(const std::string& name);
  std::string clientName() const;
  KyoAudioObjectID deviceID() const { return m_deviceID; }

  std::string deviceUID() const;
  std::string deviceModelUID() const;
  std::string name() const;
  std::string manufacturer() const;
  double nominalSampleRate() const;
  uint32_t clockDomain() const;
  uint32_t bufferSize() const;  // bytes of one channel's buffer
  uint32_t bufferSizeInFrames() const;
  uint32_t maxVariableBufferSizeInFrames() const;
  uint32_t inputChannels() const;
  uint32_t outputChannels() const;
  KyoAudioStreamDescription inputStreamDescription() const;
  KyoAudioStreamDescription outputStreamDescription() const;
  uint32_t minBufferSizeInFrames() const;
  uint32_t maxBufferSizeInFrames() const;
  void setBufferSizeInFrames(uint32_t frames);
  bool isAggregate() const { return false; }
  std::optional<std::vector<std::string>> fullSubDeviceList() const;
  void setFullSubDeviceList(const std::vector<std::string>& deviceUIDs);
  void destroyAggregate();

  // --- Render engine (main thread unless said) ---

  void engage();
  void disengage();
  int32_t engaged() const;
  bool isOpen() const { return m_open.load(); }
  bool open();
  void close();

  bool enableInput() const { return m_enableInput.load(); }
  void setEnableInput(bool enable) { m_enableInput.store(enable); }

  // Private to the engine: sources and sends call these.
  bool _attachAudio(const std::shared_ptr<KyoAudioAttachable>& audio);
  void _detachAudio(KyoAudioAttachable* audio);
  int32_t _setEnabled(bool enabled, uint32_t bus);
  // The format that anyone feeding a bus has to produce; nothing when closed.
  std::optional<KyoAudioStreamDescription> _outFeedFormat() const;
  // The live input's format; nothing when closed or without input.
  std::optional<KyoAudioStreamDescription> _inFeedFormat() const;
  // The most frames one cycle asks of a bus (for sizing a source's buffers); 0 when closed.
  uint32_t _maximumFramesPerSlice() const;
  // The bus an object holds, or nothing (tests and diagnostics).
  std::optional<uint32_t> _busOfAudio(const KyoAudioAttachable* audio) const;
  size_t _freeBusCount() const;

  // The action queue. Collect a batch on one thread between start and end; its
  // actions all run in the same render notification, in the order given. Without a
  // batch an action runs at once on the calling thread.
  void startSyncedActions();
  void endSyncedActions();
  void performAction(void* target, KyoActionMethod method, const char* selector = nullptr);
  template <auto Member, class T>
  void performAction(T* target) {
    performAction(target, &KyoActionTrampoline<Member>, nullptr);
  }
  bool _batchIsOpen() const;

  // The live input as a reader (render thread, inside a bus's render).
  void registerReadFramesInfo(KyoReadFramesInfo* info) override { KyoRegisterReadFramesInfo(this, info); }
  uint32_t readFrames(uint32_t frames, AudioBufferList* list, uint32_t offset) override;

  // Render entries (render thread).
  int32_t notifyCallback(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber,
                         uint32_t frames, AudioBufferList* ioData);
  int32_t outRenderCallback(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber,
                            uint32_t frames, AudioBufferList* ioData);
  int32_t inRenderCallback(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber,
                           uint32_t frames, AudioBufferList* ioData);

  // --- Levels, fades and meters (any thread) ---

  float masterVolume() const;
  void setMasterVolume(float volume);
  // A logical channel (0 to 47), written on all 500 busses: channel, channel + 48, ...
  void setInputVolume(float volume, uint32_t channel);
  void setOutputVolume(float volume, uint32_t channel);
  void setCrosspointVolume(float volume, uint32_t input, uint32_t output);
  // Row 0 column 0: master; row 0: output column-1; column 0: input row-1; else crosspoint.
  void setVolume(float volume, uint32_t row, uint32_t column);
  void setSilentVolumes();
  void setSilentCrosspoints();
  void setDefaultVolumes();
  void _setRawInputVolume(float volume, uint32_t channel);
  void _setRawCrosspointVolume(float volume, uint32_t input, uint32_t output);

  // A raised-cosine fade of the master in steps of 10 ms on a thread of its own; a new
  // fade, or closing, ends the one before without its final write.
  void fadeToMasterVolume(float volume, double seconds);
  int32_t fadeIndex() const { return m_fadeIndex.load(); }
  static float _computeFadeWithStartVolume(float startVolume, float endVolume, double duration, double elapsed);

  // Decibels, post mixer, per device channel (ballistics in KyoMatrixMixer).
  float outPostAveragePowerAtChannel(uint32_t channel) const;
  float outPostPeakHoldLevelAtChannel(uint32_t channel) const;
  void printVolumes() const;

  // Samples that were not numbers (NaN, infinite) at the end of a cycle and went out
  // as silence instead, since this device opened. A broken effect or a hostile level
  // must not reach the speakers; a timer logs the count at most once a second.
  uint64_t nonFiniteSamplesReplaced() const { return m_nonFinite->replaced.load(std::memory_order_relaxed); }

 private:
  explicit KyoAudioDevice(KyoAudioObjectID deviceID);
  bool install();

  // Property reads, straight from the device layer each time.
  std::string _stringForProperty(uint32_t selector) const;
  uint32_t _unsignedIntForProperty(uint32_t selector) const;
  double _doubleForProperty(uint32_t selector) const;
  bool readProperties(KyoHALDeviceProperties& out, const char* function, int line) const;

  void _deviceChangedNotification(uint32_t objectID, uint32_t selector);
  void _fade(double duration, float finalVolume);
  std::shared_ptr<KyoMatrixMixer> currentMixer() const;
  // The open mixer's logical input channels and device channels; nothing when closed.
  struct MixerShape {
    uint32_t logical = 0;
    uint32_t device = 0;
  };
  std::optional<MixerShape> mixerShape() const;
  // A meter parameter of the mixer for a device channel; 0 and a log line when closed.
  float outputMeter(uint32_t parameter, uint32_t channel) const;
  // Answers whether the device was open.
  bool closeLocked(std::vector<std::shared_ptr<KyoAudioAttachable>>& released);
  void reclaimUsedActions();
  static void freeActionList(KyoActionInfo* node);
  static void ioProc(void* client, uint32_t frames, const AudioBufferList* input, AudioBufferList* output,
                     double sampleTime);

  std::atomic<KyoAudioDeviceDelegate*> m_delegate{nullptr};
  const KyoAudioObjectID m_deviceID;
  std::atomic<bool> m_enableInput{false};

  std::atomic<bool> m_open{false};
  std::atomic<bool> m_ioRunning{false};
  std::atomic<bool> m_died{false};
  std::atomic<int32_t> m_fadeIndex{0};
  int32_t m_engaged = 0;  // m_engineMutex

  // Open state, guarded by m_engineMutex for writers; the render thread reads it only
  // between startIO and stopIO, when it doesn't change.
  mutable std::mutex m_engineMutex;
  std::shared_ptr<KyoMatrixMixer> m_mixer;
  KyoMatrixMixer* m_renderMixer = nullptr;
  mutable std::mutex m_mixerMutex;
  std::optional<KyoAudioStreamDescription> m_mixerInDesc, m_mixerOutDesc, m_inputDesc;
  uint32_t m_maximumFrames = 0;
  KyoRenderInfo m_notifyInfo, m_outRenderInfo, m_inRenderInfo;
  AudioBufferList* m_bufferList = nullptr;  // last input block; m_renderMutex
  std::unique_ptr<KyoAudioBusses> m_busses;  // while open; the map's entries: m_renderMutex

  KyoActionInfo* m_actionsToSync = nullptr;  // the batch being collected: m_engineMutex
  KyoActionInfo* m_actions = nullptr;        // handed to the render thread: m_renderMutex
  // The last nodes of those two lists, so that a show that queues thousands of
  // actions or batches in one cycle appends in constant time: the batch's empty last
  // node (m_engineMutex), and the last node handed over, valid while m_actions is
  // not null (m_renderMutex; the render thread never reads it).
  KyoActionInfo* m_actionsToSyncTail = nullptr;
  KyoActionInfo* m_actionsTail = nullptr;
  // Nodes that the render thread has run. It must not free, so it pushes them here and
  // the next main-thread call of the queue (or close) frees them.
  std::atomic<KyoActionInfo*> m_usedActions{nullptr};

  KyoMutex m_renderMutex;

  uint64_t m_listenerToken = 0;
  uint64_t m_observerToken = 0;
  std::string m_clientName;  // m_engineMutex

  // Counted on the render thread, reported by a timer that outlives nothing of ours.
  struct NonFiniteCount {
    std::atomic<uint64_t> replaced{0};
    std::atomic<uint64_t> reported{0};
  };
  const std::shared_ptr<NonFiniteCount> m_nonFinite = std::make_shared<NonFiniteCount>();
  uint64_t m_nonFiniteTimer = 0;  // m_engineMutex; 0 when none runs
  const void* m_nonFiniteClock = nullptr;  // the clock it runs on, compared only: it may be gone
  void startNonFiniteReports();   // m_engineMutex held
  static uint32_t silenceNonFinite(AudioBufferList* output, uint32_t frames);
};

static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<int32_t>::is_always_lock_free);
static_assert(std::atomic<KyoActionInfo*>::is_always_lock_free);
