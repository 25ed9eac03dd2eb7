// Sequential read of a 1 GiB file through the engine's NFS export with
// libnfs, from a `local` source and from a loopback HTTP source, beside a
// plain read of the same file and beside what one loopback TCP connection
// carries at all; and four files read in parallel through libnfs and
// through the FUSE helper's mount.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponse>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include "engine/EngineInstancePaths.h"
#include "engine/EngineStatusClient.h"
#include "platform/SerialFileWriter.h"

namespace {

constexpr int64_t kFileBytes = int64_t(1) << 30;
constexpr uint64_t kReadBytes = 1 << 20;
constexpr int kParallel = 4;
constexpr int64_t kParallelBytes = int64_t(256) << 20;  // read of each file in the parallel rows

quint16 freePort() {
  QTcpServer s;
  s.listen(QHostAddress::LocalHost, 0);
  return s.serverPort();
}

// The file, the engine serving it, and an HTTP server with ranges for it.
struct Fixture {
  QTemporaryDir dir;
  std::string file;
  quint16 nfsPort = freePort(), controlPort = freePort();
  QHttpServer http;
  QProcess engine;

  Fixture() {
    file = dir.filePath("film.bin").toStdString();
    {
      QFile f(QString::fromStdString(file));
      f.open(QIODevice::WriteOnly);
      std::mt19937_64 rng(1);
      std::string block(8 << 20, '\0');
      for (int64_t done = 0; done < kFileBytes; done += static_cast<int64_t>(block.size())) {
        for (size_t i = 0; i < block.size(); i += 8) *reinterpret_cast<uint64_t*>(&block[i]) = rng();
        f.write(block.data(), static_cast<qint64>(block.size()));
      }
    }
    http.route("/film.bin", [this](const QHttpServerRequest& req) {
      const QByteArray range = req.value("Range");
      const int dash = range.indexOf('-');
      const qint64 first = range.mid(6, dash - 6).toLongLong();
      const qint64 last = std::min<qint64>(range.mid(dash + 1).toLongLong(), kFileBytes - 1);
      QFile f(QString::fromStdString(file));
      f.open(QIODevice::ReadOnly);
      f.seek(first);
      QHttpServerResponse reply("application/octet-stream", f.read(last - first + 1),
                                QHttpServerResponse::StatusCode::PartialContent);
      reply.setHeader("Content-Range", "bytes " + QByteArray::number(first) + "-" + QByteArray::number(last) + "/" +
                                           QByteArray::number(kFileBytes));
      return reply;
    });
    const quint16 httpPort = http.listen(QHostAddress::LocalHost, 0);

    vt::EngineEntry local;
    local.name = "Local/Local.mkv";
    local.size = kFileBytes;
    local.local = file;
    vt::EngineEntry remote;
    remote.name = "Http/Http.mkv";
    remote.size = kFileBytes;
    remote.url = "http://127.0.0.1:" + std::to_string(httpPort) + "/film.bin";
    std::vector<vt::EngineEntry> entries = {local, remote};
    // Four more names of the local file, for parallel reads.
    for (int i = 0; i < kParallel; ++i) {
      vt::EngineEntry e = local;
      e.name = "Par/P" + std::to_string(i) + ".mkv";
      entries.push_back(e);
    }
    const auto manifest = dir.filePath("entries.json").toStdString();
    vt::writeFileAtomically(manifest, vt::encodeEngineConfig(entries));
    engine.setProcessChannelMode(QProcess::ForwardedChannels);
    engine.start(VT_VTNFS_BINARY,
                 {"-config", QString::fromStdString(manifest), "-nfs", QStringLiteral("127.0.0.1:%1").arg(nfsPort),
                  "-control", QStringLiteral("127.0.0.1:%1").arg(controlPort), "-mount", dir.filePath("mnt"), "-log",
                  dir.filePath("engine.log")});
    engine.waitForStarted();
    QThread::msleep(500);
  }
  ~Fixture() {
    engine.terminate();
    engine.waitForFinished(3000);
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// Reads the whole file through libnfs on another thread while this one
// keeps the event loop (and so the HTTP source) going, with `depth` reads in
// flight: 1 is a plain synchronous reader; players and the kernel client keep
// several reads outstanding. Each reply is copied into the reader's buffer.
// Bytes read.
struct PipelinedRead {
  nfs_context* nfs;
  nfsfh* fh;
  std::vector<char> buffer;
  uint64_t next = 0, total = 0;
  int inFlight = 0;
  bool failed = false;

  static void done(int status, nfs_context*, void* data, void* self) {
    auto* r = static_cast<PipelinedRead*>(self);
    --r->inFlight;
    if (status <= 0) {
      r->failed = true;
      return;
    }
    std::memcpy(r->buffer.data(), data, static_cast<size_t>(status));
    r->total += static_cast<uint64_t>(status);
  }
  void fill(int depth) {
    while (!failed && inFlight < depth && next < static_cast<uint64_t>(kFileBytes)) {
      if (nfs_pread_async(nfs, fh, next, kReadBytes, &PipelinedRead::done, this) != 0) {
        failed = true;
        return;
      }
      next += kReadBytes;
      ++inFlight;
    }
  }
};

int64_t readThroughNfs(const std::string& folder, const std::string& name, int depth) {
  QEventLoop loop;  // idle while waiting: the reader must have a core to itself
  int64_t total = 0;
  std::thread reader([&] {
    nfs_context* nfs = nfs_init_context();
    const std::string url = "nfs://127.0.0.1/" + folder + "/" + name +
                            "?version=3&nfsport=" + std::to_string(fixture().nfsPort) +
                            "&mountport=" + std::to_string(fixture().nfsPort);
    nfs_url* u = nfs_parse_url_full(nfs, url.c_str());
    nfsfh* fh = nullptr;
    if (u && nfs_mount(nfs, u->server, u->path) == 0 && nfs_open(nfs, u->file, O_RDONLY, &fh) == 0) {
      if (depth <= 1) {
        std::vector<char> buf(kReadBytes);
        for (;;) {
          const int n = nfs_pread(nfs, fh, static_cast<uint64_t>(total), kReadBytes, buf.data());
          if (n <= 0) break;
          total += n;
        }
      } else {
        PipelinedRead r{nfs, fh, std::vector<char>(kReadBytes)};
        r.fill(depth);
        while (r.inFlight > 0) {
          pollfd p{nfs_get_fd(nfs), static_cast<short>(nfs_which_events(nfs)), 0};
          if (::poll(&p, 1, 1000) < 0 || nfs_service(nfs, p.revents) < 0) break;
          r.fill(depth);
        }
        total = r.failed ? -1 : static_cast<int64_t>(r.total);
      }
      nfs_close(nfs, fh);
    } else {
      std::fprintf(stderr, "nfs: %s\n", nfs_get_error(nfs));
    }
    if (u) nfs_destroy_url(u);
    nfs_destroy_context(nfs);
    QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
  });
  loop.exec();
  reader.join();
  return total;
}

// Drops the file's pages from the page cache, so that the next read comes
// from the disk: "cold" runs compare the engine where storage sets the pace,
// warm runs where memory does.
// Untimed, before an iteration that is to start cold.
void startCold(benchmark::State& state, bool cold) {
  if (!cold) return;
  state.PauseTiming();
  const int fd = ::open(fixture().file.c_str(), O_RDONLY);
  ::fdatasync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
  state.ResumeTiming();
}

void BM_PlainRead(benchmark::State& state) {
  const int fd = ::open(fixture().file.c_str(), O_RDONLY);
  std::vector<char> buf(kReadBytes);
  for (auto _ : state) {
    startCold(state, state.range(0) != 0);
    int64_t total = 0;
    for (ssize_t n; (n = ::pread(fd, buf.data(), buf.size(), total)) > 0;) total += n;
    benchmark::DoNotOptimize(total);
    state.SetBytesProcessed(state.bytes_processed() + total);
  }
  ::close(fd);
}
BENCHMARK(BM_PlainRead)->ArgName("cold")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// For scale: the file streamed over one loopback TCP connection with
// sendfile and read in 1 MiB pieces, with no protocol at all. Where this
// alone is far below the plain read, so is any NFS over TCP.
void BM_LoopbackTcpStream(benchmark::State& state) {
  for (auto _ : state) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener, 1);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    std::thread sender([&] {
      const int peer = ::accept(listener, nullptr, nullptr);
      const int fd = ::open(fixture().file.c_str(), O_RDONLY | O_CLOEXEC);
      for (off_t at = 0; at < kFileBytes;)
        if (::sendfile(peer, fd, &at, static_cast<size_t>(kFileBytes - at)) <= 0) break;
      ::close(fd);
      ::close(peer);
    });
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
    std::vector<char> buf(kReadBytes);
    int64_t total = 0;
    for (ssize_t n; (n = ::read(client, buf.data(), buf.size())) > 0;) total += n;
    sender.join();
    ::close(client);
    ::close(listener);
    if (total != kFileBytes) state.SkipWithError("short read");
    state.SetBytesProcessed(state.bytes_processed() + total);
  }
}
BENCHMARK(BM_LoopbackTcpStream)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// Reads one of the engine's files through NFS once per iteration.
void readEachIteration(benchmark::State& state, const std::string& folder, int inflight, bool cold) {
  for (auto _ : state) {
    startCold(state, cold);
    const int64_t total = readThroughNfs(folder, folder + ".mkv", inflight);
    if (total != kFileBytes) state.SkipWithError("short read");
    state.SetBytesProcessed(state.bytes_processed() + total);
  }
}

void BM_NfsLocalSource(benchmark::State& state) {
  readEachIteration(state, "Local", static_cast<int>(state.range(0)), state.range(1) != 0);
}
BENCHMARK(BM_NfsLocalSource)
    ->ArgNames({"inflight", "cold"})
    ->ArgsProduct({{1, 4}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

// The first run (four reads in flight) fetches over HTTP and fills the probe
// cache, so pipelined reads of a cold source are exercised; later runs read
// largely from that cache and measure the engine, not HTTP.
void BM_NfsHttpSource(benchmark::State& state) {
  readEachIteration(state, "Http", static_cast<int>(state.range(0)), false);
}
BENCHMARK(BM_NfsHttpSource)
    ->ArgName("inflight")
    ->Arg(4)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3)
    ->UseRealTime();

// Four files read at once, each by its own reader of 1 MiB requests, the
// first 256 MiB of each: through libnfs straight to the engine (one
// connection per reader), and through the FUSE helper's mount, which the
// kernel feeds from many threads. The FUSE row should come to at least 70 %
// of the libnfs row.
int64_t readParallel(const std::function<int64_t(int)>& readOne) {
  std::vector<std::thread> readers;
  std::vector<int64_t> totals(kParallel);
  for (int i = 0; i < kParallel; ++i) readers.emplace_back([&, i] { totals[i] = readOne(i); });
  for (auto& r : readers) r.join();
  int64_t sum = 0;
  for (auto t : totals) sum += t < 0 ? 0 : t;
  return sum;
}

void BM_ParallelLibnfs(benchmark::State& state) {
  for (auto _ : state) {
    const int64_t total = readParallel([](int i) -> int64_t {
      nfs_context* nfs = nfs_init_context();
      const std::string url = "nfs://127.0.0.1/Par/P" + std::to_string(i) +
                              ".mkv?version=3&nfsport=" + std::to_string(fixture().nfsPort) +
                              "&mountport=" + std::to_string(fixture().nfsPort);
      nfs_url* u = nfs_parse_url_full(nfs, url.c_str());
      nfsfh* fh = nullptr;
      int64_t got = 0;
      if (u && nfs_mount(nfs, u->server, u->path) == 0 && nfs_open(nfs, u->file, O_RDONLY, &fh) == 0) {
        std::vector<char> buf(kReadBytes);
        while (got < kParallelBytes) {
          const int n = nfs_pread(nfs, fh, static_cast<uint64_t>(got), kReadBytes, buf.data());
          if (n <= 0) break;
          got += n;
        }
        nfs_close(nfs, fh);
      }
      if (u) nfs_destroy_url(u);
      nfs_destroy_context(nfs);
      return got;
    });
    if (total != kParallel * kParallelBytes) state.SkipWithError("short read");
    state.SetBytesProcessed(state.bytes_processed() + total);
  }
}
BENCHMARK(BM_ParallelLibnfs)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_ParallelFuse(benchmark::State& state) {
  const QString mount = fixture().dir.filePath("fuse");
  QDir().mkpath(mount);
  QProcess helper;
  helper.start(VT_VTNFS_MOUNT_BINARY, {QStringLiteral("127.0.0.1:%1").arg(fixture().nfsPort), mount});
  if (!helper.waitForFinished(10000) || helper.exitCode() != 0) {
    state.SkipWithError("the FUSE helper could not mount here");
    return;
  }
  for (auto _ : state) {
    const int64_t total = readParallel([&](int i) -> int64_t {
      const std::string path = (mount + "/Par/P" + QString::number(i) + ".mkv").toStdString();
      const int fd = ::open(path.c_str(), O_RDONLY);
      if (fd < 0) return -1;
      std::vector<char> buf(kReadBytes);
      int64_t got = 0;
      for (ssize_t n; got < kParallelBytes && (n = ::pread(fd, buf.data(), buf.size(), got)) > 0;) got += n;
      ::close(fd);
      return got;
    });
    if (total != kParallel * kParallelBytes) state.SkipWithError("short read");
    state.SetBytesProcessed(state.bytes_processed() + total);
  }
  QProcess::execute("fusermount3", {"-u", "-z", mount});
}
BENCHMARK(BM_ParallelFuse)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  benchmark::Initialize(&argc, argv);
  fixture();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
