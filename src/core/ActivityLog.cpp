#include "core/ActivityLog.h"

#include "platform/Crypto.h"
#include "platform/Clock.h"
#include "platform/Json.h"
#include "platform/SerialFileWriter.h"

namespace vt {

namespace {
ActivityLog* g_shared = nullptr;
}

ActivityLog* ActivityLog::shared() { return g_shared; }
void ActivityLog::setShared(ActivityLog* log) { g_shared = log; }

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
  e.id = newUuid();
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

}  // namespace vt
