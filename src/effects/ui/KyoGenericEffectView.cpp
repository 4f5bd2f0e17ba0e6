#include "effects/ui/KyoGenericEffectView.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QSlider>

#include <lv2/port-props/port-props.h>
#include <lv2/units/units.h>

#include <algorithm>
#include <cmath>

#include "effects/KyoEffect.h"
#include "effects/KyoLV2Unit.h"
#include "effects/KyoLV2World.h"

KyoGenericEffectView::KyoGenericEffectView(KyoEffect& effect, QWidget* parent) : QWidget(parent), m_effect(effect) {
  describe();
  build();
  refresh();
}

// What the ports say of themselves beyond the unit's record: the unit, the named
// values, the logarithmic scale. Read from lilv once, on the main thread.
void KyoGenericEffectView::describe() {
  auto* unit = dynamic_cast<KyoLV2Unit*>(m_effect.audioUnit());
  if (!unit) return;
  LilvWorld* world = KyoLV2World::shared().world();
  const LilvPlugin* plugin = unit->plugin();
  LilvNode* logarithmic = lilv_new_uri(world, LV2_PORT_PROPS__logarithmic);
  LilvNode* unitNode = lilv_new_uri(world, LV2_UNITS__unit);
  LilvNode* symbolNode = lilv_new_uri(world, LV2_UNITS__symbol);
  for (uint32_t id : unit->parameterIDs()) {
    const KyoLV2Port* port = unit->parameter(id);
    if (!port) continue;
    Control control;
    control.parameter = id;
    control.name = port->name.empty() ? port->symbol : port->name;
    control.minimum = port->minimum;
    control.maximum = port->maximum;
    control.integer = port->integer;
    const LilvPort* lilvPort = lilv_plugin_get_port_by_index(plugin, port->index);
    control.logarithmic = lilv_port_has_property(plugin, lilvPort, logarithmic) && port->minimum > 0.0f;
    if (LilvScalePoints* points = lilv_port_get_scale_points(plugin, lilvPort)) {
      LILV_FOREACH(scale_points, it, points) {
        const LilvScalePoint* point = lilv_scale_points_get(points, it);
        control.choices.emplace_back(lilv_node_as_float(lilv_scale_point_get_value(point)),
                                     lilv_node_as_string(lilv_scale_point_get_label(point)));
      }
      lilv_scale_points_free(points);
      std::sort(control.choices.begin(), control.choices.end());
    }
    if (LilvNodes* units = lilv_port_get_value(plugin, lilvPort, unitNode)) {
      const LilvNode* unitURI = lilv_nodes_get_first(units);
      if (LilvNode* symbol = lilv_world_get(world, unitURI, symbolNode, nullptr)) {
        control.unit = lilv_node_as_string(symbol);
        lilv_node_free(symbol);
      } else if (lilv_node_is_uri(unitURI)) {
        const std::string uri = lilv_node_as_uri(unitURI);
        control.unit = uri.substr(uri.find_last_of("#/") + 1);
      }
      lilv_nodes_free(units);
    }
    if (port->toggled) {
      control.kind = Control::Kind::Toggle;
    } else if (!control.choices.empty() &&
               (lilv_port_has_property(plugin, lilvPort, KyoLV2World::shared().nodes().enumeration) ||
                control.integer)) {
      control.kind = Control::Kind::Choice;
    }
    m_controls.push_back(std::move(control));
  }
  lilv_node_free(symbolNode);
  lilv_node_free(unitNode);
  lilv_node_free(logarithmic);
}

void KyoGenericEffectView::build() {
  auto* form = new QFormLayout(this);
  form->setContentsMargins(12, 8, 12, 12);
  form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
  if (m_controls.empty()) form->addRow(new QLabel(tr("This effect has no controls."), this));
  for (Control& control : m_controls) {
    const QString name = QString::fromStdString(control.name);
    switch (control.kind) {
      case Control::Kind::Toggle:
        control.toggle = new QCheckBox(this);
        connect(control.toggle, &QCheckBox::toggled, this,
                [this, &control](bool on) { change(control, on ? control.maximum : control.minimum); });
        form->addRow(name, control.toggle);
        break;
      case Control::Kind::Choice:
        control.choice = new QComboBox(this);
        for (const auto& [value, label] : control.choices) control.choice->addItem(QString::fromStdString(label));
        connect(control.choice, &QComboBox::currentIndexChanged, this, [this, &control](int index) {
          if (index >= 0 && (size_t)index < control.choices.size()) change(control, control.choices[index].first);
        });
        form->addRow(name, control.choice);
        break;
      case Control::Kind::Slider: {
        auto* row = new QHBoxLayout;
        control.slider = new QSlider(Qt::Horizontal, this);
        control.slider->setRange(0, kSliderSteps);
        control.slider->setMinimumWidth(220);
        control.field = new QDoubleSpinBox(this);
        control.field->setRange(control.minimum, control.maximum);
        control.field->setDecimals(control.integer ? 0 : 2);
        control.field->setKeyboardTracking(false);
        if (!control.unit.empty()) control.field->setSuffix(" " + QString::fromStdString(control.unit));
        control.field->setMinimumWidth(110);
        connect(control.slider, &QSlider::valueChanged, this,
                [this, &control](int position) { change(control, sliderValue(control, position)); });
        connect(control.field, &QDoubleSpinBox::valueChanged, this,
                [this, &control](double value) { change(control, (float)value); });
        row->addWidget(control.slider, 1);
        row->addWidget(control.field);
        form->addRow(name, row);
        break;
      }
    }
  }
}

int KyoGenericEffectView::sliderPosition(const Control& control, float value) {
  const float span = control.maximum - control.minimum;
  if (span <= 0.0f) return 0;
  double fraction = control.logarithmic
                        ? std::log(value / control.minimum) / std::log(control.maximum / control.minimum)
                        : (value - control.minimum) / span;
  if (!std::isfinite(fraction)) fraction = 0.0;
  return (int)std::lround(std::clamp(fraction, 0.0, 1.0) * kSliderSteps);
}

float KyoGenericEffectView::sliderValue(const Control& control, int position) {
  const double fraction = std::clamp(position, 0, kSliderSteps) / (double)kSliderSteps;
  double value = control.logarithmic ? control.minimum * std::pow(control.maximum / control.minimum, fraction)
                                     : control.minimum + fraction * (control.maximum - control.minimum);
  if (control.integer) value = std::round(value);
  return (float)std::clamp(value, (double)control.minimum, (double)control.maximum);
}

void KyoGenericEffectView::change(Control& control, float value) {
  m_effect.setValue(value, control.parameter);
  // The other half of a slider's row follows, without sending the value again.
  show(control, m_effect.valueForParameter(control.parameter));
}

void KyoGenericEffectView::show(Control& control, float value) {
  control.shown = value;
  if (control.toggle) {
    const QSignalBlocker block(control.toggle);
    control.toggle->setChecked(value > (control.minimum + control.maximum) / 2);
  }
  if (control.choice) {
    const QSignalBlocker block(control.choice);
    int nearest = 0;
    for (size_t k = 0; k < control.choices.size(); ++k) {
      if (std::fabs(control.choices[k].first - value) < std::fabs(control.choices[nearest].first - value)) nearest = (int)k;
    }
    control.choice->setCurrentIndex(nearest);
  }
  if (control.slider) {
    const QSignalBlocker block(control.slider);
    control.slider->setValue(sliderPosition(control, value));
  }
  if (control.field) {
    const QSignalBlocker block(control.field);
    control.field->setValue(value);
  }
}

void KyoGenericEffectView::refresh() {
  for (Control& control : m_controls) {
    const float value = m_effect.valueForParameter(control.parameter);
    if (value != control.shown) show(control, value);
  }
}
