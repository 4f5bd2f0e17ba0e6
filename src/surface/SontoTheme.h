#pragma once
// The look of the whole application: Qt's Fusion style over a dark palette, large
// enough type to read from a few metres away in a dark booth, and a keyboard focus
// that is always visible. Main thread, once, before the first window.

class QApplication;
class QPalette;

namespace SontoTheme {

// Fusion, the dark palette, the base font and the focus rules.
void apply(QApplication& application);
QPalette darkPalette();

// The blue of the selection glow and the focus ring (0.227, 0.467, 0.639).
constexpr int kSelectionRed = 58, kSelectionGreen = 119, kSelectionBlue = 163;

}  // namespace SontoTheme
