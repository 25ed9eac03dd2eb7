// How the members of a collection change, how a published list reaches Plex
// in waves (staging), and the memory of which ids resolved and which failed.

#include <algorithm>
#include <map>
#include <unordered_set>

#include "catalog/CatalogStore.h"
#include "core/LibraryStore.h"
#include "sources/release/ReleaseParser.h"

namespace vt {

namespace {

bool holds(const CatalogCollection& c, std::string_view id) {
  return std::find(c.itemImdbIds.begin(), c.itemImdbIds.end(), id) != c.itemImdbIds.end();
}

bool isSystem(const CatalogCollection& c) {
  return c.source.kind == CollectionSource::Kind::library || c.source.kind == CollectionSource::Kind::watchlist;
}

// The ids the store files a library title under: the id its collections list
// (the series for an episode), and for an episode its key, which a reveal
// may name instead.
struct TitleIds {
  std::string catalogId;
  std::optional<std::string> episodeKey;

  bool revealedIn(const std::set<std::string>& revealed) const {
    return revealed.count(catalogId) || (episodeKey && revealed.count(*episodeKey));
  }
};

std::optional<TitleIds> titleIdsOf(const LibraryTitle& t) {
  if (t.seriesImdbId && !t.seriesImdbId->empty()) {
    const auto& series = *t.seriesImdbId;
    if (t.season && t.episode)
      return TitleIds{series, series + ":" + std::to_string(*t.season) + ":" + std::to_string(*t.episode)};
    return TitleIds{series, episodeKeyOf(t.name, series)};
  }
  auto id = imdbIdOf(t.name);
  if (!id) return std::nullopt;
  // An episode stored without its series id still names it in its path.
  if (auto key = episodeKeyOf(t.name, *id)) return TitleIds{*id, std::move(key)};
  return TitleIds{std::move(*id), std::nullopt};
}

// A record for a title known only by its file: "Name (2001) {imdb-tt1}.mkv",
// or the series folder "Name (2001) {imdb-tt1}/Season 01/...".
CatalogMeta metaFromFileName(const std::string& id, std::string_view name, bool series) {
  CatalogMeta m;
  m.id = id;
  const auto top = name.substr(0, name.find('/'));
  auto stem = top.substr(0, top.find(" {imdb-"));
  // "Name (2001)": the year in brackets at the end.
  const auto open = stem.rfind(" (");
  if (open != std::string_view::npos && stem.size() == open + 7 && stem.back() == ')' &&
      std::all_of(stem.begin() + open + 2, stem.end() - 1, [](char c) { return c >= '0' && c <= '9'; })) {
    m.year = std::string(stem.substr(open + 2, 4));
    stem = stem.substr(0, open);
  }
  m.name = std::string(stem);
  if (series) m.mediaType = "series";
  return m;
}

}  // namespace

double CatalogStore::coolingTime(std::optional<int> failCount) {
  const int n = failCount.value_or(0);
  if (n <= 1) return kCoolingLadder[0];
  if (n == 2) return kCoolingLadder[1];
  if (n == 3) return kCoolingLadder[2];
  return kCoolingLadder[3];
}

// ---- Membership. ----

std::vector<std::string> CatalogStore::reconcile(const std::vector<CatalogMeta>& fresh,
                                                 const CatalogCollection& collection) const {
  std::vector<std::string> freshIds;
  std::unordered_set<std::string_view> seen;
  for (const auto& m : fresh)
    if (seen.insert(m.id).second) freshIds.push_back(m.id);

  const auto& pins = collection.pinnedImdbIds;
  std::unordered_set<std::string_view> keep;
  size_t pinsKept = 0;
  for (const auto& id : collection.itemImdbIds)
    if (pins.count(id) && keep.insert(id).second) ++pinsKept;

  const auto room = static_cast<size_t>(std::max<int64_t>(0, int64_t{collection.maxItems} - int64_t(pinsKept)));
  std::vector<std::string_view> candidates;
  for (const auto& id : freshIds) {
    if (candidates.size() >= room) break;
    if (pins.count(id) || isCooling(id)) continue;
    candidates.push_back(id);
  }
  keep.insert(candidates.begin(), candidates.end());

  std::vector<std::string> out;
  std::unordered_set<std::string_view> placed;
  for (const auto& id : collection.itemImdbIds)
    if (keep.count(id) && placed.insert(id).second) out.push_back(id);
  for (auto id : candidates)
    if (placed.insert(id).second) out.emplace_back(id);
  return out;
}

void CatalogStore::replaceMembership(const std::vector<std::string>& ids, const std::string& collectionId) {
  auto* c = find(collectionId);
  if (!c) return;
  std::vector<std::string> list;
  std::unordered_set<std::string_view> seen;
  const auto limit = static_cast<size_t>(std::max(0, c->maxItems));
  for (const auto& id : ids) {
    if (list.size() >= limit) break;
    if (seen.insert(id).second) list.push_back(id);
  }
  const std::unordered_set<std::string_view> kept(list.begin(), list.end());
  const bool shrunk =
      std::any_of(c->itemImdbIds.begin(), c->itemImdbIds.end(), [&](const std::string& id) { return !kept.count(id); });
  c->itemImdbIds = std::move(list);
  saveCollections();
  if (shrunk && isMaterialised(collectionId) && onPublishedMembershipShrunk_) onPublishedMembershipShrunk_();
}

int CatalogStore::addItems(const std::vector<CatalogMeta>& metas, const std::string& collectionId) {
  auto* c = find(collectionId);
  if (!c) return 0;
  std::unordered_set<std::string> held(c->itemImdbIds.begin(), c->itemImdbIds.end());
  std::vector<CatalogMeta> fresh;
  for (const auto& m : metas)
    if (held.insert(m.id).second) fresh.push_back(m);
  if (fresh.empty()) return 0;
  for (const auto& m : fresh) c->itemImdbIds.push_back(m.id);
  fillMeta(fresh);
  saveCollections();
  return static_cast<int>(fresh.size());
}

void CatalogStore::removeItem(const std::string& imdbId, const std::string& collectionId) {
  auto* c = find(collectionId);
  if (!c) return;
  // `imdbId` may live in the list it is taken from.
  const std::string id = imdbId;
  const bool removed = std::erase(c->itemImdbIds, id) > 0;
  const bool unpinned = c->pinnedImdbIds.erase(id) > 0;
  if (removed || unpinned) saveCollections();
}

std::vector<CatalogCollection> CatalogStore::removeFromWatchlist(const std::string& imdbId) {
  const std::string id = imdbId;
  std::vector<std::string> holders;
  for (const auto& c : collections_)
    if (c.source.kind == CollectionSource::Kind::watchlist && holds(c, id)) holders.push_back(c.id);
  std::vector<CatalogCollection> out;
  for (const auto& holder : holders) {
    removeItem(id, holder);
    if (const auto* c = collection(holder)) out.push_back(*c);
  }
  return out;
}

void CatalogStore::setMaxItems(int count, const std::string& collectionId) {
  auto* c = find(collectionId);
  if (!c || c->maxItems == count) return;
  c->maxItems = count;
  const bool dropped = capKeepingPins(*c, count);
  if (dropped) c->lastChangedAt = clock_.now();
  saveCollections();
  if (dropped && isMaterialised(collectionId) && onPublishedMembershipShrunk_) onPublishedMembershipShrunk_();
}

void CatalogStore::touchChanged(const std::string& collectionId) {
  auto* c = find(collectionId);
  if (!c) return;
  c->lastChangedAt = clock_.now();
  saveCollections();
}

bool CatalogStore::isOnWatchlist(std::string_view imdbId) const {
  return std::any_of(collections_.begin(), collections_.end(), [&](const CatalogCollection& c) {
    return c.source.kind == CollectionSource::Kind::watchlist && holds(c, imdbId);
  });
}

bool CatalogStore::isOnList(std::string_view imdbId) const {
  return std::any_of(collections_.begin(), collections_.end(), [&](const CatalogCollection& c) {
    return (c.source.kind == CollectionSource::Kind::watchlist ||
            c.source.kind == CollectionSource::Kind::stremioCatalog) &&
           holds(c, imdbId);
  });
}

std::vector<CatalogCollection> CatalogStore::publishedListsHolding(std::string_view imdbId) const {
  std::vector<CatalogCollection> out;
  for (auto& c : publishedLists())
    if (holds(c, imdbId)) out.push_back(std::move(c));
  return out;
}

// ---- Release and cinema state. ----

void CatalogStore::noteRelease(const std::string& imdbId, const std::optional<std::string>& released,
                               const std::string& year) {
  const auto* stored = meta(imdbId);
  if (!stored) return;
  const bool newRelease = stored->released != released;
  const bool newYear = !year.empty() && stored->year != year;
  if (!newRelease && !newYear) return;
  auto& m = mutableMetas()[imdbId];
  if (newRelease) m.released = released;
  if (newYear) m.year = year;
  scheduleMetaSave();
  emit changed();
}

void CatalogStore::markOnlyInCinemas(const std::string& imdbId) {
  if (!meta(imdbId)) return;
  mutableMetas()[imdbId].onlyInCinemasAt = clock_.now();
  scheduleMetaSave();
  emit changed();
}

bool CatalogStore::isHeldByRelease(std::string_view imdbId) const {
  const auto* m = meta(imdbId);
  if (!m) return false;
  const auto now = clock_.now();
  if (ReleaseParser::releaseState(m->released, m->year, now) == ReleaseState::unreleased) return true;
  return m->onlyInCinemasAt && now - *m->onlyInCinemasAt < kCinemaRest;
}

// ---- Staging. ----

void CatalogStore::materialise(const CatalogCollection& collection) {
  const std::string id = collection.id;
  auto* c = find(id);
  if (!c || isMaterialised(id)) return;
  materialisedIds_.push_back(id);
  if (c->resolvePaused) {
    c->resolvePaused = false;
    saveCollections();
  }
  saveMaterialised();
  plexDelivery_.erase(id);
  if (stagingIds_.insert(id).second) saveStaging();
}

void CatalogStore::dematerialise(const std::string& collectionId) {
  const std::string id = collectionId;
  auto* c = find(id);
  if (!c) return;
  std::erase(materialisedIds_, id);
  if (c->resolvePaused) {
    c->resolvePaused = false;
    saveCollections();
  }
  plexDelivery_.erase(id);
  saveMaterialised();
  finishStaging(id);
}

void CatalogStore::noteRevealed(const std::set<std::string>& imdbIds, const std::string& collectionId) {
  if (imdbIds.empty() || !stagingIds_.count(collectionId)) return;
  stagedRevealedIds_[collectionId].insert(imdbIds.begin(), imdbIds.end());
  saveRevealed();
}

const CatalogStore::HolderIndex& CatalogStore::holderIndex() const {
  if (holderIndex_) return *holderIndex_;
  HolderIndex index;
  for (const auto& c : collections_) {
    if (!isMaterialised(c.id)) continue;
    for (const auto& id : c.itemImdbIds) {
      auto& holders = index[id];
      // A collection that lists an id twice holds it once.
      if (holders.empty() || holders.back() != c.id) holders.push_back(c.id);
    }
  }
  holderIndex_ = std::move(index);
  return *holderIndex_;
}

bool CatalogStore::holdsBack(const LibraryTitle& title) const {
  if (stagingIds_.empty()) return false;
  const auto ids = titleIdsOf(title);
  if (!ids) return false;
  const auto& index = holderIndex();
  const auto it = index.find(ids->catalogId);
  if (it == index.end()) return false;
  const auto& holders = it->second;
  // A finished collection shows everything it holds.
  for (const auto& holder : holders)
    if (!stagingIds_.count(holder)) return false;
  for (const auto& holder : holders) {
    const auto revealed = stagedRevealedIds_.find(holder);
    if (revealed == stagedRevealedIds_.end()) return true;
    if (!ids->revealedIn(revealed->second)) return true;
  }
  return false;
}

std::vector<std::string> CatalogStore::unfinishedIds(const CatalogCollection& collection,
                                                     const LibraryStore& library) const {
  std::vector<std::string> out;
  if (!isMaterialised(collection.id)) return out;
  const auto& index = holderIndex();
  // Whether a published collection other than the library holds the id.
  auto onPublishedList = [&](const std::string& id) {
    const auto it = index.find(id);
    if (it == index.end()) return false;
    return std::any_of(it->second.begin(), it->second.end(), [&](const std::string& holder) {
      const auto* c = this->collection(holder);
      return c && c->source.kind != CollectionSource::Kind::library;
    });
  };
  for (const auto& id : collection.itemImdbIds) {
    if (isHeldByRelease(id)) continue;
    const auto* m = meta(id);
    if (m && m->mediaType == "series") {
      // A series no published list holds is fetched on demand only.
      if (!onPublishedList(id) || isSeriesResting(id)) continue;
      out.push_back(id);
    } else if (!library.titleByImdb(id)) {
      out.push_back(id);
    }
  }
  return out;
}

void CatalogStore::unpauseIfDone(const std::string& collectionId, const LibraryStore& library) {
  const auto* c = collection(collectionId);
  if (!c || !c->resolvePaused || !unfinishedIds(*c, library).empty()) return;
  setResolvePaused(false, collectionId);
}

int CatalogStore::resolvedCount(const CatalogCollection& collection, const LibraryStore& library) const {
  if (!isMaterialised(collection.id)) return 0;
  const std::unordered_set<std::string> members(collection.itemImdbIds.begin(), collection.itemImdbIds.end());
  return static_cast<int>(std::count_if(members.begin(), members.end(), [&](const std::string& id) {
    return library.titleByImdb(id) || !library.titlesBySeries(id).empty();
  }));
}

void CatalogStore::materialiseExistingNow() {
  // The system collections are shown whole at once, without waves.
  bool added = false;
  for (const auto kind : {CollectionSource::Kind::library, CollectionSource::Kind::watchlist}) {
    for (const auto& c : collections_) {
      if (c.source.kind != kind || c.itemImdbIds.empty() || isMaterialised(c.id)) continue;
      materialisedIds_.push_back(c.id);
      plexDelivery_[c.id] = CollectionPlexDelivery{false, true};
      added = true;
    }
  }
  if (added) saveMaterialised();
  std::vector<std::string> others;
  for (const auto& c : collections_)
    if (!isSystem(c) && !c.itemImdbIds.empty() && !isMaterialised(c.id)) others.push_back(c.id);
  for (const auto& id : others)
    if (const auto* c = collection(id)) materialise(*c);
}

QCoro::Task<> CatalogStore::materialiseExisting() {
  materialiseExistingNow();
  co_return;
}

// ---- Vetting. ----

bool CatalogStore::isCooling(std::string_view id) const {
  const std::string key(id);
  const auto failed = streamVetting_.failed.find(key);
  if (failed == streamVetting_.failed.end()) return false;
  std::optional<int> count;
  if (streamVetting_.failCounts) {
    const auto it = streamVetting_.failCounts->find(key);
    if (it != streamVetting_.failCounts->end()) count = it->second;
  }
  return clock_.now() - failed->second < coolingTime(count);
}

bool CatalogStore::isVetted(std::string_view id) const { return streamVetting_.vetted.count(std::string(id)) > 0; }

bool CatalogStore::isSeriesResting(std::string_view seriesId) const {
  if (!streamVetting_.seriesComplete) return false;
  const auto it = streamVetting_.seriesComplete->find(std::string(seriesId));
  return it != streamVetting_.seriesComplete->end() && clock_.now() - it->second < kSeriesRest;
}

void CatalogStore::markVetted(const std::string& id) {
  const std::string key = id;
  streamVetting_.vetted[key] = clock_.now();
  streamVetting_.failed.erase(key);
  // A title that works again starts the ladder from the bottom.
  if (streamVetting_.failCounts) streamVetting_.failCounts->erase(key);
  saveVetting();
}

void CatalogStore::markFailed(const std::string& id) {
  const std::string key = id;
  streamVetting_.failed[key] = clock_.now();
  streamVetting_.vetted.erase(key);
  if (!streamVetting_.failCounts) streamVetting_.failCounts.emplace();
  ++(*streamVetting_.failCounts)[key];
  saveVetting();

  // Catalog lists let it go; the watchlist and the library keep showing it.
  std::vector<std::string> holders;
  for (const auto& c : collections_)
    if (c.source.kind == CollectionSource::Kind::stremioCatalog && holds(c, key)) holders.push_back(c.id);
  bool published = false;
  for (const auto& holder : holders) {
    auto* c = find(holder);
    std::erase(c->itemImdbIds, key);
    c->pinnedImdbIds.erase(key);
    c->lastChangedAt = clock_.now();
    if (isMaterialised(holder)) published = true;
  }
  if (!holders.empty()) saveCollections();
  if (published && onPublishedMembershipShrunk_) onPublishedMembershipShrunk_();
}

void CatalogStore::markSeriesComplete(const std::string& seriesId) {
  if (!streamVetting_.seriesComplete) streamVetting_.seriesComplete.emplace();
  (*streamVetting_.seriesComplete)[seriesId] = clock_.now();
  saveVetting();
}

void CatalogStore::clearSeriesComplete(const std::string& seriesId) {
  auto& complete = streamVetting_.seriesComplete;
  if (!complete || !complete->erase(seriesId)) return;
  if (complete->empty()) complete.reset();
  saveVetting();
}

// ---- Library import. ----

void CatalogStore::importLibrary(const std::set<std::string>& names, const LibraryStore& library) {
  std::map<std::string, std::string> found;  // id -> the first name that gave it, in id order
  for (const auto& name : names)
    if (auto id = imdbIdOf(name)) found.emplace(std::move(*id), name);
  if (found.empty()) return;
  auto target = libraryCollection();
  if (!target) return;
  const std::unordered_set<std::string> held(target->itemImdbIds.begin(), target->itemImdbIds.end());
  std::vector<CatalogMeta> metas;
  for (const auto& [id, name] : found) {
    if (held.count(id)) continue;
    if (const auto* stored = meta(id)) {
      metas.push_back(*stored);
      continue;
    }
    const bool series = !library.titlesBySeries(id).empty() || episodeKeyOf(name, id).has_value();
    metas.push_back(metaFromFileName(id, name, series));
  }
  addItems(metas, target->id);
}

std::vector<PlexGrouping> CatalogStore::plexGroupings() const {
  std::vector<PlexGrouping> out;
  for (const auto& c : collections_) {
    if (c.source.kind != CollectionSource::Kind::stremioCatalog || !isMaterialised(c.id)) continue;
    PlexGrouping g{.id = c.id, .name = c.name, .members = std::nullopt, .plexRatingKey = c.plexRatingKey};
    if (!stagingIds_.count(c.id)) {
      g.members = c.itemImdbIds;
    } else if (const auto revealed = stagedRevealedIds_.find(c.id); revealed != stagedRevealedIds_.end()) {
      // A staged list shows only what its waves revealed.
      std::vector<std::string> shown;
      for (const auto& id : c.itemImdbIds)
        if (revealed->second.count(id)) shown.push_back(id);
      if (!shown.empty()) g.members = std::move(shown);
    }
    out.push_back(std::move(g));
  }
  return out;
}

}  // namespace vt
