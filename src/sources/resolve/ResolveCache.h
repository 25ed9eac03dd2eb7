#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <qcoro/qcorotask.h>

#include "platform/Clock.h"
#include "platform/Date.h"
#include "platform/SerialFileWriter.h"

namespace vt {

// One add-on row as the resolver keeps it and the cache remembers it.
struct CachedStream {
  std::optional<std::string> name, title, url;
  std::optional<std::string> filename;
  std::optional<int64_t> bytes;
  std::optional<std::string> infoHash;
  std::optional<std::string> provider;  // the raw provider kind

  bool operator==(const CachedStream&) const = default;
};

// The add-on rows of each title, remembered on disk in resolve-cache.json:
// fresh for six hours, and as a fallback for ever, for at most 2,000 titles.
// Keys are "movie/tt…" and "series/tt…:season:episode". Lives on the main
// thread; the file is read on a worker thread at the first use, and a change
// is written once, 2 seconds after the first change since the last write.
// Nothing is written on quit: the last two seconds of rows may be lost, they
// are only a cache.
class ResolveCache {
 public:
  static constexpr int kSchema = 2;
  static constexpr double kFreshSeconds = 21600;
  static constexpr size_t kMaxEntries = 2000;
  static constexpr double kFlushDelay = 2;
  static constexpr const char* kFileName = "resolve-cache.json";

  struct Entry {
    std::vector<CachedStream> streams;
    Date storedAt = 0;
    std::optional<int> schema;

    bool operator==(const Entry&) const = default;
  };
  using Entries = std::map<std::string, Entry>;

  ResolveCache(std::string path, Clock& clock);
  ~ResolveCache();
  ResolveCache(const ResolveCache&) = delete;
  ResolveCache& operator=(const ResolveCache&) = delete;

  // The rows of a current-schema entry younger than six hours.
  QCoro::Task<std::optional<std::vector<CachedStream>>> fresh(std::string key);
  // The entry at any age and schema.
  QCoro::Task<std::optional<Entry>> entry(std::string key);
  // Stores rows stamped now; an empty list removes the entry. Beyond 2,000
  // entries the oldest go.
  QCoro::Task<void> store(std::string key, std::vector<CachedStream> streams);

  // Blocks until the last write handed over is on disk (tests, tools).
  void waitForWrites() { writer_.waitUntilIdle(); }
  // A short-lived process writes what it stored before it ends, without the debounce.
  void flushNow();

  // The file format: one object, key to {"streams", "storedAt", "schema"}.
  static std::string encode(const Entries& entries);
  // Lenient: a broken file is an empty map, a broken entry or row is left
  // out, entries without rows are dropped.
  static Entries decode(std::string_view text);

 private:
  QCoro::Task<void> ensureLoaded();
  void scheduleFlush();
  void flush();

  std::string path_;
  Clock& clock_;
  Entries entries_;
  bool loaded_ = false;
  bool flushPending_ = false;
  Clock::TimerId flushTimer_ = 0;
  SerialFileWriter writer_;
};

}  // namespace vt
