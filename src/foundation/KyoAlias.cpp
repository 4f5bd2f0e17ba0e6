#include "foundation/KyoAlias.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "foundation/KyoLog.h"

namespace {
constexpr char kMagic[4] = {'K', 'A', 'L', '1'};

void put64(std::vector<uint8_t>& out, uint64_t v) {
  for (int i = 0; i < 8; ++i) out.push_back(uint8_t(v >> (8 * i)));
}

bool get64(const std::vector<uint8_t>& in, size_t& pos, uint64_t& v) {
  if (pos + 8 > in.size()) return false;
  v = 0;
  for (int i = 0; i < 8; ++i) v |= uint64_t(in[pos + size_t(i)]) << (8 * i);
  pos += 8;
  return true;
}

std::string absolutePath(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved)) return resolved;
  return path;
}

bool isFile(const std::string& path) {
  struct stat st {};
  return !path.empty() && stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

std::string fileName(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string folderOf(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return path;
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}
}  // namespace

KyoAlias::KyoAlias(const KyoAlias& other) : m_alias(other.m_alias), m_lastKnownFullPath(other.lastKnownFullPath()) {}

std::vector<uint8_t> KyoAlias::encodeRecord(const Record& r) {
  std::vector<uint8_t> out(kMagic, kMagic + 4);
  put64(out, r.path.size());
  out.insert(out.end(), r.path.begin(), r.path.end());
  put64(out, r.device);
  put64(out, r.inode);
  put64(out, uint64_t(r.size));
  put64(out, uint64_t(r.modificationTime));
  return out;
}

bool KyoAlias::decodeRecord(const std::vector<uint8_t>& data, Record& r) {
  if (data.size() < 4 || std::memcmp(data.data(), kMagic, 4) != 0) return false;
  size_t pos = 4;
  uint64_t length = 0;
  if (!get64(data, pos, length) || length > data.size() - pos) return false;
  r.path.assign(reinterpret_cast<const char*>(data.data() + pos), size_t(length));
  pos += size_t(length);
  uint64_t size = 0, mtime = 0;
  if (!get64(data, pos, r.device) || !get64(data, pos, r.inode) || !get64(data, pos, size) ||
      !get64(data, pos, mtime))
    return false;
  r.size = int64_t(size);
  r.modificationTime = int64_t(mtime);
  return true;
}

std::shared_ptr<KyoAlias> KyoAlias::aliasWithPath(const std::string& path) { return aliasWithPath(path, {}); }

std::shared_ptr<KyoAlias> KyoAlias::aliasWithPath(const std::string& path, const std::string& basePath) {
  if (path.empty()) return nullptr;
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    // A file that is not there is an ordinary event; anything else is worth a line.
    if (errno != ENOENT && errno != ENOTDIR) KyoLog("Error: %d [%s] | %s [line %d]", errno, "errno", __func__, __LINE__);
    return nullptr;
  }
  (void)basePath;  // resolution beside the base uses the file name, which the record keeps
  Record r;
  r.path = absolutePath(path);
  r.device = uint64_t(st.st_dev);
  r.inode = uint64_t(st.st_ino);
  r.size = int64_t(st.st_size);
  r.modificationTime = int64_t(st.st_mtim.tv_sec);
  auto alias = std::make_shared<KyoAlias>();
  alias->m_alias = encodeRecord(r);
  return alias;
}

std::shared_ptr<KyoAlias> KyoAlias::aliasWithData(const std::vector<uint8_t>& record, const std::string& lastKnownPath) {
  auto alias = std::make_shared<KyoAlias>();
  Record r;
  if (!record.empty() && decodeRecord(record, r)) alias->m_alias = record;
  alias->m_lastKnownFullPath = lastKnownPath;
  return alias;
}

void KyoAlias::setAliasData(const std::vector<uint8_t>& record) { m_alias = record; }

std::string KyoAlias::fullPathFromPath(const std::string& basePath) const {
  Record r;
  if (m_alias.empty() || !decodeRecord(m_alias, r)) return {};
  std::string found;
  if (isFile(r.path)) {
    found = r.path;
  } else if (!basePath.empty()) {
    std::string beside = folderOf(basePath) + "/" + fileName(r.path);
    if (isFile(beside)) found = absolutePath(beside);
  }
  if (found.empty()) return {};
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lastKnownFullPath = found;
  return found;
}

std::string KyoAlias::fileURL() const { return "file://" + fullPath(); }

std::string KyoAlias::lastKnownFullPath() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lastKnownFullPath;
}
