#include "app/StandardWiring.h"

#include "app/Publishing.h"

#include "catalog/CatalogStore.h"
#include "catalog/CatalogSync.h"
#include "catalog/StremioCatalogClient.h"
#include "core/WatchlistPort.h"
#include "engine/EngineSupervisor.h"
#include "platform/Endpoints.h"
#include "platform/FolderAccess.h"
#include "platform/Http.h"
#include "platform/Log.h"
#include "plex/PlexLibrarySetup.h"
#include "plex/PlexSyncCoordinator.h"
#include "sources/StreamProviders.h"
#include "sources/providers/ProviderRegistry.h"
#include "sources/ranking/RankingSettings.h"
#include "sources/rd/RDClient.h"
#include "sources/resolve/SeriesSkeletonCache.h"
#include "catalog/CollectionResolve.h"

namespace vt {

void wireStandardParts(AppWiring& wiring, StandardParts parts) {
  const AppPaths paths = wiring.paths;
  wiring.clock = parts.clock;
  wiring.http = parts.http;
  wiring.registrySync = [](const AppConfig& config) { syncStreamProviders(config); };

  wiring.makeEngine = [paths, parts](AppConfig& config, LibraryStore& library, const PMSClientFactory& plex) {
    EngineSupervisorEnvironment env;
    env.clock = parts.clock;
    env.http = parts.http;
    env.mounter = parts.mounter;
    env.dataDirectory = paths.dataDirectory;
    env.bundledEngine = parts.bundledEngine;
    env.appVersion = parts.appVersion;
    env.mediaServerAccessProblem = [](const std::string& folder) -> std::optional<std::string> {
      const auto account = mediaServerAccount();
      if (!account) return std::nullopt;
      const auto problem = readProblem(folder, *account);
      if (!problem) return std::nullopt;
      return problem->describe(*account);
    };
    // Once an engine is up, Plex gets its section for the folder.
    env.prepareLibrary = libraryPreparer(plex, library, [](const std::string& line) { logLine(line); });
    env.refreshItem = [&plex](std::string name, std::string location, CancelToken) -> QCoro::Task<bool> {
      auto client = plex.make();
      if (!client) co_return false;
      auto refreshed = co_await client->refreshItem(std::move(name), std::move(location));
      (void)refreshed;  // a hint: the next scan catches up anyway
      co_return true;
    };
    // Plex follows what the engines publish: scans, stale items, labels and
    // the lists' smart collections.
    env.makePlexSync = [paths, parts, &config, &library, &plex](PlexSyncOperations ops) {
      PlexSyncCoordinator::Environment sync{.config = &config,
                                            .store = &library,
                                            .plex = &plex,
                                            .clock = parts.clock,
                                            .http = parts.http,
                                            .dataDirectory = paths.dataDirectory};
      return std::make_unique<PlexSyncCoordinator>(std::move(sync), std::move(ops));
    };
    return std::make_unique<EngineSupervisor>(config, library, std::move(env));
  };

  // The catalog of followed lists, loaded from the data folder at creation.
  // Its lists follow their sources from two minutes after start; the Plex
  // Watchlist is a stand-in that fails until its client exists, so the
  // Watchlist collection keeps its members.
  wiring.makeCatalog = [parts](const std::string& directory, AppConfig& config) {
    static UnavailableWatchlist watchlist;
    auto store = std::make_unique<CatalogStore>(directory, *parts.clock, &config);
    StremioCatalogClient client(*parts.http, QUrl(QString::fromStdString(endpoints().cinemeta)));
    store->startFollowing(std::make_unique<CatalogSync>(*store, client, watchlist, *parts.clock, &config));
    return store;
  };

  // Published lists become titles, then files in Plex, without anyone asking.
  wiring.makePublishing = [paths, parts](VantoryApp& app) -> std::unique_ptr<PublishPort> {
    auto* engine = dynamic_cast<EngineSupervisor*>(&app.engine());
    auto* catalog = dynamic_cast<CatalogStore*>(&app.catalog());
    if (!engine || !catalog) return nullptr;
    return std::make_unique<Publishing>(Publishing::Parts{.clock = parts.clock,
                                                          .http = parts.http,
                                                          .config = &app.config(),
                                                          .library = &app.library(),
                                                          .catalog = catalog,
                                                          .engine = engine,
                                                          .plex = &app.plexClients(),
                                                          .releaseWords = &app.releaseWords(),
                                                          .dataDirectory = paths.dataDirectory});
  };

  // The watch button: the film's resolve with the user's picks, the engine's
  // prewarm, and Plex's index through the application's one door to Plex.
  wiring.makeWatchNow = [paths, parts](VantoryApp& app) -> std::unique_ptr<WatchNowService> {
    auto* engine = dynamic_cast<EngineSupervisor*>(&app.engine());
    auto* catalog = dynamic_cast<CatalogStore*>(&app.catalog());
    auto* publishing = dynamic_cast<Publishing*>(app.publishing());
    if (!engine || !catalog || !publishing) return nullptr;
    AppConfig* config = &app.config();
    PickHistory* history = &app.pickHistory();
    HttpClient* http = parts.http;
    auto status = std::make_shared<EngineStatusClient>(*http);
    WatchNowService::Parts p{.clock = parts.clock,
                             .config = config,
                             .store = &app.library(),
                             .catalog = catalog,
                             .plex = &app.plexClients(),
                             .notifier = &app.notifier(),
                             .gate = &app.connectGate(),
                             .dataDirectory = paths.dataDirectory,
                             .webAppBase = endpoints().plexWebApp};
    p.applyToEngine = [engine] { engine->kickPlexSync(); };
    p.movieControlURL = [engine] { return engine->movie().paths.controlURL; };
    p.tvControlURL = [engine]() -> std::optional<QUrl> {
      auto* tv = engine->tvInstanceIfAny();
      return tv ? tv->paths.controlURL : std::nullopt;
    };
    p.prewarm = [status](QUrl control, std::string name, CancelToken token) -> QCoro::Task<> {
      std::vector<std::string> names{std::move(name)};
      co_await status->prewarm(control, std::move(names), {}, token);
    };
    p.resolveFilm = [config, history, publishing](std::string id, CancelToken token) -> QCoro::Task<ResolveOutcome> {
      const auto addon = addonURL(*config);
      if (!addon) co_return ResolveOutcome::transient();
      const StreamRanker ranker = rankerFor(config->quality(), history->chosenGroups());
      auto outcome = co_await publishing->resolver().resolveMovie(id, *addon, ranker, config->allowTS(), false, token);
      co_return outcome;
    };
    // An episode goes through the on-demand resolver, as a play intent would,
    // so its library entry, cooling and log lines are the intent's own. Its
    // outcome folds "not aired yet" into "busy"; the press reads the
    // resolver's own verdict for its texts.
    p.resolveEpisode = [publishing](WatchNowService::Episode e, CancelToken token) -> QCoro::Task<ResolveOutcome> {
      const std::string key = episodeKey(e.series.imdbId, e.number.season, e.number.episode);
      auto outcome = co_await publishing->episodes().resolve(key, EpisodeOnDemandResolver::Reason::watchPress, token);
      co_return outcome.asResolveOutcome();
    };
    p.account = [config, http](CancelToken token) -> QCoro::Task<Result<RDUserInfo, RDError>> {
      const RDClient client(*http, config->rdKey());
      auto user = co_await client.user(token);
      co_return user;
    };
    p.linkIsDead = [](const LibraryTitle& title) { return hasStaleKey(title, StreamProviderRegistry::shared().key()); };
    p.airedEpisodes = [publishing](std::string seriesId,
                                   CancelToken token) -> QCoro::Task<std::optional<std::vector<EpisodeMeta>>> {
      const ResolverServices& services = publishing->resolver().services();
      auto loaded = co_await services.skeletonCache().skeleton(seriesId, services.cinemeta, services.http, token);
      if (!loaded) co_return std::nullopt;
      std::optional<std::vector<EpisodeMeta>> aired = loaded->airedEpisodes(services.http.clock().now());
      co_return aired;
    };
    return std::make_unique<WatchNowService>(std::move(p));
  };
}

}  // namespace vt
