#include "engine/EngineSupervisor.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QtConcurrent/QtConcurrentRun>
#include <algorithm>

#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "core/LibraryTitle.h"
#include "engine/Manifest.h"
#include "platform/Background.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Mounts.h"
#include "platform/ProcessTable.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"
#include "plex/PMSClient.h"

namespace vt {

namespace {

constexpr const char* kTooSlow = "Vantory didn't start in time. Try quitting and reopening the app.";
constexpr const char* kMountFailed =
    "Couldn't connect Plex to your library folder. Try quitting and reopening Vantory.";
constexpr const char* kGaveUp = "Vantory stopped unexpectedly.";

// What follows the last ":" of an address.
int portOf(const std::string& address) {
  const auto colon = address.rfind(':');
  if (colon == std::string::npos) return 0;
  bool ok = false;
  const int port = QString::fromStdString(address.substr(colon + 1)).toInt(&ok);
  return ok ? port : 0;
}

std::optional<int> readPidFile(const std::string& path) {
  auto text = readFile(path);
  if (!text) return std::nullopt;
  bool ok = false;
  const int pid = QString::fromStdString(*text).trimmed().toInt(&ok);
  if (!ok || pid < 2) return std::nullopt;
  return pid;
}

std::string trimmedText(const std::string& s) { return QString::fromStdString(s).trimmed().toStdString(); }

// A real lstat on a worker thread, raced against the clock. A call that
// never returns is left behind.
QCoro::Task<bool> lstatWithin(Clock& clock, std::string folder, double limit) {
  struct Race {
    Completion done;
    bool answered = false;
  };
  auto race = std::make_shared<Race>();
  auto future = QtConcurrent::run([folder] {
    struct stat st {};
    ::lstat(folder.c_str(), &st);
  });
  future.then(QCoreApplication::instance(), [race] {
    race->answered = true;
    race->done.fire();
  });
  const auto timer = clock.schedule(limit, [race] { race->done.fire(); });
  co_await race->done;
  clock.cancelTimer(timer);
  co_return race->answered;
}

}  // namespace

std::optional<int> EngineInstance::runningPid() const {
  if (process && process->state() != QProcess::NotRunning) return static_cast<int>(process->processId());
  if (adoptedPID) return *adoptedPID;
  return std::nullopt;
}

EngineSupervisor::EngineSupervisor(AppConfig& config, LibraryStore& store, EngineSupervisorEnvironment environment)
    : config_(config),
      store_(store),
      env_(std::move(environment)),
      log_(env_.logFile, env_.logToStandardError),
      client_(*env_.http) {
  if (!env_.plexClient) env_.plexClient = [](const AppConfig& c) { return PMSClient::fromConfig(c); };
  if (!env_.probeFolder) {
    Clock* clock = env_.clock;
    env_.probeFolder = [clock](std::string folder, double limit) { return lstatWithin(*clock, folder, limit); };
  }
  movie_.paths = EngineInstancePaths::forKind(EngineKind::movie, env_.dataDirectory, config_);

  ManifestPublisher::Hooks hooks;
  hooks.startInstance = [this](EngineInstanceState& s, std::vector<EngineEntry> entries) {
    return startInstance(static_cast<EngineInstance&>(s), std::move(entries));
  };
  hooks.stopInstance = [this](EngineInstanceState& s) { return stopInstance(static_cast<EngineInstance&>(s)); };
  hooks.tvInstance = [this]() -> EngineInstanceState& { return ensureTvInstance(); };
  hooks.existingTvInstance = [this]() -> EngineInstanceState* { return tv_.get(); };
  hooks.applyConfig = [this] { kickPlexSync(); };
  hooks.playbackActive = [this] { return env_.playbackActive && env_.playbackActive(); };
  hooks.isHidden = env_.isHidden;
  hooks.log = [this](const std::string& line) { append(line); };
  publisher_ = std::make_unique<ManifestPublisher>(store_, config_, *env_.clock, client_, movie_, std::move(hooks));
}

EngineSupervisor::~EngineSupervisor() {
  *alive_ = false;
  for (EngineInstance* i : {&movie_, tv_.get()}) {
    if (!i) continue;
    for (Job* job : {&i->logTask, &i->restartTask, &i->stableTask, &i->mountWatchdogTask}) job->cancel();
    // A healthy engine outlives the application: its QProcess is let go
    // without killing it (destroying a QProcess would).
    if (i->process) {
      i->process->disconnect();
      i->process->setParent(nullptr);
      i->process = nullptr;
    }
    // Deleted now, not later: a watch that fired after this point would
    // call into a supervisor that is gone.
    delete std::exchange(i->exitSource, nullptr);
  }
  for (auto& job : replaceTasks_) job.cancel();
}

EngineInstance& EngineSupervisor::ensureTvInstance() {
  if (!tv_) {
    tv_ = std::make_unique<EngineInstance>();
    tv_->paths = EngineInstancePaths::forKind(EngineKind::tv, env_.dataDirectory, config_);
  }
  return *tv_;
}

void EngineSupervisor::setState(EngineInstance& instance, EngineState state) {
  instance.state = state;
  if (&instance == &movie_) emit stateChanged();
}

void EngineSupervisor::setLastError(std::optional<std::string> text) {
  if (lastError_ == text) return;
  lastError_ = std::move(text);
  emit lastErrorChanged();
}

std::vector<EngineEntry> EngineSupervisor::entriesFor(const EngineInstance& instance) const {
  auto entries = publisher_->buildEntries();
  return instance.kind() == EngineKind::movie ? std::move(entries.movie) : std::move(entries.tv);
}

std::string EngineSupervisor::logOffsetKey(const EngineInstance& instance) const {
  return instance.kind() == EngineKind::movie ? "engineLogOffset.movie" : "engineLogOffset.tv";
}

void EngineSupervisor::kickPlexSync() {
  if (env_.requestReconcile) env_.requestReconcile();
}

// Prepare -------------------------------------------------------------------

QCoro::Task<> EngineSupervisor::prepare(bool isTestHome) {
  auto alive = alive_;
  ensureTvInstance();
  std::set<std::string> keep;
  for (EngineInstance* instance : {&movie_, tv_.get()}) {
    bool adopted = false;
    if (!isTestHome) adopted = co_await adoptIfRunning(*instance);
    if (!*alive) co_return;
    if (adopted)
      keep.insert(instance->paths.mountPoint);
    else
      co_await cleanOrphanFromPidFile(instance->paths.pidFile);
    if (!*alive) co_return;
  }
  co_await sweepStaleMounts(isTestHome, keep);
}

QCoro::Task<> EngineSupervisor::sweepStaleMounts(bool, std::set<std::string> keep) {
  for (const std::string& folder : {env_.dataDirectory + "/Library", env_.dataDirectory + "/Library TV"}) {
    if (keep.count(folder)) continue;
    co_await env_.mounter->unmount(folder);
    QDir().rmdir(QString::fromStdString(folder));
  }
}

// Adoption ------------------------------------------------------------------

QCoro::Task<bool> EngineSupervisor::adoptIfRunning(EngineInstance& instance) {
  if (instance.state != EngineState::stopped && instance.state != EngineState::failed) co_return false;
  auto alive = alive_;
  setState(instance, EngineState::starting);
  const auto adoption = co_await client_.adopt(instance.paths.controlURL, static_cast<int32_t>(::getpid()));
  if (!*alive) co_return false;
  if (!adoption) {
    setState(instance, EngineState::stopped);
    co_return false;
  }
  std::optional<int> pid = adoption->pid;
  bool predates = false;
  if (!pid || *pid < 2) {
    predates = true;
    pid = co_await portHolderPid(instance);
    if (!*alive) co_return false;
  }
  if (!pid || *pid < 2 || !processExists(*pid)) {
    setState(instance, EngineState::stopped);
    co_return false;
  }

  writeFileAtomically(instance.paths.pidFile, std::to_string(*pid));
  instance.adoptedPID = *pid;
  watchAdopted(instance, *pid);
  startLogTail(instance, static_cast<uint64_t>(config_.store().integer(logOffsetKey(instance)).value_or(0)));

  const std::string& key = config_.rdKey();
  instance.launchedRDKey =
      adoption->rd_key_sha256 == EngineStatusClient::keyHash(key) ? std::optional<std::string>(key) : std::nullopt;

  const auto entries = entriesFor(instance);
  const auto prints = fingerprints(entries);
  instance.lastConfigFingerprint = prints.all;
  instance.lastVisibleConfigFingerprint = prints.visible;
  instance.entryCount = entries.size();

  setState(instance, EngineState::running);
  append(instance.label() + " adopted the running engine (pid " + std::to_string(*pid) + ", vtnfs " +
         adoption->version + ")");
  didBecomeReady(instance);

  if (predates) {
    replaceWhenIdle(instance, "it predates this Vantory");
  } else if (!env_.appVersion.empty() && adoption->version != env_.appVersion && adoption->version != "test") {
    replaceWhenIdle(instance, "it's vtnfs " + adoption->version + " and this is Vantory " + env_.appVersion);
  }
  co_return true;
}

void EngineSupervisor::watchAdopted(EngineInstance& instance, int pid) {
  clearExitSource(instance);
  EngineInstance* target = &instance;
  auto alive = alive_;
  instance.exitSource = new ProcessExitWatch(pid, *env_.clock, [this, alive, target, pid] {
    // Only while that pid is still the instance's adopted engine.
    if (*alive && target->adoptedPID == pid) handleExit(*target, -1, pid);
  });
}

void EngineSupervisor::clearExitSource(EngineInstance& instance) {
  if (!instance.exitSource) return;
  // Maybe called from the watch's own callback, hence deleted later.
  instance.exitSource->cancel();
  instance.exitSource->deleteLater();
  instance.exitSource = nullptr;
}

void EngineSupervisor::replaceWhenIdle(EngineInstance& instance, std::string reason) {
  auto alive = alive_;
  EngineInstance* target = &instance;
  replaceTasks_.push_back(Job::start([this, alive, target, reason](CancelToken token) -> QCoro::Task<> {
    if (!co_await env_.clock->sleep(kReplaceDelay, token)) co_return;
    while (*alive && env_.playbackActive && env_.playbackActive())
      if (!co_await env_.clock->sleep(kReplaceDelay, token)) co_return;
    if (!*alive || target->state != EngineState::running || !target->adoptedPID) co_return;
    append(target->label() + " replacing the engine — " + reason);
    co_await stopInstance(*target);
    if (!*alive) co_return;
    co_await startInstance(*target, entriesFor(*target));
  }));
}

// Leftovers -----------------------------------------------------------------

QCoro::Task<std::optional<int>> EngineSupervisor::portHolderPid(const EngineInstance& instance) {
  const int port = portOf(instance.paths.controlAddress);
  if (port <= 0) co_return std::nullopt;
  auto lookup = [port] { return listeningPids(port); };  // named: gcc 12 mishandles temporaries in co_await
  const auto pids = co_await runInBackground(std::move(lookup));
  for (int pid : pids) {
    if (pid <= 1) continue;
    const auto name = processName(pid);
    if (name && lastPathComponent(trimmedText(*name)) == "vtnfs") co_return pid;
  }
  co_return std::nullopt;
}

QCoro::Task<> EngineSupervisor::cleanOrphanFromPidFile(std::string pidFile) {
  const auto pid = readPidFile(pidFile);
  if (!pid) co_return;
  QFile::remove(QString::fromStdString(pidFile));
  const auto name = processName(*pid);
  if (name && lastPathComponent(trimmedText(*name)) == "vtnfs") {
    sendSignal(*pid, SIGKILL);
    append("[supervisor] cleaned up orphaned engine (pid " + std::to_string(*pid) + ")");
  }
}

QCoro::Task<> EngineSupervisor::clearStaleEngine(EngineInstance& instance) {
  auto alive = alive_;
  co_await env_.mounter->unmount(instance.paths.mountPoint);
  if (!*alive) co_return;
  if (auto pid = instance.runningPid()) sendSignal(*pid, SIGTERM);
  releaseProcess(instance);
  instance.adoptedPID.reset();
  clearExitSource(instance);
  co_await cleanOrphanFromPidFile(instance.paths.pidFile);
  if (!*alive) co_return;
  if (auto pid = co_await portHolderPid(instance)) {
    if (!*alive) co_return;
    sendSignal(*pid, SIGKILL);
    append(instance.label() + " stopped a leftover engine holding its ports (pid " + std::to_string(*pid) + ")");
  }
  for (int i = 0; i < 30 && *alive; ++i) {
    if (!co_await portHolderPid(instance)) break;
    if (!*alive) co_return;
    co_await env_.clock->sleep(0.1);
  }
  QDir().rmdir(QString::fromStdString(instance.paths.mountPoint));
}

// Start ---------------------------------------------------------------------

QCoro::Task<> EngineSupervisor::start() {
  movie_.restartTask.cancel();
  movie_.restartAttempts = 0;
  co_await startInstance(movie_, entriesFor(movie_));
}

QCoro::Task<> EngineSupervisor::startInstance(EngineInstance& instance, std::vector<EngineEntry> entries) {
  if (instance.state != EngineState::stopped && instance.state != EngineState::failed) co_return;
  auto alive = alive_;
  const int generation = instance.generation;
  setState(instance, EngineState::starting);
  if (&instance == &movie_) setLastError(std::nullopt);

  const auto abandon = [&]() -> QCoro::Task<> {
    append(instance.label() + " start abandoned — stopped while starting");
    co_await stopInstance(instance);
  };

  const std::optional<std::string> failure = co_await startSteps(instance, std::move(entries));
  if (!*alive) co_return;
  if (failure) {
    // A stop during the start explains the failure: that is an abandonment.
    if (instance.generation != generation) {
      co_await abandon();
      co_return;
    }
    if (&instance == &movie_) setLastError(*failure);
    append(instance.label() + " start failed: " + *failure);
    co_await stopInstance(instance);
    if (!*alive) co_return;
    setState(instance, EngineState::failed);
    co_return;
  }
  if (instance.generation != generation) {
    co_await abandon();
    co_return;
  }
  co_await ensurePlexLibrary(instance);
  if (!*alive) co_return;
  if (instance.generation != generation) {
    co_await abandon();
    co_return;
  }
  setState(instance, EngineState::running);
  append(instance.label() + " ready — library folder at " + instance.paths.mountPoint);
  didBecomeReady(instance);
}

QCoro::Task<std::optional<std::string>> EngineSupervisor::startSteps(EngineInstance& instance,
                                                                     std::vector<EngineEntry> entries) {
  auto alive = alive_;
  co_await clearStaleEngine(instance);
  if (!*alive) co_return std::nullopt;
  if (auto error = prepareEngineFiles()) co_return error;

  writeFileAtomically(instance.paths.configURL, encodeEngineConfig(entries));
  const auto prints = fingerprints(entries);
  instance.lastConfigFingerprint = prints.all;
  instance.lastVisibleConfigFingerprint = prints.visible;
  instance.entryCount = entries.size();

  if (auto error = launchEngine(instance)) co_return error;
  if (auto error = co_await waitForHealth(instance)) co_return error;
  if (!*alive) co_return std::nullopt;
  co_return co_await connectLibraryFolder(instance);
}

std::optional<std::string> EngineSupervisor::prepareEngineFiles() {
  QDir().mkpath(QString::fromStdString(env_.dataDirectory + "/tv"));
  // The probe caches; "excluded from backup" has no meaning here.
  QDir().mkpath(QString::fromStdString(env_.dataDirectory + "/probe-cache"));
  QDir().mkpath(QString::fromStdString(env_.dataDirectory + "/tv/probe-cache"));
  if (env_.bundledEngine.empty() || !QFileInfo(QString::fromStdString(env_.bundledEngine)).isFile())
    return std::string("Bundled resource vtnfs missing");
  const QString copy = QString::fromStdString(env_.dataDirectory + "/vtnfs");
  // Replacing a running binary: write beside it and rename over it.
  const QString temp = copy + ".new";
  QFile::remove(temp);
  if (!QFile::copy(QString::fromStdString(env_.bundledEngine), temp))
    return std::string("Bundled resource vtnfs missing");
  QFile::setPermissions(temp, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                                  QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther |
                                  QFileDevice::ExeOther);
  if (::rename(temp.toLocal8Bit().constData(), copy.toLocal8Bit().constData()) != 0)
    return std::string("Bundled resource vtnfs missing");
  return std::nullopt;
}

std::optional<std::string> EngineSupervisor::launchEngine(EngineInstance& instance) {
  auto* process = new QProcess();
  auto env = QProcessEnvironment::systemEnvironment();
  const std::string key = config_.rdKey();
  env.insert("VT_RD_KEY", QString::fromStdString(key));
  process->setProcessEnvironment(env);
  process->setStandardOutputFile(QProcess::nullDevice());
  process->setStandardErrorFile(QProcess::nullDevice());
  process->setProgram(QString::fromStdString(env_.dataDirectory + "/vtnfs"));
  process->setArguments({"-config", QString::fromStdString(instance.paths.configURL), "-nfs",
                         QString::fromStdString(instance.paths.nfsAddress), "-control",
                         QString::fromStdString(instance.paths.controlAddress), "-mount",
                         QString::fromStdString(instance.paths.mountPoint), "-log",
                         QString::fromStdString(instance.paths.logFile)});
  process->start();
  if (!process->waitForStarted(10000)) {
    const std::string error = process->errorString().toStdString();
    process->deleteLater();
    return error;
  }
  instance.launchedRDKey = key;
  const int pid = static_cast<int>(process->processId());
  EngineInstance* target = &instance;
  // Queued: the handler runs on a later turn, never inside QProcess's own signal.
  connect(
      process, &QProcess::finished, this,
      [this, target, process, pid](int code, QProcess::ExitStatus status) {
        if (target->process == nullptr || target->process == process)
          handleExit(*target, status == QProcess::NormalExit ? code : -1, pid);
        process->deleteLater();
      },
      Qt::QueuedConnection);
  instance.process = process;
  startLogTail(instance, 0);
  writeFileAtomically(instance.paths.pidFile, std::to_string(pid));
  append(instance.label() + " launched engine (pid " + std::to_string(pid) + ")");
  return std::nullopt;
}

QCoro::Task<std::optional<std::string>> EngineSupervisor::waitForHealth(EngineInstance& instance) {
  if (!instance.paths.controlURL) co_return std::string("Bad control URL");
  auto alive = alive_;
  const auto url = instance.paths.controlURL;
  for (int i = 0; i < kHealthTries; ++i) {
    if (co_await client_.healthz(url)) co_return std::nullopt;
    if (!*alive) co_return std::nullopt;
    co_await env_.clock->sleep(kHealthPause);
    if (!*alive) co_return std::nullopt;
  }
  co_return std::string(kTooSlow);
}

QCoro::Task<std::optional<std::string>> EngineSupervisor::connectLibraryFolder(EngineInstance& instance) {
  auto alive = alive_;
  QDir().mkpath(QString::fromStdString(instance.paths.mountPoint));
  co_await env_.mounter->unmount(instance.paths.mountPoint);
  if (!*alive) co_return std::nullopt;
  const auto result = co_await env_.mounter->mount(portOf(instance.paths.nfsAddress), instance.paths.mountPoint);
  if (!*alive) co_return std::nullopt;
  if (result.status != 0) {
    append(instance.label() + " library folder connect failed: " + result.output);
    co_return std::string(kMountFailed);
  }
  co_return std::nullopt;
}

QCoro::Task<> EngineSupervisor::ensurePlexLibrary(EngineInstance& instance) {
  auto plex = env_.plexClient(config_);
  if (!plex) co_return;
  auto alive = alive_;
  const bool tv = instance.kind() == EngineKind::tv;
  const std::string location = instance.paths.mountPoint;

  std::set<std::string> wanted;
  for (const auto& title : store_.titles()) {
    if (title.season.has_value() != tv) continue;
    if (env_.isHidden && env_.isHidden(title)) continue;
    wanted.insert(lastPathComponent(title.name));
  }

  const auto skipped = [&](const PMSError& e) { append("[supervisor] library setup skipped: " + e.description()); };
  auto section = co_await plex->sectionForLocation(location);
  if (!*alive) co_return;
  if (!section.ok()) co_return skipped(*section.error);
  if (!*section.value) {
    auto created = co_await plex->createSection(tv ? "Vantory TV" : "Vantory", tv, location);
    if (!*alive) co_return;
    if (!created.ok()) co_return skipped(*created.error);
  }
  append("[supervisor] Plex library verified at " + location);
  auto disabled = co_await plex->disableAnalysisJobs(location);
  if (!*alive) co_return;
  if (!disabled.ok()) co_return skipped(*disabled.error);
  append("[supervisor] disabled heavy Plex scanners for " + location);

  if (!wanted.empty()) {
    auto index = co_await plex->fileIndex(location);
    if (!*alive) co_return;
    const bool all = index.ok() && std::all_of(wanted.begin(), wanted.end(),
                                               [&](const std::string& f) { return index.value->count(f) > 0; });
    if (all) {
      append("[supervisor] Plex already indexed " + std::to_string(wanted.size()) +
             " file(s) — skipping re-scan on restart");
      co_return;
    }
  }
  auto refreshed = co_await plex->refreshSection(location);
  if (!*alive) co_return;
  if (!refreshed.ok()) co_return skipped(*refreshed.error);
  append("[supervisor] requested Plex re-scan of " + location);
}

void EngineSupervisor::didBecomeReady(EngineInstance& instance) {
  stuck_.erase(instance.kind());
  pushCacheBudget();
  if (&instance == &movie_) {
    if (env_.startIntentWatcher) env_.startIntentWatcher();
    if (env_.setWarmupUntil) env_.setWarmupUntil(env_.clock->now() + 120);
  }
  startMountWatchdog(instance);
  if (&instance == &movie_) kickPlexSync();
  EngineInstance* target = &instance;
  instance.stableTask.cancel();
  instance.stableTask = Job::start([this, target](CancelToken token) -> QCoro::Task<> {
    if (co_await env_.clock->sleep(kStableSeconds, token)) target->restartAttempts = 0;
  });
}

void EngineSupervisor::pushCacheBudget() {
  const auto limit = static_cast<double>(config_.cacheLimitGB());
  const auto send = [client = client_](std::optional<QUrl> url, double gigabytes) {
    Job::start([client, url, gigabytes](CancelToken) -> QCoro::Task<> { co_await client.setBudget(url, gigabytes); });
  };
  if (tv_ && tv_->state == EngineState::running) {
    send(movie_.paths.controlURL, (limit + limit) / 3.0);
    send(tv_->paths.controlURL, limit / 3.0);
  } else {
    send(movie_.paths.controlURL, limit);
  }
}

// Watchdog ------------------------------------------------------------------

void EngineSupervisor::startMountWatchdog(EngineInstance& instance) {
  instance.mountWatchdogTask.cancel();
  auto alive = alive_;
  EngineInstance* target = &instance;
  instance.mountWatchdogTask = Job::start([this, alive, target](CancelToken token) -> QCoro::Task<> {
    int misses = 0;
    for (;;) {
      if (!co_await env_.clock->sleep(kWatchdogPeriod, token) || !*alive) co_return;
      if (target->state != EngineState::running) continue;
      const bool answered = co_await env_.probeFolder(target->paths.mountPoint, kWatchdogLimit);
      if (token.isCancelled() || !*alive) co_return;
      if (answered) {
        misses = 0;
        continue;
      }
      ++misses;
      append(target->label() + " library folder liveness probe missed (" + std::to_string(misses) + "/3)");
      if (misses < 3) continue;
      append(target->label() + " library folder unresponsive for ~1 minute — restarting engine");
      const auto pid = target->runningPid();
      if (pid) sendSignal(*pid, SIGTERM);
      if (!co_await env_.clock->sleep(5, token) || !*alive) co_return;
      if (pid && target->runningPid() == pid) sendSignal(*pid, SIGKILL);
      misses = 0;
    }
  });
}

// Exit ----------------------------------------------------------------------

void EngineSupervisor::removePidFileIfHolds(const EngineInstance& instance, int pid) {
  if (readPidFile(instance.paths.pidFile) == pid) QFile::remove(QString::fromStdString(instance.paths.pidFile));
}

void EngineSupervisor::releaseProcess(EngineInstance& instance) {
  // The finished handler deletes the QProcess; until then it must not be
  // reported against the instance.
  instance.process = nullptr;
}

void EngineSupervisor::handleExit(EngineInstance& instance, int status, int pid) {
  removePidFileIfHolds(instance, pid);
  releaseProcess(instance);
  instance.adoptedPID.reset();
  clearExitSource(instance);
  if (instance.state != EngineState::running) return;
  instance.stableTask.cancel();
  instance.mountWatchdogTask.cancel();

  EngineInstance* target = &instance;
  auto alive = alive_;
  Job::start([this, alive, target](CancelToken) -> QCoro::Task<> {
    co_await env_.mounter->unmount(target->paths.mountPoint);
    if (*alive) append(target->label() + " disconnected library folder after unexpected exit");
  });

  const std::string statusText = std::to_string(status);
  if (instance.restartAttempts >= kMaxRestarts) {
    setState(instance, EngineState::failed);
    stuck_.insert(instance.kind());
    setLastError(std::string(kGaveUp));
    append(instance.label() + " engine exited unexpectedly (status " + statusText + "); giving up after 5 attempts");
    return;
  }
  const int delay = 2 << instance.restartAttempts;
  ++instance.restartAttempts;
  append(instance.label() + " engine exited unexpectedly (status " + statusText + "); will restart (attempt " +
         std::to_string(instance.restartAttempts) + "/5) in " + std::to_string(delay) + "s");
  setState(instance, EngineState::stopped);
  instance.restartTask.cancel();
  instance.restartTask = Job::start([this, alive, target, delay](CancelToken token) -> QCoro::Task<> {
    if (!co_await env_.clock->sleep(delay, token) || !*alive) co_return;
    co_await startInstance(*target, entriesFor(*target));
  });
}

// Stop ----------------------------------------------------------------------

QCoro::Task<> EngineSupervisor::stopInstance(EngineInstance& instance) {
  auto alive = alive_;
  ++instance.generation;
  instance.restartTask.cancel();
  instance.stableTask.cancel();
  instance.mountWatchdogTask.cancel();
  if (&instance == &movie_ && env_.stopIntentWatcher) env_.stopIntentWatcher();
  const bool failed = instance.state == EngineState::failed;
  if (!failed) setState(instance, EngineState::stopping);

  co_await env_.mounter->unmount(instance.paths.mountPoint);
  if (!*alive) co_return;
  QDir().rmdir(QString::fromStdString(instance.paths.mountPoint));

  clearExitSource(instance);
  const auto pid = instance.runningPid();
  if (pid) sendSignal(*pid, SIGTERM);
  releaseProcess(instance);
  instance.adoptedPID.reset();
  if (pid) removePidFileIfHolds(instance, *pid);
  instance.logTask.cancel();

  if (!failed && instance.state != EngineState::failed) {
    setState(instance, EngineState::stopped);
    append(instance.label() + " engine stopped");
  }
}

// Log tail ------------------------------------------------------------------

void EngineSupervisor::startLogTail(EngineInstance& instance, uint64_t offset) {
  instance.logTask.cancel();
  instance.logOffset = offset;
  instance.logBuffer.clear();
  EngineInstance* target = &instance;
  auto alive = alive_;
  instance.logTask = Job::start([this, alive, target](CancelToken token) -> QCoro::Task<> {
    for (;;) {
      if (!*alive || token.isCancelled()) co_return;
      readLogTail(*target);
      if (!co_await env_.clock->sleep(kLogTailPeriod, token)) co_return;
    }
  });
}

void EngineSupervisor::readLogTail(EngineInstance& instance) {
  QFile file(QString::fromStdString(instance.paths.logFile));
  if (!file.open(QIODevice::ReadOnly)) return;
  const auto size = static_cast<uint64_t>(file.size());
  uint64_t readFrom = instance.logOffset + instance.logBuffer.size();
  if (size < instance.logOffset || size < readFrom) {  // the file was replaced or cut
    instance.logOffset = 0;
    instance.logBuffer.clear();
    readFrom = 0;
  }
  if (size == readFrom) return;
  file.seek(static_cast<qint64>(readFrom));
  const QByteArray bytes = file.read(static_cast<qint64>(size - readFrom));
  instance.logBuffer.append(bytes.constData(), static_cast<size_t>(bytes.size()));
  const std::string prefix = instance.kind() == EngineKind::movie ? "" : "[tv] ";
  size_t start = 0;
  for (size_t nl; (nl = instance.logBuffer.find('\n', start)) != std::string::npos; start = nl + 1) {
    // Invalid UTF-8 is repaired on the way through QString.
    const std::string line =
        QString::fromUtf8(instance.logBuffer.data() + start, static_cast<qsizetype>(nl - start)).toStdString();
    log_.append(prefix + line);
  }
  if (start > 0) {
    instance.logOffset += start;
    instance.logBuffer.erase(0, start);
    config_.store().setInteger(logOffsetKey(instance), static_cast<int64_t>(instance.logOffset));
  }
}

void EngineSupervisor::stopLogTails() {
  movie_.logTask.cancel();
  if (tv_) tv_->logTask.cancel();
}

// Exit of the application ---------------------------------------------------

void EngineSupervisor::shutdownAtExit() {
  if (env_.stopIntentWatcher) env_.stopIntentWatcher();
  for (EngineInstance* instance : {&movie_, tv_.get()}) {
    if (!instance) continue;
    const std::string& folder = instance->paths.mountPoint;
    auto r = env_.mounter->unmountNow(folder);
    if (r.status != 0 && r.output.find("not currently mounted") == std::string::npos) {
      QThread::msleep(300);
      r = env_.mounter->unmountNow(folder);
      if (r.status != 0 && r.output.find("not currently mounted") == std::string::npos)
        append(instance->label() + " could not unmount " + folder + ": " + r.output);
    }
    if (auto pid = instance->runningPid()) sendSignal(*pid, SIGTERM);
  }
}

}  // namespace vt
