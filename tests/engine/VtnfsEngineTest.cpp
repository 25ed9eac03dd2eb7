// The engine driven in this process, for what its tree, log and control replies show directly.
#include <gtest/gtest.h>

#include <QFile>

#include "Engine.h"
#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "engine/LocalEngine.h"
#include "fakes/FakeHttpServer.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::entry;
using vt::test::LocalEngine;

TEST(VtnfsEngine, RefusesAFileNamedLikeAFolderOfOtherEntriesAndKeepsTheFolder) {
  test::TestHome home;
  LocalEngine e(home, {entry("A/b.mkv", "http://x/b"), entry("A", "http://x/a"), entry("A/c/d.mkv", "http://x/d")});
  ASSERT_TRUE(e.started);
  const auto& tree = e.engine->tree();
  const vtnfs::NfsNode* folder = tree.child(tree.root(), "A");
  ASSERT_TRUE(folder && folder->dir);
  EXPECT_TRUE(tree.child(*folder, "b.mkv"));
  EXPECT_TRUE(tree.fileForEntry("A/c/d.mkv"));
  EXPECT_EQ(e.engine->entries().size(), 2u);
  EXPECT_NE(e.log().find("refused entry \"A\": a folder of that name holds other entries"), std::string::npos)
      << e.log();
}

TEST(VtnfsEngine, AReloadOfAManifestThatDoesNotReadAnswersAnErrorAndKeepsTheEntries) {
  test::TestHome home;
  LocalEngine e(home, {entry("A.mkv", "http://x/a")});
  ASSERT_TRUE(e.started);
  ASSERT_TRUE(writeFileAtomically(e.manifest, "{\"entries\": [ not json"));
  auto reply = e.post("/control/reload");
  EXPECT_EQ(reply.status, 422);
  EXPECT_NE(reply.body.indexOf("is not a valid manifest"), -1) << reply.body.toStdString();
  EXPECT_EQ(e.engine->entries().size(), 1u);
  ASSERT_TRUE(QFile::remove(QString::fromStdString(e.manifest)));
  reply = e.post("/control/reload");
  EXPECT_EQ(reply.status, 500);
  EXPECT_NE(reply.body.indexOf("could not be read"), -1) << reply.body.toStdString();
  EXPECT_TRUE(e.engine->tree().fileForEntry("A.mkv"));
}

TEST(VtnfsEngine, EscapesControlCharactersInEveryLogLine) {
  test::TestHome home;
  LocalEngine e(home, {entry("bad//name\n2024-01-01 00:00:00 forged line", "http://x/a")});
  ASSERT_TRUE(e.started);
  e.engine->log(std::string("tab\there, bell\a, escape\x1b[31m, delete\x7f, next line\xc2\x85."));
  bool sawRefusal = false, sawEscapes = false;
  for (const auto& line : e.logLines()) {
    for (char c : line) EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << line;
    EXPECT_EQ(line.find("\xc2\x85"), std::string::npos) << line;
    sawRefusal |= line.find("bad//name\\n2024-01-01 00:00:00 forged line") != std::string::npos;
    sawEscapes |=
        line.find("tab\\there, bell\\x07, escape\\x1b[31m, delete\\x7f, next line\\u0085.") != std::string::npos;
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
}
