#pragma once

#include <QUrl>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Engine.h"
#include "engine/EngineTestKit.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/SerialFileWriter.h"

namespace vt::test {

// The engine in this process on free loopback ports over a manifest in a
// test home, for what its tree, log and control replies show directly.
struct LocalEngine {
  // `clock` times the ports' connection limits.
  explicit LocalEngine(const TestHome& home, const std::vector<EngineEntry>& entries, Clock& clock = systemClock())
      : manifest(home.file("entries.json")), logFile(home.file("engine.log")) {
    EXPECT_TRUE(writeFileAtomically(manifest, encodeEngineConfig(entries)));
    vtnfs::Options o;
    o.config = manifest;
    o.nfsHost = o.controlHost = "127.0.0.1";
    o.nfsPort = freePort();
    o.controlPort = freePort();
    o.mount = "/tmp/unused-mount";
    o.log = logFile;
    control = QUrl(QStringLiteral("http://127.0.0.1:%1").arg(o.controlPort));
    engine = std::make_unique<vtnfs::Engine>(o, clock);
    std::string error;
    started = engine->start(error);
    EXPECT_TRUE(started) << error;
  }
  std::string log() const { return readFile(logFile).value_or(""); }
  std::vector<std::string> logLines() const {
    std::vector<std::string> lines;
    std::istringstream in(log());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  HttpResponse post(const QString& path, const QByteArray& body = {}) {
    HttpRequest request;
    request.url = control.resolved(QUrl(path));
    request.method = "POST";
    request.body = body;
    if (!body.isEmpty()) request.headers.emplace_back("Content-Type", "application/json");
    request.timeoutSeconds = 10;
    return runTask(sharedHttpClient().send(std::move(request)));
  }

  std::string manifest;
  std::string logFile;
  QUrl control;
  std::unique_ptr<vtnfs::Engine> engine;
  bool started = false;
};

}  // namespace vt::test
