#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <random>

#include "SourceReader.h"
#include "fakes/FakeFileHost.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "support/TestKit.h"

using namespace vtnfs;

namespace {

constexpr int64_t kChunk = SourceReader::kChunk;

std::string readAll(SourceReader& reader, const vt::EngineEntry& entry) {
  std::string whole;
  for (uint64_t at = 0;; at += 1 << 20) {
    const auto outcome = vt::test::runTask(reader.read(entry, entry.size, at, 1 << 20, whole));
    EXPECT_TRUE(outcome.ok);
    if (!outcome.ok || outcome.eof) break;
  }
  return whole;
}

QStringList chunkFiles(const QString& folder) { return QDir(folder).entryList({"*.chunk"}, QDir::Files); }

}  // namespace

TEST(SourceReader, KeepsChunksOnDiskWithinItsBudgetAcrossRestartsAndRefetchesADamagedOne) {
  vt::test::TestHome home;
  vt::ManualClock clock;
  vt::HttpClient http(clock);
  vt::test::FakeHttpServer host;
  std::mt19937 rng(3);
  QByteArray film(static_cast<int>(5 * kChunk + 4321), '\0');
  for (auto& c : film) c = static_cast<char>(rng());
  vt::test::serveBytes(host, "/film", film);
  vt::EngineEntry entry;
  entry.name = "Film/Film.mkv";
  entry.size = film.size();
  entry.url = host.url("/film").toString().toStdString();
  const QString cache = QString::fromStdString(home.file("probe-cache"));
  const auto settled = [](SourceReader& reader, int64_t bytes) {
    return vt::test::spinUntil([&] { return !reader.diskWritesPending() && reader.diskBytes() == bytes; });
  };

  {
    // Six chunks pass through a cache of three: the newest three stay.
    SourceReader reader(http, cache.toStdString(), {});
    reader.setBudgetBytes(3 * kChunk);
    EXPECT_TRUE(readAll(reader, entry) == film.toStdString());
    ASSERT_TRUE(settled(reader, 2 * kChunk + 4321));
    EXPECT_EQ(chunkFiles(cache).size(), 3);
  }
  host.clearRequests();

  // A new run counts what the last one left and reads the end from disk.
  SourceReader again(http, cache.toStdString(), {});
  again.setBudgetBytes(3 * kChunk);
  EXPECT_EQ(again.diskBytes(), 2 * kChunk + 4321);
  std::string tail;
  const auto end = vt::test::runTask(again.read(entry, entry.size, 5 * kChunk, 1 << 20, tail));
  EXPECT_TRUE(end.ok && end.eof);
  EXPECT_TRUE(tail == film.mid(static_cast<int>(5 * kChunk)).toStdString());
  EXPECT_TRUE(host.requestsTo("/film").empty());

  // A damaged chunk file is dropped and fetched again, not served.
  const QStringList files = chunkFiles(cache);
  ASSERT_FALSE(files.isEmpty());
  for (const QString& name : files) {
    QFile f(cache + "/" + name);
    ASSERT_TRUE(f.open(QIODevice::ReadWrite));
    f.resize(100);
  }
  std::string middle;
  EXPECT_TRUE(vt::test::runTask(again.read(entry, entry.size, 3 * kChunk + 5, 1000, middle)).ok);
  EXPECT_TRUE(middle == film.mid(static_cast<int>(3 * kChunk + 5), 1000).toStdString());
  EXPECT_FALSE(host.requestsTo("/film").empty());
  EXPECT_TRUE(vt::test::spinUntil([&] {
    QFile f(cache + "/" + chunkFiles(cache).value(0));
    return again.diskBytes() <= 3 * kChunk && f.size() != 100;
  }));
}
