#include "foundation/KyoAlias.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/Waiting.h"
#include "support/TestFiles.h"

namespace fs = std::filesystem;
using sonto::test::LogCapture;

namespace {

// A fresh folder per test, with symbolic links resolved so paths compare exactly.
std::string freshFolder(const std::string& name) {
  fs::path folder = fs::path(sonto::test::temporaryFolder()) / name;
  fs::remove_all(folder);
  fs::create_directories(folder);
  return fs::canonical(folder).string();
}

void writeFile(const std::string& path, const std::string& contents) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << contents;
}
}  // namespace

TEST(KyoAlias, OnlyExistingFilesGiveAnAlias) {
  LogCapture log;
  const std::string folder = freshFolder("exists");
  EXPECT_EQ(KyoAlias::aliasWithPath(folder + "/missing.wav"), nullptr);
  EXPECT_EQ(KyoAlias::aliasWithPath(""), nullptr);
  EXPECT_EQ(KyoAlias::aliasWithPath(folder + "/missing/inner.wav"), nullptr);
  EXPECT_TRUE(log.lines().empty());  // a missing file is no error

  writeFile(folder + "/a.wav", "abc");
  auto alias = KyoAlias::aliasWithPath(folder + "/a.wav");
  ASSERT_NE(alias, nullptr);
  EXPECT_EQ(alias->lastKnownFullPath(), "");  // nothing resolved yet
  EXPECT_EQ(alias->fullPath(), folder + "/a.wav");
  EXPECT_EQ(alias->lastKnownFullPath(), folder + "/a.wav");

  // A relative path is recorded absolute.
  fs::path previous = fs::current_path();
  fs::current_path(folder);
  auto relative = KyoAlias::aliasWithPath("a.wav");
  fs::current_path(previous);
  ASSERT_NE(relative, nullptr);
  EXPECT_EQ(relative->fullPath(), folder + "/a.wav");

  // A base document that is not there is an error.
  EXPECT_EQ(alias->fullPathFromPath(folder + "/no such document"), "");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind("Error: -43 ", 0), 0u) << log.lines()[0];
}

TEST(KyoAlias, FollowsTheDocumentWhenBothMove) {
  const std::string root = freshFolder("package");
  const std::string document = root + "/Show.sonto/document";
  writeFile(document, "{}");
  writeFile(root + "/Show.sonto/Media/kick drum.wav", "kick");
  writeFile(root + "/sounds/outside.wav", "outside");
  auto inside = KyoAlias::aliasWithPath(root + "/Show.sonto/Media/kick drum.wav", document);
  auto outside = KyoAlias::aliasWithPath(root + "/sounds/outside.wav", document);
  ASSERT_TRUE(inside && outside);
  KyoAlias::Record record;
  ASSERT_TRUE(KyoAlias::decodeRecord(inside->aliasData(), record));
  EXPECT_EQ(record.relativePath, "Media/kick drum.wav");
  ASSERT_TRUE(KyoAlias::decodeRecord(outside->aliasData(), record));
  EXPECT_EQ(record.relativePath, "../sounds/outside.wav");

  // The whole tour folder moves to another machine's disk.
  fs::rename(root + "/Show.sonto", root + "/Moved.sonto");
  fs::create_directories(root + "/tour");
  fs::rename(root + "/Moved.sonto", root + "/tour/Moved.sonto");
  fs::rename(root + "/sounds", root + "/tour/sounds");
  const std::string moved = root + "/tour/Moved.sonto/document";

  EXPECT_EQ(inside->fullPath(), "");  // no base: the recorded path is gone
  EXPECT_EQ(inside->fullPathFromPath(moved), root + "/tour/Moved.sonto/Media/kick drum.wav");
  EXPECT_EQ(inside->lastKnownFullPath(), root + "/tour/Moved.sonto/Media/kick drum.wav");
  EXPECT_EQ(inside->archive().lastKnownPath, root + "/tour/Moved.sonto/Media/kick drum.wav");
  EXPECT_EQ(outside->fullPathFromPath(moved), root + "/tour/sounds/outside.wav");
  // The base may be given as the package folder itself.
  EXPECT_EQ(inside->fullPathFromPath(root + "/tour/Moved.sonto"), root + "/tour/Moved.sonto/Media/kick drum.wav");
}

TEST(KyoAlias, FindsTheSameNameBesideTheDocumentAndRenamedFiles) {
  const std::string root = freshFolder("beside");
  writeFile(root + "/elsewhere/intro.wav", "intro");
  writeFile(root + "/show/document", "{}");
  auto alias = KyoAlias::aliasWithPath(root + "/elsewhere/intro.wav");
  ASSERT_TRUE(alias);

  // Collected next to the document by hand.
  fs::rename(root + "/elsewhere/intro.wav", root + "/show/intro.wav");
  EXPECT_EQ(alias->fullPath(), "");
  EXPECT_EQ(alias->fullPathFromPath(root + "/show/document"), root + "/show/intro.wav");

  // Renamed in its folder: found by its identity, with or without a base.
  writeFile(root + "/elsewhere/walk-in.wav", "walk-in music");
  auto renamed = KyoAlias::aliasWithPath(root + "/elsewhere/walk-in.wav");
  fs::rename(root + "/elsewhere/walk-in.wav", root + "/elsewhere/walk-in (final).wav");
  EXPECT_EQ(renamed->fullPath(), root + "/elsewhere/walk-in (final).wav");
  fs::rename(root + "/elsewhere/walk-in (final).wav", root + "/show/renamed too.wav");
  EXPECT_EQ(renamed->fullPath(), "");
  EXPECT_EQ(renamed->fullPathFromPath(root + "/show/document"), root + "/show/renamed too.wav");

  // Deleted, and another file of the same size put in its folder: not taken for it.
  fs::remove(root + "/show/renamed too.wav");
  writeFile(root + "/show/impostor.wav", "walk-in music");
  EXPECT_EQ(renamed->fullPathFromPath(root + "/show/document"), "");
  // The last known path survives a failed resolution.
  EXPECT_EQ(renamed->lastKnownFullPath(), root + "/show/renamed too.wav");
}

TEST(KyoAlias, DeletedFilesArchivesAndDamagedRecords) {
  LogCapture log;
  const std::string root = freshFolder("deleted");
  writeFile(root + "/gone.wav", "x");
  writeFile(root + "/also gone.wav", "y");
  auto alias = KyoAlias::aliasWithPath(root + "/gone.wav");
  auto other = KyoAlias::aliasWithPath(root + "/also gone.wav");
  ASSERT_TRUE(alias && other);
  EXPECT_FALSE(alias->isEqual(*other));
  alias->fullPath();
  const KyoAlias::Archive archive = alias->archive();

  fs::remove(root + "/gone.wav");
  fs::remove(root + "/also gone.wav");
  auto restored = KyoAlias::aliasWithArchive(archive);
  EXPECT_EQ(restored->fullPath(), "");
  EXPECT_EQ(restored->fileURL(), "file://");
  EXPECT_EQ(restored->lastKnownFullPath(), root + "/gone.wav");
  EXPECT_TRUE(alias->isEqual(*other));  // both vanished
  EXPECT_TRUE(log.lines().empty());

  // An empty alias archives as no bytes and reads back empty.
  KyoAlias empty;
  EXPECT_FALSE(empty.hasRecord());
  EXPECT_EQ(empty.fullPath(), "");
  auto emptyAgain = KyoAlias::aliasWithArchive(empty.archive());
  EXPECT_FALSE(emptyAgain->hasRecord());
  EXPECT_TRUE(log.lines().empty());

  // Every truncation of a record, and flipped bytes, decode to nothing, logged.
  const std::vector<uint8_t> bytes = archive.alias;
  for (size_t length = 1; length < bytes.size(); ++length) {
    log.clear();
    auto damaged = KyoAlias::aliasWithData(std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(length)),
                                           "/last/known.wav");
    EXPECT_FALSE(damaged->hasRecord()) << length;
    EXPECT_EQ(damaged->fullPath(), "");
    EXPECT_EQ(damaged->lastKnownFullPath(), "/last/known.wav");
    EXPECT_EQ(log.lines().size(), 1u);
  }
  std::vector<uint8_t> hugeLength = bytes;
  hugeLength[4] = 0xFF;
  hugeLength[11] = 0xFF;  // path length near 2^64
  EXPECT_FALSE(KyoAlias::aliasWithData(hugeLength)->hasRecord());
  // Bytes set by hand that do not decode resolve to nothing, quietly.
  KyoAlias byHand;
  byHand.setAliasData({1, 2, 3});
  EXPECT_EQ(byHand.fullPath(), "");
}

TEST(KyoAlias, CopiesAreIndependent) {
  const std::string root = freshFolder("copies");
  writeFile(root + "/a.wav", "a");
  writeFile(root + "/b.wav", "b");
  auto original = KyoAlias::aliasWithPath(root + "/a.wav");
  original->fullPath();
  auto copy = original->copy();
  EXPECT_EQ(copy->lastKnownFullPath(), root + "/a.wav");
  EXPECT_TRUE(copy->isEqual(*original));
  original.reset();  // either may go first
  EXPECT_EQ(copy->fullPath(), root + "/a.wav");

  auto b = KyoAlias::aliasWithPath(root + "/b.wav");
  KyoAlias assigned;
  assigned = *copy;
  copy->setAliasData(b->aliasData());
  EXPECT_EQ(copy->fullPath(), root + "/b.wav");
  EXPECT_EQ(assigned.fullPath(), root + "/a.wav");
}

TEST(KyoAlias, FileURLIsPercentEncoded) {
  const std::string root = freshFolder("url");
  writeFile(root + "/Über 100% #1?.wav", "u");
  auto alias = KyoAlias::aliasWithPath(root + "/Über 100% #1?.wav");
  ASSERT_TRUE(alias);
  const std::string url = alias->fileURL();
  EXPECT_EQ(url.substr(url.size() - 33), "/%C3%9Cber%20100%25%20%231%3F.wav");
  EXPECT_EQ(url.rfind("file:///", 0), 0u);
}

// A loader thread resolves while the main thread archives, copies and replaces the
// record, and the file moves under them: no race, no torn path.
TEST(KyoAlias, ResolvesWhileOtherThreadsCopyAndArchive) {
  const std::string root = freshFolder("threads");
  writeFile(root + "/a.wav", "a");
  writeFile(root + "/doc/document", "{}");
  auto alias = KyoAlias::aliasWithPath(root + "/a.wav");
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        const std::string path = alias->fullPathFromPath(root + "/doc/document");
        ASSERT_TRUE(path.empty() || path == root + "/a.wav" || path == root + "/doc/a.wav") << path;
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    auto copy = alias->copy();
    const auto archive = alias->archive();
    alias->setAliasData(archive.alias);
    if (i % 2 == 0)
      fs::rename(root + "/a.wav", root + "/doc/a.wav");
    else
      fs::rename(root + "/doc/a.wav", root + "/a.wav");
  }
  stop = true;
  for (auto& r : readers) r.join();
}
