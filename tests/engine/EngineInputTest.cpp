#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QScopeGuard>
#include <QStandardPaths>

#include "Engine.h"
#include "SourceReader.h"
#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "engine/LocalEngine.h"
#include "fakes/FakeFileHost.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "platform/SerialFileWriter.h"

using namespace vt;

TEST(EngineInput, PipelinedReadsOfAColdHttpSourceAllGetTheirBytes) {
  // Eight 1 MiB reads stay in flight, so several wait on each chunk's fetch at once.
  test::TestHome home;
  ManualClock clock;
  HttpClient http(clock);
  test::FakeHttpServer host;
  constexpr int64_t kSize = 256ll << 20;
  test::serveGenerated(host, "/film", kSize);
  auto entry = test::entry("Film.mkv", host.url("/film").toString().toStdString());
  entry.size = kSize;
  vtnfs::SourceReader reader(http, home.file("probe-cache"), {});
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
  test::TestHome home;
  ManualClock clock;
  HttpClient http(clock);
  vtnfs::SourceReader reader(http, home.file("probe-cache"), {});
  QDir().mkpath(QString::fromStdString(home.file("folder.mkv")));
  auto e = test::entry("Folder.mkv", "", home.file("folder.mkv"));
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

TEST(EngineInput, ControlBodiesThatDontReadAreRefusedWithAReason) {
  test::TestHome home;
  test::LocalEngine e(home, {test::entry("A.mkv", "http://x/a")});
  EXPECT_EQ(e.post("/control/boost", R"({"names":["a",3]})").body, R"({"error":"expected {\"names\": [<text>...]}"})");
  EXPECT_EQ(e.post("/control/budget", R"({"cache_gb":"big"})").status, 400);
  EXPECT_EQ(e.post("/control/playback", R"({"active":1})").status, 400);
  // A budget far beyond any disk is clamped, not wrapped to 0 (which would empty the cache).
  EXPECT_EQ(e.post("/control/budget", R"({"cache_gb":1e10})").status, 200);
  EXPECT_EQ(e.engine->reader().budgetBytes(), int64_t{1'000'000'000'000'000});
}

TEST(EngineInput, AManifestKeepsTheFirstOfTwinNamesAndRefusesControlCharacters) {
  test::TestHome home;
  test::LocalEngine e(home, {test::entry("Twin.mkv", "http://x/first"), test::entry("Twin.mkv", "http://x/second"),
                             test::entry("Bad\nname.mkv", "http://x/c"), test::entry("Ok.mkv", "http://x/d")});
  ASSERT_EQ(e.engine->entries().size(), 2u);
  EXPECT_EQ(e.engine->entries().at("Twin.mkv").entry.url, "http://x/first");
  const std::string log = e.log();
  EXPECT_NE(log.find("refused entry \"Twin.mkv\": named twice"), std::string::npos) << log;
  EXPECT_NE(log.find("refused entry \"Bad\\nname.mkv\": a control character in its name"), std::string::npos) << log;
  EXPECT_EQ(log.find("Bad\nname"), std::string::npos) << "no line forged in the log";
}

TEST(EngineInput, AStalledSourceFreezesOnlyItsOwnFileInTheFuseMount) {
  if (QStandardPaths::findExecutable("fusermount3").isEmpty() || !QFile::exists("/dev/fuse"))
    GTEST_SKIP() << "no FUSE on this machine";
  test::TestHome home;
  test::FakeHttpServer host;
  host.on("GET", "/stalled", [](const auto&, auto& reply) { reply.hold(); });
  host.on("GET", "/gone", [](const auto&, auto& reply) { reply.send(404); });
  const QByteArray healthy(3 << 20, 'h');
  ASSERT_TRUE(writeFileAtomically(home.file("healthy.bin"), healthy.toStdString()));
  auto stalled = test::entry("Stalled.mkv", host.url("/stalled").toString().toStdString());
  auto gone = test::entry("Gone.mkv", host.url("/gone").toString().toStdString());
  auto local = test::entry("Healthy.mkv", "", home.file("healthy.bin"));
  local.size = healthy.size();
  const auto manifest = home.file("entries.json");
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({stalled, gone, local})));
  EngineStatusClient client(sharedHttpClient());
  test::VtnfsProcess engine(manifest, home.file("engine.log"));
  ASSERT_TRUE(engine.waitReady(client));
  const QString mount = QString::fromStdString(home.file("Library"));
  QDir().mkpath(mount);
  // Runs a tool while the event loop turns (the sources are in this process).
  const auto run = [](const QString& program, const QStringList& args, QByteArray* out = nullptr) {
    QProcess p;
    p.start(program, args);
    if (!test::spinUntil([&] { return p.state() == QProcess::NotRunning; }, 15000)) p.kill(), p.waitForFinished();
    if (out) *out = p.readAllStandardOutput() + p.readAllStandardError();
    return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
  };
  if (run(VT_VTNFS_MOUNT_BINARY, {QStringLiteral("127.0.0.1:%1").arg(engine.nfsPort), mount}) != 0)
    GTEST_SKIP() << "FUSE mounts are not allowed here";
  const auto unmount = qScopeGuard([&] { QProcess::execute("fusermount3", {"-u", "-z", mount}); });
  QProcess stuck;
  stuck.start("cat", {mount + "/Stalled.mkv"});
  ASSERT_TRUE(test::spinUntil([&] { return !host.requestsTo("/stalled").empty(); }));
  QByteArray out;
  EXPECT_TRUE(run("ls", {mount}, &out) == 0 && out.contains("Healthy.mkv"));
  EXPECT_TRUE(run("cat", {mount + "/Healthy.mkv"}, &out) == 0 && out == healthy) << "another file reads on";
  EXPECT_EQ(stuck.state(), QProcess::Running) << "the stalled read is still waiting";
  EXPECT_TRUE(run("cat", {mount + "/Gone.mkv"}, &out) != 0 && out.contains("Input/output error")) << out.toStdString();
  stuck.kill();
  stuck.waitForFinished();

  // The engine dies and comes back on the same ports: an open file reads on, with no remount.
  QFile reader(mount + "/Healthy.mkv");
  ASSERT_TRUE(reader.open(QIODevice::ReadOnly));
  QByteArray got = reader.read(1 << 20);
  ::kill(static_cast<pid_t>(engine.process.processId()), SIGKILL);
  engine.process.waitForFinished();
  test::VtnfsProcess again(manifest, home.file("engine.log"), "rd-test-key", engine.nfsPort, engine.controlPort);
  ASSERT_TRUE(again.waitReady(client)) << again.process.readAll().toStdString();
  got += reader.readAll();
  EXPECT_TRUE(got == healthy) << got.size();
}

TEST(EngineInput, ASourceThatIgnoresRangesIsReadOnlyForItsFirstChunk) {
  test::TestHome home;
  ManualClock clock;
  HttpClient http(clock);
  test::FakeHttpServer host;
  constexpr int64_t kSize = 512ll << 20;
  host.on("GET", "/whole", [](const auto&, auto& reply) {
    reply.stream(200, new test::GeneratedBytesDevice(0, kSize), {"Accept-Ranges", "none"});
  });
  auto entry = test::entry("Whole.mkv", host.url("/whole").toString().toStdString());
  entry.size = kSize;
  std::vector<std::string> lines;
  vtnfs::SourceReader reader(http, home.file("probe-cache"),
                             {[&](const std::string& line) { lines.push_back(line); }, {}});
  std::string out;
  ASSERT_TRUE(test::runTask(reader.read(entry, kSize, 0, 1 << 20, out)));
  EXPECT_TRUE(out == test::generatedBytes(0, 1 << 20).toStdString());
  EXPECT_FALSE(test::runTask(reader.read(entry, kSize, 100 << 20, 1 << 20, out)));
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "source 1 of Whole.mkv ignores ranges, so it can't be read past its first 4 MiB"),
            lines.end());
}
