// The show model needs an event loop for its queued work (undo groups, timers), so
// its tests run inside a QCoreApplication on the main thread.
#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
