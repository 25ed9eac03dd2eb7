// The engine's process lifecycle against the real vtnfs, on virtual time.
#include <gtest/gtest.h>
#include <signal.h>

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QScopeGuard>
#include <QTcpServer>
#include <optional>

#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineSupervisor.h"
#include "engine/EngineTestKit.h"
#include "plex/PlexLibrarySetup.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Mounts.h"
#include "platform/ProcessTable.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"

using namespace vt;

namespace {

// Mounts nothing; records what it was asked.
class RecordingMounter : public LibraryMounter {
 public:
  QCoro::Task<MountResult> mount(int port, std::string folder, CancelToken) override {
    mounts.push_back(folder + ":" + std::to_string(port));
    if (mountGate) {
      Completion gate = *mountGate;
      co_await gate;
    }
    if (mountStatus == 0) co_return MountResult();
    co_return Failure(MountError{MountError::Kind::failed, "mount: permission denied"});
  }
  QCoro::Task<MountResult> unmount(std::string folder, CancelToken) override {
    unmounts.push_back(folder);
    co_return Failure(MountError{MountError::Kind::notMounted, {}});
  }
  MountResult unmountNow(const std::string& folder) override {
    unmounts.push_back(folder);
    return Failure(MountError{MountError::Kind::notMounted, {}});
  }
  std::vector<std::string> mounts, unmounts;
  int mountStatus = 0;
  std::optional<Completion> mountGate;  // set: mounts wait for it
};

// Turns the event loop and moves virtual time on in `step`s until `done`.
bool drive(ManualClock& clock, const std::function<bool()>& done, double step = 0.1, int realLimitMs = 60000) {
  QElapsedTimer t;
  t.start();
  while (!done()) {
    if (t.elapsed() > realLimitMs) return false;
    test::settle(2);
    if (done()) break;
    clock.advance(step);
  }
  return true;
}

// One application process: settings, library and supervisor over a data
// folder that several of them can share.
struct App {
  App(const std::string& home, ManualClock& clock, LibraryMounter& mounter, quint16 controlPort, quint16 nfsPort,
      std::string version = "0.1.0", std::string rdKey = "rd-key-1")
      : clock(clock),
        store(home + "/settings.ini"),
        config(store),
        library(home + "/library.json", clock),
        http(clock, HttpClient::Session::ephemeral) {
    config.setControlURLString("http://127.0.0.1:" + std::to_string(controlPort));
    config.setRdKey(rdKey);
    EngineSupervisorEnvironment env;
    env.clock = &clock;
    env.http = &http;
    env.mounter = &mounter;
    env.dataDirectory = home;
    env.bundledEngine = VT_VTNFS_BINARY;
    env.appVersion = std::move(version);
    env.log = [this, &clock](const std::string& line) { lines.emplace_back(clock.now(), line); };
    env.prepareLibrary = libraryPreparer(plex, library, env.log);
    env.playbackActive = [this] { return playback; };
    env.probeFolder = [](std::string, double) -> QCoro::Task<bool> { co_return true; };
    env.mediaServerAccessProblem = [this](const std::string&) { return plexProblem; };
    supervisor = std::make_unique<EngineSupervisor>(config, library, std::move(env));
    supervisor->movie().paths.nfsAddress = "127.0.0.1:" + std::to_string(nfsPort);
    QObject::connect(supervisor.get(), &EngineSupervisor::stateChanged,
                     [this, &clock] { stateTimes.emplace_back(clock.now(), supervisor->state()); });
  }
  ~App() {  // a leftover engine must not outlive the test
    if (supervisor)
      if (auto pid = supervisor->movie().runningPid()) ::kill(*pid, SIGKILL);
  }

  // Lines containing `text`, with their virtual times.
  std::vector<std::pair<Date, std::string>> linesWith(const std::string& text) const {
    std::vector<std::pair<Date, std::string>> out;
    for (const auto& l : lines)
      if (l.second.find(text) != std::string::npos) out.push_back(l);
    return out;
  }
  bool everRunning() const {
    return std::any_of(stateTimes.begin(), stateTimes.end(), [](auto& s) { return s.second == EngineState::running; });
  }

  // Starts the movie engine and drives time until its state is `until`.
  bool startUntil(EngineState until) {
    Job::start([this](CancelToken) { return supervisor->start(); });
    return drive(clock, [&] { return supervisor->state() == until; });
  }
  bool stop() {
    Job::start([this](CancelToken) { return supervisor->stopInstance(supervisor->movie()); });
    return drive(clock, [&] { return supervisor->state() == EngineState::stopped; });
  }

  ManualClock& clock;
  SettingsStore store;
  AppConfig config;
  LibraryStore library;
  HttpClient http;  // its timeouts run on the virtual clock
  PMSClientFactory plex{config, http};
  bool playback = false;
  std::optional<std::string> plexProblem;  // what the readability check finds
  std::unique_ptr<EngineSupervisor> supervisor;
  std::vector<std::pair<Date, std::string>> lines;
  std::vector<std::pair<Date, EngineState>> stateTimes;

  std::optional<Date> nextStartAfter(Date t) const {
    for (const auto& [at, state] : stateTimes)
      if (at > t && state == EngineState::starting) return at;
    return std::nullopt;
  }
};

// Two control ports two apart (movie and tv) that are free now.
quint16 freeControlPort() {
  for (int i = 0; i < 50; ++i) {
    const quint16 p = test::freePort();
    QTcpServer probe;
    if (p < 65000 && probe.listen(QHostAddress::LocalHost, p + 2)) return p;
  }
  return test::freePort();
}

}  // namespace

class EngineSupervisorTest : public ::testing::Test {
 protected:
  App& standardApp() { return app_.emplace(home.path(), clock, mounter, freeControlPort(), test::freePort()); }

  test::TestHome home;
  ManualClock clock;
  RecordingMounter mounter;
  std::optional<App> app_;
};

TEST_F(EngineSupervisorTest, ACrashLoopBacksOffTwoToThirtyTwoSecondsThenGivesUp) {
  App& app = standardApp();
  auto& sup = *app.supervisor;
  int kills = 0;
  QObject::connect(&sup, &EngineSupervisor::stateChanged, [&] {
    if (sup.state() == EngineState::running) {
      ++kills;
      ::kill(*sup.movie().runningPid(), SIGKILL);
    }
  });
  ASSERT_TRUE(app.startUntil(EngineState::failed));

  EXPECT_EQ(kills, 6);
  EXPECT_EQ(sup.stuck(), std::set<EngineKind>{EngineKind::movie});
  EXPECT_EQ(sup.lastError(), "Vantory stopped unexpectedly.");
  ASSERT_EQ(app.linesWith("giving up after 5 attempts").size(), 1u);
  const auto waits = app.linesWith("will restart");
  ASSERT_EQ(waits.size(), 5u);
  ASSERT_EQ(app.linesWith("launched engine").size(), 6u);
  const int delays[] = {2, 4, 8, 16, 32};
  for (int i = 0; i < 5; ++i) {
    EXPECT_NE(waits[i].second.find("(attempt " + std::to_string(i + 1) + "/5) in " + std::to_string(delays[i]) + "s"),
              std::string::npos)
        << waits[i].second;
    // The restart begins when the delay has passed (within one clock step), not before.
    const auto restart = app.nextStartAfter(waits[i].first);
    ASSERT_TRUE(restart) << i;
    EXPECT_GE(*restart - waits[i].first, delays[i] - 1e-9) << i;
    EXPECT_LT(*restart - waits[i].first, delays[i] + 0.15) << i;
  }
  EXPECT_NE(waits[0].second.find("[supervisor] engine exited unexpectedly (status 9)"), std::string::npos)
      << waits[0].second;
  EXPECT_EQ(app.linesWith("disconnected library folder after unexpected exit").size(), 6u);
}

TEST_F(EngineSupervisorTest, ACrashAfterThirtySecondsOfRunningRestartsAfterTwoSeconds) {
  App& app = standardApp();
  auto& sup = *app.supervisor;
  app.plexProblem = "the account \"plex\" may not enter /home/u";
  ASSERT_TRUE(app.startUntil(EngineState::running));
  const auto ready = app.linesWith("[supervisor] ready — library folder at " + home.path() + "/Library");
  ASSERT_EQ(ready.size(), 1u);
  // Running all the same, with the reason Plex sees nothing right after.
  const auto at = std::find(app.lines.begin(), app.lines.end(), ready[0]);
  ASSERT_NE(at + 1, app.lines.end());
  EXPECT_EQ((at + 1)->second, "[supervisor] warning: Plex can't read the library folder: " + *app.plexProblem);
  EXPECT_EQ(sup.mediaServerAccessProblem(EngineKind::movie), app.plexProblem);
  app.plexProblem.reset();

  // A quick crash uses an attempt, which 30 s of running gives back.
  ::kill(*sup.movie().runningPid(), SIGKILL);
  ASSERT_TRUE(drive(clock, [&] { return !app.linesWith("(attempt 1/5) in 2s").empty(); }));
  ASSERT_TRUE(drive(clock, [&] { return sup.state() == EngineState::running; }));
  const Date runningSince = clock.now();
  ASSERT_TRUE(drive(
      clock, [&] { return clock.now() >= runningSince + 31; }, 0.5));
  EXPECT_EQ(sup.movie().restartAttempts, 0);
  ::kill(*sup.movie().runningPid(), SIGKILL);
  ASSERT_TRUE(drive(clock, [&] { return app.linesWith("will restart").size() == 2; }));
  EXPECT_NE(app.linesWith("will restart").back().second.find("(attempt 1/5) in 2s"), std::string::npos);
  ASSERT_TRUE(drive(clock, [&] { return sup.state() == EngineState::running; }));
  ASSERT_TRUE(app.stop());
  EXPECT_FALSE(QFile::exists(QString::fromStdString(sup.movie().paths.pidFile)));
}

TEST_F(EngineSupervisorTest, ANewApplicationProcessAdoptsTheRunningEngineAndReplacesAnOtherVersionOnlyWhenIdle) {
  // Adopted engines are watched by polling, as where a sandbox refuses pidfds.
  ProcessExitWatch::setPidfdAllowed(false);
  const auto restore = qScopeGuard([] { ProcessExitWatch::setPidfdAllowed(true); });
  const quint16 control = freeControlPort(), nfs = test::freePort();
  int enginePid = 0;
  {
    App first(home.path(), clock, mounter, control, nfs);
    Job::start([&](CancelToken) { return first.supervisor->start(); });
    ASSERT_TRUE(drive(clock, [&] { return first.supervisor->state() == EngineState::running; }));
    enginePid = *first.supervisor->movie().runningPid();
    first.supervisor.reset();  // the application quits; the engine stays
  }
  ASSERT_TRUE(processExists(enginePid));

  // Same version, same key: adopted, nothing launched, the folder kept.
  {
    App second(home.path(), clock, mounter, control, nfs);
    auto& sup = *second.supervisor;
    mounter.unmounts.clear();
    Job::start([&](CancelToken) { return sup.prepare(false); });
    ASSERT_TRUE(drive(clock, [&] { return sup.state() == EngineState::running; }));
    EXPECT_EQ(
        second.linesWith("[supervisor] adopted the running engine (pid " + std::to_string(enginePid) + ", vtnfs 0.1.0)")
            .size(),
        1u);
    EXPECT_TRUE(second.linesWith("launched engine").empty());
    EXPECT_EQ(sup.movie().adoptedPID, enginePid);
    EXPECT_EQ(sup.movie().launchedRDKey, "rd-key-1");
    EXPECT_EQ(readFile(sup.movie().paths.pidFile), std::to_string(enginePid));
    EXPECT_EQ(std::count(mounter.unmounts.begin(), mounter.unmounts.end(), home.path() + "/Library"), 0);
    sup.stopLogTails();
    second.supervisor.reset();
  }

  // Another key and version: adopted, replaced 60 s later at the earliest and not while something plays.
  App third(home.path(), clock, mounter, control, nfs, "9.9.9", "rd-key-2");
  auto& sup = *third.supervisor;
  Job::start([&](CancelToken) { return sup.prepare(false); });
  ASSERT_TRUE(drive(clock, [&] { return sup.state() == EngineState::running; }));
  EXPECT_EQ(sup.movie().launchedRDKey, std::nullopt);
  const Date adoptedAt = clock.now();
  third.playback = true;
  ASSERT_TRUE(drive(
      clock, [&] { return clock.now() > adoptedAt + 200; }, 1.0));
  EXPECT_TRUE(third.linesWith("replacing the engine").empty());
  EXPECT_EQ(sup.movie().adoptedPID, enginePid);
  third.playback = false;
  ASSERT_TRUE(drive(
      clock, [&] { return !third.linesWith("launched engine").empty(); }, 0.5));
  const auto replacing = third.linesWith("replacing the engine");
  ASSERT_EQ(replacing.size(), 1u);
  EXPECT_EQ(replacing[0].second, "[supervisor] replacing the engine — it's vtnfs 0.1.0 and this is Vantory 9.9.9");
  EXPECT_GE(replacing[0].first, adoptedAt + 60);
  ASSERT_TRUE(drive(clock, [&] { return sup.state() == EngineState::running; }));
  EXPECT_EQ(sup.movie().launchedRDKey, "rd-key-2");
  EXPECT_TRUE(test::spinUntil([&] { return !processExists(enginePid); }));
  ASSERT_TRUE(third.stop());
}

TEST_F(EngineSupervisorTest, LeftoversThatAreNotTheEngineAreNeverKilled) {
  const quint16 control = freeControlPort();
  App app(home.path(), clock, mounter, control, test::freePort());
  auto& sup = *app.supervisor;

  // A stale pid file naming another live program: only the file goes.
  QProcess sleeper;
  sleeper.start("sleep", {"30"});
  ASSERT_TRUE(sleeper.waitForStarted());
  const int sleeperPid = static_cast<int>(sleeper.processId());
  ASSERT_TRUE(writeFileAtomically(sup.movie().paths.pidFile, std::to_string(sleeperPid)));
  test::runTask(sup.cleanOrphanFromPidFile(sup.movie().paths.pidFile));
  EXPECT_FALSE(QFile::exists(QString::fromStdString(sup.movie().paths.pidFile)));
  EXPECT_TRUE(processExists(sleeperPid));
  EXPECT_TRUE(app.linesWith("cleaned up orphaned engine").empty());

  // A real orphaned engine named in the pid file is killed.
  test::TestHome other;
  ASSERT_TRUE(writeFileAtomically(other.file("entries.json"), encodeEngineConfig({})));
  EngineStatusClient client(sharedHttpClient());
  test::VtnfsProcess orphan(other.file("entries.json"), other.file("engine.log"));
  ASSERT_TRUE(orphan.waitReady(client));
  const int orphanPid = static_cast<int>(orphan.process.processId());
  ASSERT_TRUE(writeFileAtomically(sup.movie().paths.pidFile, std::to_string(orphanPid)));
  test::runTask(sup.cleanOrphanFromPidFile(sup.movie().paths.pidFile));
  EXPECT_TRUE(orphan.process.waitForFinished(5000));
  EXPECT_EQ(app.linesWith("[supervisor] cleaned up orphaned engine (pid " + std::to_string(orphanPid) + ")").size(),
            1u);

  // The port holder lookup names only a vtnfs, not this test squatting on the control port.
  EXPECT_EQ(test::runTask(sup.portHolderPid(sup.movie(), CancelToken::none())), std::nullopt);
  QTcpServer squatter;
  ASSERT_TRUE(squatter.listen(QHostAddress::LocalHost, control));
  EXPECT_EQ(listeningPids(control), std::vector<int>{static_cast<int>(::getpid())});
  EXPECT_EQ(test::runTask(sup.portHolderPid(sup.movie(), CancelToken::none())), std::nullopt);

  // Starting while it squats fails at the health check, and this process survives.
  Job::start([&](CancelToken) { return sup.start(); });
  ASSERT_TRUE(drive(
      clock, [&] { return sup.state() == EngineState::failed; }, 0.5));
  EXPECT_EQ(sup.lastError(), "Vantory didn't start in time. Try quitting and reopening the app.");
  EXPECT_EQ(app.linesWith("[supervisor] start failed: Vantory didn't start in time.").size(), 1u);
  EXPECT_TRUE(app.linesWith("stopped a leftover engine").empty());
  sleeper.kill();
  sleeper.waitForFinished();
}

TEST_F(EngineSupervisorTest, FailedOrStoppedStartsSayWhatHappenedAndEachLaunchStartsAFreshEngineLog) {
  App& app = standardApp();
  auto& sup = *app.supervisor;
  // A manifest that can't be written fails the start and claims nothing.
  const QString manifest = QString::fromStdString(sup.movie().paths.configURL);
  ASSERT_TRUE(QDir().mkpath(manifest));
  ASSERT_TRUE(app.startUntil(EngineState::failed));
  EXPECT_EQ(app.linesWith("[supervisor] start failed: Couldn't write the engine's manifest: ").size(), 1u);
  EXPECT_TRUE(app.linesWith("launched engine").empty());
  EXPECT_EQ(sup.movie().lastConfigFingerprint, std::nullopt);
  EXPECT_EQ(sup.movie().lastVisibleConfigFingerprint, std::nullopt);
  ASSERT_TRUE(QDir().rmdir(manifest));

  // Plex down: the engine runs all the same. An old launch's log lines are not shown as new.
  app.config.setPmsURLString("http://127.0.0.1:" + std::to_string(test::freePort()));
  app.config.setToken("plex-token");
  const std::string logFile = sup.movie().paths.logFile;
  ASSERT_TRUE(writeFileAtomically(logFile, "2020-01-01 00:00:00 vtnfs 0.0.1 serving 7 entries (pid 42)\n"));
  ASSERT_TRUE(app.startUntil(EngineState::running));
  EXPECT_EQ(app.linesWith("[supervisor] library setup skipped: ").size(), 1u);
  ASSERT_TRUE(drive(clock, [&] { return !app.linesWith(" serving ").empty(); }));
  EXPECT_TRUE(app.linesWith("(pid 42)").empty());
  EXPECT_EQ(readFile(logFile + ".1").value_or(""), "2020-01-01 00:00:00 vtnfs 0.0.1 serving 7 entries (pid 42)\n")
      << "the previous log is kept once";
  const auto serving = app.linesWith(" serving ");
  ASSERT_EQ(serving.size(), 1u);
  EXPECT_EQ(serving[0].second.rfind("vtnfs ", 0), 0u) << "the engine's own stamp is dropped: " << serving[0].second;

  // A second launch: again a fresh file, and the first launch's lines shown once.
  ASSERT_TRUE(app.stop());
  ASSERT_TRUE(app.startUntil(EngineState::running));
  ASSERT_TRUE(drive(clock, [&] { return app.linesWith(" serving ").size() >= 2; }));
  clock.advance(2);
  test::settle(50);
  EXPECT_EQ(app.linesWith(" serving ").size(), 2u);
  EXPECT_EQ(app.linesWith("(pid 42)").size(), 0u);
  ASSERT_TRUE(app.stop());

  // A stop while the folder is being connected: if the mount then succeeds the start is abandoned;
  // if it fails, that failure is reported.
  for (const int mountStatus : {0, 32}) {
    SCOPED_TRACE(mountStatus);
    app.lines.clear();
    app.stateTimes.clear();
    mounter.mounts.clear();
    mounter.mountStatus = mountStatus;
    mounter.mountGate.emplace();
    auto start = Job::start([&](CancelToken) { return sup.start(); });
    ASSERT_TRUE(drive(clock, [&] { return !mounter.mounts.empty(); }));
    auto stop = Job::start([&](CancelToken) { return sup.stopInstance(sup.movie()); });
    ASSERT_TRUE(drive(clock, [&] { return !stop.isRunning(); }));
    mounter.mountGate->fire();
    ASSERT_TRUE(drive(clock, [&] { return !start.isRunning(); }));
    EXPECT_FALSE(app.everRunning());
    EXPECT_FALSE(sup.movie().runningPid());
    if (mountStatus == 0) {
      EXPECT_EQ(sup.state(), EngineState::stopped);
      EXPECT_EQ(app.linesWith("[supervisor] start abandoned — stopped while starting").size(), 1u);
      EXPECT_TRUE(app.linesWith("start failed").empty());
      EXPECT_EQ(sup.lastError(), std::nullopt);
    } else {
      EXPECT_EQ(sup.state(), EngineState::failed);
      EXPECT_EQ(app.linesWith("[supervisor] library folder connect failed: mount: permission denied").size(), 1u);
      EXPECT_EQ(app.linesWith("[supervisor] start failed: Couldn't connect Plex to your library folder.").size(), 1u);
      EXPECT_TRUE(app.linesWith("start abandoned").empty());
      EXPECT_EQ(sup.lastError(), "Couldn't connect Plex to your library folder. Try quitting and reopening Vantory.");
    }
  }
}
