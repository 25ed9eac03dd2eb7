#include <gtest/gtest.h>

#include <QByteArray>

#include "core/AppConfig.h"
#include "platform/Clock.h"
#include "platform/Endpoints.h"
#include "platform/Settings.h"
#include "sources/StreamProviders.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

QUrl url(const char* text) { return *parseAddonUrl(text); }

std::vector<StreamProviderKind> kinds(const std::vector<StreamProvider>& providers) {
  std::vector<StreamProviderKind> out;
  for (const auto& p : providers) out.push_back(p.kind);
  return out;
}

using K = StreamProviderKind;

}  // namespace

TEST(StreamProvider, CometCarriesItsConfigurationAsBase64InThePath) {
  const auto comet = StreamProvider::comet("ABC123", "comet.example", true);
  ASSERT_TRUE(comet);
  const auto path = comet->base.path().toStdString();
  ASSERT_EQ(comet->base.toString().toStdString(), "https://comet.example" + path);
  ASSERT_GE(path.size(), 3u);
  const auto encoded = path.substr(1, path.size() - 2);
  EXPECT_EQ(QByteArray::fromBase64(QByteArray::fromStdString(encoded)).toStdString(),
            R"({"cachedOnly":true,"debridApiKey":"ABC123","debridService":"realdebrid",)"
            R"("maxResultsPerResolution":0,"removeTrash":true})");
  // A host given with its own scheme (a local test server) keeps it.
  EXPECT_EQ(StreamProvider::comet("ABC123", "http://127.0.0.1:8123/", true)->base.toString().toStdString(),
            "http://127.0.0.1:8123/" + encoded + "/");
  // A key whose configuration encodes with "+" gives no provider.
  EXPECT_EQ(StreamProvider::comet("~~", "comet.example", true), std::nullopt);
}

TEST(StreamProvider, MediaFusionAddressesAreCleanedUp) {
  struct Case {
    const char* pasted;
    const char* base;  // nullptr: no provider
  };
  for (const auto& k : std::vector<Case>{{"stremio://host/abc/manifest.json", "https://host/abc"},
                                         {"https://host/abc/configure/", "https://host/abc/configure"},
                                         {"https://host/a|b/manifest.json", "https://host/a%7Cb"},
                                         {"ftp://host/abc", nullptr},
                                         {"host/abc/manifest.json", nullptr}}) {
    const auto provider = StreamProvider::mediafusion(k.pasted);
    if (!k.base) {
      EXPECT_EQ(provider, std::nullopt) << k.pasted;
      continue;
    }
    ASSERT_TRUE(provider) << k.pasted;
    EXPECT_EQ(provider->base.toString(QUrl::FullyEncoded).toStdString(), k.base) << k.pasted;
  }
}

TEST(StreamProvider, KindsRawTextsClassifyAndTheKeyInAnAddress) {
  for (const auto kind : kAllStreamProviderKinds) EXPECT_EQ(streamProviderKindFromRaw(rawValue(kind)), kind);
  EXPECT_EQ(streamProviderKindFromRaw("Comet"), K::torrentio) << "unknown texts fall back";
  EXPECT_EQ(StreamProvider::classify(url("https://COMET-mediafusion.example/")).kind, K::comet);
  EXPECT_EQ(StreamProvider::classify(url("https://example.com/comet/")).kind, K::torrentio) << "the host decides";
  EXPECT_EQ(rdKey(url("https://torrentio.strem.fun/sort=qualitysize|realdebrid=KEY123|lang=en/manifest.json")),
            "KEY123");
  EXPECT_EQ(rdKey(url("https://host/?realdebrid=QUERY")), std::nullopt);
}

TEST(StreamProvider, SettingsGiveThePrimaryAndTheExtras) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  StreamProviderRegistry registry;
  AppConfig config(*store, [&registry](const AppConfig& c) { syncStreamProviders(c, registry); });
  EXPECT_EQ(addonURL(config), std::nullopt);

  // Every write of a provider setting re-syncs, before observers hear of it.
  std::vector<std::string> keysSeen;
  QObject::connect(&config, &AppConfig::changed, [&] { keysSeen.push_back(registry.key()); });
  config.setRdKey(" KEY1\n");
  EXPECT_EQ(addonURL(config)->toString().toStdString(), endpoints().torrentio + "/realdebrid=KEY1/");
  EXPECT_EQ(registry.stored().front(), *StreamProvider::comet("KEY1", endpoints().cometHost, true));
  config.setMediafusionURL("stremio://mediafusion.example/cfg/manifest.json");
  EXPECT_EQ(kinds(registry.stored()), (std::vector<K>{K::comet, K::mediafusion}));
  config.setStreamAddonOverride("  https://torrentio.strem.fun/sort=size|realdebrid=OTHER/manifest.json \n");
  EXPECT_EQ(registry.key(), "OTHER") << "the primary address's key is the key in force";
  EXPECT_EQ(keysSeen, (std::vector<std::string>{"KEY1", "KEY1", "OTHER"}));

  // A key with characters that mean something in an address reads back whole.
  config.setStreamAddonOverride("");
  const std::string odd = "K#1?x=%41";
  config.setRdKey(odd);
  const auto primary = addonURL(config);
  ASSERT_TRUE(primary);
  EXPECT_EQ(primary->query(), "");
  EXPECT_EQ(rdKey(*primary), odd);
  EXPECT_EQ(registry.key(), odd);
}

TEST(ProviderHealth, ThreeFailuresTripAKindForFiveMinutes) {
  ManualClock clock;
  ProviderHealth health(clock);
  for (bool ok : {false, false, true, false, false}) health.record(K::comet, ok);  // a success restarts the count
  EXPECT_FALSE(health.checkTripped(K::comet));
  health.record(K::comet, false);
  EXPECT_TRUE(health.checkTripped(K::comet));
  clock.advance(299.9);
  EXPECT_TRUE(health.checkTripped(K::comet));
  clock.advance(0.1);
  EXPECT_FALSE(health.checkTripped(K::comet)) << "at the end of the trip the kind is back";
  EXPECT_EQ(health.failures(K::comet), 0);
  health.record(K::comet, false);
  EXPECT_FALSE(health.checkTripped(K::comet)) << "the count starts again after a trip";
}

TEST(ProviderHealth, ProvidersInOrderSkipTrippedKindsButNeverAll) {
  ManualClock clock;
  ProviderHealth health(clock);
  StreamProviderRegistry registry;
  const auto primary = url("https://torrentio.example/realdebrid=KEY/");
  registry.update({*StreamProvider::comet("KEY", "comet.example", true),
                   *StreamProvider::mediafusion("https://mediafusion.example/cfg")},
                  "KEY");
  EXPECT_EQ(kinds(providersInOrder(primary, registry, health)),
            (std::vector<K>{K::torrentio, K::comet, K::mediafusion}));
  // A primary on a Comet host: the stored Comet is skipped.
  EXPECT_EQ(kinds(providersInOrder(url("https://comet.elfhosted.com/xyz/"), registry, health)),
            (std::vector<K>{K::comet, K::mediafusion}));

  for (const K kind : {K::torrentio, K::comet, K::mediafusion})
    for (int i = 0; i < 3; ++i) health.record(kind, false);
  const auto order = providersInOrder(primary, registry, health);
  EXPECT_EQ(kinds(order), std::vector<K>{K::torrentio}) << "all tripped: the primary is still tried";
  EXPECT_EQ(order[0].base, primary);
}
