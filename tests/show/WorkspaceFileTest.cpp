// The workspace package at the file level: what writing does to cues and media, the
// root's order, old files, media on another file system, the order in which a read
// hands values to the workspace, the save thread.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <QFile>

#include <atomic>
#include <fstream>
#include <thread>

#include "show/ShowTestSupport.h"
#include "support/TestFiles.h"
#include "support/Waiting.h"
#include "foundation/KyoClock.h"
#include "show/WorkspaceFile.h"
#include "show/WorkspaceSettings.h"

namespace {

std::shared_ptr<AudioCue> mediaCue(const std::string& path, const std::string& name) {
  auto cue = AudioCue::createWithFile(path, nullptr);
  cue->setName(name);
  return cue;
}

// A workspace that keeps what it is given, with the master level rules of the real one:
// a level set while ducked goes to the ducked level.
struct RecordingTarget : WorkspaceFileTarget {
  std::vector<std::string> calls;
  std::string uid = "null:";
  std::set<std::string> knownDevices;
  bool undo = true;
  long channel = 1;
  bool locked = false, ducked = false, readFromDisk = false;
  float master = 1.0f, duckedLevel = 0.15f;
  std::optional<QJsonObject> settings;
  std::shared_ptr<SontoLogger> logger;
  std::vector<std::shared_ptr<Cart>> carts;

  void setUndoRegistrationEnabled(bool enabled) override {
    undo = enabled;
    calls.push_back(enabled ? "undo on" : "undo off");
  }
  std::string audioDeviceUID() const override { return uid; }
  bool bindAudioDeviceWithUID(const std::string& wanted) override {
    calls.push_back("device");
    if (!knownDevices.count(wanted)) return false;
    uid = wanted;
    return true;
  }
  void setDeviceChannel(long c) override { channel = c, calls.push_back("channel"); }
  void setLogger(std::shared_ptr<SontoLogger> l) override { logger = l, calls.push_back("logger"); }
  void setLocked(bool l) override { locked = l, calls.push_back("locked"); }
  void setDucked(bool d) override { ducked = d, calls.push_back("ducked"); }
  void setMasterVolume(float v) override {
    (ducked ? duckedLevel : master) = v;
    calls.push_back("master");
  }
  void setSettingsState(const QJsonObject& s) override { settings = s, calls.push_back("settings"); }
  void setDuckedVolume(float v) override { duckedLevel = v, calls.push_back("duckedVolume"); }
  void setCarts(std::vector<std::shared_ptr<Cart>> c) override { carts = std::move(c), calls.push_back("carts"); }
  void didReadFromDisk() override { readFromDisk = true, calls.push_back("done"); }
};

class WorkspaceFileTest : public ::testing::Test {
 protected:
  FakeSourceFactory sources;
  std::string root = makeFolder("wf-" + std::to_string(counter++));
  std::string imports = makeFolder("wf-" + std::to_string(counter++) + "-imports");
  static inline int counter = 0;

  std::string media(const std::string& name, const std::string& bytes) {
    const std::string path = imports + "/" + name;
    writeBytes(path, bytes);
    return path;
  }
};

}  // namespace

// What only the file level shows; the whole show through a workspace, settings,
// effects and moved packages included, is the document test's.
TEST_F(WorkspaceFileTest, WritingNamesTheMediaAndKeepsTheRootInOrder) {
  auto first = std::make_shared<Cart>();
  first->setName("Music");
  auto second = std::make_shared<Cart>();
  second->setSize({3, 2});
  auto a = mediaCue(media("take.wav", "AAAA"), "Intro");
  auto b = mediaCue(media("b.flac", "BBBBBB"), "");
  first->setCue(a, 0);
  first->setCue(b, 19);
  second->setCue(mediaCue(media("c.wav", "C"), "c"), 5);

  WorkspaceDocument written;
  written.version = "0.1.0";
  written.audioDeviceUID = "alsa:hw:CARD=X";
  written.deviceChannel = 3;
  written.carts = {first, second};
  written.locked = true;
  written.masterVolume = 0.7f;
  written.duckedVolume = 0.3f;
  written.settings = WorkspaceSettings().state();
  written.logger = std::make_shared<SontoLogger>();

  const std::string package = root + "/Show.sonto";
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), written, &error)) << error.message;
  EXPECT_TRUE(a->saved());
  EXPECT_EQ(a->documentPath(), "Media/take.wav");
  EXPECT_EQ(a->file(), imports + "/take.wav") << "writing leaves the file where it is";
  WorkspaceFile::setFileURL(urlOf(package), written.carts);
  EXPECT_EQ(a->file(), package + "/Media/take.wav");
  EXPECT_EQ(readBytes(package + "/Media/b.flac"), "BBBBBB");

  const std::string text = readBytes(package + "/document");
  EXPECT_EQ(text.rfind(R"({"version":"0.1.0","audioDeviceUID":"alsa:hw:CARD=X","deviceChannel":3,"carts":[)", 0),
            0u);
  for (const char* name : {R"("$class":"SontoCue")", R"("$class":"Sonto")", R"("$class":"SontoLogger")"}) {
    EXPECT_NE(text.find(name), std::string::npos) << name;
  }

  WorkspaceDocument read;
  ASSERT_TRUE(WorkspaceFile::readPackage(urlOf(package), read, &error)) << error.message;
  EXPECT_EQ(read.version, "0.1.0");
  EXPECT_EQ(read.audioDeviceUID, written.audioDeviceUID);
  EXPECT_EQ(read.deviceChannel, 3);
  EXPECT_TRUE(read.locked);
  EXPECT_EQ(read.masterVolume, 0.7f);
  EXPECT_EQ(read.duckedVolume, 0.3f);
  ASSERT_EQ(read.carts.size(), 2u);
  EXPECT_EQ(read.carts[1]->size(), (CartSize{3, 2}));
  EXPECT_EQ(readBytes(read.carts[0]->cueAtIndex(19)->file()), "BBBBBB");
}

TEST_F(WorkspaceFileTest, ResavingInPlaceKeepsMediaAndDropsDeadCues) {
  auto cart = std::make_shared<Cart>();
  cart->setCue(mediaCue(media("one.wav", "1"), "one"), 0);
  cart->setCue(mediaCue(media("two.wav", "2"), "two"), 1);
  WorkspaceDocument d;
  d.carts = {cart};
  const std::string package = root + "/Again.sonto";
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), d, &error)) << error.message;
  WorkspaceFile::setFileURL(urlOf(package), d.carts);
  // The media now lives in the package; saving again links it from the old package
  // into the new one, and the swap must not lose it.
  cart->cueAtIndex(1)->setDead(true);
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), d, &error)) << error.message;
  EXPECT_EQ(cart->count(), 1u) << "the dead cue is gone after a save";
  EXPECT_EQ(readBytes(package + "/Media/one.wav"), "1");
  EXPECT_NE(access((package + "/Media/two.wav").c_str(), F_OK), 0);
  // No staging folder is left beside the package.
  EXPECT_EQ(sonto::test::run("ls -A '" + root + "' | grep -v '^Again.sonto$' | grep -q ."), 1);

  // An empty show writes an empty Media folder.
  WorkspaceDocument empty;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(root + "/Empty.sonto"), empty, &error));
  EXPECT_EQ(sonto::test::run("test -d '" + root + "/Empty.sonto/Media' && test -z \"$(ls -A '" + root +
                             "/Empty.sonto/Media')\""),
            0);
}

TEST_F(WorkspaceFileTest, CuesWithOneFileNameShareOneMediaFile) {
  const std::string otherFolder = makeFolder("wf-other");
  writeBytes(otherFolder + "/take.wav", "second");
  auto cart = std::make_shared<Cart>();
  cart->setCue(mediaCue(media("take.wav", "first"), "a"), 0);
  cart->setCue(mediaCue(otherFolder + "/take.wav", "b"), 1);
  WorkspaceDocument d;
  d.carts = {cart};
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(root + "/Same.sonto"), d, &error));
  const auto* a = static_cast<AudioCue*>(cart->cueAtIndex(0));
  const auto* b = static_cast<AudioCue*>(cart->cueAtIndex(1));
  EXPECT_EQ(a->documentPath(), "Media/take.wav");
  EXPECT_EQ(b->documentPath(), "Media/take.wav");
  EXPECT_EQ(readBytes(root + "/Same.sonto/Media/take.wav"), "second") << "the later cue wins the entry";
}

TEST_F(WorkspaceFileTest, MediaOnAnotherFileSystemIsCopied) {
  const std::string shm = "/dev/shm/sonto-wf-" + std::to_string(getpid());
  if (mkdir(shm.c_str(), 0755) != 0) GTEST_SKIP() << "no /dev/shm";
  writeBytes(shm + "/far.wav", std::string(300000, 'x'));
  auto cart = std::make_shared<Cart>();
  cart->setCue(mediaCue(shm + "/far.wav", "far"), 0);
  WorkspaceDocument d;
  d.carts = {cart};
  SavingError error;
  const bool ok = WorkspaceFile::writePackage(urlOf(root + "/Far.sonto"), d, &error);
  struct stat from, to;
  stat((shm + "/far.wav").c_str(), &from);
  const bool copied = stat((root + "/Far.sonto/Media/far.wav").c_str(), &to) == 0;
  sonto::test::run("rm -rf '" + shm + "'");
  ASSERT_TRUE(ok) << error.message;
  ASSERT_TRUE(copied);
  EXPECT_EQ(to.st_size, 300000);
  EXPECT_NE(from.st_dev, to.st_dev);
}

TEST_F(WorkspaceFileTest, OldFilesAreReadByTolerance) {
  const std::string package = root + "/Old.sonto";
  sonto::test::run("mkdir -p '" + package + "/Media'");
  writeBytes(package + "/Media/old.wav", "old");
  // No sizes, no document paths, no ducked level, no logger, no settings.
  writeBytes(package + "/document",
             R"({"version":"0.0.1","deviceChannel":0,"carts":[{"$class":"Sonto","name":"Cart 1","size":[0,0],
                 "cues":{"2":{"$class":"SontoCue","file":"/Users/someone/Music/old.wav","name":"Old",
                 "volume":0.5}}}],"locked":false,"ducked":false,"masterVolume":0.9,"futureKey":[1,2,3]})");
  RecordingTarget target;
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::readIntoTarget(urlOf(package), target, &error)) << error.message;
  ASSERT_EQ(target.carts.size(), 1u);
  EXPECT_EQ(target.carts[0]->size(), (CartSize{5, 4}));
  const auto* cue = static_cast<AudioCue*>(target.carts[0]->cueAtInternalIndex(2));
  ASSERT_TRUE(cue);
  EXPECT_EQ(cue->file(), package + "/Media/old.wav");
  EXPECT_EQ(sources.made.back()->aliasPath, package + "/Media/old.wav");
  EXPECT_EQ(target.duckedLevel, 0.15f) << "a missing ducked level keeps the default";
  EXPECT_EQ(target.master, 0.9f);
  EXPECT_FALSE(target.logger) << "no logger in the file: the workspace keeps its own";
  EXPECT_FALSE(target.settings);
  EXPECT_TRUE(target.undo);
}

TEST_F(WorkspaceFileTest, ReadHandsValuesOverInOrderAndDuckedFilesLoseTheirMasterLevel) {
  WorkspaceDocument d;
  d.audioDeviceUID = "jack:default";
  d.ducked = true;
  d.masterVolume = 0.7f;
  d.duckedVolume = 0.3f;
  d.settings = WorkspaceSettings().state();
  d.logger = std::make_shared<SontoLogger>();
  const std::string package = root + "/Ducked.sonto";
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), d, &error));

  RecordingTarget target;
  sonto::test::LogCapture log;
  ASSERT_TRUE(WorkspaceFile::readIntoTarget(urlOf(package), target, &error));
  EXPECT_TRUE(log.contains("The show's output jack:default is not here; it plays on null: until another is chosen"))
      << log.all();
  EXPECT_EQ(target.calls, (std::vector<std::string>{"undo off", "device", "channel", "logger", "locked", "ducked",
                                                    "master", "settings", "duckedVolume", "carts", "done",
                                                    "undo on"}));
  EXPECT_TRUE(target.ducked);
  EXPECT_EQ(target.master, 1.0f) << "the saved master level went into the ducked level and was overwritten";
  EXPECT_EQ(target.duckedLevel, 0.3f);
  EXPECT_EQ(target.uid, "null:") << "a device that is not there leaves the default";

  RecordingTarget present;
  present.knownDevices = {"jack:default"};
  ASSERT_TRUE(WorkspaceFile::readIntoTarget(urlOf(package), present, &error));
  EXPECT_EQ(present.uid, "jack:default");

  RecordingTarget same;
  same.uid = "jack:default";
  ASSERT_TRUE(WorkspaceFile::readIntoTarget(urlOf(package), same, &error));
  EXPECT_EQ(std::count(same.calls.begin(), same.calls.end(), "device"), 0) << "same device: no rebinding";

  // A file without a device UID (the device had none or had died) rebinds nothing.
  d.audioDeviceUID.reset();
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), d, &error));
  EXPECT_EQ(readBytes(package + "/document").find("audioDeviceUID"), std::string::npos);
}

TEST_F(WorkspaceFileTest, SavingRunsOffTheMainThreadAndReportsOnIt) {
  auto clock = std::make_shared<KyoPlainClock>();
  clock->adoptMainThread();
  KyoInstallClock(clock);
  const auto mainThread = std::this_thread::get_id();

  auto cart = std::make_shared<Cart>();
  for (unsigned long i = 0; i < 6; ++i) cart->setCue(mediaCue(media("m" + std::to_string(i) + ".wav", "x"), ""), i);
  auto document = std::make_shared<WorkspaceDocument>();
  document->carts = {cart};
  std::atomic<bool> unblockedOffMain{false};
  std::atomic<int> mediaSteps{0};
  WorkspaceWriteHooks hooks;
  hooks.unblockUserInteraction = [&] { unblockedOffMain = std::this_thread::get_id() != mainThread; };
  hooks.didReachStep = [&](const char* step) { mediaSteps += std::string(step) == "media"; };

  std::optional<bool> outcome;
  std::thread::id completedOn;
  WorkspaceFile::saveInBackground(urlOf(root + "/Background.sonto"), document, [&](bool ok, const SavingError&) {
    outcome = ok;
    completedOn = std::this_thread::get_id();
  }, hooks);
  // Back on the main thread once the document data is built: every cue has its name.
  EXPECT_TRUE(unblockedOffMain);
  for (const auto& [index, cue] : cart->cues()) {
    const auto& audioCue = static_cast<AudioCue&>(*cue);
    EXPECT_EQ(audioCue.documentPath(), "Media/" + audioCue.file().substr(audioCue.file().rfind('/') + 1));
  }
  clock->runFor(600.0, [&] { return outcome.has_value(); });
  ASSERT_TRUE(outcome);
  EXPECT_TRUE(*outcome);
  EXPECT_EQ(completedOn, mainThread);
  EXPECT_EQ(mediaSteps, 6);

  // A failure before the document data still lets the main thread go, and reports.
  std::optional<SavingError> failure;
  WorkspaceFile::saveInBackground(QUrl("ftp://host/Show.sonto"), document,
                                  [&](bool ok, const SavingError& error) { failure = error; });
  clock->runFor(600.0, [&] { return failure.has_value(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, 1);
  KyoInstallClock(nullptr);
}
