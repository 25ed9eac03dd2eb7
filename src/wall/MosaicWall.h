#pragma once

#include <cmath>
#include <cstdint>
#include <optional>
#include <vector>

namespace vt {

// Lengths are points, y grows downward. Content y counts from the top of the
// wall, screen y from the top of the view (screen y = content y - scroll).

// The place of a cell: its chapter and the film's index inside that chapter.
struct MosaicCursor {
  uint32_t chapter = 0;
  uint32_t local = 0;
  bool operator==(const MosaicCursor&) const = default;
};

struct MosaicChapterSpan {
  uint32_t count = 0;  // films in the chapter
  uint32_t first = 0;  // index of its first film in `films`
  bool operator==(const MosaicChapterSpan&) const = default;
};

struct MosaicFilmRef {
  uint64_t key = 0;
  bool inPlex = false;
  bool operator==(const MosaicFilmRef&) const = default;
};

struct MosaicRect {
  float x = 0, y = 0, width = 0, height = 0;
  bool contains(float px, float py) const { return px >= x && px <= x + width && py >= y && py <= y + height; }
  bool operator==(const MosaicRect&) const = default;
};

// One visible cell; `rect.y` is in content space until drawn.
struct MosaicPlaced {
  MosaicCursor cursor;
  uint64_t key = 0;
  bool inPlex = false;
  MosaicRect rect;
};

// A film at the top of a view and how far below the view's top its row starts.
struct MosaicAnchor {
  uint64_t key = 0;
  float offset = 0;
};

// The layout of the wall: chapters of films in rows of equal cells, separated
// by 1-point gaps; a chapter's only mark is one extra gap above it.
struct MosaicWall {
  std::vector<MosaicChapterSpan> chapters;
  std::vector<MosaicFilmRef> films;  // chapter after chapter
  int columns = 1;
  float cellW = 1;
  float cellH = 1.5f;
  float width = 0;  // view width
  float contentHeight = 0;
  float topInset = 0;
  float targetWidth = 150.0f;
  float aspect = 1.5f;          // height over width
  std::vector<float> blockTop;  // content y of each chapter's first row

  void recompute(float viewWidth);

  float rowPitch() const { return cellH + 1.0f; }
  float columnPitch() const { return cellW + 1.0f; }
  uint32_t rowsOf(size_t chapter) const;

  // The rows of `chapter` that meet [top, bottom], as first and last row.
  std::optional<std::pair<uint32_t, uint32_t>> rowsInRange(size_t chapter, float top, float bottom) const;

  // Calls fn(cursor, filmIndex) for each film in rows meeting [top, bottom],
  // in wall order. Visits only the chapters that meet the range.
  template <class Fn>
  void forEachFilmIn(float top, float bottom, Fn&& fn) const;

  // The first film whose row top is at or after y, with (row top - y).
  std::optional<MosaicAnchor> anchorAt(float y) const;
  // Content y of the row holding `key`.
  std::optional<float> topOfKey(uint64_t key) const;
  // The cell under content (x, y); nothing in a gap or past the films.
  std::optional<MosaicCursor> hit(float x, float y) const;
  // The film at a cursor, or null when the cursor names none.
  const MosaicFilmRef* film(MosaicCursor c) const;
  // Index of the first chapter that may meet content y (binary search).
  size_t chapterAt(float y) const;
  // The cell rectangle of a cursor, in content space.
  MosaicRect cellRect(MosaicCursor c) const;
};

template <class Fn>
void MosaicWall::forEachFilmIn(float top, float bottom, Fn&& fn) const {
  if (chapters.empty() || columns < 1) return;
  const uint32_t cols = static_cast<uint32_t>(columns);
  for (size_t ch = chapterAt(top); ch < chapters.size(); ++ch) {
    if (blockTop[ch] > bottom) break;
    const auto rows = rowsInRange(ch, top, bottom);
    if (!rows) continue;
    const MosaicChapterSpan span = chapters[ch];
    for (uint32_t row = rows->first; row <= rows->second; ++row) {
      const uint32_t begin = row * cols;
      const uint32_t end = std::min(span.count, begin + cols);
      for (uint32_t local = begin; local < end; ++local) {
        fn(MosaicCursor{static_cast<uint32_t>(ch), local}, static_cast<size_t>(span.first) + local);
      }
    }
  }
}

}  // namespace vt
