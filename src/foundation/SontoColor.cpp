#include "foundation/SontoColor.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <utility>

namespace {
struct PaletteEntry {
  const char* name;
  KyoRGBA start;
  KyoRGBA end;
};

// Palette order is the order of colors().
const PaletteEntry kPalette[] = {
    {"default", {0.733, 0.729, 0.729, 1.0}, {0.569, 0.565, 0.565, 1.0}},
    {"red", {0.945, 0.482, 0.482, 1.0}, {0.776, 0.314, 0.314, 1.0}},
    {"orange", {0.929, 0.737, 0.365, 1.0}, {0.765, 0.573, 0.2, 1.0}},
    {"blue", {0.467, 0.6, 0.737, 1.0}, {0.282, 0.416, 0.553, 1.0}},
    {"lightblue", {0.71, 0.835, 0.914, 1.0}, {0.541, 0.667, 0.745, 1.0}},
    {"yellow", {0.969, 0.973, 0.678, 1.0}, {0.804, 0.808, 0.514, 1.0}},
    {"green", {0.655, 0.796, 0.616, 1.0}, {0.486, 0.627, 0.447, 1.0}},
    {"purple", {0.863, 0.612, 0.91, 1.0}, {0.694, 0.443, 0.741, 1.0}},
};

double mix(double a, double b, double t) { return a + (b - a) * t; }
}  // namespace

KyoRGBA SontoGradient::colorAtLocation(double location) const {
  const double t = std::isnan(location) ? 0.0 : std::clamp(location, 0.0, 1.0);
  return KyoRGBA{mix(m_start.red, m_end.red, t), mix(m_start.green, m_end.green, t),
                 mix(m_start.blue, m_end.blue, t), mix(m_start.alpha, m_end.alpha, t)};
}

SontoColor::SontoColor(std::string name, const KyoRGBA& startColor, const KyoRGBA& endColor)
    : m_name(std::move(name)), m_startColor(startColor), m_endColor(endColor), m_gradient(startColor, endColor) {}

const std::vector<std::string>& SontoColor::colors() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> v;
    for (const auto& entry : kPalette) v.emplace_back(entry.name);
    return v;
  }();
  return names;
}

SontoColor SontoColor::colorWithName(const std::string& name) {
  std::string lower = name;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  for (const auto& entry : kPalette)
    if (lower == entry.name) return SontoColor(entry.name, entry.start, entry.end);
  return defaultColor();
}

SontoColor SontoColor::decodedColor(const std::string& name, const KyoRGBA& startColor, const KyoRGBA& endColor) {
  return SontoColor(name, startColor, endColor);
}

SontoColor SontoColor::defaultColor() { return SontoColor(kPalette[0].name, kPalette[0].start, kPalette[0].end); }
SontoColor SontoColor::redColor() { return SontoColor(kPalette[1].name, kPalette[1].start, kPalette[1].end); }
SontoColor SontoColor::orangeColor() { return SontoColor(kPalette[2].name, kPalette[2].start, kPalette[2].end); }
SontoColor SontoColor::blueColor() { return SontoColor(kPalette[3].name, kPalette[3].start, kPalette[3].end); }
SontoColor SontoColor::lightblueColor() { return SontoColor(kPalette[4].name, kPalette[4].start, kPalette[4].end); }
SontoColor SontoColor::yellowColor() { return SontoColor(kPalette[5].name, kPalette[5].start, kPalette[5].end); }
SontoColor SontoColor::greenColor() { return SontoColor(kPalette[6].name, kPalette[6].start, kPalette[6].end); }
SontoColor SontoColor::purpleColor() { return SontoColor(kPalette[7].name, kPalette[7].start, kPalette[7].end); }

std::string SontoColor::description() const { return "SontoColor: " + m_name; }
