#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QObject>

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
// Works for any process, not only children (a pidfd). Destroying the watch
// cancels it.
class ProcessExitWatch : public QObject {
 public:
  ProcessExitWatch(int pid, std::function<void()> onExit);
  ~ProcessExitWatch() override;
  int pid() const { return pid_; }
  // False when the process could not be watched (already gone: onExit is
  // then called on the next turn of the event loop).
  bool watching() const { return fd_ >= 0; }

 private:
  int pid_;
  int fd_ = -1;
  std::function<void()> onExit_;
};

}  // namespace vt
