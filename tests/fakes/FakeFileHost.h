#pragma once

#include <QByteArray>
#include <QString>

#include "fakes/FakeHttpServer.h"

namespace vt::test {

// A file host as debrid download links and CDNs behave: GET of a path
// answers its bytes, honouring a single "Range: bytes=a-b" (or "a-") with
// 206 and Content-Range, and 416 with "bytes */size" past the end.
inline void serveBytes(FakeHttpServer& server, const QString& path, QByteArray bytes) {
  server.on("GET", path, [bytes](const FakeHttpServer::Request& req, FakeHttpServer::Reply& reply) {
    const auto range = req.header("Range");
    if (!range) {
      reply.send(200, bytes, {}, "application/octet-stream");
      return;
    }
    const QByteArray spec = range->trimmed();
    const int dash = spec.indexOf('-');
    if (!spec.startsWith("bytes=") || dash < 0) {
      reply.send(200, bytes, {}, "application/octet-stream");
      return;
    }
    const qint64 size = bytes.size();
    const qint64 first = spec.mid(6, dash - 6).toLongLong();
    const QByteArray lastText = spec.mid(dash + 1);
    qint64 last = lastText.isEmpty() ? size - 1 : std::min(lastText.toLongLong(), size - 1);
    if (first >= size) {
      reply.send(416, {}, {{"Content-Range", "bytes */" + QByteArray::number(size)}});
      return;
    }
    reply.send(206, bytes.mid(first, last - first + 1),
               {{"Content-Range", "bytes " + QByteArray::number(first) + "-" + QByteArray::number(last) + "/" +
                                      QByteArray::number(size)}},
               "application/octet-stream");
  });
}

// A stream URL of an add-on: a redirect to where the bytes are now.
inline void redirect(FakeHttpServer& server, const QString& path, const QString& target) {
  server.on("GET", path, [target](const FakeHttpServer::Request&, FakeHttpServer::Reply& reply) {
    reply.send(302, {}, {{"Location", target.toUtf8()}});
  });
}

}  // namespace vt::test
