#pragma once
// How the system remembers a file: an opaque record (absolute path, the path
// relative to a base file when one was given, and the file's identity: device,
// inode, size, modification time) plus the last path at which it was found.
//
// Resolving tries, in order: the recorded path; with a base path, the recorded
// relative path from the base's folder, then the same file name in the base's
// folder; then a file with the recorded identity (a rename) in the recorded folder
// and in the base's folder. The empty path means the file is gone. A failed
// resolution never falls back to the last known path: that exists so that an owner
// can name the file that went missing.
//
// Any thread; resolving touches the disk, so not on the render thread.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class KyoAlias {
 public:
  KyoAlias() = default;  // an empty alias: no record
  // A copy has its own record bytes and the same last known path.
  KyoAlias(const KyoAlias& other);
  KyoAlias& operator=(const KyoAlias& other);

  // Null when the path is empty or the file does not exist (silently), or cannot
  // be examined (logged).
  static std::shared_ptr<KyoAlias> aliasWithPath(const std::string& path);
  // Also records the path relative to the base file's folder (or the base folder),
  // so that the alias resolves after the two have moved together.
  static std::shared_ptr<KyoAlias> aliasWithPath(const std::string& path, const std::string& basePath);
  // From archived record bytes and last known path. Empty bytes give an empty
  // alias; damaged bytes are logged and give an empty alias that still knows the
  // last path.
  static std::shared_ptr<KyoAlias> aliasWithData(const std::vector<uint8_t>& record,
                                                 const std::string& lastKnownPath = {});

  // What a file keeps of an alias: the record bytes ("alias") and the last known
  // path ("lastKnownPath", empty for none).
  struct Archive {
    std::vector<uint8_t> alias;
    std::string lastKnownPath;
  };
  Archive archive() const;
  static std::shared_ptr<KyoAlias> aliasWithArchive(const Archive& archive) {
    return aliasWithData(archive.alias, archive.lastKnownPath);
  }

  bool hasRecord() const;
  std::vector<uint8_t> aliasData() const;
  // Takes the bytes as they are; bytes that do not decode resolve to nothing.
  void setAliasData(const std::vector<uint8_t>& record);

  std::string fullPath() const { return fullPathFromPath({}); }
  // basePath: the document (a file or a folder) beside which the target is looked
  // for when its recorded path no longer holds it. A base that does not exist is
  // logged and gives the empty path.
  std::string fullPathFromPath(const std::string& basePath) const;
  // "file://" and the percent-encoded fullPath; "file://" alone when not found.
  std::string fileURL() const;
  // The path of the latest successful resolution or the decoded one; never touches
  // the disk. Empty when there is none.
  std::string lastKnownFullPath() const;
  std::string description() const { return fullPath(); }

  // Equal resolved paths: two aliases to vanished files are equal. Both resolve
  // against the disk.
  bool isEqual(const KyoAlias& other) const { return fullPath() == other.fullPath(); }
  std::shared_ptr<KyoAlias> copy() const { return std::make_shared<KyoAlias>(*this); }

  // The decoded record, for diagnostics and tests.
  struct Record {
    std::string path;          // absolute, symbolic links resolved
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t modificationTime = 0;  // seconds since the epoch
    // With the nanoseconds, a new file that reuses a deleted one's inode within the
    // same second is not taken for it.
    int64_t modificationNanoseconds = 0;
    std::string relativePath;  // from the base's folder; empty without a base
    bool isFolder = false;
  };
  static std::vector<uint8_t> encodeRecord(const Record& record);
  static bool decodeRecord(const std::vector<uint8_t>& data, Record& record);

 private:
  // Guards both fields: an alias may be resolved on a loader thread while the main
  // thread archives or copies it. Never held across disk access.
  mutable std::mutex m_mutex;
  std::vector<uint8_t> m_alias;
  mutable std::string m_lastKnownFullPath;
};
