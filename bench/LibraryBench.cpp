// Loads, deduplicates, indexes, upserts into and encodes a library of 100,000
// titles (films and episodes mixed, with some duplicates), and reports the
// peak memory. Targets on the 2-core machine: load with indexes under 400 ms,
// one upsert under 20 ms on the main thread, encoding for a save under 250 ms.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QTemporaryDir>
#include <sys/resource.h>

#include "core/LibraryStore.h"
#include "platform/Clock.h"
#include "platform/JsonWriter.h"
#include "platform/SerialFileWriter.h"
#include "LibraryFixture.h"

using namespace vt;
using namespace vt::bench;

namespace {

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

VT_LIBRARY_BENCHMARK_MAIN()
