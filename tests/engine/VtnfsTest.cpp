#include <gtest/gtest.h>

#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakeHttpServer.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::entry;
using vt::test::FakeHttpServer;
using vt::test::runTask;

TEST(Vtnfs, ServesStatusAdoptionWarmingAndReloadOverItsControlPort) {
  test::TestHome home;
  const auto content = test::pattern(3 * 1024 * 1024 + 17, 1);
  ASSERT_TRUE(writeFileAtomically(home.file("local.bin"), content.toStdString()));
  FakeHttpServer cdn;
  test::serveBytes(cdn, "/film.mkv", content);
  auto hidden = entry("Hidden.mkv", "http://127.0.0.1:1/x");
  hidden.hidden = true;
  test::VtnfsProcess engine(home,
                            {entry("Local.mkv", "", home.file("local.bin")),
                             entry("Http.mkv", cdn.url("/film.mkv").toString().toStdString()), hidden},
                            "secret-key");
  ASSERT_TRUE(engine.waitReady()) << engine.process.readAll().toStdString();
  auto& client = engine.client;
  const QUrl url = engine.controlURL();

  auto status = runTask(client.status(url));
  ASSERT_TRUE(status && status->entries.size() == 3u);
  EXPECT_EQ(status->entries[0].name, "Hidden.mkv") << "hidden entries are listed too, in name order";
  auto adoption = runTask(client.adopt(url, 4242));
  ASSERT_TRUE(adoption);
  EXPECT_EQ(adoption->pid, static_cast<int32_t>(engine.process.processId()));
  EXPECT_EQ(adoption->rd_key_sha256, EngineStatusClient::keyHash("secret-key"));

  // Warming reads the ends of local and http sources and verifies their sizes.
  runTask(client.warmPending(url, {"Local.mkv", "Http.mkv"}));
  ASSERT_TRUE(test::spinUntil(
      [&] {
        status = runTask(client.status(url));
        return status && status->entries[1].warmed == true && status->entries[2].warmed == true;
      },
      10000));
  for (int i : {1, 2})
    EXPECT_TRUE(status->entries[i].size == content.size() && status->entries[i].size_verified == true) << i;
  EXPECT_EQ(cdn.requestsTo("/film.mkv").size(), 1u) << "the ends of a file this size are one chunk";

  // An entry in use is kept until playback ends.
  runTask(client.setPlayback(url, true));
  runTask(client.boost(url, {"Local.mkv"}));
  ASSERT_TRUE(writeFileAtomically(engine.manifest, encodeEngineConfig({entry("Local.mkv", "http://x/a2")})));
  EXPECT_EQ(runTask(client.reload(url)).deferred, 1);
  runTask(client.setPlayback(url, false));
  EXPECT_EQ(runTask(client.reload(url)).deferred, 0);
  status = runTask(client.status(url));
  EXPECT_TRUE(status && status->entries.size() == 1u);

  // The key never reaches the engine's log.
  const auto log = readFile(engine.log).value_or("");
  EXPECT_NE(log.find("adopted by application pid 4242"), std::string::npos) << log;
  EXPECT_EQ(log.find("secret-key"), std::string::npos);
}

TEST(EngineStatusClient, HintsSendSortedNamesAndNothingWithoutAUrlOrNames) {
  FakeHttpServer engine;
  engine.onPrefix("POST", "/control/", [](auto&, auto& reply) { reply.json(Json::object()); });
  EngineStatusClient client(sharedHttpClient());
  runTask(client.warmPending(engine.baseUrl(), {"b", "a", "C"}));
  runTask(client.prewarm(engine.baseUrl(), {"z", "y"}, {{"z", 0.5}}));
  runTask(client.expect(engine.baseUrl(), {"n2", "n1"}, 120));
  runTask(client.warmPending(engine.baseUrl(), {}));
  runTask(client.warmPending(std::nullopt, {"a"}));
  const auto& r = engine.requests();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0].body, R"({"names":["C","a","b"]})");
  EXPECT_EQ(r[1].body, R"({"names":["y","z"],"resume":{"z":0.5}})");
  EXPECT_EQ(r[2].rawQuery, "name=n1&name=n2&ttl=120");
}
