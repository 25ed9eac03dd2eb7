#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <QTcpSocket>
#include <QTemporaryDir>
#include <fstream>
#include <functional>
#include <map>
#include <random>

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

// A backend over bytes in memory; with `onDisk`, the bytes are also written
// to files there and reads answer with spans of those files, as local
// entries do.
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
  c.u32(0);
  c.opaque("host");
  for (uint32_t v : {1000u, 1000u, 0u}) c.u32(v);
  w.opaque(cred);
  w.u64(0);  // no verifier
  if (args) args(w);
  return out;
}

// A decoded reply: the accept status and a reader over the results.
struct Reply {
  uint32_t replyStat = 99, acceptStat = 99;
  std::string bytes;
  XdrReader body;
};

Reply decode(const std::optional<std::string>& raw, uint32_t xid = 7) {
  Reply r;
  if (!raw || raw->size() < 4) return r;
  r.bytes = *raw;
  XdrReader in(r.bytes.data(), r.bytes.size());
  uint32_t mark = 0, x = 0, type = 0;
  in.u32(mark);
  EXPECT_EQ(mark, 0x80000000u | (r.bytes.size() - 4));
  in.u32(x);
  EXPECT_EQ(x, xid);
  in.u32(type);
  EXPECT_EQ(type, 1u);
  in.u32(r.replyStat);
  if (r.replyStat == 0) {
    uint32_t flavor = 0;
    std::string_view verf;
    in.u32(flavor);
    in.opaque(verf, 400);
    in.u32(r.acceptStat);
  }
  r.body = in;
  return r;
}

void fh(XdrWriter& w, uint64_t id) {
  w.u32(8);
  w.u64(id);
}

std::function<void(XdrWriter&)> readArgs(uint64_t file, uint64_t offset, uint32_t count) {
  return [=](XdrWriter& w) {
    fh(w, file);
    w.u64(offset);
    w.u32(count);
  };
}

// The data of a READ reply, which must succeed.
std::string readData(Reply& r, bool* eof = nullptr) {
  uint32_t st = 1, n = 0;
  bool follows = false, e = false;
  std::string_view attrs, data;
  r.body.u32(st);
  EXPECT_EQ(st, 0u);
  r.body.boolean(follows);
  r.body.fixed(attrs, 84);
  r.body.u32(n);
  r.body.boolean(e);
  r.body.opaque(data, 1 << 21);
  EXPECT_EQ(data.size(), n);
  if (eof) *eof = e;
  return std::string(data);
}

struct Client {
  NfsService& service;
  Reply operator()(uint32_t prog, uint32_t proc, const std::function<void(XdrWriter&)>& args = {}) {
    return decode(vt::test::runTask(service.handle(call(prog, 3, proc, args))));
  }
  // The status that opens the results.
  uint32_t status(uint32_t prog, uint32_t proc, const std::function<void(XdrWriter&)>& args = {}) {
    uint32_t st = 99;
    (*this)(prog, proc, args).body.u32(st);
    return st;
  }
  uint64_t lookup(uint64_t dir, const std::string& name, uint32_t* status = nullptr) {
    auto r = (*this)(kNfs, 3, [&](XdrWriter& w) {
      fh(w, dir);
      w.opaque(name);
    });
    uint32_t st = 0;
    r.body.u32(st);
    if (status) *status = st;
    if (st != 0) return 0;
    std::string_view handle;
    r.body.opaque(handle, 64);
    XdrReader h(handle.data(), handle.size());
    uint64_t id = 0;
    h.u64(id);
    return id;
  }
  std::string read(uint64_t file, uint64_t offset, uint32_t count, bool* eof = nullptr) {
    auto r = (*this)(kNfs, 6, readArgs(file, offset, count));
    return readData(r, eof);
  }
  // Every name of a folder, page by page with READDIRPLUS when `plus`.
  std::vector<std::string> list(uint64_t dir, bool plus, uint32_t pageBytes, int* pages = nullptr) {
    std::vector<std::string> names;
    uint64_t cookie = 0;
    for (int page = 1; page < 100; ++page) {
      auto r = (*this)(kNfs, plus ? 17 : 16, [&](XdrWriter& w) {
        fh(w, dir);
        w.u64(cookie);
        w.u64(0);
        w.u32(pageBytes);
        if (plus) w.u32(pageBytes);
      });
      uint32_t st = 1;
      r.body.u32(st);
      EXPECT_EQ(st, 0u);
      if (st != 0) return names;
      bool follows = false;
      std::string_view skip;
      r.body.boolean(follows);
      r.body.fixed(skip, 84);
      r.body.fixed(skip, 8);
      while (r.body.boolean(follows) && follows) {
        uint64_t id = 0;
        std::string_view name;
        r.body.u64(id);
        r.body.opaque(name, 255);
        r.body.u64(cookie);
        names.emplace_back(name);
        if (plus) {
          bool has = false;
          r.body.boolean(has);
          if (has) r.body.fixed(skip, 84);
          r.body.boolean(has);
          if (has) r.body.opaque(skip, 64);
        }
      }
      bool eof = false;
      r.body.boolean(eof);
      if (pages) *pages = page;
      if (eof) return names;
    }
    ADD_FAILURE() << "listing never ended";
    return names;
  }
};

std::string pattern(int n, int seed) { return vt::test::pattern(n, seed).toStdString(); }

}  // namespace

TEST(NfsTree, KeepsHandlesAcrossRebuildsAndSkipsUnusablePaths) {
  NfsTree tree;
  auto skipped = tree.rebuild({{"Film (2020)/Film.mkv", 10, 5},
                               {"Show/Season 01/E01.mkv", 20, 6},
                               {"a//b.mkv", 1, 1},
                               {"../up.mkv", 1, 1},
                               {"Film (2020)/Film.mkv/inner.mkv", 1, 1},  // under a file
                               {"Show", 1, 1}},                           // where a folder is
                              100, 0);
  EXPECT_EQ(skipped, (std::vector<std::string>{"a//b.mkv", "../up.mkv", "Film (2020)/Film.mkv/inner.mkv", "Show"}));
  const auto* film = tree.fileForEntry("Film (2020)/Film.mkv");
  const auto* episode = tree.fileForEntry("Show/Season 01/E01.mkv");
  ASSERT_TRUE(film && episode);
  const uint64_t filmId = film->id, episodeId = episode->id;
  const uint64_t seasonId = episode->parent;
  EXPECT_EQ(tree.totalBytes(), 30);
  EXPECT_EQ(tree.root().children.size(), 2u);
  EXPECT_EQ(tree.root().subdirs, 2u);
  EXPECT_EQ(tree.root().mtimeSeconds, 100);

  // The episode goes, a film comes: the kept film keeps its id and folder time, the episode's handle goes stale.
  const auto filmFolderTime = tree.find(film->parent)->mtimeSeconds;
  tree.rebuild({{"Film (2020)/Film.mkv", 10, 5}, {"Other/Other.mkv", 1, 1}}, 200, 0);
  ASSERT_TRUE(tree.find(filmId));
  EXPECT_EQ(tree.find(filmId)->entry, "Film (2020)/Film.mkv");
  EXPECT_EQ(tree.find(tree.find(filmId)->parent)->mtimeSeconds, filmFolderTime);
  EXPECT_EQ(tree.find(episodeId), nullptr);
  EXPECT_EQ(tree.find(seasonId), nullptr);
  EXPECT_EQ(tree.root().mtimeSeconds, 200);

  // A path that comes back gets its old handle.
  tree.rebuild({{"Show/Season 01/E01.mkv", 20, 6}}, 300, 0);
  ASSERT_TRUE(tree.find(episodeId));
  tree.setSize("Show/Season 01/E01.mkv", 25);
  EXPECT_EQ(tree.find(episodeId)->size, 25);
  EXPECT_EQ(tree.totalBytes(), 25);
}

TEST(NfsService, ServesTheTreeAndAnswersMistakesAndWritesByTheProtocol) {
  MemoryBackend backend;
  const std::string film = pattern(3 * 1024 * 1024 + 17, 1), episode = pattern(1000, 2);
  std::vector<std::pair<std::string, std::string>> files = {{"Film (2020)/Film (2020).mkv", film},
                                                            {"Show/Season 01/Show - S01E01.mkv", episode}};
  for (int i = 0; i < 120; ++i) files.emplace_back("Many/file " + std::to_string(1000 + i) + ".mkv", "x");
  backend.set(files);
  NfsService service(backend, 1000, 1000);
  Client nfs{service};

  // MNT of the root; a missing export is refused.
  auto mnt = nfs(kMount, 1, [](XdrWriter& w) { w.opaque("/"); });
  uint32_t st = 9;
  mnt.body.u32(st);
  EXPECT_EQ(st, 0u);
  std::string_view handle;
  ASSERT_TRUE(mnt.body.opaque(handle, 64));
  EXPECT_EQ(handle.size(), 8u);
  EXPECT_EQ(nfs.status(kMount, 1, [](XdrWriter& w) { w.opaque("/nope"); }), 2u);

  const uint64_t root = NfsTree::kRootId;
  const uint64_t show = nfs.lookup(root, "Show");
  const uint64_t season = nfs.lookup(show, "Season 01");
  const uint64_t ep = nfs.lookup(season, "Show - S01E01.mkv");
  ASSERT_NE(ep, 0u);
  EXPECT_EQ(nfs.lookup(season, ".."), show);
  nfs.lookup(season, "missing.mkv", &st);
  EXPECT_EQ(st, 2u);  // NOENT
  nfs.lookup(ep, "x", &st);
  EXPECT_EQ(st, 20u);  // NOTDIR

  // GETATTR: a regular file of the right size, read-only.
  auto attr = nfs(kNfs, 1, [&](XdrWriter& w) { fh(w, ep); });
  uint32_t attrs[6] = {};  // status, type, mode, nlink, uid, gid
  uint64_t size = 0;
  for (auto& a : attrs) attr.body.u32(a);
  attr.body.u64(size);
  EXPECT_EQ(attrs[0], 0u);
  EXPECT_EQ(attrs[1], 1u);
  EXPECT_EQ(attrs[2], 0444u);
  EXPECT_EQ(attrs[4], 1000u);
  EXPECT_EQ(size, 1000u);

  // READ in 1 MiB pieces gives the bytes back; the last piece says eof;
  // larger counts are cut to the 1 MiB the server offers.
  const uint64_t filmId = nfs.lookup(nfs.lookup(root, "Film (2020)"), "Film (2020).mkv");
  std::string whole;
  bool eof = false;
  for (uint64_t off = 0; !eof; off += 1 << 20) whole += nfs.read(filmId, off, 1 << 20, &eof);
  EXPECT_TRUE(whole == film);
  EXPECT_EQ(nfs.read(filmId, 0, 4 << 20).size(), 1u << 20);
  EXPECT_EQ(nfs.read(filmId, film.size() + 10, 100, &eof), "");
  EXPECT_TRUE(eof);

  // READDIR and READDIRPLUS list ".", ".." and the names in order, over
  // several pages when the client asks for small ones.
  std::vector<std::string> expected = {".", ".."};
  for (int i = 0; i < 120; ++i) expected.push_back("file " + std::to_string(1000 + i) + ".mkv");
  const uint64_t many = nfs.lookup(root, "Many");
  int pages = 0;
  EXPECT_EQ(nfs.list(many, false, 1024, &pages), expected);
  EXPECT_GT(pages, 3);
  EXPECT_EQ(nfs.list(many, true, 2048, &pages), expected);
  EXPECT_GT(pages, 3);

  // Calls it can't take.
  uint32_t low = 0, high = 0;
  EXPECT_EQ(nfs(100000, 0).acceptStat, 1u);  // PROG_UNAVAIL: no portmapper here
  auto mismatch = decode(vt::test::runTask(service.handle(call(kNfs, 2, 0))));
  EXPECT_EQ(mismatch.acceptStat, 2u);  // PROG_MISMATCH, 3 to 3
  mismatch.body.u32(low);
  mismatch.body.u32(high);
  EXPECT_EQ(low, 3u);
  EXPECT_EQ(high, 3u);
  EXPECT_EQ(nfs(kNfs, 22).acceptStat, 3u);                                       // PROC_UNAVAIL
  EXPECT_EQ(nfs(kNfs, 6, [&](XdrWriter& w) { fh(w, filmId); }).acceptStat, 4u);  // GARBAGE_ARGS: no offset
  auto denied = decode(vt::test::runTask(service.handle(call(kNfs, 3, 0, {}, 7, 3))));
  EXPECT_EQ(denied.replyStat, 1u);  // MSG_DENIED, RPC_MISMATCH

  // Writes answer read-only (NFS3ERR_ROFS).
  EXPECT_EQ(nfs.status(kNfs, 7, [&](XdrWriter& w) { fh(w, filmId); }), 30u);
  EXPECT_EQ(nfs.status(kNfs, 6, readArgs(NfsTree::kRootId, 0, 10)), 21u);           // ISDIR
  EXPECT_EQ(nfs.status(kNfs, 1, [](XdrWriter& w) { w.opaque("short"); }), 10001u);  // BADHANDLE

  // A source failure is an I/O error, not a hang or a crash.
  backend.failReads = true;
  EXPECT_EQ(nfs.status(kNfs, 6, readArgs(filmId, 0, 4)), 5u);
  backend.failReads = false;

  // After a reload without the episode, its handle is stale; the film still reads.
  backend.set({{"Film (2020)/Film (2020).mkv", film}});
  EXPECT_EQ(nfs.status(kNfs, 1, [&](XdrWriter& w) { fh(w, ep); }), 70u);
  EXPECT_TRUE(nfs.read(filmId, 0, 10) == film.substr(0, 10));

  // A reply record is not answered; a record too short for a call closes.
  std::string replyRecord;
  XdrWriter w(replyRecord);
  w.u32(1);
  w.u32(1);
  EXPECT_EQ(vt::test::runTask(service.handle(replyRecord)), std::string());
  EXPECT_EQ(vt::test::runTask(service.handle("abc")), std::nullopt);

  // Random records never crash it, and whatever it answers is a whole record.
  std::mt19937 rng(20261123);
  for (int i = 0; i < 300; ++i) {
    std::string record(rng() % 256, '\0');
    for (auto& c : record) c = static_cast<char>(rng());
    auto reply = vt::test::runTask(service.handle(record));
    if (!reply || reply->empty()) continue;
    ASSERT_GE(reply->size(), 16u);
    XdrReader r(reply->data(), reply->size());
    uint32_t mark = 0;
    r.u32(mark);
    ASSERT_EQ(mark, 0x80000000u | (reply->size() - 4));
  }
}

TEST(NfsServer, SpeaksRecordMarkingSendsLocalFileBytesStraightFromTheFileAndKeepsPipelinedRepliesWhole) {
  QTemporaryDir dir;
  MemoryBackend backend;
  backend.onDisk = &dir;
  std::mt19937 rng(5);
  std::string film(3 * (1 << 20) + 1234, '\0');
  for (auto& c : film) c = static_cast<char>(rng());
  backend.set({{"Film/Film.mkv", film}});
  NfsService service(backend, 0, 0);
  NfsServer server(service);
  ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
  Client direct{service};
  const uint64_t id = direct.lookup(direct.lookup(1, "Film"), "Film.mkv");
  ASSERT_NE(id, 0u);
  // Through handle() the span is read into the text.
  EXPECT_TRUE(direct.read(id, 1 << 20, 1 << 20) == film.substr(1 << 20, 1 << 20));

  const auto connect = [&](QTcpSocket& socket) {
    socket.connectToHost(QHostAddress::LocalHost, server.port());
    return vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; });
  };
  // A NULL call in two fragments is answered; a record too large closes its connection.
  QTcpSocket fragments, tooLarge;
  ASSERT_TRUE(connect(fragments) && connect(tooLarge));
  const std::string nullCall = call(kNfs, 3, 0);
  std::string framed;
  XdrWriter w(framed);
  w.u32(8);
  framed.append(nullCall, 0, 8);
  w.u32(0x80000000u | static_cast<uint32_t>(nullCall.size() - 8));
  framed.append(nullCall, 8, std::string::npos);
  fragments.write(framed.data(), static_cast<qint64>(framed.size()));
  ASSERT_TRUE(vt::test::spinUntil([&] { return fragments.bytesAvailable() >= 28; }));
  EXPECT_EQ(decode(fragments.readAll().toStdString()).acceptStat, 0u);
  tooLarge.write("\xff\xff\xff\xff", 4);
  EXPECT_TRUE(vt::test::spinUntil([&] { return tooLarge.state() == QAbstractSocket::UnconnectedState; }));

  // Sixteen reads of 1 MiB or odd lengths sent at once, unread until all are answered: the socket fills,
  // so replies go partly by sendfile and partly through the socket's buffer, and each arrives whole.
  const auto readCall = [&](uint32_t xid, uint64_t offset, uint32_t count) {
    const std::string body = call(kNfs, 3, 6, readArgs(id, offset, count), xid);
    std::string framed;
    XdrWriter(framed).u32(0x80000000u | static_cast<uint32_t>(body.size()));
    return framed + body;
  };
  QTcpSocket socket;
  ASSERT_TRUE(connect(socket));
  std::map<uint32_t, std::string> expected;
  for (uint32_t xid = 1; xid <= 16; ++xid) {
    const uint64_t offset = (xid * 777777ull) % film.size();
    const uint32_t count = xid % 4 == 0 ? 4097 + xid : 1 << 20;
    expected[xid] = film.substr(offset, count);
    const std::string c = readCall(xid, offset, count);
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
          const std::string record = received.substr(0, 4 + length);
          received.erase(0, 4 + length);
          XdrReader in(record.data() + 4, length);
          uint32_t xid = 0;
          in.u32(xid);
          Reply r = decode(record, xid);
          got[xid] = readData(r);
          EXPECT_EQ(r.body.remaining(), 0u);
        }
        return got.size() == expected.size();
      },
      10000));
  for (const auto& [xid, bytes] : expected) EXPECT_TRUE(got[xid] == bytes) << "xid " << xid;

  // A file that shrank after its reply was sized: the connection closes rather than send a record
  // shorter than its mark.
  backend.spanOverrun = 100;
  const std::string c = readCall(99, film.size() - 10, 1000);
  socket.write(c.data(), static_cast<qint64>(c.size()));
  EXPECT_TRUE(vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }));
  EXPECT_EQ(vt::test::runTask(service.handle(c.substr(4))), std::nullopt);
}

namespace {

// The resident memory of this process, in bytes.
int64_t residentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
  return 0;
}

}  // namespace

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
  socket.connectToHost(QHostAddress::LocalHost, server.port());
  ASSERT_TRUE(vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; }));

  // 300 reads of 1 MiB, sent at once and left unread for a while.
  constexpr int kCalls = 300;
  std::string calls;
  for (uint32_t xid = 1; xid <= kCalls; ++xid) {
    const std::string body = call(kNfs, 3, 6, readArgs(id, 0, 1 << 20), xid);
    XdrWriter(calls).u32(0x80000000u | static_cast<uint32_t>(body.size()));
    calls += body;
  }
  const int64_t before = residentBytes();
  socket.write(calls.data(), static_cast<qint64>(calls.size()));
  vt::test::settle(1500);
  EXPECT_LT(residentBytes() - before, int64_t{120} << 20) << "replies piled up in the server";

  // Reading drains them, and every reply comes whole.
  int64_t received = 0;
  ASSERT_TRUE(vt::test::spinUntil(
      [&] {
        received += socket.readAll().size();
        return received >= int64_t{kCalls} * (1 << 20);
      },
      30000))
      << received;
}

TEST(NfsServer, ARecordLeftHalfSentClosesItsConnectionAfterThirtySeconds) {
  MemoryBackend backend;
  backend.set({{"Film.mkv", "x"}});
  NfsService service(backend, 0, 0);
  vt::ManualClock clock;
  NfsServer server(service, clock);
  ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
  QTcpSocket socket;
  socket.connectToHost(QHostAddress::LocalHost, server.port());
  ASSERT_TRUE(vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; }));

  // A whole call keeps nothing pending; a record mark for 100 bytes followed by 10 does.
  const std::string nullCall = call(kNfs, 3, 0);
  std::string framed;
  XdrWriter(framed).u32(0x80000000u | static_cast<uint32_t>(nullCall.size()));
  framed += nullCall;
  XdrWriter(framed).u32(0x80000000u | 100u);
  framed += std::string(10, 'x');
  socket.write(framed.data(), static_cast<qint64>(framed.size()));
  ASSERT_TRUE(vt::test::spinUntil([&] { return socket.bytesAvailable() >= 28 && clock.pendingTimers() == 1; }));
  clock.advance(NfsServer::kHalfSentSeconds - 0.1);
  vt::test::settle(50);
  EXPECT_EQ(socket.state(), QAbstractSocket::ConnectedState);
  clock.advance(0.1);
  EXPECT_TRUE(vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }));
}
