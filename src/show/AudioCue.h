#pragma once
// A cue that plays one audio file: the record (fields, storage, copying, the
// clipboard, hot key and MIDI trigger) and its playback (AudioCuePlayback.cpp).
//
// Run state: `playing` is the cue's own flag (started, not yet stopped, true through
// a pause); isPlaying() is whether its source sounds now. They are different things.
// Threads: the main thread, except the hard stop and panic workers (one per sounding
// cue), which touch only the source and the atomics, and bring every change of the
// cue's observed state back to the main thread.

#include <QByteArray>
#include <QJsonObject>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "foundation/KyoClock.h"
#include "foundation/KyoNotificationCenter.h"
#include "foundation/SontoColor.h"
#include "show/AudioCueSource.h"
#include "show/Cue.h"

class QMimeData;

class AudioCue : public Cue, public std::enable_shared_from_this<AudioCue> {
  Q_OBJECT

 public:
  using EffectArray = std::vector<std::shared_ptr<KyoEffect>>;

  static constexpr const char* kHardStopNotification = "SontoCueHardStopNotification";
  static constexpr const char* kPasteboardType = "com.kyomedia.sonto.cue";
  static constexpr const char* kIndexPasteboardType = "com.kyomedia.sonto.cue-index";
  static constexpr const char* kArchiveClassName = "SontoCue";
  static constexpr double kProgressInterval = 0.1;  // seconds
  static constexpr double kPanicStep = 0.01;        // seconds
  static constexpr float kDuckVolume = 0.05f;
  static constexpr double kDuckSeconds = 2.0;

  // Defaults of the record: volume 0, no source, no device.
  AudioCue();
  ~AudioCue() override;

  static std::shared_ptr<AudioCue> cue() { return std::make_shared<AudioCue>(); }
  // A cue for a file: named after it, volume 1, a new source on the device with the
  // file's length as end time. A file that cannot be read still gives a cue; it is broken.
  static std::shared_ptr<AudioCue> createWithFile(const std::string& path, std::shared_ptr<KyoAudioDevice> device);
  // The decoded record, with a source that has no file yet: the reader calls
  // setCart, updateFile and setAudioDevice afterwards. Wrong types read as defaults.
  // What the archive held that had to be mended (a level out of range) goes to `notes`.
  static std::shared_ptr<AudioCue> createWithArchive(const QJsonObject& archive,
                                                     std::vector<std::string>* notes = nullptr);
  QJsonObject archive() const;

  // How new sources are made; without one a cue has no source and is broken.
  static void setSourceFactory(AudioCueSourceFactory factory);

  std::shared_ptr<Cue> copy() const override;
  std::shared_ptr<AudioCue> copyAudioCue() const;

  // The clipboard form: the archive under kPasteboardType. Null when the data holds
  // no cue.
  std::unique_ptr<QMimeData> mimeData() const;
  static std::shared_ptr<AudioCue> fromMimeData(const QMimeData& data);
  // The second item of a drag inside a grid: {"index": n}.
  static void setIndexOnMimeData(QMimeData& data, unsigned long index);
  static std::optional<unsigned long> indexFromMimeData(const QMimeData& data);

  bool isBroken() const override;
  std::string brokenExplanation() const override;
  std::string description() const override;

  // Every move of the media file comes here.
  void updateFile(const std::string& path);
  // The source's slice from startTime, endTime and loops, and back to the start.
  void updateSlices();

  static std::string parseHotkey(const std::string& text);
  static int parseMidiNote(long long value);

  // Fields.
  std::string file() const override { return m_file; }
  void setFile(const std::string& file);
  const std::string& documentPath() const { return m_documentPath; }
  void setDocumentPath(const std::string& documentPath);
  AudioCueSource* audioSource() const { return m_audioSource.get(); }
  float progress() const { return m_progress; }
  void setProgress(float progress);
  float volume() const { return m_volume; }
  void setVolumeValue(float volume);  // the stored level alone; playback adds the source
  bool loops() const { return m_loops; }
  void setLoopsValue(bool loops);
  bool hold() const { return m_hold; }
  void setHold(bool hold);
  bool solo() const { return m_solo; }
  void setSolo(bool solo);
  bool ducking() const { return m_ducking; }
  void setDucking(bool ducking);
  bool paused() const { return m_paused.load(); }
  void setPaused(bool paused);
  bool playing() const { return m_playing.load(); }
  void setPlaying(bool playing);
  bool isDead() const override { return m_dead.load(); }
  void setDead(bool dead) override;
  bool saved() const { return m_saved; }
  void setSaved(bool saved);
  bool doPanic() const { return m_doPanic.load(); }
  void setDoPanic(bool doPanic);
  std::mutex& panicLock() { return m_panicLock; }  // only ever tried, never waited for
  KyoClock::TimerId progressTimer() const { return m_progressTimer; }
  void setProgressTimer(KyoClock::TimerId timer) { m_progressTimer = timer; }
  const SontoColor& color() const { return m_color; }
  void setColor(const SontoColor& color);
  const std::string& hotkey() const override { return m_hotkey; }
  // Stores the parsed form; the same value again changes nothing.
  void setHotkey(const std::string& hotkey);
  // Shared with copies of this cue.
  std::shared_ptr<EffectArray> effects() const { return m_effects; }
  void setEffects(std::shared_ptr<EffectArray> effects);
  void addEffect(const std::shared_ptr<KyoEffect>& effect) override;
  void removeEffect(const std::shared_ptr<KyoEffect>& effect) override;
  double startTime() const { return m_startTime; }
  void setStartTimeValue(double seconds);
  double endTime() const { return m_endTime; }
  void setEndTimeValue(double seconds);
  std::shared_ptr<KyoAudioDevice> audioDevice() const { return m_audioDevice; }
  // Moves the cue to another device object without stopping it.
  void setAudioDevice(std::shared_ptr<KyoAudioDevice> device) override;
  long deviceChannel() const { return m_deviceChannel; }
  void setDeviceChannelValue(long channel);

  // --- Playback ---
  void triggerDown() override;
  void triggerUp() override;
  void play() override;
  void pause() override;
  void resume() override;
  void stop() override;
  // Silence in the next cycle, effect tails included; the caller never waits.
  void hardStop() override;
  void duck() override;
  void unduck() override;
  void updateProgress();
  void audioFinished();

  bool isPlaying() const;
  bool isRunning() const { return isPlaying(); }
  bool isLoaded() const;
  double elapsedTime() const;
  double remainingTime() const;

  // Live edits: each keeps the place of a sounding cue.
  void setVolume(float volume);
  void setLoops(bool loops);
  void setStartTime(double seconds);
  void setEndTime(double seconds);
  void loadActionAt(double seconds);
  // The device's whole output matrix, from this channel on (0 or less is 1).
  void setDeviceChannel(long channel);
  void moveEffectAtIndex(size_t from, size_t to);
  // Bypasses or enables one of this cue's effects and tells the cue's observers.
  void setEffectEnabled(const std::shared_ptr<KyoEffect>& effect, bool enabled);
  void updateEffects();
  void closeEffectEditors();

  // MIDI trigger: status, note, second data byte. Empty until a note is set.
  const QByteArray& midiTrigger() const override { return m_midiTrigger; }
  void setMidiTrigger(const QByteArray& trigger);
  // Null while there is no trigger: such a cue matches no message.
  std::optional<int> midiNote() const override;
  void setMidiNote(int note);
  void setMidiTriggerFrom(const SontoMIDIMessage& message);
  int midiTriggerCommand() const;
  void setMidiTriggerCommand(int command);
  int midiTriggerByte2() const;
  void setMidiTriggerByte2(int value);
  bool matchesForMIDIDown(const SontoMIDIMessage& message) const override;
  bool matchesForMIDIUp(const SontoMIDIMessage& message) const override;
  void handleMIDIMessages(const std::vector<SontoMIDIMessage>& messages) override;

 signals:
  void fileChanged();
  void documentPathChanged();
  void progressChanged();
  void volumeChanged();
  void loopsChanged();
  void holdChanged();
  void soloChanged();
  void duckingChanged();
  void pausedChanged();
  void playingChanged();
  void deadChanged();
  void savedChanged();
  void doPanicChanged();
  void colorChanged();
  void hotkeyChanged();
  void effectsChanged();
  void midiNoteChanged();
  void startTimeChanged();
  void endTimeChanged();
  void audioDeviceChanged();
  void deviceChannelChanged();

 protected:
  bool _isActionPanicking() const override { return m_doPanic.load(); }
  void _panicAction() override;

 private:
  static std::unique_ptr<AudioCueSource> makeSource();
  bool _isActionRunning() const { return isPlaying(); }
  void _hardStop();
  // On the panic worker; duration in seconds.
  void _panic(double duration);
  // The doPanic flag from a worker: the store at once, the signal on the main thread.
  void storeDoPanicFromWorker(bool doPanic);
  void startProgressTimer();
  void stopProgressTimer();
  // Gives the last reference that a worker held back to the main thread, so that
  // the cue (a QObject) is never destroyed on a worker.
  static void releaseOnMain(std::shared_ptr<AudioCue> self);
  void setMonoCrosspoint();
  // A trigger of three bytes to edit; a missing one starts as a note on of note 0.
  QByteArray editableTrigger() const;

  std::string m_file;
  std::string m_documentPath;
  std::unique_ptr<AudioCueSource> m_audioSource;
  float m_progress = 0.0f;
  float m_volume = 0.0f;
  bool m_loops = false;
  bool m_hold = false;
  bool m_solo = false;
  bool m_ducking = false;
  // Read by panic and hard stop threads.
  std::atomic<bool> m_paused{false};
  std::atomic<bool> m_playing{false};
  std::atomic<bool> m_dead{false};
  bool m_saved = false;
  std::atomic<bool> m_doPanic{false};
  std::mutex m_panicLock;
  KyoClock::TimerId m_progressTimer = 0;
  SontoColor m_color = SontoColor::defaultColor();
  std::string m_hotkey;
  std::shared_ptr<EffectArray> m_effects;
  QByteArray m_midiTrigger;
  double m_startTime = 0.0;
  double m_endTime = 0.0;
  std::shared_ptr<KyoAudioDevice> m_audioDevice;
  long m_deviceChannel = 1;
  KyoScopedObserver m_hardStopObserver;
};
