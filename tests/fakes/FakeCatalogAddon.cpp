#include "fakes/FakeCatalogAddon.h"

#include <QTimer>
#include <QUrl>

namespace vt::test {

namespace {
std::string decoded(const QString& part) { return QUrl::fromPercentEncoding(part.toUtf8()).toStdString(); }
}  // namespace

FakeCatalogAddon::FakeCatalogAddon(std::string config) : config_(std::move(config)) {
  const QString root = config_.empty() ? QStringLiteral("/") : "/" + QString::fromStdString(config_) + "/";
  on("GET", root + "manifest.json", [this](const Request&, Reply& reply) {
    if (manifestStatus) return reply.send(*manifestStatus, "Service Unavailable");
    Json catalogs = Json::array();
    for (const auto& [key, list] : genres_) {
      const auto slash = key.find('/');
      Json extra =
          Json::array({Json{{"name", "genre"}, {"options", list}, {"isRequired", false}}, Json{{"name", "skip"}}});
      catalogs.push_back(
          Json{{"type", key.substr(0, slash)}, {"id", key.substr(slash + 1)}, {"name", key}, {"extra", extra}});
    }
    reply.json(Json{{"id", "org.vantory.fake-catalogs"},
                    {"version", "1.0.0"},
                    {"name", "Fake catalogs"},
                    {"resources", Json::array({"catalog"})},
                    {"types", Json::array({"movie", "series"})},
                    {"catalogs", catalogs}});
  });
  onPrefix("GET", root + "catalog/", [this](const Request& r, Reply& reply) { catalog(r, reply); });
}

QUrl FakeCatalogAddon::base() const {
  return url(config_.empty() ? QStringLiteral("/") : "/" + QString::fromStdString(config_) + "/");
}

void FakeCatalogAddon::setCatalog(const std::string& type, const std::string& catalogId,
                                  const std::optional<std::string>& genre, Json metas) {
  catalogs_[type + "/" + catalogId + "/" + genre.value_or("")] = std::move(metas);
}

void FakeCatalogAddon::setGenres(const std::string& type, const std::string& catalogId,
                                 std::vector<std::string> genres) {
  genres_[type + "/" + catalogId] = std::move(genres);
}

void FakeCatalogAddon::setSearch(const std::string& type, const std::string& query, Json metas) {
  searches_[type + "/" + query] = std::move(metas);
}

// "catalog/<type>/<id>.json" or "catalog/<type>/<id>/<k=v&k=v>.json", the
// values percent-encoded and "=" and "&" literal.
void FakeCatalogAddon::catalog(const Request& r, Reply& reply) {
  QString path = r.url.path(QUrl::FullyEncoded);
  path = path.mid(path.indexOf(QStringLiteral("/catalog/")) + 9);
  catalogRequests_.push_back(path.toStdString());
  if (!path.endsWith(QStringLiteral(".json"))) return reply.send(404, "Not Found");
  path.chop(5);
  const QStringList parts = path.split('/');
  if (parts.size() < 2 || parts.size() > 3) return reply.send(404, "Not Found");
  std::map<std::string, std::string> extras;
  if (parts.size() == 3)
    for (const QString& item : parts[2].split('&')) {
      const auto eq = item.indexOf('=');
      if (eq > 0) extras[decoded(item.left(eq))] = decoded(item.mid(eq + 1));
    }
  const std::string type = decoded(parts[0]), id = decoded(parts[1]);
  if (extras.count("search")) {
    const auto it = searches_.find(type + "/" + extras["search"]);
    return reply.json(Json{{"metas", it == searches_.end() ? Json::array() : it->second}});
  }
  const int skip = extras.count("skip") ? std::atoi(extras["skip"].c_str()) : 0;
  if (failingSkips.count(skip) || failingOnceSkips.erase(skip)) return reply.send(503, "Service Unavailable");
  if (garbledSkips.count(skip)) return reply.json(Json{{"metas", Json::array({Json{{"id", 7}, {"name", true}}})}});
  const auto it = catalogs_.find(type + "/" + id + "/" + (extras.count("genre") ? extras["genre"] : ""));
  if (it == catalogs_.end()) return reply.send(404, "Not Found");
  const Json& all = it->second;
  const int from = repeatFirstPage && skip < static_cast<int>(all.size()) ? 0 : skip;
  Json page = Json::array();
  for (int i = from; i < static_cast<int>(all.size()) && i < from + pageSize; ++i) page.push_back(all[i]);
  if (slowMs <= 0) return reply.json(Json{{"metas", page}});
  auto later = reply;
  QTimer::singleShot(slowMs, context_.get(), [later, page]() mutable { later.json(Json{{"metas", page}}); });
}

}  // namespace vt::test
