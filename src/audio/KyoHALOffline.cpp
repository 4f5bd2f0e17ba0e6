#include "audio/KyoHALOffline.h"

#include <algorithm>
#include <cstring>

KyoHALOffline::KyoHALOffline(std::string uid, uint32_t outputChannels, double sampleRate, uint32_t bufferSizeInFrames,
                             uint32_t inputChannels) {
  m_properties.uid = std::move(uid);
  m_properties.modelUID = "offline";
  m_properties.name = "Offline";
  m_properties.manufacturer = "Sonto";
  m_properties.nominalSampleRate = sampleRate;
  m_properties.outputChannels = outputChannels;
  m_properties.inputChannels = inputChannels;
  m_properties.bufferSizeInFrames = bufferSizeInFrames;
  m_properties.minBufferSizeInFrames = 1;
  m_properties.maxBufferSizeInFrames = kMaxBufferSize;
  m_recording.resize(outputChannels);
}

KyoHALOffline::~KyoHALOffline() { freeBuffers(); }

KyoHALDeviceProperties KyoHALOffline::properties() {
  std::lock_guard<std::mutex> lock(m_propertiesMutex);
  return m_properties;
}

int32_t KyoHALOffline::setBufferSizeInFrames(uint32_t frames) {
  if (frames < 1 || frames > kMaxBufferSize) return kKyoHALIllegalOperationError;
  if (m_puller.load() == std::this_thread::get_id()) return kKyoHALIllegalOperationError;
  std::lock_guard<std::mutex> lock(m_mutex);
  {
    std::lock_guard<std::mutex> propertiesLock(m_propertiesMutex);
    m_properties.bufferSizeInFrames = frames;
  }
  if (m_proc && !allocateBuffers()) {
    m_proc = nullptr;
    return kKyoHALUnsupportedError;
  }
  return kKyoHALNoError;
}

bool KyoHALOffline::allocateBuffers() {
  freeBuffers();
  m_output = KyoAudioBufferListCreate(m_properties.outputChannels, m_properties.bufferSizeInFrames, false);
  if (!m_output) return false;
  if (m_inputEnabled && m_properties.inputChannels > 0) {
    m_input = KyoAudioBufferListCreate(m_properties.inputChannels, m_properties.bufferSizeInFrames, false);
    if (!m_input) return false;
  }
  return true;
}

void KyoHALOffline::freeBuffers() {
  KyoAudioBufferListFree(m_output);
  KyoAudioBufferListFree(m_input);
  m_output = nullptr;
  m_input = nullptr;
}

int32_t KyoHALOffline::start(bool enableInput, KyoHALIOProc proc, void* client) {
  if (!proc) return kKyoHALIllegalOperationError;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_proc) return kKyoHALIllegalOperationError;
  if (m_properties.outputChannels == 0 || m_properties.outputChannels > kMaxChannels ||
      m_properties.inputChannels > kMaxChannels)
    return kKyoHALUnsupportedError;
  m_inputEnabled = enableInput;
  if (!allocateBuffers()) {
    freeBuffers();
    return kKyoHALUnsupportedError;
  }
  m_proc = proc;
  m_client = client;
  m_sampleTime = 0;
  return kKyoHALNoError;
}

int32_t KyoHALOffline::stop() {
  if (m_puller.load() == std::this_thread::get_id()) return kKyoHALIllegalOperationError;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_proc) return kKyoHALNotRunningError;
  m_proc = nullptr;
  m_client = nullptr;
  freeBuffers();
  return kKyoHALNoError;
}

bool KyoHALOffline::isRunning() {
  if (m_puller.load() == std::this_thread::get_id()) return true;
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_proc != nullptr;
}

int32_t KyoHALOffline::pull(uint32_t cycles) {
  if (m_puller.load() == std::this_thread::get_id()) return kKyoHALIllegalOperationError;  // a callback pulling again
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_proc) return kKyoHALNotRunningError;
  const uint32_t frames = m_properties.bufferSizeInFrames;
  const uint32_t channels = m_properties.outputChannels;
  // The recording grows before the first cycle, so that a callback watched for
  // allocations sees none of ours.
  for (auto& channel : m_recording) channel.reserve(channel.size() + size_t(cycles) * frames);
  m_puller.store(std::this_thread::get_id());
  for (uint32_t cycle = 0; cycle < cycles; ++cycle) {
    KyoAudioBufferListResetSizes(m_output, frames);
    for (uint32_t c = 0; c < channels; ++c) std::memset(m_output->mBuffers[c].mData, 0, size_t(frames) * sizeof(float));
    if (m_input) {
      KyoAudioBufferListResetSizes(m_input, frames);
      for (uint32_t c = 0; c < m_properties.inputChannels; ++c) {
        auto* d = static_cast<float*>(m_input->mBuffers[c].mData);
        size_t available = 0;
        if (c < m_pendingInput.size() && m_inputPosition < m_pendingInput[c].size())
          available = std::min<size_t>(frames, m_pendingInput[c].size() - m_inputPosition);
        if (available) std::memcpy(d, m_pendingInput[c].data() + m_inputPosition, available * sizeof(float));
        std::memset(d + available, 0, (frames - available) * sizeof(float));
      }
    }
    m_proc(m_client, frames, m_input, m_output, m_sampleTime);
    m_sampleTime += frames;
    // Input is consumed whether or not the callback read it, as a sound card's would be.
    if (m_inputEnabled) m_inputPosition += frames;
    for (uint32_t c = 0; c < channels; ++c) {
      auto* s = static_cast<const float*>(m_output->mBuffers[c].mData);
      m_recording[c].insert(m_recording[c].end(), s, s + frames);
    }
  }
  m_puller.store(std::thread::id());
  return kKyoHALNoError;
}

std::vector<std::vector<float>> KyoHALOffline::recording() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_recording;
}

void KyoHALOffline::clearRecording() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (auto& channel : m_recording) channel.clear();
}

void KyoHALOffline::setInput(std::vector<std::vector<float>> input) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_pendingInput = std::move(input);
  m_inputPosition = 0;
}
