#include "surface/GridView.h"

#include <QKeyEvent>
#include <QLinearGradient>
#include <QPainter>

#include <cassert>
#include <cmath>

#include "foundation/KyoLog.h"
#include "show/Cue.h"
#include "surface/CueCellController.h"
#include "surface/GridController.h"
#include "surface/SontoKeyEvents.h"
#include "surface/WorkspaceController.h"

GridView::GridView(QWidget* parent) : QWidget(parent) {
  setFocusPolicy(Qt::StrongFocus);
  setAttribute(Qt::WA_OpaquePaintEvent);
}

GridView::~GridView() { reset(); }

void GridView::reset() { m_cells.clear(); }

CueCellController* GridView::cellForCue(const Cue* cue) const {
  for (const auto& cell : m_cells) {
    if (cell->cue() == cue) return cell.get();
  }
  return nullptr;
}

CueCellController* GridView::cellAtIndex(unsigned index) const {
  return index < m_cells.size() ? m_cells[index].get() : nullptr;
}

void GridView::reloadData() {
  reset();
  if (!m_controller) return;
  const CartSize size = m_controller->sizeOfGridView();
  if (size.width == 0.0f && size.height == 0.0f) {
    KyoLog("Cart size cannot be {0, 0}");
    assert(false && "Cart size cannot be {0, 0}");
    return;
  }
  m_columns = static_cast<unsigned>(size.width);
  m_rows = static_cast<unsigned>(size.height);
  layoutCues();
  const bool locked = m_controller->isLocked();
  for (unsigned slot = 0; slot < m_cells.size(); ++slot) {
    CueCellController* cell = m_cells[slot].get();
    cell->setLocked(locked);
    std::shared_ptr<Cue> cue = m_controller->sharedCueForIndex(slot);
    if (cell->sharedCue() != cue) {
      cell->setCue(cue);
      cell->view()->update();
    }
  }
  setSelectedIndex(m_selectedIndex);
  update();
}

// Whole units per cell, the slack collecting on the right and at the bottom.
void GridView::layoutCues() {
  if (m_columns == 0 || m_rows == 0) return;
  const float boundsWidth = static_cast<float>(width());
  const float boundsHeight = static_cast<float>(height());
  const float columns = static_cast<float>(m_columns);
  const float rows = static_cast<float>(m_rows);
  const int cellWidth = std::max(0, static_cast<int>((boundsWidth - 4.0f - (2.0f * columns + 2.0f)) / columns));
  const int cellHeight = std::max(0, static_cast<int>((boundsHeight - 4.0f - (2.0f * rows + 2.0f)) / rows));
  int x = 4;
  int y = 4;
  const unsigned slotTotal = m_rows * m_columns;
  for (unsigned slot = 0; slot < slotTotal; ++slot) {
    const QRect frame(x, y, cellWidth, cellHeight);
    if (slot < m_cells.size()) {
      m_cells[slot]->view()->setGeometry(frame);
    } else {
      auto cell = std::make_unique<CueCellController>(this);
      cell->view()->setGeometry(frame);
      cell->setCue(m_controller ? m_controller->sharedCueForIndex(slot) : nullptr);
      cell->setIndex(slot);
      cell->setGridView(this);
      cell->setController(m_controller);
      if (m_controller) {
        cell->setDefaultHotkey(m_controller->defaultHotkeyForIndex(slot));
        cell->setDefaultMIDINote(m_controller->defaultMIDINoteForIndex(slot));
      }
      cell->view()->show();
      cell->setLocked(cell->isLocked());
      m_cells.push_back(std::move(cell));
    }
    x += cellWidth + 2;
    if ((slot + 1) % m_columns == 0) {
      x = 4;
      y += cellHeight + 2;
    }
  }
}

void GridView::setSelectedIndex(unsigned index) {
  m_selectedIndex = index;
  if (m_controller) m_controller->gridViewDidSelectItemAtIndex(index);
  for (const auto& cell : m_cells) cell->view()->update();
  update();
}

void GridView::setShowDefaultHotkeys(bool show) {
  m_showDefaultHotkeys = show;
  for (const auto& cell : m_cells) cell->view()->update();
}

void GridView::droppedFiles(const QStringList& paths, CueCellController* cell) {
  if (m_controller && cell) m_controller->gridViewDroppedFiles(paths, cell->index(), true);
}

void GridView::importFiles(const QStringList& paths, CueCellController* cell) {
  if (m_controller && cell) m_controller->gridViewDroppedFiles(paths, cell->index(), false);
}

void GridView::cellMouseDown(CueCellController* cell) {
  if (!m_controller || !cell) return;
  const unsigned index = cell->index();
  setSelectedIndex(m_controller->gridViewShouldSelectItemAtIndex(index) ? index : kNotFound);
}

void GridView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  QLinearGradient gradient(0.0, 0.0, 0.0, height());
  gradient.setColorAt(0.0, QColor::fromRgbF(0.235, 0.231, 0.231));
  gradient.setColorAt(1.0, QColor::fromRgbF(0.161, 0.153, 0.153));
  painter.fillRect(rect(), gradient);
  if (hasFocus()) {
    // Where the keys go: a thin ring, so that the operator sees it from a distance.
    painter.setPen(QPen(QColor(58, 119, 163), 2.0));
    painter.drawRect(QRectF(rect()).adjusted(1.0, 1.0, -1.0, -1.0));
  }
}

void GridView::resizeEvent(QResizeEvent*) { layoutCues(); }

// A press between the cells clears the selection, in both modes.
void GridView::mousePressEvent(QMouseEvent* event) {
  setFocus(Qt::MouseFocusReason);
  setSelectedIndex(kNotFound);
  QWidget::mousePressEvent(event);
}

// The workspace keys are tried before anything else and with no repeat test, so a
// held duck key toggles at the repeat rate; the rest goes to the window.
void GridView::keyPressEvent(QKeyEvent* event) {
  m_optionHeld = event->modifiers() & Qt::AltModifier;
  WorkspaceController* window = m_controller ? m_controller->workspaceController() : nullptr;
  if (!window) return QWidget::keyPressEvent(event);
  const KyoKeyEvent key = SontoKeyEventFromQt(*event);
  if (window->keyDownHotkey(key)) return event->accept();
  window->keyDown(key, event->isAutoRepeat());
  event->accept();
}

void GridView::keyReleaseEvent(QKeyEvent* event) {
  m_optionHeld = event->modifiers() & Qt::AltModifier;
  WorkspaceController* window = m_controller ? m_controller->workspaceController() : nullptr;
  // A held key sends a release before each repeat; only the real one counts.
  if (!window || event->isAutoRepeat()) return event->accept();
  window->keyUp(SontoKeyEventFromQt(*event));
  event->accept();
}

// Tab may be a cue's key; it never moves the focus off the grid.
bool GridView::focusNextPrevChild(bool) { return false; }
