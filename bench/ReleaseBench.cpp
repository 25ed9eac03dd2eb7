// Parses 100,000 distinct realistic release names with the memo bypassed and
// reports names per second and the mean per name. With --names-out=FILE it
// also writes the names, one JSON string a line, for the comparison with the
// JavaScript parser in bench/release-bench.sh.
#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>

#include "ReleaseNames.h"
#include "platform/JsonWriter.h"
#include "sources/release/ReleaseParser.h"

namespace {

const std::vector<std::string>& names() {
  static const auto n = vt::bench::releaseNames();
  return n;
}

void BM_ParseUncached(benchmark::State& state) {
  size_t parsed = 0;
  for (auto _ : state) {
    for (const auto& n : names()) benchmark::DoNotOptimize(vt::ReleaseParser::parseUncached(n));
    parsed += names().size();
  }
  state.SetItemsProcessed(static_cast<int64_t>(parsed));
  state.counters["us_per_name"] =
      benchmark::Counter(static_cast<double>(parsed) / 1e6, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ParseUncached)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--names-out=", 12) == 0) {
      std::ofstream out(argv[i] + 12);
      for (const auto& n : names()) {
        vt::JsonWriter w;
        w.value(n);
        out << w.str() << '\n';
      }
      for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
      --argc;
      --i;
    }
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
