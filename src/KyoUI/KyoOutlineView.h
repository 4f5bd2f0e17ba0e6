#pragma once
// An outline control of our own: a tree of the data source's items shown as rows of
// full widgets at one fixed height, with its own selection, keys, mouse rules and
// drag and drop between rows. Two models are kept: the tree of entries (the data
// model) and the flat list of the entries visible now (the row model). Row widgets
// exist only for the rows inside the visible rectangle; scrolling hands them to the
// rows that come into view. Main thread only.

#include <QAbstractScrollArea>
#include <QColor>
#include <QElapsedTimer>
#include <QPoint>
#include <QPointer>
#include <QRect>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

class KyoOutlineView;
class KyoOutlineRowView;
class QMimeData;

// An item of the data source; null stands for the root. The view never owns one, and
// tells items apart by their address.
using KyoOutlineItem = void*;

struct KyoOutlineViewEntry {
  int index = -1;  // row in the row model; -1 while not visible
  KyoOutlineItem item = nullptr;
  bool selected = false;
  bool expanded = false;
  std::vector<KyoOutlineViewEntry*> parents;  // root-most first; empty at the top level
  int indexInParent = 0;
  bool lastChildOfParent = false;
  bool expandable = false;
  std::vector<std::unique_ptr<KyoOutlineViewEntry>> children;  // empty unless expandable
};

// What the view asks about its items. Only the first two have no default.
class KyoOutlineViewDataSource {
 public:
  virtual ~KyoOutlineViewDataSource() = default;
  virtual int numberOfChildrenOfItem(KyoOutlineView* view, KyoOutlineItem item) = 0;
  virtual KyoOutlineItem child(KyoOutlineView* view, int index, KyoOutlineItem item) = 0;
  virtual bool isItemExpandable(KyoOutlineView*, KyoOutlineItem) { return false; }
  // The start state of a new entry.
  virtual bool isItemExpanded(KyoOutlineView*, KyoOutlineItem) { return false; }
  virtual void itemDidExpand(KyoOutlineView*, KyoOutlineItem) {}
  virtual void itemDidCollapse(KyoOutlineView*, KyoOutlineItem) {}
  // A drag begins only when this writes the items and answers true.
  virtual bool writeItems(KyoOutlineView*, const std::vector<KyoOutlineItem>&, QMimeData*) { return false; }
  // childIndex -1 asks about a drop onto the item itself.
  virtual Qt::DropAction validateDrop(KyoOutlineView*, const QMimeData*, KyoOutlineItem, int) {
    return Qt::IgnoreAction;
  }
  virtual bool acceptDrop(KyoOutlineView*, const QMimeData*, KyoOutlineItem, int) { return false; }
  virtual void dragDone(KyoOutlineView*) {}
};

class KyoOutlineViewDelegate {
 public:
  virtual ~KyoOutlineViewDelegate() = default;
  // After the end of the selection changed, or a reload lost it.
  virtual void outlineViewSelectionDidChange(KyoOutlineView*) {}
};

// A row: a full widget. Subclasses give the geometry and fill in their controls from
// the entry in setEntry.
class KyoOutlineRowView : public QWidget {
  Q_OBJECT

 public:
  explicit KyoOutlineRowView(KyoOutlineView* outlineView);

  KyoOutlineView* outlineView() const { return m_outlineView; }
  KyoOutlineViewEntry* entry() const { return m_entry; }
  virtual void setEntry(KyoOutlineViewEntry* entry);
  int rowIndex() const { return m_rowIndex; }
  QColor backgroundColor() const { return m_backgroundColor; }
  virtual void setBackgroundColor(const QColor& color);
  bool drawingToDragImage() const { return m_drawingToDragImage; }
  virtual void setDrawingToDragImage(bool drawing) { m_drawingToDragImage = drawing; }

  virtual double viewHeight() const { return 25.0; }
  virtual double viewWidth() const { return 0.0; }
  virtual double indentationPerLevel() const { return 20.0; }
  virtual double leftOfMainColumn() const { return 0.0; }
  virtual double tweenerOffsetFromMainColumn() const { return 0.0; }
  // A colour of the row's own instead of the view's selection and stripes; invalid for none.
  virtual QColor customBackgroundColorForEntry(const KyoOutlineViewEntry*) const { return {}; }
  // Gives the keys back to the outline after an edit in the row, once the edit has let go.
  void makeOutlineViewFirstResponder();

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  KyoOutlineView* m_outlineView;
  KyoOutlineViewEntry* m_entry = nullptr;
  int m_rowIndex = -1;
  QColor m_backgroundColor = Qt::transparent;
  bool m_drawingToDragImage = false;
};

// The drop markers: a frame round a row, or a line with a ring between rows.
class KyoOutlineRowHighlightView : public QWidget {
 public:
  explicit KyoOutlineRowHighlightView(QWidget* parent, bool betweenRows);
  void setColor(const QColor& color);
  void setFillColor(const QColor& color) { m_fillColor = color; }
  bool betweenRows() const { return m_betweenRows; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  QColor m_strokeColor;
  QColor m_fillColor;
  bool m_betweenRows;
};

class KyoOutlineView : public QAbstractScrollArea {
  Q_OBJECT

 public:
  using RowViewFactory = std::function<KyoOutlineRowView*(KyoOutlineView*)>;

  explicit KyoOutlineView(QWidget* parent = nullptr);
  ~KyoOutlineView() override;

  KyoOutlineViewDataSource* dataSource() const { return m_dataSource; }
  void setDataSource(KyoOutlineViewDataSource* dataSource);
  KyoOutlineViewDelegate* delegate() const { return m_delegate; }
  void setDelegate(KyoOutlineViewDelegate* delegate) { m_delegate = delegate; }
  // The row widgets' kind; the view asks a first one for the geometry.
  void setRowViewFactory(RowViewFactory factory);
  // Sent at a double click on a row.
  void setAction(std::function<void()> action) { m_action = std::move(action); }

  // --- Models ---
  void reloadData();
  void reloadDataAndResyncExpandedState();
  int numberOfRows() const { return static_cast<int>(m_rowModel.size()); }
  const std::vector<KyoOutlineViewEntry*>& rowModel() const { return m_rowModel; }
  int indexOfItem(KyoOutlineItem item) const;
  KyoOutlineItem itemForIndex(int index) const;
  KyoOutlineViewEntry* entryForItem(KyoOutlineItem item) const;
  KyoOutlineViewEntry* entryForIndex(int index) const;
  // The level of a row: 0 at the top.
  static int levelOfEntry(const KyoOutlineViewEntry* entry) { return static_cast<int>(entry->parents.size()); }
  bool itemIsLastChildOfAncestor(KyoOutlineItem item, KyoOutlineItem ancestor) const;

  void expandItem(KyoOutlineItem item, bool expandChildren);
  void collapseItem(KyoOutlineItem item, bool collapseChildren);
  void expandUntilItemIsVisible(KyoOutlineItem item);
  void redrawItem(KyoOutlineItem item);

  // --- Geometry, in the coordinates of the whole list (not scrolled) ---
  double rowHeight() const { return m_rowHeight; }
  QRect rectOfItem(KyoOutlineItem item) const;
  QRect rectOfIndex(int index) const;
  int indexForPoint(const QPoint& contentPoint) const;
  void scrollItemToVisible(KyoOutlineItem item);
  void scrollItemToMiddle(KyoOutlineItem item);
  // The row widget that shows this row now; null when the row is out of sight.
  KyoOutlineRowView* rowViewForIndex(int index) const;
  std::vector<KyoOutlineRowView*> activeRowViews() const;

  // --- Selection ---
  KyoOutlineItem selectedItem() const;
  std::vector<KyoOutlineItem> allSelectedItems() const;
  bool itemIsSelected(KyoOutlineItem item) const;
  void selectItem(KyoOutlineItem item, bool byExtendingSelection = false);
  void selectItems(const std::vector<KyoOutlineItem>& items, bool byExtendingSelection = false);
  void selectPreviousByExtendingSelection(bool extend);
  void selectNextByExtendingSelection(bool extend);
  void selectEntries(const std::vector<KyoOutlineViewEntry*>& entries, bool extend, bool group);
  bool hasFocusWithin() const;

  // --- Settings ---
  QColor backgroundColor() const { return m_backgroundColor; }
  void setBackgroundColor(const QColor& color) {
    m_backgroundColor = color;
    viewport()->update();
  }
  QColor alternatingRowColor() const { return m_alternatingRowColor; }
  void setAlternatingRowColor(const QColor& color) {
    m_alternatingRowColor = color;
    viewport()->update();
  }
  void setDividingLineColor(const QColor& color) { m_dividingLineColor = color; }
  void setSecondDividingLineColor(const QColor& color) { m_secondDividingLineColor = color; }
  QColor selectedColor() const { return m_selectedColor; }
  void setSelectedColor(const QColor& color) { m_selectedColor = color; }
  QColor selectedButNotMainColor() const { return m_selectedButNotMainColor; }
  void setSelectedButNotMainColor(const QColor& color) { m_selectedButNotMainColor = color; }
  bool allowsMultipleSelection() const { return m_allowsMultipleSelection; }
  void setAllowsMultipleSelection(bool allows) { m_allowsMultipleSelection = allows; }
  int rowsOfSpaceAtBottom() const { return m_rowsOfSpaceAtBottom; }
  void setRowsOfSpaceAtBottom(int rows) {
    m_rowsOfSpaceAtBottom = rows;
    refreshViewSize();
  }
  bool isEnabledForDrags() const { return m_enabled; }
  void setEnabledForDrags(bool enabled) { m_enabled = enabled; }
  QColor colorForEntry(const KyoOutlineViewEntry* entry, int index) const;

  // Where a drop at this point of the list lands: on an entry (index -1), or into a
  // parent (null for the root) at a child index, at a depth for the marker.
  struct DropTarget {
    KyoOutlineViewEntry* entry = nullptr;
    int index = -1;
    int parentDepth = 0;
  };
  DropTarget dropTargetForEntry(KyoOutlineViewEntry* entry, const QPoint& contentPoint,
                                bool canDropDirectlyOnItem) const;

 signals:
  void selectionDidChange();

 protected:
  void keyPressEvent(QKeyEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dragMoveEvent(QDragMoveEvent* event) override;
  void dragLeaveEvent(QDragLeaveEvent* event) override;
  void dropEvent(QDropEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void scrollContentsBy(int dx, int dy) override;
  void focusInEvent(QFocusEvent* event) override;
  void focusOutEvent(QFocusEvent* event) override;

 private:
  using EntryList = std::vector<std::unique_ptr<KyoOutlineViewEntry>>;

  void buildDataModel(bool keepExpandedState);
  void buildEntries(EntryList& into, KyoOutlineViewEntry* parent, const std::vector<KyoOutlineViewEntry*>& parents,
                    bool keepExpandedState);
  void buildRowModel();
  void reloadDataAndSaveExpandedState(bool keepExpandedState);
  void reloadRowModelOnly();
  void refreshViewSize();
  void layoutRows();
  void configureRow(KyoOutlineRowView* row, KyoOutlineViewEntry* entry);
  KyoOutlineRowView* makeRowView();
  KyoOutlineViewEntry* entryForVisibleItem(KyoOutlineItem item) const;
  bool expandEntry(KyoOutlineViewEntry* entry, bool expandChildren);
  bool collapseEntry(KyoOutlineViewEntry* entry, bool collapseChildren);
  void deselectAllEntries();
  void scrollEntryToMiddle(KyoOutlineViewEntry* entry);
  void scrollEntryToVisible(KyoOutlineViewEntry* entry);
  void postSelectionChanged();
  QPoint contentPoint(const QPoint& viewportPoint) const;
  QPixmap dragImage(const std::vector<KyoOutlineViewEntry*>& entries);
  void hideDropMarkers();
  // The drop at a point, and whether the data source takes it there.
  bool findDrop(const QPoint& viewportPoint, const QMimeData* mime, DropTarget* target);
  void handleMouseDown(QMouseEvent* event, int clickCount);

  KyoOutlineViewDataSource* m_dataSource = nullptr;
  KyoOutlineViewDelegate* m_delegate = nullptr;
  RowViewFactory m_rowViewFactory;
  std::function<void()> m_action;
  std::unique_ptr<KyoOutlineRowView> m_rowView;  // the geometry's source, never shown
  double m_rowHeight = 25.0;

  EntryList m_dataModel;
  std::vector<KyoOutlineViewEntry*> m_rowModel;
  std::unordered_map<KyoOutlineItem, KyoOutlineViewEntry*> m_itemToEntry;
  std::unordered_map<KyoOutlineItem, KyoOutlineViewEntry*> m_oldItemToEntry;

  std::map<int, KyoOutlineRowView*> m_visibleRows;  // by row index
  std::vector<KyoOutlineRowView*> m_spareRows;

  std::vector<KyoOutlineViewEntry*> m_selectedEntries;  // in selection order
  KyoOutlineViewEntry* m_lastSelectedEntry = nullptr;
  KyoOutlineViewEntry* m_firstSelectedEntryOfGroup = nullptr;

  KyoOutlineRowHighlightView* m_rowHighlightView = nullptr;
  KyoOutlineRowHighlightView* m_tweenHighlightView = nullptr;
  bool m_shouldSelectJustLastClicked = false;
  bool m_draggingInternally = false;
  QPoint m_initialMouseDownLocation;
  KyoOutlineViewEntry* m_initialMouseDownEntry = nullptr;
  int m_lastClickCount = 0;
  KyoOutlineViewEntry* m_lastDropTarget = nullptr;
  QElapsedTimer m_lastTimeDropTargetWasSet;

  QColor m_backgroundColor = Qt::white;
  QColor m_alternatingRowColor = QColor::fromRgbF(0.95f, 0.95f, 0.95f);
  QColor m_dividingLineColor;
  QColor m_secondDividingLineColor;
  QColor m_selectedColor;
  QColor m_selectedButNotMainColor = QColor::fromRgbF(0.8f, 0.8f, 0.8f);
  bool m_allowsMultipleSelection = false;
  int m_rowsOfSpaceAtBottom = 0;
  bool m_enabled = true;
};
