#include "platform/NetworkReach.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QNetworkInformation>

namespace vt {

NetworkReach& NetworkReach::shared() {
  static NetworkReach reach;
  return reach;
}

void NetworkReach::setOnRestored(std::function<void()> fn) {
  bool start = false;
  {
    std::lock_guard lock(mutex_);
    onRestored_ = std::move(fn);
    start = !std::exchange(monitorStarted_, true);
  }
  if (start) startMonitor();
}

void NetworkReach::setOnline(bool online) {
  std::function<void()> restored;
  {
    std::lock_guard lock(mutex_);
    const bool cameBack = !online_ && online;
    online_ = online;
    if (cameBack) restored = onRestored_;
  }
  if (!restored) return;
  // Read under the lock, run outside it, on the main thread.
  if (auto* app = QCoreApplication::instance())
    QMetaObject::invokeMethod(app, std::move(restored), Qt::QueuedConnection);
}

void NetworkReach::startMonitor() {
  if (!QCoreApplication::instance()) return;
  if (!QNetworkInformation::loadBackendByFeatures(QNetworkInformation::Feature::Reachability)) return;
  auto* info = QNetworkInformation::instance();
  if (!info) return;
  auto report = [this](QNetworkInformation::Reachability r) {
    // "Unknown" is what a monitor says before it knows: not an outage.
    if (r == QNetworkInformation::Reachability::Unknown) return;
    setOnline(r == QNetworkInformation::Reachability::Online || r == QNetworkInformation::Reachability::Site);
  };
  report(info->reachability());
  QObject::connect(info, &QNetworkInformation::reachabilityChanged, info, report);
}

}  // namespace vt
