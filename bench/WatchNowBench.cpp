// Press-to-ready time of the watch button for a film that Real-Debrid has
// cached and the library lacks, with the services at their usual distance:
// Real-Debrid 150 ms a call, the stream add-ons 800 ms, Cinemeta 200 ms, and
// Plex indexing a file 2 s after it is asked to scan. The whole application
// runs as main() wires it, with the real engine and its mount, in real time.
// Target: under 6 s (peers that poll a watchlist take 10 to 20 s).
//
// Counters, in seconds: `press_to_ready`, and its stages: `resolving` (the
// press until the title is in the library), `to_plex_index` (from there
// until Plex lists the file) and `index_to_ready` (Plex's item until the
// job is ready: the service's next poll, the prewarm and the link).

#include <QCoreApplication>
#include <QElapsedTimer>
#include <iostream>

#include <benchmark/benchmark.h>

#include "app/WatchNowService.h"
#include "engine/AppWorld.h"
#include "engine/FilmSources.h"
#include "platform/Log.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

std::string filmId(int n) { return "tt7" + std::to_string(100000 + n); }

void BM_WatchPressToReady(benchmark::State& state) {
  if (!test::canMountWithFuse()) {
    state.SkipWithError("no FUSE on this machine");
    return;
  }
  ScopedLogSink quiet([](std::string_view) {});
  test::TestHome home;
  test::FilmSources sources;
  if (!sources.becomeEndpoints()) {
    state.SkipWithError("the endpoint table was read before");
    return;
  }
  sources.rd.latencyMs = 150;
  sources.torrentio.latencyMs = 800;
  sources.comet.latencyMs = 800;
  sources.cinemeta.latencyMs = 200;
  constexpr int kFilms = 8;
  for (int n = 0; n < kFilms; ++n)
    sources.film(filmId(n), "Bench Film " + std::to_string(n), "2015", std::string(39, 'b') + std::to_string(n));

  test::FakePlexServer plex("plex-token", systemClock());
  plex.scanDelay = 2;
  test::AppWorld world(home, systemClock(), plex, [&](AppConfig& config) {
    config.setRdKey(sources.rd.key);
    config.setPlexServerName("Home");
    config.setStreamAddonOverride(sources.torrentio.base().toString().toStdString());
  });
  VantoryApp& app = *world.app;
  Job::start([&](CancelToken) { return app.bootstrap(); });
  if (!test::spinUntil([&] { return world.supervisor->state() == EngineState::running; }, 60000) ||
      !mountedFileSystem(world.movies)) {
    state.SkipWithError("the engine did not start or its folder could not be mounted");
    return;
  }
  test::settle(3000);  // the start's own scans and passes are over
  WatchNowService* watch = app.watchNow();

  int n = 0;
  double resolving = 0, toIndex = 0, indexToReady = 0;
  for (auto _ : state) {
    if (n >= kFilms) {
      state.SkipWithError("more iterations than films");
      break;
    }
    const std::string id = filmId(n++);
    QElapsedTimer t;
    t.start();
    std::optional<double> resolvedAt, indexedAt;
    watch->watch(WatchNowService::Film{id, "Bench Film"});
    const bool ended = test::spinUntil(
        [&] {
          const LibraryTitle* title = app.library().titleByImdb(id);
          if (!resolvedAt && title) resolvedAt = t.elapsed() / 1000.0;
          if (!indexedAt && title && plex.itemForFile(world.movies + "/" + title->name))
            indexedAt = t.elapsed() / 1000.0;
          return watch->job(id) && !watch->job(id)->phase.isActive();
        },
        60000);
    const double total = t.elapsed() / 1000.0;
    state.SetIterationTime(total);
    if (!ended || watch->job(id)->phase.kind != WatchNowService::Phase::Kind::ready || !resolvedAt || !indexedAt) {
      state.SkipWithError(
          ("the press did not end ready: " + (watch->job(id) ? message(watch->job(id)->phase) : std::string("no job")))
              .c_str());
      break;
    }
    resolving += *resolvedAt;
    toIndex += *indexedAt - *resolvedAt;
    indexToReady += total - *indexedAt;
  }
  const double runs = std::max(1, n);
  state.counters["resolving"] = resolving / runs;
  state.counters["to_plex_index"] = toIndex / runs;
  state.counters["index_to_ready"] = indexToReady / runs;
}
BENCHMARK(BM_WatchPressToReady)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(5);

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
