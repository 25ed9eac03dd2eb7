#include "core/Logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <QUuid>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <filesystem>

#include "platform/Clock.h"
#include "platform/Endpoints.h"
#include "platform/Json.h"
#include "platform/Regex.h"
#include "platform/SerialFileWriter.h"
#include "platform/SerialQueue.h"

namespace vt {

namespace {

std::string escapeForPattern(std::string_view host) {
  std::string out;
  for (char c : host) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') out += '\\';
    out += c;
  }
  return out;
}

struct RedactionTable {
  std::vector<Regex> rules;
  RedactionTable() {
    const auto flags = Regex::caseInsensitive;
    rules.emplace_back(R"((realdebrid[/=])[A-Za-z0-9]+)", flags);
    std::string webLink = "(";
    webLink.append(escapeForPattern(endpoints().realDebridWebHost)).append("/d/)[A-Za-z0-9]+");
    rules.emplace_back(webLink, flags);
    rules.emplace_back(R"(([?&](?:X-Plex-Token|token|apikey|api_key)=)[^&\s"]+)", flags);
    rules.emplace_back(R"((comet\.[A-Za-z0-9.-]+/)[A-Za-z0-9_=-]{16,})", flags);
  }
};

}  // namespace

std::string redact(std::string_view text) {
  static const RedactionTable table;
  std::string out(text);
  for (const auto& rule : table.rules) out = rule.replaceAll(out, "$1REDACTED");
  return out;
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

namespace {
std::atomic<LogFile*> g_sharedLog{nullptr};
}

LogFile* LogFile::shared() { return g_sharedLog.load(); }
void LogFile::setShared(LogFile* log) { g_sharedLog.store(log); }

LogFile::LogFile(std::string directory, std::function<Date()> now)
    : directory_(std::move(directory)),
      fileURL_((std::filesystem::path(directory_) / "vantory.log").string()),
      now_(std::move(now)),
      queue_(std::make_unique<SerialQueue>(true)) {}

LogFile::~LogFile() {
  queue_.reset();  // runs what is queued, then stops
  if (fd_ >= 0) ::close(fd_);
  if (shared() == this) setShared(nullptr);
}

void LogFile::write(std::string_view text) {
  std::string clean = redact(text);
  queue_->post([this, clean = std::move(clean)] { writeLine(logStamp(now_()) + " " + clean + "\n"); });
}

void LogFile::flush() { queue_->drain(); }

void LogFile::open() {
  std::error_code ec;
  std::filesystem::create_directories(directory_, ec);
  fd_ = ::open(fileURL_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd_ < 0) return;
  const off_t end = ::lseek(fd_, 0, SEEK_END);
  size_ = end > 0 ? static_cast<uint64_t>(end) : 0;
}

void LogFile::rotate() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  const auto one = fileURL_ + ".1";
  const auto two = fileURL_ + ".2";
  ::unlink(two.c_str());
  ::rename(one.c_str(), two.c_str());
  ::unlink(one.c_str());
  ::rename(fileURL_.c_str(), one.c_str());
  open();
}

void LogFile::writeLine(const std::string& line) {
  if (fd_ < 0) open();
  // A line that would push the file past the limit goes to a fresh file; a
  // file of exactly the limit is allowed.
  if (fd_ >= 0 && kMaxBytes < size_ + line.size()) rotate();
  if (fd_ < 0) return;
  size_t written = 0;
  while (written < line.size()) {
    const ssize_t n = ::write(fd_, line.data() + written, line.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  size_ += written;
}

EngineLog::EngineLog(LogFile* file, bool toStandardError) : file_(file), toStandardError_(toStandardError) {}

void EngineLog::append(std::string_view text) {
  size_t start = 0;
  while (start <= text.size()) {
    const auto end = text.find('\n', start);
    const auto piece = text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (!piece.empty()) {
      auto line = redact(piece);
      if (toStandardError_) std::fprintf(stderr, "%s\n", line.c_str());
      LogFile* file = file_ ? file_ : LogFile::shared();
      if (file) file->write(line);
      lines_.push_back(std::move(line));
    }
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  while (lines_.size() > kMaxLines) lines_.pop_front();
  emit changed();
}

std::string_view ActivityLog::kindText(Kind k) {
  switch (k) {
    case Kind::started:
      return "started";
    case Kind::stopped:
      return "stopped";
    case Kind::finished:
      return "finished";
    case Kind::added:
      return "added";
    case Kind::quality:
      return "quality";
  }
  return "added";
}

std::optional<ActivityLog::Kind> ActivityLog::kindFromText(std::string_view t) {
  for (auto k : {Kind::started, Kind::stopped, Kind::finished, Kind::added, Kind::quality})
    if (kindText(k) == t) return k;
  return std::nullopt;
}

ActivityLog::ActivityLog(std::optional<std::string> file, Clock& clock) : file_(std::move(file)), clock_(clock) {
  if (file_) {
    if (auto text = readFile(*file_)) {
      if (auto doc = json::parse(*text); doc && doc->is_array()) {
        std::vector<Event> loaded;
        try {
          for (const auto& j : *doc) {
            Event e;
            e.id = json::required<std::string>(j, "id");
            e.at = json::required<double>(j, "at");
            auto kind = kindFromText(json::required<std::string>(j, "kind"));
            if (!kind) throw DecodeError("unknown kind");
            e.kind = *kind;
            e.title = json::required<std::string>(j, "title");
            e.detail = json::optional<std::string>(j, "detail");
            e.imdb = json::optional<std::string>(j, "imdb");
            loaded.push_back(std::move(e));
          }
          events_ = std::move(loaded);
        } catch (const DecodeError&) {
          // A file that does not decode starts an empty list.
        }
      }
    }
  }
  prune(clock_.now());
}

void ActivityLog::prune(Date now) {
  std::erase_if(events_, [now](const Event& e) { return now - e.at > kKeepSeconds; });
  if (events_.size() > kMaxEvents) events_.erase(events_.begin(), events_.end() - kMaxEvents);
}

void ActivityLog::record(Kind kind, std::string title, std::optional<std::string> detail,
                         std::optional<std::string> imdb) {
  Event e;
  e.id = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toStdString();
  e.at = clock_.now();
  e.kind = kind;
  e.title = std::move(title);
  e.detail = std::move(detail);
  e.imdb = std::move(imdb);
  events_.push_back(std::move(e));
  prune(clock_.now());
  if (file_) {
    Json arr = Json::array();
    for (const auto& ev : events_) {
      Json j;
      j["id"] = ev.id;
      j["at"] = ev.at;
      j["kind"] = std::string(kindText(ev.kind));
      j["title"] = ev.title;
      json::put(j, "detail", ev.detail);
      json::put(j, "imdb", ev.imdb);
      arr.push_back(std::move(j));
    }
    writeFileAtomically(*file_, json::encode(arr));
  }
  emit changed();
}

void ActivityLog::setNowPlaying(std::vector<Playing> playing) {
  if (playing == nowPlaying_) return;
  nowPlaying_ = std::move(playing);
  emit changed();
}

std::optional<QUrl> posterURL(std::string_view imdb) {
  if (imdb.empty()) return std::nullopt;
  QUrl url(QString::fromStdString(endpoints().posterImages + "/poster/small/" + std::string(imdb) + "/img"));
  if (!url.isValid()) return std::nullopt;
  return url;
}

std::string clockText(int64_t milliseconds) {
  const int64_t total = std::max<int64_t>(0, milliseconds) / 1000;
  char buf[48];
  if (milliseconds < 3'600'000)
    std::snprintf(buf, sizeof buf, "%" PRId64 ":%02" PRId64, total / 60, total % 60);
  else
    std::snprintf(buf, sizeof buf, "%" PRId64 ":%02" PRId64 ":%02" PRId64, total / 3600, (total / 60) % 60, total % 60);
  return buf;
}

}  // namespace vt
