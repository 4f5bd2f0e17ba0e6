#include "surface/SontoAudioLevelView.h"

#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

namespace {

constexpr float kScaleSpan = 5.0f;  // from -4 at the left end to +1 at the right

float fraction(float value) { return (value - SontoAudioLevelView::kSilence) / kScaleSpan; }

}  // namespace

SontoAudioLevelView::SontoAudioLevelView(QWidget* parent) : QWidget(parent) {
  setObjectName(QStringLiteral("audioLevel"));
  setMinimumSize(120, 48);
  setAttribute(Qt::WA_OpaquePaintEvent, false);
}

float SontoAudioLevelView::meterValueForDecibels(float decibels) {
  const double v = std::max(static_cast<double>(decibels), -60.0);
  if (v < 0.0) return static_cast<float>(-4.0 * std::sqrt(v / -60.0));
  return static_cast<float>(v / 12.0);
}

void SontoAudioLevelView::setLeftChannelPower(float value) { setValue(0, value); }
void SontoAudioLevelView::setLeftChannelPeak(float value) { setValue(1, value); }
void SontoAudioLevelView::setRightChannelPower(float value) { setValue(2, value); }
void SontoAudioLevelView::setRightChannelPeak(float value) { setValue(3, value); }

void SontoAudioLevelView::setValue(int index, float value) {
  if (m_values[index] == value) return;
  m_values[index] = value;
  update(barRect(index / 2).adjusted(-1, -1, 1, 1).toAlignedRect());
}

// Two bars of height B = trunc(round((H - 24) / 2)) with a gap between, the right
// channel below; Qt's y runs downwards, so the lower bar sits at H - 8.5 - B.
QRectF SontoAudioLevelView::barRect(int channel) const {
  const double bar = std::trunc(std::round((height() - 24.0) * 0.5));
  const double lowerY = height() - 8.5 - bar;
  const double y = channel == 0 ? lowerY - bar - 8.0 : lowerY;
  return QRectF(0.5, y, width() - 1.0, bar);
}

QRectF SontoAudioLevelView::litRect(int channel, float power) const {
  if (power == kSilence) return {};
  QRectF r = barRect(channel);
  r.setWidth(r.width() * std::clamp(fraction(power), 0.0f, 1.0f));
  return r;
}

QRectF SontoAudioLevelView::peakRect(int channel, float peak) const {
  if (peak == kSilence) return {};
  QRectF r = barRect(channel).adjusted(0, 1.0, 0, -1.0);
  r.moveLeft(r.x() + r.width() * std::clamp(fraction(peak), 0.0f, 1.0f));
  r.setWidth(1.0);
  return r;
}

void SontoAudioLevelView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing, true);
  for (int channel = 0; channel < 2; ++channel) {
    const QRectF bar = barRect(channel);
    const double radius = static_cast<float>(bar.height() / 1.9);
    QPainterPath rounded;
    rounded.addRoundedRect(bar, radius, radius);
    painter.fillPath(rounded, QColor::fromRgbF(0.25f, 0.25f, 0.25f));
    painter.strokePath(rounded, QPen(QColor::fromRgbF(0.1f, 0.1f, 0.1f), 1.0));

    const float power = m_values[channel * 2], peak = m_values[channel * 2 + 1];
    if (power != kSilence) {
      // The colours belong to the scale, not to the level: the gradient spans the
      // whole bar and the lit part shows its share of it. Red from 0 dB (0.8) up.
      painter.save();
      painter.setClipRect(litRect(channel, power));
      QPainterPath inner;
      inner.addRoundedRect(bar.adjusted(0.5, 0.5, -0.5, -0.5), radius, radius);
      QLinearGradient gradient(bar.topLeft(), bar.topRight());
      gradient.setColorAt(0.0, QColor::fromRgbF(0.2f, 0.8f, 0.2f));
      gradient.setColorAt(0.65, QColor::fromRgbF(0.8f, 0.8f, 0.25f));
      gradient.setColorAt(0.8, QColor::fromRgbF(0.8f, 0.25f, 0.25f));
      painter.fillPath(inner, gradient);
      painter.restore();
    }
    if (peak != kSilence) {
      painter.save();
      painter.setClipPath(rounded);
      painter.setRenderHint(QPainter::Antialiasing, false);
      painter.fillRect(peakRect(channel, peak), QColor::fromRgbF(1.0f, 1.0f, 1.0f, 0.75f));
      painter.restore();
    }
  }
}
