#include "app/SontoApplication.h"

#include <QSettings>
#include <QStandardPaths>
#include <QSysInfo>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "foundation/KyoClock.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"
#include "show/AudioCue.h"
#include "show/AudioCueSourceKyo.h"
#include "show/SontoMIDIMessage.h"
#include "show/SontoQtClock.h"
#include "surface/SontoDocumentController.h"
#include "surface/SontoTheme.h"
#include "surface/WorkspaceController.h"

namespace {

double physicalMemoryGigabytes() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || pageSize <= 0) return 0.0;
  return static_cast<double>(pages) * static_cast<double>(pageSize) / static_cast<double>(1ull << 30);
}

}  // namespace

Sonto::Sonto(int& argc, char** argv) : QApplication(argc, argv) {
  setApplicationName(QStringLiteral("Sonto"));
  setOrganizationName(QStringLiteral("Sonto"));
  setApplicationVersion(QStringLiteral(SONTO_VERSION_STRING));
  setQuitOnLastWindowClosed(true);
  connect(this, &QCoreApplication::aboutToQuit, this, &Sonto::applicationWillTerminate);
}

Sonto::~Sonto() = default;

void Sonto::initialize() {
  KyoLog("Sonto %s on %s with %.1f GB RAM", SONTO_VERSION_STRING, QSysInfo::prettyProductName().toUtf8().constData(),
         physicalMemoryGigabytes());
  KyoEnvironment::setObject(KyoWallClockSeconds(), "appLaunchDate");
  QSettings defaults;
  KyoEnvironment::setLogLevel(defaults.value(kLogLevelKey, 0).toInt());
  KyoLog("Launching at log level %d", static_cast<int>(KyoEnvironment::logLevel()));
  srandom(static_cast<unsigned>(KyoWallClockSeconds()));
  defaults.setValue(kInitialToolTipDelayKey, 800);
}

void Sonto::applicationDidFinishLaunching() {
  QSettings defaults;
  if (!defaults.contains(kAskedToSendProfileKey)) {
    // Once per user, so that the update checker asks its questions anew.
    defaults.setValue(kAskedToSendProfileKey, true);
    for (const char* key :
         {"SULastCheckTime", "SUCheckAtStartup", "SUEnableAutomaticChecks", "SUSendProfileInfo",
          "SULastProfileSubmissionDate"}) {
      defaults.remove(QString::fromLatin1(key));
    }
    defaults.sync();
  }
  m_midiInitialized = false;
  initializeMIDI();
  m_applicationHasFinishedLaunching = true;
}

// A stream that cannot be made is no failure of the application: it runs on
// without that input, and without both it hears no MIDI.
void Sonto::initializeMIDI() {
  if (m_midiInitialized) return;
  auto destination = [this](const KyoMIDIMessages& messages) { takeMIDIMessages(messages); };

  KyoMIDIError error;
  m_portInputStream = KyoMIDIPortInputStream::create(error);
  if (!m_portInputStream) {
    KyoLog("ERROR: Could not create MIDI input port stream: Caught %s: %s", error.name.c_str(), error.reason.c_str());
  } else {
    m_portInputStream->setMessageDestination(destination);
  }

  error = {};
  m_virtualInputStream = KyoMIDIVirtualInputStream::create(error);
  if (!m_virtualInputStream) {
    KyoLog("ERROR: Could not create MIDI input virtual stream: Caught %s: %s", error.name.c_str(),
           error.reason.c_str());
  } else {
    m_virtualInputStream->setMessageDestination(destination);
    QSettings defaults;
    const int32_t kept = defaults.value(kVirtualInputStreamIDKey, 0).toInt();
    // The number may be taken; the one really granted is the one remembered.
    if (kept != 0) m_virtualInputStream->setUniqueID(kept);
    defaults.setValue(kVirtualInputStreamIDKey, m_virtualInputStream->uniqueID());
  }
  m_midiInitialized = true;
}

// The one entry point of all MIDI, on the main thread: every open show, in the
// order they were opened, gets the whole batch through its window.
void Sonto::takeMIDIMessages(const KyoMIDIMessages& messages) {
  SontoDocumentController::sharedDocumentController().takeMIDIMessages(messages);
}

// Every cue of every show stops at once; nothing else is torn down by hand. The MIDI
// inputs go first, so that no batch arrives at a show that is going.
void Sonto::applicationWillTerminate() {
  if (m_portInputStream) m_portInputStream->setMessageDestination(nullptr);
  if (m_virtualInputStream) m_virtualInputStream->setMessageDestination(nullptr);
  KyoNotificationCenter::defaultCenter().postNotification(AudioCue::kHardStopNotification, this);
}

int sontoRunApplication(int argc, char** argv) {
  Sonto application(argc, argv);
  const QStringList files = application.arguments().mid(1);
  KyoInstallClock(std::make_shared<SontoQtClock>());
  application.initialize();
  SontoTheme::apply(application);
  // Every cue made from here on sounds through the engine, on its workspace's device.
  AudioCueSourceKyo::install();
  application.applicationDidFinishLaunching();

  auto& documents = SontoDocumentController::sharedDocumentController();
  if (!files.isEmpty()) documents.openDocuments(files);
  // Started without a show, or with none that could be read: an untitled one.
  if (documents.documents().empty()) documents.newDocument();
  return application.exec();
}
