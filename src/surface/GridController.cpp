#include "surface/GridController.h"

#include <QFileInfo>
#include <QPointer>
#include <QProgressDialog>

#include "audio/KyoAudioFile.h"
#include "foundation/KyoAlias.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "show/AudioCue.h"
#include "show/Cue.h"
#include "show/SontoUndoManager.h"
#include "surface/CueCellController.h"
#include "surface/GridView.h"
#include "surface/InspectorController.h"
#include "show/Workspace.h"
#include "surface/SontoAlerts.h"
#include "surface/WorkspaceController.h"

struct GridController::Import {
  QStringList paths;
  int next = 0;  // the path to take next
  unsigned running = 0;
  bool withDefaultTriggers = false;
  int made = 0;
  bool cancelled = false;
};

GridController::GridController(std::shared_ptr<Cart> cart, WorkspaceController* workspaceController)
    : m_gridView(new GridView), m_cart(std::move(cart)), m_workspaceController(workspaceController) {
  m_gridView->setController(this);
  reloadData();
  if (isLocked()) lockCart();
}

GridController::~GridController() {
  // A copy still running finds no import to go on with.
  m_import.reset();
  delete m_progress.data();
  if (SontoUndoManager* undo = undoManager()) undo->removeAllActionsWithTarget(this);
  m_gridView->setController(nullptr);
  m_gridView->reset();
}

Workspace* GridController::workspace() const {
  return m_workspaceController ? m_workspaceController->workspace() : nullptr;
}

InspectorController* GridController::inspectorController() const {
  return m_workspaceController ? m_workspaceController->inspectorController() : nullptr;
}

SontoUndoManager* GridController::undoManager() const {
  Workspace* document = workspace();
  return document ? document->undoManager() : nullptr;
}

void GridController::reloadData() { m_gridView->reloadData(); }

void GridController::lockCart() {
  m_gridView->setSelectedIndex(kNotFound);
  for (const auto& cell : m_gridView->cells()) cell->setLocked(true);
}

void GridController::unlockCart() {
  for (const auto& cell : m_gridView->cells()) cell->setLocked(false);
}

bool GridController::isLocked() const { return m_workspaceController && m_workspaceController->isLocked(); }

Cue* GridController::selectedCue() const { return cueForIndex(m_gridView->selectedIndex()); }

void GridController::selectCue(const Cue* cue) {
  if (!cue || selectedCue() == cue) return;
  const unsigned long index = m_cart->indexOfCue(cue);
  if (index != Cart::kNotFound) m_gridView->setSelectedIndex(static_cast<unsigned>(index));
}

// -- Selection by arrow keys: vertical moves wrap round, horizontal ones run along
// the rows and off the ends.

unsigned GridController::slotCount() const {
  const CartSize size = m_cart->size();
  return static_cast<unsigned>(size.width) * static_cast<unsigned>(size.height);
}

unsigned GridController::indexAboveIndex(unsigned index) const {
  const long width = static_cast<long>(m_cart->size().width);
  long above = static_cast<long>(index) - width;
  if (above < 0) above += slotCount();
  return static_cast<unsigned>(above);
}

unsigned GridController::indexBelowIndex(unsigned index) const {
  const unsigned count = slotCount();
  unsigned below = index + static_cast<unsigned>(m_cart->size().width);
  if (count > 0 && below > count - 1) below %= count;
  return below;
}

unsigned GridController::indexRightOfIndex(unsigned index) const {
  return index + 1 == slotCount() ? kNotFound : index + 1;
}

unsigned GridController::indexLeftOfIndex(unsigned index) const {
  if (index == 0) return kNotFound;
  if (index == kNotFound) return slotCount() - 1;
  return index - 1;
}

void GridController::moveUp() {
  if (isLocked()) return;
  const unsigned selected = m_gridView->selectedIndex();
  m_gridView->setSelectedIndex(selected == kNotFound ? 0 : indexAboveIndex(selected));
}

void GridController::moveDown() {
  if (isLocked()) return;
  const unsigned selected = m_gridView->selectedIndex();
  m_gridView->setSelectedIndex(selected == kNotFound ? 0 : indexBelowIndex(selected));
}

void GridController::moveRight() {
  if (isLocked()) return;
  const unsigned selected = m_gridView->selectedIndex();
  m_gridView->setSelectedIndex(selected == kNotFound ? 0 : indexRightOfIndex(selected));
}

void GridController::moveLeft() {
  if (isLocked()) return;
  m_gridView->setSelectedIndex(indexLeftOfIndex(m_gridView->selectedIndex()));
}

// -- Edits, each an undo step.

void GridController::addCue(std::shared_ptr<Cue> cue, unsigned index) {
  if (!cue) return;
  if (SontoUndoManager* undo = undoManager()) {
    undo->registerUndo(this, [this, index] { removeCueAtIndex(index); });
    if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Add Cue"));
  }
  m_cart->setCue(std::move(cue), index);
  reloadData();
}

void GridController::removeCueAtIndex(unsigned index) {
  std::shared_ptr<Cue> cue = m_cart->sharedCueAtIndex(index);
  if (!cue) return;
  cue->hardStop();
  if (index == m_gridView->selectedIndex()) {
    if (InspectorController* inspector = inspectorController()) inspector->setCue(nullptr);
  }
  if (CueCellController* cell = m_gridView->cellAtIndex(index)) cell->setCue(nullptr);
  if (SontoUndoManager* undo = undoManager()) {
    undo->registerUndo(this, [this, cue, index] { addCue(cue, index); });
    if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Delete Cue"));
  }
  m_cart->removeCueAtIndex(index);
  reloadData();
}

unsigned GridController::findEmptyCellAtIndex(unsigned start) const {
  const unsigned count = slotCount();
  if (count == 0) return kNotFound;
  if (start >= count) start = 0;
  unsigned index = start;
  do {
    if (!m_cart->cueAtIndex(index)) return index;
    index = (index + 1) % count;
  } while (index != start);
  return kNotFound;
}

void GridController::handlePasteCue(std::shared_ptr<AudioCue> cue) {
  if (!cue) return;
  Workspace* document = workspace();
  // A file already in this show is not copied again.
  if (document && !document->containsMediaFile(cue->file())) {
    const std::string copied = document->copyFileIntoTmp(cue->file());
    if (!copied.empty()) cue->setFile(copied);
  }
  cue->updateFile(cue->file());
  cue->setAudioDevice(document ? document->audioDevice() : nullptr);
  const unsigned selected = m_gridView->selectedIndex();
  const unsigned index = findEmptyCellAtIndex(selected == kNotFound ? 0 : selected);
  if (index != kNotFound) {
    addCue(cue, index);
  } else {
    SontoAlerts::showAlert(m_workspaceController, QStringLiteral("No empty slot to paste a cue into."),
                           QStringLiteral("Please increase the size of your grid or remove a cue."));
  }
}

void GridController::setCartSize(CartSize size) {
  if (isLocked()) return;
  const CartSize old = m_cart->size();
  if (old == size || (size.width == 0.0f && size.height == 0.0f)) return;
  m_cart->setSize(size);
  if (SontoUndoManager* undo = undoManager()) {
    undo->registerUndo(this, [this, old] { setCartSizeUndoable(old); });
    if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Change Size"));
  }
  reloadData();
  if (InspectorController* inspector = inspectorController()) inspector->setCue(nullptr);
}

void GridController::setCartSizeUndoable(CartSize size) {
  const CartSize old = m_cart->size();
  m_cart->setSize(size);
  if (SontoUndoManager* undo = undoManager()) {
    undo->registerUndo(this, [this, old] { setCartSizeUndoable(old); });
  }
  reloadData();
}

void GridController::setCartName(const std::string& name) {
  if (isLocked()) return;
  setCartNameUndoable(name);
}

void GridController::setCartNameUndoable(const std::string& name) {
  const std::string old = m_cart->name();
  if (old == name) return;
  m_cart->setName(name);
  if (m_workspaceController) m_workspaceController->updateTabLabels();
  if (SontoUndoManager* undo = undoManager()) {
    undo->registerUndo(this, [this, old] { setCartNameUndoable(old); });
    if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Rename Cart"));
  }
}

// -- Triggers. In show mode they go through the cells, so that the pad shows pressed.

void GridController::triggerCueDownWithShorcut(const std::string& shortcut) {
  if (isLocked()) {
    for (const auto& cue : m_cart->cuesWithShortcut(shortcut)) {
      if (CueCellController* cell = m_gridView->cellForCue(cue.get())) cell->view()->mouseDown(nullptr);
    }
  } else {
    m_cart->triggerDownWithShortcut(shortcut);
  }
}

void GridController::triggerCueUpWithShorcut(const std::string& shortcut) {
  if (isLocked()) {
    for (const auto& cue : m_cart->cuesWithShortcut(shortcut)) {
      if (CueCellController* cell = m_gridView->cellForCue(cue.get())) cell->view()->mouseUp(nullptr);
    }
  } else {
    m_cart->triggerUpWithShortcut(shortcut);
  }
}

void GridController::processMIDIMessages(const std::vector<SontoMIDIMessage>& messages) {
  if (!isLocked()) return m_cart->processMIDIMessages(messages);
  for (const SontoMIDIMessage& message : messages) {
    for (const auto& cue : m_cart->cuesWithDownMIDI(message)) {
      if (CueCellController* cell = m_gridView->cellForCue(cue.get())) cell->view()->mouseDown(nullptr);
    }
    for (const auto& cue : m_cart->cuesWithUpMIDI(message)) {
      if (CueCellController* cell = m_gridView->cellForCue(cue.get())) cell->view()->mouseUp(nullptr);
    }
  }
}

// -- What the grid view asks.

CartSize GridController::sizeOfGridView() const { return m_cart->size(); }

Cue* GridController::cueForIndex(unsigned index) const {
  return index == kNotFound ? nullptr : m_cart->cueAtIndex(index);
}

std::shared_ptr<Cue> GridController::sharedCueForIndex(unsigned index) const {
  return index == kNotFound ? nullptr : m_cart->sharedCueAtIndex(index);
}

bool GridController::gridViewShouldSelectItemAtIndex(unsigned) const { return !isLocked(); }

void GridController::gridViewDidSelectItemAtIndex(unsigned index) {
  Cue* cue = cueForIndex(index);
  if (InspectorController* inspector = inspectorController()) {
    inspector->setCue(std::dynamic_pointer_cast<AudioCue>(sharedCueForIndex(index)));
  }
  if (cue && isLocked()) cue->trigger();
}

void GridController::gridViewDidDropCue(std::shared_ptr<AudioCue> cue, unsigned index) {
  Workspace* document = workspace();
  if (!cue || cue->file().empty() || !document) return;
  const std::string copied = document->copyFileIntoTmp(cue->file());
  if (copied.empty()) return;
  cue->updateFile(copied);
  cue->setAudioDevice(document->audioDevice());
  addCue(cue, index);
}

// A swap when the target is taken. The cart's removal of the source slot hard-stops
// the moved cue and clears its cart; that order is kept on purpose.
void GridController::gridViewDidMoveCueFromIndex(unsigned from, unsigned to) {
  if (from == to) return;
  std::shared_ptr<Cue> moved = m_cart->sharedCueAtIndex(from);
  std::shared_ptr<Cue> target = m_cart->sharedCueAtIndex(to);
  if (!moved) return;
  if (SontoUndoManager* undo = undoManager()) {
    undo->registerUndo(this, [this, from, to] { gridViewDidMoveCueFromIndex(to, from); });
    undo->setActionName(QStringLiteral("Move Cue"));
  }
  m_cart->setCue(moved, to);
  if (target) {
    m_cart->setCue(target, from);
  } else {
    m_cart->removeCueAtIndex(from);
  }
  reloadData();
}

void GridController::gridViewDidCopyCueFromIndex(unsigned from, unsigned to) {
  if (from == to || m_cart->cueAtIndex(to)) return;
  Cue* source = m_cart->cueAtIndex(from);
  if (!source) return;
  if (SontoUndoManager* undo = undoManager()) {
    undo->registerUndo(this, [this, to] { removeCueAtIndex(to); });
    undo->setActionName(QStringLiteral("Duplicate Cue"));
  }
  m_cart->setCue(source->copy(), to);
  reloadData();
}

void GridController::gridViewDroppedFiles(const QStringList& paths, unsigned index, bool withDefaultTriggers) {
  if (paths.isEmpty() || m_import || !workspace()) {
    emit importFinished(0);
    return;
  }
  m_import = std::make_shared<Import>();
  m_import->paths = paths;
  m_import->running = index;
  m_import->withDefaultTriggers = withDefaultTriggers;
  // Shows only once the import has run for a while. Not modal: a modal one pumps
  // the event loop inside setValue, where the window could close under the import.
  m_progress = new QProgressDialog(QStringLiteral("Importing media"), QStringLiteral("Cancel"), 0,
                                   static_cast<int>(paths.size()), m_workspaceController);
  m_progress->setWindowModality(Qt::NonModal);
  m_progress->setMinimumDuration(kImportProgressDelayMs);
  m_progress->setAutoClose(false);
  m_progress->setAutoReset(false);
  std::shared_ptr<Import> import = m_import;
  connect(m_progress, &QProgressDialog::canceled, this, [import] { import->cancelled = true; });
  importNext();
}

void GridController::importNext() {
  std::shared_ptr<Import> import = m_import;
  Workspace* document = workspace();
  if (!import) return;
  if (!document || import->cancelled || import->next >= import->paths.size() || import->running == kNotFound) {
    return finishImport();
  }
  if (m_progress) m_progress->setValue(import->next);
  const std::string file = import->paths[import->next++].toStdString();
  // A file that is no audio file ends the import; what came before it stays.
  KyoAudioFile check(KyoAlias::aliasWithPath(file));
  if (!check.validFile()) {
    KyoLog("Import of \"%s\" stopped: not an audio file", file.c_str());
    return finishImport();
  }
  // The copy runs off the main thread so that a long import keeps the window and
  // the show alive. The worker holds the workspace and hands it back to the main
  // thread, where it is released.
  std::shared_ptr<Workspace> keep = m_workspaceController ? m_workspaceController->sharedWorkspace() : nullptr;
  if (!keep) return finishImport();
  QPointer<GridController> self(this);
  KyoCurrentClock().detachThread([keep, file, self, import]() mutable {
    std::string copied = keep->copyFileIntoTmp(file);
    KyoCurrentClock().runOnMain(
        [keep = std::move(keep), copied = std::move(copied), self, import] {
          // The grid went away, or began another import, while the file was copied.
          if (!self || self->m_import != import) return;
          if (copied.empty()) return self->finishImport();
          self->makeCueForFile(copied, import->running, import->withDefaultTriggers);
          ++import->made;
          import->running = self->findEmptyCellAtIndex(import->running);
          self->importNext();
        },
        false);
  });
}

void GridController::finishImport() {
  const int made = m_import ? m_import->made : 0;
  m_import.reset();
  if (m_progress) {
    m_progress->hide();
    m_progress->deleteLater();
    m_progress = nullptr;
  }
  emit importFinished(made);
}

void GridController::makeCueForFile(const std::string& path, unsigned index, bool withDefaultTriggers) {
  Workspace* document = workspace();
  std::shared_ptr<AudioCue> cue = AudioCue::createWithFile(path, document ? document->audioDevice() : nullptr);
  if (!cue) return;
  const bool wasSelected = m_gridView->selectedIndex() == index;
  if (auto* old = dynamic_cast<AudioCue*>(m_cart->cueAtIndex(index))) {
    cue->setHotkey(old->hotkey());
    if (std::optional<int> note = old->midiNote()) cue->setMidiNote(*note);
    cue->setColor(old->color());
    removeCueAtIndex(index);
  } else if (withDefaultTriggers) {
    cue->setHotkey(defaultHotkeyForIndex(index));
    if (std::optional<int> note = defaultMIDINoteForIndex(index)) cue->setMidiNote(*note);
  }
  addCue(cue, index);
  if (wasSelected) m_gridView->setSelectedIndex(index);
}

std::string GridController::defaultHotkeyForIndex(unsigned index) const { return m_cart->defaultHotkeyForIndex(index); }

std::optional<int> GridController::defaultMIDINoteForIndex(unsigned index) const { return static_cast<int>(index); }

std::vector<std::string> GridController::validShortcutsForGridView() const { return m_cart->shortcuts(); }

std::string GridController::description() const { return "GridController cart: " + m_cart->description(); }
