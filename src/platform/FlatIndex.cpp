#include "platform/FlatIndex.h"

#include <algorithm>
#include <bit>

namespace vt {

void FlatIndex::reset(size_t expected) {
  const size_t capacity = std::bit_ceil(std::max<size_t>(16, expected * 2));
  slots_.assign(capacity, Slot{});
  keys_.clear();
  keys_.reserve(expected * 24);
  mask_ = capacity - 1;
  size_ = 0;
}

void FlatIndex::grow() {
  // Twice the room; the keys stay where they are in keys_.
  auto old = std::move(slots_);
  slots_.assign(old.size() * 2, Slot{});
  mask_ = slots_.size() - 1;
  for (const auto& s : old) {
    if (!s.used) continue;
    size_t i = s.hash & mask_;
    while (slots_[i].used) i = (i + 1) & mask_;
    slots_[i] = s;
  }
}

uint32_t* FlatIndex::slotFor(std::string_view key, size_t hash, uint32_t valueIfNew) {
  if ((size_ + 1) * 2 > slots_.size()) {
    if (slots_.empty())
      reset(8);
    else
      grow();
  }
  for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
    auto& s = slots_[i];
    if (!s.used) {
      s = Slot{hash, static_cast<uint32_t>(keys_.size()), static_cast<uint32_t>(key.size()), valueIfNew, true};
      keys_.append(key);
      ++size_;
      return &s.value;
    }
    if (s.hash == hash && keyOf(s) == key) return &s.value;
  }
}

std::optional<uint32_t> FlatIndex::find(std::string_view key, size_t hash) const {
  if (slots_.empty()) return std::nullopt;
  for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
    const auto& s = slots_[i];
    if (!s.used) return std::nullopt;
    if (s.hash == hash && keyOf(s) == key) return s.value;
  }
}

}  // namespace vt
