// The document layer on real packages in a temporary folder: save as, the edited
// mark, revert, the question on close, open and open recent, and packages that
// cannot be read.
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include "KyoUI/PSMTabView.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include "SurfaceTestSupport.h"
#include "show/Workspace.h"
#include "support/TestFiles.h"
#include "surface/GridController.h"
#include "surface/SettingsController.h"
#include "surface/SontoAlerts.h"
#include "surface/SontoDocumentController.h"
#include "surface/WorkspaceController.h"

namespace {

QString freshFolder(const std::string& name) {
  const QString path = QString::fromStdString(sonto::test::temporaryPath(name));
  QDir(path).removeRecursively();
  QDir().mkpath(path);
  return path;
}

// The dialogs answered by the test for its life.
struct Answers {
  Answers() {
    SontoAlerts::setSavePanelHandler([this](const QString& suggested) {
      suggestions << suggested;
      return savePath;
    });
    SontoAlerts::setOpenPanelHandler([this] { return openPaths; });
    SontoAlerts::setSaveQuestionHandler([this](const QString& name, bool) {
      questions << name;
      return answer;
    });
    SontoAlerts::setAlertHandler([this](const QString& message, const QString&) { alerts << message; });
  }
  ~Answers() {
    SontoAlerts::setSavePanelHandler({});
    SontoAlerts::setOpenPanelHandler({});
    SontoAlerts::setSaveQuestionHandler({});
    SontoAlerts::setAlertHandler({});
  }
  QString savePath;
  QStringList openPaths;
  SontoAlerts::Answer answer = SontoAlerts::Answer::Cancel;
  QStringList suggestions, questions, alerts;
};

// Windows that the document controller opened, closed at the end of the test.
void closeOpenedWindows() {
  SontoAlerts::setSaveQuestionHandler([](const QString&, bool) { return SontoAlerts::Answer::DontSave; });
  for (WorkspaceController* window : SontoDocumentController::sharedDocumentController().documents()) {
    if (window->testAttribute(Qt::WA_DeleteOnClose)) window->close();
  }
  SontoAlerts::setSaveQuestionHandler({});
  QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

}  // namespace

// Save as names the show after its package; edits mark it, revert takes them back
// with the package's carts; a second save goes to the same package.
TEST(Document, SaveAsEditRevertOnARealPackage) {
  FakeSources sources;
  Answers answers;
  const QString folder = freshFolder("doc-save");
  TestWindow t;
  const std::string take = sonto::test::temporaryPath("doc-take.wav");
  ASSERT_TRUE(sonto::test::writeRampFile(take, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, 4800));
  ASSERT_EQ(dropFiles(t.grid(), {QString::fromStdString(take)}, 2), 1);
  QApplication::processEvents();
  ASSERT_TRUE(t.window->isWindowModified());
  EXPECT_TRUE(t.window->windowTitle().startsWith("Untitled"));

  answers.savePath = folder + "/Evening";  // the extension is added
  bool saved = false;
  t.window->saveDocumentAs([&] { saved = true; });
  ASSERT_TRUE(pumpUntil([&] { return saved || !answers.alerts.isEmpty(); }));
  ASSERT_TRUE(saved) << answers.alerts.join("; ").toStdString();
  EXPECT_TRUE(answers.suggestions.value(0).startsWith("Untitled"));
  const QString package = folder + "/Evening.sonto";
  EXPECT_TRUE(QFileInfo(package + "/document").isFile());
  EXPECT_TRUE(QFileInfo(package + "/Media/doc-take.wav").isFile());
  EXPECT_EQ(t.window->windowTitle(), "Evening[*]");
  EXPECT_FALSE(t.window->isWindowModified());
  EXPECT_EQ(SontoDocumentController::sharedDocumentController().recentDocuments().value(0), package);

  // Edits of the grid and of the settings sheet both mark the show.
  t.grid()->setCartName("Act Two");
  t.window->newTab();
  QApplication::processEvents();
  EXPECT_TRUE(t.window->isWindowModified());
  // Revert asks first; Cancel keeps the edits.
  QStringList asked;
  bool goOn = false;
  SontoAlerts::setRevertQuestionHandler([&](const QString& name) {
    asked << name;
    return goOn;
  });
  t.window->revertDocumentToSaved();
  EXPECT_TRUE(t.window->isWindowModified());
  EXPECT_EQ(t.window->tabView()->count(), 2);
  goOn = true;
  t.window->revertDocumentToSaved();
  SontoAlerts::setRevertQuestionHandler({});
  EXPECT_EQ(asked, QStringList({"Evening", "Evening"}));
  EXPECT_FALSE(t.window->isWindowModified());
  ASSERT_EQ(t.window->tabView()->count(), 1);
  EXPECT_EQ(t.window->tabView()->itemAt(0).label, "Cart 1");
  ASSERT_NE(t.grid()->cart()->cueAtIndex(2), nullptr);
  EXPECT_TRUE(t.workspace()->undoManager()->undoCount() == 0);

  t.window->editWorkspaceSettings();
  SettingsController* sheet = t.window->settingsController();
  ASSERT_TRUE(sheet);
  t.workspace()->settings().setMidiChannel(5);
  sheet->refreshView();
  EXPECT_FALSE(t.window->isWindowModified());
  sheet->resetToDefaults();
  EXPECT_TRUE(t.window->isWindowModified());
  EXPECT_EQ(t.workspace()->midiChannel(), 0);
  sheet->close();

  // Saved again in place: no panel, the same package, the mark gone.
  saved = false;
  answers.savePath.clear();
  t.window->saveDocument([&] { saved = true; });
  ASSERT_TRUE(pumpUntil([&] { return saved || !answers.alerts.isEmpty(); }));
  EXPECT_TRUE(saved);
  EXPECT_EQ(answers.suggestions.size(), 1);
  EXPECT_FALSE(t.window->isWindowModified());

  // A save as into a folder that cannot exist fails with its message; the show
  // keeps its file and its mark.
  t.grid()->setCartName("Unsaved");
  QApplication::processEvents();
  answers.savePath = "/proc/sonto/none/Show";
  saved = false;
  t.window->saveDocumentAs([&] { saved = true; });
  ASSERT_TRUE(pumpUntil([&] { return saved || !answers.alerts.isEmpty(); }));
  EXPECT_FALSE(saved);
  EXPECT_FALSE(answers.alerts.value(0).isEmpty());
  EXPECT_EQ(t.window->windowTitle(), "Evening[*]");
  EXPECT_TRUE(t.window->isWindowModified());
}

// Closing an edited show asks once: Cancel keeps it, Save closes it after the save
// and the package holds the edit; opening it again shows the edit, and opening it a
// second time brings the same window forward.
TEST(Document, CloseAsksAndSaveThenCloseKeepsTheEdit) {
  Answers answers;
  const QString folder = freshFolder("doc-close");
  auto& documents = SontoDocumentController::sharedDocumentController();
  WorkspaceController* window = documents.newDocument();
  window->controllerForTab(0)->setCartName("Finale");
  QApplication::processEvents();
  ASSERT_TRUE(window->isWindowModified());

  answers.answer = SontoAlerts::Answer::Cancel;
  EXPECT_FALSE(window->close());
  EXPECT_EQ(answers.questions.size(), 1);
  EXPECT_NE(window->workspace(), nullptr);

  answers.answer = SontoAlerts::Answer::Save;
  answers.savePath = folder + "/Finale.sonto";
  QPointer<WorkspaceController> watched(window);
  const std::string tmp = window->workspace()->tmpPath();
  window->close();
  ASSERT_TRUE(pumpUntil([&] {
    QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return watched.isNull();
  }));
  EXPECT_EQ(answers.questions.size(), 2);
  EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(tmp))) << "the temporary folder goes with the show";

  const size_t before = documents.documents().size();
  EXPECT_EQ(documents.openDocuments({answers.savePath}), 1);
  ASSERT_EQ(documents.documents().size(), before + 1);
  WorkspaceController* opened = documents.documents().back();
  EXPECT_EQ(opened->tabView()->itemAt(0).label, "Finale");
  EXPECT_EQ(opened->windowTitle(), "Finale[*]");
  EXPECT_FALSE(opened->isWindowModified());
  // The same package by another spelling is the same show.
  EXPECT_EQ(documents.openDocuments({folder + "/./Finale.sonto/"}), 1);
  EXPECT_EQ(documents.documents().size(), before + 1);
  EXPECT_EQ(documents.recentDocuments().value(0), answers.savePath);
  closeOpenedWindows();
}

// Packages that cannot be read say why and open nothing, and leave no temporary
// folder behind.
TEST(Document, UnreadablePackagesOpenNothing) {
  Answers answers;
  const QString folder = freshFolder("doc-bad");
  QDir().mkpath(folder + "/Garbage.sonto");
  QFile garbage(folder + "/Garbage.sonto/document");
  ASSERT_TRUE(garbage.open(QIODevice::WriteOnly));
  garbage.write(QByteArray("{\"carts\": [1, 2", 15));
  garbage.close();
  QDir().mkpath(folder + "/Empty.sonto");
  QFile plain(folder + "/plain.txt");
  ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
  plain.write("not a show");
  plain.close();
  const QString cache = QString::fromLocal8Bit(qgetenv("XDG_CACHE_HOME")) + "/Sonto";
  const qsizetype tmpFolders = QDir(cache).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();

  auto& documents = SontoDocumentController::sharedDocumentController();
  const size_t before = documents.documents().size();
  answers.openPaths = {folder + "/Garbage.sonto", folder + "/Empty.sonto", folder + "/plain.txt",
                       folder + "/Missing.sonto"};
  documents.openDocument(nullptr);
  EXPECT_EQ(documents.documents().size(), before);
  ASSERT_EQ(answers.alerts.size(), 4);
  for (const QString& alert : answers.alerts) EXPECT_FALSE(alert.isEmpty());
  EXPECT_EQ(QDir(cache).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), tmpFolders);
}
