#pragma once
// The application object: the launch sequence, the MIDI inputs made at launch, the
// fan-out of every MIDI batch to all open shows, and the hard stop at termination.
// It holds no show state. Main thread only.

#include <QApplication>
#include <QStringList>

#include <memory>
#include <string>

#include "audio/KyoMIDIInput.h"

class Sonto : public QApplication {
  Q_OBJECT

 public:
  // User defaults.
  static constexpr const char* kLogLevelKey = "LogLevel";
  static constexpr const char* kVirtualInputStreamIDKey = "SontoMIDIVirtualInputStreamID";
  static constexpr const char* kAskedToSendProfileKey = "SontoAskedToSendProfile";
  static constexpr const char* kInitialToolTipDelayKey = "NSInitialToolTipDelay";

  Sonto(int& argc, char** argv);
  ~Sonto() override;

  // Before the first window: version line, launch date, log level, random seed.
  void initialize();
  // The rest of the launch: first-run clean-up of the update keys, MIDI.
  void applicationDidFinishLaunching();
  void initializeMIDI();
  // Every open show gets the whole batch.
  void takeMIDIMessages(const KyoMIDIMessages& messages);
  void applicationWillTerminate();
  // SIGTERM, SIGINT and SIGHUP quit as Quit does, devices closed, but without the
  // question about unsaved edits: nobody is there to answer it.
  void installQuitSignals();

  bool applicationHasFinishedLaunching() const { return m_applicationHasFinishedLaunching; }
  KyoMIDIPortInputStream* portInputStream() const { return m_portInputStream.get(); }
  KyoMIDIVirtualInputStream* virtualInputStream() const { return m_virtualInputStream.get(); }

 private:
  bool m_midiInitialized = false;
  std::unique_ptr<KyoMIDIPortInputStream> m_portInputStream;
  std::unique_ptr<KyoMIDIVirtualInputStream> m_virtualInputStream;
  bool m_applicationHasFinishedLaunching = false;
  void quitOnSignal(int signal);
};

// The window: an untitled show, or the show files named on the command line.
// Answers the exit status.
int sontoRunApplication(int argc, char** argv);

// What is wrong with the arguments of a launch of the window, found without a
// display: empty when each is one of Qt's own options or a show to open.
std::string sontoShowArgumentsProblem(int argc, char** argv);
