// Builds both engine manifests from a 100,000-title library, encodes them and
// computes both fingerprints of each: what one flush costs when the library
// changed. The reference, timed alternately in the same run, is a plain
// hand-written encoder of the same two manifests straight from the titles
// into fresh strings (no entries, no fingerprints). Target: at most 1.1x the
// reference, with the entries built into lists and the manifests encoded
// into buffers that are kept between flushes, as the publisher keeps them.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <cmath>

#include "LibraryFixture.h"
#include "engine/Manifest.h"
#include "platform/Clock.h"
#include "platform/Date.h"

using namespace vt;
using namespace vt::bench;

namespace {

bool hiddenForBench(const LibraryTitle& t) { return t.size % 7 == 0; }

struct PlainManifests {
  std::string movie, tv;
};

// The same bytes as encodeEngineConfig(buildEntries(...)) with companions on.
PlainManifests referenceManifests(const LibraryStore& store) {
  PlainManifests m;
  m.movie.reserve(store.size() * 384);
  m.tv.reserve(store.size() * 384);
  m.movie = m.tv = "{\"entries\":[";
  bool firstMovie = true, firstTv = true;
  auto mtimeOf = [](const std::optional<Date>& d) -> int64_t {
    if (!d) return 1;
    const double unix = unixSecondsFromDate(*d);
    return std::isfinite(unix) ? static_cast<int64_t>(unix) : 0;
  };
  auto entry = [](std::string& out, bool& first, std::string_view name, std::string_view url, int64_t size,
                  int64_t mtime, std::string_view rdLink, std::string_view resolveURL, std::string_view local,
                  bool hidden, bool verified, bool lazy, const std::optional<std::vector<std::string>>* alts) {
    if (!first) out += ',';
    first = false;
    out += "{\"name\":";
    plainString(out, name);
    out += ",\"url\":";
    plainString(out, url);
    out += ",\"size\":";
    plainNumber(out, size);
    out += ",\"mtime\":";
    plainNumber(out, mtime);
    out += ",\"rd_link\":";
    plainString(out, rdLink);
    out += ",\"resolve_url\":";
    plainString(out, resolveURL);
    out += ",\"local\":";
    plainString(out, local);
    out += hidden ? ",\"hidden\":true" : ",\"hidden\":false";
    out += verified ? ",\"size_verified\":true" : ",\"size_verified\":false";
    out += lazy ? ",\"lazy\":true" : ",\"lazy\":false";
    if (alts && *alts) {
      out += ",\"alt_sources\":[";
      for (size_t i = 0; i < (*alts)->size(); ++i) {
        if (i) out += ',';
        out += "{\"resolve_url\":";
        plainString(out, (**alts)[i]);
        out += '}';
      }
      out += ']';
    }
    out += '}';
  };
  for (const auto& r : store.records()) {
    const auto& t = r->title;
    if (t.url.empty()) continue;
    auto& out = t.season ? m.tv : m.movie;
    auto& first = t.season ? firstTv : firstMovie;
    const bool hidden = hiddenForBench(t);
    const int64_t mtime = mtimeOf(t.resolvedAt);
    entry(out, first, t.name, t.url, t.size, mtime, t.rdLink.value_or(""), t.resolveURL.value_or(""), "", hidden,
          t.sizeVerified == true && t.size != kPlaceholderSize, false, &t.mirrorURLs);
    if (!t.season && t.altVersion && !t.altVersion->resolveURL.empty()) {
      const auto& a = *t.altVersion;
      entry(out, first, a.name, "", a.size, mtimeOf(a.resolvedAt), "", a.resolveURL, "", hidden,
            a.sizeVerified == true && a.size != kPlaceholderSize, true, nullptr);
    }
    if (t.subtitlePath) {
      const auto dot = t.name.find_last_of('.');
      const auto slash = t.name.find_last_of('/');
      const bool hasExt = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
      const std::string name = (hasExt ? t.name.substr(0, dot) : t.name) + "." + t.subtitleLang.value_or("en") + ".srt";
      entry(out, first, name, "", 0, mtime, "", "", *t.subtitlePath, hidden, false, false, nullptr);
    }
  }
  m.movie += "]}";
  m.tv += "]}";
  return m;
}

void BM_BuildEncodeFingerprint(benchmark::State& state) {
  ManualClock clock;
  QTemporaryDir work;
  const std::string path = work.path().toStdString() + "/library.json";
  writeFileAtomically(path, *readFile(generated().path));
  LibraryStore store(path, clock);
  store.waitForSaves();
  // What a publisher keeps from one flush to the next: the built lists and
  // the manifest's bytes.
  ManifestEntries built;
  std::string movieText, tvText;
  auto flush = [&] {
    buildEntries(store, hiddenForBench, true, built);
    const auto moviePrints = fingerprints(built.movie);
    const auto tvPrints = fingerprints(built.tv);
    encodeEngineConfig(built.movie, movieText);
    encodeEngineConfig(built.tv, tvText);
    benchmark::DoNotOptimize(moviePrints);
    benchmark::DoNotOptimize(tvPrints);
    return built.movie.size() + built.tv.size();
  };
  const size_t entries = flush();
  {
    const auto plain = referenceManifests(store);
    if (plain.movie != movieText || plain.tv != tvText) {
      state.SkipWithError("the plain encoder's bytes differ");
      return;
    }
  }
  Paired paired;
  int round = 0;
  for (auto _ : state) {
    auto reference = [&] {
      PlainManifests plain;
      paired.reference(Paired::msOf([&] { plain = referenceManifests(store); }));
      benchmark::DoNotOptimize(plain);
    };
    if (round % 2) reference();
    paired.ours(state, Paired::msOf(flush));
    if (round++ % 2 == 0) reference();
  }
  paired.report(state);
  state.counters["entries"] = static_cast<double>(entries);
  state.counters["MB"] = (movieText.size() + tvText.size()) / 1e6;
}
BENCHMARK(BM_BuildEncodeFingerprint)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(6);

}  // namespace

VT_LIBRARY_BENCHMARK_MAIN()
