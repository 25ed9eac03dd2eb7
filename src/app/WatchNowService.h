#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <QObject>
#include <QUrl>
#include <qcoro/qcorotask.h>

#include "core/LibraryTitle.h"
#include "platform/Date.h"
#include "platform/Job.h"
#include "platform/Notifier.h"
#include "platform/Result.h"
#include "sources/rd/RDClient.h"
#include "sources/resolve/SeriesSkeleton.h"
#include "sources/resolve/StreamResolver.h"

namespace vt {

class AppConfig;
class CatalogStore;
class Clock;
class ConnectGate;
class LibraryStore;
class PMSClientFactory;

// One episode of a series by its numbers.
struct EpisodeNumber {
  int season = 0;
  int episode = 0;
  bool operator==(const EpisodeNumber&) const = default;
};

// The press on a title's watch button: one press brings a film or an episode
// the user never collected, unattended, to the point where Plex can play it.
// The title is filed in the library collection, resolved, published through
// the engine and waited for in Plex's index; the engine is prewarmed and a
// notification opens the title in the Plex web app. One background job per
// press; views follow `jobs()` through `jobsChanged`. Main thread only.
class WatchNowService : public QObject {
  Q_OBJECT
 public:
  static constexpr double kReuseSeconds = 7200;
  static constexpr double kIndexPoll = 3;
  static constexpr double kIndexDeadline = 600;
  static constexpr double kUnansweredLimit = 60.0;
  static constexpr double kReadyLinger = 90;
  static constexpr const char* kLastStartedKey = "lastStartedEpisode";

  struct Phase {
    enum class Kind { failed, resolving, publishing, ready };
    Kind kind = Kind::resolving;
    std::string text;  // failed: why

    static Phase failed(std::string text) { return {Kind::failed, std::move(text)}; }
    bool isActive() const { return kind == Kind::resolving || kind == Kind::publishing; }
    bool operator==(const Phase&) const = default;
  };

  struct Job {
    std::string id;  // a film's IMDb id, or "<imdb id>:<season>:<episode>"
    std::string displayName;
    Phase phase;
    Date startedAt = 0;
    std::optional<std::string> openURL;  // set in `ready` only
  };

  struct Film {
    std::string imdbId;
    std::string name;
  };
  struct Series {
    std::string imdbId;
    std::string name;
  };
  struct Episode {
    Series series;
    EpisodeNumber number;
  };

  struct ContinueTarget {
    EpisodeMeta episode;         // the skeleton's record
    std::optional<Phase> phase;  // of a job for this episode, if one exists
    bool isPilotStart = false;
  };

  // What the service works with. The engine, the sources and the series
  // skeleton come in as operations, so that the service runs against
  // whatever the application wires (and tests against local servers).
  struct Parts {
    Clock* clock = nullptr;
    AppConfig* config = nullptr;
    LibraryStore* store = nullptr;
    CatalogStore* catalog = nullptr;
    const PMSClientFactory* plex = nullptr;
    Notifier* notifier = nullptr;
    ConnectGate* gate = nullptr;
    std::string dataDirectory;
    std::string webAppBase;  // the Plex web app

    // Has the engine apply the current library and Plex reconcile with it.
    std::function<void()> applyToEngine;
    std::function<std::optional<QUrl>()> movieControlURL;
    std::function<std::optional<QUrl>()> tvControlURL;
    // "control/prewarm" for one name, without a resume position.
    std::function<QCoro::Task<>(QUrl controlURL, std::string name, CancelToken)> prewarm;

    // The resolve of a film with the user's picks, and of one episode (the
    // on-demand episode resolver of the series layer supplies it).
    std::function<QCoro::Task<ResolveOutcome>(std::string imdbId, CancelToken)> resolveFilm;
    std::function<QCoro::Task<ResolveOutcome>(Episode, CancelToken)> resolveEpisode;
    // Real-Debrid's "user" call with the current key.
    std::function<QCoro::Task<Result<RDUserInfo, RDError>>(CancelToken)> account;
    // Whether the Real-Debrid link of a title is known dead.
    std::function<bool(const LibraryTitle&)> linkIsDead;
    // The aired episodes of a series in order, from its skeleton; none when
    // it couldn't be loaded (the series skeleton cache supplies it).
    std::function<QCoro::Task<std::optional<std::vector<EpisodeMeta>>>(std::string seriesId, CancelToken)>
        airedEpisodes;
  };

  explicit WatchNowService(Parts parts);
  ~WatchNowService() override;

  void watch(const Film& film);
  void watch(const Episode& episode);
  void continueSeries(const Series& series);

  const std::map<std::string, Job>& jobs() const { return jobs_; }
  const Job* job(const std::string& id) const;
  const Job* activeJob(const std::string& seriesId) const;
  const std::map<std::string, EpisodeNumber>& lastStartedEpisode() const { return lastStarted_; }
  // The run identity of a job (changes with every new press).
  std::optional<std::string> run(const std::string& id) const;
  bool isFiledByPress(const std::string& id) const { return filedByPress_.count(id) > 0; }

  void open(const std::string& id);
  void clear(const std::string& id);
  void remove(const std::string& id);
  std::optional<ContinueTarget> continueTarget(const std::string& imdbId,
                                               const std::vector<EpisodeMeta>& airedEpisodes) const;
  // Names of library titles being played: "continue" follows what plays.
  void onWatching(const std::set<std::string>& names);

  bool isConnected() const;

  // Texts the service shows.
  static std::string accountExpiredText() { return "Your Real-Debrid subscription has run out"; }
  static std::string accountRefusedText() { return "Real-Debrid doesn't accept this key — check it in Settings"; }

 signals:
  void jobsChanged();

 private:
  enum class Kind { film, episode };
  struct Press {
    Kind kind = Kind::film;
    std::string id;
    std::string imdbId;  // the film's or the series'
    std::string displayName;
    std::optional<Episode> episode;
  };
  struct Failure {
    std::string jobText;
    std::string notificationText;
  };

  void start(Press press);
  QCoro::Task<> body(Press press, std::string uuid, CancelToken token);
  QCoro::Task<> finish(Press press, LibraryTitle title, std::string uuid, std::function<void()> undoFiling,
                       CancelToken token);
  QCoro::Task<Failure> failureFor(ResolveOutcome outcome, bool episode, CancelToken token);
  void fail(const std::string& id, const std::string& uuid, const Failure& failure, const std::string& displayName);
  void setPhase(const std::string& id, Phase phase);
  void undoAfterCancel(const Press& press, const std::function<void()>& undoFiling);
  void dropRemovalJob(const std::string& id);
  bool anotherActiveJob(const std::string& id) const;
  void loadLastStarted();
  void saveLastStarted();
  void logLine(const std::string& line) const;

  Parts p_;
  std::map<std::string, Job> jobs_;
  std::map<std::string, EpisodeNumber> lastStarted_;
  std::map<std::string, vt::Job> tasks_;
  std::map<std::string, std::string> runs_;
  std::set<std::string> filedByPress_;
  std::map<std::string, vt::Job> removals_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  JobScope scope_;  // last: every job ends before the rest goes
};

std::string message(const WatchNowService::Phase& phase);

}  // namespace vt
