#pragma once
// A private JACK server for tests: jackd on the dummy driver under a server name of
// its own, made the process's default server (JACK_DEFAULT_SERVER) while it lives.

#include <sys/types.h>

#include <string>

namespace sonto::test {

class JackServer {
 public:
  // True when jackd and jack_wait can be run.
  static bool installed();

  // A name unique to this process and call ("sonto-PID-N").
  JackServer();
  ~JackServer();
  JackServer(const JackServer&) = delete;
  JackServer& operator=(const JackServer&) = delete;

  // Starts jackd (48 kHz, the given period) and waits until clients can connect.
  // False, with the reason in error(), when it would not come up.
  bool start(unsigned periodFrames = 128);
  // Ends the server with the signal and reaps it; SIGKILL stands for a crash.
  void kill(int signal);

  const std::string& name() const { return m_name; }
  const std::string& error() const { return m_error; }
  bool running() const { return m_pid > 0; }

 private:
  std::string m_name;
  std::string m_error;
  std::string m_previousServer;
  bool m_hadPreviousServer = false;
  bool m_environmentSet = false;
  pid_t m_pid = -1;
};

}  // namespace sonto::test
