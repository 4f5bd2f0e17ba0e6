#include "effects/KyoLV2Unit.h"

#include <lv2/atom/atom.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/core/lv2.h>
#include <lv2/parameters/parameters.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "effects/KyoLV2World.h"
#include "foundation/KyoLog.h"

namespace {

// Reverbs ring longest; delays repeat for a while. Seconds.
constexpr double kReverbTailTime = 5.0;
constexpr double kDelayTailTime = 3.0;
// Atom buffers for ports that do not say how much they need, in bytes.
constexpr uint32_t kDefaultAtomBufferSize = 8192;
// Frames of silence run once after activation so that the latency output is known.
constexpr uint32_t kLatencyProbeFrames = 256;
constexpr double kDefaultSampleRate = 44100.0;

int pluginLog(LV2_Log_Handle, LV2_URID type, const char* format, va_list args) {
  KyoLV2World& world = KyoLV2World::shared();
  const char* kind = world.unmap(type);
  // Traces and notes are chatter; errors and warnings reach the log.
  if (kind && (strcmp(kind, LV2_LOG__Trace) == 0 || strcmp(kind, LV2_LOG__Note) == 0)) return 0;
  char text[512];
  int length = vsnprintf(text, sizeof text, format, args);
  size_t end = strnlen(text, sizeof text);
  while (end > 0 && text[end - 1] == '\n') text[--end] = 0;
  KyoLog("LV2 plugin: %s", text);
  return length;
}

int pluginPrintf(LV2_Log_Handle handle, LV2_URID type, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int length = pluginLog(handle, type, format, args);
  va_end(args);
  return length;
}

}  // namespace

std::unique_ptr<KyoLV2Unit> KyoLV2Unit::create(const std::string& uri, int32_t* status) {
  KyoLV2World& lv2 = KyoLV2World::shared();
  const KyoLV2Nodes& nodes = lv2.nodes();
  auto fail = [&](int32_t code, const std::string& why) -> std::unique_ptr<KyoLV2Unit> {
    KYO_LOG_STATUS_DETAIL(code, uri + ": " + why);
    if (status) *status = code;
    return nullptr;
  };

  const LilvPlugin* plugin = lv2.pluginForURI(uri);
  if (!plugin) return fail(kKyoComponentNotFound, "no such plugin is installed");

  const std::string missing = KyoLV2World::missingFeature(plugin);
  if (!missing.empty()) return fail(kKyoAudioUnitErr_FailedInitialization, "needs the host feature " + missing);

  std::unique_ptr<KyoLV2Unit> unit(new KyoLV2Unit());
  unit->m_uri = uri;
  unit->m_plugin = plugin;

  unit->m_sequenceType = lv2.map(LV2_ATOM__Sequence);
  unit->m_chunkType = lv2.map(LV2_ATOM__Chunk);
  LilvNode* designationPredicate = lilv_new_uri(lv2.world(), LV2_CORE__designation);
  struct NodeGuard {
    LilvNode* node;
    ~NodeGuard() { lilv_node_free(node); }
  } designationGuard{designationPredicate};

  const uint32_t count = lilv_plugin_get_num_ports(plugin);
  std::vector<float> minimums(count), maximums(count), defaults(count);
  lilv_plugin_get_port_ranges_float(plugin, minimums.data(), maximums.data(), defaults.data());
  unit->m_ports.resize(count);
  unit->m_values.reset(new std::atomic<float>[count]);
  unit->m_stateScratch.resize(count);
  for (uint32_t i = 0; i < count; ++i) {
    const LilvPort* lilvPort = lilv_plugin_get_port_by_index(plugin, i);
    KyoLV2Port& port = unit->m_ports[i];
    port.index = i;
    port.symbol = lilv_node_as_string(lilv_port_get_symbol(plugin, lilvPort));
    if (LilvNode* name = lilv_port_get_name(plugin, lilvPort)) {
      port.name = lilv_node_as_string(name);
      lilv_node_free(name);
    }
    port.isInput = lilv_port_is_a(plugin, lilvPort, nodes.inputPort);
    port.optional = lilv_port_has_property(plugin, lilvPort, nodes.connectionOptional);
    if (lilv_port_is_a(plugin, lilvPort, nodes.audioPort)) {
      port.kind = KyoLV2Port::Kind::Audio;
      (port.isInput ? unit->m_audioInputs : unit->m_audioOutputs).push_back(i);
    } else if (lilv_port_is_a(plugin, lilvPort, nodes.controlPort)) {
      port.kind = KyoLV2Port::Kind::Control;
    } else if (lilv_port_is_a(plugin, lilvPort, nodes.cvPort)) {
      port.kind = KyoLV2Port::Kind::CV;
    } else if (lilv_port_is_a(plugin, lilvPort, nodes.atomPort)) {
      port.kind = KyoLV2Port::Kind::Atom;
      port.atomBufferSize = kDefaultAtomBufferSize;
      if (LilvNode* size = lilv_port_get(plugin, lilvPort, nodes.minimumSize)) {
        if (lilv_node_is_int(size) && lilv_node_as_int(size) > 0) {
          port.atomBufferSize = std::max<uint32_t>(port.atomBufferSize, (uint32_t)lilv_node_as_int(size));
        }
        lilv_node_free(size);
      }
    } else if (!port.optional) {
      return fail(kKyoAudioUnitErr_FailedInitialization, "has the port '" + port.symbol + "' of a kind this host cannot connect");
    }

    port.minimum = std::isnan(minimums[i]) ? 0.0f : minimums[i];
    port.maximum = std::isnan(maximums[i]) ? 1.0f : maximums[i];
    port.defaultValue = std::isnan(defaults[i]) ? port.minimum : defaults[i];
    port.toggled = lilv_port_has_property(plugin, lilvPort, nodes.toggled);
    port.integer = lilv_port_has_property(plugin, lilvPort, nodes.integer);
    unit->m_values[i].store(port.kind == KyoLV2Port::Kind::Control ? port.defaultValue : 0.0f);

    if (port.kind == KyoLV2Port::Kind::Control) {
      LilvNode* designation = lilv_port_get(plugin, lilvPort, designationPredicate);
      const bool isLatency = !port.isInput && (lilv_port_has_property(plugin, lilvPort, nodes.reportsLatency) ||
                                               (designation && lilv_node_equals(designation, nodes.latencyDesignation)));
      if (isLatency && unit->m_latencyPort < 0) unit->m_latencyPort = (int32_t)i;
      if (port.isInput && designation && lilv_node_equals(designation, nodes.enabledDesignation)) {
        unit->m_enabledPort = (int32_t)i;
      } else if (port.isInput && designation && lilv_node_equals(designation, nodes.freeWheelingDesignation)) {
        unit->m_freeWheelPort = (int32_t)i;
      } else if (port.isInput) {
        unit->m_parameters.push_back(i);
      }
      lilv_node_free(designation);
    }
  }
  if (unit->m_audioInputs.empty() || unit->m_audioOutputs.empty()) {
    return fail(kKyoAudioUnitErr_FailedInitialization, "has no audio input or no audio output");
  }

  unit->m_inPlaceBroken = lilv_plugin_has_feature(plugin, nodes.inPlaceBroken);
  LilvNode* stateInterface = lilv_new_uri(lv2.world(), LV2_STATE__interface);
  unit->m_hasStateInterface = lilv_plugin_has_extension_data(plugin, stateInterface);
  lilv_node_free(stateInterface);
  LilvNode* workerInterface = lilv_new_uri(lv2.world(), LV2_WORKER__interface);
  LilvNode* workerSchedule = lilv_new_uri(lv2.world(), LV2_WORKER__schedule);
  unit->m_usesWorker = lilv_plugin_has_extension_data(plugin, workerInterface) ||
                       lilv_plugin_has_feature(plugin, workerSchedule);
  lilv_node_free(workerSchedule);
  lilv_node_free(workerInterface);
  const LilvNode* pluginURI = lilv_plugin_get_uri(plugin);
  if (lilv_world_ask(lv2.world(), pluginURI, nodes.rdfType, nodes.reverbPlugin)) {
    unit->m_tailTime = kReverbTailTime;
  } else if (lilv_world_ask(lv2.world(), pluginURI, nodes.rdfType, nodes.delayPlugin)) {
    unit->m_tailTime = kDelayTailTime;
  }

  // Until the owner sets formats, the unit stands at the default format where the
  // plugin takes any channel count, else at the plugin's own counts.
  if (unit->supportedChannels(true) > 0) {
    unit->setStreamFormat(kKyoAudioUnitScope_Input, 0, KyoAudioStreamDescription(kDefaultSampleRate, unit->pluginInputs()));
    unit->setStreamFormat(kKyoAudioUnitScope_Output, 0,
                          KyoAudioStreamDescription(kDefaultSampleRate, unit->pluginOutputs()));
  }
  unit->m_sampleRate = unit->streamFormat(kKyoAudioUnitScope_Input, 0)->sampleRate();
  unit->m_channels = unit->channelCount(kKyoAudioUnitScope_Input, 0);
  unit->m_maxFrames = unit->maximumFramesPerSlice();
  if (!unit->instantiate()) return fail(kKyoAudioUnitErr_FailedInitialization, "could not be instantiated");
  if (status) *status = 0;
  return unit;
}

KyoLV2Unit::~KyoLV2Unit() {
  uninitialize();
  uninitializeUnit();
  destroyInstances();
}

int32_t KyoLV2Unit::supportedChannels(bool input) const {
  if (pluginInputs() == 1 && pluginOutputs() == 1) return -1;
  return (int32_t)(input ? pluginInputs() : pluginOutputs());
}

uint32_t KyoLV2Unit::instancesNeeded() const {
  return (pluginInputs() == 1 && pluginOutputs() == 1) ? std::max<uint32_t>(1, m_channels) : 1;
}

// A mono stream fits any plugin with audio in and out: every input takes the one
// channel, and the outputs are averaged back into it (a stereo effect heard in mono).
bool KyoLV2Unit::canSetStreamFormat(KyoAudioUnitScope scope, uint32_t element,
                                    const KyoAudioStreamDescription& format) const {
  const int32_t supported = supportedChannels(scope == kKyoAudioUnitScope_Input);
  if (supported < 0 || (uint32_t)supported == format.channels()) return true;
  return format.channels() == 1 && pluginInputs() > 0 && pluginOutputs() > 0;
}

bool KyoLV2Unit::fitsMono() const { return m_channels == 1 && !(pluginInputs() == 1 && pluginOutputs() == 1); }

bool KyoLV2Unit::instantiate() {
  KyoLV2World& lv2 = KyoLV2World::shared();
  m_minBlock = 0;
  m_maxBlock = (int32_t)m_maxFrames;
  m_nominalBlock = (int32_t)m_maxFrames;
  m_rateOption = (float)m_sampleRate;
  const LV2_URID intType = lv2.map(LV2_ATOM__Int);
  m_options[0] = {LV2_OPTIONS_INSTANCE, 0, lv2.map(LV2_BUF_SIZE__minBlockLength), sizeof(int32_t), intType, &m_minBlock};
  m_options[1] = {LV2_OPTIONS_INSTANCE, 0, lv2.map(LV2_BUF_SIZE__maxBlockLength), sizeof(int32_t), intType, &m_maxBlock};
  m_options[2] = {LV2_OPTIONS_INSTANCE, 0, lv2.map(LV2_BUF_SIZE__nominalBlockLength), sizeof(int32_t), intType,
                  &m_nominalBlock};
  m_options[3] = {LV2_OPTIONS_INSTANCE, 0, lv2.map(LV2_PARAMETERS__sampleRate), sizeof(float), lv2.map(LV2_ATOM__Float),
                  &m_rateOption};
  m_options[4] = {LV2_OPTIONS_INSTANCE, 0, 0, 0, 0, nullptr};
  m_log = {this, pluginPrintf, pluginLog};
  m_mapFeature = {LV2_URID__map, lv2.mapFeature()};
  m_unmapFeature = {LV2_URID__unmap, lv2.unmapFeature()};
  m_optionsFeature = {LV2_OPTIONS__options, m_options};
  m_boundedFeature = {LV2_BUF_SIZE__boundedBlockLength, nullptr};
  m_logFeature = {LV2_LOG__log, &m_log};
  m_features[0] = &m_mapFeature;
  m_features[1] = &m_unmapFeature;
  m_features[2] = &m_optionsFeature;
  m_features[3] = &m_boundedFeature;
  m_features[4] = &m_logFeature;
  m_features[5] = nullptr;

  if (!instantiateSet(m_instances)) {
    destroyInstances();
    return false;
  }
  m_instantiatedRate = m_sampleRate;
  m_instantiatedMaxFrames = m_maxFrames;
  return true;
}

bool KyoLV2Unit::instantiateSet(std::vector<Instance>& set) {
  const uint32_t count = (uint32_t)m_ports.size();
  set.resize(instancesNeeded());
  for (Instance& slot : set) {
    slot.features.assign(m_features, m_features + 5);
    if (m_usesWorker) {
      slot.worker = std::make_unique<KyoLV2Worker>();
      slot.features.push_back(slot.worker->feature());
    }
    slot.features.push_back(nullptr);
    slot.instance = lilv_plugin_instantiate(m_plugin, m_sampleRate, slot.features.data());
    if (!slot.instance) return false;
    if (slot.worker) {
      slot.worker->start(lilv_instance_get_handle(slot.instance),
                         static_cast<const LV2_Worker_Interface*>(
                             lilv_instance_get_extension_data(slot.instance, LV2_WORKER__interface)));
    }
    slot.controls.assign(count, 0.0f);
    slot.atoms.assign(count, {});
    slot.scratch.assign(count, {});
    for (const KyoLV2Port& port : m_ports) {
      if (port.kind == KyoLV2Port::Kind::Atom) {
        slot.atoms[port.index].assign((port.atomBufferSize + sizeof(uint64_t) - 1) / sizeof(uint64_t), 0);
      } else if (port.kind == KyoLV2Port::Kind::CV ||
                 (port.kind == KyoLV2Port::Kind::Audio && !port.isInput && (m_inPlaceBroken || !isPerChannel()))) {
        // Outputs of a plugin of several channels have room of their own, for the
        // in-place-broken and for a mono stream's fold-down.
        slot.scratch[port.index].assign(m_maxFrames, 0.0f);
      }
      // Ports that stay put are connected once; audio ports follow the caller's buffers.
      if (port.kind == KyoLV2Port::Kind::Control) {
        slot.controls[port.index] = m_values[port.index].load(std::memory_order_relaxed);
        lilv_instance_connect_port(slot.instance, port.index, &slot.controls[port.index]);
      } else if (port.kind == KyoLV2Port::Kind::Atom) {
        lilv_instance_connect_port(slot.instance, port.index, slot.atoms[port.index].data());
      } else if (port.kind == KyoLV2Port::Kind::CV) {
        lilv_instance_connect_port(slot.instance, port.index, slot.scratch[port.index].data());
      } else if (port.kind == KyoLV2Port::Kind::Unknown) {
        lilv_instance_connect_port(slot.instance, port.index, nullptr);
      }
    }
  }
  return true;
}

void KyoLV2Unit::destroyInstances() { destroySet(m_instances); }

void KyoLV2Unit::destroySet(std::vector<Instance>& set) {
  for (Instance& slot : set) {
    // The worker thread calls into the instance: it goes first.
    if (slot.worker) slot.worker->stop();
    if (slot.instance) lilv_instance_free(slot.instance);
  }
  set.clear();
}

int32_t KyoLV2Unit::initializeUnit() {
  const uint32_t inputs = channelCount(kKyoAudioUnitScope_Input, 0);
  const uint32_t outputs = channelCount(kKyoAudioUnitScope_Output, 0);
  const double rate = streamFormat(kKyoAudioUnitScope_Input, 0)->sampleRate();
  // Every instance maps its inputs onto its outputs one to one, at one rate.
  if (inputs != outputs || rate != streamFormat(kKyoAudioUnitScope_Output, 0)->sampleRate()) {
    return kKyoAudioUnitErr_FormatNotSupported;
  }
  m_sampleRate = rate;
  m_channels = inputs;
  m_maxFrames = maximumFramesPerSlice();
  if (m_instances.size() != instancesNeeded() || m_instantiatedRate != m_sampleRate ||
      m_instantiatedMaxFrames != m_maxFrames) {
    // Control values live in m_values and survive by themselves; only the plugin's
    // own state needs carrying over to the new instances.
    const std::string saved = m_hasStateInterface ? saveState() : std::string();
    destroyInstances();
    if (!instantiate()) {
      KYO_LOG_STATUS_DETAIL(kKyoAudioUnitErr_FailedInitialization, m_uri + ": could not be instantiated");
      return kKyoAudioUnitErr_FailedInitialization;
    }
    if (!saved.empty()) restoreState(saved);
  }

  KyoMutexLocker lock(m_runLock);
  for (Instance& slot : m_instances) lilv_instance_activate(slot.instance);
  if (m_latencyPort >= 0) {
    // The latency output is only written by a run: probe with silence, then start
    // clean so that the probe leaves nothing behind in the plugin.
    const uint32_t frames = std::min(m_maxFrames, kLatencyProbeFrames);
    AudioBufferList* silence = KyoAudioBufferListCreate(m_channels, frames, false);
    AudioBufferList* output = KyoAudioBufferListCreate(m_channels, frames, false);
    KyoAudioBufferListSilence(silence, 0, frames);
    for (size_t k = 0; k < m_instances.size(); ++k) runBlock(m_instances[k], k, silence, output, 0, frames, false);
    m_values[m_latencyPort].store(m_instances[0].controls[m_latencyPort], std::memory_order_relaxed);
    KyoAudioBufferListFree(silence);
    KyoAudioBufferListFree(output);
    for (Instance& slot : m_instances) {
      lilv_instance_deactivate(slot.instance);
      lilv_instance_activate(slot.instance);
    }
  }
  m_active.store(true, std::memory_order_release);
  return 0;
}

void KyoLV2Unit::uninitializeUnit() {
  KyoMutexLocker lock(m_runLock);
  if (!m_active.load(std::memory_order_acquire)) return;
  m_active.store(false, std::memory_order_release);
  for (Instance& slot : m_instances) lilv_instance_deactivate(slot.instance);
}

int32_t KyoLV2Unit::reset(KyoAudioUnitScope, uint32_t) {
  KyoMutexLocker lock(m_runLock);
  if (!m_active.load(std::memory_order_acquire)) return 0;
  for (Instance& slot : m_instances) {
    lilv_instance_deactivate(slot.instance);
    lilv_instance_activate(slot.instance);
  }
  return 0;
}

const KyoLV2Port* KyoLV2Unit::parameter(uint32_t id) const {
  if (std::find(m_parameters.begin(), m_parameters.end(), id) == m_parameters.end()) return nullptr;
  return &m_ports[id];
}

float KyoLV2Unit::parameterValue(uint32_t id) const {
  if (id >= m_ports.size() || m_ports[id].kind != KyoLV2Port::Kind::Control) return 0.0f;
  return m_values[id].load(std::memory_order_relaxed);
}

bool KyoLV2Unit::setParameterValue(uint32_t id, float value) {
  const KyoLV2Port* port = parameter(id);
  if (!port || std::isnan(value)) return false;
  if (port->minimum < port->maximum) value = std::clamp(value, port->minimum, port->maximum);
  m_values[id].store(value, std::memory_order_relaxed);
  return true;
}

int32_t KyoLV2Unit::setParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t, float value, uint32_t) {
  if (scope != kKyoAudioUnitScope_Global) return kKyoAudioUnitErr_InvalidScope;
  return setParameterValue(parameterID, value) ? 0 : kKyoAudioUnitErr_InvalidParameter;
}

int32_t KyoLV2Unit::getParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t, float* value) const {
  if (scope != kKyoAudioUnitScope_Global) return kKyoAudioUnitErr_InvalidScope;
  if (!value || parameterID >= m_ports.size() || m_ports[parameterID].kind != KyoLV2Port::Kind::Control) {
    return kKyoAudioUnitErr_InvalidParameter;
  }
  *value = parameterValue(parameterID);
  return 0;
}

std::vector<KyoAudioUnitParameterInfo> KyoLV2Unit::parameterList(KyoAudioUnitScope scope) const {
  std::vector<KyoAudioUnitParameterInfo> list;
  if (scope != kKyoAudioUnitScope_Global) return list;
  for (uint32_t id : m_parameters) {
    const KyoLV2Port& port = m_ports[id];
    list.push_back({id, kKyoAudioUnitScope_Global, port.name, port.minimum, port.maximum, port.defaultValue});
  }
  return list;
}

double KyoLV2Unit::latency() const {
  if (m_latencyPort < 0 || m_sampleRate <= 0.0 || bypass()) return 0.0;
  const float frames = m_values[m_latencyPort].load(std::memory_order_relaxed);
  return frames > 0.0f ? frames / m_sampleRate : 0.0;
}

double KyoLV2Unit::tailTime() const { return m_tailTime; }

int32_t KyoLV2Unit::portIndexForSymbol(const char* symbol) const {
  for (const KyoLV2Port& port : m_ports) {
    if (port.symbol == symbol) return (int32_t)port.index;
  }
  return -1;
}

const void* KyoLV2Unit::getPortValue(const char* symbol, void* self, uint32_t* size, uint32_t* type) {
  auto* unit = static_cast<KyoLV2Unit*>(self);
  const int32_t index = unit->portIndexForSymbol(symbol);
  if (index < 0 || unit->m_ports[index].kind != KyoLV2Port::Kind::Control || !unit->m_ports[index].isInput ||
      index == unit->m_enabledPort || index == unit->m_freeWheelPort) {
    *size = 0;
    *type = 0;
    return nullptr;
  }
  // The text form decides the type. A float is written with eight decimals, which
  // loses small values (0.000375625 came back as 0.00037563); a double with sixteen,
  // whose fixed-point conversion overflows from about 922 up. So small values go as
  // doubles and large ones as floats; both come back to the same float.
  const float value = unit->m_values[index].load(std::memory_order_relaxed);
  KyoStatePortValue& slot = unit->m_stateScratch[index];
  if (std::fabs(value) < 512.0f) {
    slot.d = value;
    *size = sizeof(double);
    *type = KyoLV2World::shared().map(LV2_ATOM__Double);
  } else {
    slot.f = value;
    *size = sizeof(float);
    *type = KyoLV2World::shared().map(LV2_ATOM__Float);
  }
  return &slot;
}

void KyoLV2Unit::setPortValue(const char* symbol, void* self, const void* value, uint32_t size, uint32_t type) {
  auto* unit = static_cast<KyoLV2Unit*>(self);
  const int32_t index = unit->portIndexForSymbol(symbol);
  if (index < 0 || !value) return;
  KyoLV2World& lv2 = KyoLV2World::shared();
  float number;
  if (type == lv2.map(LV2_ATOM__Float) && size == sizeof(float)) {
    memcpy(&number, value, sizeof number);
  } else if (type == lv2.map(LV2_ATOM__Double) && size == sizeof(double)) {
    double d;
    memcpy(&d, value, sizeof d);
    number = (float)d;
  } else if ((type == lv2.map(LV2_ATOM__Int) || type == lv2.map(LV2_ATOM__Bool)) && size == sizeof(int32_t)) {
    int32_t i;
    memcpy(&i, value, sizeof i);
    number = (float)i;
  } else if (type == lv2.map(LV2_ATOM__Long) && size == sizeof(int64_t)) {
    int64_t l;
    memcpy(&l, value, sizeof l);
    number = (float)l;
  } else {
    KyoLog("Warning: %s: the saved value of '%s' has a type this host does not read", unit->m_uri.c_str(), symbol);
    return;
  }
  unit->setParameterValue((uint32_t)index, number);
}

std::string KyoLV2Unit::saveState(const std::string& label) const {
  if (m_instances.empty()) return {};
  KyoLV2World& lv2 = KyoLV2World::shared();
  LilvState* state = lilv_state_new_from_instance(
      m_plugin, m_instances[0].instance, lv2.mapFeature(), nullptr, nullptr, nullptr, nullptr, getPortValue,
      const_cast<KyoLV2Unit*>(this), LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE, m_features);
  if (!state) return {};
  if (!label.empty()) lilv_state_set_label(state, label.c_str());
  char* text = lilv_state_to_string(lv2.world(), lv2.mapFeature(), lv2.unmapFeature(), state, "urn:sonto:state", nullptr);
  std::string result = text ? text : "";
  lilv_free(text);
  lilv_state_free(state);
  return result;
}

bool KyoLV2Unit::savePreset(const std::string& bundleDir, const std::string& fileName, const std::string& label) const {
  if (m_instances.empty()) return false;
  KyoLV2World& lv2 = KyoLV2World::shared();
  LilvState* state = lilv_state_new_from_instance(
      m_plugin, m_instances[0].instance, lv2.mapFeature(), nullptr, nullptr, nullptr, bundleDir.c_str(), getPortValue,
      const_cast<KyoLV2Unit*>(this), LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE, m_features);
  if (!state) return false;
  lilv_state_set_label(state, label.c_str());
  const int failed = lilv_state_save(lv2.world(), lv2.mapFeature(), lv2.unmapFeature(), state, nullptr,
                                     bundleDir.c_str(), fileName.c_str());
  lilv_state_free(state);
  if (failed) KyoLog("Error: %s: the preset could not be written to %s", m_uri.c_str(), bundleDir.c_str());
  return !failed;
}

bool KyoLV2Unit::restoreState(const std::string& text, std::string* label) {
  if (text.empty()) return false;
  KyoLV2World& lv2 = KyoLV2World::shared();
  LilvState* state = lilv_state_new_from_string(lv2.world(), lv2.mapFeature(), text.c_str());
  if (!state) {
    KyoLog("Error: %s: the saved settings could not be read", m_uri.c_str());
    return false;
  }
  const bool done = restore(state, label);
  lilv_state_free(state);
  return done;
}

bool KyoLV2Unit::restore(const LilvState* state, std::string* label) {
  const LilvNode* plugin = lilv_state_get_plugin_uri(state);
  if (!plugin || m_uri != lilv_node_as_uri(plugin)) {
    KyoLog("Error: %s: the saved settings belong to %s", m_uri.c_str(), plugin ? lilv_node_as_uri(plugin) : "nothing");
    return false;
  }
  if (lilv_state_get_num_properties(state) > 0 && m_active.load(std::memory_order_acquire)) {
    // While the unit plays, the state goes into new instances beside the running
    // ones, which are swapped in between two cycles: the render thread never meets a
    // plugin half restored, and never lets a cycle through unprocessed.
    std::vector<Instance> fresh;
    if (!instantiateSet(fresh)) {
      destroySet(fresh);
      KyoLog("Error: %s: no instance to restore the settings into", m_uri.c_str());
      return false;
    }
    for (Instance& slot : fresh) {
      lilv_state_restore(state, slot.instance, setPortValue, this, LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE,
                         slot.features.data());
      lilv_instance_activate(slot.instance);
    }
    m_swapSequence.fetch_add(1);
    {
      KyoMutexLocker lock(m_runLock);
      m_instances.swap(fresh);
    }
    m_swapSequence.fetch_add(1);
    for (Instance& slot : fresh) lilv_instance_deactivate(slot.instance);
    destroySet(fresh);
  } else if (lilv_state_get_num_properties(state) > 0) {
    // Not running: nothing renders, the instances take the state where they are.
    KyoMutexLocker lock(m_runLock);
    for (Instance& slot : m_instances) {
      lilv_state_restore(state, slot.instance, setPortValue, this, LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE,
                         slot.features.data());
    }
  } else {
    lilv_state_restore(state, nullptr, setPortValue, this, 0, nullptr);
  }
  if (label) {
    const char* text = lilv_state_get_label(state);
    *label = text ? text : "";
  }
  return true;
}

std::vector<KyoLV2Preset> KyoLV2Unit::factoryPresets() const {
  KyoLV2World& lv2 = KyoLV2World::shared();
  std::vector<KyoLV2Preset> presets;
  LilvNodes* related = lilv_plugin_get_related(m_plugin, lv2.nodes().preset);
  LILV_FOREACH(nodes, it, related) {
    const LilvNode* preset = lilv_nodes_get(related, it);
    lilv_world_load_resource(lv2.world(), preset);
    KyoLV2Preset entry{lilv_node_as_uri(preset), {}};
    if (LilvNode* label = lilv_world_get(lv2.world(), preset, lv2.nodes().label, nullptr)) {
      entry.label = lilv_node_as_string(label);
      lilv_node_free(label);
    }
    if (entry.label.empty()) entry.label = entry.uri;
    presets.push_back(std::move(entry));
  }
  lilv_nodes_free(related);
  std::sort(presets.begin(), presets.end(),
            [](const KyoLV2Preset& a, const KyoLV2Preset& b) { return a.label < b.label; });
  return presets;
}

bool KyoLV2Unit::loadPreset(const std::string& presetURI) {
  KyoLV2World& lv2 = KyoLV2World::shared();
  LilvNode* node = lilv_new_uri(lv2.world(), presetURI.c_str());
  if (!node) return false;
  lilv_world_load_resource(lv2.world(), node);
  LilvState* state = lilv_state_new_from_world(lv2.world(), lv2.mapFeature(), node);
  lilv_node_free(node);
  if (!state) {
    KyoLog("Error: %s: the preset %s could not be loaded", m_uri.c_str(), presetURI.c_str());
    return false;
  }
  const bool done = restore(state, nullptr);
  lilv_state_free(state);
  return done;
}

void KyoLV2Unit::passThrough(const AudioBufferList* input, AudioBufferList* output, uint32_t frames) {
  if (input == output) return;
  const uint32_t channels = std::min(input->mNumberBuffers, output->mNumberBuffers);
  for (uint32_t c = 0; c < channels; ++c) {
    if (input->mBuffers[c].mData != output->mBuffers[c].mData) {
      memcpy(output->mBuffers[c].mData, input->mBuffers[c].mData, frames * sizeof(float));
    }
  }
  for (uint32_t c = channels; c < output->mNumberBuffers; ++c) {
    memset(output->mBuffers[c].mData, 0, frames * sizeof(float));
  }
}

void KyoLV2Unit::runBlock(Instance& slot, size_t index, const AudioBufferList* input, AudioBufferList* output,
                          uint32_t offset, uint32_t frames, bool bypassed) {
  for (uint32_t p : m_parameters) slot.controls[p] = m_values[p].load(std::memory_order_relaxed);
  if (m_enabledPort >= 0) slot.controls[m_enabledPort] = bypassed ? 0.0f : 1.0f;
  if (m_freeWheelPort >= 0) slot.controls[m_freeWheelPort] = 0.0f;

  // One instance takes channel j on its port j; per-channel instances take their channel
  // on port 0; a mono stream feeds every input of a plugin of several channels.
  const bool perChannel = m_instances.size() > 1 || isPerChannel();
  const bool fit = !perChannel && fitsMono();
  for (size_t j = 0; j < m_audioInputs.size(); ++j) {
    const uint32_t channel = perChannel ? (uint32_t)index : fit ? 0 : (uint32_t)j;
    float* data = static_cast<float*>(input->mBuffers[channel].mData) + offset;
    lilv_instance_connect_port(slot.instance, m_audioInputs[j], data);
  }
  for (size_t j = 0; j < m_audioOutputs.size(); ++j) {
    const uint32_t port = m_audioOutputs[j];
    const uint32_t channel = perChannel ? (uint32_t)index : (uint32_t)j;
    float* data = (m_inPlaceBroken || fit) ? slot.scratch[port].data()
                                           : static_cast<float*>(output->mBuffers[channel].mData) + offset;
    lilv_instance_connect_port(slot.instance, port, data);
  }
  for (const KyoLV2Port& port : m_ports) {
    if (port.kind != KyoLV2Port::Kind::Atom) continue;
    auto* atom = reinterpret_cast<LV2_Atom*>(slot.atoms[port.index].data());
    if (port.isInput) {
      // An empty sequence: this host sends no events yet.
      auto* sequence = reinterpret_cast<LV2_Atom_Sequence*>(atom);
      sequence->atom.size = sizeof(LV2_Atom_Sequence_Body);
      sequence->atom.type = m_sequenceType;
      sequence->body.unit = 0;
      sequence->body.pad = 0;
    } else {
      atom->size = (uint32_t)(slot.atoms[port.index].size() * sizeof(uint64_t) - sizeof(LV2_Atom));
      atom->type = m_chunkType;
    }
  }

  if (slot.worker) slot.worker->deliverResponses();
  lilv_instance_run(slot.instance, frames);
  if (slot.worker) slot.worker->endRun();

  if (fit) {
    float* mono = static_cast<float*>(output->mBuffers[0].mData) + offset;
    const float share = 1.0f / (float)m_audioOutputs.size();
    for (uint32_t i = 0; i < frames; ++i) {
      float sum = 0.0f;
      for (uint32_t port : m_audioOutputs) sum += slot.scratch[port][i];
      mono[i] = sum * share;
    }
  } else if (m_inPlaceBroken) {
    for (size_t j = 0; j < m_audioOutputs.size(); ++j) {
      const uint32_t channel = perChannel ? (uint32_t)index : (uint32_t)j;
      memcpy(static_cast<float*>(output->mBuffers[channel].mData) + offset, slot.scratch[m_audioOutputs[j]].data(),
             frames * sizeof(float));
    }
  }
}

int32_t KyoLV2Unit::render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t outputElement,
                           uint32_t frames, AudioBufferList* ioData) {
  if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
  if (outputElement != 0 || !ioData) return kKyoAudioUnitErr_InvalidElement;
  if (frames > maximumFramesPerSlice()) return kKyoAudioUnitErr_TooManyFramesToProcess;
  // Silence marks are not passed on: the plugin reads every channel. Whatever came
  // in, a plugin may ring on, so the output is never declared silent.
  uint32_t flags = ioActionFlags ? (*ioActionFlags & ~kKyoRenderAction_MarkSilentChannels) : 0;
  const int32_t status = pullInput(0, &flags, timeStamp, frames, ioData);
  if (status != 0) return status;
  process(ioData, ioData, frames);
  if (ioActionFlags) *ioActionFlags &= ~kKyoRenderAction_OutputIsSilence;
  return 0;
}

void KyoLV2Unit::process(const AudioBufferList* input, AudioBufferList* output, uint32_t frames) {
  if (!input || !output || frames == 0) return;
  // Never run past the end of a buffer the caller made too short.
  for (uint32_t c = 0; c < input->mNumberBuffers; ++c) frames = std::min(frames, input->mBuffers[c].mDataByteSize / 4);
  for (uint32_t c = 0; c < output->mNumberBuffers; ++c) frames = std::min(frames, output->mBuffers[c].mDataByteSize / 4);
  const uint32_t sequence = m_swapSequence.load();
  if (!m_runLock.tryLock()) {
    // A swap of restored instances holds the lock for a few instructions only: wait
    // it out (the lock lends the holder our priority) rather than let a dry cycle
    // through. Anything else that holds it (a reset, an uninitialize) is long, and
    // the input passes. A swap holding the lock now was counted before it took it,
    // so either it was under way at the first look (odd) or the count has moved.
    if (sequence % 2 == 0 && m_swapSequence.load() == sequence) {
      passThrough(input, output, frames);
      return;
    }
    m_runLock.lock();
  }
  const bool bypassed = m_bypass.load(std::memory_order_relaxed);
  if (!m_active.load(std::memory_order_acquire) || input->mNumberBuffers < m_channels ||
      output->mNumberBuffers < m_channels || (bypassed && m_enabledPort < 0)) {
    passThrough(input, output, frames);
    m_runLock.unlock();
    return;
  }
  for (uint32_t done = 0; done < frames;) {
    const uint32_t block = std::min(frames - done, m_maxFrames);
    for (size_t k = 0; k < m_instances.size(); ++k) runBlock(m_instances[k], k, input, output, done, block, bypassed);
    done += block;
  }
  for (const KyoLV2Port& port : m_ports) {
    if (port.kind == KyoLV2Port::Kind::Control && !port.isInput) {
      m_values[port.index].store(m_instances[0].controls[port.index], std::memory_order_relaxed);
    }
  }
  m_runLock.unlock();
}
