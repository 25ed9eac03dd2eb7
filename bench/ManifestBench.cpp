// Builds both engine manifests from a 100,000-title library, encodes them and
// computes both fingerprints of each: what one flush costs when the library
// changed. Target on the 2-core machine: under 300 ms in all, with one full
// encoding per flush.
#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include "LibraryFixture.h"
#include "engine/Manifest.h"
#include "platform/Clock.h"

using namespace vt;
using namespace vt::bench;

namespace {

void BM_BuildEncodeFingerprint(benchmark::State& state) {
  ManualClock clock;
  QTemporaryDir work;
  const std::string path = work.path().toStdString() + "/library.json";
  writeFileAtomically(path, *readFile(generated().path));
  LibraryStore store(path, clock);
  store.waitForSaves();
  size_t bytes = 0;
  size_t entries = 0;
  for (auto _ : state) {
    auto built = buildEntries(
        store, [](const LibraryTitle& t) { return t.size % 7 == 0; }, true);
    const auto moviePrints = fingerprints(built.movie);
    const auto tvPrints = fingerprints(built.tv);
    const auto movieText = encodeEngineConfig(built.movie);
    const auto tvText = encodeEngineConfig(built.tv);
    benchmark::DoNotOptimize(moviePrints);
    benchmark::DoNotOptimize(tvPrints);
    bytes = movieText.size() + tvText.size();
    entries = built.movie.size() + built.tv.size();
  }
  state.counters["entries"] = static_cast<double>(entries);
  state.counters["MB"] = bytes / 1e6;
}
BENCHMARK(BM_BuildEncodeFingerprint)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

VT_LIBRARY_BENCHMARK_MAIN()
