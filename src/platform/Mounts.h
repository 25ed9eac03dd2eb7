#pragma once

#include <optional>
#include <string>

#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"
#include "platform/Process.h"
#include "platform/Result.h"

namespace vt {

// Why a mount or an unmount did not happen: nothing was mounted there, or
// the tools failed and said why.
struct MountError {
  enum class Kind { notMounted, failed };
  Kind kind = Kind::failed;
  std::string output;  // the tools' own words, for `failed`
  bool operator==(const MountError&) const = default;
};
std::string message(const MountError& e);
using MountResult = Result<void, MountError>;

// Mounting an engine's NFS export at a folder, and taking it away again.
class LibraryMounter {
 public:
  virtual ~LibraryMounter() = default;
  // The export of the engine listening on 127.0.0.1:`port` (NFS and its mount
  // protocol share the port), at `folder`.
  virtual QCoro::Task<MountResult> mount(int port, std::string folder, CancelToken token = CancelToken::none()) = 0;
  // Forced: a hung engine must not keep the folder.
  virtual QCoro::Task<MountResult> unmount(std::string folder, CancelToken token = CancelToken::none()) = 0;
  // The same, blocking, for the last moments of the process.
  virtual MountResult unmountNow(const std::string& folder) = 0;
};

// What is mounted at a folder, from /proc/self/mountinfo: the file system
// type ("nfs", "fuse.vtnfs"...), or none.
std::optional<std::string> mountedFileSystem(const std::string& folder);

// Linux: the kernel's NFS client (`mount -t nfs`) when this user may mount
// and mount.nfs is installed; otherwise, or when that fails, the unprivileged
// FUSE helper `vtnfs-mount`. Unmounts use `umount -f` for NFS and
// `fusermount3 -u` (lazily when busy) for the helper's mounts.
class LinuxLibraryMounter final : public LibraryMounter {
 public:
  // `helper`: path of vtnfs-mount; empty: look next to the application.
  explicit LinuxLibraryMounter(std::string helper = {});

  QCoro::Task<MountResult> mount(int port, std::string folder, CancelToken token = CancelToken::none()) override;
  QCoro::Task<MountResult> unmount(std::string folder, CancelToken token = CancelToken::none()) override;
  MountResult unmountNow(const std::string& folder) override;

  // The options of the kernel mount: version 3 over TCP on the one port, no
  // locks, hard, 1 MiB transfers.
  static std::string kernelOptions(int port);
  bool kernelMountAllowed() const;

 private:
  std::string helper_;
};

// A helper program built with the application: beside its executable, in
// the build tree's tools folder, or in an installed libexec folder. Empty
// when none is found.
std::string findHelperProgram(const std::string& name);

}  // namespace vt
