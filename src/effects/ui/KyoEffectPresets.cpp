#include "effects/ui/KyoEffectPresets.h"

#include <QFileDialog>
#include <QInputDialog>
#include <QMessageBox>
#include <QPushButton>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include "effects/KyoEffect.h"
#include "effects/KyoLV2Unit.h"
#include "effects/KyoLV2World.h"
#include "foundation/KyoLog.h"

namespace fs = std::filesystem;

namespace {

std::function<QString(const QString&)>& nameHandler() {
  static std::function<QString(const QString&)> handler;
  return handler;
}
std::function<bool(const QString&)>& replaceHandler() {
  static std::function<bool(const QString&)> handler;
  return handler;
}
std::function<QString()>& openHandler() {
  static std::function<QString()> handler;
  return handler;
}

KyoLV2Unit* lv2Unit(KyoEffect& effect) { return dynamic_cast<KyoLV2Unit*>(effect.audioUnit()); }

std::string pathOfFileURI(const char* uri) {
  char* path = lilv_file_uri_parse(uri, nullptr);
  std::string result = path ? path : "";
  lilv_free(path);
  return result;
}

bool isInside(const std::string& path, const std::string& folder) {
  if (folder.empty() || path.size() <= folder.size()) return false;
  return path.compare(0, folder.size(), folder) == 0 && (folder.back() == '/' || path[folder.size()] == '/');
}

// The file that describes a preset: its rdfs:seeAlso, else its own URI.
std::string presetFile(LilvWorld* world, const std::string& uri) {
  LilvNode* preset = lilv_new_uri(world, uri.c_str());
  LilvNode* seeAlso = lilv_new_uri(world, "http://www.w3.org/2000/01/rdf-schema#seeAlso");
  std::string file;
  if (LilvNode* where = lilv_world_get(world, preset, seeAlso, nullptr)) {
    if (lilv_node_is_uri(where)) file = pathOfFileURI(lilv_node_as_uri(where));
    lilv_node_free(where);
  }
  if (file.empty() && uri.rfind("file:", 0) == 0) file = pathOfFileURI(uri.c_str());
  lilv_node_free(seeAlso);
  lilv_node_free(preset);
  return file;
}

// Reads a preset file of the plugin; null for another plugin's or a broken file.
LilvState* readPreset(const std::string& path, const std::string& pluginURI) {
  KyoLV2World& lv2 = KyoLV2World::shared();
  LilvState* state = lilv_state_new_from_file(lv2.world(), lv2.mapFeature(), nullptr, path.c_str());
  if (state && pluginURI != lilv_node_as_uri(lilv_state_get_plugin_uri(state))) {
    lilv_state_free(state);
    return nullptr;
  }
  return state;
}

}  // namespace

namespace KyoEffectPresets {

std::string userPresetFolder() {
  const char* home = getenv("HOME");
  return std::string(home && *home ? home : "/tmp") + "/.lv2";
}

std::string cleanName(const std::string& name) {
  std::string clean = name;
  std::replace(clean.begin(), clean.end(), '/', '_');
  return clean;
}

std::string userPresetBundle(KyoEffect& effect, const std::string& clean) {
  return userPresetFolder() + "/" + cleanName(effect.name()) + "_" + clean + ".lv2";
}

std::string userPresetFile(KyoEffect& effect, const std::string& clean) {
  return userPresetBundle(effect, clean) + "/" + clean + ".ttl";
}

std::vector<KyoEffectPresetItem> userPresets(KyoEffect& effect) {
  std::vector<KyoEffectPresetItem> presets;
  KyoLV2Unit* unit = lv2Unit(effect);
  std::error_code ec;
  if (!unit || !fs::is_directory(userPresetFolder(), ec)) return presets;
  for (const fs::directory_entry& bundle : fs::directory_iterator(userPresetFolder(), ec)) {
    if (bundle.path().extension() != ".lv2" || !bundle.is_directory(ec)) continue;
    for (const fs::directory_entry& file : fs::directory_iterator(bundle.path(), ec)) {
      if (file.path().extension() != ".ttl" || file.path().filename() == "manifest.ttl") continue;
      LilvState* state = readPreset(file.path().string(), unit->uri());
      if (!state) continue;
      const char* label = lilv_state_get_label(state);
      presets.push_back({label && *label ? label : file.path().stem().string(), -1, file.path().string()});
      lilv_state_free(state);
    }
  }
  std::sort(presets.begin(), presets.end(),
            [](const KyoEffectPresetItem& a, const KyoEffectPresetItem& b) { return a.label < b.label; });
  return presets;
}

KyoEffectPresetGroups presetGroups(KyoEffect& effect) {
  KyoEffectPresetGroups groups;
  KyoLV2Unit* unit = lv2Unit(effect);
  if (!unit) return groups;
  KyoLV2World& lv2 = KyoLV2World::shared();
  const std::string bundle = pathOfFileURI(lilv_node_as_uri(lilv_plugin_get_bundle_uri(unit->plugin())));
  const std::string user = userPresetFolder();
  // The numbers are those of the effect's list, which holds every related preset.
  int32_t number = 0;
  for (const KyoLV2Preset& preset : unit->factoryPresets()) {
    const std::string file = presetFile(lv2.world(), preset.uri);
    if (isInside(file, user)) {
      ++number;  // listed from the folder itself, below
      continue;
    }
    std::vector<KyoEffectPresetItem>& group = file.empty() || isInside(file, bundle) ? groups.factory : groups.system;
    group.push_back({preset.label, number++, {}});
  }
  groups.user = userPresets(effect);
  return groups;
}

SaveResult saveUserPreset(KyoEffect& effect, const std::string& name, bool replace) {
  KyoLV2Unit* unit = lv2Unit(effect);
  const std::string clean = cleanName(name);
  if (!unit || clean.empty()) return SaveResult::Failed;
  const std::string bundle = userPresetBundle(effect, clean);
  std::error_code ec;
  if (fs::exists(userPresetFile(effect, clean), ec)) {
    if (!replace) return SaveResult::Exists;
    fs::remove_all(bundle, ec);
  }
  fs::create_directories(bundle, ec);
  effect.setCurrentPresetName(clean);
  return unit->savePreset(bundle, clean + ".ttl", clean) ? SaveResult::Saved : SaveResult::Failed;
}

bool renameUserPreset(KyoEffect& effect, const std::string& path, const std::string& newName) {
  KyoLV2Unit* unit = lv2Unit(effect);
  const std::string clean = cleanName(newName);
  if (!unit || clean.empty()) return false;
  const std::string target = userPresetFile(effect, clean);
  std::error_code ec;
  if (target == path) return true;
  if (fs::exists(target, ec)) return false;
  // lilv cannot write a state that it read from a file: the preset goes through an
  // instance of its own, away from the one that plays.
  LilvState* state = readPreset(path, unit->uri());
  if (!state) return false;
  KyoLV2World& lv2 = KyoLV2World::shared();
  char* text = lilv_state_to_string(lv2.world(), lv2.mapFeature(), lv2.unmapFeature(), state, "urn:sonto:preset", nullptr);
  lilv_state_free(state);
  std::unique_ptr<KyoLV2Unit> scratch = KyoLV2Unit::create(unit->uri());
  const std::string bundle = userPresetBundle(effect, clean);
  fs::create_directories(bundle, ec);
  const bool saved =
      text && scratch && scratch->restoreState(text) && scratch->savePreset(bundle, clean + ".ttl", clean);
  lilv_free(text);
  return saved && removeUserPreset(path);
}

bool removeUserPreset(const std::string& path) {
  const fs::path file(path);
  const fs::path bundle = file.parent_path();
  std::error_code ec;
  if (!isInside(bundle.string(), userPresetFolder()) || bundle.extension() != ".lv2") return false;
  // A bundle of ours holds the one preset and its manifest; another host's may hold more.
  size_t others = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(bundle, ec)) {
    if (entry.path() != file && entry.path().filename() != "manifest.ttl") ++others;
  }
  return others == 0 ? fs::remove_all(bundle, ec) > 0 : fs::remove(file, ec);
}

QString askPresetName(QWidget* parent, const QString& current) {
  if (nameHandler()) return nameHandler()(current);
  bool ok = false;
  const QString name = QInputDialog::getText(parent, QObject::tr("Save Preset"), QObject::tr("Preset name:"),
                                             QLineEdit::Normal, current, &ok);
  return ok ? name.trimmed() : QString();
}

bool confirmReplace(QWidget* parent, const QString& name) {
  if (replaceHandler()) return replaceHandler()(name);
  QMessageBox box(parent);
  box.setIcon(QMessageBox::Warning);
  box.setText(QObject::tr("“%1” already exists. Do you want to replace it?").arg(name));
  box.setInformativeText(
      QObject::tr("A preset with the same name already exists. Replacing it will overwrite its current contents."));
  QPushButton* replace = box.addButton(QObject::tr("Replace"), QMessageBox::AcceptRole);
  box.addButton(QObject::tr("Cancel"), QMessageBox::RejectRole);
  box.exec();
  return box.clickedButton() == replace;
}

QString choosePresetFile(QWidget* parent) {
  if (openHandler()) return openHandler()();
  return QFileDialog::getOpenFileName(parent, QObject::tr("Load Preset"), QString::fromStdString(userPresetFolder()),
                                      QObject::tr("LV2 presets (*.ttl)"));
}

void setNameQuestionHandler(std::function<QString(const QString&)> handler) { nameHandler() = std::move(handler); }
void setReplaceQuestionHandler(std::function<bool(const QString&)> handler) { replaceHandler() = std::move(handler); }
void setOpenPanelHandler(std::function<QString()> handler) { openHandler() = std::move(handler); }

}  // namespace KyoEffectPresets
