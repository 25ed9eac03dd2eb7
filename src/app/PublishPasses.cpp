#include "app/PublishPasses.h"

#include <algorithm>
#include <utility>

#include "catalog/CatalogStore.h"
#include "core/AppConfig.h"
#include "core/LibraryFolders.h"
#include "core/LibraryStore.h"
#include "engine/EngineStatusClient.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/ProcessTable.h"
#include "plex/PMSClient.h"
#include "sources/StreamProviders.h"
#include "sources/ranking/PickHistory.h"
#include "sources/ranking/RankingSettings.h"

namespace vt {

namespace {

const std::set<std::string>& revealedOf(const CatalogStore& catalog, const std::string& id) {
  static const std::set<std::string> none;
  const auto& all = catalog.stagedRevealedIds();
  const auto it = all.find(id);
  return it == all.end() ? none : it->second;
}

// Names of entries the engine reports with a complete probe cache; a failed
// reply gives none.
std::set<std::string> readyNames(const std::optional<EngineStatusPayload>& status) {
  std::set<std::string> ready;
  if (!status) return ready;
  for (const auto& e : status->entries)
    if (e.probe_ready.value_or(false)) ready.insert(e.name);
  return ready;
}

bool allIn(const std::vector<std::string>& names, const std::set<std::string>& set) {
  return std::all_of(names.begin(), names.end(), [&](const std::string& n) { return set.count(n) > 0; });
}

std::optional<QUrl> urlFrom(const std::function<std::optional<QUrl>()>& fn) { return fn ? fn() : std::nullopt; }

}  // namespace

// ---- WaveFlipper ----

WaveFlipper::WaveFlipper(CatalogCollection collection, std::shared_ptr<ResolveBatchState> batch,
                         std::shared_ptr<StagedWaveController> controller, PublishPasses& sup)
    : collection(std::move(collection)),
      catalogStore(*sup.env_.catalog),
      batch(std::move(batch)),
      controller(std::move(controller)),
      sup(sup) {
  firstWave = revealedOf(catalogStore, this->collection.id).empty();
}

const CatalogCollection& WaveFlipper::current() const {
  const auto* c = catalogStore.collection(collection.id);
  return c ? *c : collection;
}

std::vector<WaveFlipper::Unrevealed> WaveFlipper::unrevealed() const {
  const LibraryStore& store = *sup.env_.store;
  const auto& revealed = revealedOf(catalogStore, collection.id);
  std::vector<Unrevealed> out;
  for (const auto& entry : current().itemImdbIds) {
    const auto episodes = store.titlesBySeries(entry);
    if (!episodes.empty()) {
      if (revealed.count(entry)) continue;
      for (const LibraryTitle* ep : episodes) {
        if (ep->url.empty()) continue;
        std::optional<std::string> key;
        if (ep->seriesImdbId && ep->season && ep->episode)
          key = *ep->seriesImdbId + ":" + std::to_string(*ep->season) + ":" + std::to_string(*ep->episode);
        else
          key = episodeKeyOf(ep->name);
        if (!key || revealed.count(*key)) continue;
        out.push_back({*key, {}, {ep->name}});
      }
    } else if (const LibraryTitle* t = store.titleByImdb(entry); t && !t->url.empty() && !revealed.count(entry)) {
      out.push_back({entry, {t->name}, {}});
    }
  }
  return out;
}

void WaveFlipper::reveal(const std::set<std::string>& ids) {
  if (ids.empty()) return;
  catalogStore.noteRevealed(ids, collection.id);
  if (firstWave) {
    catalogStore.setDelivery(collection.id, kDeliveryPlayable);
    firstWave = false;
  }
  sup.log("[supervisor] \"" + current().name + "\": wave of " + std::to_string(ids.size()) + " file(s) → Plex");
  sup.call(sup.env_.applyConfig);
}

QCoro::Task<> WaveFlipper::run(CancelToken token) {
  bool again = co_await flipperTick(token);
  while (again) {
    co_await sup.env_.clock->sleep(kTick, token);
    // A cancelled sleep ends early; the tick sees it and stops.
    again = co_await flipperTick(token);
  }
}

QCoro::Task<bool> WaveFlipper::flipperTick(CancelToken token) {
  const std::string& id = collection.id;
  auto stopped = [&] {
    return token.isCancelled() || batch->cancelled.count(id) > 0 || !catalogStore.stagingIds().count(id);
  };
  if (stopped()) co_return false;
  auto& env = sup.env_;
  Clock& clock = *env.clock;

  if (controller->resolveDone && !resolveDoneAt) resolveDoneAt = clock.now();
  // A deadline never runs out while someone watches.
  if (env.playbackActive && env.playbackActive() && resolveDoneAt) resolveDoneAt = clock.now();

  const auto pending = unrevealed();
  if (pending.empty()) co_return !controller->resolveDone;

  const auto movieURL = urlFrom(env.movieControlURL);
  const auto tvURL = urlFrom(env.tvControlURL);
  if (clock.now() - lastKick >= kWarmInterval) {
    std::set<std::string> movieSet, tvSet;
    for (const auto& u : pending) {
      movieSet.insert(u.movieNames.begin(), u.movieNames.end());
      tvSet.insert(u.tvNames.begin(), u.tvNames.end());
    }
    if (!movieSet.empty()) {
      std::vector<std::string> names(movieSet.begin(), movieSet.end());
      co_await env.engineStatus->warmPending(movieURL, std::move(names), token);
      if (stopped()) co_return false;
    }
    if (!tvSet.empty()) {
      std::vector<std::string> names(tvSet.begin(), tvSet.end());
      co_await env.engineStatus->warmPending(tvURL, std::move(names), token);
      if (stopped()) co_return false;
    }
    lastKick = clock.now();
  }

  const auto movieStatus = co_await env.engineStatus->status(movieURL, token);
  if (stopped()) co_return false;
  const auto tvStatus = co_await env.engineStatus->status(tvURL, token);
  if (stopped()) co_return false;
  const auto movieReady = readyNames(movieStatus);
  const auto tvReady = readyNames(tvStatus);

  std::set<std::string> readyIds;
  for (const auto& u : pending)
    if (allIn(u.movieNames, movieReady) && allIn(u.tvNames, tvReady)) readyIds.insert(u.id);

  if (resolveDoneAt && clock.now() - *resolveDoneAt > kWarmDeadline) {
    sup.log("[supervisor] warm deadline — publishing " + std::to_string(pending.size()) +
            " file(s) with incomplete probe cache");
    std::set<std::string> all;
    for (const auto& u : pending) all.insert(u.id);
    reveal(all);
    co_return false;
  }

  const size_t waveSize = firstWave ? kFirstWave : kLaterWave;
  const bool full = readyIds.size() >= waveSize;
  const bool rest = controller->resolveDone && !readyIds.empty() && readyIds.size() == pending.size();
  if (full || rest) reveal(readyIds);
  co_return true;
}

// ---- ResolveBatchRun ----

ResolveBatchRun::ResolveBatchRun(std::vector<CatalogCollection> collections, QUrl addon,
                                 std::set<std::string> protectedFromPrune, bool markPublished,
                                 std::shared_ptr<ResolveBatchState> batch, PublishPasses& sup)
    : collections(std::move(collections)),
      addon(std::move(addon)),
      catalogStore(*sup.env_.catalog),
      protectedFromPrune(std::move(protectedFromPrune)),
      markPublished(markPublished),
      batch(std::move(batch)),
      sup_(sup),
      alive_(sup.alive_) {}

std::string ResolveBatchRun::summary() const {
  if (totalFailed >= 1)
    return "[resolve] " + std::to_string(resolvedCount) + " streams · " + std::to_string(totalFailed) + " replaced";
  if (resolvedCount >= 1) {
    const size_t n = resolvedByCollection.size();
    return "[resolve] " + std::to_string(n) + " collection" + (n == 1 ? "" : "s") + " · " +
           std::to_string(resolvedCount) + " streams";
  }
  return {};
}

QCoro::Task<> ResolveBatchRun::run(CancelToken token) {
  const auto& env = sup_.env_;
  // One ranker for the whole pass, with the groups the user picked before.
  const PickHistory* history = PickHistory::shared();
  ChosenGroups groups =
      history ? history->chosenGroups() : PickHistory::readMap(env.config->store(), PickHistory::kGroupsKey);
  const StreamRanker ranker = rankerFor(env.config->quality(), std::move(groups));

  for (const auto& c : collections) {
    if (token.isCancelled()) break;
    if (batch->cancelled.count(c.id)) continue;
    co_await stageAndRun(c, ranker, token);
    if (!*alive_) co_return;
  }

  std::vector<std::string> unapplied;
  for (const auto& c : collections)
    if (!batch->cancelled.count(c.id) && !stagedPipelineCompleted.count(c.id)) unapplied.push_back(c.id);
  if (!unapplied.empty()) {
    for (const auto& id : unapplied) sup_.setApplying(id, true);
    sup_.call(env.kickPlexSync);
  }
  if (const auto line = summary(); !line.empty()) sup_.log(line);
  if (env.scheduleFollowUp) env.scheduleFollowUp(collections, resolvedByCollection, batch->cancelled);
}

QCoro::Task<> ResolveBatchRun::stageAndRun(CatalogCollection collection, StreamRanker ranker, CancelToken token) {
  const auto& env = sup_.env_;
  const std::string id = collection.id;
  sup_.setResolving(id, true);

  const bool staged = catalogStore.stagingIds().count(id) > 0;
  std::shared_ptr<StagedWaveController> controller;
  Job flipperJob;
  if (staged) {
    controller = std::make_shared<StagedWaveController>();
    auto flipper = std::make_shared<WaveFlipper>(collection, batch, controller, sup_);
    flipperJob = Job::start([flipper](CancelToken t) { return flipper->run(t); }, token);
  }

  CollectionResolveHooks hooks;
  auto batchState = batch;
  auto alive = alive_;
  PublishPasses* sup = &sup_;
  auto offline = env.networkOffline;
  hooks.shouldStopHere = [batchState, id, offline] {
    return batchState->cancelled.count(id) > 0 || (offline && offline());
  };
  hooks.log = [batchState, id, alive, sup](const std::string& line) {
    if (*alive && !batchState->cancelled.count(id)) sup->log(line);
  };
  hooks.onResolved = [batchState, id, alive, sup](const std::vector<LibraryTitle>& titles) {
    if (*alive && !batchState->cancelled.count(id)) sup->addResolvedTitles(titles);
  };
  ResolvePace pace(kResolveDelay);
  auto task =
      env.runCollection(collection, addon, ranker, env.config->allowTS(), protectedFromPrune, hooks, &pace, token);
  CollectionResolveResult result = co_await std::move(task);
  if (!*alive_) co_return;

  sup_.setResolving(id, false);
  sup_.call(env.flushNow);
  if (staged) {
    controller->resolveDone = true;
    co_await flipperJob.finished();
    if (!*alive_) co_return;
  }
  if (batch->cancelled.count(id) || token.isCancelled()) co_return;

  const int count = static_cast<int>(result.titles.size());
  resolvedCount += count;
  resolvedByCollection[id] += count;
  totalFailed += result.totalFailed;
  protectedFailed.insert(result.protectedFailed.begin(), result.protectedFailed.end());
  if (markPublished) catalogStore.setLastPublished(env.clock->now(), {id});
  catalogStore.unpauseIfDone(id, *env.store);
  if (staged) {
    co_await sup_.finishPublishing(collection, batch, token);
    if (!*alive_) co_return;
    stagedPipelineCompleted.insert(id);
  }
}

// ---- PublishPasses ----

PublishPasses::PublishPasses(PublishPassesEnvironment environment) : env_(std::move(environment)) {
  if (!env_.log) env_.log = [](const std::string& line) { logLine(line); };
}

PublishPasses::~PublishPasses() {
  *alive_ = false;
  jobs_.cancelAll();
}

void PublishPasses::log(const std::string& line) const { env_.log(line); }

void PublishPasses::setResolving(const std::string& id, bool on) {
  const bool changed = on ? resolvingIds_.insert(id).second : resolvingIds_.erase(id) > 0;
  if (changed) emit resolvingIdsChanged();
}

void PublishPasses::setApplying(const std::string& id, bool on) {
  const bool changed = on ? applyingIds_.insert(id).second : applyingIds_.erase(id) > 0;
  if (changed) emit applyingIdsChanged();
}

void PublishPasses::resolveAndPublish(std::vector<CatalogCollection> collections,
                                      std::set<std::string> protectedFromPrune, bool markPublished,
                                      PassCompletion completion) {
  const auto addon = addonURL(*env_.config);
  if (!addon || collections.empty()) return;

  // A collection is worked by one pass at a time: the new one takes it over.
  for (const auto& c : collections) {
    const auto it = resolveTasks_.find(c.id);
    if (it == resolveTasks_.end()) continue;
    const ResolveTask old = it->second;
    resolveTasks_.erase(it);
    old.state->cancelled.insert(c.id);
    const bool shared = std::any_of(resolveTasks_.begin(), resolveTasks_.end(),
                                    [&](const auto& entry) { return entry.second.task.token() == old.task.token(); });
    if (!shared) old.task.cancel();
  }

  auto state = std::make_shared<ResolveBatchState>();
  auto run = std::make_shared<ResolveBatchRun>(collections, *addon, std::move(protectedFromPrune), markPublished, state,
                                               *this);
  auto alive = alive_;
  Job job =
      jobs_.start([this, run, state, alive, completion = std::move(completion)](CancelToken token) -> QCoro::Task<> {
        co_await run->run(token);
        if (!*alive) co_return;
        cleanUp(run->collections, state, run->protectedFailed, completion);
      });
  if (!job.isRunning()) return;  // already over: its clean-up has run
  for (const auto& c : collections) resolveTasks_[c.id] = ResolveTask{job, state};
}

void PublishPasses::cleanUp(const std::vector<CatalogCollection>& collections,
                            const std::shared_ptr<ResolveBatchState>& state,
                            const std::set<std::string>& protectedFailed, const PassCompletion& completion) {
  for (const auto& c : collections) {
    const auto it = resolveTasks_.find(c.id);
    if (it == resolveTasks_.end() || it->second.state != state) continue;
    resolveTasks_.erase(it);
    setApplying(c.id, false);
  }
  if (completion) completion(protectedFailed);
}

QCoro::Task<> PublishPasses::cancelResolve(std::string id) {
  const auto it = resolveTasks_.find(id);
  if (it == resolveTasks_.end()) co_return;
  const ResolveTask entry = it->second;
  resolveTasks_.erase(it);
  entry.state->cancelled.insert(id);
  setApplying(id, false);

  const bool shared = std::any_of(resolveTasks_.begin(), resolveTasks_.end(),
                                  [&](const auto& other) { return other.second.task.token() == entry.task.token(); });
  if (!shared) {
    entry.task.cancel();
    co_await entry.task.finished();
    co_return;
  }
  // The pass goes on with its other collections; this one stops at its
  // resolve's next look at the cancelled set.
  auto alive = alive_;
  const CancelToken scope = jobs_.token();
  Clock& clock = *env_.clock;
  while (resolvingIds_.count(id)) {
    const bool slept = co_await clock.sleep(kCancelPoll, scope);
    if (!slept || !*alive) co_return;
  }
}

void PublishPasses::addResolvedTitles(const std::vector<LibraryTitle>& titles) {
  const auto wanted = env_.catalog->wantedIds();
  int kept = 0;
  for (const auto& t : titles) {
    const auto id = imdbIdOf(t.name);
    if (!id || !wanted.count(*id)) continue;
    env_.store->upsert(t);
    ++kept;
  }
  if (kept > 0 && env_.requestFlush) env_.requestFlush(kept);
}

QCoro::Task<> PublishPasses::finishPublishing(CatalogCollection collection, std::shared_ptr<ResolveBatchState> batch,
                                              CancelToken token) {
  const std::string id = collection.id;
  if (batch->cancelled.count(id)) co_return;
  const auto* found = env_.catalog->collection(id);
  const CatalogCollection current = found ? *found : collection;

  std::vector<std::string> names;
  for (const auto& member : current.itemImdbIds) {
    if (const auto* t = env_.store->titleByImdb(member)) names.push_back(t->name);
    for (const auto* ep : env_.store->titlesBySeries(member)) names.push_back(ep->name);
  }
  const size_t target = std::max<size_t>(1, names.size());

  env_.catalog->finishStaging(id);
  if (!env_.catalog->delivery(id)) env_.catalog->setDelivery(id, kDeliveryPlayable);
  log("[supervisor] \"" + current.name + "\" fully published — finishing Plex indexing");
  call(env_.applyConfig);
  setApplying(id, true);
  call(env_.kickPlexSync);

  auto alive = alive_;
  co_await waitForIndexing(std::move(names), target, id, batch, token);
  // Even when given up meanwhile: a pass that took the list over is no
  // staged one and would never mark it ready.
  if (!*alive) co_return;
  env_.catalog->setDelivery(id, kDeliveryMetadataReady);
  setApplying(id, false);
}

QCoro::Task<> PublishPasses::waitForIndexing(std::vector<std::string> names, size_t target, std::string id,
                                             std::shared_ptr<ResolveBatchState> batch, CancelToken token) {
  if (!env_.plex || names.empty()) co_return;
  const auto made = env_.plex->make();
  if (!made) co_return;
  const PMSClient client = made->cancelledBy(token);
  auto alive = alive_;
  Clock& clock = *env_.clock;
  // Films are indexed in the films' section, episodes in the shows' one.
  const std::string movieLocation = env_.dataDirectory + "/" + kMovieFolderName;
  const std::string tvLocation = env_.dataDirectory + "/" + kTvFolderName;
  const bool anyEpisode =
      std::any_of(names.begin(), names.end(), [](const std::string& n) { return n.find('/') != std::string::npos; });
  std::vector<std::string> files;
  for (const auto& n : names) files.push_back(lastPathComponent(n));

  auto givenUp = [&] { return !*alive || token.isCancelled() || batch->cancelled.count(id) > 0; };
  const Date deadline = clock.now() + kIndexingDeadline;
  while (clock.now() < deadline && !givenUp()) {
    const Date polledAt = clock.now();
    auto movies = co_await client.fileIndex(movieLocation);
    if (givenUp()) co_return;
    bool read = movies.has_value();
    std::set<std::string> indexed;
    if (movies)
      for (const auto& [file, item] : *movies) indexed.insert(file);
    if (anyEpisode) {
      auto shows = co_await client.fileIndex(tvLocation);
      if (givenUp()) co_return;
      read = read || shows.has_value();
      if (shows)
        for (const auto& [file, item] : *shows) indexed.insert(file);
    }
    if (read) {
      const size_t count = std::count_if(files.begin(), files.end(), [&](const auto& f) { return indexed.count(f); });
      if (count >= target) co_return;
    }
    while (true) {
      const auto event = env_.lastTimelineEvent ? env_.lastTimelineEvent() : std::nullopt;
      // A scan that Plex reports is looked at soon.
      const double wait = event && *event > polledAt ? kIndexPollAfterTimeline : kIndexPoll;
      if (clock.now() - polledAt >= wait) break;
      const bool slept = co_await clock.sleep(kIndexSleep, token);
      if (!slept || givenUp()) co_return;
    }
  }
}

}  // namespace vt
