#include "SourceReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <QDir>
#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/Background.h"
#include "platform/Job.h"
#include "platform/SerialFileWriter.h"

namespace vtnfs {

namespace {

// Every source of an entry, in the order they are tried.
std::vector<std::string> candidates(const vt::EngineEntry& e) {
  std::vector<std::string> out;
  if (!e.lazy && !e.url.empty()) out.push_back(e.url);
  if (!e.resolve_url.empty()) out.push_back(e.resolve_url);
  if (e.alt_sources)
    for (const auto& alt : *e.alt_sources)
      if (!alt.resolve_url.empty()) out.push_back(alt.resolve_url);
  return out;
}

// The identity of an entry's bytes: the same name and sources read the same.
std::string identity(const vt::EngineEntry& e) {
  const std::string text = e.name + '\0' + e.url + '\0' + e.resolve_url + '\0' + e.rd_link;
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(XXH3_64bits(text.data(), text.size())));
  return hex;
}

// "bytes a-b/total" or "bytes */total"; total is none when it is "*".
bool contentRange(const QByteArray& value, int64_t& first, std::optional<int64_t>& total) {
  const QByteArray v = value.trimmed();
  if (!v.startsWith("bytes ")) return false;
  const int slash = v.lastIndexOf('/');
  if (slash < 0) return false;
  const QByteArray range = v.mid(6, slash - 6), size = v.mid(slash + 1);
  bool ok = true;
  if (size != "*") {
    total = size.toLongLong(&ok);
    if (!ok || *total < 0) return false;
  }
  if (range == "*") {
    first = -1;
    return true;
  }
  const int dash = range.indexOf('-');
  if (dash <= 0) return false;
  first = range.left(dash).toLongLong(&ok);
  return ok;
}

}  // namespace

SourceReader::SourceReader(vt::HttpClient& http, std::string cacheDirectory, Hooks hooks)
    : http_(http), cacheDirectory_(std::move(cacheDirectory)), hooks_(std::move(hooks)) {
  // What an earlier run left in the cache counts against the budget, oldest first.
  QDir dir(QString::fromStdString(cacheDirectory_));
  const auto files = dir.entryInfoList({"*.chunk"}, QDir::Files, QDir::Time | QDir::Reversed);
  for (const QFileInfo& f : files) {
    const std::string id = f.completeBaseName().toStdString();
    diskOrder_.emplace_back(id, f.size());
    disk_[id] = std::prev(diskOrder_.end());
    diskBytes_ += f.size();
  }
}

SourceReader::~SourceReader() {
  for (auto& [path, file] : fds_) ::close(file.fd);
}

void SourceReader::setBudgetBytes(int64_t bytes) {
  budgetBytes_ = std::max<int64_t>(0, bytes);
  evict();
}

QCoro::Task<vt::HttpResponse> SourceReader::send(std::string entryName, vt::HttpRequest request,
                                                 vt::CancelToken token) {
  auto& slot = lanes_[entryName];
  if (!slot) {
    slot = std::make_shared<Lane>();
    slot->http = std::make_unique<vt::HttpClient>(http_.clock(), vt::HttpClient::Session::ephemeral);
  }
  idleLanes_.remove(entryName);
  const std::shared_ptr<Lane> lane = slot;
  while (lane->sending >= kRequestsPerEntry) {
    auto turn = std::make_shared<vt::Completion>();
    lane->waiting.push_back(turn);
    const bool woken = co_await turn->wait(token);
    if (!woken) {
      lane->waiting.remove(turn);
      vt::HttpResponse cancelled;
      cancelled.failure = vt::HttpFailure::cancelled;
      cancelled.errorText = "cancelled";
      co_return cancelled;
    }
  }
  ++lane->sending;
  vt::HttpResponse reply = co_await lane->http->send(std::move(request), token);
  --lane->sending;
  // The reader may be going (its jobs are cancelled first): touch only the lane then.
  if (!lane->waiting.empty()) {
    auto next = lane->waiting.front();
    lane->waiting.pop_front();
    next->fire();
  } else if (lane->sending == 0 && !token.isCancelled()) {
    idleLanes_.push_back(entryName);
    while (idleLanes_.size() > kIdleLanes) {
      lanes_.erase(idleLanes_.front());
      idleLanes_.pop_front();
    }
  }
  co_return reply;
}

void SourceReader::forget(const std::string& entryName) {
  sources_.erase(entryName);
  if (auto it = fds_.find(entryName); it != fds_.end()) {
    ::close(it->second.fd);
    fds_.erase(it);
  }
}

ReadResult SourceReader::readLocal(const vt::EngineEntry& entry, uint64_t offset, uint32_t count, std::string& out,
                                   FileSpan* span) {
  auto it = fds_.find(entry.name);
  if (it == fds_.end()) {
    if (fds_.size() >= 64) {
      for (auto& [name, file] : fds_) ::close(file.fd);
      fds_.clear();
    }
    const int fd = ::open(entry.local.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      const int error = errno;
      return readFailed(error == ENOENT || error == ENOTDIR ? ReadError::Kind::notFound : ReadError::Kind::io,
                        entry.local + ": " + std::strerror(error));
    }
    it = fds_.emplace(entry.name, LocalFile{fd}).first;
  }
  LocalFile& file = it->second;
  struct stat st {};
  if (::fstat(file.fd, &st) != 0) return readFailed(ReadError::Kind::io, entry.local + ": " + std::strerror(errno));
  // A folder or a device opens fine and then fails half-way through a
  // reply; only regular files are served.
  if (!S_ISREG(st.st_mode)) {
    ::close(file.fd);
    fds_.erase(it);
    return readFailed(ReadError::Kind::io, entry.local + ": not a regular file");
  }
  const auto size = static_cast<int64_t>(st.st_size);
  if (offset >= static_cast<uint64_t>(size)) return readDone(true, size);
  const auto n = static_cast<size_t>(std::min<uint64_t>(count, static_cast<uint64_t>(size) - offset));
  // Ask the kernel for what a player reads next, so that a file on a slow
  // disk is on its way while this reply goes out; the kernel's own
  // read-ahead window is far smaller than a 1 MiB READ. The window is asked
  // for again only when reading has used up half of it: every request walks
  // the page cache over the whole range, which costs more than the copy
  // itself when the file is already there.
  const auto end = static_cast<off_t>(offset + n);
  const bool elsewhere = static_cast<off_t>(offset) + kLocalReadAhead < file.advisedFrom || end > file.advisedTo;
  if (elsewhere || end + kLocalReadAhead / 2 > file.advisedTo) {
    const off_t from = elsewhere ? end : file.advisedTo;
    ::posix_fadvise(file.fd, from, end + kLocalReadAhead - from, POSIX_FADV_WILLNEED);
    if (elsewhere) file.advisedFrom = end;
    file.advisedTo = end + kLocalReadAhead;
  }
  if (span) {
    *span = FileSpan(file.fd, offset, n);
    if (*span) return readDone(offset + n >= static_cast<uint64_t>(size), size);
  }
  const size_t before = out.size();
  out.resize(before + n);
  size_t got = 0;
  while (got < n) {
    const ssize_t r = ::pread(file.fd, out.data() + before + got, n - got, static_cast<off_t>(offset + got));
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      const int error = errno;
      out.resize(before);
      return readFailed(ReadError::Kind::io, entry.local + ": " + std::strerror(error));
    }
    if (r == 0) break;
    got += static_cast<size_t>(r);
  }
  out.resize(before + got);
  return readDone(offset + got >= static_cast<uint64_t>(size), size);
}

SourceReader::SourceState& SourceReader::stateFor(const vt::EngineEntry& entry) {
  auto& st = sources_[entry.name];
  const std::string key = identity(entry);
  if (st.key != key) st = SourceState{key};
  return st;
}

QCoro::Task<ReadResult> SourceReader::read(vt::EngineEntry entry, int64_t knownSize, uint64_t offset, uint32_t count,
                                           std::string& out, FileSpan* span, vt::CancelToken token) {
  if (token.isCancelled()) co_return readFailed(ReadError::Kind::cancelled, entry.name);
  if (!entry.local.empty()) {
    ReadResult local = readLocal(entry, offset, count, out, span);
    if (local && local->size && *local->size != knownSize && hooks_.sizeConfirmed)
      hooks_.sizeConfirmed(entry.name, *local->size);
    co_return local;
  }
  if (count == 0) co_return readDone(false);

  // Cancelled when the reader goes: a read still waiting then returns
  // without touching it.
  const vt::CancelToken gone = jobs_.token();
  std::optional<int64_t> total = stateFor(entry).total;
  const int64_t size = total.value_or(knownSize);
  if (total && offset >= static_cast<uint64_t>(size)) co_return readDone(true, total);

  const auto firstChunk = static_cast<int64_t>(offset / kChunk);
  const auto lastChunk = static_cast<int64_t>((offset + count - 1) / kChunk);
  bool shortChunk = false;
  uint64_t end = offset;
  for (int64_t k = firstChunk; k <= lastChunk && !shortChunk; ++k) {
    const Chunk c = co_await chunk(entry, k, token);
    if (gone.isCancelled() || token.isCancelled()) co_return readFailed(ReadError::Kind::cancelled, entry.name);
    if (!c) co_return readFailed(ReadError::Kind::io, "no source of " + entry.name + " answered");
    const int64_t chunkStart = k * kChunk;
    const auto from = static_cast<size_t>(std::max<int64_t>(static_cast<int64_t>(end), chunkStart) - chunkStart);
    shortChunk = c->size() < static_cast<size_t>(kChunk);
    if (from >= c->size()) break;
    const size_t want = std::min<size_t>(c->size() - from, offset + count - end);
    out.append(c->data() + from, want);
    end += want;
  }

  auto& st = stateFor(entry);
  total = st.total;
  const bool eof = total ? end >= static_cast<uint64_t>(*total) : shortChunk && end < offset + count;
  st.lastChunk = lastChunk;
  readAhead(entry, lastChunk);
  co_return readDone(eof, total);
}

void SourceReader::readAhead(const vt::EngineEntry& entry, int64_t index) {
  for (int64_t j = index + 1; j <= index + kReadAhead; ++j) {
    const auto& st = stateFor(entry);
    if (st.total && j * kChunk >= *st.total) return;
    const std::string id = st.key + "-" + std::to_string(j);
    if (inflight_.count(id) || disk_.count(id)) continue;
    if (std::any_of(memory_.begin(), memory_.end(), [&](const auto& m) { return m.first == id; })) continue;
    startFetch(entry, j, id);
  }
}

QCoro::Task<SourceReader::Chunk> SourceReader::chunk(vt::EngineEntry entry, int64_t index, vt::CancelToken token) {
  const std::string id = stateFor(entry).key + "-" + std::to_string(index);
  if (Chunk c = memoryGet(id)) co_return c;
  const vt::CancelToken gone = jobs_.token();
  const Chunk fromDisk = co_await diskGet(id);
  if (gone.isCancelled() || token.isCancelled()) co_return Chunk();
  if (fromDisk) {
    memoryPut(id, fromDisk);
    co_return fromDisk;
  }
  // A read of the disk cache or a fetch may have brought it meanwhile.
  if (Chunk c = memoryGet(id)) co_return c;
  const auto pending = startFetch(entry, index, id);
  const bool fired = co_await pending->done.wait(token);
  if (!fired || gone.isCancelled()) co_return Chunk();
  // A copy: several reads may wait on one fetch, and QCoro moves from an
  // lvalue handed to co_return.
  Chunk shared = pending->chunk;
  co_return shared;
}

std::shared_ptr<SourceReader::Inflight> SourceReader::startFetch(const vt::EngineEntry& entry, int64_t index,
                                                                 const std::string& id) {
  if (auto it = inflight_.find(id); it != inflight_.end()) return it->second;
  auto pending = std::make_shared<Inflight>();
  inflight_[id] = pending;
  jobs_.start([this, entry, index, id, pending](vt::CancelToken token) -> QCoro::Task<> {
    Chunk c = co_await fetch(entry, index, token);
    if (token.isCancelled()) {
      // The reader is going: wake those who wait, who see that it went.
      pending->done.fire();
      co_return;
    }
    pending->chunk = c;
    inflight_.erase(id);
    if (c) {
      memoryPut(id, c);
      diskPut(id, c);
    }
    pending->done.fire();
  });
  return pending;
}

QCoro::Task<SourceReader::Chunk> SourceReader::fetch(vt::EngineEntry entry, int64_t index, vt::CancelToken token) {
  const auto sources = candidates(entry);
  SourceState snapshot = stateFor(entry);
  const int64_t first = index * kChunk;
  int64_t last = first + kChunk - 1;
  if (snapshot.total) {
    if (first >= *snapshot.total) co_return std::make_shared<const std::string>();
    last = std::min(last, *snapshot.total - 1);
  }

  // The link that worked last, then the sources from the one it came from:
  // asking a resolve URL again gives a fresh link when the old one expired.
  std::vector<std::pair<std::string, size_t>> attempts;
  if (!snapshot.link.empty()) attempts.emplace_back(snapshot.link, snapshot.candidate);
  for (size_t i = snapshot.candidate; i < sources.size(); ++i) attempts.emplace_back(sources[i], i);

  for (const auto& [url, candidate] : attempts) {
    vt::HttpRequest request;
    request.url = QUrl(QString::fromStdString(url));
    request.range = std::make_pair(first, std::optional<int64_t>(last));
    request.timeoutSeconds = kRequestTimeout;
    // Never more than the chunk: a source that ignores ranges would send the
    // whole film.
    request.maxBodyBytes = last - first + 1;
    const vt::HttpResponse reply = co_await send(entry.name, std::move(request), token);
    if (token.isCancelled()) co_return Chunk();

    Chunk c;
    std::optional<int64_t> total;
    if (reply.failure == vt::HttpFailure::none && reply.status == 206) {
      int64_t start = -1;
      const auto cr = reply.header("Content-Range");
      if (cr && contentRange(*cr, start, total) && start == first &&
          (!total || static_cast<int64_t>(reply.body.size()) == std::min(last, *total - 1) - first + 1))
        c = std::make_shared<const std::string>(reply.body.constData(), static_cast<size_t>(reply.body.size()));
    } else if (reply.failure == vt::HttpFailure::none && reply.status == 200) {
      // A source that ignores ranges sends the file from its start: that
      // serves the first chunk, and nothing past it.
      if (first == 0) {
        if (!reply.truncated) total = reply.body.size();
        c = std::make_shared<const std::string>(reply.body.constData(), static_cast<size_t>(reply.body.size()));
      } else if (hooks_.log) {
        hooks_.log("source " + std::to_string(candidate + 1) + " of " + entry.name +
                   " ignores ranges, so it can't be read past its first " + std::to_string(kChunk >> 20) + " MiB");
      }
    } else if (reply.failure == vt::HttpFailure::none && reply.status == 416) {
      int64_t start = -1;
      const auto cr = reply.header("Content-Range");
      if (cr && contentRange(*cr, start, total) && total && first >= *total) c = std::make_shared<const std::string>();
    }
    if (!c) {
      if (hooks_.log)
        hooks_.log("source " + std::to_string(candidate + 1) + " of " + entry.name + " failed (" +
                   (reply.failure == vt::HttpFailure::none ? "HTTP " + std::to_string(reply.status) : reply.errorText) +
                   ")");
      continue;
    }
    auto& st = stateFor(entry);
    if (st.key == snapshot.key) {
      if (st.link.empty() || candidate != st.candidate || url != st.link) {
        st.link = reply.finalUrl.isValid() ? reply.finalUrl.toString().toStdString() : url;
        st.candidate = candidate;
      }
      if (total && st.total != total) {
        st.total = total;
        if (hooks_.sizeConfirmed) hooks_.sizeConfirmed(entry.name, *total);
      }
    }
    co_return c;
  }
  co_return Chunk();
}

SourceReader::Chunk SourceReader::memoryGet(const std::string& id) {
  for (auto it = memory_.begin(); it != memory_.end(); ++it) {
    if (it->first != id) continue;
    memory_.splice(memory_.begin(), memory_, it);
    return memory_.front().second;
  }
  return nullptr;
}

void SourceReader::memoryPut(const std::string& id, Chunk chunk) {
  for (auto it = memory_.begin(); it != memory_.end(); ++it)
    if (it->first == id) {
      memory_.erase(it);
      break;
    }
  memory_.emplace_front(id, std::move(chunk));
  if (memory_.size() > kMemoryChunks) memory_.pop_back();
}

// The disk cache is read and written on worker threads: a 4 MiB write with
// its sync must not hold up the calls of other readers. A chunk counts as
// cached once its file is complete.
QCoro::Task<SourceReader::Chunk> SourceReader::diskGet(std::string id) {
  auto it = disk_.find(id);
  if (it == disk_.end()) co_return Chunk();
  const int64_t expected = it->second->second;
  diskOrder_.splice(diskOrder_.end(), diskOrder_, it->second);
  const std::string path = cacheDirectory_ + "/" + id + ".chunk";
  const vt::CancelToken gone = jobs_.token();
  auto read = [path] { return vt::readFile(path); };  // named: gcc 12 mishandles temporaries in co_await
  auto text = co_await vt::runInBackground(std::move(read));
  if (gone.isCancelled()) co_return Chunk();
  if (!text || static_cast<int64_t>(text->size()) != expected) {
    diskDrop(id);  // damaged, or evicted while it was read
    co_return Chunk();
  }
  co_return std::make_shared<const std::string>(std::move(*text));
}

void SourceReader::diskPut(const std::string& id, const Chunk& chunk) {
  const auto size = static_cast<int64_t>(chunk->size());
  if (disk_.count(id) || writing_.count(id) || size > budgetBytes_ || cacheDirectory_.empty()) return;
  writing_.insert(id);
  const std::string folder = cacheDirectory_, path = cacheDirectory_ + "/" + id + ".chunk";
  jobs_.start([this, id, chunk, folder, path, size](vt::CancelToken token) -> QCoro::Task<> {
    auto write = [folder, path, chunk] {
      QDir().mkpath(QString::fromStdString(folder));
      return vt::writeFileAtomically(path, *chunk);
    };
    const bool written = co_await vt::runInBackground(std::move(write));
    if (token.isCancelled()) co_return;
    writing_.erase(id);
    if (!written || disk_.count(id)) co_return;
    diskOrder_.emplace_back(id, size);
    disk_[id] = std::prev(diskOrder_.end());
    diskBytes_ += size;
    evict();
  });
}

void SourceReader::diskDrop(std::string id) {  // a copy: callers pass names that this erases
  auto it = disk_.find(id);
  if (it == disk_.end()) return;
  diskBytes_ -= it->second->second;
  diskOrder_.erase(it->second);
  disk_.erase(it);
  ::unlink((cacheDirectory_ + "/" + id + ".chunk").c_str());
}

void SourceReader::evict() {
  while (diskBytes_ > budgetBytes_ && !diskOrder_.empty()) diskDrop(diskOrder_.front().first);
}

}  // namespace vtnfs
