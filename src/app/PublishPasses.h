#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <QObject>
#include <QUrl>
#include <qcoro/qcorotask.h>

#include "catalog/CatalogTypes.h"
#include "catalog/CollectionResolve.h"
#include "core/LibraryTitle.h"
#include "platform/Cancellation.h"
#include "platform/Date.h"
#include "platform/Job.h"

namespace vt {

class AppConfig;
class CatalogStore;
class Clock;
class EngineStatusClient;
class LibraryStore;
class PMSClientFactory;
class PublishPasses;

// The two steps of a collection's way into Plex.
inline constexpr CollectionPlexDelivery kDeliveryPlayable{true, false};
inline constexpr CollectionPlexDelivery kDeliveryMetadataReady{false, true};

// Shared by everything in one pass: the collections given up while it runs.
struct ResolveBatchState {
  std::set<std::string> cancelled;
};

// The one flag by which a collection's resolve tells its flipper that no
// more titles will come.
struct StagedWaveController {
  bool resolveDone = false;
};

// What the publish passes work with. The engine's operations come as
// functions so that this layer needs no supervisor; an empty one does nothing.
struct PublishPassesEnvironment {
  Clock* clock = nullptr;
  LibraryStore* store = nullptr;
  CatalogStore* catalog = nullptr;
  AppConfig* config = nullptr;
  CollectionRunner runCollection;
  // Where the passes' lines go; logLine when empty.
  std::function<void(const std::string&)> log;

  std::function<void()> applyConfig;      // rebuild and push the engines' manifests
  std::function<void()> kickPlexSync;     // ask the Plex sync coordinator for a pass
  std::function<void()> flushNow;         // write the library's pending changes now
  std::function<void(int)> requestFlush;  // `count` titles changed: flush soon
  std::function<std::optional<QUrl>()> movieControlURL;
  std::function<std::optional<QUrl>()> tvControlURL;
  std::function<bool()> playbackActive;
  std::function<bool()> networkOffline;
  const EngineStatusClient* engineStatus = nullptr;
  const PMSClientFactory* plex = nullptr;  // none: nothing waits for Plex's index
  std::string dataDirectory;
  // When Plex last reported a change of its library; none until that is watched.
  std::function<std::optional<Date>()> lastTimelineEvent;
  // After a pass: the collections, what each resolved and the ids given up.
  std::function<void(const std::vector<CatalogCollection>&, const std::map<std::string, int>&,
                     const std::set<std::string>&)>
      scheduleFollowUp;
};

// Reveals a staged collection's files to Plex in waves, each file once the
// engine has warmed it until its probe cache is complete: Plex then reads
// what it finds at once. A background task beside the collection's resolve.
class WaveFlipper {
 public:
  static constexpr double kTick = 3.0;
  static constexpr double kWarmInterval = 10.0;
  static constexpr double kWarmDeadline = 600.0;
  static constexpr size_t kFirstWave = 24;
  static constexpr size_t kLaterWave = 48;

  // A title not yet shown, with the files that must be ready first.
  struct Unrevealed {
    std::string id;  // a film's IMDb id, or an episode key
    std::vector<std::string> movieNames;
    std::vector<std::string> tvNames;
    bool operator==(const Unrevealed&) const = default;
  };

  WaveFlipper(CatalogCollection collection, std::shared_ptr<ResolveBatchState> batch,
              std::shared_ptr<StagedWaveController> controller, PublishPasses& sup);

  // Ticks every 3 seconds until a tick says it is done.
  QCoro::Task<> run(CancelToken token);
  // One look at the engines; false when the flipper is done.
  QCoro::Task<bool> flipperTick(CancelToken token);
  // The collection's titles with a link that it has not revealed, in member order.
  std::vector<Unrevealed> unrevealed() const;

  CatalogCollection collection;
  CatalogStore& catalogStore;
  std::shared_ptr<ResolveBatchState> batch;
  std::shared_ptr<StagedWaveController> controller;
  PublishPasses& sup;
  bool firstWave = false;
  Date lastKick = kDistantPast;
  std::optional<Date> resolveDoneAt;

 private:
  void reveal(const std::set<std::string>& ids);
  const CatalogCollection& current() const;
};

// One publish pass: its collections worked one after the other, then the
// summary and the follow-ups. Runs as one background task.
class ResolveBatchRun {
 public:
  static constexpr double kResolveDelay = 0.7;

  ResolveBatchRun(std::vector<CatalogCollection> collections, QUrl addon, std::set<std::string> protectedFromPrune,
                  bool markPublished, std::shared_ptr<ResolveBatchState> batch, PublishPasses& sup);

  QCoro::Task<> run(CancelToken token);

  std::vector<CatalogCollection> collections;
  QUrl addon;
  CatalogStore& catalogStore;
  std::set<std::string> protectedFromPrune;
  bool markPublished = false;
  std::shared_ptr<ResolveBatchState> batch;
  int resolvedCount = 0;
  std::map<std::string, int> resolvedByCollection;
  int totalFailed = 0;
  std::set<std::string> protectedFailed;
  std::set<std::string> stagedPipelineCompleted;

 private:
  QCoro::Task<> stageAndRun(CatalogCollection collection, StreamRanker ranker, CancelToken token);
  std::string summary() const;

  PublishPasses& sup_;
  std::shared_ptr<const bool> alive_;
};

// The publish passes of the application: each takes collections, resolves
// them into the library and brings the new files to Plex, a staged
// collection in waves. Several passes may run at once on different
// collections; a new pass takes a collection over from an older one.
// Main thread only.
class PublishPasses : public QObject {
  Q_OBJECT
 public:
  static constexpr double kIndexingDeadline = 5400;
  static constexpr double kIndexPoll = 15.0;
  static constexpr double kIndexPollAfterTimeline = 3.0;
  static constexpr double kIndexSleep = 0.5;
  static constexpr double kCancelPoll = 0.05;

  using PassCompletion = std::function<void(const std::set<std::string>& protectedFailed)>;
  struct ResolveTask {
    Job task;
    std::shared_ptr<ResolveBatchState> state;
  };

  explicit PublishPasses(PublishPassesEnvironment environment);
  ~PublishPasses() override;

  // Collections whose resolve is running.
  const std::set<std::string>& resolvingIds() const { return resolvingIds_; }
  // Collections on their way into Plex.
  const std::set<std::string>& applyingIds() const { return applyingIds_; }
  const std::map<std::string, ResolveTask>& resolveTasks() const { return resolveTasks_; }
  const PublishPassesEnvironment& environment() const { return env_; }

  // Starts a pass and returns at once; nothing without a stream add-on or
  // collections. `completion` gets the protected ids that failed.
  void resolveAndPublish(std::vector<CatalogCollection> collections, std::set<std::string> protectedFromPrune,
                         bool markPublished, PassCompletion completion = {});
  // Ends when the collection's pass no longer works on it.
  QCoro::Task<> cancelResolve(std::string id);

  // Adds what a resolve handed over to the library: only titles of published
  // collections.
  void addResolvedTitles(const std::vector<LibraryTitle>& titles);
  // Ends a collection's staging and waits for Plex to index its files.
  QCoro::Task<> finishPublishing(CatalogCollection collection, std::shared_ptr<ResolveBatchState> batch,
                                 CancelToken token);
  // Until Plex's index of the two library folders holds `target` of `names`,
  // 5400 seconds pass, or the collection is given up.
  QCoro::Task<> waitForIndexing(std::vector<std::string> names, size_t target, std::string id,
                                std::shared_ptr<ResolveBatchState> batch, CancelToken token);

 signals:
  void resolvingIdsChanged();
  void applyingIdsChanged();

 private:
  friend class ResolveBatchRun;
  friend class WaveFlipper;

  void log(const std::string& line) const;
  void setResolving(const std::string& id, bool on);
  void setApplying(const std::string& id, bool on);
  void call(const std::function<void()>& fn) const {
    if (fn) fn();
  }
  void cleanUp(const std::vector<CatalogCollection>& collections, const std::shared_ptr<ResolveBatchState>& state,
               const std::set<std::string>& protectedFailed, const PassCompletion& completion);

  PublishPassesEnvironment env_;
  std::set<std::string> resolvingIds_;
  std::set<std::string> applyingIds_;
  std::map<std::string, ResolveTask> resolveTasks_;
  // False once the owner is going: jobs that wake then leave everything alone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  JobScope jobs_;  // last: its jobs end before anything else here goes
};

}  // namespace vt
