#include "app/Publishing.h"

#include <algorithm>

#include "catalog/CatalogStore.h"
#include "catalog/CollectionResolve.h"
#include "catalog/SeriesResolve.h"
#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineSupervisor.h"
#include "platform/Clock.h"
#include "platform/Endpoints.h"
#include "platform/Log.h"
#include "platform/NetworkReach.h"
#include "sources/providers/ProviderRegistry.h"

namespace vt {

Publishing::Publishing(Parts parts)
    : p_(std::move(parts)),
      cache_(p_.dataDirectory + "/" + ResolveCache::kFileName, *p_.clock),
      services_(ResolverServices::standard(*p_.http, cache_, ProviderHealth::shared(), StreamProviderRegistry::shared(),
                                           p_.releaseWords)),
      resolver_(services_),
      episodes_({.config = p_.config,
                 .store = p_.library,
                 .resolver = &resolver_,
                 .catalogStore = [catalog = p_.catalog]() -> std::optional<EpisodeCatalogView> {
                   return episodeCatalogView(*catalog);
                 },
                 .applyLibrary = [engine = p_.engine] { engine->kickPlexSync(); },
                 .log = {}}),
      catalogClient_(*p_.http, QUrl(QString::fromStdString(endpoints().cinemeta))),
      engineStatus_(*p_.http) {
  PublishPassesEnvironment env;
  env.clock = p_.clock;
  env.store = p_.library;
  env.catalog = p_.catalog;
  env.config = p_.config;
  env.runCollection = [this](CatalogCollection collection, QUrl addon, StreamRanker ranker, bool allowTS,
                             std::set<std::string> protectedIds, CollectionResolveHooks hooks, ResolvePace* pace,
                             CancelToken token) -> QCoro::Task<CollectionResolveResult> {
    CollectionResolve::Services services{.resolver = &resolver_,
                                         .store = p_.library,
                                         .catalog = p_.catalog,
                                         .catalogClient = &catalogClient_,
                                         .clock = p_.clock,
                                         .currentKey = [] { return StreamProviderRegistry::shared().key(); }};
    CollectionResolve resolve(std::move(collection), std::move(addon), std::move(ranker), allowTS,
                              std::move(protectedIds), std::move(hooks), pace, std::move(services));
    auto result = co_await resolve.run(token);
    co_return result;
  };
  EngineSupervisor* engine = p_.engine;
  env.applyConfig = [engine] { engine->kickPlexSync(); };
  env.kickPlexSync = [engine] { engine->kickPlexSync(); };
  env.flushNow = [engine] { engine->publisher().flushNow(); };
  env.requestFlush = [engine](int count) { engine->publisher().requestFlush(count); };
  env.movieControlURL = [engine] { return engine->movie().paths.controlURL; };
  env.tvControlURL = [engine]() -> std::optional<QUrl> {
    auto* tv = engine->tvInstanceIfAny();
    return tv ? tv->paths.controlURL : std::nullopt;
  };
  env.networkOffline = [] { return !NetworkReach::shared().online(); };
  env.engineStatus = &engineStatus_;
  env.plex = p_.plex;
  env.dataDirectory = p_.dataDirectory;
  env.scheduleFollowUp = [this](const std::vector<CatalogCollection>& collections,
                                const std::map<std::string, int>& resolved, const std::set<std::string>& cancelled) {
    scheduleFollowUp(collections, resolved, cancelled);
  };
  passes_ = std::make_unique<PublishPasses>(std::move(env));

  p_.catalog->setOnPublishedCatalogSynced([this](const std::string& id) { onPublishedCatalogSynced(id); });
  // The call may already be queued when this object goes.
  NetworkReach::shared().setOnRestored([this, alive = alive_] {
    if (*alive) onNetworkRestored();
  });
}

Publishing::~Publishing() {
  *alive_ = false;
  NetworkReach::shared().setOnRestored({});
  p_.catalog->setOnPublishedCatalogSynced({});
  followUp_.cancelAll();
  jobs_.cancelAll();
  passes_.reset();
}

void Publishing::log(const std::string& line) const { logLine(line); }

// Which lists miss titles ----------------------------------------------------

bool Publishing::hasCoolingIds(const CatalogCollection& c) const {
  return std::any_of(c.itemImdbIds.begin(), c.itemImdbIds.end(),
                     [this](const std::string& id) { return p_.catalog->isCooling(id); });
}

std::vector<std::string> Publishing::missingIds(const CatalogCollection& c) const {
  const auto& catalog = *p_.catalog;
  const auto& library = *p_.library;
  const std::string key = StreamProviderRegistry::shared().key();
  std::vector<std::string> out;
  for (const auto& id : c.itemImdbIds) {
    // The catalog's one rule for titles not out yet or seen only in cinemas.
    if (catalog.isCooling(id) || catalog.isHeldByRelease(id)) continue;
    const auto* meta = catalog.meta(id);
    if (meta && meta->mediaType == "series") {
      // A series only the library collection holds is fetched on demand.
      if (catalog.publishedListsHolding(id).empty()) continue;
      const auto episodes = library.titlesBySeries(id);
      const bool incomplete = std::any_of(episodes.begin(), episodes.end(), [&](const LibraryTitle* t) {
        return t->url.empty() || hasStaleKey(*t, key);
      });
      if (episodes.empty() || incomplete || !catalog.isSeriesResting(id)) out.push_back(id);
    } else {
      const auto* title = library.titleByImdb(id);
      if (!title || hasStaleKey(*title, key)) out.push_back(id);
    }
  }
  return out;
}

bool Publishing::wantsPass(const CatalogCollection& c) const {
  if (c.source.kind == CollectionSource::Kind::stremioCatalog && hasCoolingIds(c)) return true;
  return !missingIds(c).empty();
}

std::vector<CatalogCollection> Publishing::collectionsMissingTitles() const {
  std::vector<CatalogCollection> out;
  for (auto& c : p_.catalog->materialisedCollectionList())
    if (!c.resolvePaused && !p_.catalog->isStaging(c.id) && wantsPass(c)) out.push_back(std::move(c));
  return out;
}

std::vector<CatalogCollection> Publishing::withoutResolving(std::vector<CatalogCollection> collections) const {
  const auto& resolving = passes_->resolvingIds();
  std::erase_if(collections, [&](const CatalogCollection& c) { return resolving.count(c.id) > 0; });
  return collections;
}

// When passes run -------------------------------------------------------------

void Publishing::publishMissing() {
  auto missing = withoutResolving(collectionsMissingTitles());
  if (!missing.empty()) passes_->resolveAndPublish(std::move(missing), {}, false);
  // A list still publishing in waves when the application last quit (or
  // made published since, headless) picks its waves up again.
  auto staged = withoutResolving(stagedCollections());
  if (!staged.empty()) passes_->resolveAndPublish(std::move(staged), {}, true);
}

std::vector<CatalogCollection> Publishing::stagedCollections() const {
  std::vector<CatalogCollection> out;
  for (auto& c : p_.catalog->materialisedCollectionList())
    if (!c.resolvePaused && p_.catalog->isStaging(c.id)) out.push_back(std::move(c));
  return out;
}

void Publishing::scheduleFollowUp(const std::vector<CatalogCollection>& collections,
                                  const std::map<std::string, int>& resolvedByCollection,
                                  const std::set<std::string>& cancelled) {
  std::set<std::string> ids;
  double delay = 0;
  for (const auto& snapshot : collections) {
    if (cancelled.count(snapshot.id)) continue;
    const auto* c = p_.catalog->collection(snapshot.id);
    if (!c || !p_.catalog->isMaterialised(c->id) || c->resolvePaused || !wantsPass(*c)) continue;
    int& attempts = followUpAttempts_[c->id];
    // Progress starts the count afresh.
    if (const auto it = resolvedByCollection.find(c->id); it != resolvedByCollection.end() && it->second > 0)
      attempts = 0;
    if (attempts >= kFollowUpLimit) continue;
    delay = std::max(delay, kFollowUpDelays[attempts]);
    ++attempts;
    ids.insert(c->id);
  }
  if (ids.empty()) return;
  log("[supervisor] " + std::to_string(ids.size()) + " collection(s) still missing titles — retrying in " +
      std::to_string(static_cast<int>(delay)) + "s");
  followUp_.cancelAll();
  followUpScheduledIds_ = ids;
  followUp_.start([this, delay](CancelToken token) -> QCoro::Task<> {
    const bool slept = co_await p_.clock->sleep(delay, token);
    if (!slept || token.isCancelled()) co_return;
    if (p_.engine->movieState() == EngineState::running) {
      std::vector<CatalogCollection> due;
      for (const auto& c : p_.catalog->collections())
        if (followUpScheduledIds_.count(c.id)) due.push_back(c);
      due = withoutResolving(std::move(due));
      if (!due.empty()) passes_->resolveAndPublish(std::move(due), {}, false);
    }
    followUpScheduledIds_.clear();
  });
}

void Publishing::onPublishedCatalogSynced(const std::string& id) {
  const auto* c = p_.catalog->collection(id);
  if (!c || c->resolvePaused || p_.catalog->isStaging(id)) return;
  if (wantsPass(*c)) passes_->resolveAndPublish({*c}, {}, false);
}

void Publishing::onNetworkRestored() {
  p_.engine->measureLink(10.0);
  followUpAttempts_.clear();
  const auto missing = withoutResolving(collectionsMissingTitles());
  if (missing.empty()) return;
  log("[supervisor] network back — retrying " + std::to_string(missing.size()) + " collection(s) with missing titles");
  passes_->resolveAndPublish(missing, {}, false);
}

}  // namespace vt
