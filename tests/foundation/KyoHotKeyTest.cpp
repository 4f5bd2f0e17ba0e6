#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <set>

#include "foundation/KyoHotKey.h"
#include "foundation/KyoKeyCodes.h"

namespace {

KyoKeyEvent event(uint16_t keyCode, std::u16string characters, uint32_t flags = 0) {
  return KyoKeyEvent{keyCode, std::move(characters), flags};
}

}  // namespace

TEST(KyoHotKey, CaptureRefusesKeysThatCannotBeHotKeysAndLeavesTheValue) {
  KyoHotKey key;
  ASSERT_TRUE(key.setFromKeyEvent(event(KyoKeyCode::kA, u"a", KyoKeyEvent::kShift)));
  const KyoHotKey before = key;
  struct Case {
    const char* what;
    KyoKeyEvent e;
  } refused[] = {
      {"command", event(KyoKeyCode::kB, u"b", KyoKeyEvent::kCommand)},
      {"up arrow", event(KyoKeyCode::kUpArrow, u"\xF700")},
      {"right arrow with shift", event(KyoKeyCode::kRightArrow, u"\xF703", KyoKeyEvent::kShift)},
      {"no character", event(KyoKeyCode::kShift, u"")},    {"tab", event(KyoKeyCode::kTab, u"\t")},
      {"newline", event(KyoKeyCode::kReturn, u"\n")},      {"return", event(KyoKeyCode::kReturn, u"\r")},
      {"escape", event(KyoKeyCode::kEscape, u"\x1b")},
  };
  for (const auto& c : refused) {
    EXPECT_FALSE(key.setFromKeyEvent(c.e)) << c.what;
    EXPECT_TRUE(key.isEqual(before)) << c.what;
  }
  // Characters the mask lets through: backspace (8), 11, 12 and Delete (127).
  for (char16_t c : {u'\b', u'\x0b', u'\x0c', u'\x7f'})
    EXPECT_TRUE(key.setFromKeyEvent(event(KyoKeyCode::kDelete, {c})));
}

TEST(KyoHotKey, MatchesThePhysicalKeyWithItsModifiersOnly) {
  KyoHotKey key;
  ASSERT_TRUE(key.setFromKeyEvent(event(KyoKeyCode::kA, u"a", KyoKeyEvent::kShift | KyoKeyEvent::kFunction)));
  EXPECT_FALSE(key.command());
  EXPECT_TRUE(key.function());
  EXPECT_EQ(key.displayString(), "\u21E7A");
  // Layout and caps lock do not matter; the physical key and Shift/Control/Option do.
  EXPECT_TRUE(key.matchesKeyEvent(event(KyoKeyCode::kA, u"q", KyoKeyEvent::kShift)));
  EXPECT_TRUE(key.matchesKeyEvent(event(KyoKeyCode::kA, u"A", KyoKeyEvent::kShift | KyoKeyEvent::kCapsLock)));
  EXPECT_TRUE(key.matchesKeyEvent(event(KyoKeyCode::kA, u"a", KyoKeyEvent::kShift | KyoKeyEvent::kCommand)));
  EXPECT_FALSE(key.matchesKeyEvent(event(KyoKeyCode::kA, u"a", KyoKeyEvent::kShift | KyoKeyEvent::kControl)));
  EXPECT_FALSE(key.matchesKeyEvent(event(KyoKeyCode::kA, u"a")));
  EXPECT_FALSE(key.matchesKeyEvent(event(KyoKeyCode::kS, u"a", KyoKeyEvent::kShift)));

  // Caps lock makes values unequal and yet they fire alike.
  KyoHotKey caps = key;
  caps.setCapsLock(true);
  EXPECT_FALSE(caps.isEqual(key));
  EXPECT_TRUE(caps.matchesKeyEvent(event(KyoKeyCode::kA, u"a", KyoKeyEvent::kShift)));

  // The empty value matches nothing, not even key code 0 without modifiers.
  KyoHotKey empty;
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_EQ(empty.displayString(), "");
  EXPECT_FALSE(empty.matchesKeyEvent(event(0, u"")));
  // Key code 0 with a character is a key.
  KyoHotKey a;
  a.setKeyCharacter('a');
  EXPECT_FALSE(a.isEmpty());
  EXPECT_TRUE(a.matchesKeyEvent(event(0, u"a")));
}

TEST(KyoHotKey, DisplayStringNamesEveryKindOfKey) {
  struct Case {
    uint16_t character;
    const char* shown;
  } cases[] = {
      {8, "\u232B"},    {127, "\u232B"},    {0xF739, "\u232B"}, {9, "Tab"},         {13, "Return"},
      {32, "Space"},    {0xF700, "\u2191"}, {0xF701, "\u2193"}, {0xF702, "\u2190"}, {0xF703, "\u2192"},
      {0xF704, "F1"},   {0xF70D, "F10"},    {0xF712, "F15"},    {0xF713, "\uF713"}, {0xF728, "\u2326"},
      {0xF729, "Home"}, {0xF72B, "End"},    {0xF72C, "\u21DE"}, {0xF72D, "\u21DF"}, {'[', "["},
      {'z', "Z"},       {0xE9, "\u00C9"},   {0xDF, "SS"},       {0x3B1, "\u0391"},  {0xD800, "\uFFFD"},
  };
  for (const auto& c : cases) {
    KyoHotKey key;
    key.setKeyCharacter(c.character);
    EXPECT_EQ(key.displayString(), c.shown) << std::hex << c.character;
  }
  KyoHotKey all;
  all.setAllFlags(true);
  all.setKeyCharacter('1');
  // Fixed order, caps lock and function never shown.
  EXPECT_EQ(all.displayString(),
            "\u21E7\u2303\u2325\u2318"
            "1");
}

TEST(KyoHotKey, DescriptorAndArchiveRoundTripWithTheirQuirks) {
  KyoHotKey key;
  key.setKeyCode(KyoKeyCode::kF5);
  key.setKeyCharacter(0xF708);
  key.setControl(true);
  key.setFunction(true);

  KyoHotKey back;
  back.setDescriptor(key.descriptor());
  EXPECT_TRUE(back.isEqual(key));
  // An empty descriptor leaves a set key set; a partial one zeroes what it lacks.
  back.setDescriptor({});
  EXPECT_TRUE(back.isEqual(key));
  KyoHotKey::Descriptor partial;
  partial.shift = true;
  back.setDescriptor(partial);
  EXPECT_EQ(back.keyCode(), 0);
  EXPECT_TRUE(back.shift());
  EXPECT_FALSE(back.control());

  const auto archive = key.archive();
  EXPECT_EQ(archive.size(), 8u);
  EXPECT_TRUE(KyoHotKey::fromArchive(archive).isEqual(key));
  // Codes are read as 32-bit integers and cut to 16 bits.
  auto wide = archive;
  wide[KyoHotKey::kKeyCharacterKey] = 0x1F041;
  wide[KyoHotKey::kKeyCodeKey] = int64_t(1) << 32 | 7;
  const KyoHotKey cut = KyoHotKey::fromArchive(wide);
  EXPECT_EQ(cut.keyCharacter(), 0xF041);
  EXPECT_EQ(cut.keyCode(), 7);
  EXPECT_TRUE(KyoHotKey::fromArchive({}).isEmpty());
}

TEST(KyoKeyCodes, AFullPCKeyboardMapsOntoDistinctKeys) {
  // The anchors the show files' defaults rely on, and codes that name no key.
  const struct {
    uint32_t evdev;
    uint16_t key;
  } anchors[] = {{KEY_LEFTBRACE, 33}, {KEY_RIGHTBRACE, 30}, {KEY_COMMA, 43},
                 {KEY_ESC, 53},       {KEY_TAB, 48},        {KEY_ENTER, 36},
                 {KEY_KPENTER, 76},   {0, KyoKeyCode::kUnknown}, {KEY_MAX, KyoKeyCode::kUnknown}};
  for (const auto& a : anchors) EXPECT_EQ(KyoKeyCodeFromEvdev(a.evdev), a.key) << a.evdev;
  EXPECT_EQ(KyoKeyCodeFromNativeScanCode(KEY_A + 8), KyoKeyCode::kA);
  EXPECT_EQ(KyoKeyCodeFromNativeScanCode(3), KyoKeyCode::kUnknown);

  // Every key of a 105-key keyboard has a place, and no two share one.
  std::set<uint16_t> seen;
  auto expectKey = [&](uint32_t evdev) {
    const uint16_t key = KyoKeyCodeFromEvdev(evdev);
    EXPECT_NE(key, KyoKeyCode::kUnknown) << "evdev " << evdev;
    EXPECT_TRUE(seen.insert(key).second) << "evdev " << evdev << " shares key " << key;
  };
  for (uint32_t k = KEY_ESC; k <= KEY_KPDOT; ++k) expectKey(k);
  for (uint32_t k :
       {KEY_102ND,  KEY_F11,    KEY_F12,    KEY_KPENTER,  KEY_RIGHTCTRL, KEY_KPSLASH, KEY_SYSRQ, KEY_RIGHTALT,
        KEY_HOME,   KEY_UP,     KEY_PAGEUP, KEY_LEFT,     KEY_RIGHT,     KEY_END,     KEY_DOWN,  KEY_PAGEDOWN,
        KEY_INSERT, KEY_DELETE, KEY_PAUSE,  KEY_LEFTMETA, KEY_RIGHTMETA, KEY_COMPOSE})
    expectKey(k);
  EXPECT_EQ(seen.size(), 105u);
}
