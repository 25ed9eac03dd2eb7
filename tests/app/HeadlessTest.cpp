#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QProcess>
#include <csignal>
#include <filesystem>
#include <functional>

#include "core/AppConfig.h"
#include "platform/Json.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

// Runs the real executable with `arguments` under `home` until it exits or
// `done` holds for its output; then ends it with SIGTERM. Returns the output.
std::string runHeadless(const std::string& home, const QStringList& arguments,
                        const std::function<bool(const std::string&)>& done, int* exitCode = nullptr,
                        bool unitTestHost = false) {
  QProcess vantory;
  auto env = QProcessEnvironment::systemEnvironment();
  env.insert("VT_UITEST_HOME", QString::fromStdString(home));
  if (unitTestHost)
    env.insert("XCTestConfigurationFilePath", "/dev/null");
  else
    env.remove("XCTestConfigurationFilePath");
  vantory.setProcessEnvironment(env);
  vantory.setProcessChannelMode(QProcess::MergedChannels);
  vantory.start(VT_VANTORY_BINARY, arguments);
  if (!vantory.waitForStarted(5000)) return "did not start";
  std::string output;
  test::spinUntil(
      [&] {
        output += vantory.readAll().toStdString();
        return vantory.state() == QProcess::NotRunning || done(output);
      },
      20000);
  if (vantory.state() != QProcess::NotRunning) {
    ::kill(static_cast<pid_t>(vantory.processId()), SIGTERM);
    vantory.waitForFinished(10000);
  }
  output += vantory.readAll().toStdString();
  if (exitCode) *exitCode = vantory.exitStatus() == QProcess::NormalExit ? vantory.exitCode() : -1;
  return output;
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(Headless, StartsRewritesADuplicatedLibraryAndQuitsCleanlyOnSigterm) {
  test::TestHome home;
  const auto library = home.file("library.json");
  ASSERT_TRUE(writeFileAtomically(library, R"([
    {"name":"Film (2000) {imdb-tt1}.mkv","url":"","size":1,"source":"stremio","resolvedAt":50},
    {"name":"Film (2000) {imdb-tt1}.mp4","url":"http://cdn/1","size":1,"source":"stremio","resolvedAt":10},
    {"name":"Other (2001) {imdb-tt2}.mkv","url":"http://cdn/2","size":1,"source":"stremio","resolvedAt":10}
  ])"));
  int code = -1;
  const auto output = runHeadless(
      home.path(), {"--headless"},
      [&](const std::string&) {
        auto j = json::parse(readFile(library).value_or(""));
        return j && j->size() == 2;
      },
      &code);
  auto j = json::parse(readFile(library).value_or(""));
  ASSERT_TRUE(j && j->size() == 2) << "the library was not rewritten";
  EXPECT_EQ((*j)[0]["name"], "Film (2000) {imdb-tt1}.mp4");
  EXPECT_EQ((*j)[1]["name"], "Other (2001) {imdb-tt2}.mkv");
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(has(output, "[Vantory] started; 2 titles in the library")) << output;
  EXPECT_TRUE(has(output, "[Vantory] quitting")) << output;
}

TEST(Headless, AUnitTestHostCreatesNothing) {
  test::TestHome home;
  QElapsedTimer timer;
  timer.start();
  runHeadless(
      home.path(), {"--headless"}, [&](const std::string&) { return timer.elapsed() > 300; }, nullptr, true);
  EXPECT_FALSE(std::filesystem::exists(home.file("settings.ini")));
  EXPECT_FALSE(std::filesystem::exists(home.file(".settings-owned")));
}

TEST(Headless, TellsWhatItWaitsForAndShowsTheSupervisorsLinesOnStandardOutput) {
  test::TestHome home;
  // Nothing configured: it says what it waits for.
  auto first = runHeadless(home.path(), {"--headless"},
                           [](const std::string& out) { return has(out, "waiting for a Real-Debrid key"); });
  EXPECT_TRUE(has(first, "[Vantory] waiting for the Plex server")) << first;
  EXPECT_TRUE(has(first, "vantory-cli config set rdKey -")) << first;

  // Configured: the engine's start shows on standard output, as in the log file.
  {
    auto store = SettingsStore::openForTestHome(home.path());
    AppConfig config(*store);
    config.setPmsURLString("http://127.0.0.1:" + std::to_string(test::freePort()));
    config.setToken("plex-token");
    config.setRdKey("rd-key-headless");
    config.setControlURLString("http://127.0.0.1:" + std::to_string(test::freePort()));
  }
  auto second = runHeadless(home.path(), {"--headless"}, [](const std::string& out) {
    return has(out, "[supervisor] ready") || has(out, "[supervisor] start failed");
  });
  EXPECT_TRUE(has(second, "[supervisor] launched engine (pid ")) << second;
  EXPECT_FALSE(has(second, "waiting for a Real-Debrid key")) << second;
  EXPECT_FALSE(has(second, "rd-key-headless")) << "the key never reaches the output";
  const auto logFile = readFile(home.file("logs/vantory.log")).value_or("");
  EXPECT_TRUE(has(logFile, "[supervisor] launched engine (pid ")) << logFile;
}
