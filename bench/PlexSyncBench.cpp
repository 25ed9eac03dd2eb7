// One Plex sync pass over a library of 20,000 films published in 40 lists of
// 500, against the local Plex server with all of them indexed: the first
// pass, which labels every member and makes every smart collection, and a
// steady pass, which finds everything in place. Each prints its time and its
// number of requests beside the fewest the batching allows (labels go 50 to
// a request). The local server's own work is in the time.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include "core/AppConfig.h"
#include "core/CatalogPort.h"
#include "core/LibraryStore.h"
#include "fakes/FakePlexServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Settings.h"
#include "plex/PlexSyncCoordinator.h"
#include "support/ListCatalog.h"

namespace {

using namespace vt;

constexpr int kFilms = 20000;
constexpr int kLists = 40;
constexpr int kLabelBatch = 50;

std::string film(int i) {
  return "Film " + std::to_string(i) + " (2000) {imdb-tt" + std::to_string(1000000 + i) + "}.mkv";
}

struct World {
  QTemporaryDir dir;
  std::string home = dir.path().toStdString();
  std::string movies = home + "/Library";
  ManualClock clock;
  test::FakePlexServer plex{"bench-token", clock};
  std::unique_ptr<SettingsStore> settings = SettingsStore::openForTestHome(home);
  AppConfig config{*settings};
  std::unique_ptr<LibraryStore> library;
  HttpClient http{clock, HttpClient::Session::ephemeral};
  PMSClientFactory clients{config, http};
  test::ListCatalog catalog;
  std::unique_ptr<PlexSyncCoordinator> sync;

  World() {
    config.setPmsURLString(plex.baseUrl().toString().toStdString());
    config.setToken(plex.token);
    plex.addSection("1", "Vantory", "movie", {movies});
    std::vector<LibraryTitle> titles(kFilms);
    std::vector<const LibraryTitle*> refs;
    for (int i = 0; i < kFilms; ++i) {
      titles[i].name = film(i);
      titles[i].url = "http://cdn/" + std::to_string(i);
      titles[i].size = 1000;
      refs.push_back(&titles[i]);
      plex.addItem({.ratingKey = std::to_string(100000 + i), .sectionKey = "1", .files = {movies + "/" + film(i)}});
    }
    QFile file(QString::fromStdString(home + "/library.json"));
    file.open(QIODevice::WriteOnly);
    file.write(QByteArray::fromStdString(encodeLibraryTitles(refs)));
    file.close();
    library = std::make_unique<LibraryStore>(home + "/library.json", clock);
    for (int l = 0; l < kLists; ++l) {
      std::vector<std::string> members;
      for (int i = l; i < kFilms; i += kLists) members.push_back("tt" + std::to_string(1000000 + i));
      const std::string n = std::to_string(l);
      catalog.lists.push_back({.id = "L" + n, .name = "List " + n, .members = members});
    }
    PlexSyncOperations ops;
    ops.isRunning = [] { return true; };
    ops.applyEngineConfig = []() -> QCoro::Task<EngineApplyResult> { co_return EngineApplyResult{}; };
    ops.log = [](const std::string&) {};
    sync = std::make_unique<PlexSyncCoordinator>(
        PlexSyncCoordinator::Environment{&config, library.get(), &clients, &clock, &http, home}, std::move(ops));
    sync->attachCatalog(&catalog);
    // The analysis check runs once in ten minutes; this pass takes it, and
    // the clock stands still from here, so no timed pass repeats it.
    runPass();
  }

  // Plex as before the first pass: no labels, no collections.
  void clearPlex() {
    for (auto& [key, item] : plex.items) item.labels.clear();
    plex.collections.clear();
    catalog.owned.clear();
    for (auto& l : catalog.lists) l.plexRatingKey.reset();
  }
  size_t runPass() {
    const size_t before = plex.requests().size();
    sync->requestReconcile();
    while (sync->isWorking()) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    return plex.requests().size() - before;
  }
  // The fewest requests one pass can make: its fixed reads, then every
  // label in batches of 50 and every collection made once (first pass), or
  // each label's membership read once (steady pass).
  double fewest(bool first) const {
    // The section, the index (which looks the section up itself), the show
    // section, the labels and the collections.
    const double fixedReads = 6;
    double perList = 0;
    for (const auto& l : catalog.lists) {
      const double members = static_cast<double>(l.members->size());
      perList += first ? std::ceil(members / kLabelBatch) + 1 : 1;
    }
    return fixedReads + perList + (first ? 2 : 0);  // labels read again, machine identifier
  }
};

World& world() {
  static World w;
  return w;
}

void BM_FirstPass(benchmark::State& state) {
  auto& w = world();
  size_t requests = 0;
  for (auto _ : state) {
    state.PauseTiming();
    w.clearPlex();
    state.ResumeTiming();
    requests = w.runPass();
  }
  state.counters["requests"] = static_cast<double>(requests);
  state.counters["fewest"] = w.fewest(true);
  state.counters["over_fewest_pct"] = 100.0 * (static_cast<double>(requests) / w.fewest(true) - 1.0);
}
BENCHMARK(BM_FirstPass)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_SteadyPass(benchmark::State& state) {
  auto& w = world();
  w.clearPlex();
  w.runPass();
  size_t requests = 0;
  for (auto _ : state) requests = w.runPass();
  state.counters["requests"] = static_cast<double>(requests);
  state.counters["fewest"] = w.fewest(false);
  state.counters["over_fewest_pct"] = 100.0 * (static_cast<double>(requests) / w.fewest(false) - 1.0);
}
BENCHMARK(BM_SteadyPass)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  benchmark::Initialize(&argc, argv);
  world();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
