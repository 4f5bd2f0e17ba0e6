// The window's tests run in a QApplication on the offscreen platform, with the
// application's clock and look, so that undo groups and timers go through the event loop.
#include <QApplication>

#include <gtest/gtest.h>

#include "foundation/KyoClock.h"
#include "show/SontoQtClock.h"
#include "surface/SontoTheme.h"

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  KyoInstallClock(std::make_shared<SontoQtClock>());
  SontoTheme::apply(app);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
