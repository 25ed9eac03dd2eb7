#include <gtest/gtest.h>

#include "WallHarness.h"
#include "wall/MosaicKey.h"
#include "wall/MosaicWall.h"

namespace vt {
namespace {

MosaicWall wallOf(const std::vector<uint32_t>& counts, float targetWidth = 100.0f, float topInset = 0) {
  auto change = test::makeWall(counts, 1);
  MosaicWall w;
  w.chapters = change.chapters;
  w.films = change.films;
  w.targetWidth = targetWidth;
  w.topInset = topInset;
  return w;
}

TEST(MosaicWallLayout, ColumnsAndCellsAtTheBreakpoints) {
  struct Row {
    float viewWidth;
    int columns;
    float cellW, cellH;
  };
  const std::vector<Row> rows = {
      {100.0f, 1, 100.0f, 150.0f},      // at the target width: one column as wide as the view
      {63.3f, 1, 63.3f, 63.3f * 1.5f},  // not rounded in a single column
      {0.25f, 1, 1.0f, 1.5f},           // never narrower than a point
      {1009.0f, 10, 100.0f, 150.0f},    // exactly 100 by 150 with a 1-point gap
      {100.5f, 1, 100.5f, 151.0f},      // just past the target: the count rounds, halves away from zero
      {150.0f, 2, 74.5f, 112.0f},       // 111.75 rounded
      {1050.0f, 11, 1040.0f / 11, 142.0f},
  };
  MosaicWall w = wallOf({5});
  for (const auto& row : rows) {
    w.recompute(row.viewWidth);
    EXPECT_EQ(w.columns, row.columns) << row.viewWidth;
    EXPECT_FLOAT_EQ(w.cellW, row.cellW) << row.viewWidth;
    EXPECT_FLOAT_EQ(w.cellH, row.cellH) << row.viewWidth;
  }
  w.recompute(1009.0f);
  EXPECT_FLOAT_EQ(w.columnPitch(), 101.0f);
  EXPECT_FLOAT_EQ(w.rowPitch(), 151.0f);
}

TEST(MosaicWallLayout, ChaptersStackWithOneGapBetweenThem) {
  MosaicWall w = wallOf({3, 0, 5, 10}, 100.0f, 10.0f);
  w.recompute(302.0f);  // three columns of 100 by 150
  ASSERT_EQ(w.columns, 3);
  // One row and the chapter gap; an empty chapter is only its gap; two rows: 300 + 1 + 1.
  EXPECT_EQ(w.blockTop, (std::vector<float>{10.0f, 161.0f, 162.0f, 464.0f}));
  EXPECT_FLOAT_EQ(w.contentHeight, 464.0f + 4 * 150 + 3 + 1);
}

TEST(MosaicWallLayout, EmptyAndBrokenWallsFindNothing) {
  MosaicWall w = wallOf({}, 100.0f, 24.0f);
  w.recompute(500.0f);
  EXPECT_FLOAT_EQ(w.contentHeight, 24.0f);
  EXPECT_FALSE(w.anchorAt(0));
  EXPECT_FALSE(w.hit(10, 30));
  EXPECT_FALSE(w.topOfKey(1));
  int visited = 0;
  w.forEachFilmIn(-1000, 1000, [&](MosaicCursor, size_t) { ++visited; });
  EXPECT_EQ(visited, 0);

  // Chapters that point past the films are cut, not read.
  MosaicWall broken;
  broken.chapters = {{4, 0}, {3, 9}};
  broken.films = {{1, false}, {2, false}};
  broken.recompute(500.0f);
  EXPECT_EQ(broken.chapters[0].count, 2u);
  EXPECT_EQ(broken.chapters[1].count, 0u);
  EXPECT_FALSE(broken.hit(10, 400));
}

TEST(MosaicWallLayout, SearchesFollowRowsGapsAndChapters) {
  MosaicWall w = wallOf({4, 5});  // keys 1..4, then 5..9
  w.recompute(302.0f);
  // Chapter 0: rows at 0 and 151; chapter 1 starts at 0 + 150*2 + 1 + 1 = 302.
  ASSERT_FLOAT_EQ(w.blockTop[1], 302.0f);

  // Hits: inside a cell, in the gaps, past the last film of a short row.
  EXPECT_EQ(w.hit(50, 50), (MosaicCursor{0, 0}));
  EXPECT_EQ(w.hit(50, 200), (MosaicCursor{0, 3}));
  EXPECT_EQ(w.hit(100, 150), (MosaicCursor{0, 0}));  // the cell's own edge
  EXPECT_EQ(w.hit(150, 460), (MosaicCursor{1, 4}));
  const std::vector<std::pair<float, float>> misses = {{100.5f, 50},  // column gap
                                                       {50, 150.5f},  // row gap
                                                       {150, 200},    // row 1 of chapter 0 holds one film
                                                       {50, 301.5f},  // the chapter gap
                                                       {250, 460},    // past chapter 1's last film
                                                       {-0.5f, 50},  {302.5f, 50}};
  for (const auto& [x, y] : misses) EXPECT_FALSE(w.hit(x, y)) << x << "," << y;

  // Anchors: the first row starting at or after y; past chapter 0's last row, chapter 1's first film.
  const auto anchor = [&](float y) {
    const auto a = w.anchorAt(y);
    return a ? std::make_pair(a->key, a->offset) : std::make_pair(uint64_t{0}, -1.0f);
  };
  EXPECT_EQ(anchor(0), std::make_pair(uint64_t{1}, 0.0f));
  EXPECT_EQ(anchor(100), std::make_pair(uint64_t{4}, 51.0f));
  EXPECT_EQ(anchor(200), std::make_pair(uint64_t{5}, 102.0f));
  EXPECT_FALSE(w.anchorAt(500));

  EXPECT_EQ(w.topOfKey(4), 151.0f);
  EXPECT_EQ(w.topOfKey(9), 453.0f);
  EXPECT_FALSE(w.topOfKey(42));

  // Films of a range come in wall order, only from rows that meet it.
  std::vector<uint64_t> keys;
  w.forEachFilmIn(160, 310, [&](MosaicCursor, size_t i) { keys.push_back(w.films[i].key); });
  EXPECT_EQ(keys, (std::vector<uint64_t>{4, 5, 6, 7}));
}

TEST(MosaicKeys, FnvKeysAndScopes) {
  EXPECT_EQ(mosaicKey(""), 0xcbf29ce484222325ULL);
  EXPECT_EQ(mosaicKey("a"), 0xaf63dc4c8601ec8cULL);
  EXPECT_NE(mosaicKey("tt0111161"), mosaicKey("tt0111162"));
  EXPECT_EQ(mosaicScope("", "all"), "-|all");
  EXPECT_EQ(mosaicScope("blade runner", "onPlex"), "blade runner|onPlex");
}

}  // namespace
}  // namespace vt
