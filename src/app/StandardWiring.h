#pragma once

#include <string>

#include "app/VantoryApp.h"

namespace vt {

class LibraryMounter;

// What the running application is made of, besides what main() decides.
struct StandardParts {
  Clock* clock = nullptr;
  HttpClient* http = nullptr;
  LibraryMounter* mounter = nullptr;
  std::string bundledEngine;  // the vtnfs to run; empty: missing
  std::string appVersion;
};

// Plugs the real subsystems into `wiring` (whose paths are set): the engine
// supervision with its Plex sync, the catalog of followed lists with their
// refresh, and the stream providers' registry.
void wireStandardParts(AppWiring& wiring, StandardParts parts);

}  // namespace vt
