#pragma once
// The one lilv world of the process: the installed LV2 plugins, the URI map that
// every instance shares, and the catalogue of the plugins that can be hosted as
// effects. Loaded on first use (thread-safe), never unloaded. Everything here but
// the URI map belongs to the main thread; lilv itself is not thread-safe.

#include <lilv/lilv.h>
#include <lv2/urid/urid.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

// Component types of the catalogue: an effect, and an effect that also takes MIDI.
constexpr uint32_t kKyoEffectType = 0x61756678;      // 'aufx'
constexpr uint32_t kKyoMusicEffectType = 0x61756d66; // 'aumf'

// Statuses of the catalogue, in the numbering the engine logs.
constexpr int32_t kKyoComponentNotFound = -2005;
constexpr int32_t kKyoNoComponentName = (int32_t)0x80008001;

// One hostable plugin as the catalogue lists it.
struct KyoLV2CatalogueEntry {
  uint32_t type = kKyoEffectType;
  std::string uri;
  std::string manufacturer;  // the plugin's project, else its author; may be empty
  std::string name;

  // "manufacturer: name", or the bare name when the plugin names no maker.
  std::string componentName() const { return manufacturer.empty() ? name : manufacturer + ": " + name; }
};

// Nodes that the host layer asks lilv about, made once.
struct KyoLV2Nodes {
  LilvNode* audioPort;
  LilvNode* controlPort;
  LilvNode* cvPort;
  LilvNode* atomPort;
  LilvNode* inputPort;
  LilvNode* outputPort;
  LilvNode* connectionOptional;
  LilvNode* latencyDesignation;
  LilvNode* reportsLatency;
  LilvNode* enabledDesignation;
  LilvNode* freeWheelingDesignation;
  LilvNode* toggled;
  LilvNode* integer;
  LilvNode* enumeration;
  LilvNode* inPlaceBroken;
  LilvNode* minimumSize;
  LilvNode* atomSupports;
  LilvNode* midiEvent;
  LilvNode* preset;
  LilvNode* label;
  LilvNode* rdfType;
  LilvNode* reverbPlugin;
  LilvNode* delayPlugin;
};

class KyoLV2World {
 public:
  static KyoLV2World& shared();

  LilvWorld* world() const { return m_world; }
  const KyoLV2Nodes& nodes() const { return m_nodes; }

  // The plugin of a URI, or null when none is installed.
  const LilvPlugin* pluginForURI(const std::string& uri) const;

  // URID map and unmap: any thread, since plugins map URIs when they please.
  LV2_URID map(const char* uri);
  const char* unmap(LV2_URID urid);
  LV2_URID_Map* mapFeature() { return &m_mapFeature; }
  LV2_URID_Unmap* unmapFeature() { return &m_unmapFeature; }

  // Every installed plugin with audio inputs and outputs, in lilv's order; built
  // on the first call. A plugin whose library is not on disk is left out with a log line.
  const std::vector<KyoLV2CatalogueEntry>& catalogue();
  const KyoLV2CatalogueEntry* catalogueEntry(const std::string& uri);

  // A feature the plugin requires and this host does not offer; empty when none.
  static std::string missingFeature(const LilvPlugin* plugin);

  // The catalogue entry of an installed plugin, built even for one that is not
  // listed (say, with no audio ports); false when none is installed.
  bool describePlugin(const std::string& uri, KyoLV2CatalogueEntry* entry) const;

  KyoLV2World(const KyoLV2World&) = delete;
  KyoLV2World& operator=(const KyoLV2World&) = delete;

 private:
  KyoLV2World();
  ~KyoLV2World() = delete;  // lives for the process: plugins may hold URIDs to the end
  bool describe(const LilvPlugin* plugin, KyoLV2CatalogueEntry* entry) const;

  LilvWorld* m_world;
  KyoLV2Nodes m_nodes;

  // Guards the URI map; held for a lookup or an insertion only.
  std::mutex m_mapMutex;
  std::unordered_map<std::string, LV2_URID> m_urids;
  std::deque<std::string> m_uris;  // index URID - 1; a deque keeps unmapped strings in place
  LV2_URID_Map m_mapFeature;
  LV2_URID_Unmap m_unmapFeature;

  std::once_flag m_catalogueOnce;
  std::vector<KyoLV2CatalogueEntry> m_catalogue;
};
