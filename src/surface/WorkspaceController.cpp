#include "surface/WorkspaceController.h"

#include <QAction>
#include <QApplication>
#include <QButtonGroup>
#include <QComboBox>
#include <QClipboard>
#include <QCloseEvent>
#include <QMoveEvent>
#include <QResizeEvent>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLineEdit>
#include <QKeyEvent>
#include <QKeySequence>
#include <QLabel>
#include <QMenuBar>
#include <QMimeData>
#include <QPushButton>
#include <QSlider>
#include <QSplitter>
#include <QSettings>
#include <QUrl>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

#include "audio/KyoAudioDevice.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoKeyCodes.h"
#include "foundation/KyoLog.h"
#include "show/AudioCue.h"
#include "show/Cue.h"
#include "show/Workspace.h"
#include "show/WorkspaceFile.h"
#include "surface/CueCellController.h"
#include "surface/GridController.h"
#include "surface/GridView.h"
#include "KyoUI/PSMTabBarControl.h"
#include "KyoUI/PSMTabDragAssistant.h"
#include "KyoUI/PSMTabView.h"
#include "surface/BrokenCueController.h"
#include "surface/CueInspectorController.h"
#include "surface/InspectorController.h"
#include "surface/LogController.h"
#include "surface/PrefsController.h"
#include "surface/SettingsController.h"
#include "surface/SontoAlerts.h"
#include "surface/SontoProgressSheet.h"
#include "surface/SontoAudioLevelView.h"
#include "surface/SontoDocumentController.h"
#include "surface/SontoKeyEvents.h"
#include "surface/SontoTheme.h"

namespace {
constexpr int kVolumeSteps = 1000;  // slider positions per unit of linear gain
}

WorkspaceController::WorkspaceController(std::shared_ptr<Workspace> workspace)
    : m_workspace(workspace.get()), m_document(std::move(workspace)) {
  setAttribute(Qt::WA_DeleteOnClose, false);
  resize(1000, 720);

  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);

  // The carts over the inspector's pane. Only the inspector collapses, and it keeps
  // its height when the window is resized: the grid takes the change.
  m_splitView = new QSplitter(Qt::Vertical, central);
  m_splitView->setChildrenCollapsible(false);
  m_mainPane = new QWidget(m_splitView);
  m_mainPane->setMinimumHeight(kMinimumPaneHeight);
  auto* mainLayout = new QVBoxLayout(m_mainPane);
  mainLayout->setContentsMargins(0, 0, 0, 0);
  mainLayout->setSpacing(0);
  // The carts' tab bar over their pages; the bar hides while there is one cart.
  m_tabBar = new PSMTabBarControl(m_mainPane);
  m_tabView = new PSMTabView(m_mainPane);
  m_tabView->setFocusPolicy(Qt::NoFocus);
  m_tabBar->setTabView(m_tabView);
  m_tabBar->setDelegate(this);
  m_tabBar->setHideForSingleTab(true);
  m_tabBar->setTearOffStyle(1);
  m_tabBar->setCellMinWidth(100);
  m_tabBar->setCellMaxWidth(200);
  m_tabBar->setCellOptimumWidth(150);
  mainLayout->addWidget(m_tabBar);
  mainLayout->addWidget(m_tabView, 1);
  // While a tab is dragged, every bar shows, to be dropped on.
  connect(PSMTabDragAssistant::shared(), &PSMTabDragAssistant::tabDragDidBegin, this,
          [this] { m_tabBar->setHideForSingleTab(false); });
  connect(PSMTabDragAssistant::shared(), &PSMTabDragAssistant::tabDragDidEnd, this,
          [this] { m_tabBar->setHideForSingleTab(true); });
  m_inspectorPane = new QWidget(m_splitView);
  m_inspectorPane->setObjectName(QStringLiteral("inspectorPane"));
  m_inspectorPane->setMinimumHeight(kMinimumPaneHeight);
  m_splitView->addWidget(m_mainPane);
  m_splitView->addWidget(m_inspectorPane);
  m_splitView->setCollapsible(0, false);
  m_splitView->setCollapsible(1, true);
  m_splitView->setStretchFactor(0, 1);
  m_splitView->setStretchFactor(1, 0);
  m_splitView->setSizes({520, 0});
  m_inspectorVisible = false;
  m_inspectorController = new InspectorController(this, m_inspectorPane);
  connect(m_splitView, &QSplitter::splitterMoved, this, &WorkspaceController::splitViewDidResizeSubviews);
  layout->addWidget(m_splitView, 1);
  layout->addWidget(buildBottomBar());
  setCentralWidget(central);
  m_brokenCueController =
      new BrokenCueController(this, m_inspectorController, m_inspectorController->brokenCueView(), m_warningButton);
  m_inspectorController->setBrokenCueController(m_brokenCueController);

  buildMenus();

  // A new show starts with "Cart 1"; a read one brings its own carts.
  m_workspace->addFirstCartIfNeeded(!m_workspace->fileURL().isEmpty());
  syncGridControllers();
  if (m_tabView->count() > 0) m_tabView->selectTabViewItemAtIndex(0);

  if (!m_workspace->fileURL().isEmpty()) restoreFrame(m_workspace->fileURL().toString());
  updateVolumeSlider();
  updatePauseButton();
  updateDuckingButton();
  startOutputs();
  connect(m_workspace, &Workspace::pausedChanged, this, &WorkspaceController::updatePauseButton);
  connect(m_workspace, &Workspace::duckedChanged, this, &WorkspaceController::updateDuckingButton);
  connect(m_workspace, &Workspace::masterVolumeChanged, this, &WorkspaceController::updateVolumeSlider);
  connect(m_workspace, &Workspace::documentEditedChanged, this, &WorkspaceController::updateTitle);
  connect(m_workspace, &Workspace::fileURLChanged, this, &WorkspaceController::updateTitle);
  connect(m_workspace, &Workspace::cartsChanged, this, &WorkspaceController::syncGridControllers);
  connect(m_workspace->undoManager(), &SontoUndoManager::checkpoint, this, &WorkspaceController::updateMenus);
  // Every editing step asks for a new check; a burst of them costs one.
  connect(m_workspace->undoManager(), &SontoUndoManager::checkpoint, this, &WorkspaceController::refreshBrokenCues);
  connect(m_workspace, &Workspace::cartsChanged, this, &WorkspaceController::refreshBrokenCues);

  // A show file opened locked goes straight to show mode, without the check.
  if (m_workspace->isLocked()) {
    enterShowMode();
  } else {
    setEditMode();
  }
  updateTitle();
  updateMenus();
  makeCartFirstResponder();
  m_brokenCueController->reloadData();
  SontoDocumentController::sharedDocumentController().addDocument(this);
}

WorkspaceController::~WorkspaceController() {
  invalidate();
  m_inspectorController->setCue(nullptr);
  // The grids go before the workspace whose carts they show.
  m_tabBar->setDelegate(nullptr);
  while (m_tabView->count() > 0) m_tabView->removeTabViewItem(0);
  std::vector<GridView*> pages;
  for (const auto& controller : m_gridControllers) pages.push_back(controller->gridView());
  m_gridControllers.clear();
  for (GridView* page : pages) delete page;
  delete m_settingsController;
  delete m_logController;
  m_document.reset();
}

SontoUndoManager* WorkspaceController::undoManager() const {
  return m_workspace ? m_workspace->undoManager() : nullptr;
}

QWidget* WorkspaceController::buildBottomBar() {
  auto* bar = new QWidget(this);
  bar->setObjectName(QStringLiteral("bottomBar"));
  bar->setAutoFillBackground(true);
  QPalette palette = bar->palette();
  palette.setColor(QPalette::Window, QColor(32, 31, 31));
  bar->setPalette(palette);
  bar->setFixedHeight(64);
  auto* layout = new QHBoxLayout(bar);
  layout->setContentsMargins(10, 8, 10, 8);
  layout->setSpacing(10);

  // The safety check's warning, shown only when it found something.
  m_warningButton = new QPushButton(bar);
  m_warningButton->setObjectName(QStringLiteral("warningButton"));
  m_warningButton->setToolTip(QStringLiteral("What the safety check found in this show"));
  m_warningButton->setFocusPolicy(Qt::NoFocus);
  m_warningButton->setMinimumHeight(40);
  m_warningButton->setStyleSheet(
      QStringLiteral("QPushButton { background: rgb(90, 70, 20); color: rgb(255, 205, 70); font-weight: bold;"
                     " padding: 0 10px; border: 1px solid rgb(160, 120, 30); border-radius: 4px; }"));
  layout->addWidget(m_warningButton);

  // The level meter, left of the buttons.
  m_audioLevel = new SontoAudioLevelView(bar);
  m_audioLevel->setFixedWidth(130);
  layout->addWidget(m_audioLevel);

  m_buttonsContainer = new QWidget(bar);
  auto* buttons = new QHBoxLayout(m_buttonsContainer);
  buttons->setContentsMargins(0, 0, 0, 0);
  auto makeButton = [&](const QString& title, const QString& tip) {
    auto* button = new QPushButton(title, m_buttonsContainer);
    button->setToolTip(tip);
    button->setMinimumSize(96, 40);
    button->setFocusPolicy(Qt::TabFocus);
    QFont font = button->font();
    font.setBold(true);
    button->setFont(font);
    buttons->addWidget(button);
    return button;
  };
  m_pauseAllButton = makeButton(QStringLiteral("Pause All"), QStringLiteral("Pause every cue, or resume them"));
  m_pauseAllButton->setCheckable(true);
  m_pauseAllButton->setObjectName(QStringLiteral("pauseAllButton"));
  m_duckingButton = makeButton(QStringLiteral("Duck"), QStringLiteral("Lower the master level, or bring it back"));
  m_duckingButton->setCheckable(true);
  m_duckingButton->setObjectName(QStringLiteral("duckingButton"));
  m_panicButton = makeButton(QStringLiteral("Panic"), QStringLiteral("Fade out every cue; a second press cuts"));
  m_panicButton->setObjectName(QStringLiteral("panicButton"));
  m_panicButton->setStyleSheet(QStringLiteral("QPushButton { background: rgb(150, 40, 36); color: white; }"));
  connect(m_pauseAllButton, &QPushButton::clicked, this, [this] {
    togglePause();
    updatePauseButton();
  });
  connect(m_duckingButton, &QPushButton::clicked, this, [this] {
    toggleDucking();
    updateDuckingButton();
  });
  connect(m_panicButton, &QPushButton::clicked, this, &WorkspaceController::panicAll);
  layout->addWidget(m_buttonsContainer);
  layout->addStretch(1);

  m_volumeContainer = new QWidget(bar);
  auto* volume = new QHBoxLayout(m_volumeContainer);
  volume->setContentsMargins(0, 0, 0, 0);
  auto* volumeLabel = new QLabel(QStringLiteral("Master"), m_volumeContainer);
  volume->addWidget(volumeLabel);
  m_volumeSlider = new QSlider(Qt::Horizontal, m_volumeContainer);
  m_volumeSlider->setObjectName(QStringLiteral("masterVolume"));
  m_volumeSlider->setRange(0, kVolumeSteps);
  m_volumeSlider->setMinimumWidth(140);
  m_volumeSlider->setFocusPolicy(Qt::TabFocus);
  connect(m_volumeSlider, &QSlider::valueChanged, this,
          [this](int value) { changeVolume(static_cast<float>(value) / kVolumeSteps); });
  volume->addWidget(m_volumeSlider);
  m_outputs = new QComboBox(m_volumeContainer);
  m_outputs->setObjectName(QStringLiteral("outputs"));
  // Wide enough for "No Output - channels 1/2"; a longer name is cut in the button and
  // shown whole in the list.
  m_outputs->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
  m_outputs->setMinimumContentsLength(25);
  m_outputs->setFocusPolicy(Qt::TabFocus);
  m_outputs->setToolTip(QStringLiteral("The output of this show: a device and a pair of its channels"));
  // Only a choice of the operator's moves the show, never a rebuild of the list.
  connect(m_outputs, &QComboBox::activated, this, &WorkspaceController::changeOutputDevice);
  volume->addWidget(m_outputs);
  layout->addWidget(m_volumeContainer);
  layout->addStretch(1);

  auto* modes = new QWidget(bar);
  auto* modeLayout = new QHBoxLayout(modes);
  modeLayout->setContentsMargins(0, 0, 0, 0);
  modeLayout->setSpacing(0);
  m_modeButton = new QButtonGroup(this);
  m_modeButton->setExclusive(true);
  m_editModeButton = new QPushButton(QStringLiteral("Edit"), modes);
  m_showModeButton = new QPushButton(QStringLiteral("Show"), modes);
  m_editModeButton->setObjectName(QStringLiteral("editModeButton"));
  m_showModeButton->setObjectName(QStringLiteral("showModeButton"));
  for (auto* button : {m_editModeButton, m_showModeButton}) {
    button->setCheckable(true);
    button->setMinimumSize(72, 40);
    button->setFocusPolicy(Qt::TabFocus);
    modeLayout->addWidget(button);
  }
  m_modeButton->addButton(m_editModeButton, 0);
  m_modeButton->addButton(m_showModeButton, 1);
  connect(m_editModeButton, &QPushButton::clicked, this, [this] {
    if (isLocked()) setEditMode();
  });
  connect(m_showModeButton, &QPushButton::clicked, this, [this] {
    if (!isLocked()) setShowMode();
  });
  layout->addWidget(modes);
  SontoTheme::styleBottomBar(bar);
  return bar;
}

void WorkspaceController::buildMenus() {
  QMenu* file = menuBar()->addMenu(QStringLiteral("&File"));
  QAction* newAction = file->addAction(QStringLiteral("&New"), this, [] {
    SontoDocumentController::sharedDocumentController().newDocument();
  });
  newAction->setShortcut(QKeySequence::New);
  QAction* open = file->addAction(QStringLiteral("&Open\u2026"), this, [this] {
    SontoDocumentController::sharedDocumentController().openDocument(this);
  });
  open->setShortcut(QKeySequence::Open);
  m_recentMenu = file->addMenu(QStringLiteral("Open &Recent"));
  connect(m_recentMenu, &QMenu::aboutToShow, this, &WorkspaceController::rebuildRecentMenu);
  file->addSeparator();
  QAction* close = file->addAction(QStringLiteral("&Close"), this, &QWidget::close);
  close->setShortcut(QKeySequence::Close);
  m_saveAction = file->addAction(QStringLiteral("&Save"), this, [this] { saveDocument(); });
  m_saveAction->setShortcut(QKeySequence::Save);
  m_saveAsAction = file->addAction(QStringLiteral("Save &As\u2026"), this, [this] { saveDocumentAs(); });
  m_saveAsAction->setShortcut(QKeySequence::SaveAs);
  m_revertAction = file->addAction(QStringLiteral("Re&vert to Saved"), this, &WorkspaceController::revertDocumentToSaved);
  file->addSeparator();
  m_settingsAction = file->addAction(QStringLiteral("Settings\u2026"), this, &WorkspaceController::editWorkspaceSettings);
  m_settingsAction->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
  file->addAction(QStringLiteral("View Log"), this, &WorkspaceController::viewLog);
  file->addSeparator();
  QAction* quit = file->addAction(QStringLiteral("&Quit"), this, [] {
    if (SontoDocumentController::sharedDocumentController().closeAll()) QApplication::quit();
  });
  quit->setShortcut(QKeySequence::Quit);
  connect(file, &QMenu::aboutToShow, this, &WorkspaceController::updateMenus);

  QMenu* edit = menuBar()->addMenu(QStringLiteral("&Edit"));
  m_undoAction = edit->addAction(QStringLiteral("Undo"), this, [this] {
    if (!isLocked() && undoManager()) undoManager()->undo();
  });
  m_undoAction->setShortcut(QKeySequence::Undo);
  m_redoAction = edit->addAction(QStringLiteral("Redo"), this, [this] {
    if (!isLocked() && undoManager()) undoManager()->redo();
  });
  m_redoAction->setShortcut(QKeySequence::Redo);
  edit->addSeparator();
  m_cutAction = edit->addAction(QStringLiteral("Cu&t"), this, &WorkspaceController::cut);
  m_cutAction->setShortcut(QKeySequence::Cut);
  m_copyAction = edit->addAction(QStringLiteral("&Copy"), this, &WorkspaceController::copy);
  m_copyAction->setShortcut(QKeySequence::Copy);
  m_pasteAction = edit->addAction(QStringLiteral("&Paste"), this, &WorkspaceController::paste);
  m_pasteAction->setShortcut(QKeySequence::Paste);
  m_deleteAction = edit->addAction(QStringLiteral("&Delete"), this, &WorkspaceController::deleteCue);
  edit->addSeparator();
  QAction* prefs = edit->addAction(QStringLiteral("Pr&eferences…"), this, [] {
    PrefsController& window = PrefsController::shared();
    window.show();
    window.raise();
    window.activateWindow();
  });
  prefs->setMenuRole(QAction::PreferencesRole);
  connect(edit, &QMenu::aboutToShow, this, &WorkspaceController::updateMenus);

  QMenu* show = menuBar()->addMenu(QStringLiteral("&Show"));
  m_editModeAction = show->addAction(QStringLiteral("Edit Mode"), this, &WorkspaceController::setEditMode);
  m_showModeAction = show->addAction(QStringLiteral("Show Mode"), this, &WorkspaceController::setShowMode);
  show->addSeparator();
  show->addAction(QStringLiteral("Pause All"), this, &WorkspaceController::pauseAll);
  show->addAction(QStringLiteral("Resume All"), this, &WorkspaceController::resumeAll);
  show->addAction(QStringLiteral("Stop All"), this, &WorkspaceController::stopAll);
  show->addAction(QStringLiteral("Hard Stop All"), this, &WorkspaceController::hardStopAll);
  show->addAction(QStringLiteral("Panic"), this, &WorkspaceController::panicAll);
  show->addAction(QStringLiteral("Toggle Ducking"), this, &WorkspaceController::toggleDucking);
  show->addSeparator();
  show->addAction(QStringLiteral("Maximum Volume"), this, [this] { changeVolume(1.0f); });
  show->addAction(QStringLiteral("Minimum Volume"), this, [this] { changeVolume(0.0f); });
  show->addSeparator();
  m_toggleInspectorAction = show->addAction(QStringLiteral("Toggle Inspector"), this, &WorkspaceController::toggleInspector);
  m_toggleInspectorAction->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_I));
  m_toggleInspectorAction->setCheckable(true);
  // The safety check's list in the inspector's place, and back to the cue.
  show->addAction(QStringLiteral("Toggle Warnings"), this, &WorkspaceController::toggleBrokenCueView);
  show->addSeparator();
  m_newTabAction = show->addAction(QStringLiteral("New Cart"), this, &WorkspaceController::newTab);
  m_newTabAction->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_T));
  m_closeTabAction = show->addAction(QStringLiteral("Close Cart"), this, &WorkspaceController::closeTab);
  m_closeTabAction->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_W));
  QAction* next = show->addAction(QStringLiteral("Next Cart"), this, &WorkspaceController::selectNextTab);
  next->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_PageDown));
  QAction* previous = show->addAction(QStringLiteral("Previous Cart"), this, &WorkspaceController::selectPreviousTab);
  previous->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_PageUp));
  m_renameCartAction = show->addAction(QStringLiteral("Rename Cart\u2026"), this, &WorkspaceController::renameCart);
  m_gridMenu = show->addMenu(QStringLiteral("Grid Size"));
  for (const char* size : {"1x1", "2x1", "2x2", "3x2", "3x3", "4x3", "4x4", "5x3", "5x4", "5x5"}) {
    const QString title = QString::fromLatin1(size);
    m_gridMenu->addAction(title, this, [this, title] { changeGrid(title); });
  }
  connect(show, &QMenu::aboutToShow, this, &WorkspaceController::updateMenus);
}

// -- Carts

namespace {
QString tabLabel(const Cart* cart) { return QString::fromStdString(cart->name()); }
}  // namespace

void WorkspaceController::addTabForCartController(GridController* controller) {
  ++m_tabCount;
  // A default name is never reused in one window's life.
  if (controller->cart()->name().empty()) controller->cart()->setName("Cart " + std::to_string(m_tabCount));
  m_tabView->addTabViewItem(controller->gridView(), tabLabel(controller->cart()), controller);
  m_tabView->selectTabViewItemAtIndex(m_tabView->count() - 1);
}

void WorkspaceController::syncGridControllers() {
  if (!m_workspace) return;
  const auto& carts = m_workspace->carts();
  // Grids of carts that are gone leave with their tabs.
  for (auto it = m_gridControllers.begin(); it != m_gridControllers.end();) {
    const bool kept = std::any_of(carts.begin(), carts.end(), [&](const auto& cart) { return cart.get() == (*it)->cart(); });
    if (kept) {
      ++it;
      continue;
    }
    GridView* view = (*it)->gridView();
    // A tab closed from the bar has already left the tab view.
    if (const int tab = m_tabView->indexOfView(view); tab >= 0) m_tabView->removeTabViewItem(tab);
    it = m_gridControllers.erase(it);
    delete view;
  }
  for (const auto& cart : carts) {
    const bool shown = std::any_of(m_gridControllers.begin(), m_gridControllers.end(),
                                   [&](const auto& controller) { return controller->cart() == cart.get(); });
    if (shown) continue;
    m_gridControllers.push_back(std::make_unique<GridController>(cart, this));
    addTabForCartController(m_gridControllers.back().get());
  }
  // Tabs in the workspace's order (a swap of carts moves them).
  for (int position = 0; position < static_cast<int>(carts.size()); ++position) {
    for (const auto& controller : m_gridControllers) {
      if (controller->cart() != carts[position].get()) continue;
      const int from = m_tabView->indexOfView(controller->gridView());
      if (from >= 0 && from != position) m_tabView->moveTabViewItem(from, position);
    }
  }
}

void WorkspaceController::updateTabLabels() {
  for (int tab = 0; tab < m_tabView->count(); ++tab) {
    if (GridController* controller = controllerForTab(tab)) {
      m_tabView->setLabel(tab, tabLabel(controller->cart()));
    }
  }
}

void WorkspaceController::changeGrid(const QString& title) {
  GridController* controller = selectedController();
  if (!controller || isLocked()) return;
  const QStringList parts = title.split(QLatin1Char('x'));
  if (parts.size() < 2) return;
  bool widthOk = false, heightOk = false;
  const int width = parts.first().trimmed().toInt(&widthOk);
  const int height = parts.last().trimmed().toInt(&heightOk);
  // No grid goes beyond the board of five by five.
  if (!widthOk || !heightOk || width < 1 || height < 1 || width > 5 || height > 5) return;
  controller->setCartSize({static_cast<float>(width), static_cast<float>(height)});
}

void WorkspaceController::renameCart() {
  GridController* controller = selectedController();
  if (!controller || isLocked()) return;
  bool ok = false;
  const QString name = QInputDialog::getText(this, QStringLiteral("Rename Cart"), QStringLiteral("Name:"),
                                             QLineEdit::Normal, QString::fromStdString(controller->cart()->name()), &ok);
  if (ok) controller->setCartName(name.toStdString());
}

void WorkspaceController::selectTab(int number) {
  if (number >= 1 && number <= m_tabView->count()) m_tabView->selectTabViewItemAtIndex(number - 1);
}

GridController* WorkspaceController::controllerForTab(int tab) const {
  QWidget* page = m_tabView->itemAt(tab).view;
  if (!page) return nullptr;
  for (const auto& controller : m_gridControllers) {
    if (controller->gridView() == page) return controller.get();
  }
  return nullptr;
}

GridController* WorkspaceController::selectedController() const { return controllerForTab(m_tabView->selectedIndex()); }

void WorkspaceController::makeCartFirstResponder() {
  if (GridController* controller = selectedController()) controller->gridView()->setFocus(Qt::OtherFocusReason);
}

std::vector<SafetyConcern> WorkspaceController::brokenOrFlaggedCues() const {
  std::vector<std::shared_ptr<Cart>> carts;
  carts.reserve(m_gridControllers.size());
  for (const auto& controller : m_gridControllers) carts.push_back(controller->sharedCart());
  return SafetyConcern::brokenOrFlaggedCues(carts);
}

void WorkspaceController::refreshBrokenCues() {
  if (m_brokenCueController && !inShowMode()) m_brokenCueController->reloadData();
}

void WorkspaceController::selectCue(const Cue* cue) {
  if (!cue) return;
  for (const auto& controller : m_gridControllers) {
    if (controller->cart() == cue->cart()) {
      m_tabView->selectTabViewItemAtIndex(m_tabView->indexOfView(controller->gridView()));
      controller->selectCue(cue);
    }
  }
}

// -- Modes

bool WorkspaceController::isLocked() const { return m_workspace && m_workspace->isLocked(); }
bool WorkspaceController::inEditMode() const { return m_modeButton->checkedId() == 0; }
bool WorkspaceController::inShowMode() const { return m_modeButton->checkedId() == 1; }

void WorkspaceController::toggleMode() { isLocked() ? setEditMode() : setShowMode(); }

void WorkspaceController::setShowMode() {
  if (!m_workspace) return;
  if (m_workspace->settings().shouldPerformSafetyChecks()) {
    performSafetyChecksAndLock();
    return;
  }
  enterShowMode();
}

// The popover shows the last finished check: this one is only asked for.
void WorkspaceController::performSafetyChecksAndLock() {
  m_brokenCueController->reloadData();
  m_brokenCueController->showPopoverIfNeeded();
  enterShowMode();
}

void WorkspaceController::enterShowMode() {
  if (!m_workspace) return;
  m_workspace->setLocked(true);
  m_showModeButton->setChecked(true);
  m_inspectorController->setCue(nullptr);
  hideInspector();
  makeCartFirstResponder();
  m_tabBar->setDisableTabClose(true);
  for (const auto& controller : m_gridControllers) controller->lockCart();
  updateMenus();
}

void WorkspaceController::setEditMode() {
  if (!m_workspace) return;
  m_workspace->setLocked(false);
  showInspector();
  m_editModeButton->setChecked(true);
  m_tabBar->setDisableTabClose(false);
  for (const auto& controller : m_gridControllers) controller->unlockCart();
  updateMenus();
}

// -- The inspector's pane

void WorkspaceController::showInspector() {
  if (m_inspectorVisible) return;
  const int total = std::max(m_splitView->height(), 2 * kMinimumPaneHeight);
  const int inspector = std::max(m_heightOfInspector, kMinimumPaneHeight);
  m_inspectorPane->show();
  m_splitView->setSizes({std::max(total - inspector - m_splitView->handleWidth(), kMinimumPaneHeight), inspector});
  if (GridController* controller = selectedController()) {
    m_inspectorController->setCue(std::dynamic_pointer_cast<AudioCue>(controller->sharedCueForIndex(
        controller->gridView()->selectedIndex())));
  }
  m_inspectorVisible = true;
  updateMenus();
}

void WorkspaceController::hideInspector() {
  if (m_inspectorVisible) {
    // A capture left waiting would take the next note played in the show.
    m_inspectorController->cueInspectorController()->setCaptureMIDI(false);
    m_heightOfInspector = m_inspectorPane->height();
    m_inspectorVisible = false;
  }
  // Hidden, not only collapsed: the splitter then hides the divider with it.
  m_inspectorPane->hide();
  updateMenus();
}

void WorkspaceController::toggleInspector() {
  if (isLocked()) return;
  m_inspectorVisible ? hideInspector() : showInspector();
}

void WorkspaceController::toggleBrokenCueView() { m_inspectorController->toggleBrokenCueView(); }

// A drag of the divider: a collapse hides the inspector, any other height is kept.
void WorkspaceController::splitViewDidResizeSubviews() {
  const int height = m_splitView->sizes().value(1);
  if (height == 0) {
    if (m_inspectorVisible) m_inspectorController->cueInspectorController()->setCaptureMIDI(false);
    m_inspectorVisible = false;
  } else if (!isLocked()) {
    m_inspectorVisible = true;
    m_heightOfInspector = height;
  }
  updateMenus();
}

// -- The way of a key

bool WorkspaceController::keyDownHotkey(const KyoKeyEvent& event) {
  if (!m_workspace) return false;
  const WorkspaceSettings& settings = m_workspace->settings();
  if (settings.pauseAllKey().matchesKeyEvent(event)) {
    pauseAll();
    return true;
  }
  if (settings.resumeAllKey().matchesKeyEvent(event)) {
    resumeAll();
    return true;
  }
  if (settings.duckMasterKey().matchesKeyEvent(event)) {
    toggleDucking();
    return true;
  }
  return false;
}

void WorkspaceController::keyDown(const KyoKeyEvent& event, bool isARepeat) {
  if (isARepeat || !m_workspace) return;
  if (keyDownHotkey(event)) return;
  GridController* controller = selectedController();
  const std::string shortcut = SontoKeyEventShortcut(event);
  const bool commandDown = SontoKeyEventCommandDown(event);
  if (!commandDown && controller && !shortcut.empty()) {
    const std::vector<std::string> shortcuts = controller->validShortcutsForGridView();
    if (std::find(shortcuts.begin(), shortcuts.end(), shortcut) != shortcuts.end()) {
      controller->triggerCueDownWithShorcut(shortcut);
      return;
    }
  }
  if (commandDown && shortcut.size() == 1 && shortcut[0] >= '1' && shortcut[0] <= '9') {
    selectTab(shortcut[0] - '0');
    return;
  }
  const char16_t character = event.charactersIgnoringModifiers.empty() ? 0 : event.charactersIgnoringModifiers[0];
  if (character == KyoKeyCharacter::kDelete || character == KyoKeyCharacter::kForwardDelete) {
    if (controller && !isLocked() && controller->gridView()->selectedIndex() != GridView::kNotFound) {
      controller->removeCueAtIndex(controller->gridView()->selectedIndex());
    }
    return;
  }
  switch (character) {
    case KyoKeyCharacter::kUpArrow: return moveUp();
    case KyoKeyCharacter::kDownArrow: return moveDown();
    case KyoKeyCharacter::kLeftArrow: return moveLeft();
    case KyoKeyCharacter::kRightArrow: return moveRight();
    default: break;
  }
  // Escape is the cancel key of every window: panic in every show at once.
  if (event.keyCode == KyoKeyCode::kEscape || character == 27) cancel();
}

void WorkspaceController::keyUp(const KyoKeyEvent& event) {
  GridController* controller = selectedController();
  if (!controller || SontoKeyEventCommandDown(event)) return;
  const std::string shortcut = SontoKeyEventShortcut(event);
  if (shortcut.empty()) return;
  const std::vector<std::string> shortcuts = controller->validShortcutsForGridView();
  if (std::find(shortcuts.begin(), shortcuts.end(), shortcut) != shortcuts.end()) {
    controller->triggerCueUpWithShorcut(shortcut);
  }
}

// Keys that reach the window with no grid focused (a button has the focus).
void WorkspaceController::keyPressEvent(QKeyEvent* event) {
  const KyoKeyEvent key = SontoKeyEventFromQt(*event);
  keyDown(key, event->isAutoRepeat());
  event->accept();
}

void WorkspaceController::keyReleaseEvent(QKeyEvent* event) {
  if (!event->isAutoRepeat()) keyUp(SontoKeyEventFromQt(*event));
  event->accept();
}

void WorkspaceController::processMIDIMessages(const std::vector<SontoMIDIMessage>& messages) {
  if (!m_workspace) return;
  // Every cue start of one batch falls on the same audio cycle.
  const std::shared_ptr<KyoAudioDevice> device = m_workspace->audioDevice();
  if (device) device->startSyncedActions();
  std::vector<SontoMIDIMessage> kept;
  kept.reserve(messages.size());
  const long channel = m_workspace->midiChannel();
  for (const SontoMIDIMessage& message : messages) {
    KYO_LOG_AT(3, "MIDI voice message received on channel %u", static_cast<unsigned>(message.channel()));
    if (channel == 0 || static_cast<long>(message.channel()) == channel) kept.push_back(message);
  }
  // A note being captured becomes the selected cue's trigger and fires nothing. The
  // batch is closed all the same: left open, it would hold back the next cue fired
  // by mouse until some later key or note.
  if (m_inspectorController->processMIDIMessages(kept)) {
    if (device) device->endSyncedActions();
    return;
  }
  GridController* selected = selectedController();
  for (const auto& controller : m_gridControllers) {
    if (controller.get() == selected) {
      controller->processMIDIMessages(kept);
    } else {
      controller->cart()->processMIDIMessages(kept);
    }
  }
  if (device) device->endSyncedActions();
}

// -- Transport

void WorkspaceController::togglePause() {
  if (!m_workspace) return;
  m_workspace->isPaused() ? resumeAll() : pauseAll();
}

void WorkspaceController::pauseAll() {
  if (m_workspace) m_workspace->pauseAll();
}

void WorkspaceController::resumeAll() {
  if (m_workspace) m_workspace->resumeAll();
}

void WorkspaceController::stopAll() {
  if (m_workspace) m_workspace->stopAll();
}

void WorkspaceController::hardStopAll() {
  if (m_workspace) m_workspace->hardStopAll();
}

void WorkspaceController::panicAll() {
  if (m_workspace) m_workspace->panic();
}

void WorkspaceController::cancel() { SontoDocumentController::sharedDocumentController().panicAll(); }

void WorkspaceController::toggleDucking() {
  if (!m_workspace) return;
  m_workspace->isDucked() ? m_workspace->unduck() : m_workspace->duck();
  // The slider follows the duck ramp for a second; a second press restarts it.
  KyoClock& clock = KyoCurrentClock();
  if (m_duckingTimer) clock.stopTimer(m_duckingTimer);
  m_duckingStart = clock.monotonicSeconds();
  QPointer<WorkspaceController> self(this);
  m_duckingTimer = clock.startTimer(0.05, true, [self] {
    if (self) self->updateDuringDuck();
  });
}

void WorkspaceController::updateDuringDuck() {
  updateVolumeSlider();
  KyoClock& clock = KyoCurrentClock();
  if (clock.monotonicSeconds() > m_duckingStart + kDuckDisplaySeconds && m_duckingTimer) {
    clock.stopTimer(m_duckingTimer);
    m_duckingTimer = 0;
  }
}

void WorkspaceController::changeVolume(float volume) {
  if (!m_workspace) return;
  m_workspace->setMasterVolume(std::clamp(volume, 0.0f, 1.0f));
  updateVolumeSlider();
}

void WorkspaceController::updateVolumeSlider() {
  if (!m_workspace) return;
  const int position = static_cast<int>(std::lround(m_workspace->masterVolume() * kVolumeSteps));
  if (m_volumeSlider->value() != position) {
    const QSignalBlocker blocker(m_volumeSlider);
    m_volumeSlider->setValue(position);
  }
}

void WorkspaceController::updatePauseButton() {
  const bool paused = m_workspace && m_workspace->isPaused();
  m_pauseAllButton->setChecked(paused);
  m_pauseAllButton->setText(paused ? QStringLiteral("Resume All") : QStringLiteral("Pause All"));
}

void WorkspaceController::updateDuckingButton() { m_duckingButton->setChecked(m_workspace && m_workspace->isDucked()); }

// -- Clipboard

bool WorkspaceController::canCopy() const {
  GridController* controller = selectedController();
  return controller && dynamic_cast<AudioCue*>(controller->selectedCue());
}
bool WorkspaceController::canDelete() const {
  GridController* controller = selectedController();
  return controller && controller->selectedCue();
}
bool WorkspaceController::canCut() const { return canCopy() && canDelete(); }

bool WorkspaceController::canPaste() const {
  if (isLocked()) return false;
  const QMimeData* data = QApplication::clipboard()->mimeData();
  return data && data->hasFormat(AudioCue::kPasteboardType);
}

void WorkspaceController::copy() {
  if (!canCopy()) return;
  auto* cue = dynamic_cast<AudioCue*>(selectedController()->selectedCue());
  if (std::unique_ptr<QMimeData> data = cue->mimeData()) QApplication::clipboard()->setMimeData(data.release());
}

void WorkspaceController::cut() {
  if (!canCut()) return QApplication::beep();
  copy();
  deleteCue();
}

void WorkspaceController::paste() {
  if (!canPaste()) return QApplication::beep();
  const QMimeData* data = QApplication::clipboard()->mimeData();
  std::shared_ptr<AudioCue> cue = data ? AudioCue::fromMimeData(*data) : nullptr;
  if (cue && selectedController()) selectedController()->handlePasteCue(cue);
}

void WorkspaceController::deleteCue() {
  if (!canDelete() || isLocked()) return QApplication::beep();
  GridController* controller = selectedController();
  controller->removeCueAtIndex(controller->gridView()->selectedIndex());
}

void WorkspaceController::moveUp() {
  if (GridController* controller = selectedController()) controller->moveUp();
}
void WorkspaceController::moveDown() {
  if (GridController* controller = selectedController()) controller->moveDown();
}
void WorkspaceController::moveLeft() {
  if (GridController* controller = selectedController()) controller->moveLeft();
}
void WorkspaceController::moveRight() {
  if (GridController* controller = selectedController()) controller->moveRight();
}

// -- The document side

void WorkspaceController::updateTitle() {
  if (!m_workspace) return;
  // Qt shows "[*]" as the edited mark where the platform has one.
  setWindowTitle(m_workspace->displayName() + QStringLiteral("[*]"));
  setWindowModified(m_workspace->isDocumentEdited());
  const QUrl url = m_workspace->fileURL();
  setWindowFilePath(url.isLocalFile() ? url.toLocalFile() : QString());
  if (m_settingsController) m_settingsController->setRepresentedFilename(windowFilePath());
}

void WorkspaceController::updateMenus() {
  const bool locked = isLocked();
  SontoUndoManager* undo = undoManager();
  m_undoAction->setEnabled(!locked && undo && undo->canUndo());
  m_redoAction->setEnabled(!locked && undo && undo->canRedo());
  m_undoAction->setText(undo ? undo->undoMenuItemTitle() : QStringLiteral("Undo"));
  m_redoAction->setText(undo ? undo->redoMenuItemTitle() : QStringLiteral("Redo"));
  m_copyAction->setEnabled(canCopy());
  m_cutAction->setEnabled(canCut() && !locked);
  m_deleteAction->setEnabled(canDelete() && !locked);
  m_pasteAction->setEnabled(canPaste());
  m_editModeAction->setEnabled(locked);
  m_showModeAction->setEnabled(!locked);
  m_newTabAction->setEnabled(!locked);
  m_closeTabAction->setEnabled(!locked);
  m_toggleInspectorAction->setEnabled(!locked);
  m_toggleInspectorAction->setChecked(m_inspectorVisible);
  m_renameCartAction->setEnabled(!locked);
  m_gridMenu->setEnabled(!locked);
  m_settingsAction->setEnabled(!locked);
  const bool hasFile = m_workspace && !m_workspace->fileURL().isEmpty();
  m_saveAction->setEnabled(m_workspace != nullptr);
  m_saveAsAction->setEnabled(m_workspace != nullptr);
  m_revertAction->setEnabled(hasFile && m_workspace->isDocumentEdited());
}

void WorkspaceController::rebuildRecentMenu() {
  m_recentMenu->clear();
  auto& documents = SontoDocumentController::sharedDocumentController();
  for (const QString& path : documents.recentDocuments()) {
    m_recentMenu->addAction(QFileInfo(path).fileName(), this, [this, path] {
      SontoDocumentController::sharedDocumentController().openDocuments({path}, this);
    });
  }
  if (!m_recentMenu->isEmpty()) m_recentMenu->addSeparator();
  QAction* clear = m_recentMenu->addAction(QStringLiteral("Clear Menu"), this, [] {
    SontoDocumentController::sharedDocumentController().clearRecentDocuments();
  });
  clear->setEnabled(!documents.recentDocuments().isEmpty());
}

void WorkspaceController::saveDocument(std::function<void()> then) {
  if (!m_workspace) return;
  if (m_workspace->fileURL().isEmpty()) return saveDocumentAs(std::move(then));
  saveToURL(m_workspace->fileURL(), std::move(then));
}

void WorkspaceController::saveDocumentAs(std::function<void()> then) {
  if (!m_workspace) return;
  QString path = SontoAlerts::chooseSaveLocation(this, m_workspace->displayName());
  if (path.isEmpty()) return;
  const QString extension = QStringLiteral(".") + QString::fromLatin1(WorkspaceFile::kExtension);
  if (!path.endsWith(extension, Qt::CaseInsensitive)) path += extension;
  saveToURL(QUrl::fromLocalFile(path), std::move(then));
}

// The save runs in the background; `then` runs once it has succeeded and only while
// this window is still open.
void WorkspaceController::saveToURL(const QUrl& url, std::function<void()> then) {
  QPointer<WorkspaceController> self(this);
  // Said only if the save takes long: a show of many large files on a slow disk.
  QPointer<SontoProgressSheet> sheet = new SontoProgressSheet(QStringLiteral("Saving"), this);
  sheet->showOnWindow();
  m_workspace->saveToURL(url, [self, url, then, sheet](bool ok, const SavingError& error) {
    if (sheet) sheet->hideSheet();
    if (!ok) {
      SontoAlerts::showSavingError(self, error);
      return;
    }
    SontoDocumentController::sharedDocumentController().noteRecentDocument(url.toLocalFile());
    // The cues outside the grid are not saved and leave the cart, and their concerns.
    if (self) self->refreshBrokenCues();
    // The window's place is kept with the show from now on.
    if (self) self->setFrameAutosaveName(url.toString());
    if (self && then) then();
  });
}

void WorkspaceController::revertDocumentToSaved() {
  if (!m_workspace || m_workspace->fileURL().isEmpty()) return;
  if (m_workspace->isDocumentEdited() && !SontoAlerts::confirmRevert(this, m_workspace->displayName())) return;
  SavingError error;
  if (!m_workspace->revertToSaved(&error)) return SontoAlerts::showSavingError(this, error);
  workspaceDidRead();
}

// The carts arrive through cartsChanged; the rest of what a read sets is taken here.
void WorkspaceController::workspaceDidRead() {
  if (!m_workspace) return;
  syncGridControllers();
  if (m_tabView->count() > 0) m_tabView->selectTabViewItemAtIndex(0);
  m_workspace->isLocked() ? enterShowMode() : setEditMode();
  updateVolumeSlider();
  updatePauseButton();
  updateDuckingButton();
  if (m_settingsController) m_settingsController->refreshView();
  if (m_logController) m_logController->setLogger(m_workspace->sharedLogger());
  updateTitle();
  updateMenus();
}

void WorkspaceController::editWorkspaceSettings() {
  if (!m_workspace || isLocked()) return;
  if (!m_settingsController) {
    m_settingsController =
        new SettingsController(m_workspace->settings(), this, [this] { cancel(); });
    m_settingsController->setRepresentedFilename(windowFilePath());
    connect(m_settingsController, &SettingsController::stateChanged, this, [this] {
      if (m_workspace) m_workspace->updateChangeCount(Workspace::ChangeType::Done);
    });
  }
  m_settingsController->refreshView();
  m_settingsController->show();
  m_settingsController->raise();
  m_settingsController->activateWindow();
}

void WorkspaceController::viewLog() {
  if (!m_workspace) return;
  if (!m_logController) m_logController = new LogController(m_workspace->sharedLogger(), this);
  m_logController->show();
  m_logController->raise();
}

bool WorkspaceController::closeDocument() {
  if (!m_workspace) return true;
  if (m_workspace->isDocumentEdited()) {
    const SontoAlerts::Answer answer = SontoAlerts::askToSaveChanges(this, m_workspace->displayName(), true);
    if (answer == SontoAlerts::Answer::Cancel) return false;
    if (answer == SontoAlerts::Answer::Save) {
      // The window stays until the save has succeeded; a failed or cancelled save
      // keeps it open with its edits.
      QPointer<WorkspaceController> self(this);
      m_closingAfterSave = true;
      saveDocument([self] {
        if (self && self->m_closingAfterSave) self->close();
      });
      return false;
    }
  }
  invalidate();
  return true;
}

void WorkspaceController::closeWithoutAsking() {
  invalidate();
  close();
}

namespace {
QString frameKey(const QString& name) {
  return QStringLiteral("WindowFrames/") + QString::fromLatin1(QUrl::toPercentEncoding(name));
}
}  // namespace

void WorkspaceController::setFrameAutosaveName(const QString& name) {
  if (name == m_frameAutosaveName) return;
  m_frameAutosaveName = name;
  saveFrame();
}

// A show opened again comes back where it was left.
void WorkspaceController::restoreFrame(const QString& name) {
  m_frameAutosaveName = name;
  const QByteArray frame = QSettings().value(frameKey(name)).toByteArray();
  if (!frame.isEmpty()) restoreGeometry(frame);
}

void WorkspaceController::saveFrame() {
  if (!m_frameAutosaveName.isEmpty() && m_workspace) QSettings().setValue(frameKey(m_frameAutosaveName), saveGeometry());
}

void WorkspaceController::moveEvent(QMoveEvent* event) {
  QMainWindow::moveEvent(event);
  saveFrame();
}

void WorkspaceController::resizeEvent(QResizeEvent* event) {
  QMainWindow::resizeEvent(event);
  saveFrame();
}

void WorkspaceController::closeEvent(QCloseEvent* event) {
  if (!closeDocument()) return event->ignore();
  event->accept();
}

// After this the window is shut: no notification, timer or key reaches the show.
void WorkspaceController::invalidate() {
  if (m_duckingTimer) {
    KyoCurrentClock().stopTimer(m_duckingTimer);
    m_duckingTimer = 0;
  }
  stopOutputs();
  m_closingAfterSave = false;
  if (m_brokenCueController) {
    m_brokenCueController->prepareToDie();
    m_brokenCueController->hidePopover();
  }
  if (m_logController) m_logController->close();
  if (m_settingsController) m_settingsController->close();
  if (m_workspace) {
    disconnect(m_workspace, nullptr, this, nullptr);
    disconnect(m_workspace->undoManager(), nullptr, this, nullptr);
    // Nothing goes on sounding from a closed show, and no inverse held by the undo
    // manager may reach the grids that go with the window.
    m_workspace->hardStopAll();
    m_workspace->undoManager()->removeAllActions();
    m_workspace->close();
  }
  SontoDocumentController::sharedDocumentController().removeDocument(this);
  m_workspace = nullptr;
}
