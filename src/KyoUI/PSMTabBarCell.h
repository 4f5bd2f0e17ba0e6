#pragma once
// One tab of a bar, or a placeholder that opens a gap while a tab is dragged. Cells are
// not widgets: the bar lays them out and paints them. Main thread only.

#include <QRectF>
#include <algorithm>

#include "KyoUI/PSMTabView.h"

class PSMTabBarControl;

// Bits of a cell's tabState.
namespace PSMTabState {
enum : int {
  Selected = 2,
  LeftIsSelected = 4,   // the cell to the left is the selected one
  RightIsSelected = 8,  // the cell to the right is the selected one
  Plain = 32,           // what a cell gets when it loses the selection
};
}

class PSMTabBarCell {
 public:
  PSMTabBarCell(const PSMTabViewItem& item, PSMTabBarControl* control)
      : m_representedObject(item), m_controlView(control) {}
  // A placeholder; an expanded one starts at full width, in place of a dragged cell.
  static PSMTabBarCell placeholder(const QRectF& frame, bool expanded, PSMTabBarControl* control) {
    PSMTabBarCell cell({}, control);
    cell.m_isPlaceholder = true;
    cell.m_frame = frame;
    cell.m_currentStep = expanded ? 7 : 0;
    if (!expanded) cell.m_frame.setWidth(0);
    return cell;
  }

  const PSMTabViewItem& representedObject() const { return m_representedObject; }
  void setRepresentedObject(const PSMTabViewItem& item) { m_representedObject = item; }
  PSMTabBarControl* controlView() const { return m_controlView; }
  void setControlView(PSMTabBarControl* control) { m_controlView = control; }

  QRectF frame() const { return m_frame; }
  void setFrame(const QRectF& frame) { m_frame = frame; }
  int currentStep() const { return m_currentStep; }
  void setCurrentStep(int step) { m_currentStep = std::clamp(step, 0, 7); }
  bool isPlaceholder() const { return m_isPlaceholder; }
  int tabState() const { return m_tabState; }
  void setTabState(int state) { m_tabState = state; }
  // 1 while selected.
  int state() const { return m_state; }
  void setState(int state) { m_state = state; }
  bool closeButtonOver() const { return m_closeButtonOver; }
  void setCloseButtonOver(bool value) { m_closeButtonOver = value; }
  bool closeButtonPressed() const { return m_closeButtonPressed; }
  void setCloseButtonPressed(bool value) { m_closeButtonPressed = value; }
  bool isHighlighted() const { return m_highlighted; }
  void setHighlighted(bool value) { m_highlighted = value; }
  bool isInOverflowMenu() const { return m_isInOverflowMenu; }
  void setIsInOverflowMenu(bool value) { m_isInOverflowMenu = value; }
  bool hasCloseButton() const { return m_hasCloseButton; }
  void setHasCloseButton(bool value) { m_hasCloseButton = value; }
  bool isCloseButtonSuppressed() const { return m_isCloseButtonSuppressed; }
  void setCloseButtonSuppressed(bool value) { m_isCloseButtonSuppressed = value; }
  bool hasIcon() const { return m_hasIcon; }
  void setHasIcon(bool value) { m_hasIcon = value; }
  int count() const { return m_count; }
  void setCount(int value) { m_count = value; }
  bool isEdited() const { return m_isEdited; }
  void setIsEdited(bool value) { m_isEdited = value; }

 private:
  PSMTabViewItem m_representedObject;
  PSMTabBarControl* m_controlView;
  QRectF m_frame;
  int m_currentStep = 0;
  bool m_isPlaceholder = false;
  int m_tabState = 0;
  int m_state = 0;
  bool m_closeButtonOver = false;
  bool m_closeButtonPressed = false;
  bool m_highlighted = false;
  bool m_isInOverflowMenu = false;
  bool m_hasCloseButton = true;
  bool m_isCloseButtonSuppressed = false;
  bool m_hasIcon = false;
  int m_count = 0;
  bool m_isEdited = false;
};
