#include "platform/Log.h"

#include <map>

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

void logLine(std::string_view line) {
  for (const auto& [id, sink] : sinks()) sink(line);
}

}  // namespace vt
