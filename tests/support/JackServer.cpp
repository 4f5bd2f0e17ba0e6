#include "support/JackServer.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

extern char** environ;

namespace sonto::test {

namespace {

bool onPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string paths = path ? path : "/usr/bin:/bin";
  size_t begin = 0;
  while (begin <= paths.size()) {
    size_t end = paths.find(':', begin);
    if (end == std::string::npos) end = paths.size();
    std::string candidate = paths.substr(begin, end - begin) + "/" + program;
    if (access(candidate.c_str(), X_OK) == 0) return true;
    begin = end + 1;
  }
  return false;
}

// Runs a program with its output discarded and extra environment entries
// ("NAME=value"); the child's pid, or -1.
pid_t spawnQuietly(const std::vector<std::string>& arguments, const std::vector<std::string>& extraEnvironment = {}) {
  std::vector<char*> envp;
  for (const auto& entry : extraEnvironment) envp.push_back(const_cast<char*>(entry.c_str()));
  for (char** e = environ; *e; ++e) envp.push_back(*e);
  envp.push_back(nullptr);
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

int waitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

// A jackd under this name whose test died before it could end it (a sanitizer
// halting the run). The name's lock is ours, so no live test owns that server.
void endOrphanServer(const std::string& name) {
  DIR* proc = opendir("/proc");
  if (!proc) return;
  const std::string wanted = std::string("jackd") + '\0' + "-n" + '\0' + name + '\0';
  std::vector<pid_t> orphans;
  while (dirent* entry = readdir(proc)) {
    const pid_t pid = pid_t(atoi(entry->d_name));
    if (pid <= 0) continue;
    // Plain read(): a process that ends while we look fails the read with ESRCH,
    // which a stream would throw on.
    const std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    std::string cmdline(wanted.size(), '\0');
    const ssize_t n = read(fd, cmdline.data(), cmdline.size());
    close(fd);
    if (n == ssize_t(wanted.size()) && cmdline == wanted) orphans.push_back(pid);
  }
  closedir(proc);
  for (pid_t pid : orphans) {
    ::kill(pid, SIGKILL);
    // Not our child: wait for it to be gone from /proc, for a few seconds at most.
    for (int i = 0; i < 500 && ::kill(pid, 0) == 0; ++i) usleep(10000);
  }
}

}  // namespace

bool JackServer::installed() { return onPath("jackd") && onPath("jack_wait"); }

std::string JackServer::processServerName() {
  static const std::string* name = [] {
    constexpr int kNames = 4;
    for (int k = 0; k < kNames; ++k) {
      std::string lock = "/tmp/sonto-jack-test-" + std::to_string(getuid()) + "-" + std::to_string(k) + ".lock";
      int fd = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      if (fd < 0) continue;
      // Held until the process ends; the descriptor is never closed.
      if (flock(fd, LOCK_EX | LOCK_NB) == 0) return new std::string("sonto-test-" + std::to_string(k));
      close(fd);
    }
    return new std::string();
  }();
  return *name;
}

JackServer::JackServer() : m_name(processServerName()) {}

JackServer::~JackServer() { kill(SIGTERM); }

bool JackServer::start(unsigned periodFrames, unsigned playbackPorts) {
  if (running()) return true;
  if (m_name.empty()) {
    m_error = "every private JACK server name is in use by other test runs";
    return false;
  }
  // A server that ends at once is tried again: on a loaded machine a server of the
  // same name that another test just ended may still hold its socket for a moment.
  for (int attempt = 0; attempt < 3; ++attempt) {
    endOrphanServer(m_name);
    m_pid = spawnQuietly({"jackd", "-n", m_name, "-R", "-d", "dummy", "-r", "48000", "-p", std::to_string(periodFrames),
                          "-P", std::to_string(playbackPorts)});
    if (m_pid <= 0) {
      m_error = "jackd could not be run";
      m_pid = -1;
      return false;
    }
    pid_t waiter = spawnQuietly({"jack_wait", "-w", "-t", "10"}, {"JACK_DEFAULT_SERVER=" + m_name});
    int status = waiter > 0 ? waitFor(waiter) : -1;
    if (status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    m_error = "jackd -n " + m_name + " did not come up in three tries of up to 10 seconds";
    kill(SIGKILL);
    usleep(200000);
  }
  return false;
}

void JackServer::kill(int signal) {
  if (m_pid <= 0) return;
  ::kill(m_pid, signal);
  waitFor(m_pid);
  m_pid = -1;
}

}  // namespace sonto::test
