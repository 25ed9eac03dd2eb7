#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/Date.h"

namespace vt {

// The one route of log lines. Subsystems call logLine(); the text is split at
// line breaks, each non-empty line is redacted once and handed to every
// sink: the log file, the in-memory engine log, the console. Main thread only.
using LogSink = std::function<void(std::string_view line)>;
int addLogSink(LogSink sink);
void removeLogSink(int id);
void logLine(std::string_view text);

// A sink registered for the lifetime of this object.
class ScopedLogSink {
 public:
  explicit ScopedLogSink(LogSink sink) : id_(addLogSink(std::move(sink))) {}
  ~ScopedLogSink() { removeLogSink(id_); }
  ScopedLogSink(const ScopedLogSink&) = delete;
  ScopedLogSink& operator=(const ScopedLogSink&) = delete;

 private:
  int id_;
};

// "yyyy-MM-dd HH:mm:ss" in the machine's time zone: the stamp of a file line.
std::string logStamp(Date date);

}  // namespace vt
