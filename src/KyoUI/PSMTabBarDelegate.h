#pragma once
// What the owner of a tab bar answers: whether a tab may close, be dragged, dropped or
// leave the bar, and the new bar of a torn-off tab. Every answer has a default, so an
// owner implements only what it cares about. Main thread only.

#include <QPoint>

#include "KyoUI/PSMTabView.h"

class PSMTabBarControl;
class QMenu;

class PSMTabBarDelegate {
 public:
  virtual ~PSMTabBarDelegate() = default;

  virtual bool shouldCloseTabViewItem(PSMTabView*, const PSMTabViewItem&) { return true; }
  virtual void didCloseTabViewItem(PSMTabView*, const PSMTabViewItem&) {}
  virtual bool disableTabCloseForTabViewItem(PSMTabView*, const PSMTabViewItem&) { return false; }
  virtual bool shouldDragTabViewItem(PSMTabView*, const PSMTabViewItem&, PSMTabBarControl* /*fromTabBar*/) {
    return true;
  }
  // A null bar asks whether the tab may be torn off into a window of its own.
  virtual bool shouldDropTabViewItem(PSMTabView*, const PSMTabViewItem&, PSMTabBarControl* /*inTabBar*/) {
    return true;
  }
  virtual bool shouldAllowTabViewItemToLeaveTabBar(PSMTabView*, const PSMTabViewItem&, PSMTabBarControl*) {
    return true;
  }
  // Told by the source bar's delegate; the tab view is the one the item is now in,
  // the bar's own for a reorder.
  virtual void didDropTabViewItem(PSMTabView*, const PSMTabViewItem&, PSMTabBarControl* /*inTabBar*/) {}
  // The bar of a new window for a tab dropped outside every bar, at a point on the
  // screen; null keeps the tab where it was.
  virtual PSMTabBarControl* newTabBarForDraggedTabViewItem(PSMTabView*, const PSMTabViewItem&, QPoint) {
    return nullptr;
  }
  virtual void closeWindowForLastTabViewItem(PSMTabView*, const PSMTabViewItem&) {}
  // Shown on a right click over the tab; the bar does not take ownership.
  virtual QMenu* menuForTabViewItem(PSMTabView*, const PSMTabViewItem&) { return nullptr; }
  virtual void tabBarDidHide(PSMTabView*, PSMTabBarControl*) {}
  virtual void didSelectTabViewItem(PSMTabView*, const PSMTabViewItem&) {}
};
