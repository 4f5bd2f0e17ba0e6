// The window over the real engine: keys and notes to sound on an offline device,
// hold against X11's auto-repeat, the two-stage panic, the slider on the duck ramp,
// and notes from another JACK client reaching two shows under their own channels.
#include <QApplication>
#include <QLineEdit>
#include <QSlider>

#include <cstdio>

#include <gtest/gtest.h>
#include <jack/jack.h>
#include <jack/midiport.h>
#include <sndfile.h>

#include <atomic>
#include <cmath>

#include "SoundTestSupport.h"
#include "SurfaceTestSupport.h"
#include "audio/KyoAudioDevice.h"
#include "audio/KyoAudioMetaBuffer.h"
#include "audio/KyoHAL.h"
#include "audio/KyoMIDIInput.h"
#include "effects/KyoAudioSource.h"
#include "foundation/KyoClock.h"
#include "show/AudioCueSourceKyo.h"
#include "show/SontoQtClock.h"
#include "show/Workspace.h"
#include "support/JackServer.h"
#include "support/TestFiles.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/SettingsController.h"
#include "surface/SontoDocumentController.h"
#include "surface/WorkspaceController.h"

using namespace sonto::test;

namespace {

// Frames from `from` on that differ from the file played from its start.
size_t wrongFrames(const std::vector<float>& channel, size_t from, size_t count) {
  size_t wrong = 0;
  for (size_t i = 0; i < count; ++i) wrong += from + i >= channel.size() || channel[from + i] != rampSample(int64_t(i), 0);
  return wrong;
}

bool silentFrom(const std::vector<float>& channel, size_t from) {
  for (size_t i = from; i < channel.size(); ++i)
    if (channel[i] != 0.0f) return false;
  return true;
}

}  // namespace

// A key fires the visible cart's cue only, and the file reaches the device sample for
// sample from the first frame of the next cycle. Typed into a text field of the
// window, the same key fires nothing.
TEST(WindowSound, HotKeyPlaysTheVisibleCartSampleExact) {
  EngineSources engine;
  Offline out;
  ASSERT_TRUE(out.device && out.device->isOpen());
  TestWindow t(out.device);
  const std::string file = ramp("key-ramp.wav", 24000);
  ASSERT_EQ(dropFiles(t.grid(0), {QString::fromStdString(file)}, 0), 1);
  t.window->newTab();
  ASSERT_EQ(dropFiles(t.grid(1), {QString::fromStdString(file)}, 0), 1);
  auto* visible = dynamic_cast<AudioCue*>(t.grid(0)->cart()->cueAtIndex(0));
  auto* hidden = dynamic_cast<AudioCue*>(t.grid(1)->cart()->cueAtIndex(0));
  ASSERT_TRUE(visible && hidden);
  ASSERT_EQ(visible->hotkey(), "1");
  ASSERT_EQ(hidden->hotkey(), "1");
  ASSERT_TRUE(readyToPlay(visible) && readyToPlay(hidden));
  t.window->selectTab(1);

  t.window->editWorkspaceSettings();
  QLineEdit* field = t.window->settingsController()->panicDurationField();
  field->setFocus();
  tapKey(field, Qt::Key_1, kEvdev1, "1");
  EXPECT_FALSE(visible->playing());
  EXPECT_FALSE(hidden->playing());
  t.window->settingsController()->close();

  tapKey(t.grid(0)->gridView(), Qt::Key_1, kEvdev1, "1");
  EXPECT_TRUE(visible->playing());
  EXPECT_FALSE(hidden->playing());
  KyoHAL::shared().pullOffline(out.id, 10);
  const std::vector<float> left = out.left();
  ASSERT_EQ(left.size(), 10 * kFrames);
  EXPECT_EQ(wrongFrames(left, 0, left.size()), 0u);
  visible->hardStop();
}

// A held key sends release and press pairs marked as repeats: a hold cue sounds on
// through them without a gap and stops on the real release.
TEST(WindowSound, HoldCueSoundsThroughAutoRepeatUntilTheRealRelease) {
  EngineSources engine;
  Offline out;
  TestWindow t(out.device);
  ASSERT_EQ(dropFiles(t.grid(), {QString::fromStdString(ramp("hold-ramp.wav", 48000))}, 4), 1);
  auto* cue = dynamic_cast<AudioCue*>(t.grid()->cart()->cueAtIndex(4));
  ASSERT_TRUE(cue);
  ASSERT_EQ(cue->hotkey(), "Q");
  cue->setHold(true);
  ASSERT_TRUE(readyToPlay(cue));
  GridView* grid = t.grid()->gridView();
  sendKey(grid, QEvent::KeyPress, Qt::Key_Q, kEvdevQ, "q");
  KyoHAL::shared().pullOffline(out.id, 2);
  for (int i = 0; i < 6; ++i) {
    sendKey(grid, QEvent::KeyRelease, Qt::Key_Q, kEvdevQ, "q", Qt::NoModifier, true);
    sendKey(grid, QEvent::KeyPress, Qt::Key_Q, kEvdevQ, "q", Qt::NoModifier, true);
    KyoHAL::shared().pullOffline(out.id, 2);
    ASSERT_TRUE(cue->playing()) << "repeat " << i;
  }
  EXPECT_EQ(wrongFrames(out.left(), 0, 14 * kFrames), 0u);
  sendKey(grid, QEvent::KeyRelease, Qt::Key_Q, kEvdevQ, "q");
  EXPECT_FALSE(cue->playing());
  cue->hardStop();
}

// Escape fades every sounding cue of every open show; a second Escape during the
// fade cuts it. Virtual time: the fade and the cut fall on known cycles.
TEST(WindowSound, SecondEscapeCutsTheFadingCue) {
  EngineSources engine;
  VirtualTime time;
  Offline out, other;
  TestWindow t(out.device), u(other.device);
  const std::string file = ramp("panic-ramp.wav", 96000);
  auto cue = AudioCue::createWithFile(file, out.device);
  auto otherCue = AudioCue::createWithFile(file, other.device);
  ASSERT_TRUE(cue && otherCue);
  cue->setHotkey("Q");
  t.grid()->addCue(cue, 0);
  u.grid()->addCue(otherCue, 0);
  ASSERT_TRUE(readyToPlay(cue.get()) && readyToPlay(otherCue.get()));
  tapKey(t.grid()->gridView(), Qt::Key_Q, kEvdevQ, "q");
  otherCue->triggerDown();
  time.render(out, 5);
  time.render(other, 5);
  ASSERT_TRUE(cue->playing());

  tapKey(t.grid()->gridView(), Qt::Key_Escape, kEvdevEscape, "\x1b");
  time.render(out, 20);  // 0.2 s of the 1 s fade
  EXPECT_TRUE(cue->doPanic());
  EXPECT_TRUE(otherCue->doPanic()) << "the other show panics too";
  EXPECT_TRUE(cue->playing());
  const std::vector<float> fading = out.left();
  const float before = std::fabs(fading[4 * kFrames + 100]);
  const float during = std::fabs(fading[24 * kFrames - 380]);
  EXPECT_GT(during, 0.0f);
  EXPECT_LT(during / std::fabs(rampSample(24 * kFrames - 380, 0)), before / std::fabs(rampSample(4 * kFrames + 100, 0)));

  tapKey(t.grid()->gridView(), Qt::Key_Escape, kEvdevEscape, "\x1b");
  time.render(out, 3);
  EXPECT_FALSE(cue->playing()) << "cut, not faded to its end";
  time.render(out, 5);
  EXPECT_TRUE(silentFrom(out.left(), 28 * kFrames));
  time.render(other, 120);
  EXPECT_FALSE(otherCue->playing());
}

// Ducking fades the device's master over 0.8 s; the slider follows it for a second
// and then lets go.
TEST(WindowSound, MasterSliderFollowsTheDuckRamp) {
  VirtualTime time;
  Offline out;
  TestWindow t(out.device);
  auto* slider = t.window->findChild<QSlider*>(QStringLiteral("masterVolume"));
  ASSERT_TRUE(slider);
  ASSERT_EQ(slider->value(), slider->maximum());
  t.window->toggleDucking();
  EXPECT_TRUE(t.workspace()->isDucked());
  time.render(out, 40);  // 0.4 s into the ramp
  const int middle = slider->value();
  EXPECT_GT(middle, 150);
  EXPECT_LT(middle, slider->maximum());
  // At most one display tick (0.05 s of a 0.85 per 0.8 s ramp) behind the device.
  EXPECT_NEAR(middle / 1000.0, out.device->masterVolume(), 0.06);
  time.render(out, 60);
  EXPECT_EQ(slider->value(), 150);
  time.render(out, 20);  // past the second: the display timer has stopped
  out.device->setMasterVolume(0.5f);
  time.render(out, 20);
  EXPECT_EQ(slider->value(), 150);
  // Moving the slider while ducked sets the ducked level, not the one unduck restores.
  slider->setValue(300);
  EXPECT_FLOAT_EQ(t.workspace()->duckedVolume(), 0.3f);
  EXPECT_FLOAT_EQ(t.workspace()->storedMasterVolume(), 1.0f);
}


// Notes from another program reach every cart of two open shows through the input
// stream and the document controller, each show under its own channel filter.
TEST(WindowSound, JackMIDIFiresCuesInTwoShowsByChannel) {
  if (const std::string why = JackMIDIInput::unavailable(); !why.empty()) GTEST_SKIP() << why;
  JackMIDIInput midi;
  ASSERT_TRUE(midi.start()) << midi.error;

  Offline outA, outB;
  TestWindow a(outA.device), b(outB.device);
  a.workspace()->setMidiChannel(1);
  b.workspace()->setMidiChannel(2);
  auto aVisible = countingCue("a1", "", 60);
  auto aHidden = countingCue("a2", "", 60);
  auto bCue = countingCue("b", "", 60);
  a.grid()->addCue(aVisible, 0);
  a.window->newTab();
  a.grid(1)->addCue(aHidden, 3);
  b.grid()->addCue(bCue, 0);

  MIDISender sender;
  ASSERT_TRUE(sender.ok());
  ASSERT_TRUE(midi.connect(sender));
  // Channel 1 and channel 3: only show a hears, in both carts. A cycle that runs late
  // may lose a script: it is sent again until it arrives.
  for (int attempt = 0; attempt < 10 && aVisible->downs == 0; ++attempt) {
    sender.send({{0x90, 60, 100}, {0x92, 60, 100}, {0x80, 60, 0}});
    pumpUntil([&] { return aVisible->downs > 0; }, 2);
  }
  EXPECT_GE(aVisible->downs, 1);
  EXPECT_EQ(aHidden->downs, aVisible->downs);
  EXPECT_EQ(aHidden->ups, aVisible->ups);
  EXPECT_EQ(bCue->downs, 0);
  const int aDowns = aVisible->downs;
  for (int attempt = 0; attempt < 10 && bCue->downs == 0; ++attempt) {
    sender.send({{0x91, 60, 100}, {0x91, 61, 100}});
    pumpUntil([&] { return bCue->downs > 0; }, 2);
  }
  EXPECT_GE(bCue->downs, 1);
  EXPECT_EQ(aVisible->downs, aDowns);
}

// A cart of 25 cues of 10 s moved to another show while the first show plays: the
// playing cue goes on sample for sample, and the figures say how long the move and
// the moved cues' read-ahead took (the target's cues are new sources on copies).
TEST(WindowSound, MovingACartOf25CuesLeavesThePlayingCueAlone) {
  EngineSources engine;
  Offline out;
  ASSERT_TRUE(out.device && out.device->isOpen());
  TestWindow source(out.device), target(out.device);
  ASSERT_EQ(dropFiles(source.grid(0), {QString::fromStdString(ramp("playing.wav", int64_t(kRate) * 4))}, 0), 1);
  source.window->newTab();
  QStringList files;
  for (int i = 0; i < 25; ++i) {
    const std::string path = sonto::test::temporaryPath("move-" + std::to_string(i) + ".wav");
    ASSERT_TRUE(sonto::test::writeRampFile(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, kRate, 2, int64_t(kRate) * 10));
    files << QString::fromStdString(path);
  }
  source.grid(1)->setCartSize({5.0f, 5.0f});
  ASSERT_EQ(dropFiles(source.grid(1), files, 0), 25);
  auto* playing = dynamic_cast<AudioCue*>(source.grid(0)->cart()->cueAtIndex(0));
  ASSERT_TRUE(playing && readyToPlay(playing));
  playing->play();
  ASSERT_TRUE(pullWhenReady(out, playing, 50));

  KyoPlainClock real;
  const double start = real.monotonicSeconds();
  source.window->moveTabToWindow(source.grid(1), target.window);
  const double moved = real.monotonicSeconds();
  ASSERT_EQ(target.workspace()->carts().size(), 2u);
  for (const auto& [key, cue] : target.workspace()->carts()[1]->cues()) ASSERT_TRUE(readyToPlay(cue.get()));
  const double ready = real.monotonicSeconds();
  std::printf("[ figure ] a cart of 25 cues of 10 s moved in %.1f ms; all ready to play %.1f ms after the start\n",
              (moved - start) * 1e3, (ready - start) * 1e3);

  ASSERT_TRUE(pullWhenReady(out, playing, 50));
  const std::vector<float> left = out.left();
  ASSERT_EQ(left.size(), 100 * kFrames);
  EXPECT_EQ(wrongFrames(left, 0, left.size()), 0u);
  playing->hardStop();
}
