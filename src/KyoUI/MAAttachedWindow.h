#pragma once
// A borderless window that shows a view inside a rounded box with an arrow pointing at
// a point on the screen or in a window. Main thread only.
//
// Qt's y grows downward, the origin of a window is its top-left corner: the sides keep
// their visual meaning (side 3 is a box above the point with the arrow on its bottom
// edge), so every vertical offset of the geometry is the mirror of the one a y-up
// screen would use.

#include <QColor>
#include <QPainterPath>
#include <QPointF>
#include <QPointer>
#include <QRectF>
#include <QSizeF>
#include <QWidget>

// Where the box lies against the point, and where its arrow stands on it.
namespace MAPositions {
enum : int {
  Left = 0,              // arrow in the middle of the right edge
  Below = 1,             // middle of the top edge
  Right = 2,             // middle of the left edge
  Above = 3,             // middle of the bottom edge
  LeftRising = 4,        // lower end of the right edge
  LeftFalling = 5,       // upper end of the right edge
  RightRising = 6,       // lower end of the left edge
  RightFalling = 7,      // upper end of the left edge
  AboveGoingLeft = 8,    // right end of the bottom edge
  AboveGoingRight = 9,   // left end of the bottom edge
  BelowGoingLeft = 10,   // right end of the top edge
  BelowGoingRight = 11,  // left end of the top edge
  Automatic = 12,        // resolved once, at creation
};
}

// The box's measures and the geometry made of them, on plain values so that it can be
// checked without a display. Lengths in device-independent pixels.
struct MAAttachedWindowGeometry {
  QSizeF viewSize;
  float borderWidth = 2;
  float viewMargin = 2;
  float arrowBaseWidth = 20;
  float arrowHeight = 16;
  bool hasArrow = true;
  float cornerRadius = 8;
  bool drawsRoundCornerBesideArrow = true;
  float distance = 0;

  // How far the arrow's tip stands from the near end of its edge, for end arrows.
  float arrowInset() const;
  // Where the view stands inside the window.
  QRectF viewFrame(int side) const;
  // The window's frame in screen coordinates for the arrow's tip at `screenPoint`.
  QRectF windowFrame(QPointF screenPoint, int side) const;
  // The side that keeps the box on `screen` (the available area), shifted along its
  // arrow edge to stay beside `anchorFrame` (the window of the point, else the screen).
  int bestSide(QPointF screenPoint, const QRectF& screen, const QRectF& anchorFrame) const;
  // The outline of the box with its arrow, in window coordinates, edges on whole pixels
  // inside the window's rectangle.
  QPainterPath backgroundPath(int side) const;

  // The setters' bounds, given the present values.
  float boundedCornerRadius(float value) const;
  float boundedArrowBaseWidth(float value) const;
};

class MAAttachedWindow : public QWidget {
  Q_OBJECT

 public:
  // `point` is in the coordinates of `window`, or on the screen when `window` is null.
  // The window is a tool window kept above `parent`, by default the window of `window`;
  // give the parent here, since QWidget::setParent(parent) alone would drop the window
  // flags. With a parent and no `window`, the box follows the parent when it moves. A
  // null view makes an empty window that never sizes itself: create() answers null.
  // The view becomes a child of the window and goes with it, as any Qt child; an owner
  // that keeps the view takes it back (setParent) before deleting the window.
  MAAttachedWindow(QWidget* view, QPointF point, QWidget* window = nullptr, int side = MAPositions::Automatic,
                   float distance = 0, QWidget* parent = nullptr);
  static MAAttachedWindow* create(QWidget* view, QPointF point, QWidget* window = nullptr,
                                  int side = MAPositions::Automatic, float distance = 0, QWidget* parent = nullptr);

  QWidget* view() const { return m_view; }
  QWidget* attachedWindow() const { return m_window; }
  QPointF point() const { return m_point; }
  int side() const { return m_side; }
  float distance() const { return m_geometry.distance; }
  QRectF viewFrame() const { return m_viewFrame; }
  // The arrow's tip on the screen, which follows the anchor window when it moves.
  QPointF screenPoint() const { return m_screenPoint; }
  const MAAttachedWindowGeometry& geometryValues() const { return m_geometry; }

  // Side 12 chooses again for the new point.
  void setPoint(QPointF point, int side);

  QColor borderColor() const { return m_borderColor; }
  void setBorderColor(const QColor& color);
  float borderWidth() const { return m_geometry.borderWidth; }
  void setBorderWidth(float value);
  float viewMargin() const { return m_geometry.viewMargin; }
  void setViewMargin(float value);
  float arrowBaseWidth() const { return m_geometry.arrowBaseWidth; }
  void setArrowBaseWidth(float value);
  float arrowHeight() const { return m_geometry.arrowHeight; }
  void setArrowHeight(float value);
  bool hasArrow() const { return m_geometry.hasArrow; }
  void setHasArrow(bool value);
  float cornerRadius() const { return m_geometry.cornerRadius; }
  void setCornerRadius(float value);
  bool drawsRoundCornerBesideArrow() const { return m_geometry.drawsRoundCornerBesideArrow; }
  void setDrawsRoundCornerBesideArrow(bool value);
  QColor windowBackgroundColor() const { return m_backgroundColor; }
  void setBackgroundColor(const QColor& color);

  bool canBecomeKeyWindow() const { return true; }
  bool canBecomeMainWindow() const { return false; }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;
  void changeEvent(QEvent* event) override;
  void paintEvent(QPaintEvent* event) override;

 private:
  QRectF screenRect() const;
  QRectF anchorFrame() const;
  QPointF toScreen(QPointF point) const;
  // Side 12 becomes the best side for the present point.
  int resolvedSide(int side) const;
  void watchAnchor();
  // Not QWidget::updateGeometry, which tells layouts of a changed size hint.
  void updateAttachedGeometry();
  void updateMask();
  void redisplay();

  QColor m_borderColor = Qt::white;
  QColor m_backgroundColor = QColor::fromRgbF(0.1f, 0.1f, 0.1f, 0.75f);
  MAAttachedWindowGeometry m_geometry;
  QPointer<QWidget> m_view;
  QPointer<QWidget> m_window;
  QPointF m_point;
  int m_side = MAPositions::Below;
  QRectF m_viewFrame;
  bool m_resizing = false;

  QPointF m_screenPoint;
  // The top-level window whose moves the box follows.
  QPointer<QWidget> m_anchor;
};
