// What an operator reads from across a dark room: every kind of text on a pad of every
// colour, lit and pressed, and the bottom bar's toggles, which must look engaged when they are.
#include <QPushButton>

#include <gtest/gtest.h>

#include "SurfaceTestSupport.h"
#include "foundation/SontoColor.h"
#include "surface/SontoTheme.h"
#include "surface/WorkspaceController.h"

using namespace SontoTheme;

TEST(Legibility, ContrastRatioFollowsTheWcagFormula) {
  const struct {
    QColor a, b;
    double ratio;
  } cases[] = {{Qt::white, Qt::black, 21.0},
               {QColor(0x77, 0x77, 0x77), Qt::white, 4.48},   // the grey that just fails
               {QColor(0x76, 0x76, 0x76), Qt::white, 4.54},   // and the one that just passes
               {QColor(0x08, 0x08, 0x08), Qt::black, 1.05}};  // under the linear threshold
  for (const auto& c : cases) {
    EXPECT_NEAR(contrastRatio(c.a, c.b), c.ratio, 0.01) << c.a.name().toStdString();
    EXPECT_DOUBLE_EQ(contrastRatio(c.a, c.b), contrastRatio(c.b, c.a));
  }
}

// Each kind of text over its plate against the gradient sampled top to bottom as the
// pad paints it, lit and pressed; beyond the palette, colours a file could carry.
TEST(Legibility, PadTextReadsOnEveryColourLitAndPressed) {
  std::vector<SontoColor> colors;
  for (const std::string& name : SontoColor::colors()) colors.push_back(SontoColor::colorWithName(name));
  colors.push_back(SontoColor::decodedColor("white to black", {1, 1, 1, 1}, {0, 0, 0, 1}));
  colors.push_back(SontoColor::decodedColor("green to blue", {0.1, 0.9, 0.1, 1}, {0.1, 0.1, 0.9, 1}));
  for (const SontoColor& color : colors)
    for (PadText kind : {PadText::Key, PadText::Name, PadText::Time, PadText::Badge})
      for (bool pressed : {false, true}) {
        const PadTextStyle style = padTextStyle(color, kind);
        const auto [top, bottom] = padGradient(color, pressed);
        double worst = 21.0;
        for (int i = 0; i <= 32; ++i) {
          const double t = i / 32.0;
          const QColor under = QColor::fromRgbF(top.redF() + (bottom.redF() - top.redF()) * t,
                                                top.greenF() + (bottom.greenF() - top.greenF()) * t,
                                                top.blueF() + (bottom.blueF() - top.blueF()) * t);
          worst = std::min(worst, contrastRatio(style.text, composite(style.plate, under)));
        }
        EXPECT_EQ(style.text.alpha(), 255);
        EXPECT_GE(worst, kMinimumTextContrast) << color.name() << " kind " << int(kind) << " pressed " << pressed;
      }
}

// Each toggle grabbed before and after a click: the engaged one far brighter, its words
// still legible. Show goes before Edit, since the window opens in edit mode.
TEST(Legibility, EngagedTogglesStandOut) {
  TestWindow t;
  const ToggleLook off = uncheckedToggleLook();
  EXPECT_GE(contrastRatio(off.text, off.fill), kMinimumTextContrast);
  for (const ToggleLook& on : checkedToggleLooks()) EXPECT_GE(contrastRatio(on.text, on.fill), kMinimumTextContrast);
  auto averageLuminance = [](QWidget* w) {
    return relativeLuminance(
        w->grab().toImage().scaled(1, 1, Qt::IgnoreAspectRatio, Qt::SmoothTransformation).pixelColor(0, 0));
  };
  for (const char* name : {"pauseAllButton", "duckingButton", "showModeButton", "editModeButton"}) {
    auto* button = t.window->findChild<QPushButton*>(QLatin1String(name));
    ASSERT_NE(button, nullptr) << name;
    ASSERT_FALSE(button->isChecked()) << name;
    const double unchecked = averageLuminance(button);
    button->click();
    ASSERT_TRUE(button->isChecked()) << name;
    EXPECT_GT(averageLuminance(button), 3.0 * unchecked + 0.1) << name;
  }
}
