#include <gtest/gtest.h>

#include <QFile>

#include "core/AppConfig.h"
#include "platform/Settings.h"
#include "sources/ranking/PickHistory.h"
#include "sources/ranking/RankingSettings.h"
#include "support/TestKit.h"

using namespace vt;

TEST(PickHistory, CountsGroupsAndCellsAcrossRuns) {
  test::TestHome home;
  {
    auto store = SettingsStore::openForTestHome(home.path());
    PickHistory history(*store);
    history.recordPick("Film.2020.1080p.BluRay.x265-Tigole.mkv");
    history.recordPick("Other.2019.720p.WEB.x264-TIGOLE");
    history.recordPick("Film.2020.1080p.BluRay.x264-SPARKS.mkv");
    history.recordPick("Film.2020.1080p.BluRay.x264");  // no group: nothing to count
    history.recordPick("");
    history.recordCell("4K", 2);
    EXPECT_EQ(history.usualCell(), std::nullopt) << "one pick is not a habit";
    history.recordCell("1080p", 1);
    history.recordCell("4K", 2);
    EXPECT_EQ(history.usualCell(), (PickHistory::Cell{"4K", 2}));
  }
  auto store = SettingsStore::openForTestHome(home.path());
  PickHistory history(*store);
  EXPECT_EQ(history.chosenGroups(), (ChosenGroups{{"SPARKS", 1}, {"TIGOLE", 2}}));
  EXPECT_EQ(history.cells(), (ChosenGroups{{"1080p|1", 1}, {"4K|2", 2}}));
  EXPECT_EQ(history.usualCell(), (PickHistory::Cell{"4K", 2}));
  // What a ranker is given.
  const auto ranker = rankerFor(QualityLevel::balanced, history.chosenGroups());
  EXPECT_EQ(
      ranker.reasons(StreamCandidate{.filename = "Film.2021.1080p.WEB.x265-tigole"}, std::nullopt, ranker.chosenGroups)
          .back(),
      "A group you've chosen 2 times");
}

TEST(PickHistory, AMapIsOneStoredValueSoSlashesStayInTheName) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setString(PickHistory::kGroupsKey, R"({"AB/CD":3,"X":1})");
  PickHistory history(*store);
  history.recordCell("4K/HDR", -1);
  history.recordCell("4K/HDR", -1);
  EXPECT_EQ(history.chosenGroups(), (ChosenGroups{{"AB/CD", 3}, {"X", 1}}));
  EXPECT_EQ(history.usualCell(), (PickHistory::Cell{"4K/HDR", -1}));
  // Nothing was split into a settings group named "4K" or "AB".
  SettingsStore reopened(store->path());
  EXPECT_FALSE(reopened.contains("4K/HDR|-1"));
  EXPECT_FALSE(reopened.contains("AB/CD"));
  EXPECT_EQ(PickHistory::readMap(reopened, PickHistory::kCellsKey), (ChosenGroups{{"4K/HDR|-1", 2}}));
}

TEST(PickHistory, BadStoredMapsReadAsEmptyAndHealOnTheNextPick) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  PickHistory history(*store);
  for (const auto* bad : {"not json", R"({"A":"x","B":1.5,"C":true})"}) {
    store->setString(PickHistory::kGroupsKey, bad);
    EXPECT_TRUE(history.chosenGroups().empty()) << bad;
  }
  store->setInteger(PickHistory::kGroupsKey, 4);
  EXPECT_TRUE(history.chosenGroups().empty());
  history.recordPick("Film.2020.1080p.BluRay.x264-SPARKS.mkv");
  EXPECT_EQ(history.chosenGroups(), (ChosenGroups{{"SPARKS", 1}}));

  // The largest count decides even when its key is malformed: then there is
  // no usual cell, not the runner-up. Counts below 1 were never ours.
  store->setString(PickHistory::kCellsKey, R"({"720p|3":2,"1080p|1":2,"4K|x|1":1})");
  EXPECT_EQ(history.usualCell(), (PickHistory::Cell{"1080p", 1})) << "a tie goes to the first key";
  store->setString(PickHistory::kCellsKey, R"({"720p|3":2,"4K|x":8})");
  EXPECT_EQ(history.usualCell(), std::nullopt);
  store->setString(PickHistory::kCellsKey, R"({"720p|3":2,"4K|2|1":8})");
  EXPECT_EQ(history.usualCell(), std::nullopt);
  store->setString(PickHistory::kGroupsKey, R"({"SPARKS":-4,"GRP":0,"NTB":2})");
  EXPECT_EQ(history.chosenGroups(), (ChosenGroups{{"NTB", 2}}));
}

TEST(QualitySettings, LegacyRecordsMapToLevels) {
  struct Case {
    const char* record;
    QualityLevel level;
  };
  for (const auto& k :
       std::vector<Case>{{R"({"resolutionOrder":["4K","1080p"]})", QualityLevel::best},
                         {R"({"maxSizeGB":30,"resolutionOrder":["4K"]})", QualityLevel::high},
                         {R"({"maxSizeGB":5,"resolutionOrder":["1080p"]})", QualityLevel::fast},
                         {R"({"maxSizeGB":5.000001,"resolutionOrder":["1080p"]})", QualityLevel::balanced},
                         {R"({"resolutionOrder":["1080p","4K"]})", QualityLevel::balanced},
                         {R"({"maxSizeGB":1,"resolutionOrder":["4k"]})", QualityLevel::fast},
                         // Records that don't decode.
                         {R"({"maxSizeGB":"5","resolutionOrder":["4K"]})", QualityLevel::balanced},
                         {R"({"maxSizeGB":1,"resolutionOrder":[4]})", QualityLevel::balanced},
                         {"\xff\xfe{", QualityLevel::balanced}}) {
    EXPECT_EQ(qualityLevelFromLegacy(k.record), k.level) << k.record;
  }
}

TEST(QualitySettings, StoredLevelFallsBackWithoutWriting) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  EXPECT_EQ(storedQualityLevel(*store), QualityLevel::balanced);
  store->setInteger("quality", 3);
  EXPECT_EQ(storedQualityLevel(*store), QualityLevel::best);
  store->setData("streamPreference", R"({"maxSizeGB":2,"resolutionOrder":["1080p"]})");
  for (int64_t raw : std::vector<int64_t>{4, -1}) {
    store->setInteger("quality", raw);
    EXPECT_EQ(storedQualityLevel(*store), QualityLevel::fast) << raw << " is out of range: the old record decides";
  }
  store->setString("quality", "three");
  EXPECT_EQ(storedQualityLevel(*store), QualityLevel::fast);
  EXPECT_TRUE(store->contains("streamPreference")) << "reading writes nothing";
  store->setData("streamPreference", "garbage");
  EXPECT_EQ(storedQualityLevel(*store), QualityLevel::balanced);
}

TEST(QualitySettings, TheSettingsObjectMigratesOnceAndRecomputesOnEveryChange) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setInteger("quality", 7);
  store->setData("streamPreference", R"({"resolutionOrder":["4K"]})");
  store->setBoolean("companionVersions", false);
  {
    AppConfig config(*store);
    EXPECT_EQ(config.quality(), QualityLevel::best);
    EXPECT_EQ(store->integer("quality"), 3);
    EXPECT_FALSE(store->contains("streamPreference"));
    EXPECT_FALSE(store->contains("companionVersions"));
    EXPECT_TRUE(config.companionVersions());
    EXPECT_EQ(config.streamPreference(), streamPreference(QualityLevel::best));

    int changes = 0;
    QObject::connect(&config, &AppConfig::changed, [&] { ++changes; });
    for (const auto level : {QualityLevel::fast, QualityLevel::best}) {
      config.setQuality(level);
      EXPECT_EQ(config.streamPreference(), streamPreference(level));
      EXPECT_EQ(config.companionVersions(), companionVersions(level));
      EXPECT_EQ(store->integer("quality"), static_cast<int64_t>(level));
    }
    EXPECT_EQ(changes, 2);
    config.setQuality(QualityLevel::high);
  }
  AppConfig again(*store);
  EXPECT_EQ(again.quality(), QualityLevel::high);
  EXPECT_EQ(again.streamPreference().maxMbps, 25.0);
  EXPECT_TRUE(again.companionVersions());
  EXPECT_FALSE(store->contains("companionVersions")) << "the flag follows the level and is not stored";
}
