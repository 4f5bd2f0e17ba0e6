#include <cstdio>

#include "app/Commands.h"

int sontoInfoCommand(int argc, char** argv) {
  std::fprintf(stderr, "sonto info: not available yet\n");
  return 1;
}
