#include <gtest/gtest.h>

#include "sources/release/Quality.h"
#include "sources/release/Resolution.h"

using namespace vt;

TEST(ReleaseResolution, TableRowsAndDimensions) {
  EXPECT_EQ(releaseResolution("Film 2019 UHD BluRay"), "4K");
  EXPECT_EQ(releaseResolution("Film (2019) [BD1080]"), "1080p");
  EXPECT_EQ(releaseResolution("Film.2019.1280x534"), "720p");
  EXPECT_EQ(releaseResolution("Film.10800p"), std::nullopt);
  EXPECT_EQ(releaseResolution("Film 2019\n👤 12 💾 1.2 GB 2160p"), std::nullopt) << "only the first line counts";
}

TEST(ReleaseResolution, NormalisationKeepsOnlyKnownVideoExtensions) {
  auto n = normaliseReleaseName("The.Film-(2019)_[x265].MKV");
  EXPECT_EQ(n.container, "mkv");
  EXPECT_EQ(n.upper, "THE FILM 2019 X265 ");
  EXPECT_EQ(normaliseReleaseName("Film.2019.iso").container, std::nullopt);
  EXPECT_EQ(normaliseReleaseName("straße.mp4").upper, "STRASSE");
}

TEST(Quality, LevelsMapToPreferences) {
  EXPECT_EQ(streamPreference(QualityLevel::fast), (StreamPreference{8.0, {"1080p", "720p"}}));
  EXPECT_EQ(streamPreference(QualityLevel::best).maxMbps, std::nullopt);
  EXPECT_EQ(qualityLevelFromRaw(4), std::nullopt);
  EXPECT_EQ(qualityLevelFromLegacy(R"({"maxSizeGB":2})"), QualityLevel::balanced) << "order is required";
}
