#include "effects/KyoEffectCatalogue.h"

#include "effects/KyoLV2World.h"

namespace {
// What the built-in mixer calls itself, split like any other component name.
constexpr const char* kMatrixMixerName = "Sonto: Matrix Mixer";
}  // namespace

std::vector<KyoAudioComponentDescription> KyoComponentDescriptionsOfType(uint32_t type) {
  std::vector<KyoAudioComponentDescription> found;
  if (type == kAudioUnitType_Mixer) {
    KyoAudioComponentDescription mixer = KyoAudioComponentDescription::appleMatrixMixer();
    mixer.setName(kMatrixMixerName);
    found.push_back(mixer);
    return found;
  }
  for (const KyoLV2CatalogueEntry& entry : KyoLV2World::shared().catalogue()) {
    if (entry.type != type) continue;
    KyoAudioComponentDescription description(entry.type, entry.uri);
    description.setName(entry.componentName());
    found.push_back(description);
  }
  return found;
}

uint32_t KyoComponentType(const std::string& uri) {
  if (uri == kKyoMatrixMixerURI) return kAudioUnitType_Mixer;
  const KyoLV2CatalogueEntry* entry = KyoLV2World::shared().catalogueEntry(uri);
  return entry ? entry->type : 0;
}

bool KyoComponentIsInstalled(const KyoAudioComponentDescription& description) {
  const uint32_t type = KyoComponentType(description.uri());
  return type != 0 && (description.type() == 0 || description.type() == type);
}

std::string KyoComponentName(const KyoAudioComponentDescription& description) {
  if (!KyoComponentIsInstalled(description)) return {};
  if (description.uri() == kKyoMatrixMixerURI) return kMatrixMixerName;
  const KyoLV2CatalogueEntry* entry = KyoLV2World::shared().catalogueEntry(description.uri());
  return entry ? entry->componentName() : std::string();
}
