#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <random>

#include "SourceReader.h"
#include "fakes/FakeFileHost.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "support/TestKit.h"

using namespace vtnfs;

namespace {

constexpr int64_t kChunk = SourceReader::kChunk;

std::string readAll(SourceReader& reader, const vt::EngineEntry& entry) {
  std::string whole;
  for (uint64_t at = 0;; at += 1 << 20) {
    const auto outcome = vt::test::runTask(reader.read(entry, entry.size, at, 1 << 20, whole));
    EXPECT_TRUE(outcome) << vt::errorMessage(outcome);
    if (!outcome || outcome->eof) break;
  }
  return whole;
}

QStringList chunkFiles(const QString& folder) { return QDir(folder).entryList({"*.chunk"}, QDir::Files); }

vt::EngineEntry entryAt(vt::test::FakeHttpServer& host, const std::string& name, int64_t size) {
  vt::EngineEntry entry;
  entry.name = name;
  entry.size = size;
  entry.url = host.url("/film").toString().toStdString();
  return entry;
}

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
  const auto entry = entryAt(host, "Film/Film.mkv", film.size());
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
  EXPECT_TRUE(end && end->eof);
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
  EXPECT_TRUE(vt::test::runTask(again.read(entry, entry.size, 3 * kChunk + 5, 1000, middle)));
  EXPECT_TRUE(middle == film.mid(static_cast<int>(3 * kChunk + 5), 1000).toStdString());
  EXPECT_FALSE(host.requestsTo("/film").empty());
  EXPECT_TRUE(vt::test::spinUntil([&] {
    QFile f(cache + "/" + chunkFiles(cache).value(0));
    return again.diskBytes() <= 3 * kChunk && f.size() != 100;
  }));
}

TEST(SourceReader, GoingAwayClosesItsOpenRequestsAndCallsNothingAfterwards) {
  vt::test::TestHome home;
  vt::ManualClock clock;
  vt::HttpClient http(clock);
  vt::test::FakeHttpServer host;
  const QByteArray film(static_cast<int>(3 * kChunk + 100), 'f');
  // The first chunk comes at once; the host never answers for any other.
  host.on("GET", "/film", [&](const vt::test::FakeHttpServer::Request& req, vt::test::FakeHttpServer::Reply& reply) {
    if (req.header("Range").value_or("").startsWith("bytes=0-")) {
      reply.send(
          206, film.left(static_cast<int>(kChunk)),
          {{"Content-Range", "bytes 0-" + QByteArray::number(kChunk - 1) + "/" + QByteArray::number(film.size())}},
          "application/octet-stream");
      return;
    }
    reply.hold();
  });
  const auto entry = entryAt(host, "Film.mkv", film.size());
  int hookCalls = 0;
  SourceReader::Hooks hooks{[&](const std::string&) { ++hookCalls; },
                            [&](const std::string&, int64_t) { ++hookCalls; }};
  auto reader = std::make_unique<SourceReader>(http, home.file("probe-cache"), hooks);

  // The first read starts fetching the next two chunks ahead.
  std::string head;
  ASSERT_TRUE(vt::test::runTask(reader->read(entry, entry.size, 0, 1 << 20, head)));
  ASSERT_TRUE(vt::test::spinUntil([&] { return host.requests().size() == 3; }));

  // Readers wait on a fetch under way (chunk 1) and on one of their own (chunk 3).
  std::string middle, tail, late;
  std::optional<ReadResult> waitedAhead, waitedOwn, gaveUp;
  auto waitOn = [&](uint64_t offset, std::string& out, std::optional<ReadResult>& result) {
    return vt::Job::start([&, offset](vt::CancelToken token) -> QCoro::Task<> {
      ReadResult r = co_await reader->read(entry, entry.size, offset, 1000, out, nullptr, token);
      result = std::move(r);
    });
  };
  const vt::Job ahead = waitOn(kChunk + 10, middle, waitedAhead);
  const vt::Job own = waitOn(3 * kChunk, tail, waitedOwn);
  ASSERT_TRUE(vt::test::spinUntil([&] { return host.requests().size() == 4; }));

  // A reader that gives up stops waiting; the fetch goes on for the others.
  const vt::Job impatient = waitOn(2 * kChunk, late, gaveUp);
  impatient.cancel();
  ASSERT_TRUE(gaveUp);
  EXPECT_EQ(gaveUp->error().kind, ReadError::Kind::cancelled);
  vt::test::settle(20);
  EXPECT_EQ(host.abandonedRequests(), 0);
  EXPECT_FALSE(waitedAhead || waitedOwn);

  // The reader goes: its three open requests close, the waiting readers learn it, and no hook is called after.
  const int callsBefore = hookCalls;
  reader.reset();
  EXPECT_TRUE(vt::test::spinUntil([&] { return host.abandonedRequests() == 3; })) << host.abandonedRequests();
  ASSERT_TRUE(vt::test::spinUntil([&] { return waitedAhead && waitedOwn; }));
  EXPECT_EQ(waitedAhead->error().kind, ReadError::Kind::cancelled);
  EXPECT_EQ(waitedOwn->error().kind, ReadError::Kind::cancelled);
  EXPECT_TRUE(middle.empty() && tail.empty());
  vt::test::settle(50);
  EXPECT_EQ(hookCalls, callsBefore);
}
