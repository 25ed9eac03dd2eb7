#include "platform/Http.h"

#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <qcoro/qcoronetworkreply.h>

#include "platform/Clock.h"
#include "platform/HttpCache.h"

namespace vt {

namespace {

// Cookies are dropped for ephemeral sessions.
class NoCookies final : public QNetworkCookieJar {
 public:
  bool setCookiesFromUrl(const QList<QNetworkCookie>&, const QUrl&) override { return false; }
  QList<QNetworkCookie> cookiesForUrl(const QUrl&) const override { return {}; }
};

}  // namespace

QNetworkAccessManager& sharedNetworkManager() {
  static auto* manager = new QNetworkAccessManager();
  return *manager;
}

HttpClient& sharedHttpClient() {
  static auto* client = new HttpClient(systemClock(), HttpClient::Session::shared);
  return *client;
}

void installSharedHttpCache(int64_t memoryBytes, int64_t diskBytes, const QString& diskDirectory) {
  auto* cache = new TieredNetworkCache(memoryBytes, diskBytes, diskDirectory);
  sharedNetworkManager().setCache(cache);  // takes ownership
}

std::optional<QByteArray> HttpResponse::header(const QByteArray& name) const {
  for (const auto& [k, v] : headers)
    if (k.compare(name, Qt::CaseInsensitive) == 0) return v;
  return std::nullopt;
}

HttpClient::HttpClient(Clock& clock, Session session)
    : clock_(clock),
      manager_(session == Session::shared ? &sharedNetworkManager() : new QNetworkAccessManager()),
      ownsManager_(session == Session::ephemeral) {
  if (ownsManager_) manager_->setCookieJar(new NoCookies());
}

HttpClient::~HttpClient() {
  // Requests still open end now, as failures: their timers go while the
  // clock stands, and their jobs resume without touching this client. A
  // client that owns its manager closes their connections too.
  auto open = std::move(inFlight_);
  for (auto& [reply, flight] : open) {
    flight->abandoned = true;
    if (!flight->timerDone) {
      flight->timerDone = true;
      clock_.cancelTimer(flight->timer);
    }
  }
  if (!ownsManager_) return;
  for (QNetworkReply* reply : manager_->findChildren<QNetworkReply*>())
    if (reply->isRunning()) reply->abort();
  manager_->deleteLater();
}

QCoro::Task<HttpResponse> HttpClient::send(HttpRequest request, CancelToken token) {
  HttpResponse response;
  if (token.isCancelled()) {
    response.failure = HttpFailure::cancelled;
    response.errorText = "cancelled";
    co_return response;
  }
  QNetworkRequest req(request.url);
  req.setAttribute(QNetworkRequest::RedirectPolicyAttribute, request.followRedirects
                                                                 ? QNetworkRequest::NoLessSafeRedirectPolicy
                                                                 : QNetworkRequest::ManualRedirectPolicy);
  req.setTransferTimeout(0);  // the clock below owns the time limit
  for (const auto& [k, v] : request.headers) req.setRawHeader(k, v);
  // A body-less POST or PUT still says what it carries.
  if ((request.method == "POST" || request.method == "PUT") && !req.hasRawHeader("Content-Type"))
    req.setRawHeader("Content-Type", "application/x-www-form-urlencoded");
  if (request.range) {
    QByteArray value = "bytes=" + QByteArray::number(static_cast<qlonglong>(request.range->first)) + "-";
    if (request.range->second) value += QByteArray::number(static_cast<qlonglong>(*request.range->second));
    req.setRawHeader("Range", value);
    // A cached full body must not answer a ranged read.
    req.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    req.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
  }

  QNetworkReply* raw = nullptr;
  if (request.method == "GET")
    raw = manager_->get(req);
  else if (request.method == "HEAD")
    raw = manager_->head(req);
  else if (request.method == "POST")
    raw = manager_->post(req, request.body);
  else if (request.method == "PUT")
    raw = manager_->put(req, request.body);
  else if (request.method == "DELETE" && request.body.isEmpty())
    raw = manager_->deleteResource(req);
  else
    raw = manager_->sendCustomRequest(req, request.method, request.body);
  std::unique_ptr<QNetworkReply, void (*)(QNetworkReply*)> reply(raw, [](QNetworkReply* r) { r->deleteLater(); });

  // The callbacks may outlive this frame (a request whose client or job
  // is gone): they hold shared state and a guarded reply, never locals. The
  // timer is cancelled while its clock surely stands: when the request ends,
  // when the token is cancelled, or when the client goes; a request whose
  // client went touches nothing of it when it resumes.
  auto flight = std::make_shared<InFlight>();
  QPointer<QNetworkReply> guard(raw);
  Clock* clock = &clock_;
  flight->timer = clock->schedule(request.timeoutSeconds, [flight, guard] {
    flight->timerDone = true;
    if (guard && guard->isRunning()) {
      flight->timedOut = true;
      guard->abort();
    }
  });
  const auto cb = token.onCancel([flight, guard, clock] {
    if (!flight->timerDone) {
      flight->timerDone = true;
      clock->cancelTimer(flight->timer);
    }
    if (guard && guard->isRunning()) {
      flight->cancelled = true;
      guard->abort();
    }
  });
  if (request.maxBodyBytes) {
    const int64_t limit = *request.maxBodyBytes;
    QObject::connect(raw, &QNetworkReply::downloadProgress, raw, [flight, guard, limit](qint64 received, qint64) {
      if (received <= limit || !guard || !guard->isRunning() || flight->truncated) return;
      // An aborted reply can no longer be read: keep what came first.
      flight->truncated = true;
      flight->status = guard->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
      for (const auto& pair : guard->rawHeaderPairs()) flight->headers.emplace_back(pair.first, pair.second);
      flight->body = guard->read(limit);
      guard->abort();
    });
  }
  inFlight_[raw] = flight;

  if (raw->isRunning()) co_await qCoro(raw).waitForFinished(std::chrono::milliseconds(-1));
  token.removeCallback(cb);
  if (flight->abandoned || !guard) {
    // The client went (and its manager with the reply): nothing of them may
    // be read or touched.
    reply.release();
    response.failure = HttpFailure::network;
    response.errorText = "the request was abandoned";
    co_return response;
  }
  // Not abandoned, so this client (and the clock it was made with) stands.
  inFlight_.erase(raw);
  if (!flight->timerDone) clock->cancelTimer(flight->timer);
  const auto outcome = flight;
  const bool timedOut = outcome->timedOut;
  const bool cancelled = outcome->cancelled;

  response.finalUrl = raw->url();
  const auto statusAttr = raw->attribute(QNetworkRequest::HttpStatusCodeAttribute);
  response.fromCache = raw->attribute(QNetworkRequest::SourceIsFromCacheAttribute).toBool();
  if (timedOut) {
    response.failure = HttpFailure::timeout;
    response.errorText = "The request timed out.";
    co_return response;
  }
  if (cancelled) {
    response.failure = HttpFailure::cancelled;
    response.errorText = "cancelled";
    co_return response;
  }
  if (outcome->truncated) {
    response.status = outcome->status;
    response.headers = std::move(outcome->headers);
    response.body = std::move(outcome->body);
    response.truncated = true;
    co_return response;
  }
  // A redirect that could not be followed (a loop, or https to http) leaves
  // the 3xx behind: that is no answer, not an answer of 3xx.
  const auto error = raw->error();
  if (!statusAttr.isValid() || error == QNetworkReply::TooManyRedirectsError ||
      error == QNetworkReply::InsecureRedirectError) {
    response.failure = HttpFailure::network;
    response.errorText = raw->errorString().toStdString();
    co_return response;
  }
  response.status = statusAttr.toInt();
  for (const auto& pair : raw->rawHeaderPairs()) response.headers.emplace_back(pair.first, pair.second);
  response.body = raw->readAll();
  co_return response;
}

QCoro::Task<HttpResponse> HttpClient::get(QUrl url, double timeoutSeconds, CancelToken token) {
  HttpRequest r;
  r.url = std::move(url);
  r.timeoutSeconds = timeoutSeconds;
  co_return co_await send(std::move(r), std::move(token));
}

QCoro::Task<HttpResponse> HttpClient::head(QUrl url, double timeoutSeconds, CancelToken token) {
  HttpRequest r;
  r.url = std::move(url);
  r.method = "HEAD";
  r.timeoutSeconds = timeoutSeconds;
  co_return co_await send(std::move(r), std::move(token));
}

QCoro::Task<HttpResponse> HttpClient::postJson(QUrl url, const Json& body, double timeoutSeconds, CancelToken token) {
  HttpRequest r;
  r.url = std::move(url);
  r.method = "POST";
  r.headers.emplace_back("Content-Type", "application/json");
  r.body = QByteArray::fromStdString(json::encode(body));
  r.timeoutSeconds = timeoutSeconds;
  co_return co_await send(std::move(r), std::move(token));
}

}  // namespace vt
