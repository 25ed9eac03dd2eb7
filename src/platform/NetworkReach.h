#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace vt {

// Whether this machine is online, from the system's network monitor
// (NetworkManager through Qt), with a callback for the moment it comes back.
// Without a monitor (no NetworkManager, a container) the machine counts as
// online for good. One shared instance; the flag is read from resolves and
// written from the monitor, hence the lock.
class NetworkReach {
 public:
  static NetworkReach& shared();

  bool online() const {
    std::lock_guard lock(mutex_);
    return online_;
  }
  // Runs on the main thread each time the network comes back. The first
  // call starts the monitor.
  void setOnRestored(std::function<void()> fn);

  // What the monitor reports; also how tests play an outage.
  void setOnline(bool online);

 private:
  NetworkReach() = default;
  void startMonitor();

  mutable std::mutex mutex_;
  bool online_ = true;
  bool monitorStarted_ = false;
  std::function<void()> onRestored_;
};

}  // namespace vt
