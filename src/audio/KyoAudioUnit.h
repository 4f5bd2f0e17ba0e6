#pragma once
// One unit of a render stream: an effect (an LV2 plugin) or a mixer of ours. A unit has
// input and output busses ("elements"), a stream format on each, parameters that any
// thread may write while it renders, and a render of one output bus that pulls its
// inputs: each input is either a render callback (a KyoRenderInfo) or the output of
// another unit. Streams are never started: the last unit is pulled by hand.
//
// Threads. Configuration (element counts, formats, callbacks, connections, the maximum
// frames, initialize, uninitialize, reset, properties) runs on a non-render thread
// while the owner keeps the render thread out (the owner's render mutex, or a stream
// that nothing pulls yet). render() runs on the render thread only: no allocation, no
// lock, no file, no log. setParameter() and getParameter() may come from any thread at
// any time, render included; units keep their parameters in atomics.
//
// Formats are the engine's canonical one: 32-bit float, non-interleaved, one buffer per
// channel; busses differ in channel count only. Render sizes: a unit renders at most
// maximumFramesPerSlice() frames per call, and sizes its buffers for that in initialize().

#include <atomic>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "audio/KyoAudioBufferList.h"
#include "audio/KyoAudioRendering.h"
#include "audio/KyoAudioStreamDescription.h"

enum KyoAudioUnitScope : uint32_t {
  kKyoAudioUnitScope_Global = 0,
  kKyoAudioUnitScope_Input = 1,
  kKyoAudioUnitScope_Output = 2,
};

// Statuses, with the numbers a platform unit would answer.
inline constexpr int32_t kKyoAudioUnitErr_InvalidProperty = -10879;
inline constexpr int32_t kKyoAudioUnitErr_InvalidParameter = -10878;
inline constexpr int32_t kKyoAudioUnitErr_InvalidElement = -10877;
inline constexpr int32_t kKyoAudioUnitErr_NoConnection = -10876;
inline constexpr int32_t kKyoAudioUnitErr_FailedInitialization = -10875;
inline constexpr int32_t kKyoAudioUnitErr_TooManyFramesToProcess = -10874;
inline constexpr int32_t kKyoAudioUnitErr_FormatNotSupported = -10868;
inline constexpr int32_t kKyoAudioUnitErr_Uninitialized = -10867;
inline constexpr int32_t kKyoAudioUnitErr_InvalidScope = -10866;
inline constexpr int32_t kKyoAudioUnitErr_PropertyNotWritable = -10865;
inline constexpr int32_t kKyoAudioUnitErr_CannotDoInCurrentContext = -10863;
inline constexpr int32_t kKyoAudioUnitErr_InvalidPropertyValue = -10851;

// Property numbers for getProperty/setProperty (data and sizes as noted).
inline constexpr uint32_t kKyoAudioUnitProperty_StreamFormat = 8;            // AudioStreamBasicDescription
inline constexpr uint32_t kKyoAudioUnitProperty_ElementCount = 11;           // uint32_t
inline constexpr uint32_t kKyoAudioUnitProperty_Latency = 12;                // double, seconds, read only
inline constexpr uint32_t kKyoAudioUnitProperty_MaximumFramesPerSlice = 14;  // uint32_t
inline constexpr uint32_t kKyoAudioUnitProperty_TailTime = 20;               // double, seconds, read only
inline constexpr uint32_t kKyoAudioUnitProperty_SetRenderCallback = 23;      // KyoRenderInfo, input scope
inline constexpr uint32_t kKyoAudioUnitProperty_MatrixLevels = 3006;         // float[], see KyoMatrixMixer
inline constexpr uint32_t kKyoAudioUnitProperty_MeteringMode = 3007;         // uint32_t
inline constexpr uint32_t kKyoAudioUnitProperty_MatrixDimensions = 3009;     // uint32_t[2], read only

struct KyoAudioUnitParameterInfo {
  uint32_t parameterID = 0;
  KyoAudioUnitScope scope = kKyoAudioUnitScope_Global;
  std::string name;
  float minValue = 0;
  float maxValue = 1;
  float defaultValue = 0;
};

class KyoAudioUnit : public KyoAudioRendering {
 public:
  static constexpr uint32_t kDefaultMaximumFramesPerSlice = 4096;

  KyoAudioUnit(uint32_t inputElements, uint32_t outputElements) {
    m_inputFormats.assign(inputElements, defaultFormat());
    m_outputFormats.assign(outputElements, defaultFormat());
    m_inputs.assign(inputElements, Input{});
  }
  ~KyoAudioUnit() override = default;
  KyoAudioUnit(const KyoAudioUnit&) = delete;
  KyoAudioUnit& operator=(const KyoAudioUnit&) = delete;

  // --- Busses and formats (configuration thread, uninitialized) ---

  uint32_t elementCount(KyoAudioUnitScope scope) const {
    if (scope == kKyoAudioUnitScope_Input) return uint32_t(m_inputFormats.size());
    if (scope == kKyoAudioUnitScope_Output) return uint32_t(m_outputFormats.size());
    return scope == kKyoAudioUnitScope_Global ? 1 : 0;
  }

  // Units with a fixed shape override canSetElementCount to refuse.
  int32_t setElementCount(KyoAudioUnitScope scope, uint32_t count) {
    if (scope != kKyoAudioUnitScope_Input && scope != kKyoAudioUnitScope_Output)
      return kKyoAudioUnitErr_InvalidScope;
    if (m_initialized) return kKyoAudioUnitErr_CannotDoInCurrentContext;
    if (!canSetElementCount(scope, count)) return kKyoAudioUnitErr_PropertyNotWritable;
    if (scope == kKyoAudioUnitScope_Input) {
      m_inputFormats.resize(count, defaultFormat());
      m_inputs.resize(count, Input{});
    } else {
      m_outputFormats.resize(count, defaultFormat());
    }
    return 0;
  }

  std::optional<KyoAudioStreamDescription> streamFormat(KyoAudioUnitScope scope, uint32_t element) const {
    const auto* formats = formatsOf(scope);
    if (!formats || element >= formats->size()) return std::nullopt;
    return (*formats)[element];
  }

  int32_t setStreamFormat(KyoAudioUnitScope scope, uint32_t element, const KyoAudioStreamDescription& format) {
    auto* formats = formatsOf(scope);
    if (!formats) return kKyoAudioUnitErr_InvalidScope;
    if (element >= formats->size()) return kKyoAudioUnitErr_InvalidElement;
    if (!format.isLinearPCMFormat() || format.bitsPerChannel() != 32 || format.isInterleaved() ||
        format.channels() == 0 || format.sampleRate() <= 0 || !canSetStreamFormat(scope, element, format))
      return kKyoAudioUnitErr_FormatNotSupported;
    if (m_initialized && !((*formats)[element] == format)) return kKyoAudioUnitErr_CannotDoInCurrentContext;
    (*formats)[element] = format;
    return 0;
  }

  // Channels of a bus, 0 for a bus that isn't there.
  uint32_t channelCount(KyoAudioUnitScope scope, uint32_t element) const {
    const auto* formats = formatsOf(scope);
    return formats && element < formats->size() ? (*formats)[element].channels() : 0;
  }

  uint32_t maximumFramesPerSlice() const { return m_maximumFrames; }
  int32_t setMaximumFramesPerSlice(uint32_t frames) {
    if (frames == 0) return kKyoAudioUnitErr_InvalidPropertyValue;
    if (m_initialized && frames != m_maximumFrames) return kKyoAudioUnitErr_CannotDoInCurrentContext;
    m_maximumFrames = frames;
    return 0;
  }

  // --- Inputs (configuration thread; may change on an initialized unit) ---

  // The input bus pulls audio by calling callback with bus number = the input element.
  int32_t setRenderCallback(uint32_t inputElement, const KyoRenderInfo& callback) {
    if (inputElement >= m_inputs.size()) return kKyoAudioUnitErr_InvalidElement;
    m_inputs[inputElement] = Input{nullptr, 0, callback};
    return 0;
  }
  // The input bus pulls the given output bus of another unit.
  int32_t connectInput(uint32_t inputElement, KyoAudioUnit* source, uint32_t sourceOutput) {
    if (inputElement >= m_inputs.size()) return kKyoAudioUnitErr_InvalidElement;
    if (!source || sourceOutput >= source->elementCount(kKyoAudioUnitScope_Output))
      return kKyoAudioUnitErr_InvalidElement;
    m_inputs[inputElement] = Input{source, sourceOutput, KyoRenderInfo{}};
    return 0;
  }
  int32_t disconnectInput(uint32_t inputElement) {
    if (inputElement >= m_inputs.size()) return kKyoAudioUnitErr_InvalidElement;
    m_inputs[inputElement] = Input{};
    return 0;
  }
  bool hasInput(uint32_t inputElement) const {
    return inputElement < m_inputs.size() && (m_inputs[inputElement].unit || m_inputs[inputElement].callback.method);
  }
  KyoAudioUnit* inputUnit(uint32_t inputElement) const {
    return inputElement < m_inputs.size() ? m_inputs[inputElement].unit : nullptr;
  }

  // --- Life ---

  int32_t initialize() {
    if (m_initialized) return 0;
    int32_t status = initializeUnit();
    if (status == 0) m_initialized = true;
    return status;
  }
  int32_t uninitialize() {
    if (!m_initialized) return 0;
    m_initialized = false;
    uninitializeUnit();
    return 0;
  }
  bool isInitialized() const { return m_initialized; }

  // Clears delay lines, smoothing and meters; never allocates.
  virtual int32_t reset(KyoAudioUnitScope scope, uint32_t element) { return 0; }

  // --- Parameters (any thread) ---

  virtual int32_t setParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t element, float value,
                               uint32_t bufferOffsetInFrames = 0) {
    return kKyoAudioUnitErr_InvalidParameter;
  }
  virtual int32_t getParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t element,
                               float* value) const {
    return kKyoAudioUnitErr_InvalidParameter;
  }
  virtual std::vector<KyoAudioUnitParameterInfo> parameterList(KyoAudioUnitScope scope) const { return {}; }

  // --- Seconds of delay through the unit, and of sound after the input went silent ---

  virtual double latency() const { return 0; }
  virtual double tailTime() const { return 0; }

  // --- Properties by number: the common ones here, units add their own ---

  virtual int32_t getProperty(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element, void* data,
                              uint32_t* ioSize) const {
    if (!data || !ioSize) return kKyoAudioUnitErr_InvalidPropertyValue;
    switch (propertyID) {
      case kKyoAudioUnitProperty_StreamFormat: {
        auto format = streamFormat(scope, element);
        if (!format) return kKyoAudioUnitErr_InvalidElement;
        return copyOut(format->streamDescription(), data, ioSize);
      }
      case kKyoAudioUnitProperty_ElementCount:
        return copyOut(elementCount(scope), data, ioSize);
      case kKyoAudioUnitProperty_MaximumFramesPerSlice:
        return copyOut(m_maximumFrames, data, ioSize);
      case kKyoAudioUnitProperty_Latency:
        return copyOut(latency(), data, ioSize);
      case kKyoAudioUnitProperty_TailTime:
        return copyOut(tailTime(), data, ioSize);
      default:
        return kKyoAudioUnitErr_InvalidProperty;
    }
  }
  // The size in bytes that getProperty answers for a property, and whether setProperty
  // takes it. Statuses as getProperty: kKyoAudioUnitErr_InvalidProperty for a property
  // the unit does not have. Either pointer may be null.
  virtual int32_t getPropertyInfo(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element, uint32_t* outSize,
                                  bool* outWritable) const {
    uint32_t size = 0;
    bool writable = false;
    switch (propertyID) {
      case kKyoAudioUnitProperty_StreamFormat:
        if (!streamFormat(scope, element)) return kKyoAudioUnitErr_InvalidElement;
        size = sizeof(AudioStreamBasicDescription);
        writable = true;
        break;
      case kKyoAudioUnitProperty_ElementCount:
        size = sizeof(uint32_t);
        writable = (scope == kKyoAudioUnitScope_Input || scope == kKyoAudioUnitScope_Output) &&
                   canSetElementCount(scope, elementCount(scope) + 1);
        break;
      case kKyoAudioUnitProperty_MaximumFramesPerSlice:
        size = sizeof(uint32_t);
        writable = true;
        break;
      case kKyoAudioUnitProperty_Latency:
      case kKyoAudioUnitProperty_TailTime:
        size = sizeof(double);
        break;
      case kKyoAudioUnitProperty_SetRenderCallback:
        if (scope != kKyoAudioUnitScope_Input) return kKyoAudioUnitErr_InvalidScope;
        size = sizeof(KyoRenderInfo);
        writable = true;
        break;
      default:
        return kKyoAudioUnitErr_InvalidProperty;
    }
    if (outSize) *outSize = size;
    if (outWritable) *outWritable = writable;
    return 0;
  }
  virtual int32_t setProperty(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element, const void* data,
                              uint32_t size) {
    if (!data) return kKyoAudioUnitErr_InvalidPropertyValue;
    switch (propertyID) {
      case kKyoAudioUnitProperty_StreamFormat: {
        if (size != sizeof(AudioStreamBasicDescription)) return kKyoAudioUnitErr_InvalidPropertyValue;
        AudioStreamBasicDescription d;
        std::memcpy(&d, data, sizeof d);
        return setStreamFormat(scope, element, KyoAudioStreamDescription(d));
      }
      case kKyoAudioUnitProperty_ElementCount:
        if (size != sizeof(uint32_t)) return kKyoAudioUnitErr_InvalidPropertyValue;
        return setElementCount(scope, *static_cast<const uint32_t*>(data));
      case kKyoAudioUnitProperty_MaximumFramesPerSlice:
        if (size != sizeof(uint32_t)) return kKyoAudioUnitErr_InvalidPropertyValue;
        return setMaximumFramesPerSlice(*static_cast<const uint32_t*>(data));
      case kKyoAudioUnitProperty_SetRenderCallback:
        if (size != sizeof(KyoRenderInfo) || scope != kKyoAudioUnitScope_Input)
          return kKyoAudioUnitErr_InvalidPropertyValue;
        return setRenderCallback(element, *static_cast<const KyoRenderInfo*>(data));
      case kKyoAudioUnitProperty_Latency:
      case kKyoAudioUnitProperty_TailTime:
        return kKyoAudioUnitErr_PropertyNotWritable;
      default:
        return kKyoAudioUnitErr_InvalidProperty;
    }
  }

  // --- Rendering (render thread) ---

  // Renders frames of one output bus into ioData, whose buffers the caller provides
  // (one per channel of that bus, each at least frames long). Answers
  // kKyoAudioUnitErr_Uninitialized before initialize() and
  // kKyoAudioUnitErr_TooManyFramesToProcess above maximumFramesPerSlice().
  int32_t render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t outputElement,
                 uint32_t frames, AudioBufferList* ioData) override = 0;

  // Calls the virtual render; a final class may register a direct call instead.
  void registerRenderInfo(KyoRenderInfo* info) override {
    if (!info) return;
    info->target = this;
    info->selector = kKyoRenderSelector;
    info->method = [](void* target, uint32_t* flags, const KyoAudioTimeStamp* ts, uint32_t bus, uint32_t frames,
                      AudioBufferList* data) -> int32_t {
      return static_cast<KyoAudioUnit*>(target)->render(flags, ts, bus, frames, data);
    };
  }

 protected:
  // Allocates what render needs for the present formats and maximumFramesPerSlice().
  virtual int32_t initializeUnit() { return 0; }
  virtual void uninitializeUnit() {}
  virtual bool canSetElementCount(KyoAudioUnitScope scope, uint32_t count) const { return true; }
  virtual bool canSetStreamFormat(KyoAudioUnitScope scope, uint32_t element,
                                  const KyoAudioStreamDescription& format) const {
    return true;
  }

  // Pulls an input bus into list (render thread). No input: kKyoAudioUnitErr_NoConnection.
  int32_t pullInput(uint32_t inputElement, uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp,
                    uint32_t frames, AudioBufferList* list) const {
    if (inputElement >= m_inputs.size()) return kKyoAudioUnitErr_InvalidElement;
    const Input& input = m_inputs[inputElement];
    if (input.unit) return input.unit->render(ioActionFlags, timeStamp, input.unitOutput, frames, list);
    if (input.callback.method) return input.callback.call(ioActionFlags, timeStamp, inputElement, frames, list);
    return kKyoAudioUnitErr_NoConnection;
  }

  template <class T>
  static int32_t copyOut(const T& value, void* data, uint32_t* ioSize) {
    if (*ioSize < sizeof(T)) return kKyoAudioUnitErr_InvalidPropertyValue;
    std::memcpy(data, &value, sizeof(T));
    *ioSize = sizeof(T);
    return 0;
  }

 private:
  struct Input {
    KyoAudioUnit* unit = nullptr;  // a connection, not owned: the stream owns its units
    uint32_t unitOutput = 0;
    KyoRenderInfo callback;
  };

  static KyoAudioStreamDescription defaultFormat() { return KyoAudioStreamDescription(44100.0, 2); }

  std::vector<KyoAudioStreamDescription>* formatsOf(KyoAudioUnitScope scope) {
    if (scope == kKyoAudioUnitScope_Input) return &m_inputFormats;
    if (scope == kKyoAudioUnitScope_Output) return &m_outputFormats;
    return nullptr;
  }
  const std::vector<KyoAudioStreamDescription>* formatsOf(KyoAudioUnitScope scope) const {
    return const_cast<KyoAudioUnit*>(this)->formatsOf(scope);
  }

  std::vector<KyoAudioStreamDescription> m_inputFormats;
  std::vector<KyoAudioStreamDescription> m_outputFormats;
  std::vector<Input> m_inputs;
  uint32_t m_maximumFrames = kDefaultMaximumFramesPerSlice;
  bool m_initialized = false;
};
