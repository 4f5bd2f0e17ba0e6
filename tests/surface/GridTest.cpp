// The grid and its pads: layout arithmetic, arrow-key neighbours, files dropped
// from a file manager (good, broken and hostile ones), moves, copies and their
// undo, and a screenshot of a filled grid kept as an artifact of the build.
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMimeData>
#include <QTest>
#include <QUrl>

#include <gtest/gtest.h>

#include <sndfile.h>

#include "SurfaceTestSupport.h"
#include "support/TestFiles.h"
#include "foundation/SontoColor.h"
#include "show/Cart.h"
#include "show/SontoUndoManager.h"
#include "show/Workspace.h"
#include "surface/CueCellController.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/SontoAlerts.h"
#include "surface/WorkspaceController.h"

namespace {

constexpr unsigned NF = GridView::kNotFound;

std::string rampWav(const std::string& name) {
  const std::string path = sonto::test::temporaryPath(name);
  EXPECT_TRUE(sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, 4800));
  return path;
}

std::string textFile(const std::string& name, const QByteArray& contents) {
  const std::string path = sonto::test::temporaryPath(name);
  QFile file(QString::fromStdString(path));
  EXPECT_TRUE(file.open(QIODevice::WriteOnly));
  file.write(contents);
  return path;
}

}  // namespace

TEST(GridView, LayoutInWholeUnitsWithSlackRightAndBelow) {
  struct Case {
    float width, height;
    QSize view;
    QRect first, last;
  };
  const Case cases[] = {
      {1, 1, {100, 100}, {4, 4, 92, 92}, {4, 4, 92, 92}},
      // (804 - 4 - 12) / 5 = 157.6 and (600 - 4 - 10) / 4 = 146.5, truncated.
      {5, 4, {804, 600}, {4, 4, 157, 146}, {4 + 4 * 159, 4 + 3 * 148, 157, 146}},
      {3, 2, {301, 203}, {4, 4, 96, 96}, {4 + 2 * 98, 4 + 98, 96, 96}},
  };
  for (const Case& c : cases) {
    TestWindow t;
    GridController* grid = t.grid();
    grid->cart()->setSize({c.width, c.height});
    // Inside a hidden plain parent, so that the size is exactly the one given.
    QWidget holder;
    grid->gridView()->setParent(&holder);
    grid->gridView()->setGeometry(QRect(QPoint(0, 0), c.view));
    grid->reloadData();
    const auto& cells = grid->gridView()->cells();
    ASSERT_EQ(cells.size(), static_cast<size_t>(c.width * c.height));
    EXPECT_EQ(cells.front()->view()->geometry(), c.first) << c.width << "x" << c.height;
    EXPECT_EQ(cells.back()->view()->geometry(), c.last) << c.width << "x" << c.height;
    EXPECT_LE(cells.back()->view()->geometry().right(), c.view.width() - 4);
    // Resizing keeps the cells, and with them their state.
    CueCellController* before = cells.front().get();
    grid->gridView()->setGeometry(QRect(QPoint(0, 0), c.view + QSize(50, 50)));
    EXPECT_EQ(grid->gridView()->cells().front().get(), before);
    grid->gridView()->setParent(nullptr);  // the window deletes it as it closes
  }
}

TEST(GridController, NeighboursWrapVerticallyAndRunOffHorizontally) {
  TestWindow t;
  GridController* grid = t.grid();
  struct Case {
    float width, height;
    unsigned index, above, below, right, left;
  };
  const Case cases[] = {
      {4, 4, 0, 12, 4, 1, NF},  {4, 4, 15, 11, 3, NF, 14}, {4, 4, NF, 0, 0, 0, 15},
      {5, 5, 2, 22, 7, 3, 1},   {5, 5, 24, 19, 4, NF, 23}, {3, 2, 4, 1, 1, 5, 3},
      {1, 1, 0, 0, 0, NF, NF},
  };
  for (const Case& c : cases) {
    grid->cart()->setSize({c.width, c.height});
    if (c.index != NF) {
      EXPECT_EQ(grid->indexAboveIndex(c.index), c.above) << c.width << "x" << c.height << " at " << c.index;
      EXPECT_EQ(grid->indexBelowIndex(c.index), c.below) << c.width << "x" << c.height << " at " << c.index;
      EXPECT_EQ(grid->indexRightOfIndex(c.index), c.right) << c.width << "x" << c.height << " at " << c.index;
    }
    EXPECT_EQ(grid->indexLeftOfIndex(c.index), c.left) << c.width << "x" << c.height << " at " << c.index;
  }
  // Arrow keys: nothing selected goes to the first cell, left from nothing to the last.
  grid->cart()->setSize({4, 4});
  grid->reloadData();
  GridView* view = grid->gridView();
  view->setSelectedIndex(NF);
  tapKey(view, Qt::Key_Down, 108, "");
  EXPECT_EQ(view->selectedIndex(), 0u);
  tapKey(view, Qt::Key_Up, 103, "");
  EXPECT_EQ(view->selectedIndex(), 12u);
  view->setSelectedIndex(NF);
  tapKey(view, Qt::Key_Left, 105, "");
  EXPECT_EQ(view->selectedIndex(), 15u);
}

// Files dropped from a file manager become cues with the slot's default key and
// note; the import runs on through free slots and stops at the first file that is
// no audio, keeping what came before it.
TEST(GridController, DroppedFilesBecomeCuesAndBadFilesStopTheImport) {
  FakeSources sources;
  TestWindow t;
  GridController* grid = t.grid();
  const std::string a = rampWav("drop-a.wav"), b = rampWav("drop-b.wav"), c = rampWav("drop-c.wav");
  const std::string notAudio = textFile("drop-notes.wav", "this is not a wave file\n");
  const std::string empty = textFile("drop-empty.flac", "");
  const std::string garbage = textFile("drop-garbage.mp3", QByteArray(4096, '\xff'));

  EXPECT_EQ(dropFiles(grid, {QString::fromStdString(a), QString::fromStdString(b)}, 0, true), 2);
  auto* first = dynamic_cast<AudioCue*>(grid->cart()->cueAtIndex(0));
  auto* second = dynamic_cast<AudioCue*>(grid->cart()->cueAtIndex(1));
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->hotkey(), "1");
  EXPECT_EQ(second->hotkey(), "2");
  EXPECT_EQ(first->midiNote(), 0);
  EXPECT_EQ(second->midiNote(), 1);
  // Copies in the show's temporary folder, playing on its device.
  EXPECT_FALSE(first->isBroken()) << first->brokenExplanation();
  EXPECT_EQ(first->file(), t.workspace()->tmpPath() + "/drop-a.wav");
  EXPECT_TRUE(t.workspace()->containsMediaFile(second->file()));

  // A file dropped on a taken slot replaces its cue and keeps its key; the next
  // goes to the next free slot, and the file that is no audio ends the import.
  second->setColor(SontoColor::redColor());
  EXPECT_EQ(dropFiles(grid, {QString::fromStdString(c), QString::fromStdString(notAudio),
                                        QString::fromStdString(a)},
                                       1, true),
            1);
  auto* replaced = dynamic_cast<AudioCue*>(grid->cart()->cueAtIndex(1));
  ASSERT_TRUE(replaced);
  EXPECT_NE(replaced, second);
  EXPECT_EQ(QFileInfo(QString::fromStdString(replaced->file())).fileName(), "drop-c.wav");
  EXPECT_EQ(replaced->hotkey(), "2");
  EXPECT_EQ(replaced->color().name(), SontoColor::redColor().name());
  EXPECT_EQ(grid->cart()->cueAtIndex(2), nullptr);
  for (const std::string& bad : {notAudio, empty, garbage, std::string("/nonexistent/sonto/x.wav")}) {
    EXPECT_EQ(dropFiles(grid, {QString::fromStdString(bad)}, 8, true), 0) << bad;
    EXPECT_EQ(grid->cart()->cueAtIndex(8), nullptr) << bad;
  }
  EXPECT_EQ(dropFiles(grid, {}, 0, true), 0);
}

// A file that the check accepts but whose source cannot play it gives a broken cue
// in its slot, never a crash.
TEST(GridController, UnplayableFileGivesABrokenCue) {
  FakeSources sources(false);
  TestWindow t;
  GridController* grid = t.grid();
  const std::string a = rampWav("broken-a.wav");
  EXPECT_EQ(dropFiles(grid, {QString::fromStdString(a)}, 3, false), 1);
  Cue* cue = grid->cart()->cueAtIndex(3);
  ASSERT_NE(cue, nullptr);
  EXPECT_TRUE(cue->isBroken());
  EXPECT_EQ(cue->brokenExplanation(), "Invalid audio file.");
  EXPECT_EQ(cue->hotkey(), "");  // files from the open panel take no default key
}

// The same through a real drop on a pad, as a file manager sends it.
TEST(CueCell, DropEventOfFileURLsMakesCues) {
  FakeSources sources;
  TestWindow t;
  GridController* grid = t.grid();
  const std::string a = rampWav("event-a.wav");
  CueCellController* cell = grid->gridView()->cellAtIndex(6);
  QMimeData data;
  data.setUrls({QUrl::fromLocalFile(QString::fromStdString(a)), QUrl("https://example.invalid/x.wav")});
  QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(cell->view(), &enter);
  EXPECT_TRUE(enter.isAccepted());
  EXPECT_TRUE(grid->gridView()->showDefaultHotkeys());
  QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(cell->view(), &drop);
  EXPECT_FALSE(grid->gridView()->showDefaultHotkeys());
  ASSERT_TRUE(pumpUntil([&] { return !grid->isImporting(); }));
  ASSERT_NE(grid->cart()->cueAtIndex(6), nullptr);
  EXPECT_EQ(grid->cart()->cueAtIndex(6)->hotkey(), "E");

  // Show mode takes no drop.
  t.window->setShowMode();
  QDragEnterEvent refused(QPoint(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(grid->gridView()->cellAtIndex(6)->view(), &refused);
  EXPECT_FALSE(refused.isAccepted());
}

TEST(GridController, MoveSwapsCopyDuplicatesDeleteUndoes) {
  FakeSources sources;
  TestWindow t;
  GridController* grid = t.grid();
  SontoUndoManager* undo = t.window->undoManager();
  Cart* cart = grid->cart();
  auto a = countingCue("A", "1");
  auto b = countingCue("B", "2");
  grid->addCue(a, 0);
  grid->addCue(b, 1);
  QApplication::processEvents();

  grid->gridViewDidMoveCueFromIndex(0, 1);  // onto an occupied cell: a swap
  EXPECT_EQ(cart->cueAtIndex(1), a.get());
  EXPECT_EQ(cart->cueAtIndex(0), b.get());
  undo->undo();
  EXPECT_EQ(cart->cueAtIndex(0), a.get());
  EXPECT_EQ(cart->cueAtIndex(1), b.get());

  grid->gridViewDidCopyCueFromIndex(0, 1);  // occupied target: nothing
  EXPECT_EQ(cart->cueAtIndex(1), b.get());
  grid->gridViewDidCopyCueFromIndex(0, 7);
  ASSERT_NE(cart->cueAtIndex(7), nullptr);
  EXPECT_NE(cart->cueAtIndex(7), a.get());
  EXPECT_EQ(cart->cueAtIndex(7)->name(), "A");
  QApplication::processEvents();
  EXPECT_EQ(undo->undoActionName(), "Duplicate Cue");

  // Delete hard-stops the cue; undo brings the same cue back to its slot.
  grid->gridView()->setSelectedIndex(1);
  tapKey(grid->gridView(), Qt::Key_Delete, kEvdevDelete, "");
  EXPECT_EQ(cart->cueAtIndex(1), nullptr);
  EXPECT_GE(b->hardStops, 1);
  QApplication::processEvents();
  EXPECT_EQ(undo->undoActionName(), "Delete Cue");
  undo->undo();
  EXPECT_EQ(cart->cueAtIndex(1), b.get());
  EXPECT_FALSE(b->playing());

  // Paste goes round to the one free cell of a full grid, and a full grid alerts.
  grid->setCartSize({2, 2});
  QApplication::processEvents();
  auto c = countingCue("C", "3");
  grid->addCue(c, 3);
  ASSERT_EQ(cart->cueAtIndex(2), nullptr);
  grid->gridView()->setSelectedIndex(3);
  grid->handlePasteCue(a->copyAudioCue());
  EXPECT_NE(cart->cueAtIndex(2), nullptr);
  QString alert;
  SontoAlerts::setAlertHandler([&](const QString& message, const QString&) { alert = message; });
  grid->handlePasteCue(a->copyAudioCue());
  SontoAlerts::setAlertHandler({});
  EXPECT_EQ(alert, "No empty slot to paste a cue into.");
}

// A filled grid drawn offscreen, kept beside the test binary for a person to look
// at; only that it was drawn is checked.
TEST(CueCell, ScreenshotOfAFilledGrid) {
  FakeSources sources;
  TestWindow t;
  t.window->resize(1100, 760);
  GridController* grid = t.grid();
  grid->cart()->setSize({5, 4});
  grid->reloadData();
  const auto& colors = SontoColor::colors();
  const char* names[] = {"Walk-in music", "Door slam", "Thunder (long)", "Phone ring", "Birdsong loop",
                         "Crowd cheer",   "Car pass-by", "Clock chime", "Interval bell", "Rain"};
  for (unsigned i = 0; i < 10; ++i) {
    auto cue = countingCue(names[i], grid->defaultHotkeyForIndex(i * 2));
    cue->setColor(SontoColor::colorWithName(colors[i % colors.size()]));
    cue->setEndTimeValue(30.0 + i * 7.0);
    cue->setProgress(0.1f * static_cast<float>(i));
    cue->setLoopsValue(i % 3 == 0);
    cue->setHold(i % 4 == 1);
    cue->setPlaying(i % 2 == 0);
    grid->addCue(cue, i * 2);
  }
  grid->gridView()->setSelectedIndex(4);
  QApplication::processEvents();
  const QPixmap shot = t.window->grab();
  const QString folder = QCoreApplication::applicationDirPath() + "/artifacts";
  QDir().mkpath(folder);
  EXPECT_TRUE(shot.save(folder + "/grid-edit.png"));
  t.window->setShowMode();
  QApplication::processEvents();
  EXPECT_TRUE(t.window->grab().save(folder + "/grid-show.png"));
  EXPECT_GT(shot.width(), 0);
  for (unsigned i = 0; i < 10; ++i) grid->cart()->sharedCueAtIndex(i * 2)->hardStop();
}
