// Ranks 500 realistic candidate rows of one title, 1,000 times, at the
// balanced level with a pick history: once with the parser's memo warm (the
// same 500 names every time, as a picker re-ranks a title) and once cold (two
// disjoint sets of 500 names in turn, so that every name is parsed afresh).
// The time per iteration is the time per ranking of 500 rows.
#include <benchmark/benchmark.h>

#include <random>

#include "ReleaseNames.h"
#include "sources/ranking/RankingSettings.h"

namespace {

constexpr size_t kRows = 500;

std::vector<vt::StreamCandidate> candidateRows(const std::vector<std::string>& names, size_t from) {
  std::mt19937 rng(static_cast<unsigned>(from) + 1);
  std::vector<vt::StreamCandidate> rows;
  rows.reserve(kRows);
  for (size_t i = 0; i < kRows; ++i) {
    vt::StreamCandidate c;
    c.id = std::to_string(from + i);
    c.filename = names[from + i];
    c.url = "https://addon.example/resolve/" + c.id;
    switch (rng() % 5) {
      case 0:
        c.size = std::to_string(200 + rng() % 900) + " MB";
        break;
      case 1:
        break;
      default:
        c.size = std::to_string(1 + rng() % 60) + "." + std::to_string(rng() % 10) + " GB";
    }
    c.isCached = rng() % 4 != 0;
    if (rng() % 3) c.seeders = static_cast<int64_t>(rng() % 2000);
    rows.push_back(std::move(c));
  }
  return rows;
}

struct Fixture {
  std::vector<std::string> names = vt::bench::releaseNames(2 * kRows);
  std::vector<vt::StreamCandidate> first = candidateRows(names, 0);
  std::vector<vt::StreamCandidate> second = candidateRows(names, kRows);
  vt::StreamRanker ranker =
      vt::rankerFor(vt::QualityLevel::balanced, {{"SPARKS", 3}, {"FLUX", 1}, {"GALAXYRG", 6}, {"YTS.MX", 2}});
};

const Fixture& fixture() {
  static const Fixture f;
  return f;
}

void BM_RankWarm(benchmark::State& state) {
  const auto& f = fixture();
  benchmark::DoNotOptimize(f.ranker.rank(f.first, 118, true));  // fills the memo
  for (auto _ : state) benchmark::DoNotOptimize(f.ranker.rank(f.first, 118, true));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kRows));
}
BENCHMARK(BM_RankWarm)->Unit(benchmark::kMillisecond)->Iterations(1000);

void BM_RankCold(benchmark::State& state) {
  const auto& f = fixture();
  bool flip = false;
  for (auto _ : state) {
    // The memo keeps 500 names, so ranking the other set evicts this one.
    benchmark::DoNotOptimize(f.ranker.rank(flip ? f.second : f.first, 118, true));
    flip = !flip;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kRows));
}
BENCHMARK(BM_RankCold)->Unit(benchmark::kMillisecond)->Iterations(1000);

}  // namespace

BENCHMARK_MAIN();
