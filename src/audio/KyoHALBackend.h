#pragma once
// One backend of the device layer (JACK, ALSA, null): it lists the devices it can
// see and starts a render stream on one of them. KyoHAL owns the numbering, the
// listener thread and the events; a backend knows only UIDs.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audio/KyoHAL.h"

// Events that a backend raises about one device, from any thread, the render thread
// included: bits set in an atomic word, then a wake of the listener thread. Neither
// allocates nor takes a lock.
enum KyoHALEventBits : uint32_t {
  kKyoHALEventOverload = 1u << 0,
  kKyoHALEventRateChanged = 1u << 1,
  kKyoHALEventDied = 1u << 2,
};

class KyoHALEventTarget {
 public:
  virtual ~KyoHALEventTarget() = default;
  virtual void post(uint32_t bits) = 0;
};

struct KyoHALStreamParameters {
  bool enableInput = false;
  KyoHALIOProc proc = nullptr;
  void* client = nullptr;
  KyoHALEventTarget* events = nullptr;  // outlives the stream
  // What the client is called where the backend names its clients (JACK's patchbay):
  // the show it plays, so that saved connections find it again. Empty: "Sonto".
  std::string clientName;
};

// A running device. The callback runs from start until stop; stop (and the
// destructor) returns only after the last callback has returned, and takes no lock
// that the callback could take.
class KyoHALStream {
 public:
  virtual ~KyoHALStream() = default;
  virtual void stop() = 0;
  // The thread running the callbacks is the caller: stopping from there would wait for itself.
  virtual bool isRenderThread() const = 0;
  // Properties that the running stream knows better than the last scan (0: unknown).
  virtual uint32_t bufferSizeInFrames() const { return 0; }
};

class KyoHALBackend {
 public:
  virtual ~KyoHALBackend() = default;
  virtual const char* name() const = 0;

  // The devices present now, in a stable order. Called by one thread at a time (the
  // caller of rescan or the listener thread); it may take a while. uidsInUse are
  // devices that this layer has open: a backend must not probe them.
  virtual std::vector<KyoHALDeviceProperties> scan(const std::vector<std::string>& uidsInUse) = 0;
  // Drops cached knowledge so that the next scan looks afresh.
  virtual void forget() {}

  // Opens and starts the device. Null with a status (already logged) on failure.
  virtual std::unique_ptr<KyoHALStream> start(const KyoHALDeviceProperties& device,
                                              const KyoHALStreamParameters& parameters, int32_t& status) = 0;

  // Changes the period of the device, running or not; a status.
  virtual int32_t setBufferSizeInFrames(const std::string& uid, uint32_t frames) { return kKyoHALUnsupportedError; }
};

// Names the calling thread for debuggers and top (at most 15 characters).
void KyoHALNameThisThread(const char* name);
// Asks for SCHED_FIFO at the given priority for the calling thread; false (and no
// change) when the system does not allow it.
bool KyoHALMakeThisThreadRealTime(int priority);
