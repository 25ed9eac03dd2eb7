#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <QUrl>
#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"
#include "platform/Job.h"
#include "platform/Result.h"
#include "sources/resolve/SeriesSkeleton.h"
#include "sources/resolve/StremioResolver.h"

namespace vt {

class HttpClient;

// The skeletons of the shows asked for so far, in memory for the life of the
// process (nothing on disk, nothing expires). Main thread only: two callers
// asking for one show while it loads share that one load.
class SeriesSkeletonCache {
 public:
  using Loaded = Result<SeriesSkeleton, ResolveError>;

  SeriesSkeletonCache() = default;
  SeriesSkeletonCache(const SeriesSkeletonCache&) = delete;
  SeriesSkeletonCache& operator=(const SeriesSkeletonCache&) = delete;

  // The application's one instance.
  static SeriesSkeletonCache& shared();

  // The show's skeleton from Cinemeta at `cinemetaBase` ("meta/series/<id>.json"),
  // with the meta fetch's time limit and one retry. Fails with noMeta (no
  // record, or one that doesn't read), metaNetworkError (Cinemeta not
  // reachable), or cancelled (the caller's token; the load itself goes on
  // for any other caller). A failure is not remembered.
  QCoro::Task<Loaded> skeleton(std::string seriesId, QUrl cinemetaBase, HttpClient& http,
                               CancelToken token = CancelToken::none());
  std::optional<SeriesSkeleton> cached(const std::string& seriesId) const;
  // Loads under way (tests).
  size_t loadsInFlight() const { return inFlight_.size(); }

 private:
  struct Load {
    Completion done;
    std::optional<Loaded> result;
  };
  static QCoro::Task<> load(SeriesSkeletonCache* cache, std::shared_ptr<Load> slot, std::string seriesId,
                            QUrl cinemetaBase, HttpClient* http, CancelToken token);

  std::map<std::string, SeriesSkeleton> entries_;
  std::map<std::string, std::shared_ptr<Load>> inFlight_;
  JobScope jobs_;  // last: the loads end before the maps go
};

}  // namespace vt
