#pragma once

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <csignal>
#include <memory>
#include <string>

#include "engine/EngineInstancePaths.h"
#include "engine/EngineStatusClient.h"
#include "fakes/FakeHttpServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

namespace vt::test {

// A manifest entry of 1234 bytes with the given sources.
inline EngineEntry entry(const std::string& name, const std::string& url = "", const std::string& local = "") {
  EngineEntry e;
  e.name = name;
  e.url = url;
  e.local = local;
  e.size = 1234;
  return e;
}

// Bytes that differ from one offset and one 4 KiB page to the next.
inline QByteArray pattern(int n, int seed) {
  QByteArray b(n, '\0');
  // Unsigned, so the products of large offsets wrap instead of overflowing.
  for (int i = 0; i < n; ++i) {
    const auto u = static_cast<unsigned>(i);
    b[i] = static_cast<char>((u * 131u + static_cast<unsigned>(seed) + u / 4096u) & 0xffu);
  }
  return b;
}

// A home for a reader's cache, a client on a manual clock and a host to read from.
struct ReaderRig {
  TestHome home;
  ManualClock clock;
  HttpClient http{clock};
  FakeHttpServer host;
  // An entry of `size` bytes read from `path` on the host.
  EngineEntry hosted(const std::string& name, const QString& path, int64_t size) {
    auto e = entry(name, host.url(path).toString().toStdString());
    e.size = size;
    return e;
  }
};

// Runs a tool while the event loop turns, since the sources it reads may be fakes in this process. Returns its
// standard output; `status` is -1 when it crashed or ran past 30 s.
inline QByteArray runTool(const QString& program, const QStringList& args, int* status = nullptr,
                          QByteArray* errors = nullptr) {
  QProcess p;
  p.start(program, args);
  const bool ended = spinUntil([&] { return p.state() == QProcess::NotRunning; }, 30000);
  if (!ended) p.kill(), p.waitForFinished();
  if (status) *status = ended && p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
  if (errors) *errors = p.readAllStandardError();
  return p.readAllStandardOutput();
}

// The real vtnfs executable over `entries`, written as the manifest in `home`, on free loopback ports.
class VtnfsProcess {
 public:
  // Given ports restart an engine where one ran.
  VtnfsProcess(const TestHome& home, const std::vector<EngineEntry>& entries, const std::string& rdKey = "rd-test-key",
               quint16 nfs = 0, quint16 control = 0)
      : nfsPort(nfs ? nfs : freePort()),
        controlPort(control ? control : freePort()),
        manifest(home.file("entries.json")),
        log(home.file("engine.log")) {
    EXPECT_TRUE(writeFileAtomically(manifest, encodeEngineConfig(entries)));
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert("VT_RD_KEY", QString::fromStdString(rdKey));
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(VT_VTNFS_BINARY,
                  {"-config", QString::fromStdString(manifest), "-nfs", QStringLiteral("127.0.0.1:%1").arg(nfsPort),
                   "-control", QStringLiteral("127.0.0.1:%1").arg(controlPort), "-mount", "/tmp/unused-mount", "-log",
                   QString::fromStdString(log)});
  }
  ~VtnfsProcess() {
    if (process.state() != QProcess::NotRunning) {
      ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
      if (!process.waitForFinished(3000)) process.kill();
    }
  }
  QUrl controlURL() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(controlPort)); }
  // Waits until the control port answers healthz.
  bool waitReady() {
    return spinUntil([&] { return process.state() == QProcess::NotRunning || runTask(client.healthz(controlURL())); },
                     10000) &&
           process.state() == QProcess::Running;
  }

  quint16 nfsPort;
  quint16 controlPort;
  std::string manifest;
  std::string log;
  EngineStatusClient client{sharedHttpClient()};
  QProcess process;
};

// The engine's tree mounted through vtnfs-mount in `path`, unmounted again at the end; `mounted` is false where
// this machine has no FUSE or refuses the mount.
struct FuseMount {
  FuseMount(const VtnfsProcess& engine, const QString& where) : path(where) {
    if (QStandardPaths::findExecutable("fusermount3").isEmpty() || !QFile::exists("/dev/fuse")) return;
    int status = -1;
    QDir().mkpath(path);
    runTool(VT_VTNFS_MOUNT_BINARY, {QStringLiteral("127.0.0.1:%1").arg(engine.nfsPort), path}, &status);
    mounted = status == 0;
  }
  ~FuseMount() {
    if (mounted) QProcess::execute("fusermount3", {"-u", "-z", path});
  }
  QString path;
  bool mounted = false;
};

}  // namespace vt::test
