#include <gtest/gtest.h>

#include "core/AppConfig.h"
#include "core/UserSettings.h"
#include "platform/Log.h"
#include "support/TestKit.h"

using namespace vt;

TEST(AppConfig, ClampsAndPersistence) {
  test::TestHome home;
  std::string clientId;
  {
    auto store = SettingsStore::openForTestHome(home.path());
    AppConfig c(*store);
    clientId = c.clientIdentifier();
    c.setRdKey(" abc\n");
    c.setRerankExisting(false);
    c.setCacheLimitGB(4);
  }
  auto store = SettingsStore::openForTestHome(home.path());
  EXPECT_EQ(store->string("rdKey"), "abc");
  AppConfig c(*store);
  EXPECT_EQ(c.clientIdentifier(), clientId) << "generated once";
  EXPECT_FALSE(c.rerankExisting()) << "false is not absent";
  EXPECT_EQ(c.cacheLimitGB(), 8) << "4 reads as 8";
  c.setCacheLimitGB(500);
  EXPECT_EQ(store->integer("cacheLimitGB"), 500) << "writes are not clamped";
  EXPECT_EQ(AppConfig(*store).cacheLimitGB(), 128);
}

TEST(AppConfig, BadStoredValuesFallBackToDefaultsWithALineNamingTheKey) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setString("cacheLimitGB", "lots");
  store->setString("clientIdentifier", "");
  store->setString("rerankExisting", "no");  // as a hand-written file has it
  std::vector<std::string> lines;
  ScopedLogSink sink([&](std::string_view line) { lines.emplace_back(line); });
  AppConfig c(*store);
  EXPECT_EQ(c.cacheLimitGB(), 32);
  EXPECT_FALSE(c.rerankExisting());
  EXPECT_FALSE(c.clientIdentifier().empty()) << "an empty identifier is replaced";
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("\"cacheLimitGB\""), std::string::npos) << lines[0];
}

TEST(UserSettings, OneTableCheckedAndWrittenThroughTheSettingsObject) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  AppConfig c(*store);
  for (const auto& s : userSettings())
    EXPECT_EQ(s.secret, std::string(s.key) == "token" || std::string(s.key) == "rdKey") << s.key;
  auto set = [&](const char* key, const char* value) { return setUserSetting(c, *findUserSetting(key), value); };
  EXPECT_TRUE(set("quality", "high"));
  EXPECT_EQ(store->integer("quality"), 2);
  EXPECT_TRUE(set("useComet", "off"));
  EXPECT_EQ(store->string("useComet"), "false");
  EXPECT_TRUE(set("cacheLimitGB", "128"));
  for (auto [key, value, reason] :
       {std::tuple{"cacheLimitGB", "129", "cacheLimitGB takes a whole number from 8 to 128, not \"129\""},
        std::tuple{"quality", "4", "quality takes fast, balanced, high or best, not \"4\""},
        std::tuple{"token", "a\nb", "token takes one line of text"}}) {
    const auto result = set(key, value);
    ASSERT_FALSE(result) << key << "=" << value;
    EXPECT_EQ(message(result.error()), reason);
  }
  EXPECT_EQ(c.cacheLimitGB(), 128) << "a refused value changes nothing";
  unsetUserSetting(c, *findUserSetting("useComet"));
  EXPECT_FALSE(store->contains("useComet"));
}

TEST(AppConfig, QualityMigrationRunsOnceAndUnknownLevelsMigrate) {
  for (auto [record, level] : {std::pair{R"({"maxSizeGB":30,"resolutionOrder":["4K"]})", QualityLevel::high},
                               std::pair{R"({"maxSizeGB":5.5,"resolutionOrder":["1080p"]})", QualityLevel::balanced},
                               std::pair{"not json", QualityLevel::balanced}}) {
    test::TestHome home;
    auto store = SettingsStore::openForTestHome(home.path());
    store->setData("streamPreference", record);
    EXPECT_EQ(AppConfig(*store).quality(), level) << record;
    EXPECT_EQ(store->integer("quality"), static_cast<int64_t>(level));
    EXPECT_FALSE(store->contains("streamPreference"));
    // A second start finds "quality" and does not migrate again.
    store->setData("streamPreference", R"({"resolutionOrder":["4K"]})");
    EXPECT_EQ(AppConfig(*store).quality(), level);
  }
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setInteger("quality", 9);
  EXPECT_EQ(AppConfig(*store).quality(), QualityLevel::balanced);
}

TEST(AppConfig, RegistrySyncFollowsTheProviderSettingsAndAddressesDerive) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  int syncs = 0;
  AppConfig c(*store, [&](const AppConfig&) { ++syncs; });
  c.setRdKey("k");
  c.setUseComet(false);
  c.setToken("tok");
  EXPECT_EQ(syncs, 3) << "at load, then for the provider settings only";
  c.setControlURLString("http://127.0.0.1:13000");
  EXPECT_EQ(c.tvControlAddress(), "127.0.0.1:13002");
  EXPECT_EQ(c.imageURL("/library/metadata/5/thumb/1", 200, 300, true)->toString(),
            "http://127.0.0.1:32400/photo/:/transcode?width=200&height=300&minSize=1&url=/library/metadata/5/thumb/"
            "1&X-Plex-Token=tok");
  c.setPmsURLString("::bad");
  EXPECT_EQ(c.imageURL("/x", 1, 1, true), std::nullopt);
}
