#include "KyoUI/KyoOutlineView.h"

#include <QApplication>
#include <QDrag>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QKeyEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QTimer>
#include <algorithm>
#include <cmath>

namespace {

// How far the mouse goes before a press becomes a drag.
constexpr double kDragDistance = 15.0;
// A plain click in a multiple selection narrows it only once a double click can no
// longer come, so that a double click or a drag keeps the whole selection.
constexpr int kSelectJustLastClickedMs = 450;
// A collapsed row that stays under a drag this long opens.
constexpr qint64 kHoverExpandMs = 350;

}  // namespace

// --- KyoOutlineRowView ---

KyoOutlineRowView::KyoOutlineRowView(KyoOutlineView* outlineView) : QWidget(nullptr), m_outlineView(outlineView) {}

void KyoOutlineRowView::setEntry(KyoOutlineViewEntry* entry) {
  m_entry = entry;
  m_rowIndex = entry ? entry->index : -1;
}

void KyoOutlineRowView::setBackgroundColor(const QColor& color) {
  m_backgroundColor = color;
  update();
}

void KyoOutlineRowView::makeOutlineViewFirstResponder() {
  QPointer<KyoOutlineView> view = m_outlineView;
  QTimer::singleShot(10, m_outlineView, [view] {
    if (view) view->setFocus(Qt::OtherFocusReason);
  });
}

void KyoOutlineRowView::paintEvent(QPaintEvent*) {
  if (m_drawingToDragImage || m_backgroundColor.alpha() == 0) return;
  QPainter painter(this);
  painter.fillRect(rect(), m_backgroundColor);
}

// --- KyoOutlineRowHighlightView ---

KyoOutlineRowHighlightView::KyoOutlineRowHighlightView(QWidget* parent, bool betweenRows)
    : QWidget(parent), m_betweenRows(betweenRows) {
  setAttribute(Qt::WA_TransparentForMouseEvents);
  setColor(QApplication::palette().color(QPalette::Highlight));
  hide();
}

void KyoOutlineRowHighlightView::setColor(const QColor& color) {
  m_strokeColor = color;
  m_fillColor = color;
  m_fillColor.setAlphaF(0.25f);
  update();
}

void KyoOutlineRowHighlightView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  if (m_betweenRows) {
    const double middle = height() / 2.0;
    QPainterPath path;
    path.addEllipse(QRectF(3, middle - 3, 6, 6));
    path.moveTo(9, middle);
    path.lineTo(width() - 2, middle);
    // White under the colour keeps the marker visible on a selected row.
    painter.strokePath(path, QPen(Qt::white, 4.0, Qt::SolidLine, Qt::RoundCap));
    painter.strokePath(path, QPen(m_strokeColor, 2.0, Qt::SolidLine, Qt::RoundCap));
    return;
  }
  painter.setPen(QPen(m_strokeColor, 2.0));
  painter.setBrush(m_fillColor);
  painter.drawRoundedRect(QRectF(2, 2, width() - 4, height() - 4), 6.0, 6.0);
}

// --- KyoOutlineView ---

KyoOutlineView::KyoOutlineView(QWidget* parent) : QAbstractScrollArea(parent) {
  setFocusPolicy(Qt::StrongFocus);
  setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  setAcceptDrops(true);
  viewport()->setAcceptDrops(true);
  viewport()->setAutoFillBackground(false);
  m_selectedColor = palette().color(QPalette::Highlight);
  m_rowHighlightView = new KyoOutlineRowHighlightView(viewport(), false);
  m_tweenHighlightView = new KyoOutlineRowHighlightView(viewport(), true);
  setRowViewFactory([](KyoOutlineView* view) { return new KyoOutlineRowView(view); });
}

KyoOutlineView::~KyoOutlineView() = default;

void KyoOutlineView::setDataSource(KyoOutlineViewDataSource* dataSource) {
  m_dataSource = dataSource;
  reloadData();
}

void KyoOutlineView::setRowViewFactory(RowViewFactory factory) {
  m_rowViewFactory = std::move(factory);
  for (auto& [index, row] : m_visibleRows) delete row;
  m_visibleRows.clear();
  for (KyoOutlineRowView* row : m_spareRows) delete row;
  m_spareRows.clear();
  m_rowView.reset(m_rowViewFactory(this));
  m_rowHeight = std::max(1.0, m_rowView->viewHeight());
  verticalScrollBar()->setSingleStep(static_cast<int>(m_rowHeight));
  refreshViewSize();
}

KyoOutlineRowView* KyoOutlineView::makeRowView() {
  KyoOutlineRowView* row = m_rowViewFactory(this);
  row->setParent(viewport());
  return row;
}

// --- Models ---

void KyoOutlineView::reloadData() { reloadDataAndSaveExpandedState(true); }

void KyoOutlineView::reloadDataAndResyncExpandedState() { reloadDataAndSaveExpandedState(false); }

void KyoOutlineView::buildDataModel(bool keepExpandedState) {
  // The old tree stays alive until the new one has taken its expanded states.
  EntryList oldModel = std::move(m_dataModel);
  m_oldItemToEntry.clear();
  if (keepExpandedState) m_oldItemToEntry = std::move(m_itemToEntry);
  m_itemToEntry.clear();
  m_dataModel.clear();
  if (m_dataSource) buildEntries(m_dataModel, nullptr, {}, keepExpandedState);
  m_oldItemToEntry.clear();
}

void KyoOutlineView::buildEntries(EntryList& into, KyoOutlineViewEntry* parent,
                                  const std::vector<KyoOutlineViewEntry*>& parents, bool keepExpandedState) {
  const KyoOutlineItem parentItem = parent ? parent->item : nullptr;
  const int count = m_dataSource->numberOfChildrenOfItem(this, parentItem);
  for (int i = 0; i < count; ++i) {
    auto entry = std::make_unique<KyoOutlineViewEntry>();
    entry->item = m_dataSource->child(this, i, parentItem);
    entry->parents = parents;
    entry->indexInParent = i;
    entry->lastChildOfParent = i == count - 1;
    entry->expandable = m_dataSource->isItemExpandable(this, entry->item);
    auto old = m_oldItemToEntry.find(entry->item);
    entry->expanded = keepExpandedState && old != m_oldItemToEntry.end()
                          ? old->second->expanded
                          : m_dataSource->isItemExpanded(this, entry->item);
    if (entry->expandable) {
      std::vector<KyoOutlineViewEntry*> childParents = parents;
      childParents.push_back(entry.get());
      buildEntries(entry->children, entry.get(), childParents, keepExpandedState);
    }
    m_itemToEntry[entry->item] = entry.get();
    into.push_back(std::move(entry));
  }
}

void KyoOutlineView::buildRowModel() {
  m_rowModel.clear();
  std::function<void(EntryList&, bool)> walk = [&](EntryList& entries, bool visible) {
    for (auto& entry : entries) {
      if (visible) {
        entry->index = static_cast<int>(m_rowModel.size());
        m_rowModel.push_back(entry.get());
      } else {
        entry->index = -1;
      }
      walk(entry->children, visible && entry->expanded);
    }
  };
  walk(m_dataModel, true);
  refreshViewSize();
}

void KyoOutlineView::reloadDataAndSaveExpandedState(bool keepExpandedState) {
  const bool hadLast = m_lastSelectedEntry != nullptr;
  const KyoOutlineItem lastItem = hadLast ? m_lastSelectedEntry->item : nullptr;
  const std::vector<KyoOutlineItem> selected = allSelectedItems();
  deselectAllEntries();
  m_lastSelectedEntry = nullptr;
  m_firstSelectedEntryOfGroup = nullptr;
  m_initialMouseDownEntry = nullptr;
  m_lastDropTarget = nullptr;
  buildDataModel(keepExpandedState);
  buildRowModel();
  if (hadLast) m_lastSelectedEntry = entryForVisibleItem(lastItem);
  // Put the selection back as it was, not through the click rules.
  for (KyoOutlineItem item : selected) {
    if (KyoOutlineViewEntry* entry = entryForVisibleItem(item)) {
      entry->selected = true;
      m_selectedEntries.push_back(entry);
    }
  }
  m_firstSelectedEntryOfGroup = m_lastSelectedEntry;
  if (hadLast && !m_lastSelectedEntry) postSelectionChanged();
  layoutRows();
  viewport()->update();
}

void KyoOutlineView::reloadRowModelOnly() {
  buildRowModel();
  viewport()->update();
}

int KyoOutlineView::indexOfItem(KyoOutlineItem item) const {
  KyoOutlineViewEntry* entry = entryForItem(item);
  return entry ? entry->index : -1;
}

KyoOutlineItem KyoOutlineView::itemForIndex(int index) const {
  KyoOutlineViewEntry* entry = entryForIndex(index);
  return entry ? entry->item : nullptr;
}

KyoOutlineViewEntry* KyoOutlineView::entryForItem(KyoOutlineItem item) const {
  auto it = m_itemToEntry.find(item);
  return it == m_itemToEntry.end() ? nullptr : it->second;
}

KyoOutlineViewEntry* KyoOutlineView::entryForVisibleItem(KyoOutlineItem item) const {
  KyoOutlineViewEntry* entry = entryForItem(item);
  return entry && entry->index >= 0 ? entry : nullptr;
}

KyoOutlineViewEntry* KyoOutlineView::entryForIndex(int index) const {
  if (index < 0 || index >= numberOfRows()) return nullptr;
  return m_rowModel[static_cast<size_t>(index)];
}

bool KyoOutlineView::itemIsLastChildOfAncestor(KyoOutlineItem item, KyoOutlineItem ancestor) const {
  KyoOutlineViewEntry* entry = entryForItem(item);
  if (!entry) return false;
  // Every step up from the item to the ancestor must be a last child.
  if (!entry->lastChildOfParent) return false;
  for (auto it = entry->parents.rbegin(); it != entry->parents.rend(); ++it) {
    if ((*it)->item == ancestor) return true;
    if (!(*it)->lastChildOfParent) return false;
  }
  return ancestor == nullptr;
}

bool KyoOutlineView::expandEntry(KyoOutlineViewEntry* entry, bool expandChildren) {
  if (!entry || !entry->expandable) return false;
  bool changed = !entry->expanded;
  entry->expanded = true;
  if (expandChildren) {
    for (auto& child : entry->children) changed = expandEntry(child.get(), true) || changed;
  }
  return changed;
}

bool KyoOutlineView::collapseEntry(KyoOutlineViewEntry* entry, bool collapseChildren) {
  if (!entry || !entry->expandable) return false;
  bool changed = entry->expanded;
  entry->expanded = false;
  if (collapseChildren) {
    for (auto& child : entry->children) changed = collapseEntry(child.get(), true) || changed;
  }
  return changed;
}

void KyoOutlineView::expandItem(KyoOutlineItem item, bool expandChildren) {
  if (expandEntry(entryForItem(item), expandChildren)) reloadRowModelOnly();
}

void KyoOutlineView::collapseItem(KyoOutlineItem item, bool collapseChildren) {
  if (collapseEntry(entryForItem(item), collapseChildren)) reloadRowModelOnly();
}

void KyoOutlineView::expandUntilItemIsVisible(KyoOutlineItem item) {
  KyoOutlineViewEntry* entry = entryForItem(item);
  if (!entry) return;
  bool changed = false;
  for (KyoOutlineViewEntry* parent : entry->parents) changed = expandEntry(parent, false) || changed;
  if (changed) reloadRowModelOnly();
}

void KyoOutlineView::redrawItem(KyoOutlineItem item) {
  KyoOutlineViewEntry* entry = entryForVisibleItem(item);
  if (!entry) return;
  auto it = m_visibleRows.find(entry->index);
  if (it != m_visibleRows.end()) configureRow(it->second, entry);
}

// --- Geometry ---

QRect KyoOutlineView::rectOfIndex(int index) const {
  const int height = static_cast<int>(m_rowHeight);
  return QRect(0, index * height, viewport()->width(), height);
}

QRect KyoOutlineView::rectOfItem(KyoOutlineItem item) const {
  KyoOutlineViewEntry* entry = entryForVisibleItem(item);
  return entry ? rectOfIndex(entry->index) : QRect();
}

int KyoOutlineView::indexForPoint(const QPoint& contentPoint) const {
  if (contentPoint.y() < 0) return -1;
  return static_cast<int>(contentPoint.y() / m_rowHeight);
}

QPoint KyoOutlineView::contentPoint(const QPoint& viewportPoint) const {
  return viewportPoint + QPoint(0, verticalScrollBar()->value());
}

void KyoOutlineView::refreshViewSize() {
  const int height = static_cast<int>(m_rowHeight);
  const int total = (numberOfRows() + m_rowsOfSpaceAtBottom) * height;
  QScrollBar* bar = verticalScrollBar();
  bar->setRange(0, std::max(0, total - viewport()->height()));
  bar->setPageStep(viewport()->height());
  layoutRows();
}

void KyoOutlineView::layoutRows() {
  if (!m_rowView) return;
  const int height = static_cast<int>(m_rowHeight);
  const int scroll = verticalScrollBar()->value();
  const int first = std::max(0, scroll / height);
  const int last = std::min(numberOfRows() - 1, (scroll + viewport()->height() - 1) / height);
  for (auto it = m_visibleRows.begin(); it != m_visibleRows.end();) {
    if (it->first < first || it->first > last) {
      it->second->hide();
      it->second->setEntry(nullptr);
      m_spareRows.push_back(it->second);
      it = m_visibleRows.erase(it);
    } else {
      ++it;
    }
  }
  const int width = std::max(viewport()->width(), static_cast<int>(m_rowView->viewWidth()));
  for (int i = first; i <= last; ++i) {
    KyoOutlineRowView*& row = m_visibleRows[i];
    if (!row) {
      if (!m_spareRows.empty()) {
        row = m_spareRows.back();
        m_spareRows.pop_back();
      } else {
        row = makeRowView();
      }
    }
    row->setGeometry(0, i * height - scroll, width, height);
    configureRow(row, m_rowModel[static_cast<size_t>(i)]);
    row->show();
  }
  // The markers stay above the rows.
  m_rowHighlightView->raise();
  m_tweenHighlightView->raise();
}

void KyoOutlineView::configureRow(KyoOutlineRowView* row, KyoOutlineViewEntry* entry) {
  QColor color = row->customBackgroundColorForEntry(entry);
  if (!color.isValid()) color = colorForEntry(entry, entry->index);
  row->setBackgroundColor(color);
  row->setEntry(entry);
}

KyoOutlineRowView* KyoOutlineView::rowViewForIndex(int index) const {
  auto it = m_visibleRows.find(index);
  return it == m_visibleRows.end() ? nullptr : it->second;
}

std::vector<KyoOutlineRowView*> KyoOutlineView::activeRowViews() const {
  std::vector<KyoOutlineRowView*> rows;
  for (const auto& [index, row] : m_visibleRows) rows.push_back(row);
  return rows;
}

void KyoOutlineView::scrollEntryToVisible(KyoOutlineViewEntry* entry) {
  if (!entry || entry->index < 0) return;
  const QRect rect = rectOfIndex(entry->index);
  QScrollBar* bar = verticalScrollBar();
  if (rect.top() < bar->value()) {
    bar->setValue(rect.top());
  } else if (rect.bottom() >= bar->value() + viewport()->height()) {
    bar->setValue(rect.bottom() + 1 - viewport()->height());
  }
}

void KyoOutlineView::scrollEntryToMiddle(KyoOutlineViewEntry* entry) {
  if (!entry || entry->index < 0) return;
  const QRect rect = rectOfIndex(entry->index);
  verticalScrollBar()->setValue(rect.center().y() - viewport()->height() / 2);
}

void KyoOutlineView::scrollItemToVisible(KyoOutlineItem item) { scrollEntryToVisible(entryForVisibleItem(item)); }

void KyoOutlineView::scrollItemToMiddle(KyoOutlineItem item) { scrollEntryToMiddle(entryForVisibleItem(item)); }

// --- Selection ---

bool KyoOutlineView::hasFocusWithin() const {
  const QWidget* focus = QApplication::focusWidget();
  return focus && (focus == this || isAncestorOf(focus));
}

QColor KyoOutlineView::colorForEntry(const KyoOutlineViewEntry* entry, int index) const {
  if (entry && entry->selected) return hasFocusWithin() ? m_selectedColor : m_selectedButNotMainColor;
  return index % 2 == 0 ? m_backgroundColor : m_alternatingRowColor;
}

void KyoOutlineView::deselectAllEntries() {
  for (KyoOutlineViewEntry* entry : m_selectedEntries) entry->selected = false;
  m_selectedEntries.clear();
}

void KyoOutlineView::postSelectionChanged() {
  emit selectionDidChange();
  if (m_delegate) m_delegate->outlineViewSelectionDidChange(this);
}

void KyoOutlineView::selectEntries(const std::vector<KyoOutlineViewEntry*>& entries, bool extend, bool group) {
  KyoOutlineViewEntry* const oldLast = m_lastSelectedEntry;
  auto select = [this](KyoOutlineViewEntry* entry) {
    if (entry->selected) return false;
    entry->selected = true;
    m_selectedEntries.push_back(entry);
    return true;
  };
  if (entries.empty()) {
    deselectAllEntries();
    m_lastSelectedEntry = m_firstSelectedEntryOfGroup = nullptr;
  } else if (!extend || !m_allowsMultipleSelection) {
    deselectAllEntries();
    select(entries.back());
    m_lastSelectedEntry = m_firstSelectedEntryOfGroup = entries.back();
  } else if (entries == m_rowModel) {
    deselectAllEntries();
    for (KyoOutlineViewEntry* entry : entries) select(entry);
    m_lastSelectedEntry = m_firstSelectedEntryOfGroup = nullptr;
  } else if (group) {
    KyoOutlineViewEntry* anchor = m_firstSelectedEntryOfGroup ? m_firstSelectedEntryOfGroup : entries.front();
    deselectAllEntries();
    m_firstSelectedEntryOfGroup = anchor;
    m_lastSelectedEntry = entries.back();
    const int from = std::min(anchor->index, m_lastSelectedEntry->index);
    const int to = std::max(anchor->index, m_lastSelectedEntry->index);
    for (int i = std::max(0, from); i <= to; ++i) select(m_rowModel[static_cast<size_t>(i)]);
  } else {
    KyoOutlineViewEntry* added = nullptr;
    for (KyoOutlineViewEntry* entry : entries) {
      if (select(entry)) added = entry;
    }
    m_lastSelectedEntry = m_firstSelectedEntryOfGroup = added;
  }

  const int height = static_cast<int>(m_rowHeight);
  const int top = verticalScrollBar()->value();
  const bool anyVisible = std::any_of(m_selectedEntries.begin(), m_selectedEntries.end(), [&](auto* entry) {
    return entry->index >= 0 && (entry->index + 1) * height > top && entry->index * height < top + viewport()->height();
  });
  if (!anyVisible) scrollEntryToMiddle(m_lastSelectedEntry);
  layoutRows();
  if (m_lastSelectedEntry != oldLast) postSelectionChanged();
}

KyoOutlineItem KyoOutlineView::selectedItem() const {
  if (m_lastSelectedEntry && m_lastSelectedEntry->selected) return m_lastSelectedEntry->item;
  const std::vector<KyoOutlineItem> items = allSelectedItems();
  return items.empty() ? nullptr : items.front();
}

std::vector<KyoOutlineItem> KyoOutlineView::allSelectedItems() const {
  std::vector<KyoOutlineViewEntry*> entries = m_selectedEntries;
  std::sort(entries.begin(), entries.end(), [](auto* a, auto* b) { return a->index < b->index; });
  std::vector<KyoOutlineItem> items;
  for (KyoOutlineViewEntry* entry : entries) {
    Q_ASSERT_X(entry->item, "allSelectedItems", "Entry didn't have an item.");
    items.push_back(entry->item);
  }
  return items;
}

bool KyoOutlineView::itemIsSelected(KyoOutlineItem item) const {
  KyoOutlineViewEntry* entry = entryForItem(item);
  return entry && entry->selected;
}

void KyoOutlineView::selectItem(KyoOutlineItem item, bool byExtendingSelection) {
  selectItems(item ? std::vector<KyoOutlineItem>{item} : std::vector<KyoOutlineItem>{}, byExtendingSelection);
}

void KyoOutlineView::selectItems(const std::vector<KyoOutlineItem>& items, bool byExtendingSelection) {
  std::vector<KyoOutlineViewEntry*> entries;
  // Items in a collapsed branch have no row to select.
  for (KyoOutlineItem item : items) {
    if (KyoOutlineViewEntry* entry = entryForVisibleItem(item)) entries.push_back(entry);
  }
  selectEntries(entries, byExtendingSelection, false);
}

void KyoOutlineView::selectPreviousByExtendingSelection(bool extend) {
  const int index = m_lastSelectedEntry ? m_lastSelectedEntry->index - 1 : numberOfRows() - 1;
  KyoOutlineViewEntry* entry = entryForIndex(index);
  if (!entry) return;
  scrollEntryToVisible(entry);
  selectEntries({entry}, extend, extend);
}

void KyoOutlineView::selectNextByExtendingSelection(bool extend) {
  const int index = m_lastSelectedEntry ? m_lastSelectedEntry->index + 1 : 0;
  KyoOutlineViewEntry* entry = entryForIndex(index);
  if (!entry) return;
  scrollEntryToVisible(entry);
  selectEntries({entry}, extend, extend);
}

// --- Keys ---

void KyoOutlineView::keyPressEvent(QKeyEvent* event) {
  if (m_rowModel.empty()) {
    QAbstractScrollArea::keyPressEvent(event);
    return;
  }
  const bool shift = event->modifiers() & Qt::ShiftModifier;
  KyoOutlineViewEntry* last = m_lastSelectedEntry;
  bool changed = false;
  switch (event->key()) {
    case Qt::Key_Up:
      selectPreviousByExtendingSelection(shift);
      return;
    case Qt::Key_Down:
      selectNextByExtendingSelection(shift);
      return;
    case Qt::Key_Left:
      if (!last) return;
      if (last->expanded) {
        changed = collapseEntry(last, false);
        if (m_dataSource) m_dataSource->itemDidCollapse(this, last->item);
      } else if (!last->expandable && !last->parents.empty()) {
        selectEntries({last->parents.back()}, false, false);
      }
      break;
    case Qt::Key_Right:
      if (last && last->expandable) {
        changed = expandEntry(last, false);
        if (m_dataSource) m_dataSource->itemDidExpand(this, last->item);
      }
      break;
    case Qt::Key_Less:
      for (auto& entry : m_dataModel) changed = collapseEntry(entry.get(), true) || changed;
      break;
    case Qt::Key_Greater:
      for (auto& entry : m_dataModel) changed = expandEntry(entry.get(), true) || changed;
      break;
    default:
      QAbstractScrollArea::keyPressEvent(event);
      return;
  }
  if (changed) reloadRowModelOnly();
}

// --- Mouse ---

void KyoOutlineView::mousePressEvent(QMouseEvent* event) { handleMouseDown(event, 1); }

void KyoOutlineView::mouseDoubleClickEvent(QMouseEvent* event) { handleMouseDown(event, 2); }

// Controls in a row take their own clicks; what reaches here is a click on the row.
void KyoOutlineView::handleMouseDown(QMouseEvent* event, int clickCount) {
  if (event->button() != Qt::LeftButton) return;
  setFocus(Qt::MouseFocusReason);
  const QPoint location = event->position().toPoint();
  KyoOutlineViewEntry* entry = entryForIndex(indexForPoint(contentPoint(location)));
  m_initialMouseDownEntry = entry;
  m_initialMouseDownLocation = location;
  m_lastClickCount = clickCount;
  if (!entry) {
    selectEntries({}, false, false);
    return;
  }
  if (clickCount == 2 && m_action) m_action();
  const bool command = event->modifiers() & Qt::ControlModifier;
  const bool shift = event->modifiers() & Qt::ShiftModifier;
  if (entry->selected) {
    if (command) {
      entry->selected = false;
      std::erase(m_selectedEntries, entry);
      m_initialMouseDownEntry = nullptr;
    } else if (shift) {
      selectEntries({entry}, true, true);
    }
  } else if (shift || command) {
    selectEntries({entry}, true, shift && !command);
  }
  layoutRows();
}

void KyoOutlineView::mouseReleaseEvent(QMouseEvent* event) {
  KyoOutlineViewEntry* entry = m_initialMouseDownEntry;
  m_initialMouseDownEntry = nullptr;
  if (!entry || event->button() != Qt::LeftButton) return;
  if (!entry->selected) {
    selectEntries({entry}, false, false);
  } else if (m_lastClickCount != 2) {
    m_shouldSelectJustLastClicked = true;
    QPointer<KyoOutlineView> self = this;
    const KyoOutlineItem item = entry->item;
    QTimer::singleShot(kSelectJustLastClickedMs, this, [self, item] {
      if (!self || !self->m_shouldSelectJustLastClicked) return;
      self->m_shouldSelectJustLastClicked = false;
      if (KyoOutlineViewEntry* clicked = self->entryForVisibleItem(item)) self->selectEntries({clicked}, false, false);
    });
  }
}

void KyoOutlineView::mouseMoveEvent(QMouseEvent* event) {
  if (!m_enabled || m_draggingInternally || !m_initialMouseDownEntry || !m_dataSource) return;
  if (!(event->buttons() & Qt::LeftButton)) return;
  const QPoint delta = event->position().toPoint() - m_initialMouseDownLocation;
  if (std::hypot(delta.x(), delta.y()) < kDragDistance) return;
  m_shouldSelectJustLastClicked = false;

  std::vector<KyoOutlineItem> items = allSelectedItems();
  std::vector<KyoOutlineViewEntry*> entries = m_selectedEntries;
  if (!m_initialMouseDownEntry->selected) {
    items = {m_initialMouseDownEntry->item};
    entries = {m_initialMouseDownEntry};
  }
  m_initialMouseDownEntry = nullptr;
  auto* mime = new QMimeData;
  if (!m_dataSource->writeItems(this, items, mime)) {
    delete mime;
    return;
  }
  auto* drag = new QDrag(this);
  drag->setMimeData(mime);
  drag->setPixmap(dragImage(entries));
  drag->setHotSpot(m_initialMouseDownLocation);
  m_draggingInternally = true;
  drag->exec(Qt::MoveAction | Qt::CopyAction, Qt::MoveAction);
  // The drop may still be settling in this turn; the flag clears a little later.
  QPointer<KyoOutlineView> self = this;
  QTimer::singleShot(100, this, [self] {
    if (!self) return;
    self->m_draggingInternally = false;
    if (self->m_dataSource) self->m_dataSource->dragDone(self);
  });
}

QPixmap KyoOutlineView::dragImage(const std::vector<KyoOutlineViewEntry*>& entries) {
  QPixmap image(viewport()->size());
  image.fill(Qt::transparent);
  QPainter painter(&image);
  painter.setOpacity(0.6);
  std::unique_ptr<KyoOutlineRowView> row(m_rowViewFactory(this));
  const int top = verticalScrollBar()->value();
  for (KyoOutlineViewEntry* entry : entries) {
    if (entry->index < 0) continue;
    row->resize(viewport()->width(), static_cast<int>(m_rowHeight));
    row->setDrawingToDragImage(true);
    configureRow(row.get(), entry);
    row->render(&painter, QPoint(0, entry->index * static_cast<int>(m_rowHeight) - top));
  }
  return image;
}

// --- Drops ---

KyoOutlineView::DropTarget KyoOutlineView::dropTargetForEntry(KyoOutlineViewEntry* entry, const QPoint& point,
                                                              bool canDropDirectlyOnItem) const {
  if (!entry || !m_rowView) return {};
  const QRect r = rectOfIndex(entry->index);
  double zoneTop = r.y() + r.height() / 2.0;
  double zoneBottom = zoneTop;
  if (canDropDirectlyOnItem) {
    zoneTop = r.y() + r.height() / 6.0;
    zoneBottom = r.y() + r.height() * 5.0 / 6.0;
  }
  const int level = levelOfEntry(entry);
  KyoOutlineViewEntry* parent = entry->parents.empty() ? nullptr : entry->parents.back();
  if (point.y() >= zoneTop && point.y() < zoneBottom) return {entry, -1, level};
  if (point.y() < zoneTop) return {parent, entry->indexInParent, level};

  const double left = m_rowView->leftOfMainColumn();
  const double indent = m_rowView->indentationPerLevel();
  if (!entry->children.empty() && point.x() >= left + level * indent) return {entry, 0, level + 1};
  if (!entry->lastChildOfParent) return {parent, entry->indexInParent + 1, level};
  // Below a last child the pointer's x chooses how far out the drop goes.
  const KyoOutlineViewEntry* child = entry;
  for (auto it = entry->parents.rbegin(); it != entry->parents.rend(); ++it) {
    KyoOutlineViewEntry* ancestor = *it;
    const int ancestorLevel = levelOfEntry(ancestor);
    if (!ancestor->lastChildOfParent || point.x() >= left + ancestorLevel * indent) {
      return {ancestor, child->indexInParent + 1, ancestorLevel + 1};
    }
    child = ancestor;
  }
  return {nullptr, child->indexInParent + 1, 0};
}

bool KyoOutlineView::findDrop(const QPoint& viewportPoint, const QMimeData* mime, DropTarget* target) {
  if (!m_dataSource) return false;
  const QPoint point = contentPoint(viewportPoint);
  KyoOutlineViewEntry* under = entryForIndex(indexForPoint(point));
  const bool direct = under && m_dataSource->validateDrop(this, mime, under->item, -1) != Qt::IgnoreAction;
  *target = dropTargetForEntry(under, point, direct);
  const KyoOutlineItem item = target->entry ? target->entry->item : nullptr;
  return m_dataSource->validateDrop(this, mime, item, target->index) != Qt::IgnoreAction;
}

void KyoOutlineView::hideDropMarkers() {
  m_rowHighlightView->hide();
  m_tweenHighlightView->hide();
}

void KyoOutlineView::dragEnterEvent(QDragEnterEvent* event) {
  if (!m_enabled) {
    event->ignore();
    return;
  }
  event->acceptProposedAction();
}

void KyoOutlineView::dragMoveEvent(QDragMoveEvent* event) {
  DropTarget target;
  if (!m_enabled || !findDrop(event->position().toPoint(), event->mimeData(), &target)) {
    hideDropMarkers();
    event->ignore();
    return;
  }
  const int top = verticalScrollBar()->value();
  const QPoint point = event->position().toPoint();
  KyoOutlineViewEntry* under = entryForIndex(indexForPoint(contentPoint(point)));
  if (target.index == -1 && target.entry) {
    m_tweenHighlightView->hide();
    const bool selectedWithFocus = target.entry->selected && hasFocusWithin();
    m_rowHighlightView->setColor(selectedWithFocus ? Qt::white : palette().color(QPalette::Highlight));
    m_rowHighlightView->setGeometry(rectOfIndex(target.entry->index).translated(0, -top));
    m_rowHighlightView->show();
  } else {
    // The line sits on the boundary of the row under the pointer that the drop is nearest.
    int boundary = numberOfRows() * static_cast<int>(m_rowHeight);
    if (under) {
      const QRect r = rectOfIndex(under->index);
      boundary = contentPoint(point).y() < r.center().y() ? r.top() : r.bottom() + 1;
    }
    const double x = m_rowView->leftOfMainColumn() + m_rowView->tweenerOffsetFromMainColumn() +
                     target.parentDepth * m_rowView->indentationPerLevel();
    m_tweenHighlightView->setGeometry(static_cast<int>(x), boundary - top - 5,
                                      viewport()->width() - static_cast<int>(x), 10);
    m_tweenHighlightView->show();
    if (target.entry && target.entry->index >= 0) {
      m_rowHighlightView->setColor(palette().color(QPalette::Highlight));
      m_rowHighlightView->setFillColor(Qt::transparent);
      m_rowHighlightView->setGeometry(rectOfIndex(target.entry->index).translated(0, -top));
      m_rowHighlightView->show();
    } else {
      m_rowHighlightView->hide();
    }
  }
  // A collapsed branch held under the pointer opens.
  if (under != m_lastDropTarget) {
    m_lastDropTarget = under;
    m_lastTimeDropTargetWasSet.start();
  } else if (under && under->expandable && !under->expanded && m_lastTimeDropTargetWasSet.isValid() &&
             m_lastTimeDropTargetWasSet.elapsed() > kHoverExpandMs) {
    expandEntry(under, false);
    m_dataSource->itemDidExpand(this, under->item);
    reloadRowModelOnly();
  }
  event->acceptProposedAction();
}

void KyoOutlineView::dragLeaveEvent(QDragLeaveEvent*) { hideDropMarkers(); }

void KyoOutlineView::dropEvent(QDropEvent* event) {
  hideDropMarkers();
  DropTarget target;
  if (!m_enabled || !findDrop(event->position().toPoint(), event->mimeData(), &target)) {
    event->ignore();
    return;
  }
  const KyoOutlineItem item = target.entry ? target.entry->item : nullptr;
  if (m_dataSource->acceptDrop(this, event->mimeData(), item, target.index)) {
    event->acceptProposedAction();
  } else {
    event->ignore();
  }
  if (m_dataSource && !m_draggingInternally) m_dataSource->dragDone(this);
}

// --- Painting and size ---

// The rows paint themselves; this fills the stripes below the last row.
void KyoOutlineView::paintEvent(QPaintEvent*) {
  QPainter painter(viewport());
  const int height = static_cast<int>(m_rowHeight);
  const int top = verticalScrollBar()->value();
  for (int i = top / height; i * height - top < viewport()->height(); ++i) {
    const QRect rect(0, i * height - top, viewport()->width(), height);
    painter.fillRect(rect, colorForEntry(entryForIndex(i), i));
    if (m_dividingLineColor.isValid()) {
      painter.setPen(m_dividingLineColor);
      painter.drawLine(rect.bottomLeft(), rect.bottomRight());
    }
    if (m_secondDividingLineColor.isValid()) {
      painter.setPen(m_secondDividingLineColor);
      painter.drawLine(rect.topLeft(), rect.topRight());
    }
  }
}

void KyoOutlineView::resizeEvent(QResizeEvent* event) {
  QAbstractScrollArea::resizeEvent(event);
  refreshViewSize();
}

void KyoOutlineView::scrollContentsBy(int, int) {
  layoutRows();
  viewport()->update();
}

void KyoOutlineView::focusInEvent(QFocusEvent* event) {
  QAbstractScrollArea::focusInEvent(event);
  layoutRows();
}

void KyoOutlineView::focusOutEvent(QFocusEvent* event) {
  QAbstractScrollArea::focusOutEvent(event);
  layoutRows();
}
