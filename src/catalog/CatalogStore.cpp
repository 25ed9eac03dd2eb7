#include "catalog/CatalogStore.h"

#include <QDateTime>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <unordered_set>

#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include "catalog/CatalogSync.h"
#include "platform/Log.h"
#include "platform/Text.h"

namespace vt {

namespace {

constexpr const char* kWatchlistName = "Plex Watchlist";
constexpr const char* kLibraryName = "All titles";
constexpr int kSystemMaxItems = 200;

// The ids in order with repeats dropped, the first occurrence staying.
std::vector<std::string> withoutRepeats(const std::vector<std::string>& ids) {
  std::vector<std::string> out;
  out.reserve(ids.size());
  std::unordered_set<std::string_view> seen;
  seen.reserve(ids.size());
  for (const auto& id : ids)
    if (seen.insert(id).second) out.push_back(id);
  return out;
}

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

// The first `count` user-perceived characters (extended grapheme clusters).
icu::UnicodeString firstCharacters(const icu::UnicodeString& text, int count) {
  if (count <= 0) return {};
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::BreakIterator> it(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  if (U_FAILURE(status) || !it) return icu::UnicodeString(text, 0, std::min(text.length(), count));
  it->setText(text);
  int32_t end = it->first();
  for (int i = 0; i < count; ++i) {
    const int32_t next = it->next();
    if (next == icu::BreakIterator::DONE) break;
    end = next;
  }
  return icu::UnicodeString(text, 0, end);
}

std::string folded(std::string_view text) {
  auto u = unicode(text);
  u.foldCase();
  return utf8(u);
}

// "2024-05-01T12-34-56Z": ISO 8601 in UTC with its colons replaced, fit for a file name.
std::string fileStamp(Date date) {
  const auto unix = static_cast<qint64>(unixSecondsFromDate(date));
  auto text = QDateTime::fromSecsSinceEpoch(unix, Qt::UTC).toString(Qt::ISODate).toStdString();
  std::replace(text.begin(), text.end(), ':', '-');
  return text;
}

CatalogCollection systemCollection(std::string name, CollectionSource source) {
  CatalogCollection c;
  c.id = newCollectionId();
  c.name = std::move(name);
  c.source = std::move(source);
  c.maxItems = kSystemMaxItems;
  return c;
}

bool isEmpty(const std::optional<std::string>& value) { return !value || value->empty(); }

}  // namespace

CatalogStore::CatalogStore(std::string directory, Clock& clock, AppConfig* config, Options options)
    : directory_(std::move(directory)), clock_(clock), config_(config), options_(options) {
  load();
}

CatalogStore::~CatalogStore() {
  sync_.reset();  // its refreshes end while the store stands
  // The records changed in the last moments still reach their file; the
  // other files' writers drain as they go.
  if (saveMetaTimer_) {
    clock_.cancelTimer(*saveMetaTimer_);
    saveMetaTimer_.reset();
    writeMetas();
  }
}

std::string CatalogStore::pathOf(const char* fileName) const { return directory_ + "/" + fileName; }

// ---- Load. ----

void CatalogStore::keepUnreadable(const std::string& path, const char* fileName) {
  const std::string asideName = std::string(fileName) + ".unreadable-" + fileStamp(clock_.now());
  const auto aside = pathOf(asideName.c_str());
  std::error_code ec;
  // A move that would replace another file counts as failed.
  if (std::filesystem::exists(aside, ec) || ec) return;
  std::filesystem::rename(path, aside, ec);
  if (ec) return;
  logLine(std::string("[store] ") + fileName + " couldn't be read; kept as " + asideName);
}

template <class T>
std::optional<T> CatalogStore::readFileOf(const char* fileName, CatalogDecoded<T> (*decode)(const std::string&),
                                          bool keepAside) {
  const auto path = pathOf(fileName);
  if (!options_.readOnly) removeInterruptedWrites(path);
  const auto text = catalogfile::readPaddedFile(path);
  if (!text) return std::nullopt;
  auto decoded = decode(*text);
  if (decoded) return std::move(*decoded);
  // The names of the collections are not worth a log line when they don't read.
  if (std::string_view(fileName) == catalogfile::kOwnedGroupings) return std::nullopt;
  logLine(std::string("[CatalogStore] Failed to decode ") + fileName + ": " + message(decoded.error()));
  if (keepAside && !options_.readOnly) keepUnreadable(path, fileName);
  return std::nullopt;
}

void CatalogStore::load() {
  using namespace catalogfile;
  // 1. The files, each only if it reads.
  const bool hadCollections = std::filesystem::exists(pathOf(kCollections));
  bool collectionsLost = false;
  if (auto v = readFileOf(kCollections, decodeCollections, true))
    collections_ = std::move(*v);
  else
    collectionsLost = hadCollections;
  if (auto v = readFileOf(kMeta, decodeMetas, false)) metaCache_ = std::make_shared<MetaCache>(std::move(*v));
  if (auto v = readFileOf(kMaterialised, decodeUuidList, true)) materialisedIds_ = std::move(*v);
  if (auto v = readFileOf(kOwnedGroupings, decodeTextSet, false)) ownedGroupings_ = std::move(*v);
  if (auto v = readFileOf(kStaging, decodeUuidList, false)) stagingIds_ = std::set<std::string>(v->begin(), v->end());
  if (auto v = readFileOf(kStagingRevealed, decodeRevealed, false)) stagedRevealedIds_ = std::move(*v);
  if (auto v = readFileOf(kStreamVetting, decodeVetting, false)) streamVetting_ = std::move(*v);

  // 2. Staging only of collections that exist.
  std::set<std::string> existing;
  for (const auto& c : collections_) existing.insert(c.id);
  std::erase_if(stagingIds_, [&](const std::string& id) { return !existing.count(id); });
  std::erase_if(stagedRevealedIds_, [&](const auto& entry) { return !existing.count(entry.first); });

  // 3. The vetting of current ids only. When the lists didn't read, no id is
  // current: the memory of what resolved is kept for the lists set aside.
  if (!collectionsLost) pruneVetting();

  // 4. What is published and out of staging is fully in Plex.
  for (const auto& id : materialisedIds_)
    if (!stagingIds_.count(id)) plexDelivery_[id] = CollectionPlexDelivery{false, true};

  // 5. Repeated ids, then lists over their size.
  if (deduplicateAtLoad()) saveCollections();
  if (capAtLoad()) saveCollections();

  // 6. The system collections and the repairs of older stores.
  ensureSystemCollections();
  bool repaired = false;
  for (auto& c : collections_) {
    const char* forced = c.source.kind == CollectionSource::Kind::watchlist ? kWatchlistName
                         : c.source.kind == CollectionSource::Kind::library ? kLibraryName
                                                                            : nullptr;
    if (forced && c.name != forced) {
      c.name = forced;
      repaired = true;
    }
  }
  if (foldLegacyCollections()) repaired = true;
  if (repaired) saveCollections();

  // 7. Scheduled refreshes wait a while after start.
  refreshDeferredUntil_ = clock_.now() + kRefreshDeferral;
}

bool CatalogStore::deduplicateAtLoad() {
  bool any = false;
  std::vector<std::string> synced;
  for (auto& c : collections_) {
    auto unique = withoutRepeats(c.itemImdbIds);
    if (unique.size() == c.itemImdbIds.size()) continue;
    logLine("[CatalogStore] deduped \"" + c.name + "\": " + std::to_string(c.itemImdbIds.size()) + " → " +
            std::to_string(unique.size()) + " item(s)");
    c.itemImdbIds = std::move(unique);
    any = true;
    // A published list that now has room gets a fresh fetch.
    if (isMaterialised(c.id) && c.maxItems > static_cast<int>(c.itemImdbIds.size())) synced.push_back(c.id);
  }
  if (onPublishedCatalogSynced_)
    for (const auto& id : synced) onPublishedCatalogSynced_(id);
  return any;
}

// Pins stay wherever they are; the other members fill what room is left, in
// order. Whether anything was dropped.
bool CatalogStore::capKeepingPins(CatalogCollection& c, int max) {
  const auto pinned = std::count_if(c.itemImdbIds.begin(), c.itemImdbIds.end(),
                                    [&](const std::string& id) { return c.pinnedImdbIds.count(id) > 0; });
  const int64_t room = std::max<int64_t>(0, int64_t{max} - pinned);
  int64_t others = 0;
  return std::erase_if(c.itemImdbIds,
                       [&](const std::string& id) { return !c.pinnedImdbIds.count(id) && others++ >= room; }) > 0;
}

bool CatalogStore::capAtLoad() {
  bool any = false;
  for (auto& c : collections_) {
    if (c.source.kind != CollectionSource::Kind::stremioCatalog) continue;
    const auto before = c.itemImdbIds.size();
    if (static_cast<int64_t>(before) <= c.maxItems) continue;
    capKeepingPins(c, c.maxItems);
    logLine("[CatalogStore] capped \"" + c.name + "\" at " + std::to_string(c.maxItems) + ": " +
            std::to_string(before) + " → " + std::to_string(c.itemImdbIds.size()) + " item(s)");
    any = true;
  }
  return any;
}

bool CatalogStore::ensureSystemCollections() {
  auto has = [this](CollectionSource::Kind kind) {
    return std::any_of(collections_.begin(), collections_.end(),
                       [kind](const CatalogCollection& c) { return c.source.kind == kind; });
  };
  bool created = false;
  if (!has(CollectionSource::Kind::watchlist)) {
    collections_.insert(collections_.begin(), systemCollection(kWatchlistName, CollectionSource::watchlist()));
    created = true;
  }
  if (!has(CollectionSource::Kind::library)) {
    collections_.push_back(systemCollection(kLibraryName, CollectionSource::library()));
    created = true;
  }
  if (created) saveCollections();
  return created;
}

bool CatalogStore::foldLegacyCollections() {
  auto libraryIndex = [this]() -> std::optional<size_t> {
    for (size_t i = 0; i < collections_.size(); ++i)
      if (collections_[i].source.kind == CollectionSource::Kind::library) return i;
    return std::nullopt;
  };
  if (!libraryIndex()) return false;
  bool folded = false;
  for (size_t i = collections_.size(); i-- > 0;) {
    if (collections_[i].source.kind != CollectionSource::Kind::manual) continue;
    CatalogCollection manual = std::move(collections_[i]);
    collections_.erase(collections_.begin() + static_cast<std::ptrdiff_t>(i));
    auto& library = collections_[*libraryIndex()];
    library.itemImdbIds.insert(library.itemImdbIds.end(), manual.itemImdbIds.begin(), manual.itemImdbIds.end());
    library.itemImdbIds = withoutRepeats(library.itemImdbIds);
    if (isMaterialised(manual.id) && !isMaterialised(library.id)) materialisedIds_.push_back(library.id);
    retiredPlexGroupings_.push_back(manual.name);
    std::erase(materialisedIds_, manual.id);
    stagingIds_.erase(manual.id);
    stagedRevealedIds_.erase(manual.id);
    plexDelivery_.erase(manual.id);
    folded = true;
  }
  if (!folded) return false;
  saveMaterialised();
  saveStaging();
  saveRevealed();
  return true;
}

void CatalogStore::pruneVetting() {
  std::unordered_set<std::string_view> known;
  for (const auto& c : collections_)
    for (const auto& id : c.itemImdbIds) known.insert(id);
  auto isKnown = [&](const std::string& key) {
    if (known.count(key)) return true;
    const auto colon = key.find(':');
    return colon != std::string::npos && known.count(std::string_view(key).substr(0, colon)) > 0;
  };
  size_t dropped = 0;
  auto prune = [&](auto& map) { dropped += std::erase_if(map, [&](const auto& e) { return !isKnown(e.first); }); };
  prune(streamVetting_.vetted);
  prune(streamVetting_.failed);
  if (streamVetting_.failCounts) prune(*streamVetting_.failCounts);
  if (streamVetting_.seriesComplete) prune(*streamVetting_.seriesComplete);
  if (dropped) saveVetting();
}

// ---- Reading. ----

const CatalogCollection* CatalogStore::collection(std::string_view id) const {
  for (const auto& c : collections_)
    if (c.id == id) return &c;
  return nullptr;
}

CatalogCollection* CatalogStore::find(std::string_view id) {
  for (auto& c : collections_)
    if (c.id == id) return &c;
  return nullptr;
}

const CatalogMeta* CatalogStore::meta(std::string_view imdbId) const {
  auto it = metaCache_->find(std::string(imdbId));
  return it == metaCache_->end() ? nullptr : &it->second;
}

MetaCache& CatalogStore::mutableMetas() {
  if (metaCache_.use_count() > 1) {
    metaCache_ = std::make_shared<MetaCache>(*metaCache_);
  } else {
    // A save that held it is done reading: its release pairs with this.
    std::atomic_thread_fence(std::memory_order_acquire);
  }
  return *metaCache_;
}

std::optional<CollectionPlexDelivery> CatalogStore::delivery(std::string_view id) const {
  auto it = plexDelivery_.find(std::string(id));
  if (it == plexDelivery_.end()) return std::nullopt;
  return it->second;
}

bool CatalogStore::isMaterialised(std::string_view id) const {
  return std::find(materialisedIds_.begin(), materialisedIds_.end(), id) != materialisedIds_.end();
}

std::vector<CatalogCollection> CatalogStore::materialisedCollectionList() const {
  const std::set<std::string_view> ids(materialisedIds_.begin(), materialisedIds_.end());
  std::vector<CatalogCollection> out;
  for (const auto& c : collections_)
    if (ids.count(c.id)) out.push_back(c);
  return out;
}

std::vector<CatalogCollection> CatalogStore::publishedLists() const {
  auto out = materialisedCollectionList();
  std::erase_if(out, [](const CatalogCollection& c) { return c.source.kind == CollectionSource::Kind::library; });
  return out;
}

std::set<std::string> CatalogStore::wantedIds() const {
  const std::set<std::string_view> ids(materialisedIds_.begin(), materialisedIds_.end());
  std::set<std::string> out;
  for (const auto& c : collections_)
    if (ids.count(c.id)) out.insert(c.itemImdbIds.begin(), c.itemImdbIds.end());
  return out;
}

bool CatalogStore::isWanted(std::string_view id) const {
  for (const auto& c : collections_)
    if (isMaterialised(c.id) && std::find(c.itemImdbIds.begin(), c.itemImdbIds.end(), id) != c.itemImdbIds.end())
      return true;
  return false;
}

std::optional<CatalogCollection> CatalogStore::libraryCollection() {
  for (const auto& c : collections_) {
    if (c.source.kind != CollectionSource::Kind::library) continue;
    if (!isMaterialised(c.id)) {
      materialisedIds_.push_back(c.id);
      plexDelivery_[c.id] = CollectionPlexDelivery{false, true};
      saveMaterialised();
    }
    return c;
  }
  return std::nullopt;
}

std::string CatalogStore::uniqueName(std::string_view base, const std::vector<CatalogCollection>& existing) {
  const auto trimmed = unicode(trimmedUnicodeSpace(base));
  std::unordered_set<std::string> taken;
  for (const auto& c : existing) taken.insert(folded(c.name));
  const auto first = utf8(firstCharacters(trimmed, kNameLength));
  if (!taken.count(folded(first))) return first;
  for (int n = 2;; ++n) {
    const std::string suffix = " " + std::to_string(n);
    const auto candidate = utf8(firstCharacters(trimmed, kNameLength - static_cast<int>(suffix.size()))) + suffix;
    if (!taken.count(folded(candidate))) return candidate;
  }
}

// ---- Changes. ----

void CatalogStore::upsert(CatalogCollection collection) {
  if (auto* stored = find(collection.id))
    *stored = std::move(collection);
  else
    collections_.push_back(std::move(collection));
  saveCollections();
}

void CatalogStore::deleteCollection(const std::string& id) {
  auto it = std::find_if(collections_.begin(), collections_.end(), [&](const auto& c) { return c.id == id; });
  if (it == collections_.end()) return;
  if (it->source.kind == CollectionSource::Kind::library || it->source.kind == CollectionSource::Kind::watchlist)
    return;
  // `id` may live in the collection that goes.
  const std::string target = id;
  collections_.erase(it);
  const bool wasMaterialised = std::erase(materialisedIds_, target) > 0;
  plexDelivery_.erase(target);
  saveCollections();
  if (wasMaterialised) saveMaterialised();
  finishStaging(target);

  std::unordered_set<std::string_view> held;
  for (const auto& c : collections_)
    for (const auto& item : c.itemImdbIds) held.insert(item);
  const bool stale =
      std::any_of(metaCache_->begin(), metaCache_->end(), [&](const auto& e) { return !held.count(e.first); });
  if (stale) {
    std::erase_if(mutableMetas(), [&](const auto& e) { return !held.count(e.first); });
    scheduleMetaSave();
  }
  pruneVetting();
}

void CatalogStore::setResolvePaused(bool paused, const std::string& id) {
  auto* c = find(id);
  if (!c || c->resolvePaused == paused) return;
  c->resolvePaused = paused;
  saveCollections();
}

void CatalogStore::setLastPublished(Date date, const std::set<std::string>& ids) {
  if (ids.empty()) return;
  bool any = false;
  for (auto& c : collections_) {
    if (!ids.count(c.id)) continue;
    c.lastPublishedAt = date;
    any = true;
  }
  if (any) saveCollections();
}

void CatalogStore::setPlexRatingKey(std::optional<std::string> key, const std::string& id) {
  auto* c = find(id);
  if (!c || c->plexRatingKey == key) return;
  c->plexRatingKey = std::move(key);
  saveCollections();
}

void CatalogStore::addOwnedGrouping(const std::string& name) {
  if (ownedGroupings_.insert(name).second) saveOwnedGroupings();
}

void CatalogStore::removeOwnedGrouping(const std::string& name) {
  if (ownedGroupings_.erase(name)) saveOwnedGroupings();
}

void CatalogStore::setDelivery(const std::string& id, CollectionPlexDelivery value) {
  plexDelivery_[id] = value;
  emit changed();
}

void CatalogStore::setRetiredPlexGroupings(std::vector<std::string> names) {
  if (names == retiredPlexGroupings_) return;
  retiredPlexGroupings_ = std::move(names);
  emit changed();
}

std::vector<std::string> CatalogStore::takeRetiredPlexGroupings() {
  std::vector<std::string> out;
  out.swap(retiredPlexGroupings_);
  return out;
}

void CatalogStore::mergeMeta(const std::vector<CatalogMeta>& metas) {
  if (metas.empty()) return;
  auto& cache = mutableMetas();
  for (const auto& incoming : metas) {
    auto it = cache.find(incoming.id);
    if (it == cache.end()) {
      cache.emplace(incoming.id, incoming);
      continue;
    }
    CatalogMeta merged = incoming;
    const auto& stored = it->second;
    if (!merged.released) merged.released = stored.released;
    if (!merged.posterURL) merged.posterURL = stored.posterURL;
    if (!merged.mediaType) merged.mediaType = stored.mediaType;
    it->second = std::move(merged);
  }
  scheduleMetaSave();
  emit changed();
}

void CatalogStore::fillMeta(const std::vector<CatalogMeta>& metas) {
  // A copy only when something is new to the cache.
  auto needs = [this](const CatalogMeta& incoming) {
    const auto* stored = meta(incoming.id);
    if (!stored) return true;
    return (isEmpty(stored->released) && !isEmpty(incoming.released)) ||
           (isEmpty(stored->posterURL) && !isEmpty(incoming.posterURL)) ||
           (isEmpty(stored->mediaType) && !isEmpty(incoming.mediaType));
  };
  if (std::none_of(metas.begin(), metas.end(), needs)) return;
  auto& cache = mutableMetas();
  bool any = false;
  for (const auto& incoming : metas) {
    auto [it, added] = cache.try_emplace(incoming.id, incoming);
    if (added) {
      any = true;
      continue;
    }
    auto& stored = it->second;
    auto fill = [&](std::optional<std::string>& field, const std::optional<std::string>& value) {
      if (isEmpty(field) && !isEmpty(value)) {
        field = value;
        any = true;
      }
    };
    fill(stored.released, incoming.released);
    fill(stored.posterURL, incoming.posterURL);
    fill(stored.mediaType, incoming.mediaType);
  }
  if (!any) return;
  scheduleMetaSave();
  emit changed();
}

void CatalogStore::finishStaging(const std::string& collectionId) {
  if (stagedRevealedIds_.erase(collectionId)) saveRevealed();
  if (stagingIds_.erase(collectionId)) saveStaging();
}

std::vector<MaterialisedCollection> CatalogStore::materialisedCollections() const {
  std::vector<MaterialisedCollection> out;
  for (const auto& c : materialisedCollectionList()) out.push_back(MaterialisedCollection{c.id, c.resolvePaused});
  return out;
}

// ---- Saving. ----

void CatalogStore::save(SerialFileWriter& writer, const char* fileName, SerialFileWriter::Producer produce) {
  if (!options_.readOnly) writer.save(pathOf(fileName), std::move(produce));
  emit changed();
}

void CatalogStore::saveCollections() {
  invalidateHolderIndex();
  save(collectionsWriter_, catalogfile::kCollections,
       [snapshot = collections_] { return std::optional(catalogfile::encodeCollections(snapshot)); });
}

void CatalogStore::saveMaterialised() {
  invalidateHolderIndex();
  save(materialisedWriter_, catalogfile::kMaterialised,
       [snapshot = materialisedIds_] { return std::optional(catalogfile::encodeUuidList(snapshot)); });
}

void CatalogStore::saveStaging() {
  save(stagingWriter_, catalogfile::kStaging,
       [snapshot = stagingIds_] { return std::optional(catalogfile::encodeUuidSet(snapshot)); });
}

void CatalogStore::saveRevealed() {
  save(revealedWriter_, catalogfile::kStagingRevealed,
       [snapshot = stagedRevealedIds_] { return std::optional(catalogfile::encodeRevealed(snapshot)); });
}

void CatalogStore::saveOwnedGroupings() {
  save(ownedWriter_, catalogfile::kOwnedGroupings,
       [snapshot = ownedGroupings_] { return std::optional(catalogfile::encodeTextSet(snapshot)); });
}

void CatalogStore::saveVetting() {
  save(vettingWriter_, catalogfile::kStreamVetting,
       [snapshot = streamVetting_] { return std::optional(catalogfile::encodeVetting(snapshot)); });
}

void CatalogStore::scheduleMetaSave() {
  // One fetch touches hundreds of records: each request replaces the pending one.
  if (saveMetaTimer_) clock_.cancelTimer(*saveMetaTimer_);
  saveMetaTimer_ = clock_.schedule(kMetaSaveDelay, [this] {
    saveMetaTimer_.reset();
    writeMetas();
  });
}

void CatalogStore::writeMetas() {
  if (options_.readOnly) return;
  metaWriter_.save(pathOf(catalogfile::kMeta), [snapshot = std::shared_ptr<const MetaCache>(metaCache_)] {
    return std::optional(catalogfile::encodeMetas(*snapshot));
  });
}

void CatalogStore::waitForSaves() {
  for (auto* w : {&collectionsWriter_, &materialisedWriter_, &stagingWriter_, &revealedWriter_, &metaWriter_,
                  &ownedWriter_, &vettingWriter_})
    w->waitUntilIdle();
}

void CatalogStore::startFollowing(std::unique_ptr<CatalogSync> sync) {
  sync_ = std::move(sync);
  if (sync_) sync_->startRefreshLoop();
}

void CatalogStore::catalogSynced(const std::string& id, bool shrunk) {
  if (!isMaterialised(id)) return;
  if (onPublishedCatalogSynced_) onPublishedCatalogSynced_(id);
  if (shrunk && onPublishedMembershipShrunk_) onPublishedMembershipShrunk_();
}

}  // namespace vt
