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
    EXPECT_TRUE(s.alpha == 1.0 && e.alpha == 1.0) << names[i];
  }
}

TEST(SontoColor, NameLookupAndIdentity) {
  EXPECT_EQ(SontoColor::colorWithName("RED").name(), "red");
  EXPECT_EQ(SontoColor::colorWithName("LightBlue").name(), "lightblue");
  for (const char* unknown : {"", "magenta", "red ", "defaultColor"}) {
    const SontoColor c = SontoColor::colorWithName(unknown);
    EXPECT_EQ(c.name(), "default") << unknown;
    EXPECT_EQ(c.startColor(), SontoColor::defaultColor().startColor());
  }

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
  const KyoRGBA mid = g.colorAtLocation(0.5), s = g.colorAtLocation(0.0), e = g.colorAtLocation(1.0);
  EXPECT_DOUBLE_EQ(mid.red, (s.red + e.red) / 2);
  EXPECT_DOUBLE_EQ(mid.green, (s.green + e.green) / 2);
  EXPECT_DOUBLE_EQ(mid.blue, (s.blue + e.blue) / 2);
  EXPECT_DOUBLE_EQ(mid.alpha, 1.0);
}
