#include "surface/AudioWaveformView.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QDesktopServices>
#include <QKeyEvent>
#include <QLinearGradient>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QScrollArea>
#include <QScrollBar>
#include <QUrl>
#include <QWheelEvent>
#include <algorithm>
#include <cmath>
#include <vector>

#include "foundation/KyoAlias.h"
#include "foundation/KyoStringUtilities.h"
#include "show/AudioCue.h"
#include "surface/AudioWaveform.h"

namespace {

QColor rgb(double red, double green, double blue, double alpha = 1.0) {
  return QColor::fromRgbF(float(red), float(green), float(blue), float(alpha));
}

QGradientStops waveformStops() {
  return {
      {0.0, rgb(0, 0, 0.05)}, {0.2, rgb(0.012, 0.026, 0.1)}, {0.65, rgb(0.012, 0.026, 0.1)}, {0.85, rgb(0, 0, 0.05)}};
}
QGradientStops gutterStops() { return {{0.1, rgb(0.08, 0.08, 0.08)}, {0.9, rgb(0.16, 0.16, 0.16)}}; }
QGradientStops arrowStops() { return {{0.0, rgb(0.3, 0.3, 0.3)}, {1.0, rgb(0.8, 0.8, 0.8)}}; }

// A gradient at 90 degrees: its first stop at the bottom of the band, on screen.
QLinearGradient upwardGradient(const QGradientStops& stops, qreal top, qreal bottom) {
  QLinearGradient gradient(0, bottom, 0, top);
  gradient.setStops(stops);
  return gradient;
}

constexpr float kRulerSpacings[] = {0.01f, 0.1f, 0.25f, 0.5f, 1, 2, 5, 10, 30, 60, 120, 300, 600, 1800};

}  // namespace

// --- Selection ---

void AudioWaveformSelection::updateWithPixelOne(float pixelOne, float pixelTwo) {
  m_leftPixel = std::min(pixelOne, pixelTwo);
  m_rightPixel = std::max(pixelOne, pixelTwo);
}

void AudioWaveformSelection::updateWithFactor(float factor) {
  m_leftPixel *= factor;
  m_rightPixel *= factor;
}

// --- View ---

AudioWaveformView::AudioWaveformView(QWidget* parent) : QWidget(parent) {
  setMouseTracking(true);
  setFocusPolicy(Qt::StrongFocus);
  // Every pixel of the exposed rectangle is painted: no background fill first.
  setAttribute(Qt::WA_OpaquePaintEvent);
  resize(0, height());
  _refreshRulerSpacing();
  _watchViewport();
}

AudioWaveformView::~AudioWaveformView() {
  _destroyTrackingAreas();
  if (m_waveform) m_waveform->setLive(false);
}

QScrollArea* AudioWaveformView::_enclosingScrollView() const {
  for (QWidget* w = parentWidget(); w; w = w->parentWidget())
    if (auto* scroll = qobject_cast<QScrollArea*>(w)) return scroll;
  return nullptr;
}

QRectF AudioWaveformView::_visibleRect() const {
  QScrollArea* scroll = _enclosingScrollView();
  if (!scroll) return QRectF(rect());
  const QWidget* viewport = scroll->viewport();
  // The scroll area moves the view within its viewport.
  const QPoint offset = mapTo(viewport, QPoint(0, 0));
  return QRectF(-offset.x(), -offset.y(), viewport->width(), viewport->height()).intersected(QRectF(rect()));
}

void AudioWaveformView::_scrollPoint(float x) {
  if (QScrollArea* scroll = _enclosingScrollView()) scroll->horizontalScrollBar()->setValue(int(std::lround(x)));
}

// The viewport's size changes are our "superview resized": zoom and height follow.
void AudioWaveformView::_watchViewport() {
  QScrollArea* scroll = _enclosingScrollView();
  QWidget* viewport = scroll ? scroll->viewport() : nullptr;
  if (viewport == m_watchedViewport) return;
  if (m_watchedViewport) m_watchedViewport->removeEventFilter(this);
  m_watchedViewport = viewport;
  if (!viewport) return;
  viewport->installEventFilter(this);
  // Scrolling moves the painted pixels along, the focus ring with them: redraw it.
  connect(scroll->horizontalScrollBar(), &QScrollBar::valueChanged, this, [this] {
    if (hasFocus()) update(_visibleRect().toAlignedRect());
  });
}

bool AudioWaveformView::event(QEvent* event) {
  if (event->type() == QEvent::ParentChange) _watchViewport();
  return QWidget::event(event);
}

bool AudioWaveformView::eventFilter(QObject* watched, QEvent* event) {
  if (watched == m_watchedViewport && event->type() == QEvent::Resize) {
    static bool resizing = false;  // a zoom that shows or hides the scroller resizes the viewport again
    if (!resizing) {
      resizing = true;
      setPixelsPerSecond(m_pixelsPerSecond);
      _createTrackingAreas();
      _forceCorrectHeight();
      resizing = false;
    }
  }
  return QWidget::eventFilter(watched, event);
}

double AudioWaveformView::_fileLength() const {
  AudioCueSource* source = m_cue ? m_cue->audioSource() : nullptr;
  return source ? source->fileLengthInSeconds() : 0.0;
}

void AudioWaveformView::_setFrameWidth(float width) {
  const int w = width > 0 ? int(std::lround(std::min(width, 16.0e6f))) : 0;
  if (w != this->width()) resize(w, height());
}

// --- Cue ---

void AudioWaveformView::setCue(AudioCue* cue) {
  _destroyTrackingAreas();
  if (m_cue) disconnect(m_cue, nullptr, this, nullptr);
  m_cue = cue;
  _watchViewport();
  AudioCueSource* source = cue ? cue->audioSource() : nullptr;
  std::shared_ptr<KyoAlias> alias = source ? source->alias() : nullptr;
  const double length = source ? source->fileLengthInSeconds() : 0.0;
  if (!cue || !alias || !(length > 0)) {
    _setFrameWidth(0);
  } else {
    if (!m_alias || !alias->isEqual(*m_alias)) {
      m_alias = alias->copy();
      QScrollArea* scroll = _enclosingScrollView();
      // A file too long to fit at the lowest zoom starts there, not at the old zoom.
      const float fit = float((scroll ? scroll->viewport()->width() : width()) / length);
      setPixelsPerSecond(std::clamp(fit, kMinimumPixelsPerSecond, kMaximumPixelsPerSecond));
      if (m_waveform) m_waveform->setLive(false);
      m_waveform = AudioWaveform::create(m_alias, 10.0f);
      m_drawnSeconds = 0.0;
      if (m_waveform) m_waveform->setWaveformView(this);
    }
    _setFrameWidth(float(m_pixelsPerSecond * length));
  }
  if (cue) {
    _updatePlayedSelection();
    // Undo and the inspector's fields move the times too.
    connect(cue, &AudioCue::startTimeChanged, this, [this] {
      _updatePlayedSelection();
      _createTrackingAreas();
      update();
    });
    connect(cue, &AudioCue::endTimeChanged, this, [this] {
      _updatePlayedSelection();
      _createTrackingAreas();
      update();
    });
  }
  _forceCorrectHeight();
  _createTrackingAreas();
  refreshCursorPosition();
  update();
}

void AudioWaveformView::_updatePlayedSelection() {
  if (!m_cue) return;
  m_playedSelection.updateWithPixelOne(float(m_cue->startTime() * m_pixelsPerSecond),
                                       float(m_cue->endTime() * m_pixelsPerSecond));
}

void AudioWaveformView::_forceCorrectHeight() {
  QScrollArea* scroll = _enclosingScrollView();
  if (!scroll) return;
  // The viewport already leaves out a visible horizontal scroller.
  const int h = scroll->viewport()->height();
  if (h != height()) resize(width(), h);
}

// --- Zoom ---

void AudioWaveformView::setPixelsPerSecond(float pixelsPerSecond) {
  float pivot;
  if (!m_userSelection.isEmpty() && !(m_cue && m_cue->isRunning()))
    pivot = m_userSelection.leftPixel() + m_userSelection.width() * 0.5f;
  else if (m_cursorPosition >= 0.0f)
    pivot = m_cursorPosition;
  else
    pivot = float(_visibleRect().center().x());
  _setPixelsPerSecond(pixelsPerSecond, double(pivot) / m_pixelsPerSecond);
}

void AudioWaveformView::_setPixelsPerSecond(float pixelsPerSecond, double scaleAboutTime) {
  const double length = _fileLength();
  if (!m_cue || !m_alias || !(length > 0)) return;
  if (!(pixelsPerSecond <= kMaximumPixelsPerSecond && pixelsPerSecond >= kMinimumPixelsPerSecond)) return;
  QScrollArea* scroll = _enclosingScrollView();
  const float viewWidth = float(scroll ? scroll->viewport()->width() : width());
  // The waveform always fills the scroll area.
  if (pixelsPerSecond * length < viewWidth) {
    pixelsPerSecond = float(viewWidth / length);
    if (pixelsPerSecond < kMinimumPixelsPerSecond) pixelsPerSecond = kMinimumPixelsPerSecond;
  }
  const float factor = pixelsPerSecond / m_pixelsPerSecond;
  m_pixelsPerSecond = pixelsPerSecond;
  _setFrameWidth(float(pixelsPerSecond * length));
  m_cursorPosition *= factor;
  m_userSelection.updateWithFactor(factor);
  _updatePlayedSelection();
  _refreshRulerSpacing();
  refreshCursorPosition();
  update();
  _scrollPoint(std::round(float(scaleAboutTime) * pixelsPerSecond) - float(_visibleRect().width() * 0.5));
}

void AudioWaveformView::_refreshRulerSpacing() {
  m_rulerSpacing = 3600.0f;
  for (float spacing : kRulerSpacings) {
    if (spacing * m_pixelsPerSecond > 60.0f) {
      m_rulerSpacing = spacing;
      break;
    }
  }
}

bool AudioWaveformView::_rulerAtPixel(float pixel) const {
  auto fraction = [this](float p) {
    const float v = p / m_pixelsPerSecond / m_rulerSpacing;
    return v - std::floor(v);
  };
  return fraction(pixel - 1.0f) >= 0.4f && fraction(pixel) < 0.4f;
}

// --- Selection and cursor ---

void AudioWaveformView::setEnabledForMouse(bool enabled) {
  m_enabled = enabled;
  setFocusPolicy(enabled ? Qt::StrongFocus : Qt::NoFocus);
}

// Times as the text fields show them, so the cue gets what the operator reads.
double AudioWaveformView::_roundedTime(float pixel) const {
  return secondsFromFormattedString(stringByFormattingSeconds(double(pixel / m_pixelsPerSecond), 3));
}

// The cue keeps its start at or before its end at every step, so a range that lies
// wholly before the present start takes its start first; otherwise the end goes
// first. Either way each edge lands where it was put, and the undo of the pair, run
// in the opposite order, does too.
void AudioWaveformView::_setCueRange(double start, double end) {
  if (end < m_cue->startTime()) {
    m_cue->setStartTime(start);
    m_cue->setEndTime(end);
  } else {
    m_cue->setEndTime(end);
    m_cue->setStartTime(start);
  }
}

void AudioWaveformView::setStartAndEndFromSelection() {
  if (!m_cue) return;
  const double start = _roundedTime(m_userSelection.leftPixel());
  const double end = _roundedTime(m_userSelection.rightPixel());
  // A tenth of a second between two three-place times may come out a hair short.
  if (end - start < 0.1 - 1e-9) return;
  _setCueRange(start, end);
  _updatePlayedSelection();
  _createTrackingAreas();
  update();
}

void AudioWaveformView::clearSelection() {
  m_userSelection.updateWithPixelOne(-1.0f, -1.0f);
  update();
}

void AudioWaveformView::selectAll() {
  m_userSelection.updateWithPixelOne(0.0f, float(width()));
  _createTrackingAreas();
  update();
}

void AudioWaveformView::refreshCursorPosition() {
  const float old = m_cursorPosition;
  AudioCueSource* source = m_cue ? m_cue->audioSource() : nullptr;
  m_cursorPosition = (!source || !m_cue->isLoaded()) ? -10.0f : float(source->currentFileTime() * m_pixelsPerSecond);
  // Two strips around the old and the new cursor, not the waveform.
  update(QRect(int(std::floor(old)) - 1, 0, 2, height()));
  update(QRect(int(std::floor(m_cursorPosition)) - 1, 0, 2, height()));
  const QRectF visible = _visibleRect();
  if (m_cursorPosition > visible.right() ||
      (m_cursorPosition < visible.left() && m_cursorPosition >= 0.0f && m_cue && m_cue->isRunning()))
    _scrollPoint(m_cursorPosition);
}

void AudioWaveformView::openCueFileWithExternalEditor() {
  if (m_cue) QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(m_cue->file())));
}

void AudioWaveformView::_waveformDidGrow() {
  if (!m_waveform) return;
  const double loaded = m_waveform->loadedSeconds();
  const int from = int(std::floor(m_drawnSeconds * m_pixelsPerSecond)) - 1;
  const int to = int(std::ceil(loaded * m_pixelsPerSecond)) + 1;
  m_drawnSeconds = loaded;
  update(QRect(from, 0, to - from + 1, height()));
}

// --- Mouse areas ---

QRectF AudioWaveformView::_dragRectForLeftX(float x, float extra) const {
  const qreal h = height();
  if (x <= 1.0f) return QRectF(0, 0, extra + 3.0f, h);
  return QRectF(x - 2.0f - extra, 0, 3.0f + 2.0f * extra, h);
}

QRectF AudioWaveformView::_dragRectForRightX(float x, float extra) const {
  const qreal h = height();
  const float w = float(width());
  if (x >= w - 2.0f) return QRectF(w - 3.0f - extra, 0, extra + 3.0f, h);
  return QRectF(x - 1.0f - extra, 0, 3.0f + 2.0f * extra, h);
}

void AudioWaveformView::_createTrackingAreas() {
  _destroyTrackingAreas();
  m_userSelection.setLeftTrackingArea(_dragRectForLeftX(m_userSelection.leftPixel(), 0.0f));
  m_userSelection.setRightTrackingArea(_dragRectForRightX(m_userSelection.rightPixel(), 0.0f));
  m_playedSelection.setLeftTrackingArea(_dragRectForLeftX(m_playedSelection.leftPixel(), 2.0f));
  m_playedSelection.setRightTrackingArea(_dragRectForRightX(m_playedSelection.rightPixel(), 2.0f));
}

void AudioWaveformView::_destroyTrackingAreas() {
  for (AudioWaveformSelection* s : {&m_userSelection, &m_playedSelection}) {
    s->setLeftTrackingArea(QRectF());
    s->setRightTrackingArea(QRectF());
  }
}

void AudioWaveformView::_updateMouseCursor(const QPointF& point) {
  bool over = false;
  if (m_enabled) {
    for (const AudioWaveformSelection* s : {&m_userSelection, &m_playedSelection})
      over = over || s->leftTrackingArea().contains(point) || s->rightTrackingArea().contains(point);
  }
  if (over)
    setCursor(Qt::SizeHorCursor);
  else
    unsetCursor();
}

void AudioWaveformView::_markRangeForRedraw(const AudioWaveformSelection& selection) {
  update(QRectF(selection.leftPixel() - 10.0f, 0, selection.width() + 20.0f, height()).toAlignedRect());
}

// --- Mouse ---

void AudioWaveformView::mousePressEvent(QMouseEvent* event) {
  if (!m_enabled || event->button() != Qt::LeftButton) {
    QWidget::mousePressEvent(event);
    return;
  }
  m_draggingSelection = nullptr;
  m_mouseMoved = false;
  const QPointF point = event->position();
  float anchor = 0.0f;
  bool handle = true;
  if (_dragRectForRightX(m_playedSelection.rightPixel(), 5.0f).contains(point)) {
    m_draggingSelection = &m_playedSelection;
    anchor = m_playedSelection.leftPixel();
  } else if (_dragRectForLeftX(m_playedSelection.leftPixel(), 5.0f).contains(point)) {
    m_draggingSelection = &m_playedSelection;
    anchor = m_playedSelection.rightPixel();
  } else if (m_userSelection.width() > 1.0f && _dragRectForRightX(m_userSelection.rightPixel(), 1.0f).contains(point)) {
    m_draggingSelection = &m_userSelection;
    anchor = m_userSelection.leftPixel();
  } else if (m_userSelection.width() > 1.0f && _dragRectForLeftX(m_userSelection.leftPixel(), 1.0f).contains(point)) {
    m_draggingSelection = &m_userSelection;
    anchor = m_userSelection.rightPixel();
  } else {
    handle = false;
    // A new selection cannot be begun on a running cue, nor in the ruler gutter.
    if (!(m_cue && m_cue->isRunning()) && point.y() >= kGutterHeight) {
      m_draggingSelection = &m_userSelection;
      if (event->modifiers() & Qt::ShiftModifier) {
        m_userSelection.updateWithPixelOne(float(point.x()), float(m_initialClickPoint.x()));
      } else {
        m_initialClickPoint = point;
        m_userSelection.updateWithPixelOne(float(point.x()), float(point.x()));
      }
    }
  }
  if (handle) m_initialClickPoint.setX(anchor);
  if (m_draggingSelection) setCursor(Qt::SizeHorCursor);
  update();
}

void AudioWaveformView::mouseMoveEvent(QMouseEvent* event) {
  if (!(event->buttons() & Qt::LeftButton)) {
    _updateMouseCursor(event->position());
    return;
  }
  if (!m_enabled || !m_draggingSelection) return;
  m_mouseMoved = true;
  setCursor(Qt::SizeHorCursor);
  _markRangeForRedraw(*m_draggingSelection);
  // No drag makes a range narrower than a tenth of a second.
  const float minimum = std::trunc(m_pixelsPerSecond * 0.1f);
  float x = std::clamp(float(event->position().x()), 0.0f, float(width()));
  const float anchor = float(m_initialClickPoint.x());
  if (anchor >= x && x + minimum >= anchor)
    x = anchor - minimum;
  else if (x > anchor && x - minimum <= anchor)
    x = anchor + minimum;
  m_draggingSelection->updateWithPixelOne(x, anchor);
  _markRangeForRedraw(*m_draggingSelection);
  // Autoscroll: a drag past the visible part brings the scroll area along.
  const QRectF visible = _visibleRect();
  const float mouseX = float(event->position().x());
  if (mouseX < visible.left())
    _scrollPoint(mouseX);
  else if (mouseX > visible.right())
    _scrollPoint(mouseX - float(visible.width()));
}

void AudioWaveformView::mouseReleaseEvent(QMouseEvent* event) {
  if (!m_enabled || event->button() != Qt::LeftButton) {
    QWidget::mouseReleaseEvent(event);
    return;
  }
  const float left = m_draggingSelection ? m_draggingSelection->leftPixel() : 0.0f;
  const float right = m_draggingSelection ? m_draggingSelection->rightPixel() : 0.0f;
  const double start = _roundedTime(left);
  const double end = _roundedTime(right);
  const float x = float(event->position().x());
  if (float(m_initialClickPoint.x()) == x) m_userSelection.updateWithPixelOne(x, x);
  if (m_cue && m_draggingSelection == &m_playedSelection) {
    _setCueRange(start, end);
    _updatePlayedSelection();
    refreshCursorPosition();
  } else if (m_cue && m_draggingSelection == &m_userSelection && !m_cue->isRunning()) {
    // A click on the waveform of a stopped cue loads it to that place.
    m_cue->loadActionAt(start - m_cue->startTime());
    refreshCursorPosition();
  } else if (m_cue && m_draggingSelection == &m_userSelection && m_mouseMoved) {
    AudioCueSource* source = m_cue->audioSource();
    const double time = source ? source->currentFileTime() : 0.0;
    m_cue->stop();
    m_userSelection.setLeftPixel(left);
    m_userSelection.setRightPixel(right);
    m_cue->loadActionAt(time - (source ? source->startTime() : 0.0));
    refreshCursorPosition();
  }
  update();
  _createTrackingAreas();
  _updateMouseCursor(event->position());
}

void AudioWaveformView::wheelEvent(QWheelEvent* event) {
  const QPoint delta = event->angleDelta();
  if (delta.y() != 0) {
    setPixelsPerSecond(m_pixelsPerSecond * (delta.y() < 0 ? 0.8f : 1.25f));
    _createTrackingAreas();
  }
  // Sideways scrolling is the scroll area's.
  QScrollArea* scroll = _enclosingScrollView();
  if (delta.x() != 0 && scroll) {
    QWheelEvent sideways(event->position(), event->globalPosition(), QPoint(event->pixelDelta().x(), 0),
                         QPoint(delta.x(), 0), event->buttons(), event->modifiers(), event->phase(), event->inverted(),
                         event->source());
    QCoreApplication::sendEvent(scroll->horizontalScrollBar(), &sideways);
  }
  event->accept();
}

QMenu* AudioWaveformView::_contextMenu() {
  auto* menu = new QMenu(QStringLiteral("Contextual Menu"), this);
  menu->setAttribute(Qt::WA_DeleteOnClose);
  menu->addAction(QStringLiteral("Open with External Editor"), this, &AudioWaveformView::openCueFileWithExternalEditor);
  return menu;
}

void AudioWaveformView::contextMenuEvent(QContextMenuEvent* event) {
  _contextMenu()->popup(event->globalPos());
  event->accept();
}

void AudioWaveformView::keyPressEvent(QKeyEvent* event) {
  if (event->matches(QKeySequence::SelectAll)) {
    selectAll();
    return;
  }
  QWidget::keyPressEvent(event);
}

void AudioWaveformView::focusInEvent(QFocusEvent* event) {
  update(_visibleRect().toAlignedRect());
  QWidget::focusInEvent(event);
}

void AudioWaveformView::focusOutEvent(QFocusEvent* event) {
  update(_visibleRect().toAlignedRect());
  QWidget::focusOutEvent(event);
}

// --- Drawing ---

// Everything is drawn over the exposed columns only, in full height. Rectangles are
// placed on screen with the gutter at the top: a band from y0 to y1 measured upward
// from the bottom edge lies at H - y1 to H - y0.
void AudioWaveformView::paintEvent(QPaintEvent* event) {
  const QRect exposed = event->rect();
  const qreal h = height();
  const qreal w = width();
  const qreal g = kGutterHeight;
  const qreal x0 = exposed.x();
  const qreal xw = exposed.width();
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing, true);

  painter.fillRect(QRectF(x0, g, xw, h - g), upwardGradient(waveformStops(), g, h));
  painter.fillRect(QRectF(x0, 0, xw, g), upwardGradient(gutterStops(), 0, g));
  painter.fillRect(QRectF(x0, 0, xw, 1), rgb(0.1, 0.1, 0.1, 0.8));
  painter.fillRect(QRectF(x0, g - 1, xw, 1), rgb(0.2, 0.2, 0.2, 0.8));

  // Ruler. It starts one spacing back, so that a label reaching into the columns is drawn.
  {
    QFont font = QApplication::font();
    font.setPixelSize(10);
    painter.setFont(font);
    const QColor tick = rgb(0.66, 0.66, 0.66, 0.8);
    const QColor label = rgb(0.66, 0.66, 0.66, 0.5);
    const int first = std::max(0, int(x0 - double(m_rulerSpacing) * m_pixelsPerSecond));
    const int end = exposed.x() + exposed.width();
    for (int p = first; p < end; ++p) {
      if (!_rulerAtPixel(float(p))) continue;
      if (p != 0) painter.fillRect(QRectF(p, 1, 1, g - 1), tick);
      const float seconds = float(p) / m_pixelsPerSecond;
      const QString text =
          seconds < 60.0f ? QString::asprintf("%.2f", double(seconds))
                          : QString::fromStdString(stringByFormattingSeconds(seconds, m_rulerSpacing < 1.0f ? 2 : 0));
      painter.setPen(label);
      painter.drawText(QRectF(p + 4, 0, 200, g - 1), Qt::AlignLeft | Qt::AlignBottom, text);
    }
  }

  // Waveform, one column per pixel; an unloaded column is a flat line along the middle.
  painter.setRenderHint(QPainter::Antialiasing, false);
  {
    const float middle = float(h - g) * 0.5f;
    std::vector<QRectF> columns;
    columns.reserve(size_t(exposed.width()) + 1);
    const int end = exposed.x() + exposed.width();
    for (int p = exposed.x(); p < end; ++p) {
      float high = 0.0f;
      float low = 0.0f;
      if (m_waveform)
        m_waveform->extremesBetweenStartTime(float(p) / m_pixelsPerSecond, float(p + 1) / m_pixelsPerSecond, high, low);
      const float bottom = std::floor(middle + low * middle);
      const float height = std::max(1.0f, high * middle + std::fabs(low * middle));
      columns.emplace_back(p, h - bottom - height, 1.0, height);
    }
    painter.setPen(Qt::NoPen);
    painter.setBrush(rgb(0.282, 0.416, 0.553));
    painter.drawRects(columns.data(), int(columns.size()));
  }

  const float left = m_playedSelection.leftPixel();
  const float right = m_playedSelection.rightPixel();
  const QColor shade = rgb(0, 0.1, 0.2, 0.6);
  painter.fillRect(QRectF(0, g, std::floor(left), h - g), shade);
  painter.fillRect(QRectF(std::ceil(right), g, w - right, h - g), shade);

  const QColor edge = rgb(0.765, 0.573, 0.2);
  painter.fillRect(QRectF(std::floor(left - 1.0f), 1, 2, h - 1), edge);
  painter.fillRect(QRectF(std::ceil(right - 1.0f), 1, 2, h - 1), edge);

  if (!m_userSelection.isEmpty()) {
    const float userLeft = std::floor(m_userSelection.leftPixel());
    painter.fillRect(QRectF(userLeft, g, std::ceil(m_userSelection.width()), h - g), rgb(1, 1, 0.25, 0.2));
    const QColor line = rgb(1, 1, 0.2, 0.4);
    painter.fillRect(QRectF(userLeft - 1.0f, g, 1, h - g), line);
    painter.fillRect(QRectF(std::floor(m_userSelection.rightPixel()), g, 1, h - g), line);
  }

  painter.fillRect(QRectF(std::floor(m_cursorPosition), g, 1, h - g), rgb(1, 1, 0));

  // Handles hang from the top edge down to the gutter's foot.
  painter.setRenderHint(QPainter::Antialiasing, true);
  auto handle = [&](float x, float (*round)(float)) {
    QPainterPath path;
    path.moveTo(round(x - 7), 1);
    path.lineTo(round(x + 7), 1);
    path.lineTo(round(x + 7), 5);
    path.lineTo(round(x), g);
    path.lineTo(round(x - 7), 5);
    return path;
  };
  const QPainterPath leftHandle = handle(left, [](float v) { return std::floor(v); });
  const QPainterPath rightHandle = handle(right, [](float v) { return std::ceil(v); });
  painter.setBrush(Qt::NoBrush);
  painter.setPen(QPen(Qt::black, 1.0));
  painter.drawPath(leftHandle);
  painter.drawPath(rightHandle);
  const QLinearGradient arrow = upwardGradient(arrowStops(), 1, g);
  painter.fillPath(leftHandle, arrow);
  painter.fillPath(rightHandle, arrow);

  if (hasFocus()) {
    painter.setRenderHint(QPainter::Antialiasing, false);
    QPen ring(palette().color(QPalette::Highlight), 2.0);
    ring.setJoinStyle(Qt::MiterJoin);
    painter.setPen(ring);
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(_visibleRect().adjusted(1, 1, -1, -1));
  }
}
