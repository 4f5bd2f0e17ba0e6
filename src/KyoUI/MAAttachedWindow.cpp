#include "KyoUI/MAAttachedWindow.h"

#include <QEvent>
#include <QGuiApplication>
#include <QMoveEvent>
#include <QPainter>
#include <QPainterPathStroker>
#include <QScreen>
#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

// The box's edges in the order the outline runs them, clockwise on the screen from the
// top left; corner i is the one at the start of edge i.
enum Edge { Top, Right, Bottom, Left };
constexpr QPointF kTravel[4] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
constexpr QPointF kOutward[4] = {{0, -1}, {1, 0}, {0, 1}, {-1, 0}};

// Where along its edge the arrow stands: in the middle, at the corner where the
// outline enters the edge, or at the one where it leaves it.
enum Along { Middle, AtStart, AtEnd };

struct ArrowPlace {
  Edge edge;
  Along along;
};

ArrowPlace arrowPlace(int side) {
  static constexpr ArrowPlace kPlaces[12] = {
      {Right, Middle}, {Top, Middle}, {Left, Middle},    {Bottom, Middle}, {Right, AtEnd}, {Right, AtStart},
      {Left, AtStart}, {Left, AtEnd}, {Bottom, AtStart}, {Bottom, AtEnd},  {Top, AtEnd},   {Top, AtStart},
  };
  return kPlaces[std::clamp(side, 0, 11)];
}

bool arrowWidensWindow(int side) { return arrowPlace(side).edge == Left || arrowPlace(side).edge == Right; }

double angleOf(QPointF direction) { return std::atan2(-direction.y(), direction.x()) * 180.0 / std::numbers::pi; }

}  // namespace

// -- Geometry

float MAAttachedWindowGeometry::arrowInset() const {
  return arrowBaseWidth * 0.5f + (drawsRoundCornerBesideArrow ? cornerRadius : 0.0f);
}

QRectF MAAttachedWindowGeometry::viewFrame(int side) const {
  const ArrowPlace place = arrowPlace(side);
  QPointF origin(viewMargin, viewMargin);
  if (place.edge == Left) origin.rx() += arrowHeight;
  if (place.edge == Top) origin.ry() += arrowHeight;
  return {origin, viewSize};
}

QRectF MAAttachedWindowGeometry::windowFrame(QPointF p, int side) const {
  const double w = viewSize.width() + 2 * viewMargin + (arrowWidensWindow(side) ? arrowHeight : 0);
  const double h = viewSize.height() + 2 * viewMargin + (arrowWidensWindow(side) ? 0 : arrowHeight);
  const double d = distance, inset = arrowInset();
  // x as on any screen; y mirrored, since the window's origin is its top edge here.
  // x = p.x + wx * w / 2 + dx * d + ix * inset, and y likewise with h.
  static constexpr struct {
    int wx, dx, ix, hy, dy, iy;
  } kOffsets[12] = {
      {-2, -1, 0, -1, 0, 0}, {-1, 0, 0, 0, 1, 0},   {0, 1, 0, -1, 0, 0}, {-1, 0, 0, -2, -1, 0},
      {-2, -1, 0, -2, 0, 1}, {-2, -1, 0, 0, 0, -1}, {0, 1, 0, -2, 0, 1}, {0, 1, 0, 0, 0, -1},
      {-2, 0, 1, -2, -1, 0}, {0, 0, -1, -2, -1, 0}, {-2, 0, 1, 0, 1, 0}, {0, 0, -1, 0, 1, 0},
  };
  const auto& o = kOffsets[std::clamp(side, 0, 11)];
  return {p.x() + o.wx * w / 2 + o.dx * d + o.ix * inset, p.y() + o.hy * h / 2 + o.dy * d + o.iy * inset, w, h};
}

int MAAttachedWindowGeometry::bestSide(QPointF p, const QRectF& screen, const QRectF& frame) const {
  const double w = viewSize.width() + 2 * viewMargin, h = viewSize.height() + 2 * viewMargin;
  const double d = arrowHeight + distance, inset = arrowInset();
  int side = MAPositions::Below;
  if (screen.bottom() < p.y() + h + d) {
    if (p.x() + w + d < screen.right())
      side = MAPositions::Right;
    else if (screen.left() <= p.x() - w - d)
      side = MAPositions::Left;
    else if (screen.top() >= p.y() - h - d)
      side = MAPositions::Below;
    else
      side = MAPositions::Above;
  }
  // Then along the arrow's edge, so that the box stays beside the anchor's frame.
  if (side == MAPositions::Left || side == MAPositions::Right) {
    const double half = h / 2;
    const bool left = side == MAPositions::Left;
    if (frame.bottom() < p.y() + half && screen.top() < p.y() - h + inset)
      side = left ? MAPositions::LeftRising : MAPositions::RightRising;
    else if (frame.bottom() >= p.y() + half && p.y() + h - inset <= screen.bottom() && p.y() - half <= frame.top())
      side = left ? MAPositions::LeftFalling : MAPositions::RightFalling;
  } else {
    const double half = w / 2;
    const bool below = side == MAPositions::Below;
    if (frame.left() > p.x() - half && screen.right() > p.x() + w - inset)
      side = below ? MAPositions::BelowGoingRight : MAPositions::AboveGoingRight;
    else if (p.x() + half >= frame.right() && p.x() - w + inset >= screen.left())
      side = below ? MAPositions::BelowGoingLeft : MAPositions::AboveGoingLeft;
  }
  return side;
}

QPainterPath MAAttachedWindowGeometry::backgroundPath(int side) const {
  const QRectF box = viewFrame(side).adjusted(-viewMargin, -viewMargin, viewMargin, viewMargin);
  const double minX = std::ceil(box.left() + 0.5), maxX = std::floor(box.right() - 0.5);
  const double minY = std::ceil(box.top() + 0.5), maxY = std::floor(box.bottom() - 0.5);
  const QPointF corners[4] = {{minX, minY}, {maxX, minY}, {maxX, maxY}, {minX, maxY}};

  const ArrowPlace place = arrowPlace(side);
  const bool endArrow = hasArrow && place.along != Middle;
  // The corner beside an end arrow stays square unless asked to be rounded.
  const int besideArrow = place.along == AtStart ? place.edge : (place.edge + 1) % 4;
  double radius[4];
  for (int c = 0; c < 4; ++c)
    radius[c] = (endArrow && !drawsRoundCornerBesideArrow && c == besideArrow) ? 0.0 : std::max(0.0f, cornerRadius);

  QPainterPath path;
  const auto turnCorner = [&](int c) {
    const QPointF in = kTravel[(c + 3) % 4], out = kTravel[c];
    const double r = radius[c];
    if (r <= 0) {
      path.lineTo(corners[c]);
      return;
    }
    const QPointF centre = corners[c] - in * r + out * r;
    path.lineTo(corners[c] - in * r);
    path.arcTo(QRectF(centre.x() - r, centre.y() - r, 2 * r, 2 * r), angleOf(-out), -90);
  };

  const double b = arrowBaseWidth, a = arrowHeight;
  path.moveTo(corners[Top] - kTravel[Left] * radius[Top]);
  for (int e = 0; e < 4; ++e) {
    turnCorner(e);
    if (!hasArrow || place.edge != e) continue;
    const QPointF t = kTravel[e], n = kOutward[e];
    const int next = (e + 1) % 4;
    QPointF start;
    switch (place.along) {
      case Middle:
        start = (corners[e] + corners[next]) / 2 - t * (b / 2);
        break;
      case AtStart:
        start = corners[e] + t * radius[e];
        break;
      case AtEnd:
        start = corners[next] - t * (radius[next] + b);
        break;
    }
    path.lineTo(start);
    path.lineTo(start + t * (b / 2) + n * a);
    path.lineTo(start + t * b);
  }
  path.closeSubpath();
  return path;
}

float MAAttachedWindowGeometry::boundedCornerRadius(float value) const {
  const float shortSide = static_cast<float>(std::min(viewSize.width(), viewSize.height()));
  return std::max(0.0f, std::min(value, (2 * viewMargin + shortSide - arrowBaseWidth) * 0.5f));
}

float MAAttachedWindowGeometry::boundedArrowBaseWidth(float value) const {
  const float shortSide = static_cast<float>(std::min(viewSize.width(), viewSize.height()));
  float most = 2 * viewMargin + shortSide - cornerRadius;
  if (drawsRoundCornerBesideArrow) most -= cornerRadius;
  return std::min(value, most);
}

// -- Window

MAAttachedWindow::MAAttachedWindow(QWidget* view, QPointF point, QWidget* window, int side, float distance,
                                   QWidget* parent)
    : QWidget(parent ? parent : (window ? window->window() : nullptr), Qt::Tool | Qt::FramelessWindowHint),
      m_view(view),
      m_window(window),
      m_point(point) {
  setAttribute(Qt::WA_TranslucentBackground);
  setFocusPolicy(Qt::StrongFocus);
  m_geometry.distance = distance;
  if (!view) return;
  m_geometry.viewSize = view->size();
  m_screenPoint = toScreen(point);
  m_side = resolvedSide(side);
  view->setParent(this);
  view->show();
  updateAttachedGeometry();
  view->installEventFilter(this);
  watchAnchor();
}

MAAttachedWindow* MAAttachedWindow::create(QWidget* view, QPointF point, QWidget* window, int side, float distance,
                                           QWidget* parent) {
  return view ? new MAAttachedWindow(view, point, window, side, distance, parent) : nullptr;
}

int MAAttachedWindow::resolvedSide(int side) const {
  if (side == MAPositions::Automatic) return m_geometry.bestSide(m_screenPoint, screenRect(), anchorFrame());
  return std::clamp(side, 0, 11);
}

QPointF MAAttachedWindow::toScreen(QPointF point) const { return m_window ? m_window->mapToGlobal(point) : point; }

QRectF MAAttachedWindow::screenRect() const {
  QScreen* screen = m_window ? m_window->screen() : nullptr;
  if (!screen) screen = QGuiApplication::primaryScreen();
  return screen ? QRectF(screen->availableGeometry()) : QRectF();
}

QRectF MAAttachedWindow::anchorFrame() const {
  return m_window ? QRectF(m_window->window()->geometry()) : screenRect();
}

void MAAttachedWindow::watchAnchor() {
  QWidget* anchor = m_window ? m_window->window() : (parentWidget() ? parentWidget()->window() : nullptr);
  if (anchor == m_anchor) return;
  if (m_anchor) m_anchor->removeEventFilter(this);
  m_anchor = anchor;
  if (m_anchor) m_anchor->installEventFilter(this);
}

void MAAttachedWindow::updateAttachedGeometry() {
  if (!m_view) return;
  m_viewFrame = m_geometry.viewFrame(m_side);
  const QRectF frame = m_geometry.windowFrame(m_screenPoint, m_side);
  setGeometry(QRect(QPoint(qRound(frame.x()), qRound(frame.y())),
                    QSize(static_cast<int>(std::ceil(frame.width())), static_cast<int>(std::ceil(frame.height())))));
  m_view->setGeometry(m_viewFrame.toRect());
  updateMask();
}

// Where no compositor blends the translucent corners, the window would show them as
// black: the mask keeps the window to the box, one pixel wider for the smooth edge.
void MAAttachedWindow::updateMask() {
  const QPainterPath path = m_geometry.backgroundPath(m_side);
  QPainterPathStroker rim;
  rim.setWidth(2.0);
  setMask(QRegion(rim.createStroke(path).united(path).toFillPolygon().toPolygon()));
}

void MAAttachedWindow::redisplay() {
  if (m_resizing) return;
  m_resizing = true;
  updateAttachedGeometry();
  update();
  m_resizing = false;
}

void MAAttachedWindow::setPoint(QPointF point, int side) {
  m_point = point;
  m_screenPoint = toScreen(point);
  m_side = resolvedSide(side);
  updateAttachedGeometry();
  update();
}

void MAAttachedWindow::setBorderColor(const QColor& color) {
  if (color == m_borderColor) return;
  m_borderColor = color;
  update();
}

void MAAttachedWindow::setBorderWidth(float value) {
  if (value == m_geometry.borderWidth) return;
  m_geometry.borderWidth = std::min(value, m_geometry.viewMargin);
  update();
}

void MAAttachedWindow::setViewMargin(float value) {
  if (value == m_geometry.viewMargin) return;
  m_geometry.viewMargin = std::max(0.0f, value);
  setCornerRadius(m_geometry.cornerRadius);
}

void MAAttachedWindow::setCornerRadius(float value) {
  m_geometry.cornerRadius = m_geometry.boundedCornerRadius(value);
  setArrowBaseWidth(m_geometry.arrowBaseWidth);
}

void MAAttachedWindow::setArrowBaseWidth(float value) {
  m_geometry.arrowBaseWidth = m_geometry.boundedArrowBaseWidth(value);
  redisplay();
}

void MAAttachedWindow::setArrowHeight(float value) {
  if (value == m_geometry.arrowHeight) return;
  m_geometry.arrowHeight = value;
  redisplay();
}

void MAAttachedWindow::setHasArrow(bool value) {
  if (value == m_geometry.hasArrow) return;
  m_geometry.hasArrow = value;
  updateMask();
  update();
}

void MAAttachedWindow::setDrawsRoundCornerBesideArrow(bool value) {
  if (value == m_geometry.drawsRoundCornerBesideArrow) return;
  m_geometry.drawsRoundCornerBesideArrow = value;
  redisplay();
}

void MAAttachedWindow::setBackgroundColor(const QColor& color) {
  m_backgroundColor = color;
  update();
}

bool MAAttachedWindow::eventFilter(QObject* watched, QEvent* event) {
  if (watched == m_view && event->type() == QEvent::Resize && m_view->size() != m_geometry.viewSize) {
    // The view grew or shrank on its own: the box follows it.
    m_geometry.viewSize = m_view->size();
    redisplay();
  } else if (watched == m_anchor && event->type() == QEvent::Move) {
    const auto* move = static_cast<QMoveEvent*>(event);
    m_screenPoint += QPointF(move->pos() - move->oldPos());
    updateAttachedGeometry();
  } else if (watched == m_anchor && event->type() == QEvent::Resize && m_window) {
    // A point inside the window may move with its layout.
    m_screenPoint = toScreen(m_point);
    updateAttachedGeometry();
  }
  return QWidget::eventFilter(watched, event);
}

void MAAttachedWindow::changeEvent(QEvent* event) {
  if (event->type() == QEvent::ParentChange) watchAnchor();
  QWidget::changeEvent(event);
}

void MAAttachedWindow::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const QPainterPath path = m_geometry.backgroundPath(m_side);
  painter.fillPath(path, m_backgroundColor);
  if (m_geometry.borderWidth <= 0) return;
  // A stroke twice as wide, of which only the half inside the outline shows.
  QPainterPathStroker stroker;
  stroker.setWidth(2 * m_geometry.borderWidth);
  stroker.setJoinStyle(Qt::RoundJoin);
  painter.fillPath(stroker.createStroke(path).intersected(path), m_borderColor);
}
