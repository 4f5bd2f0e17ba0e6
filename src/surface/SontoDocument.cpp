#include "surface/SontoDocument.h"

#include <QFileInfo>

#include <algorithm>

namespace {
// Untitled documents are numbered in the order they were made in this process.
int g_untitledDocuments = 0;
}  // namespace

SontoDocument::SontoDocument() {
  m_untitledNumber = ++g_untitledDocuments;
  addCart();
  // Each closed group is an edit done; undo and redo walk the count back and forth,
  // so undoing to the saved state clears the mark again.
  connect(&m_undoManager, &SontoUndoManager::didCloseUndoGroup, this, [this] { updateChangeCount(ChangeType::Done); });
  connect(&m_undoManager, &SontoUndoManager::didUndoChange, this, [this] { updateChangeCount(ChangeType::Undone); });
  connect(&m_undoManager, &SontoUndoManager::didRedoChange, this, [this] { updateChangeCount(ChangeType::Redone); });
}

// The carts hard-stop their cues as they go; the undo manager's closures may hold
// cues, so they go first while the carts are still whole.
SontoDocument::~SontoDocument() {
  m_undoManager.removeAllActions();
  m_carts.clear();
}

Cart* SontoDocument::addCart(const std::string& name) {
  auto cart = std::make_unique<Cart>();
  ++m_cartsEverAdded;
  cart->setName(name.empty() ? "Cart " + std::to_string(m_cartsEverAdded) : name);
  cart->setWorkspace(this);
  m_carts.push_back(std::move(cart));
  emit cartsChanged();
  return m_carts.back().get();
}

void SontoDocument::setLocked(bool locked) {
  if (locked == m_locked) return;
  m_locked = locked;
  emit lockedChanged();
}

void SontoDocument::setPaused(bool paused) {
  if (paused == m_paused) return;
  m_paused = paused;
  emit pausedChanged();
}

void SontoDocument::duck() {
  if (m_ducked) return;
  m_ducked = true;
  for (const auto& cart : m_carts) cart->duckCues();
  emit duckedChanged();
}

void SontoDocument::unduck() {
  if (!m_ducked) return;
  m_ducked = false;
  for (const auto& cart : m_carts) cart->unduckCues();
  emit duckedChanged();
}

void SontoDocument::setMasterVolume(float volume) {
  volume = std::clamp(volume, 0.0f, 1.0f);
  if (volume == m_masterVolume) return;
  m_masterVolume = volume;
  emit masterVolumeChanged();
}

void SontoDocument::panic() {
  setPaused(false);
  for (const auto& cart : m_carts) cart->panicCues();
}

void SontoDocument::hardStopAll() {
  setPaused(false);
  for (const auto& cart : m_carts) cart->hardStopCues();
}

void SontoDocument::setFileName(const QString& fileName) {
  if (fileName == m_fileName) return;
  m_fileName = fileName;
  emit fileNameChanged();
}

QString SontoDocument::displayName() const {
  if (!m_fileName.isEmpty()) return QFileInfo(m_fileName).completeBaseName();
  return m_untitledNumber <= 1 ? QStringLiteral("Untitled") : QStringLiteral("Untitled %1").arg(m_untitledNumber);
}

void SontoDocument::updateChangeCount(ChangeType change) {
  const bool wasEdited = isDocumentEdited();
  switch (change) {
    case ChangeType::Done:
    case ChangeType::Redone:
      ++m_changeCount;
      break;
    case ChangeType::Undone:
      --m_changeCount;
      break;
    case ChangeType::Cleared:
      m_changeCount = 0;
      break;
  }
  if (wasEdited != isDocumentEdited()) emit documentEditedChanged();
}
