#include <gtest/gtest.h>

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
  for (auto [in, out] :
       {std::pair{"http://pms/x?token=abc&apikey=def", "http://pms/x?token=REDACTED&apikey=REDACTED"},
        std::pair{"GET /library?x-plex-token=Secret123 done", "GET /library?x-plex-token=REDACTED done"},
        std::pair{"&API_KEY=k1\"rest", "&API_KEY=REDACTED\"rest"},
        std::pair{"https://x/resolve/RealDebrid/KEY999/tt1/0", "https://x/resolve/RealDebrid/REDACTED/tt1/0"},
        std::pair{"https://realXdebrid.com/d/ABC", "https://realXdebrid.com/d/ABC"},  // the dot is literal
        // The Comet segment: 15 characters stay, 16 go.
        std::pair{"https://comet.elfhosted.com/abcdefghijklmno/m", "https://comet.elfhosted.com/abcdefghijklmno/m"},
        std::pair{"https://COMET.elfhosted.com/abcdefghijklmnop/m", "https://COMET.elfhosted.com/REDACTED/m"}}) {
    EXPECT_EQ(redact(in), out) << in;
  }
}

static std::string read(const std::string& p) { return readFile(p).value_or(""); }

TEST(LogFile, RotatesAtTheExactByteBoundaryAndKeepsTwoOldFiles) {
  test::TestHome home;
  const Date fixed = 0;  // the stamp is 19 characters whatever the zone
  LogFile log(home.file("logs"), [&] { return fixed; });
  const size_t overhead = logStamp(fixed).size() + 2;  // blank and line feed
  const size_t chunk = 1 << 20;
  uint64_t size = 0;
  for (; size + chunk + overhead <= LogFile::kMaxBytes; size += chunk + overhead) log.write(std::string(chunk, 'a'));
  log.write(std::string(LogFile::kMaxBytes - size - overhead, 'b'));  // exactly the limit: allowed
  log.write("");  // one byte more rotates first; the line opens the new file
  log.write(std::string(LogFile::kMaxBytes - overhead, 'c'));  // rotation 2
  log.write("second");                                         // rotation 3
  log.flush();
  EXPECT_EQ(read(log.fileURL()), logStamp(fixed) + " second\n");
  EXPECT_EQ(read(log.fileURL() + ".1").substr(20, 3), "ccc");
  EXPECT_EQ(read(log.fileURL() + ".2"), logStamp(fixed) + " \n");
}

TEST(LogFile, NoSecretReachesTheFileOrTheEngineLogThroughAnyWriter) {
  test::TestHome home;
  LogFile log(home.file("logs"), [] { return wallClockNow(); });
  EngineLog engineLog;
  {
    ScopedLogSink fileSink([&](std::string_view line) { log.write(line); });
    const std::string secrets =
        "https://torrentio.strem.fun/realdebrid=RDKEY123/x?token=PLEXTOK&api_key=APIK "
        "https://real-debrid.com/d/DLCODE99 https://comet.host.io/LONGCOMETSEGMENT0123";
    log.write("direct " + secrets);
    logLine("[supervisor] " + secrets);
    logLine("engine " + secrets + "\nsecond line");
  }
  log.flush();
  const auto text = read(log.fileURL());
  for (const char* secret : {"RDKEY123", "PLEXTOK", "APIK ", "DLCODE99", "LONGCOMETSEGMENT0123"})
    EXPECT_EQ(text.find(secret), std::string::npos) << secret << " in\n" << text;
  for (const char* kept : {"direct ", "[supervisor] ", "engine ", "second line"})
    EXPECT_NE(text.find(kept), std::string::npos) << kept;
  EXPECT_EQ(engineLog.lines().back(), "second line") << "the engine log splits lines";
  for (const auto& line : engineLog.lines()) EXPECT_EQ(line.find("PLEXTOK"), std::string::npos);
  for (int i = 0; i < 800; ++i) logLine("line " + std::to_string(i));
  EXPECT_EQ(engineLog.lines().front(), "line 0") << "and keeps the last 800";
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
  }
  // Exactly one day old stays; half a second more goes.
  clock.advance(86400.0 - 10);
  ActivityLog log(path, clock);
  ASSERT_EQ(log.events().size(), 2u);
  log.prune(clock.now() + 0.5);
  ASSERT_EQ(log.events().size(), 1u);
  // An unknown kind: nothing decodes, and the next event overwrites the file.
  ASSERT_TRUE(writeFileAtomically(path, R"([{"id":"x","at":100000,"kind":"exploded","title":"t"}])"));
  ActivityLog bad(path, clock);
  EXPECT_TRUE(bad.events().empty());
  bad.record(ActivityLog::Kind::quality, "Upgraded");
  EXPECT_EQ(json::parse(read(path))->size(), 1u);
  EXPECT_EQ(clockText(3'599'999), "59:59");
  EXPECT_EQ(clockText(7'384'500), "2:03:04");
}
