#include "ControlServer.h"

#include <sys/socket.h>

#include <QTcpSocket>
#include <algorithm>
#include <cctype>
#include <exception>
#include <optional>
#include <string_view>

namespace vtnfs {

namespace {

// Qt takes at most this much from the kernel before the server has parsed it.
constexpr qint64 kReadPiece = 64 << 10;

const char* reasonPhrase(int status) {
  switch (status) {
    case 100:
      return "Continue";
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 411:
      return "Length Required";
    case 413:
      return "Content Too Large";
    case 422:
      return "Unprocessable Entity";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Unknown";
  }
}

bool isTokenChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}
bool isToken(std::string_view s) { return !s.empty() && std::all_of(s.begin(), s.end(), isTokenChar); }

std::string lower(std::string_view s) {
  std::string out(s);
  for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// Whether a comma-separated header value holds `token`, in any case.
bool hasToken(std::string_view value, std::string_view token) {
  while (!value.empty()) {
    const auto comma = value.find(',');
    if (lower(trimmed(value.substr(0, comma))) == token) return true;
    if (comma == std::string_view::npos) break;
    value.remove_prefix(comma + 1);
  }
  return false;
}

}  // namespace

std::string ControlRequest::header(const std::string& lowerCaseName) const {
  for (const auto& [name, value] : headers)
    if (name == lowerCaseName) return value;
  return {};
}

ControlReply ControlReply::json(const vt::Json& value, int status) {
  return ControlReply{status, "application/json", vt::json::encode(value)};
}

ControlReply ControlReply::text(std::string body, int status) {
  return ControlReply{status, "text/plain", std::move(body)};
}

// What one connection holds between its bytes' arrivals. A child of the
// socket, so that it goes with it; its timer goes with it.
struct ControlServer::Connection : QObject {
  enum class Phase {
    idle,     // between requests
    request,  // part of a request is in
    closing,  // the last reply is out; what comes in is dropped
  };
  Connection(QTcpSocket* s, vt::Clock& c) : QObject(s), socket(s), clock(c) {}
  ~Connection() override { disarm(); }
  void disarm() {
    if (timer) clock.cancelTimer(timer);
    timer = 0;
  }

  QTcpSocket* socket;
  vt::Clock& clock;
  vt::Clock::TimerId timer = 0;
  Phase phase = Phase::idle;
  QByteArray buffer;                   // received and not yet parsed
  std::optional<ControlRequest> head;  // a request whose body is still on its way
  qint64 bodyLength = 0;
  bool keepAlive = true;
  bool http10 = false;
  bool stalled = false;   // waits for its replies to be taken before reading on
  bool wrote = false;     // a reply's bytes went out since the timer was set
  bool shutDown = false;  // the sending side is closed
  qint64 dropped = 0;
};

void ControlServer::route(const std::string& path, Method method, Handler handler) {
  routes_[path][method == Method::get ? "GET" : "POST"] = std::move(handler);
}

bool ControlServer::listen(const QHostAddress& address, quint16 port) {
  if (!server_.listen(address, port)) return false;
  connect(&server_, &QTcpServer::newConnection, this, [this] { accept(); });
  return true;
}

void ControlServer::accept() {
  while (QTcpSocket* socket = server_.nextPendingConnection()) {
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    if (socket->state() != QAbstractSocket::ConnectedState) {
      socket->deleteLater();
      continue;
    }
    socket->setReadBufferSize(kReadPiece);
    auto* c = new Connection(socket, clock_);
    connect(socket, &QTcpSocket::readyRead, c, [this, c] { pump(*c); });
    connect(socket, &QTcpSocket::bytesWritten, c, [this, c] {
      c->wrote = true;
      if (c->phase == Connection::Phase::closing) {
        if (!c->shutDown && c->socket->bytesToWrite() == 0) finishClosing(*c);
      } else if (c->stalled) {
        pump(*c);
      }
    });
    arm(*c, limits::kControlIdleSeconds);
    if (socket->bytesAvailable() > 0) pump(*c);
  }
}

void ControlServer::arm(Connection& c, double seconds) {
  c.disarm();
  c.wrote = false;
  c.timer = clock_.schedule(seconds, [this, conn = &c] {
    conn->timer = 0;
    timedOut(*conn);
  });
}

void ControlServer::timedOut(Connection& c) {
  switch (c.phase) {
    case Connection::Phase::idle:
      // A client still taking a long reply is not idle.
      if (c.socket->bytesToWrite() > 0 && c.wrote) {
        arm(c, limits::kControlIdleSeconds);
        return;
      }
      c.socket->abort();
      return;
    case Connection::Phase::request:
      refuse(c, 408,
             "the request was not complete within " +
                 std::to_string(static_cast<int>(limits::kControlHalfSentSeconds)) + " seconds");
      return;
    case Connection::Phase::closing:
      c.socket->abort();
      return;
  }
}

void ControlServer::pump(Connection& c) {
  if (c.phase == Connection::Phase::closing) {
    drain(c);
    return;
  }
  bool moved = false;
  bool answered = false;
  for (;;) {
    c.stalled = c.socket->bytesToWrite() > limits::kControlMaxUnsentBytes;
    if (c.stalled) break;
    if (nextRequest(c)) {
      moved = answered = true;
      continue;
    }
    if (c.phase == Connection::Phase::closing) return;
    if (c.socket->bytesAvailable() == 0) break;
    c.buffer += c.socket->read(kReadPiece);
    moved = true;
  }
  if (!moved) return;
  if (c.head || !c.buffer.isEmpty()) {
    // The time for a request runs from its first bytes; more of them don't restart it.
    if (c.phase != Connection::Phase::request || answered) {
      c.phase = Connection::Phase::request;
      arm(c, limits::kControlHalfSentSeconds);
    }
  } else {
    c.phase = Connection::Phase::idle;
    arm(c, limits::kControlIdleSeconds);
  }
}

bool ControlServer::nextRequest(Connection& c) {
  if (!c.head) {
    // Empty lines before a request line are allowed, and some clients send one after a body.
    qsizetype skip = 0;
    while (skip < c.buffer.size() && (c.buffer[skip] == '\r' || c.buffer[skip] == '\n')) ++skip;
    c.buffer.remove(0, skip);
    qsizetype end = c.buffer.indexOf("\r\n\r\n");
    qsizetype separator = 4;
    if (const qsizetype bare = c.buffer.indexOf("\n\n"); bare >= 0 && (end < 0 || bare < end)) {
      end = bare;
      separator = 2;
    }
    if ((end < 0 ? c.buffer.size() : end) > limits::kControlMaxHeaderBytes) {
      refuse(c, 431,
             "the request line and headers are over " + std::to_string(limits::kControlMaxHeaderBytes >> 10) + " KiB");
      return false;
    }
    if (end < 0) return false;
    const std::string block(c.buffer.constData(), static_cast<size_t>(end));
    c.buffer.remove(0, end + separator);

    std::vector<std::string_view> lines;
    for (std::string_view rest(block); !rest.empty();) {
      const auto nl = rest.find('\n');
      std::string_view line = rest.substr(0, nl);
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      lines.push_back(line);
      if (nl == std::string_view::npos) break;
      rest.remove_prefix(nl + 1);
    }
    // The request line: method, target and version, one space apart.
    const std::string_view first = lines.front();
    const auto sp1 = first.find(' ');
    const auto sp2 = sp1 == std::string_view::npos ? sp1 : first.find(' ', sp1 + 1);
    if (sp2 == std::string_view::npos || first.find(' ', sp2 + 1) != std::string_view::npos) {
      refuse(c, 400, "malformed request line");
      return false;
    }
    const std::string_view method = first.substr(0, sp1), target = first.substr(sp1 + 1, sp2 - sp1 - 1),
                           version = first.substr(sp2 + 1);
    if (version == "HTTP/1.1") {
      c.http10 = false;
    } else if (version == "HTTP/1.0") {
      c.http10 = true;
    } else if (version.size() == 8 && version.substr(0, 5) == "HTTP/" &&
               std::isdigit(static_cast<unsigned char>(version[5])) && version[6] == '.' &&
               std::isdigit(static_cast<unsigned char>(version[7]))) {
      refuse(c, 505, "only HTTP/1.1 and HTTP/1.0 are spoken here");
      return false;
    } else {
      refuse(c, 400, "malformed request line");
      return false;
    }
    const bool controlInTarget = std::any_of(target.begin(), target.end(), [](char ch) {
      return static_cast<unsigned char>(ch) < 0x21 || static_cast<unsigned char>(ch) == 0x7f;
    });
    QUrl url;
    if (!controlInTarget && target.substr(0, 1) == "/") {
      url = QUrl::fromEncoded(QByteArray("http://localhost") + QByteArray(target.data(), target.size()));
    } else if (!controlInTarget && lower(target.substr(0, 7)) == "http://") {
      url = QUrl::fromEncoded(QByteArray(target.data(), target.size()));
    }
    if (!isToken(method) || !url.isValid() || url.path().isEmpty()) {
      refuse(c, 400, "malformed request line");
      return false;
    }

    ControlRequest request;
    request.method = std::string(method);
    request.url = url;
    std::optional<qint64> length;
    bool keepAlive = !c.http10;
    for (size_t i = 1; i < lines.size(); ++i) {
      const std::string_view line = lines[i];
      const auto colon = line.find(':');
      if (colon == std::string_view::npos || !isToken(line.substr(0, colon))) {
        refuse(c, 400, "malformed header line");
        return false;
      }
      std::string name = lower(line.substr(0, colon));
      const std::string_view value = trimmed(line.substr(colon + 1));
      if (name == "content-length") {
        const bool digits = !value.empty() && value.size() <= 15 &&
                            std::all_of(value.begin(), value.end(), [](char d) { return d >= '0' && d <= '9'; });
        const qint64 n = digits ? std::stoll(std::string(value)) : -1;
        if (!digits || (length && *length != n)) {
          refuse(c, 400, "malformed Content-Length");
          return false;
        }
        length = n;
      } else if (name == "transfer-encoding") {
        refuse(c, 411, "a body must come with a Content-Length; chunked bodies are not taken");
        return false;
      } else if (name == "connection") {
        if (hasToken(value, "close"))
          keepAlive = false;
        else if (hasToken(value, "keep-alive"))
          keepAlive = true;
      }
      request.headers.emplace_back(std::move(name), std::string(value));
    }
    // Refused from its announced size: none of the body is read, let alone kept.
    if (length.value_or(0) > limits::kControlMaxBodyBytes) {
      refuse(c, 413, "the body is over " + std::to_string(limits::kControlMaxBodyBytes >> 20) + " MiB");
      return false;
    }
    c.keepAlive = keepAlive;
    c.bodyLength = length.value_or(0);
    if (!c.http10 && c.bodyLength > c.buffer.size() && hasToken(request.header("expect"), "100-continue")) {
      static constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
      c.socket->write(kContinue, sizeof kContinue - 1);
    }
    c.head = std::move(request);
  }
  if (c.buffer.size() < c.bodyLength) return false;
  ControlRequest request = std::move(*c.head);
  c.head.reset();
  request.body = c.buffer.left(c.bodyLength);
  c.buffer.remove(0, c.bodyLength);
  std::string allow;
  const ControlReply reply = dispatch(request, allow);
  send(c, reply, request.method == "HEAD", !c.keepAlive, allow);
  if (!c.keepAlive) {
    startClosing(c);
    return false;
  }
  return true;
}

ControlReply ControlServer::dispatch(const ControlRequest& request, std::string& allow) const {
  const auto path = routes_.find(request.url.path().toStdString());
  if (path == routes_.end()) return ControlReply::json(vt::Json{{"error", "no such path"}}, 404);
  const auto handler = path->second.find(request.method == "HEAD" ? std::string("GET") : request.method);
  if (handler == path->second.end()) {
    for (const auto& [method, h] : path->second) allow += (allow.empty() ? "" : ", ") + method;
    if (path->second.count("GET")) allow += ", HEAD";
    return ControlReply::json(vt::Json{{"error", "method " + request.method + " is not allowed here"}}, 405);
  }
  try {
    return handler->second(request);
  } catch (const std::exception& e) {
    // A request that makes a handler throw is that request's failure, not the engine's.
    return ControlReply::json(vt::Json{{"error", std::string("internal error: ") + e.what()}}, 500);
  }
}

void ControlServer::send(Connection& c, const ControlReply& reply, bool head, bool close, const std::string& allow) {
  std::string out = "HTTP/1.1 " + std::to_string(reply.status) + " " + reasonPhrase(reply.status) + "\r\n";
  out += "Content-Type: " + reply.contentType + "\r\nContent-Length: " + std::to_string(reply.body.size()) + "\r\n";
  if (!allow.empty()) out += "Allow: " + allow + "\r\n";
  if (close) {
    out += "Connection: close\r\n";
  } else if (c.http10) {
    out += "Connection: keep-alive\r\n";
  }
  out += "\r\n";
  if (!head) out += reply.body;
  c.socket->write(out.data(), static_cast<qint64>(out.size()));
}

void ControlServer::refuse(Connection& c, int status, const std::string& reason) {
  send(c, ControlReply::json(vt::Json{{"error", reason}}, status), false, true);
  startClosing(c);
}

void ControlServer::startClosing(Connection& c) {
  c.phase = Connection::Phase::closing;
  c.head.reset();
  c.buffer = QByteArray();
  arm(c, limits::kControlLingerSeconds);
  c.socket->flush();
  if (c.socket->bytesToWrite() == 0) finishClosing(c);  // else once it has gone
  if (c.socket->state() == QAbstractSocket::ConnectedState) drain(c);
}

void ControlServer::finishClosing(Connection& c) {
  // The reply, then the end of this side's stream; the client's side stays
  // open for a moment so that what it still sends doesn't reset the
  // connection before it has read the reply.
  c.shutDown = true;
  const auto fd = c.socket->socketDescriptor();
  if (fd < 0 || ::shutdown(static_cast<int>(fd), SHUT_WR) != 0) c.socket->abort();
}

void ControlServer::drain(Connection& c) {
  // Past the limit nothing more is read: the client's bytes wait in the
  // kernel until the linger time ends the connection.
  while (c.dropped < limits::kControlLingerBytes && c.socket->bytesAvailable() > 0) {
    const qint64 skipped = c.socket->skip(std::min(kReadPiece, limits::kControlLingerBytes - c.dropped));
    if (skipped <= 0) return;
    c.dropped += skipped;
  }
}

}  // namespace vtnfs
