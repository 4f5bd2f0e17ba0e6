#pragma once
// One key plus modifiers, as the workspace keys (pause all, resume all, duck) are
// stored. A hot key names a physical key (KyoKeyCodes.h) and fires on it whatever
// the layout and the caps lock state. A cue's own hot key is a plain string, not
// this type.

#include <cstdint>
#include <map>
#include <optional>
#include <string>

// A key event as the window hands it over, free of any toolkit.
struct KyoKeyEvent {
  // Modifier bits of `modifierFlags`.
  static constexpr uint32_t kCapsLock = 1u << 16;
  static constexpr uint32_t kShift = 1u << 17;
  static constexpr uint32_t kControl = 1u << 18;
  static constexpr uint32_t kOption = 1u << 19;
  static constexpr uint32_t kCommand = 1u << 20;
  static constexpr uint32_t kFunction = 1u << 23;

  uint16_t keyCode = 0;
  std::u16string charactersIgnoringModifiers;
  uint32_t modifierFlags = 0;
};

// Character codes of the special keys, as the window derives them from its own
// key values.
namespace KyoKeyCharacter {
constexpr uint16_t kUpArrow = 0xF700, kDownArrow = 0xF701, kLeftArrow = 0xF702, kRightArrow = 0xF703;
constexpr uint16_t kF1 = 0xF704;  // to F15 at 0xF712
constexpr uint16_t kForwardDelete = 0xF728, kHome = 0xF729, kEnd = 0xF72B, kPageUp = 0xF72C, kPageDown = 0xF72D;
constexpr uint16_t kClearLine = 0xF739, kBackspace = 8, kTab = 9, kNewline = 10, kReturn = 13, kSpace = 32;
constexpr uint16_t kDelete = 127;
}  // namespace KyoKeyCharacter

class KyoHotKey {
 public:
  // The form a workspace file keeps under the settings; an absent entry is empty.
  struct Descriptor {
    std::optional<uint16_t> keyCode;
    std::optional<uint16_t> keyCharacter;
    std::optional<bool> capsLock;
    std::optional<bool> shift;
    std::optional<bool> control;
    std::optional<bool> option;
    std::optional<bool> command;
    std::optional<bool> function;
    bool isEmpty() const {
      return !keyCode && !keyCharacter && !capsLock && !shift && !control && !option && !command && !function;
    }
  };

  // Archive keys.
  static constexpr const char* kKeyCodeKey = "VRActionKeyKeyCode";
  static constexpr const char* kKeyCharacterKey = "VRActionKeyKeyCharacter";
  static constexpr const char* kCapsLockKey = "VRActionKeyCapsLock";
  static constexpr const char* kShiftKey = "VRActionKeyShift";
  static constexpr const char* kControlKey = "VRActionKeyControl";
  static constexpr const char* kOptionKey = "VRActionKeyOption";
  static constexpr const char* kCommandKey = "VRActionKeyCommand";
  static constexpr const char* kFunctionKey = "VRActionKeyFunction";

  KyoHotKey() = default;

  void setEmpty() { *this = KyoHotKey(); }
  bool isEmpty() const;

  uint16_t keyCode() const { return m_keyCode; }
  uint16_t keyCharacter() const { return m_keyCharacter; }
  bool capsLock() const { return m_capsLock; }
  bool shift() const { return m_shift; }
  bool control() const { return m_control; }
  bool option() const { return m_option; }
  bool command() const { return m_command; }
  bool function() const { return m_function; }
  void setKeyCode(uint16_t keyCode) { m_keyCode = keyCode; }
  void setKeyCharacter(uint16_t keyCharacter) { m_keyCharacter = keyCharacter; }
  void setCapsLock(bool value) { m_capsLock = value; }
  void setShift(bool value) { m_shift = value; }
  void setControl(bool value) { m_control = value; }
  void setOption(bool value) { m_option = value; }
  void setCommand(bool value) { m_command = value; }
  void setFunction(bool value) { m_function = value; }
  // All six flags at once.
  void setAllFlags(bool value);

  // Captures the event; false, leaving the value as it was, for keys that cannot be
  // hot keys (anything with Command, the arrows, Tab, Return, no character, Escape).
  bool setFromKeyEvent(const KyoKeyEvent& event);
  // The physical key with the same Shift, Control and Option; never for an empty value.
  bool matchesKeyEvent(const KyoKeyEvent& event) const;

  Descriptor descriptor() const;
  // An empty descriptor leaves the value as it is; otherwise every field is set,
  // absent entries to zero.
  void setDescriptor(const Descriptor& descriptor);

  // Every key always written: integers for the codes, 0 or 1 for the flags.
  std::map<std::string, int64_t> archive() const;
  // Codes read as 32-bit integers and truncated to 16 bits; missing keys are zero.
  static KyoHotKey fromArchive(const std::map<std::string, int64_t>& archive);

  // Modifier glyphs then the key's name, UTF-8; empty for an empty value.
  std::string displayString() const;
  std::string description() const { return displayString(); }

  // All eight fields, caps lock and function included.
  bool isEqual(const KyoHotKey& other) const;
  bool operator==(const KyoHotKey& other) const { return isEqual(other); }

 private:
  uint16_t m_keyCode = 0;
  uint16_t m_keyCharacter = 0;
  bool m_capsLock = false;
  bool m_shift = false;
  bool m_control = false;
  bool m_option = false;
  bool m_command = false;
  bool m_function = false;
};
