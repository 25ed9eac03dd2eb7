#include "core/LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/Log.h"
#include "platform/Redaction.h"
#include "platform/SerialQueue.h"

namespace vt {

LogFile::LogFile(std::string directory, std::function<Date()> now)
    : directory_(std::move(directory)),
      fileURL_((std::filesystem::path(directory_) / "vantory.log").string()),
      now_(std::move(now)),
      queue_(std::make_unique<SerialQueue>(true)) {}

LogFile::~LogFile() {
  queue_.reset();  // runs what is queued, then stops
  if (fd_ >= 0) ::close(fd_);
}

void LogFile::write(std::string_view text) {
  std::string clean = redact(text);
  queue_->post([this, clean = std::move(clean)] { writeLine(logStamp(now_()) + " " + clean + "\n"); });
}

void LogFile::flush() { queue_->drain(); }

void LogFile::open() {
  std::error_code ec;
  std::filesystem::create_directories(directory_, ec);
  fd_ = ::open(fileURL_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd_ < 0) return;
  ::fchmod(fd_, 0600);  // a file from an older version may be readable by all
  const off_t end = ::lseek(fd_, 0, SEEK_END);
  size_ = end > 0 ? static_cast<uint64_t>(end) : 0;
}

void LogFile::rotate() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  const auto one = fileURL_ + ".1";
  const auto two = fileURL_ + ".2";
  ::unlink(two.c_str());
  ::rename(one.c_str(), two.c_str());
  ::unlink(one.c_str());
  ::rename(fileURL_.c_str(), one.c_str());
  open();
}

void LogFile::writeLine(const std::string& line) {
  if (fd_ < 0) open();
  // A line that would push the file past the limit goes to a fresh file; a
  // file of exactly the limit is allowed.
  if (fd_ >= 0 && kMaxBytes < size_ + line.size()) rotate();
  if (fd_ < 0) return;
  size_t written = 0;
  while (written < line.size()) {
    const ssize_t n = ::write(fd_, line.data() + written, line.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  size_ += written;
}

}  // namespace vt
