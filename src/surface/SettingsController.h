#pragma once
// The settings sheet of one workspace: MIDI channel, panic fade, the three workspace
// hot keys and the safety check switch. It edits the WorkspaceSettings that the
// workspace owns, at once, with no cancel of its own; Escape stays the show's panic
// while it is open. Main thread only.

#include <QDialog>
#include <QJsonObject>
#include <QString>
#include <functional>

#include "show/WorkspaceSettings.h"

class QCheckBox;
class QComboBox;
class QGridLayout;
class QLineEdit;
class QPushButton;
class VarnHotKeyTextView;

class SettingsController : public QDialog {
  Q_OBJECT

 public:
  // `cancel` is the window's cancel: the panic of every open show.
  SettingsController(WorkspaceSettings& settings, QWidget* parent, std::function<void()> cancel);
  ~SettingsController() override;

  WorkspaceSettings& settings() { return m_settings; }

  // Everything shown from the settings as they are now; the owner calls it after it
  // changed them itself (a file read, a revert).
  void refreshView();
  void updateMIDIChannelField();

  void resetToDefaults();
  // By a clear button's tag: 1 pause all, 2 resume all, 5 duck master; others nothing.
  void clearHotkey(int tag);
  // The panic field's text as seconds; anything but a number of 0 or more is refused
  // and the kept value written back.
  void setThePanicDuration();
  void selectedMIDIChannel();
  void cancel();
  void closeWindow();
  void closeModal() { closeWindow(); }

  // The workspace window's file; the sheet is titled with its name.
  void setRepresentedFilename(const QString& filename);
  QString representedFilename() const { return windowFilePath(); }

  QComboBox* midiChannelField() const { return m_midiChannelField; }
  QLineEdit* panicDurationField() const { return m_panicDurationField; }
  VarnHotKeyTextView* pauseAllView() const { return m_pauseAllView; }
  VarnHotKeyTextView* resumeAllView() const { return m_resumeAllView; }
  VarnHotKeyTextView* duckMasterView() const { return m_duckMasterView; }
  QCheckBox* performSafetyCheckView() const { return m_performSafetyCheckView; }
  // Null for a tag that has no button.
  QPushButton* clearButton(int tag) const;
  QPushButton* resetButton() const { return m_resetButton; }
  QPushButton* closeButton() const { return m_closeButton; }

 signals:
  // After every edit that changed the state (not after one that was refused).
  void stateChanged();

 protected:
  void keyPressEvent(QKeyEvent* event) override;
  void showEvent(QShowEvent* event) override;

 private:
  // Runs the edit, shows the result and announces it if the state differs.
  template <typename Edit>
  void change(Edit&& edit);
  void hotKeyDidChange(VarnHotKeyTextView* view, KyoHotKey& key);
  VarnHotKeyTextView* addHotKeyRow(QGridLayout* grid, int row, const QString& title, int tag);

  WorkspaceSettings& m_settings;
  std::function<void()> m_cancel;
  QComboBox* m_midiChannelField = nullptr;
  QLineEdit* m_panicDurationField = nullptr;
  VarnHotKeyTextView* m_pauseAllView = nullptr;
  VarnHotKeyTextView* m_resumeAllView = nullptr;
  VarnHotKeyTextView* m_duckMasterView = nullptr;
  QCheckBox* m_performSafetyCheckView = nullptr;
  QPushButton* m_clearButtons[3] = {nullptr, nullptr, nullptr};
  QPushButton* m_resetButton = nullptr;
  QPushButton* m_closeButton = nullptr;
};
