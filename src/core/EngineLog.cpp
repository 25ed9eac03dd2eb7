#include "core/EngineLog.h"

namespace vt {

EngineLog::EngineLog() : sink_([this](std::string_view line) { take(line); }) {}

void EngineLog::take(std::string_view line) {
  lines_.emplace_back(line);
  while (lines_.size() > kMaxLines) lines_.pop_front();
  emit changed();
}

}  // namespace vt
