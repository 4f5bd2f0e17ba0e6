// Carts as tabs: new and closed with undo, the carts' order after a reorder, a cart
// moved to another open show and torn off into a new one, each saved with the media
// its cues use and nothing else.

#include <QApplication>
#include <QDir>
#include <QPointer>
#include <QSettings>
#include <QTest>
#include "KyoUI/PSMTabBarControl.h"
#include "KyoUI/PSMTabDragAssistant.h"
#include "KyoUI/PSMTabView.h"
#include <QUrl>

#include <gtest/gtest.h>
#include <sndfile.h>

#include "show/Cart.h"
#include "show/SontoUndoManager.h"
#include "show/Workspace.h"
#include "surface/GridController.h"
#include "surface/SontoAlerts.h"
#include "surface/SontoDocumentController.h"
#include "surface/SontoProgressSheet.h"
#include "surface/SurfaceTestSupport.h"
#include "surface/WorkspaceController.h"
#include "support/TestFiles.h"

namespace {

std::vector<std::string> cartNames(const Workspace& workspace) {
  std::vector<std::string> names;
  for (const auto& cart : workspace.carts()) names.push_back(cart->name());
  return names;
}

std::vector<std::string> tabNames(const WorkspaceController& window) {
  std::vector<std::string> names;
  for (int i = 0; i < window.tabView()->count(); ++i) names.push_back(window.tabView()->itemAt(i).label.toStdString());
  return names;
}

QStringList mediaOf(const std::string& package) {
  return QDir(QString::fromStdString(package + "/Media")).entryList(QDir::Files, QDir::Name);
}

bool save(WorkspaceController* window, const std::string& path) {
  bool saved = false;
  window->saveToURL(QUrl::fromLocalFile(QString::fromStdString(path)), [&] { saved = true; });
  return pumpUntil([&] { return saved; });
}

std::string wav(const std::string& name) {
  const std::string path = sonto::test::temporaryPath(name);
  EXPECT_TRUE(sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, 4800));
  return path;
}

}  // namespace

TEST(CartTabs, NewAndCloseAreUndoableAndAClosedTabComesBackLast) {
  FakeSources sources;
  TestWindow t;
  SontoUndoManager* undo = t.window->undoManager();
  // Each step its own undo group, as each would be its own event.
  auto step = [](auto&& action) {
    action();
    QApplication::processEvents();
  };
  step([&] { t.window->newTab(); });
  step([&] { t.window->newTab(); });
  EXPECT_EQ(tabNames(*t.window), (std::vector<std::string>{"Cart 1", "Cart 2", "Cart 3"}));
  EXPECT_EQ(undo->undoActionName(), "New Tab");
  undo->undo();
  EXPECT_EQ(tabNames(*t.window), (std::vector<std::string>{"Cart 1", "Cart 2"}));
  undo->redo();
  EXPECT_EQ(tabNames(*t.window), (std::vector<std::string>{"Cart 1", "Cart 2", "Cart 3"})) << "the same cart again";

  // A cart with cues asks first; an answer of no keeps it.
  step([&] { t.grid(0)->addCue(countingCue("Rain", "R"), 0); });
  int asked = 0;
  bool answer = false;
  SontoAlerts::setCloseTabQuestionHandler([&] { return ++asked, answer; });
  t.window->selectTab(1);
  step([&] { t.window->closeTab(); });
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(t.window->tabView()->count(), 3);
  answer = true;
  step([&] { t.window->closeTab(); });
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(cartNames(*t.workspace()), (std::vector<std::string>{"Cart 2", "Cart 3"}));
  EXPECT_EQ(undo->undoActionName(), "Close Tab");
  undo->undo();
  EXPECT_EQ(cartNames(*t.workspace()), (std::vector<std::string>{"Cart 2", "Cart 3", "Cart 1"}));
  EXPECT_EQ(tabNames(*t.window), cartNames(*t.workspace()));
  EXPECT_EQ(t.window->tabView()->selectedIndex(), 2);
  EXPECT_EQ(t.grid(2)->cart()->count(), 1u) << "its cue came back with it";
  t.window->selectTab(1);
  step([&] { t.window->closeTab(); });  // empty: no question
  EXPECT_EQ(asked, 2);
  undo->undo();
  step([&] { t.window->newTab(); });
  EXPECT_EQ(tabNames(*t.window).size(), 4u);
  for (const char* used : {"Cart 1", "Cart 2", "Cart 3"})
    EXPECT_NE(tabNames(*t.window).back(), used) << "a default name is never reused in a window's life";
  undo->undo();

  // Next and previous wrap round; show mode refuses new and close.
  t.window->selectTab(3);
  t.window->selectNextTab();
  EXPECT_EQ(t.window->tabView()->selectedIndex(), 0);
  t.window->selectPreviousTab();
  EXPECT_EQ(t.window->tabView()->selectedIndex(), 2);
  t.window->setShowMode();
  t.window->newTab();
  t.window->closeTab();
  EXPECT_EQ(t.window->tabView()->count(), 3);
  SontoAlerts::setCloseTabQuestionHandler({});
}

// A reorder changes the document without an undo step, and the file keeps the order.
TEST(CartTabs, ReorderedTabsAreTheCartsOrderInTheFile) {
  FakeSources sources;
  TestWindow t;
  t.window->newTab();
  t.window->newTab();
  // The first tab dragged by the mouse to the last place, its cue playing on.
  auto playing = countingCue("Playing", "P");
  t.grid(0)->addCue(playing, 0);
  playing->setPlaying(true);
  QApplication::processEvents();  // the undo group of the edits so far closes
  const size_t steps = t.window->undoManager()->undoCount();
  PSMTabBarControl* bar = t.window->tabBar();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(t.window));
  const QRectF first = bar->controller()->cellFrameAtIndex(0), last = bar->controller()->cellFrameAtIndex(2);
  const QPoint from(int(first.center().x()) + 20, int(first.center().y()));
  const QPoint to(int(last.x() + last.width() * 0.75), int(last.center().y()));
  QTest::mousePress(bar, Qt::LeftButton, {}, from);
  for (int x = from.x(); x <= to.x(); x += 20) QTest::mouseMove(bar, QPoint(x, from.y()));
  QTest::mouseMove(bar, to);
  pumpUntil([] { return false; }, 0.4);  // the placeholders open the gap
  QTest::mouseRelease(bar, Qt::LeftButton, {}, to);
  EXPECT_EQ(cartNames(*t.workspace()), (std::vector<std::string>{"Cart 2", "Cart 3", "Cart 1"}));
  EXPECT_EQ(tabNames(*t.window), cartNames(*t.workspace()));
  EXPECT_TRUE(t.workspace()->isDocumentEdited());
  EXPECT_EQ(t.window->undoManager()->undoCount(), steps);
  EXPECT_TRUE(playing->playing());
  EXPECT_EQ(playing->hardStops, 0);
  const std::string path = sonto::test::temporaryPath("Reordered.sonto");
  ASSERT_TRUE(save(t.window, path));
  auto reread = std::make_shared<Workspace>();
  SavingError error;
  ASSERT_TRUE(reread->readFromURL(QUrl::fromLocalFile(QString::fromStdString(path)), &error)) << error.message;
  EXPECT_EQ(cartNames(*reread), (std::vector<std::string>{"Cart 2", "Cart 3", "Cart 1"}));
  reread->close();
}

// A cart moved to another show leaves a copy there with copies of its media; undo in
// the first show brings it back beside the copy. A tab torn off makes a new show.
// Each saved package holds exactly the media of its cues.
TEST(CartTabs, MovedAndTornOffCartsTakeTheirMedia) {
  FakeSources sources;
  TestWindow source, target;
  source.window->newTab();
  GridController* moving = source.grid(1);
  moving->cart()->setName("Best of");
  ASSERT_EQ(dropFiles(moving, {QString::fromStdString(wav("thunder.wav")), QString::fromStdString(wav("rain.wav"))},
                      0),
            2);
  ASSERT_EQ(dropFiles(source.grid(0), {QString::fromStdString(wav("stays.wav"))}, 0), 1);

  source.window->moveTabToWindow(moving, target.window);
  EXPECT_EQ(cartNames(*source.workspace()), (std::vector<std::string>{"Cart 1"}));
  EXPECT_EQ(cartNames(*target.workspace()), (std::vector<std::string>{"Cart 1", "Best of"}));
  EXPECT_TRUE(target.workspace()->isDocumentEdited());
  for (const auto& [key, cue] : target.workspace()->carts()[1]->cues()) {
    EXPECT_TRUE(target.workspace()->containsMediaFile(cue->file())) << cue->file();
  }
  const std::string sourcePath = sonto::test::temporaryPath("Source.sonto");
  const std::string targetPath = sonto::test::temporaryPath("Target.sonto");
  ASSERT_TRUE(save(source.window, sourcePath));
  ASSERT_TRUE(save(target.window, targetPath));
  EXPECT_EQ(mediaOf(sourcePath), QStringList{"stays.wav"});
  EXPECT_EQ(mediaOf(targetPath), (QStringList{"rain.wav", "thunder.wav"}));
  EXPECT_EQ(source.window->undoManager()->undoActionName(), "Close Tab");
  source.window->undoManager()->undo();
  EXPECT_EQ(cartNames(*source.workspace()), (std::vector<std::string>{"Cart 1", "Best of"}));
  EXPECT_EQ(target.workspace()->carts().size(), 2u) << "the copy is the target's own";

  // Torn off: a new untitled show with that cart alone, which saves like any other.
  const size_t documents = SontoDocumentController::sharedDocumentController().documents().size();
  WorkspaceController* torn = source.window->tearOffTab(source.grid(1), QPoint(40, 40));
  ASSERT_NE(torn, nullptr);
  EXPECT_EQ(SontoDocumentController::sharedDocumentController().documents().size(), documents + 1);
  EXPECT_TRUE(torn->workspace()->createdFromDrag());
  EXPECT_EQ(cartNames(*torn->workspace()), (std::vector<std::string>{"Best of"}));
  EXPECT_TRUE(torn->workspace()->isDocumentEdited());
  const std::string tornPath = sonto::test::temporaryPath("Torn.sonto");
  torn->resize(1250, 740);
  ASSERT_TRUE(save(torn, tornPath));
  EXPECT_EQ(mediaOf(tornPath), (QStringList{"rain.wav", "thunder.wav"}));
  EXPECT_EQ(torn->frameAutosaveName(), QUrl::fromLocalFile(QString::fromStdString(tornPath)).toString());
  torn->closeWithoutAsking();

  // Opened again, the show's window comes back at its size.
  ASSERT_EQ(SontoDocumentController::sharedDocumentController().openDocuments({QString::fromStdString(tornPath)}), 1);
  WorkspaceController* reopened = SontoDocumentController::sharedDocumentController().documentForPath(
      QString::fromStdString(tornPath));
  ASSERT_NE(reopened, nullptr);
  EXPECT_EQ(reopened->size(), QSize(1250, 740));
  reopened->closeWithoutAsking();
}

// The same moves made with the tab bar, as a mouse drag makes them: along the bar, to
// the other window's bar, and out of every window.
TEST(CartTabs, BarDragsReorderMoveAndTearOff) {
  FakeSources sources;
  TestWindow source, target;
  source.window->move(0, 0);
  target.window->move(0, 900);
  source.window->newTab();
  source.window->newTab();
  ASSERT_EQ(dropFiles(source.grid(1), {QString::fromStdString(wav("bar-drag.wav"))}, 0), 1);
  PSMTabDragAssistant* assistant = PSMTabDragAssistant::shared();
  auto centre = [](WorkspaceController* window, int tab, double along = 0.5) {
    PSMTabBarControl* bar = window->tabBar();
    const QRectF frame = bar->controller()->cellFrameAtIndex(tab);
    return bar->mapToGlobal(QPointF(frame.x() + frame.width() * along, frame.center().y())).toPoint();
  };
  // The point is taken before the drag adds its placeholders to the bar.
  auto drag = [&](WorkspaceController* window, int tab, const std::function<QPoint()>& to) {
    const QPoint point = to();
    assistant->startDragging(window->tabBar(), tab);
    ASSERT_TRUE(assistant->isDragging());
    assistant->dragMovedTo(point);
    for (int i = 0; i < 8; ++i) assistant->animateDrag();
    assistant->dropAt(point);
    QApplication::processEvents();
  };

  drag(source.window, 0, [&] { return centre(source.window, 2, 0.75); });
  EXPECT_EQ(cartNames(*source.workspace()), (std::vector<std::string>{"Cart 2", "Cart 3", "Cart 1"}));

  // Cart 2, with its cue, onto the other window's single tab (its bar shows for the drag).
  drag(source.window, 0, [&] { return centre(target.window, 0, 0.75); });
  EXPECT_EQ(cartNames(*source.workspace()), (std::vector<std::string>{"Cart 3", "Cart 1"}));
  EXPECT_EQ(cartNames(*target.workspace()), (std::vector<std::string>{"Cart 1", "Cart 2"}));
  EXPECT_EQ(target.workspace()->carts()[1]->count(), 1u);
  EXPECT_EQ(tabNames(*target.window), cartNames(*target.workspace()));
  EXPECT_TRUE(target.window->tabBar()->isVisible()) << "two tabs: the bar shows";

  const size_t documents = SontoDocumentController::sharedDocumentController().documents().size();
  drag(source.window, 1, [] { return QPoint(3000, 3000); });
  ASSERT_EQ(SontoDocumentController::sharedDocumentController().documents().size(), documents + 1);
  WorkspaceController* torn = SontoDocumentController::sharedDocumentController().documents().back();
  EXPECT_EQ(cartNames(*torn->workspace()), (std::vector<std::string>{"Cart 1"}));
  EXPECT_EQ(cartNames(*source.workspace()), (std::vector<std::string>{"Cart 3"}));
  EXPECT_FALSE(source.window->tabBar()->isVisible()) << "one tab left: the bar hides";
  torn->closeWithoutAsking();
}

// The "Saving" sheet shows only for a save that outlasts its moment.
TEST(CartTabs, SavingSheetWaitsForALongSave) {
  TestWindow t;
  QPointer<SontoProgressSheet> quick = new SontoProgressSheet(QStringLiteral("Saving"), t.window);
  QPointer<SontoProgressSheet> slow = new SontoProgressSheet(QStringLiteral("Saving"), t.window);
  quick->showOnWindow();
  slow->showOnWindow();
  quick->hideSheet();
  pumpUntil([&] { return slow->isVisible(); }, 2.0);
  EXPECT_TRUE(slow->isVisible());
  EXPECT_TRUE(!quick || !quick->isVisible());
  slow->hideSheet();
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  EXPECT_FALSE(slow) << "gone once hidden";
}
