#include <gtest/gtest.h>

#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakeHttpServer.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::entry;
using vt::test::FakeHttpServer;
using vt::test::VtnfsProcess;

TEST(Vtnfs, ServesStatusAdoptionAndReloadOverItsControlPort) {
  test::TestHome home;
  const auto manifest = home.file("entries.json");
  auto hidden = entry("Hidden.mkv", "http://127.0.0.1:1/x");
  hidden.hidden = true;
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({entry("A.mkv", "http://x/a"), hidden})));
  EngineStatusClient client(sharedHttpClient());
  VtnfsProcess engine(manifest, home.file("engine.log"), "secret-key");
  ASSERT_TRUE(engine.waitReady(client)) << engine.process.readAll().toStdString();

  auto status = test::runTask(client.status(engine.controlURL()));
  ASSERT_TRUE(status && status->entries.size() == 2u);
  EXPECT_EQ(status->entries[1].name, "Hidden.mkv");
  auto adoption = test::runTask(client.adopt(engine.controlURL(), 4242));
  ASSERT_TRUE(adoption);
  EXPECT_EQ(adoption->pid, static_cast<int32_t>(engine.process.processId()));
  EXPECT_EQ(adoption->rd_key_sha256, EngineStatusClient::keyHash("secret-key"));

  // An entry in use is kept until playback ends.
  test::runTask(client.setPlayback(engine.controlURL(), true));
  test::runTask(client.boost(engine.controlURL(), {"A.mkv"}));
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({entry("A.mkv", "http://x/a2")})));
  EXPECT_EQ(test::runTask(client.reload(engine.controlURL())).deferred, 1);
  test::runTask(client.setPlayback(engine.controlURL(), false));
  EXPECT_EQ(test::runTask(client.reload(engine.controlURL())).deferred, 0);
  status = test::runTask(client.status(engine.controlURL()));
  EXPECT_TRUE(status && status->entries.size() == 1u);

  // The key never reaches the engine's log.
  const auto log = readFile(home.file("engine.log")).value_or("");
  EXPECT_NE(log.find("adopted by application pid 4242"), std::string::npos) << log;
  EXPECT_EQ(log.find("secret-key"), std::string::npos);
}

TEST(Vtnfs, WarmingReadsTheEndsOfLocalAndHttpSources) {
  test::TestHome home;
  const auto content = test::pattern(3 * 1024 * 1024 + 17, 1);
  ASSERT_TRUE(writeFileAtomically(home.file("local.bin"), content.toStdString()));
  FakeHttpServer cdn;
  test::serveBytes(cdn, "/film.mkv", content);
  const auto manifest = home.file("entries.json");
  ASSERT_TRUE(writeFileAtomically(
      manifest, encodeEngineConfig({entry("Local.mkv", "", home.file("local.bin")),
                                    entry("Http.mkv", cdn.url("/film.mkv").toString().toStdString())})));
  EngineStatusClient client(sharedHttpClient());
  VtnfsProcess engine(manifest, home.file("engine.log"));
  ASSERT_TRUE(engine.waitReady(client));
  test::runTask(client.warmPending(engine.controlURL(), {"Local.mkv", "Http.mkv"}));
  std::optional<EngineStatusPayload> status;
  ASSERT_TRUE(test::spinUntil(
      [&] {
        status = test::runTask(client.status(engine.controlURL()));
        return status && status->entries[0].warmed == true && status->entries[1].warmed == true;
      },
      10000));
  for (const auto& e : status->entries) EXPECT_TRUE(e.size == content.size() && e.size_verified == true) << e.name;
  EXPECT_EQ(cdn.requestsTo("/film.mkv").size(), 1u) << "the ends of a file this size are one chunk";
}

TEST(EngineStatusClient, HintsSendSortedNamesAndNothingWithoutAUrlOrNames) {
  FakeHttpServer engine;
  engine.onPrefix("POST", "/control/", [](auto&, auto& reply) { reply.json(Json::object()); });
  EngineStatusClient client(sharedHttpClient());
  test::runTask(client.warmPending(engine.baseUrl(), {"b", "a", "C"}));
  test::runTask(client.prewarm(engine.baseUrl(), {"z", "y"}, {{"z", 0.5}}));
  test::runTask(client.expect(engine.baseUrl(), {"n2", "n1"}, 120));
  test::runTask(client.warmPending(engine.baseUrl(), {}));
  test::runTask(client.warmPending(std::nullopt, {"a"}));
  const auto& r = engine.requests();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0].body, R"({"names":["C","a","b"]})");
  EXPECT_EQ(r[1].body, R"({"names":["y","z"],"resume":{"z":0.5}})");
  EXPECT_EQ(r[2].rawQuery, "name=n1&name=n2&ttl=120");
}
