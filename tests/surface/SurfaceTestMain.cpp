// The window's tests run in a QApplication on the offscreen platform, with the
// application's clock and look, so that undo groups and timers go through the event loop.
#include <QApplication>

#include <gtest/gtest.h>

#include <cstdlib>

#include "foundation/KyoClock.h"
#include "show/SontoQtClock.h"
#include "support/JackServer.h"
#include "support/TestFiles.h"
#include "foundation/KyoLog.h"
#include "surface/SontoAlerts.h"
#include "surface/SontoTheme.h"

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  // Before any thread: the device layer reads these. A JACK server of our own name
  // (started only by the MIDI test), and the settings (recent shows) and the shows'
  // temporary folders kept inside the run's own folder.
  setenv("JACK_DEFAULT_SERVER", sonto::test::JackServer::processServerName().c_str(), 1);
  const std::string home = sonto::test::temporaryPath("surface-home");
  setenv("XDG_CONFIG_HOME", (home + "/config").c_str(), 1);
  setenv("XDG_CACHE_HOME", (home + "/cache").c_str(), 1);
  QApplication app(argc, argv);
  QCoreApplication::setOrganizationName(QStringLiteral("SontoTest"));
  QCoreApplication::setApplicationName(QStringLiteral("SontoTest"));
  KyoInstallClock(std::make_shared<SontoQtClock>());
  SontoTheme::apply(app);
  // The windows of these tests play on offline devices, which the output menu never
  // lists: each says its device is missing. Logged, never a dialog nobody answers.
  SontoAlerts::setAlertHandler([](const QString& message, const QString&) {
    KyoLog("Alert: %s", message.toUtf8().constData());
  });
  ::testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  // What the last test closed (a timer stopped from a device's own thread as it
  // died) goes on the loop's next turns, which an exit right after it never takes.
  QCoreApplication::processEvents();
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  return result;
}
