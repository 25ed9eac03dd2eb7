#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <QTcpSocket>
#include <QTemporaryDir>
#include <functional>
#include <map>
#include <random>

#include "NfsServer.h"
#include "NfsService.h"
#include "NfsTree.h"
#include "Xdr.h"
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
    skipped = tree_.rebuild(list, 1700000000, ++stamp_);
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
  std::vector<std::string> skipped;
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
  w.u32(xid);
  w.u32(0);
  w.u32(rpcvers);
  w.u32(prog);
  w.u32(vers);
  w.u32(proc);
  w.u32(1);  // AUTH_UNIX, as Linux and libnfs send it
  std::string cred;
  XdrWriter c(cred);
  c.u32(0);
  c.opaque("host");
  c.u32(1000);
  c.u32(1000);
  c.u32(0);
  w.opaque(cred);
  w.u32(0);
  w.u32(0);
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

struct Client {
  NfsService& service;
  Reply operator()(uint32_t prog, uint32_t proc, const std::function<void(XdrWriter&)>& args = {}) {
    return decode(vt::test::runTask(service.handle(call(prog, 3, proc, args))));
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
    auto r = (*this)(kNfs, 6, [&](XdrWriter& w) {
      fh(w, file);
      w.u64(offset);
      w.u32(count);
    });
    uint32_t st = 0, n = 0;
    bool follows = false, e = false;
    r.body.u32(st);
    EXPECT_EQ(st, 0u);
    r.body.boolean(follows);
    std::string_view attrs;
    r.body.fixed(attrs, 84);
    r.body.u32(n);
    r.body.boolean(e);
    std::string_view data;
    r.body.opaque(data, 1 << 21);
    EXPECT_EQ(data.size(), n);
    if (eof) *eof = e;
    return std::string(data);
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

std::string pattern(size_t n, int seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed + i / 4096) & 0xff);
  return s;
}

}  // namespace

TEST(NfsTree, KeepsHandlesAcrossRebuildsAndSkipsUnusablePaths) {
  NfsTree tree;
  auto skipped = tree.rebuild({{"Film (2020)/Film.mkv", 10, 5},
                               {"Show/Season 01/E01.mkv", 20, 6},
                               {"/absolute.mkv", 1, 1},
                               {"a//b.mkv", 1, 1},
                               {"../up.mkv", 1, 1},
                               {"", 1, 1},
                               {"Film (2020)/Film.mkv/inner.mkv", 1, 1},  // under a file
                               {"Show", 1, 1}},                           // where a folder is
                              100, 0);
  EXPECT_EQ(skipped, (std::vector<std::string>{"/absolute.mkv", "a//b.mkv", "../up.mkv", "",
                                               "Film (2020)/Film.mkv/inner.mkv", "Show"}));
  const auto* film = tree.fileForEntry("Film (2020)/Film.mkv");
  const auto* episode = tree.fileForEntry("Show/Season 01/E01.mkv");
  ASSERT_TRUE(film && episode);
  const uint64_t filmId = film->id, episodeId = episode->id;
  const uint64_t seasonId = episode->parent;
  EXPECT_EQ(tree.totalBytes(), 30);
  EXPECT_EQ(tree.root().children.size(), 2u);
  EXPECT_EQ(tree.root().subdirs, 2u);
  EXPECT_EQ(tree.root().mtimeSeconds, 100);

  // The episode goes, a film comes: the kept film and its folders keep their
  // ids and times, the gone episode's handle is stale, changed folders move on.
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

TEST(NfsService, MountsLooksUpListsAndReadsTheTree) {
  MemoryBackend backend;
  const std::string film = pattern(3 * 1024 * 1024 + 17, 1), episode = pattern(1000, 2);
  std::vector<std::pair<std::string, std::string>> files = {{"Film (2020)/Film (2020).mkv", film},
                                                            {"Show/Season 01/Show - S01E01.mkv", episode}};
  for (int i = 0; i < 120; ++i) files.emplace_back("Many/file " + std::to_string(1000 + i) + ".mkv", "x");
  backend.set(files);
  NfsService service(backend, 1000, 1000);
  Client nfs{service};

  // MNT of the root and of a folder; a missing export is refused.
  auto mnt = nfs(kMount, 1, [](XdrWriter& w) { w.opaque("/"); });
  uint32_t st = 9;
  mnt.body.u32(st);
  EXPECT_EQ(st, 0u);
  std::string_view handle;
  ASSERT_TRUE(mnt.body.opaque(handle, 64));
  EXPECT_EQ(handle.size(), 8u);
  auto missing = nfs(kMount, 1, [](XdrWriter& w) { w.opaque("/nope"); });
  missing.body.u32(st);
  EXPECT_EQ(st, 2u);
  auto exports = nfs(kMount, 5);
  bool follows = false;
  std::string_view dir;
  exports.body.boolean(follows);
  exports.body.opaque(dir, 1024);
  EXPECT_TRUE(follows);
  EXPECT_EQ(dir, "/");

  const uint64_t root = NfsTree::kRootId;
  const uint64_t show = nfs.lookup(root, "Show");
  const uint64_t season = nfs.lookup(show, "Season 01");
  const uint64_t ep = nfs.lookup(season, "Show - S01E01.mkv");
  ASSERT_NE(ep, 0u);
  EXPECT_EQ(nfs.lookup(season, ".."), show);
  EXPECT_EQ(nfs.lookup(season, "."), season);
  nfs.lookup(season, "missing.mkv", &st);
  EXPECT_EQ(st, 2u);  // NOENT
  nfs.lookup(ep, "x", &st);
  EXPECT_EQ(st, 20u);  // NOTDIR

  // GETATTR: a regular file of the right size, read-only.
  auto attr = nfs(kNfs, 1, [&](XdrWriter& w) { fh(w, ep); });
  uint32_t type = 0, mode = 0, nlink = 0, uid = 0, gid = 0;
  uint64_t size = 0;
  attr.body.u32(st);
  attr.body.u32(type);
  attr.body.u32(mode);
  attr.body.u32(nlink);
  attr.body.u32(uid);
  attr.body.u32(gid);
  attr.body.u64(size);
  EXPECT_EQ(st, 0u);
  EXPECT_EQ(type, 1u);
  EXPECT_EQ(mode, 0444u);
  EXPECT_EQ(uid, 1000u);
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
  EXPECT_EQ(nfs.list(root, true, 65536), (std::vector<std::string>{".", "..", "Film (2020)", "Many", "Show"}));

  // FSINFO offers 1 MiB transfers.
  auto info = nfs(kNfs, 19, [&](XdrWriter& w) { fh(w, root); });
  uint32_t rtmax = 0;
  std::string_view skip;
  info.body.u32(st);
  info.body.boolean(follows);
  info.body.fixed(skip, 84);
  info.body.u32(rtmax);
  EXPECT_EQ(rtmax, 1u << 20);
}

TEST(NfsService, AnswersMistakesAndWritesByTheProtocol) {
  MemoryBackend backend;
  backend.set({{"A/a.mkv", "aaaa"}, {"B/b.mkv", "bbbb"}});
  NfsService service(backend, 0, 0);
  Client nfs{service};
  const uint64_t a = nfs.lookup(nfs.lookup(NfsTree::kRootId, "A"), "a.mkv");
  const uint64_t b = nfs.lookup(nfs.lookup(NfsTree::kRootId, "B"), "b.mkv");
  uint32_t st = 0, low = 0, high = 0;

  EXPECT_EQ(nfs(100000, 0).acceptStat, 1u);  // PROG_UNAVAIL: no portmapper here
  auto mismatch = decode(vt::test::runTask(service.handle(call(kNfs, 2, 0))));
  EXPECT_EQ(mismatch.acceptStat, 2u);  // PROG_MISMATCH, 3 to 3
  mismatch.body.u32(low);
  mismatch.body.u32(high);
  EXPECT_EQ(low, 3u);
  EXPECT_EQ(high, 3u);
  EXPECT_EQ(nfs(kNfs, 22).acceptStat, 3u);  // PROC_UNAVAIL
  EXPECT_EQ(nfs(kMount, 6).acceptStat, 3u);
  EXPECT_EQ(nfs(kNfs, 6, [&](XdrWriter& w) { fh(w, a); }).acceptStat, 4u);  // GARBAGE_ARGS: no offset
  auto denied = decode(vt::test::runTask(service.handle(call(kNfs, 3, 0, {}, 7, 3))));
  EXPECT_EQ(denied.replyStat, 1u);  // MSG_DENIED, RPC_MISMATCH

  // Every write answers read-only.
  for (uint32_t proc : {2u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 14u, 15u, 21u}) {
    auto r = nfs(kNfs, proc, [&](XdrWriter& w) { fh(w, a); });
    EXPECT_EQ(r.acceptStat, 0u) << proc;
    r.body.u32(st);
    EXPECT_EQ(st, 30u) << proc;  // NFS3ERR_ROFS
  }

  auto readlink = nfs(kNfs, 5, [&](XdrWriter& w) { fh(w, a); });
  readlink.body.u32(st);
  EXPECT_EQ(st, 10004u);  // NOTSUPP
  auto isdir = nfs(kNfs, 6, [&](XdrWriter& w) {
    fh(w, NfsTree::kRootId);
    w.u64(0);
    w.u32(10);
  });
  isdir.body.u32(st);
  EXPECT_EQ(st, 21u);
  auto badHandle = nfs(kNfs, 1, [](XdrWriter& w) { w.opaque("short"); });
  badHandle.body.u32(st);
  EXPECT_EQ(st, 10001u);

  // A source failure is an I/O error, not a hang or a crash.
  backend.failReads = true;
  auto io = nfs(kNfs, 6, [&](XdrWriter& w) {
    fh(w, a);
    w.u64(0);
    w.u32(4);
  });
  io.body.u32(st);
  EXPECT_EQ(st, 5u);
  backend.failReads = false;

  // After a reload without b, its handle is stale; a's still reads.
  backend.set({{"A/a.mkv", "aaaa"}, {"C/c.mkv", "cc"}});
  auto stale = nfs(kNfs, 1, [&](XdrWriter& w) { fh(w, b); });
  stale.body.u32(st);
  EXPECT_EQ(st, 70u);
  EXPECT_EQ(nfs.read(a, 0, 10), "aaaa");

  // A reply record is not answered; a record too short for a call closes.
  std::string replyRecord;
  XdrWriter w(replyRecord);
  w.u32(1);
  w.u32(1);
  EXPECT_EQ(vt::test::runTask(service.handle(replyRecord)), std::string());
  EXPECT_EQ(vt::test::runTask(service.handle("abc")), std::nullopt);
}

TEST(NfsService, SurvivesRandomAndMutatedRecords) {
  MemoryBackend backend;
  backend.set({{"A/a.mkv", pattern(5000, 3)}, {"b.mkv", "b"}});
  NfsService service(backend, 0, 0);
  const uint64_t a = Client{service}.lookup(Client{service}.lookup(NfsTree::kRootId, "A"), "a.mkv");

  // Valid calls of every procedure, to mutate.
  std::vector<std::string> seeds;
  for (uint32_t proc = 0; proc <= 22; ++proc)
    seeds.push_back(call(kNfs, 3, proc, [&](XdrWriter& w) {
      fh(w, proc % 2 ? a : NfsTree::kRootId);
      w.u64(0);
      w.u64(0);
      w.u32(4096);
      w.u32(4096);
    }));
  for (uint32_t proc = 0; proc <= 6; ++proc)
    seeds.push_back(call(kMount, 3, proc, [](XdrWriter& w) { w.opaque("/A"); }));

  std::mt19937 rng(20261123);
  int answered = 0;
  for (int i = 0; i < 30000; ++i) {
    std::string record;
    if (i % 3 == 0) {
      record.resize(rng() % 256);
      for (auto& c : record) c = static_cast<char>(rng());
    } else {
      record = seeds[rng() % seeds.size()];
      const int flips = 1 + static_cast<int>(rng() % 4);
      for (int f = 0; f < flips && !record.empty(); ++f) {
        const size_t at = rng() % record.size();
        switch (rng() % 4) {
          case 0:
            record[at] = static_cast<char>(rng());
            break;
          case 1:
            record.resize(at);
            break;  // truncated
          case 2:
            record[at & ~size_t(3)] = static_cast<char>(0xff);
            break;  // huge lengths
          default:
            record.insert(at, std::string(rng() % 9, static_cast<char>(rng())));
            break;
        }
      }
    }
    auto reply = vt::test::runTask(service.handle(record));
    if (reply && !reply->empty()) {
      ++answered;
      ASSERT_GE(reply->size(), 16u);
      XdrReader r(reply->data(), reply->size());
      uint32_t mark = 0;
      r.u32(mark);
      ASSERT_EQ(mark, 0x80000000u | (reply->size() - 4));
    }
  }
  EXPECT_GT(answered, 10000);
}

TEST(NfsServer, ClosesAConnectionWhoseRecordIsTooLargeAndAnswersOverRecordMarking) {
  MemoryBackend backend;
  backend.set({{"a.mkv", "a"}});
  NfsService service(backend, 0, 0);
  NfsServer server(service);
  ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
  const quint16 port = server.port();

  // A NULL call in two fragments is answered.
  QTcpSocket good;
  good.connectToHost(QHostAddress::LocalHost, port);
  ASSERT_TRUE(vt::test::spinUntil([&] { return good.state() == QAbstractSocket::ConnectedState; }));
  const std::string body = call(kNfs, 3, 0);
  std::string framed;
  XdrWriter w(framed);
  w.u32(8);
  framed.append(body, 0, 8);
  w.u32(0x80000000u | static_cast<uint32_t>(body.size() - 8));
  framed.append(body, 8, std::string::npos);
  good.write(framed.data(), static_cast<qint64>(framed.size()));
  ASSERT_TRUE(vt::test::spinUntil([&] { return good.bytesAvailable() >= 28; }));
  const QByteArray answer = good.readAll();
  EXPECT_EQ(decode(answer.toStdString()).acceptStat, 0u);

  QTcpSocket bad;
  bad.connectToHost(QHostAddress::LocalHost, port);
  ASSERT_TRUE(vt::test::spinUntil([&] { return bad.state() == QAbstractSocket::ConnectedState; }));
  bad.write("\xff\xff\xff\xff", 4);
  EXPECT_TRUE(vt::test::spinUntil([&] { return bad.state() == QAbstractSocket::UnconnectedState; }));
}

TEST(NfsServer, SendsLocalFileBytesStraightFromTheFileAndKeepsPipelinedRepliesWhole) {
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

  // Sixteen 1 MiB reads (and some odd lengths) sent at once, unread until
  // all are answered: the socket fills, so replies go partly by sendfile
  // and partly through the socket's own buffer, and each arrives whole.
  const auto readCall = [&](uint32_t xid, uint64_t offset, uint32_t count) {
    std::string body = call(
        kNfs, 3, 6,
        [&](XdrWriter& w) {
          fh(w, id);
          w.u64(offset);
          w.u32(count);
        },
        xid);
    std::string framed;
    XdrWriter(framed).u32(0x80000000u | static_cast<uint32_t>(body.size()));
    return framed + body;
  };
  QTcpSocket socket;
  socket.connectToHost(QHostAddress::LocalHost, server.port());
  ASSERT_TRUE(vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::ConnectedState; }));
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
          uint32_t st = 1, n = 0;
          bool follows = false, eof = false;
          std::string_view attrs, data;
          r.body.u32(st);
          r.body.boolean(follows);
          r.body.fixed(attrs, 84);
          r.body.u32(n);
          r.body.boolean(eof);
          r.body.opaque(data, 1 << 21);
          EXPECT_EQ(st, 0u);
          EXPECT_EQ(r.body.remaining(), 0u);
          got[xid] = std::string(data);
        }
        return got.size() == expected.size();
      },
      10000));
  for (const auto& [xid, bytes] : expected) EXPECT_TRUE(got[xid] == bytes) << "xid " << xid;

  // A file that shrank after its reply was sized: the reply can't be
  // completed as promised, so the connection closes rather than send a
  // record shorter than its mark.
  backend.spanOverrun = 100;
  const std::string c = readCall(99, film.size() - 10, 1000);
  socket.write(c.data(), static_cast<qint64>(c.size()));
  EXPECT_TRUE(vt::test::spinUntil([&] { return socket.state() == QAbstractSocket::UnconnectedState; }));
  EXPECT_EQ(vt::test::runTask(service.handle(c.substr(4))), std::nullopt);
}
