#pragma once
// A plugin's own X11 interface inside the editor window, through suil with the
// interface's own type as the container, so no toolkit wrapper is loaded. The
// interface reaches the plugin only through the engine: its writes become
// parameter changes, and the values it shows come from polling the unit.
// Main thread only.

#include <QWidget>

#include <cstdint>
#include <string>
#include <vector>

#include <suil/suil.h>
#include <lv2/ui/ui.h>
#include <lv2/core/lv2.h>

class KyoEffect;
class KyoLV2Unit;
class QTimer;

class KyoEffectPluginView final : public QWidget {
  Q_OBJECT

 public:
  // Null when the plugin has no X11 interface, the platform is not X11, or the
  // interface does not load.
  static KyoEffectPluginView* create(KyoEffect& effect, QWidget* parent);
  ~KyoEffectPluginView() override;

  QSize sizeHint() const override { return m_size; }
  const std::string& uiURI() const { return m_uiURI; }
  // Sends the control values that changed since the last call to the interface.
  void sendChangedValues();

 signals:
  // The interface asked to be closed (its idle call answered non-zero).
  void closeRequested();

 private:
  KyoEffectPluginView(KyoEffect& effect, KyoLV2Unit& unit, QWidget* parent);
  bool instantiate(const void* ui);
  void idle();
  static void writePort(SuilController controller, uint32_t port, uint32_t size, uint32_t protocol, const void* buffer);
  static uint32_t portIndex(SuilController controller, const char* symbol);
  static int resizeRequested(LV2UI_Feature_Handle handle, int width, int height);

  KyoEffect& m_effect;
  KyoLV2Unit& m_unit;
  std::string m_uiURI;
  SuilHost* m_host = nullptr;
  SuilInstance* m_instance = nullptr;
  const LV2UI_Idle_Interface* m_idle = nullptr;
  QWidget* m_container = nullptr;
  QTimer* m_idleTimer = nullptr;
  QSize m_size{400, 300};
  std::vector<float> m_sent;  // by port index, the last value the interface was told

  LV2UI_Resize m_resize{};
  LV2_Feature m_parentFeature{};
  LV2_Feature m_instanceFeature{};
  LV2_Feature m_mapFeature{};
  LV2_Feature m_unmapFeature{};
  LV2_Feature m_resizeFeature{};
  LV2_Feature m_idleFeature{};
  std::vector<const LV2_Feature*> m_features;
};
