#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"
#include "platform/Json.h"

class QNetworkAccessManager;
class QAbstractNetworkCache;

namespace vt {

class Clock;

struct HttpRequest {
  QUrl url;
  QByteArray method = "GET";
  std::vector<std::pair<QByteArray, QByteArray>> headers;
  QByteArray body;
  double timeoutSeconds = 60;
  // Inclusive byte range; `last` absent reads to the end.
  std::optional<std::pair<int64_t, std::optional<int64_t>>> range;
  bool followRedirects = true;
  // Stop reading after this many body bytes: the request is aborted and the
  // response keeps its status, headers and the first bytes. For probes of
  // servers that may answer a small range with a whole film.
  std::optional<int64_t> maxBodyBytes;
};

enum class HttpFailure {
  none,       // a response arrived (any status)
  timeout,    // the per-request time limit ran out
  cancelled,  // the job's token was cancelled
  network,    // no response: refused, reset, DNS, TLS...
};

struct HttpResponse {
  int status = 0;  // 0 when no response arrived
  QByteArray body;
  std::vector<std::pair<QByteArray, QByteArray>> headers;
  QUrl finalUrl;  // after redirects
  HttpFailure failure = HttpFailure::none;
  std::string errorText;  // for failure != none
  bool fromCache = false;
  bool truncated = false;  // the body was cut at maxBodyBytes

  bool ok() const { return failure == HttpFailure::none && status >= 200 && status < 300; }
  // Case-insensitive header lookup.
  std::optional<QByteArray> header(const QByteArray& name) const;
  // The body as JSON; none when it does not parse.
  std::optional<Json> json() const { return json::parse(std::string_view(body.constData(), body.size())); }
};

// HTTP over QNetworkAccessManager, awaited from jobs on the main thread.
// Timeouts run on the injected clock. A shared client uses the application's
// response cache; an ephemeral one keeps no cache and no cookies.
class HttpClient {
 public:
  enum class Session { shared, ephemeral };

  explicit HttpClient(Clock& clock, Session session = Session::shared);
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  QCoro::Task<HttpResponse> send(HttpRequest request, CancelToken token = CancelToken::none());

  QCoro::Task<HttpResponse> get(QUrl url, double timeoutSeconds = 60, CancelToken token = CancelToken::none());
  QCoro::Task<HttpResponse> head(QUrl url, double timeoutSeconds = 60, CancelToken token = CancelToken::none());
  QCoro::Task<HttpResponse> postJson(QUrl url, const Json& body, double timeoutSeconds = 60,
                                     CancelToken token = CancelToken::none());

  Clock& clock() const { return clock_; }

 private:
  Clock& clock_;
  QNetworkAccessManager* manager_;
  bool ownsManager_;
  // What a request in flight shares with its callbacks and with this
  // client's destructor.
  struct InFlight {
    uint64_t timer = 0;
    bool timerDone = false;  // fired or cancelled
    bool timedOut = false;
    bool cancelled = false;
    bool abandoned = false;  // the client went first
    bool truncated = false;  // aborted at the body limit; what had come is below
    int status = 0;
    std::vector<std::pair<QByteArray, QByteArray>> headers;
    QByteArray body;
  };
  std::map<const void*, std::shared_ptr<InFlight>> inFlight_;
};

// Installs the application-wide response cache on the shared session: an
// in-memory tier of `memoryBytes` in front of a disk tier of `diskBytes` in
// `diskDirectory`. Called once at start-up, before any shared request.
void installSharedHttpCache(int64_t memoryBytes, int64_t diskBytes, const QString& diskDirectory);

// The process-wide client on the shared session and the system clock.
HttpClient& sharedHttpClient();

// The shared session's manager (main thread), for callers that need Qt directly.
QNetworkAccessManager& sharedNetworkManager();

}  // namespace vt
