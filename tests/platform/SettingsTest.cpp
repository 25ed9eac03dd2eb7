#include <gtest/gtest.h>

#include <sys/stat.h>

#include <QSettings>
#include <algorithm>
#include <filesystem>

#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

std::string readText(const std::string& path) { return readFile(path).value_or(""); }

unsigned permissions(const std::string& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_mode & 0777;
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The log lines written while the object lives.
struct CapturedLog {
  std::vector<std::string> lines;
  ScopedLogSink sink{[this](std::string_view line) { lines.emplace_back(line); }};
};

}  // namespace

TEST(SettingsStore, PlainValuesAsWrittenReadWithTheTypeTheReaderAsks) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  writeFileAtomically(path,
                      "# written by hand\nrdKey=ABC\nuseComet=true\n  allowTS = False \ncacheLimitGB=32\nquality=-2\n"
                      "rerankExisting=false\ntoken=\npmsURLString=http://nas.local:32400/a,b;c#d\r\n"
                      "path=C:\\films\\old\n");
  ::chmod(path.c_str(), 0644);
  SettingsStore s(path);
  EXPECT_EQ(s.boolean("allowTS"), false) << "blanks around key and value, any case";
  EXPECT_EQ(s.integer("quality"), -2);
  EXPECT_EQ(s.string("pmsURLString"), "http://nas.local:32400/a,b;c#d");
  EXPECT_EQ(s.string("path"), "C:\\films\\old") << "a backslash typed by hand stands for itself";
  EXPECT_EQ(permissions(path), 0600u) << "a file that holds secrets is its owner's alone";
  // Absent and false (or empty) are different things.
  EXPECT_EQ(s.boolean("rerankExisting"), false);
  EXPECT_EQ(s.boolean("nothing"), std::nullopt);
  EXPECT_FALSE(s.contains("nothing"));
  EXPECT_EQ(s.string("token"), "");

  // Writes come out as plain lines, in place, with the comment kept.
  s.setString("rdKey", "XYZ");
  s.setBoolean("useComet", false);
  s.setInteger("cacheLimitGB", 0);
  s.setBoolean("newFlag", true);
  s.remove("path");
  const auto text = readText(path);
  EXPECT_TRUE(has(text, "# written by hand\nrdKey=XYZ\nuseComet=false\nallowTS=False\ncacheLimitGB=0\n")) << text;
  EXPECT_TRUE(has(text, "\nnewFlag=true\n")) << text;
  EXPECT_FALSE(has(text, "path="));
  EXPECT_EQ(permissions(path), 0600u);

  SettingsStore again(path);
  EXPECT_EQ(again.integer("cacheLimitGB"), 0) << "0 is not absent";
  EXPECT_EQ(again.boolean("newFlag"), true);
  EXPECT_FALSE(again.contains("path"));
}

TEST(SettingsStore, StructuredValuesRoundTripExactly) {
  test::TestHome home;
  const auto path = home.file("sub/settings.ini");
  const std::string groups = R"({"AB/CD":3,"X, Y":1,"q\"uote":2,"back\\slash":4,"Один":5})";
  const std::vector<std::pair<std::string, std::string>> values = {
      {"pickedReleaseGroups", groups},
      {"streamPreference", "{\"maxSizeGB\":5.5,\n \"resolutionOrder\":[\"4K\"]}\r\n"},
      {"binary", std::string("\x01\x00\xff\x7f=#;[\t \\x41", 14)},
      {"spaces", "  both ends  "},
      {"key = with=equals", "v"},
      {"#notAComment", "[notASection]"},
  };
  {
    SettingsStore s(path);
    for (const auto& [k, v] : values) s.setData(k, v);
  }
  SettingsStore s(path);
  for (const auto& [k, v] : values) EXPECT_EQ(s.data(k), v) << k;
  EXPECT_EQ(s.keys().size(), values.size());
  // One line a key, plus the two comment lines at the top.
  const auto text = readText(path);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<long>(values.size() + 2)) << text;
  // A JSON record stays readable on its line: only its backslashes double.
  std::string groupsLine = "\npickedReleaseGroups=";
  for (const char c : groups) groupsLine += c == '\\' ? std::string("\\\\") : std::string(1, c);
  EXPECT_TRUE(has(text, groupsLine + "\n")) << groupsLine << " in\n" << text;
}

TEST(SettingsStore, ATaggedFileIsReadOnceAndRewrittenPlainly) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  {
    // A file as the older store wrote it: tagged values under [General].
    QSettings old(QString::fromStdString(path), QSettings::IniFormat);
    old.setValue("pmsURLString", "s:http://nas:32400/x,y");
    old.setValue("cacheLimitGB", "i:64");
    old.setValue("useComet", "b:false");
    old.setValue("streamPreference", QByteArray(R"({"resolutionOrder":["4K"]})"));
    old.sync();
  }
  auto check = [](const SettingsStore& s) {
    EXPECT_EQ(s.string("pmsURLString"), "http://nas:32400/x,y");
    EXPECT_EQ(s.integer("cacheLimitGB"), 64);
    EXPECT_EQ(s.boolean("useComet"), false);
    EXPECT_EQ(s.data("streamPreference"), R"({"resolutionOrder":["4K"]})");
  };
  {
    // Reading only converts in memory and leaves the file alone.
    SettingsStore look(path, SettingsAccess::readOnly);
    check(look);
    EXPECT_TRUE(has(readText(path), "[General]"));
  }
  {
    CapturedLog log;
    SettingsStore s(path);
    check(s);
    EXPECT_EQ(log.lines, std::vector<std::string>{"[settings] settings.ini rewritten with plain values"});
  }
  const auto text = readText(path);
  for (const auto* tag : {"[General]", "=s:", "=i:", "=b:", "@ByteArray"}) EXPECT_FALSE(has(text, tag)) << text;
  EXPECT_TRUE(has(text, "\npmsURLString=http://nas:32400/x,y\n")) << text;
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
  writeFileAtomically(path, "cacheLimitGB=lots\nuseComet=maybe\nrdKey=SECRET-rd-0123\nnot a setting\n");
  CapturedLog log;
  SettingsStore s(path);
  EXPECT_EQ(log.lines, std::vector<std::string>{"[settings] line 4 of settings.ini is not key=value and is ignored"});
  log.lines.clear();

  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(s.boolean("useComet"), std::nullopt);
    for (const auto* key : {"cacheLimitGB", "rdKey"}) EXPECT_EQ(s.integer(key), std::nullopt) << key;
  }
  ASSERT_EQ(log.lines.size(), 3u) << "one line a key, however often it is read";
  EXPECT_EQ(log.lines[0], "[settings] \"useComet\" in settings.ini is not true or false; the value is ignored");
  EXPECT_EQ(log.lines[2], "[settings] \"rdKey\" in settings.ini is not a whole number; the value is ignored");
  for (const auto& line : log.lines) EXPECT_FALSE(has(line, "SECRET"));
  EXPECT_EQ(s.string("rdKey"), "SECRET-rd-0123") << "the text itself is kept";

  // A key written and spoiled again is reported again.
  log.lines.clear();
  s.setInteger("cacheLimitGB", 40);
  EXPECT_EQ(s.integer("cacheLimitGB"), 40);
  s.setString("cacheLimitGB", "forty");
  EXPECT_EQ(s.integer("cacheLimitGB"), std::nullopt);
  EXPECT_EQ(log.lines.size(), 1u);
}

TEST(SettingsStore, AnotherProcessesChangeIsKeptAndATestHomeStartsEmpty) {
  test::TestHome home;
  const auto path = home.file("settings.ini");
  SettingsStore app(path);
  app.setInteger("engineLogOffset.movie", 1);
  SettingsStore(path).setString("rdKey", "NEW");
  app.setInteger("engineLogOffset.movie", 2);
  SettingsStore after(path);
  EXPECT_EQ(after.string("rdKey"), "NEW");
  EXPECT_EQ(after.integer("engineLogOffset.movie"), 2);

  SettingsStore look(home.file("none/settings.ini"), SettingsAccess::readOnly);
  look.setString("x", "y");
  EXPECT_EQ(look.string("x"), "y");
  EXPECT_FALSE(std::filesystem::exists(home.file("none"))) << "a read-only store creates nothing";

  // Settings left behind before the test home was owned are dropped once; a second start keeps them.
  {
    auto s = SettingsStore::openForTestHome(home.path());
    EXPECT_FALSE(s->contains("rdKey"));
    s->setString("token", "new");
  }
  EXPECT_EQ(SettingsStore::openForTestHome(home.path())->string("token"), "new");
}

TEST(AppPaths, RelativeXdgFoldersAreIgnored) {
  qputenv("XDG_DATA_HOME", "/xdg/data");
  qputenv("XDG_CONFIG_HOME", "relative/ignored");
  qputenv("HOME", "/home/u");
  qunsetenv("VT_UITEST_HOME");
  auto n = AppPaths::fromEnvironment();
  EXPECT_FALSE(n.isTestHome());
  EXPECT_EQ(n.dataDirectory, "/xdg/data/Vantory");
  EXPECT_EQ(n.settingsPath, "/home/u/.config/Vantory/settings.ini");

  test::TestHome home;
  EXPECT_TRUE(AppPaths::forTestHome(home.file("a/b/c")).ensureDataDirectory());
  EXPECT_TRUE(std::filesystem::is_directory(home.file("a/b/c")));
}
