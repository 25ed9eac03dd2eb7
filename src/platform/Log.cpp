#include "platform/Log.h"

#include <cmath>
#include <ctime>
#include <map>

#include "platform/Redaction.h"

namespace vt {

namespace {
std::map<int, LogSink>& sinks() {
  static std::map<int, LogSink> s;
  return s;
}
int nextId = 1;
}  // namespace

int addLogSink(LogSink sink) {
  const int id = nextId++;
  sinks().emplace(id, std::move(sink));
  return id;
}

void removeLogSink(int id) { sinks().erase(id); }

void logLine(std::string_view text) {
  size_t start = 0;
  while (start <= text.size()) {
    const auto end = text.find('\n', start);
    const auto piece = text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (!piece.empty()) {
      const std::string line = redact(piece);
      // A sink may add or remove sinks; walk a snapshot of the ids.
      std::vector<int> ids;
      for (const auto& [id, sink] : sinks()) ids.push_back(id);
      for (int id : ids)
        if (auto it = sinks().find(id); it != sinks().end()) it->second(line);
    }
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
}

std::string logStamp(Date date) {
  const double unix = unixSecondsFromDate(date);
  const std::time_t t = static_cast<std::time_t>(std::isfinite(unix) ? std::floor(unix) : 0);
  std::tm local{};
  localtime_r(&t, &local);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
  return buf;
}

}  // namespace vt
