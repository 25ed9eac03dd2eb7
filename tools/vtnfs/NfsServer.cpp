#include "NfsServer.h"

#include <sys/socket.h>

#include <QPointer>
#include <QTcpSocket>
#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>

#include "platform/Job.h"

namespace vtnfs {

namespace {

// What one connection holds: the bytes received that don't make a whole
// record yet, and the calls being answered. It is a child of the socket, so
// when the socket goes its calls are cancelled first.
struct Pending : QObject {
  Pending(QObject* parent, vt::Clock& c) : QObject(parent), clock(c) {}
  ~Pending() override { disarm(); }
  void disarm() {
    if (timer) clock.cancelTimer(timer);
    timer = 0;
  }
  vt::Clock& clock;
  // One timer: for the half-sent record while one waits for its rest, else
  // for idleness, checked against `lastActivity` when it comes due rather
  // than set again on every call.
  vt::Clock::TimerId timer = 0;
  bool halfSent = false;
  vt::Date lastActivity = 0;
  std::string buffer;
  std::string record;  // fragments of the record being assembled
  size_t pos = 0;      // where the unparsed part of `buffer` begins
  int inFlight = 0;    // calls being answered
  bool pumping = false, again = false;
  vt::JobScope calls;  // last: see above
};

// A client that sends calls and doesn't read the replies must not make the
// engine hold them all: past these bounds the connection's requests wait in
// the kernel (and so at the client) until replies drain.
constexpr qint64 kMaxUnsentBytes = 4 << 20;
constexpr int kMaxCallsInFlight = 32;
constexpr qint64 kReadPiece = 256 << 10;

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

// Closes the connection once it has been idle for the limit, `seconds` from now at the soonest.
void armIdle(QTcpSocket* socket, Pending* pending, double seconds) {
  pending->disarm();
  pending->halfSent = false;
  QPointer<QTcpSocket> guard(socket);
  pending->timer = pending->clock.schedule(seconds, [guard, pending] {
    pending->timer = 0;
    if (!guard) return;
    // A call waiting on a slow source, or a reply the client is still taking, is no idleness.
    if (pending->inFlight > 0 || guard->bytesToWrite() > 0) {
      armIdle(guard, pending, NfsServer::kIdleSeconds);
      return;
    }
    const double left = NfsServer::kIdleSeconds - (pending->clock.now() - pending->lastActivity);
    if (left > 0) {
      armIdle(guard, pending, left);
      return;
    }
    guard->abort();
  });
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
    auto* pending = new Pending(socket, clock_);
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    pending->lastActivity = clock_.now();
    armIdle(socket, pending, kIdleSeconds);
    // Qt stops taking bytes from the kernel once this much waits unread.
    socket->setReadBufferSize(kReadPiece);
    auto pump = std::make_shared<std::function<void()>>();
    *pump = [this, socket, pending, weak = std::weak_ptr<std::function<void()>>(pump)] {
      // A reply that is ready at once comes back here from inside the loop:
      // the outer run picks up where it is instead.
      if (pending->pumping) {
        pending->again = true;
        return;
      }
      pending->pumping = true;
      pending->lastActivity = clock_.now();
      auto& buf = pending->buffer;
      const auto roomForMore = [&] {
        return socket->bytesToWrite() <= kMaxUnsentBytes && pending->inFlight < kMaxCallsInFlight;
      };
      bool waitingForBytes = false;
      // Drops what was parsed and takes the next piece from the socket;
      // false when nothing more has come.
      const auto readMore = [&] {
        buf.erase(0, pending->pos);
        pending->pos = 0;
        waitingForBytes = socket->bytesAvailable() == 0;
        if (waitingForBytes) return false;
        const QByteArray data = socket->read(kReadPiece);
        buf.append(data.constData(), static_cast<size_t>(data.size()));
        return true;
      };
      do {
        pending->again = false;
        waitingForBytes = false;
        while (roomForMore()) {
          if (buf.size() - pending->pos < 4) {
            if (!readMore()) break;
            continue;
          }
          const auto* b = reinterpret_cast<const unsigned char*>(buf.data() + pending->pos);
          const uint32_t mark = (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
          const bool last = (mark & 0x80000000u) != 0;
          const size_t length = mark & 0x7fffffffu;
          if (pending->record.size() + length > NfsService::kMaxRecord) {
            pending->pumping = false;
            socket->abort();
            return;
          }
          if (buf.size() - pending->pos - 4 < length) {  // the rest of this record is still on its way
            if (!readMore()) break;
            continue;
          }
          pending->record.append(buf, pending->pos + 4, length);
          pending->pos += 4 + length;
          if (!last) continue;
          ++pending->inFlight;
          pending->calls.start([this, socket, pending, weak,
                                record = std::move(pending->record)](vt::CancelToken token) mutable -> QCoro::Task<> {
            auto reply = co_await service_.reply(std::move(record), token);
            if (token.isCancelled()) co_return;  // the connection, or the server, is gone
            --pending->inFlight;
            if (!reply || !send(*socket, *reply)) {
              socket->abort();
              co_return;
            }
            if (auto again = weak.lock()) (*again)();
          });
          pending->record.clear();
        }
      } while (pending->again);
      pending->pumping = false;
      const bool halfSent = waitingForBytes && (!buf.empty() || !pending->record.empty());
      if (!halfSent && pending->halfSent) {
        armIdle(socket, pending, kIdleSeconds);
      } else if (halfSent && !pending->halfSent) {
        pending->disarm();
        pending->halfSent = true;
        QPointer<QTcpSocket> guard(socket);
        pending->timer = clock_.schedule(kHalfSentSeconds, [guard, pending] {
          pending->timer = 0;
          if (guard) guard->abort();
        });
      }
    };
    connect(socket, &QTcpSocket::readyRead, pending, [pump] { (*pump)(); });
    connect(socket, &QTcpSocket::bytesWritten, pending, [pump] { (*pump)(); });
  }
}

}  // namespace vtnfs
