#include "surface/CueCellController.h"

#include <QAction>
#include <QActionGroup>
#include <QContextMenuEvent>
#include <QDrag>
#include <QDragEnterEvent>
#include <QGraphicsOpacityEffect>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QMenu>
#include <QMimeData>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QUrl>

#include <cmath>

#include "foundation/KyoClock.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoStringUtilities.h"
#include "foundation/SontoColor.h"
#include "show/AudioCue.h"
#include "show/SontoUndoManager.h"
#include "surface/CueInspectorController.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/InspectorController.h"
#include "surface/SontoTheme.h"

namespace {

QColor white(double alpha) { return QColor::fromRgbF(1.0, 1.0, 1.0, alpha); }
QColor black(double alpha) { return QColor::fromRgbF(0.0, 0.0, 0.0, alpha); }

// A rectangle with corners of radius floor(min(q, width / 2, height / 2)).
QPainterPath roundedPath(const QRectF& rect, double q) {
  const double radius = std::floor(std::min({q, rect.width() / 2.0, rect.height() / 2.0}));
  QPainterPath path;
  path.addRoundedRect(rect, std::max(radius, 0.0), std::max(radius, 0.0));
  return path;
}

// The colour of a cue that will not play.
const QColor kBrokenAmber(255, 196, 52);

// Soft shadow under a path: a few widening strokes of falling alpha, since QPainter
// has no blur of its own.
void strokeGlow(QPainter& painter, const QPainterPath& path, QColor color, double blur) {
  const int steps = 4;
  for (int i = steps; i >= 1; --i) {
    QColor c = color;
    c.setAlphaF(color.alphaF() * 0.25);
    painter.setPen(QPen(c, blur * i / steps * 2.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPath(path);
  }
}

QString qString(const std::string& text) { return QString::fromStdString(text); }

// Text on a pad: its plate (if the pad needs one) hugging the text, the shadow a pixel
// below, the text on top.
void drawPadText(QPainter& painter, const QRectF& rect, int flags, const QString& text,
                 const SontoTheme::PadTextStyle& style) {
  if (text.isEmpty()) return;
  if (style.plate.alpha() > 0) {
    const QRectF bounds = painter.boundingRect(rect, flags, text).intersected(rect);
    painter.setPen(Qt::NoPen);
    painter.setBrush(style.plate);
    painter.drawRoundedRect(bounds.adjusted(-4.0, -1.0, 4.0, 1.0), 3.0, 3.0);
  }
  painter.setPen(style.shadow);
  painter.drawText(rect.translated(0.0, 1.0), flags, text);
  painter.setPen(style.text);
  painter.drawText(rect, flags, text);
}

// Cue time read-outs from its progress over the played range, in seconds.
double playedLength(const AudioCue& cue) { return std::max(0.0, cue.endTime() - cue.startTime()); }

// The undo closures outlive the cell, which every reload throws away, so they act
// on the cue itself and hold it weakly. Each registers its opposite, so undo and
// redo alternate for as long as the cue lives.
void setFlagWithUndo(const std::weak_ptr<Cue>& weak, bool value, void (AudioCue::*setter)(bool),
                     SontoUndoManager* undo, const char* actionName) {
  auto cue = std::dynamic_pointer_cast<AudioCue>(weak.lock());
  if (!cue) return;
  (cue.get()->*setter)(value);
  if (setter == &AudioCue::setLoopsValue) cue->updateSlices();
  if (!undo) return;
  undo->registerUndo(cue.get(), [weak, value, setter, undo, actionName] {
    setFlagWithUndo(weak, !value, setter, undo, actionName);
  });
  if (!undo->isUndoing()) undo->setActionName(QString::fromUtf8(actionName));
}

void setColorWithUndo(const std::weak_ptr<Cue>& weak, const std::string& name, SontoUndoManager* undo) {
  auto cue = std::dynamic_pointer_cast<AudioCue>(weak.lock());
  if (!cue) return;
  const std::string old = cue->color().name();
  if (old == name) return;
  cue->setColor(SontoColor::colorWithName(name));
  if (!undo) return;
  undo->registerUndo(cue.get(), [weak, old, undo] { setColorWithUndo(weak, old, undo); });
  if (!undo->isUndoing()) undo->setActionName(QStringLiteral("Change Color"));
}

}  // namespace

// -- CueCellController ------------------------------------------------------------

CueCellController::CueCellController(QWidget* parentView) : m_view(new CueCellView(this, parentView)) {
  refreshView();
}

CueCellController::~CueCellController() {
  setCue(nullptr);
  delete m_view;
}

AudioCue* CueCellController::audioCue() const { return dynamic_cast<AudioCue*>(m_cue.get()); }

void CueCellController::setCue(std::shared_ptr<Cue> cue) {
  if (cue != m_cue) {
    for (auto& connection : m_observers) QObject::disconnect(connection);
    m_observers.clear();
    m_cue = std::move(cue);
    if (AudioCue* audio = audioCue()) {
      m_observers.push_back(connect(audio, &AudioCue::progressChanged, this, &CueCellController::progressChanged));
      m_observers.push_back(connect(audio, &AudioCue::colorChanged, m_view, qOverload<>(&QWidget::update)));
      m_observers.push_back(connect(audio, &AudioCue::playingChanged, this, &CueCellController::refreshView));
      m_observers.push_back(connect(audio, &AudioCue::pausedChanged, this, &CueCellController::refreshView));
      // The key on the pad repaints with the next redraw.
      m_observers.push_back(connect(audio, &AudioCue::hotkeyChanged, this, [] {}));
      for (auto flag : {&AudioCue::loopsChanged, &AudioCue::holdChanged, &AudioCue::soloChanged}) {
        m_observers.push_back(connect(audio, flag, m_view, qOverload<>(&QWidget::update)));
      }
    }
    if (m_cue) m_observers.push_back(connect(m_cue.get(), &Cue::nameChanged, m_view, qOverload<>(&QWidget::update)));
    refreshView();
  }
  setEmpty(m_cue == nullptr);
}

void CueCellController::setHighlighted(bool highlighted) {
  if (highlighted == m_highlighted) return;
  m_highlighted = highlighted;
  m_view->update();
}

void CueCellController::setEmpty(bool empty) {
  m_empty = empty;
  setLocked(m_locked);
}

void CueCellController::setLocked(bool locked) {
  m_locked = locked;
  // In show mode an empty slot vanishes, and a vanished widget takes no clicks.
  m_view->setVisible(!(m_empty && m_locked));
  m_view->update();
}

bool CueCellController::isSelected() const { return m_gridView && m_index == m_gridView->selectedIndex(); }

void CueCellController::progressChanged() {
  AudioCue* cue = audioCue();
  if (!cue) return;
  m_progress = cue->progress();
  const double length = playedLength(*cue);
  const double elapsed = length * std::clamp(static_cast<double>(m_progress), 0.0, 1.0);
  m_elapsedTime = qString(stringByFormattingSeconds(elapsed, 2));
  m_remainingTime = QStringLiteral("-%1").arg(qString(stringByFormattingSeconds(length - elapsed, 2)));
  m_view->update();
}

void CueCellController::refreshView() {
  if (audioCue()) {
    progressChanged();
  } else {
    m_progress = 0.0f;
    m_elapsedTime.clear();
    m_remainingTime.clear();
  }
  m_view->update();
}

void CueCellController::triggerCueDown() {
  if (m_cue) m_cue->triggerDown();
}

void CueCellController::triggerCueUp() {
  if (m_cue) m_cue->triggerUp();
}

void CueCellController::setCueFlag(bool value, void (AudioCue::*setter)(bool), const char* actionName) {
  if (!audioCue()) return;
  setFlagWithUndo(m_cue, value, setter, m_controller ? m_controller->undoManager() : nullptr, actionName);
  m_view->update();
}

void CueCellController::enableLooping() { setCueFlag(true, &AudioCue::setLoopsValue, "Looping"); }
void CueCellController::disableLooping() { setCueFlag(false, &AudioCue::setLoopsValue, "Looping"); }
void CueCellController::enableHold() { setCueFlag(true, &AudioCue::setHold, "Hold"); }
void CueCellController::disableHold() { setCueFlag(false, &AudioCue::setHold, "Hold"); }
void CueCellController::enableSolo() { setCueFlag(true, &AudioCue::setSolo, "Solo"); }
void CueCellController::disableSolo() { setCueFlag(false, &AudioCue::setSolo, "Solo"); }
void CueCellController::enableDucking() { setCueFlag(true, &AudioCue::setDucking, "Ducking"); }
void CueCellController::disableDucking() {
  setCueFlag(false, &AudioCue::setDucking, "Ducking");
}

void CueCellController::toggleLoop() {
  if (AudioCue* cue = audioCue()) cue->loops() ? disableLooping() : enableLooping();
}
void CueCellController::toggleHold() {
  if (AudioCue* cue = audioCue()) cue->hold() ? disableHold() : enableHold();
}
void CueCellController::toggleSolo() {
  if (AudioCue* cue = audioCue()) cue->solo() ? disableSolo() : enableSolo();
}
void CueCellController::toggleDucking() {
  if (AudioCue* cue = audioCue()) cue->ducking() ? disableDucking() : enableDucking();
}

void CueCellController::setColorName(const std::string& name) {
  AudioCue* cue = audioCue();
  if (!cue) return;
  // The inspector makes every change of the cue it shows undoable; a second step
  // here would undo the same change twice.
  InspectorController* inspector = m_controller ? m_controller->inspectorController() : nullptr;
  if (inspector && inspector->cueInspectorController()->observes(cue)) {
    if (!cue->color().isEqualToColor(SontoColor::colorWithName(name))) cue->setColor(SontoColor::colorWithName(name));
    return;
  }
  setColorWithUndo(m_cue, name, m_controller ? m_controller->undoManager() : nullptr);
}

void CueCellController::importFile() {
  QWidget* window = m_view->window();
  auto* dialog = new QFileDialog(window, QStringLiteral("Import"));
  dialog->setFileMode(QFileDialog::ExistingFiles);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  QPointer<CueCellController> self(this);
  connect(dialog, &QFileDialog::filesSelected, this, [self](const QStringList& files) {
    if (!self || files.isEmpty() || !self->m_gridView) return;
    GridView* grid = self->m_gridView;
    // After the panel has gone; the import reloads the grid, which ends this cell.
    QMetaObject::invokeMethod(
        grid, [grid, files, index = self->m_index] { grid->importFiles(files, grid->cellAtIndex(index)); },
        Qt::QueuedConnection);
  });
  dialog->open();
}

void CueCellController::exportFile() {
  AudioCue* cue = audioCue();
  if (!cue) return;
  auto* dialog = new QFileDialog(m_view->window(), QStringLiteral("Export"));
  dialog->setAcceptMode(QFileDialog::AcceptSave);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->selectFile(QFileInfo(qString(cue->file())).fileName());
  QPointer<CueCellController> self(this);
  connect(dialog, &QFileDialog::fileSelected, this, [self](const QString& path) {
    if (self) self->exportFileTo(path);
  });
  dialog->open();
}

bool CueCellController::exportFileTo(const QString& path) {
  AudioCue* cue = audioCue();
  if (!cue) return false;
  QFile source(qString(cue->file()));
  if (!source.copy(path)) {
    KyoLog("error exporting file: %s", source.errorString().toUtf8().constData());
    return false;
  }
  return true;
}

std::unique_ptr<QMenu> CueCellController::makeMenu(QWidget* parent) {
  auto menu = std::make_unique<QMenu>(parent);
  QPointer<CueCellController> self(this);
  AudioCue* cue = audioCue();
  if (!cue) {
    menu->addAction(QStringLiteral("Import File\u2026"), this, [self] {
      if (self) self->importFile();
    });
    return menu;
  }
  auto addToggle = [&](const QString& title, bool state, void (CueCellController::*toggle)()) {
    QAction* action = menu->addAction(title, this, [self, toggle] {
      if (self) (self.data()->*toggle)();
    });
    action->setCheckable(true);
    action->setChecked(state);
  };
  addToggle(QStringLiteral("Loop"), cue->loops(), &CueCellController::toggleLoop);
  addToggle(QStringLiteral("Hold"), cue->hold(), &CueCellController::toggleHold);
  addToggle(QStringLiteral("Solo"), cue->solo(), &CueCellController::toggleSolo);
  addToggle(QStringLiteral("Ducking"), cue->ducking(), &CueCellController::toggleDucking);
  menu->addSeparator();
  QMenu* colors = menu->addMenu(QStringLiteral("Color"));
  auto* group = new QActionGroup(colors);
  for (const std::string& name : SontoColor::colors()) {
    QString title = qString(name);
    if (!title.isEmpty()) title[0] = title[0].toUpper();
    QAction* action = colors->addAction(title, this, [self, name] {
      if (self) self->setColorName(name);
    });
    action->setCheckable(true);
    action->setChecked(cue->color().name() == name);
    group->addAction(action);
  }
  menu->addSeparator();
  menu->addAction(QStringLiteral("Import File\u2026"), this, [self] {
    if (self) self->importFile();
  });
  menu->addAction(QStringLiteral("Export File\u2026"), this, [self] {
    if (self) self->exportFile();
  });
  menu->addSeparator();
  menu->addAction(QStringLiteral("Delete"), this, [self] {
    if (!self || !self->m_controller) return;
    GridController* controller = self->m_controller;
    const unsigned index = self->m_index;
    // Deleting reloads the grid, which ends this cell: after the menu has gone.
    QMetaObject::invokeMethod(controller, [controller, index] { controller->removeCueAtIndex(index); },
                              Qt::QueuedConnection);
  });
  return menu;
}

// -- CueCellView ------------------------------------------------------------------

CueCellView::CueCellView(CueCellController* controller, QWidget* parent) : QWidget(parent), m_controller(controller) {
  setAcceptDrops(true);
  setAttribute(Qt::WA_OpaquePaintEvent, false);
  setFocusPolicy(Qt::NoFocus);
}

QRectF CueCellView::playButtonRect() const { return QRectF(12.0, 11.0, 24.0, 24.0); }

void CueCellView::mousePressEvent(QMouseEvent* event) {
  if (event->button() == Qt::LeftButton) {
    mouseDown(event);
  } else {
    QWidget::mousePressEvent(event);
  }
}

void CueCellView::mouseReleaseEvent(QMouseEvent* event) {
  if (event->button() == Qt::LeftButton) {
    mouseUp(event);
  } else {
    QWidget::mouseReleaseEvent(event);
  }
}

// The second press of a quick pair. Some platforms send it after a press event of
// its own, some in place of one; in show mode it fires only in the second case, so
// that every hit fires exactly once.
void CueCellView::mouseDoubleClickEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return QWidget::mouseDoubleClickEvent(event);
  if (m_controller->isLocked()) {
    if (!m_pressed) mouseDown(event);
    return;
  }
  if (m_controller->gridView()) m_controller->gridView()->cellMouseDown(m_controller);
  m_controller->importFile();
}

void CueCellView::mouseDown(QMouseEvent* event) {
  GridView* grid = m_controller->gridView();
  if (event) {
    m_lastMouseDown = event->position();
    m_dragCandidate = true;
  }
  // Selection first, as the grid sees every press on a cell.
  if (event && grid) {
    grid->cellMouseDown(m_controller);
    grid->setFocus(Qt::MouseFocusReason);
  }
  if (m_controller->isLocked()) {
    m_controller->triggerCueDown();
    m_pressed = true;
    update();
    return;
  }
  if (event && !m_controller->isEmpty() && playButtonRect().contains(event->position())) {
    // The play button has the same down and up as a key.
    m_playButtonHeld = true;
    m_dragCandidate = false;
    m_controller->triggerCueDown();
  }
}

void CueCellView::mouseUp(QMouseEvent* event) {
  m_dragCandidate = false;
  if (m_playButtonHeld) {
    m_playButtonHeld = false;
    m_controller->triggerCueUp();
  }
  if (m_controller->isLocked()) {
    m_controller->triggerCueUp();
    m_pressed = false;
    update();
  }
}

void CueCellView::mouseMoveEvent(QMouseEvent* event) {
  if (!m_dragCandidate || !(event->buttons() & Qt::LeftButton)) return;
  if (!rect().contains(m_lastMouseDown.toPoint())) return;
  const QPointF delta = event->position() - m_lastMouseDown;
  if (std::sqrt(delta.x() * delta.x() + delta.y() * delta.y()) < 5.0) return;
  if (m_controller->isEmpty() || m_controller->isLocked()) return;
  m_dragCandidate = false;
  startDrag();
}

void CueCellView::startDrag() {
  AudioCue* cue = m_controller->audioCue();
  GridView* grid = m_controller->gridView();
  if (!cue || !grid) return;
  if (m_controller->isSelected()) grid->setSelectedIndex(GridView::kNotFound);
  const QPixmap image = grab();
  std::unique_ptr<QMimeData> data = cue->mimeData();
  if (!data) return;
  // The pad left behind is dimmed while its image travels: a child widget has no
  // opacity of its own, an effect gives it one.
  auto* dim = new QGraphicsOpacityEffect(this);
  dim->setOpacity(kDraggedOpacity);
  setGraphicsEffect(dim);
  AudioCue::setIndexOnMimeData(*data, m_controller->index());
  auto* drag = new QDrag(this);
  drag->setMimeData(data.release());
  drag->setPixmap(image);
  drag->setHotSpot(m_lastMouseDown.toPoint());
  QPointer<CueCellView> self(this);
  drag->exec(Qt::MoveAction | Qt::CopyAction, Qt::MoveAction);
  if (self) self->setGraphicsEffect(nullptr);
}

void CueCellView::contextMenuEvent(QContextMenuEvent* event) {
  if (m_controller->isLocked()) return;
  std::unique_ptr<QMenu> menu = m_controller->makeMenu(this);
  menu->exec(event->globalPos());
}

namespace {
bool hasFiles(const QMimeData* data) {
  if (!data || !data->hasUrls()) return false;
  for (const QUrl& url : data->urls()) {
    if (url.isLocalFile()) return true;
  }
  return false;
}
}  // namespace

void CueCellView::dragEnterEvent(QDragEnterEvent* event) {
  m_controller->setHighlighted(true);
  if (m_controller->isLocked()) {
    event->ignore();
    return;
  }
  auto* sourceCell = qobject_cast<CueCellView*>(event->source());
  const bool sameGrid = sourceCell && sourceCell->m_controller->gridView() == m_controller->gridView();
  const QMimeData* data = event->mimeData();
  if (sameGrid && data->hasFormat(AudioCue::kIndexPasteboardType)) {
    event->setDropAction(Qt::MoveAction);
    event->accept();
    return;
  }
  if (hasFiles(data)) {
    if (m_controller->gridView()) m_controller->gridView()->setShowDefaultHotkeys(true);
  } else if (!data->hasFormat(AudioCue::kPasteboardType)) {
    event->ignore();
    return;
  }
  event->setDropAction(Qt::CopyAction);
  event->accept();
}

void CueCellView::dragLeaveEvent(QDragLeaveEvent*) {
  m_controller->setHighlighted(false);
  if (m_controller->gridView()) m_controller->gridView()->setShowDefaultHotkeys(false);
}

void CueCellView::dropEvent(QDropEvent* event) {
  // The grid and this cell may be rebuilt by what follows; keep what is needed.
  GridView* grid = m_controller->gridView();
  GridController* controller = m_controller->controller();
  const unsigned index = m_controller->index();
  m_controller->setHighlighted(false);
  if (grid) grid->setShowDefaultHotkeys(false);
  if (m_controller->isLocked() || !grid || !controller) return event->ignore();

  const QMimeData* data = event->mimeData();
  auto* sourceCell = qobject_cast<CueCellView*>(event->source());
  const bool sameGrid = sourceCell && sourceCell->m_controller->gridView() == grid;
  if (hasFiles(data)) {
    QStringList paths;
    for (const QUrl& url : data->urls()) {
      if (url.isLocalFile()) paths << url.toLocalFile();
    }
    event->acceptProposedAction();
    grid->droppedFiles(paths, m_controller);
    return;
  }
  if (sameGrid && data->hasFormat(AudioCue::kIndexPasteboardType)) {
    const std::optional<unsigned long> from = AudioCue::indexFromMimeData(*data);
    if (!from) return event->ignore();
    // Alt held at the drop copies, as Option does on a Mac.
    grid->setOptionHeld(event->modifiers() & Qt::AltModifier);
    event->setDropAction(grid->optionHeld() ? Qt::CopyAction : Qt::MoveAction);
    event->accept();
    if (grid->optionHeld()) {
      controller->gridViewDidCopyCueFromIndex(static_cast<unsigned>(*from), index);
    } else {
      controller->gridViewDidMoveCueFromIndex(static_cast<unsigned>(*from), index);
    }
    return;
  }
  if (data->hasFormat(AudioCue::kPasteboardType)) {
    std::shared_ptr<AudioCue> cue = AudioCue::fromMimeData(*data);
    if (!cue) return event->ignore();
    event->setDropAction(Qt::CopyAction);
    event->accept();
    controller->gridViewDidDropCue(cue, index);
    return;
  }
  event->ignore();
}

void CueCellView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const QRectF r = QRectF(rect()).adjusted(5.0, 5.0, -5.0, -5.0);
  if (r.width() <= 0 || r.height() <= 0) return;
  const QColor selection(SontoTheme::kSelectionRed, SontoTheme::kSelectionGreen, SontoTheme::kSelectionBlue);
  if (m_controller->isSelected()) {
    painter.save();
    const QPainterPath path = roundedPath(r, 5.0);
    strokeGlow(painter, path, selection, 4.0);
    painter.setPen(QPen(selection, 5.0));
    painter.drawPath(path);
    painter.restore();
  }
  if (m_controller->isEmpty()) {
    paintEmpty(painter, r);
  } else {
    paintCue(painter, r);
  }
}

void CueCellView::paintEmpty(QPainter& painter, const QRectF& r) {
  painter.save();
  const QPainterPath well = roundedPath(r, 5.0);
  painter.fillPath(well, white(m_controller->isHighlighted() ? 0.1 : 0.05));
  painter.setClipPath(well);
  if (!m_controller->isSelected()) {
    // The sunk look: a dark line along the inside of the upper edge.
    painter.setPen(QPen(black(0.35), 2.0));
    painter.drawPath(roundedPath(r.adjusted(0.5, 1.5, -0.5, 0.5), 5.0));
  }
  GridView* grid = m_controller->gridView();
  if (grid && grid->showDefaultHotkeys()) {
    QFont font = painter.font();
    font.setBold(true);
    font.setPixelSize(72);
    painter.setFont(font);
    painter.setPen(white(0.08));
    painter.drawText(r, Qt::AlignCenter, qString(m_controller->defaultHotkey()));
  }
  painter.restore();
  // A bright lower lip.
  painter.save();
  painter.setClipRect(QRectF(r.x() + 0.5, r.bottom() - 5.0, r.width() - 1.0, 6.0));
  painter.setPen(QPen(white(0.05), 1.0));
  painter.drawPath(roundedPath(r.adjusted(-0.5, -0.5, 0.5, 0.5), 6.0));
  painter.restore();
}

void CueCellView::paintCue(QPainter& painter, const QRectF& r) {
  AudioCue* cue = m_controller->audioCue();
  Cue* plain = m_controller->cue();
  const bool locked = m_controller->isLocked();
  const bool broken = plain->isBroken();
  const QPainterPath pad = roundedPath(r, 5.0);

  if (!m_pressed && !m_controller->isSelected()) {
    painter.save();
    painter.translate(0.0, 2.0);
    strokeGlow(painter, pad, black(0.25), 8.0);
    painter.restore();
  }

  // The pad, lit from above, or from below while pressed.
  painter.save();
  painter.setClipPath(pad);
  const SontoColor color = cue ? cue->color() : SontoColor::defaultColor();
  QLinearGradient gradient(0.0, 0.0, 0.0, height());
  const auto [top, bottom] = SontoTheme::padGradient(color, m_pressed);
  gradient.setColorAt(0.0, top);
  gradient.setColorAt(1.0, bottom);
  painter.fillRect(rect(), gradient);
  // The foot: a dark strip under the times and the progress bar.
  const double footHeight = 34.0;
  const SontoTheme::PadTextStyle timeStyle = SontoTheme::padTextStyle(color, SontoTheme::PadText::Time);
  painter.fillRect(QRectF(r.x(), r.bottom() - footHeight, r.width(), footHeight), timeStyle.plate);
  if (broken) {
    // Dimmed and hatched in amber: a pad that will not play, seen from the back of the booth.
    painter.fillRect(rect(), black(0.4));
    painter.setPen(QPen(kBrokenAmber.darker(160), 7.0));
    for (double x = -height(); x < width(); x += 22.0) painter.drawLine(QPointF(x, height()), QPointF(x + height(), 0.0));
  }
  painter.restore();

  painter.save();
  painter.setPen(QPen(black(0.6), 1.0));
  painter.drawPath(roundedPath(r.adjusted(0.5, 0.5, -0.5, -0.5), 4.5));
  if (m_pressed) {
    painter.setClipRect(QRectF(r.x() + 0.5, r.bottom() - 5.0, r.width() - 1.0, 6.0));
    painter.setPen(QPen(white(0.05), 1.0));
    painter.drawPath(roundedPath(r.adjusted(-0.5, -0.5, 0.5, 0.5), 6.0));
  } else {
    painter.setClipRect(QRectF(r.x(), r.y(), r.width(), 5.0));
    painter.setPen(QPen(white(0.3), 1.0));
    painter.drawPath(roundedPath(r.adjusted(1.5, 1.5, -1.5, -1.5), 4.5));
  }
  painter.restore();

  painter.save();
  QFont font = painter.font();
  double textTop = r.y() + 6.0;
  const SontoTheme::PadTextStyle badgeStyle = SontoTheme::padTextStyle(color, SontoTheme::PadText::Badge);
  if (locked) {
    // The key in large type, readable from the back of the booth.
    font.setPixelSize(24);
    font.setBold(true);
    painter.setFont(font);
    const QRectF keyRect(15.0, r.y() + 4.0, r.width() - 20.0, 30.0);
    drawPadText(painter, keyRect, Qt::AlignLeft | Qt::AlignVCenter, qString(plain->hotkey()),
                SontoTheme::padTextStyle(color, SontoTheme::PadText::Key));
    textTop = r.y() + 36.0;
  } else {
    // The play button: a triangle, or a square while the cue plays.
    const QRectF button = playButtonRect();
    painter.setPen(Qt::NoPen);
    painter.setBrush(badgeStyle.plate);
    painter.drawEllipse(button);
    painter.setBrush(badgeStyle.text);
    const QPointF c = button.center();
    if (cue && cue->playing()) {
      painter.drawRect(QRectF(c.x() - 4.5, c.y() - 4.5, 9.0, 9.0));
    } else {
      QPolygonF triangle;
      triangle << QPointF(c.x() - 3.5, c.y() - 6.0) << QPointF(c.x() + 6.0, c.y()) << QPointF(c.x() - 3.5, c.y() + 6.0);
      painter.drawPolygon(triangle);
    }
    textTop = r.y() + 34.0;
  }

  double iconsRight = r.right() - (locked ? 24.0 : 28.0);
  if (broken) {
    // The warning sign, rightmost, where the eye looks for the pad's state.
    const QRectF sign(iconsRight - 4.0, r.y() + 6.0, 22.0, 20.0);
    QPolygonF triangle;
    triangle << QPointF(sign.center().x(), sign.top()) << sign.bottomRight() << sign.bottomLeft();
    painter.setPen(QPen(black(0.6), 1.0));
    painter.setBrush(kBrokenAmber);
    painter.drawPolygon(triangle);
    font.setPixelSize(13);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(Qt::black);
    painter.drawText(sign.adjusted(0.0, 5.0, 0.0, 0.0), Qt::AlignCenter, QStringLiteral("!"));
    iconsRight -= 26.0;
  }

  // Icons for hold, loop and solo, hold rightmost.
  if (cue) {
    double x = iconsRight;
    font.setPixelSize(11);
    font.setBold(true);
    painter.setFont(font);
    for (auto [on, letter] : {std::pair{cue->hold(), "H"}, std::pair{cue->loops(), "L"}, std::pair{cue->solo(), "S"}}) {
      if (!on) continue;
      const QRectF icon(x, r.y() + 8.0, 18.0, 16.0);
      painter.setPen(Qt::NoPen);
      painter.setBrush(badgeStyle.plate);
      painter.drawRoundedRect(icon, 3.0, 3.0);
      painter.setPen(badgeStyle.text);
      painter.drawText(icon, Qt::AlignCenter, QString::fromLatin1(letter));
      x -= 22.0;
    }
  }

  // Status while the cue is started: spinning while it panics, bars while paused,
  // a triangle while running.
  if (cue && cue->playing()) {
    const double x0 = locked ? r.right() - 24.0 - 66.0 : playButtonRect().right() + 10.0;
    const QPointF c(x0 + 8.0, r.y() + 18.0);
    // On a plate of their own, since the status colours vanish on the lighter pads.
    painter.setPen(Qt::NoPen);
    painter.setBrush(badgeStyle.plate);
    painter.drawEllipse(c, 12.0, 12.0);
    painter.setBrush(Qt::NoBrush);
    if (cue->isPanicking()) {
      const int k = static_cast<int>(std::trunc(KyoWallClockSeconds() * 24.0)) % 12;
      painter.setPen(QPen(badgeStyle.text, 2.0, Qt::SolidLine, Qt::RoundCap));
      painter.drawArc(QRectF(c.x() - 7.0, c.y() - 7.0, 14.0, 14.0), -k * 30 * 16, 270 * 16);
    } else if (cue->paused()) {
      painter.setPen(Qt::NoPen);
      painter.setBrush(QColor(255, 200, 60));
      painter.drawRect(QRectF(c.x() - 6.0, c.y() - 6.0, 4.0, 12.0));
      painter.drawRect(QRectF(c.x() + 2.0, c.y() - 6.0, 4.0, 12.0));
    } else {
      painter.setPen(Qt::NoPen);
      painter.setBrush(QColor(120, 230, 110));
      QPolygonF triangle;
      triangle << QPointF(c.x() - 5.0, c.y() - 6.0) << QPointF(c.x() + 6.0, c.y()) << QPointF(c.x() - 5.0, c.y() + 6.0);
      painter.drawPolygon(triangle);
    }
  }

  // Name, then the times over the progress bar at the foot of the pad.
  font.setBold(true);
  font.setPixelSize(std::clamp(static_cast<int>(r.height() / 7.0), 12, 18));
  painter.setFont(font);
  const QRectF nameRect(r.x() + 8.0, textTop, r.width() - 16.0, std::max(0.0, r.bottom() - footHeight - 2.0 - textTop));
  drawPadText(painter, nameRect, Qt::AlignLeft | Qt::AlignTop | Qt::TextWordWrap, qString(plain->displayName()),
              SontoTheme::padTextStyle(color, SontoTheme::PadText::Name));

  font.setBold(true);
  font.setPixelSize(13);
  painter.setFont(font);
  const QRectF times(r.x() + 8.0, r.bottom() - footHeight + 1.0, r.width() - 16.0, 18.0);
  SontoTheme::PadTextStyle onStrip = timeStyle;
  onStrip.plate = Qt::transparent;  // the strip is their plate
  if (broken) {
    // Why, in place of times that will not run.
    onStrip.text = kBrokenAmber;
    font.setPixelSize(12);
    painter.setFont(font);
    const QString why = painter.fontMetrics().elidedText(qString(plain->brokenExplanation()), Qt::ElideRight,
                                                         static_cast<int>(times.width()));
    drawPadText(painter, times.adjusted(0.0, 0.0, 0.0, 8.0), Qt::AlignLeft | Qt::AlignVCenter, why, onStrip);
    painter.restore();
    return;
  }
  drawPadText(painter, times, Qt::AlignLeft | Qt::AlignVCenter, m_controller->elapsedTime(), onStrip);
  drawPadText(painter, times, Qt::AlignRight | Qt::AlignVCenter, m_controller->remainingTime(), onStrip);

  // The track a shade under the strip, the fill in the colour of the times.
  const QRectF bar(r.x() + 8.0, r.bottom() - 13.0, r.width() - 16.0, 7.0);
  painter.setPen(Qt::NoPen);
  painter.setBrush(black(0.45));
  painter.drawRoundedRect(bar, 3.5, 3.5);
  const double fill = std::round(bar.width() * std::clamp(static_cast<double>(m_controller->progress()), 0.0, 1.0));
  if (fill > 0.0) {
    painter.setBrush(timeStyle.text);
    painter.drawRoundedRect(QRectF(bar.x(), bar.y(), fill, bar.height()), 3.5, 3.5);
  }
  painter.restore();

  if (m_controller->isHighlighted()) {
    painter.fillPath(pad, white(0.12));
  }
}
