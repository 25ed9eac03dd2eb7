// vtnfs-mount: mounts an engine's NFS export at a folder without
// privileges. It is an NFS client (libnfs) behind a read-only FUSE file
// system (libfuse3), for machines where the user may not mount NFS through
// the kernel. Unmount with "fusermount3 -u <folder>".
//
//   vtnfs-mount [-f] HOST:PORT FOLDER
//
// The port serves both NFS and its mount protocol. Without -f the helper
// goes to the background once the folder is mounted and exits 0, so a caller
// that waits for it knows the mount is there.
#define FUSE_USE_VERSION 35

#include <fcntl.h>
#include <fuse.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <nfsc/libnfs.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "NfsReadClient.h"

namespace {

constexpr unsigned kTransferBytes = 1 << 20;

// libnfs contexts are not thread-safe, and one request in flight per context
// would let a single stalled source freeze the whole folder. So the helper
// serves FUSE on several threads over a small pool of connections: each
// operation borrows one, and a stalled read holds only its own.
struct Connection {
  nfs_context* nfs = nullptr;
  std::map<std::string, nfsfh*> files;  // open handles by path, per connection
  vtnfs::NfsReadClient reads;           // the reads themselves
};

class Pool {
 public:
  static constexpr size_t kMaxConnections = 8;

  std::string server, port;

  // A connection that answers, or none when the export can't be reached.
  Connection* take() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (!idle_.empty()) {
        Connection* c = idle_.back();
        idle_.pop_back();
        return c;
      }
      if (count_ < kMaxConnections) break;
      freed_.wait(lock);
    }
    ++count_;
    lock.unlock();
    Connection* c = connect();
    if (!c) {
      std::lock_guard again(mutex_);
      --count_;
      freed_.notify_one();
    }
    return c;
  }
  void give(Connection* c) {
    std::lock_guard lock(mutex_);
    idle_.push_back(c);
    freed_.notify_one();
  }
  // The first connection, made before mounting so that a wrong address is
  // reported at once.
  bool start(std::string& error) {
    Connection* c = connect(&error);
    if (!c) return false;
    std::lock_guard lock(mutex_);
    ++count_;
    idle_.push_back(c);
    return true;
  }

 private:
  Connection* connect(std::string* error = nullptr) {
    nfs_context* nfs = nfs_init_context();
    if (!nfs) {
      if (error) *error = "cannot start an NFS client";
      return nullptr;
    }
    // The same port serves NFS and the mount protocol; the engine has no portmapper.
    const std::string url = "nfs://" + server + "/?version=3&nfsport=" + port + "&mountport=" + port;
    nfs_url* parsed = nfs_parse_url_dir(nfs, url.c_str());
    if (!parsed) {
      if (error) *error = std::string("bad address: ") + nfs_get_error(nfs);
      nfs_destroy_context(nfs);
      return nullptr;
    }
    nfs_set_dircache(nfs, 0);
    nfs_set_autoreconnect(nfs, 10);
    const int rc = nfs_mount(nfs, parsed->server, "/");
    nfs_destroy_url(parsed);
    if (rc != 0) {
      if (error) *error = std::string("cannot reach the NFS export: ") + nfs_get_error(nfs);
      nfs_destroy_context(nfs);
      return nullptr;
    }
    return new Connection{nfs, {}, {server, static_cast<uint16_t>(std::strtol(port.c_str(), nullptr, 10))}};
  }

  std::mutex mutex_;
  std::condition_variable freed_;
  std::vector<Connection*> idle_;
  size_t count_ = 0;
};

Pool pool;

// A borrowed connection, given back at the end of the operation.
class Lease {
 public:
  Lease() : c_(pool.take()) {}
  ~Lease() {
    if (c_) pool.give(c_);
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;
  explicit operator bool() const { return c_ != nullptr; }
  Connection* operator->() const { return c_; }
  Connection& operator*() const { return *c_; }

 private:
  Connection* c_;
};

// What programs see: libnfs hands back whatever its RPC layer had (EFAULT
// for a failed READ, among others). Known file errors pass; anything else
// is an I/O error.
int fuseError(int rc) {
  switch (-rc) {
    case ENOENT:
    case ESTALE:
    case EACCES:
    case ENOTDIR:
    case EISDIR:
    case ENAMETOOLONG:
    case EROFS:
    case EIO:
      return rc;
    case EPERM:
      return -EACCES;
    default:
      return -EIO;
  }
}

void fillStat(struct stat* st, const nfs_stat_64& s) {
  std::memset(st, 0, sizeof *st);
  st->st_ino = s.nfs_ino;
  st->st_mode = static_cast<mode_t>(s.nfs_mode);
  st->st_nlink = static_cast<nlink_t>(s.nfs_nlink);
  st->st_uid = static_cast<uid_t>(s.nfs_uid);
  st->st_gid = static_cast<gid_t>(s.nfs_gid);
  st->st_size = static_cast<off_t>(s.nfs_size);
  st->st_blksize = 1 << 20;
  st->st_blocks = static_cast<blkcnt_t>((s.nfs_size + 511) / 512);
  st->st_atim = {static_cast<time_t>(s.nfs_atime), static_cast<long>(s.nfs_atime_nsec)};
  st->st_mtim = {static_cast<time_t>(s.nfs_mtime), static_cast<long>(s.nfs_mtime_nsec)};
  st->st_ctim = {static_cast<time_t>(s.nfs_ctime), static_cast<long>(s.nfs_ctime_nsec)};
}

void* init(fuse_conn_info* conn, fuse_config* cfg) {
  // A read reaches the helper whole up to one NFS transfer (see open), so
  // that one round trip to the engine moves 1 MiB.
  conn->max_read = kTransferBytes;
  conn->max_readahead = kTransferBytes;
  conn->max_write = kTransferBytes;  // libfuse sizes the kernel's requests (max_pages) from this
  conn->max_background = 64;
  // Listings and sizes change when the engine reloads its manifest; keep the
  // kernel's caches short so the folder follows without a remount.
  cfg->use_ino = 1;
  cfg->entry_timeout = 1;
  cfg->attr_timeout = 1;
  cfg->negative_timeout = 1;
  cfg->kernel_cache = 0;
  // A killed reader's read is let go: libfuse signals the thread serving it
  // (SIGUSR1, whose handler main installs), and readFromEngine gives up.
  cfg->intr = 1;
  return nullptr;
}

int getattr(const char* path, struct stat* st, fuse_file_info*) {
  Lease c;
  if (!c) return -EIO;
  nfs_stat_64 s{};
  const int rc = nfs_stat64(c->nfs, path, &s);
  if (rc < 0) return fuseError(rc);
  fillStat(st, s);
  return 0;
}

int readdir(const char* path, void* buf, fuse_fill_dir_t filler, off_t, fuse_file_info*, fuse_readdir_flags) {
  Lease c;
  if (!c) return -EIO;
  nfsdir* dir = nullptr;
  const int rc = nfs_opendir(c->nfs, path, &dir);
  if (rc < 0) return fuseError(rc);
  while (nfsdirent* e = nfs_readdir(c->nfs, dir)) {
    struct stat st {};
    st.st_ino = e->inode;
    st.st_mode = static_cast<mode_t>(e->mode) | (e->type == 2 ? S_IFDIR : S_IFREG);
    if (filler(buf, e->name, &st, 0, static_cast<fuse_fill_dir_flags>(0))) break;
  }
  nfs_closedir(c->nfs, dir);
  return 0;
}

// The connection's handle of a file, opened on first use.
int handleFor(Connection& c, const std::string& path, nfsfh** fh) {
  if (auto it = c.files.find(path); it != c.files.end()) {
    *fh = it->second;
    return 0;
  }
  const int rc = nfs_open(c.nfs, path.c_str(), O_RDONLY, fh);
  if (rc < 0) return rc;
  c.files[path] = *fh;
  return 0;
}

// An open file. Reads bypass the kernel's page cache (see open), so the
// helper keeps a little read-ahead of its own: once small reads follow one
// another in order, one of them fetches a whole transfer, and those after it
// are answered from memory rather than by a round trip each. (A large read
// into a buffer that doesn't start on a page comes as one request of all but
// a few bytes and one of those few: that is not a run of small reads.)
struct OpenFile {
  static constexpr size_t kSmallRead = 128 << 10;

  std::string path;
  std::mutex mutex;
  std::unique_ptr<char[]> ahead;  // aheadSize bytes from aheadAt on
  size_t aheadSize = 0;
  uint64_t aheadAt = 0;
  uint64_t next = 0;       // where the last read ended
  bool lastSmall = false;  // whether it was a small one

  // Copies the read from `ahead` when it holds all of it.
  bool take(char* buf, size_t size, uint64_t offset) {
    if (!ahead || offset < aheadAt || offset + size > aheadAt + aheadSize) return false;
    std::memcpy(buf, ahead.get() + (offset - aheadAt), size);
    next = offset + size;
    lastSmall = size < kSmallRead;
    return true;
  }
};

int open(const char* path, fuse_file_info* fi) {
  if ((fi->flags & O_ACCMODE) != O_RDONLY) return -EROFS;
  Lease c;
  if (!c) return -EIO;
  nfsfh* fh = nullptr;
  const int rc = handleFor(*c, path, &fh);
  if (rc < 0) return fuseError(rc);
  // Reads may run on any connection: the open file is known by its path.
  fi->fh = reinterpret_cast<uint64_t>(new OpenFile{path});
  // Reads bypass the kernel's page cache. Through it, every read is cut
  // into the mount's read-ahead window, 128 KiB unless root raises it, so
  // a player's 1 MiB read costs eight round trips to the engine and one copy
  // more; direct, it comes here whole (up to max_read) and goes straight
  // into the reader's buffer. The engine keeps its own caches, and the
  // folder holds read-only media that players read rather than map shared.
  fi->direct_io = 1;
  return 0;
}

// Reads `size` bytes at `offset` from the engine; how many came (fewer at
// the end of the file), or a negative error. The wait gives up at once when
// the reader is killed (the kernel interrupts its read), rather than when a
// stalled source times out.
int readFromEngine(const std::string& path, char* buf, size_t size, uint64_t offset) {
  Lease c;
  if (!c) return -EIO;
  size_t done = 0;
  while (done < size) {
    const int n = c->reads.read(path, offset + done, static_cast<uint32_t>(size - done), buf + done,
                                [] { return fuse_interrupted() != 0; });
    if (n < 0) {
      if (n != -EINTR) std::fprintf(stderr, "vtnfs-mount: read of %s failed: %s\n", path.c_str(), std::strerror(-n));
      return done ? static_cast<int>(done) : fuseError(n);
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<int>(done);
}

int read(const char*, char* buf, size_t size, off_t offset, fuse_file_info* fi) {
  auto& file = *reinterpret_cast<OpenFile*>(fi->fh);
  const auto at = static_cast<uint64_t>(offset);
  const bool small = size < OpenFile::kSmallRead;
  bool fetchAhead = false;
  {
    std::lock_guard lock(file.mutex);
    if (file.take(buf, size, at)) return static_cast<int>(size);
    fetchAhead = small && file.lastSmall && at == file.next;
  }
  if (!fetchAhead) {
    const int n = readFromEngine(file.path, buf, size, at);
    if (n >= 0) {
      std::lock_guard lock(file.mutex);
      file.next = at + static_cast<uint64_t>(n);
      file.lastSmall = small;
    }
    return n;
  }
  auto ahead = std::make_unique_for_overwrite<char[]>(kTransferBytes);
  const int n = readFromEngine(file.path, ahead.get(), kTransferBytes, at);
  if (n < 0) return n;
  std::lock_guard lock(file.mutex);
  file.ahead = std::move(ahead);
  file.aheadSize = static_cast<size_t>(n);
  file.aheadAt = at;
  const size_t got = std::min(size, file.aheadSize);
  file.take(buf, got, at);
  return static_cast<int>(got);
}

int release(const char*, fuse_file_info* fi) {
  delete reinterpret_cast<OpenFile*>(fi->fh);
  return 0;
}

int statfs(const char* path, struct statvfs* out) {
  Lease c;
  if (!c) return -EIO;
  nfs_statvfs_64 s{};
  const int rc = nfs_statvfs64(c->nfs, path, &s);
  if (rc < 0) return fuseError(rc);
  std::memset(out, 0, sizeof *out);
  out->f_bsize = s.f_bsize;
  out->f_frsize = s.f_frsize;
  out->f_blocks = s.f_blocks;
  out->f_bfree = s.f_bfree;
  out->f_bavail = s.f_bavail;
  out->f_files = s.f_files;
  out->f_ffree = s.f_ffree;
  out->f_favail = s.f_favail;
  out->f_namemax = s.f_namemax;
  out->f_flag = ST_RDONLY;
  return 0;
}

int usage() {
  std::fprintf(stderr, "usage: vtnfs-mount [-f] HOST:PORT FOLDER\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool foreground = false;
  int i = 1;
  if (i < argc && std::strcmp(argv[i], "-f") == 0) {
    foreground = true;
    ++i;
  }
  if (argc - i != 2) return usage();
  const std::string address = argv[i];
  const std::string folder = argv[i + 1];
  const auto colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0) return usage();
  const std::string host = address.substr(0, colon), port = address.substr(colon + 1);
  char* end = nullptr;
  const long portNumber = std::strtol(port.c_str(), &end, 10);
  if (port.empty() || *end != '\0' || portNumber <= 0 || portNumber > 65535) return usage();

  pool.server = host;
  pool.port = port;
  if (std::string error; !pool.start(error)) {
    std::fprintf(stderr, "vtnfs-mount: %s at %s\n", error.c_str(), address.c_str());
    return 1;
  }

  // Every READ reply comes in a buffer of its own, a transfer long. Keep
  // freed memory for the next one rather than give it back to the system
  // and take it again: touching fresh pages costs more than the copy.
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);

  // The interrupt signal only has to wake a waiting poll (see init).
  struct sigaction wake {};
  wake.sa_handler = [](int) {};
  sigaction(SIGUSR1, &wake, nullptr);

  fuse_operations ops{};
  ops.init = init;
  ops.getattr = getattr;
  ops.readdir = readdir;
  ops.open = open;
  ops.read = read;
  ops.release = release;
  ops.statfs = statfs;

  // Other users (Plex runs as its own user) can read the folder when the
  // system allows it; otherwise the folder is the mounting user's alone.
  for (const bool shared : {true, false}) {
    std::string options =
        "ro,fsname=vtnfs,subtype=vtnfs,default_permissions,max_read=" + std::to_string(kTransferBytes);
    if (shared) options += ",allow_other";
    char arg0[] = "vtnfs-mount";
    char dashO[] = "-o";
    std::string opts = options;
    char* args[] = {arg0, dashO, opts.data(), nullptr};
    fuse_args fargs = FUSE_ARGS_INIT(3, args);
    fuse* fs = fuse_new(&fargs, &ops, sizeof ops, nullptr);
    if (!fs) {
      std::fprintf(stderr, "vtnfs-mount: cannot set up FUSE\n");
      return 1;
    }
    if (fuse_mount(fs, folder.c_str()) != 0) {
      fuse_destroy(fs);
      if (shared) continue;
      std::fprintf(stderr, "vtnfs-mount: cannot mount at %s\n", folder.c_str());
      return 1;
    }
    if (!shared) std::fprintf(stderr, "vtnfs-mount: mounted for this user only (allow_other is not permitted)\n");
    fuse_set_signal_handlers(fuse_get_session(fs));
    if (fuse_daemonize(foreground ? 1 : 0) != 0) {
      fuse_unmount(fs);
      fuse_destroy(fs);
      return 1;
    }
    fuse_loop_config loop{};
    loop.clone_fd = 0;
    loop.max_idle_threads = Pool::kMaxConnections;
    const int rc = fuse_loop_mt(fs, &loop);
    fuse_remove_signal_handlers(fuse_get_session(fs));
    fuse_unmount(fs);
    fuse_destroy(fs);
    return rc == 0 ? 0 : 1;
  }
  return 1;
}
