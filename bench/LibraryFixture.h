#pragma once

// A generated library of 100,000 titles, films and episodes mixed, with a few
// duplicates, shared by the benchmarks.
#include <QCoreApplication>
#include <QTemporaryDir>
#include <benchmark/benchmark.h>
#include <string>

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
