// Key events as the show sees them, and the cart edits of the window: grid sizes
// from their titles (hostile ones included) and renames, with their undo.
#include <QApplication>
#include <QClipboard>
#include <QMimeData>
#include "KyoUI/PSMTabView.h"

#include <gtest/gtest.h>

#include "SurfaceTestSupport.h"
#include "foundation/KyoKeyCodes.h"
#include "show/Cart.h"
#include "show/SontoUndoManager.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/SontoKeyEvents.h"
#include "surface/WorkspaceController.h"

TEST(SontoKeyEvents, PhysicalKeyCharacterAndModifiers) {
  struct Case {
    int qtKey;
    Qt::KeyboardModifiers modifiers;
    quint32 scanCode;
    QString text;
    uint16_t keyCode;
    std::u16string characters;
    std::string shortcut;
    bool commandDown;
  };
  const Case cases[] = {
      {Qt::Key_Q, Qt::NoModifier, 16 + 8, "q", KyoKeyCode::kQ, u"Q", "Q", false},
      // On a French layout the same key position types A: the key code stays Q's.
      {Qt::Key_A, Qt::NoModifier, 16 + 8, "a", KyoKeyCode::kQ, u"A", "A", false},
      {Qt::Key_1, Qt::ControlModifier, 2 + 8, "1", KyoKeyCode::k1, u"1", "1", true},
      {Qt::Key_Escape, Qt::NoModifier, 1 + 8, "\x1b", KyoKeyCode::kEscape, u"\x1b", "\x1b", false},
      {Qt::Key_Up, Qt::NoModifier, 103 + 8, "", KyoKeyCode::kUpArrow, u"\xF700", "\xEF\x9C\x80", false},
      {Qt::Key_Delete, Qt::NoModifier, 111 + 8, "", KyoKeyCode::kForwardDelete, u"\xF728", "\xEF\x9C\xA8", false},
      {Qt::Key_Backspace, Qt::NoModifier, 14 + 8, "\b", KyoKeyCode::kDelete, u"\x7F", "\x7F", false},
      {Qt::Key_F1, Qt::NoModifier, 59 + 8, "", KyoKeyCode::kF1, u"\xF704", "\xEF\x9C\x84", false},
      // No scan code, or one the table does not know: the key is unknown, the
      // character still counts.
      {Qt::Key_W, Qt::NoModifier, 0, "w", KyoKeyCode::kUnknown, u"W", "W", false},
      {Qt::Key_W, Qt::NoModifier, 0xFFFFFFFF, "w", KyoKeyCode::kUnknown, u"W", "W", false},
      {Qt::Key_unknown, Qt::NoModifier, 0, QString::fromUtf8("\xC3\xA9"), KyoKeyCode::kUnknown, u"\u00E9", "\xC3\x89",
       false},
      {Qt::Key_unknown, Qt::NoModifier, 0, "", KyoKeyCode::kUnknown, u"", "", false},
  };
  for (const Case& c : cases) {
    const KyoKeyEvent event = SontoKeyEvent(c.qtKey, c.modifiers, c.scanCode, c.text);
    EXPECT_EQ(event.keyCode, c.keyCode) << c.qtKey;
    EXPECT_TRUE(event.charactersIgnoringModifiers == c.characters) << c.qtKey;
    EXPECT_EQ(SontoKeyEventShortcut(event), c.shortcut) << c.qtKey;
    EXPECT_EQ(SontoKeyEventCommandDown(event), c.commandDown) << c.qtKey;
  }
  // Shift, Alt and Control land on their own bits; hot keys compare them.
  const KyoKeyEvent all = SontoKeyEvent(Qt::Key_Q, Qt::ShiftModifier | Qt::AltModifier | Qt::ControlModifier, 24, "Q");
  EXPECT_EQ(all.modifierFlags, KyoKeyEvent::kShift | KyoKeyEvent::kOption | KyoKeyEvent::kControl);
}

TEST(WorkspaceWindow, GridSizeFromTitlesAndRenameWithUndo) {
  TestWindow t;
  GridController* grid = t.grid();
  SontoUndoManager* undo = t.window->undoManager();
  // Each change is its own turn of the event loop, as the operator's choices are.
  t.window->changeGrid("3x2");
  QApplication::processEvents();
  EXPECT_EQ(grid->cart()->size(), (CartSize{3, 2}));
  EXPECT_EQ(grid->gridView()->cells().size(), 6u);
  for (const char* hostile : {"", "x", "3", "0x3", "6x6", "-1x2", "ax b", "99999999999x1"}) {
    t.window->changeGrid(QString::fromLatin1(hostile));
    EXPECT_EQ(grid->cart()->size(), (CartSize{3, 2})) << hostile;
  }
  // The first and the last piece count.
  t.window->changeGrid("2x9x3");
  QApplication::processEvents();
  EXPECT_EQ(grid->cart()->size(), (CartSize{2, 3}));
  undo->undo();
  t.window->changeGrid(" 5 x 5 ");
  EXPECT_EQ(grid->cart()->size(), (CartSize{5, 5}));
  QApplication::processEvents();
  EXPECT_EQ(undo->undoActionName(), "Change Size");
  undo->undo();
  EXPECT_EQ(grid->cart()->size(), (CartSize{3, 2}));
  EXPECT_EQ(grid->gridView()->cells().size(), 6u);
  undo->undo();
  EXPECT_EQ(grid->cart()->size(), (CartSize{4, 4}));
  undo->redo();
  EXPECT_EQ(grid->cart()->size(), (CartSize{3, 2}));

  grid->setCartName("Act One");
  EXPECT_EQ(t.window->tabView()->itemAt(0).label, "Act One");
  QApplication::processEvents();
  EXPECT_EQ(undo->undoActionName(), "Rename Cart");
  undo->undo();
  EXPECT_EQ(t.window->tabView()->itemAt(0).label, "Cart 1");
  undo->redo();
  EXPECT_EQ(t.window->tabView()->itemAt(0).label, "Act One");

  t.window->setShowMode();
  t.window->changeGrid("2x2");
  grid->setCartName("Locked");
  EXPECT_EQ(grid->cart()->size(), (CartSize{3, 2}));
  EXPECT_EQ(grid->cart()->name(), "Act One");
}

// Copy and paste go through the system clipboard in the cue's own format; paste
// goes round to a free cell, and a clipboard holding no cue pastes nothing.
TEST(WorkspaceWindow, CopyCutPasteThroughTheClipboard) {
  TestWindow t;
  GridController* grid = t.grid();
  Cart* cart = grid->cart();
  auto cue = countingCue("Bell", "B", 4);
  grid->addCue(cue, 2);
  EXPECT_FALSE(t.window->canCopy());
  grid->gridView()->setSelectedIndex(2);
  ASSERT_TRUE(t.window->canCopy());
  t.window->copy();
  ASSERT_TRUE(t.window->canPaste());
  t.window->paste();  // the selected cell is taken: the next free one
  Cue* pasted = cart->cueAtIndex(3);
  ASSERT_NE(pasted, nullptr);
  EXPECT_NE(pasted, cue.get());
  EXPECT_EQ(pasted->name(), "Bell");
  EXPECT_EQ(pasted->hotkey(), "B");

  grid->gridView()->setSelectedIndex(3);
  t.window->cut();
  EXPECT_EQ(cart->cueAtIndex(3), nullptr);
  EXPECT_TRUE(t.window->canPaste());

  auto* junk = new QMimeData;
  junk->setData(AudioCue::kPasteboardType, QByteArray("{not json at all"));
  QApplication::clipboard()->setMimeData(junk);
  const size_t before = cart->count();
  t.window->paste();
  EXPECT_EQ(cart->count(), before);

  QApplication::clipboard()->setText("plain text");
  EXPECT_FALSE(t.window->canPaste());
  t.window->setShowMode();
  t.window->copy();  // nothing is selected in show mode: refused silently
  EXPECT_FALSE(t.window->canPaste());
}
