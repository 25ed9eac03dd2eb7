#include "sources/resolve/EpisodeOnDemandResolver.h"

#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "platform/Log.h"
#include "platform/Text.h"
#include "sources/StreamProviders.h"
#include "sources/ranking/PickHistory.h"
#include "sources/ranking/RankingSettings.h"
#include "sources/resolve/SeriesSkeletonCache.h"
#include "sources/resolve/StreamResolver.h"

namespace vt {

namespace {

using Kind = EpisodeOnDemandResolver::Outcome::Kind;

EpisodeOnDemandResolver::Outcome outcomeOf(Kind kind, std::optional<LibraryTitle> title = std::nullopt) {
  EpisodeOnDemandResolver::Outcome o;
  o.kind = kind;
  o.title = std::move(title);
  return o;
}

std::string sizeText(int64_t bytes) {
  if (bytes <= 0) return "unknown size";
  return formatFixed(static_cast<double>(bytes) / 1e9, 2) + " GB";
}

}  // namespace

ResolveOutcome EpisodeOnDemandResolver::Outcome::asResolveOutcome() const {
  if (kind == Kind::resolved && title) return ResolveOutcome::resolved(*title);
  if (verdict) return *verdict;
  return ResolveOutcome::transient();
}

EpisodeOnDemandResolver::EpisodeOnDemandResolver(Parts parts) : parts_(std::move(parts)) {}

void EpisodeOnDemandResolver::say(const std::string& line) const {
  if (parts_.log)
    parts_.log(line);
  else
    logLine(line);
}

std::optional<EpisodeOnDemandResolver::Key> EpisodeOnDemandResolver::parseKey(const std::string& key) {
  const auto pieces = splitAny(key, ":");
  if (pieces.size() != 3 || pieces[0].empty()) return std::nullopt;
  const auto season = parseAsciiInt(pieces[1]);
  const auto episode = parseAsciiInt(pieces[2]);
  if (!season || !episode) return std::nullopt;
  return Key{pieces[0], *season, *episode};
}

std::optional<EpisodeMeta> EpisodeOnDemandResolver::nextEpisode(const SeriesSkeleton& series, int season, int episode) {
  const auto after = [&](const EpisodeMeta& e) { return e.season != season ? e.season > season : e.episode > episode; };
  const auto earlier = [](const EpisodeMeta& a, const EpisodeMeta& b) {
    return a.season != b.season ? a.season < b.season : a.episode < b.episode;
  };
  std::optional<EpisodeMeta> best;
  for (const auto& e : series.episodes)
    if (after(e) && (!best || earlier(e, *best))) best = e;
  return best;
}

QCoro::Task<EpisodeOnDemandResolver::Outcome> EpisodeOnDemandResolver::resolve(std::string key, Reason reason,
                                                                               CancelToken token) {
  const auto parsed = parseKey(key);
  if (!parsed) co_return outcomeOf(Kind::giveUp);
  const bool pressed = reason == Reason::watchPress;
  if (const LibraryTitle* held = parts_.store->titleByEpisodeKey(key); held && !held->url.empty() && !pressed) {
    LibraryTitle copy = *held;
    co_return outcomeOf(Kind::resolved, std::move(copy));
  }
  const auto catalog = parts_.catalogStore ? parts_.catalogStore() : std::nullopt;
  if (!pressed && catalog && catalog->isCooling && catalog->isCooling(key)) co_return outcomeOf(Kind::giveUp);
  if (inFlight_.count(key)) co_return outcomeOf(Kind::giveUp);
  if (!addonURL(*parts_.config)) co_return outcomeOf(Kind::giveUp);

  inFlight_.insert(key);
  auto outcome = co_await work(key, *parsed, reason, token);
  inFlight_.erase(key);
  co_return outcome;
}

QCoro::Task<EpisodeOnDemandResolver::Outcome> EpisodeOnDemandResolver::work(std::string key, Key parsed, Reason reason,
                                                                            CancelToken token) {
  say("[intent] resolving " + key + " on " +
      (reason == Reason::nextEpisodePrewarm ? "next-episode prewarm" : "play intent"));

  StreamResolver& resolver = *parts_.resolver;
  const ResolverServices& services = resolver.services();
  const AppConfig& config = *parts_.config;
  const QUrl addon = *addonURL(config);
  const PickHistory* history = PickHistory::shared();
  ChosenGroups groups =
      history ? history->chosenGroups() : PickHistory::readMap(config.store(), PickHistory::kGroupsKey);
  StreamRanker ranker = rankerFor(config.quality(), std::move(groups));

  ResolveOutcome outcome;
  auto skeleton = co_await services.skeletonCache().skeleton(parsed.seriesId, services.cinemeta, services.http, token);
  if (!skeleton) {
    outcome = ResolveOutcome::of(skeleton.error());
  } else {
    std::optional<LibraryTitle> existing;
    if (const LibraryTitle* held = parts_.store->titleByEpisodeKey(key)) existing = *held;
    outcome = co_await resolver.resolveEpisode(std::move(*skeleton), parsed.season, parsed.episode, addon,
                                               std::move(ranker), config.allowTS(), std::move(existing), token);
  }
  if (token.isCancelled() && outcome.kind != ResolveOutcome::Kind::resolved) co_return outcomeOf(Kind::transient);
  const auto withVerdict = [&outcome](Outcome o) {
    o.verdict = outcome;
    return o;
  };

  const auto catalog = parts_.catalogStore ? parts_.catalogStore() : std::nullopt;
  switch (outcome.kind) {
    case ResolveOutcome::Kind::resolved: {
      // The show may have left every list while the episode resolved.
      if (catalog && catalog->isWanted && !catalog->isWanted(parsed.seriesId)) co_return outcomeOf(Kind::giveUp);
      LibraryTitle title = std::move(*outcome.title);
      parts_.store->upsert(title);
      if (catalog && catalog->clearCooling) catalog->clearCooling(key);
      if (parts_.applyLibrary) parts_.applyLibrary();
      say("[intent] resolved " + title.name + " → " + sizeText(title.size));
      co_return outcomeOf(Kind::resolved, std::move(title));
    }
    case ResolveOutcome::Kind::noStream:
      if (catalog && catalog->markFailed) catalog->markFailed(key);
      say("[intent] no playable source for " + key + " — cooling down");
      co_return withVerdict(outcomeOf(Kind::noStream));
    case ResolveOutcome::Kind::unreleased:
    case ResolveOutcome::Kind::transient:
      say("[intent] stream catalog busy for " + key + " — will retry on next play");
      co_return withVerdict(outcomeOf(Kind::transient));
  }
  co_return outcomeOf(Kind::transient);
}

QCoro::Task<EpisodeOnDemandResolver::Outcome> EpisodeOnDemandResolver::resolveNext(std::string currentKey,
                                                                                   CancelToken token) {
  const auto parsed = parseKey(currentKey);
  if (!parsed) co_return outcomeOf(Kind::giveUp);
  const ResolverServices& services = parts_.resolver->services();
  auto skeleton = co_await services.skeletonCache().skeleton(parsed->seriesId, services.cinemeta, services.http, token);
  // No skeleton, no next episode to warm: nothing was asked, nothing cools.
  if (!skeleton) co_return outcomeOf(Kind::giveUp);
  const auto next = nextEpisode(*skeleton, parsed->season, parsed->episode);
  if (!next) co_return outcomeOf(Kind::giveUp);
  auto outcome =
      co_await resolve(episodeKey(parsed->seriesId, next->season, next->episode), Reason::nextEpisodePrewarm, token);
  co_return outcome;
}

}  // namespace vt
