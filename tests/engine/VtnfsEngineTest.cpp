// The engine driven in this process, for what its tree, log and control replies show directly.
#include <gtest/gtest.h>

#include <QFile>
#include <memory>
#include <sstream>

#include "Engine.h"
#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "engine/LocalEngine.h"
#include "fakes/FakeHttpServer.h"
#include "platform/Http.h"
#include "platform/SerialFileWriter.h"

using namespace vt;

namespace {

using vt::test::entry;
using vt::test::LocalEngine;

}  // namespace

TEST(VtnfsEngine, RefusesAFileNamedLikeAFolderOfOtherEntriesAndKeepsTheFolder) {
  test::TestHome home;
  LocalEngine e(home, {entry("A/b.mkv", "http://x/b"), entry("A", "http://x/a"), entry("A/c/d.mkv", "http://x/d"),
                       entry("B", "http://x/B")});
  ASSERT_TRUE(e.started);
  const auto& tree = e.engine->tree();
  const vtnfs::NfsNode* folder = tree.child(tree.root(), "A");
  ASSERT_TRUE(folder);
  EXPECT_TRUE(folder->dir);
  EXPECT_TRUE(tree.child(*folder, "b.mkv"));
  EXPECT_TRUE(tree.fileForEntry("A/c/d.mkv"));
  EXPECT_FALSE(e.engine->entries().count("A"));
  EXPECT_EQ(e.engine->entries().size(), 3u);
  EXPECT_NE(e.log().find("refused entry \"A\": a folder of that name holds other entries"), std::string::npos)
      << e.log();

  // The same holds when the clash comes with a reload.
  ASSERT_TRUE(
      writeFileAtomically(e.manifest, encodeEngineConfig({entry("B/x.mkv", "http://x/x"), entry("B", "http://x/B")})));
  EXPECT_EQ(e.post("/control/reload").status, 200);
  EXPECT_TRUE(tree.fileForEntry("B/x.mkv"));
  EXPECT_FALSE(e.engine->entries().count("B"));
}

TEST(VtnfsEngine, AReloadOfAManifestThatDoesNotReadAnswersAnErrorAndKeepsTheEntries) {
  test::TestHome home;
  LocalEngine e(home, {entry("A.mkv", "http://x/a")});
  ASSERT_TRUE(e.started);

  ASSERT_TRUE(writeFileAtomically(e.manifest, "{\"entries\": [ not json"));
  auto reply = e.post("/control/reload");
  EXPECT_EQ(reply.status, 422);
  ASSERT_TRUE(reply.json() && reply.json()->contains("error")) << reply.body.toStdString();
  EXPECT_NE(reply.body.indexOf("is not a valid manifest"), -1) << reply.body.toStdString();
  EXPECT_FALSE(reply.body.contains("deferred"));
  EXPECT_EQ(e.engine->entries().size(), 1u);

  ASSERT_TRUE(QFile::remove(QString::fromStdString(e.manifest)));
  reply = e.post("/control/reload");
  EXPECT_EQ(reply.status, 500);
  ASSERT_TRUE(reply.json() && reply.json()->contains("error")) << reply.body.toStdString();
  EXPECT_NE(reply.body.indexOf("could not be read"), -1) << reply.body.toStdString();
  EXPECT_TRUE(e.engine->tree().fileForEntry("A.mkv"));

  // A good manifest reloads as before.
  ASSERT_TRUE(writeFileAtomically(e.manifest, encodeEngineConfig({entry("B.mkv", "http://x/b")})));
  reply = e.post("/control/reload");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, R"({"deferred":0})");
  EXPECT_TRUE(e.engine->tree().fileForEntry("B.mkv"));
}

TEST(VtnfsEngine, ALocalSizeLearntByWarmingShowsInTheListingAtOnce) {
  test::TestHome home;
  const auto local = home.file("local.bin");
  const std::string content(3 * 1024 * 1024 + 17, 'v');
  ASSERT_TRUE(writeFileAtomically(local, content));
  LocalEngine e(home, {entry("Local.mkv", "", local)});
  ASSERT_TRUE(e.started);
  EXPECT_EQ(e.engine->tree().fileForEntry("Local.mkv")->size, 1234);

  EngineStatusClient client(sharedHttpClient());
  test::runTask(client.warmPending(e.control, {"Local.mkv"}));
  ASSERT_TRUE(test::spinUntil([&] { return e.engine->entries().at("Local.mkv").probeReady; }));
  const vtnfs::NfsNode* file = e.engine->tree().fileForEntry("Local.mkv");
  ASSERT_TRUE(file);
  EXPECT_EQ(file->size, static_cast<int64_t>(content.size()));
  EXPECT_EQ(e.engine->tree().totalBytes(), static_cast<int64_t>(content.size()));
}

TEST(VtnfsEngine, EscapesControlCharactersInEveryLogLine) {
  test::TestHome home;
  LocalEngine e(home,
                {entry("bad//name\n2024-01-01 00:00:00 forged line", "http://x/a"), entry("Good.mkv", "http://x/g")});
  ASSERT_TRUE(e.started);
  e.engine->log(std::string("tab\there, bell\a, escape\x1b[31m, delete\x7f, next line\xc2\x85."));

  const auto lines = e.logLines();
  ASSERT_FALSE(lines.empty());
  bool sawRefusal = false, sawEscapes = false;
  for (const auto& line : lines) {
    for (char c : line) EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << line;
    EXPECT_EQ(line.find("\xc2\x85"), std::string::npos) << line;
    // A name's line break may not start a line of its own.
    if (line.find("forged line") != std::string::npos) {
      EXPECT_NE(line.find("bad//name\\n2024-01-01 00:00:00 forged line"), std::string::npos) << line;
      sawRefusal = true;
    }
    if (line.find("tab\\there, bell\\x07, escape\\x1b[31m, delete\\x7f, next line\\u0085.") != std::string::npos)
      sawEscapes = true;
  }
  EXPECT_TRUE(sawRefusal) << e.log();
  EXPECT_TRUE(sawEscapes) << e.log();
}

TEST(VtnfsEngine, GoingAwayClosesTheWarmersOpenRequest) {
  test::TestHome home;
  test::FakeHttpServer cdn;
  cdn.on("GET", "/film.mkv", [](const auto&, test::FakeHttpServer::Reply& reply) { reply.hold(); });
  LocalEngine e(home, {entry("Film.mkv", cdn.url("/film.mkv").toString().toStdString())});
  ASSERT_TRUE(e.started);
  EngineStatusClient client(sharedHttpClient());
  test::runTask(client.warmPending(e.control, {"Film.mkv"}));
  ASSERT_TRUE(test::spinUntil([&] { return cdn.requests().size() == 1; }));

  e.engine.reset();
  EXPECT_TRUE(test::spinUntil([&] { return cdn.abandonedRequests() == 1; }));
  test::settle(50);
  EXPECT_EQ(e.log().find("warming"), std::string::npos) << e.log();
  EXPECT_EQ(e.log().find("source 1"), std::string::npos) << e.log();
}
