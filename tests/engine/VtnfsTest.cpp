#include <gtest/gtest.h>

#include <QFile>
#include <filesystem>

#include "engine/EngineInstancePaths.h"
#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakeHttpServer.h"
#include "platform/Clock.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::FakeHttpServer;
using vt::test::VtnfsProcess;

namespace {

using vt::test::entry;

std::vector<std::string> names(const EngineStatusPayload& p) {
  std::vector<std::string> out;
  for (const auto& e : p.entries) out.push_back(e.name);
  return out;
}

}  // namespace

TEST(Vtnfs, ServesStatusAdoptionAndReloadOverItsControlPort) {
  test::TestHome home;
  const auto manifest = home.file("entries.json");
  auto hidden = entry("Hidden (2000) {imdb-tt2}.mkv", "http://127.0.0.1:1/x");
  hidden.hidden = true;
  ASSERT_TRUE(
      writeFileAtomically(manifest, encodeEngineConfig({entry("A (1999) {imdb-tt1}.mkv", "http://x/a"), hidden})));

  EngineStatusClient client(sharedHttpClient());
  VtnfsProcess engine(manifest, home.file("engine.log"), "secret-key");
  ASSERT_TRUE(engine.waitReady(client)) << engine.process.readAll().toStdString();

  auto status = test::runTask(client.status(engine.controlURL()));
  ASSERT_TRUE(status);
  EXPECT_EQ(names(*status), (std::vector<std::string>{"A (1999) {imdb-tt1}.mkv", "Hidden (2000) {imdb-tt2}.mkv"}));
  EXPECT_EQ(status->entries[0].size, 1234);

  auto adoption = test::runTask(client.adopt(engine.controlURL(), 4242));
  ASSERT_TRUE(adoption);
  EXPECT_EQ(adoption->pid, static_cast<int32_t>(engine.process.processId()));
  EXPECT_EQ(adoption->rd_key_sha256, EngineStatusClient::keyHash("secret-key"));
  EXPECT_FALSE(adoption->version.empty());

  // A change is read on reload.
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({entry("B (2001) {imdb-tt3}.mkv", "http://x/b")})));
  EXPECT_TRUE(test::runTask(client.reload(engine.controlURL())).answered);
  status = test::runTask(client.status(engine.controlURL()));
  EXPECT_EQ(names(*status), std::vector<std::string>{"B (2001) {imdb-tt3}.mkv"});

  // An entry in use is kept until playback ends.
  test::runTask(client.setPlayback(engine.controlURL(), true));
  test::runTask(client.boost(engine.controlURL(), {"B (2001) {imdb-tt3}.mkv"}));
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({entry("B (2001) {imdb-tt3}.mkv", "http://x/b2")})));
  EXPECT_EQ(test::runTask(client.reload(engine.controlURL())).deferred, 1);
  test::runTask(client.setPlayback(engine.controlURL(), false));
  EXPECT_EQ(test::runTask(client.reload(engine.controlURL())).deferred, 0);

  // The key never reaches the engine's log.
  const auto log = readFile(home.file("engine.log")).value_or("");
  EXPECT_NE(log.find("adopted by application pid 4242"), std::string::npos) << log;
  EXPECT_EQ(log.find("secret-key"), std::string::npos);

  ::kill(static_cast<pid_t>(engine.process.processId()), SIGTERM);
  ASSERT_TRUE(engine.process.waitForFinished(5000));
  EXPECT_EQ(engine.process.exitStatus(), QProcess::NormalExit);
  EXPECT_EQ(engine.process.exitCode(), 0);
}

TEST(Vtnfs, WarmingReadsTheEndsOfLocalAndHttpSources) {
  test::TestHome home;
  const auto local = home.file("local.bin");
  const auto content = test::pattern(3 * 1024 * 1024 + 17, 1);
  ASSERT_TRUE(writeFileAtomically(local, content.toStdString()));
  FakeHttpServer cdn;
  test::serveBytes(cdn, "/film.mkv", content);
  const auto manifest = home.file("entries.json");
  auto missing = entry("Gone.mkv", "", home.file("nope.bin"));
  ASSERT_TRUE(writeFileAtomically(
      manifest, encodeEngineConfig({entry("Local.mkv", "", local),
                                    entry("Http.mkv", cdn.url("/film.mkv").toString().toStdString()), missing})));

  EngineStatusClient client(sharedHttpClient());
  VtnfsProcess engine(manifest, home.file("engine.log"));
  ASSERT_TRUE(engine.waitReady(client));
  test::runTask(client.warmPending(engine.controlURL(), {"Local.mkv", "Http.mkv", "Gone.mkv"}));

  std::optional<EngineStatusPayload> status;
  ASSERT_TRUE(test::spinUntil(
      [&] {
        status = test::runTask(client.status(engine.controlURL()));
        int ready = 0;
        for (const auto& e : status->entries) ready += e.probe_ready == true;
        return ready == 2;
      },
      10000));
  for (const auto& e : status->entries) {
    if (e.name == "Gone.mkv") {
      EXPECT_EQ(e.probe_ready, false);
      EXPECT_EQ(e.warmed, false);
      continue;
    }
    EXPECT_EQ(e.warmed, true) << e.name;
    EXPECT_EQ(e.size, content.size()) << e.name;
    EXPECT_EQ(e.size_verified, true) << e.name;
  }
  EXPECT_EQ(cdn.requestsTo("/film.mkv").size(), 1u) << "the ends of a file this size are one chunk";
}

TEST(Vtnfs, RefusesBusyAddressesAndBadArgumentsWithAMessage) {
  test::TestHome home;
  QTcpServer squatter;
  ASSERT_TRUE(squatter.listen(QHostAddress::LocalHost, 0));
  QProcess p;
  p.setProcessChannelMode(QProcess::MergedChannels);
  p.start(VT_VTNFS_BINARY, {"-config", QString::fromStdString(home.file("e.json")), "-nfs",
                            QStringLiteral("127.0.0.1:%1").arg(squatter.serverPort()), "-control",
                            QStringLiteral("127.0.0.1:%1").arg(test::freePort()), "-mount", "/tmp/m", "-log",
                            QString::fromStdString(home.file("engine.log"))});
  ASSERT_TRUE(p.waitForFinished(5000));
  EXPECT_EQ(p.exitCode(), 1);
  EXPECT_TRUE(p.readAll().contains("cannot listen for NFS"));

  p.start(VT_VTNFS_BINARY, {"-config", "x", "-nfs", "127.0.0.1:notaport"});
  ASSERT_TRUE(p.waitForFinished(5000));
  EXPECT_EQ(p.exitCode(), 2);
  EXPECT_TRUE(p.readAll().contains("usage: vtnfs"));
}

TEST(EngineStatusClient, HintsSendSortedNamesAndNothingWithoutAUrlOrNames) {
  FakeHttpServer engine;
  engine.onPrefix("POST", "/control/", [](auto&, auto& reply) { reply.json(Json::object()); });
  EngineStatusClient client(sharedHttpClient());
  test::runTask(client.warmPending(engine.baseUrl(), {"b", "a", "C"}));
  test::runTask(client.prewarm(engine.baseUrl(), {"z", "y"}, {{"z", 0.5}}));
  test::runTask(client.expect(engine.baseUrl(), {"n2", "n1"}, 120));
  test::runTask(client.setPlayback(engine.baseUrl(), true));
  test::runTask(client.warmPending(engine.baseUrl(), {}));
  test::runTask(client.warmPending(std::nullopt, {"a"}));
  EXPECT_FALSE(test::runTask(client.status(std::nullopt)));
  const auto& r = engine.requests();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_EQ(r[0].body, R"({"names":["C","a","b"]})");
  EXPECT_EQ(r[1].body, R"({"names":["y","z"],"resume":{"z":0.5}})");
  EXPECT_EQ(r[2].path, "/control/expect");
  EXPECT_EQ(r[2].rawQuery, "name=n1&name=n2&ttl=120");
  EXPECT_EQ(r[3].body, R"({"active":true})");
}
