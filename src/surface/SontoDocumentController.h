#pragma once
// The open shows of the process, in the order they were opened: new, open, the
// recent files, closing, and the fan-out of what reaches every show at once (MIDI
// batches, Escape). Main thread only.

#include <QObject>
#include <QStringList>

#include <functional>
#include <memory>
#include <vector>

#include "audio/KyoMIDIInput.h"
#include "show/SontoMIDIMessage.h"

class QWidget;
class Workspace;
class WorkspaceController;

class SontoDocumentController : public QObject {
  Q_OBJECT

 public:
  static constexpr const char* kRecentDocumentsKey = "SontoRecentDocuments";
  static constexpr int kMaxRecentDocuments = 10;

  static SontoDocumentController& sharedDocumentController();

  const std::vector<WorkspaceController*>& documents() const { return m_documents; }

  // An untitled show with "Cart 1", shown.
  WorkspaceController* newDocument();
  // The open panel, then the packages chosen.
  void openDocument(QWidget* parent);
  // Each package in its own window; one already open comes to the front instead.
  // A package that cannot be read shows why and opens nothing. Answers the windows
  // opened or brought forward.
  int openDocuments(const QStringList& paths, QWidget* parent = nullptr);
  // The window of the package at the path, if it is open.
  WorkspaceController* documentForPath(const QString& path) const;

  // Every open show gets every message, in the order of the list.
  void takeMIDIMessages(const std::vector<SontoMIDIMessage>& messages);
  void takeMIDIMessages(const KyoMIDIMessages& messages);
  // Panic in every show.
  void panicAll();
  // Closes every window; false when the operator kept one open.
  bool closeAll();
  // Closes every window with its edits unsaved and asks nothing: for a signal to
  // quit, which no one is there to answer.
  void closeAllWithoutAsking();

  // Most recent first, at most ten, kept in the user's settings.
  QStringList recentDocuments() const;
  void noteRecentDocument(const QString& path);
  void clearRecentDocuments();

  // How a new or opened show gets its workspace; by default one on the default
  // output device. Tests put their own devices here; an empty function restores it.
  void setWorkspaceFactory(std::function<std::shared_ptr<Workspace>()> factory);
  std::shared_ptr<Workspace> makeWorkspace() const;

  // A new untitled show without a cart of its own, for a tab torn off another window.
  WorkspaceController* newDocumentFromDrag();

  // Windows register themselves as they open and leave as they close.
  void addDocument(WorkspaceController* document);
  void removeDocument(WorkspaceController* document);

 signals:
  void documentsChanged();

 private:
  SontoDocumentController() = default;
  WorkspaceController* showWindow(std::shared_ptr<Workspace> workspace);

  std::vector<WorkspaceController*> m_documents;
  std::function<std::shared_ptr<Workspace>()> m_workspaceFactory;
};
