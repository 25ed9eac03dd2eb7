// Sequential read of a 1 GiB file through the engine's NFS export with
// libnfs, from a `local` source and from a loopback HTTP source, beside a
// plain read of the same file and beside the ceiling that loopback TCP
// sets in the same run; and four files read in parallel through libnfs and
// through the FUSE helper's mount. Each row that has a reference prints its
// ratio to it, the median over iterations that are each paired with a read
// of the reference right after them: `of_ceiling` (target at least 0.8 with
// one read in flight and with four) and `of_libnfs` (target at least 0.7).
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
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <netinet/tcp.h>
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
constexpr int64_t kColdHttpBytes = int64_t(256) << 20;  // read of a fresh HTTP entry in the cold rows
constexpr int kColdHttpEntries = 6;                     // one per cold iteration: 3 runs of 2 rows

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
    // Fresh names of the HTTP source, one for each cold iteration: a
    // different address each, so that nothing of it is cached.
    for (int i = 0; i < kColdHttpEntries; ++i) {
      vt::EngineEntry e = remote;
      e.name = "Cold" + std::to_string(i) + "/Cold" + std::to_string(i) + ".mkv";
      e.url += "?fresh=" + std::to_string(i);
      entries.push_back(e);
    }
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
  uint64_t end;
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
    while (!failed && inFlight < depth && next < end) {
      if (nfs_pread_async(nfs, fh, next, kReadBytes, &PipelinedRead::done, this) != 0) {
        failed = true;
        return;
      }
      next += kReadBytes;
      ++inFlight;
    }
  }
};

int64_t readThroughNfs(const std::string& folder, const std::string& name, int depth, int64_t bytes = kFileBytes) {
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
        while (total < bytes) {
          const int n = nfs_pread(nfs, fh, static_cast<uint64_t>(total), kReadBytes, buf.data());
          if (n <= 0) break;
          total += n;
        }
      } else {
        PipelinedRead r{nfs, fh, std::vector<char>(kReadBytes), static_cast<uint64_t>(bytes)};
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

// The ceiling: the file served over one loopback TCP connection by the
// plainest server that answers reads the way the engine must, a request of
// a few bytes naming an offset and a 1 MiB reply sent with sendfile, with
// the same number of requests in flight as the NFS rows, no delay on small
// sends and 4 MiB socket buffers where the system allows them (otherwise
// the kernel tunes its own). The reader copies each reply into its buffer,
// as libnfs does.
int64_t readOverLoopback(int depth) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(listener, 1);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  const auto tune = [](int socket) {
    const int one = 1, big = 4 << 20;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  };
  int64_t total = 0;
  std::thread server([&] {
    const int peer = ::accept(listener, nullptr, nullptr);
    tune(peer);
    const int fd = ::open(fixture().file.c_str(), O_RDONLY | O_CLOEXEC);
    uint64_t offset = 0;
    while (::recv(peer, &offset, sizeof offset, MSG_WAITALL) == sizeof offset) {
      auto at = static_cast<off_t>(offset);
      for (size_t left = kReadBytes; left > 0;) {
        const ssize_t n = ::sendfile(peer, fd, &at, left);
        if (n <= 0) break;
        left -= static_cast<size_t>(n);
      }
    }
    ::close(fd);
    ::close(peer);
  });
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  tune(client);
  ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
  std::vector<char> buf(kReadBytes);
  uint64_t next = 0;
  int inFlight = 0;
  while (total < kFileBytes) {
    for (; inFlight < depth && next < static_cast<uint64_t>(kFileBytes); ++inFlight, next += kReadBytes)
      ::send(client, &next, sizeof next, 0);
    const ssize_t n = ::recv(client, buf.data(), buf.size(), MSG_WAITALL);
    if (n <= 0) break;
    total += n;
    --inFlight;
  }
  ::shutdown(client, SHUT_WR);
  server.join();
  ::close(client);
  ::close(listener);
  return total;
}

void BM_LoopbackCeiling(benchmark::State& state) {
  const int depth = static_cast<int>(state.range(0));
  for (auto _ : state) {
    const int64_t total = readOverLoopback(depth);
    if (total != kFileBytes) state.SkipWithError("short read");
    state.SetBytesProcessed(state.bytes_processed() + total);
  }
}
BENCHMARK(BM_LoopbackCeiling)
    ->ArgName("inflight")
    ->Arg(1)
    ->Arg(4)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

// Reads one of the engine's files through NFS once per iteration. Warm, the
// file is in memory and loopback sets the pace: each iteration is followed,
// untimed, by a read over the loopback ceiling with as many reads in flight,
// and `of_ceiling` is the median of these pairs' ratios. Loopback's own
// speed drifts by a factor of two over a minute on a shared machine; a pair
// taken seconds apart sees the same machine. Cold, the disk sets the pace.
void BM_NfsLocalSource(benchmark::State& state) {
  const int depth = static_cast<int>(state.range(0));
  const bool cold = state.range(1) != 0;
  std::vector<double> ratios;
  for (auto _ : state) {
    startCold(state, cold);
    const auto start = std::chrono::steady_clock::now();
    const int64_t total = readThroughNfs("Local", "Local.mkv", depth);
    const double nfsSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (total != kFileBytes) state.SkipWithError("short read");
    state.SetBytesProcessed(state.bytes_processed() + total);
    if (cold) continue;
    state.PauseTiming();
    const auto ceilingStart = std::chrono::steady_clock::now();
    const int64_t ceilingBytes = readOverLoopback(depth);
    const double ceilingSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - ceilingStart).count();
    if (ceilingBytes == kFileBytes && nfsSeconds > 0) ratios.push_back(ceilingSeconds / nfsSeconds);
    state.ResumeTiming();
  }
  if (!ratios.empty()) {
    std::sort(ratios.begin(), ratios.end());
    state.counters["of_ceiling"] = ratios[ratios.size() / 2];
    state.counters["of_ceiling_min"] = ratios.front();
  }
}
BENCHMARK(BM_NfsLocalSource)
    ->ArgNames({"inflight", "cold"})
    ->ArgsProduct({{1, 4}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

// A loopback HTTP source. Cold: each iteration reads a fresh entry, so that
// every byte comes over HTTP and through the engine's chunk fetches, with
// four reads in flight as the kernel client and the FUSE helper keep them
// and with one. Cached: an entry read before, served from the engine's
// cache.
int coldEntriesUsed = 0;
void BM_NfsHttpSource(benchmark::State& state) {
  const int depth = static_cast<int>(state.range(0));
  const bool cold = state.range(1) != 0;
  for (auto _ : state) {
    if (cold) {
      const std::string name = "Cold" + std::to_string(coldEntriesUsed++ % kColdHttpEntries);
      const int64_t total = readThroughNfs(name, name + ".mkv", depth, kColdHttpBytes);
      if (total != kColdHttpBytes) state.SkipWithError("short read");
      state.SetBytesProcessed(state.bytes_processed() + total);
    } else {
      const int64_t total = readThroughNfs("Http", "Http.mkv", depth);
      if (total != kFileBytes) state.SkipWithError("short read");
      state.SetBytesProcessed(state.bytes_processed() + total);
    }
  }
}
// The cached rows come after a cold pass over the whole entry that fills the cache.
void warmHttpEntry() {
  static const bool once = [] { return readThroughNfs("Http", "Http.mkv", 4) == kFileBytes; }();
  static_cast<void>(once);
}
void BM_NfsHttpSourceCached(benchmark::State& state) {
  warmHttpEntry();
  BM_NfsHttpSource(state);
}
BENCHMARK(BM_NfsHttpSource)
    ->ArgNames({"inflight", "cold"})
    ->Args({4, 1})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK(BM_NfsHttpSourceCached)
    ->ArgNames({"inflight", "cold"})
    ->Args({4, 0})
    ->Args({1, 0})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

// Four files read at once, each by its own reader of 1 MiB requests, the
// first 256 MiB of each: through libnfs straight to the engine (one
// connection per reader), and through the FUSE helper's mount, which the
// kernel feeds from many threads. The FUSE row should come to at least 70 %
// of the libnfs row (`of_libnfs`).
int64_t readParallel(const std::function<int64_t(int)>& readOne) {
  std::vector<std::thread> readers;
  std::vector<int64_t> totals(kParallel);
  for (int i = 0; i < kParallel; ++i) readers.emplace_back([&, i] { totals[i] = readOne(i); });
  for (auto& r : readers) r.join();
  int64_t sum = 0;
  for (auto t : totals) sum += t < 0 ? 0 : t;
  return sum;
}

int64_t readParallelLibnfs() {
  return readParallel([](int i) -> int64_t {
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
}

void BM_ParallelLibnfs(benchmark::State& state) {
  for (auto _ : state) {
    const int64_t total = readParallelLibnfs();
    if (total != kParallel * kParallelBytes) state.SkipWithError("short read");
    state.SetBytesProcessed(state.bytes_processed() + total);
  }
}
BENCHMARK(BM_ParallelLibnfs)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// Each iteration is followed, untimed, by the libnfs row's read, and
// `of_libnfs` is the median of the pairs' ratios (see `of_ceiling`).
void BM_ParallelFuse(benchmark::State& state) {
  const QString mount = fixture().dir.filePath("fuse");
  QDir().mkpath(mount);
  QProcess helper;
  helper.start(VT_VTNFS_MOUNT_BINARY, {QStringLiteral("127.0.0.1:%1").arg(fixture().nfsPort), mount});
  if (!helper.waitForFinished(10000) || helper.exitCode() != 0) {
    state.SkipWithError("the FUSE helper could not mount here");
    return;
  }
  const auto seconds = [](auto&& work) {
    const auto start = std::chrono::steady_clock::now();
    const int64_t bytes = work();
    return std::make_pair(bytes, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  };
  std::vector<double> ratios;
  for (auto _ : state) {
    const auto [total, fuseSeconds] = seconds([&] {
      return readParallel([&](int i) -> int64_t {
        const std::string path = (mount + "/Par/P" + QString::number(i) + ".mkv").toStdString();
        const int fd = ::open(path.c_str(), O_RDONLY);
        if (fd < 0) return -1;
        std::vector<char> buf(kReadBytes);
        int64_t got = 0;
        for (ssize_t n; got < kParallelBytes && (n = ::pread(fd, buf.data(), buf.size(), got)) > 0;) got += n;
        ::close(fd);
        return got;
      });
    });
    if (total != kParallel * kParallelBytes) state.SkipWithError("short read");
    state.SetBytesProcessed(state.bytes_processed() + total);
    state.PauseTiming();
    const auto [direct, directSeconds] = seconds(readParallelLibnfs);
    if (direct == total && fuseSeconds > 0) ratios.push_back(directSeconds / fuseSeconds);
    state.ResumeTiming();
  }
  if (!ratios.empty()) {
    std::sort(ratios.begin(), ratios.end());
    state.counters["of_libnfs"] = ratios[ratios.size() / 2];
    state.counters["of_libnfs_min"] = ratios.front();
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
