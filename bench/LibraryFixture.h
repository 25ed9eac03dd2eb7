#pragma once

// A generated library of 100,000 titles, films and episodes mixed, with a few
// duplicates, shared by the benchmarks.
#include <QCoreApplication>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "core/LibraryStore.h"
#include "platform/JsonWriter.h"
#include "platform/SerialFileWriter.h"

namespace vt::bench {

constexpr int kTitles = 100'000;

inline LibraryTitle makeTitle(int i) {
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

inline Generated& generated() {
  static Generated g;
  return g;
}

// A measured row and its reference, timed alternately in the same run so
// that both see the same machine. Reports the row's median, the reference's
// median and their ratio; the row's own time goes to the benchmark as manual
// time.
class Paired {
 public:
  template <class F>
  static double msOf(F&& f) {
    const auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  }
  void ours(benchmark::State& state, double ms) {
    ours_.push_back(ms);
    state.SetIterationTime(ms / 1e3);
  }
  void reference(double ms) { reference_.push_back(ms); }
  void report(benchmark::State& state) const {
    const double ours = median(ours_), reference = median(reference_);
    state.counters["median_ms"] = ours;
    state.counters["ref_ms"] = reference;
    state.counters["ratio"] = reference > 0 ? ours / reference : 0;
  }
  static double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
  }

 private:
  std::vector<double> ours_, reference_;
};

// What a plain hand-written encoder does with a JSON string: quotes, and
// escapes for quotes, backslashes and control characters. (The generated
// titles are ASCII, so no UTF-8 repair is needed to give the same bytes.)
inline void plainString(std::string& out, std::string_view s) {
  static const char* hex = "0123456789abcdef";
  out += '"';
  size_t plain = 0;  // start of the run not yet copied
  for (size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c != '"' && c != '\\' && c >= 0x20) continue;
    out.append(s.data() + plain, i - plain);
    plain = i + 1;
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        out += "\\u00";
        out += hex[c >> 4];
        out += hex[c & 15];
    }
  }
  out.append(s.data() + plain, s.size() - plain);
  out += '"';
}

template <class N>
void plainNumber(std::string& out, N n) {
  char buf[32];
  auto [p, ec] = std::to_chars(buf, buf + sizeof buf, n);
  out.append(buf, static_cast<size_t>(p - buf));
}

}  // namespace vt::bench

// main() of a benchmark over the generated library: an application object for
// the event loop, and the library generated before any timing starts.
#define VT_LIBRARY_BENCHMARK_MAIN()      \
  int main(int argc, char** argv) {      \
    QCoreApplication app(argc, argv);    \
    benchmark::Initialize(&argc, argv);  \
    vt::bench::generated();              \
    benchmark::RunSpecifiedBenchmarks(); \
    benchmark::Shutdown();               \
    return 0;                            \
  }
