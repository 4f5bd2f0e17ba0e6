#include "foundation/KyoFileKind.h"

#include <sys/stat.h>

std::string KyoNotRegularFileReason(const std::string& path) {
  struct stat st {};
  if (path.empty() || ::stat(path.c_str(), &st) != 0 || S_ISREG(st.st_mode)) return {};
  std::string kind;
  if (S_ISDIR(st.st_mode))
    kind = "a folder, ";
  else if (S_ISFIFO(st.st_mode))
    kind = "a FIFO, ";
  else if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))
    kind = "a device, ";
  else if (S_ISSOCK(st.st_mode))
    kind = "a socket, ";
  return "it is " + kind + "not a regular file";
}
