#pragma once
// The sizes of a tab bar's parts and their painting: dark like the window, the
// selected tab lit so that it is found from across a dark room. Main thread only.

#include <QFont>
#include <QRectF>

class PSMTabBarCell;
class PSMTabBarControl;
class QPainter;

namespace PSMMetalTabStyle {

constexpr double leftMarginForTabBarControl = 2;
constexpr double rightMarginForTabBarControl = 24;  // the overflow button's room
constexpr double topMarginForTabBarControl = 10;
constexpr double tabCellHeight = 22;
constexpr double closeButtonSize = 12;

// Widths in pixels, rounded up: the least a cell needs with a short title, and what it
// needs to show its whole title in `font`.
double minimumWidthOfTabCell(const PSMTabBarCell& cell);
double desiredWidthOfTabCell(const PSMTabBarCell& cell, const QFont& font);

// Relative to the cell's frame, which they take as their origin.
QRectF closeButtonRectForTabCell(const PSMTabBarCell& cell);
QRectF iconRectForTabCell(const PSMTabBarCell& cell);
QRectF objectCounterRectForTabCell(const PSMTabBarCell& cell, const QFont& font);

QFont tabFont(const QFont& base);

void drawBackgroundInRect(QPainter& painter, const QRectF& rect);
void drawTabCell(QPainter& painter, const PSMTabBarCell& cell, const QFont& font);

}  // namespace PSMMetalTabStyle
