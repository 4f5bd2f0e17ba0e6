#pragma once
// The editor of an effect without an interface of its own: one row per control
// input of the plugin. A float control is a slider (logarithmic where the plugin
// says so) with a value field in its unit, a toggle is a check box, an enumeration
// or a control with named values a pull-down. Changes go to the effect's
// parameters; refresh() shows changes made elsewhere (a preset, undo).

#include <QWidget>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

class KyoEffect;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QSlider;

class KyoGenericEffectView : public QWidget {
  Q_OBJECT

 public:
  struct Control {
    enum class Kind { Slider, Toggle, Choice };
    uint32_t parameter = 0;
    std::string name;
    std::string unit;  // the unit's symbol, e.g. "dB"
    Kind kind = Kind::Slider;
    float minimum = 0.0f;
    float maximum = 1.0f;
    bool logarithmic = false;
    bool integer = false;
    std::vector<std::pair<float, std::string>> choices;  // value and label
    QSlider* slider = nullptr;
    QDoubleSpinBox* field = nullptr;
    QCheckBox* toggle = nullptr;
    QComboBox* choice = nullptr;
    float shown = std::numeric_limits<float>::quiet_NaN();  // nothing shown yet
  };

  explicit KyoGenericEffectView(KyoEffect& effect, QWidget* parent = nullptr);

  const std::vector<Control>& controls() const { return m_controls; }
  // Shows the effect's current values, touching only the controls that changed.
  void refresh();

  // The slider position (0 to kSliderSteps) of a value and back.
  static constexpr int kSliderSteps = 1000;
  static int sliderPosition(const Control& control, float value);
  static float sliderValue(const Control& control, int position);

 private:
  void describe();
  void build();
  void show(Control& control, float value);
  void change(Control& control, float value);

  KyoEffect& m_effect;
  std::vector<Control> m_controls;
};
