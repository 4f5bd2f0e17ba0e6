#include "effects/ui/KyoEffectListView.h"

#include <QCheckBox>
#include <QLabel>
#include <QToolButton>

#include "effects/KyoEffect.h"

namespace {

KyoEffect* effectOfItem(KyoOutlineItem item) { return static_cast<KyoEffect*>(item); }

}  // namespace

void KyoEffectListDelegate::setEffectEnabled(KyoEffectListView*, const std::shared_ptr<KyoEffect>& effect,
                                             bool enabled) {
  effect->setEnabled(enabled);
}

// --- KyoEffectListView ---

KyoEffectListView::KyoEffectListView(QWidget* parent) : KyoOutlineView(parent) {
  setBackgroundColor(QColor::fromRgbF(0.132f, 0.128f, 0.128f));
  setAlternatingRowColor(QColor::fromRgbF(0.146f, 0.142f, 0.142f));
  setSelectedButNotMainColor(QColor::fromRgbF(0.3f, 0.3f, 0.3f));
  setRowsOfSpaceAtBottom(0);
  setAllowsMultipleSelection(false);
  setFrameShape(QFrame::NoFrame);
  setRowViewFactory([](KyoOutlineView* view) { return new KyoEffectRowView(view); });
  setAction([this] { didDoubleClickEffectsListView(); });
}

void KyoEffectListView::didDoubleClickEffectsListView() {
  if (KyoEffect* effect = effectOfItem(selectedItem())) effect->openEditor();
}

// --- KyoEffectRowView ---

KyoEffectRowView::KyoEffectRowView(KyoOutlineView* outlineView) : KyoOutlineRowView(outlineView) {
  m_enableButton = new QCheckBox(this);
  m_enableButton->setObjectName(QStringLiteral("enableButton"));
  m_enableButton->setFocusPolicy(Qt::NoFocus);
  m_enableButton->setToolTip(QStringLiteral("On or bypassed"));
  // A lit square for on, an empty frame for bypassed: readable from a distance on the dark rows.
  m_enableButton->setStyleSheet(QStringLiteral(
      "QCheckBox::indicator { width: 11px; height: 11px; border: 1px solid rgba(255, 255, 255, 150);"
      " border-radius: 2px; background: transparent; }"
      "QCheckBox::indicator:checked { background: rgb(120, 200, 140); border-color: rgb(170, 235, 185); }"));
  m_enableButton->resize(17, 17);
  m_name = new QLabel(this);
  m_name->setObjectName(QStringLiteral("name"));
  m_deleteButton = new QToolButton(this);
  m_deleteButton->setObjectName(QStringLiteral("deleteButton"));
  m_deleteButton->setText(QStringLiteral("\u2715"));
  m_deleteButton->setToolTip(QStringLiteral("Remove Effect"));
  m_deleteButton->setAutoRaise(true);
  m_deleteButton->setFocusPolicy(Qt::NoFocus);
  m_deleteButton->resize(17, 17);
  connect(m_enableButton, &QCheckBox::clicked, this, &KyoEffectRowView::toggleEffect);
  connect(m_deleteButton, &QToolButton::clicked, this, &KyoEffectRowView::deleteEffect);
}

double KyoEffectRowView::viewWidth() const { return outlineView()->width(); }

void KyoEffectRowView::setEntry(KyoOutlineViewEntry* entry) {
  KyoOutlineRowView::setEntry(entry);
  KyoEffect* effect = entry ? effectOfItem(entry->item) : nullptr;
  m_effect = effect ? effect->shared_from_this() : nullptr;
  const bool selectedWithFocus = entry && entry->selected && outlineView()->hasFocusWithin();
  setTextColor(selectedWithFocus ? QColor(Qt::white) : QColor::fromRgbF(0.85f, 0.85f, 0.85f), backgroundColor());
  m_enableButton->setChecked(m_effect && m_effect->enabled());
  resizeRow();
}

void KyoEffectRowView::setDrawingToDragImage(bool drawing) {
  KyoOutlineRowView::setDrawingToDragImage(drawing);
  // A dragged row shows only its name.
  m_enableButton->setVisible(!drawing);
  m_deleteButton->setVisible(!drawing);
  if (drawing) setTextColor(Qt::white, Qt::transparent);
}

void KyoEffectRowView::setTextColor(const QColor& color, const QColor& background) {
  QPalette palette = m_name->palette();
  palette.setColor(QPalette::WindowText, color);
  palette.setColor(QPalette::Window, background);
  m_name->setPalette(palette);
  palette = m_deleteButton->palette();
  palette.setColor(QPalette::ButtonText, color);
  m_deleteButton->setPalette(palette);
}

void KyoEffectRowView::toggleEffect() {
  if (!m_effect) return;
  const bool enabled = !m_effect->enabled();
  if (auto* delegate = dynamic_cast<KyoEffectListDelegate*>(outlineView()->delegate())) {
    delegate->setEffectEnabled(static_cast<KyoEffectListView*>(outlineView()), m_effect, enabled);
  } else {
    m_effect->setEnabled(enabled);
  }
  // The switch shows what the effect took, which is nothing for a unit without bypass.
  if (m_effect) m_enableButton->setChecked(m_effect->enabled());
}

void KyoEffectRowView::deleteEffect() {
  auto* delegate = dynamic_cast<KyoEffectListDelegate*>(outlineView()->delegate());
  if (!delegate || !m_effect) return;
  // The row may be handed to another effect by the reload that follows.
  const std::shared_ptr<KyoEffect> effect = m_effect;
  delegate->deleteEffect(static_cast<KyoEffectListView*>(outlineView()), effect);
}

void KyoEffectRowView::resizeEvent(QResizeEvent* event) {
  KyoOutlineRowView::resizeEvent(event);
  resizeRow();
}

// The delete button keeps 25 from the right edge however narrow the list is.
void KyoEffectRowView::resizeRow() {
  const int width = outlineView()->viewport()->width();
  m_enableButton->move(8, 4);
  const int nameLeft = m_enableButton->geometry().right() + 1 + 8;
  m_name->setGeometry(nameLeft, 3, std::max(0, width - 60), 19);
  const QString name = m_effect ? QString::fromStdString(m_effect->displayName()) : QString();
  m_name->setText(m_name->fontMetrics().elidedText(name, Qt::ElideRight, m_name->width()));
  m_deleteButton->move(width - 25, 4);
}
