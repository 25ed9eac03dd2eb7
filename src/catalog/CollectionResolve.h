#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <QUrl>
#include <qcoro/qcorotask.h>

#include "catalog/CatalogTypes.h"
#include "core/LibraryTitle.h"
#include "platform/Cancellation.h"
#include "platform/Clock.h"
#include "sources/ranking/StreamRanker.h"
#include "sources/resolve/StreamResolver.h"

namespace vt {

class ActivityLog;
class CatalogStore;
class LibraryStore;
class StremioCatalogClient;

// A title made for another Real-Debrid account: its `resolveURL` has a path
// component "realdebrid" followed by one that differs from `currentKey`. With
// an empty current key nothing is stale. The one rule for the whole
// application (resolve passes and the heartbeat).
bool hasStaleKey(const LibraryTitle& title, const std::string& currentKey);

// The ids of `ids`, in order, that still want a resolve: not excluded, not
// held back by their release or a recent cinema-only verdict, and missing
// from the library (or stale; for a series on a published list, also while
// it has an episode without a link or isn't resting).
std::vector<std::string> pendingIds(const std::vector<std::string>& ids, const LibraryStore& store,
                                    const CatalogStore& catalog, const std::set<std::string>& excluded,
                                    const std::string& currentKey, Date now);

// What one collection's resolve came to.
struct CollectionResolveResult {
  std::vector<LibraryTitle> titles;
  int totalFailed = 0;
  std::set<std::string> protectedFailed;
};

// What a publish pass hands each collection's resolve.
struct CollectionResolveHooks {
  std::function<bool()> shouldStopHere;                              // may be empty
  std::function<void(const std::string&)> log;                       // never empty
  std::function<void(const std::vector<LibraryTitle>&)> onResolved;  // may be empty
};

// How a publish pass runs one collection: the real CollectionResolve in the
// application, a scripted one in tests.
using CollectionRunner = std::function<QCoro::Task<CollectionResolveResult>(
    CatalogCollection collection, QUrl addon, StreamRanker ranker, bool allowTS, std::set<std::string> protectedIds,
    CollectionResolveHooks hooks, ResolvePace* pace, CancelToken token)>;

// Takes one collection and works through its members until each has a
// verdict for this run: missing ids become library titles, what truly has no
// source is dropped, what only looks so while a service is down is kept, and
// an add-on catalog list that falls short of its size is refilled from
// further pages. One object, one run, on the main thread.
class CollectionResolve {
 public:
  static constexpr int kTransientAttempts = 3;
  static constexpr int kExtraPages = 5;
  static constexpr double kBackoffBase = 4.0;
  static constexpr double kBackoffMax = 60.0;

  // What the resolve works with besides its collection.
  struct Services {
    StreamResolver* resolver = nullptr;
    LibraryStore* store = nullptr;
    CatalogStore* catalog = nullptr;
    StremioCatalogClient* catalogClient = nullptr;  // the backfill's pages
    Clock* clock = nullptr;
    std::function<std::string()> currentKey;  // the Real-Debrid key of the registry
    ActivityLog* activity = nullptr;          // none: the application's shared list
  };

  CollectionResolve(CatalogCollection collection, QUrl addon, StreamRanker ranker, bool allowTS,
                    std::set<std::string> protectedIds, CollectionResolveHooks hooks, ResolvePace* pace,
                    Services services);

  QCoro::Task<CollectionResolveResult> run(CancelToken token = CancelToken::none());

 private:
  // What one show's resolve came to.
  enum class SeriesOutcome { done, noProgress, transient, noListing };

  QCoro::Task<bool> pass(CancelToken token);
  QCoro::Task<SeriesOutcome> resolveSeries(std::string id, CancelToken token);
  QCoro::Task<bool> backfill(CancelToken token);
  void recomputePending();
  void applyVerdicts(const std::vector<std::string>& ids, bool confirmed, const std::string& noun,
                     const std::string& removedReason, const std::string& keptTail);
  void recordTransients(const std::vector<std::string>& ids);
  void takeResolved(const LibraryTitle& title, const std::string& id);
  void takeOutOfWorking(const std::set<std::string>& ids);
  bool stopping(const CancelToken& token) const;
  bool isCatalogSource() const { return collection_.source.kind == CollectionSource::Kind::stremioCatalog; }
  bool isSeries(const std::string& id) const;
  std::string currentKey() const;
  Clock& clock() const;

  CatalogCollection collection_;
  QUrl addon_;
  StreamRanker ranker_;
  bool allowTS_;
  std::set<std::string> protectedIds_;
  CollectionResolveHooks hooks_;
  ResolvePace* pace_;
  Services services_;

  std::vector<std::string> workingIds_;
  std::set<std::string> seenIds_;
  std::vector<std::string> pendingIds_;
  std::map<std::string, int> transientAttempts_;
  std::set<std::string> deferredIds_;
  std::set<std::string> noStreamSkip_;
  std::set<std::string> coolingSkip_;
  std::set<std::string> unreleasedSkip_;
  std::set<std::string> seriesNoProgressSkip_;
  // Ids that resolved in this run: not tried again even if the library has
  // not taken their titles (no caller's hook), so a run always ends.
  std::set<std::string> resolvedIds_;
  std::vector<LibraryTitle> allResolved_;
  int totalFailed_ = 0;
  int skip_ = 0;
  int extraPages_ = 0;
  std::set<std::string> protectedFailed_;
  int backoffPasses_ = 0;
};

}  // namespace vt
