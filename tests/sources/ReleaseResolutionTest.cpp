#include <gtest/gtest.h>

#include "sources/release/Quality.h"
#include "sources/release/Resolution.h"

using namespace vt;

TEST(ReleaseResolution, TableRowsAndDimensions) {
  struct Case {
    const char* name;
    std::optional<std::string> resolution;
  };
  for (const Case& c : {
           Case{"The.Film.2019.2160p.WEB-DL.DDP5.1.Atmos.DV.HEVC-GROUP.mkv", "4K"},
           Case{"Film 2019 UHD BluRay", "4K"},
           Case{"Film.2019.1080p.BluRay.x264-GRP", "1080p"},
           Case{"Film (2019) [BD1080]", "1080p"},
           Case{"Film.2019.720p.HDTV", "720p"},
           Case{"Film.2019.1920x800", "1080p"},
           Case{"Film.2019.1280x534", "720p"},
           Case{"Film.2019.DVDRip.XviD", std::nullopt},
           Case{"Film.10800p", std::nullopt},
           // Only the first line of a title cell counts.
           Case{"Film 2019\n👤 12 💾 1.2 GB 2160p", std::nullopt},
           Case{"Фильм.2019.1080p.WEB-DL", "1080p"},
       }) {
    EXPECT_EQ(releaseResolution(c.name), c.resolution) << c.name;
  }
}

TEST(ReleaseResolution, NormalisationKeepsOnlyKnownVideoExtensions) {
  auto n = normaliseReleaseName("The.Film-(2019)_[x265].MKV");
  EXPECT_EQ(n.container, "mkv");
  EXPECT_EQ(n.upper, "THE FILM 2019 X265 ");
  auto iso = normaliseReleaseName("Film.2019.iso");
  EXPECT_EQ(iso.container, std::nullopt);
  EXPECT_EQ(iso.upper, "FILM 2019 ISO");
  EXPECT_EQ(normaliseReleaseName("straße.mp4").upper, "STRASSE");
}

TEST(Quality, LevelsMapToPreferences) {
  EXPECT_EQ(streamPreference(QualityLevel::fast), (StreamPreference{8.0, {"1080p", "720p"}}));
  EXPECT_EQ(streamPreference(QualityLevel::best).maxMbps, std::nullopt);
  EXPECT_FALSE(companionVersions(QualityLevel::balanced));
  EXPECT_TRUE(companionVersions(QualityLevel::high));
  EXPECT_EQ(qualityLevelFromRaw(4), std::nullopt);
  EXPECT_EQ(qualityLevelFromRaw(-1), std::nullopt);
  EXPECT_EQ(qualityLevelFromRaw(3), QualityLevel::best);
  EXPECT_EQ(qualityLevelFromLegacy(R"({"maxSizeGB":2})"), QualityLevel::balanced) << "order is required";
}
