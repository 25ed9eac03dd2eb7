#include <gtest/gtest.h>

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
    history.recordCell("4K", 2);
    EXPECT_EQ(history.usualCell(), std::nullopt) << "one pick is not a habit";
    history.recordCell("1080p", 1);
    history.recordCell("4K", 2);
    EXPECT_EQ(history.usualCell(), (PickHistory::Cell{"4K", 2}));
  }
  auto store = SettingsStore::openForTestHome(home.path());
  PickHistory history(*store);
  EXPECT_EQ(history.chosenGroups(), (ChosenGroups{{"SPARKS", 1}, {"TIGOLE", 2}}));
  EXPECT_EQ(history.usualCell(), (PickHistory::Cell{"4K", 2}));
}

TEST(PickHistory, AMapIsOneStoredValueSoSlashesStayInTheName) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setString(PickHistory::kGroupsKey, R"({"AB/CD":3,"X":1})");
  PickHistory history(*store);
  history.recordCell("4K/HDR", -1);
  history.recordCell("4K/HDR", -1);
  EXPECT_EQ(history.chosenGroups(), (ChosenGroups{{"AB/CD", 3}, {"X", 1}}));
  SettingsStore reopened(store->path());
  EXPECT_FALSE(reopened.contains("AB/CD"));
  EXPECT_EQ(PickHistory::readMap(reopened, PickHistory::kCellsKey), (ChosenGroups{{"4K/HDR|-1", 2}}));
}

TEST(PickHistory, BadStoredMapsReadAsEmptyAndHealOnTheNextPick) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  PickHistory history(*store);
  store->setString(PickHistory::kGroupsKey, R"({"A":"x","B":1.5,"C":true})");
  EXPECT_TRUE(history.chosenGroups().empty());
  history.recordPick("Film.2020.1080p.BluRay.x264-SPARKS.mkv");
  EXPECT_EQ(history.chosenGroups(), (ChosenGroups{{"SPARKS", 1}}));
  store->setString(PickHistory::kCellsKey, R"({"720p|3":2,"4K|x":8})");
  EXPECT_EQ(history.usualCell(), std::nullopt) << "the largest count decides even when its key is malformed";
}

TEST(QualitySettings, LegacyRecordsMapToLevelsAndTheStoredLevelFallsBackWithoutWriting) {
  EXPECT_EQ(qualityLevelFromLegacy(R"({"resolutionOrder":["4K","1080p"]})"), QualityLevel::best);
  EXPECT_EQ(qualityLevelFromLegacy(R"({"maxSizeGB":30,"resolutionOrder":["4K"]})"), QualityLevel::high);
  EXPECT_EQ(qualityLevelFromLegacy(R"({"maxSizeGB":5,"resolutionOrder":["1080p"]})"), QualityLevel::fast);
  EXPECT_EQ(qualityLevelFromLegacy(R"({"maxSizeGB":5.1,"resolutionOrder":["1080p","4K"]})"), QualityLevel::balanced);
  EXPECT_EQ(qualityLevelFromLegacy(R"({"maxSizeGB":2,"resolutionOrder":[]})"), QualityLevel::fast)
      << "an empty order is a non-4K order";
  EXPECT_EQ(qualityLevelFromLegacy(R"({"resolutionOrder":[]})"), QualityLevel::balanced);
  EXPECT_EQ(qualityLevelFromLegacy(R"({"maxSizeGB":"5","resolutionOrder":["4K"]})"), QualityLevel::balanced);
  EXPECT_EQ(qualityLevelFromLegacy(R"({"maxSizeGB":2})"), QualityLevel::balanced) << "the order is required";
  EXPECT_EQ(qualityLevelFromLegacy("\xff\xfe{"), QualityLevel::balanced);

  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  store->setData("streamPreference", R"({"maxSizeGB":2,"resolutionOrder":["1080p"]})");
  store->setInteger("quality", 4);
  EXPECT_EQ(storedQualityLevel(*store), QualityLevel::fast) << "out of range: the old record decides";
  EXPECT_TRUE(store->contains("streamPreference")) << "reading writes nothing";
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
    config.setQuality(QualityLevel::fast);
    EXPECT_EQ(config.streamPreference(), streamPreference(QualityLevel::fast));
  }
  AppConfig again(*store);
  EXPECT_EQ(again.quality(), QualityLevel::fast);
  EXPECT_FALSE(store->contains("companionVersions")) << "the flag follows the level and is not stored";
}
