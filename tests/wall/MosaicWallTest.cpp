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
  MosaicWall w = wallOf({5});
  // At or below the target width: one column as wide as the view.
  w.recompute(100.0f);
  EXPECT_EQ(w.columns, 1);
  EXPECT_FLOAT_EQ(w.cellW, 100.0f);
  EXPECT_FLOAT_EQ(w.cellH, 150.0f);
  w.recompute(63.3f);
  EXPECT_EQ(w.columns, 1);
  EXPECT_FLOAT_EQ(w.cellW, 63.3f);
  EXPECT_FLOAT_EQ(w.cellH, 63.3f * 1.5f);  // not rounded in a single column
  w.recompute(0.25f);
  EXPECT_FLOAT_EQ(w.cellW, 1.0f);

  // Ten columns in 1,009 points: exactly 100 by 150 with a 1-point gap.
  w.recompute(1009.0f);
  EXPECT_EQ(w.columns, 10);
  EXPECT_FLOAT_EQ(w.cellW, 100.0f);
  EXPECT_FLOAT_EQ(w.cellH, 150.0f);
  EXPECT_FLOAT_EQ(w.columnPitch(), 101.0f);
  EXPECT_FLOAT_EQ(w.rowPitch(), 151.0f);

  // Just past the target: the count rounds, halves away from zero.
  w.recompute(100.5f);
  EXPECT_EQ(w.columns, 1);
  EXPECT_FLOAT_EQ(w.cellW, 100.5f);
  w.recompute(150.0f);
  EXPECT_EQ(w.columns, 2);
  EXPECT_FLOAT_EQ(w.cellW, 74.5f);
  EXPECT_FLOAT_EQ(w.cellH, 112.0f);  // 111.75 rounded
  w.recompute(1050.0f);
  EXPECT_EQ(w.columns, 11);
}

TEST(MosaicWallLayout, ChaptersStackWithOneGapBetweenThem) {
  MosaicWall w = wallOf({3, 0, 5, 10}, 100.0f, 10.0f);
  w.recompute(302.0f);  // three columns of 100 by 150
  ASSERT_EQ(w.columns, 3);
  ASSERT_EQ(w.blockTop.size(), 4u);
  EXPECT_FLOAT_EQ(w.blockTop[0], 10.0f);
  EXPECT_FLOAT_EQ(w.blockTop[1], 161.0f);  // one row and the chapter gap
  EXPECT_FLOAT_EQ(w.blockTop[2], 162.0f);  // an empty chapter is only its gap
  EXPECT_FLOAT_EQ(w.blockTop[3], 464.0f);  // two rows: 300 + 1 + 1
  EXPECT_FLOAT_EQ(w.contentHeight, 464.0f + 4 * 150 + 3 + 1);
}

TEST(MosaicWallLayout, EmptyWallFindsNothing) {
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
  EXPECT_FALSE(w.hit(100.5f, 50));                   // column gap
  EXPECT_FALSE(w.hit(50, 150.5f));                   // row gap
  EXPECT_FALSE(w.hit(150, 200));                     // row 1 of chapter 0 holds one film
  EXPECT_FALSE(w.hit(50, 301.5f));                   // the chapter gap
  EXPECT_EQ(w.hit(150, 460), (MosaicCursor{1, 4}));
  EXPECT_FALSE(w.hit(250, 460));  // past chapter 1's last film
  EXPECT_FALSE(w.hit(-0.5f, 50));
  EXPECT_FALSE(w.hit(302.5f, 50));

  // Anchors: the first row starting at or after y.
  auto a = w.anchorAt(0);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->key, 1u);
  EXPECT_FLOAT_EQ(a->offset, 0);
  a = w.anchorAt(100);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->key, 4u);
  EXPECT_FLOAT_EQ(a->offset, 51);
  a = w.anchorAt(200);  // past chapter 0's last row: chapter 1's first film
  ASSERT_TRUE(a);
  EXPECT_EQ(a->key, 5u);
  EXPECT_FLOAT_EQ(a->offset, 102);
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
  EXPECT_EQ(mosaicKey("tt0111161"), mosaicKey(std::string("tt0111161")));
  EXPECT_NE(mosaicKey("tt0111161"), mosaicKey("tt0111162"));
  EXPECT_EQ(mosaicScope("", "all"), "-|all");
  EXPECT_EQ(mosaicScope("blade runner", "onPlex"), "blade runner|onPlex");
}

}  // namespace
}  // namespace vt
