#include "plex/PlexSyncCoordinator.h"

#include <algorithm>

#include "core/AppConfig.h"
#include "core/CatalogPort.h"
#include "core/LibraryFolders.h"
#include "core/LibraryStore.h"
#include "core/LibraryTitle.h"
#include "engine/contract/EngineContract.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Log.h"
#include "platform/ProcessTable.h"
#include "platform/Url.h"

namespace vt {

namespace {

// Lists the guards compare against.
constexpr double kAlwaysCompleteRatio = 0.5;
constexpr double kWarmupCompleteRatio = 0.9;

std::string quoted(const std::string& name) { return "\"" + name + "\""; }

}  // namespace

PlexSyncCoordinator::PlexSyncCoordinator(Environment environment, PlexSyncOperations operations)
    : env_(std::move(environment)), ops_(std::move(operations)) {
  // A pass at least every two minutes, whatever else happens.
  jobs_.start([this](CancelToken token) -> QCoro::Task<> {
    while (co_await env_.clock->sleep(kSafetyTick, token)) requestReconcile();
  });
}

PlexSyncCoordinator::~PlexSyncCoordinator() {
  retry_.cancelAll();
  jobs_.cancelAll();
}

void PlexSyncCoordinator::log(const std::string& line) const {
  if (ops_.log)
    ops_.log(line);
  else
    logLine(line);
}

bool PlexSyncCoordinator::inWarmup() const { return warmupUntil_ && env_.clock->now() < *warmupUntil_; }

std::string PlexSyncCoordinator::location(bool tv) const { return env_.dataDirectory + "/" + libraryFolderName(tv); }

// The drain loop ------------------------------------------------------------

void PlexSyncCoordinator::requestReconcile() {
  dirty_ = true;
  if (working_) return;
  working_ = true;
  jobs_.start([this](CancelToken token) -> QCoro::Task<> { co_await drain(token); });
}

QCoro::Task<> PlexSyncCoordinator::drain(CancelToken token) {
  while (dirty_) {
    dirty_ = false;
    const bool retry = co_await reconcilePass(token);
    if (token.isCancelled()) co_return;
    // A request during the pass runs the next one at once; no need to wait.
    if (retry && !dirty_) scheduleRetry();
  }
  working_ = false;
}

void PlexSyncCoordinator::scheduleRetry() {
  retry_.cancelAll();  // an earlier pending retry is replaced
  retry_.start([this](CancelToken token) -> QCoro::Task<> {
    if (!co_await env_.clock->sleep(kRetryBackoff, token)) co_return;
    requestReconcile();
  });
}

// One pass ------------------------------------------------------------------

QCoro::Task<bool> PlexSyncCoordinator::reconcilePass(CancelToken token) {
  ++passes_;
  if (!ops_.isRunning || !ops_.isRunning()) co_return false;
  EngineApplyResult applied;
  if (ops_.applyEngineConfig) applied = co_await ops_.applyEngineConfig();
  if (token.isCancelled()) co_return false;

  auto made = env_.plex->make();
  if (!catalog_ || !made) co_return false;
  const PMSClient client = made->cancelledBy(token);

  // The pass works on the library as it stands now; titles are shared and
  // immutable, so the snapshot stays valid however the library changes.
  const auto records = env_.store->records();
  Titles films, episodes;
  for (const auto& r : records) {
    const LibraryTitle& t = r->title;
    if (catalog_->holdsBack(t)) continue;
    if (!t.season) films.push_back(&t);
    if (t.seriesImdbId) episodes.push_back(&t);
  }

  bool retry =
      co_await sectionPass(client, location(false), false, std::move(films), applied.movieVisibleChanged, true, token);
  if (token.isCancelled()) co_return false;

  // The show section is asked for only when it could matter.
  const auto tvMount = location(true);
  const auto tvSection = co_await client.sectionForLocation(tvMount);
  if (token.isCancelled()) co_return false;
  const bool tvFound = tvSection && tvSection.value().has_value();
  if (!tvSection) retry = true;
  if (tvFound || applied.tvVisibleChanged || applied.tvActive || !episodes.empty()) {
    const bool tvRetry =
        co_await sectionPass(client, tvMount, true, std::move(episodes), applied.tvVisibleChanged, false, token);
    if (token.isCancelled()) co_return false;
    retry = retry || tvRetry;
  }

  co_await persistVerifiedSizes(token);
  if (token.isCancelled()) co_return false;
  log(retry ? "[sync] reconciled — retry pending" : "[sync] reconciled");
  co_return retry;
}

QCoro::Task<std::optional<std::string>> PlexSyncCoordinator::ensureSection(const PMSClient& client, std::string mount,
                                                                           bool isShow, bool createIfMissing,
                                                                           bool& retry, CancelToken token) {
  retry = false;
  auto unreachable = [&](const PMSError& e) {
    log("[sync] Plex unreachable — will retry: " + message(e));
    retry = true;
  };
  auto found = co_await client.sectionForLocation(mount);
  if (token.isCancelled()) co_return std::nullopt;
  if (!found) {
    unreachable(found.error());
    co_return std::nullopt;
  }
  if (found.value()) co_return found.value()->key;
  if (!createIfMissing) co_return std::nullopt;

  auto created = co_await client.createSection(plexSectionName(isShow), isShow, mount);
  if (token.isCancelled()) co_return std::nullopt;
  if (!created) {
    unreachable(created.error());
    co_return std::nullopt;
  }
  auto quiet = co_await client.disableAnalysisJobs(mount);
  if (token.isCancelled()) co_return std::nullopt;
  if (!quiet) {
    unreachable(quiet.error());
    co_return std::nullopt;
  }
  log("[sync] recreated the Plex library for " + mount + " — it had gone from Plex");
  auto again = co_await client.sectionForLocation(mount);
  if (token.isCancelled()) co_return std::nullopt;
  if (!again) {
    unreachable(again.error());
    co_return std::nullopt;
  }
  if (!again.value()) {
    log("[sync] no Plex section matches " + mount + " yet — will retry");
    retry = true;
    co_return std::nullopt;
  }
  co_return again.value()->key;
}

QCoro::Task<bool> PlexSyncCoordinator::sectionPass(PMSClient client, std::string mount, bool isShow, Titles titles,
                                                   bool forceScan, bool withCollections, CancelToken token) {
  bool retry = false;
  const auto key = co_await ensureSection(client, mount, isShow, !titles.empty(), retry, token);
  if (token.isCancelled() || !key) co_return retry;

  SectionPass pass{.client = client, .mount = mount, .sectionKey = *key, .token = token};
  // Episodes are known to Plex by their file's name within its season folder.
  auto fileOf = [isShow](const std::string& name) { return isShow ? lastPathComponent(name) : name; };
  for (const LibraryTitle* t : titles) {
    if (auto id = imdbIdOf(t->name)) pass.fileByImdb[*id] = fileOf(t->name);
    pass.desiredFiles.insert(fileOf(t->name));
  }
  if (env_.config->companionVersions())
    for (const LibraryTitle* t : titles)
      if (t->altVersion) pass.desiredFiles.insert(t->altVersion->name);

  co_await indexAndScan(pass, forceScan);
  if (!pass.stopped()) co_await purgeStale(pass);
  if (!pass.stopped()) co_await reanalyze(pass);
  if (!pass.stopped() && isShow) co_await purgeShowShells(pass);
  if (!pass.stopped() && withCollections) co_await reconcileCollections(pass);
  co_return !pass.stopped() && pass.needsRetry;
}

QCoro::Task<std::map<std::string, std::string>> PlexSyncCoordinator::readIndex(
    const SectionPass& pass, std::map<std::string, std::string> fallback) {
  auto items = co_await pass.client.fileIndex(pass.mount);
  if (!items) co_return fallback;
  std::map<std::string, std::string> index;
  for (const auto& [file, item] : items.value())
    if (item.ratingKey) index.emplace(file, *item.ratingKey);
  co_return index;
}

QCoro::Task<> PlexSyncCoordinator::indexAndScan(SectionPass& pass, bool forceScan) {
  std::map<std::string, std::string> nothingYet;
  pass.index = co_await readIndex(pass, std::move(nothingYet));
  if (pass.stopped()) co_return;
  std::set<std::string> missing;
  for (const auto& f : pass.desiredFiles)
    if (!pass.index.count(f)) missing.insert(f);
  auto allIndexed = [&] {
    return std::all_of(missing.begin(), missing.end(), [&](const std::string& f) { return pass.index.count(f) > 0; });
  };

  std::string reasons;
  if (!missing.empty()) reasons = std::to_string(missing.size()) + " missing from index";
  if (forceScan) reasons += std::string(reasons.empty() ? "" : ", ") + "mount changed";
  if (reasons.empty()) co_return;

  auto scan = co_await pass.client.refreshSection(pass.mount);
  if (pass.stopped()) co_return;
  if (scan) {
    pass.scanRequested = true;
    log("[sync] requested Plex library scan for " + pass.mount + " (" + reasons + ")");
  } else {
    log("[sync] scan request failed for " + pass.mount + " (" + reasons + "): " + message(scan.error()));
  }
  if (missing.empty()) co_return;

  const Date deadline = env_.clock->now() + kIndexDeadline;
  while (env_.clock->now() <= deadline && !allIndexed()) {
    if (!co_await env_.clock->sleep(kIndexPoll, pass.token)) co_return;
    auto previous = pass.index;
    pass.index = co_await readIndex(pass, std::move(previous));
    if (pass.stopped()) co_return;
  }
  if (!allIndexed()) pass.needsRetry = true;
}

QCoro::Task<> PlexSyncCoordinator::requestScanOnce(SectionPass& pass, const char* why) {
  if (pass.scanRequested) co_return;
  pass.scanRequested = true;
  auto scan = co_await pass.client.refreshSection(pass.mount);
  if (pass.stopped()) co_return;
  if (scan)
    log("[sync] requested Plex library scan for " + pass.mount + " (" + why + ")");
  else
    log("[sync] scan request failed for " + pass.mount + ": " + message(scan.error()));
}

QCoro::Task<> PlexSyncCoordinator::purgeStale(SectionPass& pass) {
  pass.wantedRks.clear();
  for (const auto& f : pass.desiredFiles)
    if (auto it = pass.index.find(f); it != pass.index.end()) pass.wantedRks.insert(it->second);
  // An item with two files, one of them still wanted, is not stale.
  std::set<std::string> stale;
  for (const auto& [file, rk] : pass.index)
    if (!pass.desiredFiles.count(file) && !pass.wantedRks.count(rk)) stale.insert(rk);
  if (stale.empty()) co_return;

  // Plex's index of a section fills over minutes; a half-filled one looks
  // like a library whose wanted items are gone.
  size_t wantedIndexed = 0;
  for (const auto& f : pass.desiredFiles) wantedIndexed += pass.index.count(f);
  const size_t wanted = pass.desiredFiles.size();
  const double ratio = wanted ? static_cast<double>(wantedIndexed) / static_cast<double>(wanted) : 1.0;
  if ((wanted >= 1 && ratio < kAlwaysCompleteRatio) || (inWarmup() && ratio < kWarmupCompleteRatio)) {
    log("[sync] Plex index incomplete for " + pass.mount + " (" + std::to_string(wantedIndexed) + "/" +
        std::to_string(wanted) + " wanted indexed) — deferring stale purge");
    pass.needsRetry = true;
    co_return;
  }

  size_t failed = 0;
  std::string lastError;
  for (const auto& rk : stale) {
    const std::string path = "/library/metadata/" + rk;
    const PMSClient::Query noQuery;
    auto deleted = co_await pass.client.httpRequest("DELETE", path, noQuery, kDeleteTimeout);
    if (pass.stopped()) co_return;
    if (!deleted) {
      ++failed;
      lastError = message(deleted.error());
    }
  }
  if (failed == 0) {
    log("[sync] removed " + std::to_string(stale.size()) + " stale item(s) from " + pass.mount);
    co_await requestScanOnce(pass, "smart collections re-evaluate");
    if (pass.stopped()) co_return;
  } else {
    log("[sync] direct delete refused for " + std::to_string(failed) + "/" + std::to_string(stale.size()) +
        " stale item(s) in " + pass.mount + " — " + lastError);
    // Plex refuses to delete items whose files it still sees; a scan moves
    // the vanished ones to the trash, and emptying it removes them.
    if (!pass.desiredFiles.empty()) {
      auto emptied = co_await pass.client.refreshSection(pass.mount);
      if (pass.stopped()) co_return;
      if (emptied) emptied = co_await pass.client.emptyTrash(pass.sectionKey);
      if (pass.stopped()) co_return;
      if (emptied)
        log("[sync] emptied trash for " + pass.mount + " to clear " + std::to_string(failed) + " undeletable item(s)");
      else
        log("[sync] empty-trash fallback failed for " + pass.mount + ": " + message(emptied.error()));
    }
    pass.needsRetry = true;
  }
  auto previous = pass.index;
  pass.index = co_await readIndex(pass, std::move(previous));
}

QCoro::Task<> PlexSyncCoordinator::reanalyze(SectionPass& pass) {
  if (inWarmup()) co_return;
  const Date now = env_.clock->now();
  if (auto it = reanalyzeCheckedAt_.find(pass.mount);
      it != reanalyzeCheckedAt_.end() && now - it->second <= kReanalyzeInterval)
    co_return;
  reanalyzeCheckedAt_[pass.mount] = now;

  auto candidates = co_await pass.client.itemsWithoutDuration(pass.mount, now - kReanalyzeInterval);
  if (pass.stopped() || !candidates) co_return;
  size_t asked = 0;
  for (const auto& rk : candidates.value()) {
    if (asked == kReanalyzeBatch) break;
    const Date at = env_.clock->now();
    if (auto it = analyzeAskedAt_.find(rk); it != analyzeAskedAt_.end() && at - it->second <= kReanalyzeAgainAfter)
      continue;
    ++asked;
    analyzeAskedAt_[rk] = at;
    const std::string path = "/library/metadata/" + rk + "/analyze";
    const PMSClient::Query noQuery;
    auto sent = co_await pass.client.putQuery(path, noQuery);
    if (pass.stopped()) co_return;
    if (sent)
      log("[sync] asked Plex to analyze item " + rk + " again: a version of it has no duration");
    else
      log("[sync] re-analyze of " + rk + " failed: " + message(sent.error()));
  }
}

QCoro::Task<> PlexSyncCoordinator::purgeShowShells(SectionPass& pass) {
  if (inWarmup()) co_return;
  std::set<std::string> wantedEpisodes = pass.wantedRks;
  for (const auto& f : pass.desiredFiles)
    if (auto it = pass.index.find(f); it != pass.index.end()) wantedEpisodes.insert(it->second);

  auto shows = co_await pass.client.showKeys(pass.mount);
  if (pass.stopped() || !shows || shows.value().empty()) co_return;
  auto mapped = co_await pass.client.episodeShowMap(pass.mount);
  if (pass.stopped()) co_return;
  const auto map = mapped ? std::move(mapped.value()) : std::map<std::string, std::string>{};

  std::set<std::string> wantedShows;
  for (const auto& [episode, show] : map)
    if (wantedEpisodes.count(episode)) wantedShows.insert(show);
  // An empty, unreadable or partial episode map would make every show look
  // empty.
  if (!wantedEpisodes.empty() && wantedShows.empty()) {
    if (map.empty()) co_return;
    log("[sync] deferring show-shell purge for " + pass.mount + " — episode→show map incomplete");
    pass.needsRetry = true;
    co_return;
  }
  std::vector<std::string> orphans;
  std::set_difference(shows.value().begin(), shows.value().end(), wantedShows.begin(), wantedShows.end(),
                      std::back_inserter(orphans));
  if (orphans.empty()) co_return;

  size_t failed = 0;
  for (const auto& rk : orphans) {
    const std::string path = "/library/metadata/" + rk;
    const PMSClient::Query noQuery;
    auto deleted = co_await pass.client.httpRequest("DELETE", path, noQuery, kDeleteTimeout);
    if (pass.stopped()) co_return;
    if (!deleted) ++failed;
  }
  if (failed == 0) {
    log("[sync] removed " + std::to_string(orphans.size()) + " orphan show shell(s) from " + pass.mount);
  } else {
    log("[sync] failed to remove " + std::to_string(failed) + "/" + std::to_string(orphans.size()) +
        " show shell(s) in " + pass.mount + " — will retry");
    pass.needsRetry = true;
  }
}

// Collections ---------------------------------------------------------------

QCoro::Task<bool> PlexSyncCoordinator::reconcileLabel(SectionPass& pass, const std::string& name,
                                                      const std::vector<std::string>& members,
                                                      const std::map<std::string, std::string>& labels,
                                                      bool& labelled) {
  std::set<std::string> wanted;
  bool complete = true;
  for (const auto& id : members) {
    const auto file = pass.fileByImdb.find(id);
    if (file == pass.fileByImdb.end()) continue;
    const auto rk = pass.index.find(file->second);
    if (rk == pass.index.end())
      complete = false;
    else
      wanted.insert(rk->second);
  }
  if (!complete) pass.needsRetry = true;

  std::set<std::string> current;
  if (const auto labelId = labels.find(name); labelId != labels.end()) {
    auto keys = co_await pass.client.labelledKeys(pass.sectionKey, labelId->second);
    if (pass.stopped()) co_return false;
    if (!keys) {
      log("[sync] reading " + quoted(name) + " membership failed (will retry): " + message(keys.error()));
      pass.needsRetry = true;
      co_return false;
    }
    current = std::move(keys.value());
  }

  std::vector<std::string> toAdd, toRemove;
  std::set_difference(wanted.begin(), wanted.end(), current.begin(), current.end(), std::back_inserter(toAdd));
  std::set_difference(current.begin(), current.end(), wanted.begin(), wanted.end(), std::back_inserter(toRemove));
  if (!toAdd.empty()) {
    auto added = co_await pass.client.addLabel(pass.sectionKey, toAdd, name);
    if (pass.stopped()) co_return false;
    if (added) {
      labelled = true;
      log("[sync] labelled " + std::to_string(toAdd.size()) + " title(s) into " + quoted(name));
    } else {
      log("[sync] labelling into " + quoted(name) + " failed (will retry): " + message(added.error()));
      pass.needsRetry = true;
    }
  }
  if (!toRemove.empty()) {
    // Unlabelling while Plex catches up would empty the smart collection.
    if (!complete || inWarmup()) {
      pass.needsRetry = true;
      co_return true;
    }
    auto removed = co_await pass.client.removeLabel(toRemove, name);
    if (pass.stopped()) co_return false;
    if (removed) {
      log("[sync] unlabelled " + std::to_string(toRemove.size()) + " title(s) from " + quoted(name));
      // Smart collections only re-evaluate on a scan.
      co_await requestScanOnce(pass, "smart collections re-evaluate");
    } else {
      log("[sync] unlabelling from " + quoted(name) + " failed (will retry): " + message(removed.error()));
      pass.needsRetry = true;
    }
  }
  co_return true;
}

QCoro::Task<> PlexSyncCoordinator::reconcileCollections(SectionPass& pass) {
  if (!catalog_) co_return;
  const auto groupings = catalog_->plexGroupings();
  auto readLabels = co_await pass.client.sectionLabels(pass.sectionKey);
  if (pass.stopped()) co_return;
  auto labels = readLabels ? std::move(readLabels.value()) : std::map<std::string, std::string>{};

  bool labelled = false;
  for (const auto& g : groupings) {
    if (!g.members) continue;  // staged with nothing revealed: left as it stands
    co_await reconcileLabel(pass, g.name, *g.members, labels, labelled);
    if (pass.stopped()) co_return;
  }
  if (labelled) {
    // New labels have ids now.
    auto again = co_await pass.client.sectionLabels(pass.sectionKey);
    if (pass.stopped()) co_return;
    if (again) labels = std::move(again.value());
  }

  const bool warm = inWarmup();
  auto rows = co_await pass.client.sectionCollections(pass.sectionKey);
  if (pass.stopped()) co_return;
  if (!rows) {
    pass.needsRetry = true;
    co_return;
  }
  std::set<std::string> smartKeys;
  std::map<std::string, std::pair<std::string, bool>> byTitle;
  for (const auto& row : rows.value()) {
    if (row.smart) smartKeys.insert(row.ratingKey);
    byTitle.try_emplace(row.title, row.ratingKey, row.smart);
  }

  bool retry = false;
  std::set<std::string> handled;
  for (const auto& g : groupings) handled.insert(g.name);
  if (!warm) co_await retireOrphans(pass, rows.value(), handled, labels, retry);
  if (pass.stopped()) co_return;

  std::optional<std::string> machine;
  for (const auto& g : groupings) {
    if (!g.members) continue;
    if (g.plexRatingKey && smartKeys.count(*g.plexRatingKey)) continue;
    if (const auto row = byTitle.find(g.name); row != byTitle.end()) {
      if (row->second.second) {
        // The user's own smart collection of that name: used, never owned.
        if (catalog_) catalog_->setPlexRatingKey(row->second.first, g.id);
        continue;
      }
      auto deleted = co_await pass.client.deleteCollection(row->second.first);
      if (pass.stopped()) co_return;
      if (!deleted) {
        log("[sync] could not remove plain collection " + quoted(g.name) +
            " (will retry): " + message(deleted.error()));
        retry = true;
        continue;
      }
      log("[sync] replaced plain collection " + quoted(g.name) + " with a smart one");
    }
    const auto labelId = labels.find(g.name);
    if (labelId == labels.end()) continue;  // no title carries the label yet
    if (!machine) {
      auto info = co_await pass.client.machineInfo();
      if (pass.stopped()) co_return;
      if (!info) {
        pass.needsRetry = true;
        co_return;
      }
      machine = info.value().first;
    }
    auto created = co_await pass.client.createSmartCollection(g.name, labelId->second, pass.sectionKey, *machine);
    if (pass.stopped()) co_return;
    if (!created) {
      log("[sync] creating smart collection " + quoted(g.name) + " failed (will retry): " + message(created.error()));
      retry = true;
      continue;
    }
    if (catalog_) {
      if (created.value()) catalog_->setPlexRatingKey(*created.value(), g.id);
      catalog_->addOwnedGrouping(g.name);
    }
    log("[sync] created smart collection " + quoted(g.name));
  }
  if (retry) pass.needsRetry = true;
  log("[sync] reconciled " + std::to_string(groupings.size()) + " collection(s) in " + pass.mount);
}

QCoro::Task<> PlexSyncCoordinator::retireOrphans(SectionPass& pass, const std::vector<PlexCollectionRow>& rows,
                                                 const std::set<std::string>& handled,
                                                 const std::map<std::string, std::string>& labels, bool& retry) {
  for (const auto& row : rows) {
    if (!row.smart || handled.count(row.title)) continue;
    // A collection this application did not create is never touched.
    if (!catalog_ || !catalog_->ownedGroupings().count(row.title)) continue;
    const auto labelId = labels.find(row.title);
    if (labelId == labels.end()) continue;
    auto deleted = co_await pass.client.deleteCollection(row.ratingKey);
    if (pass.stopped()) co_return;
    if (!deleted) {
      log("[sync] retiring orphaned " + quoted(row.title) + " failed (will retry): " + message(deleted.error()));
      retry = true;
      continue;
    }
    log("[sync] retired orphaned collection " + quoted(row.title) + " — nothing here claims it");
    if (catalog_) catalog_->removeOwnedGrouping(row.title);
    auto keys = co_await pass.client.labelledKeys(pass.sectionKey, labelId->second);
    if (pass.stopped()) co_return;
    if (!keys) {
      log("[sync] stripping label " + quoted(row.title) + " failed (will retry): " + message(keys.error()));
      retry = true;
      continue;
    }
    if (keys.value().empty()) continue;
    std::vector<std::string> list(keys.value().begin(), keys.value().end());
    auto stripped = co_await pass.client.removeLabel(list, row.title);
    if (pass.stopped()) co_return;
    if (stripped) {
      log("[sync] stripped " + quoted(row.title) + " from " + std::to_string(list.size()) + " title(s)");
    } else {
      log("[sync] stripping label " + quoted(row.title) + " failed (will retry): " + message(stripped.error()));
      retry = true;
    }
  }
}

// Sizes the engines proved ---------------------------------------------------

QCoro::Task<> PlexSyncCoordinator::persistVerifiedSizes(CancelToken token) {
  if (!ops_.activeControlURLs || !env_.http) co_return;
  std::map<std::string, int64_t> sizes;
  for (const auto& control : ops_.activeControlURLs()) {
    const auto base = parseUrl(control);
    if (!base) continue;
    const QUrl url = withPathAppended(*base, "status");
    const auto reply = co_await env_.http->get(url, kEngineStatusTimeout, token);
    if (token.isCancelled()) co_return;
    if (!reply.ok()) continue;
    const auto status = decodeEngineStatus(std::string_view(reply.body.constData(), size_t(reply.body.size())));
    if (!status) continue;
    for (const auto& e : status->entries)
      if (e.size_verified.value_or(false) && e.size.value_or(0) >= 1) sizes[e.name] = *e.size;
  }
  if (!sizes.empty() && env_.store->applyVerifiedSizes(sizes)) log("[sync] persisted CDN-verified sizes");
}

}  // namespace vt
