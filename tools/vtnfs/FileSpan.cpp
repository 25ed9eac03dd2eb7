#include "FileSpan.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vtnfs {

FileSpan::FileSpan(int fd, uint64_t offset, size_t length)
    : fd_(::fcntl(fd, F_DUPFD_CLOEXEC, 0)), offset_(offset), length_(length) {}

FileSpan::FileSpan(FileSpan&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), offset_(other.offset_), length_(other.length_) {}

FileSpan& FileSpan::operator=(FileSpan&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    offset_ = other.offset_;
    length_ = other.length_;
  }
  return *this;
}

FileSpan::~FileSpan() {
  if (fd_ >= 0) ::close(fd_);
}

bool FileSpan::sendTo(int socket, bool& ended) {
  ended = false;
  while (length_ > 0) {
    auto at = static_cast<off_t>(offset_);
    const ssize_t n = ::sendfile(socket, fd_, &at, length_);
    if (n > 0) {
      offset_ += static_cast<uint64_t>(n);
      length_ -= static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) ended = true;
    return false;  // would block, the file ended, or a socket error
  }
  return true;
}

bool FileSpan::appendTo(std::string& out) {
  const size_t before = out.size();
  out.resize(before + length_);
  size_t got = 0;
  while (got < length_) {
    const ssize_t n = ::pread(fd_, out.data() + before + got, length_ - got, static_cast<off_t>(offset_ + got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      out.resize(before + got);
      return false;
    }
    got += static_cast<size_t>(n);
  }
  offset_ += got;
  length_ = 0;
  return true;
}

}  // namespace vtnfs
