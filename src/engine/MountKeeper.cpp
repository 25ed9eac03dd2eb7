#include "engine/MountKeeper.h"

#include <signal.h>
#include <sys/stat.h>

#include <QCoreApplication>
#include <QDir>
#include <QThread>
#include <atomic>
#include <memory>
#include <thread>

#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/Mounts.h"
#include "platform/ProcessTable.h"

namespace vt {

FolderProbe lstatProbe(Clock& clock) {
  // One probe at a time per folder: a hung lstat keeps its thread, and the
  // next probes miss instead of piling up threads behind it.
  auto busy = std::make_shared<std::atomic<bool>>(false);
  return [&clock, busy](std::string folder, double limit) -> QCoro::Task<bool> {
    struct Race {
      Completion done;
      bool answered = false;
    };
    auto race = std::make_shared<Race>();
    if (!busy->exchange(true)) {
      QObject* app = QCoreApplication::instance();
      std::thread([folder, race, busy, app] {
        struct stat st {};
        ::lstat(folder.c_str(), &st);
        busy->store(false);
        QMetaObject::invokeMethod(app, [race] {
          race->answered = true;
          race->done.fire();
        });
      }).detach();
    }
    const auto timer = clock.schedule(limit, [race] { race->done.fire(); });
    co_await race->done;
    clock.cancelTimer(timer);
    co_return race->answered;
  };
}

MountKeeper::MountKeeper(LibraryMounter& mounter, Clock& clock, FolderProbe probe, Log log, std::string label,
                         std::string folder)
    : mounter_(mounter),
      clock_(clock),
      probe_(probe ? std::move(probe) : lstatProbe(clock)),
      log_(log ? std::move(log) : Log([](const std::string& line) { logLine(line); })),
      label_(std::move(label)),
      folder_(std::move(folder)) {}

QCoro::Task<EngineResult> MountKeeper::connect(int port, CancelToken token) {
  QDir().mkpath(QString::fromStdString(folder_));
  co_await disconnect(token);
  if (token.isCancelled()) co_return Failure(EngineError{EngineError::Kind::stopped, {}});
  const auto result = co_await mounter_.mount(port, folder_, token);
  if (token.isCancelled()) co_return Failure(EngineError{EngineError::Kind::stopped, {}});
  if (!result) {
    log_(label_ + " library folder connect failed: " + message(result.error()));
    co_return Failure(EngineError{EngineError::Kind::mountFailed, {}});
  }
  co_return EngineResult();
}

QCoro::Task<> MountKeeper::disconnect(CancelToken token) {
  auto result = co_await mounter_.unmount(folder_, token);
  (void)result;  // nothing mounted, or a failure the next mount reports
}

QCoro::Task<> MountKeeper::disconnectAndRemove(CancelToken token) {
  co_await disconnect(token);
  if (token.isCancelled()) co_return;
  QDir().rmdir(QString::fromStdString(folder_));
}

void MountKeeper::disconnectNow() {
  auto r = mounter_.unmountNow(folder_);
  if (r || r.error().kind == MountError::Kind::notMounted) return;
  QThread::msleep(300);
  r = mounter_.unmountNow(folder_);
  if (!r && r.error().kind != MountError::Kind::notMounted)
    log_(label_ + " could not unmount " + folder_ + ": " + message(r.error()));
}

void MountKeeper::startWatchdog(Watched watched) {
  watchdog_.cancelAll();
  watchdog_.start([this, watched](CancelToken token) -> QCoro::Task<> {
    int misses = 0;
    for (;;) {
      if (!co_await clock_.sleep(kWatchdogPeriod, token)) co_return;
      if (!watched.running()) continue;
      const bool answered = co_await probe_(folder_, kWatchdogLimit);
      if (token.isCancelled()) co_return;
      if (answered) {
        misses = 0;
        continue;
      }
      ++misses;
      log_(label_ + " library folder liveness probe missed (" + std::to_string(misses) + "/3)");
      if (misses < kWatchdogMisses) continue;
      log_(label_ + " library folder unresponsive for ~1 minute — restarting engine");
      const auto pid = watched.pid();
      if (pid) sendSignal(*pid, SIGTERM);
      if (!co_await clock_.sleep(5, token)) co_return;
      if (pid && watched.pid() == pid) sendSignal(*pid, SIGKILL);
      misses = 0;
    }
  });
}

}  // namespace vt
