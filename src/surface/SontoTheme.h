#pragma once
// The look of the whole application: Qt's Fusion style over a dark palette, large
// enough type to read from a few metres away in a dark booth, and a keyboard focus
// that is always visible. Main thread, once, before the first window.

#include <QColor>
#include <span>
#include <utility>

class QApplication;
class QPalette;
class QWidget;
class SontoColor;

namespace SontoTheme {

// Fusion, the dark palette, the base font and the focus rules.
void apply(QApplication& application);
QPalette darkPalette();

// The blue of the selection glow and the focus ring (0.227, 0.467, 0.639).
constexpr int kSelectionRed = 58, kSelectionGreen = 119, kSelectionBlue = 163;

// WCAG 2 relative luminance of an sRGB colour (0.03928 linearisation threshold) and
// the contrast ratio (L1 + 0.05) / (L2 + 0.05) of two opaque colours, 1 to 21.
double relativeLuminance(const QColor& color);
double contrastRatio(const QColor& a, const QColor& b);
// `over` painted source-over on the opaque `under`, as the painter blends it.
QColor composite(const QColor& over, const QColor& under);

// Text read from the back of a dark room needs at least this against what is under it.
constexpr double kMinimumTextContrast = 4.5;

// -- Pads

// The pad's gradient as painted, top stop first: lit from above, from below while
// pressed.
std::pair<QColor, QColor> padGradient(const SontoColor& color, bool pressed);

// What a pad paints: the key, the name, the times with the progress bar at its foot,
// and the small marks (hold, loop, solo, status, play button).
enum class PadText { Key, Name, Time, Badge };

struct PadTextStyle {
  QColor text;    // opaque
  QColor shadow;  // one pixel below the text
  QColor plate;   // painted under the text first; transparent where the pad is enough
};

// Chosen from the colour's values, not its name, since a show file keeps the values it
// was saved with: the text over its plate reaches kMinimumTextContrast everywhere on
// the pad's gradient, lit or pressed.
PadTextStyle padTextStyle(const SontoColor& color, PadText kind);

// -- Bottom bar

// A toggle of the bottom bar, by object name, and its look while checked. Unchecked,
// they all share one dim look.
struct ToggleLook {
  const char* objectName;
  QColor fill;
  QColor text;
};
std::span<const ToggleLook> checkedToggleLooks();
ToggleLook uncheckedToggleLook();

// An engaged toggle (the current mode, Duck, Pause All) must be told apart from across
// the room: a bright fill with dark text; the others stay dim. Panic keeps its red.
void styleBottomBar(QWidget* bar);

}  // namespace SontoTheme
