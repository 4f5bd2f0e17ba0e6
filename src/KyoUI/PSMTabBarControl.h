#pragma once
// A strip of tabs over a PSMTabView: one cell per page, laid out in the width the bar
// has, what doesn't fit in a pull-down menu at the right, close buttons, and tabs that
// are dragged within the bar, to another bar or out into a window of their own (the
// drags run in PSMTabDragAssistant). Main thread only.

#include <QList>
#include <QPointF>
#include <QPointer>
#include <QRectF>
#include <QWidget>
#include <memory>
#include <vector>

#include "KyoUI/PSMTabBarCell.h"
#include "KyoUI/PSMTabView.h"

class PSMTabBarControl;
class PSMTabBarDelegate;
class QMenu;
class QTimer;
class QToolButton;
class QVariantAnimation;

using PSMTabBarCells = std::vector<std::unique_ptr<PSMTabBarCell>>;

// The layout of a bar's cells: their frames and the menu of those that don't fit.
class PSMTabBarController {
 public:
  explicit PSMTabBarController(PSMTabBarControl* control);
  ~PSMTabBarController();

  void layoutCells();
  QRectF cellFrameAtIndex(int index) const;
  QRectF closeButtonTrackingRectAtIndex(int index) const;
  QRectF addButtonRect() const { return m_addButtonRect; }
  // Null while every tab fits.
  QMenu* overflowMenu() const;
  void setSelectedCell(PSMTabBarCell* cell);

  // The width of each cell that is shown, in order; the cells behind them overflow.
  std::vector<double> generateWidthsFromCells(const PSMTabBarCells& cells) const;

 private:
  // Takes 1 off each width above the minimum, from the last, until they fit in
  // `available`; false when they cannot.
  static bool shrinkWidths(std::vector<double>& widths, double minimum, double available);
  void setupCells(const std::vector<double>& widths);
  double availableCellWidth() const;
  QRectF genericCellRect() const;

  PSMTabBarControl* m_control;
  std::vector<QRectF> m_cellFrames;
  std::vector<QRectF> m_closeButtonTrackingRects;
  QRectF m_addButtonRect;
  std::unique_ptr<QMenu> m_overflowMenu;
};

class PSMTabBarControl : public QWidget {
  Q_OBJECT

 public:
  explicit PSMTabBarControl(QWidget* parent = nullptr);
  ~PSMTabBarControl() override;

  // Every live bar, for the drag assistant to find the one under the mouse.
  static const QList<PSMTabBarControl*>& allTabBars();

  PSMTabView* tabView() const { return m_tabView; }
  void setTabView(PSMTabView* tabView);
  PSMTabBarDelegate* delegate() const { return m_delegate; }
  void setDelegate(PSMTabBarDelegate* delegate) { m_delegate = delegate; }
  PSMTabBarController* controller() { return &m_controller; }
  QToolButton* overflowPopUpButton() const { return m_overflowPopUpButton; }
  QToolButton* addTabButton() const { return m_addTabButton; }

  bool canCloseOnlyTab() const { return m_canCloseOnlyTab; }
  void setCanCloseOnlyTab(bool value);
  bool disableTabClose() const { return m_disableTabClose; }
  void setDisableTabClose(bool value);
  bool hideForSingleTab() const { return m_hideForSingleTab; }
  void setHideForSingleTab(bool value);
  bool showAddTabButton() const { return m_showAddTabButton; }
  void setShowAddTabButton(bool value);
  bool sizeCellsToFit() const { return m_sizeCellsToFit; }
  void setSizeCellsToFit(bool value);
  bool useOverflowMenu() const { return m_useOverflowMenu; }
  void setUseOverflowMenu(bool value);
  bool alwaysShowActiveTab() const { return m_alwaysShowActiveTab; }
  void setAlwaysShowActiveTab(bool value);
  bool allowsScrubbing() const { return m_allowsScrubbing; }
  void setAllowsScrubbing(bool value) { m_allowsScrubbing = value; }
  int resizeAreaCompensation() const { return m_resizeAreaCompensation; }
  void setResizeAreaCompensation(int value);
  int orientation() const { return m_orientation; }
  bool automaticallyAnimates() const { return m_automaticallyAnimates; }
  void setAutomaticallyAnimates(bool value) { m_automaticallyAnimates = value; }
  // 0: a tab dragged out of the bar shows its page; 1: a miniature of its window.
  int tearOffStyle() const { return m_tearOffStyle; }
  void setTearOffStyle(int value) { m_tearOffStyle = value; }
  bool allowsBackgroundTabClosing() const { return m_allowsBackgroundTabClosing; }
  void setAllowsBackgroundTabClosing(bool value) { m_allowsBackgroundTabClosing = value; }
  bool selectsTabsOnMouseDown() const { return m_selectsTabsOnMouseDown; }
  void setSelectsTabsOnMouseDown(bool value) { m_selectsTabsOnMouseDown = value; }
  int cellMinWidth() const { return m_cellMinWidth; }
  void setCellMinWidth(int value);
  int cellMaxWidth() const { return m_cellMaxWidth; }
  void setCellMaxWidth(int value);
  int cellOptimumWidth() const { return m_cellOptimumWidth; }
  void setCellOptimumWidth(int value);

  // Cells in tab order; while a drag runs, placeholders too.
  const PSMTabBarCells& cells() const { return m_cells; }
  int numberOfVisibleTabs() const;
  PSMTabBarCell* lastVisibleTab() const;
  QList<PSMTabViewItem> representedTabViewItems() const;
  // The cell under `point` (bar coordinates) that is shown, or null.
  PSMTabBarCell* cellForPoint(QPointF point, QRectF* cellFrame = nullptr) const;
  int indexOfCell(const PSMTabBarCell* cell) const;

  // The layout again, animated or not; nothing while cells and items are out of step.
  void updateTabs();
  void updateTabs(bool animate);
  void hideTabBar(bool hide, bool animate);
  bool isAnimating() const;

  void addTabViewItem(const PSMTabViewItem& item);
  void removeTabForCell(PSMTabBarCell* cell);
  // For the drag assistant: a cell into or out of this bar.
  void insertCell(int index, std::unique_ptr<PSMTabBarCell> cell);
  std::unique_ptr<PSMTabBarCell> takeCell(int index);

  // What a click on a cell does, as the mouse path calls it.
  void tabClick(PSMTabBarCell* cell);
  void closeTabClick(PSMTabBarCell* cell);
  void overflowMenuAction(QWidget* view);

  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void leaveEvent(QEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dragMoveEvent(QDragMoveEvent* event) override;
  void dragLeaveEvent(QDragLeaveEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  friend class PSMTabBarController;
  friend class PSMTabDragAssistant;

  // Cells follow the tab view: gone items' cells leave (the delegate hears of each),
  // new items get cells, and the cells take the items' order.
  void tabViewDidChangeNumberOfTabViewItems();
  void tabViewDidSelectTabViewItem(int index);
  bool closeButtonHit(const PSMTabBarCell& cell, QPointF point, Qt::KeyboardModifiers modifiers) const;
  void animateCells(double progress);
  void finishAnimation();
  void updateHover(QPointF point);
  void positionOverflowMenu();
  void fireSpring();

  PSMTabBarCells m_cells;
  QPointer<PSMTabView> m_tabView;
  QToolButton* m_overflowPopUpButton;
  QToolButton* m_addTabButton;
  PSMTabBarController m_controller;
  QTimer* m_springTimer;
  QPointer<QWidget> m_tabViewItemWithSpring;
  bool m_canCloseOnlyTab = false;
  bool m_disableTabClose = false;
  bool m_hideForSingleTab = false;
  bool m_showAddTabButton = false;
  bool m_sizeCellsToFit = false;
  bool m_useOverflowMenu = true;
  bool m_alwaysShowActiveTab = false;
  bool m_allowsScrubbing = false;
  int m_resizeAreaCompensation = 0;
  int m_orientation = 0;
  bool m_automaticallyAnimates = false;
  QVariantAnimation* m_animation;
  std::vector<QRectF> m_targetFrames;
  int m_tearOffStyle = 0;
  bool m_allowsBackgroundTabClosing = true;
  bool m_selectsTabsOnMouseDown = false;
  int m_cellMinWidth = 100;
  int m_cellMaxWidth = 280;
  int m_cellOptimumWidth = 130;
  bool m_isHidden = false;
  // The press that may become a click, a close or a drag.
  bool m_mouseIsDown = false;
  QPointF m_lastMouseDownPoint;
  Qt::KeyboardModifiers m_lastMouseDownModifiers;
  PSMTabBarCell* m_mouseDownCell = nullptr;
  bool m_didDrag = false;
  bool m_closeClicked = false;
  PSMTabBarDelegate* m_delegate = nullptr;
};
