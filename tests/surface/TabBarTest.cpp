// The tab bar: the layout of many tabs with the overflow menu, the close button's
// rules, the bar that hides for a single tab, and drags run through the assistant's
// own steps: a reorder, a move to another window's bar, a tear-off.
#include <gtest/gtest.h>

#include <QLabel>
#include <QMenu>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>
#include <QVBoxLayout>
#include <memory>

#include "KyoUI/PSMMetalTabStyle.h"
#include "KyoUI/PSMTabBarControl.h"
#include "KyoUI/PSMTabBarDelegate.h"
#include "KyoUI/PSMTabDragAssistant.h"
#include "foundation/KyoLog.h"

namespace {

struct RecordingDelegate : PSMTabBarDelegate {
  bool closeAllowed = true;
  bool closeDisabled = false;
  PSMTabBarControl* newBar = nullptr;
  QStringList closed, dropped, lastClosed;
  QList<PSMTabBarControl*> droppedIn;

  bool shouldCloseTabViewItem(PSMTabView*, const PSMTabViewItem&) override { return closeAllowed; }
  // The owner of a closed tab's page, as the window is.
  void didCloseTabViewItem(PSMTabView*, const PSMTabViewItem& item) override {
    closed << item.label;
    delete item.view;
  }
  bool disableTabCloseForTabViewItem(PSMTabView*, const PSMTabViewItem&) override { return closeDisabled; }
  void didDropTabViewItem(PSMTabView*, const PSMTabViewItem& item, PSMTabBarControl* bar) override {
    dropped << item.label;
    droppedIn << bar;
  }
  PSMTabBarControl* newTabBarForDraggedTabViewItem(PSMTabView*, const PSMTabViewItem&, QPoint) override {
    return newBar;
  }
  void closeWindowForLastTabViewItem(PSMTabView*, const PSMTabViewItem& item) override { lastClosed << item.label; }
};

// A window with a bar over its tab view, shown at `x` on the screen, with tabs "T0"...
struct TabWindow {
  QWidget window;
  PSMTabView* view;
  PSMTabBarControl* bar;
  RecordingDelegate delegate;
  std::vector<std::unique_ptr<QObject>> identifiers;

  explicit TabWindow(int tabs, int x = 0, int width = 620) {
    auto* layout = new QVBoxLayout(&window);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    bar = new PSMTabBarControl(&window);
    view = new PSMTabView(&window);
    layout->addWidget(bar);
    layout->addWidget(view);
    bar->setTabView(view);
    bar->setDelegate(&delegate);
    bar->setCellMinWidth(100);
    bar->setCellMaxWidth(200);
    bar->setCellOptimumWidth(150);
    window.setGeometry(x, 0, width, 300);
    for (int i = 0; i < tabs; ++i) add(QStringLiteral("T%1").arg(i));
    window.show();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(&window));
  }

  void add(const QString& label) {
    identifiers.push_back(std::make_unique<QObject>());
    view->addTabViewItem(new QLabel(label), label, identifiers.back().get());
  }
  QStringList labels() const {
    QStringList result;
    for (const PSMTabViewItem& item : view->items()) result << item.label;
    return result;
  }
  QPoint globalCenterOf(int cell, double along = 0.5) const {
    const QRectF f = bar->controller()->cellFrameAtIndex(cell);
    return bar->mapToGlobal(QPointF(f.left() + f.width() * along, f.center().y())).toPoint();
  }
};

}  // namespace

// A bar of 620 leaves 594 between its margins: tabs of 150 until the fourth, then all
// shrink evenly while trunc(594 / n) is at least 100, and the rest overflow.
TEST(TabBarLayout, TabsShrinkEvenlyToTheMinimumThenOverflow) {
  struct Row {
    int tabs;
    bool useOverflowMenu;
    double width;
    int shown;
  } rows[] = {{3, true, 150, 3}, {4, true, 148, 4}, {5, true, 118, 5}, {10, true, 118, 5}, {10, false, 59, 10}};
  for (const Row& row : rows) {
    TabWindow t(row.tabs);
    t.bar->setUseOverflowMenu(row.useOverflowMenu);
    ASSERT_EQ(t.bar->width(), 620);
    EXPECT_EQ(t.bar->numberOfVisibleTabs(), row.shown) << row.tabs;
    for (int i = 0; i < row.shown; ++i) {
      EXPECT_EQ(t.bar->controller()->cellFrameAtIndex(i), QRectF(2 + i * row.width, 0, row.width, 22)) << i;
      EXPECT_FALSE(t.bar->cells()[i]->isInOverflowMenu());
    }
    const bool overflows = row.shown < row.tabs;
    EXPECT_EQ(t.bar->overflowPopUpButton()->isVisible(), overflows);
    if (overflows) {
      EXPECT_EQ(t.bar->overflowPopUpButton()->geometry(), QRect(597, 0, 24, 22));
    }
  }
}

// Overflowing tabs' titles: cut to 60 characters with the ellipsis, a count after them;
// choosing one selects the tab.
TEST(TabBarLayout, OverflowMenuTitlesAndChoice) {
  TabWindow t(5);
  const QString longTitle = QString(70, QLatin1Char('x'));
  t.add(longTitle);
  t.add(QStringLiteral("Counted"));
  t.identifiers.back()->setProperty("objectCount", 3);
  t.bar->updateTabs();
  QMenu* menu = t.bar->controller()->overflowMenu();
  ASSERT_NE(menu, nullptr);
  ASSERT_EQ(menu->actions().size(), 2);
  EXPECT_EQ(menu->actions()[0]->text(), QString(59, QLatin1Char('x')) + QChar(0x2026));
  EXPECT_EQ(menu->actions()[1]->text(), QStringLiteral("Counted (3)"));
  menu->actions()[1]->trigger();
  EXPECT_EQ(t.view->selectedIndex(), 6);
  EXPECT_EQ(t.bar->cells()[6]->state(), 1);
  EXPECT_EQ(t.bar->cells()[6]->tabState(), PSMTabState::Selected);
  EXPECT_EQ(t.bar->cells()[0]->tabState(), PSMTabState::Plain);
}

// A click on the close button closes the tab unless the button is suppressed or the
// delegate refuses; Alt closes every other tab.
TEST(TabBarClose, ClickClosesUnlessSuppressedOrRefused) {
  struct Row {
    int tabs;
    bool canCloseOnlyTab, disableTabClose, delegateDisables, delegateRefuses;
    Qt::KeyboardModifiers modifiers;
    bool suppressed;
    QStringList left;
  } rows[] = {
      {1, false, false, false, false, Qt::NoModifier, true, {"T0"}},
      {1, true, false, false, false, Qt::NoModifier, false, {}},
      {3, false, true, false, false, Qt::NoModifier, true, {"T0", "T1", "T2"}},
      {3, false, false, true, false, Qt::NoModifier, true, {"T0", "T1", "T2"}},
      {3, false, false, false, true, Qt::NoModifier, false, {"T0", "T1", "T2"}},
      {3, false, false, false, false, Qt::NoModifier, false, {"T0", "T2"}},
      {3, false, false, false, false, Qt::AltModifier, false, {"T1"}},
  };
  for (const Row& row : rows) {
    TabWindow t(row.tabs);
    t.delegate.closeDisabled = row.delegateDisables;
    t.delegate.closeAllowed = !row.delegateRefuses;
    t.bar->setCanCloseOnlyTab(row.canCloseOnlyTab);
    t.bar->setDisableTabClose(row.disableTabClose);
    const int cell = row.tabs == 1 ? 0 : 1;
    EXPECT_EQ(t.bar->cells()[cell]->isCloseButtonSuppressed(), row.suppressed) << row.tabs;
    const QPoint close = PSMMetalTabStyle::closeButtonRectForTabCell(*t.bar->cells()[cell]).center().toPoint();
    QTest::mouseClick(t.bar, Qt::LeftButton, row.modifiers, close);
    EXPECT_EQ(t.labels(), row.left) << row.tabs << row.modifiers;
    EXPECT_EQ(t.delegate.closed.size(), row.tabs - row.left.size());
  }
}

TEST(TabBarHide, SingleTabCollapsesTheBarAndASecondBringsItBack) {
  TabWindow t(1);
  t.bar->setHideForSingleTab(true);
  t.window.layout()->activate();
  EXPECT_TRUE(t.bar->isHidden());
  EXPECT_EQ(t.view->height(), 300);
  t.add(QStringLiteral("T1"));
  t.window.layout()->activate();
  EXPECT_FALSE(t.bar->isHidden());
  EXPECT_EQ(t.view->height(), 278);
  t.view->removeTabViewItem(0);
  EXPECT_TRUE(t.bar->isHidden());
}

TEST(TabDrag, SineCurveWidthsRunAlongAHalfCosineWithTheRoughPi) {
  const std::array<int, 8> expected = {0, 5, 22, 48, 78, 107, 133, 150};
  EXPECT_EQ(PSMTabDragAssistant::sineCurveWidthsForCellWidth(150), expected);
}

// T0 dragged over the right half of T2 lands behind it; the gap under the mouse opens
// to the dragged tab's width; the selected page stays selected.
TEST(TabDrag, ReorderWithinTheBarMovesTheItem) {
  TabWindow t(4);
  t.view->selectTabViewItemAtIndex(3);
  PSMTabDragAssistant* assistant = PSMTabDragAssistant::shared();
  QSignalSpy began(assistant, &PSMTabDragAssistant::tabDragDidBegin),
      ended(assistant, &PSMTabDragAssistant::tabDragDidEnd);
  const QPoint over = t.globalCenterOf(2, 0.75);
  const double width = t.bar->cells()[0]->frame().width();
  assistant->startDragging(t.bar, 0);
  ASSERT_TRUE(assistant->isDragging());
  assistant->dragMovedTo(over);
  for (int i = 0; i < 8; ++i) assistant->animateDrag();
  ASSERT_NE(assistant->targetCell(), nullptr);
  EXPECT_EQ(assistant->targetCell()->frame().width(), width);
  assistant->dropAt(over);
  EXPECT_FALSE(assistant->isDragging());
  EXPECT_EQ(t.labels(), QStringList({"T1", "T2", "T0", "T3"}));
  EXPECT_EQ(t.view->selectedTabViewItem().label, QStringLiteral("T3"));
  EXPECT_EQ(t.bar->representedTabViewItems().size(), 4);
  EXPECT_EQ(t.bar->cells()[2]->representedObject().label, QStringLiteral("T0"));
  EXPECT_EQ(t.delegate.droppedIn, QList<PSMTabBarControl*>{t.bar});
  EXPECT_EQ(began.size(), 1);
  EXPECT_EQ(ended.size(), 1);
  EXPECT_TRUE(t.delegate.closed.isEmpty());
}

// A tab dropped on the left half of another window's first tab goes in front of it,
// its page alive in the other tab view; neither side hears of a close.
TEST(TabDrag, DropOnAnotherBarMovesTheItem) {
  TabWindow source(3, 0), destination(2, 700);
  QPointer<QWidget> page = source.view->itemAt(1).view;
  PSMTabDragAssistant* assistant = PSMTabDragAssistant::shared();
  assistant->startDragging(source.bar, 1);
  assistant->dragMovedTo(source.globalCenterOf(0));
  const QPoint target = destination.globalCenterOf(0, 0.25);
  assistant->dragMovedTo(target);
  EXPECT_EQ(assistant->destinationTabBar(), destination.bar);
  assistant->dropAt(target);
  EXPECT_EQ(source.labels(), QStringList({"T0", "T2"}));
  EXPECT_EQ(destination.labels(), QStringList({"T1", "T0", "T1"}));
  ASSERT_TRUE(page);
  EXPECT_TRUE(destination.view->isAncestorOf(page));
  EXPECT_EQ(destination.view->selectedIndex(), 0);
  EXPECT_EQ(source.delegate.droppedIn, QList<PSMTabBarControl*>{destination.bar});
  EXPECT_TRUE(source.delegate.closed.isEmpty());
  EXPECT_TRUE(destination.delegate.closed.isEmpty());
  EXPECT_EQ(destination.bar->representedTabViewItems().size(), 3);
  EXPECT_TRUE(source.delegate.lastClosed.isEmpty());
}

// Dropped outside every bar: with no bar from the delegate the tab returns to its
// place; with one it moves there, and a window left without tabs is closed.
TEST(TabDrag, TearOffMovesToTheDelegatesBarOrReturns) {
  struct Row {
    int tabs;
    bool giveBar;
    QStringList sourceAfter;
    QStringList lastClosed;
  } rows[] = {{3, false, {"T0", "T1", "T2"}, {}}, {3, true, {"T0", "T2"}, {}}, {1, true, {}, {"T0"}}};
  for (const Row& row : rows) {
    TabWindow source(row.tabs, 0);
    TabWindow target(0, 700);
    if (row.giveBar) source.delegate.newBar = target.bar;
    std::vector<std::string> log;
    KyoSetLogSink([&](const std::string& line) { log.push_back(line); });
    const int cell = row.tabs == 1 ? 0 : 1;
    QPointer<QWidget> page = source.view->itemAt(cell).view;
    PSMTabDragAssistant* assistant = PSMTabDragAssistant::shared();
    assistant->startDragging(source.bar, cell);
    assistant->dragMovedTo(source.globalCenterOf(cell));
    assistant->dropAt(QPoint(400, 600));
    KyoSetLogSink(nullptr);
    EXPECT_EQ(source.labels(), row.sourceAfter);
    EXPECT_EQ(source.delegate.lastClosed, row.lastClosed);
    EXPECT_EQ(source.delegate.dropped.size(), row.giveBar ? 1 : 0);
    EXPECT_EQ(log, row.giveBar ? std::vector<std::string>{}
                               : std::vector<std::string>{"Delegate returned no control to add to."});
    ASSERT_TRUE(page);
    if (row.giveBar) {
      EXPECT_EQ(target.labels(), QStringList({QStringLiteral("T%1").arg(cell)}));
      EXPECT_TRUE(target.view->isAncestorOf(page));
    } else {
      EXPECT_EQ(source.bar->cells()[1]->representedObject().label, QStringLiteral("T1"));
      EXPECT_EQ(source.bar->representedTabViewItems().size(), 3);
    }
  }
}
