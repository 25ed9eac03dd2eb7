#pragma once

#include <deque>
#include <string>
#include <string_view>

#include <QObject>

#include "platform/Log.h"

namespace vt {

// The last 800 log lines, for the interface: a sink of the log route, so it
// sees every line that reaches the log file, already redacted. Main thread
// only.
class EngineLog : public QObject {
  Q_OBJECT
 public:
  static constexpr size_t kMaxLines = 800;

  EngineLog();
  const std::deque<std::string>& lines() const { return lines_; }

 signals:
  void changed();

 private:
  void take(std::string_view line);

  std::deque<std::string> lines_;
  ScopedLogSink sink_;
};

}  // namespace vt
