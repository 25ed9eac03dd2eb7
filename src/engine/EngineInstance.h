#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <QObject>
#include <QPointer>
#include <QProcess>
#include <qcoro/qcorotask.h>

#include "engine/EngineError.h"
#include "engine/ManifestPublisher.h"
#include "engine/MountKeeper.h"
#include "platform/Job.h"
#include "platform/Result.h"

class QProcess;

namespace vt {

class Clock;
class LibraryMounter;
class ProcessExitWatch;
class SettingsStore;

// The pid an engine's pid file names; none for a missing or unreadable file
// or a pid below 2.
std::optional<int> readEnginePidFile(const std::string& path);

// One engine process, `movie` or `tv`: launching it, adopting one that an
// earlier application process left running, its pid file, its exit, the
// restart policy's counters and timers, and the tail of its log. The
// sequences that tie these together (start, stop, restart) are the
// supervisor's. Main thread only.
class EngineInstance : public QObject, public EngineInstanceState {
  Q_OBJECT
 public:
  static constexpr double kStableSeconds = 30;
  static constexpr double kLogTailPeriod = 0.5;
  static constexpr uint64_t kLogTailPiece = 256 * 1024;

  struct Context {
    Clock* clock = nullptr;
    SettingsStore* settings = nullptr;  // keeps the log tail's offset
    LibraryMounter* mounter = nullptr;
    FolderProbe probeFolder;
    std::function<void(const std::string&)> log;
    // The engine exited: its exit status (or -1) and pid.
    std::function<void(EngineInstance&, int status, int pid)> onExit;
  };

  EngineInstance(EngineInstancePaths paths, Context context);
  ~EngineInstance() override;

  EngineKind kind() const { return paths.kind; }
  const std::string& label() const { return paths.label; }
  MountKeeper& mount() { return mount_; }

  // The pid of the engine this application process knows of, if any.
  std::optional<int> runningPid() const;
  bool launchedHere() const { return process_ != nullptr; }

  // Starts `program` with the key in its environment; the pid once it runs.
  QCoro::Task<Result<int, EngineError>> launch(std::string program, std::string rdKey, CancelToken token);
  // Takes over the engine `pid` that answered the adoption.
  void adopt(int pid);
  // Forgets the process without signalling it (it stays alive).
  void release();
  void signal(int sig) const;
  void removePidFileIfHolds(int pid) const;

  // Starts following the engine's log from `offset`.
  void startLogTail(uint64_t offset);
  void stopLogTail() { logTail_.cancelAll(); }

  // The restart policy's state.
  int generation = 0;  // raised by every stop; a start that sees it change gives up
  std::optional<std::string> launchedRDKey;
  int restartAttempts = 0;
  std::optional<int32_t> adoptedPID;
  // Runs `fn` after `delaySeconds` unless a stop or another restart comes first.
  void scheduleRestart(double delaySeconds, std::function<QCoro::Task<>()> fn);
  void cancelRestart() { restart_.cancelAll(); }
  // Resets the restart counter once the engine has run for 30 s.
  void markReady();
  void cancelStableTimer() { stable_.cancelAll(); }

  std::string logOffsetKey() const;
  uint64_t logOffset() const { return logOffset_; }

 private:
  void watchAdopted(int pid);
  void clearExitWatch();
  QCoro::Task<> readLogTail(CancelToken token);

  Context ctx_;
  MountKeeper mount_;
  QPointer<QProcess> process_;
  ProcessExitWatch* exitWatch_ = nullptr;
  uint64_t logOffset_ = 0;
  std::string logBuffer_;
  JobScope restart_;
  JobScope stable_;
  JobScope logTail_;
};

}  // namespace vt
