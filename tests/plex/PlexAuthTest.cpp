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
  // A device with one local connection to a server that answers 200.
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

  auto found = rig.discover();
  ASSERT_TRUE(found) << message(found.error());
  EXPECT_EQ(found->name, "Unmarked");
  EXPECT_EQ(found->url, rig.account.url("/pms/Unmarked").toString().toStdString());
  EXPECT_EQ(rig.account.serversAsked(), std::vector<std::string>{"Unmarked"});

  const auto list = rig.account.requestsTo("/api/v2/resources");
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].rawQuery, "includeHttps=1&includeRelay=1");
  EXPECT_EQ(list[0].header("X-Plex-Product"), "Vantory");
  EXPECT_EQ(list[0].header("X-Plex-Client-Identifier"), "client-7");
  // The local server is asked plainly: nothing of the account goes to it.
  const auto identity = rig.account.requestsTo("/identity");
  ASSERT_EQ(identity.size(), 1u);
  EXPECT_EQ(identity[0].header("Accept"), "application/json");
  EXPECT_FALSE(identity[0].header("X-Plex-Token"));
  EXPECT_FALSE(identity[0].header("X-Plex-Client-Identifier"));

  // Only shared servers and players: nothing on the account.
  rig.account.devices = {player, shared};
  auto none = rig.discover();
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error().kind, Kind::noServer);
  EXPECT_EQ(message(none.error()), "No Plex Media Server found on your account.");
}

TEST(PlexAuth, LocalServerThenPreferredNameAndOnlyPreferredDropsTheRest) {
  Rig rig;
  rig.account.devices = {rig.answering("Attic"), rig.answering("Den")};
  EXPECT_EQ(nameOf(rig.discover()), "Attic");
  EXPECT_EQ(nameOf(rig.discover("Den")), "Den");
  EXPECT_EQ(nameOf(rig.discover("Cellar")), "Attic") << "an unknown preference changes nothing";
  EXPECT_EQ(nameOf(rig.discover("", true)), "Attic") << "no name, nothing to keep to";
  EXPECT_EQ(rig.discover("Cellar", true).error().kind, Kind::noServer);

  // The preferred server is down: with onlyPreferred the others are not tried.
  rig.account.devices[1] = rig.device("Den", {{rig.account.serverAt("den-down", 503), true}});
  rig.account.clearRequests();
  EXPECT_EQ(nameOf(rig.discover("Den", true)), "error: Found servers but none are reachable from this machine.");
  EXPECT_EQ(rig.account.serversAsked(), std::vector<std::string>{"den-down"});
  EXPECT_EQ(nameOf(rig.discover("Den")), "Attic") << "without it the next device answers";

  // The server on this machine goes ahead of the preferred one.
  rig.account.devices = {rig.answering("Den"), rig.answering("Here")};
  rig.account.localMachineIdentifier = "Here-id";
  EXPECT_EQ(nameOf(rig.discover("Den")), "Here");
  EXPECT_EQ(nameOf(rig.discover("Den", true)), "Den") << "onlyPreferred dropped the local one";

  rig.account.localMachineIdentifier.reset();  // 404: no identity
  EXPECT_EQ(nameOf(rig.discover("Den")), "Den");

  // An empty identifier matches nobody, not even a device with an empty one.
  rig.account.devices[1].clientIdentifier = "";
  rig.account.localMachineIdentifier = "";
  EXPECT_EQ(nameOf(rig.discover()), "Den");

  // The poller's discovery keeps to the stored server and gives the text.
  rig.account.devices = {rig.answering("Attic"), rig.device("Den", {{rig.account.serverAt("den", 500), true}})};
  const PlexDiscovery discovery = plexDiscovery(rig.auth);
  auto any = test::runTask(discovery(rig.account.token, "c", std::nullopt));
  ASSERT_TRUE(any.server);
  EXPECT_EQ(any.server->url, rig.account.url("/pms/Attic").toString().toStdString());
  auto den = test::runTask(discovery(rig.account.token, "c", "Den"));
  EXPECT_FALSE(den.server) << "Attic answers but is not the stored server";
  EXPECT_EQ(den.error, "Found servers but none are reachable from this machine.");
}

TEST(PlexAuth, ConnectionsAreTriedHttpsLocalHttpsRemoteHttpLocalHttpRemote) {
  using C = PlexAuth::Connection;
  const std::vector<C> given = {{"http://remote-a", false}, {"http://lan-a", true}, {"https://remote", false},
                                {"https://lan", true},      {"http://lan-b", true}, {"http://remote-b", false},
                                {"httpsx://odd", true}};
  const std::vector<C> expected = {{"https://lan", true},     {"httpsx://odd", true}, {"https://remote", false},
                                   {"http://lan-a", true},    {"http://lan-b", true}, {"http://remote-a", false},
                                   {"http://remote-b", false}};
  EXPECT_EQ(PlexAuth::rankConnections(given), expected);

  // On the wire: the https address fails (nothing listens), the remote one is
  // never reached because the local one answers.
  Rig rig;
  const auto https = "https" + test::refusedAddress().substr(4);
  rig.account.devices = {rig.device(
      "Den", {{rig.account.serverAt("remote", 200), false}, {rig.account.serverAt("lan", 200), true}, {https, true}})};
  auto found = rig.discover();
  ASSERT_TRUE(found) << message(found.error());
  EXPECT_EQ(found->url, rig.account.url("/pms/lan").toString().toStdString());
  EXPECT_EQ(rig.account.serversAsked(), std::vector<std::string>{"lan"});
}

TEST(PlexAuth, AnyAnswerFrom200To399IsTheServerAndFailuresMoveOn) {
  Rig rig;
  auto& a = rig.account;
  rig.account.devices = {
      rig.device("First", {{"not a address", true}, {test::refusedAddress(), true}, {a.serverAt("e404", 404), true}}),
      rig.device("Second", {{a.serverAt("moved", 302), true}, {a.serverAt("ok", 200), true}})};
  auto found = rig.discover();
  ASSERT_TRUE(found) << message(found.error());
  EXPECT_EQ(found->name, "Second");
  EXPECT_EQ(found->url, a.url("/pms/moved").toString().toStdString()) << "a redirect is an answer";
  EXPECT_EQ(a.serversAsked(), (std::vector<std::string>{"e404", "moved"}));

  rig.account.devices = {rig.device("S", {{a.serverAt("s399", 399), true}})};
  EXPECT_EQ(nameOf(rig.discover()), "S");
  // A server that refuses the token is not the user's server.
  rig.account.devices = {rig.device("S", {{a.serverAt("e401", 401), true}})};
  EXPECT_EQ(rig.discover().error().kind, Kind::noReachableServer);
}

TEST(PlexAuth, AccountFailuresKeepTheTokenOutOfTheirTexts) {
  Rig rig;
  rig.account.devices = {rig.answering("Den")};
  std::vector<std::string> texts;

  auto denied = test::runTask(rig.auth.discover("wrong-token", "c", std::nullopt, false));
  ASSERT_FALSE(denied);
  EXPECT_EQ(message(denied.error()), "Plex returned HTTP 401");
  texts.push_back(message(denied.error()));

  rig.account.resourcesStatus = 300;
  EXPECT_EQ(rig.discover().error(), PlexAuth::AuthError::httpStatus(300)) << "only 2xx is a list";
  rig.account.resourcesStatus = 204;
  EXPECT_EQ(rig.discover().error().kind, Kind::noServer) << "2xx counts; an empty body reads as no devices";
  rig.account.resourcesStatus.reset();

  // A reply that doesn't decode reads as an empty list; bad rows are left out.
  rig.account.resourcesBody = QByteArray("<MediaContainer/>");
  auto undecodable = rig.discover();
  ASSERT_FALSE(undecodable);
  EXPECT_EQ(undecodable.error().kind, Kind::noServer);
  texts.push_back(message(undecodable.error()));
  rig.account.resourcesBody = QByteArray::fromStdString(R"([1, null, {"name": 5}, {"name":"Bare","provides":"server"},
      {"name":"Den","provides":"server","connections":[{"local":true},{"uri":")" +
                                                        rig.account.serverAt("den", 200) + R"("}]}])");
  EXPECT_EQ(nameOf(rig.discover()), "Den") << "no connections and no uri are skipped; no local means remote";
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

  std::optional<Found> result;
  auto start = [&] {
    result.reset();
    account.clearRequests();
    return Job::start([&](CancelToken t) -> QCoro::Task<> {
      result = co_await auth.discover(account.token, "c", std::nullopt, false, t);
    });
  };

  // The account list: 15 seconds.
  account.holdResources = true;
  auto listJob = start();
  ASSERT_TRUE(test::spinUntil([&] { return account.requests().size() == 1; }));
  clock.advance(14.9);
  test::settle(30);
  EXPECT_FALSE(result);
  clock.advance(0.1);
  ASSERT_TRUE(test::spinUntil([&] { return result.has_value(); }));
  ASSERT_FALSE(*result);
  EXPECT_EQ(result->error().kind, Kind::transport);
  EXPECT_EQ(message(result->error()), "The request timed out.");
  account.holdResources = false;

  // The local identity: 3 seconds, then the connections; a silent connection
  // gets 5 seconds before the next is tried.
  account.holdIdentity = true;
  auto job = start();
  ASSERT_TRUE(test::spinUntil([&] { return !account.requestsTo("/identity").empty(); }));
  clock.advance(2.9);
  test::settle(30);
  EXPECT_TRUE(account.serversAsked().empty());
  clock.advance(0.1);
  ASSERT_TRUE(test::spinUntil([&] { return account.serversAsked().size() == 1; }));
  clock.advance(4.9);
  test::settle(30);
  EXPECT_EQ(account.serversAsked(), std::vector<std::string>{"slow"});
  EXPECT_FALSE(result);
  clock.advance(0.1);
  ASSERT_TRUE(test::spinUntil([&] { return result.has_value(); }));
  EXPECT_EQ(nameOf(*result), "Den");
  EXPECT_EQ(account.serversAsked(), (std::vector<std::string>{"slow", "fast"}));
}
