#include "surface/SontoKeyEvents.h"

#include <QKeyEvent>

#include "foundation/KyoKeyCodes.h"

namespace {

// The special keys whose character codes the show compares with.
char16_t specialCharacter(int key) {
  switch (key) {
    case Qt::Key_Up: return KyoKeyCharacter::kUpArrow;
    case Qt::Key_Down: return KyoKeyCharacter::kDownArrow;
    case Qt::Key_Left: return KyoKeyCharacter::kLeftArrow;
    case Qt::Key_Right: return KyoKeyCharacter::kRightArrow;
    case Qt::Key_Delete: return KyoKeyCharacter::kForwardDelete;
    case Qt::Key_Backspace: return KyoKeyCharacter::kDelete;
    case Qt::Key_Home: return KyoKeyCharacter::kHome;
    case Qt::Key_End: return KyoKeyCharacter::kEnd;
    case Qt::Key_PageUp: return KyoKeyCharacter::kPageUp;
    case Qt::Key_PageDown: return KyoKeyCharacter::kPageDown;
    case Qt::Key_Tab: return KyoKeyCharacter::kTab;
    case Qt::Key_Return: return KyoKeyCharacter::kReturn;
    case Qt::Key_Enter: return 3;  // the keypad's Enter
    case Qt::Key_Escape: return 27;
    default: break;
  }
  if (key >= Qt::Key_F1 && key <= Qt::Key_F15) return static_cast<char16_t>(KyoKeyCharacter::kF1 + (key - Qt::Key_F1));
  return 0;
}

}  // namespace

KyoKeyEvent SontoKeyEvent(int qtKey, Qt::KeyboardModifiers modifiers, quint32 nativeScanCode, const QString& text) {
  KyoKeyEvent event;
  event.keyCode = KyoKeyCodeFromNativeScanCode(nativeScanCode);
  if (char16_t special = specialCharacter(qtKey)) {
    event.charactersIgnoringModifiers = std::u16string(1, special);
  } else if (qtKey >= 0x20 && qtKey <= 0x7E) {
    // Qt's key values for printable ASCII are the unshifted key's upper-case
    // character, which is what a cue's key is compared with.
    event.charactersIgnoringModifiers = std::u16string(1, static_cast<char16_t>(qtKey));
  } else {
    event.charactersIgnoringModifiers = text.toStdU16String();
  }
  if (modifiers & Qt::ShiftModifier) event.modifierFlags |= KyoKeyEvent::kShift;
  if (modifiers & Qt::ControlModifier) event.modifierFlags |= KyoKeyEvent::kControl;
  if (modifiers & Qt::AltModifier) event.modifierFlags |= KyoKeyEvent::kOption;
  if (modifiers & Qt::MetaModifier) event.modifierFlags |= KyoKeyEvent::kCommand;
  if (modifiers & Qt::KeypadModifier) event.modifierFlags |= KyoKeyEvent::kFunction;
  return event;
}

KyoKeyEvent SontoKeyEventFromQt(const QKeyEvent& event) {
  return SontoKeyEvent(event.key(), event.modifiers(), event.nativeScanCode(), event.text());
}

bool SontoKeyEventCommandDown(const KyoKeyEvent& event) {
  return (event.modifierFlags & (KyoKeyEvent::kCommand | KyoKeyEvent::kControl)) != 0;
}

std::string SontoKeyEventShortcut(const KyoKeyEvent& event) {
  return QString::fromStdU16String(event.charactersIgnoringModifiers).toUpper().toStdString();
}
