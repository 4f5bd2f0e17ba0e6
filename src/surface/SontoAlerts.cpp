#include "surface/SontoAlerts.h"

#include <QMessageBox>
#include <QPushButton>

namespace SontoAlerts {
namespace {
std::function<void(const QString&, const QString&)> g_alertHandler;
std::function<Answer(const QString&, bool)> g_saveHandler;
}  // namespace

void setAlertHandler(std::function<void(const QString&, const QString&)> handler) {
  g_alertHandler = std::move(handler);
}

void setSaveQuestionHandler(std::function<Answer(const QString&, bool)> handler) { g_saveHandler = std::move(handler); }

void showAlert(QWidget* parent, const QString& message, const QString& informativeText) {
  if (g_alertHandler) return g_alertHandler(message, informativeText);
  QMessageBox box(parent);
  box.setIcon(QMessageBox::Warning);
  box.setText(message);
  box.setInformativeText(informativeText);
  box.addButton(QStringLiteral("OK"), QMessageBox::AcceptRole);
  box.exec();
}

Answer askToSaveChanges(QWidget* parent, const QString& documentName, bool canSave) {
  if (g_saveHandler) return g_saveHandler(documentName, canSave);
  QMessageBox box(parent);
  box.setIcon(QMessageBox::Warning);
  box.setText(QStringLiteral("Do you want to save the changes made to the document \u201C%1\u201D?").arg(documentName));
  box.setInformativeText(QStringLiteral("Your changes will be lost if you don\u2019t save them."));
  QPushButton* save = canSave ? box.addButton(QStringLiteral("Save"), QMessageBox::AcceptRole) : nullptr;
  QPushButton* dontSave = box.addButton(QStringLiteral("Don\u2019t Save"), QMessageBox::DestructiveRole);
  QPushButton* cancel = box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
  box.setDefaultButton(save ? save : cancel);
  box.setEscapeButton(cancel);
  box.exec();
  if (save && box.clickedButton() == save) return Answer::Save;
  if (box.clickedButton() == dontSave) return Answer::DontSave;
  return Answer::Cancel;
}

}  // namespace SontoAlerts
