#include "sources/resolve/StreamResolver.h"

#include <algorithm>

#include "platform/Http.h"
#include "sources/resolve/SeriesSkeletonCache.h"
#include "platform/Log.h"
#include "sources/providers/ProviderRegistry.h"
#include "sources/rd/RDClient.h"
#include "sources/release/ReleaseParser.h"

namespace vt {

using Error = ResolveError::Kind;
using Outcome = ResolveOutcome::Kind;

ResolveOutcome ResolveOutcome::resolved(LibraryTitle title) {
  ResolveOutcome o;
  o.kind = Outcome::resolved;
  o.title = std::move(title);
  return o;
}

ResolveOutcome ResolveOutcome::noStream(int streamsSeen, std::optional<ResolveError> cause) {
  ResolveOutcome o;
  o.kind = Outcome::noStream;
  o.streamsSeen = streamsSeen;
  o.cause = std::move(cause);
  return o;
}

ResolveOutcome ResolveOutcome::unreleased(std::optional<std::string> released, std::string year) {
  ResolveOutcome o;
  o.kind = Outcome::unreleased;
  o.released = std::move(released);
  o.year = std::move(year);
  return o;
}

ResolveOutcome ResolveOutcome::transient(std::optional<ResolveError> cause) {
  ResolveOutcome o;
  o.kind = Outcome::transient;
  o.cause = std::move(cause);
  return o;
}

// Verdicts on the title or the link are no-stream; outages and a download
// still running are passing; a release date in the future is the gate's.
ResolveOutcome ResolveOutcome::of(const ResolveError& error) {
  switch (error.kind) {
    case Error::badLink:
    case Error::episodeRequired:
    case Error::noMeta:
    case Error::noPlayableStream:
    case Error::onlyRecordings:
      return noStream(-1, error);
    case Error::notReleasedYet: {
      auto o = unreleased(error.released, error.year);
      o.cause = error;
      return o;
    }
    case Error::metaNetworkError:
    case Error::catalogUnavailable:
    case Error::cdnUnavailable:
    case Error::stillDownloading:
    case Error::cancelled:
      return transient(error);
  }
  return transient(error);
}

const char* name(ResolveOutcome::Kind kind) {
  switch (kind) {
    case Outcome::resolved:
      return "resolved";
    case Outcome::noStream:
      return "noStream";
    case Outcome::unreleased:
      return "unreleased";
    case Outcome::transient:
      return "transient";
  }
  return "transient";
}

void ResolvePace::note(ResolveOutcome::Kind outcome) {
  switch (outcome) {
    case Outcome::transient:
      delay = std::min(delay * 2, kMax);
      break;
    case Outcome::resolved:
    case Outcome::noStream:
      delay = std::max(delay * kEase, kMin);
      break;
    case Outcome::unreleased:
      break;
  }
}

const std::vector<std::string>& StreamResolver::wellKnownFilms() {
  static const std::vector<std::string> films = {"tt0110912", "tt0111161", "tt0068646"};
  return films;
}

QCoro::Task<ResolveOutcome> StreamResolver::resolveMovie(std::string id, QUrl addon, StreamRanker ranker, bool allowTS,
                                                         bool allowUncachedFallback, CancelToken token) {
  StremioResolver resolver(services_, addon, allowTS);
  auto resolution = co_await resolver.resolve("detail/movie/" + id, token);
  if (!resolution) co_return ResolveOutcome::of(resolution.error());
  if (onResolution) onResolution(*resolution);
  if (resolution->streams.empty()) {
    // A title that exists only in recordings is not out yet.
    if (resolution->earlyRelease || (!allowTS && resolution->recordings >= 1))
      co_return ResolveOutcome::unreleased(std::nullopt, resolution->year);
    // Rows existed and something about them was wrong: no verdict.
    if (resolution->fakes < resolution->rawStreamCount) co_return ResolveOutcome::transient();
    co_return ResolveOutcome::noStream(0);
  }
  auto outcome = co_await pickAndMaterialise(std::move(resolver), std::move(*resolution), std::move(ranker),
                                             allowUncachedFallback, false, token);
  co_return outcome;
}

QCoro::Task<ResolveOutcome> StreamResolver::resolveEpisode(std::string seriesId, int season, int episode, QUrl addon,
                                                           StreamRanker ranker, bool allowTS, CancelToken token) {
  auto skeleton = co_await services_.skeletonCache().skeleton(seriesId, services_.cinemeta, services_.http, token);
  if (!skeleton) {
    logLine("[resolve] series/" + seriesId + " metadata lookup failed: " + message(skeleton.error()));
    co_return ResolveOutcome::of(skeleton.error());
  }
  auto outcome = co_await resolveEpisode(std::move(*skeleton), season, episode, std::move(addon), std::move(ranker),
                                         allowTS, std::nullopt, token);
  co_return outcome;
}

QCoro::Task<ResolveOutcome> StreamResolver::resolveEpisode(SeriesSkeleton series, int season, int episode, QUrl addon,
                                                           StreamRanker ranker, bool allowTS,
                                                           std::optional<LibraryTitle> existing, CancelToken token) {
  StremioResolver resolver(services_, addon, allowTS);
  const std::string seriesId = series.seriesId;
  auto resolution = co_await resolver.resolveEpisode(seriesId, season, episode, std::move(series), token);
  if (!resolution) co_return ResolveOutcome::of(resolution.error());
  if (onResolution) onResolution(*resolution);
  if (resolution->streams.empty()) {
    if (resolution->fakes < resolution->rawStreamCount) co_return ResolveOutcome::transient();
    co_return ResolveOutcome::noStream(0);
  }
  const std::string name = existing && !existing->name.empty()
                               ? existing->name
                               : episodeFileName(resolution->showTitle, resolution->year, seriesId, season, episode);
  auto outcome =
      co_await pickAndMaterialise(std::move(resolver), std::move(*resolution), std::move(ranker), false, true, token);
  if (outcome.title) {
    auto& t = *outcome.title;
    t.name = name;
    t.seriesImdbId = seriesId;
    t.season = season;
    t.episode = episode;
  }
  co_return outcome;
}

// Cached picks first, at most four; with none, the best uncached one when
// the caller allows it. Strictly one after the other: a bad candidate lets
// the next one try, any other failure ends the search.
QCoro::Task<ResolveOutcome> StreamResolver::pickAndMaterialise(StremioResolver resolver,
                                                               StremioResolver::Resolution resolution,
                                                               StreamRanker ranker, bool allowUncachedFallback,
                                                               bool episode, CancelToken token) {
  const auto pickable = resolution.pickable();
  auto ranked = ranker.rank(pickable, resolution.runtimeMinutes, false);
  size_t limit = kCachedPicks;
  if (ranked.empty() && allowUncachedFallback) {
    ranked = ranker.rank(pickable, resolution.runtimeMinutes, true);
    limit = kUncachedPicks;
  }
  if (ranked.empty()) {
    if (!episode && resolution.earlyRelease) co_return ResolveOutcome::unreleased(std::nullopt, resolution.year);
    co_return ResolveOutcome::noStream(resolution.rawStreamCount);
  }

  std::optional<ResolveError> last;
  for (size_t i = 0; i < std::min(limit, ranked.size()); ++i) {
    const StreamCandidate pick = ranked[i];
    auto title = co_await resolver.materialise(pick, resolution, token);
    if (title) {
      title->mirrorURLs = StremioResolver::alternates(pick, resolution.streams);
      // A companion is a 1080p version of a 4K film; episodes have none.
      if (!episode && ReleaseParser::parse(pick.filename).resolution == "4K")
        title->altVersion = companionFrom(ranked, resolution);
      co_return ResolveOutcome::resolved(std::move(*title));
    }
    if (title.error().kind != Error::noPlayableStream) co_return ResolveOutcome::of(title.error());
    last = title.error();
  }
  co_return ResolveOutcome::noStream(-1, last);
}

std::optional<AltStreamVersion> StreamResolver::companionFrom(const std::vector<StreamCandidate>& ranked,
                                                              const StremioResolver::Resolution& resolution) const {
  for (const auto& c : ranked) {
    if (ReleaseParser::parse(c.filename).resolution != "1080p") continue;
    AltStreamVersion alt;
    alt.name = companionFileName(resolution.title, resolution.year, resolution.id, c.filename);
    alt.resolveURL = c.url;
    const double bytes = sizeBytes(c);
    alt.size = bytes > 0 ? static_cast<int64_t>(bytes) : kCompanionFallbackBytes;
    alt.sizeVerified = false;
    alt.resolvedAt = services_.http.clock().now();
    return alt;
  }
  return std::nullopt;
}

QCoro::Task<std::optional<AltStreamVersion>> StreamResolver::companion(std::string id, QUrl addon, StreamRanker ranker,
                                                                       CancelToken token) {
  StremioResolver resolver(services_, addon, false);
  auto resolution = co_await resolver.resolve("detail/movie/" + id, token);
  if (!resolution) co_return std::nullopt;
  const auto ranked = ranker.rank(resolution->pickable(), resolution->runtimeMinutes, false);
  co_return companionFrom(ranked, *resolution);
}

QCoro::Task<bool> StreamResolver::readiness(QUrl addon, CancelToken token) {
  const Date now = services_.http.clock().now();
  if (readiness_ && now - readiness_->first < kReadinessMemoSeconds) co_return readiness_->second;

  bool alive = false;
  const std::string key = services_.registry.key();
  bool accountOk = true;
  if (!key.empty()) {
    RDClient rd(services_.http, key, services_.rdBase);
    const auto user = co_await rd.user(token);
    accountOk = user && user->type == "premium" && user->premium > 0;
  }
  if (accountOk) {
    // Rows remembered from earlier answers would hide a dead add-on.
    StremioResolver resolver(services_, addon, false);
    resolver.setLiveOnly(true);
    for (const auto& film : wellKnownFilms()) {
      if (token.isCancelled()) co_return false;
      auto resolution = co_await resolver.resolve("detail/movie/" + film, token);
      if (resolution && !resolution->streams.empty()) {
        alive = true;
        break;
      }
    }
  }
  // A cancelled check proved nothing: it is not remembered.
  if (token.isCancelled()) co_return false;
  readiness_ = std::make_pair(services_.http.clock().now(), alive);
  co_return alive;
}

QCoro::Task<ResolveBatch> StreamResolver::resolveBatch(std::vector<std::string> ids, QUrl addon, StreamRanker ranker,
                                                       bool allowTS, ResolvePace* pace,
                                                       std::function<bool()> shouldStop,
                                                       std::function<void(const LibraryTitle&)> onResolved,
                                                       CancelToken token) {
  ResolveBatch batch;
  const auto stopping = [&] { return token.isCancelled() || (shouldStop && shouldStop()); };
  for (size_t i = 0; i < ids.size() && !stopping(); ++i) {
    if (i > 0 && pace) {
      co_await services_.http.clock().sleep(pace->pause(), token);
      if (stopping()) break;
    }
    const std::string& id = ids[i];
    auto outcome = co_await resolveMovie(id, addon, ranker, allowTS, false, token);
    // A stop ends the batch with what it has: a title that came in is kept,
    // an outcome the stop cut short is not counted.
    if (token.isCancelled() && outcome.kind != Outcome::resolved) break;
    if (pace) pace->note(outcome.kind);
    switch (outcome.kind) {
      case Outcome::resolved:
        batch.resolved.push_back(std::move(*outcome.title));
        if (onResolved) onResolved(batch.resolved.back());
        break;
      case Outcome::noStream:
        batch.noStream.push_back({id, outcome.streamsSeen});
        break;
      case Outcome::transient:
        batch.transient.push_back(id);
        break;
      case Outcome::unreleased:
        batch.unreleased.push_back({id, outcome.released, outcome.year});
        break;
    }
  }
  co_return batch;
}

}  // namespace vt
