#pragma once
// The list of a cue's effects: an outline of one level, one row per effect with its
// enable switch, its name and a delete button. The items are the effects themselves
// (KyoEffect*), owned by whoever serves the list. Main thread only.

#include <memory>

#include "KyoUI/KyoOutlineView.h"

class KyoEffect;
class KyoEffectListView;
class QCheckBox;
class QLabel;
class QToolButton;

// What the list asks its delegate about a row's buttons. A delegate that is a plain
// outline delegate leaves the delete button without effect.
class KyoEffectListDelegate : public KyoOutlineViewDelegate {
 public:
  virtual void deleteEffect(KyoEffectListView* view, const std::shared_ptr<KyoEffect>& effect) = 0;
  // The switch; by default it goes straight to the effect.
  virtual void setEffectEnabled(KyoEffectListView* view, const std::shared_ptr<KyoEffect>& effect, bool enabled);
};

class KyoEffectListView : public KyoOutlineView {
  Q_OBJECT

 public:
  explicit KyoEffectListView(QWidget* parent = nullptr);

  // Opens the editor of the selected effect; nothing when none is selected.
  void didDoubleClickEffectsListView();
};

class KyoEffectRowView : public KyoOutlineRowView {
  Q_OBJECT

 public:
  explicit KyoEffectRowView(KyoOutlineView* outlineView);

  void setEntry(KyoOutlineViewEntry* entry) override;
  void setDrawingToDragImage(bool drawing) override;
  double viewHeight() const override { return 25.0; }
  double viewWidth() const override;
  double indentationPerLevel() const override { return 25.0; }

  const std::shared_ptr<KyoEffect>& effect() const { return m_effect; }
  QCheckBox* enableButton() const { return m_enableButton; }
  QToolButton* deleteButton() const { return m_deleteButton; }
  QLabel* nameField() const { return m_name; }

  void toggleEffect();
  void deleteEffect();

 protected:
  void resizeEvent(QResizeEvent* event) override;

 private:
  void resizeRow();
  void setTextColor(const QColor& color, const QColor& background);

  std::shared_ptr<KyoEffect> m_effect;  // kept while the row shows it
  QCheckBox* m_enableButton;
  QLabel* m_name;
  QToolButton* m_deleteButton;
};
