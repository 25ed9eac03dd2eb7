#include <gtest/gtest.h>

#include <QProcess>
#include <csignal>
#include <functional>

#include "core/AppConfig.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Runs the real executable headless under `home` until it exits or `done` holds, then sends SIGTERM.
std::string runHeadless(const std::string& home, int* exitCode, const std::function<bool(const std::string&)>& done) {
  QProcess p;
  auto env = QProcessEnvironment::systemEnvironment();
  env.insert("VT_UITEST_HOME", QString::fromStdString(home));
  env.remove("XCTestConfigurationFilePath");
  p.setProcessEnvironment(env);
  p.setProcessChannelMode(QProcess::MergedChannels);
  p.start(VT_VANTORY_BINARY, {"--headless"});
  if (!p.waitForStarted(5000)) return "did not start";
  std::string output;
  test::spinUntil(
      [&] { return (output += p.readAll().toStdString(), p.state() == QProcess::NotRunning) || done(output); }, 20000);
  if (p.state() != QProcess::NotRunning) ::kill(static_cast<pid_t>(p.processId()), SIGTERM);
  p.waitForFinished(10000);
  output += p.readAll().toStdString();
  if (exitCode) *exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
  return output;
}

}  // namespace

TEST(Headless, TellsWhatItWaitsForQuitsCleanlyOnSigtermAndShowsTheSupervisorsLinesWithoutTheKey) {
  test::TestHome home;
  int code = -1;
  auto first = runHeadless(home.path(), &code, [](auto& out) { return has(out, "waiting for a Real-Debrid key"); });
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(has(first, "[Vantory] started; ") && has(first, "[Vantory] waiting for the Plex server") &&
              has(first, "[Vantory] quitting"))
      << first;
  {
    auto store = SettingsStore::openForTestHome(home.path());
    AppConfig config(*store);
    config.setPmsURLString("http://127.0.0.1:" + std::to_string(test::freePort()));
    config.setToken("plex-token");
    config.setRdKey("rd-key-headless");
    config.setControlURLString("http://127.0.0.1:" + std::to_string(test::freePort()));
  }
  auto second = runHeadless(home.path(), nullptr, [](auto& out) {
    return has(out, "[supervisor] ready") || has(out, "[supervisor] start failed");
  });
  EXPECT_TRUE(has(second, "[supervisor] launched engine (pid ")) << second;
  EXPECT_FALSE(has(second, "rd-key-headless")) << "the key never reaches the output";
  EXPECT_TRUE(has(readFile(home.file("logs/vantory.log")).value_or(""), "[supervisor] launched engine (pid "));
}
