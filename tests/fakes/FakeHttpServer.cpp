#include "fakes/FakeHttpServer.h"

#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QIODevice>
#include <QTcpSocket>
#include <QTimer>
#include <QUrlQuery>
#include <stdexcept>
#include <string>

namespace vt::test {

std::optional<QByteArray> FakeHttpServer::Request::header(const QByteArray& name) const {
  for (const auto& [k, v] : headers)
    if (k.compare(name, Qt::CaseInsensitive) == 0) return v;
  return std::nullopt;
}

std::optional<QString> FakeHttpServer::Request::query(const QString& name) const {
  QUrlQuery q(url);
  if (!q.hasQueryItem(name)) return std::nullopt;
  return q.queryItemValue(name, QUrl::FullyDecoded);
}

void FakeHttpServer::Reply::send(int status, const QByteArray& body,
                                 std::vector<std::pair<QByteArray, QByteArray>> headers,
                                 const QByteArray& contentType) {
  if (state_->answered || !state_->responder) return;
  state_->answered = true;
  auto& r = *state_->responder;
  r.writeStatusLine(static_cast<QHttpServerResponder::StatusCode>(status));
  bool hasType = false;
  bool hasLength = false;
  for (const auto& [k, v] : headers) {
    if (k.compare("Content-Type", Qt::CaseInsensitive) == 0) hasType = true;
    if (k.compare("Content-Length", Qt::CaseInsensitive) == 0) hasLength = true;
    r.writeHeader(k, v);
  }
  if (!hasType && !contentType.isEmpty()) r.writeHeader("Content-Type", contentType);
  if (!hasLength) r.writeHeader("Content-Length", QByteArray::number(body.size()));
  r.writeBody(state_->head ? QByteArray() : body);
  state_->responder.reset();
}

void FakeHttpServer::Reply::json(const Json& value, int status) {
  send(status, QByteArray::fromStdString(json::encode(value)), {}, "application/json");
}

void FakeHttpServer::Reply::stream(int status, QIODevice* body, std::pair<QByteArray, QByteArray> header,
                                   const QByteArray& contentType) {
  if (state_->answered || !state_->responder) {
    delete body;
    return;
  }
  state_->answered = true;
  state_->responder->write(body, {{"Content-Type", contentType}, std::move(header)},
                           static_cast<QHttpServerResponder::StatusCode>(status));
  state_->responder.reset();
}

void FakeHttpServer::Reply::hold() { state_->held = true; }

FakeHttpServer::FakeHttpServer() {
  server_.setMissingHandler([this](const QHttpServerRequest& req, QHttpServerResponder&& responder) {
    Request r;
    const auto methodName = [&] {
      switch (req.method()) {
        case QHttpServerRequest::Method::Get:
          return QByteArray("GET");
        case QHttpServerRequest::Method::Put:
          return QByteArray("PUT");
        case QHttpServerRequest::Method::Delete:
          return QByteArray("DELETE");
        case QHttpServerRequest::Method::Post:
          return QByteArray("POST");
        case QHttpServerRequest::Method::Head:
          return QByteArray("HEAD");
        case QHttpServerRequest::Method::Options:
          return QByteArray("OPTIONS");
        case QHttpServerRequest::Method::Patch:
          return QByteArray("PATCH");
        default:
          return QByteArray("OTHER");
      }
    };
    r.method = methodName();
    r.url = req.url();
    r.path = r.url.path(QUrl::FullyDecoded);
    r.rawQuery = r.url.query(QUrl::FullyEncoded);
    for (const auto& [k, v] : req.headers()) r.headers.emplace_back(k, v);
    r.body = req.body();
    requests_.push_back(r);

    Reply reply;
    reply.state_ = std::make_shared<Reply::State>();
    reply.state_->responder = std::make_unique<QHttpServerResponder>(std::move(responder));
    reply.state_->head = r.method == "HEAD";
    if (QTcpSocket* socket = reply.state_->responder->socket()) {
      // A client that gives up closes the connection before the answer.
      std::weak_ptr<Reply::State> weak = reply.state_;
      QObject::connect(socket, &QTcpSocket::disconnected, &server_, [weak, abandoned = abandoned_] {
        if (auto state = weak.lock(); state && !state->answered) ++*abandoned;
      });
    }
    if (latencyMs <= 0) return answer(r, reply);
    QTimer::singleShot(latencyMs, &server_, [this, r, reply]() mutable { answer(r, reply); });
  });
  const quint16 wanted = nextPort_ ? nextPort_++ : 0;
  port_ = server_.listen(QHostAddress::LocalHost, wanted);
  if (port_ == 0)
    throw std::runtime_error("fake server could not listen on 127.0.0.1" +
                             (wanted ? ":" + std::to_string(wanted) : std::string()));
}

FakeHttpServer::~FakeHttpServer() = default;

std::atomic<quint16> FakeHttpServer::nextPort_{0};

void FakeHttpServer::listenFrom(quint16 first) { nextPort_ = first; }

QUrl FakeHttpServer::baseUrl() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port_)); }

QUrl FakeHttpServer::url(const QString& pathAndQuery) const {
  return QUrl(baseUrl().toString() + pathAndQuery, QUrl::TolerantMode);
}

void FakeHttpServer::on(const QByteArray& method, const QString& path, Handler handler) {
  routes_.push_back({method, path, false, std::move(handler)});
}

void FakeHttpServer::onPrefix(const QByteArray& method, const QString& prefix, Handler handler) {
  routes_.push_back({method, prefix, true, std::move(handler)});
}

std::vector<FakeHttpServer::Request> FakeHttpServer::requestsTo(const QString& path) const {
  std::vector<Request> out;
  for (const auto& r : requests_)
    if (r.path == path) out.push_back(r);
  return out;
}

void FakeHttpServer::answer(const Request& request, Reply& reply) {
  dispatch(request, reply);
  if (reply.state_->held && !reply.answered()) {
    held_.push_back(reply);
  } else if (!reply.answered() && reply.state_.use_count() == 1) {
    reply.send(404, "no route");
  }
}

void FakeHttpServer::dispatch(const Request& request, Reply& reply) {
  for (auto it = routes_.rbegin(); it != routes_.rend(); ++it) {
    const bool methodOk =
        it->method == "*" || it->method == request.method || (request.method == "HEAD" && it->method == "GET");
    const bool pathOk = it->prefix ? request.path.startsWith(it->path) : request.path == it->path;
    if (methodOk && pathOk) {
      it->handler(request, reply);
      return;
    }
  }
}

}  // namespace vt::test
