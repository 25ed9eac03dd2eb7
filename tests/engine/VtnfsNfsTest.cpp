// The engine's folder as outside clients see it: libnfs's tools, and the FUSE mount helper under file tools.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>

#include "engine/EngineInstancePaths.h"
#include "engine/EngineStatusClient.h"
#include "engine/EngineTestKit.h"
#include "fakes/FakeFileHost.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::FakeHttpServer;
using vt::test::pattern;
using vt::test::VtnfsProcess;

namespace {

struct ToolResult {
  int status = -1;
  QByteArray out;
  QByteArray err;
};

// Runs a tool while the event loop turns, since the sources it reads may be fakes in this process.
ToolResult runTool(const QString& program, const QStringList& args, int limitMs = 30000) {
  QProcess p;
  p.start(program, args);
  ToolResult r;
  if (!p.waitForStarted(5000)) return r;
  test::spinUntil([&] { return p.state() == QProcess::NotRunning; }, limitMs);
  if (p.state() != QProcess::NotRunning) {
    p.kill();
    p.waitForFinished();
    return r;
  }
  r.status = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
  r.out = p.readAllStandardOutput();
  r.err = p.readAllStandardError();
  return r;
}

void writeBytes(const std::string& path, const QByteArray& bytes) {
  ASSERT_TRUE(writeFileAtomically(path, bytes.toStdString()));
}

EngineEntry entry(const std::string& name, int64_t size) {
  EngineEntry e;
  e.name = name;
  e.size = size;
  e.mtime = 1600000000;
  e.size_verified = true;
  return e;
}

QString nfsUrl(const VtnfsProcess& engine, const std::string& path) {
  return QStringLiteral("nfs://127.0.0.1/%1?nfsport=%2&mountport=%2&version=3")
      .arg(QString::fromStdString(path))
      .arg(engine.nfsPort);
}

}  // namespace

TEST(VtnfsNfs, AnIndependentClientListsTheTreeAndReadsEverySourceByteForByte) {
  if (QStandardPaths::findExecutable("nfs-ls").isEmpty() || QStandardPaths::findExecutable("nfs-cat").isEmpty())
    GTEST_SKIP() << "nfs-ls and nfs-cat (Debian libnfs-utils) are not installed";
  test::TestHome home;
  const QByteArray filmBytes = pattern(5 * 1024 * 1024 + 123, 1);  // two chunks and a bit
  const QByteArray httpBytes = pattern(9 * 1024 * 1024 + 5, 3);
  const QByteArray moved = pattern(2 * 1024 * 1024 + 9, 4);
  const QByteArray alt = pattern(1024 * 1024 + 1, 5);
  writeBytes(home.file("film.bin"), filmBytes);

  FakeHttpServer cdn;
  test::serveBytes(cdn, "/direct/film.mkv", httpBytes);
  test::serveBytes(cdn, "/fresh/moved.mkv", moved);
  test::serveBytes(cdn, "/fresh/alt.mkv", alt);
  cdn.on("GET", "/expired/link", [](const auto&, auto& reply) { reply.send(503); });
  test::redirect(cdn, "/addon/resolve/moved", cdn.url("/fresh/moved.mkv").toString());
  cdn.on("GET", "/addon/resolve/dead", [](const auto&, auto& reply) { reply.send(500); });
  test::redirect(cdn, "/addon/resolve/alt", cdn.url("/fresh/alt.mkv").toString());
  const auto at = [&](const char* path) { return cdn.url(path).toString().toStdString(); };

  auto film = entry("Film (2020) {imdb-tt1}/Film (2020) {imdb-tt1}.mkv", filmBytes.size());  // local
  film.local = home.file("film.bin");
  auto ep2 = entry("Show (2019) {imdb-tt2}/Season 02/Show (2019) - S02E01.mkv", httpBytes.size());
  ep2.url = at("/direct/film.mkv");
  auto failing = entry("Moved (2021)/Moved (2021).mkv", moved.size());  // url fails, resolve_url saves it
  failing.url = at("/expired/link");
  failing.resolve_url = at("/addon/resolve/moved");
  auto lazy = entry("Alt (2022)/Alt (2022).mkv", alt.size());  // lazy; its own resolve fails, the alternative works
  lazy.lazy = true;
  lazy.resolve_url = at("/addon/resolve/dead");
  lazy.alt_sources = std::vector<EngineAltSource>{{at("/addon/resolve/alt")}};
  auto hidden = entry("Hidden (2023)/Hidden (2023).mkv", 10);
  hidden.local = home.file("film.bin");
  hidden.hidden = true;
  const auto manifest = home.file("entries.json");
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({film, ep2, failing, lazy, hidden})));

  EngineStatusClient client(sharedHttpClient());
  VtnfsProcess engine(manifest, home.file("engine.log"));
  ASSERT_TRUE(engine.waitReady(client));

  const std::vector<std::pair<EngineEntry, QByteArray>> files = {
      {film, filmBytes}, {ep2, httpBytes}, {failing, moved}, {lazy, alt}};
  const auto listing = runTool("nfs-ls", {"-R", nfsUrl(engine, "")});
  ASSERT_EQ(listing.status, 0) << listing.err.toStdString();
  const QString text = QString::fromUtf8(listing.out);
  for (const auto& [e, bytes] : files)
    EXPECT_TRUE(text.contains(QString::fromStdString(e.name))) << e.name << "\n" << text.toStdString();
  EXPECT_FALSE(text.contains("Hidden")) << text.toStdString();
  EXPECT_TRUE(text.contains(QString::number(moved.size()))) << text.toStdString();

  for (const auto& [e, bytes] : files) {
    const auto cat = runTool("nfs-cat", {nfsUrl(engine, e.name)});
    EXPECT_EQ(cat.status, 0) << e.name << ": " << cat.err.toStdString();
    EXPECT_TRUE(cat.out == bytes) << e.name << ": " << cat.out.size() << " bytes of " << bytes.size();
  }

  // The hidden file can't be opened; what was served is counted.
  EXPECT_NE(runTool("nfs-cat", {nfsUrl(engine, hidden.name)}).out, filmBytes);
  auto status = test::runTask(client.status(engine.controlURL()));
  ASSERT_TRUE(status);
  for (const auto& s : status->entries) {
    if (s.name == hidden.name)
      EXPECT_EQ(s.bytes_served, 0);
    else
      EXPECT_GE(s.bytes_served.value_or(0), s.size.value_or(1)) << s.name;
  }
  // The direct link was asked in aligned chunks, each once.
  std::set<QByteArray> ranges;
  for (const auto& r : cdn.requestsTo("/direct/film.mkv"))
    EXPECT_TRUE(ranges.insert(*r.header("Range")).second) << r.header("Range")->toStdString();
  EXPECT_TRUE(ranges.count("bytes=0-4194303"));
  EXPECT_TRUE(ranges.count("bytes=8388608-9437188"));  // the last chunk ends at the size the source confirmed
}

TEST(VtnfsFuse, TheMountedFolderServesFileToolsAndFollowsReloads) {
  if (QStandardPaths::findExecutable("fusermount3").isEmpty()) GTEST_SKIP() << "fusermount3 is not installed";
  if (!QFile::exists("/dev/fuse")) GTEST_SKIP() << "this machine has no /dev/fuse";
  test::TestHome home;
  const auto mount = home.file("Library");
  QDir().mkpath(QString::fromStdString(mount));

  const QByteArray other = pattern(3 * 1024 * 1024, 7);
  writeBytes(home.file("other.bin"), other);

  auto second = entry("Second (2021)/Second (2021).mkv", other.size());
  second.local = home.file("other.bin");
  const auto manifest = home.file("entries.json");
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({second})));

  EngineStatusClient client(sharedHttpClient());
  VtnfsProcess engine(manifest, home.file("engine.log"));
  ASSERT_TRUE(engine.waitReady(client));

  const auto mounted = runTool(VT_VTNFS_MOUNT_BINARY,
                               {QStringLiteral("127.0.0.1:%1").arg(engine.nfsPort), QString::fromStdString(mount)});
  if (mounted.status != 0) GTEST_SKIP() << "FUSE mounts are not allowed here: " << mounted.err.toStdString();
  struct Unmount {
    std::string path;
    ~Unmount() { QProcess::execute("fusermount3", {"-u", QString::fromStdString(path)}); }
  } unmount{mount};

  const auto ls = runTool("ls", {"-R", QString::fromStdString(mount)});
  ASSERT_EQ(ls.status, 0) << ls.err.toStdString();
  EXPECT_TRUE(ls.out.contains("Second (2021).mkv")) << ls.out.toStdString();
  EXPECT_TRUE(runTool("cat", {QString::fromStdString(mount + "/" + second.name)}).out == other);

  // A reload that adds one entry and hides another shows without a remount.
  auto third = entry("Third (2022)/Third (2022).mkv", other.size());
  third.local = home.file("other.bin");
  second.hidden = true;
  ASSERT_TRUE(writeFileAtomically(manifest, encodeEngineConfig({second, third})));
  ASSERT_TRUE(test::runTask(client.reload(engine.controlURL())).answered);
  EXPECT_TRUE(test::spinUntil(
      [&] {
        const auto again = runTool("ls", {"-R", QString::fromStdString(mount)});
        return again.out.contains("Third (2022).mkv") && !again.out.contains("Second (2021)");
      },
      10000));
  EXPECT_TRUE(runTool("cat", {QString::fromStdString(mount + "/" + third.name)}).out == other);
}
