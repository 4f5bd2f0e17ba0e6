#pragma once
// The window of one open show: the carts as pages of a tab widget, the bottom bar
// (pause all, duck, panic, master volume, edit and show mode), the menus of the
// document, and the place where keys and MIDI batches first reach the show.
// It holds no show data of its own: that lives in the workspace, which it owns, shows
// and forwards the operator's actions to. Main thread only.

#include <QMainWindow>
#include <QPointer>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KyoUI/PSMTabBarDelegate.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoHotKey.h"
#include "foundation/KyoNotificationCenter.h"
#include "show/SafetyConcern.h"
#include "show/SontoMIDIMessage.h"

class BrokenCueController;
class Cart;
class Cue;
class KyoAudioDevice;
class QComboBox;
class SontoAudioLevelView;
class GridController;
class InspectorController;
class QAction;
class QButtonGroup;
class QLabel;
class QMenu;
class QPushButton;
class QSlider;
class QSplitter;
class LogController;
class SettingsController;
class SontoUndoManager;
class Workspace;

class WorkspaceController : public QMainWindow, public PSMTabBarDelegate {
  Q_OBJECT

 public:
  // The window owns its workspace; closing the window closes the workspace (its
  // temporary folder goes) and the workspace is released with the window.
  explicit WorkspaceController(std::shared_ptr<Workspace> workspace);
  ~WorkspaceController() override;

  // Null once the window has closed.
  Workspace* workspace() const { return m_workspace; }
  // For work that must keep the workspace alive beyond a turn of the event loop.
  std::shared_ptr<Workspace> sharedWorkspace() const { return m_workspace ? m_document : nullptr; }
  SontoUndoManager* undoManager() const;
  PSMTabView* tabView() const { return m_tabView; }
  PSMTabBarControl* tabBar() const { return m_tabBar; }
  const std::vector<std::unique_ptr<GridController>>& gridControllers() const { return m_gridControllers; }
  GridController* selectedController() const;
  GridController* controllerForTab(int tab) const;
  void makeCartFirstResponder();
  void selectCue(const Cue* cue);

  // The inspector's pane under the grid: edit mode only. Its height is kept across
  // hide and show, and both panes keep at least kMinimumPaneHeight.
  InspectorController* inspectorController() const { return m_inspectorController; }

  // --- Outputs: the device popup and the meter feed ---
  // One row of the output popup: a pair of adjacent channels of a device.
  struct OutputRow {
    std::shared_ptr<KyoAudioDevice> device;
    long channel = 1;  // the pair's first channel, from 1
  };
  static QString outputTitle(const KyoAudioDevice& device, long channel);
  const std::vector<OutputRow>& outputDevices() const { return m_outputDevices; }
  // Rebuilt from nothing: every device of two or more outputs, a row per pair, the
  // device objects of rows still there kept; a vanished device of the show gets a
  // row of its own and the alert.
  void updateOutputDevices();
  // The row chosen in the popup: another pair moves the routing at once, another
  // device moves the show and its cues there. The "Device missing" row does nothing.
  void changeOutputDevice(int index);
  // The meter timer's work: the levels of the show's channel pair to the meter.
  void updateAudioLevels();
  SontoAudioLevelView* audioLevel() const { return m_audioLevel; }
  bool isInspectorVisible() const { return m_inspectorVisible; }
  int heightOfInspector() const { return m_heightOfInspector; }
  QSplitter* splitView() const { return m_splitView; }
  void showInspector();
  void hideInspector();
  void toggleInspector();
  void setInspectorVisible(bool visible) { visible ? showInspector() : hideInspector(); }
  void toggleBrokenCueView();
  static constexpr int kMinimumPaneHeight = 200;

  // --- The safety check ---
  // Every cart's concerns, cart after cart in the order of the tabs.
  std::vector<SafetyConcern> brokenOrFlaggedCues() const;
  // Asks for a new check, unless in show mode, where the check rests.
  void refreshBrokenCues();
  // The check on going into show mode: it warns and never refuses.
  void performSafetyChecksAndLock();
  BrokenCueController* brokenCueController() const { return m_brokenCueController; }
  QPushButton* warningButton() const { return m_warningButton; }

  // Modes: show mode is the document's lock.
  bool isLocked() const;
  bool inEditMode() const;
  bool inShowMode() const;
  void toggleMode();
  // The operator's way in: with the setting on, the safety check runs first.
  void setShowMode();
  // The way in of a show opened or reverted locked: no check.
  void enterShowMode();
  void setEditMode();

  // The way of a key. Answers whether the event was taken.
  bool keyDownHotkey(const KyoKeyEvent& event);
  void keyDown(const KyoKeyEvent& event, bool isARepeat);
  void keyUp(const KyoKeyEvent& event);
  void processMIDIMessages(const std::vector<SontoMIDIMessage>& messages);

  // Transport. Pause, resume, stop and panic each reach every cart in one audio cycle.
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
  // One grid per cart of the workspace, in its order: after a read or a revert the
  // carts are new and so are their grids.
  void syncGridControllers();
  // New Tab and Close Tab are undoable; the last tab closes the window instead.
  void newTab();
  void closeTab();
  bool shouldCloseTab(GridController* controller);
  void selectNextTab();
  void selectPreviousTab();
  void selectTabOfCart(const Cart* cart);
  // After a drag inside the bar: the carts take the tabs' order.
  void tabsReordered();
  // A cart to another open show, or to a new one; answers the new window.
  void moveTabToWindow(GridController* controller, WorkspaceController* target);
  WorkspaceController* tearOffTab(GridController* controller, const QPoint& at);

  // The tab bar's questions.
  bool shouldCloseTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item) override;
  void didCloseTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item) override;
  bool disableTabCloseForTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item) override;
  bool shouldDragTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item, PSMTabBarControl* from) override;
  bool shouldDropTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item, PSMTabBarControl* into) override;
  void didDropTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item, PSMTabBarControl* into) override;
  PSMTabBarControl* newTabBarForDraggedTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item,
                                                   QPoint at) override;
  void closeWindowForLastTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item) override;
  void didSelectTabViewItem(PSMTabView* tabView, const PSMTabViewItem& item) override;
  Cart* receiveCopyOfCart(const Cart& cart);
  void updateTabLabels();
  // The selected cart's grid from a title "<width>x<height>"; refused in show mode.
  void changeGrid(const QString& title);
  void renameCart();
  void selectTab(int number);  // counting from 1; beyond the count, nothing

  // The document side. Saves run on a thread of their own and report on the main
  // thread: `then` runs after a save that succeeded. A failure shows its message.
  void saveDocument(std::function<void()> then = {});
  void saveDocumentAs(std::function<void()> then = {});
  void saveToURL(const QUrl& url, std::function<void()> then);
  void revertDocumentToSaved();
  // False when the operator cancelled the question about unsaved changes, or chose
  // Save: then the window closes once the save has succeeded.
  bool closeDocument();
  void updateTitle();
  void updateMenus();
  // The workspace read anew (a revert): grids, mode, level and sheets from it.
  void workspaceDidRead();

  // The settings sheet of this workspace, made on first use; edits mark the
  // document edited. Refused in show mode.
  void editWorkspaceSettings();
  SettingsController* settingsController() const { return m_settingsController; }
  // The log window, made on first use.
  void viewLog();
  LogController* logController() const { return m_logController; }

  // How long the slider follows a duck ramp, in seconds.
  static constexpr double kDuckDisplaySeconds = 1.0;

  // The window's frame is kept per show, under this name (the show's URL), as it
  // moves and resizes; a show opened again restores it.
  void setFrameAutosaveName(const QString& name);
  const QString& frameAutosaveName() const { return m_frameAutosaveName; }

 protected:
  void closeEvent(QCloseEvent* event) override;
  void moveEvent(QMoveEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 public:
  // Shuts the show and the window, edits unsaved, with no question.
  void closeWithoutAsking();

 protected:
  void keyPressEvent(QKeyEvent* event) override;
  void keyReleaseEvent(QKeyEvent* event) override;

 private:
  void buildMenus();
  QWidget* buildBottomBar();
  void invalidate();
  void startOutputs();
  void stopOutputs();
  void updateDuringDuck();
  void updateVolumeSlider();
  void rebuildRecentMenu();
  void restoreFrame(const QString& name);
  void saveFrame();
  void registerUndoOfNewTab(const std::shared_ptr<Cart>& cart);
  WorkspaceController* newWindowForTornOffTab(const QPoint& at);
  void removeTabOfCart(Cart* cart, bool withUndo);
  void recreateTabForCart(const std::shared_ptr<Cart>& cart);
  void splitViewDidResizeSubviews();

  Workspace* m_workspace = nullptr;
  std::shared_ptr<Workspace> m_document;
  PSMTabView* m_tabView = nullptr;
  PSMTabBarControl* m_tabBar = nullptr;
  QPushButton* m_panicButton = nullptr;
  QButtonGroup* m_modeButton = nullptr;
  QPushButton* m_editModeButton = nullptr;
  QPushButton* m_showModeButton = nullptr;
  QPushButton* m_pauseAllButton = nullptr;
  QPushButton* m_duckingButton = nullptr;
  QWidget* m_volumeContainer = nullptr;
  QWidget* m_buttonsContainer = nullptr;
  QComboBox* m_outputs = nullptr;
  SontoAudioLevelView* m_audioLevel = nullptr;
  std::vector<OutputRow> m_outputDevices;
  KyoClock::TimerId m_meterTimer = 0;
  KyoScopedObserver m_deviceListObserver;
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
  QAction* m_closeTabAction = nullptr;
  QAction* m_toggleInspectorAction = nullptr;
  QMenu* m_gridMenu = nullptr;
  QAction* m_renameCartAction = nullptr;
  QAction* m_saveAction = nullptr;
  QAction* m_saveAsAction = nullptr;
  QAction* m_revertAction = nullptr;
  QAction* m_settingsAction = nullptr;
  QMenu* m_recentMenu = nullptr;
  SettingsController* m_settingsController = nullptr;
  LogController* m_logController = nullptr;
  InspectorController* m_inspectorController = nullptr;
  BrokenCueController* m_brokenCueController = nullptr;
  QPushButton* m_warningButton = nullptr;
  QString m_frameAutosaveName;
  // Set while the window waits for the save that its close asked for.
  bool m_closingAfterSave = false;
};
