#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "audio/KyoAudioUtilities.h"

TEST(KyoAudioUtilities, DecibelsAndLinearGain) {
  KyoAudioUtilities u;
  EXPECT_EQ(u.dbToLinear(-120.0), 0.0);
  EXPECT_EQ(u.dbToLinear(-500.0), 0.0);
  EXPECT_GT(u.dbToLinear(-119.9), 0.0);
  EXPECT_LT(u.dbToLinear(-119.9), 1.1e-6);
  EXPECT_DOUBLE_EQ(u.dbToLinear(0.0), 1.0);
  EXPECT_DOUBLE_EQ(u.dbToLinear(-6.0), std::pow(10.0, -0.3));
  EXPECT_DOUBLE_EQ(u.dbToLinear(20.0), 10.0);
  EXPECT_EQ(u.dbToLinear(std::nan("")), 0.0);

  EXPECT_EQ(u.linearToDb(0.0), -120.0);
  EXPECT_EQ(u.linearToDb(-1.0), -120.0);
  EXPECT_EQ(u.linearToDb(1e-9), -120.0);  // below the floor: held there
  EXPECT_EQ(u.linearToDb(std::nan("")), -120.0);
  EXPECT_DOUBLE_EQ(u.linearToDb(1.0), 0.0);
  EXPECT_DOUBLE_EQ(u.linearToDb(10.0), 20.0);

  for (double db = -119.0; db <= 24.0; db += 0.5) EXPECT_NEAR(u.linearToDb(u.dbToLinear(db)), db, 1e-9);

  u.setMinVolumeDb(-60.0);
  EXPECT_EQ(u.dbToLinear(-60.0), 0.0);
  EXPECT_EQ(u.linearToDb(0.0), -60.0);
}

TEST(KyoAudioUtilities, AbsoluteFader) {
  KyoAudioUtilities u;
  struct Case {
    double slider, db;
  };
  const Case toDb[] = {{0.0, -120.0}, {-0.5, -120.0}, {1e-9, -120.0}, {0.1, -55.0}, {1.0, 0.0},
                       {1.125, 6.0},  {1.25, 12.0},   {2.0, 12.0},    {1e9, 12.0}};
  for (const auto& c : toDb) EXPECT_NEAR(u.sliderToDb(c.slider, true), c.db, 1e-12) << c.slider;
  const Case toSlider[] = {{1.25, 12.0}, {1.25, 20.0},  {1.125, 6.0}, {1.0, 0.0},
                           {0.1, -55.0}, {0.0, -120.0}, {0.0, -200.0}};
  for (const auto& c : toSlider) EXPECT_NEAR(u.dbToSlider(c.db, true), c.slider, 1e-12) << c.db;

  // Round trips across the whole travel, both sides of unity.
  for (double x = 0.01; x <= 1.25; x += 0.01) {
    EXPECT_NEAR(u.dbToSlider(u.sliderToDb(x, true), true), x, 1e-9) << x;
    EXPECT_NEAR(u.linearToSlider(u.sliderToLinear(x, true), true), x, 1e-9) << x;
  }
  EXPECT_EQ(u.sliderToLinear(0.0, true), 0.0);
  EXPECT_DOUBLE_EQ(u.sliderToLinear(1.0, true), 1.0);
  EXPECT_EQ(u.linearToSlider(0.0, true), 0.0);
}

TEST(KyoAudioUtilities, RelativeFader) {
  KyoAudioUtilities u;
  struct Case {
    double slider, db;
  };
  // 120 dB per unit of travel, unclamped.
  const Case cases[] = {{0.0, 0.0}, {0.5, 60.0}, {-0.5, -60.0}, {1.0, 120.0}, {-1.0, -120.0}, {2.0, 240.0}};
  for (const auto& c : cases) EXPECT_DOUBLE_EQ(u.sliderToDb(c.slider, false), c.db) << c.slider;
  EXPECT_DOUBLE_EQ(u.dbToSlider(60.0, false), 0.5);
  EXPECT_DOUBLE_EQ(u.dbToSlider(-60.0, false), -0.5);
  EXPECT_DOUBLE_EQ(u.dbToSlider(0.0, false), 0.0);
  EXPECT_EQ(u.dbToSlider(-120.0, false), -1.0);
  EXPECT_EQ(u.dbToSlider(-300.0, false), -1.0);
  for (double x = -0.99; x <= 2.0; x += 0.01) EXPECT_NEAR(u.dbToSlider(u.sliderToDb(x, false), false), x, 1e-12);
}

TEST(KyoAudioUtilities, TextForms) {
  KyoAudioUtilities made;
  EXPECT_EQ(made.objectValueForDbLevel(0.0), "0.0");
  EXPECT_EQ(made.objectValueForDbLevel(0.04), "+0.0");
  EXPECT_EQ(made.objectValueForDbLevel(-0.04), "-0.0");
  EXPECT_EQ(made.objectValueForDbLevel(6.0), "+6.0");
  EXPECT_EQ(made.objectValueForDbLevel(-6.25), "-6.2");  // printf's rounding of a binary .25
  EXPECT_EQ(made.objectValueForDbLevel(-119.94), "-119.9");
  EXPECT_EQ(made.objectValueForDbLevel(-119.96), "-120.0");  // above silence, so it has a text
  EXPECT_EQ(made.objectValueForDbLevel(-120.0), "");
  EXPECT_EQ(made.objectValueForDbLevel(-1000.0), "");

  struct Case {
    std::optional<std::string> text;
    double db;
  };
  const Case cases[] = {
      {std::nullopt, -120.0}, {"", -120.0},    {"-inf", -120.0}, {"-INF", -120.0},  {"-Inf", -120.0},
      {"inf", -120.0},        {"6", -6.0},     {"+6", 6.0},      {"-6", -6.0},      {"6.5", -6.5},
      {".5", -0.5},           {"0", 0.0},      {"-0", 0.0},      {"+0", 0.0},       {"loud", -120.0},
      {"6dB", -120.0},        {"--6", -120.0}, {"+-6", -120.0},  {"6.5.1", -120.0}, {" 6", -120.0},
      {"1e3", -120.0},        {"-", -120.0},   {"+", -120.0},    {"200", -200.0},   {"+200", 200.0},
  };
  for (const auto& c : cases) {
    const double db = made.dbLevelForObjectValue(c.text);
    EXPECT_EQ(db, c.db) << (c.text ? *c.text : "(nothing)");
    EXPECT_FALSE(std::signbit(db) && db == 0.0) << "minus zero from " << (c.text ? *c.text : "");
  }
  EXPECT_DOUBLE_EQ(made.levelForObjectValue("+6"), std::pow(10.0, 0.3));
  EXPECT_EQ(made.levelForObjectValue("-inf"), 0.0);
  EXPECT_EQ(made.levelForObjectValue("no"), 0.0);

  // The text form reads back to itself, to the tenth.
  for (double db = -119.9; db < 12.0; db += 0.1) {
    const std::string text = made.objectValueForDbLevel(db);
    EXPECT_NEAR(made.dbLevelForObjectValue(text), db, 0.05 + 1e-9) << text;
  }
}

// A copied or decoded object keeps the limits, but its reader has no "+" prefix:
// a boost typed as "+6" reads as no number, and so as silence.
TEST(KyoAudioUtilities, CopiedAndDecodedObjectsReadNoPlusPrefix) {
  KyoAudioUtilities made;
  made.setMinVolumeDb(-90.0);
  made.setMaxAbsoluteDb(6.0);
  KyoAudioUtilities copy(made);
  KyoAudioUtilities decoded = KyoAudioUtilities::decodedWith(-90.0, 6.0);
  for (const KyoAudioUtilities* u : {&copy, &decoded}) {
    EXPECT_EQ(u->minVolumeDb(), -90.0);
    EXPECT_EQ(u->maxAbsoluteDb(), 6.0);
    EXPECT_EQ(u->dbLevelForObjectValue("+6"), -90.0);
    EXPECT_EQ(u->dbLevelForObjectValue("6"), -6.0);
    EXPECT_EQ(u->dbLevelForObjectValue("-3.5"), -3.5);
    EXPECT_EQ(u->objectValueForDbLevel(3.0), "+3.0");
    EXPECT_DOUBLE_EQ(u->sliderToDb(1.25, true), 6.0);
  }
  EXPECT_EQ(made.dbLevelForObjectValue("+6"), 6.0);
}

// The limits are set from the interface while other threads convert.
TEST(KyoAudioUtilities, LimitsAreReadWholeAcrossThreads) {
  KyoAudioUtilities u;
  std::thread writer([&] {
    for (int i = 0; i < 20000; ++i) u.setMinVolumeDb(i % 2 ? -120.0 : -60.0);
  });
  for (int i = 0; i < 20000; ++i) {
    const double min = u.minVolumeDb();
    ASSERT_TRUE(min == -120.0 || min == -60.0);
    ASSERT_GE(u.dbToLinear(-50.0), 0.0);
  }
  writer.join();
}
