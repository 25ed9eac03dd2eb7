#include "engine/EngineInstance.h"

#include <signal.h>

#include <QFile>
#include <QProcess>

#include "platform/Background.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/ProcessTable.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"
#include "platform/Text.h"

namespace vt {

std::optional<int> readEnginePidFile(const std::string& path) {
  auto text = readFile(path);
  if (!text) return std::nullopt;
  const auto pid = parseAsciiInt(trimmedView(*text));
  if (!pid || *pid < 2) return std::nullopt;
  return pid;
}

EngineInstance::EngineInstance(EngineInstancePaths instancePaths, Context context)
    : ctx_(std::move(context)),
      mount_(*ctx_.mounter, *ctx_.clock, ctx_.probeFolder, ctx_.log, instancePaths.label, instancePaths.mountPoint) {
  paths = std::move(instancePaths);
}

EngineInstance::~EngineInstance() {
  // A healthy engine outlives the application: its QProcess is let go
  // without killing it (destroying a QProcess would).
  release();
  // Deleted now, not later: a watch that fired after this point would call
  // into an instance that is gone.
  delete std::exchange(exitWatch_, nullptr);
}

std::optional<int> EngineInstance::runningPid() const {
  if (process_ && process_->state() != QProcess::NotRunning) return static_cast<int>(process_->processId());
  if (adoptedPID) return *adoptedPID;
  return std::nullopt;
}

std::string EngineInstance::logOffsetKey() const {
  return kind() == EngineKind::movie ? "engineLogOffset.movie" : "engineLogOffset.tv";
}

QCoro::Task<Result<int, EngineError>> EngineInstance::launch(std::string program, std::string rdKey,
                                                             CancelToken token) {
  auto* process = new QProcess();
  auto env = QProcessEnvironment::systemEnvironment();
  env.insert("VT_RD_KEY", QString::fromStdString(rdKey));
  process->setProcessEnvironment(env);
  process->setStandardOutputFile(QProcess::nullDevice());
  process->setStandardErrorFile(QProcess::nullDevice());
  process->setProgram(QString::fromStdString(program));
  process->setArguments({"-config", QString::fromStdString(paths.configURL), "-nfs",
                         QString::fromStdString(paths.nfsAddress), "-control",
                         QString::fromStdString(paths.controlAddress), "-mount",
                         QString::fromStdString(paths.mountPoint), "-log", QString::fromStdString(paths.logFile)});

  // Each launch writes a fresh engine log; the last one is kept beside it.
  // The tail starts at its beginning, so nothing old is shown as new.
  const QString logPath = QString::fromStdString(paths.logFile);
  QFile::remove(logPath + ".1");
  QFile::rename(logPath, logPath + ".1");
  ctx_.settings->setInteger(logOffsetKey(), 0);

  // Started or failed to start: whichever Qt reports first, without blocking.
  Completion settled;
  bool failedToStart = false;
  auto onStarted = QObject::connect(process, &QProcess::started, process, [settled] { settled.fire(); });
  auto onError = QObject::connect(process, &QProcess::errorOccurred, process,
                                  [settled, &failedToStart](QProcess::ProcessError error) {
                                    if (error == QProcess::FailedToStart) failedToStart = true;
                                    settled.fire();
                                  });
  process->start();
  const bool settledInTime = co_await settled.wait(token);
  QObject::disconnect(onStarted);
  QObject::disconnect(onError);
  if (!settledInTime || token.isCancelled()) {
    // The owner is going: the process, if it runs, is adopted next time.
    process->setParent(nullptr);
    co_return Failure(EngineError{EngineError::Kind::stopped, {}});
  }
  if (failedToStart || process->state() == QProcess::NotRunning) {
    const std::string error = process->errorString().toStdString();
    process->deleteLater();
    co_return Failure(EngineError{EngineError::Kind::launchFailed, error});
  }

  launchedRDKey = rdKey;
  const int pid = static_cast<int>(process->processId());
  // Queued: the handler runs on a later turn, never inside QProcess's own signal.
  QObject::connect(
      process, &QProcess::finished, this,
      [this, process, pid](int code, QProcess::ExitStatus) {
        // For a process a signal ended, Qt reports the signal's number.
        const bool current = process_ == nullptr || process_ == process;
        process->deleteLater();
        if (current && ctx_.onExit) ctx_.onExit(*this, code, pid);
      },
      Qt::QueuedConnection);
  process_ = process;
  startLogTail(0);
  writeFileAtomically(paths.pidFile, std::to_string(pid));
  co_return pid;
}

void EngineInstance::adopt(int pid) {
  writeFileAtomically(paths.pidFile, std::to_string(pid));
  adoptedPID = pid;
  watchAdopted(pid);
  startLogTail(static_cast<uint64_t>(ctx_.settings->integer(logOffsetKey()).value_or(0)));
}

void EngineInstance::watchAdopted(int pid) {
  clearExitWatch();
  exitWatch_ = new ProcessExitWatch(pid, *ctx_.clock, [this, pid] {
    // Only while that pid is still the instance's adopted engine.
    if (adoptedPID == pid && ctx_.onExit) ctx_.onExit(*this, -1, pid);
  });
}

void EngineInstance::clearExitWatch() {
  if (!exitWatch_) return;
  // Maybe called from the watch's own callback, hence deleted later.
  exitWatch_->cancel();
  exitWatch_->deleteLater();
  exitWatch_ = nullptr;
}

void EngineInstance::release() {
  if (process_) {
    // The finished handler would delete it; from here on nothing reports
    // against the instance, and the process keeps running on its own.
    process_->disconnect(this);
    process_->setParent(nullptr);
    process_ = nullptr;
  }
  adoptedPID.reset();
  clearExitWatch();
}

void EngineInstance::signal(int sig) const {
  if (auto pid = runningPid()) sendSignal(*pid, sig);
}

void EngineInstance::removePidFileIfHolds(int pid) const {
  if (readEnginePidFile(paths.pidFile) == pid) QFile::remove(QString::fromStdString(paths.pidFile));
}

void EngineInstance::scheduleRestart(double delaySeconds, std::function<QCoro::Task<>()> fn) {
  restart_.cancelAll();
  restart_.start([this, delaySeconds, fn = std::move(fn)](CancelToken token) -> QCoro::Task<> {
    if (!co_await ctx_.clock->sleep(delaySeconds, token)) co_return;
    co_await fn();
  });
}

void EngineInstance::markReady() {
  stable_.cancelAll();
  stable_.start([this](CancelToken token) -> QCoro::Task<> {
    if (co_await ctx_.clock->sleep(kStableSeconds, token)) restartAttempts = 0;
  });
}

void EngineInstance::startLogTail(uint64_t offset) {
  logTail_.cancelAll();
  logOffset_ = offset;
  logBuffer_.clear();
  logTail_.start([this](CancelToken token) -> QCoro::Task<> {
    for (;;) {
      if (token.isCancelled()) co_return;
      co_await readLogTail(token);
      if (token.isCancelled() || !co_await ctx_.clock->sleep(kLogTailPeriod, token)) co_return;
    }
  });
}

namespace {

struct LogPiece {
  bool replaced = false;  // the file is shorter than what was read: start over
  QByteArray bytes;
};

// At most `limit` bytes of the file from `from`, read off the main thread.
LogPiece readLogPiece(const std::string& path, uint64_t from, uint64_t limit) {
  LogPiece piece;
  QFile file(QString::fromStdString(path));
  if (!file.open(QIODevice::ReadOnly)) return piece;
  const auto size = static_cast<uint64_t>(file.size());
  if (size < from) {
    piece.replaced = true;
    from = 0;
  }
  if (size == from) return piece;
  file.seek(static_cast<qint64>(from));
  piece.bytes = file.read(static_cast<qint64>(std::min(size - from, limit)));
  return piece;
}

// The engine stamps its own lines "yyyy-MM-dd HH:mm:ss "; ours get a stamp
// of their own, so the engine's goes.
std::string_view withoutStamp(std::string_view line) {
  static constexpr std::string_view shape = "dddd-dd-dd dd:dd:dd ";
  if (line.size() < shape.size()) return line;
  for (size_t i = 0; i < shape.size(); ++i) {
    const char c = line[i];
    if (shape[i] == 'd' ? (c < '0' || c > '9') : c != shape[i]) return line;
  }
  return line.substr(shape.size());
}

}  // namespace

QCoro::Task<> EngineInstance::readLogTail(CancelToken token) {
  // Whole lines are handed on; a partial last line waits in the buffer.
  uint64_t readFrom = logOffset_ + logBuffer_.size();
  auto read = [path = paths.logFile, readFrom] { return readLogPiece(path, readFrom, kLogTailPiece); };
  const LogPiece piece = co_await runInBackground(std::move(read));
  if (token.isCancelled()) co_return;
  if (piece.replaced) {
    logOffset_ = 0;
    logBuffer_.clear();
  }
  if (piece.bytes.isEmpty()) co_return;
  logBuffer_.append(piece.bytes.constData(), static_cast<size_t>(piece.bytes.size()));
  // A line longer than a piece is handed on as it stands.
  if (logBuffer_.find('\n') == std::string::npos && logBuffer_.size() >= kLogTailPiece) logBuffer_.push_back('\n');
  const std::string prefix = kind() == EngineKind::movie ? "" : "[tv] ";
  size_t start = 0;
  for (size_t nl; (nl = logBuffer_.find('\n', start)) != std::string::npos; start = nl + 1) {
    // Invalid UTF-8 is repaired on the way through QString.
    const std::string line =
        QString::fromUtf8(logBuffer_.data() + start, static_cast<qsizetype>(nl - start)).toStdString();
    ctx_.log(prefix + std::string(withoutStamp(line)));
  }
  if (start > 0) {
    logOffset_ += start;
    logBuffer_.erase(0, start);
    ctx_.settings->setInteger(logOffsetKey(), static_cast<int64_t>(logOffset_));
  }
}

}  // namespace vt
