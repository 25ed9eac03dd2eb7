#include <gtest/gtest.h>

#include "core/AppConfig.h"
#include "support/TestKit.h"

using namespace vt;

TEST(AppConfig, DefaultsClampsAndPersistence) {
  test::TestHome home;
  std::string clientId;
  {
    auto store = SettingsStore::openForTestHome(home.path());
    AppConfig c(*store);
    EXPECT_EQ(c.pmsURLString(), "http://127.0.0.1:32400");
    EXPECT_EQ(c.controlURLString(), "http://127.0.0.1:12050");
    EXPECT_TRUE(c.useComet());
    EXPECT_TRUE(c.rerankExisting());
    EXPECT_FALSE(c.allowTS());
    EXPECT_EQ(c.cacheLimitGB(), 32);
    EXPECT_EQ(c.quality(), QualityLevel::balanced);
    EXPECT_FALSE(c.companionVersions());
    EXPECT_FALSE(c.isConfigured());
    EXPECT_EQ(c.pendingPlexSyncPath(), std::nullopt);
    clientId = c.clientIdentifier();
    EXPECT_FALSE(clientId.empty());

    c.setRdKey(" abc\n");
    c.setRerankExisting(false);
    c.setUseComet(false);
    c.setCacheLimitGB(4);
    c.setQuality(QualityLevel::high);
    EXPECT_TRUE(c.companionVersions());
    EXPECT_EQ(c.streamPreference().maxMbps, 25.0);
    c.setPendingPlexSyncPath(std::string("/lib"));
    c.setToken("tok");
    EXPECT_TRUE(c.isConfigured());
  }
  {
    auto store = SettingsStore::openForTestHome(home.path());
    EXPECT_EQ(store->string("rdKey"), "abc");
    AppConfig c(*store);
    EXPECT_EQ(c.clientIdentifier(), clientId) << "generated once";
    EXPECT_EQ(c.rdKey(), "abc");
    EXPECT_FALSE(c.rerankExisting()) << "false is not absent";
    EXPECT_FALSE(c.useComet());
    EXPECT_EQ(c.cacheLimitGB(), 8) << "4 reads as 8";
    EXPECT_EQ(c.quality(), QualityLevel::high);
    EXPECT_TRUE(c.companionVersions());
    EXPECT_EQ(c.pendingPlexSyncPath(), "/lib");
    c.setPendingPlexSyncPath(std::nullopt);
    EXPECT_FALSE(store->contains("pendingPlexSyncPath"));
    c.setCacheLimitGB(500);
    EXPECT_EQ(store->integer("cacheLimitGB"), 500) << "writes are not clamped";
    EXPECT_EQ(AppConfig(*store).cacheLimitGB(), 128);

    c.setPlexUsername("me");
    c.signOut();
    EXPECT_EQ(c.token(), "");
    EXPECT_EQ(c.plexUsername(), "");
    EXPECT_EQ(store->string("token"), "");
  }
}

TEST(AppConfig, BadStoredValuesFallBackToDefaults) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setString("cacheLimitGB", "lots");
  store->setInteger("useComet", 1);
  store->setInteger("pmsURLString", 7);
  store->setString("clientIdentifier", "");
  AppConfig c(*store);
  EXPECT_EQ(c.cacheLimitGB(), 32);
  EXPECT_TRUE(c.useComet());
  EXPECT_EQ(c.pmsURLString(), "http://127.0.0.1:32400");
  EXPECT_FALSE(c.clientIdentifier().empty()) << "an empty identifier is replaced";
}

TEST(AppConfig, QualityMigrationRunsOnceAndUnknownLevelsMigrate) {
  struct Case {
    const char* record;
    QualityLevel level;
  };
  for (const Case& k : {Case{R"({"resolutionOrder":["4K","1080p"]})", QualityLevel::best},
                        Case{R"({"maxSizeGB":30,"resolutionOrder":["4K"]})", QualityLevel::high},
                        Case{R"({"maxSizeGB":5,"resolutionOrder":["1080p"]})", QualityLevel::fast},
                        Case{R"({"maxSizeGB":5.5,"resolutionOrder":["1080p"]})", QualityLevel::balanced},
                        Case{R"({"resolutionOrder":[]})", QualityLevel::balanced},
                        Case{R"({"maxSizeGB":1,"resolutionOrder":[]})", QualityLevel::fast},
                        Case{"not json", QualityLevel::balanced}}) {
    test::TestHome home;
    auto store = SettingsStore::openForTestHome(home.path());
    store->setData("streamPreference", k.record);
    store->setBoolean("companionVersions", true);
    {
      AppConfig c(*store);
      EXPECT_EQ(c.quality(), k.level) << k.record;
    }
    EXPECT_EQ(store->integer("quality"), static_cast<int64_t>(k.level));
    EXPECT_FALSE(store->contains("streamPreference"));
    EXPECT_FALSE(store->contains("companionVersions"));
    // A second start finds "quality" and does not migrate again.
    store->setData("streamPreference", R"({"resolutionOrder":["4K"]})");
    EXPECT_EQ(AppConfig(*store).quality(), k.level);
    EXPECT_TRUE(store->contains("streamPreference"));
  }

  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setInteger("quality", 9);
  EXPECT_EQ(AppConfig(*store).quality(), QualityLevel::balanced);
  EXPECT_EQ(store->integer("quality"), 1);
}

TEST(AppConfig, RegistrySyncFollowsTheProviderSettings) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  int syncs = 0;
  AppConfig c(*store, [&](const AppConfig&) { ++syncs; });
  EXPECT_EQ(syncs, 1) << "at load";
  c.setRdKey("k");
  c.setStreamAddonOverride("http://addon");
  c.setUseComet(false);
  c.setMediafusionURL("http://mf");
  EXPECT_EQ(syncs, 5);
  c.setToken("t");
  c.setQuality(QualityLevel::fast);
  EXPECT_EQ(syncs, 5);
}

TEST(AppConfig, DerivedAddressesAndImageUrls) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  AppConfig c(*store);
  EXPECT_EQ(c.movieControlAddress(), "127.0.0.1:12050");
  EXPECT_EQ(c.tvControlAddress(), "127.0.0.1:12052");
  EXPECT_EQ(c.tvControlURL()->toString(), "http://127.0.0.1:12052");
  c.setControlURLString("http://127.0.0.1");
  EXPECT_EQ(c.movieControlAddress(), "127.0.0.1:12050");
  EXPECT_EQ(c.tvControlAddress(), "127.0.0.1:12052");
  c.setControlURLString("http://127.0.0.1:13000");
  EXPECT_EQ(c.tvControlAddress(), "127.0.0.1:13002");
  c.setControlURLString("not a url");
  EXPECT_EQ(c.controlURL(), std::nullopt);
  EXPECT_EQ(c.movieControlAddress(), "127.0.0.1:12050");
  EXPECT_EQ(c.tvControlAddress(), "127.0.0.1:12052");

  c.setToken("tok");
  EXPECT_EQ(c.imageURL("/library/metadata/5/thumb/1", 200, 300, true)->toString(),
            "http://127.0.0.1:32400/photo/:/transcode?width=200&height=300&minSize=1&url=/library/metadata/5/thumb/"
            "1&X-Plex-Token=tok");
  EXPECT_EQ(c.imageURL("/library/metadata/5/thumb/1", 0, 0, false)->toString(),
            "http://127.0.0.1:32400/library/metadata/5/thumb/1?X-Plex-Token=tok");
  c.setPmsURLString("::bad");
  EXPECT_EQ(c.imageURL("/x", 1, 1, true), std::nullopt);
  EXPECT_FALSE(c.isConfigured());
}
