#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include "SourceReader.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "support/TestKit.h"

using namespace vtnfs;

constexpr int64_t kChunk = SourceReader::kChunk;

TEST(SourceReader, KeepsChunksOnDiskWithinItsBudgetAcrossRestartsAndRefetchesADamagedOne) {
  vt::test::TestHome home;
  vt::ManualClock clock;
  vt::HttpClient http(clock);
  vt::test::FakeHttpServer host;
  const QByteArray film = vt::test::pattern(static_cast<int>(5 * kChunk + 4321), 3);
  vt::test::serveBytes(host, "/film", film);
  auto entry = vt::test::entry("Film/Film.mkv", host.url("/film").toString().toStdString());
  entry.size = film.size();
  const QString cache = QString::fromStdString(home.file("probe-cache"));
  {
    // Six chunks pass through a cache of three: the newest three stay.
    SourceReader reader(http, cache.toStdString(), {});
    reader.setBudgetBytes(3 * kChunk);
    std::string whole;
    for (uint64_t at = 0; at < static_cast<uint64_t>(film.size()); at += 1 << 20)
      ASSERT_TRUE(vt::test::runTask(reader.read(entry, entry.size, at, 1 << 20, whole)));
    EXPECT_TRUE(whole == film.toStdString());
    ASSERT_TRUE(
        vt::test::spinUntil([&] { return !reader.diskWritesPending() && reader.diskBytes() == 2 * kChunk + 4321; }));
    EXPECT_EQ(QDir(cache).entryList({"*.chunk"}, QDir::Files).size(), 3);
  }
  host.clearRequests();

  // A new run counts what the last one left and reads the end from disk.
  SourceReader again(http, cache.toStdString(), {});
  again.setBudgetBytes(3 * kChunk);
  EXPECT_EQ(again.diskBytes(), 2 * kChunk + 4321);
  std::string tail, middle;
  const auto end = vt::test::runTask(again.read(entry, entry.size, 5 * kChunk, 1 << 20, tail));
  EXPECT_TRUE(end && end->eof);
  EXPECT_TRUE(tail == film.mid(static_cast<int>(5 * kChunk)).toStdString());
  EXPECT_TRUE(host.requestsTo("/film").empty());

  // A damaged chunk file is dropped and fetched again, not served.
  for (const QString& name : QDir(cache).entryList({"*.chunk"}, QDir::Files))
    ASSERT_TRUE(QFile::resize(cache + "/" + name, 100));
  EXPECT_TRUE(vt::test::runTask(again.read(entry, entry.size, 3 * kChunk + 5, 1000, middle)));
  EXPECT_TRUE(middle == film.mid(static_cast<int>(3 * kChunk + 5), 1000).toStdString());
  EXPECT_FALSE(host.requestsTo("/film").empty());
}

TEST(SourceReader, GoingAwayClosesItsOpenRequestsAndCallsNothingAfterwards) {
  vt::test::TestHome home;
  vt::ManualClock clock;
  vt::HttpClient http(clock);
  vt::test::FakeHttpServer host;
  const QByteArray film(static_cast<int>(3 * kChunk + 100), 'f');
  // The first chunk comes at once; the host never answers for any other.
  host.on("GET", "/film", [&](const vt::test::FakeHttpServer::Request& req, vt::test::FakeHttpServer::Reply& reply) {
    if (!req.header("Range").value_or("").startsWith("bytes=0-")) return reply.hold();
    reply.send(206, film.left(static_cast<int>(kChunk)),
               {{"Content-Range", "bytes 0-" + QByteArray::number(kChunk - 1) + "/" + QByteArray::number(film.size())}},
               "application/octet-stream");
  });
  auto entry = vt::test::entry("Film.mkv", host.url("/film").toString().toStdString());
  entry.size = film.size();
  int hookCalls = 0;
  SourceReader::Hooks hooks{[&](const std::string&) { ++hookCalls; },
                            [&](const std::string&, int64_t) { ++hookCalls; }};
  auto reader = std::make_unique<SourceReader>(http, home.file("probe-cache"), hooks);

  // The first read starts fetching the next two chunks ahead.
  std::string head, middle;
  ASSERT_TRUE(vt::test::runTask(reader->read(entry, entry.size, 0, 1 << 20, head)));
  ASSERT_TRUE(vt::test::spinUntil([&] { return host.requests().size() == 3; }));

  // A reader waits on a fetch under way.
  std::optional<ReadResult> waited;
  const vt::Job ahead = vt::Job::start([&](vt::CancelToken token) -> QCoro::Task<> {
    ReadResult r = co_await reader->read(entry, entry.size, kChunk + 10, 1000, middle, nullptr, token);
    waited = std::move(r);
  });

  // The reader goes: its open requests close, the waiting reader learns it, and no hook is called after.
  const int callsBefore = hookCalls;
  reader.reset();
  EXPECT_TRUE(vt::test::spinUntil([&] { return host.abandonedRequests() == 2; })) << host.abandonedRequests();
  ASSERT_TRUE(vt::test::spinUntil([&] { return waited.has_value(); }));
  EXPECT_EQ(waited->error().kind, ReadError::Kind::cancelled);
  vt::test::settle(50);
  EXPECT_EQ(hookCalls, callsBefore);
}

TEST(SourceReader, AHostThatStallsOneFileDelaysOnlyThatFilesReads) {
  vt::test::TestHome home;
  vt::ManualClock clock;
  vt::HttpClient http(clock);
  vt::test::FakeHttpServer host;
  host.on("GET", "/stalled", [](const auto&, vt::test::FakeHttpServer::Reply& reply) { reply.hold(); });
  const QByteArray film = vt::test::pattern(static_cast<int>(2 * kChunk), 5);
  vt::test::serveBytes(host, "/healthy", film);
  auto stalled = vt::test::entry("Stalled.mkv", host.url("/stalled").toString().toStdString());
  stalled.size = 64 * kChunk;
  auto healthy = vt::test::entry("Healthy.mkv", host.url("/healthy").toString().toStdString());
  healthy.size = film.size();
  SourceReader reader(http, home.file("probe-cache"), {});

  // Eight reads of the stalled file wait, more than a host's usual six connections.
  std::vector<std::string> outs(8);
  std::vector<vt::Job> waiting;
  for (int i = 0; i < 8; ++i)
    waiting.push_back(vt::Job::start([&, i](vt::CancelToken token) -> QCoro::Task<> {
      co_await reader.read(stalled, stalled.size, static_cast<uint64_t>(i) * 8 * kChunk, 4096, outs[i], nullptr, token);
    }));
  ASSERT_TRUE(vt::test::spinUntil([&] { return host.requestsTo("/stalled").size() == 4; }));

  std::optional<ReadResult> read;
  std::string bytes;
  const vt::Job other = vt::Job::start([&](vt::CancelToken token) -> QCoro::Task<> {
    ReadResult r = co_await reader.read(healthy, healthy.size, 100, 4096, bytes, nullptr, token);
    read = std::move(r);
  });
  ASSERT_TRUE(vt::test::spinUntil([&] { return read.has_value(); })) << "the healthy file waited on the stalled one";
  EXPECT_TRUE(*read);
  EXPECT_TRUE(bytes == film.mid(100, 4096).toStdString());
  EXPECT_EQ(host.requestsTo("/stalled").size(), 4u) << "a file's own budget";
}
