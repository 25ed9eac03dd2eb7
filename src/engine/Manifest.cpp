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

// "<name without extension>.<language>.srt", written into `out`.
void setSubtitleName(std::string& out, const std::string& name, const std::string& language) {
  const auto slash = name.find_last_of('/');
  const auto dot = name.find_last_of('.');
  const bool hasExt = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
  out.assign(name, 0, hasExt ? dot : name.size());
  out += '.';
  out += language;
  out += ".srt";
}

// The next entry of `list`, reusing one that an earlier build left there.
EngineEntry& nextEntry(std::vector<EngineEntry>& list, size_t& used) {
  if (used == list.size()) list.emplace_back();
  return list[used++];
}

void setOptional(std::string& field, const std::optional<std::string>& value) {
  if (value)
    field = *value;
  else
    field.clear();
}

}  // namespace

ManifestEntries buildEntries(const LibraryStore& library, const std::function<bool(const LibraryTitle&)>& isHidden,
                             bool companionVersions) {
  ManifestEntries out;
  buildEntries(library, isHidden, companionVersions, out);
  return out;
}

void buildEntries(const LibraryStore& library, const std::function<bool(const LibraryTitle&)>& isHidden,
                  bool companionVersions, ManifestEntries& out) {
  // Every field of a reused entry is set: strings keep their storage.
  if (out.movie.capacity() < library.size()) out.movie.reserve(library.size());
  size_t movies = 0, episodes = 0;
  for (const auto& record : library.records()) {
    const auto& t = record->title;
    if (t.url.empty()) continue;
    auto& list = t.season ? out.tv : out.movie;
    auto& used = t.season ? episodes : movies;
    const bool hidden = isHidden ? isHidden(t) : false;
    const int64_t mtime = mtimeOf(t.resolvedAt);

    EngineEntry& main = nextEntry(list, used);
    main.name = t.name;
    main.url = t.url;
    main.size = t.size;
    main.mtime = mtime;
    setOptional(main.rd_link, t.rdLink);
    setOptional(main.resolve_url, t.resolveURL);
    main.local.clear();
    main.hidden = hidden;
    main.size_verified = verified(t.sizeVerified, t.size);
    main.lazy = false;
    if (t.mirrorURLs) {
      auto& alts = main.alt_sources ? *main.alt_sources : main.alt_sources.emplace();
      alts.resize(t.mirrorURLs->size());
      for (size_t i = 0; i < alts.size(); ++i) alts[i].resolve_url = (*t.mirrorURLs)[i];
    } else {
      main.alt_sources.reset();
    }

    if (!t.season && companionVersions && t.altVersion && !t.altVersion->resolveURL.empty()) {
      const auto& a = *t.altVersion;
      EngineEntry& c = nextEntry(list, used);
      c.name = a.name;
      c.url.clear();
      c.size = a.size;
      c.mtime = mtimeOf(a.resolvedAt);
      c.rd_link.clear();
      c.resolve_url = a.resolveURL;
      c.local.clear();
      c.hidden = hidden;
      c.size_verified = verified(a.sizeVerified, a.size);
      c.lazy = true;
      c.alt_sources.reset();
    }

    if (t.subtitlePath) {
      EngineEntry& s = nextEntry(list, used);
      setSubtitleName(s.name, t.name, t.subtitleLang.value_or("en"));
      s.url.clear();
      s.size = 0;
      s.mtime = mtime;
      s.rd_link.clear();
      s.resolve_url.clear();
      s.local = *t.subtitlePath;
      s.hidden = hidden;
      s.size_verified = false;
      s.lazy = false;
      s.alt_sources.reset();
    }
  }
  out.movie.resize(movies);
  out.tv.resize(episodes);
}

namespace {

// Feeds the canonical rows, in name order, to `sink(row, hidden)`.
template <class Sink>
void canonicalRows(const std::vector<EngineEntry>& entries, Sink&& sink) {
  // The names sit beside the pointers, so that a comparison reads no entry.
  std::vector<std::pair<std::string_view, const EngineEntry*>> sorted;
  sorted.reserve(entries.size());
  for (const auto& e : entries) sorted.emplace_back(e.name, &e);
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
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
  for (const auto& [name, e] : sorted) {
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
