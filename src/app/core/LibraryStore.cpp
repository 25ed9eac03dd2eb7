#include "app/core/LibraryStore.h"

#include <algorithm>
#include <tuple>

#include "platform/Clock.h"
#include "platform/Json.h"

namespace vt {

LibraryStore::LibraryStore(std::string fileURL, Clock& clock) : fileURL_(std::move(fileURL)), clock_(clock) {
  load();
}

LibraryStore::RecordRef LibraryStore::makeRecord(LibraryTitle title) {
  auto r = std::make_shared<Record>();
  r->imdbId = imdbIdOf(title.name);
  r->episodeKey = episodeKeyOf(title.name);
  if (title.seriesImdbId)
    r->seriesId = title.seriesImdbId;
  else if (r->episodeKey)
    r->seriesId = seriesIdOf(*r->episodeKey);
  r->title = std::move(title);
  return r;
}

std::vector<LibraryTitle> LibraryStore::titles() const {
  std::vector<LibraryTitle> out;
  out.reserve(records_.size());
  for (const auto& r : records_) out.push_back(r->title);
  return out;
}

const LibraryTitle* LibraryStore::titleByImdb(std::string_view imdbId) const {
  auto it = byImdb_.find(imdbId);
  return it == byImdb_.end() ? nullptr : &records_[it->second]->title;
}

const LibraryTitle* LibraryStore::titleByEpisodeKey(std::string_view key) const {
  auto it = byEpisode_.find(key);
  return it == byEpisode_.end() ? nullptr : &records_[it->second]->title;
}

std::vector<const LibraryTitle*> LibraryStore::titlesBySeries(std::string_view seriesId) const {
  std::vector<const LibraryTitle*> out;
  auto it = bySeries_.find(seriesId);
  if (it == bySeries_.end()) return out;
  out.reserve(it->second.size());
  for (auto i : it->second) out.push_back(&records_[i]->title);
  return out;
}

const LibraryTitle* LibraryStore::titleNamed(std::string_view name) const {
  auto it = byName_.find(name);
  return it == byName_.end() ? nullptr : &records_[it->second]->title;
}

void LibraryStore::load() {
  auto text = readFile(fileURL_);
  if (!text) return;
  auto doc = json::parse(*text);
  if (!doc || !doc->is_array()) return;

  std::vector<RecordRef> loaded;
  loaded.reserve(doc->size());
  try {
    for (const auto& item : *doc) loaded.push_back(makeRecord(decodeLibraryTitle(item)));
  } catch (const std::exception&) {
    // One bad record: the library starts empty and the file stays as it is
    // until the next save replaces it.
    return;
  }
  text.reset();
  doc.reset();

  bool changed = false;

  // Duplicate ids: a title with a url beats one without, then the newer
  // resolvedAt; on a tie the earlier title stays.
  std::unordered_map<std::string_view, size_t> holder;
  auto rank = [](const Record& r) { return std::make_tuple(!r.title.url.empty(), r.title.resolvedAt.value_or(kDistantPast)); };
  for (size_t i = 0; i < loaded.size(); ++i) {
    const auto& id = loaded[i]->id();
    if (!id) continue;
    auto [it, inserted] = holder.try_emplace(*id, i);
    if (!inserted && !(rank(*loaded[it->second]) >= rank(*loaded[i]))) it->second = i;
  }
  std::vector<RecordRef> kept;
  kept.reserve(loaded.size());
  for (size_t i = 0; i < loaded.size(); ++i) {
    const auto& id = loaded[i]->id();
    if (id && loaded[holder.at(*id)]->title.name != loaded[i]->title.name) {
      changed = true;
      continue;
    }
    kept.push_back(loaded[i]);
  }
  holder.clear();

  const Date now = clock_.now();
  for (auto& r : kept) {
    const bool needsDate = !r->title.resolvedAt;
    const bool badCompanion = !companionIsValid(r->title);
    if (!needsDate && !badCompanion) continue;
    auto copy = std::make_shared<Record>(*r);
    if (needsDate) copy->title.resolvedAt = now;
    if (badCompanion) copy->title.altVersion.reset();
    r = std::move(copy);
    changed = true;
  }

  records_ = std::move(kept);
  rebuildIndexes();
  if (changed) save();
}

void LibraryStore::rebuildIndexes() {
  byImdb_.clear();
  byEpisode_.clear();
  bySeries_.clear();
  byName_.clear();
  byImdb_.reserve(records_.size());
  byEpisode_.reserve(records_.size());
  byName_.reserve(records_.size());
  for (size_t i = 0; i < records_.size(); ++i) {
    const auto& r = *records_[i];
    byName_.try_emplace(r.title.name, i);
    if (!r.episodeKey) {
      if (r.imdbId) byImdb_[*r.imdbId] = i;  // a later title overwrites an earlier one
      continue;
    }
    byEpisode_[*r.episodeKey] = i;
    if (r.seriesId) bySeries_[*r.seriesId].push_back(i);
  }
  for (auto& [series, list] : bySeries_) {
    std::stable_sort(list.begin(), list.end(), [&](size_t a, size_t b) {
      const auto& ta = records_[a]->title;
      const auto& tb = records_[b]->title;
      return std::make_pair(ta.season.value_or(0), ta.episode.value_or(0)) <
             std::make_pair(tb.season.value_or(0), tb.episode.value_or(0));
    });
  }
}

void LibraryStore::save() {
  // The snapshot is the list of shared immutable records.
  writer_.save(fileURL_, [snapshot = records_]() -> std::optional<std::string> {
    std::vector<const LibraryTitle*> titles;
    titles.reserve(snapshot.size());
    for (const auto& r : snapshot) titles.push_back(&r->title);
    return encodeLibraryTitles(titles);
  });
  emit changed();
}

void LibraryStore::upsert(LibraryTitle title) {
  if (!companionIsValid(title)) title.altVersion.reset();
  auto incoming = makeRecord(std::move(title));
  const auto& id = incoming->id();

  size_t found = records_.size();
  if (auto it = byName_.find(incoming->title.name); it != byName_.end()) found = it->second;
  if (id) {
    // The first title in list order with the same name or the same id.
    for (size_t i = 0; i < std::min(found, records_.size()); ++i) {
      if (records_[i]->id() == id) {
        found = i;
        break;
      }
    }
  }

  if (found < records_.size()) {
    const auto& stored = records_[found]->title;
    LibraryTitle merged = incoming->title;
    // A file that Plex already knows keeps its path.
    merged.name = stored.name;
    // A subtitle made for this very release stays; a new release starts bare.
    if (!merged.subtitlePath && stored.subtitlePath && merged.rdFilename && !merged.rdFilename->empty() &&
        merged.rdFilename == stored.rdFilename) {
      merged.subtitlePath = stored.subtitlePath;
      merged.subtitleLang = stored.subtitleLang;
      merged.subtitleLang2 = stored.subtitleLang2;
    }
    records_[found] = makeRecord(std::move(merged));
  } else {
    records_.push_back(std::move(incoming));
  }
  rebuildIndexes();
  save();
}

void LibraryStore::remove(const std::string& name) {
  std::erase_if(records_, [&](const RecordRef& r) { return r->title.name == name; });
  rebuildIndexes();
  save();
}

bool LibraryStore::applyVerifiedSizes(const std::map<std::string, int64_t>& sizes) {
  if (sizes.empty()) return false;
  bool any = false;
  for (auto& ref : records_) {
    const auto& t = ref->title;
    std::optional<LibraryTitle> updated;
    if (auto it = sizes.find(t.name); it != sizes.end() && it->second > 0) {
      if (it->second != t.size || t.sizeVerified != true) {
        updated = t;
        updated->size = it->second;
        updated->sizeVerified = true;
      }
    }
    if (t.altVersion) {
      if (auto it = sizes.find(t.altVersion->name); it != sizes.end() && it->second > 0) {
        if (it->second != t.altVersion->size || t.altVersion->sizeVerified != true) {
          if (!updated) updated = t;
          updated->altVersion->size = it->second;
          updated->altVersion->sizeVerified = true;
        }
      }
    }
    if (updated) {
      ref = makeRecord(std::move(*updated));
      any = true;
    }
  }
  if (!any) return false;
  rebuildIndexes();
  save();
  return true;
}

}  // namespace vt
