#include "catalog/StremioCatalogClient.h"

#include <set>

#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Json.h"
#include "platform/PercentEncoding.h"
#include "platform/Text.h"
#include "platform/Url.h"

namespace vt {

namespace {

using Field = std::optional<std::optional<std::string>>;  // outer none: wrong type

// An optional text field: absent or null is none; any other type fails.
Field textField(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || it->is_null()) return std::optional<std::string>();
  if (!it->is_string()) return std::nullopt;
  return std::optional<std::string>(it->get<std::string>());
}

// The base's text without a trailing "/", so that paths join with one.
std::string baseText(const QUrl& base) {
  std::string text = base.toString(QUrl::FullyEncoded).toStdString();
  while (!text.empty() && text.back() == '/') text.pop_back();
  return text;
}

std::string encoded(std::string_view text) { return percentEncode(text, PlainSet::ascii); }

// A row as the catalog keeps it: the name falls back to the id, the year to
// the release info.
std::optional<CatalogMeta> row(const Json& item, std::string_view type, const char* yearKey) {
  if (!item.is_object()) return std::nullopt;
  const auto id = item.find("id");
  if (id == item.end() || !id->is_string()) return std::nullopt;
  const Field name = textField(item, "name"), year = textField(item, yearKey),
              releaseInfo = textField(item, "releaseInfo"), released = textField(item, "released"),
              poster = textField(item, "poster");
  if (!name || !year || !releaseInfo || !released || !poster) return std::nullopt;
  CatalogMeta m;
  m.id = id->get<std::string>();
  m.name = name->value_or(m.id);
  m.year = year->value_or(releaseInfo->value_or(""));
  m.posterURL = *poster;
  m.released = *released;
  m.mediaType = std::string(type);
  return m;
}

}  // namespace

std::string message(const CatalogFetchError& error) {
  switch (error.kind) {
    case CatalogFetchError::Kind::badAddress:
      return "The add-on address isn't a URL";
    case CatalogFetchError::Kind::network:
      return "Couldn't reach the add-on";
    case CatalogFetchError::Kind::status:
      return "The add-on answered HTTP " + std::to_string(error.status);
    case CatalogFetchError::Kind::undecodable:
      return "The add-on's manifest couldn't be read";
  }
  return "Couldn't reach the add-on";
}

std::optional<QUrl> StremioCatalogClient::pageURL(const QUrl& base, std::string_view type, std::string_view catalogId,
                                                  const std::optional<std::string>& genre, int skip) {
  std::vector<std::string> extras;
  if (genre) extras.push_back("genre=" + encoded(*genre));
  if (skip > 0) extras.push_back("skip=" + std::to_string(skip));
  std::string path = baseText(base) + "/catalog/" + encoded(type) + "/" + encoded(catalogId);
  for (size_t i = 0; i < extras.size(); ++i) path += (i == 0 ? "/" : "&") + extras[i];
  return parseUrl(path + ".json");
}

std::optional<std::vector<CatalogMeta>> StremioCatalogClient::decodePage(std::string_view body, std::string_view type) {
  const auto j = json::parse(body);
  if (!j || !j->is_object()) return std::nullopt;
  const auto list = j->find("metas");
  if (list == j->end() || !list->is_array()) return std::nullopt;
  std::vector<CatalogMeta> out;
  out.reserve(list->size());
  for (const auto& item : *list) {
    auto m = row(item, type, "year");
    if (!m) return std::nullopt;
    out.push_back(std::move(*m));
  }
  return out;
}

std::optional<StremioManifest> StremioCatalogClient::decodeManifest(std::string_view body) {
  const auto j = json::parse(body);
  if (!j || !j->is_object()) return std::nullopt;
  StremioManifest manifest;
  const auto catalogs = j->find("catalogs");
  if (catalogs == j->end() || !catalogs->is_array()) return std::nullopt;
  const auto text = [](const Json& o, const char* key) -> std::optional<std::string> {
    const auto it = o.find(key);
    if (it == o.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
  };
  for (const auto& c : *catalogs) {
    if (!c.is_object()) return std::nullopt;
    StremioManifest::CatalogEntry entry;
    const auto type = text(c, "type"), id = text(c, "id");
    if (!type || !id) return std::nullopt;
    entry.type = *type;
    entry.id = *id;
    if (const auto extra = c.find("extra"); extra != c.end() && !extra->is_null()) {
      if (!extra->is_array()) return std::nullopt;
      entry.extra.emplace();
      for (const auto& f : *extra) {
        if (!f.is_object()) return std::nullopt;
        StremioManifest::ExtraField field;
        const auto name = text(f, "name");
        if (!name) return std::nullopt;
        field.name = *name;
        if (const auto options = f.find("options"); options != f.end() && !options->is_null()) {
          if (!options->is_array()) return std::nullopt;
          field.options.emplace();
          for (const auto& o : *options) {
            if (!o.is_string()) return std::nullopt;
            field.options->push_back(o.get<std::string>());
          }
        }
        entry.extra->push_back(std::move(field));
      }
    }
    manifest.catalogs.push_back(std::move(entry));
  }
  return manifest;
}

QCoro::Task<std::optional<std::vector<CatalogMeta>>> StremioCatalogClient::catalogPage(QUrl base, std::string type,
                                                                                       std::string catalogId,
                                                                                       std::optional<std::string> genre,
                                                                                       int skip, CancelToken token) {
  const auto url = pageURL(base, type, catalogId, genre, skip);
  if (!url) co_return std::nullopt;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (attempt > 0 && !co_await http_.clock().sleep(kRetryPause, token)) co_return std::nullopt;
    const HttpResponse reply = co_await http_.get(*url, kPageTimeout, token);
    if (token.isCancelled()) co_return std::nullopt;
    if (reply.failure == HttpFailure::none && reply.status == 200) {
      auto page = decodePage(std::string_view(reply.body.constData(), reply.body.size()), type);
      if (page) co_return page;
    }
  }
  co_return std::nullopt;
}

QCoro::Task<std::optional<std::vector<CatalogMeta>>> StremioCatalogClient::metas(QUrl base, std::string type,
                                                                                 std::string catalogId,
                                                                                 std::optional<std::string> genre,
                                                                                 int limit, CancelToken token) {
  std::vector<CatalogMeta> out;
  std::set<std::string> seen;
  int skip = 0;
  // However an add-on pages, a walk ends: a cancel is seen before each page,
  // and 500 pages are the most it reads.
  for (int pages = 0; static_cast<int>(out.size()) < limit && pages < kMaxPages; ++pages) {
    if (token.isCancelled()) co_return std::nullopt;
    auto page = co_await catalogPage(base, type, catalogId, genre, skip, token);
    if (!page) co_return std::nullopt;
    if (onPage) onPage(skip, *page);
    if (page->empty()) break;
    for (auto& m : *page) {
      if (static_cast<int>(out.size()) >= limit) break;
      if (seen.insert(m.id).second) out.push_back(std::move(m));
    }
    skip += static_cast<int>(page->size());
  }
  co_return out;
}

QCoro::Task<Result<StremioManifest, CatalogFetchError>> StremioCatalogClient::manifest(QUrl base, CancelToken token) {
  using Kind = CatalogFetchError::Kind;
  const auto url = parseUrl(baseText(base) + "/manifest.json");
  if (!url) co_return Failure{CatalogFetchError{Kind::badAddress, 0}};
  const HttpResponse reply = co_await http_.get(*url, kManifestTimeout, token);
  if (reply.failure != HttpFailure::none) co_return Failure{CatalogFetchError{Kind::network, 0}};
  if (reply.status != 200) co_return Failure{CatalogFetchError{Kind::status, reply.status}};
  auto decoded = decodeManifest(std::string_view(reply.body.constData(), reply.body.size()));
  if (!decoded) co_return Failure{CatalogFetchError{Kind::undecodable, 0}};
  co_return std::move(*decoded);
}

std::vector<std::string> StremioCatalogClient::genres(const StremioManifest& manifest, std::string_view type,
                                                      std::string_view catalogId) {
  for (const auto& c : manifest.catalogs) {
    if (c.type != type || c.id != catalogId) continue;
    if (!c.extra) return {};
    for (const auto& f : *c.extra)
      if (f.name == "genre") return f.options.value_or(std::vector<std::string>{});
    return {};
  }
  return {};
}

// Cinemeta's record of a title: the "meta" object of its answer, none for
// anything else.
QCoro::Task<std::optional<Json>> StremioCatalogClient::metaRecord(std::string type, std::string id, double timeout,
                                                                  CancelToken token) {
  const auto url = parseUrl(baseText(cinemeta_) + "/meta/" + encoded(type) + "/" + encoded(id) + ".json");
  if (!url) co_return std::nullopt;
  const HttpResponse reply = co_await http_.get(*url, timeout, token);
  if (reply.failure != HttpFailure::none || reply.status != 200) co_return std::nullopt;
  const auto j = reply.json();
  if (!j || !j->is_object() || !j->contains("meta")) co_return std::nullopt;
  Json record = j->at("meta");
  co_return record;
}

QCoro::Task<std::optional<CatalogMeta>> StremioCatalogClient::meta(std::string type, std::string id,
                                                                   CancelToken token) {
  const auto record = co_await metaRecord(type, std::move(id), kMetaTimeout, token);
  if (!record) co_return std::nullopt;
  co_return row(*record, type, "year");
}

QCoro::Task<TitleStills> StremioCatalogClient::stills(std::string type, std::string id, CancelToken token) {
  TitleStills out;
  const auto record = co_await metaRecord(std::move(type), std::move(id), kStillsTimeout, token);
  if (!record || !record->is_object()) co_return out;
  const auto meta = &*record;
  const Field background = textField(*meta, "background");
  if (!background) co_return out;
  std::vector<std::string> trailers;
  if (const auto list = meta->find("trailerStreams"); list != meta->end() && !list->is_null()) {
    if (!list->is_array()) co_return out;
    for (const auto& t : *list) {
      if (!t.is_object()) co_return out;
      const Field yt = textField(t, "ytId");
      if (!yt) co_return out;
      if (*yt) trailers.push_back(**yt);
    }
  }
  out.background = *background;
  out.trailers = std::move(trailers);
  co_return out;
}

QCoro::Task<std::vector<CatalogMeta>> StremioCatalogClient::search(QUrl base, std::string type, std::string query,
                                                                   CancelToken token) {
  const std::string q = trimmed(query);
  if (q.empty()) co_return std::vector<CatalogMeta>{};
  const auto url = parseUrl(baseText(base) + "/catalog/" + encoded(type) + "/top/search=" + encoded(q) + ".json");
  if (!url) co_return std::vector<CatalogMeta>{};
  const HttpResponse reply = co_await http_.get(*url, kSearchTimeout, token);
  if (reply.failure != HttpFailure::none || reply.status != 200) co_return std::vector<CatalogMeta>{};
  auto page = decodePage(std::string_view(reply.body.constData(), reply.body.size()), type);
  co_return page.value_or(std::vector<CatalogMeta>{});
}

}  // namespace vt
