#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QUrl>
#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"
#include "platform/Http.h"
#include "platform/Result.h"
#include "subtitles/ResultStore.h"

namespace vt {

// A failed call to the subtitle service. `budget` is the service saying this
// month's allowance is spent; everything else is `http` with the status (0
// when no reply came) and the start of the reply.
struct RelayError {
  enum class Kind { http, budget };
  Kind kind = Kind::http;
  int status = 0;
  std::string text;

  static RelayError http(int status, std::string text) { return {Kind::http, status, std::move(text)}; }
  static RelayError budget() { return {Kind::budget, 429, {}}; }
  bool operator==(const RelayError&) const = default;
};

std::string message(const RelayError& error);

// Our subtitle service: it carries the speech-to-text and model calls on its
// routes ("opensubtitles/...", "asr", "llm") and shares proven results
// between installations ("lookup", "store/asset", "store/translation").
// Shared results only ever save work: a lookup that fails reads as empty.
class Relay {
 public:
  using Headers = std::vector<std::pair<QByteArray, QByteArray>>;
  using Query = std::vector<std::pair<std::string, std::string>>;

  static constexpr double kDefaultTimeout = 60;
  static constexpr double kLookupTimeout = 30;
  static constexpr double kStoreTimeout = 30;

  // What the service knows of one asset: its entry and translations by target.
  struct Shared {
    std::optional<AssetEntry> asset;
    std::map<std::string, TranslationEntry> translations;

    bool empty() const { return !asset && translations.empty(); }
    Json toJson() const;
    static Shared fromJson(const Json& json);  // throws DecodeError
  };

  // The wire records of the sharing routes.
  static Json lookupRecord(const std::string& asset, const std::vector<std::string>& targets);
  static Json storeAssetRecord(const std::string& asset, const AssetEntry& entry);
  static Json storeTranslationRecord(const std::string& fileId, const std::string& target,
                                     const TranslationEntry& entry);

  // `base` absent: this installation has no service route. `auth` are the
  // service's own authentication headers, sent with every request.
  Relay(HttpClient& http, std::optional<QUrl> base = defaultBase(), Headers auth = {});

  // The subtitle service's base from the endpoint table; none when unset.
  static std::optional<QUrl> defaultBase();

  bool available() const { return base_.has_value(); }

  // The request for a route ("a/b" are path components appended to the
  // base), its query sorted by name. Only meaningful when available().
  HttpRequest request(const std::string& route, Query query = {}, double timeout = kDefaultTimeout) const;

  // Passes 2xx; 429 whose first 200 bytes say "budget" is `budget`; any
  // other reply is `http` with the first 300 bytes of the body.
  static Result<void, RelayError> check(const HttpResponse& reply);

  // POSTs the record as JSON to the route and checks the reply; the body.
  QCoro::Task<Result<QByteArray, RelayError>> post(std::string route, Json body, double timeout = kDefaultTimeout,
                                                   CancelToken token = CancelToken::none());
  // Sends a request built by request() and checks the reply; the body.
  QCoro::Task<Result<QByteArray, RelayError>> send(HttpRequest request, CancelToken token = CancelToken::none());

  // What the service shares for the asset and targets; empty on any failure.
  QCoro::Task<Shared> lookup(std::string asset, std::vector<std::string> targets,
                             CancelToken token = CancelToken::none());

  // Shares a proven asset entry. Only settled timing leaves the machine: an
  // entry without settled timing stays local (false, nothing sent). True when
  // the service took it; failures are for the caller to ignore.
  QCoro::Task<bool> storeAsset(std::string asset, AssetEntry entry, CancelToken token = CancelToken::none());
  QCoro::Task<bool> storeTranslation(std::string fileId, std::string target, TranslationEntry entry,
                                     CancelToken token = CancelToken::none());

 private:
  HttpClient* http_;
  std::optional<QUrl> base_;
  Headers auth_;
};

}  // namespace vt
