// The effect editor: the generic editor of a real plugin, its presets written in
// LV2's format and read back, its parameter moves against a running render, and the
// plugin's own X11 interface (on a real X server only).
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QMenu>
#include <QScreen>
#include <QSlider>
#include <QTest>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "SurfaceTestSupport.h"
#include "audio/KyoAudioBufferList.h"
#include "effects/KyoEffect.h"
#include "effects/KyoLV2Unit.h"
#include "effects/KyoLV2World.h"
#include "effects/ui/KyoEffectEditor.h"
#include "effects/ui/KyoEffectEditorX11.h"
#include "effects/ui/KyoEffectPresets.h"
#include "effects/ui/KyoGenericEffectView.h"
#include "support/AllocationCounter.h"
#include "support/TestFiles.h"

using namespace sonto::test;
using Control = KyoGenericEffectView::Control;

namespace {

// x42's balance: toggles, enumerations with named values, a unit, and an X11 interface.
constexpr const char* kBalanceURI = "http://gareus.org/oss/lv2/balance";

struct OpenEditor {
  std::shared_ptr<KyoEffect> effect;
  KyoEffectEditor* editor = nullptr;
  double openMs = 0;

  explicit OpenEditor(const char* uri) {
    if (!KyoLV2World::shared().pluginForURI(uri)) return;
    KyoEffectEditor::install();
    effect = KyoEffect::effectWithDescription(KyoAudioComponentDescription(kAudioUnitType_Effect, uri));
    if (!effect || !effect->open() || !effect->setStreamFormat(KyoAudioStreamDescription(48000.0, 2))) return;
    QElapsedTimer clock;
    clock.start();
    effect->openEditor();
    editor = dynamic_cast<KyoEffectEditor*>(effect->editor());
    if (editor && QTest::qWaitForWindowExposed(editor)) openMs = clock.nsecsElapsed() / 1e6;
  }
  ~OpenEditor() {
    if (effect) effect->closeEditor();
    pumpUntil([this] { return !effect || !effect->editor(); }, 5);
  }
  const Control* control(const std::string& name) const {
    for (const Control& c : editor->genericView()->controls())
      if (c.name == name) return &c;
    return nullptr;
  }
};

// Each test writes its user presets into a home of its own.
struct TemporaryHome {
  std::string previous = getenv("HOME") ? getenv("HOME") : "";
  explicit TemporaryHome(const std::string& name) {
    const std::string home = temporaryPath(name);
    std::filesystem::remove_all(home);
    std::filesystem::create_directories(home);
    setenv("HOME", home.c_str(), 1);
  }
  ~TemporaryHome() { setenv("HOME", previous.c_str(), 1); }
};

QAction* menuItem(QMenu* menu, const QString& group, const QString& title) {
  for (QAction* action : menu->actions())
    if (action->menu() && action->text() == group)
      for (QAction* item : action->menu()->actions())
        if (item->text() == title) return item;
  return nullptr;
}

}  // namespace

TEST(EffectEditor, GenericEditorBuildsAControlForEachKindOfPortAndDrivesTheParameters) {
  OpenEditor e(kBalanceURI);
  if (!e.effect) GTEST_SKIP() << "x42-plugins is not installed";
  if (QGuiApplication::platformName() == QLatin1String("xcb")) GTEST_SKIP() << "the X11 interface is shown here";
  ASSERT_NE(e.editor, nullptr);
  ASSERT_NE(e.editor->genericView(), nullptr);
  EXPECT_EQ(e.editor->windowTitle().toStdString(), e.effect->displayName() + " : ");
  EXPECT_GE(e.editor->width(), KyoEffectEditor::kMinimumWidth);
  std::printf("[ figure ] generic editor: openEditor to a shown window in %.1f ms\n", e.openMs);

  struct Case {
    const char* name;
    Control::Kind kind;
    size_t choices;
    const char* unit;
  };
  const Case cases[] = {
      {"Trim/Gain [dB]", Control::Kind::Slider, 0, "dB"},
      {"Phase Invert Left", Control::Kind::Toggle, 0, ""},
      {"Gain Mode", Control::Kind::Choice, 3, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Control* control = e.control(c.name);
    ASSERT_NE(control, nullptr);
    EXPECT_EQ(control->kind, c.kind);
    EXPECT_EQ(control->choices.size(), c.choices);
    EXPECT_EQ(control->unit, c.unit);
  }

  // Each widget moves its parameter; a change made elsewhere moves the widget.
  const Control* trim = e.control("Trim/Gain [dB]");
  trim->slider->setValue(KyoGenericEffectView::kSliderSteps);
  EXPECT_FLOAT_EQ(e.effect->valueForParameter(trim->parameter), trim->maximum);
  EXPECT_DOUBLE_EQ(trim->field->value(), trim->maximum);
  const Control* phase = e.control("Phase Invert Left");
  phase->toggle->setChecked(true);
  EXPECT_FLOAT_EQ(e.effect->valueForParameter(phase->parameter), phase->maximum);
  const Control* mode = e.control("Gain Mode");
  mode->choice->setCurrentIndex(2);
  EXPECT_FLOAT_EQ(e.effect->valueForParameter(mode->parameter), mode->choices[2].first);
  e.effect->setValue(trim->minimum, trim->parameter);
  e.effect->setEnabled(false);
  EXPECT_TRUE(pumpUntil([&] { return trim->slider->value() == 0 && !e.editor->enabledButton()->isChecked(); }, 5));
}

TEST(EffectEditor, SliderPositionsRoundTripOnLinearAndLogarithmicScales) {
  Control linear;
  linear.minimum = -20.0f;
  linear.maximum = 20.0f;
  Control logarithmic;
  logarithmic.minimum = 20.0f;
  logarithmic.maximum = 20000.0f;
  logarithmic.logarithmic = true;
  const struct {
    const Control& control;
    float value;
    int position;
  } cases[] = {{linear, -20.0f, 0}, {linear, 0.0f, 500}, {linear, 20.0f, 1000}, {linear, 99.0f, 1000},
               {logarithmic, 20.0f, 0}, {logarithmic, 632.456f, 500}, {logarithmic, 20000.0f, 1000},
               {logarithmic, 1.0f, 0}};
  for (const auto& c : cases) {
    EXPECT_EQ(KyoGenericEffectView::sliderPosition(c.control, c.value), c.position) << c.value;
    const float back = KyoGenericEffectView::sliderValue(c.control, c.position);
    EXPECT_NEAR(back, std::clamp(c.value, c.control.minimum, c.control.maximum), 0.01f * std::fabs(back) + 1e-3f);
  }
}

TEST(EffectEditor, UserPresetIsWrittenAsAnLV2BundleAndLoadsIntoAFreshInstance) {
  TemporaryHome home("editor-presets");
  OpenEditor e(kBalanceURI);
  if (!e.effect) GTEST_SKIP() << "x42-plugins is not installed";
  ASSERT_NE(e.editor, nullptr);
  const auto& ids = dynamic_cast<KyoLV2Unit*>(e.effect->audioUnit())->parameterIDs();
  for (uint32_t id : ids) e.effect->setValue(1.0f, id);
  int replaceAsked = 0;
  QStringList names = {"Hall/Left", "Hall/Left", ""};
  KyoEffectPresets::setNameQuestionHandler([&](const QString&) { return names.takeFirst(); });
  KyoEffectPresets::setReplaceQuestionHandler([&](const QString& name) {
    EXPECT_EQ(name, "Hall_Left");
    return ++replaceAsked > 1;  // "Cancel" first: asked for another name
  });
  e.editor->savePreset();
  const std::string file = KyoEffectPresets::userPresetFile(*e.effect, "Hall_Left");
  ASSERT_TRUE(std::filesystem::exists(file));
  EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(file).parent_path() / "manifest.ttl"));
  EXPECT_EQ(e.editor->windowTitle().toStdString(), e.effect->displayName() + " : Hall_Left");
  e.editor->savePreset();  // the same name: Cancel, then a cancelled name
  EXPECT_EQ(replaceAsked, 1);
  names = {"Hall/Left"};
  e.editor->savePreset();
  EXPECT_EQ(replaceAsked, 2);
  KyoEffectPresets::setNameQuestionHandler({});
  KyoEffectPresets::setReplaceQuestionHandler({});

  // A fresh instance takes every value from the User menu.
  OpenEditor fresh(kBalanceURI);
  ASSERT_NE(fresh.editor, nullptr);
  QAction* item = menuItem(fresh.editor->presetsMenu(), "User", "Hall_Left");
  ASSERT_NE(item, nullptr);
  item->trigger();
  for (uint32_t id : ids) EXPECT_FLOAT_EQ(fresh.effect->valueForParameter(id), e.effect->valueForParameter(id)) << id;
  EXPECT_EQ(fresh.editor->windowTitle().toStdString(), fresh.effect->displayName() + " : Hall_Left");

  // Renamed, then removed: the menu follows the folder.
  ASSERT_TRUE(KyoEffectPresets::renameUserPreset(*fresh.effect, file, "Stage"));
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(file).parent_path()));
  fresh.editor->buildPresetsMenu();
  EXPECT_EQ(menuItem(fresh.editor->presetsMenu(), "User", "Hall_Left"), nullptr);
  ASSERT_NE(menuItem(fresh.editor->presetsMenu(), "User", "Stage"), nullptr);
  ASSERT_TRUE(KyoEffectPresets::removeUserPreset(KyoEffectPresets::userPresetFile(*fresh.effect, "Stage")));
  fresh.editor->buildPresetsMenu();
  EXPECT_NE(menuItem(fresh.editor->presetsMenu(), "User", "<none>"), nullptr);
}

// The editor moves a parameter a thousand times while the plugin runs on a stand-in
// render thread: the values cross by atomics, and that thread allocates nothing.
TEST(EffectEditor, ParameterMovesFromTheEditorAddNoAllocationToTheRenderThread) {
  OpenEditor e(kBalanceURI);
  if (!e.effect) GTEST_SKIP() << "x42-plugins is not installed";
  ASSERT_TRUE(e.effect->initialize());
  auto* unit = dynamic_cast<KyoLV2Unit*>(e.effect->audioUnit());
  ASSERT_NE(unit, nullptr);
  const uint32_t trim = unit->parameterIDs().front();
  AudioBufferList* buffers = KyoAudioBufferListCreate(2, 256, false);
  KyoAudioBufferListSilence(buffers, 0, 256);
  std::atomic<bool> done{false};
  resetWatchedAllocations();
  std::thread render([&] {
    ScopedAllocationWatch watch;
    while (!done.load()) unit->process(buffers, buffers, 256);
  });
  for (int move = 0; move < 1000; ++move) {
    if (e.editor->genericView()) {
      e.editor->genericView()->controls().front().slider->setValue(move % KyoGenericEffectView::kSliderSteps);
    } else {
      e.effect->setValue(float(move % 20) - 10.0f, trim);
    }
    if (move % 100 == 0) QCoreApplication::processEvents();
  }
  done = true;
  render.join();
  KyoAudioBufferListFree(buffers);
  EXPECT_EQ(watchedAllocations(), 0u);
}

namespace {

bool onRealDisplay() { return QGuiApplication::platformName() == QLatin1String("xcb"); }

// Grabs the window from the screen, the plugin's own X windows included.
void saveScreenshot(QWidget* window, const QString& name) {
  QString dir = qEnvironmentVariable("SONTO_ARTIFACTS_DIR");
  if (dir.isEmpty()) dir = QString::fromStdString(temporaryPath("artifacts"));
  QDir().mkpath(dir);
  pumpUntil([] { return false; }, 0.5);
  const QRect frame = window->geometry();
  const QImage shot =
      window->screen()->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height()).toImage();
  ASSERT_FALSE(shot.isNull());
  EXPECT_GT(shot.width(), 100);
  EXPECT_TRUE(shot.save(dir + "/" + name));
}

}  // namespace

TEST(Screenshot, EffectEditorGeneric) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server";
  OpenEditor e("http://drobilla.net/plugins/mda/Delay");
  if (!e.effect) GTEST_SKIP() << "mda-lv2 is not installed";
  ASSERT_NE(e.editor, nullptr);
  ASSERT_NE(e.editor->genericView(), nullptr);
  saveScreenshot(e.editor, "effect-editor-generic.png");
}

// The plugin's own interface opens inside the window, shows the values the engine
// holds, and goes away with the window (run under AddressSanitizer for leaks).
TEST(Screenshot, EffectEditorX11) {
  if (!onRealDisplay()) GTEST_SKIP() << "needs an X server";
  // Mesa unloads its driver with the interface's GL context; kept loaded, what it
  // leaves behind is named in a leak report rather than an unknown module.
  if (void* driver = dlopen("/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so", RTLD_NOW | RTLD_NODELETE)) dlclose(driver);
  {
    OpenEditor e(kBalanceURI);
    if (!e.effect) GTEST_SKIP() << "x42-plugins is not installed";
    ASSERT_NE(e.editor, nullptr);
    ASSERT_NE(e.editor->pluginView(), nullptr);
    std::printf("[ figure ] X11 interface: openEditor to a shown window in %.1f ms\n", e.openMs);
    EXPECT_GE(e.editor->pluginView()->height(), 50);
    std::printf("[ figure ] X11 interface size %dx%d\n", e.editor->pluginView()->width(), e.editor->pluginView()->height());
    saveScreenshot(e.editor, "effect-editor-x11.png");
    e.effect->closeEditor();
    EXPECT_TRUE(pumpUntil([&] { return e.effect->editor() == nullptr; }, 5));
    EXPECT_FALSE(e.effect->lastEditorFrame().empty());
  }
}
