#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>

#include "Engine.h"
#include "SourceReader.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "platform/Job.h"

using namespace vt;

TEST(EngineInput, PipelinedReadsOfAColdHttpSourceAllGetTheirBytes) {
  // Eight 1 MiB reads stay in flight, so several wait on each chunk's fetch at once.
  test::ReaderRig r;
  constexpr int64_t kSize = 256ll << 20;
  test::serveGenerated(r.host, "/film", kSize);
  const auto entry = r.hosted("Film.mkv", "/film", kSize);
  vtnfs::SourceReader reader(r.http, r.home.file("probe-cache"), {});
  reader.setBudgetBytes(4 * vtnfs::SourceReader::kChunk);
  constexpr uint32_t kRead = 1 << 20;
  int64_t next = 0, done = 0;
  std::vector<int64_t> failures;
  std::vector<Job> jobs;
  const auto startRead = [&](auto& self) -> void {
    if (next >= kSize) return;
    const int64_t at = std::exchange(next, next + kRead);
    jobs.push_back(Job::start([&, at, self](CancelToken) -> QCoro::Task<> {
      std::string out;
      const auto outcome = co_await reader.read(entry, kSize, static_cast<uint64_t>(at), kRead, out);
      if (!outcome || out != test::generatedBytes(at, kRead).toStdString()) failures.push_back(at);
      ++done;
      self(self);
    }));
  };
  for (int i = 0; i < 8; ++i) startRead(startRead);
  ASSERT_TRUE(test::spinUntil([&] { return done == kSize / kRead || failures.size() > 3; }, 60000));
  EXPECT_TRUE(failures.empty()) << "first failed read at " << failures.front();
}

TEST(EngineInput, ALocalSourceThatIsNoRegularFileAnswersAnIoError) {
  test::ReaderRig r;
  vtnfs::SourceReader reader(r.http, r.home.file("probe-cache"), {});
  QDir().mkpath(QString::fromStdString(r.home.file("folder.mkv")));
  auto e = test::entry("Folder.mkv", "", r.home.file("folder.mkv"));
  std::string out;
  vtnfs::FileSpan span;
  const auto outcome = test::runTask(reader.read(e, e.size, 0, 1000, out, &span));
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error().kind, vtnfs::ReadError::Kind::io);
  EXPECT_NE(vt::errorMessage(outcome).find("not a regular file"), std::string::npos);
  EXPECT_FALSE(span) << "nothing half-sent from a folder";
}

TEST(EngineInput, PortsListenOnLoopbackOnly) {
  std::string error;
  const auto args = [](const std::string& nfs, const std::string& control) {
    return std::vector<std::string>{"-config", "c", "-nfs", nfs, "-control", control, "-mount", "m", "-log", "l"};
  };
  const auto local = vtnfs::parseArguments(args("localhost:1", "[::1]:2"), error);
  ASSERT_TRUE(local) << error;
  EXPECT_EQ(local->nfsHost, "127.0.0.1");
  // Refused at start, so that the reason reaches the engine's log.
  test::TestHome home;
  auto open = vtnfs::parseArguments(args("0.0.0.0:1", "127.0.0.1:2"), error);
  ASSERT_TRUE(open) << error;
  open->config = home.file("entries.json");
  vtnfs::Engine engine(*open);
  EXPECT_FALSE(engine.start(error));
  EXPECT_EQ(error, "refusing to listen on 0.0.0.0: not a loopback address");
}

TEST(EngineInput, AStalledSourceFreezesOnlyItsOwnFileInTheFuseMountWhichOutlivesARestartAndFollowsReloads) {
  test::TestHome home;
  test::FakeHttpServer host;
  host.on("GET", "/stalled", [](const auto&, auto& reply) { reply.hold(); });
  host.on("GET", "/gone", [](const auto&, auto& reply) { reply.send(404); });
  const QByteArray healthy(3 << 20, 'h');
  ASSERT_TRUE(writeFileAtomically(home.file("healthy.bin"), healthy.toStdString()));
  auto local = test::entry("Healthy.mkv", "", home.file("healthy.bin"));
  local.size = healthy.size();
  const std::vector<EngineEntry> entries = {test::entry("Stalled.mkv", host.url("/stalled").toString().toStdString()),
                                            test::entry("Gone.mkv", host.url("/gone").toString().toStdString()), local};
  test::VtnfsProcess engine(home, entries);
  ASSERT_TRUE(engine.waitReady());
  const test::FuseMount mount(engine, QString::fromStdString(home.file("Library")));
  if (!mount.mounted) GTEST_SKIP() << "no FUSE mount on this machine";
  QProcess stuck;
  stuck.start("cat", {mount.path + "/Stalled.mkv"});
  ASSERT_TRUE(test::spinUntil([&] { return !host.requestsTo("/stalled").empty(); }));
  EXPECT_TRUE(test::runTool("ls", {mount.path}).contains("Healthy.mkv"));
  EXPECT_TRUE(test::runTool("cat", {mount.path + "/Healthy.mkv"}) == healthy) << "another file reads on";
  EXPECT_EQ(stuck.state(), QProcess::Running) << "the stalled read is still waiting";
  int status = -1;
  QByteArray errors;
  test::runTool("cat", {mount.path + "/Gone.mkv"}, &status, &errors);
  EXPECT_TRUE(status != 0 && errors.contains("Input/output error")) << errors.toStdString();
  stuck.kill();
  EXPECT_TRUE(stuck.waitForFinished(5000)) << "a killed reader is let go before the source's time limit";
  // Small reads in order are served from the helper's read-ahead, across its pieces' edges.
  EXPECT_TRUE(test::runTool("dd", {"if=" + mount.path + "/Healthy.mkv", "bs=4093", "status=none"}) == healthy);

  // The engine dies and comes back on the same ports: an open file reads on, with no remount.
  QFile reader(mount.path + "/Healthy.mkv");
  ASSERT_TRUE(reader.open(QIODevice::ReadOnly));
  QByteArray got = reader.read(1 << 20);
  ::kill(static_cast<pid_t>(engine.process.processId()), SIGKILL);
  engine.process.waitForFinished();
  test::VtnfsProcess again(home, entries, "rd-test-key", engine.nfsPort, engine.controlPort);
  ASSERT_TRUE(again.waitReady()) << again.process.readAll().toStdString();
  got += reader.readAll();
  EXPECT_TRUE(got == healthy) << got.size();
  reader.close();

  // A reload that adds one entry and hides another shows without a remount.
  auto third = local, hidden = local;
  third.name = "Third (2022)/Third (2022).mkv";
  hidden.hidden = true;
  ASSERT_TRUE(writeFileAtomically(again.manifest, encodeEngineConfig({hidden, third})));
  ASSERT_TRUE(test::runTask(again.client.reload(again.controlURL())).answered);
  EXPECT_TRUE(test::spinUntil(
      [&] {
        const auto listing = test::runTool("ls", {"-R", mount.path});
        return listing.contains("Third (2022).mkv") && !listing.contains("Healthy.mkv");
      },
      10000));
  EXPECT_TRUE(test::runTool("cat", {mount.path + "/" + QString::fromStdString(third.name)}) == healthy);
}

TEST(EngineInput, ASourceThatIgnoresRangesIsReadOnlyForItsFirstChunk) {
  test::ReaderRig r;
  constexpr int64_t kSize = 512ll << 20;
  r.host.on("GET", "/whole", [](const auto&, auto& reply) {
    reply.stream(200, new test::HeadThenFillerDevice({}, 0, kSize), {"Accept-Ranges", "none"});
  });
  const auto entry = r.hosted("Whole.mkv", "/whole", kSize);
  std::vector<std::string> lines;
  vtnfs::SourceReader reader(r.http, r.home.file("probe-cache"),
                             {[&](const std::string& line) { lines.push_back(line); }, {}});
  std::string out;
  ASSERT_TRUE(test::runTask(reader.read(entry, kSize, 0, 1 << 20, out)));
  EXPECT_TRUE(out == test::generatedBytes(0, 1 << 20).toStdString());
  EXPECT_FALSE(test::runTask(reader.read(entry, kSize, 100 << 20, 1 << 20, out)));
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "source 1 of Whole.mkv ignores ranges, so it can't be read past its first 4 MiB"),
            lines.end());
}
