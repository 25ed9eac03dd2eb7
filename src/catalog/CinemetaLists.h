#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QObject>
#include <QUrl>
#include <qcoro/qcorotask.h>

#include "catalog/CatalogTypes.h"
#include "catalog/StremioCatalogClient.h"
#include "platform/Clock.h"
#include "platform/Job.h"

namespace vt {

// One list a user can subscribe to: a Cinemeta catalog, or the catalog of
// a collection the user already follows.
struct CatalogListRow {
  std::string title;
  std::string catalogId;
  std::optional<std::string> genre;
  std::string mediaType;

  // "movie|top|-", "series|top|Drama".
  std::string key() const;
  bool operator==(const CatalogListRow&) const = default;
};

struct CatalogListSection {
  std::string mediaType;
  bool operator==(const CatalogListSection&) const = default;
};

// The rows of lists to subscribe to, films first, then shows: Popular, New
// releases (this year), Top rated, one row per Cinemeta genre, then the
// catalogs of followed collections not already among them; and a few
// posters per row to show. Main thread; tells its observers by `changed`.
class CinemetaLists : public QObject {
  Q_OBJECT
 public:
  static constexpr size_t kPreviewPosters = 8;

  // `collections` gives the followed collections when the rows are built.
  CinemetaLists(StremioCatalogClient client, QUrl cinemeta, Clock& clock,
                std::function<std::vector<CatalogCollection>()> collections);
  ~CinemetaLists() override;

  // Builds the rows once; a failed manifest leaves the three fixed rows of a type.
  QCoro::Task<> load();
  // Up to eight poster addresses of a row's first page; one fetch per row,
  // shared by those who ask while it runs.
  QCoro::Task<std::vector<std::string>> preview(CatalogListRow row);

  bool loaded() const { return loaded_; }
  const std::vector<CatalogListSection>& sections() const { return sections_; }
  std::vector<CatalogListRow> rows(std::string_view mediaType) const;

 signals:
  void changed();

 private:
  StremioCatalogClient client_;
  QUrl cinemeta_;
  Clock& clock_;
  std::function<std::vector<CatalogCollection>()> collections_;
  std::vector<CatalogListSection> sections_;
  std::map<std::string, std::vector<CatalogListRow>> rowsByType_;
  bool loaded_ = false;
  bool buildingRows_ = false;
  std::map<std::string, std::vector<std::string>> previews_;
  std::map<std::string, Completion> previewTasks_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // false once going: waiters touch nothing
  JobScope jobs_;
};

}  // namespace vt
