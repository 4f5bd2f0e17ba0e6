#pragma once
// The stereo output meter of the bottom bar: two bars, left channel above right, each
// the running power as a lit bar and the held peak as a thin bright mark. It holds
// four meter values and draws them; the window's meter timer writes them 20 times a
// second. A meter value is not decibels: -4 (-60 dB and below, nothing shown) to 0
// (0 dB) to 1 (+12 dB), see meterValueForDecibels. Main thread only.

#include <QWidget>

class SontoAudioLevelView : public QWidget {
  Q_OBJECT

 public:
  static constexpr float kSilence = -4.0f;

  explicit SontoAudioLevelView(QWidget* parent = nullptr);

  // A change redraws the bar it belongs to; an equal value draws nothing.
  void setLeftChannelPower(float value);
  void setLeftChannelPeak(float value);
  void setRightChannelPower(float value);
  void setRightChannelPeak(float value);
  float leftChannelPower() const { return m_values[0]; }
  float leftChannelPeak() const { return m_values[1]; }
  float rightChannelPower() const { return m_values[2]; }
  float rightChannelPeak() const { return m_values[3]; }

  // dB to the meter's scale: a square root below 0 dB, a straight line above.
  static float meterValueForDecibels(float decibels);

  // The geometry, for the painting and its tests: a bar of each channel (0 left,
  // 1 right), and the lit and peak parts of it for a meter value (empty at -4).
  QRectF barRect(int channel) const;
  QRectF litRect(int channel, float power) const;
  QRectF peakRect(int channel, float peak) const;

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  void setValue(int index, float value);
  float m_values[4] = {kSilence, kSilence, kSilence, kSilence};
};
