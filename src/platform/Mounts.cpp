#include "platform/Mounts.h"
#include "platform/SerialFileWriter.h"

#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <sstream>

#include "platform/Log.h"
#include "platform/Text.h"

namespace vt {

namespace {

// Undoes the octal escapes of mountinfo ("\040" for a space).
std::string unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      const std::string oct = s.substr(i + 1, 3);
      if (oct.size() == 3 && oct.find_first_not_of("01234567") == std::string::npos) {
        out.push_back(static_cast<char>(std::stoi(oct, nullptr, 8)));
        i += 3;
        continue;
      }
    }
    out.push_back(s[i]);
  }
  return out;
}

MountResult notMounted() { return Failure(MountError{MountError::Kind::notMounted, {}}); }

MountResult fromCommand(const CommandResult& r) {
  if (r.status == 0) return {};
  return Failure(MountError{MountError::Kind::failed, r.output});
}

QString canonical(const std::string& folder) {
  const QString canon = QFileInfo(QString::fromStdString(folder)).canonicalFilePath();
  return canon.isEmpty() ? QString::fromStdString(folder) : canon;
}

CommandResult runNow(const QString& program, const QStringList& args) {
  QProcess p;
  p.setProcessChannelMode(QProcess::MergedChannels);
  p.start(program, args);
  if (!p.waitForStarted(5000)) return {-1, p.errorString().toStdString(), false};
  if (!p.waitForFinished(10000)) {
    p.kill();
    p.waitForFinished(1000);
    return {-1, "timed out", false};
  }
  return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, p.readAll().toStdString(), false};
}

}  // namespace

std::string message(const MountError& e) {
  return e.kind == MountError::Kind::notMounted ? "not currently mounted" : e.output;
}

std::optional<std::string> mountedFileSystem(const std::string& folder) {
  const std::string target = canonical(folder).toStdString();
  QFile f("/proc/self/mountinfo");
  if (!f.open(QIODevice::ReadOnly)) return std::nullopt;
  std::optional<std::string> found;
  // "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw": the
  // fifth field is the mount point, the type follows the " - ".
  for (const QByteArray& line : f.readAll().split('\n')) {
    const auto fields = line.split(' ');
    if (fields.size() < 5) continue;
    if (unescape(fields[4].toStdString()) != target) continue;
    const int dash = fields.indexOf("-");
    if (dash >= 0 && dash + 1 < fields.size()) found = fields[dash + 1].toStdString();  // the last one wins
  }
  return found;
}

std::string findHelperProgram(const std::string& name) {
  const QString dir = QCoreApplication::instance() ? QCoreApplication::applicationDirPath() : QString();
  const QString n = QString::fromStdString(name);
  const QStringList candidates = {dir + "/" + n,
                                  dir + "/../tools/" + n + "/" + n,
                                  dir + "/../../tools/" + n + "/" + n,
                                  dir + "/../libexec/vantory/" + n,
                                  "/usr/libexec/vantory/" + n,
                                  "/usr/local/libexec/vantory/" + n};
  for (const QString& c : candidates) {
    const QFileInfo info(c);
    if (info.isFile() && info.isExecutable()) return info.canonicalFilePath().toStdString();
  }
  return {};
}

LinuxLibraryMounter::LinuxLibraryMounter(std::string helper, std::string fstab)
    : helper_(helper.empty() ? findHelperProgram("vtnfs-mount") : std::move(helper)), fstab_(std::move(fstab)) {}

namespace {

std::string fstabEscape(const std::string& path) {
  std::string out;
  for (char c : path) {
    if (c == ' ')
      out += "\\040";
    else if (c == '\t')
      out += "\\011";
    else if (c == '\\')
      out += "\\134";
    else
      out += c;
  }
  return out;
}

}  // namespace

std::string unescapeMountField(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && std::isdigit(static_cast<unsigned char>(field[i + 1]))) {
      out.push_back(static_cast<char>(std::strtol(field.substr(i + 1, 3).c_str(), nullptr, 8)));
      i += 3;
    } else {
      out.push_back(field[i]);
    }
  }
  return out;
}

std::string fstabEntry(int port, const std::string& folder) {
  return "127.0.0.1:/ " + fstabEscape(folder) + " nfs " + LinuxLibraryMounter::kernelOptions(port) + ",user,noauto 0 0";
}

bool fstabLetsUsersMount(const std::string& fstabText, const std::string& folder, int port) {
  std::istringstream lines(fstabText);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string source, point, type, options;
    if (!(fields >> source >> point >> type >> options) || source.front() == '#') continue;
    if (unescapeMountField(point) != folder || type != "nfs") continue;
    // Only an entry with the engine's own options for this port: another
    // port or other options would mount something else, or differently.
    return options == LinuxLibraryMounter::kernelOptions(port) + ",user,noauto" ||
           options == LinuxLibraryMounter::kernelOptions(port) + ",users,noauto";
  }
  return false;
}

LinuxLibraryMounter::Way LinuxLibraryMounter::wayFor(const std::string& folder, int port) const {
  if (kernelMountAllowed()) return Way::kernelAsRoot;
  if (fstabLetsUsersMount(readFile(fstab_).value_or(""), folder, port)) return Way::kernelByFstab;
  return Way::fuse;
}

std::string LinuxLibraryMounter::kernelOptions(int port) {
  const std::string p = std::to_string(port);
  return "vers=3,proto=tcp,port=" + p + ",mountport=" + p +
         ",mountproto=tcp,nolock,hard,rsize=1048576,wsize=1048576,actimeo=1";
}

bool LinuxLibraryMounter::kernelMountAllowed() const {
  return ::geteuid() == 0 && (QFile::exists("/sbin/mount.nfs") || QFile::exists("/usr/sbin/mount.nfs"));
}

QCoro::Task<MountResult> LinuxLibraryMounter::mount(int port, std::string folder, CancelToken token) {
  std::string kernelOutput;
  const Way way = wayFor(folder, port);
  if (way != Way::fuse) {
    // As a user, mount(8) takes the options from the fstab entry.
    const QStringList args = way == Way::kernelAsRoot
                                 ? QStringList{"-t",          "nfs",
                                               "-o",          QString::fromStdString(kernelOptions(port)),
                                               "127.0.0.1:/", QString::fromStdString(folder)}
                                 : QStringList{QString::fromStdString(folder)};
    auto r = co_await runCommand("mount", args, std::nullopt, token);
    if (r.status == 0) co_return MountResult();
    kernelOutput = r.output;
  }
  if (helper_.empty()) {
    const std::string why = kernelOutput.empty() ? "the mount helper vtnfs-mount is missing" : kernelOutput;
    co_return Failure(MountError{MountError::Kind::failed, why});
  }
  const QStringList args = {QStringLiteral("127.0.0.1:%1").arg(port), QString::fromStdString(folder)};
  auto r = co_await runCommand(QString::fromStdString(helper_), args, std::nullopt, token);
  if (r.status != 0 && !kernelOutput.empty()) r.output = kernelOutput + "\n" + r.output;
  // A mount that worked may still say something worth knowing (mounted for
  // this user only, say): its lines go to the log as the helper wrote them.
  if (r.status == 0)
    for (const auto& line : splitAny(r.output, "\n"))
      if (const auto text = trimmed(line); !text.empty()) logLine(text);
  co_return fromCommand(r);
}

QCoro::Task<MountResult> LinuxLibraryMounter::unmount(std::string folder, CancelToken token) {
  const auto type = mountedFileSystem(folder);
  if (!type) co_return notMounted();
  const QString path = QString::fromStdString(folder);
  if (type->rfind("fuse", 0) == 0) {
    const QStringList args = {"-u", path};
    auto r = co_await runCommand("fusermount3", args, std::nullopt, token);
    if (r.status != 0 && !token.isCancelled()) {
      const QStringList lazy = {"-u", "-z", path};  // busy: detach now, finish when the last file closes
      r = co_await runCommand("fusermount3", lazy, std::nullopt, token);
    }
    co_return fromCommand(r);
  }
  // A user may not force an unmount: one mounted through a user fstab
  // entry is unmounted plainly, and detached when busy.
  const bool root = ::geteuid() == 0;
  const QStringList args = root ? QStringList{"-f", path} : QStringList{path};
  auto r = co_await runCommand("umount", args, std::nullopt, token);
  if (r.status != 0 && !root && !token.isCancelled()) {
    const QStringList lazy = {"-l", path};
    r = co_await runCommand("umount", lazy, std::nullopt, token);
  }
  co_return fromCommand(r);
}

MountResult LinuxLibraryMounter::unmountNow(const std::string& folder) {
  const auto type = mountedFileSystem(folder);
  if (!type) return notMounted();
  if (type->rfind("fuse", 0) == 0) {
    auto r = runNow("fusermount3", {"-u", QString::fromStdString(folder)});
    if (r.status != 0) r = runNow("fusermount3", {"-u", "-z", QString::fromStdString(folder)});
    return fromCommand(r);
  }
  auto r = runNow("umount", ::geteuid() == 0 ? QStringList{"-f", QString::fromStdString(folder)}
                                             : QStringList{QString::fromStdString(folder)});
  // Still busy: detach it now; the kernel finishes when the last user lets go.
  if (r.status != 0) r = runNow("umount", {"-l", QString::fromStdString(folder)});
  return fromCommand(r);
}

}  // namespace vt
