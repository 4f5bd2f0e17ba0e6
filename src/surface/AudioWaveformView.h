#pragma once
// One cue's file as a waveform under a time ruler, in a scroll area of the cue
// inspector: the whole file is laid out at pixelsPerSecond, so the view is as wide as
// the file is long and the scroll area pans. Two ranges, in pixels: the played
// selection (the cue's in and out times, with handles hanging from the top edge, the
// audio outside it shaded) and the user selection that the operator drags out. A
// cursor shows where playback stands.
//
// Geometry is worked out with y going up from the bottom edge, as the ruler gutter
// (the top 15 pixels on screen) and the handles are described that way; painting
// turns each rectangle over into Qt's downward y.
//
// Main thread only. The waveform data fills on a worker and asks for repaints through
// the main thread.

#include <QPointer>
#include <QRectF>
#include <QWidget>
#include <memory>

#include "show/AudioCue.h"

class AudioWaveform;
class KyoAlias;
class QMenu;
class QScrollArea;

class AudioWaveformSelection {
 public:
  float leftPixel() const { return m_leftPixel; }
  float rightPixel() const { return m_rightPixel; }
  void setLeftPixel(float pixel) { m_leftPixel = pixel; }
  void setRightPixel(float pixel) { m_rightPixel = pixel; }
  float width() const { return m_rightPixel - m_leftPixel; }
  // Equal edges are no selection.
  bool isEmpty() const { return m_leftPixel == m_rightPixel; }
  // The smaller becomes the left edge.
  void updateWithPixelOne(float pixelOne, float pixelTwo);
  void updateWithFactor(float factor);

  // Where the mouse cursor turns into the resize cursor; null when there is none.
  const QRectF& leftTrackingArea() const { return m_leftTrackingArea; }
  const QRectF& rightTrackingArea() const { return m_rightTrackingArea; }
  void setLeftTrackingArea(const QRectF& area) { m_leftTrackingArea = area; }
  void setRightTrackingArea(const QRectF& area) { m_rightTrackingArea = area; }

 private:
  float m_leftPixel = 0.0f;
  float m_rightPixel = 0.0f;
  QRectF m_leftTrackingArea;
  QRectF m_rightTrackingArea;
};

class AudioWaveformView : public QWidget {
  Q_OBJECT

 public:
  static constexpr float kGutterHeight = 15.0f;
  static constexpr float kMinimumPixelsPerSecond = 0.1f;
  static constexpr float kMaximumPixelsPerSecond = 5000.0f;

  explicit AudioWaveformView(QWidget* parent = nullptr);
  ~AudioWaveformView() override;

  // Not owned; the owner clears it (nullptr) before the cue goes. A new file starts a
  // new waveform at the zoom that fits the scroll area; the user selection survives.
  AudioCue* cue() const { return m_cue.data(); }
  void setCue(AudioCue* cue);

  float pixelsPerSecond() const { return m_pixelsPerSecond; }
  // Zooms about the user selection (stopped cue), else the cursor, else the middle of
  // what is visible. Values outside 0.1 to 5000 are ignored; the file always fills
  // the scroll area at least.
  void setPixelsPerSecond(float pixelsPerSecond);

  // Whether the mouse (and keyboard focus) do anything. Named apart from
  // QWidget::setEnabled, which would also grey the view out; no redraw.
  bool isEnabledForMouse() const { return m_enabled; }
  void setEnabledForMouse(bool enabled);

  // The user selection becomes the cue's in and out times, unless it is shorter
  // than 0.1 seconds.
  void setStartAndEndFromSelection();
  void clearSelection();
  void selectAll();
  // The cursor follows the cue's source; called on the cue's progress and playing
  // changes. Repaints two 2-pixel strips only.
  void refreshCursorPosition();
  void openCueFileWithExternalEditor();

  const AudioWaveformSelection& userSelection() const { return m_userSelection; }
  const AudioWaveformSelection& playedSelection() const { return m_playedSelection; }
  float cursorPosition() const { return m_cursorPosition; }
  float rulerSpacing() const { return m_rulerSpacing; }
  AudioWaveform* waveform() const { return m_waveform.get(); }

  // A ruler mark stands on the first pixel past each multiple of the spacing.
  bool _rulerAtPixel(float pixel) const;
  QRectF _dragRectForLeftX(float x, float extra) const;
  QRectF _dragRectForRightX(float x, float extra) const;
  // Called by the waveform on the main thread when entries have come: repaints the
  // columns they cover.
  void _waveformDidGrow();
  // The right-click menu, "Contextual Menu" with "Open with External Editor".
  QMenu* _contextMenu();

 protected:
  bool event(QEvent* event) override;
  bool eventFilter(QObject* watched, QEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void focusInEvent(QFocusEvent* event) override;
  void focusOutEvent(QFocusEvent* event) override;

 private:
  QScrollArea* _enclosingScrollView() const;
  void _setCueRange(double start, double end);
  // The part of the view inside the scroll area's viewport, in the view's coordinates.
  QRectF _visibleRect() const;
  void _scrollPoint(float x);
  void _watchViewport();
  double _fileLength() const;
  void _setFrameWidth(float width);
  void _forceCorrectHeight();
  void _refreshRulerSpacing();
  void _setPixelsPerSecond(float pixelsPerSecond, double scaleAboutTime);
  void _updatePlayedSelection();
  void _createTrackingAreas();
  void _destroyTrackingAreas();
  void _updateMouseCursor(const QPointF& point);
  void _markRangeForRedraw(const AudioWaveformSelection& selection);
  double _roundedTime(float pixel) const;

  QPointer<AudioCue> m_cue;
  float m_pixelsPerSecond = 300.0f;
  bool m_enabled = true;
  std::shared_ptr<KyoAlias> m_alias;
  std::shared_ptr<AudioWaveform> m_waveform;
  float m_rulerSpacing = 0.0f;
  float m_cursorPosition = -10.0f;
  QPointF m_initialClickPoint;
  AudioWaveformSelection m_userSelection;
  AudioWaveformSelection m_playedSelection;
  AudioWaveformSelection* m_draggingSelection = nullptr;
  bool m_mouseMoved = false;
  double m_drawnSeconds = 0.0;  // how far the waveform was loaded at the last repaint request
  QPointer<QWidget> m_watchedViewport;
};
