#pragma once
// One unit of a render stream: an effect that the user adds to a cue (an LV2
// plugin), or a matrix mixer of a source or send. An effect outlives its unit: each
// stream rebuild takes the unit away and makes a new one, and the effect carries
// the unit's complete state across as its property dictionary.
//
// Threads: render() on the render thread, touching only the cached unit; every
// other call on the main thread (or the thread that rebuilds, inside the owner's
// render mutex).

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "audio/KyoAudioComponentDescription.h"
#include "audio/KyoAudioRendering.h"
#include "audio/KyoAudioStreamDescription.h"
#include "audio/KyoAudioUnit.h"
#include "audio/KyoStream.h"

inline constexpr const char* kKyoEffectErrorDomain = "KyoEffectErrorDomain";
inline constexpr const char* kComponentMgrErrorDomain = "ComponentMgrErrorDomain";
inline constexpr const char* kKyoBypassChangedNotification = "bypassChanged";

// The saved form of an effect, key by key.
struct KyoEffectProperties {
  std::string className = "KyoEffect";        // "class"
  std::vector<uint8_t> component;              // "component": the description's state
  std::string manufacturer;                    // "manufacturer"
  std::string name;                            // "name"
  std::string displayName;                     // "displayName"
  std::optional<bool> enabled;                 // "enabled"; missing reads as true
  std::optional<bool> editorIsOpen;            // "editorIsOpen"
  std::optional<std::string> lastEditorFrame;  // "lastEditorFrame", only if known
  std::optional<std::string> settings;         // "settings": the unit's complete state, only if the unit exists

  bool operator==(const KyoEffectProperties&) const = default;
};

// Which channel counts a unit takes, as (input, output): a positive count, -1 for
// any count, -n for any count up to n.
struct KyoChannelInfo {
  int16_t inChannels;
  int16_t outChannels;
};

struct KyoEffectPreset {
  int32_t number;
  std::string name;
};

class KyoEffect;

// A value for a unit's property: nothing, a number (sent as 4 unsigned bytes), a
// stream format (its 40-byte record) or raw bytes.
using KyoPropertyObject = std::variant<std::monostate, uint32_t, KyoAudioStreamDescription, std::vector<uint8_t>>;

// Shows a failure to the operator as a modal alert, on the main thread: the message
// and the informative text. Installed by the interface layer.
using KyoEffectAlertHandler = std::function<void(const KyoError& error, const std::string& message,
                                                 const std::string& information)>;

// The window of an effect's own interface, made by the interface layer. The engine
// only opens, closes and asks about it.
class KyoEffectEditorWindow {
 public:
  virtual ~KyoEffectEditorWindow() = default;
  virtual void showWindow() = 0;
  virtual void close() = 0;
  virtual bool isVisible() const = 0;
  // The frame in the text form "{{x, y}, {width, height}}".
  virtual std::string frame() const = 0;
  virtual void setFrame(const std::string& frame, bool display) = 0;
};
using KyoEffectEditorFactory = std::function<std::unique_ptr<KyoEffectEditorWindow>(KyoEffect& effect)>;

// The menu of every effect, by manufacturer, for the interface layer to show.
struct KyoEffectMenu {
  struct Item {
    std::string title;
    std::shared_ptr<KyoEffect> effect;
  };
  struct Submenu {
    std::string title;  // the manufacturer
    std::vector<Item> items;
  };
  std::string title;      // "Effects"
  std::string firstItem;  // "Add effect...", no action
  std::vector<Submenu> submenus;
};
// One inner list per manufacturer, kept by the caller so the scan runs once per process.
using KyoEffectStorage = std::vector<std::vector<std::shared_ptr<KyoEffect>>>;

class KyoEffect final : public KyoAudioRendering, public KyoStreamEffect, public std::enable_shared_from_this<KyoEffect> {
 public:
  static std::shared_ptr<KyoEffect> effectWithDescription(const KyoAudioComponentDescription& description,
                                                          KyoError* error = nullptr);
  // Null when the class is unknown or the unit is not installed: the caller goes on without it.
  static std::shared_ptr<KyoEffect> effectWithProperties(const KyoEffectProperties& properties,
                                                         KyoError* error = nullptr);
  // The decoding path: the effect stands even when its unit is not installed, and
  // keeps its state so that saving again loses nothing.
  static std::shared_ptr<KyoEffect> effectWithCoder(const KyoEffectProperties& properties);
  // The coded form: the state after a saveState, so a live unit's settings are in it.
  KyoEffectProperties encode();

  ~KyoEffect() override;
  KyoEffect(const KyoEffect&) = delete;
  KyoEffect& operator=(const KyoEffect&) = delete;

  // The same unit with the same settings; no editor, no stream.
  std::shared_ptr<KyoEffect> copy();
  std::string description() const;

  const KyoAudioComponentDescription& componentDescription() const { return m_componentDescription; }
  bool setComponentDescription(const KyoAudioComponentDescription& description, KyoError* error = nullptr);
  // "maker: name" (or "maker:name") into its two parts; anything else is the name
  // of the maker "Unknown".
  static void splitComponentName(const std::string& componentName, std::string* manufacturer, std::string* name);
  const std::string& manufacturer() const { return m_manufacturer; }
  const std::string& name() const { return m_name; }
  const std::string& displayName() const { return m_displayName; }
  void setDisplayName(const std::string& displayName) { m_displayName = displayName; }

  // --- In a stream ---
  KyoStream* stream() const override { return m_stream; }
  int32_t node() const override { return m_node; }
  void setStream(KyoStream* stream, int32_t node) override;
  bool addToStream(KyoStream* stream, KyoError* error) override;
  // Saves the unit's state first when nothing newer is pending, so no setting is lost.
  bool removeFromStream(KyoStream* stream);
  // The unit: the stream's node, or one opened outside any stream; null without either.
  KyoAudioUnit* audioUnit();

  // --- Life of the unit ---
  bool setup(KyoError* error = nullptr);
  bool initialize(KyoError* error = nullptr);
  bool uninitialize(KyoError* error = nullptr);
  // A unit of its own, outside any graph.
  bool open(KyoError* error = nullptr);
  bool reset(KyoError* error = nullptr);

  // --- Connecting: this effect's output bus into an input bus of another ---
  bool connectToOutputOf(KyoEffect* effect, KyoError* error = nullptr);
  bool connectToInputOf(KyoEffect* effect, KyoError* error = nullptr) { return connectToInputOf(effect, 0, error); }
  bool connectToInputOf(KyoEffect* effect, uint32_t bus, KyoError* error = nullptr);
  bool connectBus(uint32_t outputBus, KyoEffect* effect, uint32_t inputBus, KyoError* error = nullptr);

  // --- Channels ---
  uint32_t inputChannels();
  uint32_t outputChannels();
  uint32_t supportedInputChannels(uint32_t wanted);
  uint32_t supportedOutputChannels(uint32_t wanted);
  const std::optional<std::vector<KyoChannelInfo>>& channelInfo() const { return m_channelInfoData; }
  // The count nearest to the one wanted among the records, looking at one side.
  static uint32_t nearestChannelCount(const std::vector<KyoChannelInfo>& records, uint32_t wanted, bool input);

  // --- Formats ---
  std::optional<KyoAudioStreamDescription> inputStreamFormat(uint32_t bus = 0);
  std::optional<KyoAudioStreamDescription> outputStreamFormat(uint32_t bus = 0);
  bool setStreamFormat(const KyoAudioStreamDescription& format);
  bool setInputStreamFormat(const KyoAudioStreamDescription& format, KyoError* error = nullptr) {
    return setInputStreamFormat(format, 0, error);
  }
  bool setInputStreamFormat(const KyoAudioStreamDescription& format, uint32_t bus, KyoError* error = nullptr);
  bool setOutputStreamFormat(const KyoAudioStreamDescription& format, KyoError* error = nullptr) {
    return setOutputStreamFormat(format, 0, error);
  }
  bool setOutputStreamFormat(const KyoAudioStreamDescription& format, uint32_t bus, KyoError* error = nullptr);

  // --- Busses ---
  uint32_t inputBusCount();
  uint32_t outputBusCount();
  // A unit with fixed busses is left alone, silently.
  void setInputBusCount(uint32_t count);
  void setOutputBusCount(uint32_t count);

  // --- Rendering ---
  void registerRenderInfo(KyoRenderInfo* info) override { KyoRegisterRenderInfo(this, info); }
  // Render thread: the unit's render of the given output bus; a failure answers its status.
  int32_t render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t busNumber, uint32_t frames,
                 AudioBufferList* ioData) override;
  bool setRenderCallback(const KyoRenderInfo& callback, KyoError* error = nullptr) {
    return setRenderCallback(callback, 0, error);
  }
  bool setRenderCallback(const KyoRenderInfo& callback, uint32_t bus, KyoError* error = nullptr);
  void clearRenderCallback() { clearRenderCallbackForBus(0); }
  void clearRenderCallbackForBus(uint32_t bus);

  // --- Properties by number: the short forms are global scope, element 0 ---
  // Nothing without a unit or when the unit lacks the property.
  std::optional<std::vector<uint8_t>> dataForProperty(uint32_t property, KyoAudioUnitScope scope = kKyoAudioUnitScope_Global,
                                                      uint32_t element = 0, KyoError* error = nullptr);
  // The first bytes of the property's data; 0 when there is none.
  bool boolValueForProperty(uint32_t property, KyoAudioUnitScope scope = kKyoAudioUnitScope_Global,
                            uint32_t element = 0, KyoError* error = nullptr);
  uint32_t unsignedIntValueForProperty(uint32_t property, KyoAudioUnitScope scope = kKyoAudioUnitScope_Global,
                                       uint32_t element = 0, KyoError* error = nullptr);
  double doubleValueForProperty(uint32_t property, KyoAudioUnitScope scope = kKyoAudioUnitScope_Global,
                                uint32_t element = 0, KyoError* error = nullptr);
  bool isPropertyAvailable(uint32_t property, KyoAudioUnitScope scope = kKyoAudioUnitScope_Global,
                           uint32_t element = 0, KyoError* error = nullptr);
  // False without a log for a property the unit does not have.
  bool isPropertyWritable(uint32_t property, KyoAudioUnitScope scope = kKyoAudioUnitScope_Global,
                          uint32_t element = 0, KyoError* error = nullptr);
  // Nothing or no unit answers true. A failure is logged and left in the error.
  bool setObject(const KyoPropertyObject& object, uint32_t property, KyoAudioUnitScope scope, uint32_t element,
                 KyoError* error);
  // Main thread: a failure is shown at once through the alert handler.
  bool setObject(const KyoPropertyObject& object, uint32_t property, KyoAudioUnitScope scope, uint32_t element);
  bool setObject(const KyoPropertyObject& object, uint32_t property) {
    return setObject(object, property, kKyoAudioUnitScope_Global, 0);
  }
  bool setUnsignedInt(uint32_t value, uint32_t property) { return setObject(KyoPropertyObject(value), property); }
  bool setBool(bool value, uint32_t property) { return setObject(KyoPropertyObject(uint32_t(value ? 1 : 0)), property); }
  static void setAlertHandler(KyoEffectAlertHandler handler);

  // --- Parameters: failures are logged and read as 0.0 ---
  float valueForParameter(uint32_t parameter, KyoAudioUnitScope scope = kKyoAudioUnitScope_Global,
                          uint32_t element = 0);
  void setValue(float value, uint32_t parameter, KyoAudioUnitScope scope = kKyoAudioUnitScope_Global,
                uint32_t element = 0);
  // The parameter's name, else "Parameter #n" with n its id plus 1.
  std::string titleOfParameter(uint32_t parameter, KyoError* error = nullptr);
  // Title and id of every parameter, made once.
  const std::vector<std::pair<std::string, uint32_t>>& parameterMenu();

  // --- State ---
  void saveState();
  void restoreState();
  KyoEffectProperties properties();
  bool setProperties(const KyoEffectProperties& properties);
  // Applies the pending state to the live unit.
  bool setParameters();
  const std::optional<KyoEffectProperties>& state() const { return m_state; }
  bool enabled();
  void setEnabled(bool enabled);
  std::optional<std::string> settings();
  bool setSettings(const std::string& settings, KyoError* error = nullptr);
  std::vector<KyoEffectPreset> factoryPresets();
  bool setFactoryPreset(int32_t number, const std::string& name);
  // A preset file of the unit's settings (LV2 preset Turtle).
  bool setUserPreset(const std::string& path);
  const std::string& currentPresetName() const { return m_currentPresetName; }
  void setCurrentPresetName(const std::string& name) { m_currentPresetName = name; }
  double latency();
  double tailTime();

  // --- Editor ---
  static void setEditorFactory(KyoEffectEditorFactory factory);
  void openEditor();
  void closeEditor() override;
  void editorWillClose();
  bool editorIsOpen() const;
  KyoEffectEditorWindow* editor() const { return m_editor.get(); }
  const std::string& lastEditorFrame() const { return m_lastEditorFrame; }

  // --- Catalogue ---
  // Null, with a log line, without storage.
  static std::optional<KyoEffectMenu> menuOfAllEffectsByManufacturer(KyoEffectStorage* effectStorage);

 private:
  KyoEffect() = default;
  std::shared_ptr<KyoAudioUnit> makeUnit(int32_t* status);
  bool answer(int32_t status, const char* domain, KyoError* error, const char* function, int line);
  bool setFormat(KyoAudioUnitScope scope, const KyoAudioStreamDescription& format, uint32_t bus, KyoError* error);
  bool isMixer() const;

  KyoAudioComponentDescription m_componentDescription;
  std::string m_manufacturer;
  std::string m_name;
  std::string m_displayName;
  KyoStream* m_stream = nullptr;
  int32_t m_node = 0;
  // The unit the render thread calls: the stream's node or m_ownUnit. Changed only
  // while the owner keeps the render thread out.
  KyoAudioUnit* m_audioUnit = nullptr;
  std::shared_ptr<KyoAudioUnit> m_ownUnit;
  std::optional<std::vector<KyoChannelInfo>> m_channelInfoData;
  std::optional<std::vector<std::pair<std::string, uint32_t>>> m_parameterMenu;
  std::optional<KyoEffectProperties> m_state;
  std::unique_ptr<KyoEffectEditorWindow> m_editor;
  std::string m_lastEditorFrame;
  std::string m_currentPresetName;
};
