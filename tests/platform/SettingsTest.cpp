#include <gtest/gtest.h>

#include <QSettings>
#include <filesystem>

#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

std::string readText(const std::string& path) { return readFile(path).value_or(""); }
unsigned permissions(const std::string& path) { return unsigned(std::filesystem::status(path).permissions()) & 0777; }
bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

struct CapturedLog {
  std::vector<std::string> lines;
  ScopedLogSink sink{[this](std::string_view line) { lines.emplace_back(line); }};
};

struct Settings : ::testing::Test {
  test::TestHome home;
  const std::string path = home.file("settings.ini");
};

}  // namespace

TEST_F(Settings, PlainValuesAsWrittenReadWithTheTypeTheReaderAsks) {
  writeFileAtomically(path,
                      "# written by hand\nrdKey=ABC\n  allowTS = False \nquality=-2\ntoken=\n"
                      "pmsURLString=http://nas.local:32400/a,b;c#d\r\npath=C:\\films\\old\n");
  std::filesystem::permissions(path, std::filesystem::perms(0644));
  SettingsStore s(path);
  EXPECT_EQ(s.boolean("allowTS"), false) << "blanks around key and value, any case";
  EXPECT_EQ(s.string("pmsURLString"), "http://nas.local:32400/a,b;c#d");
  EXPECT_EQ(s.string("path"), "C:\\films\\old") << "a backslash typed by hand stands for itself";
  EXPECT_EQ(permissions(path), 0600u) << "a file that holds secrets is its owner's alone";
  s.setString("rdKey", "XYZ");
  s.setInteger("quality", 0);
  s.remove("path");
  EXPECT_TRUE(has(readText(path), "# written by hand\nrdKey=XYZ\nallowTS=False\nquality=0\ntoken=\n"));
  EXPECT_EQ(SettingsStore(path).integer("quality"), 0) << "0 is not absent";
  EXPECT_FALSE(SettingsStore(path).contains("path"));
}

TEST_F(Settings, StructuredValuesRoundTripExactlyInAFolderMadeForThem) {
  const auto sub = home.file("sub/settings.ini");
  const std::vector<std::pair<std::string, std::string>> values = {
      {"pickedReleaseGroups", R"({"AB/CD":3,"q\"uote":2,"back\\slash":4,"Один":5})"},
      {"streamPreference", "{\"maxSizeGB\":5.5,\n \"resolutionOrder\":[\"4K\"]}\r\n"},
      {"binary", std::string("\x01\x00\xff\x7f=#;[\t \\x41", 14)},
      {"key = with=equals", "v"},
      {"#notAComment", "  [notASection]  "}};
  for (const auto& [k, v] : values) SettingsStore(sub).setData(k, v);
  SettingsStore s(sub);
  for (const auto& [k, v] : values) EXPECT_EQ(s.data(k), v) << k;
  const auto groupsLine = R"(pickedReleaseGroups={"AB/CD":3,"q\\"uote":2,"back\\\\slash":4,"Один":5})";
  EXPECT_TRUE(has(readText(sub), std::string("\n") + groupsLine + "\n")) << "a JSON record stays readable on its line";
}

TEST_F(Settings, ATaggedFileIsReadOnceAndRewrittenPlainly) {
  {
    QSettings old(QString::fromStdString(path), QSettings::IniFormat);  // as the older store wrote it
    old.setValue("pmsURLString", "s:http://nas:32400/x,y");
    old.setValue("streamPreference", QByteArray(R"({"resolutionOrder":["4K"]})"));
  }
  const auto check = [](const SettingsStore& s) {
    EXPECT_EQ(s.string("pmsURLString"), "http://nas:32400/x,y");
    EXPECT_EQ(s.data("streamPreference"), R"({"resolutionOrder":["4K"]})");
  };
  check(SettingsStore(path, SettingsAccess::readOnly));
  EXPECT_TRUE(has(readText(path), "[General]")) << "reading alone leaves the file";
  for (const auto* expected : {"[settings] settings.ini rewritten with plain values", ""}) {
    CapturedLog log;
    check(SettingsStore(path));
    EXPECT_EQ(log.lines, *expected ? std::vector<std::string>{expected} : std::vector<std::string>{}) << "once";
  }
  for (const auto* tag : {"[General]", "=s:", "@ByteArray"}) EXPECT_FALSE(has(readText(path), tag)) << tag;
}

TEST_F(Settings, AValueThatDoesntReadIsIgnoredWithOneLineNamingTheKeyButNeverTheValue) {
  writeFileAtomically(path, "useComet=maybe\nrdKey=SECRET-rd-0123\nnot a setting\n");
  CapturedLog log;
  SettingsStore s(path);
  EXPECT_EQ(log.lines, std::vector<std::string>{"[settings] line 3 of settings.ini is not key=value and is ignored"});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(s.integer("rdKey"), std::nullopt);
  EXPECT_EQ(s.boolean("useComet"), std::nullopt);
  ASSERT_EQ(log.lines.size(), 3u) << "one line a key, however often it is read";
  EXPECT_EQ(log.lines[1], "[settings] \"rdKey\" in settings.ini is not a whole number; the value is ignored");
  EXPECT_EQ(log.lines[2], "[settings] \"useComet\" in settings.ini is not true or false; the value is ignored");
  for (const auto& line : log.lines) EXPECT_FALSE(has(line, "SECRET"));
  EXPECT_EQ(s.string("rdKey"), "SECRET-rd-0123") << "the text itself is kept";
  s.setString("rdKey", "forty");
  EXPECT_EQ(s.integer("rdKey"), std::nullopt);
  EXPECT_EQ(log.lines.size(), 4u) << "a key written and spoiled again is reported again";
}

TEST_F(Settings, AnotherProcessesChangeIsKeptAndATestHomeStartsEmpty) {
  SettingsStore app(path);
  SettingsStore(path).setString("rdKey", "NEW");
  app.setInteger("engineLogOffset.movie", 2);
  EXPECT_EQ(SettingsStore(path).string("rdKey"), "NEW");
  // Settings left behind before the test home was owned are dropped once; a second start keeps them.
  EXPECT_FALSE(SettingsStore::openForTestHome(home.path())->contains("rdKey"));
  SettingsStore::openForTestHome(home.path())->setString("token", "new");
  EXPECT_EQ(SettingsStore::openForTestHome(home.path())->string("token"), "new");
}

TEST(AppPaths, RelativeXdgFoldersAreIgnored) {
  qputenv("XDG_DATA_HOME", "/xdg/data");
  qputenv("XDG_CONFIG_HOME", "relative/ignored");
  qputenv("HOME", "/home/u");
  qunsetenv("VT_UITEST_HOME");
  EXPECT_EQ(AppPaths::fromEnvironment().dataDirectory, "/xdg/data/Vantory");
  EXPECT_EQ(AppPaths::fromEnvironment().settingsPath, "/home/u/.config/Vantory/settings.ini");
}
