#include "KyoUI/PSMTabView.h"

#include <QStackedWidget>
#include <QVBoxLayout>
#include <algorithm>

PSMTabView::PSMTabView(QWidget* parent) : QWidget(parent), m_stack(new QStackedWidget(this)) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(m_stack);
}

PSMTabViewItem PSMTabView::itemAt(int index) const {
  if (index < 0 || index >= count()) return {};
  return m_items[index];
}

int PSMTabView::indexOfIdentifier(const QObject* identifier) const {
  for (int i = 0; i < count(); ++i)
    if (m_items[i].identifier == identifier) return i;
  return -1;
}

int PSMTabView::indexOfView(const QWidget* view) const {
  for (int i = 0; i < count(); ++i)
    if (m_items[i].view == view) return i;
  return -1;
}

void PSMTabView::addTabViewItem(QWidget* view, const QString& label, QObject* identifier) {
  insertTabViewItem({view, label, identifier}, count());
}

void PSMTabView::insertTabViewItem(const PSMTabViewItem& item, int index) {
  if (!item.isValid() || indexOfView(item.view) >= 0) return;
  index = std::clamp(index, 0, count());
  m_items.insert(index, item);
  m_stack->addWidget(item.view);
  const bool first = m_selectedIndex < 0;
  if (!first && index <= m_selectedIndex) ++m_selectedIndex;
  emit didChangeNumberOfTabViewItems();
  // A tab view is never without a selection while it has items.
  if (first) selectTabViewItemAtIndex(index);
}

void PSMTabView::removeTabViewItem(int index) {
  if (index < 0 || index >= count()) return;
  const PSMTabViewItem item = m_items.takeAt(index);
  m_stack->removeWidget(item.view);
  item.view->hide();
  item.view->setParent(nullptr);
  const bool wasSelected = index == m_selectedIndex;
  if (index < m_selectedIndex) --m_selectedIndex;
  if (wasSelected) m_selectedIndex = -1;
  emit didChangeNumberOfTabViewItems();
  // The neighbour that took the removed tab's place, or the new last one.
  if (wasSelected && count() > 0) selectTabViewItemAtIndex(std::min(index, count() - 1));
}

void PSMTabView::removeTabViewItem(const QObject* identifier) { removeTabViewItem(indexOfIdentifier(identifier)); }

void PSMTabView::moveTabViewItem(int from, int to) {
  if (from < 0 || from >= count()) return;
  to = std::clamp(to, 0, count() - 1);
  if (from == to) return;
  const QWidget* selected = m_selectedIndex >= 0 ? m_items[m_selectedIndex].view : nullptr;
  m_items.move(from, to);
  m_selectedIndex = indexOfView(selected);
  emit didMoveTabViewItem(from, to);
}

void PSMTabView::selectTabViewItemAtIndex(int index) {
  if (index < 0 || index >= count() || index == m_selectedIndex) return;
  m_selectedIndex = index;
  m_stack->setCurrentWidget(m_items[index].view);
  emit didSelectTabViewItem(index);
}

void PSMTabView::selectNextTabViewItem() { selectTabViewItemAtIndex(m_selectedIndex + 1); }
void PSMTabView::selectPreviousTabViewItem() { selectTabViewItemAtIndex(m_selectedIndex - 1); }
void PSMTabView::selectFirstTabViewItem() { selectTabViewItemAtIndex(0); }
void PSMTabView::selectLastTabViewItem() { selectTabViewItemAtIndex(count() - 1); }

void PSMTabView::setLabel(int index, const QString& text) {
  if (index < 0 || index >= count() || m_items[index].label == text) return;
  m_items[index].label = text;
  emit didChangeLabel(index);
}
