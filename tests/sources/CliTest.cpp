#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <QProcess>
#include <filesystem>
#include <sstream>

#include "cli/Cli.h"
#include "cli/Verbs.h"
#include "platform/FolderAccess.h"
#include "platform/Mounts.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"
#include "sources/ranking/PickHistory.h"
#include "support/TestKit.h"

using namespace vt;
using namespace vt::cli;

namespace {

struct Captured {
  int status = -1;
  std::string out;
  std::string err;
};

template <class F>
Captured capture(F call, const std::string& input = "") {
  std::istringstream in(input);
  std::ostringstream out, err;
  Io io{in, out, err};
  const int status = call(io);
  return {status, out.str(), err.str()};
}

Captured runCli(const std::vector<std::string>& args, const std::string& input = "",
                const std::vector<Verb>& table = verbs()) {
  return capture([&](Io& io) { return run(args, io, table); }, input);
}

std::vector<Json> jsonLines(const std::string& text) {
  std::vector<Json> out;
  std::istringstream s(text);
  for (std::string line; std::getline(s, line);) out.push_back(*json::parse(line));
  return out;
}

std::vector<std::string> keys(const Json& row) {
  std::vector<std::string> out;
  for (const auto& [k, v] : row.items()) out.push_back(k);
  return out;
}

const std::string kRows =
    R"({"filename":"Film.2020.2160p.UHD.BluRay.REMUX.HDR.HEVC-FGT","size":"60 GB","isCached":true,"seeders":12})"
    "\n"
    R"({"filename":"Film.2020.1080p.BluRay.x264-SPARKS.mkv","size":"6.3 GB","isCached":true,"seeders":120,"note":"kept","score":"old"})"
    "\n"
    R"({"filename":"Film.2020.720p.WEB.x265-FGT","size":"1.4 GB","seeders":-4})"
    "\n"
    R"({"isCached":true,"seeders":1e3,"size":"unknown","filename":"Film.2020.720p.WEB.x265-FGT.mkv"})"
    "\n";

}  // namespace

TEST(Cli, VerbTableParsingAndErrors) {
  Arguments seen;
  const std::vector<Verb> table = {{"demo",
                                    "a demo verb",
                                    "Does nothing.",
                                    {{"--level", "LEVEL", "a level"}, {"--all", "", "everything"}},
                                    [&](const Arguments& a, Io&) {
                                      seen = a;
                                      return 7;
                                    }}};
  EXPECT_EQ(runCli({}, "", table).status, kUsageError);
  auto c = runCli({"nope"}, "", table);
  EXPECT_EQ(c.status, kUsageError);
  EXPECT_EQ(c.err, "vantory-cli: unknown verb \"nope\"\nRun \"vantory-cli --help\" for the list of verbs.\n");

  c = runCli({"demo", "--levle", "x"}, "", table);
  EXPECT_EQ(c.status, kUsageError);
  EXPECT_EQ(c.err, "vantory-cli demo: unknown flag --levle\nRun \"vantory-cli demo --help\" for its flags.\n");

  c = runCli({"demo", "--level=high", "--home", "/tmp/h", "--all"}, "", table);
  EXPECT_EQ(c.status, 7);
  EXPECT_EQ(seen.value("--level"), "high");
  EXPECT_EQ(seen.home, "/tmp/h");
  EXPECT_TRUE(seen.has("--all"));
}

TEST(Cli, RankKeepsTheRowsOwnKeysAndAddsItsVerdict) {
  auto c = runCli({"rank", "--level", "best", "--runtime", "120"}, kRows + "not json\n[1]\n\n");
  EXPECT_EQ(c.status, 0);
  EXPECT_EQ(c.err,
            "vantory-cli rank: line 5 skipped: not JSON\n"
            "vantory-cli rank: line 6 skipped: not a JSON object\n");
  auto rows = jsonLines(c.out);
  ASSERT_EQ(rows.size(), 3u) << c.out << "(the row without isCached counts as uncached)";
  EXPECT_EQ(rows[0]["filename"], "Film.2020.2160p.UHD.BluRay.REMUX.HDR.HEVC-FGT");
  EXPECT_EQ(rows[1]["filename"], "Film.2020.1080p.BluRay.x264-SPARKS.mkv");
  EXPECT_EQ(keys(rows[1]), (std::vector<std::string>{"filename", "size", "isCached", "seeders", "note", "score",
                                                     "efficiencyScore", "reasons"}));
  EXPECT_EQ(rows[1]["score"], 2000 + 50 + 150 + 100 + 69);
  EXPECT_EQ(rows[1]["reasons"].size(), 3u);
  EXPECT_EQ(rows[2]["score"], 1000 + 80);
}

TEST(Cli, RankReadsTheLevelAndThePickHistoryOfTheHome) {
  test::TestHome home;
  {
    auto store = SettingsStore::openForTestHome(home.path());
    store->setInteger("quality", static_cast<int64_t>(QualityLevel::fast));
    PickHistory history(*store);
    for (int i = 0; i < 7; ++i) history.recordPick("Other.2011.1080p.WEB.x265-fgt");
  }
  const auto c = runCli({"rank", "--home", home.path()}, kRows);
  EXPECT_EQ(c.status, 0);
  auto rows = jsonLines(c.out);
  ASSERT_EQ(rows.size(), 2u) << c.out << "fast drops the remux";
  EXPECT_EQ(rows[1]["filename"], "Film.2020.720p.WEB.x265-FGT.mkv");
  EXPECT_EQ(rows[1]["score"], 1000 + 80 + 150);
  EXPECT_EQ(rows[1]["reasons"], Json({"A group you've chosen 7 times", "Popular: 1000 people share it"}));
}

TEST(Cli, ConfigSetsGetsAndUnsetsAndTakesSecretsOnlyFromStandardInput) {
  test::TestHome home;
  const auto h = home.path();
  auto c = runCli({"config", "set", "quality", "best", "--home", h});
  EXPECT_EQ(c.status, 0) << c.err;
  EXPECT_EQ(runCli({"config", "set", "rdKey", "-", "--home", h}, " RDKEY-123 \r\n").status, 0);
  EXPECT_EQ(runCli({"config", "set", "token", "-", "--home", h}, "PLEXTOKEN\n").status, 0);

  c = runCli({"config", "show", "--home", h});
  EXPECT_NE(c.out.find("token=********\nrdKey=********\nquality=best\n"), std::string::npos) << c.out;
  EXPECT_EQ(c.out.find("PLEXTOKEN"), std::string::npos);
  EXPECT_EQ(runCli({"config", "get", "rdKey", "--home", h}).out, "********\n");
  EXPECT_EQ(runCli({"config", "get", "rdKey", "--reveal", "--home", h}).out, "RDKEY-123\n");

  c = runCli({"config", "set", "rdKey", "SECRETONCMDLINE", "--home", h});
  EXPECT_EQ(c.status, kUsageError);
  EXPECT_EQ(c.err,
            "vantory-cli config: rdKey is a secret: give it on standard input, as \"vantory-cli config set rdKey -\", "
            "so it stays out of the process list and the shell history\n");
  EXPECT_EQ(runCli({"config", "set", "cacheLimitGB", "500", "--home", h}).status, kUsageError);
  EXPECT_EQ(runCli({"config", "get", "rdKey", "--reveal", "--home", h}).out, "RDKEY-123\n")
      << "a refusal changes nothing";

  EXPECT_EQ(runCli({"config", "unset", "rdKey", "--home", h}).status, 0);
  EXPECT_EQ(runCli({"config", "get", "rdKey", "--home", h}).out, "\n") << "nothing to mask";

  // Add-on addresses carry their configuration in the path, "|" included.
  const std::string torrentio = "https://torrentio.strem.fun/sort=size|realdebrid=KEY/manifest.json";
  for (const char* key : {"streamAddonOverride", "mediafusionURL"}) {
    c = runCli({"config", "set", key, torrentio, "--home", h});
    EXPECT_EQ(c.status, 0) << key << ": " << c.err;
    EXPECT_EQ(runCli({"config", "get", key, "--home", h}).out, torrentio + "\n") << key;
    EXPECT_EQ(runCli({"config", "set", key, "torrentio.strem.fun/manifest.json", "--home", h}).status, kUsageError)
        << key << " still wants a scheme and a host";
  }
}

TEST(Cli, TheBuiltToolReadsSecretsFromStandardInput) {
  test::TestHome home;
  const auto h = QString::fromStdString(home.path());
  QProcess set, get;
  set.start(VT_CLI_BINARY, {"config", "set", "rdKey", "-", "--home", h});
  set.write("KEY-FROM-STDIN\n");
  set.closeWriteChannel();
  ASSERT_TRUE(set.waitForFinished(10000));
  EXPECT_EQ(set.exitCode(), 0) << set.readAllStandardError().toStdString();
  get.start(VT_CLI_BINARY, {"config", "get", "rdKey", "--reveal", "--home", h});
  ASSERT_TRUE(get.waitForFinished(10000));
  EXPECT_EQ(get.readAllStandardOutput().toStdString(), "KEY-FROM-STDIN\n");
}

TEST(Cli, SetupMountWritesTheFstabEntriesAndFolderRightsAndUndoesThemExactly) {
  test::TestHome root;
  const std::string closed = root.file("home-0700");
  const std::string home = closed + "/data";
  std::filesystem::create_directories(home);
  ::chmod(closed.c_str(), 0700);
  const std::string fstab = root.file("fstab");
  const std::string original = "# static file system information\nUUID=1 / ext4 defaults 0 1";  // no last newline
  ASSERT_TRUE(writeFileAtomically(fstab, original));
  const Account plex{"plex", 12345, 12345, {12345}};
  MountSetup setup{*accountByUid(::getuid()), AppPaths::forTestHome(home), fstab, plex, false};

  const auto added = capture([&](Io& io) { return setupMount(setup, io); });
  ASSERT_EQ(added.status, 0) << added.err;
  const std::string written = *readFile(fstab);
  EXPECT_TRUE(written.rfind(original + "\n# vantory-cli setup-mount for ", 0) == 0) << written;
  EXPECT_NE(written.find("127.0.0.1:/ " + home + "/Library\\040TV nfs vers=3,proto=tcp,port=12051,mountport=12051,"),
            std::string::npos)
      << written;
  EXPECT_TRUE(fstabLetsUsersMount(written, home + "/Library TV", 12051));
  EXPECT_FALSE(fstabLetsUsersMount(written, home + "/Library TV", 12049)) << "another port is another server";
  const bool aclsHere = added.out.find("let plex enter " + closed) != std::string::npos;

  // --remove restores the file byte for byte.
  setup.remove = true;
  ASSERT_EQ(capture([&](Io& io) { return setupMount(setup, io); }).status, 0);
  EXPECT_EQ(*readFile(fstab), original);
  if (aclsHere) {
    EXPECT_TRUE(readProblem(home + "/Library", plex, "\n"));
    struct stat st {};
    ::stat(closed.c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0700u) << "plain mode bits again";
  }
}

TEST(Cli, SetupMountCheckSaysWhetherPlexCanReadEachLibraryFolder) {
  test::TestHome root;
  ::chmod(root.path().c_str(), 0755);  // the temporary folder itself is not the point here
  const std::string closed = root.file("home-0700");
  const std::string home = closed + "/data";
  std::filesystem::create_directories(home + "/Library");
  std::filesystem::create_directories(home + "/Library TV");
  ::chmod(closed.c_str(), 0700);
  const Account nobody{"nobody", 65534, 65534, {65534}};
  const auto check = [&](const std::optional<Account>& who) {
    return capture([&](Io& io) { return checkMountAccess(AppPaths::forTestHome(home), who, io, "\n"); });
  };
  const auto shut = check(nobody);
  EXPECT_EQ(shut.status, 1);
  const auto row = jsonLines(shut.out).at(0);
  EXPECT_EQ(row["folder"], home + "/Library");
  EXPECT_EQ(row["readable"], false);
  EXPECT_NE(row["problem"].get<std::string>().find(closed), std::string::npos) << shut.out;

  ::chmod(closed.c_str(), 0755);
  const auto open = check(nobody);
  EXPECT_EQ(open.status, 0) << open.out;
  EXPECT_EQ(open.out.find("problem"), std::string::npos);
  EXPECT_EQ(check(std::nullopt).status, 1);
}
