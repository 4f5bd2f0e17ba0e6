#include "KyoUI/PSMTabBarControl.h"

#include <QContextMenuEvent>
#include <QCoreApplication>
#include <QDragEnterEvent>
#include <QMenu>
#include <QMimeData>
#include <QPainter>
#include <QTimer>
#include <QToolButton>
#include <QVariantAnimation>
#include <algorithm>
#include <cmath>
#include <numeric>

#include "KyoUI/PSMMetalTabStyle.h"
#include "KyoUI/PSMTabBarDelegate.h"
#include "KyoUI/PSMTabDragAssistant.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoStringUtilities.h"

namespace Style = PSMMetalTabStyle;

namespace {

constexpr double kAddTabButtonSize = 16;
constexpr int kCellAnimationMilliseconds = 500;
constexpr int kSpringMilliseconds = 668;
constexpr double kDragThreshold = 10.0;

QList<PSMTabBarControl*>& tabBarRegistry() {
  static QList<PSMTabBarControl*> bars;
  return bars;
}

}  // namespace

// -- Layout

PSMTabBarController::PSMTabBarController(PSMTabBarControl* control)
    : m_control(control), m_overflowMenu(std::make_unique<QMenu>()) {}

PSMTabBarController::~PSMTabBarController() = default;

QRectF PSMTabBarController::cellFrameAtIndex(int index) const {
  return index >= 0 && index < static_cast<int>(m_cellFrames.size()) ? m_cellFrames[index] : QRectF();
}

QRectF PSMTabBarController::closeButtonTrackingRectAtIndex(int index) const {
  return index >= 0 && index < static_cast<int>(m_closeButtonTrackingRects.size()) ? m_closeButtonTrackingRects[index]
                                                                                   : QRectF();
}

QMenu* PSMTabBarController::overflowMenu() const { return m_overflowMenu->isEmpty() ? nullptr : m_overflowMenu.get(); }

double PSMTabBarController::availableCellWidth() const {
  return m_control->width() - Style::leftMarginForTabBarControl - Style::rightMarginForTabBarControl;
}

QRectF PSMTabBarController::genericCellRect() const {
  return {Style::leftMarginForTabBarControl, 0, availableCellWidth(), Style::tabCellHeight};
}

void PSMTabBarController::layoutCells() { setupCells(generateWidthsFromCells(m_control->m_cells)); }

bool PSMTabBarController::shrinkWidths(std::vector<double>& widths, double minimum, double available) {
  double total = std::accumulate(widths.begin(), widths.end(), 0.0);
  while (total > available) {
    bool shrunk = false;
    for (auto it = widths.rbegin(); it != widths.rend() && total > available; ++it) {
      if (*it < minimum + 1) continue;
      *it -= 1;
      total -= 1;
      shrunk = true;
    }
    if (!shrunk) return false;
  }
  return true;
}

std::vector<double> PSMTabBarController::generateWidthsFromCells(const PSMTabBarCells& cells) const {
  const PSMTabBarControl& c = *m_control;
  double available = availableCellWidth();
  if (c.m_showAddTabButton) available -= kAddTabButtonSize;
  const int count = static_cast<int>(cells.size());
  std::vector<double> widths;
  double total = 0;
  for (int i = 0; i < count; ++i) {
    PSMTabBarCell& cell = *cells[i];
    const bool delegateDisables = c.m_delegate && c.m_tabView &&
                                  c.m_delegate->disableTabCloseForTabViewItem(c.m_tabView, cell.representedObject());
    cell.setCloseButtonSuppressed((count == 1 && !c.m_canCloseOnlyTab) || c.m_disableTabClose || delegateDisables);

    double width = c.m_sizeCellsToFit
                       ? std::min(Style::desiredWidthOfTabCell(cell, c.font()), static_cast<double>(c.m_cellMaxWidth))
                       : c.m_cellOptimumWidth;
    width = std::ceil(width);
    if (total + width < available) {
      widths.push_back(width);
      total += width;
      continue;
    }
    if (!c.m_useOverflowMenu) {
      widths.assign(count, std::trunc(available / count));
      break;
    }
    if (c.m_sizeCellsToFit) {
      std::vector<double> trial = widths;
      trial.push_back(width);
      if (!shrinkWidths(trial, c.m_cellMinWidth, available)) {
        KyoLog(
            "**** -[PSMTabBarController generateWidthsFromCells:] This is a failure (available %f, total %f, "
            "width is %f)",
            available, total, width);
        break;
      }
      widths = std::move(trial);
      total = std::accumulate(widths.begin(), widths.end(), 0.0);
      continue;
    }
    // The shown tabs shrink evenly from the optimum to the minimum before any overflows.
    const double even = std::trunc(available / (i + 1));
    if (even < c.m_cellMinWidth) break;
    widths.assign(i + 1, even);
    total = even * (i + 1);
  }
  return widths;
}

void PSMTabBarController::setupCells(const std::vector<double>& widths) {
  m_cellFrames.clear();
  m_closeButtonTrackingRects.clear();
  m_overflowMenu->clear();
  const QRectF generic = genericCellRect();
  double x = generic.x();
  for (size_t i = 0; i < m_control->m_cells.size(); ++i) {
    PSMTabBarCell& cell = *m_control->m_cells[i];
    if (i < widths.size()) {
      const QRectF frame(x, generic.y(), widths[i], generic.height());
      x += widths[i];
      cell.setIsInOverflowMenu(false);
      m_cellFrames.push_back(frame);
      m_closeButtonTrackingRects.push_back(
          Style::closeButtonRectForTabCell(cell).translated(frame.topLeft() - cell.frame().topLeft()));
      continue;
    }
    cell.setIsInOverflowMenu(true);
    m_cellFrames.push_back(QRectF(x, generic.y(), 0, generic.height()));
    m_closeButtonTrackingRects.push_back(QRectF());
    const PSMTabViewItem& item = cell.representedObject();
    QString title = QString::fromStdString(stringWithEllipsisByTruncatingToLength(item.label.toStdString(), 60));
    if (cell.count() > 0) title += QStringLiteral(" (%1)").arg(cell.count());
    QPointer<QWidget> view = item.view;
    PSMTabBarControl* control = m_control;
    m_overflowMenu->addAction(title, control, [control, view] { control->overflowMenuAction(view); });
  }
  m_addButtonRect = QRectF(x + 2, 3, kAddTabButtonSize, kAddTabButtonSize);
}

void PSMTabBarController::setSelectedCell(PSMTabBarCell* selected) {
  PSMTabBarCells& cells = m_control->m_cells;
  for (auto& cell : cells) {
    if (cell->state() == 1) {
      cell->setState(0);
      cell->setTabState(PSMTabState::Plain);
    }
    cell->setTabState(cell->tabState() & ~(PSMTabState::LeftIsSelected | PSMTabState::RightIsSelected));
  }
  if (!selected) return;
  selected->setState(1);
  selected->setTabState(PSMTabState::Selected);
  if (selected->isInOverflowMenu()) return;
  const int index = m_control->indexOfCell(selected);
  if (index > 0) cells[index - 1]->setTabState(cells[index - 1]->tabState() | PSMTabState::RightIsSelected);
  if (index >= 0 && index + 1 < static_cast<int>(cells.size()))
    cells[index + 1]->setTabState(cells[index + 1]->tabState() | PSMTabState::LeftIsSelected);
}

// -- The control

const QList<PSMTabBarControl*>& PSMTabBarControl::allTabBars() { return tabBarRegistry(); }

PSMTabBarControl::PSMTabBarControl(QWidget* parent)
    : QWidget(parent),
      m_overflowPopUpButton(new QToolButton(this)),
      m_addTabButton(new QToolButton(this)),
      m_controller(this),
      m_springTimer(new QTimer(this)),
      m_animation(new QVariantAnimation(this)) {
  tabBarRegistry().append(this);
  setFixedHeight(static_cast<int>(Style::tabCellHeight));
  setMouseTracking(true);
  setAcceptDrops(true);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);

  m_overflowPopUpButton->setText(QStringLiteral("\u00BB"));
  m_overflowPopUpButton->setPopupMode(QToolButton::InstantPopup);
  m_overflowPopUpButton->setAutoRaise(true);
  m_overflowPopUpButton->setFocusPolicy(Qt::NoFocus);
  m_overflowPopUpButton->setStyleSheet(QStringLiteral(
      "QToolButton { color: rgb(230,230,230); font-size: 17px; font-weight: bold; border: none; padding: 0 0 3px 0; }"
      "QToolButton:hover { background: rgb(70,69,69); border-radius: 3px; }"
      "QToolButton::menu-indicator { image: none; width: 0; }"));
  m_overflowPopUpButton->hide();
  m_addTabButton->setText(QStringLiteral("+"));
  m_addTabButton->setAutoRaise(true);
  m_addTabButton->setFocusPolicy(Qt::NoFocus);
  m_addTabButton->resize(static_cast<int>(kAddTabButtonSize), static_cast<int>(kAddTabButtonSize));
  m_addTabButton->hide();

  m_springTimer->setSingleShot(true);
  m_springTimer->setInterval(kSpringMilliseconds);
  connect(m_springTimer, &QTimer::timeout, this, &PSMTabBarControl::fireSpring);

  m_animation->setDuration(kCellAnimationMilliseconds);
  m_animation->setStartValue(0.0);
  m_animation->setEndValue(1.0);
  m_animation->setEasingCurve(QEasingCurve::InOutSine);
  connect(m_animation, &QVariantAnimation::valueChanged, this,
          [this](const QVariant& value) { animateCells(value.toDouble()); });
  connect(m_animation, &QVariantAnimation::finished, this, &PSMTabBarControl::finishAnimation);
}

PSMTabBarControl::~PSMTabBarControl() {
  tabBarRegistry().removeAll(this);
  if (QCoreApplication::instance()) PSMTabDragAssistant::shared()->tabBarWillGo(this);
}

void PSMTabBarControl::setTabView(PSMTabView* tabView) {
  if (m_tabView) disconnect(m_tabView, nullptr, this, nullptr);
  m_tabView = tabView;
  m_cells.clear();
  if (!tabView) return;
  connect(tabView, &PSMTabView::didChangeNumberOfTabViewItems, this,
          &PSMTabBarControl::tabViewDidChangeNumberOfTabViewItems);
  connect(tabView, &PSMTabView::didMoveTabViewItem, this, &PSMTabBarControl::tabViewDidChangeNumberOfTabViewItems);
  connect(tabView, &PSMTabView::didSelectTabViewItem, this, &PSMTabBarControl::tabViewDidSelectTabViewItem);
  connect(tabView, &PSMTabView::didChangeLabel, this, [this](int index) {
    const PSMTabViewItem item = m_tabView->itemAt(index);
    for (auto& cell : m_cells)
      if (!cell->isPlaceholder() && cell->representedObject().view == item.view) cell->setRepresentedObject(item);
    updateTabs(false);
  });
  tabViewDidChangeNumberOfTabViewItems();
}

// Setters that change the layout lay it out again.
#define PSM_LAYOUT_SETTER(Setter, field)                 \
  void PSMTabBarControl::Setter(decltype(field) value) { \
    field = value;                                       \
    updateTabs();                                        \
  }
PSM_LAYOUT_SETTER(setCanCloseOnlyTab, m_canCloseOnlyTab)
PSM_LAYOUT_SETTER(setDisableTabClose, m_disableTabClose)
PSM_LAYOUT_SETTER(setHideForSingleTab, m_hideForSingleTab)
PSM_LAYOUT_SETTER(setShowAddTabButton, m_showAddTabButton)
PSM_LAYOUT_SETTER(setSizeCellsToFit, m_sizeCellsToFit)
PSM_LAYOUT_SETTER(setUseOverflowMenu, m_useOverflowMenu)
PSM_LAYOUT_SETTER(setAlwaysShowActiveTab, m_alwaysShowActiveTab)
PSM_LAYOUT_SETTER(setResizeAreaCompensation, m_resizeAreaCompensation)
PSM_LAYOUT_SETTER(setCellMinWidth, m_cellMinWidth)
PSM_LAYOUT_SETTER(setCellMaxWidth, m_cellMaxWidth)
PSM_LAYOUT_SETTER(setCellOptimumWidth, m_cellOptimumWidth)
#undef PSM_LAYOUT_SETTER

int PSMTabBarControl::numberOfVisibleTabs() const {
  return static_cast<int>(std::count_if(m_cells.begin(), m_cells.end(), [](const auto& cell) {
    return !cell->isPlaceholder() && !cell->isInOverflowMenu();
  }));
}

PSMTabBarCell* PSMTabBarControl::lastVisibleTab() const {
  PSMTabBarCell* last = nullptr;
  for (const auto& cell : m_cells)
    if (!cell->isPlaceholder() && !cell->isInOverflowMenu()) last = cell.get();
  return last;
}

QList<PSMTabViewItem> PSMTabBarControl::representedTabViewItems() const {
  QList<PSMTabViewItem> items;
  for (const auto& cell : m_cells)
    if (!cell->isPlaceholder()) items << cell->representedObject();
  return items;
}

PSMTabBarCell* PSMTabBarControl::cellForPoint(QPointF point, QRectF* cellFrame) const {
  if (!rect().contains(point.toPoint())) return nullptr;
  for (const auto& cell : m_cells) {
    if (cell->isInOverflowMenu()) continue;
    if (cell->frame().contains(point)) {
      if (cellFrame) *cellFrame = cell->frame();
      return cell.get();
    }
  }
  return nullptr;
}

int PSMTabBarControl::indexOfCell(const PSMTabBarCell* cell) const {
  for (size_t i = 0; i < m_cells.size(); ++i)
    if (m_cells[i].get() == cell) return static_cast<int>(i);
  return -1;
}

void PSMTabBarControl::updateTabs() { updateTabs(m_automaticallyAnimates); }

void PSMTabBarControl::updateTabs(bool animate) {
  // Out of step while a change is under way: the change's own update follows.
  if (!m_tabView || m_tabView->count() != static_cast<int>(m_cells.size())) return;
  if (m_hideForSingleTab && m_cells.size() <= 1) {
    hideTabBar(true, true);
    return;
  }
  hideTabBar(false, true);
  m_animation->stop();
  for (auto& cell : m_cells) {
    const QObject* identifier = cell->representedObject().identifier;
    if (!identifier) continue;
    cell->setCount(identifier->property("objectCount").toInt());
    cell->setIsEdited(identifier->property("isEdited").toBool());
  }
  m_controller.layoutCells();
  QMenu* menu = m_controller.overflowMenu();
  m_overflowPopUpButton->setMenu(menu);
  m_overflowPopUpButton->setVisible(menu != nullptr);
  positionOverflowMenu();
  m_controller.setSelectedCell(m_tabView->selectedIndex() >= 0 ? m_cells[m_tabView->selectedIndex()].get() : nullptr);
  m_targetFrames.clear();
  for (size_t i = 0; i < m_cells.size(); ++i)
    m_targetFrames.push_back(m_controller.cellFrameAtIndex(static_cast<int>(i)));
  if (!animate) {
    finishAnimation();
    return;
  }
  m_addTabButton->hide();
  m_animation->start();
}

bool PSMTabBarControl::isAnimating() const { return m_animation->state() == QAbstractAnimation::Running; }

void PSMTabBarControl::animateCells(double progress) {
  // Each tick covers that share of what is left, so the motion quickens to its end.
  for (size_t i = 0; i < m_cells.size() && i < m_targetFrames.size(); ++i) {
    QRectF frame = m_cells[i]->frame();
    const QRectF& target = m_targetFrames[i];
    frame.setX(frame.x() + (target.x() - frame.x()) * progress);
    frame.setWidth(frame.width() + (target.width() - frame.width()) * progress);
    frame.setY(target.y());
    frame.setHeight(target.height());
    m_cells[i]->setFrame(frame);
  }
  updateHover(mapFromGlobal(QCursor::pos()));
  QWidget::update();
}

void PSMTabBarControl::finishAnimation() {
  for (size_t i = 0; i < m_cells.size() && i < m_targetFrames.size(); ++i) m_cells[i]->setFrame(m_targetFrames[i]);
  m_addTabButton->setGeometry(m_controller.addButtonRect().toRect());
  m_addTabButton->setVisible(m_showAddTabButton);
  QWidget::update();
}

void PSMTabBarControl::hideTabBar(bool hide, bool /*animate*/) {
  if (hide == m_isHidden) return;
  m_isHidden = hide;
  // The window's layout gives the bar's height to the pages below.
  setVisible(!hide);
  if (hide && m_delegate) m_delegate->tabBarDidHide(m_tabView, this);
}

void PSMTabBarControl::positionOverflowMenu() {
  const int width = static_cast<int>(Style::rightMarginForTabBarControl);
  m_overflowPopUpButton->setGeometry(this->width() - width + 1 - m_resizeAreaCompensation, 0, width,
                                     static_cast<int>(Style::tabCellHeight));
}

void PSMTabBarControl::addTabViewItem(const PSMTabViewItem& item) {
  auto cell = std::make_unique<PSMTabBarCell>(item, this);
  cell->setFrame(QRectF(lastVisibleTab() ? lastVisibleTab()->frame().right() : Style::leftMarginForTabBarControl, 0, 0,
                        Style::tabCellHeight));
  m_cells.push_back(std::move(cell));
}

void PSMTabBarControl::removeTabForCell(PSMTabBarCell* cell) {
  const int index = indexOfCell(cell);
  if (index < 0) return;
  if (m_mouseDownCell == cell) m_mouseDownCell = nullptr;
  m_cells.erase(m_cells.begin() + index);
  updateTabs();
}

void PSMTabBarControl::insertCell(int index, std::unique_ptr<PSMTabBarCell> cell) {
  cell->setControlView(this);
  index = std::clamp(index, 0, static_cast<int>(m_cells.size()));
  m_cells.insert(m_cells.begin() + index, std::move(cell));
}

std::unique_ptr<PSMTabBarCell> PSMTabBarControl::takeCell(int index) {
  if (index < 0 || index >= static_cast<int>(m_cells.size())) return nullptr;
  auto cell = std::move(m_cells[index]);
  m_cells.erase(m_cells.begin() + index);
  if (m_mouseDownCell == cell.get()) m_mouseDownCell = nullptr;
  return cell;
}

void PSMTabBarControl::tabViewDidChangeNumberOfTabViewItems() {
  if (!m_tabView) return;
  std::vector<PSMTabViewItem> gone;
  for (auto it = m_cells.begin(); it != m_cells.end();) {
    const PSMTabBarCell& cell = **it;
    if (cell.isPlaceholder() || m_tabView->indexOfView(cell.representedObject().view) >= 0) {
      ++it;
      continue;
    }
    gone.push_back(cell.representedObject());
    if (m_mouseDownCell == it->get()) m_mouseDownCell = nullptr;
    it = m_cells.erase(it);
  }
  for (const PSMTabViewItem& item : m_tabView->items()) {
    const bool hasCell = std::any_of(m_cells.begin(), m_cells.end(), [&](const auto& cell) {
      return !cell->isPlaceholder() && cell->representedObject().view == item.view;
    });
    if (!hasCell) addTabViewItem(item);
  }
  // Placeholders stand where a drag put them; otherwise the cells take the tabs' order.
  const bool dragging = std::any_of(m_cells.begin(), m_cells.end(), [](const auto& c) { return c->isPlaceholder(); });
  if (!dragging)
    std::stable_sort(m_cells.begin(), m_cells.end(), [this](const auto& a, const auto& b) {
      return m_tabView->indexOfView(a->representedObject().view) < m_tabView->indexOfView(b->representedObject().view);
    });
  updateTabs();
  if (m_delegate)
    for (const PSMTabViewItem& item : gone) m_delegate->didCloseTabViewItem(m_tabView, item);
}

void PSMTabBarControl::tabViewDidSelectTabViewItem(int index) {
  if (!m_tabView || m_tabView->count() != static_cast<int>(m_cells.size())) return;
  PSMTabBarCell* cell = m_cells[index].get();
  if (m_alwaysShowActiveTab && cell->isInOverflowMenu()) {
    m_tabView->moveTabViewItem(index, 0);
    return;
  }
  m_controller.setSelectedCell(cell);
  QWidget::update();
  if (m_delegate) m_delegate->didSelectTabViewItem(m_tabView, m_tabView->itemAt(index));
}

// -- Mouse

bool PSMTabBarControl::closeButtonHit(const PSMTabBarCell& cell, QPointF point, Qt::KeyboardModifiers modifiers) const {
  if (!cell.hasCloseButton() || cell.isCloseButtonSuppressed() || m_disableTabClose) return false;
  if (!Style::closeButtonRectForTabCell(cell).contains(point)) return false;
  // With Control on a background tab and background closing off, the click selects.
  return m_allowsBackgroundTabClosing || cell.state() == 1 || !(modifiers & Qt::ControlModifier);
}

void PSMTabBarControl::tabClick(PSMTabBarCell* cell) {
  if (!cell || cell->isPlaceholder() || !m_tabView) return;
  m_tabView->selectTabViewItemAtIndex(m_tabView->indexOfView(cell->representedObject().view));
}

void PSMTabBarControl::closeTabClick(PSMTabBarCell* cell) {
  if (!cell || cell->isPlaceholder() || !m_tabView) return;
  if (m_cells.size() == 1 && !m_canCloseOnlyTab) return;
  const PSMTabViewItem item = cell->representedObject();
  if (m_delegate && !m_delegate->shouldCloseTabViewItem(m_tabView, item)) {
    cell->setCloseButtonPressed(false);
    QWidget::update();
    return;
  }
  // The tab view tells the bar, and the bar the delegate, that the item is gone.
  m_tabView->removeTabViewItem(m_tabView->indexOfView(item.view));
}

void PSMTabBarControl::overflowMenuAction(QWidget* view) {
  if (m_tabView && view) m_tabView->selectTabViewItemAtIndex(m_tabView->indexOfView(view));
}

void PSMTabBarControl::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return QWidget::mousePressEvent(event);
  m_mouseIsDown = true;
  m_didDrag = false;
  m_closeClicked = false;
  m_lastMouseDownPoint = event->position();
  m_lastMouseDownModifiers = event->modifiers();
  m_mouseDownCell = cellForPoint(event->position());
  if (!m_mouseDownCell || m_mouseDownCell->isPlaceholder()) {
    m_mouseDownCell = nullptr;
    return;
  }
  if (closeButtonHit(*m_mouseDownCell, event->position(), event->modifiers())) {
    m_closeClicked = true;
    m_mouseDownCell->setCloseButtonPressed(true);
    QWidget::update();
  } else if (m_selectsTabsOnMouseDown) {
    tabClick(m_mouseDownCell);
  }
}

void PSMTabBarControl::mouseMoveEvent(QMouseEvent* event) {
  PSMTabDragAssistant* assistant = PSMTabDragAssistant::shared();
  if (!m_mouseIsDown) return updateHover(event->position());
  const QPoint global = event->globalPosition().toPoint();
  if (m_didDrag) return assistant->dragMovedTo(global);
  if (!m_mouseDownCell || assistant->isDragging()) return;
  if (QLineF(event->position(), m_lastMouseDownPoint).length() < kDragThreshold) return;
  if (m_delegate && !m_delegate->shouldDragTabViewItem(m_tabView, m_mouseDownCell->representedObject(), this)) return;
  m_didDrag = true;
  m_mouseDownCell->setCloseButtonPressed(false);
  const int index = indexOfCell(m_mouseDownCell);
  m_mouseDownCell = nullptr;
  assistant->startDragging(this, index);
  assistant->dragMovedTo(global);
}

void PSMTabBarControl::mouseReleaseEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton || !m_mouseIsDown) return QWidget::mouseReleaseEvent(event);
  m_mouseIsDown = false;
  PSMTabDragAssistant* assistant = PSMTabDragAssistant::shared();
  if (m_didDrag) {
    m_didDrag = false;
    if (assistant->isDragging() && assistant->sourceTabBar() == this)
      assistant->dropAt(event->globalPosition().toPoint());
    return;
  }
  PSMTabBarCell* down = m_mouseDownCell;
  m_mouseDownCell = nullptr;
  if (!down) return;
  const bool onSameCell = cellForPoint(event->position()) == down;
  const bool onClose = onSameCell && m_closeClicked && down->closeButtonPressed() &&
                       Style::closeButtonRectForTabCell(*down).contains(event->position());
  if (onClose && (event->modifiers() & Qt::AltModifier)) {
    down->setCloseButtonPressed(false);
    QList<QWidget*> others;
    for (const auto& cell : m_cells)
      if (cell.get() != down && !cell->isPlaceholder()) others << cell->representedObject().view;
    for (QWidget* view : others)
      for (const auto& cell : m_cells)
        if (cell->representedObject().view == view) {
          closeTabClick(cell.get());
          break;
        }
  } else if (onClose) {
    closeTabClick(down);
  } else {
    down->setCloseButtonPressed(false);
    if (onSameCell && !m_selectsTabsOnMouseDown) tabClick(down);
  }
  QWidget::update();
}

void PSMTabBarControl::updateHover(QPointF point) {
  bool changed = false;
  for (const auto& cell : m_cells) {
    const bool over = !cell->isInOverflowMenu() && cell->frame().contains(point);
    const bool overClose = over && closeButtonHit(*cell, point, Qt::NoModifier);
    changed |= over != cell->isHighlighted() || overClose != cell->closeButtonOver();
    cell->setHighlighted(over);
    cell->setCloseButtonOver(overClose);
  }
  if (changed) QWidget::update();
}

void PSMTabBarControl::leaveEvent(QEvent*) { updateHover(QPointF(-1, -1)); }

void PSMTabBarControl::contextMenuEvent(QContextMenuEvent* event) {
  PSMTabBarCell* cell = cellForPoint(event->pos());
  if (!cell || cell->isPlaceholder() || !m_delegate) return;
  if (QMenu* menu = m_delegate->menuForTabViewItem(m_tabView, cell->representedObject()))
    menu->exec(event->globalPos());
}

// -- Foreign drags: a tab held under a dragged file for a moment comes to the front.

void PSMTabBarControl::dragEnterEvent(QDragEnterEvent* event) {
  if (event->mimeData()->hasUrls() || event->mimeData()->hasText()) event->acceptProposedAction();
}

void PSMTabBarControl::dragMoveEvent(QDragMoveEvent* event) {
  PSMTabBarCell* cell = cellForPoint(event->position());
  QWidget* view = cell && !cell->isPlaceholder() ? cell->representedObject().view : nullptr;
  if (view != m_tabViewItemWithSpring) {
    m_tabViewItemWithSpring = view;
    if (view)
      m_springTimer->start();
    else
      m_springTimer->stop();
  }
  event->acceptProposedAction();
}

void PSMTabBarControl::dragLeaveEvent(QDragLeaveEvent*) {
  m_springTimer->stop();
  m_tabViewItemWithSpring = nullptr;
}

void PSMTabBarControl::dropEvent(QDropEvent* event) {
  m_springTimer->stop();
  m_tabViewItemWithSpring = nullptr;
  event->ignore();
}

void PSMTabBarControl::fireSpring() {
  if (m_tabView && m_tabViewItemWithSpring)
    m_tabView->selectTabViewItemAtIndex(m_tabView->indexOfView(m_tabViewItemWithSpring));
}

// -- Painting

QSize PSMTabBarControl::sizeHint() const { return {400, static_cast<int>(Style::tabCellHeight)}; }

void PSMTabBarControl::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  updateTabs(false);
}

void PSMTabBarControl::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  Style::drawBackgroundInRect(painter, rect());
  for (const auto& cell : m_cells) Style::drawTabCell(painter, *cell, font());
}
