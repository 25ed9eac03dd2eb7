#pragma once

// What the catalog needs of the user's Plex Watchlist. The Plex subsystem
// implements it; until it does, a stand-in that always fails keeps the
// Watchlist collection's members where they are.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"
#include "platform/Result.h"

namespace vt {

struct WatchlistItem {
  std::string imdbId;
  std::string title;
  std::string year;  // empty when unknown
  std::optional<std::string> posterURL;
  std::string mediaType;  // "movie" or "series"
  bool operator==(const WatchlistItem&) const = default;
};

struct WatchlistFetch {
  std::vector<WatchlistItem> items;
  // Plex's item ids already matched to IMDb ids, handed back for the next fetch.
  std::map<std::string, std::string> knownIds;
};

class WatchlistPort {
 public:
  virtual ~WatchlistPort() = default;
  // Up to `limit` items in the Watchlist's order; a failure says why.
  virtual QCoro::Task<Result<WatchlistFetch, std::string>> fetchWatchlist(
      int limit, std::map<std::string, std::string> knownIds, CancelToken token = CancelToken::none()) = 0;
};

// The stand-in: every fetch fails, so nothing is ever emptied by it.
class UnavailableWatchlist final : public WatchlistPort {
 public:
  QCoro::Task<Result<WatchlistFetch, std::string>> fetchWatchlist(int, std::map<std::string, std::string>,
                                                                  CancelToken) override {
    co_return Failure{std::string("the Plex Watchlist can't be read yet")};
  }
};

}  // namespace vt
