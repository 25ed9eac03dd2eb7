#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vtnfs {

// Bytes of an open file that go out with a reply without passing through
// this process (sendfile). It holds its own duplicate of the descriptor, so
// the file may be closed elsewhere while the reply waits.
class FileSpan {
 public:
  FileSpan() = default;
  // Duplicates `fd`; an empty span when that fails.
  FileSpan(int fd, uint64_t offset, size_t length);
  FileSpan(FileSpan&& other) noexcept;
  FileSpan& operator=(FileSpan&& other) noexcept;
  FileSpan(const FileSpan&) = delete;
  FileSpan& operator=(const FileSpan&) = delete;
  ~FileSpan();

  explicit operator bool() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  uint64_t offset() const { return offset_; }
  size_t length() const { return fd_ >= 0 ? length_ : 0; }

  // Sends what is left to a non-blocking socket until it would block; true
  // when all of it went. False with `ended` set when the file is shorter
  // than the span (it shrank meanwhile).
  bool sendTo(int socket, bool& ended);
  // Appends what is left to `out`; false when the file ended early.
  bool appendTo(std::string& out);

 private:
  int fd_ = -1;
  uint64_t offset_ = 0;
  size_t length_ = 0;
};

}  // namespace vtnfs
