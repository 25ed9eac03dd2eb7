#include <gtest/gtest.h>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QScopeGuard>
#include <QStandardPaths>

#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::pattern;

// Runs a tool while the event loop turns, since the sources it reads may be fakes in this process.
static QByteArray runTool(const QString& program, const QStringList& args, int* status = nullptr) {
  QProcess p;
  p.start(program, args);
  const bool ended = test::spinUntil([&] { return p.state() == QProcess::NotRunning; }, 30000);
  if (!ended) p.kill(), p.waitForFinished();
  if (status) *status = ended && p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
  return p.readAllStandardOutput();
}

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
  const auto manifest = home.file("entries.json");
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({film, ep2, lazy, hidden})));
  EngineStatusClient client(sharedHttpClient());
  test::VtnfsProcess engine(manifest, home.file("engine.log"));
  ASSERT_TRUE(engine.waitReady(client));
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

TEST(VtnfsFuse, TheMountedFolderServesFileToolsAndFollowsReloads) {
  if (QStandardPaths::findExecutable("fusermount3").isEmpty() || !QFile::exists("/dev/fuse"))
    GTEST_SKIP() << "no FUSE on this machine";
  test::TestHome home;
  const QString mount = QString::fromStdString(home.file("Library"));
  ASSERT_TRUE(QDir().mkpath(mount));
  const QByteArray other = pattern(3 * 1024 * 1024, 7);
  ASSERT_TRUE(writeFileAtomically(home.file("other.bin"), other.toStdString()));
  auto second = entry("Second (2021)/Second (2021).mkv", other.size(), home.file("other.bin"));
  const auto manifest = home.file("entries.json");
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({second})));
  EngineStatusClient client(sharedHttpClient());
  test::VtnfsProcess engine(manifest, home.file("engine.log"));
  ASSERT_TRUE(engine.waitReady(client));
  int status = -1;
  runTool(VT_VTNFS_MOUNT_BINARY, {QStringLiteral("127.0.0.1:%1").arg(engine.nfsPort), mount}, &status);
  if (status != 0) GTEST_SKIP() << "FUSE mounts are not allowed here";
  const auto unmount = qScopeGuard([&] { QProcess::execute("fusermount3", {"-u", mount}); });
  EXPECT_TRUE(runTool("cat", {mount + "/" + QString::fromStdString(second.name)}) == other);
  // A reload that adds one entry and hides another shows without a remount.
  auto third = entry("Third (2022)/Third (2022).mkv", other.size(), home.file("other.bin"));
  second.hidden = true;
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({second, third})));
  ASSERT_TRUE(test::runTask(client.reload(engine.controlURL())).answered);
  EXPECT_TRUE(test::spinUntil(
      [&] {
        const auto again = runTool("ls", {"-R", mount});
        return again.contains("Third (2022).mkv") && !again.contains("Second (2021)");
      },
      10000));
}
