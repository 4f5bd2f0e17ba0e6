#include "audio/KyoHALAlsa.h"

#include <alsa/asoundlib.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

namespace {

constexpr double kPreferredRate = 48000;
constexpr unsigned kPeriods = 3;
constexpr int kWaitMilliseconds = 100;  // how long a stop may wait for a blocked write
constexpr int kRenderPriority = 70;

void reportALSAError(const char* file, int line, const char* function, int error, const char* format, ...) {
  if (KyoEnvironment::logLevel() < kKyoDebugLogLevel) return;
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  KyoLog("ALSA: %s:%d (%s) %s%s%s", file, line, function, text, error ? ": " : "", error ? snd_strerror(error) : "");
}

std::string alsaError(int error) { return std::string(snd_strerror(error)) + " (" + std::to_string(error) + ")"; }

// The hint's description, its lines joined ("HDA Intel PCH, ALC892 Analog\nFront speakers").
std::string oneLine(const char* text) {
  std::string s = text ? text : "";
  std::replace(s.begin(), s.end(), '\n', ' ');
  return s;
}

}  // namespace

void KyoALSAReportToLog() {
  static std::once_flag once;
  std::call_once(once, [] { snd_lib_error_set_handler(reportALSAError); });
}

namespace {

enum class SampleFormat { Float, S32, S16 };

class AlsaStream : public KyoHALStream {
 public:
  AlsaStream(const KyoHALStreamParameters& parameters, std::mutex& configMutex)
      : m_parameters(parameters), m_configMutex(configMutex) {}
  ~AlsaStream() override { stop(); }

  // The caller's thread, holding the configuration lock.
  int32_t begin(const KyoHALDeviceProperties& device, const std::string& pcmName, uint32_t periodFrames) {
    // Non-blocking open: a busy hardware device answers at once instead of waiting.
    int error = snd_pcm_open(&m_pcm, pcmName.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (error < 0) {
      m_pcm = nullptr;
      int32_t status = error == -EBUSY ? kKyoHALIllegalOperationError : kKyoHALBadDeviceError;
      KYO_LOG_STATUS_DETAIL(status, "ALSA device \"" + pcmName + "\" would not open: " + alsaError(error));
      return status;
    }
    if (int32_t status = configure(device, pcmName, periodFrames)) return status;
    m_output = KyoAudioBufferListCreate(m_channels, m_periodFrames, false);
    m_interleaved = static_cast<char*>(std::calloc(size_t(m_periodFrames) * m_channels, 4));
    if (!m_output || !m_interleaved) {
      KYO_LOG_STATUS_DETAIL(kKyoHALUnsupportedError, "ALSA device \"" + pcmName + "\": no memory for its buffers");
      return kKyoHALUnsupportedError;
    }
    m_running.store(true);
    m_thread = std::thread([this] { run(); });
    return kKyoHALNoError;
  }

  // Joins the render thread first, so that no write is under way when the PCM closes.
  void stop() override {
    m_running.store(false, std::memory_order_release);
    if (m_thread.joinable()) m_thread.join();
    if (m_pcm) {
      std::lock_guard<std::mutex> lock(m_configMutex);
      snd_pcm_drop(m_pcm);
      snd_pcm_close(m_pcm);
      m_pcm = nullptr;
    }
    KyoAudioBufferListFree(m_output);
    m_output = nullptr;
    std::free(m_interleaved);
    m_interleaved = nullptr;
  }

  bool isRenderThread() const override { return m_renderThread.load() == pthread_self(); }
  uint32_t bufferSizeInFrames() const override { return m_periodFrames; }

 private:
  int32_t configure(const KyoHALDeviceProperties& device, const std::string& pcmName, uint32_t periodFrames) {
    auto fail = [&](const char* what, int error) {
      KYO_LOG_STATUS_DETAIL(kKyoHALUnsupportedError,
                            "ALSA device \"" + pcmName + "\" refused " + what + ": " + alsaError(error));
      return kKyoHALUnsupportedError;
    };
    snd_pcm_hw_params_t* hw;
    snd_pcm_hw_params_alloca(&hw);
    int error = snd_pcm_hw_params_any(m_pcm, hw);
    if (error < 0) return fail("its configuration", error);
    if ((error = snd_pcm_hw_params_set_access(m_pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0)
      return fail("interleaved access", error);
    if (snd_pcm_hw_params_set_format(m_pcm, hw, SND_PCM_FORMAT_FLOAT_LE) == 0)
      m_format = SampleFormat::Float;
    else if (snd_pcm_hw_params_set_format(m_pcm, hw, SND_PCM_FORMAT_S32_LE) == 0)
      m_format = SampleFormat::S32;
    else if ((error = snd_pcm_hw_params_set_format(m_pcm, hw, SND_PCM_FORMAT_S16_LE)) == 0)
      m_format = SampleFormat::S16;
    else
      return fail("float, 32-bit and 16-bit samples", error);
    if ((error = snd_pcm_hw_params_set_channels(m_pcm, hw, device.outputChannels)) < 0)
      return fail((std::to_string(device.outputChannels) + " channels").c_str(), error);
    m_channels = device.outputChannels;
    unsigned rate = unsigned(device.nominalSampleRate > 0 ? device.nominalSampleRate : kPreferredRate);
    if ((error = snd_pcm_hw_params_set_rate(m_pcm, hw, rate, 0)) < 0)
      return fail((std::to_string(rate) + " Hz").c_str(), error);
    snd_pcm_uframes_t period = periodFrames;
    int direction = 0;
    if ((error = snd_pcm_hw_params_set_period_size_near(m_pcm, hw, &period, &direction)) < 0)
      return fail("its period size", error);
    snd_pcm_uframes_t buffer = period * kPeriods;
    if ((error = snd_pcm_hw_params_set_buffer_size_near(m_pcm, hw, &buffer)) < 0)
      return fail("its buffer size", error);
    if ((error = snd_pcm_hw_params(m_pcm, hw)) < 0) return fail("the configuration", error);
    snd_pcm_hw_params_get_period_size(hw, &period, &direction);
    if (period == 0 || period > KyoHALAlsa::kMaxBufferSize) return fail("a usable period", -EINVAL);
    m_periodFrames = uint32_t(period);

    snd_pcm_sw_params_t* sw;
    snd_pcm_sw_params_alloca(&sw);
    snd_pcm_sw_params_current(m_pcm, sw);
    snd_pcm_hw_params_get_buffer_size(hw, &buffer);
    // Playback begins once the buffer is full, so that the first cycles do not underrun.
    snd_pcm_sw_params_set_start_threshold(m_pcm, sw, buffer - buffer % period);
    snd_pcm_sw_params_set_avail_min(m_pcm, sw, period);
    if ((error = snd_pcm_sw_params(m_pcm, sw)) < 0) return fail("its software parameters", error);
    if ((error = snd_pcm_prepare(m_pcm)) < 0) return fail("to prepare", error);
    return kKyoHALNoError;
  }

  void post(uint32_t bits) {
    if (m_parameters.events) m_parameters.events->post(bits);
  }

  // Render thread. Answers false when the device is lost.
  bool recover(int error) {
    if (error == -EPIPE || error == -ESTRPIPE || error == -EINTR) {
      if (error == -EPIPE) post(kKyoHALEventOverload);
      return snd_pcm_recover(m_pcm, error, 1) == 0;
    }
    return false;  // -ENODEV, -EBADFD, -EIO after a disconnect
  }

  void interleave(uint32_t frames) {
    for (uint32_t c = 0; c < m_channels; ++c) {
      const float* source = KyoAudioBufferListChannel(m_output, c);
      switch (m_format) {
        case SampleFormat::Float: {
          auto* d = reinterpret_cast<float*>(m_interleaved);
          for (uint32_t i = 0; i < frames; ++i) d[i * m_channels + c] = source[i];
          break;
        }
        case SampleFormat::S32: {
          auto* d = reinterpret_cast<int32_t*>(m_interleaved);
          for (uint32_t i = 0; i < frames; ++i)
            d[i * m_channels + c] = int32_t(std::clamp(double(source[i]), -1.0, 1.0) * 2147483647.0);
          break;
        }
        case SampleFormat::S16: {
          auto* d = reinterpret_cast<int16_t*>(m_interleaved);
          for (uint32_t i = 0; i < frames; ++i)
            d[i * m_channels + c] = int16_t(std::clamp(source[i], -1.0f, 1.0f) * 32767.0f);
          break;
        }
      }
    }
  }

  size_t bytesPerFrame() const { return size_t(m_channels) * (m_format == SampleFormat::S16 ? 2 : 4); }

  // Render thread: render a period, then write it, waiting for room at most
  // kWaitMilliseconds at a time so that a stop is seen.
  void run() {
    KyoHALNameThisThread("sonto-alsa");
    bool realTime = KyoHALMakeThisThreadRealTime(kRenderPriority);
    m_renderThread.store(pthread_self());
    if (!realTime) KYO_LOG_AT(3, "ALSA render thread runs without real-time priority");
    double sampleTime = 0;
    const uint32_t frames = m_periodFrames;
    while (m_running.load(std::memory_order_acquire)) {
      KyoAudioBufferListResetSizes(m_output, frames);
      for (uint32_t c = 0; c < m_output->mNumberBuffers; ++c)
        std::memset(m_output->mBuffers[c].mData, 0, m_output->mBuffers[c].mDataByteSize);
      m_parameters.proc(m_parameters.client, frames, nullptr, m_output, sampleTime);
      sampleTime += frames;
      interleave(frames);
      uint32_t written = 0;
      while (written < frames && m_running.load(std::memory_order_acquire)) {
        snd_pcm_sframes_t n = snd_pcm_writei(m_pcm, m_interleaved + written * bytesPerFrame(), frames - written);
        if (n >= 0) {
          written += uint32_t(n);
          continue;
        }
        int error = int(n);
        if (error == -EAGAIN) {
          int ready = snd_pcm_wait(m_pcm, kWaitMilliseconds);
          if (ready >= 0) continue;
          error = ready;
        }
        if (!recover(error)) {
          post(kKyoHALEventDied);
          return;
        }
      }
    }
  }

  KyoHALStreamParameters m_parameters;
  std::mutex& m_configMutex;
  snd_pcm_t* m_pcm = nullptr;
  SampleFormat m_format = SampleFormat::Float;
  uint32_t m_channels = 0;
  uint32_t m_periodFrames = 0;
  AudioBufferList* m_output = nullptr;
  char* m_interleaved = nullptr;
  std::atomic<bool> m_running{false};
  std::atomic<pthread_t> m_renderThread{};
  std::thread m_thread;
};

}  // namespace

// Opens the PCM without waiting and reads what it accepts; a busy PCM is present
// with the usual shape, since whoever holds it may let go.
KyoHALAlsa::Probe KyoHALAlsa::probe(const std::string& pcmName, const std::string& description) {
  Probe result;
  KyoHALDeviceProperties& p = result.properties;
  p.uid = "alsa:" + pcmName;
  p.modelUID = "alsa";
  p.name = description.empty() ? pcmName : description;
  p.manufacturer = "ALSA";
  p.nominalSampleRate = kPreferredRate;
  p.outputChannels = 2;
  p.bufferSizeInFrames = kDefaultBufferSize;
  p.minBufferSizeInFrames = kMinBufferSize;
  p.maxBufferSizeInFrames = kMaxBufferSize;

  snd_pcm_t* pcm = nullptr;
  int error = snd_pcm_open(&pcm, pcmName.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
  if (error == -EBUSY) {
    result.present = true;
    return result;
  }
  if (error < 0) {
    KYO_LOG_AT(4, "ALSA device \"%s\" is not usable: %s", pcmName.c_str(), snd_strerror(error));
    return result;
  }
  snd_pcm_hw_params_t* hw;
  snd_pcm_hw_params_alloca(&hw);
  if (snd_pcm_hw_params_any(pcm, hw) >= 0) {
    result.present = true;
    unsigned minChannels = 0, maxChannels = 0;
    snd_pcm_hw_params_get_channels_min(hw, &minChannels);
    snd_pcm_hw_params_get_channels_max(hw, &maxChannels);
    if (maxChannels >= kMaxChannels)
      p.outputChannels = std::max(2u, minChannels);
    else if (maxChannels > 0)
      p.outputChannels = maxChannels;
    if (snd_pcm_hw_params_test_rate(pcm, hw, unsigned(kPreferredRate), 0) != 0) {
      unsigned rate = 0;
      int direction = 0;
      if (snd_pcm_hw_params_get_rate_max(hw, &rate, &direction) == 0 && rate > 0) p.nominalSampleRate = rate;
    }
    snd_pcm_uframes_t minPeriod = 0, maxPeriod = 0;
    int direction = 0;
    if (snd_pcm_hw_params_get_period_size_min(hw, &minPeriod, &direction) == 0)
      p.minBufferSizeInFrames = uint32_t(std::clamp<snd_pcm_uframes_t>(minPeriod, kMinBufferSize, kMaxBufferSize));
    if (snd_pcm_hw_params_get_period_size_max(hw, &maxPeriod, &direction) == 0)
      p.maxBufferSizeInFrames = uint32_t(std::clamp<snd_pcm_uframes_t>(maxPeriod, p.minBufferSizeInFrames, kMaxBufferSize));
    p.bufferSizeInFrames = std::clamp(kDefaultBufferSize, p.minBufferSizeInFrames, p.maxBufferSizeInFrames);
  }
  snd_pcm_close(pcm);
  return result;
}

void KyoHALAlsa::forget() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_probes.clear();
  // Read the configuration files again (a new ~/.asoundrc, a new card); open PCMs
  // keep the configuration they were opened with.
  snd_config_update_free_global();
}

std::vector<KyoHALDeviceProperties> KyoHALAlsa::scan(const std::vector<std::string>& uidsInUse) {
  KyoALSAReportToLog();
  std::lock_guard<std::mutex> lock(m_mutex);
  void** hints = nullptr;
  if (snd_device_name_hint(-1, "pcm", &hints) < 0 || !hints) return {};
  std::vector<std::pair<std::string, std::string>> names;  // name, description
  for (void** hint = hints; *hint; ++hint) {
    char* name = snd_device_name_get_hint(*hint, "NAME");
    char* description = snd_device_name_get_hint(*hint, "DESC");
    char* direction = snd_device_name_get_hint(*hint, "IOID");
    // No IOID: both directions.
    if (name && (!direction || std::strcmp(direction, "Output") == 0)) names.emplace_back(name, oneLine(description));
    std::free(name);
    std::free(description);
    std::free(direction);
  }
  snd_device_name_free_hint(hints);

  std::vector<KyoHALDeviceProperties> devices;
  std::map<std::string, Probe> probes;
  for (auto& [name, description] : names) {
    if (probes.count(name)) continue;
    auto known = m_probes.find(name);
    bool inUse = std::find(uidsInUse.begin(), uidsInUse.end(), "alsa:" + name) != uidsInUse.end();
    Probe probed = known != m_probes.end() ? known->second : Probe{};
    if (known == m_probes.end()) {
      if (inUse) {
        // Ours and running: present, with the shape it was started with.
        probed.present = true;
        probed.properties.uid = "alsa:" + name;
      } else {
        probed = probe(name, description);
      }
    }
    probes[name] = probed;
    if (!probed.present) continue;
    KyoHALDeviceProperties p = probed.properties;
    auto size = m_bufferSizes.find(p.uid);
    if (size != m_bufferSizes.end()) p.bufferSizeInFrames = size->second;
    devices.push_back(p);
  }
  m_probes = std::move(probes);
  return devices;
}

std::unique_ptr<KyoHALStream> KyoHALAlsa::start(const KyoHALDeviceProperties& device,
                                                 const KyoHALStreamParameters& parameters, int32_t& status) {
  std::string pcmName = device.uid.substr(device.uid.find(':') + 1);
  auto stream = std::make_unique<AlsaStream>(parameters, m_mutex);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    uint32_t frames = device.bufferSizeInFrames ? device.bufferSizeInFrames : kDefaultBufferSize;
    status = stream->begin(device, pcmName, frames);
  }
  if (status != kKyoHALNoError) return nullptr;  // the stream's destructor closes what was opened
  return stream;
}

int32_t KyoHALAlsa::setBufferSizeInFrames(const std::string& uid, uint32_t frames) {
  if (frames < kMinBufferSize || frames > kMaxBufferSize) return kKyoHALIllegalOperationError;
  std::lock_guard<std::mutex> lock(m_mutex);
  m_bufferSizes[uid] = frames;
  return kKyoHALNoError;
}
