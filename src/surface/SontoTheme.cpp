#include "surface/SontoTheme.h"

#include <QApplication>
#include <QFont>
#include <QPalette>
#include <QStyleFactory>

namespace SontoTheme {

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
