#pragma once

#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QObject>
#include <QTcpServer>
#include <QUrl>

#include "ConnectionLimits.h"
#include "platform/Clock.h"
#include "platform/Json.h"

namespace vtnfs {

// One request of the control port, its body whole.
struct ControlRequest {
  std::string method;
  QUrl url;                                                  // path and query, as the request line has them
  std::vector<std::pair<std::string, std::string>> headers;  // names in lower case
  QByteArray body;

  // The first value of a header, "" when there is none.
  std::string header(const std::string& lowerCaseName) const;
};

struct ControlReply {
  int status = 200;
  std::string contentType = "text/plain";
  std::string body;

  static ControlReply json(const vt::Json& value, int status = 200);
  static ControlReply text(std::string body, int status = 200);
};

// The HTTP/1.1 server of the control port. Requests are read one at a time
// per connection (keep-alive and pipelining allowed), with bodies of a known
// Content-Length only. Whatever a client sends, the server holds no more of
// it than the header limit plus the body limit: a larger header block is answered
// 431, a larger body 413, a chunked one 411, each with {"error": reason},
// and the connection closes without the rest being kept. A connection idle
// between requests, or one whose request stays unfinished, is closed after
// the limits in ConnectionLimits.h, timed by the given clock.
class ControlServer : public QObject {
 public:
  enum class Method { get, post };
  using Handler = std::function<ControlReply(const ControlRequest&)>;

  explicit ControlServer(vt::Clock& clock = vt::systemClock()) : clock_(clock) {}

  // A handler for one method of one path; GET routes answer HEAD as well.
  // Another path is answered 404, another method of a known path 405.
  void route(const std::string& path, Method method, Handler handler);
  template <typename F>
  requires(!std::is_invocable_v<F, const ControlRequest&> &&
           std::is_invocable_r_v<ControlReply, F>) void route(const std::string& path, Method method, F handler) {
    route(path, method, Handler([h = std::move(handler)](const ControlRequest&) { return h(); }));
  }

  bool listen(const QHostAddress& address, quint16 port);
  QString errorString() const { return server_.errorString(); }
  quint16 port() const { return server_.serverPort(); }

 private:
  struct Connection;
  void accept();
  void pump(Connection& c);
  // Takes one request from the buffer: false when more bytes are needed or
  // the connection is closing.
  bool nextRequest(Connection& c);
  ControlReply dispatch(const ControlRequest& request, std::string& allow) const;
  void send(Connection& c, const ControlReply& reply, bool head, bool close, const std::string& allow = {});
  // Answers {"error": reason} and closes: the rest of what the client sends is never parsed.
  void refuse(Connection& c, int status, const std::string& reason);
  void startClosing(Connection& c);
  void finishClosing(Connection& c);
  void drain(Connection& c);
  void arm(Connection& c, double seconds);
  void timedOut(Connection& c);

  vt::Clock& clock_;
  QTcpServer server_;
  std::map<std::string, std::map<std::string, Handler>> routes_;  // path, then method
};

}  // namespace vtnfs
