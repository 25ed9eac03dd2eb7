#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include <QByteArray>
#include <QIODevice>
#include <QString>

#include "fakes/FakeHttpServer.h"

namespace vt::test {

// The one range of a "Range: bytes=a-b" (or "a-", or "-n": the last n
// bytes) of a body of `size` bytes; none when no range, or one of another
// kind, was asked (the whole body answers). `satisfiable` false: 416.
struct ByteRange {
  int64_t first = 0;
  int64_t last = 0;
  bool satisfiable = true;
};
inline std::optional<ByteRange> requestedRange(const FakeHttpServer::Request& req, int64_t size) {
  const auto range = req.header("Range");
  const QByteArray spec = range ? range->trimmed() : QByteArray();
  const int dash = spec.indexOf('-');
  if (!range || !spec.startsWith("bytes=") || dash < 0) return std::nullopt;
  const QByteArray firstText = spec.mid(6, dash - 6);
  const QByteArray lastText = spec.mid(dash + 1);
  ByteRange r;
  if (firstText.isEmpty()) {
    r.first = std::max<int64_t>(0, size - lastText.toLongLong());
    r.last = size - 1;
  } else {
    r.first = firstText.toLongLong();
    r.last = lastText.isEmpty() ? size - 1 : std::min<int64_t>(lastText.toLongLong(), size - 1);
  }
  r.satisfiable = r.first < size && r.first <= r.last;
  return r;
}
// "bytes a-b/size", or "bytes */size" for a range that can't be served.
inline QByteArray contentRange(const ByteRange& r, int64_t size) {
  const QByteArray total = QByteArray::number(static_cast<qlonglong>(size));
  if (!r.satisfiable) return "bytes */" + total;
  return "bytes " + QByteArray::number(static_cast<qlonglong>(r.first)) + "-" +
         QByteArray::number(static_cast<qlonglong>(r.last)) + "/" + total;
}

// A file host as debrid download links and CDNs behave: GET of a path
// answers its bytes, honouring a single "Range: bytes=a-b" (or "a-") with
// 206 and Content-Range, and 416 with "bytes */size" past the end.
inline void serveBytes(FakeHttpServer& server, const QString& path, QByteArray bytes) {
  server.on("GET", path, [bytes](const FakeHttpServer::Request& req, FakeHttpServer::Reply& reply) {
    const int64_t size = bytes.size();
    const auto range = requestedRange(req, size);
    if (!range) return reply.send(200, bytes, {}, "application/octet-stream");
    if (!range->satisfiable) return reply.send(416, {}, {{"Content-Range", contentRange(*range, size)}});
    reply.send(206, bytes.mid(range->first, range->last - range->first + 1),
               {{"Content-Range", contentRange(*range, size)}}, "application/octet-stream");
  });
}

// The byte at `offset` of a generated file. Any range of a file of any size
// can be produced and checked without the file existing anywhere.
inline char generatedByte(int64_t offset) {
  uint64_t x = static_cast<uint64_t>(offset) * 0x9E3779B97F4A7C15ull;
  return static_cast<char>((x >> 29) ^ (x >> 47));
}

inline QByteArray generatedBytes(int64_t first, int64_t count) {
  QByteArray out(static_cast<qsizetype>(count), Qt::Uninitialized);
  for (int64_t i = 0; i < count; ++i) out[static_cast<qsizetype>(i)] = generatedByte(first + i);
  return out;
}

// A device over `count` bytes of a file that starts with `head` and goes on
// with generated filler: the byte at offset o past the head is
// generatedByte(o), so a file far larger than its head needs only the head.
class HeadThenFillerDevice final : public QIODevice {
 public:
  HeadThenFillerDevice(QByteArray head, int64_t first, int64_t count)
      : head_(std::move(head)), first_(first), count_(count) {
    open(QIODevice::ReadOnly | QIODevice::Unbuffered);
  }
  bool isSequential() const override { return false; }
  qint64 size() const override { return count_; }

 protected:
  qint64 readData(char* data, qint64 maxSize) override {
    const qint64 n = std::min<qint64>(maxSize, count_ - pos());
    if (n <= 0) return -1;
    const int64_t at = first_ + pos();
    const int64_t fromHead = std::clamp<int64_t>(static_cast<int64_t>(head_.size()) - at, 0, n);
    if (fromHead > 0) std::memcpy(data, head_.constData() + at, static_cast<size_t>(fromHead));
    for (qint64 i = fromHead; i < n; ++i) data[i] = generatedByte(at + i);
    return n;
  }
  qint64 writeData(const char*, qint64) override { return -1; }

 private:
  QByteArray head_;
  int64_t first_;
  int64_t count_;
};

// The same bytes in memory, for checks.
inline QByteArray headThenFillerBytes(const QByteArray& head, int64_t first, int64_t count) {
  QByteArray out(static_cast<qsizetype>(count), Qt::Uninitialized);
  HeadThenFillerDevice device(head, first, count);
  device.read(out.data(), count);
  return out;
}

// A file of `size` bytes at `path` that starts with `head` (a real video
// clip, or nothing) and goes on with generated filler, for sizes far beyond
// what should be held in memory (a film of several GB). HEAD gives the
// length; GET honours a single range as serveBytes does; bodies are streamed.
inline void serveHeadThenFiller(FakeHttpServer& server, const QString& path, QByteArray head, int64_t size,
                                const QByteArray& contentType = "application/octet-stream") {
  server.on("GET", path, [head, size, contentType](const FakeHttpServer::Request& req, FakeHttpServer::Reply& reply) {
    const QByteArray length = QByteArray::number(static_cast<qlonglong>(size));
    if (req.method == "HEAD") {
      reply.send(200, {}, {{"Content-Length", length}, {"Accept-Ranges", "bytes"}}, contentType);
      return;
    }
    const auto range = requestedRange(req, size);
    if (!range)
      return reply.stream(200, new HeadThenFillerDevice(head, 0, size), {"Accept-Ranges", "bytes"}, contentType);
    if (!range->satisfiable) return reply.send(416, {}, {{"Content-Range", contentRange(*range, size)}});
    reply.stream(206, new HeadThenFillerDevice(head, range->first, range->last - range->first + 1),
                 {"Content-Range", contentRange(*range, size)}, contentType);
  });
}

// A file of `size` generated bytes at `path`, served as serveHeadThenFiller does.
inline void serveGenerated(FakeHttpServer& server, const QString& path, int64_t size) {
  serveHeadThenFiller(server, path, {}, size);
}

// A stream URL of an add-on: a redirect to where the bytes are now.
inline void redirect(FakeHttpServer& server, const QString& path, const QString& target) {
  server.on("GET", path, [target](const FakeHttpServer::Request&, FakeHttpServer::Reply& reply) {
    reply.send(302, {}, {{"Location", target.toUtf8()}});
  });
}

}  // namespace vt::test
