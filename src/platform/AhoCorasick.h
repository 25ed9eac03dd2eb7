#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vt {

// Finds which of many byte strings occur in a text in a single pass over it
// (an Aho-Corasick automaton). Every word carries an id below MaxIds, several
// words may share one, and a scan answers with the ids of the words found.
// Add the words, build once, then scan from any number of threads.
template <size_t MaxIds>
class AhoCorasick {
 public:
  using Hits = std::bitset<MaxIds>;

  // `id` must be below MaxIds. Words added after build() count from the next
  // build() on.
  void add(std::string_view word, size_t id) { words_.emplace_back(std::string(word), id); }

  void build() {
    // Only the bytes that occur in some word get a symbol of their own; every
    // other byte is symbol 0, which no word holds. This keeps the transition
    // table narrow.
    symbols_.fill(0);
    int count = 1;
    for (const auto& [w, id] : words_)
      for (unsigned char c : w)
        if (!symbols_[c]) symbols_[c] = static_cast<uint8_t>(count++);
    width_ = count;
    next_.assign(static_cast<size_t>(width_), -1);
    out_.assign(1, Hits());
    fail_.assign(1, 0);
    for (const auto& [w, id] : words_) {
      int node = 0;
      for (unsigned char c : w) {
        int& child = next_[static_cast<size_t>(node * width_ + symbols_[c])];
        if (child < 0) {
          child = static_cast<int>(out_.size());
          out_.emplace_back();
          fail_.push_back(0);
          next_.resize(next_.size() + static_cast<size_t>(width_), -1);
        }
        node = next_[static_cast<size_t>(node * width_ + symbols_[c])];
      }
      out_[static_cast<size_t>(node)].set(id);
    }
    // Breadth first: a node's failure link and its missing transitions come
    // from nodes nearer the root, which are already complete.
    std::deque<int> queue;
    for (int c = 0; c < width_; ++c) {
      int& child = next_[static_cast<size_t>(c)];
      if (child < 0) {
        child = 0;
      } else {
        fail_[static_cast<size_t>(child)] = 0;
        queue.push_back(child);
      }
    }
    while (!queue.empty()) {
      const int n = queue.front();
      queue.pop_front();
      const int f = fail_[static_cast<size_t>(n)];
      out_[static_cast<size_t>(n)] |= out_[static_cast<size_t>(f)];
      for (int c = 0; c < width_; ++c) {
        int& child = next_[static_cast<size_t>(n * width_ + c)];
        const int viaFail = next_[static_cast<size_t>(f * width_ + c)];
        if (child < 0) {
          child = viaFail;
        } else {
          fail_[static_cast<size_t>(child)] = viaFail;
          queue.push_back(child);
        }
      }
    }
  }

  // The ids of the words that occur in `text`; none before build().
  Hits scan(std::string_view text) const {
    Hits hits;
    if (next_.empty()) return hits;
    int node = 0;
    for (unsigned char c : text) {
      node = next_[static_cast<size_t>(node * width_ + symbols_[c])];
      hits |= out_[static_cast<size_t>(node)];
    }
    return hits;
  }

 private:
  std::vector<std::pair<std::string, size_t>> words_;
  std::array<uint8_t, 256> symbols_{};
  int width_ = 1;
  std::vector<int> next_;
  std::vector<int> fail_;
  std::vector<Hits> out_;
};

}  // namespace vt
