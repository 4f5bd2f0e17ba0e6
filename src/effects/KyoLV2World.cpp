#include "effects/KyoLV2World.h"

#include <lv2/worker/worker.h>

#include <lv2/atom/atom.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/log/log.h>
#include <lv2/options/options.h>
#include <lv2/urid/urid.h>
#include <lv2/core/lv2.h>
#include <lv2/midi/midi.h>
#include <lv2/presets/presets.h>
#include <lv2/resize-port/resize-port.h>
#include <unistd.h>

#include <cstring>

#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

namespace {

LV2_URID mapCallback(LV2_URID_Map_Handle handle, const char* uri) {
  return static_cast<KyoLV2World*>(handle)->map(uri);
}

const char* unmapCallback(LV2_URID_Unmap_Handle handle, LV2_URID urid) {
  return static_cast<KyoLV2World*>(handle)->unmap(urid);
}

std::string nodeString(LilvNode* node) {
  std::string text = node ? lilv_node_as_string(node) : "";
  lilv_node_free(node);
  return text;
}

}  // namespace

KyoLV2World& KyoLV2World::shared() {
  // Leaked on purpose: instances and their URIDs may outlive static destruction.
  static KyoLV2World* world = new KyoLV2World();
  return *world;
}

KyoLV2World::KyoLV2World() : m_world(lilv_world_new()) {
  // LV2_PATH, when set, replaces the default folders; tests use it for their fixture.
  lilv_world_load_all(m_world);

  auto uri = [this](const char* text) { return lilv_new_uri(m_world, text); };
  m_nodes.audioPort = uri(LV2_CORE__AudioPort);
  m_nodes.controlPort = uri(LV2_CORE__ControlPort);
  m_nodes.cvPort = uri(LV2_CORE__CVPort);
  m_nodes.atomPort = uri(LV2_ATOM__AtomPort);
  m_nodes.inputPort = uri(LV2_CORE__InputPort);
  m_nodes.outputPort = uri(LV2_CORE__OutputPort);
  m_nodes.connectionOptional = uri(LV2_CORE__connectionOptional);
  m_nodes.latencyDesignation = uri(LV2_CORE__latency);
  m_nodes.reportsLatency = uri(LV2_CORE__reportsLatency);
  m_nodes.enabledDesignation = uri(LV2_CORE__enabled);
  m_nodes.freeWheelingDesignation = uri(LV2_CORE__freeWheeling);
  m_nodes.toggled = uri(LV2_CORE__toggled);
  m_nodes.integer = uri(LV2_CORE__integer);
  m_nodes.enumeration = uri(LV2_CORE__enumeration);
  m_nodes.inPlaceBroken = uri(LV2_CORE__inPlaceBroken);
  m_nodes.minimumSize = uri(LV2_RESIZE_PORT__minimumSize);
  m_nodes.atomSupports = uri(LV2_ATOM__supports);
  m_nodes.midiEvent = uri(LV2_MIDI__MidiEvent);
  m_nodes.preset = uri(LV2_PRESETS__Preset);
  m_nodes.label = uri("http://www.w3.org/2000/01/rdf-schema#label");
  m_nodes.rdfType = uri("http://www.w3.org/1999/02/22-rdf-syntax-ns#type");
  m_nodes.reverbPlugin = uri(LV2_CORE__ReverbPlugin);
  m_nodes.delayPlugin = uri(LV2_CORE__DelayPlugin);

  m_mapFeature = {this, mapCallback};
  m_unmapFeature = {this, unmapCallback};
}

const LilvPlugin* KyoLV2World::pluginForURI(const std::string& uri) const {
  if (uri.empty()) return nullptr;
  LilvNode* node = lilv_new_uri(m_world, uri.c_str());
  if (!node) return nullptr;
  const LilvPlugin* plugin = lilv_plugins_get_by_uri(lilv_world_get_all_plugins(m_world), node);
  lilv_node_free(node);
  return plugin;
}

LV2_URID KyoLV2World::map(const char* uri) {
  if (!uri) return 0;
  std::lock_guard<std::mutex> lock(m_mapMutex);
  auto found = m_urids.find(uri);
  if (found != m_urids.end()) return found->second;
  m_uris.emplace_back(uri);
  LV2_URID urid = static_cast<LV2_URID>(m_uris.size());
  m_urids.emplace(m_uris.back(), urid);
  return urid;
}

const char* KyoLV2World::unmap(LV2_URID urid) {
  std::lock_guard<std::mutex> lock(m_mapMutex);
  if (urid == 0 || urid > m_uris.size()) return nullptr;
  return m_uris[urid - 1].c_str();
}

bool KyoLV2World::describe(const LilvPlugin* plugin, KyoLV2CatalogueEntry* entry) const {
  const uint32_t audioIns =
      lilv_plugin_get_num_ports_of_class(plugin, m_nodes.audioPort, m_nodes.inputPort, nullptr);
  const uint32_t audioOuts =
      lilv_plugin_get_num_ports_of_class(plugin, m_nodes.audioPort, m_nodes.outputPort, nullptr);

  bool takesMIDI = false;
  const uint32_t ports = lilv_plugin_get_num_ports(plugin);
  for (uint32_t i = 0; i < ports; ++i) {
    const LilvPort* port = lilv_plugin_get_port_by_index(plugin, i);
    if (lilv_port_is_a(plugin, port, m_nodes.atomPort) && lilv_port_is_a(plugin, port, m_nodes.inputPort) &&
        lilv_port_supports_event(plugin, port, m_nodes.midiEvent)) {
      takesMIDI = true;
    }
  }

  entry->uri = lilv_node_as_uri(lilv_plugin_get_uri(plugin));
  entry->type = takesMIDI ? kKyoMusicEffectType : kKyoEffectType;
  entry->name = nodeString(lilv_plugin_get_name(plugin));
  entry->manufacturer.clear();
  if (LilvNode* project = lilv_plugin_get_project(plugin)) {
    LilvNode* doapName = lilv_new_uri(m_world, "http://usefulinc.com/ns/doap#name");
    entry->manufacturer = nodeString(lilv_world_get(m_world, project, doapName, nullptr));
    lilv_node_free(doapName);
    lilv_node_free(project);
  }
  if (entry->manufacturer.empty()) entry->manufacturer = nodeString(lilv_plugin_get_author_name(plugin));
  return audioIns > 0 && audioOuts > 0;
}

std::string KyoLV2World::missingFeature(const LilvPlugin* plugin) {
  // What KyoLV2Unit hands every instance, and what needs nothing from the host.
  static const char* const kSupportedFeatures[] = {
      LV2_URID__map,         LV2_URID__unmap,         LV2_OPTIONS__options,    LV2_BUF_SIZE__boundedBlockLength,
      LV2_LOG__log,          LV2_CORE__hardRTCapable, LV2_CORE__inPlaceBroken, LV2_CORE__isLive,
      LV2_WORKER__schedule,
  };
  LilvNodes* required = lilv_plugin_get_required_features(plugin);
  std::string missing;
  LILV_FOREACH(nodes, it, required) {
    const char* feature = lilv_node_as_uri(lilv_nodes_get(required, it));
    bool known = false;
    for (const char* supported : kSupportedFeatures) known = known || strcmp(feature, supported) == 0;
    if (!known) missing = feature;
  }
  lilv_nodes_free(required);
  return missing;
}

bool KyoLV2World::describePlugin(const std::string& uri, KyoLV2CatalogueEntry* entry) const {
  const LilvPlugin* plugin = pluginForURI(uri);
  if (!plugin) return false;
  describe(plugin, entry);
  return true;
}

const std::vector<KyoLV2CatalogueEntry>& KyoLV2World::catalogue() {
  std::call_once(m_catalogueOnce, [this] {
    const LilvPlugins* plugins = lilv_world_get_all_plugins(m_world);
    LILV_FOREACH(plugins, it, plugins) {
      const LilvPlugin* plugin = lilv_plugins_get(plugins, it);
      KyoLV2CatalogueEntry entry;
      if (!describe(plugin, &entry)) continue;
      // A manifest may name a library that was never installed; loading it would
      // only fail later, in the middle of a show.
      const LilvNode* library = lilv_plugin_get_library_uri(plugin);
      char* path = library ? lilv_file_uri_parse(lilv_node_as_uri(library), nullptr) : nullptr;
      const bool present = path && access(path, R_OK) == 0;
      lilv_free(path);
      if (!present) {
        KYO_LOG_AT(1, "Skipping over broken audio component: %s", entry.componentName().c_str());
        continue;
      }
      // Nor is a plugin offered that could never be instantiated here.
      const std::string missing = missingFeature(plugin);
      if (!missing.empty()) {
        KYO_LOG_AT(1, "Skipping over broken audio component: %s (needs %s)", entry.componentName().c_str(),
                   missing.c_str());
        continue;
      }
      m_catalogue.push_back(std::move(entry));
    }
  });
  return m_catalogue;
}

const KyoLV2CatalogueEntry* KyoLV2World::catalogueEntry(const std::string& uri) {
  for (const KyoLV2CatalogueEntry& entry : catalogue()) {
    if (entry.uri == uri) return &entry;
  }
  return nullptr;
}
