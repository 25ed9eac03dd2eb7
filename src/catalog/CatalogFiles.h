#pragma once

// The catalog's seven files, byte for byte. Each is compact JSON with keys in
// a fixed order, absent optionals left out, dates as seconds since
// 2001-01-01 UTC, UUIDs in upper case and sets as arrays sorted ascending, so
// that reading a file and writing it again gives the same bytes.
//
// Decoding is strict: a wrong type, a missing required key, an unknown source
// kind or refresh interval, or an id that is not a UUID fails the whole file.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "catalog/CatalogTypes.h"
#include "platform/Result.h"

namespace vt {

class JsonWriter;

struct CatalogFileError {
  std::string text;
};
inline std::string message(const CatalogFileError& e) { return e.text; }

template <class T>
using CatalogDecoded = Result<T, CatalogFileError>;

using MetaCache = std::map<std::string, CatalogMeta>;
using RevealedIds = std::map<std::string, std::set<std::string>>;

namespace catalogfile {

inline constexpr const char* kCollections = "collections.json";
inline constexpr const char* kMeta = "catalog-meta.json";
inline constexpr const char* kMaterialised = "materialised.json";
inline constexpr const char* kOwnedGroupings = "owned-groupings.json";
inline constexpr const char* kStaging = "staging.json";
inline constexpr const char* kStagingRevealed = "staging-revealed.json";
inline constexpr const char* kStreamVetting = "stream-vetting.json";

// A whole file, read with spare capacity after its bytes so that the
// decoders below parse it in place; none when it can't be read. Decoders
// copy a text that lacks that room.
std::optional<std::string> readPaddedFile(const std::string& path);

// A collection's source as the object under "source".
void writeSource(JsonWriter& w, const CollectionSource& source);

// collections.json: an array of collections.
std::string encodeCollections(const std::vector<CatalogCollection>& collections);
CatalogDecoded<std::vector<CatalogCollection>> decodeCollections(const std::string& text);

// catalog-meta.json: an object from IMDb id to its record, ids ascending.
std::string encodeMetas(const MetaCache& metas);
CatalogDecoded<MetaCache> decodeMetas(const std::string& text);

// materialised.json (in order) and staging.json (a set): arrays of UUIDs.
std::string encodeUuidList(const std::vector<std::string>& ids);
std::string encodeUuidSet(const std::set<std::string>& ids);
CatalogDecoded<std::vector<std::string>> decodeUuidList(const std::string& text);

// owned-groupings.json: an array of names, ascending.
std::string encodeTextSet(const std::set<std::string>& names);
CatalogDecoded<std::set<std::string>> decodeTextSet(const std::string& text);

// staging-revealed.json: [uuid1, [ids], uuid2, [ids], ...], UUIDs ascending.
std::string encodeRevealed(const RevealedIds& revealed);
CatalogDecoded<RevealedIds> decodeRevealed(const std::string& text);

// stream-vetting.json: {"vetted":{...},"failed":{...},"failCounts":{...},"seriesComplete":{...}}.
std::string encodeVetting(const StreamVetting& vetting);
CatalogDecoded<StreamVetting> decodeVetting(const std::string& text);

}  // namespace catalogfile
}  // namespace vt
