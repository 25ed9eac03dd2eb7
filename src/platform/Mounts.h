#pragma once

#include <optional>
#include <string>

#include <qcoro/qcorotask.h>

#include "platform/Process.h"

namespace vt {

// Mounting an engine's NFS export at a folder, and taking it away again.
// Results read like the system tools': status 0 for success, else the
// tools' own output. Unmounting a folder where nothing is mounted answers a
// non-zero status whose output holds "not currently mounted".
class LibraryMounter {
 public:
  virtual ~LibraryMounter() = default;
  // The export of the engine listening on 127.0.0.1:`port` (NFS and its mount
  // protocol share the port), at `folder`.
  virtual QCoro::Task<CommandResult> mount(int port, std::string folder) = 0;
  // Forced: a hung engine must not keep the folder.
  virtual QCoro::Task<CommandResult> unmount(std::string folder) = 0;
  // The same, blocking, for the last moments of the process.
  virtual CommandResult unmountNow(const std::string& folder) = 0;
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

  QCoro::Task<CommandResult> mount(int port, std::string folder) override;
  QCoro::Task<CommandResult> unmount(std::string folder) override;
  CommandResult unmountNow(const std::string& folder) override;

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
