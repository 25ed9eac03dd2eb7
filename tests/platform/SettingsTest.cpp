#include <gtest/gtest.h>

#include <sys/stat.h>

#include <QSettings>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/Settings.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

unsigned permissions(const std::string& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_mode & 0777;
}

// The log lines written while the object lives.
struct CapturedLog {
  std::vector<std::string> lines;
  ScopedLogSink sink{[this](std::string_view line) { lines.emplace_back(line); }};
};

}  // namespace

TEST(SettingsStore, PlainValuesAsWrittenReadWithTheTypeTheReaderAsks) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  writeText(path,
            "# written by hand\n"
            "rdKey=ABC\n"
            "useComet=true\n"
            "  allowTS = False \n"
            "cacheLimitGB=32\n"
            "quality=-2\n"
            "rerankExisting=false\n"
            "token=\n"
            "pmsURLString=http://nas.local:32400/a,b;c#d\r\n"
            "path=C:\\films\\old\n");
  ::chmod(path.c_str(), 0644);
  SettingsStore s(path);
  EXPECT_EQ(s.string("rdKey"), "ABC");
  EXPECT_EQ(s.boolean("useComet"), true);
  EXPECT_EQ(s.boolean("allowTS"), false) << "blanks around key and value, any case";
  EXPECT_EQ(s.integer("cacheLimitGB"), 32);
  EXPECT_EQ(s.integer("quality"), -2);
  EXPECT_EQ(s.string("pmsURLString"), "http://nas.local:32400/a,b;c#d");
  EXPECT_EQ(s.string("path"), "C:\\films\\old") << "a backslash typed by hand stands for itself";
  EXPECT_EQ(permissions(path), 0600u) << "a file that holds secrets is its owner's alone";

  // Absent and false (or empty) are different things.
  EXPECT_EQ(s.boolean("rerankExisting"), false);
  EXPECT_TRUE(s.contains("rerankExisting"));
  EXPECT_EQ(s.boolean("nothing"), std::nullopt);
  EXPECT_FALSE(s.contains("nothing"));
  EXPECT_EQ(s.string("token"), "");
  EXPECT_EQ(s.string("nothing"), std::nullopt);

  // Writes come out as plain lines, in place, with the comment kept.
  s.setString("rdKey", "XYZ");
  s.setBoolean("useComet", false);
  s.setInteger("cacheLimitGB", 0);
  s.setBoolean("newFlag", true);
  s.remove("path");
  const auto text = readText(path);
  for (const auto* line :
       {"# written by hand\nrdKey=XYZ\nuseComet=false\nallowTS=False\ncacheLimitGB=0\n", "\nnewFlag=true\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << " in\n" << text;
  EXPECT_EQ(text.find("path="), std::string::npos);
  EXPECT_EQ(permissions(path), 0600u);

  SettingsStore again(path);
  EXPECT_EQ(again.integer("cacheLimitGB"), 0) << "0 is not absent";
  EXPECT_EQ(again.boolean("useComet"), false);
  EXPECT_EQ(again.boolean("newFlag"), true);
  EXPECT_FALSE(again.contains("path"));
}

TEST(SettingsStore, StructuredValuesRoundTripExactly) {
  test::TestHome home;
  const auto path = home.file("sub/settings.ini");
  const std::string groups = R"({"AB/CD":3,"X, Y":1,"q\"uote":2,"back\\slash":4,"Один":5})";
  const std::string legacyRecord = "{\"maxSizeGB\":5.5,\n \"resolutionOrder\":[\"4K\",\"1080p\"]}\r\n";
  const std::string bytes("\x01\x00\xff\x7f=#;[\t \\x41", 14);
  const std::vector<std::pair<std::string, std::string>> values = {
      {"pickedReleaseGroups", groups},
      {"streamPreference", legacyRecord},
      {"binary", bytes},
      {"spaces", "  both ends  "},
      {"allSpaces", "   "},
      {"key = with=equals", "v"},
      {"#notAComment", "[notASection]"},
      {"empty", ""},
  };
  {
    SettingsStore s(path);
    for (const auto& [k, v] : values) s.setData(k, v);
  }
  SettingsStore s(path);
  for (const auto& [k, v] : values) {
    EXPECT_EQ(s.data(k), v) << k;
    EXPECT_EQ(s.string(k), v) << k;
  }
  EXPECT_EQ(s.keys().size(), values.size());
  // One line a key, plus the two comment lines at the top.
  const auto text = readText(path);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<long>(values.size() + 2)) << text;
  // A JSON record stays readable on its line: only its backslashes double.
  std::string groupsLine = "\npickedReleaseGroups=";
  for (const char c : groups) groupsLine += c == '\\' ? std::string("\\\\") : std::string(1, c);
  EXPECT_NE(text.find(groupsLine + "\n"), std::string::npos) << groupsLine << " in\n" << text;
}

TEST(SettingsStore, ATaggedFileIsReadOnceAndRewrittenPlainly) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  {
    // A file as the older store wrote it: tagged values under [General].
    QSettings old(QString::fromStdString(path), QSettings::IniFormat);
    old.setValue("rdKey", "s:KEY");
    old.setValue("pmsURLString", "s:http://nas:32400/x,y");
    old.setValue("cacheLimitGB", "i:64");
    old.setValue("useComet", "b:false");
    old.setValue("rerankExisting", "b:true");
    old.setValue("streamPreference", QByteArray(R"({"resolutionOrder":["4K"]})"));
    old.setValue("pickedReleaseGroups", R"(s:{"A":1,"B":2})");
    old.setValue("engineLogOffset.movie", "i:123");
    old.sync();
  }
  ASSERT_NE(readText(path).find("[General]"), std::string::npos);

  auto check = [](const SettingsStore& s) {
    EXPECT_EQ(s.string("rdKey"), "KEY");
    EXPECT_EQ(s.string("pmsURLString"), "http://nas:32400/x,y");
    EXPECT_EQ(s.integer("cacheLimitGB"), 64);
    EXPECT_EQ(s.boolean("useComet"), false);
    EXPECT_EQ(s.boolean("rerankExisting"), true);
    EXPECT_EQ(s.data("streamPreference"), R"({"resolutionOrder":["4K"]})");
    EXPECT_EQ(s.string("pickedReleaseGroups"), R"({"A":1,"B":2})");
    EXPECT_EQ(s.integer("engineLogOffset.movie"), 123);
  };
  {
    // Reading only (the command-line tool's look) converts in memory and
    // leaves the file alone.
    SettingsStore look(path, SettingsAccess::readOnly);
    check(look);
    EXPECT_NE(readText(path).find("[General]"), std::string::npos);
  }
  {
    CapturedLog log;
    SettingsStore s(path);
    check(s);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0], "[settings] settings.ini rewritten with plain values");
  }
  const auto text = readText(path);
  EXPECT_EQ(text.find("[General]"), std::string::npos) << text;
  for (const auto* tag : {"=s:", "=i:", "=b:", "@ByteArray"}) EXPECT_EQ(text.find(tag), std::string::npos) << text;
  for (const auto* line :
       {"\nrdKey=KEY\n", "\ncacheLimitGB=64\n", "\nuseComet=false\n", "\npmsURLString=http://nas:32400/x,y\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << " in\n" << text;
  EXPECT_EQ(permissions(path), 0600u);

  CapturedLog log;
  SettingsStore again(path);
  check(again);
  EXPECT_TRUE(log.lines.empty()) << "migrated once";
  EXPECT_EQ(readText(path), text);
}

TEST(SettingsStore, AValueThatDoesntReadIsIgnoredWithOneLineNamingTheKey) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  writeText(
      path,
      "cacheLimitGB=lots\nuseComet=maybe\nrdKey=SECRET-rd-0123\nquality=1.5\nnot a setting\nn=99999999999999999999\n");
  CapturedLog log;
  SettingsStore s(path);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0], "[settings] line 5 of settings.ini is not key=value and is ignored");
  log.lines.clear();

  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(s.integer("cacheLimitGB"), std::nullopt);
    EXPECT_EQ(s.boolean("useComet"), std::nullopt);
    EXPECT_EQ(s.integer("rdKey"), std::nullopt);
    EXPECT_EQ(s.integer("quality"), std::nullopt);
    EXPECT_EQ(s.integer("n"), std::nullopt);
  }
  EXPECT_EQ(log.lines, (std::vector<std::string>{
                           "[settings] \"cacheLimitGB\" in settings.ini is not a whole number; the value is ignored",
                           "[settings] \"useComet\" in settings.ini is not true or false; the value is ignored",
                           "[settings] \"rdKey\" in settings.ini is not a whole number; the value is ignored",
                           "[settings] \"quality\" in settings.ini is not a whole number; the value is ignored",
                           "[settings] \"n\" in settings.ini is not a whole number; the value is ignored",
                       }));
  for (const auto& line : log.lines) EXPECT_EQ(line.find("SECRET"), std::string::npos);
  EXPECT_EQ(s.string("rdKey"), "SECRET-rd-0123") << "the text itself is kept";

  // A key written and spoiled again is reported again.
  log.lines.clear();
  s.setInteger("cacheLimitGB", 40);
  EXPECT_EQ(s.integer("cacheLimitGB"), 40);
  s.setString("cacheLimitGB", "forty");
  EXPECT_EQ(s.integer("cacheLimitGB"), std::nullopt);
  EXPECT_EQ(log.lines.size(), 1u);
}

TEST(SettingsStore, AChangeByAnotherProcessIsKeptAcrossALaterWrite) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  SettingsStore app(path);
  app.setInteger("engineLogOffset.movie", 1);
  {
    SettingsStore tool(path);
    tool.setString("rdKey", "NEW");
  }
  app.setInteger("engineLogOffset.movie", 2);
  SettingsStore after(path);
  EXPECT_EQ(after.string("rdKey"), "NEW");
  EXPECT_EQ(after.integer("engineLogOffset.movie"), 2);

  SettingsStore look(home.file("none/settings.ini"), SettingsAccess::readOnly);
  look.setString("x", "y");
  EXPECT_EQ(look.string("x"), "y");
  EXPECT_FALSE(std::filesystem::exists(home.file("none"))) << "a read-only store creates nothing";
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
