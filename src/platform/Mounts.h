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
  // `fstab`: where entries that let this user mount a folder are looked up.
  explicit LinuxLibraryMounter(std::string helper = {}, std::string fstab = "/etc/fstab");

  QCoro::Task<MountResult> mount(int port, std::string folder, CancelToken token = CancelToken::none()) override;
  QCoro::Task<MountResult> unmount(std::string folder, CancelToken token = CancelToken::none()) override;
  MountResult unmountNow(const std::string& folder) override;

  // The options of the kernel mount: version 3 over TCP on the one port, no
  // locks, hard, 1 MiB transfers.
  static std::string kernelOptions(int port);
  bool kernelMountAllowed() const;

  // How a folder gets mounted: by root through the kernel client, by this
  // user through the kernel client where /etc/fstab lets users mount it
  // (see vantory-cli setup-mount), else through the FUSE helper.
  enum class Way { kernelAsRoot, kernelByFstab, fuse };
  Way wayFor(const std::string& folder, int port) const;

 private:
  std::string helper_;
  std::string fstab_;
};

// The /etc/fstab line that lets a user mount the engine on `port` at
// `folder` through the kernel client, with the engine's options plus "user"
// and "noauto". Blanks in the folder are written "\040".
std::string fstabEntry(int port, const std::string& folder);
// A path field of fstab or mountinfo, its octal escapes ("\040") undone.
std::string unescapeMountField(const std::string& field);
// Whether an fstab text has, at `folder`, the entry fstabEntry(port, folder)
// writes (users may mount it, with the engine's options for `port`).
bool fstabLetsUsersMount(const std::string& fstabText, const std::string& folder, int port);

// A helper program built with the application: beside its executable, in
// the build tree's tools folder, or in an installed libexec folder. Empty
// when none is found.
std::string findHelperProgram(const std::string& name);

}  // namespace vt
