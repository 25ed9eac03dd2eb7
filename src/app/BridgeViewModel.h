#pragma once

#include <functional>
#include <optional>
#include <string>

#include <QObject>
#include <qcoro/qcorotask.h>

#include "core/EnginePort.h"
#include "core/PlexPort.h"
#include "platform/Date.h"
#include "platform/Job.h"

namespace vt {

class AppConfig;
class Clock;

// The connection state of the Plex server and the 3-second poll that keeps
// it current, with rediscovery of a moved server. Main thread only.
class BridgeViewModel : public QObject {
  Q_OBJECT
 public:
  static constexpr double kInterval = 3.0;
  static constexpr int kRediscoveryThreshold = 10;
  static constexpr double kRediscoveryInterval = 45.0;

  // `console` receives the rediscovery lines, which go to standard output
  // and never to the log file.
  BridgeViewModel(AppConfig& config, Clock& clock, PlexAccessFactory plexAccess, PlexDiscovery discovery,
                  std::function<void(const std::string&)> console = {});
  ~BridgeViewModel() override;

  bool reachable() const { return reachable_; }
  bool needsReauth() const { return needsReauth_; }
  const std::optional<std::string>& lastError() const { return lastError_; }
  int consecutiveFailures() const { return consecutiveFailures_; }
  std::optional<Date> lastRediscoveryAttempt() const { return lastRediscoveryAttempt_; }

  EnginePort* engine() const { return engine_; }
  void setEngine(EnginePort* engine) { engine_ = engine; }
  // Idempotent: does nothing while the poll runs.
  void startPolling();
  void stopPolling();
  bool isPolling() const { return polling_; }
  // Cancels the poll, clears needsReauth, signs the settings out, polls again.
  void reconnect();

  // One poll; a cancelled token (a stop or a reconnect meanwhile) means
  // nothing it learns is written.
  QCoro::Task<> pollOnce(CancelToken token = CancelToken::none());
  QCoro::Task<> applyPendingPlexSync(CancelToken token = CancelToken::none());
  QCoro::Task<> rediscoverIfDue(CancelToken token = CancelToken::none());

 signals:
  void stateChanged();

 private:
  AppConfig& config_;
  Clock& clock_;
  PlexAccessFactory plexAccess_;
  PlexDiscovery discovery_;
  std::function<void(const std::string&)> console_;
  EnginePort* engine_ = nullptr;

  bool reachable_ = false;
  bool needsReauth_ = false;
  std::optional<std::string> lastError_;
  bool polling_ = false;
  int consecutiveFailures_ = 0;
  std::optional<Date> lastRediscoveryAttempt_;
  JobScope poll_;  // last: the poll ends before anything else here goes
};

}  // namespace vt
