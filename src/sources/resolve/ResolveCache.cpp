#include "sources/resolve/ResolveCache.h"

#include <algorithm>

#include "platform/Background.h"
#include "platform/Json.h"

namespace vt {

namespace {

std::optional<std::string> text(const Json& o, const char* key) {
  const auto it = o.find(key);
  if (it == o.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::optional<int64_t> integer(const Json& o, const char* key) {
  const auto it = o.find(key);
  if (it == o.end()) return std::nullopt;
  if (it->is_number_integer()) return it->get<int64_t>();
  return std::nullopt;
}

Json streamJson(const CachedStream& s) {
  Json o = Json::object();
  json::put(o, "name", s.name);
  json::put(o, "title", s.title);
  json::put(o, "url", s.url);
  json::put(o, "filename", s.filename);
  json::put(o, "bytes", s.bytes);
  json::put(o, "infoHash", s.infoHash);
  json::put(o, "provider", s.provider);
  return o;
}

}  // namespace

ResolveCache::ResolveCache(std::string path, Clock& clock) : path_(std::move(path)), clock_(clock) {}

ResolveCache::~ResolveCache() {
  if (flushPending_) clock_.cancelTimer(flushTimer_);
}

std::string ResolveCache::encode(const Entries& entries) {
  Json root = Json::object();
  for (const auto& [key, entry] : entries) {
    Json streams = Json::array();
    for (const auto& s : entry.streams) streams.push_back(streamJson(s));
    Json e = Json::object();
    e["streams"] = std::move(streams);
    e["storedAt"] = entry.storedAt;
    json::put(e, "schema", entry.schema);
    root[key] = std::move(e);
  }
  return json::encode(root);
}

ResolveCache::Entries ResolveCache::decode(std::string_view text) {
  Entries out;
  const auto root = json::parse(text);
  if (!root || !root->is_object()) return out;
  for (const auto& [key, value] : root->items()) {
    if (!value.is_object()) continue;
    const auto streams = value.find("streams");
    const auto storedAt = value.find("storedAt");
    if (streams == value.end() || !streams->is_array() || storedAt == value.end() || !storedAt->is_number()) continue;
    Entry entry;
    entry.storedAt = storedAt->get<double>();
    if (const auto schema = integer(value, "schema")) entry.schema = static_cast<int>(*schema);
    for (const auto& row : *streams) {
      if (!row.is_object()) continue;
      entry.streams.push_back({vt::text(row, "name"), vt::text(row, "title"), vt::text(row, "url"),
                               vt::text(row, "filename"), integer(row, "bytes"), vt::text(row, "infoHash"),
                               vt::text(row, "provider")});
    }
    if (!entry.streams.empty()) out.emplace(key, std::move(entry));
  }
  return out;
}

QCoro::Task<void> ResolveCache::ensureLoaded() {
  if (loaded_) co_return;
  auto read = [path = path_] { return decode(readFile(path).value_or("")); };
  Entries read_ = co_await runInBackground(std::move(read));
  // Two first callers may both have read the file; the first to come back
  // wins, and whatever was stored meanwhile stays.
  if (loaded_) co_return;
  loaded_ = true;
  entries_ = std::move(read_);
}

QCoro::Task<std::optional<std::vector<CachedStream>>> ResolveCache::fresh(std::string key) {
  co_await ensureLoaded();
  const auto it = entries_.find(key);
  if (it == entries_.end() || it->second.schema != kSchema) co_return std::nullopt;
  if (clock_.now() - it->second.storedAt >= kFreshSeconds) co_return std::nullopt;
  std::optional<std::vector<CachedStream>> copy = it->second.streams;  // co_return would move the stored rows out
  co_return copy;
}

QCoro::Task<std::optional<ResolveCache::Entry>> ResolveCache::entry(std::string key) {
  co_await ensureLoaded();
  const auto it = entries_.find(key);
  if (it == entries_.end()) co_return std::nullopt;
  std::optional<Entry> copy = it->second;  // co_return would move the stored entry out
  co_return copy;
}

QCoro::Task<void> ResolveCache::store(std::string key, std::vector<CachedStream> streams) {
  co_await ensureLoaded();
  if (streams.empty()) {
    entries_.erase(key);
    co_return;
  }
  entries_[key] = Entry{std::move(streams), clock_.now(), kSchema};
  if (entries_.size() > kMaxEntries) {
    std::vector<std::pair<Date, std::string>> ages;
    ages.reserve(entries_.size());
    for (const auto& [k, e] : entries_) ages.emplace_back(e.storedAt, k);
    std::sort(ages.begin(), ages.end());
    for (size_t i = 0; i < ages.size() - kMaxEntries; ++i) entries_.erase(ages[i].second);
  }
  scheduleFlush();
}

void ResolveCache::scheduleFlush() {
  if (flushPending_) return;
  flushPending_ = true;
  flushTimer_ = clock_.schedule(kFlushDelay, [this] { flush(); });
}

void ResolveCache::flush() {
  flushPending_ = false;
  writer_.save(path_, [snapshot = entries_]() -> std::optional<std::string> { return encode(snapshot); });
}

void ResolveCache::flushNow() {
  if (!flushPending_) return;
  clock_.cancelTimer(flushTimer_);
  flush();
  writer_.waitUntilIdle();
}

}  // namespace vt
