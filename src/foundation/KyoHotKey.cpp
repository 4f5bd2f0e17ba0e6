#include "foundation/KyoHotKey.h"

#include <locale.h>
#include <wctype.h>

namespace {

void appendUTF8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | (c >> 6));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xE0 | (c >> 12));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
}

// Upper case of one UTF-16 unit, whatever the process's locale.
void appendUppercase(std::string& out, uint16_t c) {
  if (c >= 0xD800 && c <= 0xDFFF) {  // half of a pair: no character on its own
    appendUTF8(out, 0xFFFD);
    return;
  }
  if (c == 0xDF) {  // sharp s has no single upper-case letter
    out += "SS";
    return;
  }
  static locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
  uint32_t upper = c;
  if (c < 0x80)
    upper = (c >= 'a' && c <= 'z') ? c - 'a' + 'A' : c;
  else if (utf8 != locale_t(0))
    upper = uint32_t(towupper_l(wint_t(c), utf8));
  appendUTF8(out, upper > 0xFFFF ? c : upper);
}

uint16_t truncated(int64_t value) { return uint16_t(int32_t(value)); }

}  // namespace

bool KyoHotKey::isEmpty() const {
  return m_keyCode == 0 && m_keyCharacter == 0 && !m_capsLock && !m_shift && !m_control && !m_option && !m_command &&
         !m_function;
}

void KyoHotKey::setAllFlags(bool value) {
  m_capsLock = m_shift = m_control = m_option = m_command = m_function = value;
}

bool KyoHotKey::setFromKeyEvent(const KyoKeyEvent& event) {
  const uint16_t character = event.charactersIgnoringModifiers.empty() ? 0 : event.charactersIgnoringModifiers[0];
  if (event.modifierFlags & KyoKeyEvent::kCommand) return false;
  if (character >= KyoKeyCharacter::kUpArrow && character <= KyoKeyCharacter::kRightArrow) return false;
  // No character, Tab, newline, Return.
  if (character <= 13 && ((0x2601u >> character) & 1u)) return false;
  if (event.keyCode == 53) return false;  // Escape
  m_keyCode = event.keyCode;
  m_keyCharacter = character;
  m_capsLock = event.modifierFlags & KyoKeyEvent::kCapsLock;
  m_shift = event.modifierFlags & KyoKeyEvent::kShift;
  m_control = event.modifierFlags & KyoKeyEvent::kControl;
  m_option = event.modifierFlags & KyoKeyEvent::kOption;
  m_command = false;
  m_function = event.modifierFlags & KyoKeyEvent::kFunction;
  return true;
}

bool KyoHotKey::matchesKeyEvent(const KyoKeyEvent& event) const {
  if (isEmpty()) return false;
  return m_shift == bool(event.modifierFlags & KyoKeyEvent::kShift) &&
         m_control == bool(event.modifierFlags & KyoKeyEvent::kControl) &&
         m_option == bool(event.modifierFlags & KyoKeyEvent::kOption) && m_keyCode == event.keyCode;
}

KyoHotKey::Descriptor KyoHotKey::descriptor() const {
  Descriptor d;
  d.keyCode = m_keyCode;
  d.keyCharacter = m_keyCharacter;
  d.capsLock = m_capsLock;
  d.shift = m_shift;
  d.control = m_control;
  d.option = m_option;
  d.command = m_command;
  d.function = m_function;
  return d;
}

void KyoHotKey::setDescriptor(const Descriptor& d) {
  if (d.isEmpty()) return;
  m_keyCode = d.keyCode.value_or(0);
  m_keyCharacter = d.keyCharacter.value_or(0);
  m_capsLock = d.capsLock.value_or(false);
  m_shift = d.shift.value_or(false);
  m_control = d.control.value_or(false);
  m_option = d.option.value_or(false);
  m_command = d.command.value_or(false);
  m_function = d.function.value_or(false);
}

std::map<std::string, int64_t> KyoHotKey::archive() const {
  return {{kKeyCodeKey, m_keyCode}, {kKeyCharacterKey, m_keyCharacter}, {kCapsLockKey, m_capsLock},
          {kShiftKey, m_shift},     {kControlKey, m_control},           {kOptionKey, m_option},
          {kCommandKey, m_command}, {kFunctionKey, m_function}};
}

KyoHotKey KyoHotKey::fromArchive(const std::map<std::string, int64_t>& archive) {
  auto value = [&](const char* key) -> int64_t {
    auto it = archive.find(key);
    return it == archive.end() ? 0 : it->second;
  };
  KyoHotKey key;
  key.m_keyCode = truncated(value(kKeyCodeKey));
  key.m_keyCharacter = truncated(value(kKeyCharacterKey));
  key.m_capsLock = value(kCapsLockKey) != 0;
  key.m_shift = value(kShiftKey) != 0;
  key.m_control = value(kControlKey) != 0;
  key.m_option = value(kOptionKey) != 0;
  key.m_command = value(kCommandKey) != 0;
  key.m_function = value(kFunctionKey) != 0;
  return key;
}

std::string KyoHotKey::displayString() const {
  std::string s;
  if (m_shift) appendUTF8(s, 0x21E7);
  if (m_control) appendUTF8(s, 0x2303);
  if (m_option) appendUTF8(s, 0x2325);
  if (m_command) appendUTF8(s, 0x2318);
  const uint16_t c = m_keyCharacter;
  switch (c) {
    case 0:
      break;
    case KyoKeyCharacter::kBackspace:
    case KyoKeyCharacter::kDelete:
    case KyoKeyCharacter::kClearLine:
      appendUTF8(s, 0x232B);
      break;
    case KyoKeyCharacter::kTab:
      s += "Tab";
      break;
    case KyoKeyCharacter::kReturn:
      s += "Return";
      break;
    case KyoKeyCharacter::kSpace:
      s += "Space";
      break;
    case KyoKeyCharacter::kUpArrow:
      appendUTF8(s, 0x2191);
      break;
    case KyoKeyCharacter::kDownArrow:
      appendUTF8(s, 0x2193);
      break;
    case KyoKeyCharacter::kLeftArrow:
      appendUTF8(s, 0x2190);
      break;
    case KyoKeyCharacter::kRightArrow:
      appendUTF8(s, 0x2192);
      break;
    case KyoKeyCharacter::kForwardDelete:
      appendUTF8(s, 0x2326);
      break;
    case KyoKeyCharacter::kHome:
      s += "Home";
      break;
    case KyoKeyCharacter::kEnd:
      s += "End";
      break;
    case KyoKeyCharacter::kPageUp:
      appendUTF8(s, 0x21DE);
      break;
    case KyoKeyCharacter::kPageDown:
      appendUTF8(s, 0x21DF);
      break;
    default:
      if (c >= KyoKeyCharacter::kF1 && c <= KyoKeyCharacter::kF1 + 14) {
        // Appended in two steps: GCC 12 at -O3 sees a false overlap in "F" + string.
        s += 'F';
        s += std::to_string(c - KyoKeyCharacter::kF1 + 1);
      } else {
        appendUppercase(s, c);
      }
  }
  return s;
}

bool KyoHotKey::isEqual(const KyoHotKey& other) const {
  return m_keyCode == other.m_keyCode && m_keyCharacter == other.m_keyCharacter && m_capsLock == other.m_capsLock &&
         m_shift == other.m_shift && m_control == other.m_control && m_option == other.m_option &&
         m_command == other.m_command && m_function == other.m_function;
}
