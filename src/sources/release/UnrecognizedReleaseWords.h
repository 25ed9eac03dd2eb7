#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vt {

// A small census of the words in release names that the parser could not
// place, kept in unrecognized-release-words.json for whoever extends the
// parser. Safe to call from any thread; the lock is never held while parsing
// or writing the file.
class UnrecognizedReleaseWords {
 public:
  struct Word {
    int64_t count = 0;
    std::string example;  // the first name the word was seen in
    bool operator==(const Word&) const = default;
  };
  static constexpr size_t kMaxWords = 500;
  static constexpr int kFlushAfter = 24;

  // Reads `file` once (none: memory only).
  explicit UnrecognizedReleaseWords(std::optional<std::string> file);

  // The raw row names of one resolve. Each name counts once per run.
  void record(const std::vector<std::string>& names);

  std::map<std::string, Word> words() const;

 private:
  mutable std::mutex lock_;
  std::optional<std::string> file_;
  std::map<std::string, Word> words_;
  std::set<std::string> seenNames_;
  int unsaved_ = 0;
};

}  // namespace vt
