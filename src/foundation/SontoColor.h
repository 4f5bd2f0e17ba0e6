#pragma once
// The colour of a cue: a named pair (lighter start, darker end) from which the
// cue's pad gets its gradient, and the fixed palette of eight such pairs. A value;
// the name is its identity. Drawing belongs to the window.

#include <string>
#include <vector>

// One device RGB colour, components 0..1.
struct KyoRGBA {
  double red = 0.0;
  double green = 0.0;
  double blue = 0.0;
  double alpha = 1.0;
  bool operator==(const KyoRGBA&) const = default;
};

// A two-stop linear gradient from start (location 0) to end (location 1).
class SontoGradient {
 public:
  SontoGradient(const KyoRGBA& start, const KyoRGBA& end) : m_start(start), m_end(end) {}
  const KyoRGBA& startColor() const { return m_start; }
  const KyoRGBA& endColor() const { return m_end; }
  // Locations outside 0..1 (and nan) are held at the nearer end.
  KyoRGBA colorAtLocation(double location) const;

 private:
  KyoRGBA m_start;
  KyoRGBA m_end;
};

class SontoColor {
 public:
  // The eight names in palette order, "default" first.
  static const std::vector<std::string>& colors();
  // Case-insensitive; a name not in the palette gives the default pair, silently.
  static SontoColor colorWithName(const std::string& name);
  // As read back from a file: the values are the file's, whatever the palette says
  // now; the gradient is made anew from them.
  static SontoColor decodedColor(const std::string& name, const KyoRGBA& startColor, const KyoRGBA& endColor);

  static SontoColor defaultColor();
  static SontoColor redColor();
  static SontoColor orangeColor();
  static SontoColor blueColor();
  static SontoColor lightblueColor();
  static SontoColor yellowColor();
  static SontoColor greenColor();
  static SontoColor purpleColor();

  const std::string& name() const { return m_name; }
  const KyoRGBA& startColor() const { return m_startColor; }
  const KyoRGBA& endColor() const { return m_endColor; }
  const SontoGradient& gradient() const { return m_gradient; }

  // By name alone; the values don't count.
  bool isEqualToColor(const SontoColor& other) const { return m_name == other.m_name; }
  // "SontoColor: <name>"
  std::string description() const;

 private:
  SontoColor(std::string name, const KyoRGBA& startColor, const KyoRGBA& endColor);

  std::string m_name;
  KyoRGBA m_startColor;
  KyoRGBA m_endColor;
  SontoGradient m_gradient;
};
