// The window as an operator meets it: what opens, where keys and notes go, what
// show mode refuses, and the edited mark through undo and redo.
#include <QApplication>
#include <QMenuBar>
#include "KyoUI/PSMTabView.h"
#include <QTest>

#include <gtest/gtest.h>

#include "SurfaceTestSupport.h"
#include "show/Cart.h"
#include "show/SontoUndoManager.h"
#include "surface/CueCellController.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/SontoAlerts.h"
#include "show/Workspace.h"
#include "surface/SontoDocumentController.h"
#include "surface/WorkspaceController.h"

namespace {

QPoint centreOf(CueCellController* cell) { return cell->view()->rect().center(); }

}  // namespace

TEST(WorkspaceWindow, OpensUntitledWithCartOneAndAnEmptyGrid) {
  TestWindow t;
  WorkspaceController* window = t.window;
  EXPECT_EQ(window->tabView()->count(), 1);
  EXPECT_EQ(window->tabView()->itemAt(0).label, "Cart 1");
  EXPECT_TRUE(window->windowTitle().startsWith("Untitled"));
  EXPECT_FALSE(window->isWindowModified());
  EXPECT_TRUE(window->inEditMode());
  GridView* grid = t.grid()->gridView();
  EXPECT_EQ(grid->cells().size(), 16u);  // a new cart is 4 by 4
  EXPECT_EQ(grid->selectedIndex(), GridView::kNotFound);
  EXPECT_EQ(grid->cells()[5]->defaultHotkey(), "W");  // second row starts with Q on the board
  EXPECT_EQ(SontoDocumentController::sharedDocumentController().documents().back(), window);
}

// A hot key fires the cue of the visible cart only, once however long it is held,
// and its release reaches the same cue.
TEST(WorkspaceWindow, HotKeyFiresVisibleCartOnlyAndOncePerPress) {
  TestWindow t;
  auto first = countingCue("First", "Q");
  t.grid(0)->addCue(first, 0);
  t.window->newTab();
  ASSERT_EQ(t.window->tabView()->count(), 2);
  auto second = countingCue("Second", "Q");
  t.grid(1)->addCue(second, 3);
  t.window->selectTab(1);
  GridView* grid = t.grid(0)->gridView();

  sendKey(grid, QEvent::KeyPress, Qt::Key_Q, kEvdevQ, "q");
  for (int i = 0; i < 5; ++i) {
    sendKey(grid, QEvent::KeyRelease, Qt::Key_Q, kEvdevQ, "q", Qt::NoModifier, true);
    sendKey(grid, QEvent::KeyPress, Qt::Key_Q, kEvdevQ, "q", Qt::NoModifier, true);
  }
  sendKey(grid, QEvent::KeyRelease, Qt::Key_Q, kEvdevQ, "q");
  EXPECT_EQ(first->downs, 1);
  EXPECT_EQ(first->ups, 1);
  EXPECT_EQ(second->downs, 0);

  // Shift does not change which key it is; a key with no cue fires nothing.
  tapKey(grid, Qt::Key_Q, kEvdevQ, "Q", Qt::ShiftModifier);
  tapKey(grid, Qt::Key_W, kEvdevW, "w");
  EXPECT_EQ(first->downs, 2);

  // Control with a digit picks the cart; from then on the key belongs to it.
  tapKey(grid, Qt::Key_2, kEvdev2, "2", Qt::ControlModifier);
  EXPECT_EQ(t.window->tabView()->selectedIndex(), 1);
  tapKey(t.grid(1)->gridView(), Qt::Key_Q, kEvdevQ, "q");
  EXPECT_EQ(second->downs, 1);
  EXPECT_EQ(first->downs, 2);
  // A cart number beyond the tabs does nothing; Control with the key fires nothing.
  tapKey(t.grid(1)->gridView(), Qt::Key_7, 8, "7", Qt::ControlModifier);
  EXPECT_EQ(t.window->tabView()->selectedIndex(), 1);
  tapKey(t.grid(1)->gridView(), Qt::Key_Q, kEvdevQ, "q", Qt::ControlModifier);
  EXPECT_EQ(second->downs, 1);
}

// The workspace keys come before the cues' keys and, with the grid focused, before
// any repeat test: a held duck key toggles on each repeat.
TEST(WorkspaceWindow, WorkspaceKeysComeFirstAndRepeatOnTheGrid) {
  TestWindow t;
  Workspace* document = t.window->workspace();
  ASSERT_TRUE(document->settings().duckMasterKey().setFromKeyEvent(KyoKeyEvent{12, u"q", 0}));  // the physical Q key
  auto cue = countingCue("Q cue", "Q");
  t.grid()->addCue(cue, 0);
  GridView* grid = t.grid()->gridView();
  sendKey(grid, QEvent::KeyPress, Qt::Key_Q, kEvdevQ, "q");
  EXPECT_TRUE(document->isDucked());
  sendKey(grid, QEvent::KeyPress, Qt::Key_Q, kEvdevQ, "q", Qt::NoModifier, true);
  EXPECT_FALSE(document->isDucked());
  EXPECT_EQ(cue->downs, 0);
  // The window's own path drops the repeat before anything else.
  t.window->keyDown(KyoKeyEvent{12, u"q", 0}, true);
  EXPECT_FALSE(document->isDucked());
}

TEST(WorkspaceWindow, ShowModeFiresOnMouseDownAndRefusesEdits) {
  TestWindow t;
  auto cue = countingCue("Pad", "Q");
  t.grid()->addCue(cue, 1);
  QApplication::processEvents();
  SontoUndoManager* undo = t.window->undoManager();
  ASSERT_TRUE(undo->canUndo());
  t.window->setShowMode();
  ASSERT_TRUE(t.window->inShowMode());
  ASSERT_TRUE(t.window->workspace()->isLocked());

  GridView* grid = t.grid()->gridView();
  CueCellController* cell = grid->cellAtIndex(1);
  QTest::mousePress(cell->view(), Qt::LeftButton, {}, centreOf(cell));
  EXPECT_EQ(cue->downs, 1);  // on the press, not the release
  EXPECT_EQ(cue->ups, 0);
  EXPECT_TRUE(cell->view()->isPressed());
  QTest::mouseRelease(cell->view(), Qt::LeftButton, {}, centreOf(cell));
  EXPECT_EQ(cue->ups, 1);
  EXPECT_FALSE(cell->view()->isPressed());
  EXPECT_EQ(grid->selectedIndex(), GridView::kNotFound);
  // A quick pair of hits fires twice, whether the platform sends the second as a
  // press followed by a double click or as a double click alone; never the open
  // panel of edit mode.
  const QPointF at = centreOf(cell);
  const QEvent::Type withPress[] = {QEvent::MouseButtonPress, QEvent::MouseButtonRelease, QEvent::MouseButtonPress,
                                    QEvent::MouseButtonDblClick, QEvent::MouseButtonRelease};
  const QEvent::Type withoutPress[] = {QEvent::MouseButtonPress, QEvent::MouseButtonRelease,
                                       QEvent::MouseButtonDblClick, QEvent::MouseButtonRelease};
  for (const auto& sequence : {std::vector<QEvent::Type>(std::begin(withPress), std::end(withPress)),
                               std::vector<QEvent::Type>(std::begin(withoutPress), std::end(withoutPress))}) {
    const int downs = cue->downs, ups = cue->ups;
    for (QEvent::Type type : sequence) {
      const bool release = type == QEvent::MouseButtonRelease;
      QMouseEvent event(type, at, cell->view()->mapToGlobal(at), Qt::LeftButton,
                        release ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
      QApplication::sendEvent(cell->view(), &event);
    }
    EXPECT_EQ(cue->downs, downs + 2);
    EXPECT_EQ(cue->ups, ups + 2);
  }
  ASSERT_EQ(cue->downs, 5);

  // A key shows the pad pressed until its release.
  sendKey(grid, QEvent::KeyPress, Qt::Key_Q, kEvdevQ, "q");
  EXPECT_TRUE(grid->cellAtIndex(1)->view()->isPressed());
  sendKey(grid, QEvent::KeyRelease, Qt::Key_Q, kEvdevQ, "q");
  EXPECT_FALSE(grid->cellAtIndex(1)->view()->isPressed());
  EXPECT_EQ(cue->downs, 6);

  // Empty pads vanish; edits are refused silently.
  EXPECT_FALSE(grid->cellAtIndex(0)->view()->isVisible());
  t.window->moveRight();
  EXPECT_EQ(grid->selectedIndex(), GridView::kNotFound);
  grid->setSelectedIndex(1);
  tapKey(grid, Qt::Key_Delete, kEvdevDelete, "");
  EXPECT_EQ(t.grid()->cart()->cueAtIndex(1), cue.get());
  t.window->newTab();
  EXPECT_EQ(t.window->tabView()->count(), 1);
  EXPECT_FALSE(t.window->canPaste());
  const size_t undoCount = undo->undoCount();
  t.grid()->setCartSize({2, 2});
  EXPECT_EQ(t.grid()->cart()->size(), (CartSize{4, 4}));
  EXPECT_EQ(undo->undoCount(), undoCount);

  t.window->setEditMode();
  EXPECT_TRUE(grid->cellAtIndex(0)->view()->isVisible());
  EXPECT_FALSE(t.window->workspace()->isLocked());
}

// Notes reach every cart of every open show, each show under its own channel.
TEST(WorkspaceWindow, MIDIReachesEveryCartOfEveryShowByChannel) {
  TestWindow a, b;
  b.window->workspace()->setMidiChannel(2);
  auto aVisible = countingCue("a1", "", 7);
  a.grid()->addCue(aVisible, 0);
  a.window->newTab();
  auto aHidden = countingCue("a2", "", 7);
  a.grid(1)->addCue(aHidden, 0);
  a.window->selectTab(1);
  auto bCue = countingCue("b", "", 7);
  b.grid()->addCue(bCue, 0);
  auto& documents = SontoDocumentController::sharedDocumentController();

  documents.takeMIDIMessages({SontoMIDIMessage::noteOn(7, 100, 1)});
  EXPECT_EQ(aVisible->downs, 1);
  EXPECT_EQ(aHidden->downs, 1);
  EXPECT_EQ(bCue->downs, 0);
  documents.takeMIDIMessages({SontoMIDIMessage::noteOn(7, 100, 2), SontoMIDIMessage::noteOff(7, 0, 2)});
  EXPECT_EQ(aVisible->downs, 2);
  EXPECT_EQ(bCue->downs, 1);
  EXPECT_EQ(bCue->ups, 1);
  // Another note fires nothing.
  documents.takeMIDIMessages({SontoMIDIMessage::noteOn(8, 100, 1)});
  EXPECT_EQ(aVisible->downs, 2);

  // In show mode a note shows the visible pad pressed until its release.
  a.window->selectTab(1);
  a.window->setShowMode();
  documents.takeMIDIMessages({SontoMIDIMessage::noteOn(7, 100, 1)});
  EXPECT_TRUE(a.grid(0)->gridView()->cellAtIndex(0)->view()->isPressed());
  documents.takeMIDIMessages({SontoMIDIMessage::noteOff(7, 0, 1)});
  EXPECT_FALSE(a.grid(0)->gridView()->cellAtIndex(0)->view()->isPressed());
  EXPECT_EQ(aVisible->downs, 3);
  EXPECT_EQ(aHidden->downs, 3);
}

TEST(WorkspaceWindow, EscapePanicsEveryShowAndAClosedOneHearsNothing) {
  TestWindow a, b;
  auto aCue = countingCue("a", "Q");
  auto bCue = countingCue("b", "Q");
  a.grid()->addCue(aCue, 0);
  b.grid()->addCue(bCue, 0);
  tapKey(a.grid()->gridView(), Qt::Key_Escape, kEvdevEscape, QString(QChar(27)));
  EXPECT_EQ(aCue->panics, 1);
  EXPECT_EQ(bCue->panics, 1);
  // A held Escape panics once: the second, hard press needs a second key press.
  sendKey(a.grid()->gridView(), QEvent::KeyPress, Qt::Key_Escape, kEvdevEscape, QString(QChar(27)), Qt::NoModifier,
          true);
  EXPECT_EQ(aCue->panics, 1);

  SontoAlerts::setSaveQuestionHandler([](const QString&, bool) { return SontoAlerts::Answer::DontSave; });
  b.window->close();
  SontoAlerts::setSaveQuestionHandler({});
  EXPECT_EQ(b.window->workspace(), nullptr);
  EXPECT_GE(bCue->hardStops, 1);  // nothing sounds on from a closed show
  tapKey(a.grid()->gridView(), Qt::Key_Escape, kEvdevEscape, QString(QChar(27)));
  SontoDocumentController::sharedDocumentController().takeMIDIMessages({SontoMIDIMessage::noteOn(0, 1)});
  EXPECT_EQ(aCue->panics, 2);
  EXPECT_EQ(bCue->panics, 1);
}

// The edited mark follows the count of edits: undoing back to the start clears it.
TEST(WorkspaceWindow, EditedMarkFollowsUndoAndRedo) {
  TestWindow t;
  WorkspaceController* window = t.window;
  SontoUndoManager* undo = window->undoManager();
  t.grid()->addCue(countingCue("One", "1"), 0);
  QApplication::processEvents();  // the edit's group closes with the event-loop turn
  EXPECT_TRUE(window->isWindowModified());
  EXPECT_EQ(undo->undoMenuItemTitle(), "Undo Add Cue");
  t.grid()->gridViewDidMoveCueFromIndex(0, 6);
  QApplication::processEvents();
  EXPECT_EQ(undo->undoMenuItemTitle(), "Undo Move Cue");

  undo->undo();
  EXPECT_TRUE(window->isWindowModified());
  EXPECT_NE(t.grid()->cart()->cueAtIndex(0), nullptr);
  undo->undo();
  EXPECT_FALSE(window->isWindowModified());
  EXPECT_EQ(t.grid()->cart()->count(), 0u);
  EXPECT_EQ(undo->redoMenuItemTitle(), "Redo Add Cue");
  undo->redo();
  EXPECT_TRUE(window->isWindowModified());
  EXPECT_EQ(t.grid()->cart()->count(), 1u);

  // Closing an edited show asks; Cancel keeps it open, Don't Save closes it.
  int asked = 0;
  SontoAlerts::setSaveQuestionHandler([&](const QString& name, bool canSave) {
    ++asked;
    EXPECT_TRUE(name.startsWith("Untitled"));
    EXPECT_TRUE(canSave);
    return SontoAlerts::Answer::Cancel;
  });
  EXPECT_FALSE(window->close());
  EXPECT_EQ(asked, 1);
  EXPECT_NE(window->workspace(), nullptr);
  SontoAlerts::setSaveQuestionHandler({});

  // Show mode turns undo off in the menu and in the action itself.
  window->setShowMode();
  window->updateMenus();
  bool undoEnabled = true;
  for (QAction* action : window->menuBar()->actions()) {
    if (!action->menu()) continue;
    for (QAction* item : action->menu()->actions()) {
      if (item->text().startsWith("Undo")) undoEnabled = item->isEnabled();
    }
  }
  EXPECT_FALSE(undoEnabled);
}
