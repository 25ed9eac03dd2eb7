#include "fakes/FakeCinemeta.h"

namespace vt::test {

FakeCinemeta::FakeCinemeta() {
  addMovie("tt1375666", "Inception", "2010", "148 min", "2010-07-16T00:00:00.000Z", "United States, United Kingdom");
  addMovie("tt6751668", "Parasite", "2019", "132 min", "2019-11-01T00:00:00.000Z", "South Korea");
  addMovie("tt0110357", "The Lion King", "1994", "1h 28min", "1994-06-24T00:00:00.000Z", "United States");
  Json series;
  series["id"] = "tt0903747";
  series["imdb_id"] = "tt0903747";
  series["type"] = "series";
  series["name"] = "Breaking Bad";
  series["year"] = "2008–2013";
  series["releaseInfo"] = "2008–2013";
  series["released"] = "2008-01-20T12:00:00.000Z";
  series["runtime"] = "45 min";
  series["country"] = "United States";
  setMeta("series", "tt0903747", series);

  onPrefix("GET", "/meta/", [this](const Request& r, Reply& reply) {
    if (forcedStatus) {
      reply.send(*forcedStatus, "Service Unavailable");
      return;
    }
    QString path = r.path.mid(6);
    if (!path.endsWith(QStringLiteral(".json"))) {
      reply.send(404, "Not Found");
      return;
    }
    path.chop(5);
    auto it = metas.find(path.toStdString());
    if (it == metas.end()) {
      reply.send(404, "Not Found");
      return;
    }
    reply.json(Json{{"meta", it->second}});
  });
}

void FakeCinemeta::addMovie(const std::string& id, const std::string& name, const std::string& year,
                            const std::string& runtime, const std::string& released, const std::string& country) {
  Json m;
  m["id"] = id;
  m["imdb_id"] = id;
  m["type"] = "movie";
  m["name"] = name;
  if (!year.empty()) {
    m["year"] = year;
    m["releaseInfo"] = year;
  }
  if (!released.empty()) m["released"] = released;
  if (!runtime.empty()) m["runtime"] = runtime;
  if (!country.empty()) m["country"] = country;
  m["poster"] = "https://images.metahub.space/poster/medium/" + id + "/img";
  setMeta("movie", id, std::move(m));
}

void FakeCinemeta::addSeries(const std::string& id, const std::string& name, const std::string& year, Json videos,
                             const std::string& runtime) {
  Json m;
  m["id"] = id;
  m["imdb_id"] = id;
  m["type"] = "series";
  m["name"] = name;
  if (!year.empty()) {
    m["year"] = year;
    m["releaseInfo"] = year;
  }
  if (!runtime.empty()) m["runtime"] = runtime;
  m["videos"] = std::move(videos);
  setMeta("series", id, std::move(m));
}

Json FakeCinemeta::video(const std::string& seriesId, int season, int episode, const std::string& released) {
  Json v;
  v["id"] = seriesId + ":" + std::to_string(season) + ":" + std::to_string(episode);
  v["name"] = "Chapter " + std::to_string(episode);
  v["season"] = season;
  v["episode"] = episode;
  v["number"] = episode;
  if (!released.empty()) v["released"] = released;
  return v;
}

void FakeCinemeta::setMeta(const std::string& type, const std::string& id, Json meta) {
  metas[type + "/" + id] = std::move(meta);
}

}  // namespace vt::test
