#pragma once
// One hosted LV2 plugin at one stream format. A plugin whose audio ports match the
// stream's channels runs as one instance; a mono plugin on a wider stream runs one
// instance per channel, all with the same controls. Everything that allocates
// happens in create() and initialize(); render() only connects ports and runs.
//
// Threads: render() and process() on the render thread; parameter values and
// bypass from any thread (atomics); everything else on the main thread. A state
// restored while the unit plays goes into new instances that are swapped in between
// cycles; while the main thread holds the run lock for longer (reset, uninitialize)
// a cycle passes its input through unchanged.

#include <lilv/lilv.h>
#include <lv2/log/log.h>
#include <lv2/options/options.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audio/KyoAudioBufferList.h"
#include "audio/KyoAudioUnit.h"
#include "audio/KyoMutex.h"
#include "effects/KyoLV2Worker.h"

struct KyoLV2Port {
  enum class Kind { Audio, Control, CV, Atom, Unknown };
  uint32_t index = 0;
  std::string symbol;
  std::string name;
  Kind kind = Kind::Unknown;
  bool isInput = true;
  bool optional = false;
  bool toggled = false;
  bool integer = false;
  float minimum = 0.0f;
  float maximum = 1.0f;
  float defaultValue = 0.0f;
  uint32_t atomBufferSize = 0;  // bytes, for atom ports
};

// One control value as handed to lilv during a save.
union KyoStatePortValue {
  double d;
  float f;
};

struct KyoLV2Preset {
  std::string uri;
  std::string label;
};

class KyoLV2Unit final : public KyoAudioUnit {
 public:
  // Loads and instantiates the plugin at its own channel count until a format is
  // set. Null, with a log line and the status, when the plugin is not installed,
  // needs a feature this host lacks, has ports it cannot connect, or fails to
  // instantiate.
  static std::unique_ptr<KyoLV2Unit> create(const std::string& uri, int32_t* status = nullptr);
  ~KyoLV2Unit() override;

  const std::string& uri() const { return m_uri; }
  uint32_t pluginInputs() const { return (uint32_t)m_audioInputs.size(); }
  uint32_t pluginOutputs() const { return (uint32_t)m_audioOutputs.size(); }
  // The channel count of a side that the plugin accepts: its own count, or -1
  // (any count) for a mono plugin, which then runs once per channel.
  int32_t supportedChannels(bool input) const;

  // The format of the last initialize().
  double sampleRate() const { return m_sampleRate; }
  uint32_t channels() const { return m_channels; }
  size_t instanceCount() const { return m_instances.size(); }
  // The worker of an instance, null for a plugin that does not use one.
  const KyoLV2Worker* worker(size_t instance) const {
    return instance < m_instances.size() ? m_instances[instance].worker.get() : nullptr;
  }

  // Clears the plugin's memory (delay lines, reverb tails) by a deactivate and activate.
  int32_t reset(KyoAudioUnitScope scope, uint32_t element) override;

  // Parameters are the control inputs, by port index, in global scope; the bypass
  // and free-wheel controls are the host's and not listed.
  const std::vector<KyoLV2Port>& ports() const { return m_ports; }
  const std::vector<uint32_t>& parameterIDs() const { return m_parameters; }
  const KyoLV2Port* parameter(uint32_t id) const;
  float parameterValue(uint32_t id) const;
  // Clamped to the port's range. False for an id that is no parameter.
  bool setParameterValue(uint32_t id, float value);
  int32_t setParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t element, float value,
                       uint32_t bufferOffsetInFrames = 0) override;
  int32_t getParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t element, float* value) const override;
  std::vector<KyoAudioUnitParameterInfo> parameterList(KyoAudioUnitScope scope) const override;

  // Bypass through the plugin's own enable control where it has one (click-free),
  // else by passing the input through.
  void setBypass(bool bypass) { m_bypass.store(bypass, std::memory_order_relaxed); }
  bool bypass() const { return m_bypass.load(std::memory_order_relaxed); }

  // Seconds, from the plugin's latency output after its last run.
  double latency() const override;
  // Seconds that the sound rings on after the input stops: LV2 has no property
  // for it, so it is a guess by the plugin's class.
  double tailTime() const override;

  // The complete state as text: control values and whatever the plugin keeps
  // through the state extension. The label travels with it (the preset's name).
  std::string saveState(const std::string& label = "") const;
  bool restoreState(const std::string& text, std::string* label = nullptr);

  // The plugin's own presets, sorted by label.
  std::vector<KyoLV2Preset> factoryPresets() const;
  bool loadPreset(const std::string& presetURI);
  // Writes the complete state as an LV2 preset bundle (a manifest and the file) that
  // other hosts read too. False when the unit has no instance or lilv cannot write.
  bool savePreset(const std::string& bundleDir, const std::string& fileName, const std::string& label) const;

  // The plugin and its first instance, for a plugin interface that asks for direct
  // access. Null before the first instantiate; a restore that swaps instances
  // changes the handle.
  const LilvPlugin* plugin() const { return m_plugin; }
  void* instanceHandle() const {
    return m_instances.empty() ? nullptr : lilv_instance_get_handle(m_instances[0].instance);
  }

  // Render thread. Input and output may be the same list (processing in place).
  // Both need at least channels() non-interleaved buffers; longer calls than the
  // maximum frames per slice are run in pieces.
  void process(const AudioBufferList* input, AudioBufferList* output, uint32_t frames);

  // Pulls input bus 0 into ioData and processes it in place.
  int32_t render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t outputElement,
                 uint32_t frames, AudioBufferList* ioData) override;
  void registerRenderInfo(KyoRenderInfo* info) override { KyoRegisterRenderInfo(this, info); }

 protected:
  // Instantiates again if the format changed since the last time, keeping the
  // plugin's state, then activates.
  int32_t initializeUnit() override;
  void uninitializeUnit() override;
  bool canSetElementCount(KyoAudioUnitScope scope, uint32_t count) const override { return count == 1; }
  bool canSetStreamFormat(KyoAudioUnitScope scope, uint32_t element,
                          const KyoAudioStreamDescription& format) const override;

 private:
  struct Instance {
    LilvInstance* instance = nullptr;
    std::vector<float> controls;                   // by port index
    std::vector<std::vector<uint64_t>> atoms;      // by port index, 8-byte aligned
    std::vector<std::vector<float>> scratch;       // by port index: CV ports, and outputs of in-place-broken plugins
    // Only for plugins that use the worker; its feature is in this instance's list.
    std::unique_ptr<KyoLV2Worker> worker;
    std::vector<const LV2_Feature*> features;
  };

  KyoLV2Unit() : KyoAudioUnit(1, 1) {}
  bool instantiate();
  void destroyInstances();
  bool instantiateSet(std::vector<Instance>& set);
  static void destroySet(std::vector<Instance>& set);
  bool restore(const LilvState* state, std::string* label);
  void runBlock(Instance& instance, size_t index, const AudioBufferList* input, AudioBufferList* output,
                uint32_t offset, uint32_t frames, bool bypassed);
  static void passThrough(const AudioBufferList* input, AudioBufferList* output, uint32_t frames);
  static const void* getPortValue(const char* symbol, void* self, uint32_t* size, uint32_t* type);
  static void setPortValue(const char* symbol, void* self, const void* value, uint32_t size, uint32_t type);
  int32_t portIndexForSymbol(const char* symbol) const;
  uint32_t instancesNeeded() const;
  // A plugin of one input and one output runs once per channel.
  bool isPerChannel() const { return pluginInputs() == 1 && pluginOutputs() == 1; }
  // A mono stream through a plugin of several channels.
  bool fitsMono() const;

  std::string m_uri;
  const LilvPlugin* m_plugin = nullptr;
  std::vector<KyoLV2Port> m_ports;
  std::vector<uint32_t> m_parameters;
  std::vector<uint32_t> m_audioInputs;
  std::vector<uint32_t> m_audioOutputs;
  int32_t m_latencyPort = -1;
  int32_t m_enabledPort = -1;
  int32_t m_freeWheelPort = -1;
  bool m_inPlaceBroken = false;
  bool m_hasStateInterface = false;
  bool m_usesWorker = false;
  double m_tailTime = 0.0;
  uint32_t m_sequenceType = 0;  // URIDs mapped ahead, since mapping takes a lock
  uint32_t m_chunkType = 0;

  double m_sampleRate = 48000.0;
  uint32_t m_channels = 0;
  uint32_t m_maxFrames = 4096;
  double m_instantiatedRate = 0.0;
  uint32_t m_instantiatedMaxFrames = 0;

  // Feature data handed to the plugin; it may keep pointers to them for its life.
  int32_t m_minBlock = 0;
  int32_t m_maxBlock = 0;
  int32_t m_nominalBlock = 0;
  float m_rateOption = 0.0f;
  LV2_Options_Option m_options[5] = {};
  LV2_Log_Log m_log = {};
  LV2_Feature m_mapFeature = {};
  LV2_Feature m_unmapFeature = {};
  LV2_Feature m_optionsFeature = {};
  LV2_Feature m_boundedFeature = {};
  LV2_Feature m_logFeature = {};
  const LV2_Feature* m_features[6] = {};

  std::vector<Instance> m_instances;
  // Control values by port index: inputs written by any thread and copied into
  // each instance before its run; outputs published after the run.
  std::unique_ptr<std::atomic<float>[]> m_values;
  mutable std::vector<KyoStatePortValue> m_stateScratch;  // port values handed to lilv during a save
  std::atomic<bool> m_bypass{false};
  std::atomic<bool> m_active{false};
  // True while restored instances are being swapped in under the run lock.
  // Odd while a swap of restored instances is under way: counted up once before the
  // swap takes the run lock and once after it lets go.
  std::atomic<uint32_t> m_swapSequence{0};
  static_assert(std::atomic<float>::is_always_lock_free);
  static_assert(std::atomic<bool>::is_always_lock_free);

  // Taken by the main thread around anything that must not overlap a run; only
  // ever tried by the render thread.
  mutable KyoMutex m_runLock;
};
