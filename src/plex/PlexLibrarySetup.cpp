#include "plex/PlexLibrarySetup.h"

#include <algorithm>

#include "core/LibraryFolders.h"
#include "core/LibraryStore.h"
#include "core/LibraryTitle.h"
#include "platform/ProcessTable.h"

namespace vt {

namespace {
// The set-up must not hold the engine's start for long.
constexpr double kLibrarySetupTimeLimit = 8;
}  // namespace

QCoro::Task<> prepareLibrarySection(PMSClient client, bool tv, std::string location, std::set<std::string> wantedFiles,
                                    std::function<void(const std::string&)> log, CancelToken token) {
  const PMSClient plex = client.withTimeLimit(kLibrarySetupTimeLimit).cancelledBy(token);
  const auto skipped = [&](const PMSError& e) { log("[supervisor] library setup skipped: " + message(e)); };
  auto section = co_await plex.sectionForLocation(location);
  if (token.isCancelled()) co_return;
  if (!section) co_return skipped(section.error());
  if (!*section) {
    auto created = co_await plex.createSection(plexSectionName(tv), tv, location);
    if (token.isCancelled()) co_return;
    if (!created) co_return skipped(created.error());
  }
  log("[supervisor] Plex library verified at " + location);
  auto disabled = co_await plex.disableAnalysisJobs(location);
  if (token.isCancelled()) co_return;
  if (!disabled) co_return skipped(disabled.error());
  log("[supervisor] disabled heavy Plex scanners for " + location);

  if (!wantedFiles.empty()) {
    auto index = co_await plex.fileIndex(location);
    if (token.isCancelled()) co_return;
    const bool all = index && std::all_of(wantedFiles.begin(), wantedFiles.end(),
                                          [&](const std::string& f) { return index->count(f) > 0; });
    if (all) {
      log("[supervisor] Plex already indexed " + std::to_string(wantedFiles.size()) +
          " file(s) — skipping re-scan on restart");
      co_return;
    }
  }
  auto refreshed = co_await plex.refreshSection(location);
  if (token.isCancelled()) co_return;
  if (!refreshed) co_return skipped(refreshed.error());
  log("[supervisor] requested Plex re-scan of " + location);
}

LibraryPreparer libraryPreparer(const PMSClientFactory& clients, const LibraryStore& library,
                                std::function<void(const std::string&)> log) {
  return [&clients, &library, log](bool tv, std::string location, CancelToken token) -> QCoro::Task<> {
    auto client = clients.make();
    if (!client) co_return;
    std::set<std::string> wanted;
    for (const auto& title : library.titles())
      if (title.season.has_value() == tv) wanted.insert(lastPathComponent(title.name));
    co_await prepareLibrarySection(std::move(*client), tv, std::move(location), std::move(wanted), log, token);
  };
}

}  // namespace vt
