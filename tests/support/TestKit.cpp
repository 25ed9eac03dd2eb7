#include "support/TestKit.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>
#include <filesystem>

namespace vt::test {

TestHome::TestHome() : path_(dir_.path().toStdString()) {}

std::string TestHome::file(const std::string& relative) const {
  return (std::filesystem::path(path_) / relative).string();
}

bool spinUntil(const std::function<bool()>& done, int limitMs) {
  QElapsedTimer t;
  t.start();
  while (!done()) {
    if (t.elapsed() > limitMs) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    if (!done()) QThread::usleep(200);
  }
  return true;
}

void settle(int ms) {
  QElapsedTimer t;
  t.start();
  while (t.elapsed() < ms) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

}  // namespace vt::test
