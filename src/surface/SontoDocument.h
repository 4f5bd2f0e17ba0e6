#pragma once
// One open show as the window sees it: its carts, undo manager, log, the lock of
// show mode, the master transport state, and the document side (file name, the
// edited mark counted from the undo manager's groups). Main thread only.
//
// The workspace runtime proper (output device, temporary media folder, duck ramp,
// the file) belongs to the show library; this holds the state the window needs and
// forwards the transport to the carts.

#include <QObject>
#include <QString>

#include <memory>
#include <string>
#include <vector>

#include "foundation/KyoHotKey.h"
#include "show/Cart.h"
#include "show/SontoLogger.h"
#include "show/SontoUndoManager.h"

class KyoAudioDevice;

class SontoDocument : public QObject, public CartWorkspace {
  Q_OBJECT

 public:
  enum class ChangeType { Done, Undone, Redone, Cleared };

  // An untitled show with one cart, "Cart 1".
  SontoDocument();
  ~SontoDocument() override;

  SontoLogger* logger() override { return &m_logger; }
  SontoUndoManager* undoManager() { return &m_undoManager; }

  const std::vector<std::unique_ptr<Cart>>& carts() const { return m_carts; }
  // Named "Cart N" after the number of carts ever added when the name is empty.
  Cart* addCart(const std::string& name = {});

  // Null while no output is open: cues made then have no device.
  std::shared_ptr<KyoAudioDevice> audioDevice() const { return m_audioDevice; }

  // Show mode.
  bool isLocked() const { return m_locked; }
  void setLocked(bool locked);

  bool isPaused() const { return m_paused; }
  void setPaused(bool paused);
  bool isDucked() const { return m_ducked; }
  void duck();
  void unduck();
  // Linear gain, 0 to 1.
  float masterVolume() const { return m_masterVolume; }
  void setMasterVolume(float volume);
  // Every cue of every cart fades out by its own panic.
  void panic();
  void hardStopAll();

  // The workspace keys of the settings; empty ones match nothing.
  KyoHotKey pauseAllKey;
  KyoHotKey resumeAllKey;
  KyoHotKey duckMasterKey;
  // 0 is any channel, else 1 to 16.
  int midiChannel = 0;

  // The document side. An untitled document has an empty file name.
  const QString& fileName() const { return m_fileName; }
  void setFileName(const QString& fileName);
  // The file's base name, or "Untitled" (with a number after the first).
  QString displayName() const;
  bool isDocumentEdited() const { return m_changeCount != 0; }
  void updateChangeCount(ChangeType change);

 signals:
  void lockedChanged();
  void pausedChanged();
  void duckedChanged();
  void masterVolumeChanged();
  void documentEditedChanged();
  void fileNameChanged();
  void cartsChanged();

 private:
  SontoUndoManager m_undoManager;
  SontoLogger m_logger;
  std::vector<std::unique_ptr<Cart>> m_carts;
  int m_cartsEverAdded = 0;
  std::shared_ptr<KyoAudioDevice> m_audioDevice;
  bool m_locked = false;
  bool m_paused = false;
  bool m_ducked = false;
  float m_masterVolume = 1.0f;
  QString m_fileName;
  int m_untitledNumber = 0;
  // Edits done since the last save, less those undone: zero is clean.
  long m_changeCount = 0;
};
