#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <QObject>

#include "catalog/CatalogFiles.h"
#include "catalog/CatalogTypes.h"
#include "core/CatalogPort.h"
#include "platform/Clock.h"
#include "platform/SerialFileWriter.h"

namespace vt {

class AppConfig;
class LibraryStore;
class CatalogSync;

struct CatalogStoreOptions {
  // Loads and repairs in memory only: no file is written, moved or removed
  // (the command-line tool's look at a store).
  bool readOnly = false;
};

// The collections the user follows, the records of their titles, which of
// them are published to Plex and how far, and the memory of what resolved.
// Kept in seven files in the data folder; loaded and repaired synchronously
// at creation, saved in the background after each change. Main thread only.
class CatalogStore : public QObject, public CatalogPort {
  Q_OBJECT
 public:
  using Options = CatalogStoreOptions;

  // Seconds a metadata change waits for more before catalog-meta.json is written.
  static constexpr double kMetaSaveDelay = 0.3;
  // Seconds after creation before the scheduled refreshes may run.
  static constexpr double kRefreshDeferral = 120;
  static constexpr int kNameLength = 25;

  CatalogStore(std::string directory, Clock& clock, AppConfig* config = nullptr, Options options = {});
  ~CatalogStore() override;

  // ---- Reading. ----
  const std::vector<CatalogCollection>& collections() const { return collections_; }
  const CatalogCollection* collection(std::string_view id) const;
  const MetaCache& metaCache() const { return *metaCache_; }
  const CatalogMeta* meta(std::string_view imdbId) const;
  const std::vector<std::string>& materialisedIds() const { return materialisedIds_; }
  const std::set<std::string>& stagingIds() const { return stagingIds_; }
  const RevealedIds& stagedRevealedIds() const { return stagedRevealedIds_; }
  const std::set<std::string>& ownedGroupings() const override { return ownedGroupings_; }
  const StreamVetting& streamVetting() const { return streamVetting_; }
  const std::vector<std::string>& retiredPlexGroupings() const { return retiredPlexGroupings_; }
  std::optional<CollectionPlexDelivery> delivery(std::string_view id) const;
  std::optional<Date> refreshDeferredUntil() const { return refreshDeferredUntil_; }
  bool isMaterialised(std::string_view id) const;

  // The collections in store order that are published to Plex; the same
  // without the library collection.
  std::vector<CatalogCollection> materialisedCollectionList() const;
  std::vector<CatalogCollection> publishedLists() const;
  // Every member of every published collection: the ids nothing may prune.
  std::set<std::string> wantedIds() const;
  // Whether `id` is in wantedIds(), without building the set.
  bool isWanted(std::string_view id) const;
  // The library collection, made published first if it is not.
  std::optional<CatalogCollection> libraryCollection();

  // `base` trimmed and cut to 25 characters, with " 2", " 3", ... when a
  // collection already has that name in any case.
  static std::string uniqueName(std::string_view base, const std::vector<CatalogCollection>& existing);
  std::string uniqueName(std::string_view base) const { return uniqueName(base, collections_); }

  // ---- Changes. Each saves its files as its last step. ----
  void upsert(CatalogCollection collection);
  // Refused silently for the library and watchlist collections.
  void deleteCollection(const std::string& id);
  void setResolvePaused(bool paused, const std::string& id);
  void setLastPublished(Date date, const std::set<std::string>& ids);
  void setPlexRatingKey(std::optional<std::string> key, const std::string& id) override;
  void addOwnedGrouping(const std::string& name) override;
  void removeOwnedGrouping(const std::string& name) override;
  void setDelivery(const std::string& id, CollectionPlexDelivery value);
  // Stores a new list of folded-away Plex collection names, if it differs.
  void setRetiredPlexGroupings(std::vector<std::string> names);

  // Rows from an add-on: the incoming record wins, but a missing poster,
  // release text or media type keeps the stored one.
  void mergeMeta(const std::vector<CatalogMeta>& metas);
  // Watchlist, manual additions and backfill: the stored record wins; only
  // its empty poster, release text or media type take the incoming value.
  void fillMeta(const std::vector<CatalogMeta>& metas);

  // Adds the two system collections when they are missing; true if it did.
  bool ensureSystemCollections();
  // Folds every manual collection into the library collection; true if any.
  bool foldLegacyCollections();
  // Drops vetting entries of ids that no collection holds any more.
  void pruneVetting();

  void setOnPublishedCatalogSynced(std::function<void(const std::string&)> fn) {
    onPublishedCatalogSynced_ = std::move(fn);
  }
  void setOnPublishedMembershipShrunk(std::function<void()> fn) override {
    onPublishedMembershipShrunk_ = std::move(fn);
  }

  // Blocks until every save handed to a writer is on disk; a pending
  // debounced metadata save is not started by this (tests, tools).
  void waitForSaves();
  const std::string& directory() const { return directory_; }
  std::string pathOf(const char* fileName) const;

  // ---- Membership, staging and vetting. ----

  // Seconds an id stays cooling after its latest failure, by its failure count.
  static constexpr double kCoolingLadder[4] = {3600, 21600, 86400, 604800};
  static double coolingTime(std::optional<int> failCount);
  // Seconds a completed series rests, and a film seen only in cinemas.
  static constexpr double kSeriesRest = 86400;
  static constexpr double kCinemaRest = 43200;

  // The members after a refresh: pins and staying ids keep their places, new
  // ids go to the end up to `maxItems`, cooling ids stay out.
  std::vector<std::string> reconcile(const std::vector<CatalogMeta>& fresh, const CatalogCollection& collection) const;
  // The members a resolve pass settled on, cut to `maxItems`.
  void replaceMembership(const std::vector<std::string>& ids, const std::string& collectionId);
  // Appends the ids the collection lacks; returns how many were new.
  int addItems(const std::vector<CatalogMeta>& metas, const std::string& collectionId);
  void removeItem(const std::string& imdbId, const std::string& collectionId);
  // Takes the id off every watchlist collection; returns those collections.
  std::vector<CatalogCollection> removeFromWatchlist(const std::string& imdbId);
  void setMaxItems(int count, const std::string& collectionId);
  void touchChanged(const std::string& collectionId);
  bool isOnWatchlist(std::string_view imdbId) const;
  bool isOnList(std::string_view imdbId) const;
  // Published collections other than the library that hold the id.
  std::vector<CatalogCollection> publishedListsHolding(std::string_view imdbId) const;

  // Release and cinema state of a listed title.
  void noteRelease(const std::string& imdbId, const std::optional<std::string>& released, const std::string& year);
  void markOnlyInCinemas(const std::string& imdbId);
  bool isHeldByRelease(std::string_view imdbId) const;

  // Staging: a collection published in waves shows Plex only what it revealed.
  void materialise(const CatalogCollection& collection);
  void dematerialise(const std::string& collectionId);
  void noteRevealed(const std::set<std::string>& imdbIds, const std::string& collectionId);
  bool holdsBack(const LibraryTitle& title) const override;
  std::vector<PlexGrouping> plexGroupings() const override;
  // Members of a published collection that still want a title in the library.
  std::vector<std::string> unfinishedIds(const CatalogCollection& collection, const LibraryStore& library) const;
  void unpauseIfDone(const std::string& collectionId, const LibraryStore& library);
  int resolvedCount(const CatalogCollection& collection, const LibraryStore& library) const;

  // Vetting: which ids resolved, which failed and how often.
  bool isCooling(std::string_view id) const;
  bool isVetted(std::string_view id) const;
  bool isSeriesResting(std::string_view seriesId) const;
  void markVetted(const std::string& id);
  void markFailed(const std::string& id);
  void markSeriesComplete(const std::string& seriesId);
  void clearSeriesComplete(const std::string& seriesId);
  // ---- Following the lists' sources. ----
  // Takes the refresh of the lists' sources over and starts its loop.
  void startFollowing(std::unique_ptr<CatalogSync> sync);
  CatalogSync* sync() const { return sync_.get(); }
  // A refresh changed a list: Plex follows a published one, and a shrunk one
  // lets go of what nothing holds any more.
  void catalogSynced(const std::string& id, bool shrunk);

  // Files the titles of the engine's folders under the library collection:
  // each name's IMDb id that the collection lacks, sorted; an id without a
  // record gets one made from the file name.
  void importLibrary(const std::set<std::string>& names, const LibraryStore& library);

  // ---- CatalogPort. ----
  void deferRefresh(Date until) override { refreshDeferredUntil_ = until; }
  QCoro::Task<> materialiseExisting() override;
  std::vector<std::string> takeRetiredPlexGroupings() override;
  std::set<std::string> protectedIds() const override { return wantedIds(); }
  std::vector<MaterialisedCollection> materialisedCollections() const override;
  bool isStaging(const std::string& collectionId) const override { return stagingIds_.count(collectionId) > 0; }
  void finishStaging(const std::string& collectionId) override;

 signals:
  void changed();

 private:
  void load();
  template <class T>
  std::optional<T> readFileOf(const char* fileName, CatalogDecoded<T> (*decode)(const std::string&), bool keepAside);
  void keepUnreadable(const std::string& path, const char* fileName);
  bool deduplicateAtLoad();
  bool capAtLoad();
  static bool capKeepingPins(CatalogCollection& c, int max);
  CatalogCollection* find(std::string_view id);

  void saveCollections();
  void saveMaterialised();
  void saveStaging();
  void saveRevealed();
  void saveOwnedGroupings();
  void saveVetting();
  void scheduleMetaSave();
  void writeMetas();
  void save(SerialFileWriter& writer, const char* fileName, SerialFileWriter::Producer produce);

  std::string directory_;
  Clock& clock_;
  AppConfig* config_;
  Options options_;

  std::vector<CatalogCollection> collections_;
  // Shared with a pending save, which then costs the main thread no copy;
  // a change while a save still holds it works on a copy of its own.
  std::shared_ptr<MetaCache> metaCache_ = std::make_shared<MetaCache>();
  MetaCache& mutableMetas();
  std::vector<std::string> materialisedIds_;
  std::set<std::string> stagingIds_;
  RevealedIds stagedRevealedIds_;
  std::map<std::string, CollectionPlexDelivery> plexDelivery_;
  std::function<void(const std::string&)> onPublishedCatalogSynced_;
  std::function<void()> onPublishedMembershipShrunk_;
  std::set<std::string> ownedGroupings_;
  std::optional<Clock::TimerId> saveMetaTimer_;
  std::optional<Date> refreshDeferredUntil_;
  std::vector<std::string> retiredPlexGroupings_;
  StreamVetting streamVetting_;

  SerialFileWriter collectionsWriter_;
  SerialFileWriter materialisedWriter_;
  SerialFileWriter stagingWriter_;
  SerialFileWriter revealedWriter_;
  SerialFileWriter metaWriter_;
  SerialFileWriter ownedWriter_;
  SerialFileWriter vettingWriter_;

  // Membership, staging and vetting.
  // For each id, the published collections that hold it, in store order;
  // built on demand and dropped whenever the members or the published set change.
  using HolderIndex = std::unordered_map<std::string, std::vector<std::string>>;
  mutable std::optional<HolderIndex> holderIndex_;
  const HolderIndex& holderIndex() const;
  void invalidateHolderIndex() { holderIndex_.reset(); }
  void materialiseExistingNow();
  // Last: its loop ends while the store still stands.
  std::unique_ptr<CatalogSync> sync_;
};

}  // namespace vt
