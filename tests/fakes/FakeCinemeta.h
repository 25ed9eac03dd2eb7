#pragma once

#include <map>
#include <optional>
#include <string>

#include "fakes/FakeCatalogAddon.h"

namespace vt::test {

// Cinemeta on 127.0.0.1: its list catalogs and search as any catalog add-on
// serves them, and its meta resource: "meta/<type>/<id>.json" gives
// {"meta": {...}} in Cinemeta's spelling, 404 for ids it does not know.
// It starts with a few real records whose runtimes read as Cinemeta writes
// them ("148 min", "1h 28min").
class FakeCinemeta : public FakeCatalogAddon {
 public:
  FakeCinemeta();

  // A film record; empty texts leave their keys out.
  void addMovie(const std::string& id, const std::string& name, const std::string& year, const std::string& runtime,
                const std::string& released = {}, const std::string& country = {});
  void setMeta(const std::string& type, const std::string& id, Json meta);
  // A series record with its "videos" as given (Cinemeta's video objects).
  void addSeries(const std::string& id, const std::string& name, const std::string& year, Json videos,
                 const std::string& runtime = {});
  // The same video as Cinemeta lists it: "<id>:<season>:<episode>", a name and a date.
  static Json video(const std::string& seriesId, int season, int episode, const std::string& released);
  // Answers every request with this status when set (outages).
  std::optional<int> forcedStatus;

  std::map<std::string, Json> metas;  // "type/id" → the meta object
};

}  // namespace vt::test
