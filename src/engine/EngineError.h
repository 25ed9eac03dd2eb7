#pragma once

#include <string>

#include "platform/Result.h"

namespace vt {

// Why an engine instance did not start. The texts are what `lastError` and
// the "start failed" line show.
struct EngineError {
  enum class Kind {
    engineMissing,        // the bundled vtnfs is missing or could not be installed
    badControlURL,        // the settings give no control address
    launchFailed,         // the process did not start; `detail` says why
    tooSlow,              // it never answered its health check
    mountFailed,          // the library folder could not be connected
    manifestWriteFailed,  // the manifest could not be written; `detail` says why
    stopped,              // a stop or the owner's end interrupted the start
  };
  Kind kind = Kind::launchFailed;
  std::string detail;
  bool operator==(const EngineError&) const = default;
};

std::string message(const EngineError& e);

using EngineResult = Result<void, EngineError>;

}  // namespace vt
