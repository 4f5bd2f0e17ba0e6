#include "audio/KyoMatrixMixer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <cstring>

#include "foundation/KyoLog.h"

namespace {
constexpr uint32_t kSampleBytes = sizeof(float);

std::unique_ptr<std::atomic<float>[]> makeLevels(size_t n) {
  // Value-initialised: every level starts at 0.
  return std::unique_ptr<std::atomic<float>[]>(new std::atomic<float>[n]());
}

float decibelsOfPower(float meanSquare) {
  if (!(meanSquare > 0.0f)) return KyoMatrixMixer::kMeterFloorDecibels;
  return std::max(KyoMatrixMixer::kMeterFloorDecibels, float(10.0 * std::log10(double(meanSquare))));
}

float decibelsOfAmplitude(float amplitude) {
  if (!(amplitude > 0.0f)) return KyoMatrixMixer::kMeterFloorDecibels;
  return std::max(KyoMatrixMixer::kMeterFloorDecibels, float(20.0 * std::log10(double(amplitude))));
}
}  // namespace

KyoMatrixMixer::KyoMatrixMixer() : KyoAudioUnit(1, 1) {}

KyoMatrixMixer::~KyoMatrixMixer() { uninitializeUnit(); }

int32_t KyoMatrixMixer::initializeUnit() {
  uint32_t inputBusses = elementCount(kKyoAudioUnitScope_Input);
  uint32_t outputBusses = elementCount(kKyoAudioUnitScope_Output);
  if (outputBusses == 0) return kKyoAudioUnitErr_FailedInitialization;

  uint64_t inputs = 0, outputs = 0, widestInput = 0;
  m_inputBusFirstChannel.assign(inputBusses, 0);
  for (uint32_t b = 0; b < inputBusses; ++b) {
    m_inputBusFirstChannel[b] = uint32_t(inputs);
    uint32_t ch = channelCount(kKyoAudioUnitScope_Input, b);
    inputs += ch;
    widestInput = std::max<uint64_t>(widestInput, ch);
  }
  m_outputBusFirstChannel.assign(outputBusses, 0);
  for (uint32_t b = 0; b < outputBusses; ++b) {
    m_outputBusFirstChannel[b] = uint32_t(outputs);
    outputs += channelCount(kKyoAudioUnitScope_Output, b);
  }
  // A crosspoint's element holds each channel in 16 bits.
  if (inputs > 0xFFFF || outputs > 0xFFFF || outputs == 0) return kKyoAudioUnitErr_FailedInitialization;

  m_inputChannels = uint32_t(inputs);
  m_outputChannels = uint32_t(outputs);
  m_sampleRate = streamFormat(kKyoAudioUnitScope_Output, 0)->sampleRate();
  const size_t frames = maximumFramesPerSlice();

  m_inputVolumes = makeLevels(std::max<uint64_t>(inputs, 1));
  m_outputVolumes = makeLevels(outputs);
  m_crosspoints = makeLevels(std::max<uint64_t>(inputs, 1) * outputs);
  m_busEnabled.reset(new std::atomic<bool>[std::max<uint32_t>(inputBusses, 1)]);
  for (uint32_t b = 0; b < std::max<uint32_t>(inputBusses, 1); ++b) m_busEnabled[b].store(true);

  m_inputSamples.assign(std::max<uint64_t>(widestInput, 1) * frames, 0.0f);
  m_inputList = KyoAudioBufferListAllocateHeader(uint32_t(std::max<uint64_t>(widestInput, 1)));
  if (outputBusses > 1) {
    m_outputSamples.assign(outputs * frames, 0.0f);
    m_outputList = KyoAudioBufferListAllocateHeader(uint32_t(outputs));
    for (uint32_t c = 0; c < outputs; ++c)
      m_outputList->mBuffers[c] = AudioBuffer{1, uint32_t(frames * kSampleBytes), &m_outputSamples[c * frames]};
  }
  m_outputLive.assign(outputs, 0);
  m_hasCache = false;

  m_meterPower = makeLevels(outputs);
  m_meterPeak = makeLevels(outputs);
  m_peakHoldFramesLeft.assign(outputs, 0.0);
  if (!m_inputList || (outputBusses > 1 && !m_outputList)) {
    uninitializeUnit();
    return kKyoAudioUnitErr_FailedInitialization;
  }
  return 0;
}

void KyoMatrixMixer::uninitializeUnit() {
  std::free(m_inputList);
  m_inputList = nullptr;
  std::free(m_outputList);
  m_outputList = nullptr;
  m_inputSamples = {};
  m_outputSamples = {};
  m_inputChannels = 0;
  m_outputChannels = 0;
}

// --- Parameters ---

int32_t KyoMatrixMixer::setParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t element, float value,
                                     uint32_t) {
  if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
  if (!std::isfinite(value)) return kKyoAudioUnitErr_InvalidPropertyValue;
  if (parameterID == kParameterEnable) {
    if (scope != kKyoAudioUnitScope_Input) return kKyoAudioUnitErr_InvalidScope;
    if (element >= elementCount(kKyoAudioUnitScope_Input)) return kKyoAudioUnitErr_InvalidElement;
    m_busEnabled[element].store(value != 0.0f, std::memory_order_relaxed);
    return 0;
  }
  if (parameterID != kParameterVolume) return kKyoAudioUnitErr_InvalidParameter;
  switch (scope) {
    case kKyoAudioUnitScope_Global: {
      if (element == kMasterElement) {
        m_master.store(value, std::memory_order_relaxed);
        return 0;
      }
      uint32_t in = element >> 16, out = element & 0xFFFF;
      if (in >= m_inputChannels || out >= m_outputChannels) return kKyoAudioUnitErr_InvalidElement;
      m_crosspoints[size_t(in) * m_outputChannels + out].store(value, std::memory_order_relaxed);
      return 0;
    }
    case kKyoAudioUnitScope_Input:
      if (element >= m_inputChannels) return kKyoAudioUnitErr_InvalidElement;
      m_inputVolumes[element].store(value, std::memory_order_relaxed);
      return 0;
    case kKyoAudioUnitScope_Output:
      if (element >= m_outputChannels) return kKyoAudioUnitErr_InvalidElement;
      m_outputVolumes[element].store(value, std::memory_order_relaxed);
      return 0;
  }
  return kKyoAudioUnitErr_InvalidScope;
}

int32_t KyoMatrixMixer::getParameter(uint32_t parameterID, KyoAudioUnitScope scope, uint32_t element,
                                     float* value) const {
  if (!value) return kKyoAudioUnitErr_InvalidPropertyValue;
  if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
  switch (parameterID) {
    case kParameterEnable:
      if (scope != kKyoAudioUnitScope_Input) return kKyoAudioUnitErr_InvalidScope;
      if (element >= elementCount(kKyoAudioUnitScope_Input)) return kKyoAudioUnitErr_InvalidElement;
      *value = m_busEnabled[element].load(std::memory_order_relaxed) ? 1.0f : 0.0f;
      return 0;
    case kParameterPostAveragePower:
    case kParameterPostPeakHoldLevel: {
      if (scope != kKyoAudioUnitScope_Output) return kKyoAudioUnitErr_InvalidScope;
      if (element >= m_outputChannels) return kKyoAudioUnitErr_InvalidElement;
      if (!m_metering.load(std::memory_order_relaxed)) {
        *value = kMeterFloorDecibels;
        return 0;
      }
      *value = parameterID == kParameterPostAveragePower
                   ? decibelsOfPower(m_meterPower[element].load(std::memory_order_relaxed))
                   : decibelsOfAmplitude(m_meterPeak[element].load(std::memory_order_relaxed));
      return 0;
    }
    case kParameterVolume:
      break;
    default:
      return kKyoAudioUnitErr_InvalidParameter;
  }
  switch (scope) {
    case kKyoAudioUnitScope_Global: {
      if (element == kMasterElement) {
        *value = m_master.load(std::memory_order_relaxed);
        return 0;
      }
      uint32_t in = element >> 16, out = element & 0xFFFF;
      if (in >= m_inputChannels || out >= m_outputChannels) return kKyoAudioUnitErr_InvalidElement;
      *value = m_crosspoints[size_t(in) * m_outputChannels + out].load(std::memory_order_relaxed);
      return 0;
    }
    case kKyoAudioUnitScope_Input:
      if (element >= m_inputChannels) return kKyoAudioUnitErr_InvalidElement;
      *value = m_inputVolumes[element].load(std::memory_order_relaxed);
      return 0;
    case kKyoAudioUnitScope_Output:
      if (element >= m_outputChannels) return kKyoAudioUnitErr_InvalidElement;
      *value = m_outputVolumes[element].load(std::memory_order_relaxed);
      return 0;
  }
  return kKyoAudioUnitErr_InvalidScope;
}

std::vector<KyoAudioUnitParameterInfo> KyoMatrixMixer::parameterList(KyoAudioUnitScope scope) const {
  switch (scope) {
    case kKyoAudioUnitScope_Global:
      return {{kParameterVolume, scope, "Volume", 0.0f, 1.0f, 0.0f}};
    case kKyoAudioUnitScope_Input:
      return {{kParameterVolume, scope, "Volume", 0.0f, 1.0f, 0.0f}, {kParameterEnable, scope, "Enable", 0, 1, 1}};
    case kKyoAudioUnitScope_Output:
      return {{kParameterVolume, scope, "Volume", 0.0f, 1.0f, 0.0f},
              {kParameterPostAveragePower, scope, "Post Average Power", kMeterFloorDecibels, 0.0f, kMeterFloorDecibels},
              {kParameterPostPeakHoldLevel, scope, "Post Peak Hold Level", kMeterFloorDecibels, 0.0f,
               kMeterFloorDecibels}};
  }
  return {};
}

// --- Properties ---

int32_t KyoMatrixMixer::getProperty(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element, void* data,
                                    uint32_t* ioSize) const {
  switch (propertyID) {
    case kKyoAudioUnitProperty_MeteringMode:
      if (!data || !ioSize) return kKyoAudioUnitErr_InvalidPropertyValue;
      return copyOut(uint32_t(m_metering.load() ? 1 : 0), data, ioSize);
    case kKyoAudioUnitProperty_MatrixDimensions: {
      if (!data || !ioSize) return kKyoAudioUnitErr_InvalidPropertyValue;
      if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
      uint32_t dims[2] = {m_inputChannels, m_outputChannels};
      if (*ioSize < sizeof dims) return kKyoAudioUnitErr_InvalidPropertyValue;
      std::memcpy(data, dims, sizeof dims);
      *ioSize = sizeof dims;
      return 0;
    }
    case kKyoAudioUnitProperty_MatrixLevels: {
      if (!data || !ioSize) return kKyoAudioUnitErr_InvalidPropertyValue;
      if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
      const size_t rowLength = size_t(m_outputChannels) + 1;
      const size_t count = (size_t(m_inputChannels) + 1) * rowLength;
      if (*ioSize < count * sizeof(float)) return kKyoAudioUnitErr_InvalidPropertyValue;
      auto* levels = static_cast<float*>(data);
      for (size_t i = 0; i < m_inputChannels; ++i) {
        for (size_t o = 0; o < m_outputChannels; ++o)
          levels[i * rowLength + o] = m_crosspoints[i * m_outputChannels + o].load(std::memory_order_relaxed);
        levels[i * rowLength + m_outputChannels] = m_inputVolumes[i].load(std::memory_order_relaxed);
      }
      float* last = levels + size_t(m_inputChannels) * rowLength;
      for (size_t o = 0; o < m_outputChannels; ++o) last[o] = m_outputVolumes[o].load(std::memory_order_relaxed);
      last[m_outputChannels] = m_master.load(std::memory_order_relaxed);
      *ioSize = uint32_t(count * sizeof(float));
      return 0;
    }
    default:
      return KyoAudioUnit::getProperty(propertyID, scope, element, data, ioSize);
  }
}

int32_t KyoMatrixMixer::getPropertyInfo(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element,
                                        uint32_t* outSize, bool* outWritable) const {
  uint32_t size = 0;
  bool writable = false;
  switch (propertyID) {
    case kKyoAudioUnitProperty_MeteringMode:
      size = sizeof(uint32_t);
      writable = true;
      break;
    case kKyoAudioUnitProperty_MatrixDimensions:
      if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
      size = 2 * sizeof(uint32_t);
      break;
    case kKyoAudioUnitProperty_MatrixLevels:
      // The matrix is sized by the formats of the last initialize.
      if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
      size = uint32_t((size_t(m_inputChannels) + 1) * (size_t(m_outputChannels) + 1) * sizeof(float));
      writable = true;
      break;
    default:
      return KyoAudioUnit::getPropertyInfo(propertyID, scope, element, outSize, outWritable);
  }
  if (outSize) *outSize = size;
  if (outWritable) *outWritable = writable;
  return 0;
}

int32_t KyoMatrixMixer::setProperty(uint32_t propertyID, KyoAudioUnitScope scope, uint32_t element,
                                    const void* data, uint32_t size) {
  switch (propertyID) {
    case kKyoAudioUnitProperty_MeteringMode:
      if (!data || size != sizeof(uint32_t)) return kKyoAudioUnitErr_InvalidPropertyValue;
      m_metering.store(*static_cast<const uint32_t*>(data) != 0);
      return 0;
    case kKyoAudioUnitProperty_MatrixDimensions:
      return kKyoAudioUnitErr_PropertyNotWritable;
    case kKyoAudioUnitProperty_MatrixLevels: {
      if (!data) return kKyoAudioUnitErr_InvalidPropertyValue;
      if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
      const size_t rowLength = size_t(m_outputChannels) + 1;
      const size_t count = (size_t(m_inputChannels) + 1) * rowLength;
      if (size != count * sizeof(float)) return kKyoAudioUnitErr_InvalidPropertyValue;
      const auto* levels = static_cast<const float*>(data);
      for (size_t i = 0; i < m_inputChannels; ++i) {
        for (size_t o = 0; o < m_outputChannels; ++o)
          m_crosspoints[i * m_outputChannels + o].store(levels[i * rowLength + o], std::memory_order_relaxed);
        m_inputVolumes[i].store(levels[i * rowLength + m_outputChannels], std::memory_order_relaxed);
      }
      const float* last = levels + size_t(m_inputChannels) * rowLength;
      for (size_t o = 0; o < m_outputChannels; ++o) m_outputVolumes[o].store(last[o], std::memory_order_relaxed);
      m_master.store(last[m_outputChannels], std::memory_order_relaxed);
      return 0;
    }
    default:
      return KyoAudioUnit::setProperty(propertyID, scope, element, data, size);
  }
}

int32_t KyoMatrixMixer::reset(KyoAudioUnitScope, uint32_t) {
  if (!isInitialized()) return 0;
  for (uint32_t o = 0; o < m_outputChannels; ++o) {
    m_meterPower[o].store(0.0f, std::memory_order_relaxed);
    m_meterPeak[o].store(0.0f, std::memory_order_relaxed);
  }
  return 0;
}

// --- Rendering ---

int32_t KyoMatrixMixer::render(uint32_t* ioActionFlags, const KyoAudioTimeStamp* timeStamp, uint32_t outputElement,
                               uint32_t frames, AudioBufferList* ioData) {
  if (!isInitialized()) return kKyoAudioUnitErr_Uninitialized;
  if (frames > maximumFramesPerSlice()) return kKyoAudioUnitErr_TooManyFramesToProcess;
  const uint32_t outputBusses = elementCount(kKyoAudioUnitScope_Output);
  if (outputElement >= outputBusses || !ioData) return kKyoAudioUnitErr_InvalidElement;
  const uint32_t first = m_outputBusFirstChannel[outputElement];
  const uint32_t channels = channelCount(kKyoAudioUnitScope_Output, outputElement);
  if (ioData->mNumberBuffers < channels) return kKyoAudioUnitErr_FormatNotSupported;

  uint32_t localFlags = 0;
  if (!ioActionFlags) ioActionFlags = &localFlags;
  const bool markSilence = (*ioActionFlags & kKyoRenderAction_MarkSilentChannels) != 0;
  *ioActionFlags &= ~kKyoRenderAction_OutputIsSilence;

  bool anyLive = false;
  if (outputBusses == 1) {
    mixAll(timeStamp, frames, ioData, markSilence);
    for (uint32_t c = 0; c < channels; ++c) anyLive |= m_outputLive[c] != 0;
  } else {
    // Several output busses are pulled separately within one cycle (a send's split
    // mixer): the inputs are pulled once per time stamp and the outputs kept.
    if (!m_hasCache || !timeStamp || timeStamp->mSampleTime != m_cachedSampleTime) {
      KyoAudioBufferListResetSizes(m_outputList, frames);
      mixAll(timeStamp, frames, m_outputList, false);
      m_hasCache = timeStamp != nullptr;
      m_cachedSampleTime = timeStamp ? timeStamp->mSampleTime : -1.0;
    }
    for (uint32_t c = 0; c < channels; ++c) {
      AudioBuffer& b = ioData->mBuffers[c];
      if (m_outputLive[first + c]) {
        anyLive = true;
        std::memcpy(b.mData, m_outputList->mBuffers[first + c].mData, size_t(frames) * kSampleBytes);
        b.mDataByteSize = frames * kSampleBytes;
      } else if (markSilence) {
        KyoMarkChannelSilent(b);
      } else {
        std::memset(b.mData, 0, size_t(frames) * kSampleBytes);
        b.mDataByteSize = frames * kSampleBytes;
      }
    }
  }
  if (!anyLive) *ioActionFlags |= kKyoRenderAction_OutputIsSilence;
  return 0;
}

void KyoMatrixMixer::mixAll(const KyoAudioTimeStamp* timeStamp, uint32_t frames, AudioBufferList* out,
                            bool markSilence) {
  const uint32_t outputs = m_outputChannels;
  std::fill(m_outputLive.begin(), m_outputLive.end(), uint8_t(0));
  const uint32_t inputBusses = elementCount(kKyoAudioUnitScope_Input);
  const size_t maxFrames = maximumFramesPerSlice();

  for (uint32_t bus = 0; bus < inputBusses; ++bus) {
    if (!m_busEnabled[bus].load(std::memory_order_relaxed) || !hasInput(bus)) continue;
    const uint32_t channels = channelCount(kKyoAudioUnitScope_Input, bus);
    m_inputList->mNumberBuffers = channels;
    for (uint32_t c = 0; c < channels; ++c)
      m_inputList->mBuffers[c] = AudioBuffer{1, frames * kSampleBytes, &m_inputSamples[c * maxFrames]};

    // Inputs are always pulled, whatever the levels: a source keeps its time while muted.
    uint32_t flags = kKyoRenderAction_MarkSilentChannels;
    if (pullInput(bus, &flags, timeStamp, frames, m_inputList) != 0) continue;
    if (flags & kKyoRenderAction_OutputIsSilence) continue;

    const uint32_t firstIn = m_inputBusFirstChannel[bus];
    for (uint32_t c = 0; c < channels; ++c) {
      const AudioBuffer& in = m_inputList->mBuffers[c];
      if (KyoIsChannelMarkedSilent(in)) continue;
      const float inputGain = m_inputVolumes[firstIn + c].load(std::memory_order_relaxed);
      if (inputGain == 0.0f) continue;
      const float* source = static_cast<const float*>(in.mData);
      const std::atomic<float>* row = &m_crosspoints[size_t(firstIn + c) * outputs];
      for (uint32_t o = 0; o < outputs; ++o) {
        const float crosspoint = row[o].load(std::memory_order_relaxed);
        if (crosspoint == 0.0f) continue;
        const float gain = crosspoint * inputGain;
        float* destination = static_cast<float*>(out->mBuffers[o].mData);
        if (m_outputLive[o]) {
          for (uint32_t i = 0; i < frames; ++i) destination[i] += source[i] * gain;
        } else {
          for (uint32_t i = 0; i < frames; ++i) destination[i] = source[i] * gain;
          m_outputLive[o] = 1;
        }
      }
    }
  }

  const float master = m_master.load(std::memory_order_relaxed);
  for (uint32_t o = 0; o < outputs; ++o) {
    AudioBuffer& b = out->mBuffers[o];
    if (m_outputLive[o]) {
      const float gain = master * m_outputVolumes[o].load(std::memory_order_relaxed);
      if (gain == 0.0f) {
        m_outputLive[o] = 0;
      } else if (gain != 1.0f) {
        float* d = static_cast<float*>(b.mData);
        for (uint32_t i = 0; i < frames; ++i) d[i] *= gain;
      }
    }
    if (m_outputLive[o]) {
      b.mDataByteSize = frames * kSampleBytes;
    } else if (markSilence) {
      KyoMarkChannelSilent(b);
    } else {
      std::memset(b.mData, 0, size_t(frames) * kSampleBytes);
      b.mDataByteSize = frames * kSampleBytes;
    }
  }
  if (m_metering.load(std::memory_order_relaxed)) updateMeters(frames, out);
}

void KyoMatrixMixer::updateMeters(uint32_t frames, const AudioBufferList* out) {
  if (frames == 0) return;
  const double seconds = double(frames) / m_sampleRate;
  const float powerWeight = float(1.0 - std::exp(-seconds / kMeterPowerTimeConstantSeconds));
  const float fall = float(std::pow(10.0, -kMeterPeakFallDecibelsPerSecond * seconds / 20.0));
  const double holdFrames = kMeterPeakHoldSeconds * m_sampleRate;
  for (uint32_t o = 0; o < m_outputChannels; ++o) {
    float sumSquares = 0.0f, blockPeak = 0.0f;
    if (m_outputLive[o]) {
      const float* d = static_cast<const float*>(out->mBuffers[o].mData);
      for (uint32_t i = 0; i < frames; ++i) {
        sumSquares += d[i] * d[i];
        blockPeak = std::max(blockPeak, std::fabs(d[i]));
      }
    }
    float power = m_meterPower[o].load(std::memory_order_relaxed);
    power += powerWeight * (sumSquares / float(frames) - power);
    if (power < 1e-15f) power = 0.0f;
    m_meterPower[o].store(power, std::memory_order_relaxed);

    float peak = m_meterPeak[o].load(std::memory_order_relaxed);
    if (blockPeak >= peak) {
      peak = blockPeak;
      m_peakHoldFramesLeft[o] = holdFrames;
    } else if (m_peakHoldFramesLeft[o] > 0.0) {
      m_peakHoldFramesLeft[o] -= frames;
    } else {
      peak = std::max(blockPeak, peak * fall);
      if (peak < 1e-7f) peak = 0.0f;
    }
    m_meterPeak[o].store(peak, std::memory_order_relaxed);
  }
}

// The whole matrix on standard output, for a developer.
void KyoMatrixMixer::printVolumes() const {
  uint32_t dims[2] = {0, 0};
  uint32_t size = sizeof dims;
  int32_t status =
      getProperty(kKyoAudioUnitProperty_MatrixDimensions, kKyoAudioUnitScope_Global, 0, dims, &size);
  if (status) {
    KYO_LOG_STATUS(status);
    return;
  }
  const uint32_t inputs = dims[0], outputs = dims[1];
  std::vector<float> levels((size_t(inputs) + 1) * (size_t(outputs) + 1));
  size = uint32_t(levels.size() * sizeof(float));
  status = getProperty(kKyoAudioUnitProperty_MatrixLevels, kKyoAudioUnitScope_Global, 0, levels.data(), &size);
  if (status) {
    KYO_LOG_STATUS(status);
    return;
  }
  const size_t row = size_t(outputs) + 1;
  std::printf("\n");
  std::printf("\tInput Channels = %u, Output Channels = %u\n", inputs, outputs);
  std::printf("\tGlobal Volume: %.3f\n", levels.back());
  for (size_t i = 0; i < inputs; ++i) {
    std::printf("\t%.3f   ", levels[i * row + outputs]);
    for (size_t o = 0; o < outputs; ++o) std::printf("(%.3f) ", levels[i * row + o]);
    std::printf("\n");
  }
  std::printf("\t        ");
  for (size_t o = 0; o < outputs; ++o) std::printf(" %.3f  ", levels[size_t(inputs) * row + o]);
  std::printf("\n");
  std::fflush(stdout);
}
