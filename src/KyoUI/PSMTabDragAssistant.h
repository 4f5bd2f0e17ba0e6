#pragma once
// Runs every tab drag, one at a time across all bars: the gap that opens under the
// mouse, the reorder, the move to another bar, the tear-off into a new window. The
// mouse path of a bar calls startDragging, dragMovedTo and dropAt; so can a test.
// Main thread only.

#include <QObject>
#include <QPixmap>
#include <QPoint>
#include <QPointer>
#include <QSet>
#include <array>
#include <memory>

#include "KyoUI/PSMTabView.h"

class PSMTabBarCell;
class PSMTabBarControl;
class PSMTabDragWindow;
class QTimer;

class PSMTabDragAssistant : public QObject {
  Q_OBJECT

 public:
  static PSMTabDragAssistant* shared();
  ~PSMTabDragAssistant() override;

  // The widths a placeholder takes at its steps 0 to 7 for a dragged cell `width`
  // wide: from nothing to the cell's width along a half cosine.
  static std::array<int, 8> sineCurveWidthsForCellWidth(double width);

  bool isDragging() const { return m_isDragging; }
  PSMTabBarControl* sourceTabBar() const { return m_sourceTabBar; }
  PSMTabBarControl* destinationTabBar() const { return m_destinationTabBar; }
  PSMTabBarCell* draggedCell() const { return m_draggedCell.get(); }
  int draggedCellIndex() const { return m_draggedCellIndex; }
  PSMTabViewItem draggedItem() const { return m_draggedItem; }
  PSMTabBarCell* targetCell() const { return m_targetCell; }
  const std::array<int, 8>& sineCurveWidths() const { return m_sineCurveWidths; }
  bool isParticipating(PSMTabBarControl* bar) const { return m_participatingTabBars.contains(bar); }
  // The translucent window that follows the mouse with the tab's picture.
  QWidget* dragWindow() const;

  // The cell at `cellIndex` of `bar` leaves it for the drag; a gap keeps its place.
  void startDragging(PSMTabBarControl* bar, int cellIndex);
  // Global coordinates: finds the bar under the point, opens the gap there.
  void dragMovedTo(QPoint globalPoint);
  // On a bar: the tab goes to the gap. Elsewhere: torn off, or back to its place.
  void dropAt(QPoint globalPoint);
  // One step of the gaps' animation, as the drag's timer runs it.
  void animateDrag();

  // A bar being deleted leaves any drag it takes part in.
  void tabBarWillGo(PSMTabBarControl* bar);

 signals:
  void tabDragDidBegin();
  void tabDragDidEnd();

 private:
  explicit PSMTabDragAssistant(QObject* parent);

  PSMTabBarControl* tabBarAtPoint(QPoint globalPoint) const;
  void distributePlaceholdersInTabBar(PSMTabBarControl* bar, bool withDraggedCell);
  // `update`: lay the bar out again at once, which a drop does itself after the move.
  void removeAllPlaceholdersFromTabBar(PSMTabBarControl* bar, bool update = true);
  void calculateDragAnimationForTabBar(PSMTabBarControl* bar);
  PSMTabBarCell* placeholderUnderPoint(PSMTabBarControl* bar, double x) const;
  void draggingEnteredTabBar(PSMTabBarControl* bar);
  // False when the delegate keeps the tab in the bar.
  bool draggingExitedTabBar(PSMTabBarControl* bar);
  void performDragOperation();
  void draggedImageEndedAt(QPoint globalPoint);
  void finishDrag();
  QPixmap alternateImage() const;

  QPointer<PSMTabBarControl> m_sourceTabBar;
  QPointer<PSMTabBarControl> m_destinationTabBar;
  QSet<PSMTabBarControl*> m_participatingTabBars;
  std::unique_ptr<PSMTabBarCell> m_draggedCell;
  PSMTabViewItem m_draggedItem;
  int m_draggedCellIndex = -1;
  bool m_isDragging = false;
  bool m_tearOffPossible = false;
  std::unique_ptr<PSMTabDragWindow> m_draggedTab;
  QPoint m_dragWindowOffset;
  int m_currentTearOffStyle = 0;
  QTimer* m_animationTimer;
  std::array<int, 8> m_sineCurveWidths{};
  QPoint m_currentMouseLoc{-1, -1};
  PSMTabBarCell* m_targetCell = nullptr;
};
