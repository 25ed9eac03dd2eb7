#pragma once

#include <functional>
#include <optional>
#include <string>

#include <qcoro/qcorotask.h>

#include "engine/EngineError.h"
#include "platform/Cancellation.h"
#include "platform/Job.h"

namespace vt {

class Clock;
class LibraryMounter;

// Whether a folder answers an lstat within `limit` seconds.
using FolderProbe = std::function<QCoro::Task<bool>(std::string folder, double limit)>;

// The real probe: an lstat on a thread of its own, raced against the clock.
// A call that hangs on a dead mount is left behind with its thread and
// stalls nothing else; while it hangs, later probes of the folder miss.
FolderProbe lstatProbe(Clock& clock);

// One instance's library folder: connecting the engine's export there,
// taking it away, and the liveness watchdog that restarts an engine whose
// folder stops answering. Main thread only.
class MountKeeper {
 public:
  static constexpr double kWatchdogPeriod = 20;
  static constexpr double kWatchdogLimit = 8.0;
  static constexpr int kWatchdogMisses = 3;

  struct Watched {
    std::function<bool()> running;            // only a running engine is probed
    std::function<std::optional<int>()> pid;  // the engine to end when the folder hangs
  };

  using Log = std::function<void(const std::string&)>;

  MountKeeper(LibraryMounter& mounter, Clock& clock, FolderProbe probe, Log log, std::string label, std::string folder);

  const std::string& folder() const { return folder_; }

  // Unmounts whatever is there, then mounts the export of the engine on `port`.
  QCoro::Task<EngineResult> connect(int port, CancelToken token);
  // Unmounts; "nothing mounted" is no failure.
  QCoro::Task<> disconnect(CancelToken token);
  // Unmounts and removes the empty mount point.
  QCoro::Task<> disconnectAndRemove(CancelToken token);
  // Blocking, for the last moments of the process; retries once after 300 ms.
  void disconnectNow();

  void startWatchdog(Watched watched);
  void stopWatchdog() { watchdog_.cancelAll(); }

 private:
  LibraryMounter& mounter_;
  Clock& clock_;
  FolderProbe probe_;
  Log log_;
  std::string label_;
  std::string folder_;
  JobScope watchdog_;
};

}  // namespace vt
