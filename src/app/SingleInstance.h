#pragma once

#include <functional>
#include <memory>
#include <string>

class QLocalServer;

namespace vt {

// One running Vantory per user: a second launch asks the first to come
// forward and exits. A local socket carries the request.
class SingleInstance {
 public:
  // True when another instance answered (it was asked to activate).
  static bool activateRunningInstance(const std::string& name);

  // Listens for later launches; `onActivate` runs on each request.
  SingleInstance(const std::string& name, std::function<void()> onActivate);
  ~SingleInstance();

  static std::string defaultName();

 private:
  std::unique_ptr<QLocalServer> server_;
};

}  // namespace vt
