#pragma once
// The presets of one effect in LV2's own format, in three groups: the plugin's own
// (in its bundle), the system's (other installed bundles) and the user's (bundles
// that we write under ~/.lv2, where other hosts look too). Main thread only: lilv
// is not thread-safe.

#include <QString>

#include <functional>
#include <optional>
#include <string>
#include <vector>

class KyoEffect;
class QWidget;

struct KyoEffectPresetItem {
  std::string label;
  // Factory and system presets load by their number in the effect's list; a
  // user preset by its file.
  int32_t number = -1;
  std::string path;
};

struct KyoEffectPresetGroups {
  std::vector<KyoEffectPresetItem> factory;
  std::vector<KyoEffectPresetItem> system;
  std::vector<KyoEffectPresetItem> user;
};

namespace KyoEffectPresets {

// "$HOME/.lv2", read each time so that a test can move HOME.
std::string userPresetFolder();
KyoEffectPresetGroups presetGroups(KyoEffect& effect);
// The user presets of the effect's plugin, sorted by label.
std::vector<KyoEffectPresetItem> userPresets(KyoEffect& effect);

// A preset name as a file name: each "/" becomes "_".
std::string cleanName(const std::string& name);
// Where a user preset of that name is written: its bundle folder and its file.
std::string userPresetBundle(KyoEffect& effect, const std::string& cleanName);
std::string userPresetFile(KyoEffect& effect, const std::string& cleanName);

// Writes the effect's settings as a user preset and makes it the current preset.
// An existing preset of that name is replaced only when `replace` is true.
enum class SaveResult { Saved, Exists, Failed };
SaveResult saveUserPreset(KyoEffect& effect, const std::string& name, bool replace);
bool renameUserPreset(KyoEffect& effect, const std::string& path, const std::string& newName);
bool removeUserPreset(const std::string& path);

// The questions of the presets menu, which tests answer in place of a person.
// The name to save under (empty when cancelled), starting from `current`.
QString askPresetName(QWidget* parent, const QString& current);
// "“name” already exists": true to replace it.
bool confirmReplace(QWidget* parent, const QString& name);
// A preset file to load; empty when cancelled.
QString choosePresetFile(QWidget* parent);

void setNameQuestionHandler(std::function<QString(const QString& current)> handler);
void setReplaceQuestionHandler(std::function<bool(const QString& name)> handler);
void setOpenPanelHandler(std::function<QString()> handler);

}  // namespace KyoEffectPresets
