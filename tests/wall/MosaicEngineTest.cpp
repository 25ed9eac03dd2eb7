#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

#include "WallHarness.h"

namespace vt {
namespace {

using test::WallDriver;
using Kind = MosaicEventKind;

// Three columns of 100 by 150 points (pitch 151) in a 302 by 400 view.
MosaicEngine::Options filmOptions(float width = 302.0f, float height = 400.0f) {
  return {.cellShape = MosaicPoint{100.0f, 1.5f}, .width = width, .height = height, .scale = 2.0f};
}

// The same with fans of three cards under a 30-point caption.
MosaicEngine::Options fanOptions(float width = 302.0f, float height = 400.0f) {
  auto o = filmOptions(width, height);
  o.cards = 3;
  o.captionHeight = 30.0f;
  return o;
}

uint64_t keyUnder(const MosaicEngine& e, float x, float y) {
  const auto c = e.wall().hit(x, y + e.scroll().y);
  return c ? e.wall().film(*c)->key : 0;
}

MosaicEngine::Arrival arrival(uint64_t key, size_t bytes, bool soft = false) {
  return {key, std::vector<uint8_t>(bytes, 0x7f), 1, static_cast<int>(bytes / 4), 4, soft};  // one pixel wide
}

TEST(MosaicEngineFrames, NoRendererNoEngineAndNothingDrawnBeforeAWall) {
  ManualClock clock;
  EXPECT_EQ(MosaicEngine::create(clock, nullptr, filmOptions()), nullptr);

  WallDriver d(filmOptions());
  d.frames(3);
  EXPECT_EQ(d.renderer->draws, 0);
  d.wall({}, 1).frame();  // an empty wall draws an empty frame and asks for nothing
  EXPECT_EQ(d.renderer->draws, 1);
  EXPECT_TRUE(d.renderer->lastFrame.empty());
  EXPECT_TRUE(d.events.empty());
  EXPECT_FALSE(d.engine->visibleRange());
}

TEST(MosaicEngineFrames, ALongFrameStepsOnlyOneSixtiethOfASecond) {
  WallDriver d(filmOptions());
  d.wall({3000}, 1).frame();
  d.scroll(600, true).frame();
  // 600 points in 1/60 s, blended at 0.3, then one coasting step.
  EXPECT_NEAR(d.engine->scroll().velocity, 10800.0f * std::pow(0.02f, 1.0f / 60), 0.5f);
  EXPECT_NEAR(d.engine->scroll().y, 600.0f + 180.0f, 0.01f);
  const float y = d.engine->scroll().y, v = d.engine->scroll().velocity;
  d.frame(0.5);  // a stall
  EXPECT_NEAR(d.engine->scroll().y - y, v / 60.0f, 0.05f);
  EXPECT_NEAR(d.engine->scroll().velocity, v * std::pow(0.02f, 1.0f / 60), 0.5f);

  // A hover spring across a stall moves one step, not half a second's worth.
  WallDriver h(filmOptions());
  h.wall({30}, 1).frame().pointer(50, 50).frame();
  ASSERT_TRUE(h.engine->hovered());
  h.frame(2.0);
  const auto s = h.engine->spring(*h.engine->hovered());
  ASSERT_TRUE(s);
  const float v1 = 420.0f * 0.7f / 60.0f, x1 = 1.0f + v1 / 60.0f;
  const float v2 = v1 + ((1.7f - x1) * 420.0f - 34.0f * v1) / 60.0f;
  EXPECT_NEAR(s->value, x1 + v2 / 60.0f, 1e-5f);
  EXPECT_LT(s->value, 1.7f);
}

TEST(MosaicEngineScrolling, EntriesAddUpCoastSettleAndClamp) {
  WallDriver d(filmOptions());
  d.wall({3000}, 1).frame();
  d.scroll(10).scroll(15).frame();
  EXPECT_FLOAT_EQ(d.engine->scroll().y, 25.0f);
  EXPECT_FALSE(d.engine->scroll().coasting);
  d.frames(5);
  EXPECT_FLOAT_EQ(d.engine->scroll().y, 25.0f);  // no coasting without an end of gesture

  d.scroll(600, true).frame();
  EXPECT_TRUE(d.engine->scroll().coasting);
  int frames = 0;
  for (; d.engine->scroll().coasting && frames < 1000; ++frames) d.frame();
  // From about 11,000 points a second down to 12 at 0.02 per second: ~1.75 s.
  EXPECT_GT(frames, 95);
  EXPECT_LT(frames, 115);
  EXPECT_EQ(d.engine->scroll().velocity, 0.0f);

  d.scroll(-1e6f, true).frame();
  EXPECT_EQ(d.engine->scroll().y, 0.0f);
  EXPECT_FALSE(d.engine->scroll().coasting);
  const float end = d.engine->wall().contentHeight - 400.0f;
  d.scroll(1e7f, true).frame();
  EXPECT_FLOAT_EQ(d.engine->scroll().y, end);
  EXPECT_EQ(d.engine->scroll().velocity, 0.0f);

  // A broken event is dropped; the wall scrolls on.
  d.scroll(std::nanf(""), true).scroll(INFINITY).frame();
  EXPECT_FLOAT_EQ(d.engine->scroll().y, end);
  d.scroll(-30, true).frame();
  EXPECT_LT(d.engine->scroll().y, end);
}

TEST(MosaicEngineHover, NothingSwellsWhileTheWallCoastsAndTheStopHovers) {
  WallDriver d(filmOptions());
  d.wall({3000}, 1).frame();
  d.pointer(150, 200).scroll(300, true).frame();
  d.take(Kind::hover);
  for (int frames = 0; d.engine->scroll().coasting && frames < 1000; ++frames, d.frame())
    EXPECT_FALSE(d.engine->hovered());
  // The frame that stopped the wall hovers what lies under the resting pointer.
  ASSERT_TRUE(d.engine->hovered());
  EXPECT_TRUE(d.engine->hoverActive());
  EXPECT_EQ(d.take(Kind::hover), std::vector<uint64_t>{keyUnder(*d.engine, 150, 200)});
  d.frames(5);
  EXPECT_TRUE(d.take(Kind::hover).empty());  // a held hover says nothing more
  EXPECT_EQ(d.engine->published().hoverKey, keyUnder(*d.engine, 150, 200));
}

TEST(MosaicEngineHover, LeavingReleasesAfterThePauseAndAMenuHoldsIt) {
  WallDriver d(filmOptions());
  d.wall({30}, 1).pointer(150, 200).frame();
  EXPECT_EQ(d.take(Kind::hover), std::vector<uint64_t>{5});

  d.leave().frame();
  EXPECT_NEAR(d.engine->releaseAt().value_or(0), d.t() + 0.42, 1e-6);
  d.frames(24);  // 0.4 s
  EXPECT_TRUE(d.engine->hovered());
  d.frames(2);
  EXPECT_FALSE(d.engine->hovered());

  // Back on the same cell before the pause ends: the hover holds, silently.
  d.pointer(150, 200).frame();
  EXPECT_EQ(d.take(Kind::hover), std::vector<uint64_t>{5});
  d.leave().frames(10).pointer(160, 210).frame();
  EXPECT_TRUE(d.engine->hovered());
  EXPECT_FALSE(d.engine->releaseAt());
  d.frames(60);
  EXPECT_TRUE(d.engine->hovered());
  EXPECT_TRUE(d.take(Kind::hover).empty());
  // On another cell it is a new hover.
  d.pointer(50, 50).frame();
  EXPECT_EQ(d.take(Kind::hover), std::vector<uint64_t>{1});

  // A context menu keeps the hover 15 seconds after the pointer leaves.
  d.menu().leave().frame();
  EXPECT_TRUE(d.engine->menuHold());
  d.frames(600);  // 10 s
  EXPECT_TRUE(d.engine->hovered());
  d.frame(5.1);
  EXPECT_FALSE(d.engine->hovered());
  EXPECT_FALSE(d.engine->menuHold());

  // A menu opened after the pause began stretches it; a move ends the hold.
  d.pointer(50, 50).frame().leave().frame().menu().frame();
  EXPECT_NEAR(*d.engine->releaseAt(), d.t() + 15.0, 1e-6);
  d.pointer(50, 50).frame();
  EXPECT_FALSE(d.engine->menuHold());
  EXPECT_FALSE(d.engine->releaseAt());
}

TEST(MosaicEngineHover, SpringsSwellSettleAndFallBack) {
  WallDriver d(filmOptions());
  d.wall({30}, 1).frame().pointer(150, 200).frame();
  const MosaicCursor hovered{0, 4};
  ASSERT_EQ(d.engine->hovered(), hovered);
  // One step from rest: v = 294/60, value = 1 + v/60.
  EXPECT_NEAR(d.engine->spring(hovered)->value, 1.0f + 4.9f / 60.0f, 1e-5f);
  EXPECT_EQ(d.engine->springCount(), 1u);  // a film wall swells one cell
  d.frames(120);
  EXPECT_EQ(d.engine->spring(hovered)->value, 1.7f);  // settled exactly and kept
  EXPECT_EQ(d.engine->spring(hovered)->velocity, 0.0f);

  // Fully lifted: the shadow under the poster.
  const auto& frame = d.renderer->lastFrame;
  const auto shadow = std::find_if(frame.begin(), frame.end(), [](const auto& i) { return i.instance.blur > 0; });
  ASSERT_NE(shadow, frame.end());
  EXPECT_EQ(test::describe(*shadow), "101,155 100x150 tint 0,0,0,0.45 corner 3 blur 9");

  // Into a gap: the hover fades from where it was, then the spring goes.
  d.pointer(100.5f, 200).frame();
  EXPECT_TRUE(d.engine->hovered());
  EXPECT_FALSE(d.engine->hoverActive());
  EXPECT_EQ(d.engine->published().hoverRect.width, 0.0f);
  EXPECT_LT(d.engine->spring(hovered)->value, 1.7f);
  d.frames(120);
  EXPECT_EQ(d.engine->springCount(), 0u);
}

TEST(MosaicEngineScopes, OpensAtEndAnchorsAndTheGrowingEnd) {
  WallDriver d(filmOptions());
  d.wall({300}, 1, "-|all", true).frame();
  const float end = d.engine->wall().contentHeight - 400.0f;
  EXPECT_FLOAT_EQ(d.engine->scroll().y, end);

  // A new version grows at the end: a wall resting at its end stays there.
  d.wall({330}, 1, "-|all", true).frame();
  EXPECT_FLOAT_EQ(d.engine->scroll().y, d.engine->wall().contentHeight - 400.0f);

  // Scrolled away, a new version holds the anchor film, even when a row of
  // new films comes in above it.
  d.scroll(-3000).frame();
  const float y = d.engine->scroll().y;
  const auto anchor = d.engine->wall().anchorAt(y);
  ASSERT_TRUE(anchor);
  auto grown = test::makeWall({333}, 1);
  for (auto& f : grown.films) f.key = f.key <= 3 ? 1000 + f.key : f.key - 3;
  d.wall(grown.chapters, grown.films, "-|all", true).frame();
  EXPECT_NEAR(d.engine->scroll().y, y + 151.0f, 0.01f);
  EXPECT_EQ(d.engine->wall().anchorAt(d.engine->scroll().y)->key, anchor->key);
}

TEST(MosaicEngineScopes, ScopesRememberTheirPlaceUpToEight) {
  WallDriver d(filmOptions());
  d.wall({3000}, 1, "a|all").frame();
  d.scroll(1234.5f).frame();
  d.wall({500}, 100000, "b|all").frame();
  EXPECT_FLOAT_EQ(d.engine->scroll().y, 1234.5f);  // no place for b yet: it stays
  d.scroll(-1000).frame();
  d.wall({3000}, 1, "a|all").frame();
  EXPECT_NEAR(d.engine->scroll().y, 1234.5f, 0.01f);
  d.wall({500}, 100000, "b|all").frame();
  EXPECT_NEAR(d.engine->scroll().y, 234.5f, 0.01f);

  // Ten scopes, each left at its own place: the oldest forgets.
  WallDriver s(filmOptions());
  for (int i = 0; i < 10; ++i) {
    std::string scope = "s";  // built in steps: gcc 12 warns wrongly on "s" + string&&
    scope += std::to_string(i);
    scope += "|all";
    s.wall({3000}, 1, scope).frame();
    s.scroll(static_cast<float>(151 * (i + 1)) - s.engine->scroll().y).frame();
  }
  EXPECT_EQ(s.engine->placeOrder().size(), 8u);
  EXPECT_FALSE(s.engine->place("s0|all"));
  ASSERT_TRUE(s.engine->place("s1|all"));
  s.wall({3000}, 1, "s2|all").frame();
  EXPECT_NEAR(s.engine->scroll().y, 151.0f * 3, 0.01f);
  s.wall({3000}, 1, "s0|all").frame();
  EXPECT_NEAR(s.engine->scroll().y, 151.0f * 3, 0.01f);  // forgotten: it stays where it was
  EXPECT_FALSE(s.engine->place("s1|all"));               // remembering s2 again pushed s1 out
}

TEST(MosaicEngineScopes, ANewWallGlidesCellsFromTheirOldPlaces) {
  WallDriver d(filmOptions());
  d.wall({9}, 1).frame();
  auto reversed = test::makeWall({9}, 1);
  std::reverse(reversed.films.begin(), reversed.films.end());
  const auto rectOf = [&](uint64_t key) {
    for (const auto& c : d.engine->cells()) {
      if (c.key == key) return c.rect;
    }
    return MosaicRect{-1, -1, 0, 0};
  };
  const auto screenY = [&](uint64_t key) { return rectOf(key).y - d.engine->scroll().y; };
  // Key 1 moves to the last cell; the anchor keeps it at the top, so the wall
  // scrolls to its end (53 points) and the cell glides from where it was.
  d.wall(reversed.chapters, reversed.films).frame();
  ASSERT_FLOAT_EQ(d.engine->scroll().y, 53.0f);
  EXPECT_FLOAT_EQ(rectOf(1).x, 0);
  EXPECT_FLOAT_EQ(screenY(1), 0);
  d.frame(0.14);  // halfway in time: (1 - 0.5)^3 of the way left to go
  EXPECT_NEAR(rectOf(1).x, 202.0f - 202.0f * 0.125f, 1e-3f);
  EXPECT_NEAR(screenY(1), 249.0f - 249.0f * 0.125f, 1e-3f);
  d.frame(0.14);
  EXPECT_EQ(rectOf(1), (MosaicRect{202, 302, 100, 150}));
}

TEST(MosaicEngineScopes, AResizeKeepsTheTopFilmAndDropsTheHover) {
  WallDriver d(filmOptions());
  d.wall({3000}, 1).pointer(50, 50).frame();
  d.scroll(7570).frame();
  d.frame();
  ASSERT_TRUE(d.engine->hovered());
  d.size(604, 400, 2.0f, 40.0f).frame();
  EXPECT_EQ(d.engine->wall().columns, 6);
  EXPECT_FLOAT_EQ(d.engine->wall().topInset, 0);  // only the collections wall keeps an inset
  // Key 154 led row 51 at 131 points below the top; now it leads row 25.
  EXPECT_NEAR(d.engine->scroll().y, 151.0f * 25 - 131.0f, 0.01f);
  EXPECT_NEAR(*d.engine->wall().topOfKey(154) - d.engine->scroll().y, 131.0f, 0.01f);
  EXPECT_EQ(d.engine->visibleRange()->first, 145u);  // row 24 still shows at the top
  EXPECT_EQ(d.engine->published().columns, 6);

  WallDriver f(fanOptions());
  f.wall({30}, 1).size(302, 400, 2.0f, 40.0f).frame();
  EXPECT_FLOAT_EQ(f.engine->wall().blockTop[0], 40.0f);
  EXPECT_FLOAT_EQ(f.engine->published().topInset, 40.0f);
}

TEST(MosaicEngineRequests, VisibleFirstTwentyAFrameAndAskedAgainAfterAPause) {
  WallDriver d(filmOptions());
  d.wall({3000}, 1).frame();
  std::vector<uint64_t> first(20);
  std::iota(first.begin(), first.end(), 1);
  EXPECT_EQ(d.take(Kind::wantPoster), first);  // visible rows, then the rows ahead
  d.frame();
  EXPECT_EQ(d.take(Kind::wantPoster), (std::vector<uint64_t>{21, 22, 23, 24}));
  d.frames(80);  // 1.33 s: nothing is asked twice
  EXPECT_TRUE(d.take(Kind::wantPoster).empty());

  // Key 1 arrives in full, key 2 soft, key 3 has no poster.
  d.engine->addArrival(arrival(1, 64));
  d.engine->addArrival(arrival(2, 16, true));
  d.missing(3).frame();
  EXPECT_FALSE(d.engine->requestedAt(1));
  EXPECT_TRUE(d.engine->requestedAt(2));  // the full one still counts as in flight
  EXPECT_TRUE(d.engine->isDead(3));
  d.frames(12);  // past 1.5 s
  const auto again = d.take(Kind::wantPoster);
  const auto asked = [&](uint64_t key) { return std::count(again.begin(), again.end(), key); };
  EXPECT_EQ(asked(1), 0);
  EXPECT_EQ(asked(2), 1);  // a soft poster is there to be replaced
  EXPECT_EQ(asked(3), 0);
  EXPECT_EQ(asked(4), 1);
  d.frames(200);
  const auto later = d.take(Kind::wantPoster);
  EXPECT_EQ(std::count(later.begin(), later.end(), 3u), 0);

  // A new wall without key 3 forgets that it is dead, and what was asked.
  d.wall({3000}, 10).frame();
  EXPECT_FALSE(d.engine->isDead(3));
  EXPECT_TRUE(d.engine->requestedAt(24));
  EXPECT_FALSE(d.engine->requestedAt(2));
  EXPECT_FALSE(d.renderer->holds(1));  // its texture went with it
}

TEST(MosaicEngineRequests, NothingIsAskedWhileTheWallFlies) {
  WallDriver d(filmOptions());
  d.wall({30000}, 1).frame();
  d.take(Kind::wantPoster);
  // Two view heights a second (800 points) and faster: no request at all.
  for (int i = 0; i < 120; ++i) d.scroll(800.0f / 60.0f + 0.01f).frame();
  EXPECT_TRUE(d.take(Kind::wantPoster).empty());
  d.scroll(750.0f / 60.0f).frame();
  EXPECT_FALSE(d.take(Kind::wantPoster).empty());
  // A fling asks nothing until it slows below the limit.
  d.scroll(2000, true).frame();
  EXPECT_TRUE(d.take(Kind::wantPoster).empty());
}

TEST(MosaicEngineArrivals, QueueLimitUploadBudgetAndTimeBudget) {
  constexpr size_t MiB = 1 << 20;
  WallDriver d(filmOptions());
  d.engine->setWorkTimer([] { return 0.0; });  // uploads take no time here
  d.wall({3000}, 1).frame();
  for (uint64_t k = 1; k <= 30; ++k) d.engine->addArrival(arrival(k, MiB));
  d.frame();
  // 30 MiB waiting: the six oldest go, then 8 MiB are uploaded.
  ASSERT_EQ(d.renderer->uploads.size(), 8u);
  EXPECT_EQ(d.renderer->uploads.front().key, 7u);
  EXPECT_EQ(d.renderer->uploads.back().key, 14u);
  EXPECT_EQ(d.engine->queuedBytes(), 16 * MiB);
  EXPECT_EQ(d.engine->stats().queuedMB, 16u);
  d.frames(2);
  EXPECT_EQ(d.renderer->uploads.size(), 24u);
  EXPECT_EQ(d.engine->queuedCount(), 0u);

  // A new wall drops queued arrivals for films it doesn't hold.
  for (uint64_t k : {31, 32, 33, 34, 35, 36, 37, 38, 100001, 39, 100002, 40}) d.engine->addArrival(arrival(k, MiB));
  d.frame();
  ASSERT_EQ(d.engine->queuedCount(), 4u);
  d.wall({3000}, 1).frame();
  EXPECT_EQ(d.engine->queuedCount(), 0u);
  ASSERT_EQ(d.renderer->uploads.size(), 34u);
  EXPECT_EQ(d.renderer->uploads[32].key, 39u);
  EXPECT_EQ(d.renderer->uploads[33].key, 40u);

  // Slow uploads stop at 1.5 ms, yet one always goes through.
  double fake = 0;
  double tick = 0.001;
  d.engine->setWorkTimer([&] { return fake += tick; });
  for (uint64_t k = 41; k <= 46; ++k) d.engine->addArrival(arrival(k, 64));
  d.frame();
  EXPECT_EQ(d.renderer->uploads.size(), 36u);
  tick = 0.01;
  d.frame();
  EXPECT_EQ(d.renderer->uploads.size(), 37u);
}

TEST(MosaicEngineOutbox, HoldsTheNewestFiveHundredTwelve) {
  WallDriver d(filmOptions(1009.0f, 1500.0f));
  d.wall({30000}, 1).frame();
  for (int i = 0; i <= 400; ++i) {  // nobody reads for almost seven seconds
    d.clock.advance(1.0 / 60.0);
    i < 400 ? d.engine->addScroll(5, false) : d.engine->pointerMoved(50, 50);
    d.engine->tick();
  }
  const auto events = d.engine->takeEvents();
  ASSERT_EQ(events.size(), 512u);
  EXPECT_EQ(events.back().kind, Kind::hover);
  EXPECT_NE(events.front(), (MosaicEvent{Kind::wantPoster, 1}));
  EXPECT_TRUE(d.engine->takeEvents().empty());
}

TEST(MosaicEngineStats, IntervalsLateFramesAndMedian) {
  WallDriver d(filmOptions());
  d.wall({30}, 1).frames(29, 1.0 / 120.0);
  d.frame(0.1);
  const MosaicStats s = d.engine->stats();
  EXPECT_EQ(s.frames, 30u);
  EXPECT_EQ(s.late, 1u);
  EXPECT_NEAR(s.p50Ms, 8.333f, 0.01f);
  EXPECT_NEAR(s.worstMs, 100.0f, 0.01f);
  EXPECT_FLOAT_EQ(s.cpuMs, 0.25f);
  EXPECT_EQ(s.visible, 12u);  // four rows meet the view and its margins
  EXPECT_EQ(d.renderer->lastTrim, 0xa000000u);
}

// Golden frames: a film wall with a poster, placeholders and the Plex scrim.
TEST(MosaicEngineGolden, FilmWallFrames) {
  WallDriver d(filmOptions(302.0f, 140.0f));
  std::vector<MosaicFilmRef> films = {{1, false}, {2, true}, {3, false}, {4, false}};
  d.renderer->give(1);
  d.wall({{4, 0}}, films).frame();
  const std::vector<std::string> first = {
      "0,0 100x150 tint 1,1,1,1 corner 3 textured tex 1",
      "101,0 100x150 tint 0.19,0.078,0.097,1 corner 3",
      "101,112.5 100x37.5 tint 0.9,0.62,0,0.55 corner 3 gradient",
      "202,0 100x150 tint 0.191,0.081,0.094,1 corner 3",
      "0,151 100x150 tint 0.188,0.07,0.108,1 corner 3",
  };
  EXPECT_EQ(test::describe(d.renderer->lastFrame), first);
  // Hovering key 2: its first swell step lifts a faint shadow under it.
  d.pointer(150, 20).frame();
  const std::vector<std::string> second = {
      "0,0 100x150 tint 1,1,1,1 corner 3 textured tex 1", "101,0.467 100x150 tint 0,0,0,0.052 corner 3 blur 1.05",
      "101,0 100x150 tint 0.19,0.078,0.097,1 corner 3",   "101,112.5 100x37.5 tint 0.9,0.62,0,0.567 corner 3 gradient",
      "202,0 100x150 tint 0.191,0.081,0.094,1 corner 3",  "0,151 100x150 tint 0.188,0.07,0.108,1 corner 3",
  };
  EXPECT_EQ(test::describe(d.renderer->lastFrame), second);
  // Scrolled by 100 points: screen y moves, the row below comes into range.
  d.scroll(100).frame();
  EXPECT_EQ(test::describe(d.renderer->lastFrame.front()), "0,-100 100x150 tint 1,1,1,1 corner 3 textured tex 1");
}

// Golden frames: fans of three cards under a 30-point caption, opening to the
// right unless that would pass the wall's edge; back cards have keys of their own.
TEST(MosaicEngineGolden, CollectionsWallFrames) {
  WallDriver d(fanOptions(302.0f, 140.0f));
  d.renderer->give(7);
  d.renderer->give(8 ^ 0xc2b2ae3d27d4eb4fULL);
  std::vector<MosaicFilmRef> films = {{7, true}, {8, false}, {9, false}};
  d.wall({{3, 0}}, films).frame();
  const std::vector<std::string> first = {
      // Key 7, in Plex, opens right: deepest card first, each with its scrim.
      "19.922,16.531 60x90 tint 0,0,0,0.34 corner 3 blur 5 rot 0.175",
      "19.922,14.531 60x90 tint 0.145,0.088,0.052,1 corner 3 rot 0.175",
      "8.201,81.005 60x22.5 tint 0.9,0.62,0,0.55 corner 3 rot 0.175 gradient",
      "12.461,16.531 60x90 tint 0,0,0,0.34 corner 3 blur 5 rot 0.087",
      "12.461,14.531 60x90 tint 0.168,0.092,0.065,1 corner 3 rot 0.087",
      "6.578,81.774 60x22.5 tint 0.9,0.62,0,0.55 corner 3 rot 0.087 gradient",
      "5,16.531 60x90 tint 0,0,0,0.34 corner 3 blur 5",
      "5,14.531 60x90 tint 1,1,1,1 corner 3 textured tex 7",
      "5,82.031 60x22.5 tint 0.9,0.62,0,0.55 corner 3 gradient",
      // Key 8: its middle card's texture, darkened by one depth.
      "120.922,16.531 60x90 tint 0,0,0,0.34 corner 3 blur 5 rot 0.175",
      "120.922,14.531 60x90 tint 0.096,0.142,0.046,1 corner 3 rot 0.175",
      "113.461,16.531 60x90 tint 0,0,0,0.34 corner 3 blur 5 rot 0.087",
      "113.461,14.531 60x90 tint 0.89,0.89,0.89,1 corner 3 rot 0.087 textured tex 14029467366897019719",
      "106,16.531 60x90 tint 0,0,0,0.34 corner 3 blur 5",
      "106,14.531 60x90 tint 0.178,0.058,0.129,1 corner 3",
      // Key 9 would pass the wall's right edge: it opens to the left.
      "222.99,26.95 60x90 tint 0,0,0,0.34 corner 3 blur 5 rot -0.175",
      "222.99,24.95 60x90 tint 0.095,0.142,0.046,1 corner 3 rot -0.175",
      "229.767,21.76 60x90 tint 0,0,0,0.34 corner 3 blur 5 rot -0.087",
      "229.767,19.76 60x90 tint 0.17,0.081,0.075,1 corner 3 rot -0.087",
      "237,16.531 60x90 tint 0,0,0,0.34 corner 3 blur 5",
      "237,14.531 60x90 tint 0.172,0.055,0.138,1 corner 3",
  };
  EXPECT_EQ(test::describe(d.renderer->lastFrame), first);

  // Key 8 fully swollen: drawn last, spread 1.7 times, tilted 9 degrees a card.
  d.pointer(150, 50).frames(60);
  const auto lines = test::describe(d.renderer->lastFrame);
  ASSERT_EQ(lines.size(), first.size());
  const std::vector<std::string> swollen = {
      "131.367,19.531 60x90 tint 0,0,0,0.5 corner 6 blur 11 rot 0.314",
      "131.367,14.531 60x90 tint 0.096,0.142,0.046,1 corner 6 rot 0.314",
      "118.684,19.531 60x90 tint 0,0,0,0.5 corner 6 blur 11 rot 0.157",
      "118.684,14.531 60x90 tint 0.89,0.89,0.89,1 corner 6 rot 0.157 textured tex 14029467366897019719",
      "106,19.531 60x90 tint 0,0,0,0.5 corner 6 blur 11",
      "106,14.531 60x90 tint 0.178,0.058,0.129,1 corner 6",
  };
  EXPECT_EQ(std::vector<std::string>(lines.end() - 6, lines.end()), swollen);
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 9),
            std::vector<std::string>(first.begin(), first.begin() + 9));
}

}  // namespace
}  // namespace vt
