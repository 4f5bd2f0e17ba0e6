#include "foundation/SontoColor.h"

#include <gtest/gtest.h>

#include <cmath>

TEST(SontoColor, PaletteInOrderWithItsValues) {
  const std::vector<std::string> names{"default", "red",    "orange", "blue",
                                       "lightblue", "yellow", "green",  "purple"};
  EXPECT_EQ(SontoColor::colors(), names);
  const SontoColor byOperation[] = {SontoColor::defaultColor(),   SontoColor::redColor(),
                                    SontoColor::orangeColor(),    SontoColor::blueColor(),
                                    SontoColor::lightblueColor(), SontoColor::yellowColor(),
                                    SontoColor::greenColor(),     SontoColor::purpleColor()};
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(byOperation[i].name(), names[i]);
    const SontoColor byName = SontoColor::colorWithName(names[i]);
    EXPECT_EQ(byName.startColor(), byOperation[i].startColor()) << names[i];
    EXPECT_EQ(byName.endColor(), byOperation[i].endColor()) << names[i];
    // Start is the lighter end, every colour is opaque.
    const auto& s = byName.startColor();
    const auto& e = byName.endColor();
    EXPECT_GT(s.red + s.green + s.blue, e.red + e.green + e.blue) << names[i];
    EXPECT_EQ(s.alpha, 1.0);
    EXPECT_EQ(e.alpha, 1.0);
  }
  EXPECT_EQ(SontoColor::orangeColor().endColor(), (KyoRGBA{0.765, 0.573, 0.2, 1.0}));
  EXPECT_EQ(SontoColor::lightblueColor().startColor(), (KyoRGBA{0.71, 0.835, 0.914, 1.0}));
}

TEST(SontoColor, NameLookupAndIdentity) {
  EXPECT_EQ(SontoColor::colorWithName("RED").name(), "red");
  EXPECT_EQ(SontoColor::colorWithName("LightBlue").name(), "lightblue");
  for (const char* unknown : {"", "magenta", "red ", "defaultColor"}) {
    const SontoColor c = SontoColor::colorWithName(unknown);
    EXPECT_EQ(c.name(), "default") << unknown;
    EXPECT_EQ(c.startColor(), SontoColor::defaultColor().startColor());
  }
  EXPECT_EQ(SontoColor::greenColor().description(), "SontoColor: green");

  // A colour read back from an older file keeps its own values, compares by name,
  // and has a gradient made from what it read.
  const KyoRGBA oldStart{0.9, 0.5, 0.5, 1.0};
  const KyoRGBA oldEnd{0.7, 0.3, 0.3, 0.5};
  const SontoColor decoded = SontoColor::decodedColor("red", oldStart, oldEnd);
  EXPECT_TRUE(decoded.isEqualToColor(SontoColor::redColor()));
  EXPECT_FALSE(decoded.isEqualToColor(SontoColor::blueColor()));
  EXPECT_EQ(decoded.startColor(), oldStart);
  EXPECT_EQ(decoded.gradient().startColor(), oldStart);
  EXPECT_EQ(decoded.gradient().endColor(), oldEnd);
}

TEST(SontoColor, GradientEndsAndMiddle) {
  const SontoGradient g = SontoColor::blueColor().gradient();
  EXPECT_EQ(g.colorAtLocation(0.0), SontoColor::blueColor().startColor());
  EXPECT_EQ(g.colorAtLocation(1.0), SontoColor::blueColor().endColor());
  EXPECT_EQ(g.colorAtLocation(-3.0), g.colorAtLocation(0.0));
  EXPECT_EQ(g.colorAtLocation(7.0), g.colorAtLocation(1.0));
  EXPECT_EQ(g.colorAtLocation(std::nan("")), g.colorAtLocation(0.0));
  const KyoRGBA mid = g.colorAtLocation(0.5);
  EXPECT_DOUBLE_EQ(mid.red, (0.467 + 0.282) / 2);
  EXPECT_DOUBLE_EQ(mid.green, (0.6 + 0.416) / 2);
  EXPECT_DOUBLE_EQ(mid.blue, (0.737 + 0.553) / 2);
  EXPECT_DOUBLE_EQ(mid.alpha, 1.0);
}
