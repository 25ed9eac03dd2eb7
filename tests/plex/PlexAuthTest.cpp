#include <gtest/gtest.h>

#include "fakes/FakePlexAccount.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "plex/PlexAuth.h"
#include "support/TestKit.h"

using namespace vt;
using vt::test::FakePlexAccount;

namespace {

using Device = FakePlexAccount::Device;
using Kind = PlexAuth::AuthError::Kind;
using Found = Result<DiscoveredServer, PlexAuth::AuthError>;

struct Rig {
  FakePlexAccount account;
  HttpClient http{systemClock(), HttpClient::Session::ephemeral};
  PlexAuth auth{http, account.accountBase(), account.localServer()};

  Device device(const std::string& name, std::vector<FakePlexAccount::Connection> connections) {
    Device d;
    d.name = name;
    d.clientIdentifier = name + "-id";
    d.connections = std::move(connections);
    return d;
  }
  Device answering(const std::string& name) { return device(name, {{account.serverAt(name, 200), true}}); }

  Found discover(std::optional<std::string> preferred = std::nullopt, bool onlyPreferred = false) {
    return test::runTask(auth.discover(account.token, "client-7", std::move(preferred), onlyPreferred));
  }
};

std::string nameOf(const Found& r) { return r ? r->name : "error: " + message(r.error()); }

}  // namespace

TEST(PlexAuth, OnlyOwnedServersCountAndTheRequestsCarryTheirHeaders) {
  Rig rig;
  auto player = rig.answering("Player");
  player.provides = "client,player";
  auto shared = rig.answering("Shared");
  shared.owned = false;
  auto unmarked = rig.answering("Unmarked");
  unmarked.owned.reset();  // no key: the account's own
  unmarked.provides = "client,server";
  rig.account.devices = {player, shared, unmarked};
  EXPECT_EQ(nameOf(rig.discover()), "Unmarked");
  const auto list = rig.account.requestsTo("/api/v2/resources");
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].rawQuery, "includeHttps=1&includeRelay=1");
  EXPECT_EQ(list[0].header("X-Plex-Client-Identifier"), "client-7");
  // The local server is asked plainly: nothing of the account goes to it.
  const auto identity = rig.account.requestsTo("/identity");
  ASSERT_EQ(identity.size(), 1u);
  EXPECT_FALSE(identity[0].header("X-Plex-Token"));
  rig.account.devices = {player, shared};
  EXPECT_EQ(nameOf(rig.discover()), "error: No Plex Media Server found on your account.");
}

TEST(PlexAuth, LocalServerThenPreferredNameAndOnlyPreferredDropsTheRest) {
  Rig rig;
  rig.account.devices = {rig.answering("Attic"), rig.answering("Den")};
  EXPECT_EQ(nameOf(rig.discover()), "Attic");
  EXPECT_EQ(nameOf(rig.discover("Den")), "Den");
  EXPECT_EQ(rig.discover("Cellar", true).error().kind, Kind::noServer);
  // The preferred server is down: with onlyPreferred the others are not tried.
  rig.account.devices[1] = rig.device("Den", {{rig.account.serverAt("den-down", 503), true}});
  EXPECT_EQ(nameOf(rig.discover("Den", true)), "error: Found servers but none are reachable from this machine.");
  // The server on this machine goes ahead of the preferred one.
  rig.account.devices = {rig.answering("Den"), rig.answering("Here")};
  rig.account.localMachineIdentifier = "Here-id";
  EXPECT_EQ(nameOf(rig.discover("Den")), "Here");
  EXPECT_EQ(nameOf(rig.discover("Den", true)), "Den") << "onlyPreferred dropped the local one";
  // An empty identifier matches nobody, not even a device with an empty one.
  rig.account.devices[1].clientIdentifier = "";
  rig.account.localMachineIdentifier = "";
  EXPECT_EQ(nameOf(rig.discover()), "Den");
}

TEST(PlexAuth, ConnectionsAreTriedHttpsLocalFirstAndAnyAnswerFrom200To399IsTheServer) {
  using C = PlexAuth::Connection;
  const std::vector<C> given = {{"http://remote-a", false}, {"http://lan-a", true}, {"https://remote", false},
                                {"https://lan", true},      {"http://lan-b", true}, {"httpsx://odd", true}};
  const std::vector<C> expected = {{"https://lan", true},  {"httpsx://odd", true}, {"https://remote", false},
                                   {"http://lan-a", true}, {"http://lan-b", true}, {"http://remote-a", false}};
  EXPECT_EQ(PlexAuth::rankConnections(given), expected);
  // Any answer from 200 to 399 is the server; failures move on.
  Rig rig;
  auto& a = rig.account;
  rig.account.devices = {
      rig.device("First", {{"not a address", true}, {test::refusedAddress(), true}, {a.serverAt("e404", 404), true}}),
      rig.device("Second", {{a.serverAt("moved", 302), true}, {a.serverAt("ok", 200), true}})};
  EXPECT_EQ(nameOf(rig.discover()), "Second");
  EXPECT_EQ(a.serversAsked(), (std::vector<std::string>{"e404", "moved"})) << "a redirect is an answer";
  // A server that refuses the token is not the user's server.
  rig.account.devices = {rig.device("S", {{a.serverAt("e401", 401), true}})};
  EXPECT_EQ(rig.discover().error().kind, Kind::noReachableServer);
}

TEST(PlexAuth, AccountFailuresKeepTheTokenOutOfTheirTexts) {
  Rig rig;
  std::vector<std::string> texts{nameOf(test::runTask(rig.auth.discover("wrong-token", "c", std::nullopt, false)))};
  EXPECT_EQ(texts[0], "error: Plex returned HTTP 401");
  // Bad rows are left out; a row without "local" is remote.
  rig.account.resourcesBody = QByteArray::fromStdString(R"([1, null, {"name": 5}, {"name":"Bare","provides":"server"},
      {"name":"Den","provides":"server","connections":[{"local":true},{"uri":")" +
                                                        rig.account.serverAt("den", 200) + R"("}]}])");
  EXPECT_EQ(nameOf(rig.discover()), "Den");
  rig.account.resourcesBody.reset();
  // The account service can't be reached at all: the network's own text.
  PlexAuth offline(rig.http, test::refusedAddress() + "/api/v2", rig.account.localServer());
  auto refused = test::runTask(offline.discover(rig.account.token, "c", std::nullopt, false));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().kind, Kind::transport);
  texts.push_back(message(refused.error()));
  rig.account.devices = {rig.device("Den", {{rig.account.serverAt("den-500", 500), true}})};
  texts.push_back(message(rig.discover().error()));
  for (const auto& text : texts) EXPECT_EQ(text.find(rig.account.token), std::string::npos) << text;
}

TEST(PlexAuth, TimeLimitsRunOnTheInjectedClock) {
  FakePlexAccount account;
  ManualClock clock;
  HttpClient http(clock, HttpClient::Session::ephemeral);
  PlexAuth auth(http, account.accountBase(), account.localServer());
  Device den;
  den.name = "Den";
  den.connections = {{account.serverAt("slow", 0), true}, {account.serverAt("fast", 200), true}};
  account.devices = {den};
  // The local identity gets 3 seconds; a silent connection 5 before the next is tried.
  account.holdIdentity = true;
  std::optional<Found> result;
  auto job = Job::start([&](CancelToken t) -> QCoro::Task<> {
    result = co_await auth.discover(account.token, "c", std::nullopt, false, t);
  });
  ASSERT_TRUE(test::spinUntil([&] { return !account.requestsTo("/identity").empty(); }));
  clock.advance(3);
  ASSERT_TRUE(test::spinUntil([&] { return account.serversAsked().size() == 1; }));
  clock.advance(4.9);
  test::settle(30);
  EXPECT_FALSE(result);
  clock.advance(0.1);
  ASSERT_TRUE(test::spinUntil([&] { return result.has_value(); }));
  EXPECT_EQ(nameOf(*result), "Den");
}
