#pragma once
// The open shows of the process, in the order they were opened: new, open, the
// recent files, closing, and the fan-out of what reaches every show at once (MIDI
// batches, Escape). Main thread only.

#include <QObject>
#include <QStringList>

#include <vector>

#include "show/SontoMIDIMessage.h"

class WorkspaceController;

class SontoDocumentController : public QObject {
  Q_OBJECT

 public:
  static SontoDocumentController& sharedDocumentController();

  const std::vector<WorkspaceController*>& documents() const { return m_documents; }

  // An untitled show with "Cart 1", shown.
  WorkspaceController* newDocument();
  // Reading show files needs the workspace file reader; until it is in, every path
  // is refused with a line on standard error. Answers the windows opened.
  int openDocuments(const QStringList& paths);
  static bool canOpenDocuments();
  static bool canSaveDocuments();

  // Every open show gets every message, in the order of the list.
  void takeMIDIMessages(const std::vector<SontoMIDIMessage>& messages);
  // Panic in every show.
  void panicAll();
  // Closes every window; false when the operator kept one open.
  bool closeAll();

  QStringList recentDocuments() const;

  // Windows register themselves as they open and leave as they close.
  void addDocument(WorkspaceController* document);
  void removeDocument(WorkspaceController* document);

 signals:
  void documentsChanged();

 private:
  SontoDocumentController() = default;
  std::vector<WorkspaceController*> m_documents;
};
