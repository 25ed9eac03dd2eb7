#include "engine/EngineSupervisor.h"

#include <signal.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/AppConfig.h"
#include "core/LibraryFolders.h"
#include "core/LibraryStore.h"
#include "core/LibraryTitle.h"
#include "engine/EngineInstaller.h"
#include "engine/Manifest.h"
#include "platform/Background.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Log.h"
#include "platform/Mounts.h"
#include "platform/ProcessTable.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"
#include "platform/Text.h"

namespace vt {

namespace {

constexpr const char* kGaveUp = "Vantory stopped unexpectedly.";

// What follows the last ":" of an address.
int portOf(const std::string& address) {
  const auto colon = address.rfind(':');
  if (colon == std::string::npos) return 0;
  return parseAsciiInt(std::string_view(address).substr(colon + 1)).value_or(0);
}

bool isEngineProcess(int pid) {
  const auto name = processName(pid);
  return name && lastPathComponent(trimmed(*name)) == "vtnfs";
}

EngineError stopped() { return EngineError{EngineError::Kind::stopped, {}}; }

}  // namespace

EngineSupervisor::EngineSupervisor(AppConfig& config, LibraryStore& store, EngineSupervisorEnvironment environment)
    : config_(config), store_(store), env_(std::move(environment)), client_(*env_.http) {
  if (!env_.log) env_.log = [](const std::string& line) { logLine(line); };
  if (!env_.probeFolder) env_.probeFolder = lstatProbe(*env_.clock);
  movie_ = makeInstance(EngineKind::movie);

  ManifestPublisher::Hooks hooks;
  hooks.applyConfig = [this] { kickPlexSync(); };
  hooks.playbackActive = [this] { return env_.playbackActive && env_.playbackActive(); };
  hooks.isHidden = env_.isHidden;
  // Without a rule of its own the environment leaves it to the attached catalog.
  if (!hooks.isHidden) hooks.isHidden = [this](const LibraryTitle& t) { return catalog_ && catalog_->holdsBack(t); };
  hooks.refreshItem = env_.refreshItem;
  hooks.log = env_.log;
  publisher_ = std::make_unique<ManifestPublisher>(store_, config_, *env_.clock, client_,
                                                   static_cast<EngineInstances&>(*this), std::move(hooks));
  // Every change of the library reaches the engines through the debounced flush.
  connect(&store_, &LibraryStore::changed, this, [this] { publisher_->requestFlush(1); });

  if (env_.makePlexSync) {
    PlexSyncOperations ops;
    ops.applyEngineConfig = [this] { return publisher_->applyEngineConfig(); };
    ops.isRunning = [this] { return movie_->state == EngineState::running; };
    ops.activeControlURLs = [this] {
      std::vector<std::string> urls;
      if (movie_->paths.controlURL) urls.push_back(movie_->paths.controlURL->toString().toStdString());
      if (tv_ && tv_->state == EngineState::running && tv_->paths.controlURL)
        urls.push_back(tv_->paths.controlURL->toString().toStdString());
      return urls;
    };
    ops.log = env_.log;
    plexSync_ = env_.makePlexSync(std::move(ops));
  }
}

EngineSupervisor::~EngineSupervisor() {
  // No pass may start while the rest goes.
  plexSync_.reset();
  // The jobs first, while everything they might touch still stands.
  jobs_.cancelAll();
}

void EngineSupervisor::attach(CatalogPort& catalog) {
  catalog_ = &catalog;
  if (plexSync_) plexSync_->attachCatalog(&catalog);
  // A list that lost members lets go of the titles nothing else holds, and
  // Plex follows.
  catalog.setOnPublishedMembershipShrunk([this] {
    if (catalog_) pruneOrphans(catalog_->protectedIds());
    kickPlexSync();
  });
}

void EngineSupervisor::pruneOrphans(const std::set<std::string>& protectedIds) {
  std::vector<std::string> names;
  for (const auto& record : store_.records())
    if (record->imdbId && !protectedIds.count(*record->imdbId)) names.push_back(record->title.name);
  if (names.empty()) return;
  std::string shown;
  for (size_t i = 0; i < names.size() && i < 4; ++i) shown += (i ? ", " : "") + names[i];
  if (names.size() > 4) shown += " … +" + std::to_string(names.size() - 4) + " more";
  log("[supervisor] pruning " + std::to_string(names.size()) +
      " orphaned title(s) not in any published collection (keeping " + std::to_string(protectedIds.size()) +
      " id(s)): " + shown);
  for (const auto& name : names) store_.remove(name);
  kickPlexSync();
}

std::unique_ptr<EngineInstance> EngineSupervisor::makeInstance(EngineKind kind) {
  EngineInstance::Context ctx;
  ctx.clock = env_.clock;
  ctx.settings = &config_.store();
  ctx.mounter = env_.mounter;
  ctx.probeFolder = env_.probeFolder;
  ctx.log = env_.log;
  ctx.onExit = [this](EngineInstance& instance, int status, int pid) { handleExit(instance, status, pid); };
  return std::make_unique<EngineInstance>(EngineInstancePaths::forKind(kind, env_.dataDirectory, config_),
                                          std::move(ctx));
}

EngineInstance& EngineSupervisor::ensureTvInstance() {
  if (!tv_) tv_ = makeInstance(EngineKind::tv);
  return *tv_;
}

EngineInstance& EngineSupervisor::instanceFor(EngineInstanceState& state) {
  return &state == static_cast<EngineInstanceState*>(movie_.get()) ? *movie_ : ensureTvInstance();
}

QCoro::Task<> EngineSupervisor::startInstance(EngineInstanceState& instance, std::vector<EngineEntry> entries) {
  return startInstance(instanceFor(instance), std::move(entries));
}

QCoro::Task<> EngineSupervisor::stopInstance(EngineInstanceState& instance) {
  return stopInstance(instanceFor(instance));
}

void EngineSupervisor::log(const std::string& line) const { env_.log(line); }

void EngineSupervisor::setState(EngineInstance& instance, EngineState state) {
  instance.state = state;
  if (&instance == movie_.get()) emit stateChanged();
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

void EngineSupervisor::kickPlexSync() {
  if (plexSync_) plexSync_->requestReconcile();
}

// Prepare -------------------------------------------------------------------

QCoro::Task<> EngineSupervisor::prepare(bool isTestHome) {
  const auto token = jobs_.token();
  ensureTvInstance();
  std::set<std::string> keep;
  for (EngineInstance* instance : {movie_.get(), tv_.get()}) {
    bool adopted = false;
    if (!isTestHome) adopted = co_await adoptIfRunning(*instance);
    if (token.isCancelled()) co_return;
    if (adopted)
      keep.insert(instance->paths.mountPoint);
    else
      co_await cleanOrphanFromPidFile(instance->paths.pidFile);
    if (token.isCancelled()) co_return;
  }
  co_await sweepStaleMounts(keep, token);
}

QCoro::Task<> EngineSupervisor::sweepStaleMounts(std::set<std::string> keep, CancelToken token) {
  for (EngineInstance* instance : {movie_.get(), tv_.get()}) {
    if (!instance || keep.count(instance->paths.mountPoint)) continue;
    co_await instance->mount().disconnectAndRemove(token);
    if (token.isCancelled()) co_return;
  }
}

// Adoption ------------------------------------------------------------------

QCoro::Task<bool> EngineSupervisor::adoptIfRunning(EngineInstance& instance) {
  if (instance.state != EngineState::stopped && instance.state != EngineState::failed) co_return false;
  const auto token = jobs_.token();
  setState(instance, EngineState::starting);
  const auto adoption = co_await client_.adopt(instance.paths.controlURL, static_cast<int32_t>(::getpid()), token);
  if (token.isCancelled()) co_return false;
  if (!adoption) {
    setState(instance, EngineState::stopped);
    co_return false;
  }
  std::optional<int> pid = adoption->pid;
  bool predates = false;
  if (!pid || *pid < 2) {
    predates = true;
    pid = co_await portHolderPid(instance, token);
    if (token.isCancelled()) co_return false;
  }
  if (!pid || *pid < 2 || !processExists(*pid)) {
    setState(instance, EngineState::stopped);
    co_return false;
  }

  instance.adopt(*pid);
  const std::string& key = config_.rdKey();
  instance.launchedRDKey =
      adoption->rd_key_sha256 == engineKeyHash(key) ? std::optional<std::string>(key) : std::nullopt;

  const auto entries = entriesFor(instance);
  const auto prints = fingerprints(entries);
  instance.lastConfigFingerprint = prints.all;
  instance.lastVisibleConfigFingerprint = prints.visible;
  instance.entryCount = entries.size();

  setState(instance, EngineState::running);
  log(instance.label() + " adopted the running engine (pid " + std::to_string(*pid) + ", vtnfs " + adoption->version +
      ")");
  didBecomeReady(instance);

  if (predates) {
    replaceWhenIdle(instance, "it predates this Vantory");
  } else if (!env_.appVersion.empty() && adoption->version != env_.appVersion && adoption->version != "test") {
    replaceWhenIdle(instance, "it's vtnfs " + adoption->version + " and this is Vantory " + env_.appVersion);
  }
  co_return true;
}

void EngineSupervisor::replaceWhenIdle(EngineInstance& instance, std::string reason) {
  EngineInstance* target = &instance;
  jobs_.start([this, target, reason](CancelToken token) -> QCoro::Task<> {
    if (!co_await env_.clock->sleep(kReplaceDelay, token)) co_return;
    while (env_.playbackActive && env_.playbackActive())
      if (!co_await env_.clock->sleep(kReplaceDelay, token)) co_return;
    if (target->state != EngineState::running || !target->adoptedPID) co_return;
    log(target->label() + " replacing the engine — " + reason);
    co_await stopInstance(*target);
    if (token.isCancelled()) co_return;
    co_await startInstance(*target, entriesFor(*target));
  });
}

// Leftovers -----------------------------------------------------------------

QCoro::Task<std::optional<int>> EngineSupervisor::portHolderPid(const EngineInstance& instance, CancelToken token) {
  const int port = portOf(instance.paths.controlAddress);
  if (port <= 0) co_return std::nullopt;
  auto lookup = [port] { return listeningPids(port); };  // named: gcc 12 mishandles temporaries in co_await
  const auto pids = co_await runInBackground(std::move(lookup));
  if (token.isCancelled()) co_return std::nullopt;
  for (int pid : pids)
    if (pid > 1 && isEngineProcess(pid)) co_return pid;
  co_return std::nullopt;
}

QCoro::Task<> EngineSupervisor::cleanOrphanFromPidFile(std::string pidFile) {
  const auto pid = readEnginePidFile(pidFile);
  if (!pid) co_return;
  QFile::remove(QString::fromStdString(pidFile));
  if (isEngineProcess(*pid)) {
    sendSignal(*pid, SIGKILL);
    log("[supervisor] cleaned up orphaned engine (pid " + std::to_string(*pid) + ")");
  }
}

QCoro::Task<> EngineSupervisor::clearStaleEngine(EngineInstance& instance, CancelToken token) {
  co_await instance.mount().disconnect(token);
  if (token.isCancelled()) co_return;
  instance.signal(SIGTERM);
  instance.release();
  co_await cleanOrphanFromPidFile(instance.paths.pidFile);
  if (auto pid = co_await portHolderPid(instance, token)) {
    sendSignal(*pid, SIGKILL);
    log(instance.label() + " stopped a leftover engine holding its ports (pid " + std::to_string(*pid) + ")");
  }
  for (int i = 0; i < 30 && !token.isCancelled(); ++i) {
    if (!co_await portHolderPid(instance, token)) break;
    if (!co_await env_.clock->sleep(0.1, token)) co_return;
  }
  if (token.isCancelled()) co_return;
  QDir().rmdir(QString::fromStdString(instance.paths.mountPoint));
}

// Start ---------------------------------------------------------------------

QCoro::Task<> EngineSupervisor::start() {
  movie_->cancelRestart();
  movie_->restartAttempts = 0;
  co_await startInstance(*movie_, entriesFor(*movie_));
}

QCoro::Task<> EngineSupervisor::startInstance(EngineInstance& instance, std::vector<EngineEntry> entries) {
  if (instance.state != EngineState::stopped && instance.state != EngineState::failed) co_return;
  const auto token = jobs_.token();
  const int generation = instance.generation;
  const bool isMovie = &instance == movie_.get();
  setState(instance, EngineState::starting);
  if (isMovie) setLastError(std::nullopt);

  const auto abandon = [&]() -> QCoro::Task<> {
    log(instance.label() + " start abandoned — stopped while starting");
    co_await stopInstance(instance);
  };

  const EngineResult steps = co_await startSteps(instance, std::move(entries), token);
  if (token.isCancelled()) co_return;
  if (!steps) {
    // A step that failed takes the error path even when a stop came
    // meanwhile; only a start that a stop interrupted is abandoned.
    const std::string text = message(steps.error());
    if (isMovie) setLastError(text);
    log(instance.label() + " start failed: " + text);
    co_await stopInstance(instance);
    if (token.isCancelled()) co_return;
    setState(instance, EngineState::failed);
    co_return;
  }
  if (instance.generation != generation) {
    co_await abandon();
    co_return;
  }
  if (env_.prepareLibrary) {
    co_await env_.prepareLibrary(instance.kind() == EngineKind::tv, instance.paths.mountPoint, token);
    if (token.isCancelled()) co_return;
  }
  if (instance.generation != generation) {
    co_await abandon();
    co_return;
  }
  setState(instance, EngineState::running);
  log(instance.label() + " ready — library folder at " + instance.paths.mountPoint);
  // Ready or not for Plex: a folder it can't read looks like an empty library,
  // so say so right away, with the fix.
  accessProblems_.erase(instance.kind());
  if (env_.mediaServerAccessProblem) {
    if (auto problem = env_.mediaServerAccessProblem(instance.paths.mountPoint)) {
      log(instance.label() + " warning: Plex can't read the library folder: " + *problem);
      accessProblems_[instance.kind()] = std::move(*problem);
    }
  }
  didBecomeReady(instance);
}

QCoro::Task<EngineResult> EngineSupervisor::startSteps(EngineInstance& instance, std::vector<EngineEntry> entries,
                                                       CancelToken token) {
  co_await clearStaleEngine(instance, token);
  if (token.isCancelled()) co_return Failure(stopped());
  if (auto installed = installEngine(env_.dataDirectory, env_.bundledEngine); !installed) co_return installed;

  // Nothing may claim a manifest the engine does not have.
  instance.lastConfigFingerprint.reset();
  instance.lastVisibleConfigFingerprint.reset();
  if (!writeFileAtomically(instance.paths.configURL, encodeEngineConfig(entries)))
    co_return Failure(EngineError{EngineError::Kind::manifestWriteFailed, std::strerror(errno)});
  const auto prints = fingerprints(entries);
  instance.lastConfigFingerprint = prints.all;
  instance.lastVisibleConfigFingerprint = prints.visible;
  instance.entryCount = entries.size();

  const auto launched = co_await instance.launch(env_.dataDirectory + "/vtnfs", config_.rdKey(), token);
  if (token.isCancelled()) co_return Failure(stopped());
  if (!launched) co_return Failure(launched.error());
  log(instance.label() + " launched engine (pid " + std::to_string(*launched) + ")");

  if (auto healthy = co_await waitForHealth(instance, token); !healthy) co_return healthy;
  if (token.isCancelled()) co_return Failure(stopped());
  co_return co_await instance.mount().connect(portOf(instance.paths.nfsAddress), token);
}

QCoro::Task<EngineResult> EngineSupervisor::waitForHealth(EngineInstance& instance, CancelToken token) {
  if (!instance.paths.controlURL) co_return Failure(EngineError{EngineError::Kind::badControlURL, {}});
  const auto url = instance.paths.controlURL;
  for (int i = 0; i < kHealthTries; ++i) {
    if (co_await client_.healthz(url, token)) co_return EngineResult();
    if (token.isCancelled() || !co_await env_.clock->sleep(kHealthPause, token)) co_return Failure(stopped());
  }
  co_return Failure(EngineError{EngineError::Kind::tooSlow, {}});
}

void EngineSupervisor::didBecomeReady(EngineInstance& instance) {
  stuck_.erase(instance.kind());
  pushCacheBudget();
  const bool isMovie = &instance == movie_.get();
  if (isMovie && env_.startIntentWatcher) env_.startIntentWatcher();
  // Plex's view of either folder is still forming after its engine starts.
  if (plexSync_) plexSync_->setWarmupUntil(env_.clock->now() + kPlexWarmup);
  EngineInstance* target = &instance;
  instance.mount().startWatchdog(
      {[target] { return target->state == EngineState::running; }, [target] { return target->runningPid(); }});
  if (isMovie) kickPlexSync();
  instance.markReady();
}

void EngineSupervisor::pushCacheBudget() {
  const auto limit = static_cast<double>(config_.cacheLimitGB());
  const auto send = [this](std::optional<QUrl> url, double gigabytes) {
    jobs_.start([this, url, gigabytes](CancelToken token) -> QCoro::Task<> {
      co_await client_.setBudget(url, gigabytes, token);
    });
  };
  if (tv_ && tv_->state == EngineState::running) {
    send(movie_->paths.controlURL, (limit + limit) / 3.0);
    send(tv_->paths.controlURL, limit / 3.0);
  } else {
    send(movie_->paths.controlURL, limit);
  }
}

// Exit ----------------------------------------------------------------------

void EngineSupervisor::handleExit(EngineInstance& instance, int status, int pid) {
  instance.removePidFileIfHolds(pid);
  instance.release();
  if (instance.state != EngineState::running) return;
  instance.cancelStableTimer();
  instance.mount().stopWatchdog();

  EngineInstance* target = &instance;
  jobs_.start([this, target](CancelToken token) -> QCoro::Task<> {
    co_await target->mount().disconnect(token);
    if (!token.isCancelled()) log(target->label() + " disconnected library folder after unexpected exit");
  });

  const std::string statusText = std::to_string(status);
  if (instance.restartAttempts >= kMaxRestarts) {
    setState(instance, EngineState::failed);
    stuck_.insert(instance.kind());
    // Only the film engine's texts stand in lastError.
    if (&instance == movie_.get()) setLastError(std::string(kGaveUp));
    log(instance.label() + " engine exited unexpectedly (status " + statusText + "); giving up after 5 attempts");
    return;
  }
  const int delay = 2 << instance.restartAttempts;
  ++instance.restartAttempts;
  log(instance.label() + " engine exited unexpectedly (status " + statusText + "); will restart (attempt " +
      std::to_string(instance.restartAttempts) + "/5) in " + std::to_string(delay) + "s");
  setState(instance, EngineState::stopped);
  instance.scheduleRestart(delay, [this, target] { return startInstance(*target, entriesFor(*target)); });
}

// Stop ----------------------------------------------------------------------

QCoro::Task<> EngineSupervisor::stopInstance(EngineInstance& instance) {
  const auto token = jobs_.token();
  ++instance.generation;
  instance.cancelRestart();
  instance.cancelStableTimer();
  instance.mount().stopWatchdog();
  if (&instance == movie_.get() && env_.stopIntentWatcher) env_.stopIntentWatcher();
  const bool failed = instance.state == EngineState::failed;
  if (!failed) setState(instance, EngineState::stopping);

  co_await instance.mount().disconnectAndRemove(token);
  if (token.isCancelled()) co_return;

  const auto pid = instance.runningPid();
  instance.signal(SIGTERM);
  instance.release();
  if (pid) instance.removePidFileIfHolds(*pid);
  instance.stopLogTail();

  if (!failed && instance.state != EngineState::failed) {
    setState(instance, EngineState::stopped);
    log(instance.label() + " engine stopped");
  }
}

void EngineSupervisor::stopLogTails() {
  movie_->stopLogTail();
  if (tv_) tv_->stopLogTail();
}

// Exit of the application ---------------------------------------------------

void EngineSupervisor::shutdownAtExit() {
  if (env_.stopIntentWatcher) env_.stopIntentWatcher();
  for (EngineInstance* instance : {movie_.get(), tv_.get()}) {
    if (!instance) continue;
    instance->mount().disconnectNow();
    instance->signal(SIGTERM);
  }
}

}  // namespace vt
