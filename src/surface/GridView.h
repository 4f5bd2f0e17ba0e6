#pragma once
// The view of one cart: a rectangle of equal cells, one per slot, laid out by plain
// arithmetic and rebuilt whole on every reload. It owns the selection; every change
// of the cart goes through its GridController. Main thread only.

#include <QList>
#include <QString>
#include <QWidget>

#include <memory>
#include <vector>

class Cue;
class CueCellController;
class GridController;

class GridView : public QWidget {
  Q_OBJECT

 public:
  static constexpr unsigned kNotFound = 0x7FFFFFFF;

  explicit GridView(QWidget* parent = nullptr);
  ~GridView() override;

  GridController* controller() const { return m_controller; }
  void setController(GridController* controller) { m_controller = controller; }

  unsigned rows() const { return m_rows; }
  unsigned columns() const { return m_columns; }
  const std::vector<std::unique_ptr<CueCellController>>& cells() const { return m_cells; }

  // Throws every cell away and makes them anew from the controller's cart.
  void reloadData();
  void reset();
  void layoutCues();
  CueCellController* cellForCue(const Cue* cue) const;
  CueCellController* cellAtIndex(unsigned index) const;

  unsigned selectedIndex() const { return m_selectedIndex; }
  // Announces the index to the controller even when it did not change.
  void setSelectedIndex(unsigned index);
  bool showDefaultHotkeys() const { return m_showDefaultHotkeys; }
  void setShowDefaultHotkeys(bool show);
  bool optionHeld() const { return m_optionHeld; }
  void setOptionHeld(bool held) { m_optionHeld = held; }

  // Files dropped on a cell take its default triggers; files chosen in the open
  // panel do not.
  void droppedFiles(const QStringList& paths, CueCellController* cell);
  void importFiles(const QStringList& paths, CueCellController* cell);

  // A press on a cell: selection, or none where the controller refuses it.
  void cellMouseDown(CueCellController* cell);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void keyReleaseEvent(QKeyEvent* event) override;
  bool focusNextPrevChild(bool next) override;

 private:
  unsigned m_rows = 0;
  unsigned m_columns = 0;
  unsigned m_selectedIndex = kNotFound;
  std::vector<std::unique_ptr<CueCellController>> m_cells;
  bool m_showDefaultHotkeys = false;
  GridController* m_controller = nullptr;
  bool m_optionHeld = false;
};
