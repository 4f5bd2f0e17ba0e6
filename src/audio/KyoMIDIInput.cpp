#include "audio/KyoMIDIInput.h"

#include <alsa/asoundlib.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "audio/KyoHALAlsa.h"
#include "audio/KyoMIDIInputPrivate.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

// ---------------------------------------------------------------------------------
// Delivery to the main thread.

void KyoMIDIDelivery::deliver(KyoMIDIMessages batch) {
  std::erase_if(batch, [](const KyoMIDIMessage& m) { return !KyoMIDIInputStream::passesFilter(m); });
  if (batch.empty()) return;
  KyoCurrentClock().runOnMain(
      [self = shared_from_this(), batch = std::move(batch)] {
        KyoMIDIMessageDestination destination;
        {
          std::lock_guard<std::mutex> lock(self->mutex);
          destination = self->destination;
        }
        if (destination) destination(batch);
      },
      false);
}

KyoMIDIInputStream::KyoMIDIInputStream() : m_delivery(std::make_shared<KyoMIDIDelivery>()) {}

KyoMIDIInputStream::~KyoMIDIInputStream() { setMessageDestination(nullptr); }

void KyoMIDIInputStream::setMessageDestination(KyoMIDIMessageDestination destination) {
  std::lock_guard<std::mutex> lock(m_delivery->mutex);
  m_delivery->destination = std::move(destination);
}

// ---------------------------------------------------------------------------------
// The ALSA sequencer client "Sonto", shared by both streams.

class KyoMIDIALSAClient {
 public:
  // The one client of the process, opened on first use.
  static std::shared_ptr<KyoMIDIALSAClient> shared(KyoMIDIError& error);
  ~KyoMIDIALSAClient();

  // A port that hears its subscribers. With `exported`, other programs see it and
  // connect to it; otherwise only we subscribe it to sources. Answers the port
  // number or a negative ALSA status.
  int createPort(const char* name, bool exported, int wantedNumber, std::shared_ptr<KyoMIDIDelivery> delivery);
  void deletePort(int port);
  // Subscribes `port` to every readable port of other clients, and to the
  // announcements of ports that come later.
  void followAllSources(int port);
  void subscribeAll();

 private:
  KyoMIDIALSAClient() = default;
  void readLoop();
  void handle(const snd_seq_event_t* event, std::map<int, KyoMIDIMessages>& batches);
  void subscribe(int client, int port);

  std::mutex m_mutex;  // the sequencer handle and the port table; never held across poll
  snd_seq_t* m_seq = nullptr;
  int m_clientID = -1;
  int m_followingPort = -1;
  std::map<int, std::weak_ptr<KyoMIDIDelivery>> m_ports;
  int m_wake = -1;  // eventfd that ends the reader
  std::atomic<bool> m_stop{false};
  std::thread m_reader;
};

namespace {
std::mutex gClientMutex;
std::weak_ptr<KyoMIDIALSAClient> gClient;
}  // namespace

std::shared_ptr<KyoMIDIALSAClient> KyoMIDIALSAClient::shared(KyoMIDIError& error) {
  std::lock_guard<std::mutex> lock(gClientMutex);
  if (auto client = gClient.lock()) return client;
  KyoALSAReportToLog();
  snd_seq_t* seq = nullptr;
  int status = snd_seq_open(&seq, "default", SND_SEQ_OPEN_DUPLEX, SND_SEQ_NONBLOCK);
  if (status < 0) {
    error = {"ALSASequencerUnavailable",
             std::string("the ALSA sequencer could not be opened: ") + snd_strerror(status)};
    return nullptr;
  }
  snd_seq_set_client_name(seq, "Sonto");
  std::shared_ptr<KyoMIDIALSAClient> client(new KyoMIDIALSAClient());
  client->m_seq = seq;
  client->m_clientID = snd_seq_client_id(seq);
  client->m_wake = eventfd(0, EFD_CLOEXEC);
  if (client->m_wake < 0) {
    error = {"ALSASequencerUnavailable", "no event descriptor for the MIDI reader"};
    return nullptr;
  }
  client->m_reader = std::thread([raw = client.get()] { raw->readLoop(); });
  gClient = client;
  return client;
}

KyoMIDIALSAClient::~KyoMIDIALSAClient() {
  m_stop = true;
  if (m_wake >= 0) {
    uint64_t one = 1;
    if (write(m_wake, &one, sizeof one) < 0) KYO_LOG_STATUS(errno);
  }
  if (m_reader.joinable()) m_reader.join();
  if (m_wake >= 0) close(m_wake);
  if (m_seq) snd_seq_close(m_seq);
}

int KyoMIDIALSAClient::createPort(const char* name, bool exported, int wantedNumber,
                                  std::shared_ptr<KyoMIDIDelivery> delivery) {
  std::lock_guard<std::mutex> lock(m_mutex);
  snd_seq_port_info_t* info;
  snd_seq_port_info_alloca(&info);
  snd_seq_port_info_set_name(info, name);
  unsigned caps = SND_SEQ_PORT_CAP_WRITE;
  if (exported) caps |= SND_SEQ_PORT_CAP_SUBS_WRITE;
  snd_seq_port_info_set_capability(info, caps);
  snd_seq_port_info_set_type(info, SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
  if (wantedNumber >= 0) {
    snd_seq_port_info_set_port(info, wantedNumber);
    snd_seq_port_info_set_port_specified(info, 1);
  }
  int status = snd_seq_create_port(m_seq, info);
  if (status < 0) return status;
  const int port = snd_seq_port_info_get_port(info);
  m_ports[port] = delivery;
  return port;
}

void KyoMIDIALSAClient::deletePort(int port) {
  std::lock_guard<std::mutex> lock(m_mutex);
  snd_seq_delete_port(m_seq, port);
  m_ports.erase(port);
  if (port == m_followingPort) m_followingPort = -1;
}

void KyoMIDIALSAClient::followAllSources(int port) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_followingPort = port;
    snd_seq_connect_from(m_seq, port, SND_SEQ_CLIENT_SYSTEM, SND_SEQ_PORT_SYSTEM_ANNOUNCE);
  }
  subscribeAll();
}

void KyoMIDIALSAClient::subscribeAll() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_followingPort < 0) return;
  snd_seq_client_info_t* client;
  snd_seq_port_info_t* port;
  snd_seq_client_info_alloca(&client);
  snd_seq_port_info_alloca(&port);
  snd_seq_client_info_set_client(client, -1);
  while (snd_seq_query_next_client(m_seq, client) >= 0) {
    const int id = snd_seq_client_info_get_client(client);
    snd_seq_port_info_set_client(port, id);
    snd_seq_port_info_set_port(port, -1);
    while (snd_seq_query_next_port(m_seq, port) >= 0) subscribe(id, snd_seq_port_info_get_port(port));
  }
}

// Under m_mutex.
void KyoMIDIALSAClient::subscribe(int client, int port) {
  if (client == m_clientID || client == SND_SEQ_CLIENT_SYSTEM || m_followingPort < 0) return;
  snd_seq_port_info_t* info;
  snd_seq_port_info_alloca(&info);
  if (snd_seq_get_any_port_info(m_seq, client, port, info) < 0) return;
  const unsigned caps = snd_seq_port_info_get_capability(info);
  const unsigned wanted = SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ;
  if ((caps & wanted) != wanted || (caps & SND_SEQ_PORT_CAP_NO_EXPORT)) return;
  // Already subscribed answers -EBUSY: nothing to do.
  snd_seq_connect_from(m_seq, m_followingPort, client, port);
}

void KyoMIDIALSAClient::handle(const snd_seq_event_t* event, std::map<int, KyoMIDIMessages>& batches) {
  switch (event->type) {
    case SND_SEQ_EVENT_NOTEON:
    case SND_SEQ_EVENT_NOTEOFF: {
      const uint8_t kind = event->type == SND_SEQ_EVENT_NOTEON ? 0x90 : 0x80;
      KyoMIDIMessage m{uint8_t(kind | (event->data.note.channel & 0x0F)), uint8_t(event->data.note.note & 0x7F),
                       uint8_t(event->data.note.velocity & 0x7F)};
      batches[event->dest.port].push_back(m);
      break;
    }
    case SND_SEQ_EVENT_PORT_START:
      subscribe(event->data.addr.client, event->data.addr.port);
      break;
    default:
      break;  // everything else is filtered out
  }
}

// Reader thread: waits on the sequencer, takes every pending event, and hands the
// events of one wake-up to each port's stream as one batch.
void KyoMIDIALSAClient::readLoop() {
  std::vector<pollfd> fds;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    const int count = snd_seq_poll_descriptors_count(m_seq, POLLIN);
    fds.resize(size_t(count) + 1);
    snd_seq_poll_descriptors(m_seq, fds.data() + 1, unsigned(count), POLLIN);
  }
  fds[0] = {m_wake, POLLIN, 0};
  while (!m_stop.load()) {
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      KYO_LOG_STATUS(errno);
      return;
    }
    if (m_stop.load()) return;
    std::map<int, KyoMIDIMessages> batches;
    std::map<int, std::shared_ptr<KyoMIDIDelivery>> targets;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      snd_seq_event_t* event = nullptr;
      int status;
      while ((status = snd_seq_event_input(m_seq, &event)) >= 0 || status == -ENOSPC) {
        if (status >= 0 && event) handle(event, batches);
      }
      for (auto& [port, batch] : batches) {
        auto it = m_ports.find(port);
        if (it != m_ports.end()) targets[port] = it->second.lock();
      }
    }
    for (auto& [port, batch] : batches) {
      if (KyoEnvironment::logLevel() >= 3)
        for (const auto& m : batch) KyoLog("MIDI 0x%02x %u %u on port %d\n", m.status, m.data1, m.data2, port);
      auto& target = targets[port];
      if (target) target->deliver(std::move(batch));
    }
  }
}

// ---------------------------------------------------------------------------------
// The streams.

std::unique_ptr<KyoMIDIPortInputStream> KyoMIDIPortInputStream::create(KyoMIDIError& error) {
  std::unique_ptr<KyoMIDIPortInputStream> stream(new KyoMIDIPortInputStream());
  stream->m_alsa = KyoMIDIALSAClient::shared(stream->m_alsaError);
  if (stream->m_alsa) {
    const int port = stream->m_alsa->createPort("Sonto Input", false, -1, stream->m_delivery);
    if (port < 0) {
      stream->m_alsaError = {"ALSASequencerPortError",
                             std::string("the sequencer refused an input port: ") + snd_strerror(port)};
      stream->m_alsa.reset();
    } else {
      stream->m_alsa->followAllSources(port);
    }
  }
  stream->m_jack = KyoMIDIJackInput::create(stream->m_delivery);
  if (!stream->m_alsa && !stream->m_jack) {
    error = stream->m_alsaError;
    return nullptr;
  }
  return stream;
}

KyoMIDIPortInputStream::~KyoMIDIPortInputStream() {
  m_jack.reset();
  m_alsa.reset();
}

std::string KyoMIDIPortInputStream::jackPortName() const { return m_jack ? m_jack->portName() : std::string(); }

void KyoMIDIPortInputStream::refreshSources() {
  if (m_alsa) m_alsa->subscribeAll();
  if (m_jack) m_jack->connectSources();
}

std::unique_ptr<KyoMIDIVirtualInputStream> KyoMIDIVirtualInputStream::create(KyoMIDIError& error) {
  std::unique_ptr<KyoMIDIVirtualInputStream> stream(new KyoMIDIVirtualInputStream());
  stream->m_alsa = KyoMIDIALSAClient::shared(error);
  if (!stream->m_alsa) return nullptr;
  stream->m_port = stream->m_alsa->createPort("Sonto", true, -1, stream->m_delivery);
  if (stream->m_port < 0) {
    error = {"ALSASequencerPortError", std::string("the sequencer refused the port: ") + snd_strerror(stream->m_port)};
    return nullptr;
  }
  return stream;
}

KyoMIDIVirtualInputStream::~KyoMIDIVirtualInputStream() {
  if (m_alsa && m_port >= 0) m_alsa->deletePort(m_port);
}

bool KyoMIDIVirtualInputStream::setUniqueID(int32_t uniqueID) {
  if (uniqueID == m_port) return true;
  if (uniqueID < 0 || uniqueID > 0xFF) return false;
  const int port = m_alsa->createPort("Sonto", true, uniqueID, m_delivery);
  if (port < 0) return false;
  m_alsa->deletePort(m_port);
  m_port = port;
  return true;
}

int32_t KyoMIDIVirtualInputStream::uniqueID() const { return m_port; }
