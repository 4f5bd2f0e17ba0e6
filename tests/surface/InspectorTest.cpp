// The cue inspector on the real window and model: each field changes the cue, the
// saved file and the Edit menu's undo name; a slider drag is one step; show mode
// hides the pane and ends a capture; a note from another JACK client is captured,
// fires nothing, and leaves no batch open on the device.
#include <QApplication>
#include <QButtonGroup>
#include <QLabel>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPushButton>
#include <QSlider>
#include <QSplitter>
#include <QTest>

#include <gtest/gtest.h>

#include <functional>

#include "SoundTestSupport.h"
#include "SurfaceTestSupport.h"
#include "audio/KyoMIDIInput.h"
#include "show/Cart.h"
#include "show/SontoUndoManager.h"
#include "show/Workspace.h"
#include "support/AllocationCounter.h"
#include "support/JackServer.h"
#include "surface/AudioWaveformView.h"
#include "surface/CueCellController.h"
#include "surface/CueInspectorController.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/InspectorController.h"
#include "surface/SontoDocumentController.h"
#include "surface/WorkspaceController.h"

using namespace sonto::test;

namespace {

// A window with one cue on a ramp file, selected, so that the inspector shows it.
struct InspectedCue {
  EngineSources engine;
  Offline out;
  TestWindow t{out.device};
  AudioCue* cue = nullptr;
  InspectedCue() {
    EXPECT_EQ(dropFiles(t.grid(), {QString::fromStdString(ramp("inspected.wav", 48000))}, 0), 1);
    cue = dynamic_cast<AudioCue*>(t.grid()->cart()->cueAtIndex(0));
    t.grid()->gridView()->setSelectedIndex(0);
  }
  CueInspectorController* inspector() const { return t.window->inspectorController()->cueInspectorController(); }
  SontoUndoManager* undo() const { return t.workspace()->undoManager(); }
};

void typeInto(QLineEdit* field, const QString& text) {
  field->selectAll();
  QTest::keyClicks(field, text);
  QTest::keyClick(field, Qt::Key_Return);
}

std::string colorName(const AudioCue* cue) { return cue->color().name(); }

}  // namespace

TEST(Inspector, EachFieldChangesTheCueAsOneNamedUndoStep) {
  InspectedCue s;
  ASSERT_TRUE(s.cue);
  CueInspectorController* inspector = s.inspector();
  ASSERT_EQ(inspector->cue(), s.cue);
  EXPECT_FALSE(inspector->noCueLabel()->isVisibleTo(s.t.window));
  AudioCue* cue = s.cue;
  auto swatch = [&](const char* name) {
    for (QAbstractButton* button : inspector->colors()->buttons()) {
      if (static_cast<SontoColorCell*>(button)->color().name() == name) QTest::mouseClick(button, Qt::LeftButton);
    }
  };
  struct Edit {
    const char* undoName;
    std::function<void()> apply;
    std::function<std::string()> read;
    std::string after;
  };
  const Edit edits[] = {
      {"Change Name", [&] { typeInto(inspector->nameField(), "Fanfare"); }, [&] { return cue->name(); }, "Fanfare"},
      // A second key replaces the first: the field holds one key.
      {"Change Hotkey",
       [&] {
         QTest::keyClicks(inspector->hotkeyField(), "a");
         QTest::keyClicks(inspector->hotkeyField(), "b");
         QTest::keyClick(inspector->hotkeyField(), Qt::Key_Return);
       },
       [&] { return cue->hotkey(); }, "B"},
      {"Change MIDI Note", [&] { typeInto(inspector->midiNoteField(), "200"); },
       [&] { return std::to_string(cue->midiNote().value_or(-1)); }, "127"},
      {"Change Start Time", [&] { typeInto(inspector->startTimeField(), "00:00.250"); },
       [&] { return std::to_string(cue->startTime()); }, std::to_string(0.25)},
      {"Change End Time", [&] { typeInto(inspector->endTimeField(), "0:0.75"); },
       [&] { return std::to_string(cue->endTime()); }, std::to_string(0.75)},
      {"Change Color", [&] { swatch("red"); }, [&] { return colorName(cue); }, "red"},
  };
  for (const Edit& edit : edits) {
    SCOPED_TRACE(edit.undoName);
    const std::string before = edit.read();
    edit.apply();
    QApplication::processEvents();
    EXPECT_EQ(edit.read(), edit.after);
    EXPECT_EQ(s.undo()->undoActionName().toStdString(), edit.undoName);
    s.undo()->undo();
    EXPECT_EQ(edit.read(), before);
    s.undo()->redo();
    EXPECT_EQ(edit.read(), edit.after);
    EXPECT_TRUE(s.t.workspace()->isDocumentEdited());
  }
  EXPECT_EQ(inspector->midiNoteField()->text(), "127");
  EXPECT_EQ(inspector->startTimeField()->text(), "00:00.250");

  // Two colours undone one by one come back in turn: each undo step passes through
  // the inspector again and leaves its redo.
  swatch("blue");
  QApplication::processEvents();
  swatch("green");
  QApplication::processEvents();
  s.undo()->undo();
  EXPECT_EQ(colorName(cue), "blue");
  EXPECT_TRUE(static_cast<SontoColorCell*>(inspector->colors()->checkedButton())->color().name() == "blue");
  s.undo()->undo();
  EXPECT_EQ(colorName(cue), "red");
  s.undo()->redo();
  EXPECT_EQ(colorName(cue), "blue");

  // A change made elsewhere (the pad's menu) is one step too, not two.
  const size_t steps = s.undo()->undoCount();
  s.t.grid()->gridView()->cellAtIndex(0)->setColorName("purple");
  QApplication::processEvents();
  EXPECT_EQ(s.undo()->undoCount(), steps + 1);
  s.undo()->undo();
  EXPECT_EQ(colorName(cue), "blue");

  // What was edited is what the file keeps.
  const QString path = QString::fromStdString(temporaryPath("inspected.sonto"));
  SavingError error;
  ASSERT_TRUE(s.t.workspace()->writeToURL(QUrl::fromLocalFile(path), &error)) << error.message;
  auto reread = std::make_shared<Workspace>(s.out.device);
  ASSERT_TRUE(reread->readFromURL(QUrl::fromLocalFile(path), &error));
  auto* saved = dynamic_cast<AudioCue*>(reread->carts().at(0)->cueAtIndex(0));
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->name(), "Fanfare");
  EXPECT_EQ(saved->hotkey(), "B");
  EXPECT_EQ(saved->midiNote(), 127);
  EXPECT_DOUBLE_EQ(saved->startTime(), 0.25);
  EXPECT_DOUBLE_EQ(saved->endTime(), 0.75);
  EXPECT_EQ(saved->color().name(), "blue");
  reread->close();
}

// However many values a drag passes, it is one step back to where it began; the
// undo moves the slider, and the level reads in decibels.
TEST(Inspector, VolumeDragIsOneUndoStep) {
  InspectedCue s;
  ASSERT_TRUE(s.cue);
  QSlider* slider = s.inspector()->volumeSlider();
  s.cue->setVolume(0.5f);
  QApplication::processEvents();
  const size_t steps = s.undo()->undoCount();
  slider->setSliderDown(true);
  for (int value : {550, 600, 700, 800}) {
    slider->setValue(value);
    QApplication::processEvents();
  }
  EXPECT_EQ(s.undo()->undoCount(), steps) << "no step while the slider is held";
  slider->setSliderDown(false);
  QApplication::processEvents();
  EXPECT_FLOAT_EQ(s.cue->volume(), 0.8f);
  EXPECT_EQ(s.undo()->undoCount(), steps + 1);
  EXPECT_EQ(s.undo()->undoActionName(), "Change Cue Volume");
  EXPECT_EQ(s.inspector()->volumeLabel()->text(), "-1.9 dB");
  s.undo()->undo();
  EXPECT_FLOAT_EQ(s.cue->volume(), 0.5f);
  EXPECT_EQ(slider->value(), 500);
  EXPECT_EQ(s.inspector()->volumeLabel()->text(), "-6.0 dB");
  // A key on the slider is a step of its own once the event loop is free.
  slider->setValue(400);
  QApplication::processEvents();
  EXPECT_EQ(s.undo()->undoActionName(), "Change Cue Volume");
  s.undo()->undo();
  EXPECT_FLOAT_EQ(s.cue->volume(), 0.5f);
  EXPECT_EQ(CueInspectorController::volumeText(0.0f), "-inf dB");
  EXPECT_EQ(CueInspectorController::volumeText(1.0f), "0.0 dB");
}

// Show mode empties and collapses the pane and ends a capture; the pane's height
// survives; Toggle Inspector and a second show change nothing more.
TEST(Inspector, PaneFollowsTheModeAndKeepsItsHeight) {
  InspectedCue s;
  WorkspaceController* window = s.t.window;
  window->resize(1000, 760);
  QApplication::processEvents();
  ASSERT_TRUE(window->isInspectorVisible());
  window->splitView()->setSizes({400, 260});
  emit window->splitView()->splitterMoved(400, 1);
  EXPECT_EQ(window->heightOfInspector(), window->splitView()->sizes().at(1));
  const int height = window->heightOfInspector();
  s.inspector()->captureMIDINote();
  EXPECT_EQ(s.inspector()->captureButton()->text(), "Waiting...");
  EXPECT_EQ(s.inspector()->midiNoteField()->text(), "...");

  window->setShowMode();
  EXPECT_FALSE(window->isInspectorVisible());
  QApplication::processEvents();
  EXPECT_TRUE(window->splitView()->widget(1)->isHidden());
  EXPECT_FALSE(window->splitView()->handle(1)->isVisible()) << "the divider goes with the pane";
  EXPECT_EQ(window->inspectorController()->cue(), nullptr);
  EXPECT_FALSE(s.inspector()->captureMIDI());
  EXPECT_EQ(s.inspector()->captureButton()->text(), "Capture");
  window->toggleInspector();  // refused in show mode
  EXPECT_FALSE(window->isInspectorVisible());

  window->setEditMode();
  EXPECT_TRUE(window->isInspectorVisible());
  EXPECT_EQ(window->splitView()->sizes().at(1), height);
  window->showInspector();
  EXPECT_EQ(window->splitView()->sizes().at(1), height);
  window->toggleInspector();
  EXPECT_FALSE(window->isInspectorVisible());
  window->toggleInspector();
  EXPECT_EQ(window->heightOfInspector(), height);

  // Deleting the selected cue leaves the inspector empty, not on a cue that is gone.
  s.t.grid()->removeCueAtIndex(0);
  EXPECT_EQ(window->inspectorController()->cue(), nullptr);
  EXPECT_TRUE(s.inspector()->noCueLabel()->isVisibleTo(window));
}

// A note from another program becomes the selected cue's trigger, filtered by the
// show's channel; nothing fires, and a preview right after sounds at once.
TEST(Inspector, CapturesANoteFromJackMIDI) {
  if (const std::string why = JackMIDIInput::unavailable(); !why.empty()) GTEST_SKIP() << why;
  JackMIDIInput midi;
  ASSERT_TRUE(midi.start()) << midi.error;

  InspectedCue s;
  ASSERT_TRUE(s.cue);
  s.t.workspace()->setMidiChannel(2);
  auto other = countingCue("other", "", 72);
  s.t.grid()->addCue(other, 1);
  s.t.grid()->gridView()->setSelectedIndex(0);
  s.inspector()->captureMIDINote();
  MIDISender sender;
  ASSERT_TRUE(sender.ok());
  ASSERT_TRUE(midi.connect(sender));

  // Channel 1 is filtered out: the capture still waits.
  sender.send({{0x90, 70, 100}});
  pumpUntil([] { return false; }, 0.3);
  EXPECT_TRUE(s.inspector()->captureMIDI());
  for (int attempt = 0; attempt < 10 && s.inspector()->captureMIDI(); ++attempt) {
    sender.send({{0x91, 72, 100}, {0x81, 72, 0}});
    pumpUntil([&] { return !s.inspector()->captureMIDI(); }, 2);
  }
  EXPECT_FALSE(s.inspector()->captureMIDI());
  EXPECT_EQ(s.cue->midiNote(), 72);
  EXPECT_EQ(s.inspector()->midiNoteField()->text(), "72");
  EXPECT_EQ(s.inspector()->captureButton()->text(), "Capture");
  EXPECT_EQ(other->downs, 0) << "a captured note fires no cue";
  EXPECT_EQ(s.undo()->undoActionName(), "Change MIDI Note");
  EXPECT_FALSE(s.out.device->_batchIsOpen());
}

namespace {

void sendMouse(QWidget* view, QEvent::Type type, QPoint at, Qt::MouseButtons buttons) {
  const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
  QMouseEvent event(type, QPointF(at), QPointF(view->mapToGlobal(at)), button, buttons, Qt::NoModifier);
  QApplication::sendEvent(view, &event);
}

}  // namespace

// The left handle dragged to half a second is the cue's new in point, to the sample:
// the cue played afterwards starts at frame 24000 of its file.
TEST(Inspector, HandleDraggedOnTheWaveformIsTheInPointToTheSample) {
  InspectedCue s;
  ASSERT_TRUE(s.cue);
  AudioWaveformView* view = s.inspector()->waveformView();
  view->setPixelsPerSecond(1000.0f);
  ASSERT_FLOAT_EQ(view->pixelsPerSecond(), 1000.0f);
  view->window()->activateWindow();
  const int y = view->height() / 2;
  sendMouse(view, QEvent::MouseButtonPress, {1, y}, Qt::LeftButton);
  for (int x : {100, 300, 500}) sendMouse(view, QEvent::MouseMove, {x, y}, Qt::LeftButton);
  sendMouse(view, QEvent::MouseButtonRelease, {500, y}, Qt::NoButton);
  QApplication::processEvents();
  EXPECT_DOUBLE_EQ(s.cue->startTime(), 0.5);
  EXPECT_DOUBLE_EQ(s.cue->endTime(), 1.0);
  EXPECT_EQ(s.undo()->undoActionName(), "Change Start Time");
  EXPECT_EQ(s.inspector()->startTimeField()->text(), "00:00.500");

  ASSERT_TRUE(readyToPlay(s.cue));
  s.cue->play();
  ASSERT_TRUE(pullWhenReady(s.out, s.cue, 60));
  const std::vector<float> left = s.out.left();
  size_t wrong = 0;
  for (size_t i = 0; i < 24000; ++i) wrong += left.at(i) != rampSample(int64_t(24000 + i), 0);
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(left.at(24000), 0.0f) << "the cue ends at its out point";
  s.cue->hardStop();
  // The hard stop runs on a worker of its own and lands at a cycle.
  ASSERT_TRUE(pumpUntil([&] {
    KyoHAL::shared().pullOffline(s.out.id, 1);
    return !s.cue->isRunning();
  }));

  // A range selected wholly before the in point becomes the played range, and one
  // undo puts the old range back.
  sendMouse(view, QEvent::MouseButtonPress, {100, y}, Qt::LeftButton);
  sendMouse(view, QEvent::MouseMove, {300, y}, Qt::LeftButton);
  sendMouse(view, QEvent::MouseButtonRelease, {300, y}, Qt::NoButton);
  s.inspector()->setStartEndFromSelection();
  EXPECT_DOUBLE_EQ(s.cue->startTime(), 0.1);
  EXPECT_DOUBLE_EQ(s.cue->endTime(), 0.3);
  QApplication::processEvents();
  s.undo()->undo();
  EXPECT_DOUBLE_EQ(s.cue->startTime(), 0.5);
  EXPECT_DOUBLE_EQ(s.cue->endTime(), 1.0);
}

// Twenty cues sound while the inspector follows one of them and loads its waveform:
// the render thread still allocates nothing.
TEST(Inspector, ShowingAPlayingCueAddsNoAllocationToTheRenderThread) {
  EngineSources engine;
  Offline out;
  TestWindow t(out.device);
  t.window->changeGrid("5x4");
  const QString file = QString::fromStdString(ramp("busy.wav", 4 * 48000));
  ASSERT_EQ(dropFiles(t.grid(), QStringList(20, file), 0), 20);
  std::vector<AudioCue*> cues;
  for (unsigned i = 0; i < 20; ++i) {
    cues.push_back(dynamic_cast<AudioCue*>(t.grid()->cart()->cueAtIndex(i)));
    ASSERT_TRUE(cues.back() && readyToPlay(cues.back()));
    cues.back()->setLoops(true);
  }
  t.grid()->gridView()->setSelectedIndex(7);
  out.device->startSyncedActions();
  for (AudioCue* cue : cues) cue->play();
  out.device->endSyncedActions();
  KyoHAL::shared().pullOffline(out.id, 2);
  resetWatchedAllocations();
  for (int cycle = 0; cycle < 400; ++cycle) {
    KyoHAL::shared().clearOfflineRecording(out.id);
    {
      ScopedAllocationWatch watch;
      KyoHAL::shared().pullOffline(out.id, 1);
    }
    if (cycle % 10 == 0) pumpUntil([] { return false; }, 0.01);
  }
  EXPECT_EQ(watchedAllocations(), 0u);
  EXPECT_TRUE(cues[7]->isPlaying());
  EXPECT_GT(t.window->inspectorController()->cueInspectorController()->waveformView()->cursorPosition(), 0.0f);
  for (AudioCue* cue : cues) cue->hardStop();
}

