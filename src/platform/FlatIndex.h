#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// An open-addressing index from string keys to positions, for indexes that
// are rebuilt wholesale: the keys are copied into one buffer, so a rebuild
// makes no allocation per key and the index never depends on the lifetime of
// the strings it was built from.
class FlatIndex {
 public:
  static size_t hashOf(std::string_view key) { return std::hash<std::string_view>{}(key); }

  // Empties the index and makes room for `expected` keys.
  void reset(size_t expected);
  // Sets the value, replacing an earlier one.
  void assign(std::string_view key, size_t hash, uint32_t value) { *slotFor(key, hash, value) = value; }
  // Sets the value only when the key is new; returns the value it holds.
  uint32_t insertIfAbsent(std::string_view key, size_t hash, uint32_t value) { return *slotFor(key, hash, value); }
  std::optional<uint32_t> find(std::string_view key) const { return find(key, hashOf(key)); }
  std::optional<uint32_t> find(std::string_view key, size_t hash) const;
  size_t size() const { return size_; }

 private:
  struct Slot {
    size_t hash = 0;
    uint32_t offset = 0;  // of the key in keys_
    uint32_t length = 0;
    uint32_t value = 0;
    bool used = false;
  };
  std::string_view keyOf(const Slot& s) const { return std::string_view(keys_).substr(s.offset, s.length); }
  uint32_t* slotFor(std::string_view key, size_t hash, uint32_t valueIfNew);
  void grow();

  std::vector<Slot> slots_;
  std::string keys_;
  size_t mask_ = 0;
  size_t size_ = 0;
};

}  // namespace vt
