#include "app/SontoApplication.h"

#include <QSettings>
#include <QStandardPaths>
#include <QSysInfo>

#include <QSocketNotifier>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "effects/ui/KyoEffectEditor.h"
#include "foundation/KyoClock.h"
#include "foundation/KyoEnvironment.h"
#include "foundation/KyoLog.h"
#include "foundation/KyoNotificationCenter.h"
#include "show/AudioCue.h"
#include "show/AudioCueSourceKyo.h"
#include "show/SontoMIDIMessage.h"
#include "show/SontoQtClock.h"
#include "show/WorkspaceFile.h"
#include "surface/SontoDocumentController.h"
#include "surface/SontoTheme.h"
#include "surface/WorkspaceController.h"

namespace {

// A signal handler may do next to nothing: it writes the signal's number to a
// socket that the main loop watches, and the quit happens there.
int gSignalSocket[2] = {-1, -1};

void writeSignal(int signal) {
  const int saved = errno;
  const unsigned char number = static_cast<unsigned char>(signal);
  [[maybe_unused]] const ssize_t written = write(gSignalSocket[0], &number, 1);
  // Should the clean quit hang, the process ends anyway (SIGALRM's own action).
  alarm(3);
  errno = saved;
}

double physicalMemoryGigabytes() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || pageSize <= 0) return 0.0;
  return static_cast<double>(pages) * static_cast<double>(pageSize) / static_cast<double>(1ull << 30);
}

// Qt's own options, which QGuiApplication and QApplication take out of the
// arguments, with one dash or two: those followed by a value, those with the value
// after '=', and flags.
constexpr std::string_view kQtOptionsWithValue[] = {
    "platform",        "platformpluginpath", "platformtheme", "plugin",
    "qwindowgeometry", "qwindowicon",        "qwindowtitle",  "session",
    "display",         "geometry",           "style",         "stylesheet"};
constexpr std::string_view kQtOptionsWithEquals[] = {"style", "stylesheet", "qmljsdebugger"};
constexpr std::string_view kQtFlags[] = {"reverse", "widgetcount", "nograb", "dograb", "sync"};

template <size_t N>
bool isOneOf(std::string_view name, const std::string_view (&names)[N]) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

}  // namespace

std::string sontoShowArgumentsProblem(int argc, char** argv) {
  namespace fs = std::filesystem;
  for (int i = 0; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.size() > 1 && arg[0] == '-') {
      const std::string_view name = std::string_view(arg).substr(arg.compare(0, 2, "--") == 0 ? 2 : 1);
      const size_t equals = name.find('=');
      if (equals != std::string_view::npos ? isOneOf(name.substr(0, equals), kQtOptionsWithEquals)
                                           : isOneOf(name, kQtFlags))
        continue;
      if (equals == std::string_view::npos && isOneOf(name, kQtOptionsWithValue)) {
        if (++i >= argc) return "option '" + arg + "' needs a value";
        continue;
      }
      return "unknown option '" + arg + "'";
    }
    // A show is a package folder, which the reader takes whatever its name; a folder
    // without its document is one only by the name that saves give it.
    std::string path = arg;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const bool named = fs::path(path).extension() == std::string(".") + WorkspaceFile::kExtension;
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status)) {
      if (named || fs::exists(fs::path(path) / WorkspaceFile::kDocumentName, error)) continue;
      return "'" + arg + "' is a folder, not a show";
    }
    if (fs::exists(status))
      return "'" + arg + "' is a file, not a show (a show is a folder NAME." + WorkspaceFile::kExtension + ")";
    // Gone in a save cut off between its two renames: opening it puts it back.
    if (named && fs::is_directory(WorkspaceFile::previousPackagePath(path), error)) continue;
    if (arg.find_first_of("/.") != std::string::npos) return "no show at '" + arg + "': no such file or folder";
    return "unknown command '" + arg + "'";
  }
  return {};
}

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
  // Containers and many servers have no ALSA sequencer: said once, in words, as a
  // fact of the machine rather than an error; the details are for developers.
  const KyoMIDIError alsa = m_portInputStream ? m_portInputStream->alsaError() : error;
  if (!alsa.name.empty()) {
    KyoLog("MIDI from the ALSA sequencer is not available on this machine%s",
           m_portInputStream ? "; MIDI through JACK is heard"
                             : " and no JACK server runs: Sonto hears no MIDI until it is restarted with one");
    KYO_LOG_AT(kKyoDebugLogLevel, "MIDI input port stream: %s: %s", alsa.name.c_str(), alsa.reason.c_str());
  }
  if (m_portInputStream) m_portInputStream->setMessageDestination(destination);

  error = {};
  m_virtualInputStream = KyoMIDIVirtualInputStream::create(error);
  if (!m_virtualInputStream) {
    if (alsa.name.empty()) {
      KyoLog("Sonto's own MIDI port, which other programs send to, could not be made: %s", error.reason.c_str());
    }
    KYO_LOG_AT(kKyoDebugLogLevel, "MIDI virtual input stream: %s: %s", error.name.c_str(), error.reason.c_str());
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

void Sonto::installQuitSignals() {
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, gSignalSocket) != 0) {
    KyoLog("Signals will end Sonto without closing its devices: no socket for them (%s)", std::strerror(errno));
    return;
  }
  auto* notifier = new QSocketNotifier(gSignalSocket[1], QSocketNotifier::Read, this);
  connect(notifier, &QSocketNotifier::activated, this, [this] {
    unsigned char number = 0;
    if (read(gSignalSocket[1], &number, 1) == 1) quitOnSignal(number);
  });
  struct sigaction action{};
  action.sa_handler = writeSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaction(signal, &action, nullptr);
}

void Sonto::quitOnSignal(int signal) {
  static bool quitting = false;
  if (quitting) return;
  quitting = true;
  KyoLog("Quitting on SIG%s: open shows close unsaved and their devices close", sigabbrev_np(signal));
  SontoDocumentController::sharedDocumentController().closeAllWithoutAsking();
  QApplication::quit();
}

int sontoRunApplication(int argc, char** argv) {
  Sonto application(argc, argv);
  application.installQuitSignals();
  const QStringList files = application.arguments().mid(1);
  KyoInstallClock(std::make_shared<SontoQtClock>());
  application.initialize();
  SontoTheme::apply(application);
  // Every cue made from here on sounds through the engine, on its workspace's device.
  AudioCueSourceKyo::install();
  // An effect's "open editor" shows its window.
  KyoEffectEditor::install();
  application.applicationDidFinishLaunching();

  auto& documents = SontoDocumentController::sharedDocumentController();
  if (!files.isEmpty()) documents.openDocuments(files);
  // Started without a show, or with none that could be read: an untitled one.
  if (documents.documents().empty()) documents.newDocument();
  return application.exec();
}
