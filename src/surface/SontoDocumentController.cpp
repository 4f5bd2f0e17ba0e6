#include "surface/SontoDocumentController.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QUrl>

#include <algorithm>

#include "foundation/KyoLog.h"
#include "show/Workspace.h"
#include "show/WorkspaceFile.h"
#include "surface/SontoAlerts.h"
#include "surface/WorkspaceController.h"

namespace {
// Two spellings of one package (a trailing slash, "..", a link) are one show.
QString canonicalPackagePath(const QString& path) {
  const QFileInfo info(path);
  const QString canonical = info.canonicalFilePath();
  return canonical.isEmpty() ? QDir::cleanPath(info.absoluteFilePath()) : canonical;
}
}  // namespace

SontoDocumentController& SontoDocumentController::sharedDocumentController() {
  static SontoDocumentController* shared = new SontoDocumentController;
  return *shared;
}

void SontoDocumentController::setWorkspaceFactory(std::function<std::shared_ptr<Workspace>()> factory) {
  m_workspaceFactory = std::move(factory);
}

std::shared_ptr<Workspace> SontoDocumentController::makeWorkspace() const {
  return m_workspaceFactory ? m_workspaceFactory() : std::make_shared<Workspace>();
}

WorkspaceController* SontoDocumentController::showWindow(std::shared_ptr<Workspace> workspace) {
  auto* window = new WorkspaceController(std::move(workspace));
  window->setAttribute(Qt::WA_DeleteOnClose);
  window->show();
  return window;
}

WorkspaceController* SontoDocumentController::newDocument() { return showWindow(makeWorkspace()); }

WorkspaceController* SontoDocumentController::newDocumentFromDrag() {
  std::shared_ptr<Workspace> workspace = makeWorkspace();
  workspace->setCreatedFromDrag(true);
  return showWindow(std::move(workspace));
}

void SontoDocumentController::openDocument(QWidget* parent) {
  const QStringList paths = SontoAlerts::chooseShowsToOpen(parent);
  if (!paths.isEmpty()) openDocuments(paths, parent);
}

WorkspaceController* SontoDocumentController::documentForPath(const QString& path) const {
  const QString wanted = canonicalPackagePath(path);
  for (WorkspaceController* document : m_documents) {
    Workspace* workspace = document->workspace();
    if (!workspace || workspace->fileURL().isEmpty()) continue;
    if (canonicalPackagePath(workspace->fileURL().toLocalFile()) == wanted) return document;
  }
  return nullptr;
}

int SontoDocumentController::openDocuments(const QStringList& paths, QWidget* parent) {
  int opened = 0;
  for (const QString& path : paths) {
    if (WorkspaceController* open = documentForPath(path)) {
      open->raise();
      open->activateWindow();
      ++opened;
      continue;
    }
    std::shared_ptr<Workspace> workspace = makeWorkspace();
    SavingError error;
    if (!workspace->readFromURL(QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath()), &error)) {
      // The temporary folder of a show that never opened goes at once.
      workspace->close();
      SontoAlerts::showSavingError(parent, error);
      continue;
    }
    showWindow(std::move(workspace));
    noteRecentDocument(QFileInfo(path).absoluteFilePath());
    ++opened;
  }
  return opened;
}

void SontoDocumentController::takeMIDIMessages(const std::vector<SontoMIDIMessage>& messages) {
  // A copy: a window may close while a batch is being handled.
  const std::vector<WorkspaceController*> documents = m_documents;
  for (WorkspaceController* document : documents) {
    if (std::find(m_documents.begin(), m_documents.end(), document) != m_documents.end()) {
      document->processMIDIMessages(messages);
    }
  }
}

void SontoDocumentController::takeMIDIMessages(const KyoMIDIMessages& messages) {
  takeMIDIMessages(SontoMIDIMessage::from(messages));
}

void SontoDocumentController::panicAll() {
  const std::vector<WorkspaceController*> documents = m_documents;
  for (WorkspaceController* document : documents) document->panicAll();
}

bool SontoDocumentController::closeAll() {
  const std::vector<WorkspaceController*> documents = m_documents;
  for (WorkspaceController* document : documents) {
    if (!document->close()) return false;
  }
  return true;
}

void SontoDocumentController::closeAllWithoutAsking() {
  const std::vector<WorkspaceController*> documents = m_documents;
  for (WorkspaceController* document : documents) document->closeWithoutAsking();
}

QStringList SontoDocumentController::recentDocuments() const {
  return QSettings().value(QString::fromLatin1(kRecentDocumentsKey)).toStringList();
}

void SontoDocumentController::noteRecentDocument(const QString& path) {
  if (path.isEmpty()) return;
  QStringList recent = recentDocuments();
  const QString clean = QDir::cleanPath(path);
  recent.removeAll(clean);
  recent.prepend(clean);
  while (recent.size() > kMaxRecentDocuments) recent.removeLast();
  QSettings().setValue(QString::fromLatin1(kRecentDocumentsKey), recent);
}

void SontoDocumentController::clearRecentDocuments() { QSettings().remove(QString::fromLatin1(kRecentDocumentsKey)); }

void SontoDocumentController::addDocument(WorkspaceController* document) {
  if (std::find(m_documents.begin(), m_documents.end(), document) != m_documents.end()) return;
  m_documents.push_back(document);
  emit documentsChanged();
}

void SontoDocumentController::removeDocument(WorkspaceController* document) {
  auto it = std::find(m_documents.begin(), m_documents.end(), document);
  if (it == m_documents.end()) return;
  m_documents.erase(it);
  emit documentsChanged();
}
