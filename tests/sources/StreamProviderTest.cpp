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

TEST(StreamProvider, KindsRawTextsAndTimeLimits) {
  EXPECT_EQ(rawValue(K::mediafusion), "mediafusion");
  for (const auto kind : kAllStreamProviderKinds) EXPECT_EQ(streamProviderKindFromRaw(rawValue(kind)), kind);
  EXPECT_EQ(streamProviderKindFromRaw("Comet"), K::torrentio) << "unknown texts fall back";
  EXPECT_EQ(streamRequestTimeLimit(K::torrentio), 30);
  EXPECT_EQ(streamRequestTimeLimit(K::comet), 120);
  EXPECT_EQ(streamRequestTimeLimit(K::mediafusion), 60);
}

TEST(StreamProvider, CometCarriesItsConfigurationAsBase64InThePath) {
  const auto comet = StreamProvider::comet("ABC123", "comet.example", true);
  ASSERT_TRUE(comet);
  EXPECT_EQ(comet->kind, K::comet);
  const auto path = comet->base.path().toStdString();
  ASSERT_EQ(comet->base.toString().toStdString(), "https://comet.example" + path);
  ASSERT_GE(path.size(), 3u);
  const auto encoded = path.substr(1, path.size() - 2);
  EXPECT_EQ(QByteArray::fromBase64(QByteArray::fromStdString(encoded)).toStdString(),
            R"({"cachedOnly":true,"debridApiKey":"ABC123","debridService":"realdebrid",)"
            R"("maxResultsPerResolution":0,"removeTrash":true})");
  EXPECT_EQ(comet->streamsURL("movie", "tt0111161").toString().toStdString(),
            "https://comet.example/" + encoded + "/stream/movie/tt0111161.json");

  const auto uncached = StreamProvider::comet("ABC123", "comet.example", false);
  ASSERT_TRUE(uncached);
  EXPECT_NE(uncached->base, comet->base);
  // A host given with its own scheme (a local test server) keeps it.
  const auto local = StreamProvider::comet("ABC123", "http://127.0.0.1:8123/", true);
  ASSERT_TRUE(local);
  EXPECT_EQ(local->base.toString().toStdString(), "http://127.0.0.1:8123/" + encoded + "/");

  EXPECT_EQ(StreamProvider::comet("", "comet.example", true), std::nullopt);
  // Keys whose configuration encodes with "+" ("~~") or "/" ("?\?>") give no provider.
  EXPECT_EQ(StreamProvider::comet("~~", "comet.example", true), std::nullopt);
  EXPECT_EQ(StreamProvider::comet("?\?>", "comet.example", true), std::nullopt);
}

TEST(StreamProvider, MediaFusionAddressesAreCleanedUp) {
  struct Case {
    const char* pasted;
    const char* base;  // nullptr: no provider
  };
  for (const auto& k : std::vector<Case>{
           {"stremio://host/abc/manifest.json", "https://host/abc"},
           {"http://host/abc/configure", "http://host/abc"},
           {"https://host/abc/configure/", "https://host/abc/configure"},  // each cut at most once, in order
           {"https://host/abc/manifest.json/", "https://host/abc/manifest.json"},
           {"HTTPS://Host/abc", "https://host/abc"},
           {"https://host/a|b/manifest.json", "https://host/a%7Cb"},
           {"", nullptr},
           {"ftp://host/abc", nullptr},
           {"host/abc/manifest.json", nullptr},
           {"https://", nullptr}}) {
    const auto provider = StreamProvider::mediafusion(k.pasted);
    if (!k.base) {
      EXPECT_EQ(provider, std::nullopt) << k.pasted;
      continue;
    }
    ASSERT_TRUE(provider) << k.pasted;
    EXPECT_EQ(provider->kind, K::mediafusion);
    EXPECT_EQ(provider->base.toString(QUrl::FullyEncoded).toStdString(), k.base) << k.pasted;
  }
  // Without a trailing "/" the streams still go below the base.
  EXPECT_EQ(StreamProvider::mediafusion("stremio://host/abc/manifest.json")
                ->streamsURL("series", "tt0944947:1:2")
                .toString()
                .toStdString(),
            "https://host/abc/stream/series/tt0944947:1:2.json");
}

TEST(StreamProvider, ClassifyIdentityAndTheKeyInAnAddress) {
  EXPECT_EQ(StreamProvider::classify(url("https://comet.elfhosted.com/abc/")).kind, K::comet);
  EXPECT_EQ(StreamProvider::classify(url("https://My-MediaFusion.Example/abc")).kind, K::mediafusion);
  EXPECT_EQ(StreamProvider::classify(url("https://COMET-mediafusion.example/")).kind, K::comet);
  EXPECT_EQ(StreamProvider::classify(url("https://example.com/comet/")).kind, K::torrentio) << "the host decides";

  const auto a = StreamProvider::classify(url("https://torrentio.strem.fun/realdebrid=K/"));
  EXPECT_EQ(a.identity(), "torrentio|https://torrentio.strem.fun/realdebrid=K/");
  EXPECT_EQ(a.streamsURL("movie", "tt1").toString().toStdString(),
            "https://torrentio.strem.fun/realdebrid=K/stream/movie/tt1.json");

  EXPECT_EQ(rdKey(url("https://torrentio.strem.fun/sort=qualitysize|realdebrid=KEY123|lang=en/manifest.json")),
            "KEY123");
  EXPECT_EQ(rdKey(url("https://torrentio.strem.fun/sort=size%7Crealdebrid=KEY9/")), "KEY9");
  EXPECT_EQ(rdKey(url("https://host/realdebrid=/x|realdebrid=SECOND")), "SECOND");
  EXPECT_EQ(rdKey(url("https://host/realdebrid=")), std::nullopt);
  EXPECT_EQ(rdKey(url("https://host/?realdebrid=QUERY")), std::nullopt);
}

TEST(StreamProvider, SettingsGiveThePrimaryAndTheExtras) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  StreamProviderRegistry registry;
  AppConfig config(*store, [&registry](const AppConfig& c) { syncStreamProviders(c, registry); });
  const auto& torrentio = endpoints().torrentio;

  // Nothing set: no primary; Comet needs a key; no MediaFusion.
  EXPECT_EQ(addonURL(config), std::nullopt);
  EXPECT_TRUE(extraProviders(config).empty());

  // Every write of a provider setting re-syncs, before observers hear of it.
  std::vector<std::string> keysSeen;
  QObject::connect(&config, &AppConfig::changed, [&] { keysSeen.push_back(registry.key()); });

  config.setRdKey(" KEY1\n");
  EXPECT_EQ(addonURL(config)->toString().toStdString(), torrentio + "/realdebrid=KEY1/");
  EXPECT_EQ(registry.key(), "KEY1");
  EXPECT_EQ(kinds(registry.stored()), std::vector<K>{K::comet});
  EXPECT_EQ(registry.stored(), extraProviders(config));
  EXPECT_EQ(registry.stored().front(), *StreamProvider::comet("KEY1", endpoints().cometHost, true));

  // Each of the three provider settings moves the registry: the MediaFusion
  // address adds its provider, an override's own key takes over from the key setting.
  config.setMediafusionURL("stremio://mediafusion.example/cfg/manifest.json");
  EXPECT_EQ(kinds(registry.stored()), (std::vector<K>{K::comet, K::mediafusion}));
  EXPECT_EQ(registry.stored().back().base.toString().toStdString(), "https://mediafusion.example/cfg");

  config.setStreamAddonOverride("  https://torrentio.strem.fun/sort=size|realdebrid=OTHER/manifest.json \n");
  EXPECT_EQ(addonURL(config)->host().toStdString(), "torrentio.strem.fun");
  EXPECT_EQ(registry.key(), "OTHER") << "the primary address's key is the key in force";
  EXPECT_EQ(keysSeen, (std::vector<std::string>{"KEY1", "KEY1", "OTHER"}));

  // A new start syncs from the stored settings.
  config.setRdKey("KEY2");
  config.setStreamAddonOverride("");
  config.setMediafusionURL("");
  StreamProviderRegistry fresh;
  AppConfig restarted(*store, [&fresh](const AppConfig& c) { syncStreamProviders(c, fresh); });
  EXPECT_EQ(fresh.key(), "KEY2");
  EXPECT_EQ(kinds(fresh.stored()), std::vector<K>{K::comet});
}

TEST(ProviderHealth, ThreeFailuresTripAKindForFiveMinutes) {
  ManualClock clock;
  ProviderHealth health(clock);
  for (bool ok : {false, false, true, false, false}) health.record(K::comet, ok);  // a success restarts the count
  EXPECT_EQ(health.failures(K::comet), 2);
  EXPECT_FALSE(health.checkTripped(K::comet));
  health.record(K::comet, false);
  EXPECT_EQ(health.trippedUntil(K::comet), clock.now() + 300);
  EXPECT_TRUE(health.checkTripped(K::comet));
  EXPECT_FALSE(health.checkTripped(K::torrentio));

  clock.advance(299.9);
  EXPECT_TRUE(health.checkTripped(K::comet));
  clock.advance(0.1);
  EXPECT_FALSE(health.checkTripped(K::comet)) << "at the end of the trip the kind is back";
  EXPECT_EQ(health.failures(K::comet), 0);
}

TEST(ProviderHealth, ProvidersInOrderSkipTrippedKindsButNeverAll) {
  ManualClock clock;
  ProviderHealth health(clock);
  StreamProviderRegistry registry;
  const auto comet = *StreamProvider::comet("KEY", "comet.example", true);
  const auto mediafusion = *StreamProvider::mediafusion("https://mediafusion.example/cfg");
  const auto primary = url("https://torrentio.example/realdebrid=KEY/");

  EXPECT_EQ(kinds(providersInOrder(primary, registry, health)), std::vector<K>{K::torrentio})
      << "no extras: only Torrentio is asked";

  registry.update({comet, mediafusion}, "KEY");
  auto order = providersInOrder(primary, registry, health);
  EXPECT_EQ(kinds(order), (std::vector<K>{K::torrentio, K::comet, K::mediafusion}));
  EXPECT_EQ(order[0].base, primary);
  EXPECT_EQ(order[1], comet);

  // A primary on a Comet host: the stored Comet is skipped.
  const auto cometPrimary = url("https://comet.elfhosted.com/xyz/");
  EXPECT_EQ(kinds(providersInOrder(cometPrimary, registry, health)), (std::vector<K>{K::comet, K::mediafusion}));
  EXPECT_EQ(providersInOrder(cometPrimary, registry, health)[0].base, cometPrimary);

  auto trip = [&](K kind) {
    for (int i = 0; i < 3; ++i) health.record(kind, false);
  };
  trip(K::torrentio);
  EXPECT_EQ(kinds(providersInOrder(primary, registry, health)), (std::vector<K>{K::comet, K::mediafusion}));
  clock.advance(100);
  trip(K::comet);
  EXPECT_EQ(kinds(providersInOrder(primary, registry, health)), std::vector<K>{K::mediafusion});
  trip(K::mediafusion);
  order = providersInOrder(primary, registry, health);
  EXPECT_EQ(kinds(order), std::vector<K>{K::torrentio}) << "all tripped: the primary is still tried";
  EXPECT_EQ(order[0].base, primary);

  clock.advance(200);  // Torrentio's trip has run out; the others' haven't
  EXPECT_EQ(kinds(providersInOrder(primary, registry, health)), std::vector<K>{K::torrentio});
  EXPECT_EQ(health.failures(K::torrentio), 0);
  clock.advance(100);
  EXPECT_EQ(kinds(providersInOrder(primary, registry, health)),
            (std::vector<K>{K::torrentio, K::comet, K::mediafusion}));
}
