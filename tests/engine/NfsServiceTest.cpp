#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <QTcpSocket>
#include <QTemporaryDir>
#include <fstream>
#include <functional>
#include <map>

#include "NfsServer.h"
#include "NfsService.h"
#include "NfsTree.h"
#include "Xdr.h"
#include "engine/EngineTestKit.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vtnfs;

namespace {

constexpr uint32_t kNfs = 100003, kMount = 100005;

// A backend over bytes in memory; with `onDisk`, reads answer with spans of files there, as local entries do.
class MemoryBackend : public NfsBackend {
 public:
  ~MemoryBackend() override {
    for (auto& [name, fd] : fds_) ::close(fd);
  }
  void set(std::vector<std::pair<std::string, std::string>> files) {
    data_.clear();
    std::vector<NfsTree::File> list;
    for (auto& [name, bytes] : files) {
      list.push_back({name, static_cast<int64_t>(bytes.size()), 1600000000});
      data_[name] = bytes;
      if (onDisk) {
        const std::string path = onDisk->filePath(QString::number(fds_.size())).toStdString();
        EXPECT_TRUE(vt::writeFileAtomically(path, bytes));
        fds_[name] = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      }
    }
    tree_.rebuild(list, 1700000000, ++stamp_);
  }
  const NfsTree& tree() const override { return tree_; }
  QCoro::Task<ReadResult> read(std::string entry, uint64_t offset, uint32_t count, std::string& out, FileSpan* span,
                               vt::CancelToken) override {
    const auto& d = data_.at(entry);
    if (failReads) co_return readFailed(ReadError::Kind::io, entry);
    const size_t from = std::min<size_t>(offset, d.size());
    const size_t n = std::min<size_t>(count, d.size() - from);
    if (span && fds_.count(entry))
      *span = FileSpan(fds_.at(entry), from, n + spanOverrun);
    else
      out.append(d, from, n);
    co_return readDone(from + n >= d.size());
  }
  bool failReads = false;
  QTemporaryDir* onDisk = nullptr;
  size_t spanOverrun = 0;  // spans claim this many bytes past the file's end

 private:
  NfsTree tree_;
  std::map<std::string, std::string> data_;
  std::map<std::string, int> fds_;
  uint32_t stamp_ = 0;
};

std::string call(uint32_t prog, uint32_t vers, uint32_t proc, const std::function<void(XdrWriter&)>& args = {},
                 uint32_t xid = 7, uint32_t rpcvers = 2) {
  std::string out;
  XdrWriter w(out);
  for (uint32_t v : {xid, 0u, rpcvers, prog, vers, proc, 1u}) w.u32(v);  // AUTH_UNIX, as Linux and libnfs send it
  std::string cred;
  XdrWriter c(cred);
  c.u32(0), c.opaque("host");
  for (uint32_t v : {1000u, 1000u, 0u}) c.u32(v);
  w.opaque(cred);
  w.u64(0);  // no verifier
  if (args) args(w);
  return out;
}

struct Reply {
  uint32_t xid = 0, replyStat = 99, acceptStat = 99;
  std::string bytes;
  XdrReader body;
};

Reply decode(const std::optional<std::string>& raw, uint32_t xid = 7) {
  Reply r;
  if (!raw || raw->size() < 4) return r;
  r.bytes = *raw;
  XdrReader in(r.bytes.data(), r.bytes.size());
  uint32_t mark = 0, type = 0;
  for (uint32_t* v : {&mark, &r.xid, &type}) in.u32(*v);
  EXPECT_EQ(mark, 0x80000000u | (r.bytes.size() - 4));
  EXPECT_TRUE(r.xid == xid || xid == 0) << r.xid;
  EXPECT_EQ(type, 1u);
  in.u32(r.replyStat);
  if (r.replyStat == 0) {
    uint32_t flavor = 0;
    std::string_view verf;
    in.u32(flavor), in.opaque(verf, 400), in.u32(r.acceptStat);
  }
  r.body = in;
  return r;
}

void fh(XdrWriter& w, uint64_t id) { w.u32(8), w.u64(id); }
std::function<void(XdrWriter&)> readArgs(uint64_t file, uint64_t offset, uint32_t count) {
  return [=](XdrWriter& w) { fh(w, file), w.u64(offset), w.u32(count); };
}
// The data of a READ reply, which must succeed.
std::string readData(Reply& r, bool* eof = nullptr) {
  uint32_t st = 1, n = 0;
  bool follows = false, e = false;
  std::string_view attrs, data;
  r.body.u32(st), r.body.boolean(follows), r.body.fixed(attrs, 84), r.body.u32(n), r.body.boolean(e);
  r.body.opaque(data, 1 << 21);
  EXPECT_EQ(st, 0u);
  EXPECT_EQ(data.size(), n);
  if (eof) *eof = e;
  return std::string(data);
}
struct Client {
  NfsService& service;
  Reply operator()(uint32_t prog, uint32_t proc, const std::function<void(XdrWriter&)>& args = {}) {
    return decode(vt::test::runTask(service.handle(call(prog, 3, proc, args))));
  }
  uint32_t status(uint32_t prog, uint32_t proc, const std::function<void(XdrWriter&)>& args = {}) {
    uint32_t st = 99;
    (*this)(prog, proc, args).body.u32(st);
    return st;
  }
  uint64_t lookup(uint64_t dir, const std::string& name) {
    auto r = (*this)(kNfs, 3, [&](XdrWriter& w) { fh(w, dir), w.opaque(name); });
    uint32_t st = 0, length = 0;
    uint64_t id = 0;
    r.body.u32(st);
    if (st == 0 && r.body.u32(length) && length == 8) r.body.u64(id);
    return id;
  }
  std::string read(uint64_t file, uint64_t offset, uint32_t count, bool* eof = nullptr) {
    auto r = (*this)(kNfs, 6, readArgs(file, offset, count));
    return readData(r, eof);
  }
};
// A record mark saying `length` bytes follow as the last fragment, as records go over TCP.
std::string mark(size_t length) {
  std::string m;
  XdrWriter(m).u32(0x80000000u | static_cast<uint32_t>(length));
  return m;
}
std::string framedRead(uint32_t xid, uint64_t file, uint64_t offset, uint32_t count) {
  const std::string body = call(kNfs, 3, 6, readArgs(file, offset, count), xid);
  return mark(body.size()) + body;
}
std::string pattern(int n, int seed) { return vt::test::pattern(n, seed).toStdString(); }

bool connectTo(QTcpSocket& socket, const NfsServer& server) {
  socket.connectToHost(QHostAddress::LocalHost, server.port());
  return vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; });
}
// The resident memory of this process, in bytes.
int64_t residentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
  return 0;
}

}  // namespace

TEST(NfsService, ServesTheTreeAndAnswersMistakesAndWritesByTheProtocol) {
  MemoryBackend backend;
  const std::string film = pattern(3 * 1024 * 1024 + 17, 1), episode = pattern(1000, 2);
  backend.set({{"Film (2020)/Film (2020).mkv", film}, {"Show/Season 01/Show - S01E01.mkv", episode}});
  NfsService service(backend, 1000, 1000);
  Client nfs{service};
  // MNT of the root; a missing export is refused.
  EXPECT_EQ(nfs.status(kMount, 1, [](XdrWriter& w) { w.opaque("/"); }), 0u);
  EXPECT_EQ(nfs.status(kMount, 1, [](XdrWriter& w) { w.opaque("/nope"); }), 2u);
  const uint64_t root = NfsTree::kRootId, show = nfs.lookup(root, "Show"), season = nfs.lookup(show, "Season 01");
  const uint64_t ep = nfs.lookup(season, "Show - S01E01.mkv");
  ASSERT_NE(ep, 0u);
  EXPECT_EQ(nfs.lookup(season, ".."), show);
  EXPECT_EQ(nfs.status(kNfs, 3, [&](XdrWriter& w) { fh(w, ep), w.opaque("x"); }), 20u);  // NOTDIR
  // READ in 1 MiB pieces gives the bytes back; the last piece says eof; larger counts are cut to 1 MiB.
  const uint64_t filmId = nfs.lookup(nfs.lookup(root, "Film (2020)"), "Film (2020).mkv");
  std::string whole;
  bool eof = false;
  for (uint64_t off = 0; !eof; off += 1 << 20) whole += nfs.read(filmId, off, 1 << 20, &eof);
  EXPECT_TRUE(whole == film);
  EXPECT_EQ(nfs.read(filmId, 0, 4 << 20).size(), 1u << 20);
  EXPECT_EQ(nfs.read(filmId, film.size() + 10, 100, &eof), "");
  EXPECT_TRUE(eof);
  // Calls it can't take.
  EXPECT_EQ(nfs(100000, 0).acceptStat, 1u);                                               // PROG_UNAVAIL
  EXPECT_EQ(decode(vt::test::runTask(service.handle(call(kNfs, 2, 0)))).acceptStat, 2u);  // PROG_MISMATCH
  EXPECT_EQ(nfs(kNfs, 22).acceptStat, 3u);                                                // PROC_UNAVAIL
  EXPECT_EQ(nfs(kNfs, 6, [&](XdrWriter& w) { fh(w, filmId); }).acceptStat, 4u);           // GARBAGE_ARGS: no offset
  EXPECT_EQ(decode(vt::test::runTask(service.handle(call(kNfs, 3, 0, {}, 7, 3)))).replyStat, 1u);  // RPC_MISMATCH
  EXPECT_EQ(nfs.status(kNfs, 7, [&](XdrWriter& w) { fh(w, filmId); }), 30u);                       // a write: ROFS
  EXPECT_EQ(nfs.status(kNfs, 6, readArgs(NfsTree::kRootId, 0, 10)), 21u);                          // ISDIR
  EXPECT_EQ(nfs.status(kNfs, 1, [](XdrWriter& w) { w.opaque("short"); }), 10001u);                 // BADHANDLE
  // A source failure is an I/O error, not a hang or a crash.
  backend.failReads = true;
  EXPECT_EQ(nfs.status(kNfs, 6, readArgs(filmId, 0, 4)), 5u);
  backend.failReads = false;
  // After a reload without the episode, its handle is stale; the film still reads.
  backend.set({{"Film (2020)/Film (2020).mkv", film}});
  EXPECT_EQ(nfs.status(kNfs, 1, [&](XdrWriter& w) { fh(w, ep); }), 70u);
  EXPECT_TRUE(nfs.read(filmId, 0, 10) == film.substr(0, 10));
  // A reply record is not answered; a record too short for a call closes.
  EXPECT_EQ(vt::test::runTask(service.handle(std::string("\0\0\0\1\0\0\0\1", 8))), std::string());
  EXPECT_EQ(vt::test::runTask(service.handle("abc")), std::nullopt);
}

TEST(NfsServer, SpeaksRecordMarkingSendsLocalFileBytesStraightFromTheFileAndKeepsPipelinedRepliesWhole) {
  QTemporaryDir dir;
  MemoryBackend backend;
  backend.onDisk = &dir;
  const std::string film = pattern(3 * (1 << 20) + 1234, 5);
  backend.set({{"Film/Film.mkv", film}});
  NfsService service(backend, 0, 0);
  NfsServer server(service);
  ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
  Client direct{service};
  const uint64_t id = direct.lookup(direct.lookup(1, "Film"), "Film.mkv");
  ASSERT_NE(id, 0u);
  EXPECT_TRUE(direct.read(id, 1 << 20, 1 << 20) == film.substr(1 << 20, 1 << 20));
  // Sixteen reads of 1 MiB or odd lengths sent at once, unread until all are answered: the socket fills,
  // so replies go partly by sendfile and partly through the socket's buffer, and each arrives whole.
  QTcpSocket socket;
  ASSERT_TRUE(connectTo(socket, server));
  std::map<uint32_t, std::string> expected;
  for (uint32_t xid = 1; xid <= 16; ++xid) {
    const uint64_t offset = (xid * 777777ull) % film.size();
    const uint32_t count = xid % 4 == 0 ? 4097 + xid : 1 << 20;
    expected[xid] = film.substr(offset, count);
    const std::string c = framedRead(xid, id, offset, count);
    socket.write(c.data(), static_cast<qint64>(c.size()));
  }
  socket.flush();
  vt::test::settle(100);
  std::string received;
  std::map<uint32_t, std::string> got;
  ASSERT_TRUE(vt::test::spinUntil(
      [&] {
        received += socket.readAll().toStdString();
        while (received.size() >= 4) {
          XdrReader mark(received.data(), 4);
          uint32_t m = 0;
          mark.u32(m);
          const size_t length = m & 0x7fffffffu;
          if (received.size() < 4 + length) break;
          Reply r = decode(received.substr(0, 4 + length), 0);
          received.erase(0, 4 + length);
          got[r.xid] = readData(r);
          EXPECT_EQ(r.body.remaining(), 0u);
        }
        return got.size() == expected.size();
      },
      10000));
  for (const auto& [xid, bytes] : expected) EXPECT_TRUE(got[xid] == bytes) << "xid " << xid;
  // A file that shrank after its reply was sized: the connection closes rather than send a record shorter than its
  // mark.
  backend.spanOverrun = 100;
  const std::string c = framedRead(99, id, film.size() - 10, 1000);
  socket.write(c.data(), static_cast<qint64>(c.size()));
  EXPECT_TRUE(vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }));
  EXPECT_EQ(vt::test::runTask(service.handle(c.substr(4))), std::nullopt);
}

TEST(NfsServer, AClientThatDoesntReadItsRepliesCantMakeTheServerHoldThem) {
  MemoryBackend backend;
  const std::string film = pattern(1 << 20, 3);
  backend.set({{"Film.mkv", film}});
  NfsService service(backend, 0, 0);
  NfsServer server(service);
  ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
  Client direct{service};
  const uint64_t id = direct.lookup(1, "Film.mkv");
  QTcpSocket socket;
  socket.setReadBufferSize(64 << 10);  // this end holds nothing either: unread replies stay in the kernel
  ASSERT_TRUE(connectTo(socket, server));
  // 200 reads of 1 MiB, sent at once and left unread for a while.
  constexpr int kCalls = 200;
  std::string calls;
  for (uint32_t xid = 1; xid <= kCalls; ++xid) calls += framedRead(xid, id, 0, 1 << 20);
  const int64_t before = residentBytes();
  socket.write(calls.data(), static_cast<qint64>(calls.size()));
  vt::test::settle(1500);
  EXPECT_LT(residentBytes() - before, int64_t{80} << 20) << "replies piled up in the server";
  // Reading drains them: every byte of every reply arrives.
  socket.setReadBufferSize(0);
  int64_t received = 0;
  ASSERT_TRUE(vt::test::spinUntil(
      [&] {
        received += socket.readAll().size();
        return received >= int64_t{kCalls} * (1 << 20);
      },
      90000))
      << received;
}

TEST(NfsServer, AConnectionIsClosedThirtySecondsAfterAHalfSentRecordOrAfterTenQuietMinutes) {
  MemoryBackend backend;
  backend.set({{"Film.mkv", "x"}});
  NfsService service(backend, 0, 0);
  vt::ManualClock clock;
  NfsServer server(service, clock);
  ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
  const std::string nullCall = call(kNfs, 3, 0);
  const auto closedAfter = [&](QTcpSocket& socket, double seconds) {
    clock.advance(seconds - 0.1);
    vt::test::settle(50);
    EXPECT_EQ(socket.state(), QAbstractSocket::ConnectedState);
    clock.advance(0.1);
    EXPECT_TRUE(vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }));
  };
  {
    QTcpSocket socket;
    ASSERT_TRUE(connectTo(socket, server));
    // A whole call keeps nothing pending; a record mark for 100 bytes followed by 10 does.
    const std::string framed = mark(nullCall.size()) + nullCall + mark(100) + std::string(10, 'x');
    socket.write(framed.data(), static_cast<qint64>(framed.size()));
    ASSERT_TRUE(vt::test::spinUntil([&] { return socket.bytesAvailable() >= 28 && clock.pendingTimers() == 1; }));
    closedAfter(socket, NfsServer::kHalfSentSeconds);
  }
  {
    QTcpSocket socket;
    ASSERT_TRUE(connectTo(socket, server));
    vt::test::settle(50);
    // A call late in the quiet period starts it again.
    clock.advance(NfsServer::kIdleSeconds - 1);
    const std::string framed = mark(nullCall.size()) + nullCall;
    socket.write(framed.data(), static_cast<qint64>(framed.size()));
    ASSERT_TRUE(vt::test::spinUntil([&] { return socket.bytesAvailable() >= 28; }));
    closedAfter(socket, NfsServer::kIdleSeconds);
  }
}
