// The attached window: box and arrow on each side, the setters' bounds, the side chosen
// near the screen's edges, following the anchor window, and the popover's keys.
#include <gtest/gtest.h>

#include <QKeyEvent>
#include <QSignalSpy>
#include <QTest>

#include "KyoUI/PopoverWindow.h"
#include "SurfaceTestSupport.h"

namespace {

// The outline's point nearest to `point`, in screen coordinates: the arrow's tip.
double gapToOutline(const QPainterPath& path, QPointF windowOrigin, QPointF point) {
  double best = 1e9;
  for (int i = 0; i < path.elementCount(); ++i)
    best = std::min(best, QLineF(windowOrigin + QPointF(path.elementAt(i)), point).length());
  return best;
}

struct KeyRecorder : QWidget {
  QList<int> keys;
  void keyPressEvent(QKeyEvent* event) override { keys << event->key(); }
};

}  // namespace

// View 100 x 60, margin 2, arrow 16 high and 20 wide, corner 8, 5 from the point.
TEST(AttachedWindowGeometry, EachSidePlacesTheBoxTheViewAndTheArrowsTip) {
  const QPointF p(500, 400);
  struct Row {
    int side;
    QRectF window;  // relative to the point
    QPointF view;
  } rows[] = {
      {0, {-125, -32, 120, 64}, {2, 2}}, {1, {-52, 5, 104, 80}, {2, 18}},   {2, {5, -32, 120, 64}, {18, 2}},
      {3, {-52, -85, 104, 80}, {2, 2}},  {4, {-125, -46, 120, 64}, {2, 2}}, {5, {-125, -18, 120, 64}, {2, 2}},
      {6, {5, -46, 120, 64}, {18, 2}},   {7, {5, -18, 120, 64}, {18, 2}},   {8, {-86, -85, 104, 80}, {2, 2}},
      {9, {-18, -85, 104, 80}, {2, 2}},  {10, {-86, 5, 104, 80}, {2, 18}},  {11, {-18, 5, 104, 80}, {2, 18}},
  };
  // A square corner beside an end arrow moves the arrow and the window; either way the
  // tip stays `distance` from the point and the outline inside the window.
  for (const Row& row : rows)
    for (bool round : {true, false}) {
      SCOPED_TRACE(testing::Message() << row.side << (round ? " round" : " square"));
      const MAAttachedWindowGeometry g{.viewSize = {100, 60}, .drawsRoundCornerBesideArrow = round, .distance = 5};
      const QRectF frame = g.windowFrame(p, row.side);
      EXPECT_TRUE(!round || frame == row.window.translated(p));
      EXPECT_EQ(g.viewFrame(row.side), QRectF(row.view, QSizeF(100, 60)));
      const QPainterPath path = g.backgroundPath(row.side);
      EXPECT_NEAR(gapToOutline(path, frame.topLeft(), p), 5, 1.5);
      EXPECT_TRUE(QRectF(QPointF(), frame.size()).contains(path.boundingRect()));
    }
}

TEST(AttachedWindowGeometry, AutomaticSideKeepsTheBoxOnTheScreen) {
  const struct {
    QRectF screen;
    QPointF point;
    int side;
  } rows[] = {
      {{0, 0, 1280, 800}, {640, 100}, MAPositions::Below},
      {{0, 0, 1280, 800}, {640, 790}, MAPositions::RightRising},  // no room below: to the side, upward
      {{0, 0, 1280, 800}, {1270, 790}, MAPositions::LeftRising},
      {{0, 0, 150, 800}, {75, 790}, MAPositions::Above},  // no room at either side
      {{0, 0, 150, 800}, {30, 790}, MAPositions::AboveGoingRight},
  };
  for (const auto& row : rows) {
    EXPECT_EQ((MAAttachedWindowGeometry{.viewSize = {100, 60}}).bestSide(row.point, row.screen, row.screen), row.side)
        << row.point.x();
  }
}

TEST(AttachedWindow, SettersKeepTheirBoundsAndTheWindowFollowsTheView) {
  auto* view = new QWidget;
  view->resize(40, 30);
  MAAttachedWindow window(view, {300, 300}, nullptr, MAPositions::Above);
  EXPECT_EQ(MAAttachedWindow::create(nullptr, {0, 0}), nullptr);
  window.setBorderWidth(5);
  EXPECT_EQ(window.borderWidth(), 2);  // never above the margin
  window.setCornerRadius(100);
  EXPECT_EQ(window.cornerRadius(), 7);  // (2 * 2 + 30 - 20) / 2
  EXPECT_EQ(window.arrowBaseWidth(), 20);
  window.setArrowBaseWidth(100);
  EXPECT_EQ(window.arrowBaseWidth(), 20);  // 2 * 2 + 30 - 7 - 7
  window.setViewMargin(-3);
  EXPECT_EQ(window.viewMargin(), 0);
  EXPECT_EQ(window.cornerRadius(), 5);
  EXPECT_EQ(window.geometry(), QRect(300 - 20, 300 - 46, 40, 46));
  window.show();
  view->resize(80, 50);
  EXPECT_EQ(window.geometry(), QRect(300 - 40, 300 - 66, 80, 66));
  window.setPoint({300, 100}, MAPositions::Automatic);  // room below on any test screen
  EXPECT_EQ(window.side(), MAPositions::Below);
}

TEST(AttachedWindow, FollowsItsAnchorWindowWhenItMoves) {
  for (bool pointInWindow : {true, false}) {
    SCOPED_TRACE(pointInWindow);
    QWidget anchor;
    anchor.setGeometry(100, 100, 300, 200);
    anchor.show();
    auto* view = new QWidget;
    view->resize(60, 40);
    MAAttachedWindow window(view, pointInWindow ? QPointF(150, 20) : QPointF(250, 120),
                            pointInWindow ? &anchor : nullptr, MAPositions::Above, 0, &anchor);
    window.show();
    const QRect before = window.geometry();
    const QPoint from = anchor.geometry().topLeft();
    anchor.move(anchor.pos() + QPoint(30, -20));
    ASSERT_TRUE(pumpUntil([&] { return anchor.geometry().topLeft() == from + QPoint(30, -20); }, 5));
    EXPECT_EQ(window.geometry(), before.translated(30, -20));
  }
}

TEST(PopoverWindow, PassesEveryKeyButReturnAndEnterToItsParentAndResigns) {
  for (Qt::Key key : {Qt::Key_Q, Qt::Key_Escape, Qt::Key_Return, Qt::Key_Enter}) {
    SCOPED_TRACE(key);
    const bool passedOn = key != Qt::Key_Return && key != Qt::Key_Enter;
    KeyRecorder parent;
    PopoverWindow popover(new QWidget, {200, 200}, MAPositions::Above, &parent);
    QSignalSpy resigned(&popover, &PopoverWindow::didResignKey);
    QTest::keyClick(&popover, key);
    popover.hide(), popover.show();  // shown again by its owner: it may resign again
    QTest::keyClick(&popover, key);
    EXPECT_EQ(parent.keys, passedOn ? QList<int>(2, key) : QList<int>{});
    EXPECT_EQ(resigned.count(), passedOn ? 2 : 0);
  }
}

TEST(PopoverWindow, ResignsWhenAnotherWindowIsActivated) {
  QWidget parent;
  parent.show();
  PopoverWindow popover(new QWidget, {200, 200}, MAPositions::Above, &parent);
  QSignalSpy resigned(&popover, &PopoverWindow::didResignKey);
  popover.show();
  popover.activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&popover));
  parent.activateWindow();
  EXPECT_TRUE(pumpUntil([&] { return resigned.count() == 1; }, 5));
}
