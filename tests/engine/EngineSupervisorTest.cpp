#include <gtest/gtest.h>
#include <signal.h>

#include <QElapsedTimer>
#include <QProcess>
#include <QScopeGuard>
#include <QTcpServer>

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
    std::optional<Completion> gate = mountGate;
    if (gate) co_await *gate;
    if (mountStatus == 0) co_return MountResult();
    co_return Failure(MountError{MountError::Kind::failed, "mount: permission denied"});
  }
  QCoro::Task<MountResult> unmount(std::string, CancelToken) override { co_return unmountNow({}); }
  MountResult unmountNow(const std::string&) override { return Failure(MountError{MountError::Kind::notMounted, {}}); }
  std::vector<std::string> mounts;
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
// One application process: settings, library and supervisor over a data folder that several can share.
struct App {
  App(const std::string& home, ManualClock& clock, LibraryMounter& mounter, quint16 controlPort, quint16 nfsPort,
      std::string version = "0.1.0", std::string rdKey = "rd-key-1", PlexSyncFactory makePlexSync = {})
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
    env.makePlexSync = std::move(makePlexSync);
    supervisor = std::make_unique<EngineSupervisor>(config, library, std::move(env));
    supervisor->movie().paths.nfsAddress = "127.0.0.1:" + std::to_string(nfsPort);
    QObject::connect(supervisor.get(), &EngineSupervisor::stateChanged,
                     [this, &clock] { stateTimes.emplace_back(clock.now(), supervisor->state()); });
  }
  ~App() {  // a leftover engine must not outlive the test
    if (!supervisor) return;
    if (auto pid = supervisor->movie().runningPid()) ::kill(*pid, SIGKILL);
    if (auto* tv = supervisor->tvInstanceIfAny())
      if (auto pid = tv->runningPid()) ::kill(*pid, SIGKILL);
  }
  std::vector<std::pair<Date, std::string>> linesWith(const std::string& text) const {
    std::vector<std::pair<Date, std::string>> out;
    for (const auto& l : lines)
      if (l.second.find(text) != std::string::npos) out.push_back(l);
    return out;
  }
  std::optional<std::string> plexProblem;  // what the readability check finds
  bool everRunning() const {
    return std::any_of(stateTimes.begin(), stateTimes.end(), [](auto& s) { return s.second == EngineState::running; });
  }
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
  HttpClient http;
  PMSClientFactory plex{config, http};
  bool playback = false;
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
    if (sup.state() == EngineState::running) ++kills, ::kill(*sup.movie().runningPid(), SIGKILL);
  });
  ASSERT_TRUE(app.startUntil(EngineState::failed));
  EXPECT_EQ(kills, 6);
  EXPECT_EQ(sup.stuck(), std::set<EngineKind>{EngineKind::movie});
  EXPECT_EQ(sup.lastError(), "Vantory stopped unexpectedly.");
  ASSERT_EQ(app.linesWith("giving up after 5 attempts").size(), 1u);
  const auto waits = app.linesWith("will restart");
  ASSERT_EQ(waits.size(), 5u);
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
  EXPECT_NE(waits[0].second.find("[supervisor] engine exited unexpectedly (status 9)"), std::string::npos);
  EXPECT_EQ(app.linesWith("disconnected library folder after unexpected exit").size(), 6u);
}

TEST_F(EngineSupervisorTest, ANewApplicationProcessAdoptsTheRunningEngineAndReplacesAnOtherVersionOnlyWhenIdle) {
  // Adopted engines are watched by polling, as where a sandbox refuses pidfds.
  ProcessExitWatch::setPidfdAllowed(false);
  const auto restore = qScopeGuard([] { ProcessExitWatch::setPidfdAllowed(true); });
  const quint16 control = freeControlPort(), nfs = test::freePort();
  int enginePid = 0;
  {
    App first(home.path(), clock, mounter, control, nfs);
    first.plexProblem = "the account \"plex\" may not enter /home/u";
    ASSERT_TRUE(first.startUntil(EngineState::running));
    // Running all the same, with the reason Plex sees nothing right after the ready line.
    const auto ready = std::find_if(first.lines.begin(), first.lines.end(),
                                    [](const auto& l) { return l.second.find(" ready — ") != std::string::npos; });
    ASSERT_TRUE(ready != first.lines.end() && ready + 1 != first.lines.end());
    EXPECT_EQ((ready + 1)->second, "[supervisor] warning: Plex can't read the library folder: " + *first.plexProblem);
    EXPECT_EQ(first.supervisor->mediaServerAccessProblem(EngineKind::movie), first.plexProblem);
    enginePid = *first.supervisor->movie().runningPid();
    first.supervisor.reset();  // the application quits; the engine stays
  }
  // Another key and version: adopted, then replaced 60 s later at the earliest and not while something plays.
  App third(home.path(), clock, mounter, control, nfs, "9.9.9", "rd-key-2");
  auto& sup = *third.supervisor;
  Job::start([&](CancelToken) { return sup.prepare(false); });
  ASSERT_TRUE(drive(clock, [&] { return sup.state() == EngineState::running; }));
  EXPECT_EQ(third.linesWith("adopted the running engine (pid " + std::to_string(enginePid) + ", vtnfs 0.1.0)").size(),
            1u);
  EXPECT_EQ(sup.movie().launchedRDKey, std::nullopt);
  const Date adoptedAt = clock.now();
  third.playback = true;
  ASSERT_TRUE(drive(
      clock, [&] { return clock.now() > adoptedAt + 200; }, 1.0));
  EXPECT_TRUE(third.linesWith("replacing the engine").empty());
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
  const auto stopSleeper = qScopeGuard([&] { sleeper.kill(), sleeper.waitForFinished(); });
  const int sleeperPid = static_cast<int>(sleeper.processId());
  ASSERT_TRUE(writeFileAtomically(sup.movie().paths.pidFile, std::to_string(sleeperPid)));
  test::runTask(sup.cleanOrphanFromPidFile(sup.movie().paths.pidFile));
  EXPECT_FALSE(QFile::exists(QString::fromStdString(sup.movie().paths.pidFile)));
  EXPECT_TRUE(processExists(sleeperPid));
  // This test squatting on the control port is no engine to stop, and it survives a start that fails because of it.
  QTcpServer squatter;
  ASSERT_TRUE(squatter.listen(QHostAddress::LocalHost, control));
  EXPECT_EQ(test::runTask(sup.portHolderPid(sup.movie(), CancelToken::none())), std::nullopt);
  Job::start([&](CancelToken) { return sup.start(); });
  ASSERT_TRUE(drive(
      clock, [&] { return sup.state() == EngineState::failed; }, 0.5));
  EXPECT_EQ(sup.lastError(), "Vantory didn't start in time. Try quitting and reopening the app.");
  EXPECT_TRUE(app.linesWith("stopped a leftover engine").empty());
}

TEST_F(EngineSupervisorTest, AStopWhileTheFolderIsBeingConnectedAbandonsTheStartOrReportsTheMountFailure) {
  App& app = standardApp();
  auto& sup = *app.supervisor;
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
    EXPECT_EQ(sup.state(), mountStatus == 0 ? EngineState::stopped : EngineState::failed);
    EXPECT_EQ(app.linesWith(mountStatus == 0 ? "[supervisor] start abandoned — stopped while starting"
                                             : "[supervisor] library folder connect failed: mount: permission denied")
                  .size(),
              1u);
    EXPECT_EQ(sup.lastError().value_or("none"),
              mountStatus == 0 ? "none"
                               : "Couldn't connect Plex to your library folder. Try quitting and reopening Vantory.");
  }
}

TEST_F(EngineSupervisorTest, PruningKeepsWhatAPublishedListHoldsAndTitlesWithoutAnId) {
  auto& app = standardApp();
  for (int i = 1; i <= 6; ++i)
    app.library.upsert({.name = "Film " + std::to_string(i) + " (2000) {imdb-tt" + std::to_string(i) + "}.mkv",
                        .url = "http://cdn/x"});
  app.library.upsert({.name = "Show (2001) {imdb-tt9}/Season 01/Show (2001) - s01e01.mkv", .url = "http://cdn/x"});
  app.library.upsert({.name = "Home video.mkv", .url = "http://cdn/x"});
  app.supervisor->pruneOrphans({"tt1", "tt9"});
  std::vector<std::string> left;
  for (size_t i = 0; i < app.library.size(); ++i) left.push_back(app.library.at(i).name);
  EXPECT_EQ(left,
            (std::vector<std::string>{"Film 1 (2000) {imdb-tt1}.mkv",
                                      "Show (2001) {imdb-tt9}/Season 01/Show (2001) - s01e01.mkv", "Home video.mkv"}));
  EXPECT_EQ(app.linesWith("[supervisor] pruning").at(0).second,
            "[supervisor] pruning 5 orphaned title(s) not in any published collection (keeping 2 id(s)): Film 2 (2000) "
            "{imdb-tt2}.mkv, Film 3 (2000) {imdb-tt3}.mkv, Film 4 (2000) {imdb-tt4}.mkv, Film 5 (2000) "
            "{imdb-tt5}.mkv … +1 more");
}

// What the supervision tells the Plex sync.
struct SyncProbe : PlexSyncPort {
  std::vector<std::pair<Date, Date>>* warmups;  // (when, until)
  int* kicks;
  Clock* clock;
  void requestReconcile() override { ++*kicks; }
  void setWarmupUntil(Date until) override { warmups->emplace_back(clock->now(), until); }
  void attachCatalog(CatalogPort*) override {}
};

TEST_F(EngineSupervisorTest, EitherEngineStartingWarmsThePlexSyncUpAndTheFilmEngineKicksIt) {
  std::vector<std::pair<Date, Date>> warmups;
  int kicks = 0;
  App& app = app_.emplace(home.path(), clock, mounter, freeControlPort(), test::freePort(), "0.1.0", "rd-key-1",
                          [&](PlexSyncOperations) {
                            auto probe = std::make_unique<SyncProbe>();
                            probe->warmups = &warmups;
                            probe->kicks = &kicks;
                            probe->clock = &clock;
                            return probe;
                          });
  ASSERT_TRUE(app.startUntil(EngineState::running));
  ASSERT_EQ(warmups.size(), 1u);
  EXPECT_EQ(warmups[0].second, warmups[0].first + 120);
  const int kicksAfterFilm = kicks;
  EXPECT_GE(kicksAfterFilm, 1);

  auto& tv = app.supervisor->ensureTvInstance();
  tv.paths.nfsAddress = "127.0.0.1:" + std::to_string(test::freePort());
  Job::start([&](CancelToken) { return app.supervisor->startInstance(tv, {}); });
  ASSERT_TRUE(drive(clock, [&] { return tv.state == EngineState::running; }));
  ASSERT_EQ(warmups.size(), 2u);
  EXPECT_EQ(warmups[1].second, warmups[1].first + 120);
  EXPECT_EQ(kicks, kicksAfterFilm) << "the tv engine starts within a pass";
}
