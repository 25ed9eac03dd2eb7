#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "app/PublishPasses.h"
#include "catalog/StremioCatalogClient.h"
#include "core/EnginePort.h"
#include "engine/EngineStatusClient.h"
#include "platform/Job.h"
#include "sources/resolve/EpisodeOnDemandResolver.h"
#include "sources/resolve/ResolveCache.h"
#include "sources/resolve/StreamResolver.h"

namespace vt {

class EngineSupervisor;
class UnrecognizedReleaseWords;

// What keeps published lists complete without anyone watching: the publish
// passes with the real collection resolve, the follow-ups after a pass that
// left titles missing, a pass after each refresh of a published list that
// brought missing ids, and one when the network comes back.
class Publishing : public PublishPort {
 public:
  static constexpr double kFollowUpDelays[3] = {75, 180, 480};
  static constexpr int kFollowUpLimit = 3;

  struct Parts {
    Clock* clock = nullptr;
    HttpClient* http = nullptr;
    AppConfig* config = nullptr;
    LibraryStore* library = nullptr;
    CatalogStore* catalog = nullptr;
    EngineSupervisor* engine = nullptr;
    const PMSClientFactory* plex = nullptr;
    UnrecognizedReleaseWords* releaseWords = nullptr;
    std::string dataDirectory;
  };

  explicit Publishing(Parts parts);
  ~Publishing() override;

  void publishMissing() override;

  // Members of a published list that still want a title, cooling ids left out.
  std::vector<std::string> missingIds(const CatalogCollection& collection) const;
  // Whether a pass over the list could bring something: an add-on list with
  // cooling ids (the next page may replace them), or missing titles.
  bool wantsPass(const CatalogCollection& collection) const;
  // The published lists, in order, that want a pass; paused and staged ones
  // are left to their own passes.
  std::vector<CatalogCollection> collectionsMissingTitles() const;
  // The published lists still in staging, not paused: their waves go on.
  std::vector<CatalogCollection> stagedCollections() const;

  void scheduleFollowUp(const std::vector<CatalogCollection>& collections,
                        const std::map<std::string, int>& resolvedByCollection, const std::set<std::string>& cancelled);
  void onPublishedCatalogSynced(const std::string& id);
  void onNetworkRestored();

  PublishPasses& passes() { return *passes_; }
  StreamResolver& resolver() { return resolver_; }
  // Single episodes someone is about to watch: the watch button's, and
  // later the play intents' and the next-episode prewarm. One for the
  // application, so that one key is never resolved twice at once.
  EpisodeOnDemandResolver& episodes() { return episodes_; }

 private:
  bool hasCoolingIds(const CatalogCollection& collection) const;
  std::vector<CatalogCollection> withoutResolving(std::vector<CatalogCollection> collections) const;
  void log(const std::string& line) const;

  Parts p_;
  ResolveCache cache_;
  ResolverServices services_;
  StreamResolver resolver_;
  EpisodeOnDemandResolver episodes_;
  StremioCatalogClient catalogClient_;
  EngineStatusClient engineStatus_;
  std::unique_ptr<PublishPasses> passes_;
  std::map<std::string, int> followUpAttempts_;
  std::set<std::string> followUpScheduledIds_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  JobScope followUp_;
  JobScope jobs_;  // last: its jobs end before anything else here goes
};

}  // namespace vt
