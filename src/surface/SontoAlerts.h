#pragma once
// The few questions and alerts of the window, in one place so that tests can answer
// them instead of a person. Main thread only.

#include <QString>
#include <QStringList>

#include <functional>

class QWidget;
struct SavingError;

namespace SontoAlerts {

enum class Answer { Save, DontSave, Cancel };

// A modal alert with one "OK" button.
void showAlert(QWidget* parent, const QString& message, const QString& informativeText);
// The unsaved-changes question; Save is offered only when the document can be saved.
Answer askToSaveChanges(QWidget* parent, const QString& documentName, bool canSave);
// Before a revert throws away the edits: true to go on.
bool confirmRevert(QWidget* parent, const QString& documentName);
// Before a cart with cues goes with its tab: true to close it.
bool confirmCloseTab(QWidget* parent);
// A failed save or read: its message and its one button, "OK".
void showSavingError(QWidget* parent, const SavingError& error);
// The open panel: show packages ("Name.sonto" folders) to open; empty when cancelled.
QStringList chooseShowsToOpen(QWidget* parent);
// The save panel: the path of the package to write; empty when cancelled.
QString chooseSaveLocation(QWidget* parent, const QString& suggestedName);

// Tests take the place of the dialogs; an empty function restores them.
void setAlertHandler(std::function<void(const QString& message, const QString& informativeText)> handler);
void setSaveQuestionHandler(std::function<Answer(const QString& documentName, bool canSave)> handler);
void setRevertQuestionHandler(std::function<bool(const QString& documentName)> handler);
void setCloseTabQuestionHandler(std::function<bool()> handler);
void setOpenPanelHandler(std::function<QStringList()> handler);
void setSavePanelHandler(std::function<QString(const QString& suggestedName)> handler);

}  // namespace SontoAlerts
