#pragma once
// One show, without its window: the carts in tab order, the output device they all
// play through and its channel routing, the master level with its ducked level, the
// pause-all and panic of every cue, the show-mode lock, the log, the undo manager and
// a private temporary folder for imported media that is not saved yet.
//
// It is also the document: its package on disk (open, save, revert), its name and
// the edited mark, which the undo manager's groups count.
//
// Main thread, except that a save reads the carts (and their cues) from its own
// thread. The window is built on top of this.

#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "show/Cart.h"
#include "show/SontoLogger.h"
#include "show/SontoMIDIMessage.h"
#include "show/SontoUndoManager.h"
#include "show/WorkspaceFile.h"
#include "show/WorkspaceSettings.h"

class KyoAudioDevice;

class Workspace : public QObject, public CartWorkspace, public WorkspaceFileTarget {
  Q_OBJECT

 public:
  enum class ChangeType { Done, Undone, Redone, Cleared };

  static constexpr float kDefaultMasterVolume = 1.0f;
  static constexpr float kDefaultDuckedVolume = 0.15f;  // the float with the bits 0x3E19999A
  static constexpr double kDuckFadeSeconds = 0.8;
  static constexpr float kDefaultPanicDuration = 1.0f;
  static constexpr const char* kVolumeChangeActionName = "Volume Change";
  static constexpr const char* kDuckingVolumeChangeActionName = "Ducking Volume Change";
  static constexpr const char* kFirstCartName = "Cart 1";
  static constexpr int kMaxImportNameTries = 10000;
  static constexpr const char* kUntitledName = "Untitled";

  // Opens the system's default output device and makes the temporary folder. A
  // folder that cannot be made is logged and the workspace opens all the same.
  Workspace();
  // The same on a given device (opened here if it is not open). Null falls back to
  // the default output device.
  explicit Workspace(std::shared_ptr<KyoAudioDevice> device);
  // Hard-stops the cues of every cart; releases the device without closing it.
  ~Workspace() override;
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;

  // Removes the temporary folder and all in it: imported media never saved is gone.
  void close();

  // $XDG_CACHE_HOME (else ~/.cache) plus "Sonto"; empty when neither is known.
  static std::string cacheDir();

  // --- Carts, in tab order ---
  const std::vector<std::shared_ptr<Cart>>& carts() const { return m_carts; }
  // Sets the cart's workspace to this one and appends it.
  void addCart(std::shared_ptr<Cart> cart);
  // Clears the cart's workspace and removes it; answers the removed cart.
  std::shared_ptr<Cart> removeCart(const Cart* cart);
  void swapCartAtIndex(size_t index, size_t otherIndex);
  // Replaces every cart (a read); each gets this workspace and its cues the device.
  void setCarts(std::vector<std::shared_ptr<Cart>> carts) override;
  // What a new window does first: a workspace with no file, no carts and not made by
  // a dragged tab gets one cart named "Cart 1" of the default size.
  void addFirstCartIfNeeded(bool hasFile);

  // --- Log and undo ---
  SontoLogger* logger() override { return m_logger.get(); }
  std::shared_ptr<SontoLogger> sharedLogger() const { return m_logger; }
  void setLogger(std::shared_ptr<SontoLogger> logger) override;
  SontoUndoManager* undoManager() { return &m_undoManager; }

  // --- Device and routing ---
  // Never null after construction.
  std::shared_ptr<KyoAudioDevice> audioDevice() const { return m_audioDevice; }
  // Stores only; see changeOutputDevice for the whole change.
  void setAudioDevice(std::shared_ptr<KyoAudioDevice> device);
  // The output menu's change: closes the old device, opens the new one at this
  // workspace's master level, binds it, routes from `channel` and moves every cue to
  // it. Null is refused. Marking the document changed is the caller's part.
  bool changeOutputDevice(std::shared_ptr<KyoAudioDevice> device, long channel);
  // 1-based. Logical output 1 lands on physical channel `channel`, 2 on the next, up
  // to the device's last channel; 0 or less is 1; beyond the last routes nothing.
  long deviceChannel() const { return m_deviceChannel; }
  void setDeviceChannel(long channel) override;
  // The routing itself, on the device's whole matrix (a cue's channel does the same).
  static void routeOutputs(KyoAudioDevice* device, long channel);

  // --- Master level ---
  // The device's live level when it is open (mid-fade: the level at that moment),
  // else the ducked or the plain level as stored.
  float masterVolume() const;
  // Undoable; edits the level in force (the ducked one while ducked), at once.
  void setMasterVolume(float volume) override;
  float storedMasterVolume() const { return m_masterVolume; }
  float previousVolume() const { return m_previousVolume; }
  void setPreviousVolume(float volume) { m_previousVolume = volume; }
  float duckedVolume() const { return m_duckedVolume; }
  void setDuckedVolume(float volume) override { m_duckedVolume = volume; }
  // The device to the ducked level or back over 0.8 s; the flag turns at the start.
  void duck();
  void unduck();
  bool isDucked() const { return m_ducked; }
  void setDucked(bool ducked) override;  // stores only, touches no audio
  // The device's master level from the stored state, without a fade (after a read).
  void applyMasterVolumeToDevice();

  // --- Transport of every cue ---
  bool isPaused() const { return m_paused; }
  void setPaused(bool paused);  // stores only, touches no audio
  void pauseAll();
  void resumeAll();
  void stopAll();
  void hardStopAll();
  // Every sounding cue fades out over panicDuration on its own thread and stops; the
  // others stop at once. A second panic during the fades cuts them. Clears paused.
  void panic();

  // --- Settings: one set per workspace, read by the playback and the MIDI filter ---
  WorkspaceSettings& settings() { return m_settings; }
  const WorkspaceSettings& settings() const { return m_settings; }
  // Seconds of a panic fade; 0 cuts at once.
  float panicDuration() override { return m_settings.panicDuration(); }
  std::set<std::string> reservedHotkeys() override { return m_settings.hotkeys(); }
  void setPanicDuration(float seconds) { m_settings.setPanicDuration(seconds); }
  // 0 is any channel, else 1 to 16.
  long midiChannel() const { return m_settings.midiChannel(); }
  void setMidiChannel(long channel) { m_settings.setMidiChannel(channel); }
  // A batch from the MIDI inputs: in one audio cycle, the workspace's channel only,
  // to every cart.
  void processMIDIMessages(const std::vector<SontoMIDIMessage>& messages);
  void processMIDIMessages(const KyoMIDIMessages& batch) { processMIDIMessages(SontoMIDIMessage::from(batch)); }

  // --- Document state ---
  bool isLocked() const { return m_locked; }  // show mode
  void setLocked(bool locked) override;
  bool createdFromDrag() const { return m_createdFromDrag; }
  void setCreatedFromDrag(bool createdFromDrag) { m_createdFromDrag = createdFromDrag; }
  bool readFromDisk() const { return m_readFromDisk; }
  void setReadFromDisk(bool readFromDisk) { m_readFromDisk = readFromDisk; }
  // The package's path; empty while the document has no file.
  const std::string& filePath() const { return m_filePath; }

  // --- The document ---
  // Empty while untitled.
  QUrl fileURL() const { return m_fileURL; }
  // The package has moved or was written here: saved cues now play their media
  // from inside it; cues not saved yet stay in tmpPath.
  void setFileURL(const QUrl& url);
  // The package's name without ".sonto"; untitled: "Untitled", "Untitled 2", ... in
  // the order the workspaces were made in this process.
  QString displayName() const;
  // "Sonto " and the show's name (of the given URL, else its own): the name of its
  // output's client where the system names clients, as in JACK's patchbay.
  std::string clientName(const QUrl& url = QUrl()) const;
  bool isDocumentEdited() const { return m_changeCount != 0; }
  // Closed, undone and redone undo groups count by themselves.
  void updateChangeCount(ChangeType change);

  // Opens the package: whole or nothing. On success the file is this workspace's,
  // nothing is edited and there is nothing to undo; on failure nothing has changed.
  bool readFromURL(const QUrl& url, SavingError* error);
  // The package of fileURL again, whole or nothing.
  bool revertToSaved(SavingError* error);
  // Saves on a thread of its own; this returns once the document data is built (the
  // carts may be edited from then on). `completion` runs on the main thread; success
  // makes `url` the document's file and clears the edited mark of what was saved.
  // A save asked for while one runs waits for it.
  void saveToURL(const QUrl& url, std::function<void(bool ok, const SavingError& error)> completion);
  // The same save on the calling (main) thread, for tools and tests; not while a
  // save in the background runs, which reads the same cues.
  bool writeToURL(const QUrl& url, SavingError* error);
  bool isSaving() const { return m_saving; }

  // --- Reading, step by step (WorkspaceFile::applyDocument drives these) ---
  void setUndoRegistrationEnabled(bool enabled) override;
  std::string audioDeviceUID() const override;
  bool bindAudioDeviceWithUID(const std::string& uid) override;
  void setSettingsState(const QJsonObject& state) override;
  void didReadFromDisk() override;

  // --- Temporary folder and imports ---
  const std::string& tmpPath() const { return m_tmpPath; }
  // A copy of the file (links resolved) under a free name in tmpPath: take.wav,
  // take-1.wav, take-2.wav... Empty on failure, with a log line.
  std::string copyFileIntoTmp(const std::string& sourcePath);
  // True when the path lies, regardless of case, in the package or in tmpPath.
  bool containsMediaFile(const std::string& path) const;

 signals:
  void pausedChanged();
  void duckedChanged();
  void lockedChanged();
  void masterVolumeChanged();
  void deviceChannelChanged();
  void audioDeviceChanged();
  void cartsChanged();
  void settingsChanged();
  void documentEditedChanged();
  void fileURLChanged();

 private:
  struct PendingSave {
    QUrl url;
    std::function<void(bool ok, const SavingError& error)> completion;
  };
  // The show as it stands, for a save; the carts are shared, not copied.
  std::shared_ptr<WorkspaceDocument> makeDocument() const;
  void startSave(PendingSave save);
  // `changesSaved`: the change count when the document data was built.
  void didSave(const QUrl& url, long changesSaved);
  void didRead(const QUrl& url);
  void bindDevice(std::shared_ptr<KyoAudioDevice> device);
  void makeTmpFolder();
  template <typename F>
  void forEachCart(F f);

  std::shared_ptr<KyoAudioDevice> m_audioDevice;
  long m_deviceChannel = 1;
  std::vector<std::shared_ptr<Cart>> m_carts;
  std::shared_ptr<SontoLogger> m_logger;
  SontoUndoManager m_undoManager;
  bool m_paused = false;
  bool m_locked = false;
  bool m_ducked = false;
  float m_masterVolume = kDefaultMasterVolume;
  float m_previousVolume = kDefaultMasterVolume;
  float m_duckedVolume = kDefaultDuckedVolume;
  WorkspaceSettings m_settings;
  bool m_createdFromDrag = false;
  bool m_readFromDisk = false;
  std::string m_filePath;
  std::string m_tmpPath;
  QUrl m_fileURL;
  int m_untitledNumber = 0;
  // Edits since the last save, less those undone; undoing past a save goes negative.
  long m_changeCount = 0;
  bool m_saving = false;
  std::vector<PendingSave> m_pendingSaves;
};
