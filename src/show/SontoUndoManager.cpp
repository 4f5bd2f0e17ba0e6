#include "show/SontoUndoManager.h"

#include <QMetaObject>

#include <algorithm>

SontoUndoManager::SontoUndoManager(QObject* parent) : QObject(parent) {}

SontoUndoManager::~SontoUndoManager() = default;

SontoUndoManager::Group* SontoUndoManager::openGroup() {
  if (m_undoing || m_redoing) return &m_reverse;
  return m_buildingOpen ? &m_building : nullptr;
}

void SontoUndoManager::registerUndo(const void* target, Action action) {
  if (!isUndoRegistrationEnabled() || !action) return;
  if (!m_undoing && !m_redoing) {
    if (!m_buildingOpen) {
      if (!m_groupsByEvent) return;  // nothing to put it in, as with grouping by hand forgotten
      beginUndoGrouping();
      m_eventGroupOpen = true;
      // Queued: runs once the event loop has finished with the present turn.
      QMetaObject::invokeMethod(this, &SontoUndoManager::closeEventGroup, Qt::QueuedConnection);
    }
    // A new edit makes the undone ones unreachable.
    m_redoStack.clear();
  }
  openGroup()->registrations.push_back({target, std::move(action)});
  emit checkpoint();
}

void SontoUndoManager::setActionName(const QString& actionName) {
  if (Group* group = openGroup()) {
    group->actionName = actionName;
  } else if (!m_undoStack.empty()) {
    m_undoStack.back().actionName = actionName;
  }
}

void SontoUndoManager::beginUndoGrouping() {
  if (m_groupingLevel++ == 0 && !m_undoing && !m_redoing) {
    m_building = Group{};
    m_buildingOpen = true;
  }
  emit checkpoint();
}

void SontoUndoManager::endUndoGrouping() {
  if (m_groupingLevel == 0) return;
  if (--m_groupingLevel > 0 || !m_buildingOpen) return;
  m_buildingOpen = false;
  m_eventGroupOpen = false;
  if (!m_building.registrations.empty()) m_undoStack.push_back(std::move(m_building));
  m_building = Group{};
  emit checkpoint();
  emit didCloseUndoGroup();
}

void SontoUndoManager::closeEventGroup() {
  if (!m_eventGroupOpen) return;
  m_eventGroupOpen = false;
  endUndoGrouping();
}

void SontoUndoManager::closeOpenGroups() {
  while (m_groupingLevel > 0 && !m_undoing && !m_redoing) endUndoGrouping();
}

bool SontoUndoManager::canUndo() const {
  return !m_undoStack.empty() || (m_buildingOpen && !m_building.registrations.empty());
}

bool SontoUndoManager::canRedo() const { return !m_redoStack.empty(); }

// The group's inverses run newest first; the registrations they make are collected
// in m_reverse, named as the group was, and land on the other stack.
void SontoUndoManager::runGroup(Group group, bool undoing) {
  m_reverse = Group{};
  m_reverse.actionName = group.actionName;
  (undoing ? m_undoing : m_redoing) = true;
  for (auto it = group.registrations.rbegin(); it != group.registrations.rend(); ++it) it->action();
  (undoing ? m_undoing : m_redoing) = false;
  if (!m_reverse.registrations.empty()) {
    (undoing ? m_redoStack : m_undoStack).push_back(std::move(m_reverse));
  }
  m_reverse = Group{};
}

void SontoUndoManager::undo() {
  if (m_undoing || m_redoing) return;
  closeOpenGroups();
  if (m_undoStack.empty()) return;
  Group group = std::move(m_undoStack.back());
  m_undoStack.pop_back();
  runGroup(std::move(group), true);
  emit checkpoint();
  emit didUndoChange();
}

void SontoUndoManager::redo() {
  if (m_undoing || m_redoing) return;
  closeOpenGroups();
  if (m_redoStack.empty()) return;
  Group group = std::move(m_redoStack.back());
  m_redoStack.pop_back();
  runGroup(std::move(group), false);
  emit checkpoint();
  emit didRedoChange();
}

QString SontoUndoManager::undoActionName() const {
  if (m_buildingOpen && !m_building.registrations.empty()) return m_building.actionName;
  return m_undoStack.empty() ? QString() : m_undoStack.back().actionName;
}

QString SontoUndoManager::redoActionName() const {
  return m_redoStack.empty() ? QString() : m_redoStack.back().actionName;
}

QString SontoUndoManager::undoMenuItemTitle() const {
  const QString name = undoActionName();
  return name.isEmpty() ? QStringLiteral("Undo") : QStringLiteral("Undo ") + name;
}

QString SontoUndoManager::redoMenuItemTitle() const {
  const QString name = redoActionName();
  return name.isEmpty() ? QStringLiteral("Redo") : QStringLiteral("Redo ") + name;
}

void SontoUndoManager::disableUndoRegistration() { ++m_disableCount; }

void SontoUndoManager::enableUndoRegistration() {
  if (m_disableCount > 0) --m_disableCount;
}

void SontoUndoManager::removeAllActions() {
  m_undoStack.clear();
  m_redoStack.clear();
  m_building = Group{};
  m_reverse = Group{};
  m_buildingOpen = false;
  m_eventGroupOpen = false;
  m_groupingLevel = 0;
  emit checkpoint();
}

void SontoUndoManager::removeAllActionsWithTarget(const void* target) {
  auto strip = [target](Group& group) {
    auto& r = group.registrations;
    r.erase(std::remove_if(r.begin(), r.end(), [target](const Registration& x) { return x.target == target; }),
            r.end());
  };
  auto stripStack = [&](std::vector<Group>& stack) {
    for (Group& group : stack) strip(group);
    stack.erase(std::remove_if(stack.begin(), stack.end(), [](const Group& g) { return g.registrations.empty(); }),
                stack.end());
  };
  stripStack(m_undoStack);
  stripStack(m_redoStack);
  strip(m_building);
  strip(m_reverse);
  emit checkpoint();
}
