#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <memory>

#include <QObject>

#include "fakes/FakeHttpServer.h"

namespace vt::test {

// A Stremio catalog add-on on 127.0.0.1: "manifest.json" lists its catalogs
// with their genre options, and "catalog/<type>/<id>[/<extras>].json" gives
// {"metas": [...]} a page at a time, by "genre=" and "skip=" extras as the
// protocol spells them; "search=" answers from its own table. Misbehaves on
// demand: failing pages, a page that repeats, a manifest status.
class FakeCatalogAddon : public FakeHttpServer {
 public:
  // `config`: a path segment in front of every resource, as a configured
  // add-on's address has one; empty for none.
  explicit FakeCatalogAddon(std::string config = "");

  // "http://127.0.0.1:<port>/<config>/"
  QUrl base() const;

  // The whole catalog, paged by `pageSize`; no genre: the catalog itself.
  void setCatalog(const std::string& type, const std::string& catalogId, const std::optional<std::string>& genre,
                  Json metas);
  void setGenres(const std::string& type, const std::string& catalogId, std::vector<std::string> genres);
  void setSearch(const std::string& type, const std::string& query, Json metas);

  int pageSize = 100;
  std::set<int> failingSkips;      // pages at these offsets answer 503
  std::set<int> failingOnceSkips;  // ... answer 503 once, then as usual
  std::set<int> garbledSkips;      // ... answer rows of the wrong JSON types
  bool repeatFirstPage = false;    // every page but the empty end repeats the first
  int slowMs = 0;                  // real time before each catalog answer
  std::optional<int> manifestStatus;

  // Catalog requests as their encoded path after "catalog/", in order.
  std::vector<std::string> catalogRequests() const { return catalogRequests_; }

 private:
  void catalog(const Request& request, Reply& reply);

  std::string config_;
  std::map<std::string, Json> catalogs_;  // "type/id/genre"
  std::map<std::string, std::vector<std::string>> genres_;
  std::map<std::string, Json> searches_;
  std::vector<std::string> catalogRequests_;
  std::unique_ptr<QObject> context_ = std::make_unique<QObject>();  // for slow answers
};

}  // namespace vt::test
