#include <jack/jack.h>
#include <jack/midiport.h>

#include <cerrno>

#include "audio/KyoHALJack.h"
#include "audio/KyoMIDIInputPrivate.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"

std::unique_ptr<KyoMIDIJackInput> KyoMIDIJackInput::create(std::shared_ptr<KyoMIDIDelivery> delivery) {
  jack_status_t status;
  KyoJackReportToLog();
  jack_client_t* client = jack_client_open("Sonto MIDI", JackNoStartServer, &status);
  if (!client) {
    KYO_LOG_AT(3, "No JACK MIDI input: no server (status 0x%x)\n", unsigned(status));
    return nullptr;
  }
  std::unique_ptr<KyoMIDIJackInput> input(new KyoMIDIJackInput());
  input->m_client = client;
  input->m_delivery = std::move(delivery);
  sem_init(&input->m_wake, 0, 0);
  input->m_port =
      jack_port_register(client, "MIDI in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput | JackPortIsTerminal, 0);
  if (!input->m_port || jack_set_process_callback(client, &KyoMIDIJackInput::process, input.get()) != 0) {
    KyoLog("Error: JACK refused the MIDI input port\n");
    jack_client_close(client);
    input->m_client = nullptr;
    sem_destroy(&input->m_wake);
    return nullptr;
  }
  jack_set_port_registration_callback(client, &KyoMIDIJackInput::portRegistered, input.get());
  jack_on_shutdown(client, &KyoMIDIJackInput::shutdown, input.get());
  input->m_thread = std::thread([raw = input.get()] { raw->deliveryLoop(); });
  if (jack_activate(client) != 0) {
    KyoLog("Error: the JACK MIDI input could not be activated\n");
    return nullptr;  // the destructor ends the thread and closes the client
  }
  input->connectSources();
  return input;
}

KyoMIDIJackInput::~KyoMIDIJackInput() {
  // Callbacks end before the ring and the semaphore go. libjack cannot close a
  // client whose server has died: that one is left for the process's end, with the
  // callbacks that could still touch this object already ended by the shutdown.
  if (m_client && !m_serverGone.load()) {
    jack_deactivate(m_client);
    jack_client_close(m_client);
  }
  m_stop = true;
  if (m_thread.joinable()) {
    sem_post(&m_wake);
    m_thread.join();
  }
  sem_destroy(&m_wake);
}

std::string KyoMIDIJackInput::portName() const { return m_port ? jack_port_name(m_port) : ""; }

void KyoMIDIJackInput::connectSources() {
  if (m_serverGone.load()) return;
  const char** ports = jack_get_ports(m_client, nullptr, JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput | JackPortIsPhysical);
  if (!ports) return;
  for (const char** p = ports; *p; ++p)
    if (!jack_port_connected_to(m_port, *p)) jack_connect(m_client, *p, jack_port_name(m_port));
  jack_free(ports);
}

// JACK's real-time thread: no allocation, no lock.
int KyoMIDIJackInput::process(jack_nframes_t frames, void* arg) {
  auto* self = static_cast<KyoMIDIJackInput*>(arg);
  void* buffer = jack_port_get_buffer(self->m_port, frames);
  const uint32_t count = jack_midi_get_event_count(buffer);
  uint32_t head = self->m_head.load(std::memory_order_relaxed);
  const uint32_t first = head;
  for (uint32_t i = 0; i < count; ++i) {
    jack_midi_event_t event;
    if (jack_midi_event_get(&event, buffer, i) != 0 || event.size < 3) continue;
    const KyoMIDIMessage message{event.buffer[0], uint8_t(event.buffer[1] & 0x7F), uint8_t(event.buffer[2] & 0x7F)};
    if (!KyoMIDIInputStream::passesFilter(message)) continue;
    if (head - self->m_tail.load(std::memory_order_acquire) >= kRingSize) {
      self->m_dropped.fetch_add(1, std::memory_order_relaxed);
      continue;
    }
    self->m_ring[head & (kRingSize - 1)] = {message, false};
    ++head;
  }
  if (head != first) {
    // The cycle's messages are one batch: mark its last one, then publish them all.
    self->m_ring[(head - 1) & (kRingSize - 1)].endOfBatch = true;
    self->m_head.store(head, std::memory_order_release);
    sem_post(&self->m_wake);
  }
  return 0;
}

// JACK's notification thread, which must not call back into the server.
void KyoMIDIJackInput::portRegistered(jack_port_id_t, int registered, void* arg) {
  auto* self = static_cast<KyoMIDIJackInput*>(arg);
  if (!registered) return;
  self->m_sourcesChanged = true;
  sem_post(&self->m_wake);
}

void KyoMIDIJackInput::shutdown(void* arg) {
  auto* self = static_cast<KyoMIDIJackInput*>(arg);
  KyoLog("Warning: the JACK server has gone; MIDI from JACK is no longer heard\n");
  self->m_serverGone = true;  // the last touch: the stream may go at once after it
}

void KyoMIDIJackInput::deliveryLoop() {
  KyoMIDIMessages batch;
  uint32_t reportedDrops = 0;
  for (;;) {
    while (sem_wait(&m_wake) != 0 && errno == EINTR) {
    }
    if (m_stop.load()) return;
    if (m_sourcesChanged.exchange(false)) connectSources();
    const uint32_t head = m_head.load(std::memory_order_acquire);
    uint32_t tail = m_tail.load(std::memory_order_relaxed);
    for (; tail != head; ++tail) {
      const Entry entry = m_ring[tail & (kRingSize - 1)];
      batch.push_back(entry.message);
      if (entry.endOfBatch) {
        m_delivery->deliver(std::move(batch));
        batch.clear();
      }
    }
    m_tail.store(tail, std::memory_order_release);
    const uint32_t dropped = m_dropped.load(std::memory_order_relaxed);
    if (dropped != reportedDrops) {
      KyoLog("Warning: %u MIDI messages lost: too many in one JACK cycle\n", dropped - reportedDrops);
      reportedDrops = dropped;
    }
  }
}
