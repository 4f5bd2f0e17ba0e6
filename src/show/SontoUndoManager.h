#pragma once
// The undo manager of one workspace. An edit registers its inverse as a closure and,
// unless undoing, names the action. Registrations made in one turn of the event
// loop form one group; undo runs the inverses of the last group in reverse order,
// and what they register in turn becomes the redo group, so the same edit code
// serves both directions. Main thread only.

#include <QObject>
#include <QString>

#include <functional>
#include <vector>

class SontoUndoManager : public QObject {
  Q_OBJECT

 public:
  using Action = std::function<void()>;

  explicit SontoUndoManager(QObject* parent = nullptr);
  ~SontoUndoManager() override;

  // The target only serves removeAllActionsWithTarget; it is never dereferenced.
  void registerUndo(const void* target, Action action);
  // Names the group being built (while redoing, the one that redo builds).
  void setActionName(const QString& actionName);

  // Groups by hand; they nest, and nested groups are undone with the outer one.
  void beginUndoGrouping();
  void endUndoGrouping();
  int groupingLevel() const { return m_groupingLevel; }
  // On by default: a registration outside a group opens one that closes at the end
  // of the present turn of the event loop.
  bool groupsByEvent() const { return m_groupsByEvent; }
  void setGroupsByEvent(bool groupsByEvent) { m_groupsByEvent = groupsByEvent; }

  // Both close an open group first, so an edit of this turn can be undone at once.
  void undo();
  void redo();
  bool canUndo() const;
  bool canRedo() const;
  bool isUndoing() const { return m_undoing; }
  bool isRedoing() const { return m_redoing; }

  QString undoActionName() const;
  QString redoActionName() const;
  // "Undo" or "Undo " plus the name, and the same for redo, for the Edit menu.
  QString undoMenuItemTitle() const;
  QString redoMenuItemTitle() const;

  // Counted: each disable needs its enable.
  void disableUndoRegistration();
  void enableUndoRegistration();
  bool isUndoRegistrationEnabled() const { return m_disableCount == 0; }

  void removeAllActions();
  // Drops every registration with this target; groups left empty go too.
  void removeAllActionsWithTarget(const void* target);

  size_t undoCount() const { return m_undoStack.size(); }
  size_t redoCount() const { return m_redoStack.size(); }

 signals:
  // After every change of the stacks: a registration, a closed group, an undo or redo.
  void checkpoint();
  void didCloseUndoGroup();
  void didUndoChange();
  void didRedoChange();

 private:
  struct Registration {
    const void* target;
    Action action;
  };
  struct Group {
    QString actionName;
    std::vector<Registration> registrations;
  };

  // The group that registrations go to now: the open redo group while undoing.
  Group* openGroup();
  void closeOpenGroups();
  void closeEventGroup();
  void runGroup(Group group, bool undoing);

  std::vector<Group> m_undoStack;
  std::vector<Group> m_redoStack;
  Group m_building;           // the open group on the undo side
  bool m_buildingOpen = false;
  Group m_reverse;            // the group that an undo or redo builds on the other side
  int m_groupingLevel = 0;
  bool m_groupsByEvent = true;
  bool m_eventGroupOpen = false;
  bool m_undoing = false;
  bool m_redoing = false;
  int m_disableCount = 0;
};
