#include "engine/EngineInstancePaths.h"

#include <filesystem>

#include "core/AppConfig.h"
#include "core/LibraryFolders.h"

namespace vt {

EngineInstancePaths EngineInstancePaths::forKind(EngineKind kind, const std::string& dataDirectory,
                                                 const AppConfig& config) {
  namespace fs = std::filesystem;
  const fs::path data(dataDirectory);
  EngineInstancePaths p;
  p.kind = kind;
  const bool tv = kind == EngineKind::tv;
  p.label = tv ? "[tv-supervisor]" : "[supervisor]";
  p.nfsAddress = tv ? "127.0.0.1:12051" : "127.0.0.1:12049";
  p.controlURL = tv ? config.tvControlURL() : config.controlURL();
  p.controlAddress = tv ? config.tvControlAddress() : config.movieControlAddress();
  p.mountPoint = (data / libraryFolderName(tv)).string();
  const fs::path folder = tv ? data / "tv" : data;
  p.configURL = (folder / "entries.json").string();
  p.pidFile = (folder / "vtnfs.pid").string();
  p.logFile = (folder / "engine.log").string();
  p.probeCache = (folder / "probe-cache").string();
  return p;
}

}  // namespace vt
