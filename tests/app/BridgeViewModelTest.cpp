#include <gtest/gtest.h>

#include <deque>

#include "app/BridgeViewModel.h"
#include "core/AppConfig.h"
#include "platform/Clock.h"
#include "platform/Job.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

// A stand-in for the Plex server client: scripted probe results, recorded calls.
struct PlexScript {
  std::deque<std::optional<PlexProbeFailure>> probes;  // empty: success
  int probeCount = 0;
  std::vector<std::string> calls;
  bool sectionOk = true;
  std::optional<Completion> probeGate;  // set: probes wait for it
};

class ScriptedPlex final : public PlexServerAccess {
 public:
  explicit ScriptedPlex(PlexScript& s) : s_(s) {}
  QCoro::Task<std::optional<PlexProbeFailure>> probe() override {
    ++s_.probeCount;
    std::optional<PlexProbeFailure> r;
    if (!s_.probes.empty()) {
      r = s_.probes.front();
      if (s_.probes.size() > 1) s_.probes.pop_front();
    }
    if (s_.probeGate) {
      Completion gate = *s_.probeGate;
      co_await gate;
    }
    co_return r;
  }
  QCoro::Task<bool> ensureMovieSection(std::string name, std::string location) override {
    s_.calls.push_back("ensure " + name + " " + location);
    co_return s_.sectionOk;
  }
  QCoro::Task<bool> refreshSection(std::string location) override {
    s_.calls.push_back("refresh " + location);
    co_return true;
  }
  QCoro::Task<bool> deleteCollectionNamed(std::string title) override {
    s_.calls.push_back("delete " + title);
    co_return true;
  }

 private:
  PlexScript& s_;
};

struct Rig {
  test::TestHome home;
  std::unique_ptr<SettingsStore> store = SettingsStore::openForTestHome(home.path());
  AppConfig config{*store};
  ManualClock clock;
  PlexScript plex;
  int discoveries = 0;
  std::optional<DiscoveredServer> discovered = DiscoveredServer{"http://10.0.0.9:32400", "Den"};
  std::vector<std::string> console;
  BridgeViewModel vm{config, clock, [this](CancelToken) { return std::make_unique<ScriptedPlex>(plex); },
                     [this](std::string, std::string, std::optional<std::string>) -> QCoro::Task<DiscoveryOutcome> {
                       ++discoveries;
                       DiscoveryOutcome o;
                       o.server = discovered;
                       o.error = "no servers";
                       co_return o;
                     },
                     [this](const std::string& line) { console.push_back(line); }};

  Rig() { config.setToken("tok"); }
  static PlexProbeFailure down() { return {std::nullopt, "Could not connect to the server."}; }
};

}  // namespace

TEST(BridgeViewModel, TenFailuresRediscoverAtMostEveryFortyFiveSeconds) {
  Rig r;
  r.plex.probes = {Rig::down()};
  r.vm.startPolling();
  r.vm.startPolling();  // idempotent
  // The first poll runs at once, then one every 3 seconds.
  EXPECT_EQ(r.plex.probeCount, 1);
  r.clock.advance(8 * 3);
  EXPECT_EQ(r.vm.consecutiveFailures(), 9);
  EXPECT_EQ(r.discoveries, 0) << "nine failures are not enough";
  EXPECT_EQ(r.vm.lastError(), "Could not connect to the server.");

  r.clock.advance(3);
  EXPECT_EQ(r.vm.consecutiveFailures(), 10);
  EXPECT_EQ(r.discoveries, 1);
  EXPECT_EQ(r.config.pmsURLString(), "http://10.0.0.9:32400");
  EXPECT_EQ(r.console, std::vector<std::string>{"[Vantory] Re-discovered PMS at http://10.0.0.9:32400"});

  // Failures go on: the next attempt waits until 45 seconds have passed.
  r.clock.advance(42);
  EXPECT_EQ(r.discoveries, 1);
  r.clock.advance(3);
  EXPECT_EQ(r.discoveries, 2);

  r.discovered.reset();
  r.clock.advance(45);
  EXPECT_EQ(r.discoveries, 3);
  EXPECT_EQ(r.console.back(), "[Vantory] Re-discovery failed: no servers");

  // Recovery resets the count.
  r.plex.probes = {std::nullopt};
  r.clock.advance(3);
  EXPECT_TRUE(r.vm.reachable());
  EXPECT_EQ(r.vm.consecutiveFailures(), 0);
  r.vm.stopPolling();
  EXPECT_EQ(r.clock.pendingTimers(), 0u);
}

TEST(BridgeViewModel, RejectedTokenNeedsReauthWithoutCountingOrRediscovery) {
  for (int status : {401, 403}) {
    Rig r;
    r.plex.probes = {PlexProbeFailure{status, "PMS returned HTTP " + std::to_string(status)}};
    r.vm.startPolling();
    r.clock.advance(20 * 3);
    EXPECT_TRUE(r.vm.needsReauth());
    EXPECT_EQ(r.vm.consecutiveFailures(), 0);
    EXPECT_EQ(r.discoveries, 0);

    r.plex.probes = {std::nullopt};
    r.clock.advance(3);
    EXPECT_FALSE(r.vm.needsReauth()) << "a success clears it";
  }
}

TEST(BridgeViewModel, PendingFolderIsAnnouncedOnlyOnTheTransitionToReachable) {
  Rig r;
  r.config.setPendingPlexSyncPath(std::string("/data/Library"));
  r.plex.probes = {Rig::down()};
  r.vm.startPolling();
  r.clock.advance(3);
  EXPECT_TRUE(r.plex.calls.empty());

  // A failing section step keeps the value for the next transition.
  r.plex.sectionOk = false;
  r.plex.probes = {std::nullopt};
  r.clock.advance(3);
  EXPECT_EQ(r.plex.calls, std::vector<std::string>{"ensure Vantory /data/Library"});
  EXPECT_EQ(r.config.pendingPlexSyncPath(), "/data/Library");
  r.clock.advance(3 * 5);
  EXPECT_EQ(r.plex.calls.size(), 1u) << "still reachable: no new attempt";

  r.plex.sectionOk = true;
  r.plex.probes = {Rig::down()};
  r.clock.advance(3);
  r.plex.probes = {std::nullopt};
  r.clock.advance(3);
  EXPECT_EQ(r.plex.calls, (std::vector<std::string>{"ensure Vantory /data/Library", "ensure Vantory /data/Library",
                                                    "refresh /data/Library"}));
  EXPECT_EQ(r.config.pendingPlexSyncPath(), std::nullopt);
}

TEST(BridgeViewModel, UnconfiguredPollsSendNothingAndReconnectSignsOut) {
  Rig r;
  r.config.setToken("");
  r.vm.startPolling();
  r.clock.advance(30);
  EXPECT_EQ(r.plex.probeCount, 0);

  r.config.setToken("tok");
  r.plex.probes = {PlexProbeFailure{401, "PMS returned HTTP 401"}};
  r.clock.advance(3);
  EXPECT_TRUE(r.vm.needsReauth());
  r.vm.reconnect();
  EXPECT_FALSE(r.vm.needsReauth());
  EXPECT_EQ(r.config.token(), "");
  EXPECT_TRUE(r.vm.isPolling());
  EXPECT_EQ(r.clock.pendingTimers(), 1u) << "one poll loop, not two";
}

TEST(BridgeViewModel, AProbeInFlightWhenReconnectRunsWritesNothingAfterwards) {
  Rig r;
  r.config.setPmsURLString("http://127.0.0.1:32400");
  r.plex.probes = {Rig::down()};
  r.plex.probeGate.emplace();
  r.vm.startPolling();
  ASSERT_EQ(r.plex.probeCount, 1);

  // The user reconnects while the first probe still waits on the server.
  Completion firstGate = *r.plex.probeGate;
  r.plex.probeGate.reset();
  r.plex.probes = {std::nullopt};
  r.vm.reconnect();
  r.config.setToken("tok");
  r.clock.advance(3);
  ASSERT_TRUE(r.vm.reachable());

  // The old probe's failure arrives late and must not overwrite the new state.
  firstGate.fire();
  test::settle(10);
  EXPECT_TRUE(r.vm.reachable());
  EXPECT_EQ(r.vm.lastError(), std::nullopt);
  EXPECT_EQ(r.vm.consecutiveFailures(), 0);
}
