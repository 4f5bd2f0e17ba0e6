// The tab side of the window: carts added, closed and brought back with undo, the
// carts' order kept equal to the tabs' order, and a cart moved to another open show
// or torn off into a new one. The grids follow the workspace's carts by themselves
// (syncGridControllers), so each operation here changes the carts and the undo stack.

#include <algorithm>

#include "KyoUI/PSMTabBarControl.h"
#include "KyoUI/PSMTabDragAssistant.h"
#include "KyoUI/PSMTabView.h"
#include "show/AudioCue.h"
#include "show/Cart.h"
#include "show/SontoUndoManager.h"
#include "show/Workspace.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/InspectorController.h"
#include "surface/SontoAlerts.h"
#include "surface/SontoDocumentController.h"
#include "surface/WorkspaceController.h"


void WorkspaceController::newTab() {
  if (!m_workspace || isLocked()) return;
  auto cart = std::make_shared<Cart>();
  registerUndoOfNewTab(cart);
  m_workspace->addCart(cart);
  selectTabOfCart(cart.get());
}

// The undo of a new or recreated tab closes that very tab, without the question: the
// cues added to it since have been undone first.
void WorkspaceController::registerUndoOfNewTab(const std::shared_ptr<Cart>& cart) {
  SontoUndoManager* undo = undoManager();
  if (!undo) return;
  std::weak_ptr<Cart> weak = cart;
  undo->registerUndo(this, [this, weak] {
    if (const auto c = weak.lock()) removeTabOfCart(c.get(), true);
  });
  if (!undo->isUndoing()) undo->setActionName(QStringLiteral("New Tab"));
}

void WorkspaceController::closeTab() {
  if (!m_workspace || isLocked()) return;
  // The last tab is never removed: the window is.
  if (m_tabView->count() < 2) {
    close();
    return;
  }
  GridController* controller = selectedController();
  if (controller && shouldCloseTab(controller)) removeTabOfCart(controller->cart(), true);
}

bool WorkspaceController::shouldCloseTab(GridController* controller) {
  if (isLocked()) return false;
  if (controller->cart()->isEmpty()) return true;
  return SontoAlerts::confirmCloseTab(this);
}

void WorkspaceController::removeTabOfCart(Cart* cart, bool withUndo) {
  if (!m_workspace || !cart) return;
  cart->stopCues();
  std::shared_ptr<Cart> removed = m_workspace->removeCart(cart);
  if (!removed || !withUndo) return;
  // The undo manager keeps the cart, and its cues, alive until then.
  SontoUndoManager* undo = undoManager();
  undo->registerUndo(this, [this, removed] { recreateTabForCart(removed); });
  if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Close Tab"));
}

// A closed tab comes back last, whatever its old place.
void WorkspaceController::recreateTabForCart(const std::shared_ptr<Cart>& cart) {
  if (!m_workspace) return;
  m_workspace->addCart(cart);
  selectTabOfCart(cart.get());
  registerUndoOfNewTab(cart);
}

void WorkspaceController::selectTabOfCart(const Cart* cart) {
  for (int tab = 0; tab < m_tabView->count(); ++tab) {
    GridController* controller = controllerForTab(tab);
    if (controller && controller->cart() == cart) m_tabView->selectTabViewItemAtIndex(tab);
  }
}

void WorkspaceController::selectNextTab() {
  const int count = m_tabView->count();
  if (count > 0) m_tabView->selectTabViewItemAtIndex((m_tabView->selectedIndex() + 1) % count);
}

void WorkspaceController::selectPreviousTab() {
  const int count = m_tabView->count();
  if (count > 0) m_tabView->selectTabViewItemAtIndex((m_tabView->selectedIndex() + count - 1) % count);
}

// A tab dragged to a new place: the carts take the tabs' order. A change of the
// document, with no undo of its own.
void WorkspaceController::tabsReordered() {
  if (!m_workspace) return;
  m_workspace->updateChangeCount(Workspace::ChangeType::Done);
  std::vector<const Cart*> order;
  for (int tab = 0; tab < m_tabView->count(); ++tab) {
    if (GridController* controller = controllerForTab(tab)) order.push_back(controller->cart());
  }
  for (size_t i = 0; i < order.size(); ++i) {
    const auto& carts = m_workspace->carts();
    const auto found =
        std::find_if(carts.begin(), carts.end(), [&](const auto& cart) { return cart.get() == order[i]; });
    if (found == carts.end()) continue;
    const auto j = static_cast<size_t>(found - carts.begin());
    if (j != i) m_workspace->swapCartAtIndex(j, i);
  }
}

// The receiving side of a moved tab: an independent copy of the cart, whose media are
// copied into this show's temporary folder as an import's are, so that the copy
// outlives the show it came from. It goes last and is selected.
Cart* WorkspaceController::receiveCopyOfCart(const Cart& cart) {
  if (!m_workspace) return nullptr;
  std::shared_ptr<Cart> copy = cart.copy();
  for (const auto& [key, cue] : copy->cues()) {
    auto* audio = dynamic_cast<AudioCue*>(cue.get());
    if (!audio || audio->file().empty()) continue;
    const std::string path = m_workspace->copyFileIntoTmp(audio->file());
    if (!path.empty()) audio->updateFile(path);
  }
  if (const auto& device = m_workspace->audioDevice()) copy->updateCuesWithAudioDevice(device);
  m_workspace->addCart(copy);
  m_workspace->updateChangeCount(Workspace::ChangeType::Done);
  selectTabOfCart(copy.get());
  return copy.get();
}

// A tab dropped on another window's bar: the target holds a copy, and the cart
// leaves this show as a closed tab would, undoably. A window left without tabs goes.
void WorkspaceController::moveTabToWindow(GridController* controller, WorkspaceController* target) {
  if (!m_workspace || !controller || !target || target == this || isLocked() || target->isLocked()) return;
  target->receiveCopyOfCart(*controller->cart());
  removeTabOfCart(controller->cart(), true);
  // A drag of the bar closes the emptied window itself, once the drag is over.
  if (m_tabView->count() == 0 && !PSMTabDragAssistant::shared()->isDragging()) close();
}

// A tab dropped outside every window: a new untitled show of its own, which then
// behaves as any other (save, and the question on closing).
WorkspaceController* WorkspaceController::tearOffTab(GridController* controller, const QPoint& at) {
  if (!m_workspace || !controller || isLocked()) return nullptr;
  WorkspaceController* window = newWindowForTornOffTab(at);
  moveTabToWindow(controller, window);
  return window;
}

WorkspaceController* WorkspaceController::newWindowForTornOffTab(const QPoint& at) {
  WorkspaceController* window = SontoDocumentController::sharedDocumentController().newDocumentFromDrag();
  window->resize(size());
  window->move(at);
  return window;
}

// --- What the tab bar asks of the window ---

namespace {
GridController* gridOf(const PSMTabViewItem& item) { return qobject_cast<GridController*>(item.identifier); }
}  // namespace

bool WorkspaceController::shouldCloseTabViewItem(PSMTabView*, const PSMTabViewItem& item) {
  GridController* controller = gridOf(item);
  return controller && shouldCloseTab(controller);
}

void WorkspaceController::didCloseTabViewItem(PSMTabView*, const PSMTabViewItem& item) {
  if (GridController* controller = gridOf(item)) removeTabOfCart(controller->cart(), true);
}

bool WorkspaceController::disableTabCloseForTabViewItem(PSMTabView*, const PSMTabViewItem&) { return isLocked(); }

bool WorkspaceController::shouldDragTabViewItem(PSMTabView*, const PSMTabViewItem&, PSMTabBarControl*) {
  return !isLocked();
}

bool WorkspaceController::shouldDropTabViewItem(PSMTabView*, const PSMTabViewItem&, PSMTabBarControl* bar) {
  if (isLocked()) return false;
  auto* target = bar ? qobject_cast<WorkspaceController*>(bar->window()) : nullptr;
  return !target || !target->isLocked();
}

// The bar has moved the item already: within this bar the carts follow; into another
// window's bar the page comes back here and the target makes its own copy.
void WorkspaceController::didDropTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item, PSMTabBarControl* bar) {
  GridController* controller = gridOf(item);
  if (!controller) return;
  if (bar == m_tabBar) {
    tabsReordered();
    return;
  }
  auto* target = bar ? qobject_cast<WorkspaceController*>(bar->window()) : nullptr;
  if (tabView && tabView != m_tabView) {
    if (const int index = tabView->indexOfIdentifier(controller); index >= 0) tabView->removeTabViewItem(index);
  }
  if (target) moveTabToWindow(controller, target);
}

PSMTabBarControl* WorkspaceController::newTabBarForDraggedTabViewItem(PSMTabView*, const PSMTabViewItem&, QPoint at) {
  if (isLocked()) return nullptr;
  return newWindowForTornOffTab(at)->m_tabBar;
}

void WorkspaceController::closeWindowForLastTabViewItem(PSMTabView*, const PSMTabViewItem&) {
  if (m_tabView->count() == 0) close();
}

void WorkspaceController::didSelectTabViewItem(PSMTabView*, const PSMTabViewItem& item) {
  GridController* controller = gridOf(item);
  if (!controller) return;
  if (m_inspectorVisible) {
    m_inspectorController->setCue(
        std::dynamic_pointer_cast<AudioCue>(controller->sharedCueForIndex(controller->gridView()->selectedIndex())));
  }
  makeCartFirstResponder();
}
