#pragma once
// Plain points and rectangles in pixels, for the drawing and hit-testing code that
// must not depend on Qt.

#include <cmath>

struct KyoPoint {
  float x = 0.0f;
  float y = 0.0f;
  bool operator==(const KyoPoint&) const = default;
};

struct KyoSize {
  float width = 0.0f;
  float height = 0.0f;
  bool operator==(const KyoSize&) const = default;
};

struct KyoRect {
  KyoPoint origin;
  KyoSize size;
  bool operator==(const KyoRect&) const = default;
};

inline KyoRect KyoMakeRect(float x, float y, float width, float height) {
  return KyoRect{{x, y}, {width, height}};
}

// Moves each edge inward by dx and dy; negative values grow the rectangle.
inline KyoRect KyoInsetRect(KyoRect rect, float dx, float dy) {
  return KyoMakeRect(rect.origin.x + dx, rect.origin.y + dy, rect.size.width - 2.0f * dx,
                     rect.size.height - 2.0f * dy);
}

inline float KyoPointDistance(KyoPoint a, KyoPoint b) {
  const float dx = b.x - a.x;
  const float dy = b.y - a.y;
  return std::sqrt(dx * dx + dy * dy);
}
