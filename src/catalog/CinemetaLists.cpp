#include "catalog/CinemetaLists.h"

#include <QDateTime>
#include <algorithm>

namespace vt {

std::string CatalogListRow::key() const { return mediaType + "|" + catalogId + "|" + genre.value_or("-"); }

CinemetaLists::CinemetaLists(StremioCatalogClient client, QUrl cinemeta, Clock& clock,
                             std::function<std::vector<CatalogCollection>()> collections)
    : client_(std::move(client)), cinemeta_(std::move(cinemeta)), clock_(clock), collections_(std::move(collections)) {}

CinemetaLists::~CinemetaLists() { *alive_ = false; }

std::vector<CatalogListRow> CinemetaLists::rows(std::string_view mediaType) const {
  const auto it = rowsByType_.find(std::string(mediaType));
  return it == rowsByType_.end() ? std::vector<CatalogListRow>{} : it->second;
}

QCoro::Task<> CinemetaLists::load() {
  if (loaded_ || buildingRows_) co_return;
  buildingRows_ = true;
  const auto year = QDateTime::fromSecsSinceEpoch(static_cast<qint64>(unixSecondsFromDate(clock_.now()))).date().year();
  // One manifest read serves both types.
  const auto alive = alive_;
  const CancelToken token = jobs_.token();
  auto manifest = co_await client_.manifest(cinemeta_, token);
  if (!*alive || token.isCancelled()) co_return;
  std::map<std::string, std::vector<CatalogListRow>> built;
  std::vector<CatalogListSection> sections;
  const auto followed = collections_ ? collections_() : std::vector<CatalogCollection>{};
  for (const std::string type : {"movie", "series"}) {
    auto& rows = built[type];
    rows.push_back({"Popular", "top", std::nullopt, type});
    rows.push_back({"New releases", "year", std::to_string(year), type});
    rows.push_back({"Top rated", "imdbRating", std::nullopt, type});
    if (manifest)
      for (const auto& genre : StremioCatalogClient::genres(*manifest, type, "top"))
        rows.push_back({genre, "top", genre, type});
    for (const auto& c : followed) {
      if (c.source.kind != CollectionSource::Kind::stremioCatalog || c.source.type != type) continue;
      CatalogListRow row{c.name, c.source.catalogId, c.source.genre, type};
      const bool known = std::any_of(rows.begin(), rows.end(), [&](const auto& r) { return r.key() == row.key(); });
      if (!known) rows.push_back(std::move(row));
    }
    sections.push_back({type});
  }
  const bool differs = built != rowsByType_ || sections != sections_;
  if (differs) {
    rowsByType_ = std::move(built);
    sections_ = std::move(sections);
  }
  loaded_ = true;
  buildingRows_ = false;
  if (differs) emit changed();
}

QCoro::Task<std::vector<std::string>> CinemetaLists::preview(CatalogListRow row) {
  const std::string key = row.key();
  if (const auto it = previews_.find(key); it != previews_.end()) {
    auto copy = it->second;
    co_return copy;
  }
  const auto alive = alive_;
  if (const auto it = previewTasks_.find(key); it != previewTasks_.end()) {
    const Completion done = it->second;
    co_await done;
    if (!*alive) co_return std::vector<std::string>{};
    auto copy = previews_[key];
    co_return copy;
  }
  const Completion done;
  previewTasks_.emplace(key, done);
  jobs_.start([this, row, key, done](CancelToken token) -> QCoro::Task<> {
    auto page = co_await client_.catalogPage(cinemeta_, row.mediaType, row.catalogId, row.genre, 0, token);
    if (token.isCancelled()) {
      done.fire();  // those who wait see that the lists went
      co_return;
    }
    std::vector<std::string> posters;
    if (page)
      for (size_t i = 0; i < page->size() && i < kPreviewPosters; ++i)
        if ((*page)[i].posterURL) posters.push_back(*(*page)[i].posterURL);
    previews_[key] = std::move(posters);
    previewTasks_.erase(key);
    done.fire();
  });
  co_await done;
  if (!*alive) co_return std::vector<std::string>{};
  auto copy = previews_[key];
  co_return copy;
}

}  // namespace vt
