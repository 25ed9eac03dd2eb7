#include "catalog/CatalogTypes.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include "platform/Crypto.h"

namespace vt {

double seconds(CatalogRefreshInterval interval) { return static_cast<int>(interval) * 3600.0; }

std::optional<CatalogRefreshInterval> refreshIntervalFromRaw(int64_t hours) {
  switch (hours) {
    case 1:
      return CatalogRefreshInterval::oneHour;
    case 6:
      return CatalogRefreshInterval::sixHours;
    case 12:
      return CatalogRefreshInterval::twelveHours;
    default:
      return std::nullopt;
  }
}

CollectionSource CollectionSource::stremioCatalog(std::string addonBaseURL, std::string type, std::string catalogId,
                                                  std::optional<std::string> genre) {
  return CollectionSource{Kind::stremioCatalog, std::move(addonBaseURL), std::move(type), std::move(catalogId),
                          std::move(genre)};
}

std::string_view kindName(CollectionSource::Kind kind) {
  switch (kind) {
    case CollectionSource::Kind::stremioCatalog:
      return "stremioCatalog";
    case CollectionSource::Kind::library:
      return "library";
    case CollectionSource::Kind::manual:
      return "manual";
    case CollectionSource::Kind::watchlist:
      return "watchlist";
  }
  return "manual";
}

namespace {

// Each blank-separated word with its first character in upper case and the
// rest in lower case ("imdb top" -> "Imdb Top").
std::string capitalisedWords(std::string_view text) {
  const auto source = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  icu::UnicodeString out;
  bool wordStart = true;
  for (int32_t i = 0; i < source.length();) {
    const UChar32 c = source.char32At(i);
    i += U16_LENGTH(c);
    if (u_isWhitespace(c)) {
      out.append(c);
      wordStart = true;
      continue;
    }
    out.append(wordStart ? u_toupper(c) : u_tolower(c));
    wordStart = false;
  }
  std::string utf8;
  out.toUTF8String(utf8);
  return utf8;
}

}  // namespace

std::string CollectionSource::displayName() const {
  switch (kind) {
    case Kind::library:
      return "All titles";
    case Kind::manual:
      return "Manual";
    case Kind::watchlist:
      return "Plex Watchlist";
    case Kind::stremioCatalog:
      break;
  }
  const bool series = type == "series";
  std::string name;
  if (catalogId == "top")
    name = std::string("Popular ") + (series ? "shows" : "movies");
  else if (catalogId == "year")
    name = series ? "New shows" : "New releases";
  else if (catalogId == "imdbRating")
    name = "Top rated";
  else
    name = capitalisedWords(catalogId);
  if (genre) name += " · " + *genre;
  return name;
}

std::string newCollectionId() { return newUuid(); }

std::optional<std::string> normalisedUuid(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    char& c = out[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return std::nullopt;
    } else if (c >= 'a' && c <= 'f') {
      c = static_cast<char>(c - 'a' + 'A');
    } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
      return std::nullopt;
    }
  }
  return out;
}

}  // namespace vt
