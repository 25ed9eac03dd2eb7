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
#include <nfsc/libnfs.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

nfs_context* nfs = nullptr;

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

void* init(fuse_conn_info*, fuse_config* cfg) {
  // Listings and sizes change when the engine reloads its manifest; keep the
  // kernel's caches short so the folder follows without a remount.
  cfg->use_ino = 1;
  cfg->entry_timeout = 1;
  cfg->attr_timeout = 1;
  cfg->negative_timeout = 1;
  cfg->kernel_cache = 0;
  return nullptr;
}

int getattr(const char* path, struct stat* st, fuse_file_info*) {
  nfs_stat_64 s{};
  const int rc = nfs_stat64(nfs, path, &s);
  if (rc < 0) return rc;
  fillStat(st, s);
  return 0;
}

int readdir(const char* path, void* buf, fuse_fill_dir_t filler, off_t, fuse_file_info*, fuse_readdir_flags) {
  nfsdir* dir = nullptr;
  const int rc = nfs_opendir(nfs, path, &dir);
  if (rc < 0) return rc;
  while (nfsdirent* e = nfs_readdir(nfs, dir)) {
    struct stat st {};
    st.st_ino = e->inode;
    st.st_mode = static_cast<mode_t>(e->mode) | (e->type == 2 ? S_IFDIR : S_IFREG);
    if (filler(buf, e->name, &st, 0, static_cast<fuse_fill_dir_flags>(0))) break;
  }
  nfs_closedir(nfs, dir);
  return 0;
}

int open(const char* path, fuse_file_info* fi) {
  if ((fi->flags & O_ACCMODE) != O_RDONLY) return -EROFS;
  nfsfh* fh = nullptr;
  const int rc = nfs_open(nfs, path, O_RDONLY, &fh);
  if (rc < 0) return rc;
  fi->fh = reinterpret_cast<uint64_t>(fh);
  return 0;
}

int read(const char*, char* buf, size_t size, off_t offset, fuse_file_info* fi) {
  auto* fh = reinterpret_cast<nfsfh*>(fi->fh);
  size_t done = 0;
  while (done < size) {
    const int n = nfs_pread(nfs, fh, static_cast<uint64_t>(offset) + done, size - done, buf + done);
    if (n < 0) return done ? static_cast<int>(done) : n;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<int>(done);
}

int release(const char*, fuse_file_info* fi) {
  nfs_close(nfs, reinterpret_cast<nfsfh*>(fi->fh));
  return 0;
}

int statfs(const char* path, struct statvfs* out) {
  nfs_statvfs_64 s{};
  const int rc = nfs_statvfs64(nfs, path, &s);
  if (rc < 0) return rc;
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

  nfs = nfs_init_context();
  if (!nfs) {
    std::fprintf(stderr, "vtnfs-mount: cannot start an NFS client\n");
    return 1;
  }
  // The same port serves NFS and the mount protocol; the engine has no portmapper.
  const std::string url = "nfs://" + host + "/?version=3&nfsport=" + port + "&mountport=" + port;
  nfs_url* parsed = nfs_parse_url_dir(nfs, url.c_str());
  if (!parsed) {
    std::fprintf(stderr, "vtnfs-mount: bad address %s: %s\n", address.c_str(), nfs_get_error(nfs));
    return 2;
  }
  nfs_set_dircache(nfs, 0);
  nfs_set_autoreconnect(nfs, 10);
  if (nfs_mount(nfs, parsed->server, "/") != 0) {
    std::fprintf(stderr, "vtnfs-mount: cannot reach the NFS export at %s: %s\n", address.c_str(), nfs_get_error(nfs));
    nfs_destroy_url(parsed);
    return 1;
  }
  nfs_destroy_url(parsed);

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
    std::string options = "ro,fsname=vtnfs,subtype=vtnfs,default_permissions";
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
    const int rc = fuse_loop(fs);
    fuse_remove_signal_handlers(fuse_get_session(fs));
    fuse_unmount(fs);
    fuse_destroy(fs);
    nfs_destroy_context(nfs);
    return rc == 0 ? 0 : 1;
  }
  return 1;
}
