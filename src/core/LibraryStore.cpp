#include "core/LibraryStore.h"

#include <cmath>
#include <filesystem>

#include <algorithm>
#include <tuple>

#include <atomic>
#include <thread>

#include <simdjson.h>

#include "platform/Clock.h"
#include "platform/Json.h"
#include "platform/JsonWriter.h"
#include "platform/Log.h"
#include "platform/SerialFileWriter.h"

namespace vt {

LibraryStore::LibraryStore(std::string fileURL, Clock& clock) : fileURL_(std::move(fileURL)), clock_(clock) { load(); }

LibraryStore::RecordRef LibraryStore::makeRecord(LibraryTitle title) {
  auto r = std::make_shared<Record>();
  r->imdbId = imdbIdOf(title.name);
  if (r->imdbId) r->episodeKey = episodeKeyOf(title.name, *r->imdbId);
  if (title.seriesImdbId)
    r->seriesId = title.seriesImdbId;
  else if (r->episodeKey)
    r->seriesId = seriesIdOf(*r->episodeKey);
  r->title = std::move(title);
  r->nameHash = FlatIndex::hashOf(r->title.name);
  if (r->imdbId) r->imdbHash = FlatIndex::hashOf(*r->imdbId);
  if (r->episodeKey) r->episodeHash = FlatIndex::hashOf(*r->episodeKey);
  if (r->seriesId) r->seriesHash = FlatIndex::hashOf(*r->seriesId);
  return r;
}

std::vector<LibraryTitle> LibraryStore::titles() const {
  std::vector<LibraryTitle> out;
  out.reserve(records_.size());
  for (const auto& r : records_) out.push_back(r->title);
  return out;
}

const LibraryTitle* LibraryStore::titleByImdb(std::string_view imdbId) const {
  auto i = ix_.byImdb.find(imdbId);
  return i ? &records_[*i]->title : nullptr;
}

const LibraryTitle* LibraryStore::titleByEpisodeKey(std::string_view key) const {
  auto i = ix_.byEpisode.find(key);
  return i ? &records_[*i]->title : nullptr;
}

std::vector<const LibraryTitle*> LibraryStore::titlesBySeries(std::string_view seriesId) const {
  std::vector<const LibraryTitle*> out;
  auto g = ix_.bySeries.find(seriesId);
  if (!g) return out;
  out.reserve(ix_.seriesGroups[*g].size());
  for (auto i : ix_.seriesGroups[*g]) out.push_back(&records_[i]->title);
  return out;
}

const LibraryTitle* LibraryStore::titleNamed(std::string_view name) const {
  auto i = ix_.byName.find(name);
  return i ? &records_[*i]->title : nullptr;
}

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

// Strict readers: a wrong type is a bad record; null counts as absent.
std::string readString(element e) {
  std::string_view v;
  if (e.get_string().get(v)) throw DecodeError("expected text");
  return std::string(v);
}
int64_t readInt(element e) {
  int64_t v;
  if (e.type() == element_type::INT64 && !e.get_int64().get(v)) return v;
  uint64_t u;
  if (e.type() == element_type::UINT64 && !e.get_uint64().get(u) && u <= uint64_t(INT64_MAX)) return int64_t(u);
  throw DecodeError("expected an integer");
}
int readInt32(element e) {
  const auto v = readInt(e);
  if (v < INT32_MIN || v > INT32_MAX) throw DecodeError("integer out of range");
  return static_cast<int>(v);
}
double readDouble(element e) {
  double v;
  if (e.get_double().get(v)) throw DecodeError("expected a number");
  return v;
}
bool readBool(element e) {
  bool v;
  if (e.get_bool().get(v)) throw DecodeError("expected a Boolean");
  return v;
}

AltStreamVersion readAlt(element e) {
  simdjson::dom::object obj;
  if (e.get_object().get(obj)) throw DecodeError("expected an object");
  AltStreamVersion a;
  bool name = false, resolveURL = false, size = false;
  for (auto field : obj) {
    if (field.value.is_null()) continue;
    const auto k = field.key;
    if (k == "name")
      a.name = readString(field.value), name = true;
    else if (k == "resolveURL")
      a.resolveURL = readString(field.value), resolveURL = true;
    else if (k == "size")
      a.size = readInt(field.value), size = true;
    else if (k == "sizeVerified")
      a.sizeVerified = readBool(field.value);
    else if (k == "resolvedAt")
      a.resolvedAt = readDouble(field.value);
  }
  if (!name || !resolveURL || !size) throw DecodeError("companion misses a required key");
  return a;
}

LibraryTitle readTitle(element e) {
  simdjson::dom::object obj;
  if (e.get_object().get(obj)) throw DecodeError("expected an object");
  LibraryTitle t;
  bool name = false, url = false, size = false, source = false;
  for (auto field : obj) {
    if (field.value.is_null()) continue;
    const auto k = field.key;
    const auto v = field.value;
    if (k == "name")
      t.name = readString(v), name = true;
    else if (k == "url")
      t.url = readString(v), url = true;
    else if (k == "size")
      t.size = readInt(v), size = true;
    else if (k == "sizeVerified")
      t.sizeVerified = readBool(v);
    else if (k == "rdLink")
      t.rdLink = readString(v);
    else if (k == "resolveURL")
      t.resolveURL = readString(v);
    else if (k == "source")
      t.source = readString(v), source = true;
    else if (k == "rdFilename")
      t.rdFilename = readString(v);
    else if (k == "subtitlePath")
      t.subtitlePath = readString(v);
    else if (k == "subtitleLang")
      t.subtitleLang = readString(v);
    else if (k == "subtitleLang2")
      t.subtitleLang2 = readString(v);
    else if (k == "subtitleState") {
      const auto state = readString(v);
      if (state == "auto")
        t.subtitleState = SubtitleState::automatic;
      else if (state == "synced")
        t.subtitleState = SubtitleState::synced;
      else
        throw DecodeError("unknown subtitleState");
    } else if (k == "resolvedAt")
      t.resolvedAt = readDouble(v);
    else if (k == "seriesImdbId")
      t.seriesImdbId = readString(v);
    else if (k == "season")
      t.season = readInt32(v);
    else if (k == "episode")
      t.episode = readInt32(v);
    else if (k == "altVersion")
      t.altVersion = readAlt(v);
    else if (k == "mirrorURLs") {
      simdjson::dom::array arr;
      if (v.get_array().get(arr)) throw DecodeError("expected an array");
      std::vector<std::string> urls;
      for (auto u : arr) urls.push_back(readString(u));
      t.mirrorURLs = std::move(urls);
    }
  }
  if (!name || !url || !size || !source) throw DecodeError("title misses a required key");
  return t;
}

}  // namespace

std::optional<std::vector<LibraryStore::RecordRef>> LibraryStore::decodeRecords(const simdjson::dom::element& doc) {
  simdjson::dom::array arr;
  if (doc.get_array().get(arr)) return std::nullopt;
  std::vector<element> items;
  items.reserve(arr.size());
  for (auto item : arr) items.push_back(item);

  // The parsed document is read-only from here, so the records are made on
  // all cores: this is most of the start-up cost of a large library.
  std::vector<RecordRef> out(items.size());
  std::atomic<bool> bad{false};
  auto work = [&](size_t begin, size_t end) {
    try {
      for (size_t i = begin; i < end && !bad; ++i) out[i] = makeRecord(readTitle(items[i]));
    } catch (const DecodeError&) {
      bad = true;
    }
  };
  const size_t threads = items.size() < 2000 ? 1 : std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 4);
  std::vector<std::thread> pool;
  const size_t chunk = (items.size() + threads - 1) / threads;
  for (size_t t = 1; t < threads; ++t)
    pool.emplace_back(work, std::min(items.size(), t * chunk), std::min(items.size(), (t + 1) * chunk));
  work(0, std::min(items.size(), chunk));
  for (auto& th : pool) th.join();
  if (bad) return std::nullopt;
  return out;
}

void LibraryStore::keepUnreadableFile() {
  const auto stamp = static_cast<int64_t>(std::floor(clock_.now()));
  const std::string aside = fileURL_ + ".unreadable-" + std::to_string(stamp);
  std::error_code ec;
  std::filesystem::copy_file(fileURL_, aside, std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) {
    logLine("[Vantory] library.json could not be read, nor copied aside (" + ec.message() +
            "); starting with an empty library");
    return;
  }
  std::filesystem::permissions(aside, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write, ec);
  logLine("[Vantory] library.json could not be read; kept it as " + std::filesystem::path(aside).filename().string() +
          " and started with an empty library");
}

namespace {
// The parser reads the file into its own buffer, and both the buffer and the
// parsed document's memory are kept for the next load on this thread: fresh
// memory costs more than the parse itself. An application that loads once
// lets it go (releaseLoadMemory).
thread_local std::unique_ptr<simdjson::dom::parser> keptParser;
}  // namespace

void LibraryStore::releaseLoadMemory() { keptParser.reset(); }

void LibraryStore::load() {
  removeInterruptedWrites(fileURL_);
  if (!keptParser) keptParser = std::make_unique<simdjson::dom::parser>();
  simdjson::dom::parser& parser = *keptParser;
  element doc;
  const auto error = parser.load(fileURL_).get(doc);
  if (error == simdjson::IO_ERROR) return;  // no file
  // One bad record: the library starts empty, and the file is copied aside
  // before any save can replace it.
  std::optional<std::vector<RecordRef>> decoded;
  if (!error) decoded = decodeRecords(doc);
  if (!decoded) {
    keepUnreadableFile();
    return;
  }
  std::vector<RecordRef> loaded = std::move(*decoded);

  bool changed = false;

  // Duplicate ids: a title with a url beats one without, then the newer
  // resolvedAt; on a tie the earlier title stays.
  FlatIndex holder;
  holder.reset(loaded.size());
  auto rank = [](const Record& r) {
    return std::make_tuple(!r.title.url.empty(), r.title.resolvedAt.value_or(kDistantPast));
  };
  auto idHash = [](const Record& r) { return r.episodeKey ? r.episodeHash : r.imdbHash; };
  for (uint32_t i = 0; i < loaded.size(); ++i) {
    const auto& id = loaded[i]->id();
    if (!id) continue;
    const auto held = holder.insertIfAbsent(*id, idHash(*loaded[i]), i);
    if (held != i && !(rank(*loaded[held]) >= rank(*loaded[i]))) holder.assign(*id, idHash(*loaded[i]), i);
  }
  // From here on each id belongs to one title; upsert relies on that.
  std::vector<RecordRef> kept;
  kept.reserve(loaded.size());
  for (size_t i = 0; i < loaded.size(); ++i) {
    const auto& r = *loaded[i];
    if (r.id() && loaded[*holder.find(*r.id(), idHash(r))]->title.name != r.title.name) {
      changed = true;
      continue;
    }
    kept.push_back(std::move(loaded[i]));
  }
  holder.reset(0);
  loaded = {};

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

  records_ = RecordList(std::move(kept));
  // The repaired file is encoded on the write thread while the indexes are built.
  if (changed) save();
  rebuildIndexes();
}

void LibraryStore::rebuildIndexes() { buildIndexes(records_, ix_); }

void LibraryStore::rebuildSeriesIndex() { buildSeriesIndex(records_, ix_); }

void LibraryStore::buildIndexes(const RecordList& records, Indexes& ix) {
  const size_t n = records.size();
  ix.byImdb.reset(n);
  ix.byEpisode.reset(n);
  ix.byName.reset(n);
  for (uint32_t i = 0; i < n; ++i) {
    const auto& r = *records[i];
    ix.byName.insertIfAbsent(r.title.name, r.nameHash, i);
    if (!r.episodeKey) {
      if (r.imdbId) ix.byImdb.assign(*r.imdbId, r.imdbHash, i);  // a later title overwrites an earlier one
      continue;
    }
    ix.byEpisode.assign(*r.episodeKey, r.episodeHash, i);
  }
  buildSeriesIndex(records, ix);
}

void LibraryStore::buildSeriesIndex(const RecordList& records, Indexes& ix) {
  const size_t n = records.size();
  ix.bySeries.reset(n / 8);
  for (auto& g : ix.seriesGroups) g.clear();
  size_t groups = 0;
  for (uint32_t i = 0; i < n; ++i) {
    const auto& r = *records[i];
    if (!r.episodeKey || !r.seriesId) continue;
    const auto g = ix.bySeries.insertIfAbsent(*r.seriesId, r.seriesHash, static_cast<uint32_t>(groups));
    if (g == groups) {
      ++groups;
      if (ix.seriesGroups.size() < groups) ix.seriesGroups.emplace_back();
    }
    ix.seriesGroups[g].push_back(i);
  }
  ix.seriesGroups.resize(groups);
  for (auto& list : ix.seriesGroups) sortSeriesGroup(records, list);
}

void LibraryStore::sortSeriesGroup(const RecordList& records, std::vector<uint32_t>& list) {
  // Ties keep list order, whatever order the group was in before: a group
  // sorted again after one change is the group a rebuild makes.
  std::sort(list.begin(), list.end(), [&](uint32_t a, uint32_t b) {
    const auto& ta = records[a]->title;
    const auto& tb = records[b]->title;
    return std::make_tuple(ta.season.value_or(0), ta.episode.value_or(0), a) <
           std::make_tuple(tb.season.value_or(0), tb.episode.value_or(0), b);
  });
}

bool LibraryStore::indexesMatchRebuild() const {
  Indexes fresh;
  buildIndexes(records_, fresh);
  if (fresh.byImdb.size() != ix_.byImdb.size() || fresh.byEpisode.size() != ix_.byEpisode.size() ||
      fresh.byName.size() != ix_.byName.size() || fresh.bySeries.size() != ix_.bySeries.size())
    return false;
  for (const auto& r : records_) {
    if (fresh.byName.find(r->title.name) != ix_.byName.find(r->title.name)) return false;
    if (r->imdbId && fresh.byImdb.find(*r->imdbId) != ix_.byImdb.find(*r->imdbId)) return false;
    if (r->episodeKey && fresh.byEpisode.find(*r->episodeKey) != ix_.byEpisode.find(*r->episodeKey)) return false;
    if (r->seriesId) {
      const auto a = fresh.bySeries.find(*r->seriesId);
      const auto b = ix_.bySeries.find(*r->seriesId);
      if (a.has_value() != b.has_value()) return false;
      if (a && fresh.seriesGroups[*a] != ix_.seriesGroups[*b]) return false;
    }
  }
  return true;
}

void LibraryStore::encode(const RecordList& records, std::string& out) {
  // Room for a typical title, so that a first save grows the buffer once.
  if (out.capacity() < records.size() * 512) out.reserve(records.size() * 512 + 16);
  JsonWriter w(std::move(out));
  w.beginArray();
  for (const auto& r : records) writeLibraryTitle(w, r->title);
  w.endArray();
  out = w.take();
}

void LibraryStore::save() {
  // The snapshot shares the list's chunks; it is encoded on the write thread.
  writer_.save(fileURL_, SerialFileWriter::Encoder([snapshot = records_](std::string& bytes) {
                 encode(snapshot, bytes);
                 return true;
               }));
  emit changed();
}

size_t LibraryStore::positionOf(const Record& r) const {
  size_t found = records_.size();
  if (auto i = ix_.byName.find(r.title.name, r.nameHash)) found = *i;
  // Each id belongs to one title at most, so its index names the first.
  std::optional<uint32_t> byId;
  if (r.episodeKey)
    byId = ix_.byEpisode.find(*r.episodeKey, r.episodeHash);
  else if (r.imdbId)
    byId = ix_.byImdb.find(*r.imdbId, r.imdbHash);
  if (byId && *byId < found) found = *byId;
  return found;
}

void LibraryStore::upsert(LibraryTitle title) {
  if (!companionIsValid(title)) title.altVersion.reset();
  auto incoming = makeRecord(std::move(title));
  // The first title in list order with the same name or the same id.
  const size_t found = positionOf(*incoming);

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
    auto replacement = makeRecord(std::move(merged));
    const auto& old = *records_[found];
    // The name is the stored one, so the name, IMDb and episode indexes stay
    // as they are; a new series rebuilds the series index, a new place in the
    // same series sorts that series again.
    const bool sameSeries = replacement->seriesId == old.seriesId;
    const bool sameOrder =
        replacement->title.season == old.title.season && replacement->title.episode == old.title.episode;
    const auto series = replacement->episodeKey ? replacement->seriesId : std::nullopt;
    records_.set(found, std::move(replacement));
    if (!sameSeries) {
      rebuildSeriesIndex();
    } else if (!sameOrder && series) {
      if (auto g = ix_.bySeries.find(*series)) sortSeriesGroup(records_, ix_.seriesGroups[*g]);
    }
  } else {
    records_.push_back(std::move(incoming));
    indexAppended(records_.size() - 1);
  }
  save();
}

void LibraryStore::indexAppended(size_t index) {
  // The same result as a rebuild, for one title added at the end: its name is
  // new, a later title overwrites the id indexes, and its series list is
  // sorted again.
  const auto i = static_cast<uint32_t>(index);
  const auto& r = *records_[i];
  ix_.byName.insertIfAbsent(r.title.name, r.nameHash, i);
  if (!r.episodeKey) {
    if (r.imdbId) ix_.byImdb.assign(*r.imdbId, r.imdbHash, i);
    return;
  }
  ix_.byEpisode.assign(*r.episodeKey, r.episodeHash, i);
  if (!r.seriesId) return;
  auto& groups = ix_.seriesGroups;
  const auto g = ix_.bySeries.insertIfAbsent(*r.seriesId, r.seriesHash, static_cast<uint32_t>(groups.size()));
  if (g == groups.size()) groups.emplace_back();
  groups[g].push_back(i);
  sortSeriesGroup(records_, groups[g]);
}

void LibraryStore::remove(const std::string& name) {
  // `name` may point into the record that goes.
  const std::string target = name;
  records_.eraseIf([&](const RecordRef& r) { return r->title.name == target; });
  rebuildIndexes();
  save();
}

bool LibraryStore::applyVerifiedSizes(const std::map<std::string, int64_t>& sizes) {
  if (sizes.empty()) return false;
  bool any = false;
  for (size_t i = 0; i < records_.size(); ++i) {
    const auto& t = records_[i]->title;
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
      records_.set(i, makeRecord(std::move(*updated)));
      any = true;
    }
  }
  if (!any) return false;
  // Names, series and order stay, so the indexes do too.
  save();
  return true;
}

}  // namespace vt
