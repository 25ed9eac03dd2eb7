#pragma once

// What the catalog needs of Plex: the user's Watchlist, and the posters of
// titles Plex already has. The Plex subsystem implements them; until it does,
// stand-ins: a Watchlist that always fails keeps the Watchlist collection's
// members where they are, and without a poster port Cinemeta is asked for
// every poster.

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
  virtual QCoro::Task<Result<WatchlistFetch, std::string>> fetchWatchlist(int limit,
                                                                          std::map<std::string, std::string> knownIds,
                                                                          CancelToken token = CancelToken::none()) = 0;
};

// Posters of listed titles that the local Plex server already has, as image
// addresses, by IMDb id. The Plex subsystem implements it.
class PlexPosterPort {
 public:
  virtual ~PlexPosterPort() = default;
  virtual QCoro::Task<std::map<std::string, std::string>> posters(std::vector<std::string> imdbIds,
                                                                  CancelToken token = CancelToken::none()) = 0;
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
