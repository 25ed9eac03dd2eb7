#include <gtest/gtest.h>

#include <fstream>

#include "core/AppConfig.h"
#include "core/UserSettings.h"
#include "platform/Log.h"
#include "support/TestKit.h"

using namespace vt;

TEST(AppConfig, DefaultsClampsAndPersistence) {
  test::TestHome home;
  std::string clientId;
  {
    auto store = SettingsStore::openForTestHome(home.path());
    AppConfig c(*store);
    clientId = c.clientIdentifier();
    EXPECT_FALSE(clientId.empty());

    c.setRdKey(" abc\n");
    c.setRerankExisting(false);
    c.setCacheLimitGB(4);
    c.setQuality(QualityLevel::high);
    EXPECT_TRUE(c.companionVersions());
    c.setPendingPlexSyncPath(std::string("/lib"));
    c.setToken("tok");
    EXPECT_TRUE(c.isConfigured());
  }
  auto store = SettingsStore::openForTestHome(home.path());
  EXPECT_EQ(store->string("rdKey"), "abc");
  AppConfig c(*store);
  EXPECT_EQ(c.clientIdentifier(), clientId) << "generated once";
  EXPECT_FALSE(c.rerankExisting()) << "false is not absent";
  EXPECT_EQ(c.cacheLimitGB(), 8) << "4 reads as 8";
  EXPECT_EQ(c.quality(), QualityLevel::high);
  EXPECT_EQ(c.pendingPlexSyncPath(), "/lib");
  c.setPendingPlexSyncPath(std::nullopt);
  EXPECT_FALSE(store->contains("pendingPlexSyncPath"));
  c.setCacheLimitGB(500);
  EXPECT_EQ(store->integer("cacheLimitGB"), 500) << "writes are not clamped";
  EXPECT_EQ(AppConfig(*store).cacheLimitGB(), 128);

  c.setPlexUsername("me");
  c.signOut();
  EXPECT_EQ(c.plexUsername(), "");
  EXPECT_EQ(store->string("token"), "");
}

TEST(AppConfig, BadStoredValuesFallBackToDefaultsWithALineNamingTheKey) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setString("cacheLimitGB", "lots");
  store->setInteger("useComet", 2);
  store->setString("rerankExisting", "");
  store->setString("clientIdentifier", "");
  std::vector<std::string> lines;
  ScopedLogSink sink([&](std::string_view line) { lines.emplace_back(line); });
  AppConfig c(*store);
  EXPECT_EQ(c.cacheLimitGB(), 32);
  EXPECT_TRUE(c.useComet());
  EXPECT_TRUE(c.rerankExisting());
  EXPECT_FALSE(c.clientIdentifier().empty()) << "an empty identifier is replaced";
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("\"rerankExisting\""), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("\"cacheLimitGB\""), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find("\"useComet\""), std::string::npos) << lines[2];
}

TEST(AppConfig, AFileWrittenByHandReadsPlainValues) {
  test::TestHome home;
  { auto owned = SettingsStore::openForTestHome(home.path()); }
  {
    std::ofstream f(home.file("settings.ini"));
    f << "pmsURLString=http://nas.local:32400\ntoken=TOK\nrdKey=  ABC  \nuseComet=false\n"
         "rerankExisting=no\ncacheLimitGB=64\nquality=3\n";
  }
  auto store = SettingsStore::openForTestHome(home.path());
  AppConfig c(*store);
  EXPECT_EQ(c.rdKey(), "ABC");
  EXPECT_FALSE(c.useComet());
  EXPECT_FALSE(c.rerankExisting());
  EXPECT_EQ(c.cacheLimitGB(), 64);
  EXPECT_EQ(c.quality(), QualityLevel::best);
  EXPECT_TRUE(c.isConfigured());
}

TEST(UserSettings, OneTableCheckedAndWrittenThroughTheSettingsObject) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  AppConfig c(*store);
  for (const auto& s : userSettings())
    EXPECT_EQ(s.secret, std::string(s.key) == "token" || std::string(s.key) == "rdKey") << s.key;

  auto set = [&](const char* key, const char* value) { return setUserSetting(c, *findUserSetting(key), value); };
  EXPECT_TRUE(set("rdKey", " abc\n"));
  EXPECT_EQ(store->string("rdKey"), "abc");
  EXPECT_TRUE(set("quality", "high"));
  EXPECT_EQ(store->integer("quality"), 2);
  EXPECT_TRUE(set("useComet", "off"));
  EXPECT_EQ(store->string("useComet"), "false");
  EXPECT_TRUE(set("cacheLimitGB", "128"));

  struct Refusal {
    const char* key;
    const char* value;
    const char* reason;
  };
  for (const auto& r : {Refusal{"cacheLimitGB", "7", "cacheLimitGB takes a whole number from 8 to 128, not \"7\""},
                        Refusal{"cacheLimitGB", "129", "cacheLimitGB takes a whole number from 8 to 128, not \"129\""},
                        Refusal{"quality", "4", "quality takes fast, balanced, high or best, not \"4\""},
                        Refusal{"token", "a\nb", "token takes one line of text"}}) {
    const auto result = set(r.key, r.value);
    ASSERT_FALSE(result) << r.key << "=" << r.value;
    EXPECT_EQ(message(result.error()), r.reason);
  }
  EXPECT_EQ(c.cacheLimitGB(), 128) << "a refused value changes nothing";

  unsetUserSetting(c, *findUserSetting("useComet"));
  EXPECT_TRUE(c.useComet());
  EXPECT_FALSE(store->contains("useComet"));
  unsetUserSetting(c, *findUserSetting("cacheLimitGB"));
  EXPECT_EQ(AppConfig(*store).cacheLimitGB(), 32);
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
                        Case{"not json", QualityLevel::balanced}}) {
    test::TestHome home;
    auto store = SettingsStore::openForTestHome(home.path());
    store->setData("streamPreference", k.record);
    store->setBoolean("companionVersions", true);
    EXPECT_EQ(AppConfig(*store).quality(), k.level) << k.record;
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

TEST(AppConfig, RegistrySyncFollowsTheProviderSettingsAndAddressesDerive) {
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
  c.setToken("tok");
  c.setQuality(QualityLevel::fast);
  EXPECT_EQ(syncs, 5);

  c.setControlURLString("http://127.0.0.1:13000");
  EXPECT_EQ(c.tvControlAddress(), "127.0.0.1:13002");
  c.setControlURLString("not a url");
  EXPECT_EQ(c.controlURL(), std::nullopt);
  EXPECT_EQ(c.tvControlAddress(), "127.0.0.1:12052");
  EXPECT_EQ(c.imageURL("/library/metadata/5/thumb/1", 200, 300, true)->toString(),
            "http://127.0.0.1:32400/photo/:/transcode?width=200&height=300&minSize=1&url=/library/metadata/5/thumb/"
            "1&X-Plex-Token=tok");
  EXPECT_EQ(c.imageURL("/library/metadata/5/thumb/1", 0, 0, false)->toString(),
            "http://127.0.0.1:32400/library/metadata/5/thumb/1?X-Plex-Token=tok");
  c.setPmsURLString("::bad");
  EXPECT_EQ(c.imageURL("/x", 1, 1, true), std::nullopt);
  EXPECT_FALSE(c.isConfigured());
}
