#include "sources/release/UnrecognizedReleaseWords.h"

#include <algorithm>

#include "platform/Json.h"
#include "platform/SerialFileWriter.h"
#include "sources/release/ReleaseParser.h"

namespace vt {

UnrecognizedReleaseWords::UnrecognizedReleaseWords(std::optional<std::string> file) : file_(std::move(file)) {
  if (!file_) return;
  auto text = readFile(*file_);
  auto doc = text ? json::parse(*text) : std::nullopt;
  if (!doc || !doc->is_object()) return;
  try {
    std::map<std::string, Word> loaded;
    for (auto it = doc->begin(); it != doc->end(); ++it)
      loaded[it.key()] = Word{json::required<int64_t>(*it, "count"), json::required<std::string>(*it, "example")};
    words_ = std::move(loaded);
  } catch (const DecodeError&) {
    // An unreadable file starts an empty census.
  }
}

std::map<std::string, UnrecognizedReleaseWords::Word> UnrecognizedReleaseWords::words() const {
  std::lock_guard guard(lock_);
  return words_;
}

void UnrecognizedReleaseWords::record(const std::vector<std::string>& names) {
  std::vector<std::string> fresh;
  {
    std::lock_guard guard(lock_);
    for (const auto& n : names)
      if (seenNames_.insert(n).second) fresh.push_back(n);
  }
  if (fresh.empty()) return;

  std::vector<std::vector<std::string>> found;
  found.reserve(fresh.size());
  for (const auto& n : fresh) found.push_back(ReleaseParser::unrecognizedWords(n));

  std::optional<std::map<std::string, Word>> toSave;
  {
    std::lock_guard guard(lock_);
    for (size_t i = 0; i < fresh.size(); ++i) {
      for (const auto& w : found[i]) {
        auto [it, inserted] = words_.try_emplace(w, Word{0, fresh[i]});
        ++it->second.count;
      }
    }
    if (words_.size() > kMaxWords) {
      std::vector<std::pair<int64_t, std::string>> byCount;
      for (const auto& [w, word] : words_) byCount.emplace_back(word.count, w);
      std::stable_sort(byCount.begin(), byCount.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
      for (size_t i = 0; i < byCount.size() - kMaxWords; ++i) words_.erase(byCount[i].second);
    }
    unsaved_ += static_cast<int>(fresh.size());
    if (unsaved_ > kFlushAfter) {
      unsaved_ = 0;
      toSave = words_;
    }
  }
  if (toSave && file_) {
    Json out = Json::object();
    for (const auto& [w, word] : *toSave) {
      Json entry;
      entry["count"] = word.count;
      entry["example"] = word.example;
      out[w] = entry;
    }
    writeFileAtomically(*file_, json::encode(out));
  }
}

}  // namespace vt
