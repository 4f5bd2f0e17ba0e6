#include "effects/KyoEffectBus.h"

#include <algorithm>

#include "foundation/KyoLog.h"

KyoEffectBus::KyoEffectBus(uint32_t channels) : m_channels(channels) {}

std::shared_ptr<KyoEffectBus> KyoEffectBus::busWithCoder(const KyoEffectBusCoding& coding) {
  auto bus = std::make_shared<KyoEffectBus>();
  bus->setName(coding.name);
  bus->setChannels(coding.channels);
  std::vector<std::shared_ptr<KyoEffect>> effects;
  effects.reserve(coding.effects.size());
  for (const KyoEffectProperties& properties : coding.effects) effects.push_back(KyoEffect::effectWithCoder(properties));
  bus->setEffects(effects);
  return bus;
}

KyoEffectBusCoding KyoEffectBus::encode() {
  KyoEffectBusCoding coding;
  coding.name = m_name;
  coding.channels = m_channels;
  coding.effects.reserve(m_effects.size());
  for (const auto& effect : m_effects) coding.effects.push_back(effect->encode());
  return coding;
}

std::string KyoEffectBus::description() const {
  return "[" + m_name + " with " + std::to_string((int)m_effects.size()) + " effects]";
}

// --- The user's list ---

void KyoEffectBus::setEffects(const std::vector<std::shared_ptr<KyoEffect>>& effects) {
  m_deadEffects.insert(m_deadEffects.end(), m_effects.begin(), m_effects.end());
  m_effects.clear();
  for (const auto& effect : effects) {
    if (effect) m_effects.push_back(effect);
  }
}

void KyoEffectBus::addEffect(const std::shared_ptr<KyoEffect>& effect) {
  if (!effect || containsEffect(effect)) return;
  m_effects.push_back(effect);
}

void KyoEffectBus::removeEffect(const std::shared_ptr<KyoEffect>& effect) {
  auto found = std::find(m_effects.begin(), m_effects.end(), effect);
  if (!effect || found == m_effects.end()) return;
  m_deadEffects.push_back(effect);
  m_effects.erase(found);
}

bool KyoEffectBus::containsEffect(const std::shared_ptr<KyoEffect>& effect) const {
  return effect && std::find(m_effects.begin(), m_effects.end(), effect) != m_effects.end();
}

std::shared_ptr<KyoEffect> KyoEffectBus::lastUsedEffect() const {
  return m_usedEffects.empty() ? nullptr : m_usedEffects.back();
}

double KyoEffectBus::tailTime() const {
  double seconds = 0.0;
  for (const auto& effect : m_effects) {
    if (effect->enabled()) seconds += effect->tailTime();
  }
  return seconds;
}

double KyoEffectBus::latency() const {
  double seconds = 0.0;
  for (const auto& effect : m_usedEffects) seconds += effect->latency();
  return seconds;
}

// --- Rebuilding ---

void KyoEffectBus::addEffectsToStream(KyoStream* stream) {
  if (!stream) return;
  // A failure is logged by the effect; the chain goes on without it.
  for (const auto& effect : m_effects) stream->addEffect(effect.get());
}

void KyoEffectBus::removeEffectsFromStream(KyoStream* stream) {
  if (stream) {
    // An effect removed and added again before a rebuild stands in both lists; its
    // second removal finds it gone and does nothing.
    for (const auto& effect : m_effects) effect->removeFromStream(stream);
    for (const auto& effect : m_deadEffects) effect->removeFromStream(stream);
  }
  m_deadEffects.clear();
  m_usedEffects.clear();
}

void KyoEffectBus::saveState() {
  for (const auto& effect : m_effects) effect->saveState();
}

void KyoEffectBus::restoreState() {
  for (const auto& effect : m_effects) effect->restoreState();
}

void KyoEffectBus::setProperties() {
  m_usedEffects.clear();
  for (const auto& effect : m_effects) {
    // An effect that never got a unit (its plugin is gone) is not in the graph.
    if (!effect->audioUnit()) continue;
    effect->setInputBusCount(1);
    effect->setOutputBusCount(1);
    KyoError inputError;
    const bool input = effect->setInputStreamFormat(m_format, &inputError);
    if (!input && inputError.code == kKyoAudioUnitErr_FormatNotSupported) {
      KyoLog("Error: %s does not support input format: %s", effect->description().c_str(),
             m_format.description().c_str());
    }
    KyoError outputError;
    const bool output = effect->setOutputStreamFormat(m_format, &outputError);
    if (!output && outputError.code == kKyoAudioUnitErr_FormatNotSupported) {
      KyoLog("Error: %s does not support output format: %s", effect->description().c_str(),
             m_format.description().c_str());
    }
    if (input && output) m_usedEffects.push_back(effect);
  }
}

void KyoEffectBus::connectEffectsToEffect(KyoEffect* effect, uint32_t bus) {
  KyoEffect* target = effect;
  uint32_t targetBus = bus;
  for (const auto& used : m_usedEffects) {
    used->connectToInputOf(target, targetBus);
    target = used.get();
    targetBus = 0;
  }
}

void KyoEffectBus::setParameters() {
  for (const auto& effect : m_effects) effect->setParameters();
}
