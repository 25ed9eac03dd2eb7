#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>

#include <qcoro/qcorotask.h>

#include "FileSpan.h"
#include "ReadResult.h"
#include "engine/contract/EngineContract.h"
#include "platform/Http.h"
#include "platform/Job.h"

namespace vtnfs {

// Where an entry's bytes come from, on demand.
//
// A `local` entry is read from its file. Any other entry is read in aligned
// chunks by HTTP ranged GET, tried in this order: its `url` (unless lazy),
// its `resolve_url` (the add-on redirects to a fresh direct link, which is
// kept for the next chunks), then each of its `alt_sources`. Sequential
// reads fetch the next chunks ahead. Chunks are kept in a small memory cache
// and in a bounded on-disk cache (the probe cache folder), least recently
// used first out.
//
// Fetches, read-ahead and disk writes are the reader's own jobs: when the
// reader goes they end with it, their requests closed, and a caller still
// waiting on one gets a cancelled read.
class SourceReader {
 public:
  static constexpr int64_t kChunk = 4 << 20;
  static constexpr int kReadAhead = 2;
  static constexpr off_t kLocalReadAhead = 8 << 20;  // bytes asked ahead of local reads
  static constexpr size_t kMemoryChunks = 16;
  static constexpr double kRequestTimeout = 30;
  // Each entry reaches its sources over connections of its own, at most this
  // many requests at a time, so that a host that stalls one file's requests
  // holds only that file's reads, and a request's time limit starts when it
  // is sent rather than while it waits for a connection.
  static constexpr int kRequestsPerEntry = 4;
  static constexpr size_t kIdleLanes = 32;  // idle entries' connections kept for their next read

  struct Hooks {
    std::function<void(const std::string&)> log;
    // A source said how long the file really is.
    std::function<void(const std::string& entry, int64_t size)> sizeConfirmed;
  };

  SourceReader(vt::HttpClient& http, std::string cacheDirectory, Hooks hooks);
  ~SourceReader();

  void setBudgetBytes(int64_t bytes);
  int64_t budgetBytes() const { return budgetBytes_; }
  int64_t diskBytes() const { return diskBytes_; }
  bool diskWritesPending() const { return !writing_.empty(); }

  // Appends up to `count` bytes of the entry at `offset` to `out`.
  // `knownSize` is the size served so far (the manifest's, or one confirmed).
  // With `span`, the bytes of a local file are named there, not appended.
  // A cancelled `token` ends the wait for the source, not the fetch, which
  // still fills the cache for the next reader.
  QCoro::Task<ReadResult> read(vt::EngineEntry entry, int64_t knownSize, uint64_t offset, uint32_t count,
                               std::string& out, FileSpan* span = nullptr,
                               vt::CancelToken token = vt::CancelToken::none());

  // Drops what is remembered of entries that are gone or changed source.
  void forget(const std::string& entryName);

 private:
  using Chunk = std::shared_ptr<const std::string>;
  struct SourceState {
    std::string key;   // names the cached chunks of this entry and source
    std::string link;  // the working direct link, once one is found
    size_t candidate = 0;
    std::optional<int64_t> total;
    int64_t lastChunk = -2;
  };
  struct Inflight {
    vt::Completion done;
    Chunk chunk;  // null when every source failed
  };

  ReadResult readLocal(const vt::EngineEntry& entry, uint64_t offset, uint32_t count, std::string& out, FileSpan* span);
  SourceState& stateFor(const vt::EngineEntry& entry);
  // The chunk, from memory, disk or its sources; null when every source
  // failed or the wait was cancelled (the caller tells which by the tokens).
  QCoro::Task<Chunk> chunk(vt::EngineEntry entry, int64_t index, vt::CancelToken token);
  // The fetch of a chunk that is under way, or a new one started as a job.
  std::shared_ptr<Inflight> startFetch(const vt::EngineEntry& entry, int64_t index, const std::string& id);
  QCoro::Task<Chunk> fetch(vt::EngineEntry entry, int64_t index, vt::CancelToken token);
  // One request of an entry, in its lane.
  QCoro::Task<vt::HttpResponse> send(std::string entryName, vt::HttpRequest request, vt::CancelToken token);
  void readAhead(const vt::EngineEntry& entry, int64_t index);

  Chunk memoryGet(const std::string& id);
  void memoryPut(const std::string& id, Chunk chunk);
  QCoro::Task<Chunk> diskGet(std::string id);
  void diskPut(const std::string& id, const Chunk& chunk);
  void diskDrop(std::string id);
  void evict();

  vt::HttpClient& http_;
  std::string cacheDirectory_;
  Hooks hooks_;
  int64_t budgetBytes_ = int64_t(1) << 30;
  int64_t diskBytes_ = 0;

  std::unordered_map<std::string, SourceState> sources_;
  std::map<std::string, std::shared_ptr<Inflight>> inflight_;
  std::list<std::pair<std::string, Chunk>> memory_;  // most recent first
  // Disk chunks by id, with their size, in order of last use (oldest first).
  std::list<std::pair<std::string, int64_t>> diskOrder_;
  std::unordered_map<std::string, std::list<std::pair<std::string, int64_t>>::iterator> disk_;
  // Open files of local entries.
  // Open local files by entry name, with the range the kernel was last asked
  // to read ahead.
  struct LocalFile {
    int fd = -1;
    off_t advisedFrom = 0, advisedTo = 0;
  };
  std::unordered_map<std::string, LocalFile> fds_;
  // Chunks being written to the disk cache on a worker thread.
  std::set<std::string> writing_;
  // An entry's own HTTP client, its requests under way and those waiting
  // for a turn. Idle lanes beyond kIdleLanes close, least recently used first.
  struct Lane {
    std::unique_ptr<vt::HttpClient> http;
    int sending = 0;
    std::list<std::shared_ptr<vt::Completion>> waiting;
  };
  std::map<std::string, std::shared_ptr<Lane>> lanes_;
  std::list<std::string> idleLanes_;  // least recently used first
  // Last, so that the jobs end while the rest of the reader still stands.
  vt::JobScope jobs_;
};

}  // namespace vtnfs
