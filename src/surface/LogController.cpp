#include "surface/LogController.h"

#include <QHBoxLayout>
#include <QMetaObject>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QThread>
#include <QVBoxLayout>

#include "show/SontoLogger.h"

LogController::LogController(std::shared_ptr<SontoLogger> logger, QWidget* parent) : QWidget(parent, Qt::Window) {
  setWindowTitle(QStringLiteral("Log"));
  m_textView = new QPlainTextEdit(this);
  m_textView->setReadOnly(true);
  m_textView->setLineWrapMode(QPlainTextEdit::NoWrap);
  m_muteButton = new QPushButton(QStringLiteral("Pause logging"), this);
  m_clearButton = new QPushButton(QStringLiteral("Clear"), this);

  auto* buttons = new QHBoxLayout;
  buttons->addWidget(m_muteButton);
  buttons->addStretch(1);
  buttons->addWidget(m_clearButton);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(m_textView, 1);
  layout->addLayout(buttons);
  resize(560, 360);

  connect(m_muteButton, &QPushButton::clicked, this, [this] { toggleMute(); });
  connect(m_clearButton, &QPushButton::clicked, this, [this] { clearLog(); });

  setLogger(std::move(logger));
  // setLogger does nothing for a null logger; the view still needs its empty state.
  if (!m_logger) {
    refreshLog();
    updateMuteButton();
  }
}

LogController::~LogController() { m_observer.reset(); }

void LogController::setLogger(std::shared_ptr<SontoLogger> logger) {
  if (logger == m_logger) return;
  m_observer.reset();
  m_logger = std::move(logger);
  if (m_logger) {
    m_observer = KyoScopedObserver(
        KyoNotificationCenter::defaultCenter(), SontoLogger::kLogUpdatedNotification,
        [this](const KyoNotification&) {
          // The logger posts on its caller's thread, which is the main thread in a
          // show; a widget can only be touched there, so anything else is queued.
          if (QThread::currentThread() == thread()) {
            refreshLog();
          } else {
            QMetaObject::invokeMethod(
                this, [this] { refreshLog(); }, Qt::QueuedConnection);
          }
        },
        m_logger.get());
  }
  refreshLog();
  updateMuteButton();
}

void LogController::refreshLog() {
  const QString text = m_logger ? QString::fromStdString(m_logger->stringWithContentsOfLog()) : QString();
  m_textView->setPlainText(text);
  // The newest entry is the one an operator looks for.
  m_textView->verticalScrollBar()->setValue(m_textView->verticalScrollBar()->maximum());
}

void LogController::toggleMute() {
  if (!m_logger) return;
  m_logger->toggleMute();
  updateMuteButton();
}

void LogController::updateMuteButton() {
  const bool muted = m_logger && m_logger->muted();
  m_muteButton->setText(muted ? QStringLiteral("Resume logging") : QStringLiteral("Pause logging"));
  m_muteButton->setEnabled(m_logger != nullptr);
  m_clearButton->setEnabled(m_logger != nullptr);
}

void LogController::clearLog() {
  if (m_logger) m_logger->clearLog();
}
