#include "NfsServer.h"

#include <sys/socket.h>

#include <QTcpSocket>
#include <algorithm>
#include <cerrno>

#include "platform/Job.h"

namespace vtnfs {

namespace {

// What one connection holds: the bytes received that don't make a whole
// record yet, and the calls being answered. It is a child of the socket, so
// when the socket goes its calls are cancelled first.
struct Pending : QObject {
  using QObject::QObject;
  std::string buffer;
  std::string record;  // fragments of the record being assembled
  vt::JobScope calls;  // last: see above
};

// Sends from `sent` on without blocking; true when all of it went.
bool sendDirect(int fd, const char* data, size_t size, size_t& sent, int flags) {
  while (sent < size) {
    const ssize_t n = ::send(fd, data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL | flags);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return false;  // would block, or an error that Qt will report
  }
  return true;
}

// Writes straight to the socket while Qt has nothing queued for it, which
// saves copying each reply into Qt's buffer, and sends a local file's bytes
// with sendfile; what the kernel doesn't take at once goes through Qt, which
// keeps the order. False when the reply can't be completed (its file ended
// early): the connection must close, as its record mark already promised
// more.
bool send(QTcpSocket& socket, NfsService::Reply& reply) {
  const std::string& bytes = reply.bytes;
  const size_t spanAt = reply.span ? reply.spanAt : bytes.size();
  size_t sent = 0;
  bool spanDone = !reply.span;
  if (socket.bytesToWrite() == 0 && socket.state() == QAbstractSocket::ConnectedState) {
    const int fd = static_cast<int>(socket.socketDescriptor());
    if (sendDirect(fd, bytes.data(), spanAt, sent, reply.span ? MSG_MORE : 0) && !spanDone) {
      bool ended = false;
      spanDone = reply.span.sendTo(fd, ended);
      if (ended) return false;
      if (spanDone) sendDirect(fd, bytes.data(), bytes.size(), sent, 0);
    }
  }
  std::string rest;
  if (sent < spanAt) rest.append(bytes, sent, spanAt - sent);
  if (!spanDone && !reply.span.appendTo(rest)) return false;
  if (sent < bytes.size()) rest.append(bytes, std::max(sent, spanAt));
  if (!rest.empty()) socket.write(rest.data(), static_cast<qint64>(rest.size()));
  return true;
}

}  // namespace

bool NfsServer::listen(const QHostAddress& address, quint16 port) {
  if (!server_.listen(address, port)) return false;
  connect(&server_, &QTcpServer::newConnection, this, [this] { accept(); });
  return true;
}

void NfsServer::accept() {
  while (QTcpSocket* socket = server_.nextPendingConnection()) {
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    auto* pending = new Pending(socket);
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QTcpSocket::readyRead, socket, [this, socket, pending] {
      const QByteArray data = socket->readAll();
      pending->buffer.append(data.constData(), static_cast<size_t>(data.size()));
      size_t pos = 0;
      auto& buf = pending->buffer;
      while (buf.size() - pos >= 4) {
        const auto* b = reinterpret_cast<const unsigned char*>(buf.data() + pos);
        const uint32_t mark = (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
        const bool last = (mark & 0x80000000u) != 0;
        const size_t length = mark & 0x7fffffffu;
        if (pending->record.size() + length > NfsService::kMaxRecord) {
          socket->abort();
          return;
        }
        if (buf.size() - pos - 4 < length) break;
        pending->record.append(buf, pos + 4, length);
        pos += 4 + length;
        if (!last) continue;
        pending->calls.start(
            [this, socket, record = std::move(pending->record)](vt::CancelToken token) mutable -> QCoro::Task<> {
              auto reply = co_await service_.reply(std::move(record), token);
              if (token.isCancelled()) co_return;  // the connection, or the server, is gone
              if (!reply || !send(*socket, *reply)) socket->abort();
            });
        pending->record.clear();
      }
      buf.erase(0, pos);
    });
  }
}

}  // namespace vtnfs
