#include "effects/ui/KyoEffectEditorX11.h"

#include <QGuiApplication>
#include <dlfcn.h>
#include <QTimer>

#include <lv2/instance-access/instance-access.h>
#include <lv2/urid/urid.h>

#include <cmath>
#include <limits>

#include "effects/KyoEffect.h"
#include "effects/KyoLV2Unit.h"
#include "effects/KyoLV2World.h"
#include "foundation/KyoLog.h"

namespace {
// The interface redraws and reads its events when idle is called: often enough to
// feel live, rarely enough to stay out of the show's way.
constexpr int kIdleIntervalMs = 33;

std::string pathOf(const LilvNode* uri) {
  char* path = lilv_file_uri_parse(lilv_node_as_uri(uri), nullptr);
  std::string result = path ? path : "";
  lilv_free(path);
  return result;
}
}  // namespace

KyoEffectPluginView* KyoEffectPluginView::create(KyoEffect& effect, QWidget* parent) {
  auto* unit = dynamic_cast<KyoLV2Unit*>(effect.audioUnit());
  if (!unit || !unit->plugin() || QGuiApplication::platformName() != QLatin1String("xcb")) return nullptr;
  LilvWorld* world = KyoLV2World::shared().world();
  LilvNode* x11 = lilv_new_uri(world, LV2_UI__X11UI);
  LilvUIs* uis = lilv_plugin_get_uis(unit->plugin());
  const LilvUI* chosen = nullptr;
  LILV_FOREACH(uis, it, uis) {
    const LilvUI* ui = lilv_uis_get(uis, it);
    if (lilv_ui_is_a(ui, x11)) {
      chosen = ui;
      break;
    }
  }
  KyoEffectPluginView* view = nullptr;
  if (chosen) {
    view = new KyoEffectPluginView(effect, *unit, parent);
    if (!view->instantiate(chosen)) {
      delete view;
      view = nullptr;
    }
  }
  lilv_uis_free(uis);
  lilv_node_free(x11);
  return view;
}

KyoEffectPluginView::KyoEffectPluginView(KyoEffect& effect, KyoLV2Unit& unit, QWidget* parent)
    : QWidget(parent), m_effect(effect), m_unit(unit) {
  m_container = new QWidget(this);
  m_container->setAttribute(Qt::WA_NativeWindow);
  m_sent.assign(unit.ports().size(), std::numeric_limits<float>::quiet_NaN());
}

bool KyoEffectPluginView::instantiate(const void* chosen) {
  const auto* ui = static_cast<const LilvUI*>(chosen);
  KyoLV2World& lv2 = KyoLV2World::shared();
  LilvWorld* world = lv2.world();
  m_uiURI = lilv_node_as_uri(lilv_ui_get_uri(ui));
  lilv_world_load_resource(world, lilv_ui_get_uri(ui));

  m_parentFeature = {LV2_UI__parent, reinterpret_cast<void*>(m_container->winId())};
  m_mapFeature = {LV2_URID__map, lv2.mapFeature()};
  m_unmapFeature = {LV2_URID__unmap, lv2.unmapFeature()};
  m_resize = {this, &KyoEffectPluginView::resizeRequested};
  m_resizeFeature = {LV2_UI__resize, &m_resize};
  m_idleFeature = {LV2_UI__idleInterface, nullptr};
  m_features = {&m_parentFeature, &m_mapFeature, &m_unmapFeature, &m_resizeFeature, &m_idleFeature};
  // Direct access to the instance only for an interface that asks: a restored
  // state swaps the instance, and the handle it kept would then be stale.
  LilvNode* instanceAccess = lilv_new_uri(world, LV2_INSTANCE_ACCESS_URI);
  LilvNode* required = lilv_new_uri(world, LV2_CORE__requiredFeature);
  LilvNode* optional = lilv_new_uri(world, LV2_CORE__optionalFeature);
  if (lilv_world_ask(world, lilv_ui_get_uri(ui), required, instanceAccess) ||
      lilv_world_ask(world, lilv_ui_get_uri(ui), optional, instanceAccess)) {
    m_instanceFeature = {LV2_INSTANCE_ACCESS_URI, m_unit.instanceHandle()};
    m_features.push_back(&m_instanceFeature);
  }
  lilv_node_free(optional);
  lilv_node_free(required);
  lilv_node_free(instanceAccess);
  m_features.push_back(nullptr);

  m_host = suil_host_new(&KyoEffectPluginView::writePort, &KyoEffectPluginView::portIndex, nullptr, nullptr);
  const std::string binary = pathOf(lilv_ui_get_binary_uri(ui));
  // An interface's library stays loaded for the life of the process: many keep static
  // state (toolkits, fonts, GL) that does not survive being unloaded and loaded again,
  // and what they keep stays theirs to account for.
  if (void* library = dlopen(binary.c_str(), RTLD_NOW | RTLD_NODELETE)) dlclose(library);
  m_instance = suil_instance_new(m_host, this, LV2_UI__X11UI, m_unit.uri().c_str(), m_uiURI.c_str(), LV2_UI__X11UI,
                                 pathOf(lilv_ui_get_bundle_uri(ui)).c_str(), binary.c_str(), m_features.data());
  if (!m_instance) {
    KyoLog("Warning: the interface %s of %s could not be loaded; showing the generic editor", m_uiURI.c_str(),
           m_unit.uri().c_str());
    return false;
  }
  m_idle = static_cast<const LV2UI_Idle_Interface*>(suil_instance_extension_data(m_instance, LV2_UI__idleInterface));
  sendChangedValues();
  m_container->resize(m_size);
  setFixedSize(m_size);
  m_idleTimer = new QTimer(this);
  m_idleTimer->setInterval(kIdleIntervalMs);
  connect(m_idleTimer, &QTimer::timeout, this, &KyoEffectPluginView::idle);
  m_idleTimer->start();
  return true;
}

KyoEffectPluginView::~KyoEffectPluginView() {
  if (m_idleTimer) m_idleTimer->stop();
  // The interface's windows go before our container's.
  if (m_instance) suil_instance_free(m_instance);
  if (m_host) suil_host_free(m_host);
}

void KyoEffectPluginView::sendChangedValues() {
  if (!m_instance) return;
  const std::vector<KyoLV2Port>& ports = m_unit.ports();
  for (size_t index = 0; index < ports.size(); ++index) {
    if (ports[index].kind != KyoLV2Port::Kind::Control) continue;
    const float value = m_unit.parameterValue((uint32_t)index);
    if (value == m_sent[index]) continue;
    m_sent[index] = value;
    suil_instance_port_event(m_instance, (uint32_t)index, sizeof(float), 0, &value);
  }
}

void KyoEffectPluginView::idle() {
  if (m_idle && m_idle->idle(suil_instance_get_handle(m_instance)) != 0) {
    m_idleTimer->stop();
    emit closeRequested();
  }
}

void KyoEffectPluginView::writePort(SuilController controller, uint32_t port, uint32_t size, uint32_t protocol,
                                    const void* buffer) {
  auto* self = static_cast<KyoEffectPluginView*>(controller);
  // Only plain control values: the interface's messages to the plugin (atoms) have
  // no path through the engine.
  if (protocol != 0 || size != sizeof(float) || !buffer) return;
  const float value = *static_cast<const float*>(buffer);
  if (port < self->m_sent.size()) self->m_sent[port] = value;
  self->m_effect.setValue(value, port);
}

uint32_t KyoEffectPluginView::portIndex(SuilController controller, const char* symbol) {
  auto* self = static_cast<KyoEffectPluginView*>(controller);
  for (const KyoLV2Port& port : self->m_unit.ports()) {
    if (port.symbol == symbol) return port.index;
  }
  return LV2UI_INVALID_PORT_INDEX;
}

int KyoEffectPluginView::resizeRequested(LV2UI_Feature_Handle handle, int width, int height) {
  auto* self = static_cast<KyoEffectPluginView*>(handle);
  if (width <= 0 || height <= 0) return 1;
  const int around = self->window()->height() - self->height();  // the strip above
  self->m_size = QSize(width, height);
  self->m_container->resize(self->m_size);
  self->setFixedSize(self->m_size);
  if (QWidget* window = self->window(); window != self && window->isVisible()) {
    window->resize(std::max(window->minimumWidth(), width), height + around);
  }
  return 0;
}
