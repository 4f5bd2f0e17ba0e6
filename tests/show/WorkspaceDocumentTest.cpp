// The workspace as a document, on the real engine and an offline device: a show
// saved and opened again (also from another folder), reverted, saved where it cannot
// be, and damaged packages that must change nothing; the edited mark through undo,
// saves and edits made while a save collects its media.

#include <gtest/gtest.h>

#include <QCoreApplication>

#include <cstdlib>
#include <filesystem>
#include <thread>
#include <unistd.h>

#include "ShowTestSupport.h"
#include "audio/KyoAudioComponentDescription.h"
#include "audio/KyoAudioDevice.h"
#include "effects/KyoEffect.h"
#include "foundation/KyoClock.h"
#include "show/Workspace.h"
#include "support/TestFiles.h"

namespace fs = std::filesystem;
using namespace showtest;
using sonto::test::rampSample;

namespace {

constexpr double kRate = 48000;
constexpr uint32_t kFrames = 480;
constexpr const char* kDelayURI = "http://drobilla.net/plugins/mda/Delay";
constexpr uint32_t kDelayFeedback = 2;

class DocumentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = makeFolder("doc-" + std::to_string(counter++));
    setenv("XDG_CACHE_HOME", (root + "/cache").c_str(), 1);
    ASSERT_TRUE(out.device && out.device->isOpen());
    workspace = open();
  }
  void TearDown() override {
    time.clock->settle();
    for (auto* w : made) w->close();
    made.clear();
    opened.clear();
    workspace.reset();
    time.clock->settle();
  }

  std::shared_ptr<Workspace> open() {
    auto w = std::make_shared<Workspace>(out.device);
    made.push_back(w.get());
    opened.push_back(w);
    return w;
  }

  // A cue as the window imports one: the file copied into the temporary folder.
  std::shared_ptr<AudioCue> importCue(Workspace& into, Cart& cart, const std::string& name, unsigned long index) {
    const std::string ramp = rampFile(name + "-" + std::to_string(counter++) + ".wav", kRate, 2, int64_t(kRate));
    auto cue = AudioCue::createWithFile(into.copyFileIntoTmp(ramp), into.audioDevice());
    EXPECT_TRUE(cue && cue->isLoaded()) << name;
    cue->setName(name);
    cart.setCue(cue, index);
    cue->setCart(&cart);
    return cue;
  }

  // Two carts, every field of a cue away from its default, an effect with a changed
  // control, settings, a log and the levels.
  void buildShow(Workspace& w, bool ducked) {
    auto music = std::make_shared<Cart>();
    music->setName("Music");
    music->setSize({5, 4});
    auto effects = std::make_shared<Cart>();
    effects->setName("Effects ✓");
    effects->setSize({3, 2});
    w.addCart(music);
    w.addCart(effects);

    auto intro = importCue(w, *music, "Intro", 0);
    intro->setVolumeValue(0.5f);
    intro->setStartTimeValue(0.25);
    intro->setEndTimeValue(0.75);
    auto full = importCue(w, *music, "Full \"quoted\"", 19);
    full->setHotkey("q");
    full->setHold(true);
    full->setLoopsValue(true);
    full->setSolo(true);
    full->setDucking(true);
    full->setColor(SontoColor::orangeColor());
    full->setMidiNote(61);
    full->setMidiTriggerCommand(0x95);
    full->setFlagged(true);
    full->setVolumeValue(1e-7f);
    auto echo = importCue(w, *effects, "Echo", 5);
    if (auto delay = KyoEffect::effectWithDescription(KyoAudioComponentDescription(kAudioUnitType_Effect, kDelayURI))) {
      delay->setDisplayName("Lobby delay");
      echo->addEffect(delay);
      delay->setValue(0.625f, kDelayFeedback);
    }

    w.settings().setMidiChannel(16);
    w.settings().setPanicDuration(0.35f);
    w.settings().clearHotkey(WorkspaceSettings::kDuckMasterTag);
    w.settings().setShouldPerformSafetyChecks(true);
    w.logger()->setLog(std::vector<std::string>{"2026-01-01 10:00:00 - Intro", "line two\nwith newline"});
    w.setDeviceChannel(2);
    w.setLocked(true);
    w.setMasterVolume(0.5f);
    w.setDuckedVolume(0.3f);
    if (ducked) w.setDucked(true);
  }

  // Same carts, cues (every archived field; the media file's place only when asked),
  // settings, log, routing, lock and levels.
  static void expectSameShow(const Workspace& a, const Workspace& b, bool samePlace = true) {
    ASSERT_EQ(a.carts().size(), b.carts().size());
    for (size_t i = 0; i < a.carts().size(); ++i) {
      const Cart& x = *a.carts()[i];
      const Cart& y = *b.carts()[i];
      EXPECT_EQ(x.name(), y.name());
      EXPECT_EQ(x.size(), y.size());
      ASSERT_EQ(x.cues().size(), y.cues().size()) << x.name();
      for (const auto& [index, cue] : x.cues()) {
        ASSERT_TRUE(y.cues().count(index)) << x.name() << " " << index;
        QJsonObject left = static_cast<const AudioCue&>(*cue).archive();
        QJsonObject right = static_cast<const AudioCue&>(*y.cues().at(index)).archive();
        if (!samePlace) left.remove("file"), right.remove("file");
        EXPECT_EQ(left, right) << x.name() << " " << index;
        EXPECT_EQ(y.cues().at(index)->cart(), &y);
      }
    }
    EXPECT_EQ(a.settings().state(), b.settings().state());
    EXPECT_EQ(const_cast<Workspace&>(a).logger()->log(), const_cast<Workspace&>(b).logger()->log());
    EXPECT_EQ(a.deviceChannel(), b.deviceChannel());
    EXPECT_EQ(a.isLocked(), b.isLocked());
    EXPECT_EQ(a.isDucked(), b.isDucked());
    EXPECT_EQ(a.duckedVolume(), b.duckedVolume());
  }

  // By public index, as the grid shows it.
  static AudioCue& cueAt(const Workspace& w, size_t cart, unsigned long index) {
    Cue* cue = w.carts().at(cart)->cueAtIndex(index);
    if (!cue) throw std::out_of_range("no cue at " + std::to_string(index));
    return static_cast<AudioCue&>(*cue);
  }

  void edit(Workspace& w) {
    w.setMasterVolume(w.storedMasterVolume() / 2);
    QCoreApplication::processEvents();  // the undo group of this turn closes
  }

  std::string package(const std::string& name) { return root + "/" + name + ".sonto"; }

  static inline int counter = 0;
  VirtualTime time;  // first in, last out
  EngineSources sources;
  OfflineDevice out{2, kRate, kFrames};
  std::string root;
  std::vector<Workspace*> made;
  std::vector<std::shared_ptr<Workspace>> opened;
  std::shared_ptr<Workspace> workspace;
};

}  // namespace

TEST_F(DocumentTest, ASavedShowOpensAsTheSameShowWhereverThePackageGoes) {
  buildShow(*workspace, false);
  SavingError error;
  const QUrl url = urlOf(package("Show"));
  ASSERT_TRUE(workspace->writeToURL(url, &error)) << error.message;
  EXPECT_EQ(workspace->fileURL(), url);
  EXPECT_EQ(workspace->displayName(), "Show");
  EXPECT_FALSE(workspace->isDocumentEdited());
  // The imports now play from the package: the temporary folder may go.
  for (const auto& cart : workspace->carts()) {
    for (const auto& [index, cue] : cart->cues()) EXPECT_EQ(cue->file().rfind(package("Show") + "/Media/", 0), 0u);
  }
  workspace->close();
  EXPECT_FALSE(fs::exists(workspace->tmpPath()));

  auto again = open();
  const QUrl slashed = urlOf(package("Show") + "/");  // as a file dialog may give a folder
  ASSERT_TRUE(again->readFromURL(slashed, &error)) << error.message;
  expectSameShow(*workspace, *again);
  EXPECT_EQ(again->fileURL(), slashed);
  EXPECT_EQ(again->displayName(), "Show");
  EXPECT_FALSE(again->isDocumentEdited());
  EXPECT_FALSE(again->undoManager()->canUndo()) << "opening is no edit";
  EXPECT_TRUE(again->readFromDisk());
  EXPECT_EQ(again->storedMasterVolume(), 0.5f);
  EXPECT_EQ(out.device->masterVolume(), 0.5f) << "the saved level, at once";
  EXPECT_EQ(again->panicDuration(), 0.35f);
  EXPECT_EQ(again->midiChannel(), 16);
  const auto& echo = cueAt(*again, 1, 5);
  if (!cueAt(*workspace, 1, 5).effects()->empty()) {
    ASSERT_EQ(echo.effects()->size(), 1u);
    EXPECT_EQ(echo.effects()->front()->displayName(), "Lobby delay");
    EXPECT_EQ(echo.effects()->front()->valueForParameter(kDelayFeedback), 0.625f);
  }

  // Moved and renamed, the package finds every media file by its own paths.
  const std::string moved = makeFolder("doc-moved-" + std::to_string(counter++)) + "/Tour.sonto";
  ASSERT_EQ(rename(package("Show").c_str(), moved.c_str()), 0);
  auto tour = open();
  ASSERT_TRUE(tour->readFromURL(urlOf(moved), &error)) << error.message;
  expectSameShow(*workspace, *tour, false);
  EXPECT_EQ(tour->displayName(), "Tour");
  for (const auto& cart : tour->carts()) {
    for (const auto& [index, cue] : cart->cues()) {
      EXPECT_EQ(cue->file().rfind(moved + "/Media/", 0), 0u) << cue->file();
      EXPECT_FALSE(cue->isBroken()) << cue->file();
    }
  }

  // And it sounds as saved: from the in point, at cue level times master level
  // (both powers of two, so the product is exact whatever the order), its left
  // channel on the device's second output and its right one nowhere.
  AudioCue& intro = cueAt(*tour, 0, 0);
  ASSERT_TRUE(waitUntilReady(intro));
  out.clear();
  intro.triggerDown();
  render(out, *time.clock, 6);
  const auto recording = out.recording();
  size_t wrong = 0;
  for (size_t i = 0; i < 6 * kFrames; ++i) {
    const float expected = rampSample(int64_t(0.25 * kRate) + int64_t(i), 0) * 0.25f;
    if (recording.at(1).at(i) != expected && wrong++ < 3) {
      ADD_FAILURE() << "frame " << i << ": " << recording[1][i] << " != " << expected;
    }
    wrong += recording[0][i] != 0.0f;
  }
  EXPECT_EQ(wrong, 0u);
  intro.hardStop();
}

TEST_F(DocumentTest, ADuckedShowOpensDuckedAtItsDuckedLevelAndLosesItsMasterLevel) {
  struct Case {
    bool ducked;
    float master, duckedLevel, device;
  };
  // Reading sets ducked before the master level, which then lands in the ducked
  // level and is overwritten by it.
  for (const Case c : {Case{false, 0.5f, 0.3f, 0.5f}, Case{true, 1.0f, 0.3f, 0.3f}}) {
    auto w = open();
    buildShow(*w, c.ducked);
    SavingError error;
    const QUrl url = urlOf(package(c.ducked ? "Ducked" : "Plain"));
    ASSERT_TRUE(w->writeToURL(url, &error)) << error.message;
    out.device->setMasterVolume(0.9f);
    auto again = open();
    ASSERT_TRUE(again->readFromURL(url, &error)) << error.message;
    EXPECT_EQ(again->isDucked(), c.ducked);
    EXPECT_EQ(again->storedMasterVolume(), c.master) << c.ducked;
    EXPECT_EQ(again->duckedVolume(), c.duckedLevel) << c.ducked;
    EXPECT_EQ(out.device->masterVolume(), c.device) << "no fade: the level is there at once";
    EXPECT_TRUE(again->isLocked()) << "a show saved in show mode opens in show mode";
  }
}

TEST_F(DocumentTest, RevertGivesBackTheSavedShowAndForgetsItsEdits) {
  SavingError error;
  EXPECT_FALSE(workspace->revertToSaved(&error)) << "never saved: nothing to go back to";
  EXPECT_EQ(error.code, 1);

  buildShow(*workspace, false);
  const QUrl url = urlOf(package("Revert"));
  ASSERT_TRUE(workspace->writeToURL(url, &error)) << error.message;
  const std::vector<Cart*> before{workspace->carts()[0].get(), workspace->carts()[1].get()};

  auto extra = std::make_shared<Cart>();
  extra->setName("Extra");
  workspace->addCart(extra);
  cueAt(*workspace, 0, 0).setVolumeValue(0.9f);
  workspace->settings().setPanicDuration(4.0f);
  workspace->settings().resumeAllKey().setEmpty();
  workspace->logger()->setLog(std::vector<std::string>{"after the save"});
  workspace->setLocked(false);
  edit(*workspace);
  ASSERT_TRUE(workspace->isDocumentEdited());

  ASSERT_TRUE(workspace->revertToSaved(&error)) << error.message;
  auto saved = open();
  ASSERT_TRUE(saved->readFromURL(url, &error)) << error.message;
  expectSameShow(*saved, *workspace);
  EXPECT_EQ(workspace->storedMasterVolume(), 0.5f);
  EXPECT_EQ(workspace->panicDuration(), 0.35f);
  EXPECT_NE(workspace->carts()[0].get(), before[0]) << "the carts are the file's, not the edited ones";
  EXPECT_FALSE(workspace->isDocumentEdited());
  EXPECT_FALSE(workspace->undoManager()->canUndo());
  EXPECT_EQ(extra->workspace(), nullptr);
  edit(*workspace);
  EXPECT_TRUE(workspace->undoManager()->canUndo()) << "undo is back on after the read";
}

TEST_F(DocumentTest, AFailedSaveLeavesFileMarkAndPackageAsTheyWere) {
  buildShow(*workspace, false);
  SavingError error;
  const QUrl url = urlOf(package("Kept"));
  ASSERT_TRUE(workspace->writeToURL(url, &error)) << error.message;
  const std::string document = readBytes(package("Kept") + "/document");
  writeBytes(root + "/plain", "a file where a folder would be");

  // The folder it would go into is a file.
  const QUrl target = urlOf(root + "/plain/Show.sonto");
  for (const bool background : {false, true}) {
    SCOPED_TRACE(background ? "in the background" : "waiting");
    edit(*workspace);
    ASSERT_TRUE(workspace->isDocumentEdited());
    SavingError failure;
    bool ok = true;
    if (background) {
      std::optional<bool> outcome;
      workspace->saveToURL(target, [&](bool done, const SavingError& e) { outcome = done, failure = e; });
      time.clock->settle();
      ASSERT_TRUE(outcome);
      ok = *outcome;
    } else {
      ok = workspace->writeToURL(target, &failure);
    }
    EXPECT_FALSE(ok);
    EXPECT_EQ(failure.code, 3) << failure.message;
    EXPECT_EQ(failure.domain, "Saving");
    EXPECT_EQ(workspace->fileURL(), url);
    EXPECT_TRUE(workspace->isDocumentEdited());
    EXPECT_EQ(readBytes(package("Kept") + "/document"), document);
  }
  // Nothing of the failed saves is left beside the package.
  size_t entries = 0;
  for (const auto& entry : fs::directory_iterator(root)) entries += entry.path().filename() != "cache";
  EXPECT_EQ(entries, 2u) << "the package and the plain file";
}

TEST_F(DocumentTest, ADamagedPackageOpensNothingHalfWay) {
  buildShow(*workspace, false);
  SavingError error;
  const QUrl url = urlOf(package("Good"));
  ASSERT_TRUE(workspace->writeToURL(url, &error)) << error.message;
  edit(*workspace);
  const auto carts = workspace->carts();
  const QJsonObject settings = workspace->settings().state();
  const auto log = workspace->logger()->log();
  const float master = workspace->storedMasterVolume();

  const std::string good = readBytes(package("Good") + "/document");
  struct Case {
    const char* name;
    std::string document;  // empty: no document file at all
  };
  // The cart that is not a cart comes after valid keys that a careless reader would
  // already have applied.
  std::string lateFault = good;
  lateFault.replace(lateFault.find("\"carts\":["), 9, "\"carts\":[7,");
  for (const Case& c : {Case{"not JSON", "{\"version\": \"1\", \"carts\": [ trunc"}, Case{"a cart that is not", lateFault},
                        Case{"no document", ""}}) {
    const std::string damaged = package(std::string("Damaged-") + std::to_string(counter++));
    fs::create_directories(damaged + "/Media");
    if (!c.document.empty()) writeBytes(damaged + "/document", c.document);
    SavingError failure;
    EXPECT_FALSE(workspace->readFromURL(urlOf(damaged), &failure)) << c.name;
    EXPECT_EQ(failure.code, 1) << c.name;
    EXPECT_EQ(workspace->carts(), carts) << c.name;
    EXPECT_EQ(workspace->settings().state(), settings) << c.name;
    EXPECT_EQ(workspace->logger()->log(), log) << c.name;
    EXPECT_EQ(workspace->storedMasterVolume(), master) << c.name;
    EXPECT_EQ(workspace->fileURL(), url) << c.name;
    EXPECT_TRUE(workspace->isDocumentEdited()) << c.name;
    EXPECT_TRUE(workspace->undoManager()->canUndo()) << c.name;
  }
  const size_t undoable = workspace->undoManager()->undoCount();
  edit(*workspace);
  EXPECT_EQ(workspace->undoManager()->undoCount(), undoable + 1) << "undo stays on after a refused read";
}

TEST_F(DocumentTest, TheEditedMarkCountsEditsUndoAndWhatASaveHolds) {
  auto other = open();
  const QString first = workspace->displayName();
  ASSERT_TRUE(first.startsWith("Untitled"));
  const int number = first == "Untitled" ? 1 : first.mid(9).toInt();
  EXPECT_EQ(other->displayName(), QString("Untitled %1").arg(number + 1)) << "numbered in the order made";

  int markChanges = 0;
  QObject::connect(workspace.get(), &Workspace::documentEditedChanged, [&] { ++markChanges; });
  edit(*workspace);
  EXPECT_TRUE(workspace->isDocumentEdited());
  workspace->undoManager()->undo();
  EXPECT_FALSE(workspace->isDocumentEdited()) << "undone back to the saved state";
  workspace->undoManager()->redo();
  EXPECT_TRUE(workspace->isDocumentEdited());
  EXPECT_EQ(markChanges, 3);

  // An edit made while the save collects its media is not in the file: it stays marked.
  auto cart = std::make_shared<Cart>();
  workspace->addCart(cart);
  auto during = importCue(*workspace, *cart, "during", 0);
  // The cue's observers (the window) hear of it on the main thread only.
  const auto mainThread = std::this_thread::get_id();
  int savedOffMain = 0, savedMarks = 0;
  QObject::connect(during.get(), &AudioCue::savedChanged, [&] {
    ++savedMarks;
    savedOffMain += std::this_thread::get_id() != mainThread;
  });
  std::vector<std::string> completions;
  auto saveAs = [&](const std::string& name) {
    workspace->saveToURL(urlOf(package(name)), [&completions, name](bool ok, const SavingError&) {
      completions.push_back(ok ? name : name + " failed");
    });
  };
  int urlChanges = 0;
  QObject::connect(workspace.get(), &Workspace::fileURLChanged, [&] { ++urlChanges; });
  saveAs("First");
  edit(*workspace);
  time.clock->settle();
  ASSERT_EQ(completions, std::vector<std::string>{"First"});
  EXPECT_EQ(workspace->displayName(), "First");
  EXPECT_TRUE(during->saved());
  EXPECT_GT(savedMarks, 0);
  EXPECT_EQ(savedOffMain, 0);
  EXPECT_TRUE(workspace->isDocumentEdited());
  workspace->undoManager()->undo();
  EXPECT_FALSE(workspace->isDocumentEdited()) << "undoing the late edit gives the saved state";
  workspace->undoManager()->undo();
  EXPECT_TRUE(workspace->isDocumentEdited()) << "undoing past the save is an edit too";

  // A second save asked for while one runs waits its turn.
  saveAs("Second");
  saveAs("Third");
  EXPECT_TRUE(workspace->isSaving());
  time.clock->settle();
  time.clock->settle();
  EXPECT_EQ(completions, (std::vector<std::string>{"First", "Second", "Third"}));
  EXPECT_FALSE(workspace->isSaving());
  EXPECT_EQ(workspace->fileURL(), urlOf(package("Third")));
  EXPECT_EQ(urlChanges, 3);
  EXPECT_FALSE(workspace->isDocumentEdited());
  EXPECT_EQ(cart->cueAtIndex(0)->file().rfind(package("Third") + "/Media/", 0), 0u) << "the media follow each save";
}
