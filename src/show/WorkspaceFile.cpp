#include "show/WorkspaceFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <random>

#include "audio/KyoAudioDevice.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoFileKind.h"
#include "foundation/KyoLog.h"
#include "show/AudioCue.h"

namespace WorkspaceFile {

namespace {

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char* text = nullptr;
  const int n = vasprintf(&text, fmt, args);
  va_end(args);
  if (n < 0) return fmt;
  std::string result(text, static_cast<size_t>(n));
  std::free(text);
  return result;
}

bool fail(SavingError* error, int code, const std::string& message) {
  KyoLog("%s", message.c_str());
  if (error) {
    error->code = code;
    error->message = message;
  }
  return false;
}

std::string errnoText(int e) { return std::strerror(e); }

std::string lastPathComponent(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const auto slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string parentPath(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Following links, as the copy of a cue's media does.
bool isRegularFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Removes a file or a whole folder without following symbolic links out of it.
bool removeItem(const std::string& path, int* errorNumber) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return true;  // nothing there
    if (errorNumber) *errorNumber = errno;
    return false;
  }
  if (S_ISDIR(st.st_mode)) {
    DIR* dir = opendir(path.c_str());
    if (!dir) {
      if (errorNumber) *errorNumber = errno;
      return false;
    }
    bool ok = true;
    while (dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      ok = removeItem(path + "/" + name, errorNumber) && ok;
    }
    closedir(dir);
    if (!ok) return false;
    if (rmdir(path.c_str()) != 0) {
      if (errorNumber) *errorNumber = errno;
      return false;
    }
    return true;
  }
  if (unlink(path.c_str()) != 0) {
    if (errorNumber) *errorNumber = errno;
    return false;
  }
  return true;
}

bool syncPath(const std::string& path, bool directory) {
  const int fd = open(path.c_str(), (directory ? O_RDONLY | O_DIRECTORY : O_RDONLY) | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = fsync(fd) == 0;
  close(fd);
  return ok;
}

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// A new file with the bytes, synced to the disk; errno on failure.
bool writeFileDurably(const std::string& path, const QByteArray& data) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  if (!writeAll(fd, data.constData(), static_cast<size_t>(data.size())) || fsync(fd) != 0) {
    const int e = errno;
    close(fd);
    unlink(path.c_str());
    errno = e;
    return false;
  }
  return close(fd) == 0;
}

bool copyFileDurably(const std::string& from, const std::string& to) {
  const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return false;
  struct stat st;
  if (fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
    const int e = S_ISREG(st.st_mode) ? errno : EINVAL;
    close(in);
    errno = e;
    return false;
  }
  const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (out < 0) {
    const int e = errno;
    close(in);
    errno = e;
    return false;
  }
  std::vector<char> buffer(size_t{1} << 20);
  bool ok = true;
  for (;;) {
    const ssize_t n = read(in, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) break;
    if (!writeAll(out, buffer.data(), static_cast<size_t>(n))) {
      ok = false;
      break;
    }
  }
  if (ok && fsync(out) != 0) ok = false;
  const int e = errno;
  close(in);
  if (close(out) != 0) ok = false;
  if (!ok) {
    unlink(to.c_str());
    errno = e;
  }
  return ok;
}

// "name-1.ext" from "name.ext"; the suffix goes before the last extension.
std::string nameWithSuffix(const std::string& name, int i) {
  const auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return name + "-" + std::to_string(i);
  return name.substr(0, dot) + "-" + std::to_string(i) + name.substr(dot);
}

std::string randomSuffix() {
  static thread_local std::mt19937 generator{std::random_device{}()};
  return std::to_string(getpid()) + "-" + std::to_string(generator() % 1000000);
}

QJsonObject cueArchive(const Cue& cue) {
  if (const auto* audioCue = dynamic_cast<const AudioCue*>(&cue)) return audioCue->archive();
  return QJsonObject{{"$class", "Cue"}};
}

std::shared_ptr<Cue> cueFromArchive(const QJsonObject& archive, std::vector<std::string>* notes) {
  if (SontoArchive::className(archive) != AudioCue::kArchiveClassName) {
    KyoLog("Skipping a cue of class \"%s\"", SontoArchive::className(archive).toUtf8().constData());
    return nullptr;
  }
  return AudioCue::createWithArchive(archive, notes);
}

// Staging folders of saves that were cut off (their process is gone) hold nothing
// that the package needs; they are cleared before a new save of the same package.
void removeAbandonedStaging(const std::string& target) {
  const std::string folder = parentPath(target);
  std::string prefix = ".";
  prefix += lastPathComponent(target);
  prefix += ".saving-";
  DIR* dir = opendir(folder.c_str());
  if (!dir) return;
  std::vector<std::string> abandoned;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    const long pid = std::strtol(name.c_str() + prefix.size(), nullptr, 10);
    if (pid > 0 && pid != getpid() && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
      abandoned.push_back(folder + "/" + name);
    }
  }
  closedir(dir);
  for (const auto& path : abandoned) removeItem(path, nullptr);
}

}  // namespace

std::string previousPackagePath(const std::string& packagePath) {
  return parentPath(packagePath) + "/." + lastPathComponent(packagePath) + ".previous";
}

QByteArray documentData(const WorkspaceDocument& d) {
  std::vector<std::pair<QString, QJsonValue>> root;
  root.emplace_back("version", QString::fromStdString(d.version));
  if (d.audioDeviceUID) root.emplace_back("audioDeviceUID", QString::fromStdString(*d.audioDeviceUID));
  root.emplace_back("deviceChannel", static_cast<qint64>(d.deviceChannel));
  QJsonArray carts;
  for (const auto& cart : d.carts) {
    if (cart) carts.append(cart->archive(cueArchive));
  }
  root.emplace_back("carts", carts);
  root.emplace_back("locked", d.locked);
  root.emplace_back("ducked", d.ducked);
  root.emplace_back("masterVolume", static_cast<double>(d.masterVolume));
  if (d.duckedVolume) root.emplace_back("duckedVolume", static_cast<double>(*d.duckedVolume));
  if (d.settings) root.emplace_back("settings", *d.settings);
  if (d.logger) root.emplace_back("logger", d.logger->archive());
  return SontoArchive::encodeOrdered(root);
}

std::optional<WorkspaceDocument> documentFromData(const QByteArray& data, std::string* error) {
  auto fail = [&](const std::string& reason) -> std::optional<WorkspaceDocument> {
    if (error) *error = reason;
    return std::nullopt;
  };
  std::string parseError;
  std::vector<std::string> repaired;
  const auto root = SontoArchive::decodeObject(data, &parseError, SontoArchive::Limits(), &repaired);
  if (!root) return fail("the document is damaged: " + parseError);

  // Every known key is checked before anything is built, so that a refusal leaves nothing half made.
  struct Expected {
    const char* key;
    QJsonValue::Type type;
  };
  static const Expected kTypes[] = {
      {"version", QJsonValue::String},   {"audioDeviceUID", QJsonValue::String}, {"deviceChannel", QJsonValue::Double},
      {"carts", QJsonValue::Array},      {"locked", QJsonValue::Bool},           {"ducked", QJsonValue::Bool},
      {"masterVolume", QJsonValue::Double}, {"duckedVolume", QJsonValue::Double}, {"settings", QJsonValue::Object},
      {"logger", QJsonValue::Object},
  };
  for (const auto& expected : kTypes) {
    const QJsonValue v = root->value(QLatin1String(expected.key));
    if (!v.isUndefined() && v.type() != expected.type) {
      return fail(std::string("the document's \"") + expected.key + "\" has the wrong type");
    }
  }
  const QJsonArray carts = root->value("carts").toArray();
  if (static_cast<size_t>(carts.size()) > kMaxCarts) return fail("the document has too many carts");
  for (const QJsonValue& cart : carts) {
    if (!cart.isObject() || SontoArchive::className(cart) != Cart::kArchiveClassName) {
      return fail("the document holds a cart that is not a cart");
    }
    const QJsonValue cues = cart.toObject().value("cues");
    if (!cues.isUndefined() && !cues.isObject()) return fail("a cart's \"cues\" is not a dictionary");
  }

  WorkspaceDocument d;
  for (const std::string& place : repaired) {
    d.notes.push_back("The document's " + place + " was not valid text; what could not be read shows as \"\uFFFD\"");
    KyoLog("%s", d.notes.back().c_str());
  }
  d.version = root->value("version").toString().toStdString();
  if (root->contains("audioDeviceUID")) d.audioDeviceUID = root->value("audioDeviceUID").toString().toStdString();
  if (const auto channel = SontoArchive::numberValue(*root, "deviceChannel")) {
    // Anything out of range becomes 1 where the workspace stores it.
    d.deviceChannel = (*channel >= 1 && *channel <= 1 << 20) ? static_cast<long>(*channel) : 1;
  }
  for (const QJsonValue& cart : carts) {
    d.carts.push_back(std::shared_ptr<Cart>(
        Cart::fromArchive(cart.toObject(), [&d](const QJsonObject& cue) { return cueFromArchive(cue, &d.notes); })));
  }
  d.locked = SontoArchive::boolValue(*root, "locked");
  d.ducked = SontoArchive::boolValue(*root, "ducked");
  if (const auto v = SontoArchive::numberValue(*root, "masterVolume")) {
    d.masterVolume = SontoArchive::boundedLevel(*v, "The master level", &d.notes);
  }
  if (const auto v = SontoArchive::numberValue(*root, "duckedVolume")) {
    d.duckedVolume = SontoArchive::boundedLevel(*v, "The ducked level", &d.notes);
  }
  if (root->value("settings").isObject()) d.settings = root->value("settings").toObject();
  if (root->value("logger").isObject()) d.logger = SontoLogger::fromArchive(root->value("logger").toObject());
  return d;
}

std::optional<std::string> mediaPathInPackage(const std::string& packagePath, const std::string& relativePath,
                                              std::string* reason) {
  auto refuse = [&](const std::string& why) -> std::optional<std::string> {
    if (reason) *reason = why;
    return std::nullopt;
  };
  if (relativePath.empty()) return refuse("the media path is empty");
  if (relativePath.front() == '/') return refuse("the media path is absolute");
  if (relativePath.find('\0') != std::string::npos) return refuse("the media path holds a null byte");
  size_t start = 0;
  while (start <= relativePath.size()) {
    const size_t end = std::min(relativePath.find('/', start), relativePath.size());
    const std::string part = relativePath.substr(start, end - start);
    if (part == "..") return refuse("the media path climbs out of the package");
    start = end + 1;
  }
  const std::string path = packagePath + "/" + relativePath;
  // A symbolic link (of the file or of a folder on the way) may lead out: the real
  // path of whatever is there must still be inside the package.
  char resolved[PATH_MAX];
  char package[PATH_MAX];
  if (realpath(path.c_str(), resolved) && realpath(packagePath.c_str(), package)) {
    const std::string inside = std::string(package) + "/";
    if (std::string(resolved).compare(0, inside.size(), inside) != 0) {
      return refuse("the media path leads out of the package by a symbolic link");
    }
  } else if (struct stat st; lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    return refuse("the media path is a broken symbolic link");
  }
  return path;
}

bool writePackage(const QUrl& url, WorkspaceDocument& document, SavingError* error,
                  const WorkspaceWriteHooks& hooks) {
  auto step = [&](const char* name) {
    if (hooks.didReachStep) hooks.didReachStep(name);
  };
  if (!url.isLocalFile()) {
    return fail(error, 1, format("Error - trying to write to something that is not a file: %s",
                                 url.toString().toUtf8().constData()));
  }
  std::string target = url.toLocalFile().toStdString();
  while (target.size() > 1 && target.back() == '/') target.pop_back();
  // The new package is built beside the old one, on the same file system, so that a
  // rename can swap them.
  const std::string staging = parentPath(target) + "/." + lastPathComponent(target) + ".saving-" + randomSuffix();
  const std::string media = staging + "/" + kMediaFolderName;
  removeAbandonedStaging(target);
  int e = 0;
  if (!removeItem(staging, &e)) {
    return fail(error, 2, format("Error - failed to remove previous item at %s: %s", staging.c_str(),
                                 errnoText(e).c_str()));
  }
  if (mkdir(staging.c_str(), 0755) != 0) {
    return fail(error, 3, format("Error - failed to create directory for item at %s: %s", target.c_str(),
                                 errnoText(errno).c_str()));
  }
  auto failAndClean = [&](int code, const std::string& message) {
    removeItem(staging, nullptr);
    return fail(error, code, message);
  };
  if (mkdir(media.c_str(), 0755) != 0) {
    return failAndClean(4, format("Error - failed to create directory for Media at %s: %s", media.c_str(),
                                  errnoText(errno).c_str()));
  }
  step("folders");

  // First pass: names in the new Media folder, which is empty at this point, so two
  // cues with one file name share one media file.
  // The source path is taken here, while the main thread is held: after the archive
  // the operator may change a cue's file beside this thread.
  struct Collected {
    std::shared_ptr<AudioCue> cue;
    std::string source;
  };
  std::map<std::string, Collected> cuesByTarget;
  std::vector<std::shared_ptr<AudioCue>> withoutMedia;
  for (const auto& cart : document.carts) {
    if (!cart) continue;
    std::vector<const Cue*> dead;
    for (const auto& [index, cue] : cart->cues()) {
      if (cue->isDead()) {
        dead.push_back(cue.get());
        continue;
      }
      auto audioCue = std::dynamic_pointer_cast<AudioCue>(cue);
      if (!audioCue) continue;
      const std::string original = std::string(kMediaFolderName) + "/" + lastPathComponent(audioCue->file());
      if (!isRegularFile(audioCue->file())) {
        // Its media is gone: the rest of the show is saved, and the cue keeps the
        // name it had, so that the file put back there (or relinked) is found again.
        if (audioCue->documentPath().empty()) audioCue->setDocumentPath(original);
        withoutMedia.push_back(audioCue);
        continue;
      }
      std::string name = original;
      for (int i = 1; exists(staging + "/" + name); ++i) {
        if (i > kMaxNameTries) {
          return failAndClean(7, format("Cannot seem to find a filename that does not exist for cue: %s",
                                        audioCue->description().c_str()));
        }
        name = nameWithSuffix(name, i);
      }
      audioCue->setDocumentPath(name);
      cuesByTarget[staging + "/" + name] = Collected{audioCue, audioCue->file()};
    }
    for (const Cue* cue : dead) cart->removeCue(cue);
  }

  const QByteArray data = documentData(document);
  step("archived");
  if (!withoutMedia.empty()) {
    std::string names;
    for (const auto& cue : withoutMedia) {
      names += (names.empty() ? "\"" : ", \"") + (cue->name().empty() ? lastPathComponent(cue->file()) : cue->name()) + "\"";
    }
    document.notes.push_back(format("Saved %s without the media of %zu cue%s whose file is missing: %s",
                                    lastPathComponent(target).c_str(), withoutMedia.size(),
                                    withoutMedia.size() == 1 ? "" : "s", names.c_str()));
    KyoLog("%s", document.notes.back().c_str());
  }
  if (hooks.unblockUserInteraction) hooks.unblockUserInteraction();

  if (!writeFileDurably(staging + "/" + kDocumentName, data)) {
    return failAndClean(6, format("Error - failed to save document file: %s", errnoText(errno).c_str()));
  }
  step("document");

  for (const auto& [path, collected] : cuesByTarget) {
    const std::string& file = collected.source;
    if (link(file.c_str(), path.c_str()) != 0 && !copyFileDurably(file, path)) {
      return failAndClean(5, format("Error - failed to save media file from %s to %s: %s", file.c_str(),
                                    path.c_str(), errnoText(errno).c_str()));
    }
    if (hooks.markSaved) {
      hooks.markSaved(collected.cue);
    } else {
      collected.cue->setSaved(true);
    }
    step("media");
  }
  if (!syncPath(media, true) || !syncPath(staging, true)) {
    return failAndClean(6, format("Error - failed to save document file: %s", errnoText(errno).c_str()));
  }
  step("synced");

  // The swap. Where the file system exchanges atomically, the target is at every
  // moment either the whole old package or the whole new one.
  const std::string folder = parentPath(target);
  if (renameat2(AT_FDCWD, staging.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
    syncPath(folder, true);
    step("swapped");
    removeItem(staging, nullptr);  // the old package, now under the staging name
    return true;
  }
  if (errno == ENOENT && !exists(target)) {
    if (rename(staging.c_str(), target.c_str()) != 0) {
      return failAndClean(2, format("Error - failed to remove previous item at %s: %s", target.c_str(),
                                    errnoText(errno).c_str()));
    }
    syncPath(folder, true);
    step("swapped");
    return true;
  }
  // No exchange here: the old package steps aside under a name that a later read
  // knows, and is removed only once the new one is in place.
  const std::string previous = previousPackagePath(target);
  removeItem(previous, nullptr);
  if (rename(target.c_str(), previous.c_str()) != 0) {
    return failAndClean(2, format("Error - failed to remove previous item at %s: %s", target.c_str(),
                                  errnoText(errno).c_str()));
  }
  syncPath(folder, true);
  step("set aside");
  if (rename(staging.c_str(), target.c_str()) != 0) {
    const int renameError = errno;
    rename(previous.c_str(), target.c_str());
    return failAndClean(2, format("Error - failed to remove previous item at %s: %s", target.c_str(),
                                  errnoText(renameError).c_str()));
  }
  syncPath(folder, true);
  step("swapped");
  removeItem(previous, nullptr);
  return true;
}

void saveInBackground(const QUrl& url, std::shared_ptr<WorkspaceDocument> document,
                      std::function<void(bool ok, const SavingError& error)> completion,
                      const WorkspaceWriteHooks& hooks) {
  // Set once: when the archive is built, or when the save ends before that.
  auto unblocked = std::make_shared<std::promise<void>>();
  auto once = std::make_shared<std::once_flag>();
  auto unblock = [unblocked, once] { std::call_once(*once, [&] { unblocked->set_value(); }); };
  std::future<void> ready = unblocked->get_future();
  KyoCurrentClock().detachThread([url, document, completion, hooks, unblock] {
    WorkspaceWriteHooks threadHooks = hooks;
    threadHooks.unblockUserInteraction = [&] {
      if (hooks.unblockUserInteraction) hooks.unblockUserInteraction();
      unblock();
    };
    // Queued ahead of the completion, so the cues are marked when it runs.
    if (!threadHooks.markSaved) {
      threadHooks.markSaved = [](const std::shared_ptr<AudioCue>& cue) {
        KyoCurrentClock().runOnMain([cue] { cue->setSaved(true); }, false);
      };
    }
    SavingError error;
    const bool ok = writePackage(url, *document, &error, threadHooks);
    unblock();
    if (completion) {
      KyoCurrentClock().runOnMain([completion, ok, error] { completion(ok, error); }, false);
    }
  });
  ready.wait();
}

bool readPackage(const QUrl& url, WorkspaceDocument& document, SavingError* error) {
  KYO_LOG_AT(3, "Reading workspace data from disk...");
  std::string package = url.toLocalFile().toStdString();
  while (package.size() > 1 && package.back() == '/') package.pop_back();
  const std::string documentPath = package + "/" + kDocumentName;
  auto readFailure = [&](const std::string& why) {
    return fail(error, 1, format("Error - failed to read document data from %s: %s", documentPath.c_str(),
                                 why.c_str()));
  };
  if (!url.isLocalFile()) return readFailure("not a file");
  // A save cut off between its two renames left the previous package aside.
  if (!exists(package) && exists(previousPackagePath(package))) {
    KyoLog("Restoring the previous package of %s after an interrupted save", package.c_str());
    rename(previousPackagePath(package).c_str(), package.c_str());
  }

  if (std::string why = KyoFileUnreadableReason(documentPath); !why.empty()) return readFailure(why);
  const int fd = open(documentPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return readFailure(errnoText(errno));
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return readFailure("not a regular file");
  }
  const SontoArchive::Limits limits;
  if (static_cast<size_t>(st.st_size) > limits.maxDocumentBytes) {
    close(fd);
    return readFailure("the document is too large");
  }
  QByteArray data;
  data.resize(static_cast<qsizetype>(st.st_size));
  size_t done = 0;
  while (done < static_cast<size_t>(data.size())) {
    const ssize_t n = read(fd, data.data() + done, static_cast<size_t>(data.size()) - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  if (done != static_cast<size_t>(data.size())) return readFailure("the document could not be read whole");

  std::string reason;
  auto decoded = documentFromData(data, &reason);
  if (!decoded) return readFailure(reason);
  KyoLog("Loading workspace saved from version %s.", decoded->version.c_str());

  for (const auto& cart : decoded->carts) {
    for (const auto& [index, cue] : cart->cues()) {
      auto audioCue = std::dynamic_pointer_cast<AudioCue>(cue);
      if (!audioCue) continue;
      audioCue->setCart(cart.get());
      const std::string fallback = std::string(kMediaFolderName) + "/" + lastPathComponent(audioCue->file());
      std::string why;
      std::optional<std::string> path;
      if (!audioCue->documentPath().empty()) {
        path = mediaPathInPackage(package, audioCue->documentPath(), &why);
        if (!path) {
          KyoLog("Ignoring the media path \"%s\" of %s: %s", audioCue->documentPath().c_str(),
                 audioCue->description().c_str(), why.c_str());
        }
      }
      if (!path) path = mediaPathInPackage(package, fallback, &why);
      // With no safe path at all the cue points at a name that cannot exist and is broken.
      audioCue->updateFile(path ? *path : package + "/" + kMediaFolderName + "/");
    }
  }
  document = std::move(*decoded);
  return true;
}

void applyDocument(WorkspaceFileTarget& target, WorkspaceDocument d) {
  if (d.audioDeviceUID && *d.audioDeviceUID != target.audioDeviceUID() &&
      !target.bindAudioDeviceWithUID(*d.audioDeviceUID)) {
    // Not there: the show stays on the default output, and says which it was on.
    KyoLog("The show's output %s is not here; it plays on %s until another is chosen",
           d.audioDeviceUID->c_str(), target.audioDeviceUID().empty() ? "no output" : target.audioDeviceUID().c_str());
  }
  target.setDeviceChannel(d.deviceChannel);
  if (d.logger) target.setLogger(d.logger);
  target.setLocked(d.locked);
  // Ducked before the master level, so that a file saved ducked puts its master
  // level into the ducked level, which the ducked level then overwrites.
  target.setDucked(d.ducked);
  target.setMasterVolume(d.masterVolume);
  if (d.settings) target.setSettingsState(*d.settings);
  if (d.duckedVolume) target.setDuckedVolume(*d.duckedVolume);
  target.setCarts(std::move(d.carts));
  target.didReadFromDisk();
}

bool readIntoTarget(const QUrl& url, WorkspaceFileTarget& target, SavingError* error) {
  target.setUndoRegistrationEnabled(false);
  WorkspaceDocument document;
  if (!readPackage(url, document, error)) return false;
  applyDocument(target, std::move(document));
  target.setUndoRegistrationEnabled(true);
  return true;
}

void setFileURL(const QUrl& url, const std::vector<std::shared_ptr<Cart>>& carts) {
  std::string package = url.toLocalFile().toStdString();
  while (package.size() > 1 && package.back() == '/') package.pop_back();
  for (const auto& cart : carts) {
    if (!cart) continue;
    for (const auto& [index, cue] : cart->cues()) {
      auto audioCue = std::dynamic_pointer_cast<AudioCue>(cue);
      if (!audioCue || !audioCue->saved() || audioCue->documentPath().empty()) continue;
      const std::string full = package + "/" + audioCue->documentPath();
      if (audioCue->file() != full) audioCue->updateFile(full);
    }
  }
}

}  // namespace WorkspaceFile
