#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <QUrl>
#include <qcoro/qcorotask.h>

#include "catalog/CatalogTypes.h"
#include "catalog/StremioCatalogClient.h"
#include "platform/Clock.h"
#include "platform/Job.h"

namespace vt {

class AppConfig;
class CatalogStore;
class PlexPosterPort;
class WatchlistPort;

// Keeps every followed list current: add-on catalogs by their interval, the
// Plex Watchlist close to live. A failed or empty fetch never touches the
// members; a catalog that keeps failing is asked less often (15 s doubling
// per failure, at most 30 minutes). Main thread; the loop ends with this.
class CatalogSync {
 public:
  static constexpr double kFirstTick = 120;
  static constexpr double kTick = 15;
  static constexpr double kWatchlistEvery = 15;
  static constexpr int kFetchMargin = 10;  // fetched beyond maxItems, so that reconcile can refill
  static constexpr double kBackoffBase = 15;
  static constexpr double kBackoffMax = 1800;

  struct Backoff {
    int failures = 0;
    Date last = 0;
  };

  static constexpr size_t kPosterPrefetch = 4;  // the first members, as a card shows them

  CatalogSync(CatalogStore& store, StremioCatalogClient client, WatchlistPort& watchlist, Clock& clock,
              AppConfig* config = nullptr, PlexPosterPort* plexPosters = nullptr);
  ~CatalogSync();
  CatalogSync(const CatalogSync&) = delete;
  CatalogSync& operator=(const CatalogSync&) = delete;

  // Fetches the list's catalog (maxItems + 10) and, on a fetch with rows,
  // makes it the new membership; `reconcile` keeps pins and refills past
  // cooling ids. False when nothing could be fetched.
  QCoro::Task<bool> syncCatalog(std::string id, bool reconcile, CancelToken token = CancelToken::none());
  // One empty answer is not believed; two in a row are.
  QCoro::Task<bool> syncWatchlist(std::string id, CancelToken token = CancelToken::none());
  // One pass over the due collections, one after the other.
  QCoro::Task<> refreshTick(CancelToken token = CancelToken::none());
  static bool isDue(const CatalogCollection& collection, Date now);
  // The pause a catalog with this back-off waits before its next try.
  static double backoffSeconds(int failures);

  // The loop: a first tick after 120 s, then one every 15 s.
  void startRefreshLoop();
  // The application came to the front: the Watchlist is asked at once.
  void applicationBecameActive();
  // Posters for the first members of a list that have none: from Plex when
  // it has the title, else from Cinemeta. One job per list at a time.
  void prefetchPosters(const std::string& collectionId);
  bool prefetching(const std::string& collectionId) const { return posterJobs_.count(collectionId) > 0; }

  const std::map<std::string, Backoff>& backoff() const { return backoff_; }

 private:
  // Holds a list among those being fetched for the length of one sync, and
  // lets go of it unless the sync outlived this.
  struct Fetching {
    Fetching(CatalogSync& sync, std::string id) : sync(sync), id(std::move(id)), alive(sync.alive_) {
      sync.fetchingIds_.insert(this->id);
    }
    ~Fetching() {
      if (*alive) sync.fetchingIds_.erase(id);
    }
    CatalogSync& sync;
    std::string id;
    std::shared_ptr<bool> alive;
  };

  void replacePosters(const std::map<std::string, std::string>& posters);
  std::vector<std::string> membersOf(const std::vector<CatalogMeta>& metas, const CatalogCollection& collection,
                                     bool reconcile);

  CatalogStore& store_;
  StremioCatalogClient client_;
  WatchlistPort& watchlist_;
  Clock& clock_;
  AppConfig* config_;
  std::set<std::string> fetchingIds_;
  std::map<std::string, Backoff> backoff_;
  std::set<std::string> watchlistEmptyOnce_;
  std::map<std::string, std::string> watchlistGuids_;
  std::string lastWatchlistFailure_;
  PlexPosterPort* plexPosters_;
  std::set<std::string> posterJobs_;
  // False once this is going: a sync that a caller's token keeps alive touches nothing then.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  JobScope jobs_;  // last: the loop ends while the rest still stands
};

}  // namespace vt
