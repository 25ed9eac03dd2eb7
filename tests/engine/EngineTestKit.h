#pragma once

#include <QProcess>
#include <QTcpServer>
#include <csignal>
#include <memory>
#include <string>

#include "engine/EngineInstancePaths.h"
#include "engine/EngineStatusClient.h"
#include "platform/Http.h"
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

// The real vtnfs executable on free loopback ports, for tests.
class VtnfsProcess {
 public:
  // Ports of 0 are chosen free; given ports restart an engine where one ran.
  VtnfsProcess(const std::string& manifest, const std::string& logFile, const std::string& rdKey = "rd-test-key",
               quint16 nfs = 0, quint16 control = 0)
      : nfsPort(nfs ? nfs : freePort()), controlPort(control ? control : freePort()), log(logFile) {
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert("VT_RD_KEY", QString::fromStdString(rdKey));
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(VT_VTNFS_BINARY,
                  {"-config", QString::fromStdString(manifest), "-nfs", QStringLiteral("127.0.0.1:%1").arg(nfsPort),
                   "-control", QStringLiteral("127.0.0.1:%1").arg(controlPort), "-mount", "/tmp/unused-mount", "-log",
                   QString::fromStdString(logFile)});
  }
  ~VtnfsProcess() {
    if (process.state() != QProcess::NotRunning) {
      ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
      if (!process.waitForFinished(3000)) process.kill();
    }
  }
  QUrl controlURL() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(controlPort)); }
  // Waits until the control port answers healthz.
  bool waitReady(EngineStatusClient& client) {
    return spinUntil(
               [&] {
                 if (process.state() == QProcess::NotRunning) return true;
                 return runTask(client.healthz(controlURL()));
               },
               10000) &&
           process.state() == QProcess::Running;
  }

  quint16 nfsPort;
  quint16 controlPort;
  std::string log;
  QProcess process;
};

}  // namespace vt::test
