#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <qcoro/qcorotask.h>

#include "core/PlexSyncPort.h"
#include "platform/Date.h"
#include "platform/Job.h"
#include "plex/PMSClient.h"

namespace vt {

class AppConfig;
class CatalogPort;
class Clock;
class HttpClient;
class LibraryStore;
struct LibraryTitle;

// Keeps the user's Plex Media Server in step with what the engines publish:
// scans when files appeared, waits for Plex to index them, deletes what Plex
// still shows but nothing publishes, asks for analysis of items without a
// duration, removes empty show entries, and turns every published catalog
// into a label and a smart collection. It is the only writer of labels and
// collections on the server.
//
// Plex being slow, Plex being down and the user's own items are what every
// step guards against: an index still filling looks like a library with
// items missing, and an unreadable list reads as an empty one. Main thread.
class PlexSyncCoordinator : public PlexSyncPort {
 public:
  static constexpr double kIndexDeadline = 90;
  static constexpr double kIndexPoll = 2;
  static constexpr double kRetryBackoff = 15;
  static constexpr double kSafetyTick = 120;
  static constexpr double kReanalyzeInterval = 600;
  static constexpr double kReanalyzeAgainAfter = 21600;
  static constexpr size_t kReanalyzeBatch = 4;
  static constexpr double kDeleteTimeout = 15;
  static constexpr double kEngineStatusTimeout = 10;

  struct Environment {
    AppConfig* config = nullptr;
    LibraryStore* store = nullptr;
    const PMSClientFactory* plex = nullptr;
    Clock* clock = nullptr;
    HttpClient* http = nullptr;  // for the engines' status
    std::string dataDirectory;   // the library folders lie in it
  };

  // Starts the safety tick.
  PlexSyncCoordinator(Environment environment, PlexSyncOperations operations);
  ~PlexSyncCoordinator() override;

  void requestReconcile() override;
  void setWarmupUntil(Date until) override { warmupUntil_ = until; }
  void attachCatalog(CatalogPort* catalog) override { catalog_ = catalog; }

  bool isWorking() const { return working_; }
  std::optional<Date> warmupUntil() const { return warmupUntil_; }
  size_t passCount() const { return passes_; }

 private:
  struct SectionPass {
    PMSClient client;
    std::string mount;
    std::string sectionKey;
    std::set<std::string> desiredFiles;
    std::map<std::string, std::string> fileByImdb;
    std::map<std::string, std::string> index;  // file name to rating key
    std::set<std::string> wantedRks;
    bool scanRequested = false;
    bool needsRetry = false;
    CancelToken token;  // the pass stops at the first suspension after it is cancelled
    bool stopped() const { return token.isCancelled(); }
  };
  using Titles = std::vector<const LibraryTitle*>;

  QCoro::Task<> drain(CancelToken token);
  void scheduleRetry();
  QCoro::Task<bool> reconcilePass(CancelToken token);
  // The section for `mount`, made again when it went missing and titles want
  // it; none when the pass for it ends here (`retry` says whether to retry).
  QCoro::Task<std::optional<std::string>> ensureSection(const PMSClient& client, std::string mount, bool isShow,
                                                        bool createIfMissing, bool& retry, CancelToken token);
  QCoro::Task<bool> sectionPass(PMSClient client, std::string mount, bool isShow, Titles titles, bool forceScan,
                                bool reconcileCollections, CancelToken token);
  QCoro::Task<> indexAndScan(SectionPass& pass, bool forceScan);
  QCoro::Task<> purgeStale(SectionPass& pass);
  QCoro::Task<> reanalyze(SectionPass& pass);
  QCoro::Task<> purgeShowShells(SectionPass& pass);
  QCoro::Task<> reconcileCollections(SectionPass& pass);
  // Labels one list's members; false when its membership could not be read.
  QCoro::Task<bool> reconcileLabel(SectionPass& pass, const std::string& name, const std::vector<std::string>& members,
                                   const std::map<std::string, std::string>& labels, bool& labelled);
  QCoro::Task<> retireOrphans(SectionPass& pass, const std::vector<PlexCollectionRow>& rows,
                              const std::set<std::string>& handled, const std::map<std::string, std::string>& labels,
                              bool& retry);
  QCoro::Task<> persistVerifiedSizes(CancelToken token);
  QCoro::Task<> requestScanOnce(SectionPass& pass, const char* why);
  QCoro::Task<std::map<std::string, std::string>> readIndex(const SectionPass& pass,
                                                            std::map<std::string, std::string> fallback);

  bool inWarmup() const;
  std::string location(bool tv) const;
  void log(const std::string& line) const;

  Environment env_;
  PlexSyncOperations ops_;
  CatalogPort* catalog_ = nullptr;
  bool dirty_ = false;
  bool working_ = false;
  std::optional<Date> warmupUntil_;
  std::map<std::string, Date> analyzeAskedAt_;
  std::map<std::string, Date> reanalyzeCheckedAt_;
  size_t passes_ = 0;
  JobScope retry_;
  JobScope jobs_;  // last: its jobs end before anything else here goes
};

}  // namespace vt
