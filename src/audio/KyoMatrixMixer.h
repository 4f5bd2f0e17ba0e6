#pragma once
// The engine's matrix mixer: any number of input busses and output busses, whose
// channels are numbered on across the busses, a gain on every input channel, every
// output channel, every crosspoint (input channel to output channel) and a master.
// A device uses one with 500 busses of 48 channels; each source and send has its own.
//
// Cost follows what really sounds. Disabled busses aren't pulled. An input that answers
// kKyoRenderAction_OutputIsSilence, or marks channels silent, costs nothing past the
// pull; so do channels whose input gain is 0 and crosspoints at 0. The mixer marks its
// own silent outputs in turn when its caller accepts marks.
//
// Parameters (all through setParameter, from any thread, while initialized):
//   volume (0), global scope, element kMasterElement: the master;
//   volume, global scope, element crosspointElement(in, out): a crosspoint;
//   volume, input scope, element = input channel; volume, output scope, element = output channel;
//   enable (1), input scope, element = input bus;
//   post average power (3000), post peak hold level (4000), output scope, element = output
//   channel: read only, in decibels, with the metering mode (property 3007) on.
// A new matrix is silent: every volume 0 but busses enabled.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audio/KyoAudioUnit.h"

class KyoMatrixMixer final : public KyoAudioUnit {
 public:
  static constexpr uint32_t kParameterVolume = 0;
  static constexpr uint32_t kParameterEnable = 1;
  static constexpr uint32_t kParameterPostAveragePower = 3000;
  static constexpr uint32_t kParameterPostPeakHoldLevel = 4000;
  static constexpr uint32_t kMasterElement = 0xFFFFFFFF;

  // Meter ballistics. Average power: a one-pole mean of the squares, time constant
  // 75 ms, so a steady tone reads its true power within a quarter of a second. Peak:
  // the highest sample holds for 1 second, then falls by 20 dB per second. Readings
  // below kMeterFloorDecibels (and silence) read as the floor.
  static constexpr double kMeterPowerTimeConstantSeconds = 0.075;
  static constexpr double kMeterPeakHoldSeconds = 1.0;
  static constexpr double kMeterPeakFallDecibelsPerSecond = 20.0;
  static constexpr float kMeterFloorDecibels = -120.0f;

  static constexpr uint32_t crosspointElement(uint32_t inputChannel, uint32_t outputChannel) {
    return (inputChannel << 16) | (outputChannel & 0xFFFF);
  }

  KyoMatrixMixer();
  ~KyoMatrixMixer() override;

  uint32_t inputChannelCount() const { return m_inputChannels; }    // all input busses, once initialized
  uint32_t outputChannelCount() const { return m_outputChannels; }  // all output busses, once initialized
  bool meteringMode() const { return m_metering.load(std::memory_order_relaxed); }

  int32_t setParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t element, float value,
                       uint32_t bufferOffsetInFrames = 0) override;
  int32_t getParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t element,
                       float* value) const override;
  std::vector<KyoAudioUnitParameterInfo> parameterList(KyoAudioUnitScope scope) const override;

  // Adds MatrixLevels (3006), MeteringMode (3007) and MatrixDimensions (3009). The
  // level matrix is (inputs + 1) rows of (outputs + 1) floats: each input row holds its
  // crosspoints and then the input volume; the last row the output volumes and then
  // the master.
  int32_t getProperty(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element, void* data,
                      uint32_t* ioSize) const override;
  int32_t getPropertyInfo(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element, uint32_t* outSize,
                          bool* outWritable) const override;
  int32_t setProperty(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element, const void* data,
                      uint32_t size) override;

  int32_t reset(KyoAudioUnitScope scope, uint32_t element) override;

  // Dimensions, master, then each input row (its volume and crosspoints) and the
  // output volumes, on standard output: for a developer, not for a show.
  void printVolumes() const;

  int32_t render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t outputElement,
                 uint32_t frames, AudioBufferList* ioData) override;
  void registerRenderInfo(KyoRenderInfo* info) override { KyoRegisterRenderInfo(this, info); }

 protected:
  int32_t initializeUnit() override;
  void uninitializeUnit() override;

 private:
  // Mixes every output channel of every output bus into out (render thread).
  void mixAll(const KyoAudioTimeStamp* timeStamp, uint32_t frames, AudioBufferList* out, bool markSilence);
  void updateMeters(uint32_t frames, const AudioBufferList* out);

  uint32_t m_inputChannels = 0;
  uint32_t m_outputChannels = 0;
  double m_sampleRate = 44100.0;

  std::atomic<float> m_master{0.0f};
  std::atomic<bool> m_metering{false};
  std::unique_ptr<std::atomic<float>[]> m_inputVolumes;   // per input channel
  std::unique_ptr<std::atomic<float>[]> m_outputVolumes;  // per output channel
  std::unique_ptr<std::atomic<float>[]> m_crosspoints;    // input-major, m_outputChannels per row
  std::unique_ptr<std::atomic<bool>[]> m_busEnabled;      // per input bus
  std::vector<uint32_t> m_inputBusFirstChannel;
  std::vector<uint32_t> m_outputBusFirstChannel;

  // Render thread only, sized in initializeUnit.
  std::vector<float> m_inputSamples;  // widest input bus times the maximum frames
  AudioBufferList* m_inputList = nullptr;
  std::vector<float> m_outputSamples;  // with several output busses: all of them
  AudioBufferList* m_outputList = nullptr;
  std::vector<uint8_t> m_outputLive;
  double m_cachedSampleTime = -1.0;
  bool m_hasCache = false;

  // Meters: written by the render thread, read by any thread.
  std::unique_ptr<std::atomic<float>[]> m_meterPower;  // mean square, linear
  std::unique_ptr<std::atomic<float>[]> m_meterPeak;   // held peak, linear amplitude
  std::vector<double> m_peakHoldFramesLeft;            // render thread only
};

static_assert(std::atomic<float>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);
