// The engine driven in this process, for what its tree, log and control replies show directly.
#include <gtest/gtest.h>

#include <QFile>

#include "Engine.h"
#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "engine/LocalEngine.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakeHttpServer.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::entry;
using vt::test::LocalEngine;

TEST(VtnfsEngine, RefusesTwinsControlCharactersAndFilesNamedLikeFoldersAndEscapesEveryLogLine) {
  test::TestHome home;
  LocalEngine e(home, {entry("Twin.mkv", "http://x/first"), entry("Twin.mkv", "http://x/second"),
                       entry("Bad\n2024-01-01 00:00:00 forged line", "http://x/c"), entry("A/b.mkv", "http://x/b"),
                       entry("A", "http://x/a"), entry("A/c/d.mkv", "http://x/d")});
  EXPECT_EQ(e.engine->entries().size(), 3u);
  EXPECT_EQ(e.engine->entries().at("Twin.mkv").entry.url, "http://x/first") << "the first of twins stays";
  const auto& tree = e.engine->tree();
  const vtnfs::NfsNode* folder = tree.child(tree.root(), "A");
  ASSERT_TRUE(folder && folder->dir);
  EXPECT_TRUE(tree.child(*folder, "b.mkv") && tree.fileForEntry("A/c/d.mkv"));
  e.engine->log(std::string("tab\there, bell\a, escape\x1b[31m, delete\x7f, next line\xc2\x85."));
  const std::string log = e.log();
  for (const char* line : {"refused entry \"Twin.mkv\": named twice",
                           "refused entry \"Bad\\n2024-01-01 00:00:00 forged line\": a control character in its name",
                           "refused entry \"A\": a folder of that name holds other entries",
                           "tab\\there, bell\\x07, escape\\x1b[31m, delete\\x7f, next line\\u0085."})
    EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
  for (const auto& line : e.logLines()) {
    for (char c : line) EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << line;
    EXPECT_EQ(line.find("\xc2\x85"), std::string::npos) << line;
  }
}

TEST(VtnfsEngine, ControlRequestsThatDontReadAreRefusedWithAReasonAndKeepTheEntries) {
  test::TestHome home;
  LocalEngine e(home, {entry("A.mkv", "http://x/a")});
  EXPECT_EQ(e.post("/control/boost", R"({"names":["a",3]})").body, R"({"error":"expected {\"names\": [<text>...]}"})");
  EXPECT_EQ(e.post("/control/budget", R"({"cache_gb":"big"})").status, 400);
  EXPECT_EQ(e.post("/control/playback", R"({"active":1})").status, 400);
  // A budget far beyond any disk is clamped, not wrapped to 0 (which would empty the cache).
  EXPECT_EQ(e.post("/control/budget", R"({"cache_gb":1e10})").status, 200);
  EXPECT_EQ(e.engine->reader().budgetBytes(), int64_t{1'000'000'000'000'000});
  // A manifest that doesn't parse, then one that is gone: the entries stay.
  ASSERT_TRUE(writeFileAtomically(e.manifest, "{\"entries\": [ not json"));
  auto reply = e.post("/control/reload");
  EXPECT_EQ(reply.status, 422);
  EXPECT_NE(reply.body.indexOf("is not a valid manifest"), -1) << reply.body.toStdString();
  ASSERT_TRUE(QFile::remove(QString::fromStdString(e.manifest)));
  reply = e.post("/control/reload");
  EXPECT_EQ(reply.status, 500);
  EXPECT_NE(reply.body.indexOf("could not be read"), -1) << reply.body.toStdString();
  EXPECT_TRUE(e.engine->tree().fileForEntry("A.mkv"));
}

TEST(VtnfsEngine, GoingAwayClosesTheWarmersOpenRequest) {
  test::TestHome home;
  test::FakeHttpServer cdn;
  cdn.on("GET", "/film.mkv", [](const auto&, test::FakeHttpServer::Reply& reply) { reply.hold(); });
  LocalEngine e(home, {entry("Film.mkv", cdn.url("/film.mkv").toString().toStdString())});
  EngineStatusClient client(sharedHttpClient());
  test::runTask(client.warmPending(e.control, {"Film.mkv"}));
  ASSERT_TRUE(test::spinUntil([&] { return cdn.requests().size() == 1; }));
  e.engine.reset();
  EXPECT_TRUE(test::spinUntil([&] { return cdn.abandonedRequests() == 1; }));
  test::settle(50);
  EXPECT_EQ(e.log().find("warming"), std::string::npos) << e.log();
}

TEST(VtnfsEngine, RevealingAWarmedEntryKeepsWhatItsSourceTaught) {
  test::TestHome home;
  test::FakeHttpServer cdn;
  const QByteArray bytes = test::generatedBytes(0, 3 << 20);
  test::serveBytes(cdn, "/film.mkv", bytes);
  auto film = entry("Film.mkv", cdn.url("/film.mkv").toString().toStdString());
  film.size = bytes.size();
  film.hidden = true;
  LocalEngine e(home, {film});
  EngineStatusClient client(sharedHttpClient());
  test::runTask(client.warmPending(e.control, {"Film.mkv"}));
  ASSERT_TRUE(test::spinUntil([&] { return e.engine->entries().at("Film.mkv").probeReady; }));

  // The wave: only `hidden` changes, and the entry is warmed again.
  film.hidden = false;
  ASSERT_TRUE(writeFileAtomically(e.manifest, encodeEngineConfig({film})));
  ASSERT_EQ(e.post("/control/reload").status, 200);
  EXPECT_TRUE(e.engine->entries().at("Film.mkv").probeReady);
  test::runTask(client.warmPending(e.control, {"Film.mkv"}));
  test::settle(200);
  EXPECT_EQ(e.log().find("failed"), std::string::npos) << e.log();
}
