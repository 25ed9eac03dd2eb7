#include "wall/MosaicWall.h"

#include <algorithm>

namespace vt {

void MosaicWall::recompute(float viewWidth) {
  width = viewWidth;
  if (width <= targetWidth) {
    columns = 1;
    cellW = std::max(width, 1.0f);
    cellH = cellW * aspect;
  } else {
    columns = std::max(1, static_cast<int>(std::round(width / targetWidth)));
    cellW = (width - static_cast<float>(columns - 1)) / static_cast<float>(columns);
    cellH = std::round(cellW * aspect);
  }
  // Chapters that point past the film list are cut to what exists, so that no
  // lookup can read beyond it.
  const auto filmCount = static_cast<uint32_t>(films.size());
  for (auto& span : chapters) {
    span.first = std::min(span.first, filmCount);
    span.count = std::min(span.count, filmCount - span.first);
  }
  blockTop.resize(chapters.size());
  float y = topInset;
  for (size_t ch = 0; ch < chapters.size(); ++ch) {
    blockTop[ch] = y;
    const float rows = static_cast<float>(rowsOf(ch));
    y += cellH * rows + std::max(rows - 1.0f, 0.0f) + 1.0f;
  }
  contentHeight = y;
}

uint32_t MosaicWall::rowsOf(size_t chapter) const {
  const auto cols = static_cast<uint32_t>(std::max(columns, 1));
  return (chapters[chapter].count + cols - 1) / cols;
}

std::optional<std::pair<uint32_t, uint32_t>> MosaicWall::rowsInRange(size_t chapter, float top, float bottom) const {
  const uint32_t rows = rowsOf(chapter);
  if (rows == 0 || bottom < top) return std::nullopt;
  const float pitch = rowPitch();
  const double first = std::max(std::floor((top - blockTop[chapter]) / pitch), 0.0f);
  const double last = std::min(std::floor((bottom - blockTop[chapter]) / pitch), static_cast<float>(rows) - 1.0f);
  if (last < 0 || first > last) return std::nullopt;
  return std::pair{static_cast<uint32_t>(first), static_cast<uint32_t>(last)};
}

size_t MosaicWall::chapterAt(float y) const {
  const auto it = std::upper_bound(blockTop.begin(), blockTop.end(), y);
  return it == blockTop.begin() ? 0 : static_cast<size_t>(it - blockTop.begin()) - 1;
}

std::optional<MosaicAnchor> MosaicWall::anchorAt(float y) const {
  if (columns < 1) return std::nullopt;
  const float pitch = rowPitch();
  for (size_t ch = chapterAt(y); ch < chapters.size(); ++ch) {
    const uint32_t rows = rowsOf(ch);
    if (rows == 0) continue;
    const float row = std::max(std::ceil((y - blockTop[ch]) / pitch), 0.0f);
    if (row >= static_cast<float>(rows)) continue;
    const float rowTop = blockTop[ch] + pitch * row;
    const size_t index = chapters[ch].first + static_cast<size_t>(row) * static_cast<size_t>(columns);
    return MosaicAnchor{films[index].key, rowTop - y};
  }
  return std::nullopt;
}

std::optional<float> MosaicWall::topOfKey(uint64_t key) const {
  const auto it = std::find_if(films.begin(), films.end(), [key](const MosaicFilmRef& f) { return f.key == key; });
  if (it == films.end() || chapters.empty() || columns < 1) return std::nullopt;
  const auto index = static_cast<uint32_t>(it - films.begin());
  const auto ch = std::upper_bound(chapters.begin(), chapters.end(), index,
                                   [](uint32_t i, const MosaicChapterSpan& s) { return i < s.first; });
  if (ch == chapters.begin()) return std::nullopt;
  const size_t chapter = static_cast<size_t>(ch - chapters.begin()) - 1;
  const uint32_t local = index - chapters[chapter].first;
  if (local >= chapters[chapter].count) return std::nullopt;
  return blockTop[chapter] + rowPitch() * static_cast<float>(local / static_cast<uint32_t>(columns));
}

std::optional<MosaicCursor> MosaicWall::hit(float x, float y) const {
  if (x < 0 || x > width || chapters.empty() || columns < 1) return std::nullopt;
  const auto it = std::upper_bound(blockTop.begin(), blockTop.end(), y);
  if (it == blockTop.begin()) return std::nullopt;
  const size_t ch = static_cast<size_t>(it - blockTop.begin()) - 1;
  const float dy = y - blockTop[ch];
  const float row = std::floor(dy / rowPitch());
  const float column = std::floor(x / columnPitch());
  if (dy - row * rowPitch() > cellH || x - column * columnPitch() > cellW) return std::nullopt;  // in a gap
  if (row >= static_cast<float>(rowsOf(ch)) || column >= static_cast<float>(columns)) return std::nullopt;
  const uint32_t local = static_cast<uint32_t>(row) * static_cast<uint32_t>(columns) + static_cast<uint32_t>(column);
  if (local >= chapters[ch].count) return std::nullopt;
  return MosaicCursor{static_cast<uint32_t>(ch), local};
}

const MosaicFilmRef* MosaicWall::film(MosaicCursor c) const {
  if (c.chapter >= chapters.size() || c.local >= chapters[c.chapter].count) return nullptr;
  return &films[chapters[c.chapter].first + c.local];
}

MosaicRect MosaicWall::cellRect(MosaicCursor c) const {
  const auto cols = static_cast<uint32_t>(std::max(columns, 1));
  return MosaicRect{static_cast<float>(c.local % cols) * columnPitch(),
                    blockTop[c.chapter] + static_cast<float>(c.local / cols) * rowPitch(), cellW, cellH};
}

}  // namespace vt
