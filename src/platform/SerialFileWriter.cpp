#include "platform/SerialFileWriter.h"

#include "platform/SerialQueue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>

namespace vt {

bool writeFileAtomically(const std::string& path, const std::string& bytes, const std::string& tempPath) {
  namespace fs = std::filesystem;
  const fs::path target(path);
  const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
  std::string tmpl = tempPath;
  int fd = -1;
  if (tmpl.empty()) {
    std::string hidden = ".";
    hidden.append(target.filename().string()).append(".XXXXXX");
    tmpl = (dir / hidden).string();
    fd = ::mkstemp(tmpl.data());
  } else {
    fd = ::open(tmpl.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  }
  if (fd < 0) return false;
  bool ok = true;
  size_t written = 0;
  while (ok && written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      ok = false;
    } else {
      written += static_cast<size_t>(n);
    }
  }
  // Readable by the user only: these files hold keys, tokens and links.
  ok = ok && ::fchmod(fd, 0600) == 0;
  ok = ok && ::fdatasync(fd) == 0;
  ok = (::close(fd) == 0) && ok;
  ok = ok && ::rename(tmpl.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(tmpl.c_str());
    return false;
  }
  // The rename itself reaches the disk only with its folder.
  if (const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return true;
}

int removeInterruptedWrites(const std::string& path) {
  namespace fs = std::filesystem;
  const fs::path target(path);
  const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
  // Built in steps: gcc 12 warns falsely on "literal" + std::string&&.
  std::string prefix = ".";
  prefix.append(target.filename().string()).append(".");
  int removed = 0;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    // Exactly the names writeFileAtomically makes: the prefix and six characters.
    if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0 && entry.is_regular_file(ec)) {
      removed += fs::remove(entry.path(), ec) ? 1 : 0;
    }
  }
  return removed;
}

std::optional<std::string> readFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  std::string out;
  out.resize(::fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<size_t>(st.st_size) + 1 : 65536);
  size_t used = 0;
  bool ok = true;
  for (;;) {
    if (used == out.size()) out.resize(out.size() * 2);
    const ssize_t n = ::read(fd, out.data() + used, out.size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) break;
    used += static_cast<size_t>(n);
  }
  ::close(fd);
  if (!ok) return std::nullopt;
  out.resize(used);
  return out;
}

namespace {

// One low-priority thread for the writes of every store, in FIFO order. It
// lives until the process ends.
SerialQueue& writeQueue() {
  static auto* queue = new SerialQueue(true);
  return *queue;
}

}  // namespace

struct SerialFileWriter::State {
  std::mutex mutex;
  std::condition_variable idle;
  uint64_t issued = 0;     // saves handed over
  uint64_t finished = 0;   // saves done or skipped
  uint64_t completed = 0;  // writes that reached the disk
};

SerialFileWriter::SerialFileWriter() : state_(std::make_shared<State>()) {}

// A writer that goes lets its queued saves finish first, so that nothing is
// written after its owner (or the owner's folder) is gone.
SerialFileWriter::~SerialFileWriter() { waitUntilIdle(); }

void SerialFileWriter::save(std::string path, Producer produce) {
  save(std::move(path), Encoder([produce = std::move(produce)](std::string& bytes) {
         auto produced = produce();
         if (produced) bytes = std::move(*produced);
         return produced.has_value();
       }));
}

namespace {

// The encoding buffer of the write thread, reused by every save. It keeps
// the capacity of the largest file written, unless that is far more than the
// last save needed.
std::string& writeBuffer() {
  static std::string buffer;
  return buffer;
}

void releaseIfOversized(std::string& buffer) {
  if (buffer.capacity() > 4 * buffer.size() + (1u << 20)) buffer = std::string();
}

}  // namespace

void SerialFileWriter::save(std::string path, Encoder encode) {
  uint64_t seq;
  {
    std::lock_guard lock(state_->mutex);
    seq = ++state_->issued;
  }
  writeQueue().post([state = state_, seq, path = std::move(path), encode = std::move(encode)] {
    bool superseded;
    {
      std::lock_guard lock(state->mutex);
      superseded = state->issued > seq;
    }
    bool wrote = false;
    if (!superseded) {
      auto& bytes = writeBuffer();
      try {
        bytes.clear();
        if (encode(bytes)) wrote = writeFileAtomically(path, bytes);
      } catch (...) {
        // Dropped: the next save writes everything again.
      }
      releaseIfOversized(bytes);
    }
    {
      std::lock_guard lock(state->mutex);
      state->finished = seq;
      if (wrote) ++state->completed;
    }
    state->idle.notify_all();
  });
}

void SerialFileWriter::waitUntilIdle() {
  std::unique_lock lock(state_->mutex);
  state_->idle.wait(lock, [this] { return state_->finished >= state_->issued; });
}

uint64_t SerialFileWriter::completedWrites() const {
  std::lock_guard lock(state_->mutex);
  return state_->completed;
}

}  // namespace vt
