// Saves that fail or are cut off, and documents that are broken or hostile: the
// previous show must stay whole and openable, and a read must refuse or ignore what
// it cannot trust without touching anything outside the package.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "show/ShowTestSupport.h"
#include "show/WorkspaceFile.h"
#include "support/TestFiles.h"

namespace {

namespace fs = std::filesystem;

class WorkspaceFileSafety : public ::testing::Test {
 protected:
  FakeSourceFactory sources;
  std::string root = makeFolder("wfs-" + std::to_string(counter++));
  static inline int counter = 0;

  // A show of `cues` cues whose media files hold `bytes` bytes each, under version `version`.
  WorkspaceDocument show(const std::string& version, int cues, size_t bytes) {
    const std::string folder = makeFolder("wfs-media-" + std::to_string(counter++));
    auto cart = std::make_shared<Cart>();
    cart->setSize({5, 5});
    for (int i = 0; i < cues; ++i) {
      const std::string path = folder + "/m" + std::to_string(i) + ".wav";
      writeBytes(path, std::string(bytes, static_cast<char>('a' + i % 26)));
      cart->setCue(AudioCue::createWithFile(path, nullptr), static_cast<unsigned long>(i));
    }
    WorkspaceDocument d;
    d.version = version;
    d.carts = {cart};
    return d;
  }

  // Reads the package and answers its version; fails the test if it does not open.
  std::string openedVersion(const std::string& package) {
    WorkspaceDocument d;
    SavingError error;
    EXPECT_TRUE(WorkspaceFile::readPackage(urlOf(package), d, &error)) << error.message;
    return d.version;
  }
};

}  // namespace

// One cue whose media file is gone must not stop every save of the show: the rest is
// saved, the cue keeps its name in the package, and the file put back there is found.
TEST_F(WorkspaceFileSafety, AShowWithAMissingFileStillSavesAndTheCueCanBeRelinked) {
  const std::string package = root + "/Show.sonto";
  SavingError error;
  const std::string saved = "Saved Show.sonto without the media of ";
  // Lost outside the package before its first save...
  auto first = show("first", 3, 10);
  unlink(static_cast<AudioCue*>(first.carts[0]->cueAtIndex(1))->file().c_str());
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), first, &error)) << error.message;
  EXPECT_EQ(first.notes, std::vector<std::string>{saved + "1 cue whose file is missing: \"m1\""});
  // ...and inside it afterwards.
  WorkspaceDocument second;
  ASSERT_TRUE(WorkspaceFile::readPackage(urlOf(package), second, &error));
  auto* inside = static_cast<AudioCue*>(second.carts[0]->cueAtIndex(2));
  inside->setName("Thunder");
  unlink(inside->file().c_str());
  second.version = "second";
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), second, &error)) << error.message;
  EXPECT_EQ(second.notes, std::vector<std::string>{saved + "2 cues whose file is missing: \"m1\", \"Thunder\""});
  EXPECT_EQ(openedVersion(package), "second");

  WorkspaceDocument last;
  ASSERT_TRUE(WorkspaceFile::readPackage(urlOf(package), last, &error));
  const auto* thunder = static_cast<AudioCue*>(last.carts[0]->cueAtIndex(2));
  EXPECT_EQ(thunder->name(), "Thunder");
  EXPECT_EQ(thunder->file(), package + "/Media/m2.wav");
  EXPECT_FALSE(fs::exists(thunder->file()));
  EXPECT_TRUE(fs::exists(static_cast<AudioCue*>(last.carts[0]->cueAtIndex(0))->file()));
  // Relinked by putting the file back where the cue looks: the next save keeps it.
  writeBytes(thunder->file(), "back again");
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), last, &error)) << error.message;
  EXPECT_EQ(last.notes, std::vector<std::string>{saved + "1 cue whose file is missing: \"m1\""});
  EXPECT_EQ(readBytes(package + "/Media/m2.wav"), "back again");
}

TEST_F(WorkspaceFileSafety, FailedSavesGiveTheirCodeAndLeaveTheOldPackage) {
  const std::string package = root + "/Show.sonto";
  auto old = show("old", 2, 10);
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), old, &error));
  const std::string oldDocument = readBytes(package + "/document");

  // Not a file URL.
  EXPECT_FALSE(WorkspaceFile::writePackage(QUrl("https://example.com/Show.sonto"), old, &error));
  EXPECT_EQ(error.code, 1);
  EXPECT_EQ(error.message, "Error - trying to write to something that is not a file: https://example.com/Show.sonto");

  // A folder that cannot be written: a path under a regular file (root ignores modes).
  writeBytes(root + "/plain", "x");
  EXPECT_FALSE(WorkspaceFile::writePackage(urlOf(root + "/plain/Show.sonto"), old, &error));
  EXPECT_EQ(error.code, 3);
  EXPECT_EQ(error.message.rfind("Error - failed to create directory for item at " + root + "/plain/Show.sonto: ", 0),
            0u)
      << error.message;

  // Nothing is left beside the package by the failures.
  EXPECT_EQ(readBytes(package + "/document"), oldDocument);
  EXPECT_EQ(sonto::test::run("ls -A '" + root + "' | grep -q saving"), 1);
}

// A full disk, made with a file size limit in a child process: the document or a
// copied media file cannot be written whole.
TEST_F(WorkspaceFileSafety, AFullDiskFailsTheSaveAndKeepsTheOldPackage) {
  const std::string package = root + "/Full.sonto";
  auto old = show("old", 1, 10);
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), old, &error));

  struct Case {
    const char* name;
    size_t logBytes;
    rlim_t limit;
    int code;
  };
  const Case cases[] = {{"document", 1 << 20, 4096, 6}};
  for (const auto& c : cases) {
    auto next = show("new", 1, 10);
    next.logger = std::make_shared<SontoLogger>();
    next.logger->setLog(std::vector<std::string>{std::string(c.logBytes, 'L')});
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      signal(SIGXFSZ, SIG_IGN);
      rlimit limit{c.limit, c.limit};
      setrlimit(RLIMIT_FSIZE, &limit);
      SavingError childError;
      const bool ok = WorkspaceFile::writePackage(urlOf(package), next, &childError);
      _exit(ok ? 100 : childError.code);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status)) << c.name;
    EXPECT_EQ(WEXITSTATUS(status), c.code) << c.name;
    EXPECT_EQ(openedVersion(package), "old") << c.name;
  }
}

// The saving process is killed at random moments; every time, the package opens
// as the whole old show or the whole new one.
TEST_F(WorkspaceFileSafety, KilledSavesNeverLeaveABrokenPackage) {
  const std::string package = root + "/Killed.sonto";
  auto first = show("0", 4, 1000);
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), first, &error));
  std::mt19937 random(1234);
  int sawOld = 0, sawNew = 0;
  for (int round = 1; round <= 40; ++round) {
    auto next = show(std::to_string(round), 12, 200000);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      SavingError childError;
      _exit(WorkspaceFile::writePackage(urlOf(package), next, &childError) ? 0 : 1);
    }
    // The delay only spreads the kills over the save; nothing depends on its length.
    usleep(std::uniform_int_distribution<useconds_t>(0, 60000)(random));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    const std::string version = openedVersion(package);
    ASSERT_FALSE(version.empty()) << "round " << round;
    WorkspaceDocument opened;
    ASSERT_TRUE(WorkspaceFile::readPackage(urlOf(package), opened, &error));
    if (version == std::to_string(round)) {
      ++sawNew;
      // A new package is complete: every media file of it is there, whole.
      for (const auto& [index, cue] : opened.carts.at(0)->cues()) {
        struct stat st;
        ASSERT_EQ(stat(cue->file().c_str(), &st), 0) << cue->file();
        EXPECT_EQ(st.st_size, 200000);
      }
    } else {
      // An older show: the last one whose save got through.
      ++sawOld;
      const int number = std::stoi(version);
      EXPECT_TRUE(number >= 0 && number < round) << version;
    }
  }
  // The next save clears what the killed ones left beside the package.
  auto last = show("last", 1, 10);
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), last, &error));
  EXPECT_EQ(sonto::test::run("ls -A '" + root + "' | grep -q saving"), 1);
  EXPECT_EQ(openedVersion(package), "last");
  RecordProperty("old", sawOld);
  RecordProperty("new", sawNew);
  EXPECT_GT(sawOld + sawNew, 0);
}

TEST_F(WorkspaceFileSafety, BrokenAndHostileDocumentsAreRefused) {
  struct Case {
    const char* name;
    std::string document;
  };
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  const Case cases[] = {
      {"empty", ""},
      {"not JSON", "bplist00\x01\x02"},
      {"truncated", R"({"version":"1","carts":[{"$class":"Sonto","cues":{)"},
      {"array root", R"([1,2,3])"},
      {"string root", R"("document")"},
      {"deep nesting", R"({"x":)" + deep + "}"},
      {"carts not an array", R"({"carts":"all of them"})"},
      {"cart not an object", R"({"carts":[1]})"},
      {"cart of another class", R"({"carts":[{"$class":"NSString"}]})"},
      {"cues not a dictionary", R"({"carts":[{"$class":"Sonto","cues":[1,2]}]})"},
      {"locked as text", R"({"locked":"yes"})"},
      {"master level as text", R"({"masterVolume":"1"})"},
      {"settings as array", R"({"settings":[]})"},
      {"logger as text", R"({"logger":"log"})"},
      {"device as number", R"({"audioDeviceUID":7})"},
      {"huge number", R"({"masterVolume":1e400})"},
      {"nul in the middle", std::string("{\"version\":\"1\"}\0garbage", 24)},
  };
  int i = 0;
  for (const auto& c : cases) {
    const std::string package = root + "/Bad" + std::to_string(i++) + ".sonto";
    sonto::test::run("mkdir -p '" + package + "/Media'");
    writeBytes(package + "/document", c.document);
    WorkspaceDocument d;
    d.version = "untouched";
    SavingError error;
    EXPECT_FALSE(WorkspaceFile::readPackage(urlOf(package), d, &error)) << c.name;
    EXPECT_EQ(error.code, 1) << c.name;
    EXPECT_EQ(error.message.rfind("Error - failed to read document data from " + package + "/document: ", 0), 0u)
        << c.name << ": " << error.message;
    EXPECT_EQ(d.version, "untouched") << c.name << ": nothing is opened half-way";
  }

  // No document at all, a folder in its place, one too large to be a show, a FIFO
  // (refused before an open that would wait for a writer).
  SavingError error;
  WorkspaceDocument d;
  EXPECT_FALSE(WorkspaceFile::readPackage(urlOf(root + "/Nothing.sonto"), d, &error));
  EXPECT_EQ(error.code, 1);
  sonto::test::run("mkdir -p '" + root + "/Folder.sonto/document'");
  EXPECT_FALSE(WorkspaceFile::readPackage(urlOf(root + "/Folder.sonto"), d, &error));
  sonto::test::run("mkdir -p '" + root + "/Huge.sonto' && truncate -s 300M '" + root + "/Huge.sonto/document'");
  EXPECT_FALSE(WorkspaceFile::readPackage(urlOf(root + "/Huge.sonto"), d, &error));
  EXPECT_NE(error.message.find("too large"), std::string::npos) << error.message;
  sonto::test::run("mkdir -p '" + root + "/Fifo.sonto'");
  ASSERT_TRUE(sonto::test::makeAnsweredFifo(root + "/Fifo.sonto/document"));
  EXPECT_FALSE(WorkspaceFile::readPackage(urlOf(root + "/Fifo.sonto"), d, &error));
  EXPECT_NE(error.message.find("/document: it is a FIFO, not a regular file"), std::string::npos) << error.message;
}

// Levels beyond what a control can set, and names that are not text, are mended
// where they stand, each named once; the show opens.
TEST_F(WorkspaceFileSafety, HostileLevelsAndNamesAreMendedAndNamed) {
  const std::string cue = R"({"$class":"SontoCue","file":"x.wav","name":"Bell")";
  struct Case {
    const char* name;
    std::string document;
    float master, ducked, cueVolume;
    std::string cartName, cueName, note;
  };
  const Case cases[] = {
      {"loud master", R"({"masterVolume":1000,"duckedVolume":3e38})", 1, 1, 0, "", "",
       "The master level was 1000, outside 0 to 1; it plays at 1"},
      {"inverted master", R"({"masterVolume":-5})", 0, 0.15f, 0, "", "",
       "The master level was -5, outside 0 to 1; it plays at 0"},
      {"loud cue", R"({"carts":[{"$class":"Sonto","cues":{"0":)" + cue + R"(,"volume":1e300}}}]})", 1, 0.15f, 1,
       "", "Bell", "The volume of the cue \"Bell\" was 1e+300, outside 0 to 1; it plays at 1"},
      {"cart name", "{\"carts\":[{\"$class\":\"Sonto\",\"name\":\"Act \xff\"}]}", 1, 0.15f, 0,
       "Act \xef\xbf\xbd", "", "The document's carts[0].name was not valid text"},
      {"cue name", R"({"carts":[{"$class":"Sonto","cues":{"0":{"$class":"SontoCue","name":"\udc00!"}}}]})", 1,
       0.15f, 0, "", "\xef\xbf\xbd!", "The document's carts[0].cues.0.name was not valid text"},
  };
  int i = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string package = root + "/Mended" + std::to_string(i++) + ".sonto";
    sonto::test::run("mkdir -p '" + package + "/Media'");
    writeBytes(package + "/document", c.document);
    WorkspaceDocument d;
    SavingError error;
    ASSERT_TRUE(WorkspaceFile::readPackage(urlOf(package), d, &error)) << error.message;
    EXPECT_EQ(d.masterVolume, c.master);
    EXPECT_EQ(d.duckedVolume.value_or(0.15f), c.ducked);
    ASSERT_FALSE(d.notes.empty());
    EXPECT_EQ(d.notes[0].rfind(c.note, 0), 0u) << d.notes[0];
    if (d.carts.empty()) continue;
    EXPECT_EQ(d.carts[0]->name(), c.cartName);
    if (const auto* audio = static_cast<const AudioCue*>(d.carts[0]->cueAtInternalIndex(0))) {
      EXPECT_EQ(audio->name(), c.cueName);
      EXPECT_EQ(audio->volume(), c.cueVolume);
    }
  }
}

TEST_F(WorkspaceFileSafety, AbsurdSizesAreCutDownToAGrid) {
  const std::string package = root + "/Absurd.sonto";
  sonto::test::run("mkdir -p '" + package + "/Media'");
  writeBytes(package + "/document",
             R"({"carts":[{"$class":"Sonto","size":[1e9,1e9],"cues":{"1000000000":{"$class":"SontoCue"},
                 "-1":{"$class":"SontoCue"},"3":{"$class":"SontoCue","file":"x.wav","volume":"loud"},
                 "4":{"$class":"Evil"}}}],"deviceChannel":1e300})");
  WorkspaceDocument d;
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::readPackage(urlOf(package), d, &error)) << error.message;
  ASSERT_EQ(d.carts.size(), 1u);
  EXPECT_EQ(d.carts[0]->size(), (CartSize{5, 4}));
  EXPECT_EQ(d.carts[0]->count(), 1u);
  EXPECT_TRUE(d.carts[0]->cueAtInternalIndex(3));
  EXPECT_EQ(d.deviceChannel, 1);
}

TEST_F(WorkspaceFileSafety, MediaPathsNeverLeadOutOfThePackage) {
  const std::string package = root + "/Paths.sonto";
  const std::string outside = makeFolder("wfs-outside");
  writeBytes(outside + "/secret.wav", "secret");
  sonto::test::run("mkdir -p '" + package + "/Media/sub'");
  writeBytes(package + "/Media/good.wav", "good");
  writeBytes(package + "/Media/secret.wav", "inside");
  symlink((outside + "/secret.wav").c_str(), (package + "/Media/link.wav").c_str());
  symlink(outside.c_str(), (package + "/Media/dir").c_str());
  symlink("good.wav", (package + "/Media/inner.wav").c_str());
  symlink("/nonexistent/target", (package + "/Media/dangling.wav").c_str());

  struct Case {
    const char* documentPath;
    std::string expected;  // the file the cue ends up with
  };
  const Case cases[] = {
      {"Media/good.wav", package + "/Media/good.wav"},
      {"Media/inner.wav", package + "/Media/inner.wav"},
      {"../../../../../../etc/passwd", package + "/Media/secret.wav"},
      {"/etc/passwd", package + "/Media/secret.wav"},
      {"Media/../../secret.wav", package + "/Media/secret.wav"},
      {"Media/link.wav", package + "/Media/secret.wav"},
      {"Media/dir/secret.wav", package + "/Media/secret.wav"},
      {"Media/dangling.wav", package + "/Media/secret.wav"},
  };
  QJsonObject cues;
  for (size_t i = 0; i < std::size(cases); ++i) {
    cues.insert(QString::number(i), QJsonObject{{"$class", "SontoCue"},
                                                {"file", QString::fromStdString(outside + "/secret.wav")},
                                                {"documentPath", cases[i].documentPath}});
  }
  // One cue whose file name itself climbs out.
  cues.insert("20", QJsonObject{{"$class", "SontoCue"}, {"file", "/a/.."}});
  writeBytes(package + "/document",
             SontoArchive::encode(QJsonObject{{"carts", QJsonArray{QJsonObject{{"$class", "Sonto"}, {"cues", cues}}}}})
                 .toStdString());
  WorkspaceDocument d;
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::readPackage(urlOf(package), d, &error)) << error.message;
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Cue* cue = d.carts[0]->cueAtInternalIndex(i);
    ASSERT_TRUE(cue) << i;
    EXPECT_EQ(cue->file(), cases[i].expected) << cases[i].documentPath;
  }
  EXPECT_EQ(d.carts[0]->cueAtInternalIndex(20)->file().rfind(package + "/Media/", 0), 0u);
  EXPECT_EQ(readBytes(outside + "/secret.wav"), "secret");

  std::string reason;
  EXPECT_FALSE(WorkspaceFile::mediaPathInPackage(package, "", &reason));
  EXPECT_FALSE(WorkspaceFile::mediaPathInPackage(package, "Media/..", &reason));
  EXPECT_EQ(reason, "the media path climbs out of the package");
}

TEST_F(WorkspaceFileSafety, AnInterruptedTwoRenameSwapIsUndoneOnOpen) {
  // What a save on a file system without an exchanging rename leaves when it dies
  // between its two renames: no package, the previous one aside.
  const std::string package = root + "/Aside.sonto";
  auto old = show("old", 1, 10);
  SavingError error;
  ASSERT_TRUE(WorkspaceFile::writePackage(urlOf(package), old, &error));
  ASSERT_EQ(rename(package.c_str(), WorkspaceFile::previousPackagePath(package).c_str()), 0);
  EXPECT_EQ(openedVersion(package), "old");
  EXPECT_EQ(access(WorkspaceFile::previousPackagePath(package).c_str(), F_OK), -1);
}
