#pragma once
// The pages a tab bar serves: an ordered list of items, each a page widget with its
// label and the owner's per-tab controller, and a stack that shows the selected page.
// Main thread only.

#include <QList>
#include <QString>
#include <QWidget>

class QObject;
class QStackedWidget;

struct PSMTabViewItem {
  QWidget* view = nullptr;  // the page; the tab view holds it while the item is in it
  QString label;
  QObject* identifier = nullptr;  // the owner's controller of the tab, not owned

  bool isValid() const { return view != nullptr; }
};

class PSMTabView : public QWidget {
  Q_OBJECT

 public:
  explicit PSMTabView(QWidget* parent = nullptr);

  int count() const { return static_cast<int>(m_items.size()); }
  // An invalid item outside 0 to count() - 1.
  PSMTabViewItem itemAt(int index) const;
  int indexOfIdentifier(const QObject* identifier) const;
  int indexOfView(const QWidget* view) const;
  const QList<PSMTabViewItem>& items() const { return m_items; }

  void addTabViewItem(QWidget* view, const QString& label, QObject* identifier);
  // The page becomes a child of this view's stack, leaving any other tab view.
  void insertTabViewItem(const PSMTabViewItem& item, int index);
  // The page leaves the stack without a parent and is not deleted: its owner keeps it.
  void removeTabViewItem(int index);
  void removeTabViewItem(const QObject* identifier);
  // One item to another place, the selected item staying selected.
  void moveTabViewItem(int from, int to);

  int selectedIndex() const { return m_selectedIndex; }
  PSMTabViewItem selectedTabViewItem() const { return itemAt(m_selectedIndex); }
  void selectTabViewItemAtIndex(int index);
  void selectNextTabViewItem();
  void selectPreviousTabViewItem();
  void selectFirstTabViewItem();
  void selectLastTabViewItem();

  void setLabel(int index, const QString& text);

 signals:
  void didSelectTabViewItem(int index);
  void didChangeNumberOfTabViewItems();
  void didMoveTabViewItem(int from, int to);
  void didChangeLabel(int index);

 private:
  QStackedWidget* m_stack;
  QList<PSMTabViewItem> m_items;
  int m_selectedIndex = -1;
};
