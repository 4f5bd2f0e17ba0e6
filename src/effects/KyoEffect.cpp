#include "effects/KyoEffect.h"

#include <lilv/lilv.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>

#include "audio/KyoMatrixMixer.h"
#include "effects/KyoEffectCatalogue.h"
#include "effects/KyoLV2Unit.h"
#include "effects/KyoLV2World.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"

#define KYO_EFFECT_ANSWER(status, domain, error) answer((status), (domain), (error), __PRETTY_FUNCTION__, __LINE__)

namespace {

constexpr const char* kClassName = "KyoEffect";
// The mixer's settings are its level matrix, as text behind this mark.
constexpr const char* kMatrixLevelsMark = "matrix-levels:";

std::mutex& editorFactoryMutex() {
  static std::mutex mutex;
  return mutex;
}
KyoEffectEditorFactory& editorFactory() {
  static KyoEffectEditorFactory factory;
  return factory;
}

std::mutex& alertHandlerMutex() {
  static std::mutex mutex;
  return mutex;
}
KyoEffectAlertHandler& alertHandler() {
  static KyoEffectAlertHandler handler;
  return handler;
}

// Main thread. Without a window layer the alert is a log line, so it is never lost.
void showAlert(const KyoError& error, const std::string& message, const std::string& information) {
  KyoEffectAlertHandler handler;
  {
    std::lock_guard<std::mutex> lock(alertHandlerMutex());
    handler = alertHandler();
  }
  if (handler) {
    handler(error, message, information);
  } else {
    KyoLog("Alert: %s %s (%s %d)", message.c_str(), information.c_str(), error.domain.c_str(), error.code);
  }
}

template <class T>
T valueFromData(const std::optional<std::vector<uint8_t>>& data) {
  T value{};
  if (data) std::memcpy(&value, data->data(), std::min(data->size(), sizeof(T)));
  return value;
}

std::vector<std::string> split(const std::string& text, const std::string& separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t found; (found = text.find(separator, start)) != std::string::npos; start = found + separator.size()) {
    parts.push_back(text.substr(start, found - start));
  }
  parts.push_back(text.substr(start));
  return parts;
}

std::string lowercase(std::string text) {
  for (char& c : text) c = (char)std::tolower((unsigned char)c);
  return text;
}

}  // namespace

// --- Creating ---

std::shared_ptr<KyoEffect> KyoEffect::effectWithDescription(const KyoAudioComponentDescription& description,
                                                            KyoError* error) {
  std::shared_ptr<KyoEffect> effect(new KyoEffect());
  if (!effect->setComponentDescription(description, error)) return nullptr;
  return effect;
}

std::shared_ptr<KyoEffect> KyoEffect::effectWithProperties(const KyoEffectProperties& properties, KyoError* error) {
  if (!properties.className.empty() && properties.className != kClassName) {
    KyoLog("Error: there is no effect class named %s", properties.className.c_str());
    if (error) *error = {kKyoEffectErrorDomain, kKyoComponentNotFound};
    return nullptr;
  }
  std::shared_ptr<KyoEffect> effect =
      effectWithDescription(KyoAudioComponentDescription::descriptionWithState(properties.component), error);
  if (!effect || !effect->setProperties(properties)) return nullptr;
  return effect;
}

std::shared_ptr<KyoEffect> KyoEffect::effectWithCoder(const KyoEffectProperties& properties) {
  std::shared_ptr<KyoEffect> effect(new KyoEffect());
  effect->m_state = properties;
  effect->restoreState();
  if (effect->m_name.empty()) {
    // Not installed: keep the saved names, so the user sees what is missing.
    effect->m_componentDescription = KyoAudioComponentDescription::descriptionWithState(properties.component);
    effect->m_manufacturer = properties.manufacturer;
    effect->m_name = properties.name;
    effect->m_displayName = properties.displayName;
  }
  return effect;
}

KyoEffectProperties KyoEffect::encode() {
  saveState();
  return *m_state;
}

KyoEffect::~KyoEffect() {
  closeEditor();
  if (m_stream) m_stream->removeEffect(this);
  if (m_ownUnit) m_ownUnit->uninitialize();
}

std::shared_ptr<KyoEffect> KyoEffect::copy() {
  saveState();
  std::shared_ptr<KyoEffect> twin(new KyoEffect());
  twin->m_componentDescription = m_componentDescription;
  twin->m_manufacturer = m_manufacturer;
  twin->m_name = m_name;
  twin->m_displayName = m_displayName;
  twin->m_state = m_state;
  twin->m_lastEditorFrame = m_lastEditorFrame;
  twin->m_currentPresetName = m_currentPresetName;
  return twin;
}

std::string KyoEffect::description() const { return m_name.empty() ? m_componentDescription.uri() : m_name; }

bool KyoEffect::isMixer() const { return m_componentDescription.uri() == kKyoMatrixMixerURI; }

bool KyoEffect::answer(int32_t status, const char* domain, KyoError* error, const char* function, int line) {
  if (status == 0) return true;
  KyoLogStatusDetail(status, description(), function, line);
  if (error) *error = {domain, status};
  return false;
}

bool KyoEffect::setComponentDescription(const KyoAudioComponentDescription& description, KyoError* error) {
  m_componentDescription = description;
  m_channelInfoData.reset();
  m_parameterMenu.reset();
  int32_t status = 0;
  std::string componentName;
  if (!KyoComponentIsInstalled(description)) {
    status = kKyoComponentNotFound;
  } else {
    if (m_componentDescription.type() == 0) m_componentDescription.setType(KyoComponentType(description.uri()));
    componentName = KyoComponentName(m_componentDescription);
    if (componentName.empty()) status = kKyoNoComponentName;
  }
  if (status != 0) {
    KyoLogStatusDetail(status, description.uri(), __PRETTY_FUNCTION__, __LINE__);
    if (error) *error = {kKyoEffectErrorDomain, status};
    return false;
  }
  m_componentDescription.setName(componentName);

  splitComponentName(componentName, &m_manufacturer, &m_name);
  m_displayName = m_name;
  return true;
}

void KyoEffect::splitComponentName(const std::string& componentName, std::string* manufacturer, std::string* name) {
  std::vector<std::string> parts = split(componentName, ": ");
  if (parts.size() != 2) parts = split(componentName, ":");
  if (parts.size() == 2) {
    *manufacturer = parts[0];
    *name = parts[1];
  } else {
    *manufacturer = "Unknown";
    *name = componentName;
  }
}

// --- In a stream ---

void KyoEffect::setStream(KyoStream* stream, int32_t node) {
  m_stream = stream;
  m_node = stream ? node : 0;
  m_audioUnit = stream ? stream->audioUnitForEffect(this) : m_ownUnit.get();
}

std::shared_ptr<KyoAudioUnit> KyoEffect::makeUnit(int32_t* status) {
  *status = 0;
  if (!KyoComponentIsInstalled(m_componentDescription)) {
    *status = kKyoComponentNotFound;
    return nullptr;
  }
  if (isMixer()) return std::make_shared<KyoMatrixMixer>();
  std::shared_ptr<KyoAudioUnit> unit = KyoLV2Unit::create(m_componentDescription.uri(), status);
  if (!unit && *status == 0) *status = kKyoAudioUnitErr_FailedInitialization;
  return unit;
}

bool KyoEffect::addToStream(KyoStream* stream, KyoError* error) {
  if (!stream) return KYO_EFFECT_ANSWER(kKyoStreamErr_NoGraph, kAUGraphErrorDomain, error);
  int32_t status = 0;
  std::shared_ptr<KyoAudioUnit> unit = makeUnit(&status);
  int32_t node = 0;
  if (unit) status = stream->addNode(unit, &node);
  if (status != 0) return KYO_EFFECT_ANSWER(status, kAUGraphErrorDomain, error);
  m_channelInfoData.reset();
  m_parameterMenu.reset();
  // A unit opened outside the graph goes: once the effect leaves the stream, its
  // pending state is newer than anything that unit holds.
  m_ownUnit.reset();
  setStream(stream, node);
  return true;
}

bool KyoEffect::removeFromStream(KyoStream* stream) {
  if (!stream) return true;
  // The unit goes with the node: keep what it holds unless a newer state is pending.
  if (m_stream == stream && !m_state && audioUnit()) saveState();
  return stream->removeEffect(this);
}

KyoAudioUnit* KyoEffect::audioUnit() {
  if (!m_audioUnit) m_audioUnit = m_stream ? m_stream->audioUnitForEffect(this) : m_ownUnit.get();
  return m_audioUnit;
}

// --- Life of the unit ---

bool KyoEffect::open(KyoError* error) {
  if (m_ownUnit) return true;
  int32_t status = 0;
  m_ownUnit = makeUnit(&status);
  if (!m_ownUnit) return KYO_EFFECT_ANSWER(status, kComponentMgrErrorDomain, error);
  m_channelInfoData.reset();
  m_parameterMenu.reset();
  if (!m_stream) m_audioUnit = m_ownUnit.get();
  return true;
}

bool KyoEffect::initialize(KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return KYO_EFFECT_ANSWER(kKyoAudioUnitErr_Uninitialized, kAudioUnitErrorDomain, error);
  return KYO_EFFECT_ANSWER(unit->initialize(), kAudioUnitErrorDomain, error);
}

bool KyoEffect::uninitialize(KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return true;
  return KYO_EFFECT_ANSWER(unit->uninitialize(), kAudioUnitErrorDomain, error);
}

bool KyoEffect::reset(KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return true;
  int32_t status;
  if (m_stream) {
    std::lock_guard<std::mutex> lock(m_stream->renderLock());
    status = unit->reset(kKyoAudioUnitScope_Global, 0);
  } else {
    status = unit->reset(kKyoAudioUnitScope_Global, 0);
  }
  return KYO_EFFECT_ANSWER(status, kAudioUnitErrorDomain, error);
}

bool KyoEffect::setup(KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return false;
  // Our units say what they take; none has to be probed.
  if (auto* lv2 = dynamic_cast<KyoLV2Unit*>(unit)) {
    m_channelInfoData = std::vector<KyoChannelInfo>{
        {(int16_t)lv2->supportedChannels(true), (int16_t)lv2->supportedChannels(false)}};
  } else {
    m_channelInfoData = std::vector<KyoChannelInfo>{{-1, -1}};
  }
  return true;
}

// --- Connecting ---

bool KyoEffect::connectToOutputOf(KyoEffect* effect, KyoError* error) {
  return effect ? effect->connectBus(0, this, 0, error)
                : KYO_EFFECT_ANSWER(kKyoStreamErr_InvalidConnection, kAUGraphErrorDomain, error);
}

bool KyoEffect::connectToInputOf(KyoEffect* effect, uint32_t bus, KyoError* error) {
  return connectBus(0, effect, bus, error);
}

bool KyoEffect::connectBus(uint32_t outputBus, KyoEffect* effect, uint32_t inputBus, KyoError* error) {
  if (!effect) return KYO_EFFECT_ANSWER(kKyoStreamErr_InvalidConnection, kAUGraphErrorDomain, error);
  if (m_stream && m_stream == effect->m_stream) {
    return KYO_EFFECT_ANSWER(m_stream->connectOutputOfNode(m_node, outputBus, effect->m_node, inputBus),
                             kAUGraphErrorDomain, error);
  }
  // Outside a stream the units are wired directly.
  KyoAudioUnit* source = audioUnit();
  KyoAudioUnit* destination = effect->audioUnit();
  if (!source || !destination) return KYO_EFFECT_ANSWER(kKyoStreamErr_NodeNotFound, kAUGraphErrorDomain, error);
  return KYO_EFFECT_ANSWER(destination->connectInput(inputBus, source, outputBus), kAUGraphErrorDomain, error);
}

// --- Channels ---

uint32_t KyoEffect::inputChannels() {
  uint32_t sum = 0;
  for (uint32_t bus = 0; bus < inputBusCount(); ++bus) sum += inputStreamFormat(bus) ? inputStreamFormat(bus)->channels() : 0;
  return sum;
}

uint32_t KyoEffect::outputChannels() {
  uint32_t sum = 0;
  for (uint32_t bus = 0; bus < outputBusCount(); ++bus) {
    sum += outputStreamFormat(bus) ? outputStreamFormat(bus)->channels() : 0;
  }
  return sum;
}

uint32_t KyoEffect::nearestChannelCount(const std::vector<KyoChannelInfo>& records, uint32_t wanted, bool input) {
  const int64_t want = wanted;
  int64_t best = 0;
  for (const KyoChannelInfo& record : records) {
    const int64_t c = input ? record.inChannels : record.outChannels;
    const int64_t o = input ? record.outChannels : record.inChannels;
    if (c == -1) return wanted;
    if (c == want) return wanted;
    if (c == -2 && o == -1) return wanted;
    if (c < 0) {
      if (-c >= want) return wanted;
      if (std::llabs(-c - want) < std::llabs(best - want)) best = -c;
    } else if (std::llabs(c - want) < std::llabs(best - want)) {
      best = c;
    }
  }
  return (uint32_t)best;
}

uint32_t KyoEffect::supportedInputChannels(uint32_t wanted) {
  if (!m_channelInfoData) setup();
  return m_channelInfoData ? nearestChannelCount(*m_channelInfoData, wanted, true) : 0;
}

uint32_t KyoEffect::supportedOutputChannels(uint32_t wanted) {
  if (!m_channelInfoData) setup();
  return m_channelInfoData ? nearestChannelCount(*m_channelInfoData, wanted, false) : 0;
}

// --- Formats and busses ---

std::optional<KyoAudioStreamDescription> KyoEffect::inputStreamFormat(uint32_t bus) {
  KyoAudioUnit* unit = audioUnit();
  return unit ? unit->streamFormat(kKyoAudioUnitScope_Input, bus) : std::nullopt;
}

std::optional<KyoAudioStreamDescription> KyoEffect::outputStreamFormat(uint32_t bus) {
  KyoAudioUnit* unit = audioUnit();
  return unit ? unit->streamFormat(kKyoAudioUnitScope_Output, bus) : std::nullopt;
}

bool KyoEffect::setStreamFormat(const KyoAudioStreamDescription& format) {
  const bool input = setInputStreamFormat(format);
  const bool output = setOutputStreamFormat(format);
  return input && output;
}

bool KyoEffect::setFormat(KyoAudioUnitScope scope, const KyoAudioStreamDescription& format, uint32_t bus,
                          KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return true;
  int32_t status;
  {
    std::unique_lock<std::mutex> lock;
    if (m_stream) lock = std::unique_lock<std::mutex>(m_stream->renderLock());
    status = unit->setStreamFormat(scope, bus, format);
  }
  if (status == kKyoAudioUnitErr_CannotDoInCurrentContext && unit->isInitialized()) {
    // The long way round for a unit that is already running at another format.
    if (m_stream) m_stream->stop();
    unit->uninitialize();
    status = unit->setStreamFormat(scope, bus, format);
    const int32_t initialized = unit->initialize();
    if (status == 0) status = initialized;
    if (m_stream) m_stream->start();
  }
  if (status == kKyoAudioUnitErr_FormatNotSupported) {
    // The chain logs the refusal in its own words.
    if (error) *error = {kAudioUnitErrorDomain, status};
    return false;
  }
  return KYO_EFFECT_ANSWER(status, kAudioUnitErrorDomain, error);
}

bool KyoEffect::setInputStreamFormat(const KyoAudioStreamDescription& format, uint32_t bus, KyoError* error) {
  return setFormat(kKyoAudioUnitScope_Input, format, bus, error);
}

bool KyoEffect::setOutputStreamFormat(const KyoAudioStreamDescription& format, uint32_t bus, KyoError* error) {
  return setFormat(kKyoAudioUnitScope_Output, format, bus, error);
}

uint32_t KyoEffect::inputBusCount() {
  KyoAudioUnit* unit = audioUnit();
  return unit ? unit->elementCount(kKyoAudioUnitScope_Input) : 0;
}

uint32_t KyoEffect::outputBusCount() {
  KyoAudioUnit* unit = audioUnit();
  return unit ? unit->elementCount(kKyoAudioUnitScope_Output) : 0;
}

void KyoEffect::setInputBusCount(uint32_t count) {
  if (KyoAudioUnit* unit = audioUnit()) unit->setElementCount(kKyoAudioUnitScope_Input, count);
}

void KyoEffect::setOutputBusCount(uint32_t count) {
  if (KyoAudioUnit* unit = audioUnit()) unit->setElementCount(kKyoAudioUnitScope_Output, count);
}

// --- Rendering ---

int32_t KyoEffect::render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber,
                          uint32_t frames, AudioBufferList* ioData) {
  // No log here: this is the render thread. The caller sees the status.
  KyoAudioUnit* unit = m_audioUnit;
  if (!unit) return kKyoAudioUnitErr_Uninitialized;
  return unit->render(ioActionFlags, timeStamp, busNumber, frames, ioData);
}

bool KyoEffect::setRenderCallback(const KyoRenderInfo& callback, uint32_t bus, KyoError* error) {
  if (m_stream) {
    return KYO_EFFECT_ANSWER(m_stream->setInputCallback(callback, m_node, bus), kAUGraphErrorDomain, error);
  }
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return KYO_EFFECT_ANSWER(kKyoAudioUnitErr_Uninitialized, kAudioUnitErrorDomain, error);
  return KYO_EFFECT_ANSWER(unit->setRenderCallback(bus, callback), kAudioUnitErrorDomain, error);
}

void KyoEffect::clearRenderCallbackForBus(uint32_t bus) {
  if (m_stream) {
    m_stream->disconnectInputOfNode(m_node, bus);
  } else if (KyoAudioUnit* unit = audioUnit()) {
    unit->disconnectInput(bus);
  }
}

// --- Parameters ---

float KyoEffect::valueForParameter(uint32_t parameter, KyoAudioUnitScope scope, uint32_t element) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return 0.0f;
  float value = 0.0f;
  const int32_t status = unit->getParameter(parameter, scope, element, &value);
  if (status != 0) {
    KYO_LOG_STATUS_DETAIL(status, description());
    return 0.0f;
  }
  return value;
}

void KyoEffect::setValue(float value, uint32_t parameter, KyoAudioUnitScope scope, uint32_t element) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return;
  const int32_t status = unit->setParameter(parameter, scope, element, value);
  if (status != 0) KYO_LOG_STATUS_DETAIL(status, description());
}

std::string KyoEffect::titleOfParameter(uint32_t parameter, KyoError* error) {
  if (KyoAudioUnit* unit = audioUnit()) {
    for (const KyoAudioUnitParameterInfo& info : unit->parameterList(kKyoAudioUnitScope_Global)) {
      if (info.parameterID == parameter && !info.name.empty()) return info.name;
    }
  } else if (error) {
    *error = {kAudioUnitErrorDomain, kKyoAudioUnitErr_Uninitialized};
  }
  return "Parameter #" + std::to_string((uint64_t)parameter + 1);
}

const std::vector<std::pair<std::string, uint32_t>>& KyoEffect::parameterMenu() {
  if (!m_parameterMenu) {
    m_parameterMenu.emplace();
    if (KyoAudioUnit* unit = audioUnit()) {
      for (const KyoAudioUnitParameterInfo& info : unit->parameterList(kKyoAudioUnitScope_Global)) {
        m_parameterMenu->emplace_back(titleOfParameter(info.parameterID), info.parameterID);
      }
    }
  }
  return *m_parameterMenu;
}

// --- State ---

KyoEffectProperties KyoEffect::properties() {
  KyoEffectProperties p;
  p.className = kClassName;
  p.component = m_componentDescription.state();
  p.manufacturer = m_manufacturer;
  p.name = m_name;
  p.displayName = m_displayName;
  p.enabled = enabled();
  p.editorIsOpen = editorIsOpen();
  if (m_editor) m_lastEditorFrame = m_editor->frame();
  if (!m_lastEditorFrame.empty()) p.lastEditorFrame = m_lastEditorFrame;
  if (audioUnit()) p.settings = settings();
  return p;
}

void KyoEffect::saveState() {
  // Without a unit the pending state is the newest there is: saving twice keeps it.
  if (m_state && !audioUnit()) return;
  m_state = properties();
}

void KyoEffect::restoreState() {
  if (!m_state) return;
  const KyoEffectProperties state = *m_state;
  setProperties(state);
}

bool KyoEffect::setProperties(const KyoEffectProperties& properties) {
  m_state = properties;
  if (!setComponentDescription(KyoAudioComponentDescription::descriptionWithState(properties.component))) {
    return false;
  }
  if (!properties.manufacturer.empty()) m_manufacturer = properties.manufacturer;
  if (!properties.name.empty()) m_name = properties.name;
  if (!properties.displayName.empty()) m_displayName = properties.displayName;
  return true;
}

bool KyoEffect::setParameters() {
  if (!m_state) return true;
  setEnabled(m_state->enabled.value_or(true));
  if (m_state->settings && !setSettings(*m_state->settings)) return false;
  if (m_state->editorIsOpen.value_or(false)) openEditor();
  if (m_state->lastEditorFrame) {
    m_lastEditorFrame = *m_state->lastEditorFrame;
    if (m_editor) m_editor->setFrame(m_lastEditorFrame, true);
  }
  m_state.reset();
  return true;
}

bool KyoEffect::enabled() {
  auto* lv2 = dynamic_cast<KyoLV2Unit*>(audioUnit());
  return !lv2 || !lv2->bypass();
}

void KyoEffect::setEnabled(bool enabled) {
  auto* lv2 = dynamic_cast<KyoLV2Unit*>(audioUnit());
  if (!lv2 || lv2->bypass() == !enabled) return;
  lv2->setBypass(!enabled);
  KyoNotificationCenter::defaultCenter().postNotification(kKyoBypassChangedNotification);
}

std::optional<std::string> KyoEffect::settings() {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return m_state ? m_state->settings : std::nullopt;
  if (auto* lv2 = dynamic_cast<KyoLV2Unit*>(unit)) {
    std::string text = lv2->saveState(m_currentPresetName);
    if (text.empty()) return std::nullopt;
    return text;
  }
  uint32_t dimensions[2] = {0, 0};
  uint32_t size = sizeof dimensions;
  if (unit->getProperty(kKyoAudioUnitProperty_MatrixDimensions, kKyoAudioUnitScope_Global, 0, dimensions, &size) != 0) {
    return std::nullopt;
  }
  std::vector<float> levels((size_t)(dimensions[0] + 1) * (dimensions[1] + 1));
  size = (uint32_t)(levels.size() * sizeof(float));
  if (unit->getProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(), &size) != 0) {
    return std::nullopt;
  }
  std::string text = kMatrixLevelsMark;
  char number[32];
  for (float level : levels) {
    snprintf(number, sizeof number, " %.9g", level);
    text += number;
  }
  return text;
}

bool KyoEffect::setSettings(const std::string& settings, KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return KYO_EFFECT_ANSWER(kKyoAudioUnitErr_Uninitialized, kAudioUnitErrorDomain, error);
  int32_t status = 0;
  if (auto* lv2 = dynamic_cast<KyoLV2Unit*>(unit)) {
    std::string label;
    if (lv2->restoreState(settings, &label)) {
      m_currentPresetName = label;
    } else {
      status = kKyoAudioUnitErr_InvalidPropertyValue;
    }
  } else if (settings.rfind(kMatrixLevelsMark, 0) == 0) {
    std::istringstream in(settings.substr(strlen(kMatrixLevelsMark)));
    std::vector<float> levels;
    for (float level; in >> level;) levels.push_back(level);
    status = unit->setProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(),
                               (uint32_t)(levels.size() * sizeof(float)));
  } else {
    status = kKyoAudioUnitErr_InvalidPropertyValue;
  }
  return KYO_EFFECT_ANSWER(status, kAudioUnitErrorDomain, error);
}

std::vector<KyoEffectPreset> KyoEffect::factoryPresets() {
  std::vector<KyoEffectPreset> presets;
  if (auto* lv2 = dynamic_cast<KyoLV2Unit*>(audioUnit())) {
    int32_t number = 0;
    for (const KyoLV2Preset& preset : lv2->factoryPresets()) presets.push_back({number++, preset.label});
  }
  return presets;
}

bool KyoEffect::setFactoryPreset(int32_t number, const std::string& name) {
  auto* lv2 = dynamic_cast<KyoLV2Unit*>(audioUnit());
  if (!lv2) return false;
  const std::vector<KyoLV2Preset> presets = lv2->factoryPresets();
  if (number < 0 || (size_t)number >= presets.size()) {
    KYO_LOG_STATUS_DETAIL(kKyoAudioUnitErr_InvalidPropertyValue, description());
    return false;
  }
  if (!lv2->loadPreset(presets[number].uri)) return false;
  m_currentPresetName = name.empty() ? presets[number].label : name;
  return true;
}

bool KyoEffect::setUserPreset(const std::string& path) {
  auto* lv2 = dynamic_cast<KyoLV2Unit*>(audioUnit());
  KyoLV2World& world = KyoLV2World::shared();
  LilvState* state = lv2 ? lilv_state_new_from_file(world.world(), world.mapFeature(), nullptr, path.c_str()) : nullptr;
  std::string text;
  if (state) {
    char* serialised =
        lilv_state_to_string(world.world(), world.mapFeature(), world.unmapFeature(), state, "urn:sonto:preset", nullptr);
    text = serialised ? serialised : "";
    lilv_free(serialised);
    lilv_state_free(state);
  }
  if (text.empty() || !lv2->restoreState(text)) {
    KyoLog("The preset could not be loaded: Either the preset was not meant for this Audio Unit or the preset file is "
           "corrupted. (%s)",
           path.c_str());
    showAlert(KyoError{kKyoEffectErrorDomain, kKyoAudioUnitErr_InvalidPropertyValue}, "The preset could not be loaded",
              "Either the preset was not meant for this Audio Unit or the preset file is corrupted.");
    return false;
  }
  const size_t slash = path.find_last_of('/');
  std::string file = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = file.find_last_of('.');
  setCurrentPresetName(dot == std::string::npos || dot == 0 ? file : file.substr(0, dot));
  return true;
}

// --- Properties ---

std::optional<std::vector<uint8_t>> KyoEffect::dataForProperty(uint32_t property, KyoAudioUnitScope scope,
                                                               uint32_t element, KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return std::nullopt;
  uint32_t size = 0;
  int32_t status = unit->getPropertyInfo(property, scope, element, &size, nullptr);
  if (status != 0) {
    if (error) *error = {kAudioUnitErrorDomain, status};
    return std::nullopt;
  }
  std::vector<uint8_t> data(size);
  if (size == 0) return data;
  status = unit->getProperty(property, scope, element, data.data(), &size);
  if (!KYO_EFFECT_ANSWER(status, kAudioUnitErrorDomain, error)) return std::nullopt;
  data.resize(size);
  return data;
}

bool KyoEffect::boolValueForProperty(uint32_t property, KyoAudioUnitScope scope, uint32_t element, KyoError* error) {
  return valueFromData<uint32_t>(dataForProperty(property, scope, element, error)) != 0;
}

uint32_t KyoEffect::unsignedIntValueForProperty(uint32_t property, KyoAudioUnitScope scope, uint32_t element,
                                                KyoError* error) {
  return valueFromData<uint32_t>(dataForProperty(property, scope, element, error));
}

double KyoEffect::doubleValueForProperty(uint32_t property, KyoAudioUnitScope scope, uint32_t element,
                                         KyoError* error) {
  return valueFromData<double>(dataForProperty(property, scope, element, error));
}

bool KyoEffect::isPropertyAvailable(uint32_t property, KyoAudioUnitScope scope, uint32_t element, KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return false;
  const int32_t status = unit->getPropertyInfo(property, scope, element, nullptr, nullptr);
  if (status != 0 && error) *error = {kAudioUnitErrorDomain, status};
  return status == 0;
}

bool KyoEffect::isPropertyWritable(uint32_t property, KyoAudioUnitScope scope, uint32_t element, KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (!unit) return false;
  bool writable = false;
  const int32_t status = unit->getPropertyInfo(property, scope, element, nullptr, &writable);
  if (status == kKyoAudioUnitErr_InvalidProperty) return false;
  if (!KYO_EFFECT_ANSWER(status, kAudioUnitErrorDomain, error)) return false;
  return writable;
}

bool KyoEffect::setObject(const KyoPropertyObject& object, uint32_t property, KyoAudioUnitScope scope,
                          uint32_t element, KyoError* error) {
  KyoAudioUnit* unit = audioUnit();
  if (std::holds_alternative<std::monostate>(object) || !unit) return true;
  int32_t status = 0;
  {
    std::unique_lock<std::mutex> lock;
    if (m_stream) lock = std::unique_lock<std::mutex>(m_stream->renderLock());
    if (const auto* number = std::get_if<uint32_t>(&object)) {
      status = unit->setProperty(property, scope, element, number, sizeof(uint32_t));
    } else if (const auto* format = std::get_if<KyoAudioStreamDescription>(&object)) {
      const AudioStreamBasicDescription record = format->streamDescription();
      status = unit->setProperty(property, scope, element, &record, sizeof record);
    } else {
      const auto& bytes = std::get<std::vector<uint8_t>>(object);
      // An empty data still has to point somewhere for the unit to read its length.
      static const uint8_t kNothing = 0;
      status = unit->setProperty(property, scope, element, bytes.empty() ? &kNothing : bytes.data(),
                                 uint32_t(bytes.size()));
    }
  }
  return KYO_EFFECT_ANSWER(status, kAudioUnitErrorDomain, error);
}

bool KyoEffect::setObject(const KyoPropertyObject& object, uint32_t property, KyoAudioUnitScope scope,
                          uint32_t element) {
  KyoError error;
  if (setObject(object, property, scope, element, &error)) return true;
  char information[128];
  std::snprintf(information, sizeof information, "The operation couldn\u2019t be completed. (%s error %d.)",
                error.domain.c_str(), error.code);
  showAlert(error, "The property could not be set", information);
  return false;
}

void KyoEffect::setAlertHandler(KyoEffectAlertHandler handler) {
  std::lock_guard<std::mutex> lock(alertHandlerMutex());
  alertHandler() = std::move(handler);
}

double KyoEffect::latency() {
  KyoAudioUnit* unit = audioUnit();
  return unit && enabled() ? unit->latency() : 0.0;
}

double KyoEffect::tailTime() {
  KyoAudioUnit* unit = audioUnit();
  return unit && enabled() ? unit->tailTime() : 0.0;
}

// --- Editor ---

void KyoEffect::setEditorFactory(KyoEffectEditorFactory factory) {
  std::lock_guard<std::mutex> lock(editorFactoryMutex());
  editorFactory() = std::move(factory);
}

void KyoEffect::openEditor() {
  if (m_editor) {
    m_editor->showWindow();
    return;
  }
  if (!initialize()) {
    KyoLog("Warning: could not open editor for %s; effect could not be initialized.", description().c_str());
    return;
  }
  KyoEffectEditorFactory factory;
  {
    std::lock_guard<std::mutex> lock(editorFactoryMutex());
    factory = editorFactory();
  }
  if (!factory) return;  // a headless engine has no windows
  m_editor = factory(*this);
  if (m_editor && !m_lastEditorFrame.empty()) m_editor->setFrame(m_lastEditorFrame, true);
}

void KyoEffect::closeEditor() {
  if (!editorIsOpen()) return;
  m_lastEditorFrame = m_editor->frame();
  m_editor->close();
}

void KyoEffect::editorWillClose() {
  if (m_editor) m_lastEditorFrame = m_editor->frame();
  m_editor.reset();
}

bool KyoEffect::editorIsOpen() const { return m_editor && m_editor->isVisible(); }

// --- Catalogue ---

std::optional<KyoEffectMenu> KyoEffect::menuOfAllEffectsByManufacturer(KyoEffectStorage* effectStorage) {
  if (!effectStorage) {
    KyoLog("Error: menuOfAllEffectsByManufacturerAddedTo received invalid mutable array for storing effects.");
    return std::nullopt;
  }
  std::map<std::string, std::vector<std::shared_ptr<KyoEffect>>> byManufacturer;
  const bool scan = effectStorage->empty();
  if (!scan) {
    for (const auto& group : *effectStorage) {
      if (!group.empty()) byManufacturer[group.front()->manufacturer()] = group;
    }
  } else {
    for (uint32_t type : {kAudioUnitType_Effect, kAudioUnitType_MusicEffect}) {
      for (const KyoAudioComponentDescription& description : KyoComponentDescriptionsOfType(type)) {
        std::shared_ptr<KyoEffect> effect = effectWithDescription(description);
        if (!effect || effect->displayName().empty() || effect->manufacturer().empty()) {
          KYO_LOG_AT(1, "Skipping over broken audio component: %s", description.name().c_str());
          continue;
        }
        byManufacturer[effect->manufacturer()].push_back(effect);
      }
    }
  }
  if (KyoEnvironment::logLevel() >= 3) {
    std::string list;
    for (const auto& [manufacturer, effects] : byManufacturer) {
      list += "\n  " + manufacturer + ":";
      for (const auto& effect : effects) list += " " + effect->name() + ";";
    }
    KyoLog("manufacturer effects: %s", list.c_str());
  }

  std::vector<std::string> manufacturers;
  for (const auto& entry : byManufacturer) manufacturers.push_back(entry.first);
  std::stable_sort(manufacturers.begin(), manufacturers.end(),
                   [](const std::string& a, const std::string& b) { return lowercase(a) < lowercase(b); });

  KyoEffectMenu menu{"Effects", "Add effect...", {}};
  for (const std::string& manufacturer : manufacturers) {
    const auto& effects = byManufacturer[manufacturer];
    if (scan) effectStorage->push_back(effects);
    KyoEffectMenu::Submenu submenu{manufacturer, {}};
    for (const auto& effect : effects) {
      std::string title = effect->displayName().empty() ? effect->componentDescription().name() : effect->displayName();
      submenu.items.push_back({title, effect});
    }
    menu.submenus.push_back(std::move(submenu));
  }
  return menu;
}
