#include "surface/BrokenCueController.h"

#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QTableWidget>
#include <QVBoxLayout>

#include "KyoUI/PopoverWindow.h"
#include "show/Cart.h"
#include "show/Cue.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "surface/InspectorController.h"
#include "surface/WorkspaceController.h"

namespace {

QString qString(const std::string& text) { return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())); }

// Room that the box adds round its view, each side.
constexpr double kPopoverMargin = 12.0;

// No singular form: "1 Warnings" is what the list has always said.
QString warningsText(size_t count) { return QStringLiteral("%1 Warnings").arg(static_cast<qulonglong>(count)); }

}  // namespace

BrokenCueController::BrokenCueController(WorkspaceController* workspaceController,
                                         InspectorController* inspectorController, QWidget* brokenCueView,
                                         QPushButton* warningButton)
    : QObject(brokenCueView),
      m_workspaceController(workspaceController),
      m_inspectorController(inspectorController),
      m_warningButton(warningButton),
      m_brokenCueView(brokenCueView) {
  auto* layout = new QVBoxLayout(m_brokenCueView);
  layout->setContentsMargins(12, 8, 12, 8);
  m_brokenCueLabel = new QLabel(warningsText(0), m_brokenCueView);
  m_brokenCueLabel->setObjectName(QStringLiteral("brokenCueLabel"));
  QFont font = m_brokenCueLabel->font();
  font.setBold(true);
  font.setPointSizeF(font.pointSizeF() * 1.15);
  m_brokenCueLabel->setFont(font);
  layout->addWidget(m_brokenCueLabel);

  m_brokenCueTableView = new QTableWidget(0, 3, m_brokenCueView);
  m_brokenCueTableView->setObjectName(QStringLiteral("brokenCueTableView"));
  m_brokenCueTableView->setHorizontalHeaderLabels(
      {QString::fromLatin1(kCueNameColumn), QString::fromLatin1(kCartNameColumn), QString::fromLatin1(kWarningColumn)});
  m_brokenCueTableView->setSelectionBehavior(QAbstractItemView::SelectRows);
  m_brokenCueTableView->setSelectionMode(QAbstractItemView::SingleSelection);
  m_brokenCueTableView->setEditTriggers(QAbstractItemView::NoEditTriggers);
  m_brokenCueTableView->verticalHeader()->hide();
  m_brokenCueTableView->setAlternatingRowColors(true);
  m_brokenCueTableView->setShowGrid(false);
  QHeaderView* header = m_brokenCueTableView->horizontalHeader();
  header->setSectionResizeMode(0, QHeaderView::Interactive);
  header->setSectionResizeMode(1, QHeaderView::Interactive);
  header->setStretchLastSection(true);
  header->resizeSection(0, 200);
  header->resizeSection(1, 140);
  layout->addWidget(m_brokenCueTableView, 1);
  connect(m_brokenCueTableView, &QTableWidget::itemSelectionChanged, this,
          &BrokenCueController::tableViewSelectionDidChange);

  m_warningButton->hide();
  connect(m_warningButton, &QPushButton::clicked, this, [this] {
    if (m_popover) {
      hidePopover();
    } else {
      showPopoverIfNeeded();
    }
  });
}

BrokenCueController::~BrokenCueController() {
  prepareToDie();
  hidePopover();
}

void BrokenCueController::prepareToDie() {
  if (m_reloadTimer) KyoCurrentClock().stopTimer(m_reloadTimer);
  m_reloadTimer = 0;
  m_aboutToDie = true;
}

void BrokenCueController::reloadData() {
  if (m_aboutToDie) return;
  QPointer<BrokenCueController> self(this);
  KyoCurrentClock().runOnMain(
      [self] {
        if (!self || self->m_aboutToDie) return;
        KyoClock& clock = KyoCurrentClock();
        if (self->m_reloadTimer) clock.stopTimer(self->m_reloadTimer);
        self->m_reloadTimer = clock.startTimer(kReloadDelay, false, [self] {
          if (self) self->executeReloadData();
        });
      },
      false);
}

void BrokenCueController::executeReloadData() {
  m_reloadTimer = 0;
  if (m_aboutToDie) return;
  m_brokenOrFlaggedCues = m_workspaceController->brokenOrFlaggedCues();

  const QSignalBlocker quiet(m_brokenCueTableView);
  m_brokenCueTableView->clearContents();
  m_brokenCueTableView->setRowCount(static_cast<int>(m_brokenOrFlaggedCues.size()));
  int row = 0;
  for (const SafetyConcern& concern : m_brokenOrFlaggedCues) {
    const auto cue = concern.cue();
    const Cart* cart = cue ? cue->cart() : nullptr;
    const QString texts[] = {cue ? qString(cue->listName()) : QString(), cart ? qString(cart->name()) : QString(),
                             qString(concern.description())};
    for (int column = 0; column < 3; ++column) {
      m_brokenCueTableView->setItem(row, column, new QTableWidgetItem(texts[column]));
    }
    ++row;
  }
  const QString count = warningsText(m_brokenOrFlaggedCues.size());
  m_brokenCueLabel->setText(count);
  m_warningButton->setText(QStringLiteral("\u26A0 ") + count);
  m_warningButton->setHidden(m_brokenOrFlaggedCues.empty());
  if (m_popoverLabel) m_popoverLabel->setText(count);
  // A cue that broke or mended since shows it on its pad.
  for (const auto& controller : m_workspaceController->gridControllers()) controller->gridView()->update();
  showPopoverOnce();
}

void BrokenCueController::showPopoverOnce() {
  if (m_didShowPopover) return;
  showPopoverIfNeeded();
  m_didShowPopover = true;
}

void BrokenCueController::showPopoverIfNeeded() {
  if (m_warningButton->isHidden() || m_popover) return;
  const QPointF point = m_warningButton->mapToGlobal(QPointF(m_warningButton->width() * 0.5, 0.0));
  QWidget* view = makePopoverView();
  // Centred over the button, unless that would cross the screen's left edge (the
  // button sits at the window's left): then the box opens to the right of the arrow.
  const QScreen* screen = m_warningButton->screen();
  const bool fits = !screen || point.x() - view->width() * 0.5 - kPopoverMargin >= screen->availableGeometry().left();
  auto* popover = new PopoverWindow(view, point, fits ? 3 : 9, m_warningButton->window());
  connect(popover, &PopoverWindow::didResignKey, this, &BrokenCueController::hidePopover);
  m_popover = popover;
  popover->show();
  popover->raise();
  popover->activateWindow();
}

void BrokenCueController::hidePopover() {
  if (!m_popover) return;
  PopoverWindow* popover = m_popover;
  m_popover = nullptr;
  popover->hide();
  popover->deleteLater();
}

// What the popover says: how many, and the way to the list.
QWidget* BrokenCueController::makePopoverView() {
  auto* view = new QWidget;
  view->setObjectName(QStringLiteral("popoverView"));
  auto* layout = new QVBoxLayout(view);
  layout->setContentsMargins(14, 10, 14, 10);
  auto* count = new QLabel(warningsText(m_brokenOrFlaggedCues.size()), view);
  QFont font = count->font();
  font.setBold(true);
  font.setPointSizeF(font.pointSizeF() * 1.2);
  count->setFont(font);
  count->setStyleSheet(QStringLiteral("color: rgb(255, 200, 60);"));
  m_popoverLabel = count;
  layout->addWidget(count);
  auto* text = new QLabel(QStringLiteral("Some cues may not play as you expect."), view);
  text->setStyleSheet(QStringLiteral("color: white;"));
  layout->addWidget(text);
  auto* show = new QPushButton(QStringLiteral("Show Warnings"), view);
  show->setObjectName(QStringLiteral("showWarningsButton"));
  layout->addWidget(show, 0, Qt::AlignRight);
  InspectorController* inspector = m_inspectorController;
  connect(show, &QPushButton::clicked, inspector, [inspector] { inspector->showBrokenCueView(); });
  view->adjustSize();
  return view;
}

void BrokenCueController::tableViewSelectionDidChange() {
  const int row = m_brokenCueTableView->currentRow();
  if (row < 0 || row >= static_cast<int>(m_brokenOrFlaggedCues.size())) return;
  if (const auto cue = m_brokenOrFlaggedCues[static_cast<size_t>(row)].cue()) m_workspaceController->selectCue(cue.get());
}
