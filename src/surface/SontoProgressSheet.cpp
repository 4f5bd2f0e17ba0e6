#include "surface/SontoProgressSheet.h"

#include <QLabel>
#include <QProgressBar>
#include <QTimer>
#include <QVBoxLayout>

SontoProgressSheet::SontoProgressSheet(const QString& text, QWidget* window)
    : QWidget(window, Qt::Sheet | Qt::Dialog | Qt::FramelessWindowHint), m_window(window) {
  setObjectName(QStringLiteral("progressSheet"));
  setWindowModality(Qt::WindowModal);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(20, 14, 20, 14);
  auto* label = new QLabel(text, this);
  layout->addWidget(label);
  auto* bar = new QProgressBar(this);
  bar->setRange(0, 0);  // busy, of unknown length
  bar->setMinimumWidth(260);
  layout->addWidget(bar);
  adjustSize();
}

void SontoProgressSheet::showOnWindow() {
  QPointer<SontoProgressSheet> self(this);
  QTimer::singleShot(kShowAfterMilliseconds, this, [self] {
    if (!self || self->m_finished || !self->m_window) return;
    // At the top of the window, in the middle, as a sheet comes down.
    const QRect frame = self->m_window->geometry();
    self->move(frame.x() + (frame.width() - self->width()) / 2, frame.y());
    self->show();
  });
}

void SontoProgressSheet::hideSheet() {
  m_finished = true;
  hide();
  deleteLater();
}
