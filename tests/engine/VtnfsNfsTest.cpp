#include <gtest/gtest.h>

#include <QStandardPaths>

#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::pattern;
using vt::test::runTool;

static EngineEntry entry(const std::string& name, int64_t size, const std::string& local = "") {
  auto e = test::entry(name, "", local);
  e.size = size;
  e.size_verified = true;
  return e;
}

TEST(VtnfsNfs, AnIndependentClientListsTheTreeAndReadsEverySourceByteForByte) {
  if (QStandardPaths::findExecutable("nfs-ls").isEmpty() || QStandardPaths::findExecutable("nfs-cat").isEmpty())
    GTEST_SKIP() << "nfs-ls and nfs-cat (Debian libnfs-utils) are not installed";
  test::TestHome home;
  const QByteArray filmBytes = pattern(5 << 20, 1), httpBytes = pattern(9 * 1024 * 1024 + 5, 3), alt = pattern(3, 5);
  ASSERT_TRUE(writeFileAtomically(home.file("film.bin"), filmBytes.toStdString()));
  test::FakeHttpServer cdn;
  test::serveBytes(cdn, "/direct/film.mkv", httpBytes);
  test::serveBytes(cdn, "/fresh/alt.mkv", alt);
  test::redirect(cdn, "/addon/resolve/alt", cdn.url("/fresh/alt.mkv").toString());
  const auto at = [&](const char* path) { return cdn.url(path).toString().toStdString(); };
  auto film = entry("Film (2020)/Film (2020).mkv", filmBytes.size(), home.file("film.bin"));
  auto ep2 = entry("Show (2019)/Season 02/Show (2019) - S02E01.mkv", httpBytes.size());
  ep2.url = at("/direct/film.mkv");
  auto lazy = entry("Alt (2022)/Alt (2022).mkv", alt.size());  // lazy; its own resolve fails, the alternative works
  lazy.lazy = true;
  lazy.resolve_url = at("/addon/resolve/dead");
  lazy.alt_sources = std::vector<EngineAltSource>{{at("/addon/resolve/alt")}};
  auto hidden = entry("Hidden (2023)/Hidden (2023).mkv", 10, home.file("film.bin"));
  hidden.hidden = true;
  test::VtnfsProcess engine(home, {film, ep2, lazy, hidden});
  ASSERT_TRUE(engine.waitReady());
  const auto url = [&](const std::string& path) {
    return QStringLiteral("nfs://127.0.0.1/%2?nfsport=%1&mountport=%1&version=3")
        .arg(engine.nfsPort)
        .arg(QString::fromStdString(path));
  };
  int status = -1;
  const QString listing = QString::fromUtf8(runTool("nfs-ls", {"-R", url("")}, &status));
  ASSERT_EQ(status, 0);
  EXPECT_FALSE(listing.contains("Hidden")) << listing.toStdString();
  for (const auto& [e, bytes] :
       std::vector<std::pair<EngineEntry, QByteArray>>{{film, filmBytes}, {ep2, httpBytes}, {lazy, alt}}) {
    EXPECT_TRUE(listing.contains(QString::fromStdString(e.name))) << e.name << "\n" << listing.toStdString();
    const QByteArray out = runTool("nfs-cat", {url(e.name)}, &status);
    EXPECT_EQ(status, 0) << e.name;
    EXPECT_TRUE(out == bytes) << e.name << ": " << out.size() << " bytes of " << bytes.size();
  }
  // The direct link was asked in aligned chunks, each once.
  std::set<QByteArray> ranges;
  for (const auto& r : cdn.requestsTo("/direct/film.mkv")) EXPECT_TRUE(ranges.insert(*r.header("Range")).second);
  EXPECT_TRUE(ranges.count("bytes=0-4194303") && ranges.count("bytes=8388608-9437188"));
}
