#pragma once
// Stands between one cart and its grid view, one per tab: carries out every edit of
// the grid with its undo step, and turns triggers into cue actions, directly in edit
// mode and through the cell views in show mode, so that a pad fired by key or note
// shows pressed. Index arguments are public indices of the grid. Main thread only.

#include <QObject>
#include <QPointer>
#include <QProgressDialog>
#include <QStringList>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "show/Cart.h"
#include "show/SontoMIDIMessage.h"

class AudioCue;
class Cue;
class GridView;
class InspectorController;
class SontoUndoManager;
class Workspace;
class WorkspaceController;

class GridController : public QObject {
  Q_OBJECT

 public:
  static constexpr unsigned kNotFound = 0x7FFFFFFF;

  // The grid view is made here and handed to the caller's layout as a widget.
  GridController(std::shared_ptr<Cart> cart, WorkspaceController* workspaceController);
  ~GridController() override;

  GridView* gridView() const { return m_gridView; }
  Cart* cart() const { return m_cart.get(); }
  const std::shared_ptr<Cart>& sharedCart() const { return m_cart; }
  WorkspaceController* workspaceController() const { return m_workspaceController; }
  Workspace* workspace() const;
  SontoUndoManager* undoManager() const;
  InspectorController* inspectorController() const;

  void reloadData();
  void lockCart();
  void unlockCart();
  bool isLocked() const;

  Cue* selectedCue() const;
  void selectCue(const Cue* cue);

  void moveUp();
  void moveDown();
  void moveLeft();
  void moveRight();
  unsigned indexAboveIndex(unsigned index) const;
  unsigned indexBelowIndex(unsigned index) const;
  unsigned indexRightOfIndex(unsigned index) const;
  unsigned indexLeftOfIndex(unsigned index) const;

  void addCue(std::shared_ptr<Cue> cue, unsigned index);
  void removeCueAtIndex(unsigned index);
  unsigned findEmptyCellAtIndex(unsigned start) const;
  void handlePasteCue(std::shared_ptr<AudioCue> cue);

  // Resize and rename of the cart, each an undo step.
  void setCartSize(CartSize size);
  void setCartName(const std::string& name);

  void processMIDIMessages(const std::vector<SontoMIDIMessage>& messages);
  void triggerCueDownWithShorcut(const std::string& shortcut);
  void triggerCueUpWithShorcut(const std::string& shortcut);

  // What the grid view asks.
  CartSize sizeOfGridView() const;
  unsigned slotCount() const;
  Cue* cueForIndex(unsigned index) const;
  std::shared_ptr<Cue> sharedCueForIndex(unsigned index) const;
  bool gridViewShouldSelectItemAtIndex(unsigned index) const;
  void gridViewDidSelectItemAtIndex(unsigned index);
  void gridViewDidDropCue(std::shared_ptr<AudioCue> cue, unsigned index);
  // Media import: each file is checked, copied into the workspace's temporary
  // folder on a worker thread and made a cue on the main thread, one after the
  // other, into the next free slots. The first file that is no audio file, or
  // that cannot be copied, ends the import; the cues made before it stay. Returns
  // at once; importFinished tells how many cues were made.
  void gridViewDroppedFiles(const QStringList& paths, unsigned index, bool withDefaultTriggers);
  bool isImporting() const { return m_import != nullptr; }
  // Milliseconds an import runs before its progress shows.
  static constexpr int kImportProgressDelayMs = 500;
  void gridViewDidMoveCueFromIndex(unsigned from, unsigned to);
  void gridViewDidCopyCueFromIndex(unsigned from, unsigned to);
  std::string defaultHotkeyForIndex(unsigned index) const;
  std::optional<int> defaultMIDINoteForIndex(unsigned index) const;
  std::vector<std::string> validShortcutsForGridView() const;

  std::string description() const;

 signals:
  void importFinished(int cuesMade);

 private:
  struct Import;
  // The next file of the running import, or its end.
  void importNext();
  void finishImport();
  void setCartSizeUndoable(CartSize size);
  void setCartNameUndoable(const std::string& name);
  // The cue of a file dropped on a slot, replacing what is there.
  void makeCueForFile(const std::string& path, unsigned index, bool withDefaultTriggers);

  GridView* m_gridView;
  std::shared_ptr<Cart> m_cart;
  WorkspaceController* m_workspaceController;
  std::shared_ptr<Import> m_import;
  // A child of the window, which may go first.
  QPointer<QProgressDialog> m_progress;
};
