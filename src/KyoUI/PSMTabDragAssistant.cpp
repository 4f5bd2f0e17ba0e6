#include "KyoUI/PSMTabDragAssistant.h"

#include <QApplication>
#include <QGuiApplication>
#include <QPainter>
#include <QTimer>
#include <QToolButton>
#include <cmath>

#include "KyoUI/PSMMetalTabStyle.h"
#include "KyoUI/PSMTabBarCell.h"
#include "KyoUI/PSMTabBarControl.h"
#include "KyoUI/PSMTabBarDelegate.h"
#include "foundation/KyoLog.h"

namespace {

constexpr int kDragFrameMilliseconds = 1000 / 30;
constexpr double kMiniatureSide = 125.0;
constexpr double kDragWindowAlpha = 0.75;

}  // namespace

// A frameless window that follows the mouse with the dragged tab's picture, or, once
// the tab has left every bar, the picture of where it will go.
class PSMTabDragWindow : public QWidget {
 public:
  explicit PSMTabDragWindow(const QPixmap& image)
      : QWidget(nullptr, Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowTransparentForInput), m_image(image) {
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    resize(image.deviceIndependentSize().toSize());
  }

  void setAlternateImage(const QPixmap& image) { m_alternateImage = image; }
  bool showingAlternate() const { return m_showingAlternate; }
  void switchImages() {
    if (m_alternateImage.isNull() && !m_showingAlternate) return;
    m_showingAlternate = !m_showingAlternate;
    resize(current().deviceIndependentSize().toSize());
    update();
  }

 protected:
  void paintEvent(QPaintEvent*) override {
    QPainter painter(this);
    painter.setOpacity(kDragWindowAlpha);
    painter.drawPixmap(0, 0, current());
  }

 private:
  const QPixmap& current() const { return m_showingAlternate ? m_alternateImage : m_image; }

  QPixmap m_image;
  QPixmap m_alternateImage;
  bool m_showingAlternate = false;
};

PSMTabDragAssistant* PSMTabDragAssistant::shared() {
  static QPointer<PSMTabDragAssistant> assistant;
  if (!assistant) assistant = new PSMTabDragAssistant(qApp);
  return assistant;
}

PSMTabDragAssistant::PSMTabDragAssistant(QObject* parent) : QObject(parent), m_animationTimer(new QTimer(this)) {
  m_animationTimer->setInterval(kDragFrameMilliseconds);
  connect(m_animationTimer, &QTimer::timeout, this, &PSMTabDragAssistant::animateDrag);
}

PSMTabDragAssistant::~PSMTabDragAssistant() = default;

QWidget* PSMTabDragAssistant::dragWindow() const { return m_draggedTab.get(); }

std::array<int, 8> PSMTabDragAssistant::sineCurveWidthsForCellWidth(double width) {
  // The rough pi and half pi are kept as they are: the table's entries depend on them.
  const double w = width + 6;
  std::array<int, 8> widths{};
  for (int i = 0; i < 7; ++i) {
    const double x = (i * 0.125) * 3.1417 + 1.57085;
    const double value = std::sin(x) * w * 0.5 + w * 0.5;
    widths[i] = static_cast<int>(std::trunc(w - value));
  }
  widths[7] = static_cast<int>(width);
  return widths;
}

PSMTabBarControl* PSMTabDragAssistant::tabBarAtPoint(QPoint globalPoint) const {
  for (PSMTabBarControl* bar : PSMTabBarControl::allTabBars())
    if (bar->isVisible() && bar->tabView() && bar->rect().contains(bar->mapFromGlobal(globalPoint))) return bar;
  return nullptr;
}

void PSMTabDragAssistant::startDragging(PSMTabBarControl* bar, int cellIndex) {
  if (m_isDragging || !bar || !bar->tabView() || cellIndex < 0 || cellIndex >= static_cast<int>(bar->m_cells.size()))
    return;
  PSMTabBarCell& cell = *bar->m_cells[cellIndex];
  if (cell.isPlaceholder() || cell.isInOverflowMenu()) return;
  m_isDragging = true;
  m_sourceTabBar = bar;
  m_destinationTabBar = bar;
  m_draggedCellIndex = cellIndex;
  m_draggedItem = cell.representedObject();
  m_participatingTabBars.insert(bar);
  m_sineCurveWidths = sineCurveWidthsForCellWidth(cell.frame().width());
  bar->overflowPopUpButton()->hide();
  bar->addTabButton()->hide();
  QGuiApplication::setOverrideCursor(Qt::ClosedHandCursor);

  const QRect cellRect = cell.frame().toAlignedRect();
  cell.setHighlighted(false);
  cell.setCloseButtonOver(false);
  const QPixmap image = bar->grab(cellRect);
  m_draggedTab = std::make_unique<PSMTabDragWindow>(image);
  m_dragWindowOffset = bar->mapToGlobal(cellRect.topLeft()) - QCursor::pos();
  m_currentMouseLoc = QPoint(-1, -1);

  distributePlaceholdersInTabBar(bar, true);
  m_animationTimer->start();
  emit tabDragDidBegin();

  PSMTabBarDelegate* delegate = bar->delegate();
  m_tearOffPossible = !delegate || delegate->shouldDropTabViewItem(bar->tabView(), m_draggedItem, nullptr);
  m_currentTearOffStyle = m_tearOffPossible ? bar->tearOffStyle() : 0;
  if (m_tearOffPossible) m_draggedTab->setAlternateImage(alternateImage());
  m_draggedTab->move(bar->mapToGlobal(cellRect.topLeft()));
  m_draggedTab->show();
}

QPixmap PSMTabDragAssistant::alternateImage() const {
  QWidget* source = m_currentTearOffStyle == 1 ? m_sourceTabBar->window() : m_draggedItem.view;
  if (!source) return {};
  const QPixmap picture = source->grab();
  if (m_currentTearOffStyle != 1) return picture;
  // A miniature of the window the tab will open, its larger side 125.
  const QSize size = picture.deviceIndependentSize().toSize();
  if (size.isEmpty()) return {};
  const double scale = kMiniatureSide / std::max(size.width(), size.height());
  return picture.scaled(size * scale * picture.devicePixelRatio(), Qt::KeepAspectRatio, Qt::SmoothTransformation);
}

void PSMTabDragAssistant::distributePlaceholdersInTabBar(PSMTabBarControl* bar, bool withDraggedCell) {
  PSMTabBarCells& cells = bar->m_cells;
  PSMTabBarCells result;
  auto gap = [&](const QRectF& at, bool expanded) {
    result.push_back(std::make_unique<PSMTabBarCell>(PSMTabBarCell::placeholder(at, expanded, bar)));
  };
  size_t i = 0;
  for (; i < cells.size() && !cells[i]->isInOverflowMenu(); ++i) {
    gap(cells[i]->frame(), false);
    result.push_back(std::move(cells[i]));
  }
  const QRectF end = result.empty()
                         ? QRectF(PSMMetalTabStyle::leftMarginForTabBarControl, 0, 0, PSMMetalTabStyle::tabCellHeight)
                         : result.back()->frame().translated(result.back()->frame().width(), 0);
  gap(end, false);
  for (; i < cells.size(); ++i) result.push_back(std::move(cells[i]));

  if (withDraggedCell) {
    // The dragged cell's own gap opens fully at once, so the bar looks unchanged.
    for (size_t j = 0; j < result.size(); ++j) {
      if (result[j]->representedObject().view != m_draggedItem.view || result[j]->isPlaceholder()) continue;
      const QRectF frame = result[j]->frame();
      m_draggedCell = std::move(result[j]);
      result[j] = std::make_unique<PSMTabBarCell>(PSMTabBarCell::placeholder(frame, true, bar));
      m_targetCell = result[j].get();
      result.erase(result.begin() + static_cast<std::ptrdiff_t>(j) - 1);
      break;
    }
  }
  cells = std::move(result);
  bar->update();
}

void PSMTabDragAssistant::removeAllPlaceholdersFromTabBar(PSMTabBarControl* bar, bool update) {
  PSMTabBarCells& cells = bar->m_cells;
  for (auto it = cells.begin(); it != cells.end();) {
    if ((*it)->isPlaceholder()) {
      if (it->get() == m_targetCell) m_targetCell = nullptr;
      it = cells.erase(it);
    } else {
      ++it;
    }
  }
  if (update) bar->updateTabs(false);
}

PSMTabBarCell* PSMTabDragAssistant::placeholderUnderPoint(PSMTabBarControl* bar, double x) const {
  const PSMTabBarCells& cells = bar->m_cells;
  PSMTabBarCell* last = nullptr;
  for (size_t i = 0; i < cells.size() && !cells[i]->isInOverflowMenu(); ++i) {
    PSMTabBarCell* cell = cells[i].get();
    const QRectF f = cell->frame();
    if (cell->isPlaceholder()) {
      if (!last && x < f.left()) return cell;
      last = cell;
      if (x >= f.left() && x < f.right()) return cell;
      continue;
    }
    if (x < f.left() || x >= f.right()) continue;
    // Over a tab, the gap on the side of the tab's half that the mouse is in.
    if (x < f.center().x()) {
      for (size_t j = i; j-- > 0;)
        if (cells[j]->isPlaceholder()) return cells[j].get();
    }
    for (size_t j = i + 1; j < cells.size(); ++j)
      if (cells[j]->isPlaceholder()) return cells[j].get();
  }
  return last;
}

void PSMTabDragAssistant::calculateDragAnimationForTabBar(PSMTabBarControl* bar) {
  const bool isDestination = bar == m_destinationTabBar;
  if (isDestination) m_targetCell = placeholderUnderPoint(bar, bar->mapFromGlobal(m_currentMouseLoc).x());
  double x = PSMMetalTabStyle::leftMarginForTabBarControl;
  bool atRest = true;
  for (auto& cell : bar->m_cells) {
    if (cell->isInOverflowMenu()) break;
    QRectF frame = cell->frame();
    if (cell->isPlaceholder()) {
      cell->setCurrentStep(cell->currentStep() + (isDestination && cell.get() == m_targetCell ? 1 : -1));
      frame.setWidth(m_sineCurveWidths[cell->currentStep()]);
      atRest &= cell->currentStep() == 0;
    }
    frame.moveLeft(x);
    cell->setFrame(frame);
    x += frame.width();
  }
  if (atRest && !isDestination) {
    m_participatingTabBars.remove(bar);
    removeAllPlaceholdersFromTabBar(bar);
  }
  bar->update();
}

void PSMTabDragAssistant::animateDrag() {
  const QSet<PSMTabBarControl*> bars = m_participatingTabBars;
  for (PSMTabBarControl* bar : bars) calculateDragAnimationForTabBar(bar);
}

void PSMTabDragAssistant::draggingEnteredTabBar(PSMTabBarControl* bar) {
  if (m_draggedTab && m_draggedTab->showingAlternate()) m_draggedTab->switchImages();
  m_destinationTabBar = bar;
  bar->overflowPopUpButton()->hide();
  bar->addTabButton()->hide();
  if (bar->m_cells.empty() || !bar->m_cells.front()->isPlaceholder()) distributePlaceholdersInTabBar(bar, false);
  m_participatingTabBars.insert(bar);
}

bool PSMTabDragAssistant::draggingExitedTabBar(PSMTabBarControl* bar) {
  PSMTabBarDelegate* delegate = m_sourceTabBar->delegate();
  if (delegate && !delegate->shouldAllowTabViewItemToLeaveTabBar(m_sourceTabBar->tabView(), m_draggedItem, bar))
    return false;
  m_destinationTabBar = nullptr;
  m_targetCell = nullptr;
  if (m_tearOffPossible && m_draggedTab && !m_draggedTab->showingAlternate()) m_draggedTab->switchImages();
  return true;
}

void PSMTabDragAssistant::dragMovedTo(QPoint globalPoint) {
  if (!m_isDragging || !m_sourceTabBar) return;
  if (m_currentMouseLoc == QPoint(-1, -1) && m_draggedTab) m_dragWindowOffset = m_draggedTab->pos() - globalPoint;
  m_currentMouseLoc = globalPoint;
  PSMTabBarControl* bar = tabBarAtPoint(globalPoint);
  PSMTabBarDelegate* delegate = m_sourceTabBar->delegate();
  if (bar && delegate && !delegate->shouldDropTabViewItem(m_sourceTabBar->tabView(), m_draggedItem, bar)) bar = nullptr;
  if (bar != m_destinationTabBar) {
    const bool left = !m_destinationTabBar || draggingExitedTabBar(m_destinationTabBar);
    if (left && bar) draggingEnteredTabBar(bar);
  }
  if (m_destinationTabBar)
    m_targetCell = placeholderUnderPoint(m_destinationTabBar, m_destinationTabBar->mapFromGlobal(globalPoint).x());
  if (m_draggedTab) m_draggedTab->move(globalPoint + m_dragWindowOffset);
}

void PSMTabDragAssistant::dropAt(QPoint globalPoint) {
  if (!m_isDragging) return;
  dragMovedTo(globalPoint);
  if (m_sourceTabBar && m_destinationTabBar)
    performDragOperation();
  else if (m_sourceTabBar)
    draggedImageEndedAt(globalPoint);
  emit tabDragDidEnd();
  finishDrag();
}

void PSMTabDragAssistant::performDragOperation() {
  PSMTabBarControl* source = m_sourceTabBar;
  PSMTabBarControl* destination = m_destinationTabBar;
  PSMTabBarCells& cells = destination->m_cells;
  int target = destination->indexOfCell(m_targetCell);
  if (target < 0) target = destination->indexOfCell(placeholderUnderPoint(destination, 1e9));
  // The tab's new index counts the tabs before the gap, the dragged one not among them.
  int insertIndex = 0;
  for (int i = 0; i < target; ++i) insertIndex += !cells[i]->isPlaceholder();
  PSMTabBarCell* cell = m_draggedCell.get();
  cell->setControlView(destination);
  if (target >= 0)
    cells[target] = std::move(m_draggedCell);
  else
    destination->insertCell(insertIndex, std::move(m_draggedCell));
  m_targetCell = nullptr;
  removeAllPlaceholdersFromTabBar(destination, false);
  m_participatingTabBars.remove(destination);
  PSMTabView* sourceView = source->tabView();
  PSMTabView* destinationView = destination->tabView();
  const int from = sourceView->indexOfView(m_draggedItem.view);
  if (source == destination) {
    sourceView->moveTabViewItem(from, insertIndex);
    destination->updateTabs(false);
  } else {
    removeAllPlaceholdersFromTabBar(source, false);
    m_participatingTabBars.remove(source);
    // The cell left the source already, so the source's delegate hears of no close.
    sourceView->removeTabViewItem(from);
    destinationView->insertTabViewItem(m_draggedItem, insertIndex);
    destinationView->selectTabViewItemAtIndex(insertIndex);
  }
  if (PSMTabBarDelegate* delegate = source->delegate())
    delegate->didDropTabViewItem(destinationView, m_draggedItem, destination);
}

void PSMTabDragAssistant::draggedImageEndedAt(QPoint globalPoint) {
  PSMTabBarControl* source = m_sourceTabBar;
  PSMTabView* sourceView = source->tabView();
  PSMTabBarDelegate* delegate = source->delegate();
  removeAllPlaceholdersFromTabBar(source, false);
  m_participatingTabBars.remove(source);
  if (!delegate || delegate->shouldDropTabViewItem(sourceView, m_draggedItem, nullptr)) {
    PSMTabBarControl* bar =
        delegate ? delegate->newTabBarForDraggedTabViewItem(sourceView, m_draggedItem, globalPoint) : nullptr;
    if (bar && bar->tabView()) {
      bar->insertCell(0, std::move(m_draggedCell));
      sourceView->removeTabViewItem(sourceView->indexOfView(m_draggedItem.view));
      bar->tabView()->insertTabViewItem(m_draggedItem, 0);
      bar->tabView()->selectTabViewItemAtIndex(0);
      bar->updateTabs(false);
      // The new window opens with its tab under the point where it was dropped.
      QWidget* window = bar->window();
      window->move(globalPoint - bar->mapTo(window, QPoint(0, 0)) + m_dragWindowOffset);
      window->setWindowOpacity(1.0);
      window->show();
      window->raise();
      window->activateWindow();
      delegate->didDropTabViewItem(bar->tabView(), m_draggedItem, bar);
      return;
    }
    KyoLog("Delegate returned no control to add to.");
  }
  source->insertCell(m_draggedCellIndex, std::move(m_draggedCell));
  source->updateTabs(false);
}

void PSMTabDragAssistant::finishDrag() {
  QPointer<PSMTabBarControl> source = m_sourceTabBar;
  const PSMTabViewItem item = m_draggedItem;
  const QSet<PSMTabBarControl*> bars = m_participatingTabBars;
  m_participatingTabBars.clear();
  for (PSMTabBarControl* bar : bars) removeAllPlaceholdersFromTabBar(bar);
  m_animationTimer->stop();
  m_draggedTab.reset();
  if (m_isDragging) QGuiApplication::restoreOverrideCursor();
  m_isDragging = false;
  m_sourceTabBar = nullptr;
  m_destinationTabBar = nullptr;
  m_draggedCell.reset();
  m_draggedItem = {};
  m_draggedCellIndex = -1;
  m_targetCell = nullptr;
  m_currentMouseLoc = QPoint(-1, -1);
  if (source) source->updateTabs(false);
  // Last, since closing the window may delete the source bar.
  if (source && source->tabView() && source->tabView()->count() == 0 && source->delegate())
    source->delegate()->closeWindowForLastTabViewItem(source->tabView(), item);
}

void PSMTabDragAssistant::tabBarWillGo(PSMTabBarControl* bar) {
  m_participatingTabBars.remove(bar);
  if (!m_isDragging) return;
  if (bar == m_destinationTabBar) {
    m_destinationTabBar = nullptr;
    m_targetCell = nullptr;
  }
  if (bar != m_sourceTabBar) return;
  // The tab's own bar is going: the drag ends where it is.
  m_sourceTabBar = nullptr;
  emit tabDragDidEnd();
  finishDrag();
}
