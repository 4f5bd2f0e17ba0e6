#pragma once
// A private JACK server for tests: jackd on the dummy driver under a name that this
// process holds alone. JACK's registry keeps a handful of server names and frees a
// dead server's entry only for a server of the same name, so the names come from a
// small fixed set ("sonto-test-0".."sonto-test-3"), each held by one process at a
// time through a lock file. The environment is never changed here: threads of the
// device layer read it. A test binary names the server once, before any thread runs
// (setenv("JACK_DEFAULT_SERVER", JackServer::processServerName())).

#include <sys/types.h>

#include <string>

namespace sonto::test {

class JackServer {
 public:
  // True when jackd and jack_wait can be run.
  static bool installed();

  // The name this process holds; every JackServer of the process serves under it,
  // one at a time. Empty when every name is held by other processes.
  static std::string processServerName();

  JackServer();
  ~JackServer();
  JackServer(const JackServer&) = delete;
  JackServer& operator=(const JackServer&) = delete;

  // Starts jackd (48 kHz, the given period and playback ports) and waits until
  // clients can connect. False, with the reason in error(), when it would not come up.
  bool start(unsigned periodFrames = 128, unsigned playbackPorts = 2);
  // Ends the server with the signal and reaps it; SIGKILL stands for a crash.
  void kill(int signal);

  const std::string& name() const { return m_name; }
  const std::string& error() const { return m_error; }
  bool running() const { return m_pid > 0; }

 private:
  std::string m_name;
  std::string m_error;
  pid_t m_pid = -1;
};

}  // namespace sonto::test
