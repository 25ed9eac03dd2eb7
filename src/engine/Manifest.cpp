#include "engine/Manifest.h"

#include <xxhash.h>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "core/LibraryStore.h"

namespace vt {

namespace {

int64_t mtimeOf(const std::optional<Date>& resolvedAt) {
  if (!resolvedAt) return 1;
  const double unix = unixSecondsFromDate(*resolvedAt);
  return std::isfinite(unix) ? static_cast<int64_t>(unix) : 0;
}

bool verified(const std::optional<bool>& sizeVerified, int64_t size) {
  return sizeVerified == true && size != kPlaceholderSize;
}

std::string subtitleName(const std::string& name, const std::string& language) {
  const auto slash = name.find_last_of('/');
  const auto dot = name.find_last_of('.');
  const bool hasExt = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
  return (hasExt ? name.substr(0, dot) : name) + "." + language + ".srt";
}

}  // namespace

ManifestEntries buildEntries(const LibraryStore& library, const std::function<bool(const LibraryTitle&)>& isHidden,
                             bool companionVersions) {
  ManifestEntries out;
  out.movie.reserve(library.size());
  for (const auto& record : library.records()) {
    const auto& t = record->title;
    if (t.url.empty()) continue;
    auto& list = t.season ? out.tv : out.movie;
    const bool hidden = isHidden ? isHidden(t) : false;
    const int64_t mtime = mtimeOf(t.resolvedAt);

    EngineEntry main;
    main.name = t.name;
    main.url = t.url;
    main.size = t.size;
    main.mtime = mtime;
    main.rd_link = t.rdLink.value_or("");
    main.resolve_url = t.resolveURL.value_or("");
    main.hidden = hidden;
    main.size_verified = verified(t.sizeVerified, t.size);
    if (t.mirrorURLs) {
      std::vector<EngineAltSource> alts;
      alts.reserve(t.mirrorURLs->size());
      for (const auto& m : *t.mirrorURLs) alts.push_back({m});
      main.alt_sources = std::move(alts);
    }
    list.push_back(std::move(main));

    if (!t.season && companionVersions && t.altVersion && !t.altVersion->resolveURL.empty()) {
      const auto& a = *t.altVersion;
      EngineEntry c;
      c.name = a.name;
      c.size = a.size;
      c.mtime = mtimeOf(a.resolvedAt);
      c.resolve_url = a.resolveURL;
      c.hidden = hidden;
      c.size_verified = verified(a.sizeVerified, a.size);
      c.lazy = true;
      list.push_back(std::move(c));
    }

    if (t.subtitlePath) {
      EngineEntry s;
      s.name = subtitleName(t.name, t.subtitleLang.value_or("en"));
      s.size = 0;
      s.mtime = mtime;
      s.local = *t.subtitlePath;
      s.hidden = hidden;
      list.push_back(std::move(s));
    }
  }
  return out;
}

namespace {

// Feeds the canonical rows, in name order, to `sink(row, hidden)`.
template <class Sink>
void canonicalRows(const std::vector<EngineEntry>& entries, Sink&& sink) {
  std::vector<const EngineEntry*> sorted;
  sorted.reserve(entries.size());
  for (const auto& e : entries) sorted.push_back(&e);
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const EngineEntry* a, const EngineEntry* b) { return a->name < b->name; });
  std::string row;
  char num[24];
  auto field = [&](std::string_view v) {
    row.append(v);
    row += '\x1F';
  };
  auto number = [&](int64_t n) {
    auto [p, ec] = std::to_chars(num, num + sizeof num, n);
    field(std::string_view(num, static_cast<size_t>(p - num)));
  };
  for (const auto* e : sorted) {
    row.clear();
    field(e->name);
    field(e->url);
    number(e->size);
    number(e->mtime);
    field(e->rd_link);
    field(e->resolve_url);
    field(e->local);
    field(e->hidden ? "true" : "false");
    field(e->size_verified ? "true" : "false");
    if (e->alt_sources) {
      for (size_t i = 0; i < e->alt_sources->size(); ++i) {
        if (i) row += '\x1E';
        row += (*e->alt_sources)[i].resolve_url;
      }
    }
    sink(row, e->hidden);
  }
}

}  // namespace

std::string fingerprintText(const std::vector<EngineEntry>& entries, bool visibleOnly) {
  std::string text;
  bool first = true;
  canonicalRows(entries, [&](const std::string& row, bool hidden) {
    if (visibleOnly && hidden) return;
    if (!first) text += '\n';
    first = false;
    text += row;
  });
  return text;
}

namespace {

// A streaming 128-bit XXH3 over the canonical text.
class TextDigest {
 public:
  TextDigest() : state_(XXH3_createState()) { XXH3_128bits_reset(state_); }
  ~TextDigest() { XXH3_freeState(state_); }
  TextDigest(const TextDigest&) = delete;
  TextDigest& operator=(const TextDigest&) = delete;
  void addRow(const std::string& row) {
    if (!first_) XXH3_128bits_update(state_, "\n", 1);
    first_ = false;
    XXH3_128bits_update(state_, row.data(), row.size());
  }
  std::string hex() const {
    const XXH128_hash_t h = XXH3_128bits_digest(state_);
    char buf[33];
    std::snprintf(buf, sizeof buf, "%016llx%016llx", static_cast<unsigned long long>(h.high64),
                  static_cast<unsigned long long>(h.low64));
    return buf;
  }

 private:
  XXH3_state_t* state_;
  bool first_ = true;
};

}  // namespace

ManifestFingerprints fingerprints(const std::vector<EngineEntry>& entries) {
  TextDigest all;
  TextDigest visible;
  canonicalRows(entries, [&](const std::string& row, bool hidden) {
    all.addRow(row);
    if (!hidden) visible.addRow(row);
  });
  return {all.hex(), visible.hex()};
}

}  // namespace vt
