#pragma once

#include <optional>
#include <string>

#include <QUrl>

#include "engine/contract/EngineContract.h"

namespace vt {

class AppConfig;

// Everything fixed per instance: where it listens, its files, its log label.
struct EngineInstancePaths {
  EngineKind kind;
  std::string label;       // "[supervisor]" or "[tv-supervisor]"
  std::string nfsAddress;  // "127.0.0.1:12049" / "127.0.0.1:12051"
  std::optional<QUrl> controlURL;
  std::string controlAddress;  // host:port the engine listens on
  std::string mountPoint;
  std::string configURL;  // the manifest
  std::string pidFile;
  std::string logFile;
  std::string probeCache;

  static EngineInstancePaths forKind(EngineKind kind, const std::string& dataDirectory, const AppConfig& config);
};

}  // namespace vt
