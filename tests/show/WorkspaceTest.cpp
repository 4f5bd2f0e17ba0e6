// The workspace without sound: its temporary folder and imports on disk (names that
// collide, link chains and loops, bad sources), the media test, carts, the MIDI
// channel filter, defaults.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "ShowTestSupport.h"
#include "audio/KyoAudioDevice.h"
#include "show/Workspace.h"
#include "support/TestFiles.h"

namespace fs = std::filesystem;
using namespace showtest;

namespace {

std::string writeText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
  return path.string();
}

class WorkspaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = fs::path(sonto::test::temporaryPath("ws-" + std::to_string(++counter)));
    fs::create_directories(root);
    setenv("XDG_CACHE_HOME", (root / "cache").c_str(), 1);
    workspace = std::make_unique<Workspace>(out.device);
  }
  void TearDown() override {
    if (workspace) workspace->close();
  }
  static inline int counter = 0;
  VirtualTime time;
  OfflineDevice out{2, 48000, 480};
  fs::path root;
  std::unique_ptr<Workspace> workspace;
};

}  // namespace

TEST_F(WorkspaceTest, NewWorkspaceDefaultsAndItsTemporaryFolder) {
  EXPECT_EQ(workspace->deviceChannel(), 1);
  EXPECT_FALSE(workspace->isPaused());
  EXPECT_FALSE(workspace->isLocked());
  EXPECT_FALSE(workspace->isDucked());
  EXPECT_FLOAT_EQ(workspace->storedMasterVolume(), 1.0f);
  EXPECT_FLOAT_EQ(workspace->previousVolume(), 1.0f);
  uint32_t bits;
  const float ducked = workspace->duckedVolume();
  std::memcpy(&bits, &ducked, sizeof bits);
  EXPECT_EQ(bits, 0x3E19999Au);
  EXPECT_TRUE(workspace->carts().empty());
  EXPECT_EQ(workspace->audioDevice(), out.device);

  const fs::path tmp(workspace->tmpPath());
  EXPECT_EQ(tmp.parent_path(), root / "cache" / "Sonto");
  EXPECT_EQ(tmp.filename().string().rfind("sonto-", 0), 0u);
  EXPECT_TRUE(fs::is_directory(tmp));
  workspace->close();
  EXPECT_FALSE(fs::exists(tmp)) << "close takes imported media with it";
}

TEST_F(WorkspaceTest, CacheFolderFollowsTheEnvironment) {
  setenv("XDG_CACHE_HOME", "/x/cache", 1);
  EXPECT_EQ(Workspace::cacheDir(), "/x/cache/Sonto");
  setenv("XDG_CACHE_HOME", "relative", 1);
  const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";
  if (!home.empty()) {
    EXPECT_EQ(Workspace::cacheDir(), home + "/.cache/Sonto");
  }
  unsetenv("XDG_CACHE_HOME");
  if (!home.empty()) {
    EXPECT_EQ(Workspace::cacheDir(), home + "/.cache/Sonto");
  }
}

TEST_F(WorkspaceTest, UnwritableCacheStillOpensAndImportsFailOneByOne) {
  writeText(root / "blocked", "a file where the cache folder would go");
  setenv("XDG_CACHE_HOME", (root / "blocked").c_str(), 1);
  sonto::test::LogCapture log;
  Workspace blocked(out.device);
  EXPECT_EQ(countLines(log, "Failed to create temporary directory at"), 1u);
  EXPECT_TRUE(blocked.copyFileIntoTmp(writeText(root / "a" / "take.wav", "x")).empty());
  EXPECT_EQ(countLines(log, "Failed to copy"), 1u);
  blocked.close();
}

TEST_F(WorkspaceTest, ImportsOfCollidingNamesCountUp) {
  const std::string a = writeText(root / "a" / "take.wav", "first");
  const std::string b = writeText(root / "b" / "take.wav", "second");
  const std::string c = writeText(root / "c" / "take.wav", "third");
  const std::string plain = writeText(root / "c" / "noext", "no extension");
  const fs::path tmp(workspace->tmpPath());
  struct Case {
    std::string source, name, content;
  };
  for (const Case& k : {Case{a, "take.wav", "first"}, Case{b, "take-1.wav", "second"},
                        Case{c, "take-2.wav", "third"}, Case{plain, "noext", "no extension"},
                        Case{plain, "noext-1", "no extension"}}) {
    const std::string copied = workspace->copyFileIntoTmp(k.source);
    EXPECT_EQ(copied, (tmp / k.name).string());
    EXPECT_EQ(readBytes(copied), k.content) << k.name;
  }
  EXPECT_TRUE(workspace->containsMediaFile((tmp / "take-1.wav").string()));
}

TEST_F(WorkspaceTest, ImportsFollowLinkChainsAndRefuseLoops) {
  const std::string real = writeText(root / "media" / "real.wav", "the sound");
  fs::create_directories(root / "links");
  fs::create_symlink("../media/real.wav", root / "links" / "step2.wav");  // relative to its folder
  fs::create_symlink(root / "links" / "step2.wav", root / "links" / "step1.wav");
  const std::string copied = workspace->copyFileIntoTmp((root / "links" / "step1.wav").string());
  ASSERT_FALSE(copied.empty());
  EXPECT_EQ(fs::path(copied).filename(), "step1.wav");
  EXPECT_FALSE(fs::is_symlink(copied)) << "the file itself is copied, not the link";
  EXPECT_EQ(readBytes(copied), "the sound");

  fs::create_symlink(root / "links" / "loopB", root / "links" / "loopA");
  fs::create_symlink(root / "links" / "loopA", root / "links" / "loopB");
  fs::create_symlink(root / "links" / "self", root / "links" / "self");
  fs::create_symlink(root / "nowhere", root / "links" / "dangling");
  sonto::test::LogCapture log;
  for (const char* bad : {"loopA", "self", "dangling"}) {
    EXPECT_TRUE(workspace->copyFileIntoTmp((root / "links" / bad).string()).empty()) << bad;
  }
  EXPECT_TRUE(workspace->copyFileIntoTmp((root / "missing.wav").string()).empty());
  EXPECT_TRUE(workspace->copyFileIntoTmp((root / "media").string()).empty()) << "a folder is no media file";
  EXPECT_EQ(countLines(log, "Failed to copy"), 5u);
  EXPECT_FALSE(fs::exists(fs::path(workspace->tmpPath()) / "loopA"));
}

TEST_F(WorkspaceTest, ContainsMediaFileComparesWithoutCase) {
  workspace->setFileURL(QUrl::fromLocalFile("/Shows/Friday.sonto"));
  EXPECT_TRUE(workspace->containsMediaFile("/shows/friday.SONTO/Media/take.wav"));
  EXPECT_FALSE(workspace->containsMediaFile("/shows/thursday.sonto/Media/take.wav"));
  std::string upper = workspace->tmpPath();
  for (char& ch : upper) ch = char(std::toupper(static_cast<unsigned char>(ch)));
  EXPECT_TRUE(workspace->containsMediaFile(upper + "/x.wav"));
  workspace->setFileURL(QUrl());
  EXPECT_FALSE(workspace->containsMediaFile("/anything"));
}

TEST_F(WorkspaceTest, CartsKeepTheirOrderAndBackReference) {
  workspace->addFirstCartIfNeeded(false);
  ASSERT_EQ(workspace->carts().size(), 1u);
  EXPECT_EQ(workspace->carts()[0]->name(), "Cart 1");
  workspace->addFirstCartIfNeeded(false);
  EXPECT_EQ(workspace->carts().size(), 1u);

  Workspace dragged(out.device);
  dragged.setCreatedFromDrag(true);
  dragged.addFirstCartIfNeeded(false);
  EXPECT_TRUE(dragged.carts().empty()) << "the dragged tab's cart is about to arrive";
  Workspace opened(out.device);
  opened.addFirstCartIfNeeded(true);
  EXPECT_TRUE(opened.carts().empty());

  auto second = std::make_shared<Cart>();
  second->setName("Two");
  workspace->addCart(second);
  EXPECT_EQ(second->workspace(), workspace.get());
  workspace->swapCartAtIndex(0, 1);
  EXPECT_EQ(workspace->carts()[0]->name(), "Two");
  workspace->swapCartAtIndex(0, 9);  // refused with a log line
  EXPECT_EQ(workspace->carts()[0]->name(), "Two");
  auto removed = workspace->removeCart(second.get());
  EXPECT_EQ(removed, second);
  EXPECT_EQ(second->workspace(), nullptr);
  EXPECT_EQ(workspace->removeCart(second.get()), nullptr);
  dragged.close();
  opened.close();
}

TEST_F(WorkspaceTest, MIDIReachesCartsOnTheWorkspaceChannelOnly) {
  auto cart = std::make_shared<Cart>();
  workspace->addCart(cart);
  auto cue = countingCue("midi", "", 60);
  cart->setCue(cue, 0);
  struct Case {
    long filter;
    int channel;
    int downs;
  };
  for (const Case c : {Case{0, 1, 1}, Case{0, 16, 1}, Case{2, 1, 0}, Case{2, 2, 1}, Case{16, 16, 1}}) {
    cue->downs = 0;
    workspace->setMidiChannel(c.filter);
    workspace->processMIDIMessages({SontoMIDIMessage::noteOn(60, 100, c.channel)});
    EXPECT_EQ(cue->downs, c.downs) << "filter " << c.filter << ", channel " << c.channel;
  }
  workspace->processMIDIMessages(std::vector<SontoMIDIMessage>{});

  // A batch as the input hands it over reaches the cues as it is: note on, then off.
  workspace->setMidiChannel(0);
  cue->downs = 0;
  workspace->processMIDIMessages(KyoMIDIMessages{{0x93, 60, 90}, {0x83, 60, 0}, {0x90, 61, 90}});
  EXPECT_EQ(cue->downs, 1);
  EXPECT_EQ(SontoMIDIMessage::from(KyoMIDIMessage{0x9F, 1, 2}).channel(), 16);
}

TEST_F(WorkspaceTest, SettersOfFlagsTouchNoAudio) {
  out.device->setMasterVolume(0.7f);
  workspace->setDucked(true);
  workspace->setPaused(true);
  EXPECT_FLOAT_EQ(out.device->masterVolume(), 0.7f);
  workspace->applyMasterVolumeToDevice();
  EXPECT_FLOAT_EQ(out.device->masterVolume(), Workspace::kDefaultDuckedVolume);
  out.device->close();
  EXPECT_FLOAT_EQ(workspace->masterVolume(), Workspace::kDefaultDuckedVolume) << "closed: the stored level";
  workspace->setDucked(false);
  EXPECT_FLOAT_EQ(workspace->masterVolume(), 1.0f);
}
