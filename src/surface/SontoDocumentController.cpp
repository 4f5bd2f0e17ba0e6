#include "surface/SontoDocumentController.h"

#include <QSettings>

#include <algorithm>
#include <cstdio>

#include "surface/SontoDocument.h"
#include "surface/WorkspaceController.h"

SontoDocumentController& SontoDocumentController::sharedDocumentController() {
  static SontoDocumentController* shared = new SontoDocumentController;
  return *shared;
}

WorkspaceController* SontoDocumentController::newDocument() {
  auto* window = new WorkspaceController(std::make_unique<SontoDocument>());
  window->setAttribute(Qt::WA_DeleteOnClose);
  window->show();
  return window;
}

bool SontoDocumentController::canOpenDocuments() { return false; }
bool SontoDocumentController::canSaveDocuments() { return false; }

int SontoDocumentController::openDocuments(const QStringList& paths) {
  for (const QString& path : paths) {
    std::fprintf(stderr, "sonto: cannot open \"%s\": reading show files is not available yet\n",
                 path.toLocal8Bit().constData());
  }
  return 0;
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

void SontoDocumentController::panicAll() {
  for (WorkspaceController* document : m_documents) document->panicAll();
}

bool SontoDocumentController::closeAll() {
  const std::vector<WorkspaceController*> documents = m_documents;
  for (WorkspaceController* document : documents) {
    if (!document->close()) return false;
  }
  return true;
}

QStringList SontoDocumentController::recentDocuments() const {
  return QSettings().value(QStringLiteral("SontoRecentDocuments")).toStringList();
}

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
