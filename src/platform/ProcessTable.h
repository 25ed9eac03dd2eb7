#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QObject>

#include "platform/Clock.h"

namespace vt {

// What the system knows of other processes, read from /proc: who listens on
// a port, what a process is called, whether it lives. Blocking but quick;
// callers on the main thread wrap the port lookup in runInBackground.

// Pids of the processes with a TCP socket listening on `port` (IPv4 or IPv6),
// in ascending order.
std::vector<int> listeningPids(int port);

// The process's command name (/proc/<pid>/comm, at most 15 characters),
// trimmed; none when there is no such process.
std::optional<std::string> processName(int pid);

// kill(pid, 0) succeeds (or the process exists but isn't ours to signal).
bool processExists(int pid);

// Sends a signal; false when it could not be sent.
bool sendSignal(int pid, int signal);

// The last path component of a command name, as process names are compared.
std::string lastPathComponent(const std::string& text);

// Calls `onExit` once, on the main thread, when the process `pid` ends.
// Works for any process, not only children: a pidfd where the kernel allows
// one, otherwise a poll every second on `clock`. Destroying the watch cancels
// it; nothing is called after that.
class ProcessExitWatch : public QObject {
 public:
  ProcessExitWatch(int pid, Clock& clock, std::function<void()> onExit);
  ~ProcessExitWatch() override;
  int pid() const { return pid_; }
  // Nothing is called after this; for a watch that is deleted later.
  void cancel();
  // True when a pidfd watches the process, false when it is polled.
  bool usesPidfd() const { return fd_ >= 0; }

  static constexpr double kPollSeconds = 1.0;
  // Tests turn pidfds off to run the polling path on any kernel.
  static void setPidfdAllowed(bool allowed);

 private:
  void poll(double delay);
  void fire();

  int pid_;
  Clock& clock_;
  int fd_ = -1;
  Clock::TimerId timer_ = 0;
  std::function<void()> onExit_;
};

}  // namespace vt
