#include "surface/SontoAlerts.h"

#include "foundation/KyoLog.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMessageBox>
#include <QPushButton>

#include "show/WorkspaceFile.h"

namespace SontoAlerts {
namespace {
std::function<void(const QString&, const QString&)> g_alertHandler;
std::function<Answer(const QString&, bool)> g_saveHandler;
std::function<bool(const QString&)> g_revertHandler;
std::function<bool()> g_closeTabHandler;
std::function<QStringList()> g_openPanelHandler;
std::function<QString(const QString&)> g_savePanelHandler;

const QString kShowFilter = QStringLiteral("Sonto shows (*.sonto)");

// A package is a folder: the panel picks folders, and a pick of the "document"
// inside one stands for its package.
QString packageOf(const QString& path) {
  const QFileInfo info(path);
  if (info.isFile() && info.fileName() == QString::fromLatin1(WorkspaceFile::kDocumentName)) {
    return info.absolutePath();
  }
  return info.absoluteFilePath();
}
}  // namespace

void setOpenPanelHandler(std::function<QStringList()> handler) { g_openPanelHandler = std::move(handler); }
void setSavePanelHandler(std::function<QString(const QString&)> handler) { g_savePanelHandler = std::move(handler); }

void setAlertHandler(std::function<void(const QString&, const QString&)> handler) {
  g_alertHandler = std::move(handler);
}

void setSaveQuestionHandler(std::function<Answer(const QString&, bool)> handler) { g_saveHandler = std::move(handler); }
void setRevertQuestionHandler(std::function<bool(const QString&)> handler) { g_revertHandler = std::move(handler); }

void setCloseTabQuestionHandler(std::function<bool()> handler) { g_closeTabHandler = std::move(handler); }

void showAlert(QWidget* parent, const QString& message, const QString& informativeText) {
  if (g_alertHandler) return g_alertHandler(message, informativeText);
  // Nobody can press OK on a screen that is not there (a headless run): the alert
  // goes to the log instead of holding the main loop for ever.
  if (QGuiApplication::platformName() == QLatin1String("offscreen")) {
    KyoLog("%s: %s", message.toUtf8().constData(), informativeText.toUtf8().constData());
    return;
  }
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

namespace {
// A warning with a button that goes on and "Cancel"; true when the first was chosen.
// The default is the button that goes on only where nothing is lost by a slip.
bool confirm(QWidget* parent, const QString& message, const QString& informativeText, const QString& goOn,
             QMessageBox::ButtonRole role, bool goOnIsDefault) {
  QMessageBox box(parent);
  box.setIcon(QMessageBox::Warning);
  box.setText(message);
  box.setInformativeText(informativeText);
  QPushButton* accept = box.addButton(goOn, role);
  QPushButton* cancel = box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
  box.setDefaultButton(goOnIsDefault ? accept : cancel);
  box.setEscapeButton(cancel);
  box.exec();
  return box.clickedButton() == accept;
}
}  // namespace

bool confirmCloseTab(QWidget* parent) {
  if (g_closeTabHandler) return g_closeTabHandler();
  // Undoable, so the default may go on.
  return confirm(parent, QStringLiteral("Are you sure you want to close this tab?"),
                 QStringLiteral("All cues in this cart will be removed."), QStringLiteral("OK"),
                 QMessageBox::AcceptRole, true);
}

bool confirmRevert(QWidget* parent, const QString& documentName) {
  if (g_revertHandler) return g_revertHandler(documentName);
  return confirm(parent,
                 QStringLiteral("Do you want to revert to the most recently saved version of the document \u201C%1\u201D?")
                     .arg(documentName),
                 QStringLiteral("Your current changes will be lost."), QStringLiteral("Revert"),
                 QMessageBox::DestructiveRole, false);
}

void showSavingError(QWidget* parent, const SavingError& error) {
  const QString message = QString::fromStdString(error.message);
  if (g_alertHandler) return g_alertHandler(message, QString());
  QMessageBox box(parent);
  box.setIcon(QMessageBox::Warning);
  box.setText(message);
  for (const std::string& option : error.recoveryOptions) {
    box.addButton(QString::fromStdString(option), QMessageBox::AcceptRole);
  }
  if (error.recoveryOptions.empty()) box.addButton(QStringLiteral("OK"), QMessageBox::AcceptRole);
  box.exec();
}

QStringList chooseShowsToOpen(QWidget* parent) {
  if (g_openPanelHandler) return g_openPanelHandler();
  QFileDialog panel(parent, QStringLiteral("Open"));
  panel.setAcceptMode(QFileDialog::AcceptOpen);
  panel.setFileMode(QFileDialog::Directory);
  panel.setNameFilter(kShowFilter);
  panel.setOption(QFileDialog::ShowDirsOnly, false);
  if (panel.exec() != QDialog::Accepted) return {};
  QStringList paths;
  for (const QString& path : panel.selectedFiles()) paths << packageOf(path);
  return paths;
}

QString chooseSaveLocation(QWidget* parent, const QString& suggestedName) {
  if (g_savePanelHandler) return g_savePanelHandler(suggestedName);
  QFileDialog panel(parent, QStringLiteral("Save As"));
  panel.setAcceptMode(QFileDialog::AcceptSave);
  panel.setFileMode(QFileDialog::AnyFile);
  panel.setNameFilter(kShowFilter);
  panel.setDefaultSuffix(QString::fromLatin1(WorkspaceFile::kExtension));
  panel.selectFile(suggestedName + QStringLiteral(".") + QString::fromLatin1(WorkspaceFile::kExtension));
  if (panel.exec() != QDialog::Accepted || panel.selectedFiles().isEmpty()) return {};
  return panel.selectedFiles().first();
}

}  // namespace SontoAlerts
