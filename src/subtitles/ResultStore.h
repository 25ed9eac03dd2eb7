#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Json.h"
#include "subtitles/Cues.h"

namespace vt {

// What was proven about one film file: its winning subtitle, the fit, the
// cues, or a proven failure. Stored in "assets.json" and shared through the
// relay as the same JSON. Absent optional fields are left out of the JSON.
struct AssetEntry {
  struct Winner {
    std::string fileId;
    std::string release;
    std::string lang;
    std::string verdict;
    int64_t rank = 0;
    bool operator==(const Winner&) const = default;
  };
  struct Fit {
    double scale = 1;
    int64_t offsetMs = 0;
    int64_t residMs = 0;
    int64_t pts = 0;
    bool operator==(const Fit&) const = default;
  };
  // In the subtitle file's own clock.
  struct Cue {
    int64_t n = 0;
    int64_t start = 0;  // milliseconds
    int64_t end = 0;    // milliseconds
    std::string text;
    static Cue from(const EngineCue& cue) { return {cue.n, cue.startMs, cue.endMs, cue.text}; }
    bool operator==(const Cue&) const = default;
  };
  struct Timing {
    bool settled = false;
    std::string why;
    int64_t windows = 0;
    bool operator==(const Timing&) const = default;
  };
  struct Bible {
    std::string text;
    std::string tgt;
    bool operator==(const Bible&) const = default;
  };

  std::string kind;
  std::string imdb;
  std::optional<std::string> title;
  std::optional<std::string> outcome;  // "no-match" for a proven failure; absent on a winner
  std::optional<std::string> why;
  std::optional<Winner> winner;
  std::optional<Fit> fit;
  std::optional<std::vector<Cue>> cues;
  std::optional<Timing> timing;
  std::optional<Bible> bible;
  double createdAt = 0;  // seconds since 1970

  bool operator==(const AssetEntry&) const = default;

  Json toJson() const;
  // Throws DecodeError naming the key at fault.
  static AssetEntry fromJson(const Json& json);
};

// Cue numbers printed as decimal text sort as numbers (shorter text first),
// so a translation map reads in cue order in the file.
struct CueKeyLess {
  bool operator()(const std::string& a, const std::string& b) const {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
  }
};

// One finished translation, under the key "<asset>|<fileId>|<target>". The
// asset key holds "|" itself, so keys are compared whole and never split.
struct TranslationEntry {
  std::map<std::string, std::string, CueKeyLess> map;  // cue `n` as decimal text → its translation
  std::string src;
  std::string tgt;
  std::string fileId;
  double createdAt = 0;  // seconds since 1970

  bool operator==(const TranslationEntry&) const = default;

  Json toJson() const;
  static TranslationEntry fromJson(const Json& json);
};

// The key of a translation in "translations.json".
inline std::string translationKey(std::string_view asset, std::string_view fileId, std::string_view target) {
  std::string key(asset);
  key.append("|").append(fileId).append("|").append(target);
  return key;
}

// A JSON file holding an object from key to T: a cache, so a file that is
// absent or does not decode reads as empty and the next write replaces it.
// Every read-change-write of either file runs under one process-wide lock,
// shared by all Store objects and all threads.
template <class T>
class Store {
 public:
  using Dictionary = std::map<std::string, T>;

  explicit Store(std::string file) : file_(std::move(file)) {}

  const std::string& file() const { return file_; }

  // Empty on any failure.
  Dictionary read() const;
  // Pretty-printed, through "<file>.tmp" renamed over the file; a failure is dropped.
  void write(const Dictionary& entries) const;
  // Reads, sets the key and writes, all under the file's lock.
  void upsert(const std::string& key, T value) const;
  // Removes the key under the file's lock.
  void remove(const std::string& key) const;

 private:
  std::string file_;
};

using AssetStore = Store<AssetEntry>;
using TranslationStore = Store<TranslationEntry>;

// The file names of the two stores in a job's cache directory.
inline constexpr const char* kAssetStoreFile = "assets.json";
inline constexpr const char* kTranslationStoreFile = "translations.json";

extern template class Store<AssetEntry>;
extern template class Store<TranslationEntry>;

}  // namespace vt
