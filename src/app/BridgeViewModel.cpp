#include "app/BridgeViewModel.h"

#include "core/LibraryFolders.h"

#include <QPointer>
#include <cstdio>

#include "core/AppConfig.h"
#include "platform/Clock.h"
#include "platform/Url.h"

namespace vt {

BridgeViewModel::BridgeViewModel(AppConfig& config, Clock& clock, PlexAccessFactory plexAccess, PlexDiscovery discovery,
                                 std::function<void(const std::string&)> console)
    : config_(config),
      clock_(clock),
      plexAccess_(std::move(plexAccess)),
      discovery_(std::move(discovery)),
      console_(std::move(console)) {
  if (!console_) console_ = [](const std::string& line) { std::printf("%s\n", line.c_str()), std::fflush(stdout); };
}

BridgeViewModel::~BridgeViewModel() { pollJob_.cancel(); }

void BridgeViewModel::startPolling() {
  if (pollJob_.isRunning()) return;
  QPointer<BridgeViewModel> weak(this);
  Clock* clock = &clock_;
  pollJob_ = Job::start([weak, clock](CancelToken token) -> QCoro::Task<> {
    while (!token.isCancelled() && weak) {
      co_await weak->pollOnce();
      if (!co_await clock->sleep(kInterval, token)) break;
    }
  });
}

void BridgeViewModel::stopPolling() {
  pollJob_.cancel();
  pollJob_ = Job();
}

void BridgeViewModel::reconnect() {
  stopPolling();
  needsReauth_ = false;
  config_.signOut();
  emit stateChanged();
  startPolling();
}

QCoro::Task<> BridgeViewModel::pollOnce() {
  QPointer<BridgeViewModel> self(this);
  if (!parseUrl(config_.pmsURLString()) || !config_.isConfigured()) {
    reachable_ = false;
    emit stateChanged();
    co_return;
  }
  const bool wasReachable = reachable_;
  std::optional<PlexProbeFailure> failure;
  auto client = plexAccess_ ? plexAccess_() : nullptr;
  if (!client) {
    failure = PlexProbeFailure{std::nullopt, "No Plex client available"};
  } else {
    failure = co_await client->probe();
  }
  if (!self) co_return;

  if (!failure) {
    reachable_ = true;
    needsReauth_ = false;
    lastError_.reset();
    consecutiveFailures_ = 0;
    emit stateChanged();
    if (!wasReachable) co_await applyPendingPlexSync();
    co_return;
  }
  reachable_ = false;
  lastError_ = failure->description;
  if (failure->httpStatus && (*failure->httpStatus == 401 || *failure->httpStatus == 403)) {
    // A rejected token is not a lost server: no rediscovery.
    needsReauth_ = true;
    emit stateChanged();
    co_return;
  }
  ++consecutiveFailures_;
  emit stateChanged();
  co_await rediscoverIfDue();
}

QCoro::Task<> BridgeViewModel::applyPendingPlexSync() {
  const auto path = config_.pendingPlexSyncPath();
  if (!path || config_.token().empty() || !parseUrl(config_.pmsURLString())) co_return;
  auto client = plexAccess_ ? plexAccess_() : nullptr;
  if (!client) co_return;
  QPointer<BridgeViewModel> self(this);
  const bool ensured = co_await client->ensureMovieSection(kMovieSectionName, *path);
  if (!self || !ensured) co_return;
  const bool scanned = co_await client->refreshSection(*path);
  if (!self || !scanned) co_return;
  // Only clear the value this pass announced; a newer one waits for its turn.
  if (config_.pendingPlexSyncPath() == path) config_.setPendingPlexSyncPath(std::nullopt);
}

QCoro::Task<> BridgeViewModel::rediscoverIfDue() {
  if (consecutiveFailures_ < kRediscoveryThreshold) co_return;
  if (config_.token().empty() || !config_.isConfigured()) co_return;
  const Date now = clock_.now();
  if (lastRediscoveryAttempt_ && now - *lastRediscoveryAttempt_ < kRediscoveryInterval) co_return;
  lastRediscoveryAttempt_ = now;
  if (!discovery_) co_return;

  QPointer<BridgeViewModel> self(this);
  std::optional<std::string> preferred;
  if (!config_.plexServerName().empty()) preferred = config_.plexServerName();
  const auto outcome = co_await discovery_(config_.token(), config_.clientIdentifier(), preferred);
  if (!self) co_return;
  if (!outcome.server) {
    console_("[Vantory] Re-discovery failed: " + outcome.error);
    co_return;
  }
  // Stored again even when unchanged, so that dependents refresh.
  config_.setPmsURLString(outcome.server->url);
  if (!outcome.server->name.empty() && outcome.server->name != config_.plexServerName())
    config_.setPlexServerName(outcome.server->name);
  console_("[Vantory] Re-discovered PMS at " + outcome.server->url);
}

}  // namespace vt
