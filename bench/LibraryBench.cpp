// Loads, deduplicates, indexes, upserts into and encodes a library of 100,000
// titles (films and episodes mixed, with some duplicates), each row beside a
// plain reference timed alternately in the same run, and reports the peak
// memory. Targets, as ratios to the reference of the same run:
// - load, deduplicate and index, with the save the dropped duplicates trigger
//   (until the file is on disk): at most 1.25x a simdjson on-demand parse of
//   the same file into plain structs plus a hash index by name;
// - encoding for a save: at most 1.1x a plain hand-written encoder of the same
//   titles into the same bytes;
// - upsert of a new title and of a replacement for a stored one: under 2 ms
//   each on the main thread (median and worst printed).
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QTemporaryDir>
#include <simdjson.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>

#include <unordered_map>

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

// What the process holds now: after the last store is gone, the memory kept
// for the next load and save (parser, write buffer) and what malloc keeps.
double rssMiB() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1048576.0);
}

// The load reference: an on-demand parse of the file into plain structs (the
// strings copied) and a hash index by name; nothing else. The generated
// titles have no companions or mirrors, so those keys are not read.
struct PlainLibrary {
  std::vector<LibraryTitle> titles;
  std::unordered_map<std::string, size_t> byName;
};

PlainLibrary referenceLoad(const std::string& path) {
  simdjson::ondemand::parser parser;
  const auto json = simdjson::padded_string::load(path).value();
  PlainLibrary lib;
  auto doc = parser.iterate(json);
  auto array = doc.get_array().value();
  lib.titles.reserve(array.count_elements().value());
  auto text = [](simdjson::ondemand::value v) { return std::string(std::string_view(v.get_string().value())); };
  for (auto item : array) {
    LibraryTitle t;
    for (auto field : item.get_object()) {
      const std::string_view key = field.unescaped_key().value();
      auto v = field.value().value();
      if (v.is_null()) continue;
      if (key == "name")
        t.name = text(v);
      else if (key == "url")
        t.url = text(v);
      else if (key == "size")
        t.size = v.get_int64().value();
      else if (key == "sizeVerified")
        t.sizeVerified = v.get_bool().value();
      else if (key == "rdLink")
        t.rdLink = text(v);
      else if (key == "resolveURL")
        t.resolveURL = text(v);
      else if (key == "source")
        t.source = text(v);
      else if (key == "rdFilename")
        t.rdFilename = text(v);
      else if (key == "subtitlePath")
        t.subtitlePath = text(v);
      else if (key == "subtitleLang")
        t.subtitleLang = text(v);
      else if (key == "resolvedAt")
        t.resolvedAt = v.get_double().value();
      else if (key == "seriesImdbId")
        t.seriesImdbId = text(v);
      else if (key == "season")
        t.season = static_cast<int>(v.get_int64().value());
      else if (key == "episode")
        t.episode = static_cast<int>(v.get_int64().value());
    }
    lib.titles.push_back(std::move(t));
  }
  lib.byName.reserve(lib.titles.size());
  for (size_t i = 0; i < lib.titles.size(); ++i) lib.byName.emplace(lib.titles[i].name, i);
  return lib;
}

// The encoding reference: a plain encoder into a fresh string, reserved.
std::string referenceEncode(const LibraryStore::RecordList& records) {
  std::string out;
  out.reserve(records.size() * 512);
  auto optText = [&](const char* key, const std::optional<std::string>& v) {
    if (!v) return;
    out += key;
    plainString(out, *v);
  };
  auto optBool = [&](const char* key, const std::optional<bool>& v) {
    if (!v) return;
    out += key;
    out += *v ? "true" : "false";
  };
  auto optNumber = [&](const char* key, const auto& v) {
    if (!v) return;
    out += key;
    plainNumber(out, *v);
  };
  out += '[';
  bool first = true;
  for (const auto& r : records) {
    const auto& t = r->title;
    if (!first) out += ',';
    first = false;
    out += "{\"name\":";
    plainString(out, t.name);
    out += ",\"url\":";
    plainString(out, t.url);
    out += ",\"size\":";
    plainNumber(out, t.size);
    optBool(",\"sizeVerified\":", t.sizeVerified);
    optText(",\"rdLink\":", t.rdLink);
    optText(",\"resolveURL\":", t.resolveURL);
    out += ",\"source\":";
    plainString(out, t.source);
    optText(",\"rdFilename\":", t.rdFilename);
    optText(",\"subtitlePath\":", t.subtitlePath);
    optText(",\"subtitleLang\":", t.subtitleLang);
    optText(",\"subtitleLang2\":", t.subtitleLang2);
    if (t.subtitleState) {
      out += ",\"subtitleState\":";
      plainString(out, subtitleStateText(*t.subtitleState));
    }
    optNumber(",\"resolvedAt\":", t.resolvedAt);
    optText(",\"seriesImdbId\":", t.seriesImdbId);
    optNumber(",\"season\":", t.season);
    optNumber(",\"episode\":", t.episode);
    if (t.altVersion) {
      const auto& a = *t.altVersion;
      out += ",\"altVersion\":{\"name\":";
      plainString(out, a.name);
      out += ",\"resolveURL\":";
      plainString(out, a.resolveURL);
      out += ",\"size\":";
      plainNumber(out, a.size);
      optBool(",\"sizeVerified\":", a.sizeVerified);
      optNumber(",\"resolvedAt\":", a.resolvedAt);
      out += '}';
    }
    if (t.mirrorURLs) {
      out += ",\"mirrorURLs\":[";
      for (size_t i = 0; i < t.mirrorURLs->size(); ++i) {
        if (i) out += ',';
        plainString(out, (*t.mirrorURLs)[i]);
      }
      out += ']';
    }
    out += '}';
  }
  out += ']';
  return out;
}

// Timed from the constructor until the save that the dropped duplicates
// trigger is on disk (encoded, written and synced).
void BM_LoadDeduplicateIndex(benchmark::State& state) {
  ManualClock clock;
  const auto& g = generated();
  const auto original = *readFile(g.path);
  QTemporaryDir work;
  const std::string path = work.path().toStdString() + "/library.json";
  size_t titles = 0;
  Paired paired;
  int round = 0;
  for (auto _ : state) {
    // The store rewrites the file; each round starts from the duplicates.
    writeFileAtomically(path, original);
    auto reference = [&] {
      PlainLibrary plain;
      paired.reference(Paired::msOf([&] { plain = referenceLoad(g.path); }));
      benchmark::DoNotOptimize(plain);
    };
    if (round % 2) reference();
    std::unique_ptr<LibraryStore> store;
    const double ms = Paired::msOf([&] {
      store = std::make_unique<LibraryStore>(path, clock);
      store->waitForSaves();
    });
    paired.ours(state, ms);
    if (round == 0) state.counters["first_ms"] = ms;
    titles = store->size();
    store.reset();
    if (round++ % 2 == 0) reference();
  }
  paired.report(state);
  state.counters["titles"] = static_cast<double>(titles);
  state.counters["peak_MiB"] = peakRssMiB();
  state.counters["after_MiB"] = rssMiB();
}
BENCHMARK(BM_LoadDeduplicateIndex)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(6);

// Upserts of new titles (arg 0) or replacements of stored ones with a new
// link (arg 1), main thread only: the saves they hand over run on the write
// thread meanwhile, and later ones supersede earlier ones as in a burst.
void BM_Upsert(benchmark::State& state) {
  const bool replace = state.range(0) == 1;
  ManualClock clock;
  QTemporaryDir work;
  const std::string path = work.path().toStdString() + "/library.json";
  writeFileAtomically(path, *readFile(generated().path));
  LibraryStore store(path, clock);
  store.waitForSaves();
  std::vector<double> times;
  int i = 0;
  for (auto _ : state) {
    LibraryTitle t;
    if (replace) {
      t = store.at((static_cast<size_t>(i) * 7919) % store.size());
      t.url += "?again";
      t.resolvedAt = *t.resolvedAt + 1;
    } else {
      t = makeTitle(kTitles + i);
    }
    ++i;
    const double ms = Paired::msOf([&] { store.upsert(std::move(t)); });
    state.SetIterationTime(ms / 1e3);
    times.push_back(ms);
  }
  store.waitForSaves();
  state.counters["median_ms"] = Paired::median(times);
  std::sort(times.begin(), times.end());
  state.counters["p99_ms"] = times[times.size() * 99 / 100];
  state.counters["max_ms"] = *std::max_element(times.begin(), times.end());
  state.counters["titles"] = static_cast<double>(store.size());
}
BENCHMARK(BM_Upsert)
    ->ArgName("replace")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(200);

// The encoding a save does on the write thread, into the buffer it keeps,
// beside the plain encoder's fresh string.
void BM_EncodeForSave(benchmark::State& state) {
  ManualClock clock;
  QTemporaryDir work;
  const std::string path = work.path().toStdString() + "/library.json";
  writeFileAtomically(path, *readFile(generated().path));
  LibraryStore store(path, clock);
  store.waitForSaves();
  const auto records = store.records();
  std::string buffer;
  LibraryStore::encode(records, buffer);
  if (buffer != referenceEncode(records)) {
    state.SkipWithError("the plain encoder's bytes differ");
    return;
  }
  Paired paired;
  int round = 0;
  for (auto _ : state) {
    auto reference = [&] {
      std::string text;
      paired.reference(Paired::msOf([&] { text = referenceEncode(records); }));
      benchmark::DoNotOptimize(text);
    };
    if (round % 2) reference();
    paired.ours(state, Paired::msOf([&] { LibraryStore::encode(records, buffer); }));
    benchmark::DoNotOptimize(buffer);
    if (round++ % 2 == 0) reference();
  }
  paired.report(state);
  state.counters["MB"] = buffer.size() / 1e6;
  state.counters["peak_MiB"] = peakRssMiB();
}
BENCHMARK(BM_EncodeForSave)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(6);

}  // namespace

VT_LIBRARY_BENCHMARK_MAIN()
