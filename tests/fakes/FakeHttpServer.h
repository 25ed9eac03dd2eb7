#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QHttpServer>
#include <QString>
#include <QUrl>

#include "platform/Json.h"

class QHttpServerResponder;
class QIODevice;

namespace vt::test {

// A real HTTP server on 127.0.0.1 with a free port, for tests. Routes are
// matched by method and path (exact, or by prefix); every request is recorded
// so that tests can assert on paths, query order and headers. Services'
// fakes (Plex, Real-Debrid, add-ons...) derive from it and add their routes.
class FakeHttpServer {
 public:
  struct Request {
    QByteArray method;
    QString path;      // decoded path
    QString rawQuery;  // the query as it arrived, percent-encoding kept
    QUrl url;
    std::vector<std::pair<QByteArray, QByteArray>> headers;
    QByteArray body;

    std::optional<QByteArray> header(const QByteArray& name) const;
    // First value of a query item, decoded.
    std::optional<QString> query(const QString& name) const;
  };

  // The answer to one request. Copies share the connection, so a handler can
  // keep one and answer later; hold() keeps it open without an answer.
  // A "Content-Length" among the headers replaces the body's own (HEAD of a
  // large file).
  class Reply {
   public:
    void send(int status, const QByteArray& body = {}, std::vector<std::pair<QByteArray, QByteArray>> headers = {},
              const QByteArray& contentType = "text/plain");
    void json(const Json& value, int status = 200);
    // Streams a body of known size from `body` (taken over) as the client
    // reads it, for bodies too large to build in memory; one extra header.
    void stream(int status, QIODevice* body, std::pair<QByteArray, QByteArray> header = {"Accept-Ranges", "bytes"},
                const QByteArray& contentType = "application/octet-stream");
    void hold();
    bool answered() const { return state_->answered; }

   private:
    friend class FakeHttpServer;
    struct State {
      std::unique_ptr<QHttpServerResponder> responder;
      bool head = false;
      bool answered = false;
      bool held = false;
    };
    std::shared_ptr<State> state_;
  };

  using Handler = std::function<void(const Request&, Reply&)>;

  FakeHttpServer();
  virtual ~FakeHttpServer();
  FakeHttpServer(const FakeHttpServer&) = delete;
  FakeHttpServer& operator=(const FakeHttpServer&) = delete;

  // Real time every request waits before its route answers: a service at
  // its usual distance.
  int latencyMs = 0;

  // Servers made after this listen on `first`, `first` + 1, ... instead of
  // free ports (a lab with addresses that stay the same between starts);
  // 0 goes back to free ports.
  static void listenFrom(quint16 first);

  quint16 port() const { return port_; }
  QUrl baseUrl() const;
  QUrl url(const QString& pathAndQuery) const;

  // Method "*" matches any method. Later routes win over earlier ones.
  void on(const QByteArray& method, const QString& path, Handler handler);
  void onPrefix(const QByteArray& method, const QString& prefix, Handler handler);

  const std::vector<Request>& requests() const { return requests_; }
  // Requests whose client closed the connection before an answer went out.
  int abandonedRequests() const { return *abandoned_; }
  std::vector<Request> requestsTo(const QString& path) const;
  void clearRequests() { requests_.clear(); }

 private:
  struct Route {
    QByteArray method;
    QString path;
    bool prefix;
    Handler handler;
  };
  void answer(const Request& request, Reply& reply);
  void dispatch(const Request& request, Reply& reply);

  QHttpServer server_;
  quint16 port_ = 0;
  std::vector<Route> routes_;
  std::vector<Request> requests_;
  std::vector<Reply> held_;
  std::shared_ptr<int> abandoned_ = std::make_shared<int>(0);
  static std::atomic<quint16> nextPort_;
};

}  // namespace vt::test
