#include "sources/resolve/SeriesSkeleton.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <set>

#include "platform/IsoDate.h"
#include "platform/Text.h"
#include "sources/release/ReleaseParser.h"
#include "sources/resolve/StremioResolver.h"

namespace vt {

namespace {

std::optional<std::string> text(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  const auto it = o.find(key);
  if (it == o.end() || !it->is_string()) return std::nullopt;
  return cutUtf8(it->get_ref<const std::string&>(), StremioResolver::kMaxTextBytes);
}

// Whole numbers only; Cinemeta writes them as integers, a few mirrors as "3.0".
std::optional<int> number(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  const auto it = o.find(key);
  if (it == o.end()) return std::nullopt;
  if (it->is_number_integer()) {
    const auto n = it->get<int64_t>();
    if (n < -1'000'000 || n > 1'000'000) return std::nullopt;
    return static_cast<int>(n);
  }
  if (it->is_number_float()) {
    const double d = it->get<double>();
    if (!std::isfinite(d) || d != std::floor(d) || std::abs(d) > 1'000'000) return std::nullopt;
    return static_cast<int>(d);
  }
  return std::nullopt;
}

bool byOrder(const EpisodeMeta& a, const EpisodeMeta& b) {
  return a.season != b.season ? a.season < b.season : a.episode < b.episode;
}

}  // namespace

std::string episodeKey(const std::string& seriesId, int season, int episode) {
  return seriesId + ":" + std::to_string(season) + ":" + std::to_string(episode);
}

std::string seasonKey(const std::string& seriesId, int season) { return seriesId + ":s" + std::to_string(season); }

std::optional<std::string> shortDateText(std::string_view isoDate) {
  const auto date = parseIsoDate(trimmedView(isoDate, " \t\r\n"));
  if (!date) return std::nullopt;
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto unix = static_cast<std::time_t>(std::floor(unixSecondsFromDate(*date)));
  std::tm parts{};
  if (!gmtime_r(&unix, &parts)) return std::nullopt;
  return std::string(kMonths[parts.tm_mon]) + " " + std::to_string(parts.tm_mday) + ", " +
         std::to_string(parts.tm_year + 1900);
}

std::optional<std::string> EpisodeMeta::airDateText() const {
  if (!released) return std::nullopt;
  return shortDateText(*released);
}

Json toJson(const EpisodeMeta& e) {
  Json o = Json::object();
  o["id"] = e.id;
  o["season"] = e.season;
  o["episode"] = e.episode;
  o["title"] = e.title;
  if (e.released) o["released"] = *e.released;
  if (e.thumbnail) o["thumbnail"] = *e.thumbnail;
  if (e.overview) o["overview"] = *e.overview;
  return o;
}

std::vector<EpisodeMeta> SeriesSkeleton::airedEpisodes(Date now) const {
  std::vector<EpisodeMeta> out;
  for (const auto& e : episodes)
    if (ReleaseParser::releaseState(e.released, "", now) != ReleaseState::unreleased) out.push_back(e);
  std::stable_sort(out.begin(), out.end(), byOrder);
  return out;
}

std::vector<int> SeriesSkeleton::seasons() const {
  std::set<int> distinct;
  for (const auto& e : episodes) distinct.insert(e.season);
  return {distinct.begin(), distinct.end()};
}

std::vector<EpisodeMeta> SeriesSkeleton::seasonEpisodes(int season) const {
  std::vector<EpisodeMeta> out;
  for (const auto& e : episodes)
    if (e.season == season) out.push_back(e);
  std::stable_sort(out.begin(), out.end(), byOrder);
  return out;
}

const EpisodeMeta* SeriesSkeleton::find(int season, int episode) const {
  for (const auto& e : episodes)
    if (e.season == season && e.episode == episode) return &e;
  return nullptr;
}

SeriesSkeleton SeriesSkeleton::decode(const std::string& seriesId, const Json& meta) {
  SeriesSkeleton show;
  show.seriesId = seriesId;
  show.title = text(meta, "name").value_or("");
  show.year = text(meta, "year").value_or(text(meta, "releaseInfo").value_or(""));
  if (const auto runtime = text(meta, "runtime")) show.runtimeMinutes = StremioResolver::runtimeMinutes(*runtime);
  show.country = text(meta, "country");
  const auto videos = meta.is_object() ? meta.find("videos") : meta.end();
  if (videos == meta.end() || !videos->is_array()) return show;
  for (const auto& v : *videos) {
    if (!v.is_object()) continue;
    const auto season = number(v, "season");
    if (!season || *season <= 0) continue;  // season 0 holds the specials
    auto episode = number(v, "episode");
    if (!episode) episode = number(v, "number");
    if (!episode) continue;
    EpisodeMeta e;
    e.season = *season;
    e.episode = *episode;
    e.id = text(v, "id").value_or(episodeKey(seriesId, e.season, e.episode));
    e.title = text(v, "name").value_or(text(v, "title").value_or("Episode " + std::to_string(e.episode)));
    e.released = text(v, "released");
    if (!e.released) e.released = text(v, "firstAired");
    e.thumbnail = text(v, "thumbnail");
    e.overview = text(v, "overview");
    if (!e.overview) e.overview = text(v, "description");
    show.episodes.push_back(std::move(e));
  }
  return show;
}

}  // namespace vt
