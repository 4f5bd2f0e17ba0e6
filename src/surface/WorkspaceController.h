#pragma once
// The window of one open show: the carts as pages of a tab widget, the bottom bar
// (pause all, duck, panic, master volume, edit and show mode), the menus of the
// document, and the place where keys and MIDI batches first reach the show.
// It holds no show data of its own: that lives in the document, which it shows and
// forwards the operator's actions to. Main thread only.

#include <QMainWindow>
#include <QPointer>

#include <memory>
#include <string>
#include <vector>

#include "foundation/KyoClock.h"
#include "foundation/KyoHotKey.h"
#include "show/SontoMIDIMessage.h"

class Cue;
class GridController;
class QAction;
class QButtonGroup;
class QLabel;
class QMenu;
class QPushButton;
class QSlider;
class QSplitter;
class QTabWidget;
class SontoDocument;
class SontoUndoManager;

class WorkspaceController : public QMainWindow {
  Q_OBJECT

 public:
  // Takes the document; the window and the document close together.
  explicit WorkspaceController(std::unique_ptr<SontoDocument> document);
  ~WorkspaceController() override;

  // Null once the window has closed.
  SontoDocument* workspace() const { return m_workspace; }
  SontoUndoManager* undoManager() const;
  QTabWidget* tabView() const { return m_tabView; }
  const std::vector<std::unique_ptr<GridController>>& gridControllers() const { return m_gridControllers; }
  GridController* selectedController() const;
  GridController* controllerForTab(int tab) const;
  void makeCartFirstResponder();
  void selectCue(const Cue* cue);

  // Modes: show mode is the document's lock.
  bool isLocked() const;
  bool inEditMode() const;
  bool inShowMode() const;
  void toggleMode();
  void setShowMode();
  void setEditMode();

  // The way of a key. Answers whether the event was taken.
  bool keyDownHotkey(const KyoKeyEvent& event);
  void keyDown(const KyoKeyEvent& event, bool isARepeat);
  void keyUp(const KyoKeyEvent& event);
  void processMIDIMessages(const std::vector<SontoMIDIMessage>& messages);

  // Transport.
  void togglePause();
  void pauseAll();
  void resumeAll();
  void stopAll();
  void hardStopAll();
  void panicAll();
  // Panic in every open show, whichever window the key came from.
  void cancel();
  void toggleDucking();
  void changeVolume(float volume);
  void updatePauseButton();
  void updateDuckingButton();

  // Clipboard.
  bool canCopy() const;
  bool canCut() const;
  bool canPaste() const;
  bool canDelete() const;
  void copy();
  void cut();
  void paste();
  void deleteCue();

  void moveUp();
  void moveDown();
  void moveLeft();
  void moveRight();

  // Carts.
  void addTabForCartController(GridController* controller);
  void newTab();
  void updateTabLabels();
  // The selected cart's grid from a title "<width>x<height>"; refused in show mode.
  void changeGrid(const QString& title);
  void renameCart();
  void selectTab(int number);  // counting from 1; beyond the count, nothing

  // The document side.
  // False when the operator cancelled the question about unsaved changes.
  bool closeDocument();
  void updateTitle();
  void updateMenus();

  // How long the slider follows a duck ramp, in seconds.
  static constexpr double kDuckDisplaySeconds = 1.0;

 signals:
  void newDocumentRequested();
  void openDocumentRequested();

 protected:
  void closeEvent(QCloseEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void keyReleaseEvent(QKeyEvent* event) override;

 private:
  void buildMenus();
  QWidget* buildBottomBar();
  void invalidate();
  void updateDuringDuck();

  SontoDocument* m_workspace = nullptr;
  std::unique_ptr<SontoDocument> m_document;
  QTabWidget* m_tabView = nullptr;
  QPushButton* m_panicButton = nullptr;
  QButtonGroup* m_modeButton = nullptr;
  QPushButton* m_editModeButton = nullptr;
  QPushButton* m_showModeButton = nullptr;
  QPushButton* m_pauseAllButton = nullptr;
  QPushButton* m_duckingButton = nullptr;
  QWidget* m_volumeContainer = nullptr;
  QWidget* m_buttonsContainer = nullptr;
  // Places kept in the layout for the output menu, the meter and the inspector.
  QWidget* m_outputs = nullptr;
  QWidget* m_audioLevel = nullptr;
  QSlider* m_volumeSlider = nullptr;
  std::vector<std::unique_ptr<GridController>> m_gridControllers;
  KyoClock::TimerId m_duckingTimer = 0;
  double m_duckingStart = 0.0;
  QSplitter* m_splitView = nullptr;
  QWidget* m_mainPane = nullptr;
  QWidget* m_inspectorPane = nullptr;
  bool m_inspectorVisible = true;
  int m_heightOfInspector = 200;
  int m_tabCount = 0;

  QAction* m_undoAction = nullptr;
  QAction* m_redoAction = nullptr;
  QAction* m_cutAction = nullptr;
  QAction* m_copyAction = nullptr;
  QAction* m_pasteAction = nullptr;
  QAction* m_deleteAction = nullptr;
  QAction* m_editModeAction = nullptr;
  QAction* m_showModeAction = nullptr;
  QAction* m_newTabAction = nullptr;
  QMenu* m_gridMenu = nullptr;
  QAction* m_renameCartAction = nullptr;
  QAction* m_saveAction = nullptr;
  QAction* m_saveAsAction = nullptr;
  QAction* m_revertAction = nullptr;
};
