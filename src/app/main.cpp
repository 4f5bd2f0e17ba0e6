#include <cstdio>
#include <cstring>
#include <string>

#include "app/Commands.h"
#ifdef SONTO_HAS_SURFACE
#include "app/SontoApplication.h"
#endif

namespace {
void usage(FILE* stream) {
  std::fprintf(stream,
               "usage: sonto [WORKSPACE...]\n"
               "       sonto info FILE...\n"
               "       sonto devices\n"
               "       sonto check [--json] SHOW...\n"
               "       sonto render WORKSPACE -o OUT.wav [--rate HZ] [--buffer FRAMES] [--seconds S] [--events FILE]\n"
               "  (no command)   opens the window: an untitled show, or the shows given\n"
               "  info FILE...   what Sonto's file reader makes of each audio file\n"
               "  devices        the output devices, the default marked\n"
               "  check          the safety check of each show: broken cues, clashing triggers, cues\n"
               "                 outside the grid, and what was mended in its file (--json: as JSON)\n"
               "  render         the show rendered offline to a WAV, with a script of keys and notes\n");
}
}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc >= 2 ? argv[1] : "";
  if (command == "info") return sontoInfoCommand(argc - 2, argv + 2);
  if (command == "devices") return sontoDevicesCommand(argc - 2, argv + 2);
  if (command == "render") return sontoRenderCommand(argc - 2, argv + 2);
  if (command == "check") return sontoCheckCommand(argc - 2, argv + 2);
  if (command == "-h" || command == "--help" || command == "help") {
    usage(stdout);
    return 0;
  }
#ifdef SONTO_HAS_SURFACE
  // Anything else is shows to open and Qt's own options, checked before Qt looks for
  // a display: a mistyped command is told here, not by a window or a crash.
  const std::string problem = sontoShowArgumentsProblem(argc - 1, argv + 1);
  if (problem.empty()) return sontoRunApplication(argc, argv);
  std::fprintf(stderr, "sonto: %s\n", problem.c_str());
#else
  if (argc >= 2) std::fprintf(stderr, "sonto: unknown command '%s'\n", argv[1]);
#endif
  usage(stderr);
  return 2;
}
