#pragma once
// A JACK server (jackd, or PipeWire's JACK layer) as one device, "jack:" plus the
// server's name ("default" unless JACK_DEFAULT_SERVER names another). Its output
// channels are the server's physical playback ports, connected on start; its inputs
// the physical capture ports. The server's shutdown is the device's death, an xrun
// an overload. No server running: nothing listed, and starting fails at once.

#include <atomic>
#include <mutex>
#include <string>

#include "audio/KyoHALBackend.h"

typedef struct _jack_client jack_client_t;

// libjack's own lines ("Cannot connect to server socket", "jack server is not
// running") go to the log at the developers' level from the first call on.
void KyoJackReportToLog();

class KyoHALJack : public KyoHALBackend {
 public:
  KyoHALJack();
  ~KyoHALJack() override;

  const char* name() const override { return "jack"; }
  std::vector<KyoHALDeviceProperties> scan(const std::vector<std::string>& uidsInUse) override;
  void forget() override;
  std::unique_ptr<KyoHALStream> start(const KyoHALDeviceProperties& device, const KyoHALStreamParameters& parameters,
                                      int32_t& status) override;
  int32_t setBufferSizeInFrames(const std::string& uid, uint32_t frames) override;

  // The server this process talks to: JACK_DEFAULT_SERVER, else "default".
  static std::string serverName();

 private:
  void closeMonitor();

  // A client of our own that stays connected while the server runs, so that a scan
  // costs no new connection and the server's end is seen at once. Scans only.
  std::mutex m_mutex;
  jack_client_t* m_monitor = nullptr;
  std::string m_monitorServer;
  std::atomic<bool> m_monitorLost{false};
};
