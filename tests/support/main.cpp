#include <QCoreApplication>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Every test binary runs with an application object on the main thread, as
// the program does: timers, sockets and coroutines need its event loop.
int main(int argc, char** argv) {
  ::testing::InitGoogleMock(&argc, argv);
  qputenv("QT_LOGGING_RULES", "qt.httpserver*=false");
  QCoreApplication app(argc, argv);
  return RUN_ALL_TESTS();
}
