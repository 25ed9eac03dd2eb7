#pragma once

#include <functional>
#include <set>
#include <string>

#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"
#include "plex/PMSClient.h"

namespace vt {

// Makes sure the Plex section for one library folder exists and is cheap to
// keep ("Vantory" for films, "Vantory TV" for episodes), switches off the
// heavy analysis jobs for it, and asks for a scan unless Plex already
// indexed every file in `wantedFiles`. Each request waits at most 8 s; each
// step's failure ends the set-up with a "library setup skipped" line;
// nothing here stops the engine.
QCoro::Task<> prepareLibrarySection(PMSClient plex, bool tv, std::string location, std::set<std::string> wantedFiles,
                                    std::function<void(const std::string&)> log, CancelToken token);

class LibraryStore;

// The set-up above as the engine supervision calls it when an instance is
// up: a client from the current settings (nothing happens without one), and
// every file of the library's films or episodes as the files to find.
using LibraryPreparer = std::function<QCoro::Task<>(bool tv, std::string location, CancelToken token)>;
LibraryPreparer libraryPreparer(const PMSClientFactory& clients, const LibraryStore& library,
                                std::function<void(const std::string&)> log);

}  // namespace vt
