#include "platform/Signals.h"

#include <QSocketNotifier>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace vt {

namespace {
int signalPipe[2] = {-1, -1};

void writeSignal(int sig) {
  const char c = static_cast<char>(sig);
  [[maybe_unused]] auto n = ::write(signalPipe[1], &c, 1);
}
}  // namespace

void onTerminationSignal(std::function<void()> handler) {
  if (signalPipe[0] < 0 && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) return;
  auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read);
  QObject::connect(notifier, &QSocketNotifier::activated, notifier, [handler = std::move(handler)] {
    char c;
    [[maybe_unused]] auto n = ::read(signalPipe[0], &c, 1);
    handler();
  });
  struct sigaction sa {};
  sa.sa_handler = writeSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
}

}  // namespace vt
