// The window quits on SIGTERM, SIGINT and SIGHUP as Quit does, with its devices
// closed and no question asked, instead of dying with them open; and what it says on
// the way is meant for a person.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TestFiles.h"

TEST(QuitSignal, TermIntAndHupCloseTheShowsAndExitCleanly) {
  const std::string binary = sonto::test::sontoBinary();
  if (binary.empty()) GTEST_SKIP() << "the sonto binary is not built beside the tests";
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    SCOPED_TRACE(sigabbrev_np(signal));
    const std::string log = sonto::test::temporaryPath("quit-" + std::to_string(signal) + ".log");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      freopen(log.c_str(), "w", stderr);
      setenv("QT_QPA_PLATFORM", "offscreen", 1);
      execl(binary.c_str(), binary.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    // Up once the untitled show has its window; generous, as the machine may be busy.
    bool up = false;
    for (int i = 0; i < 600 && !up; ++i) {
      usleep(50000);
      up = sonto::test::readText(log).find("Launching at log level") != std::string::npos;
    }
    ASSERT_TRUE(up) << sonto::test::readText(log);
    kill(child, signal);
    int status = 0;
    pid_t done = 0;
    for (int i = 0; i < 400 && done == 0; ++i) {
      done = waitpid(child, &status, WNOHANG);
      if (done == 0) usleep(25000);
    }
    if (done == 0) kill(child, SIGKILL), waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << "\n" << sonto::test::readText(log);
    const std::string text = sonto::test::readText(log);
    EXPECT_NE(text.find(std::string("Quitting on SIG") + sigabbrev_np(signal)), std::string::npos) << text;
    // A machine without MIDI or sound hardware says so once, in words: no library's
    // own complaints, no status numbers.
    for (const char* noise : {"ERROR", "Error: -", "ALSA lib", "Cannot connect to server"}) {
      EXPECT_EQ(text.find(noise), std::string::npos) << noise << " in\n" << text;
    }
    EXPECT_EQ(text.find("ALSA sequencer"), text.rfind("ALSA sequencer")) << text;
  }
}
