#pragma once
// The physical key numbering of hot keys. A key code names a key position, not a
// character, so that a hot key stays on its key whatever the keyboard layout. The
// numbers are those of the show files' defaults (Tab 48, Return 36, Escape 53,
// Enter 76, left bracket 33, right bracket 30, comma 43, ...); Linux reports evdev
// scan codes, which a table maps into them.

#include <cstdint>

namespace KyoKeyCode {
constexpr uint16_t kA = 0, kS = 1, kD = 2, kF = 3, kH = 4, kG = 5, kZ = 6, kX = 7, kC = 8, kV = 9;
constexpr uint16_t kISOSection = 10, kB = 11, kQ = 12, kW = 13, kE = 14, kR = 15, kY = 16, kT = 17;
constexpr uint16_t k1 = 18, k2 = 19, k3 = 20, k4 = 21, k6 = 22, k5 = 23, kEqual = 24, k9 = 25, k7 = 26;
constexpr uint16_t kMinus = 27, k8 = 28, k0 = 29, kRightBracket = 30, kO = 31, kU = 32, kLeftBracket = 33;
constexpr uint16_t kI = 34, kP = 35, kReturn = 36, kL = 37, kJ = 38, kQuote = 39, kK = 40, kSemicolon = 41;
constexpr uint16_t kBackslash = 42, kComma = 43, kSlash = 44, kN = 45, kM = 46, kPeriod = 47, kTab = 48;
constexpr uint16_t kSpace = 49, kGrave = 50, kDelete = 51, kEscape = 53, kRightCommand = 54, kCommand = 55;
constexpr uint16_t kShift = 56, kCapsLock = 57, kOption = 58, kControl = 59, kRightShift = 60;
constexpr uint16_t kRightOption = 61, kRightControl = 62, kFunction = 63, kF17 = 64, kKeypadDecimal = 65;
constexpr uint16_t kKeypadMultiply = 67, kKeypadPlus = 69, kKeypadClear = 71, kVolumeUp = 72, kVolumeDown = 73;
constexpr uint16_t kMute = 74, kKeypadDivide = 75, kKeypadEnter = 76, kKeypadMinus = 78, kF18 = 79, kF19 = 80;
constexpr uint16_t kKeypadEquals = 81, kKeypad0 = 82, kKeypad1 = 83, kKeypad2 = 84, kKeypad3 = 85;
constexpr uint16_t kKeypad4 = 86, kKeypad5 = 87, kKeypad6 = 88, kKeypad7 = 89, kF20 = 90, kKeypad8 = 91;
constexpr uint16_t kKeypad9 = 92, kJISYen = 93, kJISUnderscore = 94, kJISKeypadComma = 95, kF5 = 96, kF6 = 97;
constexpr uint16_t kF7 = 98, kF3 = 99, kF8 = 100, kF9 = 101, kJISEisu = 102, kF11 = 103, kJISKana = 104;
constexpr uint16_t kF13 = 105, kF16 = 106, kF14 = 107, kF10 = 109, kContextMenu = 110, kF12 = 111, kF15 = 113;
constexpr uint16_t kHelp = 114, kHome = 115, kPageUp = 116, kForwardDelete = 117, kF4 = 118, kEnd = 119;
constexpr uint16_t kF2 = 120, kPageDown = 121, kF1 = 122, kLeftArrow = 123, kRightArrow = 124;
constexpr uint16_t kDownArrow = 125, kUpArrow = 126;

// No key of ours: a scan code that the table does not know.
constexpr uint16_t kUnknown = 0xFFFF;
}  // namespace KyoKeyCode

// From a Linux evdev key code (KEY_* of linux/input-event-codes.h). Keys of a PC
// keyboard that have no place of their own take the nearest one: Insert is Help,
// Print Screen, Scroll Lock and Pause are F13 to F15, Num Lock is the keypad's Clear,
// Alt is Option, the Windows keys are Command. Unknown codes give kUnknown.
uint16_t KyoKeyCodeFromEvdev(uint32_t evdevCode);

// From the scan code that X11 and Wayland report (QKeyEvent::nativeScanCode): the
// evdev code plus 8.
inline uint16_t KyoKeyCodeFromNativeScanCode(uint32_t scanCode) {
  return scanCode < 8 ? KyoKeyCode::kUnknown : KyoKeyCodeFromEvdev(scanCode - 8);
}
