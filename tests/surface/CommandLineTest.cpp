// The sonto binary run without a display: what is neither a command, a show nor one
// of Qt's options is told with the usage, before Qt would abort for want of a display.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/TestFiles.h"

TEST(CommandLineTest, WhatIsNoShowIsToldWithTheUsageAndNoDisplay) {
  const std::string binary = sonto::test::sontoBinary();
  if (binary.empty()) GTEST_SKIP() << "the sonto binary is not built beside the tests";
  const std::string f = sonto::test::temporaryPath("command-line");
  for (const char* made : {"/Show.sonto", "/Named/document", "/Plain", "/.Cut.sonto.previous"})
    std::filesystem::create_directories(f + made);
  std::ofstream(f + "/notes.txt") << "not a show";
  const struct {
    std::string arguments;
    int status;
    std::string message;  // on stdout for 0, on stderr otherwise
  } cases[] = {
      {"--help", 0, "usage: sonto"},
      // Qt's options and shows that the window would open, up to the one bad word.
      {"-platform xcb -style=Fusion --reverse " + f + "/Show.sonto/ " + f + "/Named " + f + "/Cut.sonto frobnicate", 2,
       "sonto: unknown command 'frobnicate'\nusage: sonto"},
      {f + "/Gone.sonto", 2, "sonto: no show at '" + f + "/Gone.sonto': no such file or folder"},
      {f + "/notes.txt", 2, "notes.txt' is a file, not a show (a show is a folder NAME.sonto)"},
      {f + "/Plain", 2, "Plain' is a folder, not a show"},
      {"--frobnicate", 2, "sonto: unknown option '--frobnicate'"},
  };
  for (const auto& [arguments, status, message] : cases) {
    const std::string said = f + "/said";  // only the stream that should speak
    EXPECT_EQ(sonto::test::run("env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM " + binary + " " + arguments +
                               (status ? " 2>" + said + " >/dev/null" : " >" + said + " 2>/dev/null")),
              status)
        << arguments;
    std::stringstream text;
    text << std::ifstream(said).rdbuf();
    EXPECT_NE(text.str().find(message), std::string::npos) << arguments << ": " << text.str();
  }
}
