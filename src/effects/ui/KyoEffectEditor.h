#pragma once
// The window of one effect: a strip of 36 px with the enable switch and the presets
// menu, above the plugin's own interface (an X11 one embedded through suil) or,
// without one, the generic editor. The effect owns the window through the factory
// that install() puts in place; closing it tells the effect, which then lets it go.
// Main thread only.

#include <QWidget>

#include <memory>

#include "effects/KyoEffect.h"
#include "foundation/KyoNotificationCenter.h"

class KyoEffectPluginView;
class KyoGenericEffectView;
class QCheckBox;
class QMenu;
class QPushButton;
class QTimer;

class KyoEffectEditor final : public QWidget, public KyoEffectEditorWindow {
  Q_OBJECT

 public:
  static constexpr int kStripHeight = 36;
  static constexpr int kMinimumWidth = 302;

  explicit KyoEffectEditor(KyoEffect& effect);
  ~KyoEffectEditor() override;

  // Makes this window every effect's editor.
  static void install();

  // KyoEffectEditorWindow
  void showWindow() override;
  void close() override;
  bool isVisible() const override { return QWidget::isVisible(); }
  std::string frame() const override;
  void setFrame(const std::string& frame, bool display) override;

  KyoEffect& effect() const { return m_effect; }
  // One of the two is set: the plugin's own interface or the generic editor.
  KyoEffectPluginView* pluginView() const { return m_pluginView; }
  KyoGenericEffectView* genericView() const { return m_genericView; }
  QCheckBox* enabledButton() const { return m_enabledButton; }
  QMenu* presetsMenu() const { return m_presetsMenu; }

  void buildPresetsMenu();
  void updateTitle();
  void updateEnabled();
  // "Save...", "Load..." and "Manage...", as the menu runs them.
  void savePreset();
  void loadPreset();
  void manageUserPresets();
  // Follows the effect's values: the controls, the enable switch, the title.
  void poll();

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void fitToContent();

  KyoEffect& m_effect;
  QCheckBox* m_enabledButton = nullptr;
  QPushButton* m_presetsButton = nullptr;
  QMenu* m_presetsMenu = nullptr;
  KyoEffectPluginView* m_pluginView = nullptr;
  KyoGenericEffectView* m_genericView = nullptr;
  QTimer* m_pollTimer = nullptr;
  std::string m_shownPresetName;
  KyoScopedObserver m_bypassObserver;
};
