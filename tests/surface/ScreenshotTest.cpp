// The real window on an X server (ctest runs this under xvfb-run as "screenshots"):
// a filled grid and the demo show, each in edit mode and in show mode, grabbed from
// the screen to PNG files
// that stay in the build folder for people to look at. Nothing is compared pixel by
// pixel; the test fails when the window cannot be shown, when a grab comes back
// empty or flat, or when the pads do not carry their cues' colours.
#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QLabel>
#include <QPainter>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPixmap>
#include <QPushButton>
#include <QTableWidget>
#include <QToolButton>
#include <QScreen>
#include <QSet>
#include <QTest>
#include <QUrl>

#include <gtest/gtest.h>

#include <cmath>
#include <optional>

#include "SoundTestSupport.h"
#include "SurfaceTestSupport.h"
#include "effects/KyoEffect.h"
#include "effects/ui/KyoEffectListView.h"
#include "foundation/SontoColor.h"
#include "show/AudioCue.h"
#include "show/Workspace.h"
#include "show/WorkspaceFile.h"
#include "surface/AudioWaveform.h"
#include "surface/AudioWaveformView.h"
#include "surface/BrokenCueController.h"
#include "surface/CueCellController.h"
#include "surface/CueInspectorController.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/InspectorController.h"
#include "surface/WorkspaceController.h"
#include "surface/SontoTheme.h"
#include "KyoUI/PSMMetalTabStyle.h"
#include "KyoUI/PSMTabBarControl.h"
#include "KyoUI/PopoverWindow.h"

// On a real X server Qt talks to the session bus, and libdbus keeps a buffer of its
// own to the end of the process; a plugin interface drawn with OpenGL leaves Mesa's
// software driver its buffers. Neither is ours to free, so LeakSanitizer is told.
extern "C" const char* __lsan_default_suppressions() { return "leak:libdbus-1.so\nleak:swrast_dri.so\n"; }

namespace {

bool onRealDisplay() { return QGuiApplication::platformName() == QLatin1String("xcb"); }

QString artifactsDir() {
  QString dir = qEnvironmentVariable("SONTO_ARTIFACTS_DIR");
  if (dir.isEmpty()) dir = qEnvironmentVariable("SONTO_TEST_TMP", QDir::tempPath()) + "/artifacts";
  QDir().mkpath(dir);
  return dir;
}

// What the X server shows of the window, not what the widgets would paint.
QImage grabFromScreen(QWidget* window) {
  QApplication::processEvents();
  QScreen* screen = window->screen();
  if (!screen) return {};
  return screen->grabWindow(window->winId()).toImage().convertToFormat(QImage::Format_RGB32);
}

struct Rgb {
  double r = 0, g = 0, b = 0;
  double distanceTo(const Rgb& o) const { return std::hypot(r - o.r, g - o.g, b - o.b); }
};

Rgb average(const QImage& image, const QRect& area) {
  Rgb sum;
  int n = 0;
  const QRect inside = area.intersected(image.rect());
  for (int y = inside.top(); y <= inside.bottom(); ++y)
    for (int x = inside.left(); x <= inside.right(); ++x, ++n) {
      const QRgb p = image.pixel(x, y);
      sum.r += qRed(p), sum.g += qGreen(p), sum.b += qBlue(p);
    }
  if (n == 0) return {};
  return {sum.r / n, sum.g / n, sum.b / n};
}

Rgb middleOf(const SontoColor& color) {
  const KyoRGBA m = color.gradient().colorAtLocation(0.5);
  return {m.red * 255, m.green * 255, m.blue * 255};
}

// A cell's area in the grabbed image, inset past its glow and outline.
QRect cellArea(WorkspaceController* window, GridView* grid, unsigned index, qreal scale) {
  QWidget* view = grid->cells()[index]->view();
  const QRect r = view->rect().adjusted(10, 10, -10, -10);
  const QPoint topLeft = view->mapTo(window, r.topLeft());
  return QRectF(QPointF(topLeft) * scale, QSizeF(r.size()) * scale).toRect();
}

int distinctColours(const QImage& image) {
  QSet<QRgb> seen;
  for (int y = 0; y < image.height(); y += 2)
    for (int x = 0; x < image.width(); x += 2) seen.insert(image.pixel(x, y));
  return static_cast<int>(seen.size());
}

// The public index of the first pad of the grid whose cue wears `color`.
std::optional<unsigned> padWithColour(GridController* grid, const SontoColor& color) {
  for (unsigned i = 0; i < grid->slotCount(); ++i) {
    auto* cue = dynamic_cast<AudioCue*>(grid->cueForIndex(i));
    if (cue && cue->color().isEqualToColor(color)) return i;
  }
  return std::nullopt;
}

// Edit mode, then show mode, each grabbed to <prefix>-edit-mode.png and
// <prefix>-show-mode.png; the visible grid must hold a red and a blue pad.
void shootBothModes(WorkspaceController* window, GridController* grid, const QString& prefix) {
  ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
  const auto redPad = padWithColour(grid, SontoColor::redColor());
  const auto bluePad = padWithColour(grid, SontoColor::blueColor());
  ASSERT_TRUE(redPad && bluePad);
  const qreal scale = window->devicePixelRatio();
  struct Mode {
    const char* name;
    void (WorkspaceController::*enter)();
  };
  for (const Mode& mode : {Mode{"edit", &WorkspaceController::setEditMode},
                           Mode{"show", &WorkspaceController::setShowMode}}) {
    SCOPED_TRACE(mode.name);
    (window->*mode.enter)();
    QApplication::processEvents();
    const QImage image = grabFromScreen(window);
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(image.size(), (QSizeF(window->size()) * scale).toSize());
    // A window that did not paint comes back in one colour (or a few, with a frame).
    EXPECT_GT(distinctColours(image), 64);

    // Each pad wears its cue's colour: nearer its own than the other's.
    const Rgb red = average(image, cellArea(window, grid->gridView(), *redPad, scale));
    const Rgb blue = average(image, cellArea(window, grid->gridView(), *bluePad, scale));
    const Rgb redMiddle = middleOf(SontoColor::redColor()), blueMiddle = middleOf(SontoColor::blueColor());
    EXPECT_LT(red.distanceTo(redMiddle), red.distanceTo(blueMiddle));
    EXPECT_LT(blue.distanceTo(blueMiddle), blue.distanceTo(redMiddle));

    const QString path = artifactsDir() + "/" + prefix + "-" + mode.name + "-mode.png";
    ASSERT_TRUE(image.save(path, "PNG")) << path.toStdString();
    EXPECT_EQ(QImage(path).size(), image.size());
  }
  window->setEditMode();
}

struct Pad {
  const char* name;
  SontoColor (*color)();
  bool loops = false, hold = false, solo = false;
};

const Pad kPads[] = {
    {"Fanfare", SontoColor::redColor},         {"Bell", SontoColor::yellowColor},
    {"Countdown", SontoColor::orangeColor},    {"Applause", SontoColor::greenColor},
    {"Pad Loop", SontoColor::blueColor, true}, {"Wind Loop", SontoColor::lightblueColor, true},
    {"Thunder", SontoColor::purpleColor},      {"Drone", SontoColor::defaultColor, false, true},
    {"Pink Noise", SontoColor::defaultColor, false, false, true},
};

}  // namespace

TEST(Screenshot, FilledGridInEditAndShowMode) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server: ctest runs it under xvfb-run as 'screenshots'";
  FakeSources sources(true);
  TestWindow t;
  t.window->resize(1024, 700);
  GridController* grid = t.grid();
  grid->setCartSize({4.0f, 3.0f});
  for (unsigned i = 0; i < std::size(kPads); ++i) {
    auto cue = countingCue(kPads[i].name, grid->cart()->defaultHotkeyForIndex(i));
    cue->setColor(kPads[i].color());
    cue->setLoopsValue(kPads[i].loops);
    cue->setHold(kPads[i].hold);
    cue->setSolo(kPads[i].solo);
    grid->addCue(cue, i);
  }
  t.window->newTab();
  t.window->selectTab(1);
  shootBothModes(t.window, grid, "window");
}

// The show that `make run` opens, read from its package as the build left it, its
// carts laid into a window: every cue's media must be found inside the package.
TEST(Screenshot, DemoShow) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server: ctest runs it under xvfb-run as 'screenshots'";
  const QString package = qEnvironmentVariable("SONTO_DEMO_SHOW");
  if (package.isEmpty() || !QDir(package).exists()) GTEST_SKIP() << "no demo show in this build (ninja demo)";
  FakeSources sources(true);
  WorkspaceDocument document;
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::readPackage(QUrl::fromLocalFile(package), document, &error)) << error.message;
  ASSERT_EQ(document.carts.size(), 2u);

  TestWindow t;
  t.window->resize(1024, 700);
  const std::string media = QDir(package).filePath("Media").toStdString() + "/";
  for (size_t c = 0; c < document.carts.size(); ++c) {
    const Cart& cart = *document.carts[c];
    if (c > 0) t.window->newTab();
    GridController* grid = t.grid(static_cast<int>(c));
    grid->setCartSize(cart.size());
    grid->setCartName(cart.name());
    EXPECT_GE(cart.count(), 6u) << cart.name();
    for (const auto& [internalIndex, cue] : cart.cues()) {
      SCOPED_TRACE(cue->description());
      EXPECT_EQ(cue->file().rfind(media, 0), 0u);
      EXPECT_TRUE(QFileInfo(QString::fromStdString(cue->file())).isFile());
      EXPECT_FALSE(cue->hotkey().empty());
      // Read without a device, as the window's reader would bind it: on the show's output.
      if (auto* audio = dynamic_cast<AudioCue*>(cue.get())) audio->setAudioDevice(t.workspace()->audioDevice());
      grid->addCue(cue, static_cast<unsigned>(cart.indexForInternalIndex(internalIndex)));
    }
  }
  t.window->selectTab(1);
  shootBothModes(t.window, t.grid(0), "demo");
}

// Every palette colour on a pad in show mode with times, progress and marks: the upper
// rows lit, the lower ones held down; Pause All and Duck engaged, the keyboard on Duck.
TEST(Screenshot, PadsOfEveryColour) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server: ctest runs it under xvfb-run as 'screenshots'";
  FakeSources sources(true);
  TestWindow t;
  t.window->resize(1024, 760);
  GridController* grid = t.grid();
  grid->setCartSize({4.0f, 4.0f});
  const std::vector<std::string>& names = SontoColor::colors();
  std::vector<std::shared_ptr<CountingCue>> cues;
  for (unsigned i = 0; i < 2 * names.size(); ++i) {
    auto cue = countingCue(names[i % 8] + (i % 3 ? "" : " with a longer name"), grid->cart()->defaultHotkeyForIndex(i));
    cue->setColor(SontoColor::colorWithName(names[i % 8]));
    cue->setEndTimeValue(95.0);
    cue->setHold(i % 3 == 0), cue->setLoopsValue(i % 3 == 1), cue->setSolo(i % 4 == 2);
    cue->setPlaying(i % 4 == 1), cue->setPaused(i % 8 == 5), cue->setProgress(0.1f * float(i % 8) + 0.05f);
    grid->addCue(cue, i);
    cues.push_back(cue);
  }
  t.window->setShowMode();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(t.window));
  const auto& cells = grid->gridView()->cells();
  for (size_t i = names.size(); i < cues.size(); ++i) QTest::mousePress(cells[i]->view(), Qt::LeftButton);
  for (const char* name : {"pauseAllButton", "duckingButton"})
    t.window->findChild<QPushButton*>(QLatin1String(name))->setChecked(true);
  // After the presses, which take the keyboard to the grid.
  t.window->activateWindow();
  EXPECT_TRUE(QTest::qWaitForWindowActive(t.window));
  t.window->findChild<QPushButton*>(QStringLiteral("duckingButton"))->setFocus(Qt::TabFocusReason);
  const QImage image = grabFromScreen(t.window);
  EXPECT_GT(distinctColours(image), 64);
  EXPECT_TRUE(image.save(artifactsDir() + "/pads-palette.png", "PNG"));
  for (size_t i = names.size(); i < cues.size(); ++i) QTest::mouseRelease(cells[i]->view(), Qt::LeftButton);
  for (const auto& cue : cues) cue->setPlaying(false);
}

// The inspector on a real file: a stopped cue with a range selected on its waveform,
// then the same cue playing with its cursor. The waveform must have drawn: the pane
// holds more than the few colours of its empty fields.
TEST(Screenshot, InspectorOnAStoppedAndAPlayingCue) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server: ctest runs it under xvfb-run as 'screenshots'";
  sonto::test::EngineSources engine;
  sonto::test::Offline out;
  TestWindow t(out.device);
  t.window->resize(1100, 760);
  // Twelve seconds of a swelling, beating chord over a quiet bed: a shape to recognise.
  const double rate = 48000;
  std::vector<std::vector<float>> channels(2, std::vector<float>(size_t(12 * rate)));
  for (size_t i = 0; i < channels[0].size(); ++i) {
    const double t = double(i) / rate;
    const double swell = 0.15 + 0.75 * std::pow(std::sin(3.14159 * t / 12.0), 2) * (0.6 + 0.4 * std::sin(6.283 * 0.5 * t));
    channels[0][i] = float(swell * std::sin(6.283 * 220 * t));
    channels[1][i] = float(swell * 0.8 * std::sin(6.283 * 330 * t));
  }
  const std::string file = sonto::test::temporaryPath("Chord Swell.wav");
  ASSERT_TRUE(sonto::test::writeFloatWav(file, rate, channels));
  GridController* grid = t.grid();
  grid->setCartSize({5.0f, 2.0f});
  ASSERT_EQ(dropFiles(grid, {QString::fromStdString(file)}, 2), 1);
  auto* cue = dynamic_cast<AudioCue*>(grid->cueForIndex(2));
  ASSERT_TRUE(cue);
  cue->setColor(SontoColor::orangeColor());
  cue->setStartTime(1.5);
  cue->setEndTime(10.25);
  grid->gridView()->setSelectedIndex(2);
  ASSERT_TRUE(QTest::qWaitForWindowExposed(t.window));
  CueInspectorController* inspector = t.window->inspectorController()->cueInspectorController();
  AudioWaveformView* view = inspector->waveformView();
  ASSERT_TRUE(pumpUntil([&] { return view->waveform() && view->waveform()->isComplete(); }));
  // A range dragged out on the waveform, as an operator would before Set from Selection.
  const int y = view->height() / 2;
  QTest::mousePress(view, Qt::LeftButton, {}, QPoint(int(view->pixelsPerSecond() * 4.0f), y));
  QTest::mouseMove(view, QPoint(int(view->pixelsPerSecond() * 6.0f), y));
  QTest::mouseRelease(view, Qt::LeftButton, {}, QPoint(int(view->pixelsPerSecond() * 6.0f), y));
  t.window->activateWindow();
  EXPECT_TRUE(QTest::qWaitForWindowActive(t.window));
  inspector->nameField()->setFocus(Qt::TabFocusReason);
  QApplication::processEvents();
  const QRect pane(t.window->inspectorController()->inspectorView()->mapTo(t.window, QPoint(0, 0)),
                   t.window->inspectorController()->inspectorView()->size());
  QImage image = grabFromScreen(t.window);
  EXPECT_GT(distinctColours(image.copy(pane)), 64);
  EXPECT_TRUE(image.save(artifactsDir() + "/inspector-cue.png", "PNG"));

  ASSERT_TRUE(sonto::test::readyToPlay(cue));
  cue->play();
  KyoHAL::shared().pullOffline(out.id, 300);  // three seconds in: 4.5 s into the file
  cue->setProgress(cue->progress());
  t.window->updateAudioLevels();  // the meter as its timer would leave it now
  QApplication::processEvents();
  EXPECT_GT(view->cursorPosition(), view->pixelsPerSecond() * 4.0f);
  image = grabFromScreen(t.window);
  EXPECT_TRUE(image.save(artifactsDir() + "/inspector-playing.png", "PNG"));
  cue->hardStop();
}

// The warning popover on the dark window, on four sides: arrows down, up, right and
// (square corner beside it) down at the box's left end. Painted, not grabbed, so the
// offscreen run makes it too; each box must show its white border.
TEST(Screenshot, AttachedWindowSides) {
  const QColor dark = SontoTheme::darkPalette().window().color();
  const int sides[] = {MAPositions::Above, MAPositions::Below, MAPositions::Left, MAPositions::AboveGoingRight};
  QImage image(4 * 260, 180, QImage::Format_RGB32);
  image.fill(dark);
  QPainter painter(&image);
  for (int i = 0; i < 4; ++i) {
    auto* label = new QLabel(QStringLiteral("2 cues need a look\nbefore the show"));
    label->setContentsMargins(10, 6, 10, 6);
    label->adjustSize();
    PopoverWindow popover(label, QPointF(260 * i + (i == 3 ? 40 : 130), 90), sides[i], nullptr);
    popover.setDrawsRoundCornerBesideArrow(i != 3);
    const QPoint at = popover.geometry().topLeft();
    popover.render(&painter, at, QRegion(), QWidget::DrawChildren);
    const QImage cell = image.copy(QRect(at, popover.size()));
    int white = 0;
    for (int y = 0; y < cell.height(); ++y)
      for (int x = 0; x < cell.width(); ++x) white += qGray(cell.pixel(x, y)) > 240;
    EXPECT_GT(white, 2 * (cell.width() + cell.height())) << sides[i];
  }
  painter.end();
  EXPECT_TRUE(image.save(artifactsDir() + "/attached-window.png", "PNG"));
}

// The tab bar: many carts with the overflow button, the third selected, the close
// button of the second under the mouse; below it a bar of two tabs. Painted by render,
// so the offscreen platform makes it too.
TEST(Screenshot, TabBar) {
  const QStringList names = {"Act 1",    "Act 2 – storm", "Interval", "Act 3",   "Bows",    "Pre-show",
                             "Specials", "Walk-in music", "Backups",  "Encores", "Spare 1", "Spare 2"};
  QImage image(900, 2 * 22 + 30, QImage::Format_RGB32);
  image.fill(SontoTheme::darkPalette().window().color());
  QPainter painter(&image);
  for (int row = 0; row < 2; ++row) {
    PSMTabView view;
    PSMTabBarControl bar;
    bar.setTabView(&view);
    bar.setCellMinWidth(100);
    bar.setCellMaxWidth(200);
    bar.setCellOptimumWidth(150);
    std::vector<QLabel> pages(row == 0 ? names.size() : 2);
    for (size_t i = 0; i < pages.size(); ++i) view.addTabViewItem(&pages[i], names[static_cast<int>(i)], nullptr);
    bar.resize(900, 22);
    view.selectTabViewItemAtIndex(row == 0 ? 2 : 0);
    const QPoint close = PSMMetalTabStyle::closeButtonRectForTabCell(*bar.cells()[1]).center().toPoint();
    QMouseEvent hover(QEvent::MouseMove, close, bar.mapToGlobal(close), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(&bar, &hover);
    EXPECT_EQ(bar.overflowPopUpButton()->isVisibleTo(&bar), row == 0);
    EXPECT_TRUE(bar.cells()[1]->closeButtonOver());
    bar.render(&painter, QPoint(0, row * 52), QRegion(), QWidget::DrawChildren);
    for (auto& page : pages) view.removeTabViewItem(view.indexOfView(&page));
  }
  painter.end();
  EXPECT_GT(distinctColours(image), 16);
  EXPECT_TRUE(image.save(artifactsDir() + "/tab-bar.png", "PNG"));
}

// The safety check: broken and clashing pads, the warning button and the list in the
// inspector's place; then show mode with the popover over the warning button, grabbed
// from the screen since the popover is a window of its own.
TEST(Screenshot, SafetyCheckListAndPopover) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server: ctest runs it under xvfb-run as 'screenshots'";
  FakeSources sources(true);
  TestWindow t;
  t.window->resize(1180, 780);
  GridController* grid = t.grid();
  grid->setCartSize({4.0f, 2.0f});
  const std::vector<std::tuple<const char*, const char*, bool, SontoColor>> pads = {
      {"Overture", "1", true, SontoColor::blueColor()},   {"Thunder", "2", false, SontoColor::redColor()},
      {"Rain loop", "3", true, SontoColor::greenColor()}, {"Door bell", "3", true, SontoColor::yellowColor()},
      {"Phone", "[", true, SontoColor::orangeColor()},    {"Applause", "Q", false, SontoColor::purpleColor()}};
  for (size_t i = 0; i < pads.size(); ++i) {
    const auto& [name, key, valid, colour] = pads[i];
    sources.valid = valid;
    auto cue = AudioCue::createWithFile(std::string("/show/") + name + ".wav", t.workspace()->audioDevice());
    cue->setName(name);
    cue->setHotkey(key);
    cue->setColor(colour);
    cue->setEndTimeValue(42.0);
    grid->addCue(cue, static_cast<unsigned>(i));
  }
  BrokenCueController* list = t.window->brokenCueController();
  ASSERT_TRUE(pumpUntil([&] { return list->brokenCueTableView()->rowCount() == 4; }));
  t.window->toggleBrokenCueView();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(t.window));
  pumpUntil([] { return false; }, 0.4);  // the slide
  EXPECT_FALSE(list->warningButton()->isHidden());
  const QImage image = grabFromScreen(t.window);
  EXPECT_GT(distinctColours(image), 64);
  EXPECT_TRUE(image.save(artifactsDir() + "/safety-check-list.png", "PNG"));

  t.workspace()->settings().setShouldPerformSafetyChecks(true);
  t.window->setShowMode();
  ASSERT_NE(list->popover(), nullptr);
  ASSERT_TRUE(QTest::qWaitForWindowExposed(list->popover()));
  pumpUntil([] { return false; }, 0.2);
  const QRect frame = t.window->frameGeometry().united(list->popover()->geometry());
  QScreen* screen = t.window->screen();
  const QImage shown = screen->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height()).toImage();
  EXPECT_TRUE(shown.save(artifactsDir() + "/safety-check-popover.png", "PNG"));
}

// A show of many carts: the tab bar with its overflow button at the right.
TEST(Screenshot, ManyCartsOverflowTheTabBar) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server: ctest runs it under xvfb-run as 'screenshots'";
  FakeSources sources(true);
  TestWindow t;
  t.window->resize(1180, 700);
  const char* names[] = {"Pre-show", "Act 1",    "Act 1 effects", "Interval", "Act 2", "Act 2 effects",
                         "Finale",   "Bows",     "Walk-out",      "Spares",   "Emergency", "Rehearsal",
                         "Sound check", "Voice-over", "Announcements", "Music beds"};
  t.grid(0)->cart()->setName(names[0]);
  for (size_t i = 1; i < std::size(names); ++i) {
    t.window->newTab();
    t.grid(static_cast<int>(i))->cart()->setName(names[i]);
  }
  t.window->updateTabLabels();
  t.window->selectTab(2);
  GridController* grid = t.grid(1);
  for (unsigned i = 0; i < 6; ++i) {
    auto cue = AudioCue::createWithFile("/show/cue.wav", t.workspace()->audioDevice());
    cue->setName(std::string("Cue ") + std::to_string(i + 1));
    cue->setHotkey(grid->cart()->defaultHotkeyForIndex(i));
    cue->setColor(SontoColor::colorWithName(SontoColor::colors()[i % 8]));
    cue->setEndTimeValue(30.0);
    grid->addCue(cue, i);
  }
  ASSERT_TRUE(QTest::qWaitForWindowExposed(t.window));
  pumpUntil([] { return false; }, 0.6);  // the cells' slide into place
  EXPECT_FALSE(t.window->tabBar()->overflowPopUpButton()->isHidden());
  const QImage image = grabFromScreen(t.window);
  EXPECT_TRUE(image.save(artifactsDir() + "/many-carts.png", "PNG"));
}

// The inspector with three real effects in its list, one bypassed, one selected with
// the keys in the list: the switches, names and delete buttons in the dark rows.
TEST(Screenshot, InspectorEffectsList) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server: ctest runs it under xvfb-run as 'screenshots'";
  if (!QFileInfo::exists("/usr/lib/lv2/mda.lv2/manifest.ttl")) GTEST_SKIP() << "mda-lv2 is not installed";
  sonto::test::EngineSources engine;
  sonto::test::Offline out;
  TestWindow t(out.device);
  t.window->resize(1100, 760);
  GridController* grid = t.grid();
  ASSERT_EQ(dropFiles(grid, {QString::fromStdString(sonto::test::ramp("Effects.wav", 48000))}, 0), 1);
  auto* cue = dynamic_cast<AudioCue*>(grid->cueForIndex(0));
  ASSERT_TRUE(cue);
  for (const char* name : {"Overdrive", "Delay", "Detune"}) {
    const std::string uri = std::string("http://drobilla.net/plugins/mda/") + name;
    cue->addEffect(KyoEffect::effectWithDescription(KyoAudioComponentDescription(kAudioUnitType_Effect, uri)));
  }
  grid->gridView()->setSelectedIndex(0);
  ASSERT_TRUE(QTest::qWaitForWindowExposed(t.window));
  CueInspectorController* inspector = t.window->inspectorController()->cueInspectorController();
  KyoEffectListView* list = inspector->effectsTable();
  ASSERT_EQ(list->numberOfRows(), 3);
  inspector->setEffectEnabled(list, (*cue->effects())[1], false);
  t.window->activateWindow();
  EXPECT_TRUE(QTest::qWaitForWindowActive(t.window));
  list->setFocus(Qt::TabFocusReason);
  list->selectItem(list->itemForIndex(2));
  QApplication::processEvents();
  const QImage image = grabFromScreen(t.window);
  const QRect rows(list->mapTo(t.window, QPoint(0, 0)), QSize(list->width(), 3 * int(list->rowHeight())));
  EXPECT_GT(distinctColours(image.copy(rows)), 8);
  EXPECT_TRUE(image.save(artifactsDir() + "/inspector-effects.png", "PNG"));
  EXPECT_TRUE(image.copy(rows.adjusted(-20, -30, 20, 40)).scaled(rows.width() * 2 + 80, rows.height() * 2 + 140)
                  .save(artifactsDir() + "/inspector-effects-list.png", "PNG"));
}
