// The outline view on a small tree: the row model after each change of the tree or
// of the expanded state, drops that land at the level the pointer chooses, and row
// widgets made only for the rows in sight.
#include <gtest/gtest.h>

#include <QApplication>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QScrollBar>
#include <QTest>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KyoUI/KyoOutlineView.h"

namespace {

struct Node {
  std::string name;
  bool expandable = false;
  bool startsExpanded = false;
  std::vector<std::unique_ptr<Node>> children;
  Node* parent = nullptr;
  Node* add(const std::string& childName, bool isExpandable = false, bool expanded = false, int at = -1) {
    auto node = std::make_unique<Node>(Node{childName, isExpandable, expanded, {}, this});
    Node* raw = node.get();
    children.insert(at < 0 ? children.end() : children.begin() + at, std::move(node));
    return raw;
  }
  std::unique_ptr<Node> take() {
    auto& siblings = parent->children;
    auto it = std::find_if(siblings.begin(), siblings.end(), [this](auto& n) { return n.get() == this; });
    std::unique_ptr<Node> self = std::move(*it);
    siblings.erase(it);
    return self;
  }
};

// A tree whose drops move the dragged node to where the view says.
struct Tree : KyoOutlineViewDataSource {
  Node root{"root", true, true, {}, nullptr};
  Node* node(KyoOutlineItem item) { return item ? static_cast<Node*>(item) : &root; }
  int numberOfChildrenOfItem(KyoOutlineView*, KyoOutlineItem item) override {
    return static_cast<int>(node(item)->children.size());
  }
  KyoOutlineItem child(KyoOutlineView*, int index, KyoOutlineItem item) override {
    return node(item)->children[static_cast<size_t>(index)].get();
  }
  bool isItemExpandable(KyoOutlineView*, KyoOutlineItem item) override { return node(item)->expandable; }
  bool isItemExpanded(KyoOutlineView*, KyoOutlineItem item) override { return node(item)->startsExpanded; }
  bool writeItems(KyoOutlineView*, const std::vector<KyoOutlineItem>& items, QMimeData* mime) override {
    mime->setData("test/node", QByteArray::number(reinterpret_cast<quintptr>(items.front())));
    return true;
  }
  Qt::DropAction validateDrop(KyoOutlineView*, const QMimeData*, KyoOutlineItem item, int index) override {
    return index >= 0 && node(item)->expandable ? Qt::MoveAction : Qt::IgnoreAction;
  }
  bool acceptDrop(KyoOutlineView* view, const QMimeData* mime, KyoOutlineItem item, int index) override {
    auto* moved = reinterpret_cast<Node*>(mime->data("test/node").toULongLong());
    Node* into = node(item);
    int at = index;
    if (moved->parent == into && std::find_if(into->children.begin(), into->children.begin() + at, [&](auto& n) {
                                   return n.get() == moved;
                                 }) != into->children.begin() + at) {
      --at;
    }
    std::unique_ptr<Node> taken = moved->take();
    taken->parent = into;
    into->children.insert(into->children.begin() + at, std::move(taken));
    view->reloadData();
    return true;
  }
};

// The rows as "name" with a dot per level: "A .A1 ..A1x B".
std::string rows(const KyoOutlineView& view) {
  std::string text;
  for (const KyoOutlineViewEntry* entry : view.rowModel()) {
    if (!text.empty()) text += ' ';
    text += std::string(static_cast<size_t>(KyoOutlineView::levelOfEntry(entry)), '.') +
            static_cast<Node*>(entry->item)->name;
  }
  return text;
}

// A drag from the row of `dragged` that ends at a point of the view, as a drag
// from another window would arrive.
void dragTo(KyoOutlineView& view, Tree& tree, Node* dragged, QPoint point) {
  QMimeData mime;
  tree.writeItems(&view, {dragged}, &mime);
  QWidget* target = view.viewport();
  QDragEnterEvent enter(point, Qt::MoveAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(target, &enter);
  QDragMoveEvent move(point, Qt::MoveAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(target, &move);
  QDropEvent drop(QPointF(point), Qt::MoveAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(target, &drop);
}

}  // namespace

TEST(OutlineView, RowModelFollowsExpandCollapseInsertDeleteAndDrops) {
  Tree tree;
  Node* a = tree.root.add("A", true, true);
  Node* a1 = a->add("A1");
  Node* a2 = a->add("A2", true);
  a2->add("A2x");
  Node* b = tree.root.add("B");
  Node* c = tree.root.add("C", true);
  Node* c1 = c->add("C1");
  KyoOutlineView view;
  view.resize(300, 400);
  view.show();
  view.setDataSource(&tree);
  const int h = static_cast<int>(view.rowHeight());
  auto key = [&](Qt::Key k) { QTest::keyClick(&view, k); };
  auto at = [&](Node* n, double fraction, int x) {
    return QPoint(x, static_cast<int>((view.indexOfItem(n) + fraction) * h));
  };
  Node* d = nullptr;

  struct Step {
    const char* what;
    std::function<void()> act;
    const char* rows;
  };
  const Step steps[] = {
      {"start", [] {}, "A .A1 .A2 B C"},
      {"expand C", [&] { view.expandItem(c, false); }, "A .A1 .A2 B C .C1"},
      {"collapse A", [&] { view.collapseItem(a, false); }, "A B C .C1"},
      {"Right on A",
       [&] {
         view.selectItem(a);
         key(Qt::Key_Right);
       },
       "A .A1 .A2 B C .C1"},
      {"> opens all", [&] { key(Qt::Key_Greater); }, "A .A1 .A2 ..A2x B C .C1"},
      {"Left on a leaf, then on its parent",
       [&] {
         view.selectItem(a1);
         key(Qt::Key_Left);
         key(Qt::Key_Left);
       },
       "A B C .C1"},
      {"insert, reload keeps expanded",
       [&] {
         d = tree.root.add("D", false, false, 1);
         view.reloadData();
       },
       "A D B C .C1"},
      {"delete B",
       [&] {
         b->take();
         view.reloadData();
       },
       "A D C .C1"},
      {"resync asks the source", [&] { view.reloadDataAndResyncExpandedState(); }, "A .A1 .A2 D C"},
      {"drop on the top of a row: before it", [&] { dragTo(view, tree, a1, at(d, 0.1, 40)); }, "A .A2 A1 D C"},
      {"< closes all", [&] { key(Qt::Key_Less); }, "A A1 D C"},
      {"below a nested last child, indented: stays inside",
       [&] {
         view.expandItem(a, true);
         dragTo(view, tree, c, at(a2->children[0].get(), 0.9, 45));
       },
       "A .A2 ..A2x ..C A1 D"},
      {"below a nested last child, at the left: the outer level",
       [&] {
         view.expandItem(c, false);
         dragTo(view, tree, d, at(c1, 0.9, 2));
       },
       "A .A2 ..A2x ..C ...C1 .D A1"},
  };
  for (const Step& step : steps) {
    step.act();
    EXPECT_EQ(rows(view), step.rows) << step.what;
    for (int i = 0; i < view.numberOfRows(); ++i) ASSERT_EQ(view.entryForIndex(i)->index, i) << step.what;
  }
}

TEST(OutlineView, RowWidgetsExistOnlyForTheRowsInSight) {
  Tree tree;
  for (int i = 0; i < 1000; ++i) tree.root.add("row" + std::to_string(i));
  KyoOutlineView view;
  view.resize(200, 200);
  view.show();
  view.setDataSource(&tree);
  const int inSight = 200 / static_cast<int>(view.rowHeight()) + 1;
  const int scrolls[] = {0, 12500, 12510, view.verticalScrollBar()->maximum()};
  for (int scroll : scrolls) {
    view.verticalScrollBar()->setValue(scroll);
    const int first = scroll / static_cast<int>(view.rowHeight());
    EXPECT_LE(static_cast<int>(view.activeRowViews().size()), inSight) << scroll;
    ASSERT_TRUE(view.rowViewForIndex(first)) << scroll;
    EXPECT_EQ(view.rowViewForIndex(first)->entry()->item, tree.root.children[static_cast<size_t>(first)].get());
    EXPECT_EQ(view.rowViewForIndex(first)->y(), first * static_cast<int>(view.rowHeight()) - scroll);
    EXPECT_FALSE(view.rowViewForIndex(first + inSight + 1)) << scroll;
    EXPECT_FALSE(view.rowViewForIndex(first - 2)) << scroll;
  }
  // Scrolling hands the same widgets round instead of making new ones.
  EXPECT_LE(static_cast<int>(view.viewport()->findChildren<KyoOutlineRowView*>().size()), inSight + 1);
}
