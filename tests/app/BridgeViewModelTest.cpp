#include <gtest/gtest.h>

#include <deque>

#include "app/BridgeViewModel.h"
#include "core/AppConfig.h"
#include "platform/Clock.h"
#include "platform/Job.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

struct PlexScript {
  std::deque<std::optional<PlexProbeFailure>> probes;  // the last one repeats; empty: success
  std::vector<std::string> calls;
  bool sectionOk = true;
  std::optional<Completion> probeGate;  // set: probes wait for it
};

class ScriptedPlex final : public PlexServerAccess {
 public:
  explicit ScriptedPlex(PlexScript& s) : s_(s) {}
  PlexScript& s_;
  QCoro::Task<std::optional<PlexProbeFailure>> probe() override {
    std::optional<PlexProbeFailure> r = s_.probes.empty() ? std::nullopt : s_.probes.front();
    if (s_.probes.size() > 1) s_.probes.pop_front();
    if (std::optional<Completion> gate = s_.probeGate) co_await *gate;
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
  QCoro::Task<bool> deleteCollectionNamed(std::string) override { co_return true; }
};

const PlexProbeFailure kDown{std::nullopt, "Could not connect to the server."};

struct Rig {
  test::TestHome home;
  std::unique_ptr<SettingsStore> store = SettingsStore::openForTestHome(home.path());
  AppConfig config{*store};
  ManualClock clock;
  PlexScript plex;
  int discoveries = 0;
  BridgeViewModel vm{config, clock, [this](CancelToken) { return std::make_unique<ScriptedPlex>(plex); },
                     [this](std::string, std::string, std::optional<std::string>) -> QCoro::Task<DiscoveryOutcome> {
                       ++discoveries;
                       DiscoveryOutcome o;
                       o.server = DiscoveredServer{"http://10.0.0.9:32400", "Den"};
                       co_return o;
                     },
                     [](const std::string&) {}};
  Rig() { config.setToken("tok"); }
};

}  // namespace

TEST(BridgeViewModel, TenFailuresRediscoverEveryFortyFiveSecondsARejectedTokenNeedsReauth) {
  Rig r;
  r.plex.probes = {kDown};
  r.vm.startPolling();
  r.clock.advance(8 * 3);  // the first poll runs at once, then one every 3 seconds
  EXPECT_EQ(r.discoveries, 0) << "nine failures are not enough";
  r.clock.advance(3);
  EXPECT_EQ(r.config.pmsURLString(), "http://10.0.0.9:32400");
  r.clock.advance(42);
  EXPECT_EQ(r.discoveries, 1) << "the next attempt waits until 45 seconds have passed";
  r.clock.advance(3);
  EXPECT_EQ(r.discoveries, 2);
  r.plex.probes = {std::nullopt, PlexProbeFailure{401, "PMS returned HTTP 401"}};
  r.clock.advance(3 + 20 * 3);
  EXPECT_TRUE(r.vm.needsReauth());
  EXPECT_EQ(r.vm.consecutiveFailures(), 0) << "a rejected token is not counted";
  r.vm.reconnect();
  EXPECT_EQ(r.config.token(), "");
  EXPECT_EQ(r.clock.pendingTimers(), 1u) << "one poll loop, not two";
}

TEST(BridgeViewModel, PendingFolderIsAnnouncedOnlyOnTheTransitionToReachable) {
  Rig r;
  r.config.setPendingPlexSyncPath(std::string("/data/Library"));
  r.plex.probes = {kDown, std::nullopt};
  r.plex.sectionOk = false;
  r.vm.startPolling();
  r.clock.advance(3 * 6);
  EXPECT_EQ(r.config.pendingPlexSyncPath(), "/data/Library") << "a failing section step keeps it";
  EXPECT_EQ(r.plex.calls.size(), 1u) << "still reachable: no new attempt";
  r.plex.sectionOk = true;
  r.plex.probes = {kDown, std::nullopt};
  r.clock.advance(3 * 2);
  EXPECT_EQ(r.plex.calls, (std::vector<std::string>{"ensure Vantory /data/Library", "ensure Vantory /data/Library",
                                                    "refresh /data/Library"}));
  EXPECT_EQ(r.config.pendingPlexSyncPath(), std::nullopt);
}

TEST(BridgeViewModel, AProbeInFlightWhenReconnectRunsWritesNothingAfterwards) {
  Rig r;
  r.plex.probes = {kDown};
  r.plex.probeGate.emplace();
  r.vm.startPolling();
  // The user reconnects while the first probe still waits on the server.
  Completion firstGate = *r.plex.probeGate;
  r.plex.probeGate.reset();
  r.plex.probes = {std::nullopt};
  r.vm.reconnect();
  r.config.setToken("tok");
  r.clock.advance(3);
  ASSERT_TRUE(r.vm.reachable());
  firstGate.fire();  // the old probe's failure arrives late and must not overwrite the new state
  test::settle(10);
  EXPECT_TRUE(r.vm.reachable());
  EXPECT_EQ(r.vm.lastError(), std::nullopt);
}
