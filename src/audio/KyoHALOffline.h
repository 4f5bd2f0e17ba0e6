#pragma once
// A device without hardware: its owner pulls cycles on its own thread, and the
// device keeps what the callback wrote, per channel, so that a rendering can be
// compared sample by sample. Never listed, never the default.

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "audio/KyoHAL.h"

class KyoHALOffline {
 public:
  KyoHALOffline(std::string uid, uint32_t outputChannels, double sampleRate, uint32_t bufferSizeInFrames,
                uint32_t inputChannels);
  ~KyoHALOffline();
  KyoHALOffline(const KyoHALOffline&) = delete;
  KyoHALOffline& operator=(const KyoHALOffline&) = delete;

  KyoHALDeviceProperties properties();
  int32_t setBufferSizeInFrames(uint32_t frames);

  int32_t start(bool enableInput, KyoHALIOProc proc, void* client);
  // Waits for a pull in progress on another thread; refuses on the pulling thread.
  int32_t stop();
  bool isRunning();

  // Caller's thread: cycles of bufferSizeInFrames frames each, appended to the recording.
  int32_t pull(uint32_t cycles);

  std::vector<std::vector<float>> recording();
  void clearRecording();
  // Replaces the input still to come; a cycle past its end gets silence.
  void setInput(std::vector<std::vector<float>> input);

  static constexpr uint32_t kMaxChannels = 256;
  static constexpr uint32_t kMaxBufferSize = 65536;

 private:
  bool allocateBuffers();
  void freeBuffers();

  // m_mutex is held through a pull; the properties have a lock of their own so
  // that a callback may read them.
  std::mutex m_mutex;
  std::mutex m_propertiesMutex;
  std::atomic<std::thread::id> m_puller{};
  KyoHALDeviceProperties m_properties;
  KyoHALIOProc m_proc = nullptr;
  void* m_client = nullptr;
  bool m_inputEnabled = false;
  double m_sampleTime = 0;
  AudioBufferList* m_output = nullptr;
  AudioBufferList* m_input = nullptr;
  std::vector<std::vector<float>> m_recording;
  std::vector<std::vector<float>> m_pendingInput;
  size_t m_inputPosition = 0;
};
