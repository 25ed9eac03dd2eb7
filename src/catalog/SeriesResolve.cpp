// One show's resolve: its released episodes, season by season, with a probe
// per season and a stop when the sources keep failing.

#include "catalog/SeriesResolve.h"

#include "catalog/CatalogStore.h"
#include "catalog/CollectionResolve.h"
#include "core/LibraryStore.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Log.h"
#include "sources/release/ReleaseParser.h"
#include "sources/resolve/SeriesSkeletonCache.h"

namespace vt {

using Kind = SeriesResolve::Outcome::Kind;

SeriesResolve::SeriesResolve(std::string seriesId, QUrl addon, StreamRanker ranker, bool allowTS, ResolvePace* pace,
                             std::function<bool()> shouldStop, std::function<void(const LibraryTitle&)> onEpisode,
                             std::function<void(const std::string&)> log, Services services)
    : seriesId_(std::move(seriesId)),
      addon_(std::move(addon)),
      ranker_(std::move(ranker)),
      allowTS_(allowTS),
      pace_(pace ? pace : &ownPace_),
      shouldStop_(std::move(shouldStop)),
      onEpisode_(std::move(onEpisode)),
      log_(std::move(log)),
      services_(std::move(services)),
      resolver_(services_.titles->services(), addon_, allowTS_) {}

Clock& SeriesResolve::clock() const {
  return services_.clock ? *services_.clock : services_.titles->services().http.clock();
}

void SeriesResolve::say(const std::string& line) const {
  if (log_)
    log_(line);
  else
    logLine(line);
}

bool SeriesResolve::isReleased(const EpisodeMeta& episode) const {
  return ReleaseParser::releaseState(episode.released, "", clock().now()) != ReleaseState::unreleased;
}

bool SeriesResolve::stopping(const CancelToken& token) const {
  if (token.isCancelled() || aborted_ || (shouldStop_ && shouldStop_())) return true;
  // A show that left every published list has nobody left to resolve for.
  return !services_.catalog->isWanted(seriesId_);
}

QCoro::Task<SeriesResolve::Outcome> SeriesResolve::run(CancelToken token) {
  const ResolverServices& services = services_.titles->services();
  auto loaded = co_await services.skeletonCache().skeleton(seriesId_, services.cinemeta, services.http, token);
  if (!loaded) {
    Outcome failed;
    failed.kind = loaded.error().kind == ResolveError::Kind::noMeta ? Kind::noListing : Kind::transient;
    co_return failed;
  }
  const SeriesSkeleton skeleton = std::move(*loaded);
  // A run that ends early leaves the show open to the next pass.
  services_.catalog->clearSeriesComplete(seriesId_);

  for (const int season : skeleton.seasons()) {
    if (stopping(token)) break;
    co_await workSeason(skeleton, season, token);
  }

  if (!aborted_ && allReleasedDone(skeleton)) {
    services_.catalog->markSeriesComplete(seriesId_);
    say("[resolve] " + seriesId_ + ": all released episodes resolved or resting");
  }

  Outcome out;
  if (!inserted_.empty()) {
    out.kind = Kind::done;
    out.titles = inserted_;
  } else {
    out.kind = anyTransient_ || aborted_ ? Kind::transient : Kind::noProgress;
  }
  co_return out;
}

QCoro::Task<> SeriesResolve::workSeason(const SeriesSkeleton& skeleton, int season, CancelToken token) {
  std::vector<EpisodeMeta> released;
  for (auto& e : skeleton.seasonEpisodes(season))
    if (isReleased(e)) released.push_back(std::move(e));
  // A season not out at all costs nothing.
  if (released.empty()) co_return;
  const EpisodeMeta probe = released.front();
  const bool alive = co_await seasonAlive(season, probe, token);
  if (!alive) co_return;
  for (const auto& episode : released) {
    if (stopping(token)) break;
    co_await resolveOne(skeleton, episode, token);
  }
}

QCoro::Task<bool> SeriesResolve::seasonAlive(int season, EpisodeMeta probe, CancelToken token) {
  CatalogStore& catalog = *services_.catalog;
  const std::string key = seasonKey(seriesId_, season);
  if (catalog.isVetted(key)) co_return true;
  if (catalog.isCooling(key)) co_return false;

  auto answer = co_await resolver_.seasonHasSource(seriesId_, season, probe.episode, token);
  if (token.isCancelled()) co_return false;
  if (answer) {
    recovered();
    if (*answer)
      catalog.markVetted(key);
    else
      catalog.markFailed(key);
    co_return *answer;
  }
  using E = ResolveError::Kind;
  const E kind = answer.error().kind;
  const bool transient = kind == E::metaNetworkError || kind == E::catalogUnavailable || kind == E::cdnUnavailable ||
                         kind == E::stillDownloading;
  noteTransient(transient, ": stream catalog busy — pausing rest of show this pass");
  co_return false;
}

QCoro::Task<> SeriesResolve::resolveOne(const SeriesSkeleton& skeleton, EpisodeMeta episode, CancelToken token) {
  CatalogStore& catalog = *services_.catalog;
  LibraryStore& store = *services_.store;
  const std::string key = episodeKey(seriesId_, episode.season, episode.episode);
  const std::string currentKey = services_.currentKey ? services_.currentKey() : "";

  std::optional<LibraryTitle> existing;
  if (const LibraryTitle* held = store.titleByEpisodeKey(key)) {
    if (!held->url.empty() && !hasStaleKey(*held, currentKey)) co_return;
    existing = *held;
  }
  if (catalog.isCooling(key)) co_return;

  const bool slept = co_await clock().sleep(pace_->pause(), token);
  if (!slept) co_return;

  SeriesSkeleton show = skeleton;
  auto outcome = co_await services_.titles->resolveEpisode(std::move(show), episode.season, episode.episode, addon_,
                                                           ranker_, allowTS_, std::move(existing), token);
  // A cut-short resolve says nothing about the sources.
  if (token.isCancelled() && outcome.kind != ResolveOutcome::Kind::resolved) co_return;

  switch (outcome.kind) {
    case ResolveOutcome::Kind::resolved: {
      recovered();
      catalog.markVetted(key);
      inserted_.push_back(std::move(*outcome.title));
      if (onEpisode_) onEpisode_(inserted_.back());
      break;
    }
    case ResolveOutcome::Kind::unreleased:
    case ResolveOutcome::Kind::transient:
      noteTransient(true, ": stream catalog busy after " + std::to_string(consecutiveTransient_ + 1) +
                              " failures — pausing rest of show this pass");
      break;
    case ResolveOutcome::Kind::noStream: {
      const bool ready = co_await services_.titles->readiness(addon_, token);
      if (token.isCancelled()) co_return;
      if (!ready) {
        noteTransient(true, ": the stream catalog isn't answering — pausing rest of show this pass");
        break;
      }
      recovered();
      catalog.markFailed(key);
      // A placeholder without a link goes: the episode has no source.
      if (const LibraryTitle* held = store.titleByEpisodeKey(key); held && held->url.empty()) {
        const std::string name = held->name;
        store.remove(name);
      }
      break;
    }
  }
}

void SeriesResolve::recovered() {
  pace_->note(ResolveOutcome::Kind::resolved);
  consecutiveTransient_ = 0;
}

void SeriesResolve::noteTransient(bool isTransient, const std::string& message) {
  anyTransient_ = true;
  if (isTransient) pace_->note(ResolveOutcome::Kind::transient);
  if (++consecutiveTransient_ >= kAbortAfter && !aborted_) {
    aborted_ = true;
    say("[resolve] " + seriesId_ + message);
  }
}

bool SeriesResolve::allReleasedDone(const SeriesSkeleton& skeleton) const {
  for (const auto& e : skeleton.airedEpisodes(clock().now())) {
    const std::string key = episodeKey(seriesId_, e.season, e.episode);
    const LibraryTitle* held = services_.store->titleByEpisodeKey(key);
    if (held && !held->url.empty()) continue;
    if (services_.catalog->isCooling(key)) continue;
    return false;
  }
  return true;
}

EpisodeCatalogView episodeCatalogView(CatalogStore& catalog) {
  EpisodeCatalogView view;
  view.isWanted = [&catalog](const std::string& seriesId) { return catalog.isWanted(seriesId); };
  view.isCooling = [&catalog](const std::string& key) { return catalog.isCooling(key); };
  view.markFailed = [&catalog](const std::string& key) { catalog.markFailed(key); };
  // Vetting an id is what clears its failures.
  view.clearCooling = [&catalog](const std::string& key) { catalog.markVetted(key); };
  return view;
}

}  // namespace vt
