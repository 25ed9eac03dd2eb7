#include <gtest/gtest.h>

#include <filesystem>

#include "platform/Paths.h"
#include "platform/Settings.h"
#include "support/TestKit.h"

using namespace vt;

TEST(SettingsStore, TellsAbsentFromFalseAndZeroAcrossARestart) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  {
    SettingsStore s(path);
    EXPECT_FALSE(s.contains("rerankExisting"));
    EXPECT_EQ(s.boolean("rerankExisting"), std::nullopt);
    s.setBoolean("rerankExisting", false);
    s.setInteger("cacheLimitGB", 0);
    s.setString("token", "");
    s.setString("engineLogOffset.movie", "x");
    s.setData("streamPreference", std::string("\x01\x00\xff", 3));
  }
  SettingsStore s(path);
  EXPECT_TRUE(s.contains("rerankExisting"));
  EXPECT_EQ(s.boolean("rerankExisting"), false);
  EXPECT_EQ(s.integer("cacheLimitGB"), 0);
  EXPECT_EQ(s.string("token"), "");
  EXPECT_EQ(s.string("engineLogOffset.movie"), "x");
  EXPECT_EQ(s.data("streamPreference"), std::string("\x01\x00\xff", 3));
  EXPECT_EQ(s.boolean("useComet"), std::nullopt);

  // A value of another type reads as absent, so callers fall back to defaults.
  EXPECT_EQ(s.integer("token"), std::nullopt);
  EXPECT_EQ(s.boolean("cacheLimitGB"), std::nullopt);
  EXPECT_EQ(s.string("cacheLimitGB"), std::nullopt);

  s.remove("rerankExisting");
  EXPECT_FALSE(SettingsStore(path).contains("rerankExisting"));
}

TEST(SettingsStore, HandEditedGarbageReadsAsAbsent) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  {
    std::FILE* f = std::fopen(path.c_str(), "w");
    std::fputs("[General]\ncacheLimitGB=i:lots\nquality=7\nuseComet=b:maybe\n", f);
    std::fclose(f);
  }
  SettingsStore s(path);
  EXPECT_EQ(s.integer("cacheLimitGB"), std::nullopt);
  EXPECT_EQ(s.integer("quality"), std::nullopt);
  EXPECT_EQ(s.boolean("useComet"), std::nullopt);
}

TEST(SettingsStore, ANewTestHomeStartsEmptyAndASecondStartKeepsSettings) {
  test::TestHome home;
  {
    // Settings left behind by something else before the home was owned.
    SettingsStore stray(home.file("settings.ini"));
    stray.setString("token", "old");
  }
  {
    auto s = SettingsStore::openForTestHome(home.path());
    EXPECT_FALSE(s->contains("token"));
    EXPECT_TRUE(std::filesystem::exists(home.file(".settings-owned")));
    s->setString("token", "new");
  }
  auto again = SettingsStore::openForTestHome(home.path());
  EXPECT_EQ(again->string("token"), "new");
}

TEST(AppPaths, TestHomeHoldsEverything) {
  auto p = AppPaths::forTestHome("/tmp/home-x");
  EXPECT_TRUE(p.isTestHome());
  EXPECT_EQ(p.dataDirectory, "/tmp/home-x");
  EXPECT_EQ(p.settingsPath, "/tmp/home-x/settings.ini");
  EXPECT_EQ(p.data("library.json"), "/tmp/home-x/library.json");

  qputenv("XDG_DATA_HOME", "/xdg/data");
  qputenv("XDG_CONFIG_HOME", "relative/ignored");
  qputenv("HOME", "/home/u");
  qunsetenv("VT_UITEST_HOME");
  auto n = AppPaths::fromEnvironment();
  EXPECT_FALSE(n.isTestHome());
  EXPECT_EQ(n.dataDirectory, "/xdg/data/Vantory");
  EXPECT_EQ(n.settingsPath, "/home/u/.config/Vantory/settings.ini");

  test::TestHome home;
  auto nested = AppPaths::forTestHome(home.file("a/b/c"));
  EXPECT_TRUE(nested.ensureDataDirectory());
  EXPECT_TRUE(std::filesystem::is_directory(home.file("a/b/c")));
}
