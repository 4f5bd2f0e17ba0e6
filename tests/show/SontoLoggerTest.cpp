#include "show/SontoLogger.h"

#include <QDateTime>
#include <QJsonArray>

#include <gtest/gtest.h>

#include <memory>

#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"
#include "support/Waiting.h"

namespace {

// Installs a virtual clock for the test and the plain one afterwards.
struct VirtualTime {
  std::shared_ptr<KyoVirtualClock> clock;
  explicit VirtualTime(double wall) : clock(std::make_shared<KyoVirtualClock>(wall)) { KyoInstallClock(clock); }
  ~VirtualTime() { KyoInstallClock(nullptr); }
};

}  // namespace

TEST(SontoLogger, EntriesCarryTheLocalTimeOfTheInstalledClock) {
  const double wall = 1439584267.75;  // the fraction never rounds the second up
  VirtualTime time(wall);
  SontoLogger logger;
  logger.appendLog("Overture (overture.wav)");
  ASSERT_EQ(logger.log().size(), 1u);
  const std::string expected =
      QDateTime::fromSecsSinceEpoch(1439584267).toString("yyyy-MM-dd HH:mm:ss").toStdString() +
      " - Overture (overture.wav)";
  EXPECT_EQ(logger.log()[0], expected);
  time.clock->advance(61.0);
  logger.appendLog("");
  EXPECT_EQ(logger.log()[1],
            QDateTime::fromSecsSinceEpoch(1439584328).toString("yyyy-MM-dd HH:mm:ss").toStdString() + " - ");
  EXPECT_EQ(logger.stringWithContentsOfLog(), logger.log()[0] + "\n" + logger.log()[1] + "\n");
}

TEST(SontoLogger, MutedEntriesGoToTheDiagnosticLogOnly) {
  SontoLogger logger;
  sonto::test::LogCapture captured;
  int posts = 0;
  KyoScopedObserver observer(KyoNotificationCenter::defaultCenter(), SontoLogger::kLogUpdatedNotification,
                             [&](const KyoNotification&) { ++posts; }, &logger);
  EXPECT_FALSE(logger.muted());
  EXPECT_TRUE(logger.toggleMute());
  logger.appendLog("Intro (intro.wav)");
  EXPECT_TRUE(logger.log().empty());
  EXPECT_EQ(posts, 0);
  ASSERT_EQ(captured.lines().size(), 1u);
  EXPECT_EQ(captured.lines()[0], "muted: Intro (intro.wav)");
  // A message with a percent sign is text, not a format.
  logger.appendLog("100% %s %d");
  EXPECT_EQ(captured.lines().back(), "muted: 100% %s %d");
  EXPECT_FALSE(logger.toggleMute());
  logger.appendLog("Intro (intro.wav)");
  EXPECT_EQ(logger.log().size(), 1u);
  EXPECT_EQ(posts, 1);
  logger.clearLog();
  EXPECT_EQ(posts, 2) << "clearing posts too";
  EXPECT_EQ(logger.stringWithContentsOfLog(), "");
}

TEST(SontoLogger, CopySharesEntriesButNotMuting) {
  SontoLogger logger;
  logger.appendLog("one");
  logger.toggleMute();
  auto copy = logger.copy();
  EXPECT_FALSE(copy->muted());
  copy->appendLog("two");
  EXPECT_EQ(logger.log().size(), 2u) << "the copy writes into the same entries";
  logger.clearLog();
  EXPECT_TRUE(copy->log().empty());
}

TEST(SontoLogger, ArchiveRoundTripAndBrokenArchives) {
  SontoLogger logger;
  logger.setLog(std::vector<std::string>{"a - x", "b - \"quoted\"\nnewline", ""});
  const QJsonObject archive = logger.archive();
  EXPECT_EQ(archive.value("$class").toString(), "SontoLogger");
  auto back = SontoLogger::fromArchive(archive);
  EXPECT_EQ(back->log(), logger.log());
  EXPECT_FALSE(back->muted());

  QJsonObject broken;
  broken.insert("log", QJsonArray{1, "kept", QJsonValue(), QJsonArray{}});
  EXPECT_EQ(SontoLogger::fromArchive(broken)->log(), std::vector<std::string>{"kept"});
  QJsonObject notAnArray;
  notAnArray.insert("log", "text");
  EXPECT_TRUE(SontoLogger::fromArchive(notAnArray)->log().empty());
  EXPECT_TRUE(SontoLogger::fromArchive(QJsonObject())->log().empty());
}
