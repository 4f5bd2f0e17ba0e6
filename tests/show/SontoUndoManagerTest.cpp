#include "show/SontoUndoManager.h"

#include <QCoreApplication>
#include <QSignalSpy>

#include <gtest/gtest.h>

namespace {

// A value edited the way the model's edits are written: the setter registers its
// own inverse and names the action unless undoing.
struct Model {
  SontoUndoManager* undo;
  int value = 0;
  void setValue(int newValue, const QString& name = "Change Value") {
    const int old = value;
    undo->registerUndo(this, [this, old, name] { setValue(old, name); });
    if (!undo->isUndoing()) undo->setActionName(name);
    value = newValue;
  }
};

void endTurn() { QCoreApplication::processEvents(); }

class SontoUndoManagerTest : public ::testing::Test {
 protected:
  SontoUndoManager undo;
  Model m{&undo};
};

}  // namespace

TEST_F(SontoUndoManagerTest, RegistrationsOfOneTurnFormOneGroup) {
  m.setValue(1);
  m.setValue(2);
  m.setValue(3);
  endTurn();
  m.setValue(4);
  endTurn();
  EXPECT_EQ(undo.undoCount(), 2u);
  undo.undo();
  EXPECT_EQ(m.value, 3);
  undo.undo();
  EXPECT_EQ(m.value, 0) << "the three edits of one turn go back together, newest first";
  EXPECT_FALSE(undo.canUndo());
  undo.redo();
  EXPECT_EQ(m.value, 3);
  undo.redo();
  EXPECT_EQ(m.value, 4);
  EXPECT_FALSE(undo.canRedo());
}

TEST_F(SontoUndoManagerTest, UndoWithinTheSameTurnClosesTheOpenGroup) {
  m.setValue(5);
  EXPECT_TRUE(undo.canUndo());
  undo.undo();
  EXPECT_EQ(m.value, 0);
  endTurn();  // the stale close of the event group must not disturb anything
  EXPECT_TRUE(undo.canRedo());
  undo.redo();
  EXPECT_EQ(m.value, 5);
}

TEST_F(SontoUndoManagerTest, RedoAfterUndoAfterRedoKeepsValuesAndNames) {
  m.setValue(1, "Change Volume");
  endTurn();
  m.setValue(2, "Rename Cue");
  endTurn();
  EXPECT_EQ(undo.undoMenuItemTitle(), "Undo Rename Cue");
  EXPECT_EQ(undo.redoMenuItemTitle(), "Redo");
  for (int round = 0; round < 3; ++round) {
    undo.undo();
    EXPECT_EQ(m.value, 1);
    EXPECT_EQ(undo.redoMenuItemTitle(), "Redo Rename Cue");
    EXPECT_EQ(undo.undoMenuItemTitle(), "Undo Change Volume");
    undo.undo();
    EXPECT_EQ(m.value, 0);
    EXPECT_EQ(undo.redoMenuItemTitle(), "Redo Change Volume");
    EXPECT_EQ(undo.undoMenuItemTitle(), "Undo");
    EXPECT_FALSE(undo.canUndo());
    undo.redo();
    EXPECT_EQ(m.value, 1);
    undo.redo();
    EXPECT_EQ(m.value, 2);
    EXPECT_EQ(undo.undoMenuItemTitle(), "Undo Rename Cue");
    EXPECT_FALSE(undo.canRedo());
  }
}

TEST_F(SontoUndoManagerTest, NewEditAfterUndoDropsTheRedoSide) {
  m.setValue(1);
  endTurn();
  m.setValue(2);
  endTurn();
  undo.undo();
  ASSERT_TRUE(undo.canRedo());
  m.setValue(7);
  EXPECT_FALSE(undo.canRedo());
  endTurn();
  undo.undo();
  EXPECT_EQ(m.value, 1);
  undo.redo();
  EXPECT_EQ(m.value, 7);
}

TEST_F(SontoUndoManagerTest, GroupsByHandNestAndSpanTurns) {
  undo.beginUndoGrouping();
  m.setValue(1);
  endTurn();
  undo.beginUndoGrouping();
  m.setValue(2, "Inner");
  undo.endUndoGrouping();
  endTurn();
  m.setValue(3, "Move Cues");
  undo.endUndoGrouping();
  EXPECT_EQ(undo.groupingLevel(), 0);
  EXPECT_EQ(undo.undoCount(), 1u);
  EXPECT_EQ(undo.undoActionName(), "Move Cues");
  undo.undo();
  EXPECT_EQ(m.value, 0);
  undo.redo();
  EXPECT_EQ(m.value, 3);
  // Unbalanced ends are ignored.
  undo.endUndoGrouping();
  EXPECT_EQ(undo.groupingLevel(), 0);
}

TEST_F(SontoUndoManagerTest, EmptyGroupsLeaveNothingBehind) {
  undo.beginUndoGrouping();
  undo.endUndoGrouping();
  EXPECT_FALSE(undo.canUndo());
  EXPECT_EQ(undo.undoCount(), 0u);
  undo.undo();  // nothing to undo is not an error
  undo.redo();
}

TEST_F(SontoUndoManagerTest, DisabledRegistrationIsCountedAndIgnored) {
  undo.disableUndoRegistration();
  undo.disableUndoRegistration();
  m.setValue(1);
  undo.enableUndoRegistration();
  m.setValue(2);
  EXPECT_FALSE(undo.isUndoRegistrationEnabled());
  undo.enableUndoRegistration();
  undo.enableUndoRegistration();  // one too many is harmless
  EXPECT_TRUE(undo.isUndoRegistrationEnabled());
  endTurn();
  EXPECT_FALSE(undo.canUndo());
  m.setValue(3);
  endTurn();
  undo.undo();
  EXPECT_EQ(m.value, 2);
}

TEST_F(SontoUndoManagerTest, RemovingATargetStripsBothSides) {
  Model a{&undo};
  Model b{&undo};
  a.setValue(1);
  b.setValue(1);
  endTurn();
  b.setValue(2);
  endTurn();
  a.setValue(2);
  endTurn();
  undo.undo();  // a back to 1, on the redo side
  undo.removeAllActionsWithTarget(&a);
  EXPECT_FALSE(undo.canRedo());
  EXPECT_EQ(undo.undoCount(), 2u) << "the mixed group keeps b's step, the group of a alone would be gone";
  undo.undo();
  EXPECT_EQ(b.value, 1);
  undo.undo();
  EXPECT_EQ(b.value, 0);
  EXPECT_EQ(a.value, 1) << "a removed target is never called again";
  undo.removeAllActions();
  EXPECT_FALSE(undo.canUndo());
  EXPECT_FALSE(undo.canRedo());
}

TEST_F(SontoUndoManagerTest, CheckpointFollowsEachChange) {
  QSignalSpy checkpoints(&undo, &SontoUndoManager::checkpoint);
  QSignalSpy closed(&undo, &SontoUndoManager::didCloseUndoGroup);
  QSignalSpy undone(&undo, &SontoUndoManager::didUndoChange);
  QSignalSpy redone(&undo, &SontoUndoManager::didRedoChange);
  m.setValue(1);
  const int afterEdit = checkpoints.count();
  EXPECT_GE(afterEdit, 1);
  endTurn();
  EXPECT_EQ(closed.count(), 1);
  EXPECT_GT(checkpoints.count(), afterEdit);
  const int beforeUndo = checkpoints.count();
  undo.undo();
  EXPECT_EQ(undone.count(), 1);
  EXPECT_GT(checkpoints.count(), beforeUndo);
  undo.redo();
  EXPECT_EQ(redone.count(), 1);
}

TEST_F(SontoUndoManagerTest, WithoutEventGroupingRegistrationsNeedAGroup) {
  undo.setGroupsByEvent(false);
  m.setValue(1);
  EXPECT_FALSE(undo.canUndo());
  undo.beginUndoGrouping();
  m.setValue(2);
  undo.endUndoGrouping();
  undo.undo();
  EXPECT_EQ(m.value, 1);
}
