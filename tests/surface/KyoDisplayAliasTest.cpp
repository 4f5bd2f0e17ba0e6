// A display remembered by number, serial and name is found again by the first of
// them that still matches, and survives the file.
#include <QGuiApplication>
#include <QScreen>

#include <gtest/gtest.h>

#include "surface/KyoDisplayAlias.h"

TEST(KyoDisplayAlias, FindsTheScreenByNumberThenSerialThenName) {
  QScreen* primary = QGuiApplication::primaryScreen();
  ASSERT_TRUE(primary);
  const KyoDisplayAlias alias(primary);
  EXPECT_EQ(alias.matchingScreen(), primary);
  const KyoDisplayAlias reread = KyoDisplayAlias::decoded(alias.archive());
  EXPECT_EQ(reread.displayID(), alias.displayID());
  EXPECT_EQ(reread.name(), alias.name());
  EXPECT_EQ(reread.matchingScreen(), primary);

  struct Row {
    qint64 id;
    QString serial, name;
    QScreen* expected;
  };
  const Row rows[] = {
      // The number wins even when the rest names another display.
      {alias.displayID(), "no such serial", "no such name", primary},
      {alias.displayID() + 1, "", alias.name(), primary},
      {alias.displayID() + 1, "", "", nullptr},
      {alias.displayID() + 1, "no such serial", "no such name", nullptr},
  };
  for (const Row& row : rows) {
    const KyoDisplayAlias a = KyoDisplayAlias::decoded({{"displayID", row.id}, {"serial", row.serial}, {"name", row.name}});
    EXPECT_EQ(a.matchingScreen(), row.expected) << row.id << " " << row.name.toStdString();
    EXPECT_EQ(a.matchingDisplayIsAttached(), row.expected != nullptr);
  }
  EXPECT_EQ(KyoDisplayAlias::decoded({}).displayID(), 0u);
}
