// The effects list in the inspector with real plugins on a real cue: a drag between
// rows reorders the chain, the switch bypasses, the button and the Delete key remove,
// and each is one named undo step that puts the chain back as it was.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QApplication>
#include <QCheckBox>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QTest>
#include <QToolButton>

#include "SoundTestSupport.h"
#include "SurfaceTestSupport.h"
#include "effects/KyoEffect.h"
#include "effects/ui/KyoEffectListView.h"
#include "show/Cart.h"
#include "show/SontoUndoManager.h"
#include "show/Workspace.h"
#include "surface/CueInspectorController.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/InspectorController.h"
#include "surface/WorkspaceController.h"

using namespace sonto::test;

namespace {

constexpr const char* kOverdrive = "http://drobilla.net/plugins/mda/Overdrive";
constexpr const char* kDelay = "http://drobilla.net/plugins/mda/Delay";

std::shared_ptr<KyoEffect> prototype(const char* uri) {
  return KyoEffect::effectWithDescription(KyoAudioComponentDescription(kAudioUnitType_Effect, uri));
}

// "MDA Delay" as "Delay", with "-" when bypassed.
std::string label(KyoEffect& effect, bool enabled) {
  const std::string& name = effect.name();
  return name.substr(name.rfind(' ') + 1) + (enabled ? "" : "-");
}

// The chain as the names of its effects.
std::string chain(AudioCue* cue) {
  std::string text;
  for (const auto& effect : *cue->effects()) {
    if (!text.empty()) text += ' ';
    text += label(*effect, effect->enabled());
  }
  return text;
}

// What the list shows, in the same form.
std::string shown(KyoEffectListView* list) {
  std::string text;
  for (int i = 0; i < list->numberOfRows(); ++i) {
    auto* row = dynamic_cast<KyoEffectRowView*>(list->rowViewForIndex(i));
    if (!row) return "row " + std::to_string(i) + " not built";
    if (!text.empty()) text += ' ';
    text += label(*row->effect(), row->enableButton()->isChecked());
  }
  return text;
}

// A drag of a row to a point of the list, as the list's own drag writes it.
void dragRow(KyoEffectListView* list, CueInspectorController* inspector, int row, QPoint point) {
  QMimeData mime;
  ASSERT_TRUE(inspector->writeItems(list, {list->itemForIndex(row)}, &mime));
  QDragEnterEvent enter(point, Qt::MoveAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(list->viewport(), &enter);
  QDragMoveEvent move(point, Qt::MoveAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(list->viewport(), &move);
  QDropEvent drop(QPointF(point), Qt::MoveAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(list->viewport(), &drop);
}

}  // namespace

TEST(EffectsList, ReorderBypassDeleteEachUndoableWithRealPlugins) {
  if (access("/usr/lib/lv2/mda.lv2/manifest.ttl", R_OK) != 0) GTEST_SKIP() << "mda-lv2 is not installed";
  EngineSources engine;
  Offline out;
  TestWindow t{out.device};
  ASSERT_EQ(dropFiles(t.grid(), {QString::fromStdString(ramp("effects-list.wav", 48000))}, 0), 1);
  auto* cue = dynamic_cast<AudioCue*>(t.grid()->cart()->cueAtIndex(0));
  ASSERT_TRUE(cue);
  t.grid()->gridView()->setSelectedIndex(0);
  CueInspectorController* inspector = t.window->inspectorController()->cueInspectorController();
  SontoUndoManager* undo = t.workspace()->undoManager();
  KyoEffectListView* list = inspector->effectsTable();
  const int h = static_cast<int>(list->rowHeight());
  auto row = [&](int i) { return dynamic_cast<KyoEffectRowView*>(list->rowViewForIndex(i)); };

  struct Step {
    const char* what;
    std::function<void()> act;
    const char* chain;
    const char* undoName;  // null: the step is itself an undo
  };
  const Step steps[] = {
      {"add overdrive", [&] { inspector->addEffect(prototype(kOverdrive)); }, "Overdrive", "Add Effect"},
      {"add delay", [&] { inspector->addEffect(prototype(kDelay)); }, "Overdrive Delay", "Add Effect"},
      {"drag delay above overdrive", [&] { dragRow(list, inspector, 1, QPoint(60, h / 6)); }, "Delay Overdrive",
       "Reorder Effects"},
      {"undo the reorder", [&] { undo->undo(); }, "Overdrive Delay", nullptr},
      {"drag overdrive below the last row", [&] { dragRow(list, inspector, 0, QPoint(60, 2 * h + 5)); },
       "Delay Overdrive", "Reorder Effects"},
      {"drag delay to the gap under itself: its own place", [&] { dragRow(list, inspector, 0, QPoint(60, h * 3 / 4)); },
       "Delay Overdrive", "Reorder Effects"},
      {"bypass delay with its switch", [&] { QTest::mouseClick(row(0)->enableButton(), Qt::LeftButton); },
       "Delay- Overdrive", "Bypass Effect"},
      {"undo the bypass", [&] { undo->undo(); }, "Delay Overdrive", nullptr},
      {"redo the bypass", [&] { undo->redo(); }, "Delay- Overdrive", nullptr},
      {"delete delay with its button", [&] { row(0)->deleteButton()->click(); }, "Overdrive", "Remove Effect"},
      {"undo puts it back in its place", [&] { undo->undo(); }, "Delay- Overdrive", nullptr},
      {"Delete key removes the selected effect, not the cue",
       [&] {
         list->selectItem(list->itemForIndex(1));
         list->setFocus();
         tapKey(list, Qt::Key_Delete, kEvdevDelete, {});
       },
       "Delay-", "Remove Effect"},
  };
  for (const Step& step : steps) {
    step.act();
    QApplication::processEvents();
    EXPECT_EQ(chain(cue), step.chain) << step.what;
    EXPECT_EQ(shown(list), step.chain) << step.what;
    if (step.undoName) {
      EXPECT_EQ(undo->undoActionName().toStdString(), step.undoName) << step.what;
    }
  }
  EXPECT_EQ(t.grid()->cart()->cueAtIndex(0), cue);
}

// What the list does is heard: a balance at -6.02 dB halves the cue, bypassed or
// deleted it does not, and the undone delete halves it again.
TEST(EffectsList, ChangesAreHeardInTheRender) {
  constexpr const char* kBalance = "http://gareus.org/oss/lv2/balance";
  if (access("/usr/lib/lv2/balance.lv2/manifest.ttl", R_OK) != 0) GTEST_SKIP() << "x42-plugins is not installed";
  EngineSources engine;
  Offline out;
  TestWindow t{out.device};
  ASSERT_EQ(dropFiles(t.grid(), {QString::fromStdString(ramp("effects-heard.wav", int64_t(kRate) * 6))}, 0), 1);
  auto* cue = dynamic_cast<AudioCue*>(t.grid()->cart()->cueAtIndex(0));
  ASSERT_TRUE(cue);
  t.grid()->gridView()->setSelectedIndex(0);
  CueInspectorController* inspector = t.window->inspectorController()->cueInspectorController();
  KyoEffectListView* list = inspector->effectsTable();
  inspector->addEffect(prototype(kBalance));
  ASSERT_EQ(cue->effects()->size(), 1u);
  const std::shared_ptr<KyoEffect> balance = cue->effects()->front();
  balance->setValue(-6.0206f, 0);  // the trim, in dB
  QApplication::processEvents();
  ASSERT_TRUE(readyToPlay(cue));
  cue->play();

  // The level of the last tenth of a second rendered, against the file: a least-squares gain.
  int rendered = 0;
  auto levelAfter = [&](int cycles) {
    if (!pullWhenReady(out, cue, cycles)) return -1.0;
    rendered += cycles;
    const std::vector<float> left = out.left();
    double cross = 0, energy = 0;
    for (size_t i = left.size() - 10 * kFrames; i < left.size(); ++i) {
      const double reference = rampSample(int64_t(i), 0);
      cross += left[i] * reference;
      energy += reference * reference;
    }
    return energy > 0 ? cross / energy : -1.0;
  };
  EXPECT_NEAR(levelAfter(60), 0.5, 1e-3) << "through the balance";
  QTest::mouseClick(list->rowViewForIndex(0)->findChild<QCheckBox*>(), Qt::LeftButton);
  EXPECT_FALSE(balance->enabled());
  EXPECT_NEAR(levelAfter(60), 1.0, 1e-3) << "bypassed";
  QTest::mouseClick(list->rowViewForIndex(0)->findChild<QCheckBox*>(), Qt::LeftButton);
  EXPECT_NEAR(levelAfter(60), 0.5, 1e-3) << "on again";
  dynamic_cast<KyoEffectRowView*>(list->rowViewForIndex(0))->deleteButton()->click();
  QApplication::processEvents();
  EXPECT_NEAR(levelAfter(60), 1.0, 1e-3) << "deleted";
  t.workspace()->undoManager()->undo();
  QApplication::processEvents();
  EXPECT_NEAR(levelAfter(60), 0.5, 1e-3) << "back by undo";
  cue->hardStop();
}
