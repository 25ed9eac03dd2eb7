// vtnfs: the engine that serves Vantory's library folder. It reads its
// manifest, answers the control port and holds the NFS port.
#include <malloc.h>

#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>

#include "Engine.h"
#include "platform/Signals.h"

int main(int argc, char** argv) {
  // Every read reply is a buffer of up to 1 MiB; keep such buffers in the
  // heap for reuse instead of mapping and faulting in fresh pages each time.
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  QCoreApplication app(argc, argv);
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string error;
  auto options = vtnfs::parseArguments(args, error);
  if (!options) {
    std::fprintf(stderr,
                 "vtnfs: %s\nusage: vtnfs -config FILE -nfs HOST:PORT -control HOST:PORT -mount DIR -log FILE\n",
                 error.c_str());
    return 2;
  }
  if (const char* key = std::getenv("VT_RD_KEY")) options->rdKey = key;

  vtnfs::Engine engine(*options);
  if (!engine.start(error)) {
    std::fprintf(stderr, "vtnfs: %s\n", error.c_str());
    engine.log("start failed: " + error);
    return 1;
  }
  vt::onTerminationSignal([&engine] {
    engine.log("stopping on signal");
    QCoreApplication::quit();
  });
  return app.exec();
}
