#include "audio/KyoHAL.h"

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "audio/KyoHALAlsa.h"
#include "audio/KyoHALBackend.h"
#include "audio/KyoHALJack.h"
#include "audio/KyoHALNull.h"
#include "audio/KyoHALOffline.h"
#include "foundation/KyoEnvironment.h"

void KyoHALNameThisThread(const char* name) { pthread_setname_np(pthread_self(), name); }

bool KyoHALMakeThisThreadRealTime(int priority) {
  sched_param parameter{};
  parameter.sched_priority = std::clamp(priority, sched_get_priority_min(SCHED_FIFO), sched_get_priority_max(SCHED_FIFO));
  return pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter) == 0;
}

namespace {

constexpr double kScanIntervalSeconds = 1.0;
constexpr KyoAudioObjectID kFirstDeviceID = 2;

// The listener thread paces its scans on the system's monotonic clock: it watches
// hardware, whose time does not follow an installed virtual clock.
double systemMonotonicSeconds() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

}  // namespace

struct KyoHAL::State {
  struct Device;

  // Posted by a backend from any thread: an atomic word and a semaphore post.
  class Events : public KyoHALEventTarget {
   public:
    Events(std::atomic<uint32_t>& flags, sem_t& wake) : m_flags(flags), m_wake(wake) {}
    void post(uint32_t bits) override {
      m_flags.fetch_or(bits, std::memory_order_release);
      sem_post(&m_wake);
    }

   private:
    std::atomic<uint32_t>& m_flags;
    sem_t& m_wake;
  };
  static_assert(std::atomic<uint32_t>::is_always_lock_free);

  struct Device {
    Device(KyoAudioObjectID id, KyoHALBackend* backend, sem_t& wake) : id(id), backend(backend), events(flags, wake) {}
    const KyoAudioObjectID id;
    KyoHALBackend* const backend;  // null for an offline device
    // Guarded by State::mutex.
    KyoHALDeviceProperties properties;
    bool listed = false;
    bool inUse = false;  // starting or running: scans must not probe it
    std::shared_ptr<KyoHALOffline> offline;
    // Serializes start and stop of this device; never taken by a render callback.
    std::mutex ioMutex;
    // One stream per client: each open show drives the device with a stream of its
    // own, mixed by the system (JACK, dmix, PipeWire) as another program's would be.
    std::vector<std::pair<void*, std::unique_ptr<KyoHALStream>>> streams;  // guarded by ioMutex
    std::atomic<uint32_t> flags{0};
    Events events;
  };

  std::mutex mutex;
  std::map<KyoAudioObjectID, std::unique_ptr<Device>> devices;
  std::map<std::string, KyoAudioObjectID> byUID;
  std::vector<KyoAudioObjectID> listed;
  KyoAudioObjectID defaultOutput = 0;
  KyoAudioObjectID defaultInput = 0;
  KyoAudioObjectID nextID = kFirstDeviceID;
  bool scanned = false;

  std::vector<std::unique_ptr<KyoHALBackend>> backends;  // in listing order, null last
  std::mutex scanMutex;

  std::vector<std::pair<uint64_t, std::shared_ptr<KyoHALListener>>> listeners;
  uint64_t nextToken = 1;
  std::deque<std::pair<KyoAudioObjectID, uint32_t>> pending;
  std::mutex deliverMutex;  // held while a listener runs
  std::atomic<std::thread::id> listenerThreadID{};

  sem_t wake;
  std::atomic<bool> quit{false};
  std::thread listenerThread;

  State() {
    sem_init(&wake, 0, 0);
    backends.push_back(std::make_unique<KyoHALJack>());
    backends.push_back(std::make_unique<KyoHALAlsa>());
    backends.push_back(std::make_unique<KyoHALNull>());
    listenerThread = std::thread([this] { listen(); });
  }

  ~State() {
    quit.store(true);
    sem_post(&wake);
    if (listenerThread.joinable()) listenerThread.join();
    for (auto& [id, device] : devices) {
      std::lock_guard<std::mutex> io(device->ioMutex);
      for (auto& entry : device->streams) entry.second->stop();
      device->streams.clear();
    }
    devices.clear();
    backends.clear();
    sem_destroy(&wake);
  }

  Device* find(KyoAudioObjectID id) {
    auto it = devices.find(id);
    return it == devices.end() ? nullptr : it->second.get();
  }

  Device* findLocked(KyoAudioObjectID id) {
    std::lock_guard<std::mutex> lock(mutex);
    return find(id);
  }

  KyoAudioObjectID newID() { return nextID++; }

  void postLocked(KyoAudioObjectID object, uint32_t selector) { pending.emplace_back(object, selector); }

  void ensureScanned() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (scanned) return;
    }
    scan();
  }

  // Caller's thread or listener thread. The backends are asked without the table's
  // lock held, since probing a device may take a while.
  void scan() {
    std::lock_guard<std::mutex> scanning(scanMutex);
    std::vector<std::string> inUse;
    {
      std::lock_guard<std::mutex> lock(mutex);
      for (auto& [id, device] : devices)
        if (device->inUse && device->backend) inUse.push_back(device->properties.uid);
    }
    std::vector<std::pair<KyoHALBackend*, std::vector<KyoHALDeviceProperties>>> found;
    for (auto& backend : backends) found.emplace_back(backend.get(), backend->scan(inUse));

    bool changed = false;
    {
      std::lock_guard<std::mutex> lock(mutex);
      bool first = !scanned;
      std::vector<KyoAudioObjectID> now;
      for (auto& [backend, list] : found) {
        for (auto& properties : list) {
          auto known = byUID.find(properties.uid);
          Device* device = nullptr;
          if (known != byUID.end()) {
            device = find(known->second);
          } else {
            KyoAudioObjectID id = newID();
            devices[id] = std::make_unique<Device>(id, backend, wake);
            byUID[properties.uid] = id;
            device = devices[id].get();
          }
          if (!device || device->backend != backend ||
              std::find(now.begin(), now.end(), device->id) != now.end())
            continue;
          now.push_back(device->id);
          device->listed = true;
          // A dead device stays dead until it is stopped, even if it is still listed.
          if (device->inUse && !device->properties.alive) continue;
          bool wasAlive = device->properties.alive && !device->properties.uid.empty();
          device->properties = properties;
          device->properties.alive = true;
          if (!wasAlive && !first) KYO_LOG_AT(3, "Device %s (%u) is present", properties.uid.c_str(), device->id);
        }
      }
      for (KyoAudioObjectID id : listed) {
        if (std::find(now.begin(), now.end(), id) != now.end()) continue;
        Device* device = find(id);
        if (!device) continue;
        device->listed = false;
        // A closed device that leaves the list is gone; an open one dies by its stream.
        if (!device->inUse && device->properties.alive) {
          device->properties.alive = false;
          postLocked(id, kKyoPropertyDeviceIsAlive);
        }
      }
      changed = now != listed;
      listed = now;

      KyoAudioObjectID output = 0, input = 0;
      for (KyoAudioObjectID id : listed) {
        Device* device = find(id);
        if (device->properties.modelUID == "jack") {
          output = id;
          if (device->properties.inputChannels > 0) input = id;
          break;
        }
      }
      if (!output) {
        auto alsa = byUID.find("alsa:default");
        if (alsa != byUID.end() && find(alsa->second)->listed) output = alsa->second;
      }
      if (!output) {
        auto null = byUID.find("null");
        if (null != byUID.end()) output = null->second;
      }
      bool outputChanged = output != defaultOutput;
      bool inputChanged = input != defaultInput;
      defaultOutput = output;
      defaultInput = input;
      scanned = true;
      if (!first) {
        if (changed) postLocked(kKyoAudioObjectSystemObject, kKyoPropertyDevices);
        if (inputChanged) postLocked(kKyoAudioObjectSystemObject, kKyoPropertyDefaultInput);
        if (outputChanged) {
          postLocked(kKyoAudioObjectSystemObject, kKyoPropertyDefaultOutput);
          postLocked(kKyoAudioObjectSystemObject, kKyoPropertyDefaultSystemOutput);
        }
      }
    }
    sem_post(&wake);
  }

  // Listener thread: turns the backends' flags into events, scans every second,
  // and delivers what is pending, in order.
  void listen() {
    KyoHALNameThisThread("sonto-hal");
    listenerThreadID.store(std::this_thread::get_id());
    double nextScan = systemMonotonicSeconds() + kScanIntervalSeconds;
    while (!quit.load()) {
      double wait = std::max(0.0, nextScan - systemMonotonicSeconds());
      timespec until;
      clock_gettime(CLOCK_MONOTONIC, &until);
      auto nanoseconds = int64_t(until.tv_nsec) + int64_t(wait * 1e9);
      until.tv_sec += time_t(nanoseconds / 1000000000);
      until.tv_nsec = long(nanoseconds % 1000000000);
      while (sem_clockwait(&wake, CLOCK_MONOTONIC, &until) == -1 && errno == EINTR) {
      }
      while (sem_trywait(&wake) == 0) {
      }
      if (quit.load()) break;
      collectFlags();
      bool wantScan = false;
      {
        std::lock_guard<std::mutex> lock(mutex);
        wantScan = scanned;  // nothing to compare with before the first look
      }
      if (wantScan && systemMonotonicSeconds() >= nextScan) {
        scan();
        collectFlags();
        nextScan = systemMonotonicSeconds() + kScanIntervalSeconds;
      } else if (!wantScan) {
        nextScan = systemMonotonicSeconds() + kScanIntervalSeconds;
      }
      deliver();
    }
  }

  void collectFlags() {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& [id, device] : devices) {
      uint32_t bits = device->flags.exchange(0, std::memory_order_acquire);
      if (!bits) continue;
      if (bits & kKyoHALEventOverload) postLocked(id, kKyoPropertyProcessorOverload);
      if (bits & kKyoHALEventRateChanged) postLocked(id, kKyoPropertyNominalSampleRate);
      if ((bits & kKyoHALEventDied) && device->properties.alive) {
        device->properties.alive = false;
        postLocked(id, kKyoPropertyDeviceIsAlive);
      }
    }
  }

  void deliver() {
    while (true) {
      std::pair<KyoAudioObjectID, uint32_t> event;
      std::vector<std::shared_ptr<KyoHALListener>> targets;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (pending.empty()) return;
        event = pending.front();
        pending.pop_front();
        for (auto& [token, listener] : listeners) targets.push_back(listener);
      }
      KYO_LOG_AT(3, "Device event %u '%s'", event.first, KyoFourCharString(event.second).c_str());
      std::lock_guard<std::mutex> delivering(deliverMutex);
      for (auto& listener : targets) {
        // A listener removed by an earlier one of this event is not called.
        bool stillThere = false;
        {
          std::lock_guard<std::mutex> lock(mutex);
          for (auto& [token, l] : listeners) stillThere = stillThere || l == listener;
        }
        if (stillThere) (*listener)(event.first, event.second);
      }
    }
  }
};

KyoHAL& KyoHAL::shared() {
  static KyoHAL hal;
  return hal;
}

KyoHAL::KyoHAL() : m_state(std::make_unique<State>()) {}

std::vector<KyoAudioObjectID> KyoHAL::allDevices() {
  m_state->ensureScanned();
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->listed;
}

KyoAudioObjectID KyoHAL::defaultOutputDevice() {
  m_state->ensureScanned();
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->defaultOutput;
}

KyoAudioObjectID KyoHAL::defaultInputDevice() {
  m_state->ensureScanned();
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->defaultInput;
}

KyoAudioObjectID KyoHAL::deviceWithUID(const std::string& uid) {
  m_state->ensureScanned();
  std::lock_guard<std::mutex> lock(m_state->mutex);
  auto it = m_state->byUID.find(uid);
  if (it == m_state->byUID.end()) return 0;
  State::Device* device = m_state->find(it->second);
  if (!device) return 0;
  if (device->offline) return device->id;
  return device->listed && device->properties.alive ? device->id : 0;
}

int32_t KyoHAL::properties(KyoAudioObjectID id, KyoHALDeviceProperties& out) {
  std::shared_ptr<KyoHALOffline> offline;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    State::Device* device = m_state->find(id);
    if (!device) return kKyoHALBadDeviceError;
    if (!device->offline) {
      if (!device->properties.alive) return kKyoHALBadDeviceError;
      out = device->properties;
      return kKyoHALNoError;
    }
    offline = device->offline;
  }
  out = offline->properties();
  return kKyoHALNoError;
}

int32_t KyoHAL::setBufferSizeInFrames(KyoAudioObjectID id, uint32_t frames) {
  std::shared_ptr<KyoHALOffline> offline;
  KyoHALBackend* backend = nullptr;
  std::string uid;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    State::Device* device = m_state->find(id);
    if (!device) return kKyoHALBadDeviceError;
    offline = device->offline;
    if (!offline) {
      if (!device->properties.alive) return kKyoHALBadDeviceError;
      if (frames < device->properties.minBufferSizeInFrames || frames > device->properties.maxBufferSizeInFrames)
        return kKyoHALIllegalOperationError;
      backend = device->backend;
      uid = device->properties.uid;
    }
  }
  if (offline) return offline->setBufferSizeInFrames(frames);
  int32_t status = backend->setBufferSizeInFrames(uid, frames);
  if (status == kKyoHALNoError) {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    if (State::Device* device = m_state->find(id)) device->properties.bufferSizeInFrames = frames;
  }
  return status;
}

uint64_t KyoHAL::addListener(KyoHALListener listener) {
  if (!listener) return 0;
  std::lock_guard<std::mutex> lock(m_state->mutex);
  uint64_t token = m_state->nextToken++;
  m_state->listeners.emplace_back(token, std::make_shared<KyoHALListener>(std::move(listener)));
  return token;
}

void KyoHAL::removeListener(uint64_t token) {
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    auto& l = m_state->listeners;
    l.erase(std::remove_if(l.begin(), l.end(), [token](auto& entry) { return entry.first == token; }), l.end());
  }
  // Once removed, a listener is not running either, unless it is removing itself.
  if (m_state->listenerThreadID.load() != std::this_thread::get_id()) {
    std::lock_guard<std::mutex> wait(m_state->deliverMutex);
  }
}

int32_t KyoHAL::startIO(KyoAudioObjectID id, bool enableInput, KyoHALIOProc proc, void* client,
                        const std::string& clientName) {
  if (!proc) return kKyoHALIllegalOperationError;
  State::Device* device = nullptr;
  std::shared_ptr<KyoHALOffline> offline;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    device = m_state->find(id);
    if (!device) {
      KYO_LOG_STATUS_DETAIL(kKyoHALBadDeviceError, "No device " + std::to_string(id));
      return kKyoHALBadDeviceError;
    }
    offline = device->offline;
  }
  if (offline) return offline->start(enableInput, proc, client);

  std::lock_guard<std::mutex> io(device->ioMutex);
  for (auto& entry : device->streams) {
    if (entry.first == client) return kKyoHALIllegalOperationError;
  }
  KyoHALDeviceProperties properties;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    if (!device->properties.alive) {
      KYO_LOG_STATUS_DETAIL(kKyoHALBadDeviceError, "Device " + device->properties.uid + " is gone");
      return kKyoHALBadDeviceError;
    }
    device->inUse = true;
    properties = device->properties;
  }
  device->flags.fetch_and(~uint32_t(kKyoHALEventOverload));
  KyoHALStreamParameters parameters;
  parameters.enableInput = enableInput;
  parameters.proc = proc;
  parameters.client = client;
  parameters.events = &device->events;
  parameters.clientName = clientName;
  int32_t status = kKyoHALNoError;
  std::unique_ptr<KyoHALStream> stream = device->backend->start(properties, parameters, status);
  if (!stream) {
    if (status == kKyoHALNoError) status = kKyoHALUnsupportedError;
    std::lock_guard<std::mutex> lock(m_state->mutex);
    device->inUse = !device->streams.empty();
    return status;
  }
  device->streams.emplace_back(client, std::move(stream));
  return status;
}

int32_t KyoHAL::stopIO(KyoAudioObjectID id, void* client) {
  State::Device* device = nullptr;
  std::shared_ptr<KyoHALOffline> offline;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    device = m_state->find(id);
    if (!device) return kKyoHALBadDeviceError;
    offline = device->offline;
  }
  if (offline) return offline->stop();
  std::vector<std::unique_ptr<KyoHALStream>> stopped;
  bool stillInUse = false;
  {
    std::lock_guard<std::mutex> io(device->ioMutex);
    auto& streams = device->streams;
    auto chosen = [client](const auto& entry) { return !client || entry.first == client; };
    if (std::none_of(streams.begin(), streams.end(), chosen)) return kKyoHALNotRunningError;
    for (auto& entry : streams) {
      if (chosen(entry) && entry.second->isRenderThread()) return kKyoHALIllegalOperationError;
    }
    for (auto it = streams.begin(); it != streams.end();) {
      if (!chosen(*it)) {
        ++it;
        continue;
      }
      it->second->stop();
      stopped.push_back(std::move(it->second));
      it = streams.erase(it);
    }
    stillInUse = !streams.empty();
  }
  stopped.clear();
  std::lock_guard<std::mutex> lock(m_state->mutex);
  device->inUse = stillInUse;
  return kKyoHALNoError;
}

KyoAudioObjectID KyoHAL::createOfflineDevice(uint32_t outputChannels, double sampleRate, uint32_t bufferSizeInFrames,
                                             uint32_t inputChannels) {
  if (outputChannels == 0 || outputChannels > KyoHALOffline::kMaxChannels || inputChannels > KyoHALOffline::kMaxChannels ||
      !std::isfinite(sampleRate) || sampleRate < 1 || sampleRate > 1e6 || bufferSizeInFrames == 0 ||
      bufferSizeInFrames > KyoHALOffline::kMaxBufferSize) {
    KYO_LOG_STATUS_DETAIL(kKyoHALIllegalOperationError, "Offline device with " + std::to_string(outputChannels) +
                                                            " outputs, " + std::to_string(inputChannels) + " inputs, " +
                                                            std::to_string(bufferSizeInFrames) + " frames refused");
    return 0;
  }
  std::lock_guard<std::mutex> lock(m_state->mutex);
  KyoAudioObjectID id = m_state->newID();
  std::string uid = "offline:" + std::to_string(id);
  auto device = std::make_unique<State::Device>(id, nullptr, m_state->wake);
  device->offline = std::make_shared<KyoHALOffline>(uid, outputChannels, sampleRate, bufferSizeInFrames, inputChannels);
  device->properties = device->offline->properties();
  m_state->byUID[uid] = id;
  m_state->devices[id] = std::move(device);
  return id;
}

int32_t KyoHAL::pullOffline(KyoAudioObjectID id, uint32_t cycles) {
  std::shared_ptr<KyoHALOffline> offline;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    State::Device* device = m_state->find(id);
    if (!device || !device->offline) return kKyoHALBadDeviceError;
    offline = device->offline;
  }
  return offline->pull(cycles);
}

std::vector<std::vector<float>> KyoHAL::offlineRecording(KyoAudioObjectID id) {
  std::shared_ptr<KyoHALOffline> offline;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    State::Device* device = m_state->find(id);
    if (!device || !device->offline) return {};
    offline = device->offline;
  }
  return offline->recording();
}

void KyoHAL::clearOfflineRecording(KyoAudioObjectID id) {
  std::shared_ptr<KyoHALOffline> offline;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    State::Device* device = m_state->find(id);
    if (!device || !device->offline) return;
    offline = device->offline;
  }
  offline->clearRecording();
}

void KyoHAL::setOfflineInput(KyoAudioObjectID id, std::vector<std::vector<float>> input) {
  std::shared_ptr<KyoHALOffline> offline;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    State::Device* device = m_state->find(id);
    if (!device || !device->offline) return;
    offline = device->offline;
  }
  offline->setInput(std::move(input));
}

void KyoHAL::destroyOfflineDevice(KyoAudioObjectID id) {
  std::shared_ptr<KyoHALOffline> offline;
  {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    State::Device* device = m_state->find(id);
    if (!device || !device->offline) return;
    offline = std::move(device->offline);
    m_state->byUID.erase(offline->properties().uid);
    m_state->devices.erase(id);
  }
  offline->stop();
}

void KyoHAL::rescan() {
  {
    std::lock_guard<std::mutex> scanning(m_state->scanMutex);
    for (auto& backend : m_state->backends) backend->forget();
  }
  m_state->scan();
}
