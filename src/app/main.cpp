#include <cstdio>
#include <cstring>
#include <string>

#include "app/Commands.h"

namespace {
void usage() {
  std::fprintf(stderr,
               "usage: sonto info FILE...\n"
               "       sonto devices\n"
               "  info FILE...   what Sonto's file reader makes of each audio file\n"
               "  devices        the output devices, the default marked\n");
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage();
    return 2;
  }
  std::string command = argv[1];
  if (command == "info") return sontoInfoCommand(argc - 2, argv + 2);
  if (command == "devices") return sontoDevicesCommand(argc - 2, argv + 2);
  if (command == "-h" || command == "--help" || command == "help") {
    usage();
    return 0;
  }
  std::fprintf(stderr, "sonto: unknown command '%s'\n", argv[1]);
  usage();
  return 2;
}
