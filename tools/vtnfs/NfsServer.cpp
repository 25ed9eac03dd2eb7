#include "NfsServer.h"

#include <sys/socket.h>

#include <QPointer>
#include <QSocketNotifier>
#include <QTcpSocket>
#include <algorithm>
#include <cstdio>
#include <deque>
#include <cerrno>
#include <functional>
#include <memory>

#include "platform/Job.h"

namespace vtnfs {

namespace {

// Replies that the socket could not take at once wait here, in order, and
// go on from where they stopped as the socket drains: the bytes of a local
// file still leave with sendfile, never copied through this process.
struct Outbox {
  struct Waiting {
    NfsService::Reply reply;
    size_t sent = 0;  // of reply.bytes
  };
  std::deque<Waiting> replies;
  qint64 bytes = 0;  // not yet sent
  QSocketNotifier* writable = nullptr;
};

// What one connection holds: the bytes received that don't make a whole
// record yet, the calls being answered and the replies waiting to go. It is
// a child of the socket, so when the socket goes its calls are cancelled
// first.
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
  Outbox outbox;
  std::weak_ptr<std::function<void()>> pump;  // reads calls; run again when the outbox drains
  vt::JobScope calls;                         // last: see above
};

// A client that sends calls and doesn't read the replies must not make the
// engine hold them all: past these bounds the connection's requests wait in
// the kernel (and so at the client) until replies drain.
constexpr qint64 kMaxUnsentBytes = 4 << 20;
constexpr int kMaxCallsInFlight = 32;
constexpr qint64 kReadPiece = 256 << 10;
// The send buffer asked for, where the system allows that much: a few whole
// READ replies, so that a reply rarely waits for the client to read.
constexpr int kSendBuffer = 4 << 20;

enum class Sent { all, wouldBlock, failed };

Sent sendBytes(int fd, const std::string& bytes, size_t upTo, size_t& sent, int flags) {
  while (sent < upTo) {
    const ssize_t n = ::send(fd, bytes.data() + sent, upTo - sent, MSG_DONTWAIT | MSG_NOSIGNAL | flags);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? Sent::wouldBlock : Sent::failed;
  }
  return Sent::all;
}

// Sends what the socket takes of a reply, from where it stopped: the bytes
// before the span, the span, the bytes after it. A span whose file ended
// early fails: its record mark already promised more.
Sent sendSome(int fd, NfsService::Reply& reply, size_t& sent) {
  const size_t spanAt = reply.span ? reply.spanAt : reply.bytes.size();
  if (Sent s = sendBytes(fd, reply.bytes, spanAt, sent, reply.span ? MSG_MORE : 0); s != Sent::all) return s;
  if (reply.span && reply.span.length() > 0) {
    bool ended = false;
    if (!reply.span.sendTo(fd, ended))
      return !ended && (errno == EAGAIN || errno == EWOULDBLOCK) ? Sent::wouldBlock : Sent::failed;
  }
  return sendBytes(fd, reply.bytes, reply.bytes.size(), sent, 0);
}

qint64 unsentBytes(const NfsService::Reply& reply, size_t sent) {
  return static_cast<qint64>(reply.bytes.size() - sent + reply.span.length());
}

// The largest send buffer an unprivileged socket may ask for.
int systemSendBufferLimit() {
  static const int limit = [] {
    int value = 0;
    if (std::FILE* f = std::fopen("/proc/sys/net/core/wmem_max", "r")) {
      if (std::fscanf(f, "%d", &value) != 1) value = 0;
      std::fclose(f);
    }
    return value;
  }();
  return limit;
}

// Sends the replies that wait, in order, as far as the socket takes them;
// once none waits, reading calls resumes.
void drain(QTcpSocket& socket, Pending& pending) {
  auto& box = pending.outbox;
  const int fd = static_cast<int>(socket.socketDescriptor());
  while (!box.replies.empty()) {
    auto& head = box.replies.front();
    const qint64 before = unsentBytes(head.reply, head.sent);
    const Sent sent = sendSome(fd, head.reply, head.sent);
    box.bytes -= before - unsentBytes(head.reply, head.sent);
    if (sent == Sent::failed) {
      socket.abort();
      return;
    }
    pending.lastActivity = pending.clock.now();
    if (sent == Sent::wouldBlock) return;
    box.replies.pop_front();
  }
  box.writable->setEnabled(false);
  if (auto pump = pending.pump.lock()) (*pump)();
}

// Sends a reply, straight away when none waits before it; false when the
// connection must close.
bool queue(QTcpSocket& socket, Pending& pending, NfsService::Reply reply) {
  if (socket.state() != QAbstractSocket::ConnectedState) return true;  // closing: nobody to answer
  auto& box = pending.outbox;
  const int fd = static_cast<int>(socket.socketDescriptor());
  size_t sent = 0;
  if (box.replies.empty()) {
    const Sent result = sendSome(fd, reply, sent);
    if (result == Sent::all) return true;
    if (result == Sent::failed) return false;
  }
  box.bytes += unsentBytes(reply, sent);
  box.replies.push_back({std::move(reply), sent});
  if (!box.writable) {
    box.writable = new QSocketNotifier(fd, QSocketNotifier::Write, &pending);
    QObject::connect(box.writable, &QSocketNotifier::activated, &pending,
                     [&socket, &pending] { drain(socket, pending); });
  }
  box.writable->setEnabled(true);
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
    if (pending->inFlight > 0 || pending->outbox.bytes > 0) {
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
    // A fixed size turns the kernel's own tuning off: asked for only where
    // the system's limit is at least as large.
    if (systemSendBufferLimit() >= kSendBuffer)
      ::setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_SNDBUF, &kSendBuffer,
                   sizeof kSendBuffer);
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
        return pending->outbox.bytes <= kMaxUnsentBytes && pending->inFlight < kMaxCallsInFlight;
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
            if (!reply || !queue(*socket, *pending, std::move(*reply))) {
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
    pending->pump = pump;
    connect(socket, &QTcpSocket::readyRead, pending, [pump] { (*pump)(); });
  }
}

}  // namespace vtnfs
