#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "core/ActivityLog.h"
#include "core/Display.h"
#include "core/EngineLog.h"
#include "core/LogFile.h"
#include "platform/Redaction.h"
#include "platform/Clock.h"
#include "platform/Json.h"
#include "platform/Log.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;

TEST(Redact, HidesEverySecretKindInAnyCaseAndKeepsParameterNames) {
  EXPECT_EQ(redact("http://pms/x?token=abc&apikey=def"), "http://pms/x?token=REDACTED&apikey=REDACTED");
  EXPECT_EQ(redact("GET /library?x-plex-token=Secret123 done"), "GET /library?x-plex-token=REDACTED done");
  EXPECT_EQ(redact("&API_KEY=k1\"rest"), "&API_KEY=REDACTED\"rest");
  EXPECT_EQ(redact("https://torrentio.strem.fun/realdebrid=ABCdef123/stream/movie/tt1.json"),
            "https://torrentio.strem.fun/realdebrid=REDACTED/stream/movie/tt1.json");
  EXPECT_EQ(redact("https://x/resolve/RealDebrid/KEY999/tt1/0"), "https://x/resolve/RealDebrid/REDACTED/tt1/0");
  EXPECT_EQ(redact("link https://Real-Debrid.com/d/ABCDEF123 ok"), "link https://Real-Debrid.com/d/REDACTED ok");
  EXPECT_EQ(redact("https://realXdebrid.com/d/ABC"), "https://realXdebrid.com/d/ABC") << "the dot is literal";
  // The Comet segment: 15 characters stay, 16 go.
  EXPECT_EQ(redact("https://comet.elfhosted.com/abcdefghijklmno/manifest"),
            "https://comet.elfhosted.com/abcdefghijklmno/manifest");
  EXPECT_EQ(redact("https://COMET.elfhosted.com/abcdefghijklmnop/manifest"),
            "https://COMET.elfhosted.com/REDACTED/manifest");

  // Random and truncated input.
  std::mt19937 rng(3);
  const std::string seeds[] = {
      "?token=", "&apikey=", "realdebrid=", "real-debrid.com/d/", "comet.x/", "\xff", "\xc3", "é",
      "\n",      "&",        "=",           "A1b2C3d4E5f6G7h8",   "\"",       " "};
  for (int i = 0; i < 400; ++i) {
    std::string s;
    const int n = static_cast<int>(rng() % 12);
    for (int k = 0; k < n; ++k) s += seeds[rng() % std::size(seeds)];
    s = s.substr(0, rng() % (s.size() + 1));
    const auto out = redact(s);
    EXPECT_EQ(out.find("?token=A1b2"), std::string::npos) << s;
  }
}

namespace {
std::string read(const std::string& p) { return readFile(p).value_or(""); }
}  // namespace

TEST(LogFile, RotatesAtTheExactByteBoundaryAndKeepsTwoOldFiles) {
  test::TestHome home;
  const Date fixed = 0;  // the stamp is 19 characters whatever the zone
  LogFile log(home.file("logs"), [&] { return fixed; });
  const size_t overhead = logStamp(fixed).size() + 2;  // blank and line feed
  ASSERT_EQ(overhead, 21u);

  // Fill the file to exactly the limit: allowed.
  const size_t chunk = 1 << 20;
  uint64_t size = 0;
  while (size + chunk + overhead <= LogFile::kMaxBytes) {
    log.write(std::string(chunk, 'a'));
    size += chunk + overhead;
  }
  log.write(std::string(LogFile::kMaxBytes - size - overhead, 'b'));
  log.flush();
  EXPECT_EQ(std::filesystem::file_size(log.fileURL()), LogFile::kMaxBytes);
  EXPECT_FALSE(std::filesystem::exists(log.fileURL() + ".1"));

  // One byte more rotates first; the line opens the new file.
  log.write("");
  log.flush();
  EXPECT_EQ(std::filesystem::file_size(log.fileURL() + ".1"), LogFile::kMaxBytes);
  EXPECT_EQ(read(log.fileURL()), logStamp(fixed) + " \n");

  // Three rotations in all: .2 holds the file of two rotations ago.
  log.write(std::string(LogFile::kMaxBytes - overhead, 'c'));  // rotation 2
  log.write("second");                                         // rotation 3
  log.flush();
  EXPECT_EQ(read(log.fileURL()), logStamp(fixed) + " second\n");
  EXPECT_EQ(read(log.fileURL() + ".1").substr(20, 3), "ccc");
  EXPECT_EQ(read(log.fileURL() + ".2"), logStamp(fixed) + " \n");
  EXPECT_FALSE(std::filesystem::exists(log.fileURL() + ".3"));
}

TEST(LogFile, NoSecretReachesTheFileThroughAnyWriter) {
  test::TestHome home;
  LogFile log(home.file("logs"), [] { return wallClockNow(); });
  EngineLog engineLog;
  {
    ScopedLogSink fileSink([&](std::string_view line) { log.write(line); });
    const std::string secrets =
        "https://torrentio.strem.fun/realdebrid=RDKEY123/x?token=PLEXTOK&api_key=APIK "
        "https://real-debrid.com/d/DLCODE99 https://comet.host.io/LONGCOMETSEGMENT0123";
    log.write("direct " + secrets);
    logLine("engine " + secrets + "\nsecond line");
    logLine("[supervisor] " + secrets);
  }
  log.flush();

  const auto text = read(log.fileURL());
  for (const char* secret : {"RDKEY123", "PLEXTOK", "APIK ", "DLCODE99", "LONGCOMETSEGMENT0123"})
    EXPECT_EQ(text.find(secret), std::string::npos) << secret << " in\n" << text;
  for (const char* kept : {"direct ", "engine ", "second line", "[supervisor] "})
    EXPECT_NE(text.find(kept), std::string::npos) << kept;
  for (const auto& line : engineLog.lines()) EXPECT_EQ(line.find("PLEXTOK"), std::string::npos);
}

TEST(EngineLog, IsASinkThatSplitsLinesAndKeepsTheLastEightHundred) {
  EngineLog log;
  logLine("a\n\nb\n");
  EXPECT_EQ(log.lines(), (std::deque<std::string>{"a", "b"}));
  for (int i = 0; i < 799; ++i) logLine("line " + std::to_string(i));
  logLine("one more");
  EXPECT_EQ(log.lines().size(), 800u);
  EXPECT_EQ(log.lines().front(), "line 0");
  EXPECT_EQ(log.lines().back(), "one more");
}

TEST(ActivityLog, KeepsOneDayPersistsAndStartsEmptyOnABadFile) {
  test::TestHome home;
  const auto path = home.file("activity.json");
  ManualClock clock(100000);
  {
    ActivityLog log(path, clock);
    log.record(ActivityLog::Kind::added, "Film", std::string("1080p"), std::string("tt1"));
    clock.advance(10);
    log.record(ActivityLog::Kind::started, "Other");
    ASSERT_EQ(log.events().size(), 2u);
    const auto doc = json::parse(read(path));
    ASSERT_TRUE(doc);
    const auto& first = (*doc)[0];
    std::vector<std::string> keys;
    for (auto it = first.begin(); it != first.end(); ++it) keys.push_back(it.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"id", "at", "kind", "title", "detail", "imdb"}));
    EXPECT_EQ(first["at"], 100000.0);
    EXPECT_FALSE((*doc)[1].contains("detail"));
  }
  // Exactly one day old stays; half a second more goes.
  clock.advance(86400.0 - 10);
  {
    ActivityLog log(path, clock);
    ASSERT_EQ(log.events().size(), 2u);
    EXPECT_EQ(log.events()[0].imdb, "tt1");
    log.prune(clock.now() + 0.5);
    ASSERT_EQ(log.events().size(), 1u);
    EXPECT_EQ(log.events()[0].title, "Other");
  }
  // An unknown kind: nothing decodes, and the next event overwrites the file.
  ASSERT_TRUE(writeFileAtomically(path, R"([{"id":"x","at":100000,"kind":"exploded","title":"t"}])"));
  ActivityLog log(path, clock);
  EXPECT_TRUE(log.events().empty());
  log.record(ActivityLog::Kind::quality, "Upgraded");
  EXPECT_EQ(json::parse(read(path))->size(), 1u);

  ActivityLog memoryOnly(std::nullopt, clock);
  for (int i = 0; i < 1100; ++i) memoryOnly.record(ActivityLog::Kind::added, std::to_string(i));
  EXPECT_EQ(memoryOnly.events().size(), 1000u);
  EXPECT_EQ(memoryOnly.events().front().title, "100");
}

TEST(ActivityLog, ClockText) {
  EXPECT_EQ(clockText(3'599'999), "59:59");
  EXPECT_EQ(clockText(7'384'500), "2:03:04");
}
