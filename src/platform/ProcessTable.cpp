#include "platform/ProcessTable.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QSocketNotifier>
#include <QTimer>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <set>

namespace vt {

namespace {

// Socket inodes listening on `port` from one of /proc/net/tcp{,6}.
void listeningInodes(const char* table, int port, std::set<unsigned long>& inodes) {
  std::FILE* f = std::fopen(table, "r");
  if (!f) return;
  char line[512];
  std::fgets(line, sizeof line, f);  // the header
  while (std::fgets(line, sizeof line, f)) {
    // "  sl  local_address rem_address   st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout inode"
    char local[64] = {0}, remote[64] = {0};
    unsigned state = 0, uid = 0;
    unsigned long inode = 0;
    int slot = 0;
    if (std::sscanf(line, " %d: %63s %63s %x %*s %*s %*s %u %*d %lu", &slot, local, remote, &state, &uid, &inode) != 6)
      continue;
    if (state != 0x0A) continue;  // TCP_LISTEN
    const char* colon = std::strrchr(local, ':');
    if (!colon) continue;
    if (static_cast<int>(std::strtol(colon + 1, nullptr, 16)) == port && inode != 0) inodes.insert(inode);
  }
  std::fclose(f);
}

}  // namespace

std::vector<int> listeningPids(int port) {
  std::set<unsigned long> inodes;
  listeningInodes("/proc/net/tcp", port, inodes);
  listeningInodes("/proc/net/tcp6", port, inodes);
  std::vector<int> pids;
  if (inodes.empty()) return pids;
  const auto procs = QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
  for (const QString& name : procs) {
    bool ok = false;
    const int pid = name.toInt(&ok);
    if (!ok) continue;
    const std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
    const auto fds = QDir(QString::fromStdString(fdDir)).entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot);
    for (const QString& fd : fds) {
      char target[128];
      const std::string link = fdDir + "/" + fd.toStdString();
      const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
      if (n <= 0) continue;
      target[n] = '\0';
      unsigned long inode = 0;
      if (std::sscanf(target, "socket:[%lu]", &inode) == 1 && inodes.count(inode)) {
        pids.push_back(pid);
        break;
      }
    }
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

std::optional<std::string> processName(int pid) {
  if (pid <= 0) return std::nullopt;
  QFile f(QString::fromStdString("/proc/" + std::to_string(pid) + "/comm"));
  if (!f.open(QIODevice::ReadOnly)) return std::nullopt;
  return f.readAll().trimmed().toStdString();
}

bool processExists(int pid) {
  if (pid <= 0) return false;
  if (::kill(pid, 0) != 0 && errno != EPERM) return false;
  // A zombie has ended; it only waits for its parent to reap it. The state
  // follows the command name, which is in parentheses and may hold spaces.
  QFile f(QString::fromStdString("/proc/" + std::to_string(pid) + "/stat"));
  if (!f.open(QIODevice::ReadOnly)) return true;
  const QByteArray stat = f.read(512);
  const int close = stat.lastIndexOf(')');
  return close < 0 || close + 2 >= stat.size() || stat[close + 2] != 'Z';
}

bool sendSignal(int pid, int signal) { return pid > 1 && ::kill(pid, signal) == 0; }

std::string lastPathComponent(const std::string& text) {
  const auto slash = text.rfind('/');
  return slash == std::string::npos ? text : text.substr(slash + 1);
}

namespace {
bool pidfdAllowed = true;
}

void ProcessExitWatch::setPidfdAllowed(bool allowed) { pidfdAllowed = allowed; }

ProcessExitWatch::ProcessExitWatch(int pid, Clock& clock, std::function<void()> onExit)
    : pid_(pid), clock_(clock), onExit_(std::move(onExit)) {
#ifdef SYS_pidfd_open
  if (pidfdAllowed) fd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#endif
  if (fd_ >= 0) {
    // A pidfd becomes readable when the process ends.
    auto* notifier = new QSocketNotifier(fd_, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this, notifier] {
      notifier->setEnabled(false);
      fire();
    });
    return;
  }
  // No pidfd: the kernel predates it, or a sandbox filters the call (some
  // container runtimes and valgrind do). Poll instead; a process that is
  // already gone is reported on the first poll.
  poll(processExists(pid_) ? kPollSeconds : 0);
}

ProcessExitWatch::~ProcessExitWatch() {
  cancel();
  if (fd_ >= 0) ::close(fd_);
}

void ProcessExitWatch::cancel() {
  if (timer_) clock_.cancelTimer(std::exchange(timer_, 0));
  onExit_ = nullptr;
}

void ProcessExitWatch::poll(double delay) {
  timer_ = clock_.schedule(delay, [this] {
    timer_ = 0;
    if (processExists(pid_))
      poll(kPollSeconds);
    else
      fire();
  });
}

void ProcessExitWatch::fire() {
  if (onExit_) std::exchange(onExit_, nullptr)();
}

}  // namespace vt
