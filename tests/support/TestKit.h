#pragma once

#include <QCoreApplication>
#include <QTcpServer>
#include <QTemporaryDir>
#include <chrono>
#include <functional>
#include <string>

#include <qcoro/qcorotask.h>

#include "platform/Paths.h"

namespace vt::test {

// A fresh, empty test home in a temporary folder, removed afterwards.
class TestHome {
 public:
  TestHome();
  const std::string& path() const { return path_; }
  std::string file(const std::string& relative) const;
  AppPaths paths() const { return AppPaths::forTestHome(path_); }

 private:
  QTemporaryDir dir_;
  std::string path_;
};

// Runs a coroutine to its end in a nested event loop and returns its value.
template <class T>
T runTask(QCoro::Task<T> task) {
  return QCoro::waitFor(std::move(task));
}
inline void runTask(QCoro::Task<> task) { QCoro::waitFor(std::move(task)); }

// Spins the event loop until `done` holds or `limitMs` of real time pass;
// returns whether it held. For waiting on real sockets and processes only;
// virtual time goes through ManualClock::advance.
bool spinUntil(const std::function<bool()>& done, int limitMs = 5000);

// Spins the event loop for a short while so posted work can run.
void settle(int ms = 10);

// A free TCP port on 127.0.0.1 (bound, read and released).
inline quint16 freePort() {
  QTcpServer s;
  s.listen(QHostAddress::LocalHost, 0);
  return s.serverPort();
}

}  // namespace vt::test
