#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QObject>
#include <QUrl>

#include "platform/Date.h"

namespace vt {

class Clock;
class SerialQueue;

// Hides secrets in any text bound for a log: the Real-Debrid key in add-on
// URLs, Real-Debrid download codes, tokens and API keys in queries, and the
// long path segment behind a Comet host. Parameter names stay.
std::string redact(std::string_view text);

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

  // The process-wide log file, in the data folder; created by the start-up.
  static LogFile* shared();
  static void setShared(LogFile* log);

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

// "yyyy-MM-dd HH:mm:ss" in the machine's time zone.
std::string logStamp(Date date);

// The last 800 log lines, for the interface. Every line also goes to the
// system log (standard error here) and to the log file. Main thread only.
class EngineLog : public QObject {
  Q_OBJECT
 public:
  static constexpr size_t kMaxLines = 800;

  explicit EngineLog(LogFile* file = nullptr, bool toStandardError = true);
  void append(std::string_view text);
  const std::deque<std::string>& lines() const { return lines_; }

 signals:
  void changed();

 private:
  LogFile* file_;
  bool toStandardError_;
  std::deque<std::string> lines_;
};

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

// The small poster of a title, for rows of the activity list.
std::optional<QUrl> posterURL(std::string_view imdb);
// A time for display: "m:ss" below an hour, "h:mm:ss" from there on.
std::string clockText(int64_t milliseconds);

}  // namespace vt
