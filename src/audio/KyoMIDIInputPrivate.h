#pragma once
// The parts of the MIDI input that its two layers share.

#include <jack/types.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "audio/KyoMIDIInput.h"

// Where a stream's batches go: filtered, then posted to the main thread. Held by
// the posted work too, so that a stream may go away while a batch is on its way.
struct KyoMIDIDelivery : std::enable_shared_from_this<KyoMIDIDelivery> {
  std::mutex mutex;
  KyoMIDIMessageDestination destination;
  // Any thread but the render thread: allocates.
  void deliver(KyoMIDIMessages batch);
};

// A JACK MIDI input port connected to the server's physical MIDI sources. The
// process callback (JACK's real-time thread) only copies note messages into a
// lock-free ring; a thread of ours turns each cycle's messages into one batch.
class KyoMIDIJackInput {
 public:
  // Null when no JACK server runs (not an error).
  static std::unique_ptr<KyoMIDIJackInput> create(std::shared_ptr<KyoMIDIDelivery> delivery);
  ~KyoMIDIJackInput();

  std::string portName() const;
  void connectSources();

 private:
  KyoMIDIJackInput() = default;
  static int process(jack_nframes_t frames, void* arg);
  static void portRegistered(jack_port_id_t port, int registered, void* arg);
  static void shutdown(void* arg);
  void deliveryLoop();

  struct Entry {
    KyoMIDIMessage message;
    bool endOfBatch;
  };
  static constexpr uint32_t kRingSize = 4096;  // a power of two
  std::array<Entry, kRingSize> m_ring{};
  std::atomic<uint32_t> m_head{0};  // written by the process callback
  std::atomic<uint32_t> m_tail{0};  // written by the delivery thread
  std::atomic<uint32_t> m_dropped{0};
  static_assert(std::atomic<uint32_t>::is_always_lock_free);

  jack_client_t* m_client = nullptr;
  jack_port_t* m_port = nullptr;
  std::shared_ptr<KyoMIDIDelivery> m_delivery;
  sem_t m_wake;
  std::atomic<bool> m_stop{false};
  std::atomic<bool> m_sourcesChanged{false};
  std::atomic<bool> m_serverGone{false};
  std::thread m_thread;
};
