#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>

#include <qcoro/qcorotask.h>

#include "core/LibraryTitle.h"
#include "platform/Cancellation.h"
#include "sources/resolve/SeriesSkeleton.h"
#include "sources/resolve/StreamResolver.h"

namespace vt {

class AppConfig;
class LibraryStore;

// What resolving an episode on demand needs of the catalog of followed
// lists, as plain functions: the catalog lives above the sources.
struct EpisodeCatalogView {
  std::function<bool(const std::string& seriesId)> isWanted;  // on a list that is published
  std::function<bool(const std::string& key)> isCooling;
  std::function<void(const std::string& key)> markFailed;    // starts (or climbs) the cooling ladder
  std::function<void(const std::string& key)> clearCooling;  // forgets the failures
};

// Resolves single episodes that someone is about to watch: the one a play
// intent names, and the one after it (the next-episode prewarm). A title
// that comes in goes into the library and to the engine at once. One key is
// resolved once at a time; a key without a source cools as any other id.
// Main thread only.
class EpisodeOnDemandResolver {
 public:
  struct Outcome {
    enum class Kind { resolved, noStream, transient, giveUp };
    Kind kind = Kind::giveUp;
    std::optional<LibraryTitle> title;  // resolved
    // The resolver's own verdict when a resolve ran: the watch button tells
    // "not aired yet (airs …)" from "no source", which this outcome folds.
    std::optional<ResolveOutcome> verdict;

    // In the resolver's four words: the verdict where there is one; a key
    // given up on without a resolve is a passing failure.
    ResolveOutcome asResolveOutcome() const;
  };
  // A press of the watch button is a play intent that a person asked for in
  // so many words: it has already judged the library's title stale or dead,
  // so it resolves afresh, and a cooling key is tried all the same.
  enum class Reason { playIntent, nextEpisodePrewarm, watchPress };

  struct Parts {
    AppConfig* config = nullptr;
    LibraryStore* store = nullptr;
    StreamResolver* resolver = nullptr;
    // The catalog's view; none while there is no catalog (nothing cools then).
    std::function<std::optional<EpisodeCatalogView>()> catalogStore;
    std::function<void()> applyLibrary;           // pushes the library to the engine; may be empty
    std::function<void(const std::string&)> log;  // none: the application's log
  };

  explicit EpisodeOnDemandResolver(Parts parts);

  // Resolves the episode "seriesId:season:episode". An episode the library
  // already holds with a link is served as it is; a cooling key, a key
  // already being resolved, a bad key or no add-on address give up (a
  // watch press skips the first two of these).
  QCoro::Task<Outcome> resolve(std::string key, Reason reason, CancelToken token = CancelToken::none());
  // The episode after `currentKey` in the show's season and episode order,
  // resolved as a next-episode prewarm; gives up at the show's last episode.
  QCoro::Task<Outcome> resolveNext(std::string currentKey, CancelToken token = CancelToken::none());

  // The episode following (season, episode) in the skeleton, if any.
  static std::optional<EpisodeMeta> nextEpisode(const SeriesSkeleton& series, int season, int episode);

  const std::set<std::string>& inFlight() const { return inFlight_; }

 private:
  struct Key {
    std::string seriesId;
    int season = 0;
    int episode = 0;
  };
  static std::optional<Key> parseKey(const std::string& key);
  QCoro::Task<Outcome> work(std::string key, Key parsed, Reason reason, CancelToken token);
  void say(const std::string& line) const;

  Parts parts_;
  std::set<std::string> inFlight_;
};

}  // namespace vt
