#include "foundation/KyoKeyCodes.h"

#include <linux/input-event-codes.h>

#include <array>

namespace {

using namespace KyoKeyCode;

struct Entry {
  uint16_t evdev;
  uint16_t key;
};

// Every key of a full PC keyboard (104/105 keys), the Japanese and Korean extras
// and the media keys that have a place of their own.
constexpr Entry kTable[] = {
    {KEY_ESC, kEscape},
    {KEY_1, k1},
    {KEY_2, k2},
    {KEY_3, k3},
    {KEY_4, k4},
    {KEY_5, k5},
    {KEY_6, k6},
    {KEY_7, k7},
    {KEY_8, k8},
    {KEY_9, k9},
    {KEY_0, k0},
    {KEY_MINUS, kMinus},
    {KEY_EQUAL, kEqual},
    {KEY_BACKSPACE, kDelete},
    {KEY_TAB, kTab},
    {KEY_Q, kQ},
    {KEY_W, kW},
    {KEY_E, kE},
    {KEY_R, kR},
    {KEY_T, kT},
    {KEY_Y, kY},
    {KEY_U, kU},
    {KEY_I, kI},
    {KEY_O, kO},
    {KEY_P, kP},
    {KEY_LEFTBRACE, kLeftBracket},
    {KEY_RIGHTBRACE, kRightBracket},
    {KEY_ENTER, kReturn},
    {KEY_LEFTCTRL, kControl},
    {KEY_A, kA},
    {KEY_S, kS},
    {KEY_D, kD},
    {KEY_F, kF},
    {KEY_G, kG},
    {KEY_H, kH},
    {KEY_J, kJ},
    {KEY_K, kK},
    {KEY_L, kL},
    {KEY_SEMICOLON, kSemicolon},
    {KEY_APOSTROPHE, kQuote},
    {KEY_GRAVE, kGrave},
    {KEY_LEFTSHIFT, kShift},
    {KEY_BACKSLASH, kBackslash},
    {KEY_Z, kZ},
    {KEY_X, kX},
    {KEY_C, kC},
    {KEY_V, kV},
    {KEY_B, kB},
    {KEY_N, kN},
    {KEY_M, kM},
    {KEY_COMMA, kComma},
    {KEY_DOT, kPeriod},
    {KEY_SLASH, kSlash},
    {KEY_RIGHTSHIFT, kRightShift},
    {KEY_KPASTERISK, kKeypadMultiply},
    {KEY_LEFTALT, kOption},
    {KEY_SPACE, kSpace},
    {KEY_CAPSLOCK, kCapsLock},
    {KEY_F1, kF1},
    {KEY_F2, kF2},
    {KEY_F3, kF3},
    {KEY_F4, kF4},
    {KEY_F5, kF5},
    {KEY_F6, kF6},
    {KEY_F7, kF7},
    {KEY_F8, kF8},
    {KEY_F9, kF9},
    {KEY_F10, kF10},
    {KEY_NUMLOCK, kKeypadClear},
    {KEY_SCROLLLOCK, kF14},
    {KEY_KP7, kKeypad7},
    {KEY_KP8, kKeypad8},
    {KEY_KP9, kKeypad9},
    {KEY_KPMINUS, kKeypadMinus},
    {KEY_KP4, kKeypad4},
    {KEY_KP5, kKeypad5},
    {KEY_KP6, kKeypad6},
    {KEY_KPPLUS, kKeypadPlus},
    {KEY_KP1, kKeypad1},
    {KEY_KP2, kKeypad2},
    {KEY_KP3, kKeypad3},
    {KEY_KP0, kKeypad0},
    {KEY_KPDOT, kKeypadDecimal},
    {KEY_ZENKAKUHANKAKU, kGrave},
    {KEY_102ND, kISOSection},
    {KEY_F11, kF11},
    {KEY_F12, kF12},
    {KEY_RO, kJISUnderscore},
    {KEY_KATAKANA, kJISKana},
    {KEY_HIRAGANA, kJISKana},
    {KEY_HENKAN, kJISKana},
    {KEY_KATAKANAHIRAGANA, kJISKana},
    {KEY_MUHENKAN, kJISEisu},
    {KEY_KPJPCOMMA, kJISKeypadComma},
    {KEY_KPENTER, kKeypadEnter},
    {KEY_RIGHTCTRL, kRightControl},
    {KEY_KPSLASH, kKeypadDivide},
    {KEY_SYSRQ, kF13},
    {KEY_RIGHTALT, kRightOption},
    {KEY_HOME, kHome},
    {KEY_UP, kUpArrow},
    {KEY_PAGEUP, kPageUp},
    {KEY_LEFT, kLeftArrow},
    {KEY_RIGHT, kRightArrow},
    {KEY_END, kEnd},
    {KEY_DOWN, kDownArrow},
    {KEY_PAGEDOWN, kPageDown},
    {KEY_INSERT, kHelp},
    {KEY_DELETE, kForwardDelete},
    {KEY_MUTE, kMute},
    {KEY_VOLUMEDOWN, kVolumeDown},
    {KEY_VOLUMEUP, kVolumeUp},
    {KEY_KPEQUAL, kKeypadEquals},
    {KEY_PAUSE, kF15},
    {KEY_KPCOMMA, kJISKeypadComma},
    {KEY_HANGEUL, kJISKana},
    {KEY_HANJA, kJISEisu},
    {KEY_YEN, kJISYen},
    {KEY_LEFTMETA, kCommand},
    {KEY_RIGHTMETA, kRightCommand},
    {KEY_COMPOSE, kContextMenu},
    {KEY_HELP, kHelp},
    {KEY_MENU, kContextMenu},
    {KEY_F13, kF13},
    {KEY_F14, kF14},
    {KEY_F15, kF15},
    {KEY_F16, kF16},
    {KEY_F17, kF17},
    {KEY_F18, kF18},
    {KEY_F19, kF19},
    {KEY_F20, kF20},
};

constexpr uint32_t kLastEvdev = KEY_F20;

// A direct lookup, built once at compile time.
constexpr std::array<uint16_t, kLastEvdev + 1> makeLookup() {
  std::array<uint16_t, kLastEvdev + 1> lookup{};
  for (auto& k : lookup) k = kUnknown;
  for (const Entry& e : kTable) lookup[e.evdev] = e.key;
  return lookup;
}

constexpr auto kLookup = makeLookup();

}  // namespace

uint16_t KyoKeyCodeFromEvdev(uint32_t evdevCode) { return evdevCode <= kLastEvdev ? kLookup[evdevCode] : kUnknown; }
