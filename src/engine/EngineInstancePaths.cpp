#include "engine/EngineInstancePaths.h"

#include <QtGlobal>
#include <filesystem>
#include <string>

#include "core/AppConfig.h"
#include "core/LibraryFolders.h"
#include "platform/Paths.h"

namespace vt {

namespace {

// The engines' NFS ports are fixed (films 12049, series 12051): Plex's
// sections and the kernel mount entries name them. Only under a test home
// may the environment move them, VT_TEST_NFS_PORT naming the films' port
// and the series' two above it, so that two test runs, or the lab beside
// the user's own Vantory, share a machine.
int nfsPort(bool tv) {
  int films = 12049;
  if (appPaths().isTestHome()) {
    bool ok = false;
    const int wanted = qEnvironmentVariableIntValue("VT_TEST_NFS_PORT", &ok);
    if (ok && wanted > 0 && wanted <= 65533) films = wanted;
  }
  return tv ? films + 2 : films;
}

}  // namespace

EngineInstancePaths EngineInstancePaths::forKind(EngineKind kind, const std::string& dataDirectory,
                                                 const AppConfig& config) {
  namespace fs = std::filesystem;
  const fs::path data(dataDirectory);
  EngineInstancePaths p;
  p.kind = kind;
  const bool tv = kind == EngineKind::tv;
  p.label = tv ? "[tv-supervisor]" : "[supervisor]";
  p.nfsAddress = "127.0.0.1:" + std::to_string(nfsPort(tv));
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
