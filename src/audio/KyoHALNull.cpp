#include "audio/KyoHALNull.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

// The null device stands for hardware, so it reads the system's monotonic clock
// directly rather than the installed clock, which may be a virtual one.
int64_t monotonicNanoseconds() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return int64_t(t.tv_sec) * kNanosecondsPerSecond + t.tv_nsec;
}

void sleepUntilNanoseconds(int64_t when) {
  timespec t{time_t(when / kNanosecondsPerSecond), long(when % kNanosecondsPerSecond)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR) {
  }
}

class NullStream : public KyoHALStream {
 public:
  NullStream(const KyoHALStreamParameters& parameters, std::atomic<uint32_t>& bufferSize)
      : m_parameters(parameters), m_bufferSize(bufferSize) {}
  ~NullStream() override { stop(); }

  bool begin() {
    m_output = KyoAudioBufferListCreate(KyoHALNull::kChannels, KyoHALNull::kMaxBufferSize, false);
    if (!m_output) return false;
    m_running.store(true);
    m_thread = std::thread([this] { run(); });
    return true;
  }

  void stop() override {
    m_running.store(false);
    if (m_thread.joinable()) m_thread.join();
    KyoAudioBufferListFree(m_output);
    m_output = nullptr;
  }

  bool isRenderThread() const override { return m_renderThread.load() == pthread_self(); }
  uint32_t bufferSizeInFrames() const override { return m_bufferSize.load(); }

 private:
  // Render thread. A cycle that ends after the next one was due is an overload;
  // the pace then starts again from now rather than rushing to catch up.
  void run() {
    KyoHALNameThisThread("sonto-null");
    KyoHALMakeThisThreadRealTime(70);
    m_renderThread.store(pthread_self());
    double sampleTime = 0;
    int64_t due = monotonicNanoseconds();
    while (m_running.load(std::memory_order_acquire)) {
      uint32_t frames = m_bufferSize.load(std::memory_order_relaxed);
      KyoAudioBufferListResetSizes(m_output, frames);
      for (uint32_t c = 0; c < m_output->mNumberBuffers; ++c)
        std::memset(m_output->mBuffers[c].mData, 0, m_output->mBuffers[c].mDataByteSize);
      m_parameters.proc(m_parameters.client, frames, nullptr, m_output, sampleTime);
      sampleTime += frames;
      int64_t period = int64_t(frames) * kNanosecondsPerSecond / int64_t(KyoHALNull::kSampleRate);
      due += period;
      int64_t now = monotonicNanoseconds();
      if (now > due + period) {
        if (m_parameters.events) m_parameters.events->post(kKyoHALEventOverload);
        due = now;
        continue;
      }
      sleepUntilNanoseconds(due);
    }
  }

  KyoHALStreamParameters m_parameters;
  std::atomic<uint32_t>& m_bufferSize;
  AudioBufferList* m_output = nullptr;
  std::atomic<bool> m_running{false};
  std::atomic<pthread_t> m_renderThread{};
  std::thread m_thread;
};

}  // namespace

KyoHALDeviceProperties KyoHALNull::deviceProperties(uint32_t bufferSize) {
  KyoHALDeviceProperties p;
  p.uid = "null";
  p.modelUID = "null";
  p.name = "No Output";
  p.manufacturer = "Sonto";
  p.nominalSampleRate = kSampleRate;
  p.outputChannels = kChannels;
  p.bufferSizeInFrames = bufferSize;
  p.minBufferSizeInFrames = kMinBufferSize;
  p.maxBufferSizeInFrames = kMaxBufferSize;
  return p;
}

std::vector<KyoHALDeviceProperties> KyoHALNull::scan(const std::vector<std::string>&) {
  return {deviceProperties(m_bufferSize.load())};
}

std::unique_ptr<KyoHALStream> KyoHALNull::start(const KyoHALDeviceProperties&, const KyoHALStreamParameters& parameters,
                                                 int32_t& status) {
  auto stream = std::make_unique<NullStream>(parameters, m_bufferSize);
  if (!stream->begin()) {
    status = kKyoHALUnsupportedError;
    KYO_LOG_STATUS_DETAIL(status, "No Output could not allocate its buffers");
    return nullptr;
  }
  status = kKyoHALNoError;
  return stream;
}

int32_t KyoHALNull::setBufferSizeInFrames(const std::string&, uint32_t frames) {
  if (frames < kMinBufferSize || frames > kMaxBufferSize) return kKyoHALIllegalOperationError;
  m_bufferSize.store(frames);
  return kKyoHALNoError;
}
