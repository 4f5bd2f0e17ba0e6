#include "surface/SontoTheme.h"

#include <QApplication>
#include <QFont>
#include <QPalette>
#include <QStyleFactory>
#include <QWidget>
#include <algorithm>
#include <cmath>
#include <limits>

#include "foundation/SontoColor.h"

namespace SontoTheme {

namespace {

double linearised(double channel) {
  return channel <= 0.03928 ? channel / 12.92 : std::pow((channel + 0.055) / 1.055, 2.4);
}

QColor mixed(const QColor& a, const QColor& b, double t) {
  return QColor::fromRgbF(static_cast<float>(a.redF() + (b.redF() - a.redF()) * t),
                          static_cast<float>(a.greenF() + (b.greenF() - a.greenF()) * t),
                          static_cast<float>(a.blueF() + (b.blueF() - a.blueF()) * t));
}

// The worst contrast of `text` over `plate` anywhere on the pad, lit or pressed. The
// gradient is sampled, not only its ends: a stored colour whose channels run opposite
// ways can be lightest or darkest in between.
double worstContrastOnPad(const SontoColor& color, const QColor& text, const QColor& plate) {
  double worst = std::numeric_limits<double>::infinity();
  for (bool pressed : {false, true}) {
    const auto [top, bottom] = padGradient(color, pressed);
    for (int i = 0; i <= 16; ++i) {
      worst = std::min(worst, contrastRatio(text, composite(plate, mixed(top, bottom, i / 16.0))));
    }
  }
  return worst;
}

// The painter rounds to 8 bits a channel; a little headroom keeps the painted text over
// the line.
bool legible(double ratio) { return ratio >= kMinimumTextContrast + 0.1; }

const QColor kDarkInk(0, 0, 0);
const QColor kLightInk(255, 255, 255);

PadTextStyle inked(const QColor& ink, const QColor& plate = Qt::transparent) {
  // A light edge under dark type, a dark one under light type: engraved either way.
  const QColor shadow = ink == kDarkInk ? QColor(255, 255, 255, 80) : QColor(0, 0, 0, 150);
  return {ink, shadow, plate};
}

// Light type on the lightest dark plate that carries it, but never lighter than
// `minimumAlpha`, so that plates of one kind look alike from pad to pad.
PadTextStyle onDarkPlate(const SontoColor& color, double minimumAlpha) {
  for (double alpha = minimumAlpha; alpha < 1.0; alpha += 0.05) {
    const QColor plate = QColor::fromRgbF(0.0f, 0.0f, 0.0f, static_cast<float>(alpha));
    if (legible(worstContrastOnPad(color, kLightInk, plate))) return inked(kLightInk, plate);
  }
  return inked(kLightInk, Qt::black);
}

}  // namespace

double relativeLuminance(const QColor& color) {
  return 0.2126 * linearised(color.redF()) + 0.7152 * linearised(color.greenF()) + 0.0722 * linearised(color.blueF());
}

double contrastRatio(const QColor& a, const QColor& b) {
  const double la = relativeLuminance(a), lb = relativeLuminance(b);
  return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

QColor composite(const QColor& over, const QColor& under) {
  const double a = over.alphaF();
  auto channel = [a](double o, double u) { return static_cast<float>(o * a + u * (1.0 - a)); };
  return QColor::fromRgbF(channel(over.redF(), under.redF()), channel(over.greenF(), under.greenF()),
                          channel(over.blueF(), under.blueF()));
}

std::pair<QColor, QColor> padGradient(const SontoColor& color, bool pressed) {
  auto q = [](const KyoRGBA& c) {
    return QColor::fromRgbF(static_cast<float>(c.red), static_cast<float>(c.green), static_cast<float>(c.blue));
  };
  const QColor start = q(color.gradient().startColor()), end = q(color.gradient().endColor());
  return pressed ? std::pair{end, start} : std::pair{start, end};
}

PadTextStyle padTextStyle(const SontoColor& color, PadText kind) {
  switch (kind) {
    case PadText::Key:
    case PadText::Name: {
      // Straight on the pad where one ink carries over the whole gradient; a pad too
      // dark for black and too light for white gets a plate under its words.
      const double dark = worstContrastOnPad(color, kDarkInk, Qt::transparent);
      const double light = worstContrastOnPad(color, kLightInk, Qt::transparent);
      if (legible(std::max(dark, light))) return inked(dark >= light ? kDarkInk : kLightInk);
      return onDarkPlate(color, 0.0);
    }
    case PadText::Time:
      // The foot of every pad is a dark strip with the times over the progress bar.
      return onDarkPlate(color, 0.45);
    case PadText::Badge:
      return onDarkPlate(color, 0.6);
  }
  return inked(kLightInk, Qt::black);
}

std::span<const ToggleLook> checkedToggleLooks() {
  static const ToggleLook looks[] = {
      {"editModeButton", QColor(226, 226, 226), QColor(16, 16, 16)},
      {"showModeButton", QColor(56, 208, 96), QColor(0, 0, 0)},
      {"pauseAllButton", QColor(255, 184, 28), QColor(0, 0, 0)},
      {"duckingButton", QColor(96, 196, 255), QColor(0, 0, 0)},
  };
  return looks;
}

ToggleLook uncheckedToggleLook() { return {"", QColor(42, 41, 41), QColor(160, 160, 160)}; }

void styleBottomBar(QWidget* bar) {
  // A sheet on the bar outranks the application's, so the focus ring is restated here,
  // dark on a bright checked fill and light on a dim one.
  const ToggleLook off = uncheckedToggleLook();
  const QColor border(78, 77, 77);
  const QColor lightRing = QColor(kSelectionRed, kSelectionGreen, kSelectionBlue).lighter(160);
  const QColor darkRing(10, 40, 110);
  QString sheet;
  for (const ToggleLook& on : checkedToggleLooks()) {
    sheet += QStringLiteral(
                 "QPushButton#%1 { background: %2; color: %3; border: 2px solid %4; border-radius: 4px; "
                 "font-weight: bold; padding: 4px 8px; }"
                 "QPushButton#%1:checked { background: %5; color: %6; border: 2px solid %7; }"
                 "QPushButton#%1:focus { border: 3px solid %8; }"
                 "QPushButton#%1:checked:focus { border: 3px solid %9; }")
                 .arg(QLatin1String(on.objectName), off.fill.name(), off.text.name(), border.name(), on.fill.name(),
                      on.text.name(), on.fill.lighter(125).name(), lightRing.name(), darkRing.name());
  }
  // The mode switch reads as one control of two segments.
  sheet += QStringLiteral(
               "QPushButton#editModeButton { border-top-right-radius: 0; border-bottom-right-radius: 0; }"
               "QPushButton#showModeButton { border-top-left-radius: 0; border-bottom-left-radius: 0; }"
               "QPushButton#panicButton:focus { border: 3px solid %1; }")
               .arg(lightRing.name());
  bar->setStyleSheet(sheet);
}

QPalette darkPalette() {
  const QColor window(46, 45, 45);
  const QColor base(30, 29, 29);
  const QColor text(232, 232, 232);
  const QColor disabledText(125, 125, 125);
  const QColor highlight(kSelectionRed, kSelectionGreen, kSelectionBlue);

  QPalette palette;
  palette.setColor(QPalette::Window, window);
  palette.setColor(QPalette::WindowText, text);
  palette.setColor(QPalette::Base, base);
  palette.setColor(QPalette::AlternateBase, window.darker(115));
  palette.setColor(QPalette::ToolTipBase, QColor(20, 20, 20));
  palette.setColor(QPalette::ToolTipText, text);
  palette.setColor(QPalette::PlaceholderText, disabledText);
  palette.setColor(QPalette::Text, text);
  palette.setColor(QPalette::Button, QColor(60, 59, 59));
  palette.setColor(QPalette::ButtonText, text);
  palette.setColor(QPalette::BrightText, QColor(255, 90, 80));
  palette.setColor(QPalette::Light, QColor(80, 79, 79));
  palette.setColor(QPalette::Midlight, QColor(68, 67, 67));
  palette.setColor(QPalette::Mid, QColor(40, 39, 39));
  palette.setColor(QPalette::Dark, QColor(24, 23, 23));
  palette.setColor(QPalette::Shadow, Qt::black);
  palette.setColor(QPalette::Highlight, highlight);
  palette.setColor(QPalette::HighlightedText, Qt::white);
  palette.setColor(QPalette::Link, highlight.lighter(140));
  for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
    palette.setColor(QPalette::Disabled, role, disabledText);
  }
  palette.setColor(QPalette::Disabled, QPalette::Highlight, QColor(70, 70, 70));
  return palette;
}

void apply(QApplication& application) {
  if (QStyle* fusion = QStyleFactory::create("Fusion")) application.setStyle(fusion);
  application.setPalette(darkPalette());

  QFont font = application.font();
  if (font.pointSizeF() > 0 && font.pointSizeF() < 11.0) font.setPointSizeF(11.0);
  application.setFont(font);

  // Fusion draws focus faintly on a dark palette; an operator on keys must see where
  // the keyboard is, so every focusable control gets a clear ring.
  application.setStyleSheet(QStringLiteral(
      "QPushButton:focus, QToolButton:focus, QSlider:focus, QLineEdit:focus, QComboBox:focus, "
      "QTabBar::tab:focus { outline: none; border: 2px solid rgb(%1, %2, %3); border-radius: 3px; }"
      "QTabBar::tab { padding: 6px 16px; }")
                                 .arg(kSelectionRed)
                                 .arg(kSelectionGreen)
                                 .arg(kSelectionBlue));
}

}  // namespace SontoTheme
