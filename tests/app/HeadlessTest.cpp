#include <gtest/gtest.h>

#include <QProcess>
#include <csignal>
#include <filesystem>

#include "platform/Json.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;

// The real executable, started as a user would start it under a test home.
TEST(Headless, StartsRewritesADuplicatedLibraryAndQuitsCleanlyOnSigterm) {
  test::TestHome home;
  const auto library = home.file("library.json");
  ASSERT_TRUE(writeFileAtomically(library, R"([
    {"name":"Film (2000) {imdb-tt1}.mkv","url":"","size":1,"source":"stremio","resolvedAt":50},
    {"name":"Film (2000) {imdb-tt1}.mp4","url":"http://cdn/1","size":1,"source":"stremio","resolvedAt":10},
    {"name":"Other (2001) {imdb-tt2}.mkv","url":"http://cdn/2","size":1,"source":"stremio","resolvedAt":10}
  ])"));

  QProcess vantory;
  auto env = QProcessEnvironment::systemEnvironment();
  env.insert("VT_UITEST_HOME", QString::fromStdString(home.path()));
  env.remove("XCTestConfigurationFilePath");
  vantory.setProcessEnvironment(env);
  vantory.setProcessChannelMode(QProcess::MergedChannels);
  vantory.start(VT_VANTORY_BINARY, {"--headless"});
  ASSERT_TRUE(vantory.waitForStarted(5000));

  ASSERT_TRUE(test::spinUntil(
      [&] {
        auto j = json::parse(readFile(library).value_or(""));
        return j && j->size() == 2;
      },
      10000))
      << "the library was not rewritten";
  auto j = *json::parse(*readFile(library));
  EXPECT_EQ(j[0]["name"], "Film (2000) {imdb-tt1}.mp4");
  EXPECT_EQ(j[1]["name"], "Other (2001) {imdb-tt2}.mkv");

  ::kill(static_cast<pid_t>(vantory.processId()), SIGTERM);
  ASSERT_TRUE(vantory.waitForFinished(10000));
  EXPECT_EQ(vantory.exitStatus(), QProcess::NormalExit);
  EXPECT_EQ(vantory.exitCode(), 0);
  const auto output = vantory.readAll().toStdString();
  EXPECT_NE(output.find("[Vantory] started; 2 titles in the library"), std::string::npos) << output;
  EXPECT_NE(output.find("[Vantory] quitting"), std::string::npos) << output;
}

TEST(Headless, AUnitTestHostCreatesNothing) {
  test::TestHome home;
  QProcess vantory;
  auto env = QProcessEnvironment::systemEnvironment();
  env.insert("VT_UITEST_HOME", QString::fromStdString(home.path()));
  env.insert("XCTestConfigurationFilePath", "/dev/null");
  vantory.setProcessEnvironment(env);
  vantory.start(VT_VANTORY_BINARY, {"--headless"});
  ASSERT_TRUE(vantory.waitForStarted(5000));
  test::settle(300);
  ::kill(static_cast<pid_t>(vantory.processId()), SIGTERM);
  vantory.waitForFinished(5000);
  EXPECT_FALSE(std::filesystem::exists(home.file("settings.ini")));
  EXPECT_FALSE(std::filesystem::exists(home.file(".settings-owned")));
}
