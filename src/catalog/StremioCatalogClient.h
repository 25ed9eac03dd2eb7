#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QUrl>
#include <qcoro/qcorotask.h>

#include "catalog/CatalogTypes.h"
#include "platform/Cancellation.h"
#include "platform/Json.h"
#include "platform/Result.h"

namespace vt {

class HttpClient;

// What an add-on's manifest offers: its catalogs and their extra fields.
// Fields it doesn't know are ignored.
struct StremioManifest {
  struct ExtraField {
    std::string name;
    std::optional<std::vector<std::string>> options;
    bool operator==(const ExtraField&) const = default;
  };
  struct CatalogEntry {
    std::string type;
    std::string id;
    std::optional<std::vector<ExtraField>> extra;
    bool operator==(const CatalogEntry&) const = default;
  };
  std::vector<CatalogEntry> catalogs;
};

// Why a manifest could not be read.
struct CatalogFetchError {
  enum class Kind { badAddress, network, status, undecodable };
  Kind kind = Kind::network;
  int status = 0;  // Kind::status
  bool operator==(const CatalogFetchError&) const = default;
};
std::string message(const CatalogFetchError& error);

// Background art and trailers of a title, for browsing.
struct TitleStills {
  std::optional<std::string> background;
  std::vector<std::string> trailers;  // YouTube ids
};

// The catalog side of the Stremio add-on protocol: pages of a catalog, the
// manifest, single records and searches. No state beyond where Cinemeta is.
// A field of the wrong JSON type fails the whole answer: a list read wrongly
// must not look like a shorter list.
class StremioCatalogClient {
 public:
  static constexpr double kPageTimeout = 20;
  static constexpr double kRetryPause = 1.5;
  static constexpr double kManifestTimeout = 15;
  static constexpr double kMetaTimeout = 10;
  static constexpr double kStillsTimeout = 12;
  static constexpr double kSearchTimeout = 15;
  static constexpr int kMaxPages = 500;

  StremioCatalogClient(HttpClient& http, QUrl cinemeta) : http_(http), cinemeta_(std::move(cinemeta)) {}

  // Seen by the catalog verb: each page a walk reads, with its offset.
  std::function<void(int skip, const std::vector<CatalogMeta>& page)> onPage;

  // One page; none when it failed twice (1.5 s apart) or didn't decode.
  QCoro::Task<std::optional<std::vector<CatalogMeta>>> catalogPage(QUrl base, std::string type, std::string catalogId,
                                                                   std::optional<std::string> genre, int skip,
                                                                   CancelToken token = CancelToken::none());
  // Pages from the start until `limit` distinct ids, an empty page or 500
  // pages. All or nothing: one failed page (or a cancel) fails the whole walk.
  QCoro::Task<std::optional<std::vector<CatalogMeta>>> metas(QUrl base, std::string type, std::string catalogId,
                                                             std::optional<std::string> genre, int limit,
                                                             CancelToken token = CancelToken::none());
  QCoro::Task<Result<StremioManifest, CatalogFetchError>> manifest(QUrl base, CancelToken token = CancelToken::none());
  // The genre options of one catalog of a manifest; empty for any absence.
  static std::vector<std::string> genres(const StremioManifest& manifest, std::string_view type,
                                         std::string_view catalogId);
  // One record from Cinemeta.
  QCoro::Task<std::optional<CatalogMeta>> meta(std::string type, std::string id,
                                               CancelToken token = CancelToken::none());
  QCoro::Task<TitleStills> stills(std::string type, std::string id, CancelToken token = CancelToken::none());
  // One try; any failure is an empty list.
  QCoro::Task<std::vector<CatalogMeta>> search(QUrl base, std::string type, std::string query,
                                               CancelToken token = CancelToken::none());

  // The address of a catalog page: extras "genre=" then "skip=" (only above
  // 0), each part percent-encoded but the extras' "=" and "&". None when the
  // base is no URL.
  static std::optional<QUrl> pageURL(const QUrl& base, std::string_view type, std::string_view catalogId,
                                     const std::optional<std::string>& genre, int skip);
  // Decoders of the wire records; none when a field has the wrong type or a
  // required one is missing.
  static std::optional<std::vector<CatalogMeta>> decodePage(std::string_view body, std::string_view type);
  static std::optional<StremioManifest> decodeManifest(std::string_view body);

 private:
  QCoro::Task<std::optional<Json>> metaRecord(std::string type, std::string id, double timeout, CancelToken token);

  HttpClient& http_;
  QUrl cinemeta_;
};

}  // namespace vt
