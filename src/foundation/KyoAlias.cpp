#include "foundation/KyoAlias.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "foundation/KyoLog.h"

namespace {
constexpr char kMagic[4] = {'K', 'A', 'L', '2'};
// The platform's "file not found": not worth a log line, a missing file is an
// ordinary event in a show on tour.
constexpr int32_t kFileNotFound = -43;

int32_t statusForErrno(int error) { return (error == ENOENT || error == ENOTDIR) ? kFileNotFound : error; }

void put64(std::vector<uint8_t>& out, uint64_t v) {
  for (int i = 0; i < 8; ++i) out.push_back(uint8_t(v >> (8 * i)));
}

bool get64(const std::vector<uint8_t>& in, size_t& pos, uint64_t& v) {
  if (in.size() - pos < 8) return false;
  v = 0;
  for (int i = 0; i < 8; ++i) v |= uint64_t(in[pos + size_t(i)]) << (8 * i);
  pos += 8;
  return true;
}

void putString(std::vector<uint8_t>& out, const std::string& s) {
  put64(out, s.size());
  out.insert(out.end(), s.begin(), s.end());
}

bool getString(const std::vector<uint8_t>& in, size_t& pos, std::string& s) {
  uint64_t length = 0;
  if (!get64(in, pos, length) || length > in.size() - pos) return false;
  s.assign(reinterpret_cast<const char*>(in.data() + pos), size_t(length));
  pos += size_t(length);
  return s.find('\0') == std::string::npos;
}

std::string absolutePath(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved)) return resolved;
  if (!path.empty() && path.front() == '/') return path;
  // An unreadable folder on the way: keep the path as given, made absolute.
  char cwd[PATH_MAX];
  if (getcwd(cwd, sizeof cwd) == nullptr) return path;
  return std::string(cwd) + "/" + path;
}

bool exists(const std::string& path) {
  struct stat st {};
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

std::string fileName(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string parentFolder(const std::string& path) {
  auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The folder a base path stands for: itself when it is a folder, else its parent.
std::string baseFolder(const std::string& basePath) {
  struct stat st {};
  if (stat(basePath.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return absolutePath(basePath);
  return parentFolder(absolutePath(basePath));
}

std::string joinPath(const std::string& folder, const std::string& name) {
  if (folder.empty() || folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

std::vector<std::string> components(const std::string& path) {
  std::vector<std::string> parts;
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t slash = path.find('/', begin);
    if (slash == std::string::npos) slash = path.size();
    if (slash > begin) parts.push_back(path.substr(begin, slash - begin));
    begin = slash + 1;
  }
  return parts;
}

// Both absolute: the path of target as seen from folder, with ".." where needed.
std::string relativePath(const std::string& folder, const std::string& target) {
  const auto from = components(folder);
  const auto to = components(target);
  size_t common = 0;
  while (common < from.size() && common < to.size() && from[common] == to[common]) ++common;
  std::string result;
  for (size_t i = common; i < from.size(); ++i) result += "../";
  for (size_t i = common; i < to.size(); ++i) result += to[i] + (i + 1 < to.size() ? "/" : "");
  return result;
}

bool sameIdentity(const struct stat& st, const KyoAlias::Record& r) {
  return uint64_t(st.st_dev) == r.device && uint64_t(st.st_ino) == r.inode &&
         bool(S_ISDIR(st.st_mode)) == r.isFolder && (r.isFolder || int64_t(st.st_size) == r.size) &&
         int64_t(st.st_mtim.tv_sec) == r.modificationTime && int64_t(st.st_mtim.tv_nsec) == r.modificationNanoseconds;
}

// A renamed file keeps its device, inode, size and time: look for it in one folder.
std::string findByIdentity(const std::string& folder, const KyoAlias::Record& r) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return {};
  std::string found;
  while (struct dirent* entry = readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    const std::string candidate = joinPath(folder, entry->d_name);
    struct stat st {};
    if (stat(candidate.c_str(), &st) == 0 && sameIdentity(st, r)) {
      found = candidate;
      break;
    }
  }
  closedir(dir);
  return found;
}

std::string percentEncodedPath(const std::string& path) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : path) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                       c == '-' || c == '_' || c == '.' || c == '~';
    if (plain) {
      out.push_back(char(c));
    } else {
      out.push_back('%');
      out.push_back(hex[c >> 4]);
      out.push_back(hex[c & 15]);
    }
  }
  return out;
}
}  // namespace

KyoAlias::KyoAlias(const KyoAlias& other) {
  std::lock_guard<std::mutex> lock(other.m_mutex);
  m_alias = other.m_alias;
  m_lastKnownFullPath = other.m_lastKnownFullPath;
}

KyoAlias& KyoAlias::operator=(const KyoAlias& other) {
  if (this == &other) return *this;
  std::vector<uint8_t> alias;
  std::string last;
  {
    std::lock_guard<std::mutex> lock(other.m_mutex);
    alias = other.m_alias;
    last = other.m_lastKnownFullPath;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_alias = std::move(alias);
  m_lastKnownFullPath = std::move(last);
  return *this;
}

std::vector<uint8_t> KyoAlias::encodeRecord(const Record& r) {
  std::vector<uint8_t> out(kMagic, kMagic + 4);
  putString(out, r.path);
  put64(out, r.device);
  put64(out, r.inode);
  put64(out, uint64_t(r.size));
  put64(out, uint64_t(r.modificationTime));
  put64(out, uint64_t(r.modificationNanoseconds));
  putString(out, r.relativePath);
  out.push_back(r.isFolder ? 1 : 0);
  return out;
}

bool KyoAlias::decodeRecord(const std::vector<uint8_t>& data, Record& r) {
  if (data.size() < 4 || std::memcmp(data.data(), kMagic, 4) != 0) return false;
  size_t pos = 4;
  uint64_t size = 0, mtime = 0, nanoseconds = 0;
  if (!getString(data, pos, r.path) || r.path.empty() || r.path.front() != '/') return false;
  if (!get64(data, pos, r.device) || !get64(data, pos, r.inode) || !get64(data, pos, size) ||
      !get64(data, pos, mtime) || !get64(data, pos, nanoseconds) || !getString(data, pos, r.relativePath))
    return false;
  if (data.size() - pos != 1 || data[pos] > 1) return false;
  r.isFolder = data[pos] == 1;
  r.size = int64_t(size);
  r.modificationTime = int64_t(mtime);
  r.modificationNanoseconds = int64_t(nanoseconds);
  return true;
}

std::shared_ptr<KyoAlias> KyoAlias::aliasWithPath(const std::string& path) { return aliasWithPath(path, {}); }

std::shared_ptr<KyoAlias> KyoAlias::aliasWithPath(const std::string& path, const std::string& basePath) {
  if (path.empty()) return nullptr;
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    const int32_t status = statusForErrno(errno);
    if (status != kFileNotFound) KYO_LOG_STATUS_DETAIL(status, path);
    return nullptr;
  }
  Record r;
  r.path = absolutePath(path);
  r.device = uint64_t(st.st_dev);
  r.inode = uint64_t(st.st_ino);
  r.size = int64_t(st.st_size);
  r.modificationTime = int64_t(st.st_mtim.tv_sec);
  r.modificationNanoseconds = int64_t(st.st_mtim.tv_nsec);
  r.isFolder = S_ISDIR(st.st_mode);
  if (!basePath.empty()) {
    if (exists(basePath))
      r.relativePath = relativePath(baseFolder(basePath), r.path);
    else
      KYO_LOG_STATUS_DETAIL(statusForErrno(errno), basePath);
  }
  auto alias = std::make_shared<KyoAlias>();
  alias->m_alias = encodeRecord(r);
  return alias;
}

std::shared_ptr<KyoAlias> KyoAlias::aliasWithData(const std::vector<uint8_t>& record,
                                                  const std::string& lastKnownPath) {
  auto alias = std::make_shared<KyoAlias>();
  Record r;
  if (!record.empty()) {
    if (decodeRecord(record, r))
      alias->m_alias = record;
    else
      KyoLog("Error: damaged alias record of %zu bytes, last known at \"%s\"", record.size(),
             lastKnownPath.c_str());
  }
  alias->m_lastKnownFullPath = lastKnownPath;
  return alias;
}

KyoAlias::Archive KyoAlias::archive() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return Archive{m_alias, m_lastKnownFullPath};
}

bool KyoAlias::hasRecord() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return !m_alias.empty();
}

std::vector<uint8_t> KyoAlias::aliasData() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_alias;
}

void KyoAlias::setAliasData(const std::vector<uint8_t>& record) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_alias = record;
}

std::string KyoAlias::fullPathFromPath(const std::string& basePath) const {
  Record r;
  if (!decodeRecord(aliasData(), r)) return {};

  std::string folder;
  if (!basePath.empty()) {
    struct stat st {};
    if (stat(basePath.c_str(), &st) != 0) {
      KYO_LOG_STATUS_DETAIL(statusForErrno(errno), basePath);
      return {};
    }
    folder = baseFolder(basePath);
  }

  std::string found;
  if (exists(r.path)) {
    found = r.path;
  } else if (!folder.empty() && !r.relativePath.empty() && exists(joinPath(folder, r.relativePath))) {
    found = joinPath(folder, r.relativePath);
  } else if (!folder.empty() && exists(joinPath(folder, fileName(r.path)))) {
    found = joinPath(folder, fileName(r.path));
  } else {
    found = findByIdentity(parentFolder(r.path), r);
    if (found.empty() && !folder.empty()) found = findByIdentity(folder, r);
  }
  if (found.empty()) return {};
  found = absolutePath(found);

  std::lock_guard<std::mutex> lock(m_mutex);
  m_lastKnownFullPath = found;
  return found;
}

std::string KyoAlias::fileURL() const { return "file://" + percentEncodedPath(fullPath()); }

std::string KyoAlias::lastKnownFullPath() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lastKnownFullPath;
}
