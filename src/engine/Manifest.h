#pragma once

#include <functional>
#include <string>
#include <vector>

#include "engine/contract/EngineContract.h"

namespace vt {

class LibraryStore;
struct LibraryTitle;

struct ManifestEntries {
  std::vector<EngineEntry> movie;  // films, with companions and subtitles
  std::vector<EngineEntry> tv;     // episodes, with their subtitles
};

// Turns the library into the two manifests, in library order, each title's
// companion and subtitle right behind it. Titles without a url get nothing.
// `isHidden` says whether staging holds a title back (none: nothing hidden).
ManifestEntries buildEntries(const LibraryStore& library, const std::function<bool(const LibraryTitle&)>& isHidden,
                             bool companionVersions);
// The same into `into`, whose entries' storage is reused: a caller that keeps
// one from flush to flush spares the allocations of a large library.
void buildEntries(const LibraryStore& library, const std::function<bool(const LibraryTitle&)>& isHidden,
                  bool companionVersions, ManifestEntries& into);

// The canonical text of a manifest: entries sorted by name, one row each of
// name, url, size, mtime, rd_link, resolve_url, local, hidden, size_verified
// and the alt sources' resolve_urls (joined by 0x1E), fields joined by 0x1F,
// rows by line feeds. `lazy` is not part of it.
std::string fingerprintText(const std::vector<EngineEntry>& entries, bool visibleOnly = false);

// Fingerprints compare manifests; they are a 128-bit XXH3 digest of the
// canonical text (32 hex digits), so that keeping and comparing them costs
// nothing however large the library.
struct ManifestFingerprints {
  std::string all;
  std::string visible;  // of the entries that are not hidden
};
ManifestFingerprints fingerprints(const std::vector<EngineEntry>& entries);

}  // namespace vt
