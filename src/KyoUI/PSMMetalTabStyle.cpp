#include "KyoUI/PSMMetalTabStyle.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QPainterPath>
#include <cmath>

#include "KyoUI/PSMTabBarCell.h"

namespace PSMMetalTabStyle {

namespace {

const QColor kBarBackground(24, 23, 23);
const QColor kBarLine(70, 69, 69);
const QColor kTab(52, 51, 51);
const QColor kTabHighlighted(64, 63, 63);
const QColor kTabText(205, 205, 205);
const QColor kSelectedTab(58, 119, 163);  // the application's selection blue
const QColor kSelectedText(255, 255, 255);

double chromeWidth(const PSMTabBarCell& cell, double titleWidth, const QFont* font) {
  double width = 6;
  if (cell.hasCloseButton() && !cell.isCloseButtonSuppressed()) width += closeButtonSize + 4;
  if (cell.hasIcon()) width += 20;
  width += titleWidth;
  if (cell.count() > 0 && font) width += objectCounterRectForTabCell(cell, *font).width() + 4;
  return std::ceil(width + 6);
}

}  // namespace

double minimumWidthOfTabCell(const PSMTabBarCell& cell) { return chromeWidth(cell, 30, nullptr); }

double desiredWidthOfTabCell(const PSMTabBarCell& cell, const QFont& font) {
  return chromeWidth(cell, QFontMetricsF(tabFont(font)).horizontalAdvance(cell.representedObject().label), &font);
}

QRectF closeButtonRectForTabCell(const PSMTabBarCell& cell) {
  const QRectF f = cell.frame();
  // One pixel higher on the selected tab, which stands out of the bar.
  return {f.x() + 6, f.y() + (cell.state() == 1 ? 4 : 5), closeButtonSize, closeButtonSize};
}

QRectF iconRectForTabCell(const PSMTabBarCell& cell) {
  const QRectF f = cell.frame();
  double x = f.x() + 6;
  if (cell.hasCloseButton() && !cell.isCloseButtonSuppressed()) x += closeButtonSize + 4;
  return {x, f.y() + 3, 16, 16};
}

QRectF objectCounterRectForTabCell(const PSMTabBarCell& cell, const QFont& font) {
  const QRectF f = cell.frame();
  const double width =
      std::max(20.0, QFontMetricsF(tabFont(font)).horizontalAdvance(QString::number(cell.count())) + 8);
  return {f.x() + f.width() - 6 - width, f.y() + 4, width, 14};
}

QFont tabFont(const QFont& base) {
  QFont font = base;
  font.setPixelSize(13);
  return font;
}

void drawBackgroundInRect(QPainter& painter, const QRectF& rect) {
  painter.fillRect(rect, kBarBackground);
  painter.fillRect(QRectF(rect.left(), rect.bottom() - 1, rect.width(), 1), kBarLine);
}

void drawTabCell(QPainter& painter, const PSMTabBarCell& cell, const QFont& baseFont) {
  if (cell.isPlaceholder() || cell.isInOverflowMenu() || cell.frame().width() < 1) return;
  const bool selected = cell.state() == 1;
  const QRectF f = cell.frame().adjusted(1, selected ? 1 : 3, -1, 0);
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  QPainterPath shape;
  shape.addRoundedRect(f.adjusted(0, 0, 0, 4), 4, 4);  // square at the foot, which the bar's edge cuts
  painter.setClipRect(cell.frame().adjusted(0, 0, 0, -1));
  const QColor fill = selected ? kSelectedTab : (cell.isHighlighted() ? kTabHighlighted : kTab);
  painter.fillPath(shape, fill);
  if (selected) painter.fillRect(QRectF(f.left() + 3, f.top(), f.width() - 6, 1), kSelectedTab.lighter(150));
  painter.setClipping(false);

  double textLeft = f.left() + 5;
  if (cell.hasCloseButton() && !cell.isCloseButtonSuppressed()) {
    const QRectF box = closeButtonRectForTabCell(cell);
    if (cell.closeButtonOver() || cell.closeButtonPressed()) {
      painter.setPen(Qt::NoPen);
      painter.setBrush(cell.closeButtonPressed() ? QColor(20, 20, 20, 200) : QColor(255, 255, 255, 70));
      painter.drawEllipse(box.adjusted(-1, -1, 1, 1));
    }
    QPen pen(selected ? kSelectedText : kTabText, 1.6);
    pen.setCapStyle(Qt::RoundCap);
    painter.setPen(pen);
    const QRectF cross = box.adjusted(3.5, 3.5, -3.5, -3.5);
    painter.drawLine(cross.topLeft(), cross.bottomRight());
    painter.drawLine(cross.topRight(), cross.bottomLeft());
    textLeft = box.right() + 4;
  }
  double textRight = f.right() - 5;
  QFont font = tabFont(baseFont);
  font.setBold(selected);
  if (cell.count() > 0) {
    const QRectF counter = objectCounterRectForTabCell(cell, baseFont);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, 110));
    painter.drawRoundedRect(counter, 7, 7);
    painter.setFont(tabFont(baseFont));
    painter.setPen(kSelectedText);
    painter.drawText(counter, Qt::AlignCenter, QString::number(cell.count()));
    textRight = counter.left() - 4;
  }
  painter.setFont(font);
  painter.setPen(selected ? kSelectedText : kTabText);
  const QRectF textRect(textLeft, f.top(), std::max(0.0, textRight - textLeft), f.height() - (selected ? 0 : 2));
  const QString title =
      QFontMetricsF(font).elidedText(cell.representedObject().label, Qt::ElideRight, textRect.width());
  painter.drawText(textRect, Qt::AlignCenter, title);
  painter.restore();
}

}  // namespace PSMMetalTabStyle
