#include "catalog/CatalogSync.h"

#include <algorithm>
#include <cmath>

#include "catalog/CatalogStore.h"
#include "core/AppConfig.h"
#include "core/WatchlistPort.h"
#include "platform/Log.h"
#include "platform/Url.h"

namespace vt {

using Kind = CollectionSource::Kind;

CatalogSync::CatalogSync(CatalogStore& store, StremioCatalogClient client, WatchlistPort& watchlist, Clock& clock,
                         AppConfig* config, PlexPosterPort* plexPosters)
    : store_(store),
      client_(std::move(client)),
      watchlist_(watchlist),
      clock_(clock),
      config_(config),
      plexPosters_(plexPosters) {}

CatalogSync::~CatalogSync() { *alive_ = false; }

double CatalogSync::backoffSeconds(int failures) {
  return std::min(kBackoffBase * std::pow(2.0, std::max(failures, 0)), kBackoffMax);
}

bool CatalogSync::isDue(const CatalogCollection& c, Date now) {
  switch (c.source.kind) {
    case Kind::watchlist:
      return !c.lastSyncedAt || now - *c.lastSyncedAt >= kWatchlistEvery;
    case Kind::library:
    case Kind::manual:
      return false;
    case Kind::stremioCatalog:
      if (!parseUrl(c.source.addonBaseURL)) return false;
      return !c.lastSyncedAt || now - *c.lastSyncedAt >= seconds(c.refreshInterval);
  }
  return false;
}

std::vector<std::string> CatalogSync::membersOf(const std::vector<CatalogMeta>& metas,
                                                const CatalogCollection& collection, bool reconcile) {
  if (reconcile) return store_.reconcile(metas, collection);
  std::vector<std::string> ids;
  std::set<std::string> seen;
  for (const auto& m : metas) {
    if (static_cast<int>(ids.size()) >= collection.maxItems) break;
    if (seen.insert(m.id).second) ids.push_back(m.id);
  }
  return ids;
}

QCoro::Task<bool> CatalogSync::syncCatalog(std::string id, bool reconcile, CancelToken token) {
  const CatalogCollection* found = store_.collection(id);
  if (!found || found->source.kind != Kind::stremioCatalog || fetchingIds_.count(id)) co_return false;
  const auto parsed = parseUrl(found->source.addonBaseURL);
  if (!parsed) co_return false;
  const QUrl base = *parsed;
  const CollectionSource source = found->source;
  const std::string name = found->name;
  const int limit = found->maxItems + kFetchMargin;
  const Fetching fetching(*this, id);

  const auto alive = alive_;
  auto metas = co_await client_.metas(base, source.type, source.catalogId, source.genre, limit, token);
  if (!*alive) co_return false;  // the store went while the pages came in
  if (token.isCancelled()) co_return false;
  if (!metas || metas->empty()) {
    logLine("[CatalogStore] syncCatalog: empty or failed fetch for " + name +
            " — skipping reconcile to avoid data loss");
    co_return false;
  }
  // The list may have gone, or been pointed elsewhere, while the pages came in.
  const CatalogCollection* current = store_.collection(id);
  if (!current || current->source != source) co_return true;
  CatalogCollection collection = *current;
  const std::vector<std::string> members = membersOf(*metas, collection, reconcile);
  const std::set<std::string> before(collection.itemImdbIds.begin(), collection.itemImdbIds.end());
  const std::set<std::string> after(members.begin(), members.end());
  const bool removed = std::any_of(before.begin(), before.end(), [&](const auto& i) { return !after.count(i); });
  const bool added = std::any_of(after.begin(), after.end(), [&](const auto& i) { return !before.count(i); });
  const Date now = clock_.now();
  collection.itemImdbIds = members;
  collection.lastSyncedAt = now;
  if (added || removed) collection.lastChangedAt = now;
  store_.upsert(collection);
  store_.mergeMeta(*metas);
  store_.catalogSynced(id, removed);
  co_return true;
}

QCoro::Task<bool> CatalogSync::syncWatchlist(std::string id, CancelToken token) {
  if (!config_ || config_->token().empty()) co_return false;
  const CatalogCollection* found = store_.collection(id);
  if (!found || found->source.kind != Kind::watchlist || fetchingIds_.count(id)) co_return false;
  const int limit = found->maxItems;
  const Fetching fetching(*this, id);

  const auto alive = alive_;
  auto fetched = co_await watchlist_.fetchWatchlist(limit, watchlistGuids_, token);
  if (!*alive) co_return false;
  if (token.isCancelled()) co_return false;
  if (!fetched) {
    // Every 15 s the same failure would say nothing new: it is logged when it changes.
    if (fetched.error() != lastWatchlistFailure_)
      logLine("[CatalogStore] watchlist fetch failed — keeping existing membership: " + fetched.error());
    lastWatchlistFailure_ = fetched.error();
    co_return false;
  }
  lastWatchlistFailure_.clear();
  watchlistGuids_ = fetched->knownIds;
  std::vector<std::string> ids;
  std::set<std::string> seen;
  for (const auto& item : fetched->items)
    if (seen.insert(item.imdbId).second) ids.push_back(item.imdbId);

  const CatalogCollection* current = store_.collection(id);
  if (!current) co_return true;
  CatalogCollection collection = *current;
  if (ids.empty() && !collection.itemImdbIds.empty() && !watchlistEmptyOnce_.count(id)) {
    watchlistEmptyOnce_.insert(id);
    co_return true;
  }
  watchlistEmptyOnce_.erase(id);
  const std::set<std::string> before(collection.itemImdbIds.begin(), collection.itemImdbIds.end());
  const bool removed = std::any_of(before.begin(), before.end(), [&](const auto& i) { return !seen.count(i); });
  const Date now = clock_.now();
  collection.lastSyncedAt = now;
  if (before != seen) collection.lastChangedAt = now;
  collection.itemImdbIds = ids;
  store_.upsert(collection);

  std::vector<CatalogMeta> metas;
  std::map<std::string, std::string> posters;
  for (const auto& item : fetched->items) {
    metas.push_back(CatalogMeta{.id = item.imdbId,
                                .name = item.title,
                                .year = item.year,
                                .posterURL = item.posterURL,
                                .mediaType = item.mediaType});
    if (item.posterURL) posters[item.imdbId] = *item.posterURL;
  }
  store_.fillMeta(metas);
  // A poster that changed on Plex's side replaces the stored one.
  replacePosters(posters);
  store_.catalogSynced(id, removed);
  co_return true;
}

QCoro::Task<> CatalogSync::refreshTick(CancelToken token) {
  if (const auto until = store_.refreshDeferredUntil(); until && clock_.now() < *until) co_return;
  std::vector<CatalogCollection> due;
  for (const auto& c : store_.collections())
    if (isDue(c, clock_.now()) && !fetchingIds_.count(c.id)) due.push_back(c);
  const auto alive = alive_;
  for (const auto& c : due) {
    if (!*alive || token.isCancelled()) co_return;
    // What an earlier item awaited may have changed the store: look again.
    if (const auto until = store_.refreshDeferredUntil(); until && clock_.now() < *until) co_return;
    const CatalogCollection* live = store_.collection(c.id);
    if (!live || !isDue(*live, clock_.now()) || fetchingIds_.count(c.id)) continue;
    if (c.source.kind == Kind::watchlist) {
      co_await syncWatchlist(c.id, token);
      continue;
    }
    if (const auto it = backoff_.find(c.id);
        it != backoff_.end() && clock_.now() - it->second.last < backoffSeconds(it->second.failures))
      continue;
    const bool ok = co_await syncCatalog(c.id, true, token);
    if (!*alive || token.isCancelled()) co_return;
    if (ok) {
      backoff_.erase(c.id);
    } else {
      auto& b = backoff_[c.id];
      b.failures += 1;
      b.last = clock_.now();
    }
  }
}

void CatalogSync::startRefreshLoop() {
  jobs_.start([this](CancelToken token) -> QCoro::Task<> {
    if (!co_await clock_.sleep(kFirstTick, token)) co_return;
    while (!token.isCancelled()) {
      co_await refreshTick(token);
      if (!co_await clock_.sleep(kTick, token)) co_return;
    }
  });
}

void CatalogSync::applicationBecameActive() {
  for (const auto& c : store_.collections()) {
    if (c.source.kind != Kind::watchlist || fetchingIds_.count(c.id)) continue;
    const std::string id = c.id;
    jobs_.start([this, id](CancelToken token) -> QCoro::Task<> { co_await syncWatchlist(id, token); });
    return;
  }
}

void CatalogSync::prefetchPosters(const std::string& collectionId) {
  const CatalogCollection* c = store_.collection(collectionId);
  if (!c || posterJobs_.count(collectionId)) return;
  std::vector<std::string> missing;
  for (size_t i = 0; i < c->itemImdbIds.size() && i < kPosterPrefetch; ++i) {
    const CatalogMeta* m = store_.meta(c->itemImdbIds[i]);
    if (!m || !m->posterURL || m->posterURL->empty()) missing.push_back(c->itemImdbIds[i]);
  }
  if (missing.empty()) return;
  posterJobs_.insert(collectionId);
  jobs_.start([this, collectionId, missing](CancelToken token) -> QCoro::Task<> {
    std::map<std::string, std::string> found;
    if (plexPosters_) found = co_await plexPosters_->posters(missing, token);
    if (token.isCancelled()) co_return;
    std::vector<CatalogMeta> records;  // from Cinemeta, for ids the store has no record of
    for (const auto& id : missing) {
      if (found.count(id)) continue;
      const CatalogMeta* m = store_.meta(id);
      const std::string type = m && m->mediaType ? *m->mediaType : "movie";
      auto record = co_await client_.meta(type, id, token);
      if (token.isCancelled()) co_return;
      if (!record || !record->posterURL) continue;
      found[id] = *record->posterURL;
      records.push_back(std::move(*record));
    }
    replacePosters(found);
    if (!records.empty()) store_.fillMeta(records);
    posterJobs_.erase(collectionId);
  });
}

// Only the poster of a stored record changes, and only where it differs;
// the records may have changed while the posters were found.
void CatalogSync::replacePosters(const std::map<std::string, std::string>& posters) {
  std::vector<CatalogMeta> updated;
  for (const auto& [id, url] : posters)
    if (const CatalogMeta* m = store_.meta(id); m && m->posterURL != url) {
      CatalogMeta withPoster = *m;
      withPoster.posterURL = url;
      updated.push_back(std::move(withPoster));
    }
  if (!updated.empty()) store_.mergeMeta(updated);
}

}  // namespace vt
