// One collection's resolve: passes over its missing members until each has
// a verdict for this run, with a refill from further catalog pages.

#include "catalog/CollectionResolve.h"

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include <QStringList>

#include "catalog/CatalogStore.h"
#include "catalog/SeriesResolve.h"
#include "catalog/StremioCatalogClient.h"
#include "core/ActivityLog.h"
#include "core/LibraryStore.h"
#include "sources/release/ReleaseParser.h"

namespace vt {

namespace {

std::string inQuotes(const std::string& name) { return "\"" + name + "\""; }

std::string join(const std::vector<std::string>& parts, const std::string& separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += separator;
    out += parts[i];
  }
  return out;
}

}  // namespace

bool hasStaleKey(const LibraryTitle& title, const std::string& currentKey) {
  if (currentKey.empty() || !title.resolveURL) return false;
  const QUrl url(QString::fromStdString(*title.resolveURL), QUrl::StrictMode);
  if (!url.isValid() || url.scheme().isEmpty()) return false;
  const QStringList parts = url.path(QUrl::FullyDecoded).split('/');
  const QString key = QString::fromStdString(currentKey);
  for (qsizetype i = 0; i + 1 < parts.size(); ++i)
    if (parts[i] == QLatin1String("realdebrid")) return parts[i + 1] != key;
  return false;
}

std::vector<std::string> pendingIds(const std::vector<std::string>& ids, const LibraryStore& store,
                                    const CatalogStore& catalog, const std::set<std::string>& excluded,
                                    const std::string& currentKey, Date now) {
  std::vector<std::string> out;
  const auto stale = [&](const LibraryTitle& t) { return hasStaleKey(t, currentKey); };
  for (const auto& id : ids) {
    if (excluded.count(id)) continue;
    const CatalogMeta* meta = catalog.meta(id);
    if (meta) {
      if (ReleaseParser::releaseState(meta->released, meta->year, now) == ReleaseState::unreleased) continue;
      if (meta->onlyInCinemasAt && now - *meta->onlyInCinemasAt < CatalogStore::kCinemaRest) continue;
    }
    if (meta && meta->mediaType == "series") {
      // A series only the library collection holds is resolved on demand.
      if (catalog.publishedListsHolding(id).empty()) continue;
      const auto episodes = store.titlesBySeries(id);
      const bool wanting =
          episodes.empty() || std::any_of(episodes.begin(), episodes.end(),
                                          [&](const LibraryTitle* t) { return t->url.empty() || stale(*t); });
      if (wanting || !catalog.isSeriesResting(id)) out.push_back(id);
      continue;
    }
    const LibraryTitle* title = store.titleByImdb(id);
    if (!title || stale(*title)) out.push_back(id);
  }
  return out;
}

CollectionResolve::CollectionResolve(CatalogCollection collection, QUrl addon, StreamRanker ranker, bool allowTS,
                                     std::set<std::string> protectedIds, CollectionResolveHooks hooks,
                                     ResolvePace* pace, Services services)
    : collection_(std::move(collection)),
      addon_(std::move(addon)),
      ranker_(std::move(ranker)),
      allowTS_(allowTS),
      protectedIds_(std::move(protectedIds)),
      hooks_(std::move(hooks)),
      pace_(pace),
      services_(std::move(services)) {
  workingIds_ = collection_.itemImdbIds;
  seenIds_.insert(workingIds_.begin(), workingIds_.end());
  skip_ = static_cast<int>(collection_.itemImdbIds.size());
  if (!hooks_.log) hooks_.log = [](const std::string&) {};
}

Clock& CollectionResolve::clock() const { return services_.clock ? *services_.clock : systemClock(); }

std::string CollectionResolve::currentKey() const { return services_.currentKey ? services_.currentKey() : ""; }

bool CollectionResolve::isSeries(const std::string& id) const {
  const auto* meta = services_.catalog->meta(id);
  return meta && meta->mediaType == "series";
}

bool CollectionResolve::stopping(const CancelToken& token) const {
  if (token.isCancelled() || (hooks_.shouldStopHere && hooks_.shouldStopHere())) return true;
  // A collection deleted while the run waited has nobody left to resolve for.
  return services_.catalog->collection(collection_.id) == nullptr;
}

void CollectionResolve::recomputePending() {
  std::set<std::string> excluded = protectedFailed_;
  for (const auto* set :
       {&deferredIds_, &noStreamSkip_, &coolingSkip_, &unreleasedSkip_, &seriesNoProgressSkip_, &resolvedIds_})
    excluded.insert(set->begin(), set->end());
  pendingIds_ = pendingIds(workingIds_, *services_.store, *services_.catalog, excluded, currentKey(), clock().now());
}

void CollectionResolve::takeOutOfWorking(const std::set<std::string>& ids) {
  std::erase_if(workingIds_, [&](const std::string& id) { return ids.count(id) > 0; });
  services_.catalog->replaceMembership(workingIds_, collection_.id);
}

void CollectionResolve::takeResolved(const LibraryTitle& title, const std::string& id) {
  services_.catalog->markVetted(id);
  resolvedIds_.insert(id);
  allResolved_.push_back(title);
  if (hooks_.onResolved) {
    const std::vector<LibraryTitle> one{title};
    hooks_.onResolved(one);
  }
}

QCoro::Task<CollectionResolveResult> CollectionResolve::run(CancelToken token) {
  const std::string& name = collection_.name;
  recomputePending();
  hooks_.log("[supervisor] resolve " + inQuotes(name) + ": " + std::to_string(pendingIds_.size()) + " pending");

  bool lastPass = true;
  while (!pendingIds_.empty() && lastPass && !stopping(token)) lastPass = co_await pass(token);

  const size_t held = deferredIds_.size() + noStreamSkip_.size();
  if (held >= 1)
    hooks_.log("[supervisor] " + inQuotes(name) + ": " + std::to_string(held) + " title(s) held for a later pass (" +
               std::to_string(deferredIds_.size()) + " service-busy, " + std::to_string(noStreamSkip_.size()) +
               " unconfirmed no-stream) — kept in collection");
  hooks_.log("[supervisor] " + inQuotes(name) + " done — " + std::to_string(allResolved_.size()) + " resolved, " +
             std::to_string(extraPages_) + " extra pages");

  if (!allResolved_.empty()) {
    ActivityLog* activity = services_.activity ? services_.activity : ActivityLog::shared();
    const size_t n = allResolved_.size();
    if (activity)
      activity->record(ActivityLog::Kind::added,
                       n == 1 ? std::string("1 title added to Plex") : std::to_string(n) + " titles added to Plex",
                       name);
  }

  CollectionResolveResult result;
  result.titles = allResolved_;
  result.totalFailed = totalFailed_;
  result.protectedFailed = protectedFailed_;
  co_return result;
}

QCoro::Task<bool> CollectionResolve::pass(CancelToken token) {
  const std::string& name = collection_.name;
  CatalogStore& catalog = *services_.catalog;

  // Cooling ids wait, but a protected one is tried even while it cools.
  std::set<std::string> cooled;
  std::vector<std::string> going;
  for (const auto& id : pendingIds_) {
    if (catalog.isCooling(id) && !protectedIds_.count(id))
      cooled.insert(id);
    else
      going.push_back(id);
  }
  coolingSkip_.insert(cooled.begin(), cooled.end());
  if (isCatalogSource() && !cooled.empty()) takeOutOfWorking(cooled);

  std::vector<std::string> seriesIds, filmIds;
  for (const auto& id : going) (isSeries(id) ? seriesIds : filmIds).push_back(id);

  ResolveBatch batch;
  if (!filmIds.empty()) {
    // Named: gcc 12 mishandles lambda temporaries inside co_await.
    const std::function<bool()> stop = [this, token] { return stopping(token); };
    const std::function<void(const LibraryTitle&)> onTitle = [this](const LibraryTitle& title) {
      takeResolved(title, imdbIdOf(title.name).value_or(title.name));
    };
    batch = co_await services_.resolver->resolveBatch(filmIds, addon_, ranker_, allowTS_, pace_, stop, onTitle, token);
  }

  for (const auto& row : batch.unreleased) {
    unreleasedSkip_.insert(row.id);
    catalog.noteRelease(row.id, row.released, row.year);
    // The date says it is out while only recordings exist: a cinema run.
    if (!catalog.isHeldByRelease(row.id)) catalog.markOnlyInCinemas(row.id);
  }

  std::vector<std::string> seriesTransient, noListing, noProgress;
  for (size_t i = 0; i < seriesIds.size() && !stopping(token); ++i) {
    const std::string id = seriesIds[i];
    if (i > 0 && pace_) {
      co_await clock().sleep(pace_->pause(), token);
      if (stopping(token)) break;
    }
    const auto* meta = catalog.meta(id);
    const std::string label = meta && !meta->name.empty() ? meta->name : id;
    hooks_.log("[resolve] series " + std::to_string(i + 1) + "/" + std::to_string(seriesIds.size()) + ": " + label);
    const SeriesOutcome outcome = co_await resolveSeries(id, token);
    switch (outcome) {
      case SeriesOutcome::done:
        catalog.markVetted(id);
        break;
      case SeriesOutcome::noProgress:
        noProgress.push_back(id);
        break;
      case SeriesOutcome::transient:
        seriesTransient.push_back(id);
        break;
      case SeriesOutcome::noListing:
        noListing.push_back(id);
        break;
    }
  }
  seriesNoProgressSkip_.insert(noProgress.begin(), noProgress.end());

  if (!batch.noStream.empty() || !noListing.empty()) {
    const bool confirmed = co_await services_.resolver->readiness(addon_, token);
    if (!confirmed)
      hooks_.log("[resolve] holding " + std::to_string(batch.noStream.size() + noListing.size()) +
                 " no-source verdict(s) in " + inQuotes(name) + " — the source provider is not answering");
    std::vector<std::string> noStreamIds;
    if (!batch.noStream.empty()) {
      std::vector<std::string> rows;
      for (const auto& row : batch.noStream) {
        noStreamIds.push_back(row.id);
        rows.push_back(row.id + ":saw" + std::to_string(row.streamsSeen));
      }
      hooks_.log("[resolve] no-stream verdict(s) in " + inQuotes(name) + " — " + join(rows, " "));
    }
    applyVerdicts(noStreamIds, confirmed, "title(s)", "no source found",
                  "have no source — kept, shown as \"No playable source found\"");
    if (!noListing.empty())
      hooks_.log("[resolve] series no-listing verdict(s) in " + inQuotes(name) + ": " + join(noListing, ", "));
    applyVerdicts(noListing, confirmed, "series title(s)", "no Cinemeta record found",
                  "have no Cinemeta record — kept, shown as unavailable");
  }

  std::vector<std::string> transients = batch.transient;
  transients.insert(transients.end(), seriesTransient.begin(), seriesTransient.end());
  recordTransients(transients);

  recomputePending();

  if (transients.empty()) {
    backoffPasses_ = 0;
  } else if (!pendingIds_.empty()) {
    const double wait = std::min(std::pow(2.0, backoffPasses_) * kBackoffBase, kBackoffMax);
    ++backoffPasses_;
    hooks_.log("[supervisor] pausing " + std::to_string(static_cast<int64_t>(wait)) + "s before retry (service busy)");
    // A cancelled sleep just ends early; the check below sees why.
    co_await clock().sleep(wait, token);
  }

  bool result = !stopping(token);
  if (result && pendingIds_.empty()) result = co_await backfill(token);
  co_return result;
}

QCoro::Task<CollectionResolve::SeriesOutcome> CollectionResolve::resolveSeries(std::string id, CancelToken token) {
  std::function<bool()> stop = [this, token] { return stopping(token); };
  // Each episode counts as it comes in, as a film would.
  std::function<void(const LibraryTitle&)> onEpisode = [this](const LibraryTitle& title) {
    allResolved_.push_back(title);
    if (hooks_.onResolved) {
      const std::vector<LibraryTitle> one{title};
      hooks_.onResolved(one);
    }
  };
  SeriesResolve::Services services{.titles = services_.resolver,
                                   .catalog = services_.catalog,
                                   .store = services_.store,
                                   .clock = services_.clock,
                                   .currentKey = services_.currentKey};
  SeriesResolve series(id, addon_, ranker_, allowTS_, pace_, std::move(stop), std::move(onEpisode), hooks_.log,
                       std::move(services));
  const auto outcome = co_await series.run(token);
  switch (outcome.kind) {
    case SeriesResolve::Outcome::Kind::done:
      // Not complete (it would rest otherwise): the next pass walks it again.
      co_return SeriesOutcome::done;
    case SeriesResolve::Outcome::Kind::noProgress:
      co_return SeriesOutcome::noProgress;
    case SeriesResolve::Outcome::Kind::transient:
      co_return SeriesOutcome::transient;
    case SeriesResolve::Outcome::Kind::noListing:
      co_return SeriesOutcome::noListing;
  }
  co_return SeriesOutcome::noProgress;
}

void CollectionResolve::applyVerdicts(const std::vector<std::string>& ids, bool confirmed, const std::string& noun,
                                      const std::string& removedReason, const std::string& keptTail) {
  std::set<std::string> removed;
  for (const auto& id : ids) {
    if (confirmed && !protectedIds_.count(id)) {
      services_.catalog->markFailed(id);
      removed.insert(id);
    } else {
      noStreamSkip_.insert(id);
    }
    if (protectedIds_.count(id)) protectedFailed_.insert(id);
  }
  totalFailed_ += static_cast<int>(removed.size());
  if (removed.empty()) return;
  const std::string& name = collection_.name;
  if (isCatalogSource()) {
    takeOutOfWorking(removed);
    hooks_.log("[supervisor] removed " + std::to_string(removed.size()) + " " + noun + " from " + inQuotes(name) +
               " — " + removedReason);
  } else {
    coolingSkip_.insert(removed.begin(), removed.end());
    hooks_.log("[supervisor] " + std::to_string(removed.size()) + " " + noun + " in " + inQuotes(name) + " " +
               keptTail);
  }
}

void CollectionResolve::recordTransients(const std::vector<std::string>& ids) {
  if (ids.empty()) return;
  for (const auto& id : ids)
    if (++transientAttempts_[id] >= kTransientAttempts) deferredIds_.insert(id);
  const auto deferred =
      std::count_if(ids.begin(), ids.end(), [&](const std::string& id) { return deferredIds_.count(id) > 0; });
  std::string line =
      "[supervisor] " + std::to_string(ids.size()) + " transient failure(s) in " + inQuotes(collection_.name);
  if (deferred > 0)
    line += " — " + std::to_string(deferred) + " deferred to next pass";
  else
    line += " — backing off, will retry";
  hooks_.log(line);
}

QCoro::Task<bool> CollectionResolve::backfill(CancelToken token) {
  // The store's size of the list wins: the user may have changed it meanwhile.
  const auto* live = services_.catalog->collection(collection_.id);
  const int maxItems = live ? live->maxItems : collection_.maxItems;
  const int deficit = maxItems - static_cast<int>(workingIds_.size());
  const auto& source = collection_.source;
  const QUrl base(QString::fromStdString(source.addonBaseURL), QUrl::StrictMode);
  const bool validBase = base.isValid() && !base.scheme().isEmpty() && !base.host().isEmpty();
  if (deficit < 1 || extraPages_ >= kExtraPages || !isCatalogSource() || !validBase || !services_.catalogClient ||
      token.isCancelled())
    co_return false;

  auto fetched =
      co_await services_.catalogClient->catalogPage(base, source.type, source.catalogId, source.genre, skip_, token);
  // A failed fetch counts as an empty page.
  const std::vector<CatalogMeta> page = fetched ? std::move(*fetched) : std::vector<CatalogMeta>{};
  skip_ += static_cast<int>(page.size());
  ++extraPages_;

  std::vector<CatalogMeta> fresh;
  std::unordered_set<std::string> taken;
  for (const auto& meta : page) {
    if (static_cast<int>(fresh.size()) >= deficit) break;
    if (seenIds_.count(meta.id) || !taken.insert(meta.id).second) continue;
    fresh.push_back(meta);
  }
  if (fresh.empty()) co_return true;

  std::vector<std::string> ids;
  for (const auto& meta : fresh) ids.push_back(meta.id);
  seenIds_.insert(ids.begin(), ids.end());
  pendingIds_ = ids;
  workingIds_.insert(workingIds_.end(), ids.begin(), ids.end());
  services_.catalog->replaceMembership(workingIds_, collection_.id);
  services_.catalog->fillMeta(fresh);
  hooks_.log("[supervisor] backfill page " + std::to_string(extraPages_) + ": +" + std::to_string(ids.size()) + " in " +
             inQuotes(collection_.name));
  co_return true;
}

}  // namespace vt
