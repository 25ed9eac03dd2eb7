#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include "SourceReader.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "platform/Job.h"

using namespace vtnfs;
using vt::test::runTask;
using vt::test::spinUntil;

constexpr int64_t kChunk = SourceReader::kChunk;

TEST(SourceReader, KeepsChunksOnDiskWithinItsBudgetAcrossRestartsAndRefetchesADamagedOne) {
  vt::test::ReaderRig r;
  const QByteArray film = vt::test::pattern(static_cast<int>(5 * kChunk + 4321), 3);
  vt::test::serveBytes(r.host, "/film", film);
  const auto entry = r.hosted("Film/Film.mkv", "/film", film.size());
  const QString cache = QString::fromStdString(r.home.file("probe-cache"));
  {
    // Six chunks pass through a cache of three: the newest three stay.
    SourceReader reader(r.http, cache.toStdString(), {});
    reader.setBudgetBytes(3 * kChunk);
    std::string whole;
    for (uint64_t at = 0; at < static_cast<uint64_t>(film.size()); at += 1 << 20)
      ASSERT_TRUE(runTask(reader.read(entry, entry.size, at, 1 << 20, whole)));
    EXPECT_TRUE(whole == film.toStdString());
    ASSERT_TRUE(spinUntil([&] { return !reader.diskWritesPending() && reader.diskBytes() == 2 * kChunk + 4321; }));
    EXPECT_EQ(QDir(cache).entryList({"*.chunk"}, QDir::Files).size(), 3);
  }
  r.host.clearRequests();

  // A new run counts what the last one left and reads the end from disk.
  SourceReader again(r.http, cache.toStdString(), {});
  again.setBudgetBytes(3 * kChunk);
  EXPECT_EQ(again.diskBytes(), 2 * kChunk + 4321);
  std::string tail, middle;
  const auto end = runTask(again.read(entry, entry.size, 5 * kChunk, 1 << 20, tail));
  EXPECT_TRUE(end && end->eof);
  EXPECT_TRUE(tail == film.mid(static_cast<int>(5 * kChunk)).toStdString());
  EXPECT_TRUE(r.host.requestsTo("/film").empty());

  // A damaged chunk file is dropped and fetched again, not served.
  for (const QString& name : QDir(cache).entryList({"*.chunk"}, QDir::Files))
    ASSERT_TRUE(QFile::resize(cache + "/" + name, 100));
  EXPECT_TRUE(runTask(again.read(entry, entry.size, 3 * kChunk + 5, 1000, middle)));
  EXPECT_TRUE(middle == film.mid(static_cast<int>(3 * kChunk + 5), 1000).toStdString());
  EXPECT_FALSE(r.host.requestsTo("/film").empty());
}

TEST(SourceReader, GoingAwayClosesItsOpenRequestsAndCallsNothingAfterwards) {
  vt::test::ReaderRig r;
  const QByteArray film(static_cast<int>(3 * kChunk + 100), 'f');
  // The first chunk comes at once; the host never answers for any other.
  r.host.on("GET", "/film", [&](const auto& req, auto& reply) {
    if (!req.header("Range").value_or("").startsWith("bytes=0-")) return reply.hold();
    reply.send(206, film.left(static_cast<int>(kChunk)),
               {{"Content-Range", "bytes 0-" + QByteArray::number(kChunk - 1) + "/" + QByteArray::number(film.size())}},
               "application/octet-stream");
  });
  const auto entry = r.hosted("Film.mkv", "/film", film.size());
  int hookCalls = 0;
  SourceReader::Hooks hooks{[&](const std::string&) { ++hookCalls; },
                            [&](const std::string&, int64_t) { ++hookCalls; }};
  auto reader = std::make_unique<SourceReader>(r.http, r.home.file("probe-cache"), hooks);

  // The first read starts fetching the next two chunks ahead; a second reader waits on one of them.
  std::string head, middle;
  ASSERT_TRUE(runTask(reader->read(entry, entry.size, 0, 1 << 20, head)));
  ASSERT_TRUE(spinUntil([&] { return r.host.requests().size() == 3; }));
  std::optional<ReadResult> waited;
  const vt::Job ahead = vt::Job::start([&](vt::CancelToken token) -> QCoro::Task<> {
    ReadResult result = co_await reader->read(entry, entry.size, kChunk + 10, 1000, middle, nullptr, token);
    waited = std::move(result);
  });

  // The reader goes: its open requests close, the waiting reader learns it, and no hook is called after.
  const int callsBefore = hookCalls;
  reader.reset();
  EXPECT_TRUE(spinUntil([&] { return r.host.abandonedRequests() == 2; })) << r.host.abandonedRequests();
  ASSERT_TRUE(spinUntil([&] { return waited.has_value(); }));
  EXPECT_EQ(waited->error().kind, ReadError::Kind::cancelled);
  vt::test::settle(50);
  EXPECT_EQ(hookCalls, callsBefore);
}

TEST(SourceReader, AHostThatStallsOneFileDelaysOnlyThatFilesReads) {
  vt::test::ReaderRig r;
  r.host.on("GET", "/stalled", [](const auto&, auto& reply) { reply.hold(); });
  const QByteArray film = vt::test::pattern(static_cast<int>(2 * kChunk), 5);
  vt::test::serveBytes(r.host, "/healthy", film);
  const auto stalled = r.hosted("Stalled.mkv", "/stalled", 64 * kChunk);
  const auto healthy = r.hosted("Healthy.mkv", "/healthy", film.size());
  SourceReader reader(r.http, r.home.file("probe-cache"), {});

  // Eight reads of the stalled file wait, more than a host's usual six connections.
  std::vector<std::string> outs(8);
  std::vector<vt::Job> waiting;
  for (int i = 0; i < 8; ++i)
    waiting.push_back(vt::Job::start([&, i](vt::CancelToken token) -> QCoro::Task<> {
      co_await reader.read(stalled, stalled.size, static_cast<uint64_t>(i) * 8 * kChunk, 4096, outs[i], nullptr, token);
    }));
  ASSERT_TRUE(spinUntil([&] { return r.host.requestsTo("/stalled").size() == 4; }));

  std::optional<ReadResult> read;
  std::string bytes;
  const vt::Job other = vt::Job::start([&](vt::CancelToken token) -> QCoro::Task<> {
    ReadResult result = co_await reader.read(healthy, healthy.size, 100, 4096, bytes, nullptr, token);
    read = std::move(result);
  });
  ASSERT_TRUE(spinUntil([&] { return read.has_value(); })) << "the healthy file waited on the stalled one";
  EXPECT_TRUE(*read);
  EXPECT_TRUE(bytes == film.mid(100, 4096).toStdString());
  EXPECT_EQ(r.host.requestsTo("/stalled").size(), 4u) << "a file's own budget";
}
