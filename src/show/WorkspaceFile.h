#pragma once
// The workspace file: a package folder "Name.sonto" holding "document" (the whole
// show as a keyed archive) and "Media" (a copy of every media file, flat).
//
// A save never writes over the show on disk: the new package is built beside it,
// synced, and swapped in by one rename, so that a failure, a full disk or a crash
// at any moment leaves the previous package whole and openable. Reading refuses a
// damaged or hostile document before it changes anything, and never follows a
// media path out of the package.

#include <QByteArray>
#include <QJsonObject>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "show/Cart.h"
#include "show/SontoArchive.h"
#include "show/SontoLogger.h"

class AudioCue;
class KyoAudioDevice;

// A failed save or read: the "Saving" domain, its code and message, one button "OK".
struct SavingError {
  static constexpr const char* kDomain = "Saving";
  std::string domain = kDomain;
  int code = 0;
  std::string message;
  std::vector<std::string> recoveryOptions{"OK"};
};

// What a workspace file holds, as values. Carts are shared with the workspace:
// writing marks their cues saved and removes their dead cues.
struct WorkspaceDocument {
  std::string version;
  std::optional<std::string> audioDeviceUID;  // absent when the device has none or died
  long deviceChannel = 1;
  std::vector<std::shared_ptr<Cart>> carts;
  bool locked = false;
  bool ducked = false;
  float masterVolume = 1.0f;
  std::optional<float> duckedVolume;     // absent in old files: the default stands
  std::optional<QJsonObject> settings;   // the settings' state
  std::shared_ptr<SontoLogger> logger;   // absent in old files: the workspace keeps its own
  // What the reader had to mend and what the writer had to leave out, in words, one
  // line each; every one is logged as well.
  std::vector<std::string> notes;
};

// What reading needs of a workspace, called on the main thread in the order of
// the steps (the order matters: see WorkspaceFile::applyDocument).
class WorkspaceFileTarget {
 public:
  virtual ~WorkspaceFileTarget() = default;
  virtual void setUndoRegistrationEnabled(bool enabled) = 0;
  virtual std::string audioDeviceUID() const = 0;
  // Finds the device again, opens it and binds the workspace to it; false leaves
  // the workspace on its present device.
  virtual bool bindAudioDeviceWithUID(const std::string& uid) = 0;
  virtual void setDeviceChannel(long channel) = 0;
  virtual void setLogger(std::shared_ptr<SontoLogger> logger) = 0;
  virtual void setLocked(bool locked) = 0;
  virtual void setDucked(bool ducked) = 0;
  virtual void setMasterVolume(float volume) = 0;
  // Straight to the settings when they exist (a revert), else kept until they do.
  virtual void setSettingsState(const QJsonObject& state) = 0;
  virtual void setDuckedVolume(float volume) = 0;
  // Replaces the carts; the target sets each cart's workspace and each cue's device.
  virtual void setCarts(std::vector<std::shared_ptr<Cart>> carts) = 0;
  // readFromDisk, and the device's master level from the workspace's.
  virtual void didReadFromDisk() = 0;
};

// Hooks of a write into the document's window and machinery; each may be empty.
struct WorkspaceWriteHooks {
  // Called once the document data is built: the operator may work on from here.
  std::function<void()> unblockUserInteraction;
  // Test hook: called between the steps of a save with a short name of the step.
  std::function<void(const char* step)> didReachStep;
  // Marks a cue saved once its media file is in the package; empty: at once, on the
  // thread of the save. A save in the background hands it to the main thread, where
  // the cue's observers live.
  std::function<void(const std::shared_ptr<AudioCue>& cue)> markSaved;
};

namespace WorkspaceFile {

constexpr const char* kExtension = "sonto";
constexpr const char* kDocumentName = "document";
constexpr const char* kMediaFolderName = "Media";
constexpr int kMaxNameTries = 10000;
constexpr size_t kMaxCarts = 10000;

// The root dictionary as written, keys in the order they are set.
QByteArray documentData(const WorkspaceDocument& document);
// Refuses (null, reason in `error`) malformed JSON, a root that is not an object and
// known keys of the wrong type; unknown keys are ignored. Media paths are not
// resolved here.
std::optional<WorkspaceDocument> documentFromData(const QByteArray& data, std::string* error);

// Writes the package at `url` (a local file URL): collects the media by hard link,
// else by copy, sets each cue's documentPath and saved, and swaps the new package
// in for any old one. On failure the old package is untouched and `error` has the
// code and message. Runs on any thread; the carts must not be edited until
// unblockUserInteraction has been called.
bool writePackage(const QUrl& url, WorkspaceDocument& document, SavingError* error,
                  const WorkspaceWriteHooks& hooks = {});

// The save as the document machinery runs it: writePackage on a thread of its own
// while the calling (main) thread waits until the document data is built; then the
// caller goes on and the media are collected beside its work. `completion` runs on
// the main thread with the outcome. The carts must not be edited until this returns.
void saveInBackground(const QUrl& url, std::shared_ptr<WorkspaceDocument> document,
                      std::function<void(bool ok, const SavingError& error)> completion,
                      const WorkspaceWriteHooks& hooks = {});

// Reads the package at `url`: the document, then each cue's media path inside the
// package (documentPath, else "Media" plus the file's name; paths that lead out of
// the package are ignored with a log line) through updateFile.
bool readPackage(const QUrl& url, WorkspaceDocument& document, SavingError* error);

// Hands a read document to a workspace in the order of the steps of a read.
void applyDocument(WorkspaceFileTarget& target, WorkspaceDocument document);

// readPackage then applyDocument, with undo registration off throughout; undo
// stays off when the read fails.
bool readIntoTarget(const QUrl& url, WorkspaceFileTarget& target, SavingError* error);

// The package has moved or was written: each saved cue whose file is elsewhere
// now points into the package at its documentPath. Cues not yet saved stay put.
void setFileURL(const QUrl& url, const std::vector<std::shared_ptr<Cart>>& carts);

// The media path of a cue inside `packagePath`, or null with the reason when the
// stored path leads outside the package (absolute, "..", a symbolic link out).
std::optional<std::string> mediaPathInPackage(const std::string& packagePath, const std::string& relativePath,
                                              std::string* reason);

// Where a save that was cut off between its two renames left the previous package
// (file systems without an exchanging rename); readPackage puts it back.
std::string previousPackagePath(const std::string& packagePath);

}  // namespace WorkspaceFile
