#include "catalog/CatalogFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include <simdjson.h>

#include "platform/Json.h"
#include "platform/JsonWriter.h"
#include "platform/SerialFileWriter.h"

namespace vt::catalogfile {

namespace {

using simdjson::dom::array;
using simdjson::dom::element;
using simdjson::dom::element_type;
using simdjson::dom::object;

// ---- Reading: strict types, null counts as absent. ----

std::string readString(element e, std::string_view what) {
  std::string_view v;
  if (e.get_string().get(v)) throw DecodeError("\"" + std::string(what) + "\" is not a string");
  return std::string(v);
}

int64_t readInt(element e, std::string_view what) {
  int64_t v;
  if (e.type() == element_type::INT64 && !e.get_int64().get(v)) return v;
  uint64_t u;
  if (e.type() == element_type::UINT64 && !e.get_uint64().get(u) && u <= uint64_t(INT64_MAX)) return int64_t(u);
  throw DecodeError("\"" + std::string(what) + "\" is not an integer");
}

int readInt32(element e, std::string_view what) {
  const auto v = readInt(e, what);
  if (v < INT32_MIN || v > INT32_MAX) throw DecodeError("\"" + std::string(what) + "\" is out of range");
  return static_cast<int>(v);
}

Date readDate(element e, std::string_view what) {
  double v;
  if (e.get_double().get(v)) throw DecodeError("\"" + std::string(what) + "\" is not a number");
  return v;
}

bool readBool(element e, std::string_view what) {
  bool v;
  if (e.get_bool().get(v)) throw DecodeError("\"" + std::string(what) + "\" is not a Boolean");
  return v;
}

object readObject(element e, std::string_view what) {
  object o;
  if (e.get_object().get(o)) throw DecodeError("\"" + std::string(what) + "\" is not an object");
  return o;
}

array readArray(element e, std::string_view what) {
  array a;
  if (e.get_array().get(a)) throw DecodeError("\"" + std::string(what) + "\" is not an array");
  return a;
}

std::string readUuid(element e, std::string_view what) {
  auto text = readString(e, what);
  auto uuid = normalisedUuid(text);
  if (!uuid) throw DecodeError("\"" + std::string(what) + "\" is not a UUID: \"" + text + "\"");
  return *uuid;
}

template <class T, class Read>
T readStringArray(element e, std::string_view what, Read read) {
  T out;
  for (auto item : readArray(e, what)) {
    if constexpr (requires { out.push_back(std::string()); })
      out.push_back(read(item, what));
    else
      out.insert(read(item, what));
  }
  return out;
}

template <class V, class Read>
std::map<std::string, V> readMap(element e, std::string_view what, Read read) {
  std::map<std::string, V> out;
  for (auto field : readObject(e, what)) out.insert_or_assign(std::string(field.key), read(field.value, field.key));
  return out;
}

void missing(bool present, std::string_view key) {
  if (!present) throw DecodeError("missing key \"" + std::string(key) + "\"");
}

CollectionSource readSource(element e) {
  CollectionSource s;
  std::optional<std::string> kind;
  bool base = false, type = false, catalog = false;
  for (auto field : readObject(e, "source")) {
    if (field.value.is_null()) continue;
    const auto k = field.key;
    if (k == "kind")
      kind = readString(field.value, k);
    else if (k == "addonBaseURL")
      s.addonBaseURL = readString(field.value, k), base = true;
    else if (k == "type")
      s.type = readString(field.value, k), type = true;
    else if (k == "catalogId")
      s.catalogId = readString(field.value, k), catalog = true;
    else if (k == "genre")
      s.genre = readString(field.value, k);
  }
  missing(kind.has_value(), "kind");
  if (*kind == "stremioCatalog") {
    s.kind = CollectionSource::Kind::stremioCatalog;
    missing(base, "addonBaseURL");
    missing(type, "type");
    missing(catalog, "catalogId");
    return s;
  }
  if (*kind == "library") return CollectionSource::library();
  if (*kind == "manual") return CollectionSource::manual();
  if (*kind == "watchlist") return CollectionSource::watchlist();
  throw DecodeError("unknown source kind \"" + *kind + "\"");
}

CatalogCollection readCollection(element e) {
  CatalogCollection c;
  bool id = false, name = false, source = false, items = false, pinned = false;
  for (auto field : readObject(e, "collection")) {
    if (field.value.is_null()) continue;
    const auto k = field.key;
    const auto v = field.value;
    if (k == "id")
      c.id = readUuid(v, k), id = true;
    else if (k == "name")
      c.name = readString(v, k), name = true;
    else if (k == "source")
      c.source = readSource(v), source = true;
    else if (k == "itemImdbIds")
      c.itemImdbIds = readStringArray<std::vector<std::string>>(v, k, readString), items = true;
    else if (k == "pinnedImdbIds")
      c.pinnedImdbIds = readStringArray<std::set<std::string>>(v, k, readString), pinned = true;
    else if (k == "lastSyncedAt")
      c.lastSyncedAt = readDate(v, k);
    else if (k == "lastChangedAt")
      c.lastChangedAt = readDate(v, k);
    else if (k == "lastPublishedAt")
      c.lastPublishedAt = readDate(v, k);
    else if (k == "resolvePaused")
      c.resolvePaused = readBool(v, k);
    else if (k == "maxItems")
      c.maxItems = readInt32(v, k);
    else if (k == "refreshInterval") {
      const auto raw = readInt(v, k);
      const auto interval = refreshIntervalFromRaw(raw);
      if (!interval) throw DecodeError("unknown refreshInterval " + std::to_string(raw));
      c.refreshInterval = *interval;
    } else if (k == "plexRatingKey")
      c.plexRatingKey = readString(v, k);
  }
  missing(id, "id");
  missing(name, "name");
  missing(source, "source");
  missing(items, "itemImdbIds");
  missing(pinned, "pinnedImdbIds");
  return c;
}

CatalogMeta readMeta(element e, std::string_view what) {
  CatalogMeta m;
  bool id = false, name = false, year = false;
  for (auto field : readObject(e, what)) {
    if (field.value.is_null()) continue;
    const auto k = field.key;
    const auto v = field.value;
    if (k == "id")
      m.id = readString(v, k), id = true;
    else if (k == "name")
      m.name = readString(v, k), name = true;
    else if (k == "year")
      m.year = readString(v, k), year = true;
    else if (k == "posterURL")
      m.posterURL = readString(v, k);
    else if (k == "released")
      m.released = readString(v, k);
    else if (k == "mediaType")
      m.mediaType = readString(v, k);
    else if (k == "onlyInCinemasAt")
      m.onlyInCinemasAt = readDate(v, k);
  }
  missing(id, "id");
  missing(name, "name");
  missing(year, "year");
  return m;
}

// Parses `text` and hands its root to `read`; any failure becomes the error.
template <class T, class Read>
CatalogDecoded<T> decodeWith(const std::string& text, Read read) {
  simdjson::dom::parser parser;
  element root;
  // In place when the text has the padding the parser reads past its end.
  const auto error = text.capacity() - text.size() >= simdjson::SIMDJSON_PADDING
                         ? parser.parse(text.data(), text.size(), false).get(root)
                         : parser.parse(text).get(root);
  if (error) return Failure(CatalogFileError{simdjson::error_message(error)});
  try {
    return read(root);
  } catch (const DecodeError& e) {
    return Failure(CatalogFileError{e.what()});
  }
}

// ---- Writing. ----

// A date: whole seconds as an integer ("700000000", never "7e+08"), any
// other value in the shortest form that reads back the same.
void writeDate(JsonWriter& w, Date d) {
  if (std::trunc(d) == d && std::fabs(d) < 9e15)
    w.value(static_cast<int64_t>(d));
  else
    w.value(d);
}

void writeDate(JsonWriter& w, std::string_view key, const std::optional<Date>& d) {
  if (!d) return;
  w.key(key);
  writeDate(w, *d);
}

template <class Range>
void writeStrings(JsonWriter& w, const Range& values) {
  w.beginArray();
  for (const auto& v : values) w.value(v);
  w.endArray();
}

void writeCollection(JsonWriter& w, const CatalogCollection& c) {
  w.beginObject();
  w.field("id", c.id);
  w.field("name", c.name);
  w.key("source");
  writeSource(w, c.source);
  w.key("itemImdbIds");
  writeStrings(w, c.itemImdbIds);
  w.key("pinnedImdbIds");
  writeStrings(w, c.pinnedImdbIds);
  writeDate(w, "lastSyncedAt", c.lastSyncedAt);
  writeDate(w, "lastChangedAt", c.lastChangedAt);
  writeDate(w, "lastPublishedAt", c.lastPublishedAt);
  w.field("resolvePaused", c.resolvePaused);
  w.field("maxItems", c.maxItems);
  w.field("refreshInterval", static_cast<int>(c.refreshInterval));
  w.field("plexRatingKey", c.plexRatingKey);
  w.endObject();
}

void writeMeta(JsonWriter& w, const CatalogMeta& m) {
  w.beginObject();
  w.field("id", m.id);
  w.field("name", m.name);
  w.field("year", m.year);
  w.field("posterURL", m.posterURL);
  w.field("released", m.released);
  w.field("mediaType", m.mediaType);
  writeDate(w, "onlyInCinemasAt", m.onlyInCinemasAt);
  w.endObject();
}

void writeMap(JsonWriter& w, const std::map<std::string, Date>& map) {
  w.beginObject();
  for (const auto& [k, v] : map) {
    w.key(k);
    writeDate(w, v);
  }
  w.endObject();
}

void writeMap(JsonWriter& w, const std::map<std::string, int>& map) {
  w.beginObject();
  for (const auto& [k, v] : map) w.field(k, v);
  w.endObject();
}

}  // namespace

std::optional<std::string> readPaddedFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    ::close(fd);
    return std::nullopt;
  }
  // One byte more than the size tells whether the file grew meanwhile.
  const size_t want = static_cast<size_t>(std::max<off_t>(st.st_size, 0)) + 1;
  std::string out;
  out.reserve(want + simdjson::SIMDJSON_PADDING);
  out.resize(want);
  size_t used = 0;
  bool ok = true;
  while (used < want) {
    const ssize_t n = ::read(fd, out.data() + used, want - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    used += static_cast<size_t>(n);
  }
  ::close(fd);
  if (!ok) return std::nullopt;
  if (used == want) return readFile(path);  // it grew: read it the plain way
  out.resize(used);
  return out;
}

void writeSource(JsonWriter& w, const CollectionSource& s) {
  w.beginObject();
  w.field("kind", kindName(s.kind));
  if (s.kind == CollectionSource::Kind::stremioCatalog) {
    w.field("addonBaseURL", s.addonBaseURL);
    w.field("type", s.type);
    w.field("catalogId", s.catalogId);
    w.field("genre", s.genre);
  }
  w.endObject();
}

std::string encodeCollections(const std::vector<CatalogCollection>& collections) {
  size_t reserve = 64;
  for (const auto& c : collections) reserve += 300 + c.itemImdbIds.size() * 14 + c.pinnedImdbIds.size() * 14;
  JsonWriter w(reserve);
  w.beginArray();
  for (const auto& c : collections) writeCollection(w, c);
  w.endArray();
  return w.take();
}

CatalogDecoded<std::vector<CatalogCollection>> decodeCollections(const std::string& text) {
  return decodeWith<std::vector<CatalogCollection>>(text, [](element root) {
    std::vector<CatalogCollection> out;
    for (auto item : readArray(root, "collections")) out.push_back(readCollection(item));
    return out;
  });
}

std::string encodeMetas(const MetaCache& metas) {
  JsonWriter w(metas.size() * 200 + 2);
  w.beginObject();
  for (const auto& [id, meta] : metas) {
    w.key(id);
    writeMeta(w, meta);
  }
  w.endObject();
  return w.take();
}

CatalogDecoded<MetaCache> decodeMetas(const std::string& text) {
  return decodeWith<MetaCache>(text, [](element root) {
    MetaCache out;
    // Our own files hold the ids in ascending order, so each goes at the end.
    for (auto field : readObject(root, "metas"))
      out.insert_or_assign(out.end(), std::string(field.key), readMeta(field.value, field.key));
    return out;
  });
}

std::string encodeUuidList(const std::vector<std::string>& ids) {
  JsonWriter w(ids.size() * 40 + 2);
  writeStrings(w, ids);
  return w.take();
}

std::string encodeUuidSet(const std::set<std::string>& ids) {
  JsonWriter w(ids.size() * 40 + 2);
  writeStrings(w, ids);
  return w.take();
}

CatalogDecoded<std::vector<std::string>> decodeUuidList(const std::string& text) {
  return decodeWith<std::vector<std::string>>(
      text, [](element root) { return readStringArray<std::vector<std::string>>(root, "ids", readUuid); });
}

std::string encodeTextSet(const std::set<std::string>& names) {
  JsonWriter w;
  writeStrings(w, names);
  return w.take();
}

CatalogDecoded<std::set<std::string>> decodeTextSet(const std::string& text) {
  return decodeWith<std::set<std::string>>(
      text, [](element root) { return readStringArray<std::set<std::string>>(root, "names", readString); });
}

std::string encodeRevealed(const RevealedIds& revealed) {
  JsonWriter w;
  w.beginArray();
  for (const auto& [id, ids] : revealed) {
    w.value(id);
    writeStrings(w, ids);
  }
  w.endArray();
  return w.take();
}

CatalogDecoded<RevealedIds> decodeRevealed(const std::string& text) {
  return decodeWith<RevealedIds>(text, [](element root) {
    RevealedIds out;
    const auto flat = readArray(root, "revealed");
    for (auto it = flat.begin(); it != flat.end();) {
      auto id = readUuid(*it, "revealed key");
      ++it;
      if (it == flat.end()) throw DecodeError("revealed key " + id + " has no ids");
      out[id] = readStringArray<std::set<std::string>>(*it, "revealed ids", readString);
      ++it;
    }
    return out;
  });
}

std::string encodeVetting(const StreamVetting& vetting) {
  JsonWriter w;
  w.beginObject();
  w.key("vetted");
  writeMap(w, vetting.vetted);
  w.key("failed");
  writeMap(w, vetting.failed);
  if (vetting.failCounts) {
    w.key("failCounts");
    writeMap(w, *vetting.failCounts);
  }
  if (vetting.seriesComplete) {
    w.key("seriesComplete");
    writeMap(w, *vetting.seriesComplete);
  }
  w.endObject();
  return w.take();
}

CatalogDecoded<StreamVetting> decodeVetting(const std::string& text) {
  return decodeWith<StreamVetting>(text, [](element root) {
    StreamVetting v;
    bool vetted = false, failed = false;
    for (auto field : readObject(root, "vetting")) {
      if (field.value.is_null()) continue;
      const auto k = field.key;
      if (k == "vetted")
        v.vetted = readMap<Date>(field.value, k, readDate), vetted = true;
      else if (k == "failed")
        v.failed = readMap<Date>(field.value, k, readDate), failed = true;
      else if (k == "failCounts")
        v.failCounts = readMap<int>(field.value, k, readInt32);
      else if (k == "seriesComplete")
        v.seriesComplete = readMap<Date>(field.value, k, readDate);
    }
    missing(vetted, "vetted");
    missing(failed, "failed");
    return v;
  });
}

}  // namespace vt::catalogfile
