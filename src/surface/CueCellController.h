#pragma once
// One slot of a grid: the pad the operator hits. The controller keeps the slot's
// state and talks to its cue and its grid; the view paints the pad and turns mouse
// and drag input into calls on them. In edit mode an empty slot takes files and a
// cue can be dragged or edited from its menu; in show mode the pad fires on press
// and is told of the release. Main thread only.

#include <QMetaObject>
#include <QObject>
#include <QPointF>
#include <QString>
#include <QWidget>

#include <memory>
#include <optional>
#include <string>
#include <vector>

class AudioCue;
class Cue;
class CueCellView;
class GridController;
class GridView;
class QMenu;

class CueCellController : public QObject {
  Q_OBJECT

 public:
  static constexpr unsigned kNotFound = 0x7FFFFFFF;
  // Formats that a cell takes from a drag.
  static constexpr const char* kFileURLType = "text/uri-list";

  // The view is made inside the given parent, the grid view.
  explicit CueCellController(QWidget* parentView = nullptr);
  ~CueCellController() override;

  // Owned by this controller, shown as a child of the grid view.
  CueCellView* view() const { return m_view; }

  Cue* cue() const { return m_cue.get(); }
  const std::shared_ptr<Cue>& sharedCue() const { return m_cue; }
  AudioCue* audioCue() const;
  // Moves the observation of the cue's state to the new cue; nil empties the slot.
  void setCue(std::shared_ptr<Cue> cue);

  GridView* gridView() const { return m_gridView; }
  void setGridView(GridView* gridView) { m_gridView = gridView; }
  GridController* controller() const { return m_controller; }
  void setController(GridController* controller) { m_controller = controller; }
  const std::string& defaultHotkey() const { return m_defaultHotkey; }
  void setDefaultHotkey(const std::string& hotkey) { m_defaultHotkey = hotkey; }
  std::optional<int> defaultMIDINote() const { return m_defaultMIDINote; }
  void setDefaultMIDINote(std::optional<int> note) { m_defaultMIDINote = note; }
  bool isHighlighted() const { return m_highlighted; }
  void setHighlighted(bool highlighted);
  bool isEmpty() const { return m_empty; }
  void setEmpty(bool empty);
  unsigned index() const { return m_index; }
  void setIndex(unsigned index) { m_index = index; }
  bool isLocked() const { return m_locked; }
  // Show mode: an empty slot vanishes, a filled one shows its key large.
  void setLocked(bool locked);
  bool isSelected() const;

  // The read-outs as the view paints them.
  const QString& elapsedTime() const { return m_elapsedTime; }
  const QString& remainingTime() const { return m_remainingTime; }
  float progress() const { return m_progress; }

  void refreshView();
  void triggerCueDown();
  void triggerCueUp();

  // Menu toggles, each an undo step named as the operator sees it.
  void toggleLoop();
  void toggleHold();
  void toggleSolo();
  void toggleDucking();
  void enableLooping();
  void disableLooping();
  void enableHold();
  void disableHold();
  void enableSolo();
  void disableSolo();
  void enableDucking();
  void disableDucking();
  void setColorName(const std::string& name);

  // The open panel (files chosen there take no default triggers) and the save panel.
  void importFile();
  void exportFile();
  // The export itself: answers false, with a log line, when the copy fails.
  bool exportFileTo(const QString& path);

  // A menu for the present state: the cue's, or the empty slot's. Owned by the caller.
  std::unique_ptr<QMenu> makeMenu(QWidget* parent);

 private:
  void progressChanged();
  void setCueFlag(bool value, void (AudioCue::*setter)(bool), const char* actionName);

  CueCellView* m_view = nullptr;
  std::shared_ptr<Cue> m_cue;
  std::vector<QMetaObject::Connection> m_observers;
  GridView* m_gridView = nullptr;
  GridController* m_controller = nullptr;
  std::string m_defaultHotkey;
  std::optional<int> m_defaultMIDINote;
  bool m_highlighted = false;
  bool m_empty = true;
  unsigned m_index = kNotFound;
  bool m_locked = false;
  QString m_elapsedTime;
  QString m_remainingTime;
  float m_progress = 0.0f;
};

class CueCellView : public QWidget {
  Q_OBJECT

 public:
  // How much of the pad shows while it is being dragged away.
  static constexpr double kDraggedOpacity = 0.25;

  CueCellView(CueCellController* controller, QWidget* parent);

  CueCellController* controller() const { return m_controller; }
  bool isPressed() const { return m_pressed; }

  // Also sent by the grid controller, with no event, when a key or a note fires the
  // cue in show mode, so that the pad shows pressed.
  void mouseDown(QMouseEvent* event);
  void mouseUp(QMouseEvent* event);

  // Where the play button sits in edit mode, in view coordinates.
  QRectF playButtonRect() const;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dragLeaveEvent(QDragLeaveEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  friend class CueCellController;
  void paintEmpty(QPainter& painter, const QRectF& r);
  void paintCue(QPainter& painter, const QRectF& r);
  void startDrag();

  CueCellController* m_controller;
  bool m_pressed = false;
  // The play button of edit mode is held: its release is the cue's trigger up.
  bool m_playButtonHeld = false;
  bool m_dragCandidate = false;
  QPointF m_lastMouseDown;
};
