// The tab side of the window: carts added, closed and brought back with undo, the
// carts' order kept equal to the tabs' order, and a cart moved to another open show
// or torn off into a new one. The grids follow the workspace's carts by themselves
// (syncGridControllers), so each operation here changes the carts and the undo stack.

#include <algorithm>

#include "show/AudioCue.h"
#include "show/Cart.h"
#include "show/SontoUndoManager.h"
#include "show/Workspace.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/SontoAlerts.h"
#include "surface/SontoDocumentController.h"
#include "surface/WorkspaceController.h"

#include <QTabWidget>

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
    if (controller && controller->cart() == cart) m_tabView->setCurrentIndex(tab);
  }
}

void WorkspaceController::selectNextTab() {
  const int count = m_tabView->count();
  if (count > 0) m_tabView->setCurrentIndex((m_tabView->currentIndex() + 1) % count);
}

void WorkspaceController::selectPreviousTab() {
  const int count = m_tabView->count();
  if (count > 0) m_tabView->setCurrentIndex((m_tabView->currentIndex() + count - 1) % count);
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
  if (m_tabView->count() == 0) close();
}

// A tab dropped outside every window: a new untitled show of its own, which then
// behaves as any other (save, and the question on closing).
WorkspaceController* WorkspaceController::tearOffTab(GridController* controller, const QPoint& at) {
  if (!m_workspace || !controller || isLocked()) return nullptr;
  WorkspaceController* window = SontoDocumentController::sharedDocumentController().newDocumentFromDrag();
  window->resize(size());
  window->move(at);
  moveTabToWindow(controller, window);
  return window;
}
