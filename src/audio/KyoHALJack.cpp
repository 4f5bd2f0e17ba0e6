#include "audio/KyoHALJack.h"

#include <jack/jack.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/KyoEnvironment.h"

namespace {

constexpr const char* kClientName = "Sonto";
constexpr uint32_t kMinBufferSize = 16;
constexpr uint32_t kMaxBufferSize = 8192;
constexpr uint32_t kMaxPorts = 256;

// libjack reports to standard error on its own, loudly so when no server runs;
// the device layer reports what matters itself.
void quietJackError(const char* message) { KYO_LOG_AT(3, "JACK: %s", message); }
void quietJackInfo(const char* message) { KYO_LOG_AT(4, "JACK: %s", message); }

void installJackReporting() {
  static std::once_flag once;
  std::call_once(once, [] {
    jack_set_error_function(quietJackError);
    jack_set_info_function(quietJackInfo);
  });
}

std::string hex(int value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", unsigned(value));
  return text;
}

// A client whose server has gone cannot be closed safely: libjack may touch the
// dead server's shared memory, or the memory of a new server of the same name.
// It is kept here instead, reachable, for the life of the process.
void abandonClient(jack_client_t* client, const void* callbackState = nullptr) {
  static std::mutex mutex;
  static auto* abandoned = new std::vector<std::pair<jack_client_t*, const void*>>();
  std::lock_guard<std::mutex> lock(mutex);
  abandoned->emplace_back(client, callbackState);
  KYO_LOG_AT(3, "JACK client %p abandoned after its server went away", static_cast<void*>(client));
}

// A client name within JACK's limit, leaving room for the "-01" JACK adds when two
// clients share a name, cut at a character boundary; ':' separates client and port
// in JACK's names and is replaced.
std::string jackClientName(const std::string& wanted) {
  std::string name = wanted.empty() ? kClientName : wanted;
  std::replace(name.begin(), name.end(), ':', '-');
  const size_t limit = size_t(jack_client_name_size()) - 1 - 3;
  if (name.size() > limit) {
    size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    name.resize(cut);
  }
  return name;
}

jack_client_t* openClient(const char* name, const std::string& server, jack_status_t& status) {
  installJackReporting();
  return jack_client_open(name, jack_options_t(JackNoStartServer | JackServerName), &status, server.c_str());
}

// The physical ports of one direction; JackPortIsInput finds the playback ports.
std::vector<std::string> physicalPorts(jack_client_t* client, unsigned long flags) {
  std::vector<std::string> names;
  const char** ports = jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE, JackPortIsPhysical | flags);
  if (!ports) return names;
  for (size_t i = 0; ports[i] && names.size() < kMaxPorts; ++i) names.emplace_back(ports[i]);
  jack_free(ports);
  return names;
}

class JackStream;

// What libjack's threads are handed instead of the stream. While a client is open
// the server may call in at any time; once its server has died the client cannot be
// closed, so the gate is shut, the callbacks still under way are waited for, and the
// gate stays behind with the client while the stream is freed.
struct JackGate {
  std::atomic<int> inside{0};
  std::atomic<bool> shut{false};
  JackStream* stream = nullptr;

  // Any libjack thread, the process thread included: no lock, no allocation.
  JackStream* enter() {
    inside.fetch_add(1);
    if (!shut.load()) return stream;
    inside.fetch_sub(1);
    return nullptr;
  }
  void leave() { inside.fetch_sub(1); }
};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

class JackStream : public KyoHALStream {
 public:
  explicit JackStream(const KyoHALStreamParameters& parameters) : m_parameters(parameters), m_gate(new JackGate) {
    m_gate->stream = this;
  }
  ~JackStream() override {
    stop();
    delete m_gate;
    std::free(m_output);
    std::free(m_input);
  }

  int32_t begin(const std::string& server) {
    jack_status_t jackStatus{};
    m_client = openClient(jackClientName(m_parameters.clientName).c_str(), server, jackStatus);
    if (!m_client) {
      KYO_LOG_STATUS_DETAIL(kKyoHALBadDeviceError,
                            "JACK server \"" + server + "\" is not running (status " + hex(jackStatus) + ")");
      return kKyoHALBadDeviceError;
    }
    auto playback = physicalPorts(m_client, JackPortIsInput);
    auto capture = m_parameters.enableInput ? physicalPorts(m_client, JackPortIsOutput) : std::vector<std::string>();
    if (playback.empty()) {
      KYO_LOG_STATUS_DETAIL(kKyoHALBadDeviceError, "JACK server \"" + server + "\" has no playback ports");
      return kKyoHALBadDeviceError;
    }
    m_output = KyoAudioBufferListAllocateHeader(uint32_t(playback.size()));
    m_input = capture.empty() ? nullptr : KyoAudioBufferListAllocateHeader(uint32_t(capture.size()));
    if (!m_output || (!capture.empty() && !m_input)) return kKyoHALUnsupportedError;
    for (size_t i = 0; i < playback.size(); ++i) {
      std::string name = "out_" + std::to_string(i + 1);
      jack_port_t* port = jack_port_register(m_client, name.c_str(), JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
      if (!port) {
        KYO_LOG_STATUS_DETAIL(kKyoHALUnsupportedError, "JACK refused the port " + name);
        return kKyoHALUnsupportedError;
      }
      m_outputPorts.push_back(port);
      m_output->mBuffers[i] = AudioBuffer{1, 0, nullptr};
    }
    for (size_t i = 0; i < capture.size(); ++i) {
      std::string name = "in_" + std::to_string(i + 1);
      jack_port_t* port = jack_port_register(m_client, name.c_str(), JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
      if (!port) {
        KYO_LOG_STATUS_DETAIL(kKyoHALUnsupportedError, "JACK refused the port " + name);
        return kKyoHALUnsupportedError;
      }
      m_inputPorts.push_back(port);
      m_input->mBuffers[i] = AudioBuffer{1, 0, nullptr};
    }
    m_bufferSize.store(jack_get_buffer_size(m_client));
    m_sampleRate.store(jack_get_sample_rate(m_client));
    jack_set_process_callback(m_client, process, m_gate);
    jack_set_xrun_callback(m_client, xrun, m_gate);
    jack_set_buffer_size_callback(m_client, bufferSizeChanged, m_gate);
    jack_set_sample_rate_callback(m_client, sampleRateChanged, m_gate);
    jack_on_info_shutdown(m_client, shutdown, m_gate);
    if (int error = jack_activate(m_client)) {
      KYO_LOG_STATUS_DETAIL(kKyoHALNotRunningError, "JACK would not activate the client (" + std::to_string(error) + ")");
      return kKyoHALNotRunningError;
    }
    m_active = true;
    for (size_t i = 0; i < playback.size(); ++i) {
      int error = jack_connect(m_client, jack_port_name(m_outputPorts[i]), playback[i].c_str());
      if (error && error != EEXIST) KyoLog("Could not connect %s to %s (%d)", jack_port_name(m_outputPorts[i]),
                                             playback[i].c_str(), error);
    }
    for (size_t i = 0; i < capture.size(); ++i) {
      int error = jack_connect(m_client, capture[i].c_str(), jack_port_name(m_inputPorts[i]));
      if (error && error != EEXIST) KyoLog("Could not connect %s to %s (%d)", capture[i].c_str(),
                                             jack_port_name(m_inputPorts[i]), error);
    }
    return kKyoHALNoError;
  }

  // Once jack_client_close has returned, the server calls nothing of ours again.
  void stop() override {
    if (!m_client) return;
    if (m_dead.load()) {
      m_gate->shut.store(true);
      // A callback under way when the server died ends within its cycle.
      while (m_gate->inside.load() != 0) sched_yield();
      abandonClient(m_client, m_gate);
      m_gate = nullptr;
    } else {
      if (m_active) jack_deactivate(m_client);
      jack_client_close(m_client);
    }
    m_client = nullptr;
    m_active = false;
  }

  bool isRenderThread() const override {
    pthread_t t = m_renderThread.load();
    return t && pthread_equal(t, pthread_self());
  }
  uint32_t bufferSizeInFrames() const override { return m_bufferSize.load(); }

 private:
  // JACK's process thread.
  static int process(jack_nframes_t frames, void* arg) {
    JackStream* self = static_cast<JackGate*>(arg)->enter();
    if (!self) return 0;
    if (!self->m_renderThread.load(std::memory_order_relaxed)) self->m_renderThread.store(pthread_self());
    const uint32_t bytes = frames * sizeof(float);
    for (size_t i = 0; i < self->m_outputPorts.size(); ++i) {
      void* data = jack_port_get_buffer(self->m_outputPorts[i], frames);
      std::memset(data, 0, bytes);
      self->m_output->mBuffers[i].mData = data;
      self->m_output->mBuffers[i].mDataByteSize = bytes;
    }
    for (size_t i = 0; i < self->m_inputPorts.size(); ++i) {
      self->m_input->mBuffers[i].mData = jack_port_get_buffer(self->m_inputPorts[i], frames);
      self->m_input->mBuffers[i].mDataByteSize = bytes;
    }
    self->m_parameters.proc(self->m_parameters.client, frames, self->m_input, self->m_output, self->m_sampleTime);
    self->m_sampleTime += frames;
    self->m_gate->leave();
    return 0;
  }

  static int xrun(void* arg) {
    JackStream* self = static_cast<JackGate*>(arg)->enter();
    if (!self) return 0;
    if (self->m_parameters.events) self->m_parameters.events->post(kKyoHALEventOverload);
    self->m_gate->leave();
    return 0;
  }

  static int bufferSizeChanged(jack_nframes_t frames, void* arg) {
    JackStream* self = static_cast<JackGate*>(arg)->enter();
    if (!self) return 0;
    self->m_bufferSize.store(frames);
    self->m_gate->leave();
    return 0;
  }

  static int sampleRateChanged(jack_nframes_t rate, void* arg) {
    JackStream* self = static_cast<JackGate*>(arg)->enter();
    if (!self) return 0;
    if (self->m_sampleRate.exchange(rate) != rate && self->m_parameters.events)
      self->m_parameters.events->post(kKyoHALEventRateChanged);
    self->m_gate->leave();
    return 0;
  }

  // A thread of libjack, after the server has gone: nothing of JACK may be called here.
  static void shutdown(jack_status_t, const char*, void* arg) {
    JackStream* self = static_cast<JackGate*>(arg)->enter();
    if (!self) return;
    self->m_dead.store(true);
    if (self->m_parameters.events) self->m_parameters.events->post(kKyoHALEventDied);
    self->m_gate->leave();
  }

  KyoHALStreamParameters m_parameters;
  jack_client_t* m_client = nullptr;
  bool m_active = false;
  std::vector<jack_port_t*> m_outputPorts;
  std::vector<jack_port_t*> m_inputPorts;
  AudioBufferList* m_output = nullptr;
  AudioBufferList* m_input = nullptr;
  double m_sampleTime = 0;  // process thread only
  std::atomic<pthread_t> m_renderThread{};
  std::atomic<uint32_t> m_bufferSize{0};
  std::atomic<uint32_t> m_sampleRate{0};
  std::atomic<bool> m_dead{false};
  JackGate* m_gate;  // handed to libjack; left with the client when its server dies
};

}  // namespace

KyoHALJack::KyoHALJack() = default;

KyoHALJack::~KyoHALJack() { closeMonitor(); }

std::string KyoHALJack::serverName() {
  const char* name = std::getenv("JACK_DEFAULT_SERVER");
  return name && *name ? name : "default";
}

void KyoHALJack::closeMonitor() {
  if (m_monitor && m_monitorLost.load())
    abandonClient(m_monitor);
  else if (m_monitor)
    jack_client_close(m_monitor);
  m_monitor = nullptr;
  m_monitorLost.store(false);
}

void KyoHALJack::forget() {
  std::lock_guard<std::mutex> lock(m_mutex);
  closeMonitor();
}

std::vector<KyoHALDeviceProperties> KyoHALJack::scan(const std::vector<std::string>&) {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::string server = serverName();
  if (m_monitor && (m_monitorLost.load() || m_monitorServer != server)) closeMonitor();
  if (!m_monitor) {
    jack_status_t status{};
    m_monitor = openClient("Sonto-list", server, status);
    if (!m_monitor) return {};
    m_monitorServer = server;
    jack_on_info_shutdown(
        m_monitor, [](jack_status_t, const char*, void* lost) { static_cast<std::atomic<bool>*>(lost)->store(true); },
        &m_monitorLost);
    if (jack_activate(m_monitor)) {
      closeMonitor();
      return {};
    }
  }
  auto playback = physicalPorts(m_monitor, JackPortIsInput);
  if (playback.empty()) return {};
  KyoHALDeviceProperties p;
  p.uid = "jack:" + server;
  p.modelUID = "jack";
  p.name = server == "default" ? "JACK" : "JACK (" + server + ")";
  p.manufacturer = "JACK";
  p.nominalSampleRate = jack_get_sample_rate(m_monitor);
  p.outputChannels = uint32_t(playback.size());
  p.inputChannels = uint32_t(physicalPorts(m_monitor, JackPortIsOutput).size());
  p.bufferSizeInFrames = jack_get_buffer_size(m_monitor);
  p.minBufferSizeInFrames = kMinBufferSize;
  p.maxBufferSizeInFrames = kMaxBufferSize;
  return {p};
}

std::unique_ptr<KyoHALStream> KyoHALJack::start(const KyoHALDeviceProperties& device,
                                                 const KyoHALStreamParameters& parameters, int32_t& status) {
  std::string server = device.uid.substr(device.uid.find(':') + 1);
  auto stream = std::make_unique<JackStream>(parameters);
  status = stream->begin(server);
  if (status != kKyoHALNoError) return nullptr;
  return stream;
}

int32_t KyoHALJack::setBufferSizeInFrames(const std::string& uid, uint32_t frames) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_monitor || m_monitorLost.load() || uid != "jack:" + m_monitorServer) return kKyoHALBadDeviceError;
  // The server's period is a power of two.
  if (frames & (frames - 1)) return kKyoHALIllegalOperationError;
  if (int error = jack_set_buffer_size(m_monitor, frames)) {
    KYO_LOG_STATUS_DETAIL(kKyoHALUnsupportedError, "JACK would not change its buffer size (" + std::to_string(error) + ")");
    return kKyoHALUnsupportedError;
  }
  return kKyoHALNoError;
}

void KyoJackReportToLog() { installJackReporting(); }
