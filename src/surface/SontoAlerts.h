#pragma once
// The few questions and alerts of the window, in one place so that tests can answer
// them instead of a person. Main thread only.

#include <QString>

#include <functional>

class QWidget;

namespace SontoAlerts {

enum class Answer { Save, DontSave, Cancel };

// A modal alert with one "OK" button.
void showAlert(QWidget* parent, const QString& message, const QString& informativeText);
// The unsaved-changes question; Save is offered only when the document can be saved.
Answer askToSaveChanges(QWidget* parent, const QString& documentName, bool canSave);

// Tests take the place of the dialogs; an empty function restores them.
void setAlertHandler(std::function<void(const QString& message, const QString& informativeText)> handler);
void setSaveQuestionHandler(std::function<Answer(const QString& documentName, bool canSave)> handler);

}  // namespace SontoAlerts
