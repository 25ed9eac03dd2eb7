// Loads, deduplicates, indexes, upserts into and encodes a library of 100,000
// titles (films and episodes mixed, with some duplicates), and reports the
// peak memory. Targets on the 2-core machine: load with indexes under 400 ms,
// one upsert under 20 ms on the main thread, encoding for a save under 250 ms.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QTemporaryDir>
#include <sys/resource.h>

#include "app/core/LibraryStore.h"
#include "platform/Clock.h"
#include "platform/JsonWriter.h"
#include "platform/SerialFileWriter.h"

using namespace vt;

namespace {

constexpr int kTitles = 100'000;

LibraryTitle makeTitle(int i) {
  LibraryTitle t;
  const std::string id = "tt" + std::to_string(1000000 + i / 2);
  if (i % 3 == 0) {
    t.name = episodeFileName("Series Number " + std::to_string(i / 60), "2015", "tt" + std::to_string(5000000 + i / 60),
                             1 + (i / 20) % 3, 1 + i % 20);
    t.season = 1 + (i / 20) % 3;
    t.episode = 1 + i % 20;
  } else {
    // Every fiftieth film shares its id with the one before it: duplicates.
    const std::string fid = "tt" + std::to_string(2000000 + (i % 50 == 0 ? i - 1 : i));
    t.name = filmFileName("A Film Called Number " + std::to_string(i), "1999", fid, "Film.1999.1080p.WEB-DL.mkv");
  }
  t.url = "https://download.example.net/d/" + std::to_string(i) + "ABCDEFGHIJKLMNOPQRSTUV/Film.1999.1080p.WEB-DL.mkv";
  t.size = 4'000'000'000LL + i;
  t.sizeVerified = true;
  t.rdLink = "https://real-debrid.example/d/" + std::to_string(i);
  t.resolveURL = "https://addon.example/resolve/realdebrid/KEY/" + id + "/" + std::to_string(i);
  t.source = "stremio";
  t.rdFilename = "A.Film.Called.Number." + std::to_string(i) + ".1999.1080p.WEB-DL.DDP5.1.H.264-GROUP.mkv";
  t.resolvedAt = 786297600.0 + i;
  return t;
}

struct Generated {
  QTemporaryDir dir;
  std::string path;
  Generated() {
    path = dir.path().toStdString() + "/library.json";
    JsonWriter w(kTitles * 600);
    w.beginArray();
    for (int i = 0; i < kTitles; ++i) writeLibraryTitle(w, makeTitle(i));
    w.endArray();
    writeFileAtomically(path, w.str());
  }
};

Generated& generated() {
  static Generated g;
  return g;
}

double peakRssMiB() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss / 1024.0;
}

void BM_LoadDeduplicateIndex(benchmark::State& state) {
  ManualClock clock;
  const auto& g = generated();
  QTemporaryDir work;
  const std::string path = work.path().toStdString() + "/library.json";
  size_t titles = 0;
  for (auto _ : state) {
    state.PauseTiming();
    writeFileAtomically(path, *readFile(g.path));
    state.ResumeTiming();
    auto store = std::make_unique<LibraryStore>(path, clock);
    titles = store->size();
    state.PauseTiming();
    // Teardown is not part of a load.
    store->waitForSaves();
    store.reset();
    state.ResumeTiming();
  }
  state.counters["titles"] = static_cast<double>(titles);
  state.counters["peak_MiB"] = peakRssMiB();
}
BENCHMARK(BM_LoadDeduplicateIndex)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_UpsertInto100k(benchmark::State& state) {
  ManualClock clock;
  QTemporaryDir work;
  const std::string path = work.path().toStdString() + "/library.json";
  writeFileAtomically(path, *readFile(generated().path));
  LibraryStore store(path, clock);
  int i = 0;
  for (auto _ : state) {
    auto t = makeTitle(kTitles + (i++));
    store.upsert(std::move(t));
  }
  store.waitForSaves();
  state.counters["titles"] = static_cast<double>(store.size());
}
BENCHMARK(BM_UpsertInto100k)->Unit(benchmark::kMillisecond)->Iterations(20);

void BM_EncodeForSave(benchmark::State& state) {
  ManualClock clock;
  QTemporaryDir work;
  const std::string path = work.path().toStdString() + "/library.json";
  writeFileAtomically(path, *readFile(generated().path));
  LibraryStore store(path, clock);
  std::vector<const LibraryTitle*> titles;
  for (const auto& r : store.records()) titles.push_back(&r->title);
  size_t bytes = 0;
  for (auto _ : state) {
    auto text = encodeLibraryTitles(titles);
    bytes = text.size();
    benchmark::DoNotOptimize(text);
  }
  state.counters["MB"] = bytes / 1e6;
  state.counters["peak_MiB"] = peakRssMiB();
}
BENCHMARK(BM_EncodeForSave)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  benchmark::Initialize(&argc, argv);
  generated();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
