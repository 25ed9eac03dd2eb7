#include "app/BridgeViewModel.h"

#include "core/LibraryFolders.h"

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

BridgeViewModel::~BridgeViewModel() = default;

void BridgeViewModel::startPolling() {
  if (polling_) return;
  polling_ = true;
  poll_.start([this](CancelToken token) -> QCoro::Task<> {
    while (!token.isCancelled()) {
      co_await pollOnce(token);
      if (token.isCancelled() || !co_await clock_.sleep(kInterval, token)) co_return;
    }
  });
}

void BridgeViewModel::stopPolling() {
  polling_ = false;
  poll_.cancelAll();
}

void BridgeViewModel::reconnect() {
  stopPolling();
  needsReauth_ = false;
  config_.signOut();
  emit stateChanged();
  startPolling();
}

QCoro::Task<> BridgeViewModel::pollOnce(CancelToken token) {
  if (!parseUrl(config_.pmsURLString()) || !config_.isConfigured()) {
    reachable_ = false;
    emit stateChanged();
    co_return;
  }
  const bool wasReachable = reachable_;
  std::optional<PlexProbeFailure> failure;
  auto client = plexAccess_ ? plexAccess_(token) : nullptr;
  if (!client) {
    failure = PlexProbeFailure{std::nullopt, "No Plex client available"};
  } else {
    failure = co_await client->probe();
  }
  if (token.isCancelled()) co_return;

  if (!failure) {
    reachable_ = true;
    needsReauth_ = false;
    lastError_.reset();
    consecutiveFailures_ = 0;
    emit stateChanged();
    if (!wasReachable) co_await applyPendingPlexSync(token);
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
  co_await rediscoverIfDue(token);
}

QCoro::Task<> BridgeViewModel::applyPendingPlexSync(CancelToken token) {
  const auto path = config_.pendingPlexSyncPath();
  if (!path || config_.token().empty() || !parseUrl(config_.pmsURLString())) co_return;
  auto client = plexAccess_ ? plexAccess_(token) : nullptr;
  if (!client) co_return;
  const bool ensured = co_await client->ensureMovieSection(kMovieSectionName, *path);
  if (token.isCancelled() || !ensured) co_return;
  const bool scanned = co_await client->refreshSection(*path);
  if (token.isCancelled() || !scanned) co_return;
  // Only clear the value this pass announced; a newer one waits for its turn.
  if (config_.pendingPlexSyncPath() == path) config_.setPendingPlexSyncPath(std::nullopt);
}

QCoro::Task<> BridgeViewModel::rediscoverIfDue(CancelToken token) {
  if (consecutiveFailures_ < kRediscoveryThreshold) co_return;
  if (config_.token().empty() || !config_.isConfigured()) co_return;
  const Date now = clock_.now();
  if (lastRediscoveryAttempt_ && now - *lastRediscoveryAttempt_ < kRediscoveryInterval) co_return;
  lastRediscoveryAttempt_ = now;
  if (!discovery_) co_return;

  std::optional<std::string> preferred;
  if (!config_.plexServerName().empty()) preferred = config_.plexServerName();
  const auto outcome = co_await discovery_(config_.token(), config_.clientIdentifier(), preferred);
  if (token.isCancelled()) co_return;
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
