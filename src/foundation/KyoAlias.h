#pragma once
// How the system remembers a file: a record of its absolute path and identity
// (device, inode, size, modification time) plus the last path at which it was found.
// Resolving tries the recorded path, then the same file name beside a base path
// (the document); the empty path means the file is gone.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class KyoAlias {
 public:
  KyoAlias() = default;  // an empty alias: no record
  KyoAlias(const KyoAlias& other);
  KyoAlias& operator=(const KyoAlias&) = delete;

  // Null when the path is empty or the file does not exist.
  static std::shared_ptr<KyoAlias> aliasWithPath(const std::string& path);
  // Null when the target does not exist. The base, when given, lets the record
  // resolve beside that file after both have moved.
  static std::shared_ptr<KyoAlias> aliasWithPath(const std::string& path, const std::string& basePath);
  // From archived record bytes; empty bytes give an empty alias.
  static std::shared_ptr<KyoAlias> aliasWithData(const std::vector<uint8_t>& record,
                                                 const std::string& lastKnownPath = {});

  bool hasRecord() const { return !m_alias.empty(); }
  const std::vector<uint8_t>& aliasData() const { return m_alias; }
  void setAliasData(const std::vector<uint8_t>& record);

  std::string fullPath() const { return fullPathFromPath({}); }
  // basePath: a file (or folder) next to which the target is looked for when its
  // recorded path no longer holds it.
  std::string fullPathFromPath(const std::string& basePath) const;
  std::string fileURL() const;
  std::string lastKnownFullPath() const;
  std::string description() const { return fullPath(); }

  // Same class and equal resolved paths: two aliases to vanished files are equal.
  bool isEqual(const KyoAlias& other) const { return fullPath() == other.fullPath(); }
  std::shared_ptr<KyoAlias> copy() const { return std::make_shared<KyoAlias>(*this); }

  // The decoded record, for diagnostics and tests.
  struct Record {
    std::string path;
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t modificationTime = 0;
  };
  static std::vector<uint8_t> encodeRecord(const Record& record);
  static bool decodeRecord(const std::vector<uint8_t>& data, Record& record);

 private:
  std::vector<uint8_t> m_alias;
  mutable std::mutex m_mutex;  // guards m_lastKnownFullPath; resolving may run on any thread
  mutable std::string m_lastKnownFullPath;
};
