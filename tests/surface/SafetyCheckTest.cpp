// The safety check in the window: the list follows the edits by itself, a row leads to
// its cue, and show mode checks first only when the show's settings ask for it.

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include "KyoUI/PSMTabView.h"
#include <QTableWidget>
#include <QUrl>

#include <gtest/gtest.h>
#include <sndfile.h>

#include "show/Cart.h"
#include "show/Workspace.h"
#include "surface/BrokenCueController.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/InspectorController.h"
#include "surface/SurfaceTestSupport.h"
#include "surface/WorkspaceController.h"
#include "support/TestFiles.h"

namespace {

std::shared_ptr<AudioCue> fileCue(const std::string& name, const std::string& hotkey, const WorkspaceController* w) {
  auto cue = AudioCue::createWithFile("/nowhere/" + name + ".wav", w->workspace()->audioDevice());
  cue->setName(name);
  cue->setHotkey(hotkey);
  return cue;
}

// Each row as "cue | cart | warning".
std::vector<std::string> rows(const BrokenCueController& list) {
  std::vector<std::string> out;
  QTableWidget* table = list.brokenCueTableView();
  for (int row = 0; row < table->rowCount(); ++row) {
    QStringList cells;
    for (int column = 0; column < 3; ++column) cells << table->item(row, column)->text();
    out.push_back(cells.join(" | ").toStdString());
  }
  return out;
}

}  // namespace

TEST(SafetyCheck, ListFollowsEditsAndLeadsToTheCue) {
  FakeSources sources;
  TestWindow t;
  BrokenCueController& list = *t.window->brokenCueController();
  ASSERT_TRUE(pumpUntil([&] { return !list.reloadPending(); }));
  EXPECT_EQ(list.brokenCueLabel()->text(), "0 Warnings");
  EXPECT_TRUE(list.warningButton()->isHidden());

  GridController* grid = t.grid();
  grid->cart()->setName("Act 1");
  grid->addCue(fileCue("Rain", "A", t.window), 0);
  auto wind = fileCue("Wind", "A", t.window);
  grid->addCue(wind, 1);
  sources.valid = false;
  grid->addCue(fileCue("Gone", "G", t.window), 2);
  sources.valid = true;
  t.window->newTab();
  t.grid(1)->cart()->setName("Act 2");
  t.grid(1)->addCue(fileCue("Bell", "[", t.window), 4);  // the pause key
  ASSERT_TRUE(pumpUntil([&] { return list.brokenCueTableView()->rowCount() == 3; }));
  EXPECT_EQ(rows(list), (std::vector<std::string>{
                            "Rain | Act 1 | same hotkey trigger as Wind (Act 1)",
                            "Gone | Act 1 | Invalid audio file.",
                            "Bell | Act 2 | same hotkey trigger as a workspace action. See workspace settings.",
                        }));
  EXPECT_EQ(list.brokenCueLabel()->text(), "3 Warnings");
  EXPECT_FALSE(list.warningButton()->isHidden());

  // A row brings its cart's tab forward and selects the cue's pad.
  t.window->tabView()->selectTabViewItemAtIndex(0);
  list.brokenCueTableView()->selectRow(2);
  EXPECT_EQ(t.window->tabView()->selectedIndex(), 1);
  EXPECT_EQ(t.grid(1)->gridView()->selectedIndex(), 4u);
  list.brokenCueTableView()->selectRow(1);
  EXPECT_EQ(t.window->tabView()->selectedIndex(), 0);
  EXPECT_EQ(grid->gridView()->selectedIndex(), 2u);

  // Mended in the inspector and by a new file on the slot: the rows go by themselves.
  t.window->selectCue(wind.get());
  ASSERT_EQ(t.window->inspectorController()->cue(), wind.get());
  wind->setHotkey("W");
  const std::string file = sonto::test::temporaryPath("mended.wav");
  ASSERT_TRUE(sonto::test::writeRampFile(file, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, 4800));
  ASSERT_EQ(dropFiles(grid, {QString::fromStdString(file)}, 2), 1);
  t.grid(1)->cart()->cueAtIndex(4)->setName("Bell");  // no undo step: no new check
  ASSERT_TRUE(pumpUntil([&] { return list.brokenCueTableView()->rowCount() == 1; }));
  EXPECT_EQ(list.brokenCueLabel()->text(), "1 Warnings");
  t.window->undoManager()->undo();  // the new file goes, the broken cue is back
  ASSERT_TRUE(pumpUntil([&] { return list.brokenCueTableView()->rowCount() == 2; }));

  // A smaller grid leaves a cue outside; a save drops it, and its concern with it.
  t.grid(1)->setCartSize({1.0f, 1.0f});
  ASSERT_TRUE(pumpUntil([&] { return list.brokenCueTableView()->rowCount() == 3; }));
  bool saved = false;
  t.window->saveToURL(QUrl::fromLocalFile(QString::fromStdString(sonto::test::temporaryPath("Checked.sonto"))),
                      [&] { saved = true; });
  ASSERT_TRUE(pumpUntil([&] { return saved && list.brokenCueTableView()->rowCount() == 1; }));
  EXPECT_EQ(rows(list), (std::vector<std::string>{"Gone | Act 1 | Invalid audio file."}));
}

// Show mode with concerns: the popover only when the settings ask, and show mode in
// any case. The popover lets the show's keys through and closes on them.
TEST(SafetyCheck, ShowModeChecksFirstOnlyWhenTheSettingsAsk) {
  FakeSources sources;
  TestWindow t;
  BrokenCueController& list = *t.window->brokenCueController();
  ASSERT_TRUE(pumpUntil([&] { return !list.reloadPending(); }));
  EXPECT_TRUE(list.didShowPopover()) << "the first check after opening had its chance";
  auto keyed = countingCue("Keyed", "Q");  // no file at all: broken
  t.grid()->addCue(keyed, 0);
  ASSERT_TRUE(pumpUntil([&] { return list.brokenCueTableView()->rowCount() == 1; }));
  EXPECT_EQ(list.popover(), nullptr);

  t.window->setShowMode();
  EXPECT_TRUE(t.window->inShowMode());
  EXPECT_EQ(list.popover(), nullptr);
  t.window->setEditMode();

  t.window->workspace()->settings().setShouldPerformSafetyChecks(true);
  t.window->setShowMode();
  EXPECT_TRUE(t.window->inShowMode()) << "the check warns, it never refuses";
  PopoverWindow* popover = list.popover();
  ASSERT_NE(popover, nullptr);
  const QPoint tip = list.warningButton()->mapToGlobal(QPoint(list.warningButton()->width() / 2, 0));
  EXPECT_EQ(popover->screenPoint(), QPointF(tip)) << "the arrow points at the button's top";
  EXPECT_TRUE(popover->side() == MAPositions::Above || popover->side() == MAPositions::AboveGoingRight);
  EXPECT_LE(popover->geometry().bottom(), tip.y());

  tapKey(popover, Qt::Key_Q, kEvdevQ, "q");
  EXPECT_EQ(keyed->downs, 1) << "the key reached the show behind the popover";
  EXPECT_EQ(list.popover(), nullptr);
}
