#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QObject>

#include "platform/Date.h"

namespace vt {

class Clock;

// The user-facing list of what happened in the last day, and what plays now.
class ActivityLog : public QObject {
  Q_OBJECT
 public:
  enum class Kind { started, stopped, finished, added, quality };
  struct Event {
    std::string id;
    Date at = 0;
    Kind kind = Kind::added;
    std::string title;
    std::optional<std::string> detail;
    std::optional<std::string> imdb;
    bool operator==(const Event&) const = default;
  };
  struct Playing {
    std::string session;
    std::string title;
    std::optional<std::string> imdb;
    std::string player;
    std::optional<int64_t> offsetMs;
    std::optional<int64_t> durationMs;
    bool direct = false;
    bool operator==(const Playing&) const = default;
  };

  static constexpr double kKeepSeconds = 86'400.0;
  static constexpr size_t kMaxEvents = 1000;

  // Loads `file` (none: memory only) and prunes without writing.
  ActivityLog(std::optional<std::string> file, Clock& clock);

  void record(Kind kind, std::string title, std::optional<std::string> detail = std::nullopt,
              std::optional<std::string> imdb = std::nullopt);
  void prune(Date now);
  const std::vector<Event>& events() const { return events_; }
  const std::vector<Playing>& nowPlaying() const { return nowPlaying_; }
  void setNowPlaying(std::vector<Playing> playing);

  // The running application's list; none before it exists. Main thread only.
  static ActivityLog* shared();
  static void setShared(ActivityLog* log);

  static std::string_view kindText(Kind k);
  static std::optional<Kind> kindFromText(std::string_view text);

 signals:
  void changed();

 private:
  std::vector<Playing> nowPlaying_;
  std::vector<Event> events_;
  std::optional<std::string> file_;
  Clock& clock_;
};

}  // namespace vt
