#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Date.h"

namespace vt {

class SerialQueue;

// The rotating log file dataDirectory/logs/vantory.log. write() is callable
// from any thread and never waits for the disk; the file work runs on a
// serial queue of its own.
class LogFile {
 public:
  static constexpr uint64_t kMaxBytes = 5'242'880;
  static constexpr int kKeptRotations = 2;

  // `now` gives the time of each line (seconds since 2001, local time zone).
  LogFile(std::string directory, std::function<Date()> now);
  ~LogFile();

  void write(std::string_view text);
  // Blocks until every line written so far is in the file (tests).
  void flush();

  const std::string& fileURL() const { return fileURL_; }

 private:
  void writeLine(const std::string& line);
  void open();
  void rotate();

  std::string directory_;
  std::string fileURL_;
  std::function<Date()> now_;
  int fd_ = -1;
  uint64_t size_ = 0;
  std::unique_ptr<SerialQueue> queue_;
};

}  // namespace vt
