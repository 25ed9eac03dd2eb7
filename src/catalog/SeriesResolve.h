#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <QUrl>
#include <qcoro/qcorotask.h>

#include "core/LibraryTitle.h"
#include "platform/Cancellation.h"
#include "sources/ranking/StreamRanker.h"
#include "sources/resolve/EpisodeOnDemandResolver.h"
#include "sources/resolve/SeriesSkeleton.h"
#include "sources/resolve/StreamResolver.h"
#include "sources/resolve/StremioResolver.h"

namespace vt {

class CatalogStore;
class Clock;
class LibraryStore;

// Walks one show's released episodes season by season and resolves those
// the library lacks. A season is probed once through its first released
// episode: one without any source is skipped whole and cools under its
// season key. Busy sources slow the shared pace down, and three passing
// failures in a row cut the show short for this pass. One object, one run,
// on the main thread.
class SeriesResolve {
 public:
  static constexpr int kAbortAfter = 3;

  struct Outcome {
    enum class Kind { done, noProgress, transient, noListing };
    Kind kind = Kind::noProgress;
    std::vector<LibraryTitle> titles;  // done: the episodes added
  };

  // What the run works with besides its show.
  struct Services {
    StreamResolver* titles = nullptr;  // episodes, the readiness check, and the resolver's services
    CatalogStore* catalog = nullptr;
    LibraryStore* store = nullptr;
    Clock* clock = nullptr;                   // none: the resolver's HTTP clock
    std::function<std::string()> currentKey;  // the Real-Debrid key, for the stale-key rule
  };

  SeriesResolve(std::string seriesId, QUrl addon, StreamRanker ranker, bool allowTS, ResolvePace* pace,
                std::function<bool()> shouldStop, std::function<void(const LibraryTitle&)> onEpisode,
                std::function<void(const std::string&)> log, Services services);

  QCoro::Task<Outcome> run(CancelToken token = CancelToken::none());

  // Whether every released episode has a title with a link or is cooling.
  bool allReleasedDone(const SeriesSkeleton& skeleton) const;

 private:
  QCoro::Task<> workSeason(const SeriesSkeleton& skeleton, int season, CancelToken token);
  QCoro::Task<bool> seasonAlive(int season, EpisodeMeta probe, CancelToken token);
  QCoro::Task<> resolveOne(const SeriesSkeleton& skeleton, EpisodeMeta episode, CancelToken token);
  void noteTransient(bool isTransient, const std::string& message);
  void recovered();
  bool stopping(const CancelToken& token) const;
  bool isReleased(const EpisodeMeta& episode) const;
  void say(const std::string& line) const;
  Clock& clock() const;

  std::string seriesId_;
  QUrl addon_;
  StreamRanker ranker_;
  bool allowTS_;
  ResolvePace ownPace_;
  ResolvePace* pace_;
  std::function<bool()> shouldStop_;
  std::function<void(const LibraryTitle&)> onEpisode_;
  std::function<void(const std::string&)> log_;
  Services services_;
  StremioResolver resolver_;

  std::vector<LibraryTitle> inserted_;
  bool anyTransient_ = false;
  int consecutiveTransient_ = 0;
  bool aborted_ = false;
};

// The catalog's side of an episode resolved on demand: its vetting and the
// wanted ids.
EpisodeCatalogView episodeCatalogView(CatalogStore& catalog);

}  // namespace vt
