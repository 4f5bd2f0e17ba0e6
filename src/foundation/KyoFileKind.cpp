#include "foundation/KyoFileKind.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

std::string KyoFileUnreadableReason(const std::string& path) {
  struct stat st {};
  if (path.empty()) return {};
  if (::stat(path.c_str(), &st) != 0) {
    switch (errno) {
      case ENOENT:
      case ENOTDIR: return {};
      case ELOOP: return "its symbolic links lead round in a loop";
      case EACCES: return "a folder on its way may not be entered (permission denied)";
      case ENAMETOOLONG: return "its path is too long";
      default: return std::string("it cannot be examined: ") + std::strerror(errno);
    }
  }
  if (S_ISREG(st.st_mode)) return {};
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
