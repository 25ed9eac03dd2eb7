#include "NfsService.h"

#include <algorithm>

#include "Xdr.h"

namespace vtnfs {

namespace {

// ONC RPC (RFC 5531).
constexpr uint32_t kCall = 0, kReply = 1;
constexpr uint32_t kAccepted = 0, kDenied = 1;
constexpr uint32_t kSuccess = 0, kProgUnavail = 1, kProgMismatch = 2, kProcUnavail = 3, kGarbageArgs = 4;
constexpr uint32_t kRpcMismatch = 0, kAuthError = 1, kAuthBadCred = 1;
constexpr uint32_t kNfsProgram = 100003, kMountProgram = 100005;

// NFS version 3 (RFC 1813).
enum NfsStatus : uint32_t {
  kOk = 0,
  kNoEnt = 2,
  kIo = 5,
  kNotDir = 20,
  kIsDir = 21,
  kInval = 22,
  kRofs = 30,
  kNameTooLong = 63,
  kStale = 70,
  kBadHandle = 10001,
  kNotSupp = 10004,
  kTooSmall = 10005,
};
constexpr uint32_t kAccessRead = 0x1, kAccessLookup = 0x2, kAccessExecute = 0x20;
constexpr uint64_t kFsid = 0x76746e6673ULL;  // "vtnfs"
constexpr size_t kHandleSize = 8;
constexpr size_t kAttrSize = 84;  // an encoded fattr3

void fileHandle(XdrWriter& w, uint64_t id) {
  w.u32(kHandleSize);
  w.u64(id);
}

// Reads a file handle; false when the arguments don't decode. `node` is the
// handle's file, or none with `status` saying why.
bool readHandle(XdrReader& r, const NfsTree& tree, const NfsNode*& node, uint32_t& status) {
  std::string_view fh;
  if (!r.opaque(fh, 64)) return false;
  node = nullptr;
  if (fh.size() != kHandleSize) {
    status = kBadHandle;
    return true;
  }
  XdrReader hr(fh.data(), fh.size());
  uint64_t id = 0;
  hr.u64(id);
  node = tree.find(id);
  status = node ? kOk : kStale;
  return true;
}

}  // namespace

struct NfsService::Call {
  uint32_t proc = 0;
  XdrReader args;
};

void NfsService::attributes(std::string& out, const NfsNode& n) const {
  XdrWriter w(out);
  w.u32(n.dir ? 2 : 1);  // NF3DIR, NF3REG
  w.u32(n.dir ? 0555 : 0444);
  w.u32(n.dir ? 2 + n.subdirs : 1);
  w.u32(uid_);
  w.u32(gid_);
  const uint64_t size = n.dir ? 4096 : static_cast<uint64_t>(std::max<int64_t>(0, n.size));
  w.u64(size);
  w.u64(size);
  w.u32(0);  // rdev
  w.u32(0);
  w.u64(kFsid);
  w.u64(n.id);
  const auto seconds = static_cast<uint32_t>(std::clamp<int64_t>(n.mtimeSeconds, 0, UINT32_MAX));
  for (int i = 0; i < 3; ++i) {  // atime, mtime, ctime
    w.u32(seconds);
    w.u32(n.mtimeNanos);
  }
}

void NfsService::postOpAttributes(std::string& out, const NfsNode* node) const {
  XdrWriter w(out);
  w.boolean(node != nullptr);
  if (node) attributes(out, *node);
}

std::optional<std::string> NfsService::Reply::flatten() && {
  if (!span) return std::move(bytes);
  std::string out = bytes.substr(0, spanAt);
  out.reserve(bytes.size() + span.length());
  if (!span.appendTo(out)) return std::nullopt;
  out.append(bytes, spanAt);
  return out;
}

QCoro::Task<std::optional<std::string>> NfsService::handle(std::string record, vt::CancelToken token) {
  auto r = co_await reply(std::move(record), token);
  if (!r) co_return std::nullopt;
  co_return std::move(*r).flatten();
}

QCoro::Task<std::optional<NfsService::Reply>> NfsService::reply(std::string record, vt::CancelToken token) {
  Reply result;
  std::string& out = result.bytes;
  out.reserve(256);
  XdrWriter w(out);
  w.u32(0);  // the record mark, set at the end
  XdrReader r(record.data(), record.size());
  uint32_t xid = 0, type = 0, rpcvers = 0, prog = 0, vers = 0, proc = 0;
  if (!r.u32(xid) || !r.u32(type)) co_return std::nullopt;
  if (type != kCall) co_return Reply{};
  if (!r.u32(rpcvers) || !r.u32(prog) || !r.u32(vers) || !r.u32(proc)) co_return std::nullopt;
  uint32_t flavor = 0;
  std::string_view body;
  const bool authOk = r.u32(flavor) && r.opaque(body, 400) && r.u32(flavor) && r.opaque(body, 400);

  w.u32(xid);
  w.u32(kReply);
  if (rpcvers != 2) {
    w.u32(kDenied);
    w.u32(kRpcMismatch);
    w.u32(2);
    w.u32(2);
  } else if (!authOk) {
    w.u32(kDenied);
    w.u32(kAuthError);
    w.u32(kAuthBadCred);
  } else {
    w.u32(kAccepted);
    w.u32(0);  // verifier: AUTH_NONE, empty
    w.u32(0);
    const size_t statAt = out.size();
    w.u32(kSuccess);
    Call call{proc, r};
    uint32_t accept = kSuccess;
    if (prog != kNfsProgram && prog != kMountProgram) {
      accept = kProgUnavail;
    } else if (vers != 3) {
      accept = kProgMismatch;
    } else if (prog == kNfsProgram) {
      if (proc > 21)
        accept = kProcUnavail;
      else if (!co_await nfs(call, result, token))
        accept = kGarbageArgs;
      if (token.isCancelled()) co_return std::nullopt;
    } else {
      if (proc > 5)
        accept = kProcUnavail;
      else if (!mount(call, out))
        accept = kGarbageArgs;
    }
    if (accept != kSuccess) {
      result.span = FileSpan();
      out.resize(statAt + 4);
      w.patch(statAt, accept);
      if (accept == kProgMismatch) {
        w.u32(3);
        w.u32(3);
      }
    }
  }
  w.patch(0, 0x80000000u | static_cast<uint32_t>(out.size() - 4 + result.span.length()));
  co_return result;
}

bool NfsService::mount(Call& call, std::string& out) {
  XdrWriter w(out);
  XdrReader& r = call.args;
  std::string_view path;
  switch (call.proc) {
    case 0:  // NULL
      return true;
    case 1: {  // MNT: the root is exported, and with it every folder below
      if (!r.opaque(path, 1024)) return false;
      const NfsTree& tree = backend_.tree();
      const NfsNode* node = &tree.root();
      size_t start = 0;
      while (node && start < path.size()) {
        const size_t slash = std::min(path.find('/', start), path.size());
        if (slash > start) node = tree.child(*node, path.substr(start, slash - start));
        start = slash + 1;
      }
      if (!node || !node->dir) {
        w.u32(node ? 20 : 2);  // MNT3ERR_NOTDIR, MNT3ERR_NOENT
        return true;
      }
      w.u32(0);
      fileHandle(w, node->id);
      w.u32(2);  // accepted flavours: AUTH_NONE, AUTH_UNIX
      w.u32(0);
      w.u32(1);
      return true;
    }
    case 2:  // DUMP: no mount list is kept
      w.boolean(false);
      return true;
    case 3:  // UMNT
      return r.opaque(path, 1024);
    case 4:  // UMNTALL
      return true;
    case 5:  // EXPORT: "/" to everyone
      w.boolean(true);
      w.opaque("/");
      w.boolean(false);
      w.boolean(false);
      return true;
  }
  return false;
}

QCoro::Task<bool> NfsService::nfs(Call& call, Reply& reply, vt::CancelToken token) {
  std::string& out = reply.bytes;
  XdrWriter w(out);
  XdrReader& r = call.args;
  const NfsTree& tree = backend_.tree();
  const NfsNode* node = nullptr;
  uint32_t status = kOk;

  switch (call.proc) {
    case 0:  // NULL
      co_return true;

    case 1:  // GETATTR
      if (!readHandle(r, tree, node, status)) co_return false;
      w.u32(status);
      if (node) attributes(out, *node);
      co_return true;

    case 3: {  // LOOKUP
      std::string_view name;
      if (!readHandle(r, tree, node, status) || !r.opaque(name, 1024)) co_return false;
      const NfsNode* found = nullptr;
      if (node && !node->dir)
        status = kNotDir;
      else if (node && name.size() > 255)
        status = kNameTooLong;
      else if (node && !(found = tree.child(*node, name)))
        status = kNoEnt;
      w.u32(status);
      if (status == kOk) {
        fileHandle(w, found->id);
        postOpAttributes(out, found);
      }
      postOpAttributes(out, node);
      co_return true;
    }

    case 4: {  // ACCESS
      uint32_t wanted = 0;
      if (!readHandle(r, tree, node, status) || !r.u32(wanted)) co_return false;
      w.u32(status);
      postOpAttributes(out, node);
      if (node) w.u32(wanted & (node->dir ? kAccessRead | kAccessLookup | kAccessExecute : kAccessRead));
      co_return true;
    }

    case 5:  // READLINK: there are no links
      if (!readHandle(r, tree, node, status)) co_return false;
      w.u32(node ? kNotSupp : status);
      postOpAttributes(out, node);
      co_return true;

    case 6: {  // READ
      uint64_t offset = 0;
      uint32_t count = 0;
      if (!readHandle(r, tree, node, status) || !r.u64(offset) || !r.u32(count)) co_return false;
      if (node && node->dir) status = kIsDir;
      if (status != kOk) {
        w.u32(status);
        postOpAttributes(out, node);
        co_return true;
      }
      const uint64_t id = node->id;
      const std::string entry = node->entry;
      count = std::min(count, kMaxRead);
      // Status, attributes, count, eof and the data's length go in front of
      // the data; the source appends the data in place and the words are
      // filled in after it, when the attributes may have changed.
      const size_t head = out.size();
      out.append(4 + 4 + kAttrSize + 4 + 4 + 4, '\0');
      ReadResult outcome = readDone(true);  // at or past the end
      FileSpan span;
      if (offset < static_cast<uint64_t>(std::max<int64_t>(0, node->size)) || node->size == 0) {
        outcome = co_await backend_.read(entry, offset, count, out, &span, token);
        if (token.isCancelled()) co_return false;
      }
      const NfsNode* now = backend_.tree().find(id);
      const size_t dataAt = head + (4 + 4 + kAttrSize + 4 + 4 + 4);
      const size_t got = out.size() - dataAt + span.length();
      if (!outcome || !now) {
        out.resize(head);
        w.u32(now ? kIo : kStale);
        postOpAttributes(out, now);
        co_return true;
      }
      std::string words;
      XdrWriter ww(words);
      ww.u32(kOk);
      ww.boolean(true);
      attributes(words, *now);
      ww.u32(static_cast<uint32_t>(got));
      ww.boolean(outcome->eof);
      ww.u32(static_cast<uint32_t>(got));
      out.replace(head, words.size(), words);
      if (span) {
        reply.span = std::move(span);
        reply.spanAt = dataAt;
      }
      w.pad(got);
      co_return true;
    }

    case 2:   // SETATTR
    case 7:   // WRITE
    case 8:   // CREATE
    case 9:   // MKDIR
    case 10:  // SYMLINK
    case 11:  // MKNOD
    case 12:  // REMOVE
    case 13:  // RMDIR
    case 21:  // COMMIT
      w.u32(kRofs);
      w.u32(0);  // wcc_data: no attributes before, none after
      w.u32(0);
      co_return true;
    case 14:  // RENAME: two wcc_data
      w.u32(kRofs);
      for (int i = 0; i < 4; ++i) w.u32(0);
      co_return true;
    case 15:  // LINK: post_op_attr and wcc_data
      w.u32(kRofs);
      for (int i = 0; i < 3; ++i) w.u32(0);
      co_return true;

    case 16:  // READDIR
    case 17:  // READDIRPLUS
      co_return readdir(call, out, call.proc == 17);

    case 18:  // FSSTAT
      if (!readHandle(r, tree, node, status)) co_return false;
      w.u32(status);
      postOpAttributes(out, node);
      if (node) {
        w.u64(static_cast<uint64_t>(std::max<int64_t>(0, tree.totalBytes())));  // total
        w.u64(0);                                                               // free
        w.u64(0);                                                               // available
        w.u64(tree.size());                                                     // files
        w.u64(0);
        w.u64(0);
        w.u32(0);  // invarsec
      }
      co_return true;

    case 19:  // FSINFO
      if (!readHandle(r, tree, node, status)) co_return false;
      w.u32(status);
      postOpAttributes(out, node);
      if (node) {
        w.u32(kMaxRead);  // rtmax
        w.u32(kMaxRead);  // rtpref
        w.u32(4096);      // rtmult
        w.u32(kMaxRead);  // wtmax
        w.u32(kMaxRead);  // wtpref
        w.u32(4096);      // wtmult
        w.u32(65536);     // dtpref
        w.u64(0x7fffffffffffffffULL);
        w.u32(0);  // time_delta: 1 ns
        w.u32(1);
        w.u32(0x8);  // FSF3_HOMOGENEOUS
      }
      co_return true;

    case 20:  // PATHCONF
      if (!readHandle(r, tree, node, status)) co_return false;
      w.u32(status);
      postOpAttributes(out, node);
      if (node) {
        w.u32(1);    // linkmax
        w.u32(255);  // name_max
        w.boolean(true);
        w.boolean(true);
        w.boolean(false);
        w.boolean(true);
      }
      co_return true;
  }
  co_return false;
}

bool NfsService::readdir(Call& call, std::string& out, bool plus) {
  XdrWriter w(out);
  XdrReader& r = call.args;
  const NfsTree& tree = backend_.tree();
  const NfsNode* dir = nullptr;
  uint32_t status = kOk;
  uint64_t cookie = 0;
  std::string_view verifier;
  uint32_t dircount = 0, maxcount = 0;
  if (!readHandle(r, tree, dir, status) || !r.u64(cookie) || !r.fixed(verifier, 8) || !r.u32(dircount)) return false;
  if (plus && !r.u32(maxcount)) return false;
  if (!plus) maxcount = dircount;
  if (dir && !dir->dir) status = kNotDir;
  if (status != kOk) {
    w.u32(status);
    postOpAttributes(out, dir);
    return true;
  }

  // The listing is ".", ".." and the children by name; a cookie is the
  // position after an item.
  const size_t items = 2 + dir->children.size();
  const size_t start = std::min<uint64_t>(cookie, items);
  const size_t begin = out.size();
  w.u32(kOk);
  postOpAttributes(out, dir);
  w.u64(0);                                           // cookie verifier
  const size_t fixedCost = (out.size() - begin) + 8;  // plus end-of-list and eof
  size_t total = fixedCost, dirBytes = 0;
  size_t i = start;
  for (; i < items; ++i) {
    const NfsNode* item = i == 0 ? dir : i == 1 ? tree.find(dir->parent) : tree.find(dir->children[i - 2]);
    if (!item) continue;
    const std::string_view name = i == 0 ? "." : i == 1 ? ".." : std::string_view(item->name);
    const size_t nameBytes = 4 + ((name.size() + 3) & ~size_t(3));
    const size_t dirCost = 8 + nameBytes + 8;
    const size_t cost = 4 + dirCost + (plus ? 4 + kAttrSize + 4 + 4 + kHandleSize : 0);
    if (total + cost > maxcount || (plus && dirBytes + dirCost > dircount)) break;
    total += cost;
    dirBytes += dirCost;
    w.boolean(true);
    w.u64(item->id);
    w.opaque(name);
    w.u64(i + 1);
    if (plus) {
      postOpAttributes(out, item);
      w.boolean(true);
      fileHandle(w, item->id);
    }
  }
  if (i == start && start < items) {
    out.resize(begin);
    w.u32(kTooSmall);
    postOpAttributes(out, dir);
    return true;
  }
  w.boolean(false);
  w.boolean(i >= items);
  return true;
}

}  // namespace vtnfs
