#pragma once

#include <atomic>
#include <cstddef>
#include <iterator>
#include <memory>
#include <vector>

namespace vt {

// A list kept in fixed-size chunks that copies of the list share. A copy costs
// one pointer per chunk, and a change to a list copies only the chunk it
// touches, and only while another copy still holds that chunk. For a large
// list that is snapshotted often (a background save's view of it) and changed
// a few items at a time. Copies may be read and dropped on other threads; a
// list itself is changed by one thread at a time.
template <class T, size_t ChunkSize = 1024>
class SharedChunkList {
  static_assert((ChunkSize & (ChunkSize - 1)) == 0, "ChunkSize is a power of two");
  using Chunk = std::vector<T>;

 public:
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = const T*;
    using reference = const T&;

    const_iterator() = default;
    const T& operator*() const { return (*list_)[index_]; }
    const T* operator->() const { return &(*list_)[index_]; }
    const_iterator& operator++() {
      ++index_;
      return *this;
    }
    const_iterator operator++(int) {
      auto before = *this;
      ++index_;
      return before;
    }
    bool operator==(const const_iterator& o) const { return index_ == o.index_; }

   private:
    friend class SharedChunkList;
    const_iterator(const SharedChunkList* list, size_t index) : list_(list), index_(index) {}
    const SharedChunkList* list_ = nullptr;
    size_t index_ = 0;
  };

  SharedChunkList() = default;
  explicit SharedChunkList(std::vector<T>&& items) {
    chunks_.reserve((items.size() + ChunkSize - 1) / ChunkSize);
    for (auto& item : items) push_back(std::move(item));
  }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const T& operator[](size_t i) const { return (*chunks_[i / ChunkSize])[i % ChunkSize]; }
  const T& back() const { return (*this)[size_ - 1]; }
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, size_); }

  void set(size_t i, T value) { writable(i / ChunkSize)[i % ChunkSize] = std::move(value); }
  void push_back(T value) {
    if (size_ % ChunkSize == 0) {
      auto chunk = std::make_shared<Chunk>();
      chunk->reserve(ChunkSize);
      chunks_.push_back(std::move(chunk));
    }
    writable(chunks_.size() - 1).push_back(std::move(value));
    ++size_;
  }
  // Keeps the items `pred` rejects, in order; the number removed. Rebuilds
  // the whole list.
  template <class Pred>
  size_t eraseIf(Pred pred) {
    SharedChunkList kept;
    kept.chunks_.reserve(chunks_.size());
    for (const auto& item : *this)
      if (!pred(item)) kept.push_back(item);
    const size_t removed = size_ - kept.size_;
    *this = std::move(kept);
    return removed;
  }

 private:
  // The chunk, copied first when another list still shares it.
  Chunk& writable(size_t c) {
    auto& chunk = chunks_[c];
    if (chunk.use_count() == 1) {
      // The last other holder may have let go on another thread just now:
      // its reads of the chunk come before our writes.
      std::atomic_thread_fence(std::memory_order_acquire);
    } else {
      auto copy = std::make_shared<Chunk>();
      copy->reserve(ChunkSize);
      copy->assign(chunk->begin(), chunk->end());
      chunk = std::move(copy);
    }
    return *chunk;
  }

  std::vector<std::shared_ptr<Chunk>> chunks_;
  size_t size_ = 0;
};

}  // namespace vt
