#pragma once
// The safety check in the window: the list of what would go wrong in the show (broken
// cues, cues outside their grid, clashing triggers), shown as a table in the
// inspector's place, and the warning button with its popover in the bottom bar.
// A reload is asked for after every editing step and runs once, a moment later, so
// that a burst of edits costs one check. Main thread; reloadData may be called from
// any thread.

#include <QObject>
#include <QPointer>

#include <vector>

#include "KyoUI/PopoverWindow.h"
#include "foundation/KyoClock.h"
#include "show/SafetyConcern.h"

class InspectorController;
class QLabel;
class QPushButton;
class QTableWidget;
class QWidget;
class WorkspaceController;

class BrokenCueController : public QObject {
  Q_OBJECT

 public:
  // Seconds between the last request and the check.
  static constexpr double kReloadDelay = 0.05;
  // The table's columns, by title.
  static constexpr const char* kCueNameColumn = "Cue Name";
  static constexpr const char* kCartNameColumn = "Cart Name";
  static constexpr const char* kWarningColumn = "Warning";

  // Fills `brokenCueView` with the label and the table; the button is the window's.
  BrokenCueController(WorkspaceController* workspaceController, InspectorController* inspectorController,
                      QWidget* brokenCueView, QPushButton* warningButton);
  ~BrokenCueController() override;

  void reloadData();
  void executeReloadData();
  // Only the first reload after opening may show the popover by itself.
  void showPopoverOnce();
  void showPopoverIfNeeded();
  void hidePopover();
  // No more reloads: the window is going.
  void prepareToDie();

  const std::vector<SafetyConcern>& brokenOrFlaggedCues() const { return m_brokenOrFlaggedCues; }
  QTableWidget* brokenCueTableView() const { return m_brokenCueTableView; }
  QPushButton* warningButton() const { return m_warningButton; }
  QLabel* brokenCueLabel() const { return m_brokenCueLabel; }
  PopoverWindow* popover() const { return m_popover; }
  bool didShowPopover() const { return m_didShowPopover; }
  bool reloadPending() const { return m_reloadTimer != 0; }

 private:
  void tableViewSelectionDidChange();
  QWidget* makePopoverView();

  bool m_didShowPopover = false;
  bool m_aboutToDie = false;
  KyoClock::TimerId m_reloadTimer = 0;
  std::vector<SafetyConcern> m_brokenOrFlaggedCues;
  WorkspaceController* m_workspaceController;
  InspectorController* m_inspectorController;
  QPushButton* m_warningButton;
  QWidget* m_brokenCueView;
  QLabel* m_brokenCueLabel = nullptr;
  QTableWidget* m_brokenCueTableView = nullptr;
  QPointer<PopoverWindow> m_popover;
  QPointer<QLabel> m_popoverLabel;
};
