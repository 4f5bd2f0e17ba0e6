#pragma once
// An ordered chain of effects at one channel count: the chain of a source, or one
// aux chain of a send. The list outlives streams: at each rebuild the owner takes
// the chain off the old graph and lays it on the new one, and only the effects that
// accept the chain's format take part; the others stay on the list with their
// settings and are passed by.
//
// Threads: main thread only, inside the owner's render mutex during a rebuild. The
// render thread never sees the bus, only the units as they are connected.
//
// The owner's rebuild, with its render path silenced first:
//   saveState; removeEffectsFromStream; addEffectsToStream;
//   setFormat, restoreState, setProperties;
//   after the stream's initialize: connectEffectsToEffect, the owner's render
//   callback on lastUsedEffect (or on its mixer when there is none), setParameters.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/KyoAudioStreamDescription.h"
#include "effects/KyoEffect.h"

// The coded form of a bus: "name", "channels", "effects" (each effect's coded form,
// in list order). The effects that took the format are not coded.
struct KyoEffectBusCoding {
  std::string name;
  uint32_t channels = 2;
  std::vector<KyoEffectProperties> effects;
};

class KyoEffectBus {
 public:
  explicit KyoEffectBus(uint32_t channels = 2);
  // A bus as coded; effects whose plugin is missing stay on the list with their state.
  static std::shared_ptr<KyoEffectBus> busWithCoder(const KyoEffectBusCoding& coding);
  // Saves every effect's state first, so the coded settings are the live ones.
  KyoEffectBusCoding encode();

  KyoEffectBus(const KyoEffectBus&) = delete;
  KyoEffectBus& operator=(const KyoEffectBus&) = delete;

  // "[name with n effects]".
  std::string description() const;

  const std::string& name() const { return m_name; }
  void setName(const std::string& name) { m_name = name; }
  uint32_t channels() const { return m_channels; }
  void setChannels(uint32_t channels) { m_channels = channels; }
  const KyoAudioStreamDescription& format() const { return m_format; }
  void setFormat(const KyoAudioStreamDescription& format) { m_format = format; }

  // --- The user's list ---
  std::vector<std::shared_ptr<KyoEffect>> effects() const { return m_effects; }
  // The old effects stay known until the next removeEffectsFromStream, as they may
  // still be in a graph.
  void setEffects(const std::vector<std::shared_ptr<KyoEffect>>& effects);
  // Nothing, or an effect already on the list, is ignored.
  void addEffect(const std::shared_ptr<KyoEffect>& effect);
  void removeEffect(const std::shared_ptr<KyoEffect>& effect);
  bool containsEffect(const std::shared_ptr<KyoEffect>& effect) const;

  // --- What the last rebuild made of it ---
  // Those of the list that took the format, in list order; empty before setProperties.
  const std::vector<std::shared_ptr<KyoEffect>>& usedEffects() const { return m_usedEffects; }
  const std::vector<std::shared_ptr<KyoEffect>>& deadEffects() const { return m_deadEffects; }
  // The head of the chain, where audio enters: the owner's render callback goes here.
  std::shared_ptr<KyoEffect> lastUsedEffect() const;

  // Seconds the chain rings on: effects in series add up; a bypassed one counts 0.
  double tailTime() const;
  // Seconds of delay through the effects that are connected and not bypassed.
  double latency() const;

  // --- Rebuilding ---
  void addEffectsToStream(KyoStream* stream);
  void removeEffectsFromStream(KyoStream* stream);
  void saveState();
  void restoreState();
  // The format check: after the stream is opened, before it is initialized.
  void setProperties();
  // Wires the chain backwards from the destination: the first effect of the list
  // feeds the destination, the last is the head.
  void connectEffectsToEffect(KyoEffect* effect, uint32_t bus = 0);
  void setParameters();

 private:
  std::string m_name;
  uint32_t m_channels = 2;
  KyoAudioStreamDescription m_format;
  std::vector<std::shared_ptr<KyoEffect>> m_effects;
  std::vector<std::shared_ptr<KyoEffect>> m_usedEffects;
  std::vector<std::shared_ptr<KyoEffect>> m_deadEffects;
};
