#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace vt {

// The process-wide fan-out of log lines. Subsystems call logLine(); the log
// file, the in-memory engine log and the headless console subscribe. Main
// thread only.
using LogSink = std::function<void(std::string_view line)>;
int addLogSink(LogSink sink);
void removeLogSink(int id);
void logLine(std::string_view line);

}  // namespace vt
