#include "subtitles/ResultStore.h"

#include <cmath>
#include <filesystem>
#include <memory>
#include <mutex>

#include "platform/SerialFileWriter.h"

namespace vt {

namespace {

using json::optional;
using json::put;
using json::required;

// One lock for every read-change-write of either file, for the life of the
// process: jobs on worker threads share the two files.
std::mutex& storeLock() {
  static std::mutex lock;
  return lock;
}

// A number the file can hold: JSON has no NaN or infinity, and a file that
// held null there could not be read back.
double finite(double value) { return std::isfinite(value) ? value : 0; }

// "<file>.tmp" written and synced, then renamed over the file in one step, so
// a reader sees the old file or the new one whole. The fixed name is safe:
// the store's lock keeps writers one at a time.
void replaceFile(const std::string& file, const std::string& bytes) {
  std::error_code ec;
  const std::filesystem::path target(file);
  if (target.has_parent_path()) std::filesystem::create_directories(target.parent_path(), ec);
  static_cast<void>(writeFileAtomically(file, bytes, file + ".tmp"));
}

// The entries; none when the file is there but can't be read (permissions,
// too many open files), so that a write doesn't replace what it never saw.
template <class T>
std::optional<std::map<std::string, T>> readUnlocked(const std::string& file) {
  std::map<std::string, T> out;
  const auto bytes = readFile(file);
  if (!bytes) {
    std::error_code ec;
    if (std::filesystem::exists(file, ec) || ec) return std::nullopt;
    return out;
  }
  const auto parsed = json::parse(*bytes);
  if (!parsed || !parsed->is_object()) return out;
  try {
    for (const auto& [key, value] : parsed->items()) out.emplace(key, T::fromJson(value));
  } catch (const std::exception&) {
    out.clear();
  }
  return out;
}

template <class T>
void writeUnlocked(const std::string& file, const std::map<std::string, T>& entries) {
  Json object = Json::object();
  for (const auto& [key, value] : entries) object[key] = value.toJson();
  // nlohmann never escapes "/"; invalid UTF-8 is replaced rather than thrown.
  replaceFile(file, object.dump(2, ' ', false, Json::error_handler_t::replace));
}

}  // namespace

Json AssetEntry::toJson() const {
  Json j = Json::object();
  j["kind"] = kind;
  j["imdb"] = imdb;
  put(j, "title", title);
  put(j, "outcome", outcome);
  put(j, "why", why);
  if (winner)
    j["winner"] = Json{{"fileId", winner->fileId},
                       {"release", winner->release},
                       {"lang", winner->lang},
                       {"verdict", winner->verdict},
                       {"rank", winner->rank}};
  if (fit)
    j["fit"] =
        Json{{"scale", finite(fit->scale)}, {"offsetMs", fit->offsetMs}, {"residMs", fit->residMs}, {"pts", fit->pts}};
  if (cues) {
    Json list = Json::array();
    for (const auto& c : *cues) list.push_back(Json{{"n", c.n}, {"start", c.start}, {"end", c.end}, {"text", c.text}});
    j["cues"] = std::move(list);
  }
  if (timing) j["timing"] = Json{{"settled", timing->settled}, {"why", timing->why}, {"windows", timing->windows}};
  if (bible) j["bible"] = Json{{"text", bible->text}, {"tgt", bible->tgt}};
  j["createdAt"] = finite(createdAt);
  return j;
}

AssetEntry AssetEntry::fromJson(const Json& j) {
  AssetEntry e;
  e.kind = required<std::string>(j, "kind");
  e.imdb = required<std::string>(j, "imdb");
  e.title = optional<std::string>(j, "title");
  e.outcome = optional<std::string>(j, "outcome");
  e.why = optional<std::string>(j, "why");
  if (auto it = j.find("winner"); it != j.end() && !it->is_null()) {
    e.winner = Winner{required<std::string>(*it, "fileId"), required<std::string>(*it, "release"),
                      required<std::string>(*it, "lang"), required<std::string>(*it, "verdict"),
                      required<int64_t>(*it, "rank")};
  }
  if (auto it = j.find("fit"); it != j.end() && !it->is_null()) {
    e.fit = Fit{required<double>(*it, "scale"), required<int64_t>(*it, "offsetMs"), required<int64_t>(*it, "residMs"),
                required<int64_t>(*it, "pts")};
  }
  if (auto it = j.find("cues"); it != j.end() && !it->is_null()) {
    if (!it->is_array()) throw DecodeError("\"cues\" is not an array");
    std::vector<Cue> cues;
    cues.reserve(it->size());
    for (const auto& c : *it)
      cues.push_back(Cue{required<int64_t>(c, "n"), required<int64_t>(c, "start"), required<int64_t>(c, "end"),
                         required<std::string>(c, "text")});
    e.cues = std::move(cues);
  }
  if (auto it = j.find("timing"); it != j.end() && !it->is_null()) {
    e.timing =
        Timing{required<bool>(*it, "settled"), required<std::string>(*it, "why"), required<int64_t>(*it, "windows")};
  }
  if (auto it = j.find("bible"); it != j.end() && !it->is_null()) {
    e.bible = Bible{required<std::string>(*it, "text"), required<std::string>(*it, "tgt")};
  }
  e.createdAt = required<double>(j, "createdAt");
  return e;
}

Json TranslationEntry::toJson() const {
  Json m = Json::object();
  for (const auto& [n, text] : map) m[n] = text;
  Json j = Json::object();
  j["map"] = std::move(m);
  j["src"] = src;
  j["tgt"] = tgt;
  j["fileId"] = fileId;
  j["createdAt"] = finite(createdAt);
  return j;
}

TranslationEntry TranslationEntry::fromJson(const Json& j) {
  TranslationEntry e;
  if (!j.is_object()) throw DecodeError("expected an object");
  auto m = j.find("map");
  if (m == j.end() || !m->is_object()) throw DecodeError("\"map\" is not an object");
  for (const auto& [n, text] : m->items()) e.map[n] = json::as<std::string>(text, "map");
  e.src = required<std::string>(j, "src");
  e.tgt = required<std::string>(j, "tgt");
  e.fileId = required<std::string>(j, "fileId");
  e.createdAt = required<double>(j, "createdAt");
  return e;
}

template <class T>
typename Store<T>::Dictionary Store<T>::read() const {
  std::lock_guard guard(storeLock());
  return readUnlocked<T>(file_).value_or(Dictionary{});
}

template <class T>
void Store<T>::write(const Dictionary& entries) const {
  std::lock_guard guard(storeLock());
  writeUnlocked(file_, entries);
}

template <class T>
void Store<T>::upsert(const std::string& key, T value) const {
  std::lock_guard guard(storeLock());
  auto entries = readUnlocked<T>(file_);
  if (!entries) return;
  entries->insert_or_assign(key, std::move(value));
  writeUnlocked(file_, *entries);
}

template <class T>
void Store<T>::remove(const std::string& key) const {
  std::lock_guard guard(storeLock());
  auto entries = readUnlocked<T>(file_);
  if (entries && entries->erase(key) > 0) writeUnlocked(file_, *entries);
}

template class Store<AssetEntry>;
template class Store<TranslationEntry>;

}  // namespace vt
