#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "sources/ranking/RankingSettings.h"
#include "sources/ranking/StreamRanker.h"

using namespace vt;

namespace {

StreamCandidate row(std::string filename, std::optional<std::string> size = std::nullopt, bool cached = true,
                    std::optional<int64_t> seeders = std::nullopt) {
  StreamCandidate c;
  c.filename = std::move(filename);
  c.size = std::move(size);
  c.isCached = cached;
  c.seeders = seeders;
  return c;
}

// 1080p, H.265, a group that earns nothing: every term is off.
const std::string kPlain = "Film.2020.1080p.BluRay.x265-FGT.mkv";

constexpr QualityLevel kLevels[] = {QualityLevel::fast, QualityLevel::balanced, QualityLevel::high, QualityLevel::best};

// The size in bytes that has exactly `mbps` over `seconds`.
std::string sizeFor(double mbps, double seconds = 6600) {
  return std::to_string(static_cast<int64_t>(mbps * seconds * 1'000'000 / 8));
}

std::vector<std::string> filenames(const std::vector<StreamCandidate>& rows) {
  std::vector<std::string> out;
  for (const auto& r : rows) out.push_back(r.filename);
  return out;
}

}  // namespace

TEST(StreamRanker, SizeTextAndDuration) {
  struct Case {
    std::optional<std::string> text;
    double bytes;
  };
  for (const auto& k : std::vector<Case>{{"💾 2.5 GB", 2.5e9},
                                         {"-3 MB", 3e6},
                                         {"2 gb", 2},         // the units are matched as written
                                         {"1,4 GB", 14e9},    // a decimal comma is lost
                                         {"\xd9\xa2 GB", 0},  // an Arabic-Indic digit
                                         {std::nullopt, 0}}) {
    EXPECT_DOUBLE_EQ(sizeBytes(row("x", k.text)), k.bytes) << k.text.value_or("(absent)");
  }

  EXPECT_EQ(durationSeconds(-40), 60);
}

TEST(StreamRanker, ResolutionTierFollowsTheLevelsOrder) {
  const std::map<std::string, std::string> names = {{"4K", "Film.2020.2160p.BluRay.x265-FGT.mkv"},
                                                    {"1080p", kPlain},
                                                    {"720p", "Film.2020.720p.BluRay.x265-FGT.mkv"},
                                                    {"none", "Film.2020.BluRay.x265-FGT.mkv"}};
  const std::map<QualityLevel, std::map<std::string, int>> tiers = {
      {QualityLevel::fast, {{"4K", 0}, {"1080p", 2000}, {"720p", 1000}, {"none", 0}}},
      {QualityLevel::balanced, {{"4K", 2000}, {"1080p", 3000}, {"720p", 1000}, {"none", 0}}},
      {QualityLevel::high, {{"4K", 3000}, {"1080p", 2000}, {"720p", 1000}, {"none", 0}}}};
  for (const auto& [level, expected] : tiers) {
    const auto ranker = rankerFor(level);
    for (const auto& [resolution, tier] : expected)
      EXPECT_EQ(ranker.score(row(names.at(resolution)), std::nullopt), tier)
          << resolution << " at level " << static_cast<int>(level);
  }
}

TEST(StreamRanker, EachTermAddsItsAmountAtEveryLevel) {
  struct Term {
    std::string name;
    std::optional<int64_t> seeders;
    int delta;
  };
  const std::vector<Term> terms = {
      {"Film.2020.1080p.HDR.BluRay.x265-FGT.mkv", {}, 100},
      {"Film.2020.1080p.DV.BluRay.x265-FGT.mkv", {}, -50},  // Dolby Vision only: no HDR bonus
      {"Film.2020.1080p.BluRay.x264-FGT.mkv", {}, 50},
      {"Film.2020.1080p.BluRay.AV1-FGT.mkv", {}, -300},
      {"Film.2020.1080p.BluRay.x265-rarbg.mkv", {}, 100},  // compared uppercased
      {kPlain, 1023, 80},                                  // log2(1024) x 10 is 100, capped
      {"Film.2020.1080p.Upscaled.BluRay.x265-FGT.mkv", {}, -1500},
      {"Film.2020.1080p.BluRay.x265", {}, -150},
  };
  for (const auto level : kLevels) {
    const auto ranker = rankerFor(level);
    const int base = ranker.score(row(kPlain), std::nullopt);
    for (const auto& t : terms)
      EXPECT_EQ(ranker.score(row(t.name, std::nullopt, true, t.seeders), std::nullopt) - base, t.delta)
          << t.name << " seeders " << t.seeders.value_or(-1) << " at level " << static_cast<int>(level);
  }
}

TEST(StreamRanker, ChosenGroupsAddThirtyAPickUpToFive) {
  for (const auto& [count, bonus] : std::vector<std::pair<int64_t, int>>{{2, 60}, {6, 150}, {-3, 0}}) {
    StreamRanker ranker{streamPreference(QualityLevel::balanced), {{"FGT", count}}};
    const int without = rankerFor(QualityLevel::balanced).score(row(kPlain), std::nullopt);
    EXPECT_EQ(ranker.score(row("Film.2020.1080p.BluRay.x265-fgt.mkv"), std::nullopt) - without, bonus) << count;
  }
}

TEST(StreamRanker, EfficiencyMeasuresTheBitRateAgainstTheResolutionsTarget) {
  const std::string uhd = "Film.2020.2160p.BluRay.x265-FGT.mkv";  // a 12 Mbps target
  const auto uhdInfo = ReleaseParser::parse(uhd);
  auto eff = [&](double mbps) { return StreamRanker::efficiencyScore(row(uhd, sizeFor(mbps)), uhdInfo, std::nullopt); };
  EXPECT_EQ(eff(12), 150);
  EXPECT_EQ(eff(24), 50) << "bloat by two costs 100";
  EXPECT_EQ(eff(6), 0) << "starving by two costs 200";
  const auto info = ReleaseParser::parse(kPlain);
  // 3.3 GB is the 1080p H.265 target over 6600 s, bloated over 5400 s.
  EXPECT_EQ(StreamRanker::efficiencyScore(row(kPlain, "3.3 GB"), info, 90), 150 - 28);
  EXPECT_EQ(StreamRanker::efficiencyScore(row(kPlain), info, std::nullopt), 0);
}

TEST(StreamRanker, RankFiltersUncachedNotTheFilmAndThreeD) {
  const auto ranker = rankerFor(QualityLevel::best);
  const std::vector<StreamCandidate> rows = {row(kPlain, {}, false), row("Film.2020.Trailer.1080p.BluRay.x265-FGT.mkv"),
                                             row("Film.2020.3D.SBS.1080p.BluRay.x265-FGT.mkv"),
                                             row("Film.2020.720p.BluRay.x265-FGT.mkv")};
  EXPECT_EQ(filenames(ranker.rank(rows, std::nullopt, false)),
            std::vector<std::string>{"Film.2020.720p.BluRay.x265-FGT.mkv"});
  EXPECT_EQ(filenames(ranker.rank(rows, std::nullopt, true)),
            (std::vector<std::string>{kPlain, "Film.2020.720p.BluRay.x265-FGT.mkv"}));
  EXPECT_TRUE(ranker.rank({}, std::nullopt, false).empty());
  EXPECT_TRUE(ranker.rank({row(kPlain, {}, false), row(kPlain, {}, false)}, std::nullopt, false).empty());
}

TEST(StreamRanker, EqualScoresKeepTheirInputOrder) {
  const auto ranker = rankerFor(QualityLevel::balanced);
  const std::string other = "Other.2020.1080p.BluRay.x265-FGT.mkv";
  ASSERT_EQ(ranker.score(row(kPlain), std::nullopt), ranker.score(row(other), std::nullopt));
  EXPECT_EQ(filenames(ranker.rank({row(kPlain), row(other)}, std::nullopt, false)),
            (std::vector<std::string>{kPlain, other}));
  EXPECT_EQ(filenames(ranker.rank({row(other), row(kPlain)}, std::nullopt, false)),
            (std::vector<std::string>{other, kPlain}));
  // Enough ties, between two scores, that an unstable sort would show.
  std::vector<StreamCandidate> many;
  for (int i = 0; i < 64; ++i) many.push_back(row(i % 3 ? kPlain : "Film.2020.720p.BluRay.x265-FGT.mkv"));
  const auto ranked = ranker.rankScored(many, std::nullopt, false);
  ASSERT_EQ(ranked.size(), many.size());
  for (size_t i = 1; i < ranked.size(); ++i) {
    if (ranked[i].score == ranked[i - 1].score) {
      EXPECT_LT(ranked[i - 1].index, ranked[i].index) << i;
    }
  }
}

TEST(StreamRanker, BitRateCeilingDropsOnlyWhatIsAboveIt) {
  const auto fast = rankerFor(QualityLevel::fast);  // 8 Mbps
  // 6.6 GB over the assumed 6600 s is exactly 8 Mbps: it stays; a byte more goes.
  EXPECT_EQ(fast.rank({row(kPlain, "6.6 GB")}, std::nullopt, false).size(), 1u);
  EXPECT_TRUE(fast.rank({row(kPlain, "6600000001")}, std::nullopt, false).empty());
  // A 50 GB 4K remux with no runtime runs at about 60.6 Mbps: above `high`, fine for `best`.
  const std::string remux = "Film.2020.2160p.UHD.BluRay.REMUX.HDR.HEVC-FGT.mkv";
  EXPECT_TRUE(rankerFor(QualityLevel::high).rank({row(remux, "50 GB")}, std::nullopt, false).empty());
  EXPECT_EQ(rankerFor(QualityLevel::best).rank({row(remux, "50 GB")}, std::nullopt, false).size(), 1u);
  // 60 GB over a 120-minute film is about 66.7 Mbps, far above `fast`.
  EXPECT_TRUE(fast.rank({row(remux, "60 GB")}, 120, false).empty());
  EXPECT_EQ(fast.rank({row(remux, "6 GB")}, 120, false).size(), 1u) << "6.7 Mbps fits";
  // An unknown size stays at every level.
  for (const auto level : kLevels)
    EXPECT_EQ(rankerFor(level).rank({row(kPlain, "unknown"), row(kPlain)}, std::nullopt, false).size(), 2u);
}

TEST(StreamRanker, OneResolutionStepOutweighsAllButUpscalesAndBurnedSubtitles) {
  // Every bonus at once on a 720p row still loses to a plain 1080p one.
  const std::string loaded = "Film.2020.720p.HDR.REPACK.PROPER.10bit.BluRay.x264-SPARKS.mkv";
  for (const auto level : kLevels) {
    StreamRanker ranker{streamPreference(level), {{"SPARKS", 9}}};
    const auto top = row(loaded, sizeFor(4.0), true, 5000);
    EXPECT_EQ(ranker.score(top, std::nullopt), 1000 + 100 + 50 + 20 + 15 + 20 + 100 + 150 + 80 + 150);
    const auto plain1080 = row(kPlain);
    EXPECT_EQ(filenames(ranker.rank({top, plain1080}, std::nullopt, false)).front(), kPlain);
  }
  const auto hd = row("Film.2020.720p.BluRay.x265-FGT.mkv");
  // An upscale falls below the next resolution down; burned-in subtitles below the next two.
  const auto best = rankerFor(QualityLevel::best);
  const auto upscaled = row("Film.2020.2160p.Upscaled.BluRay.x265-FGT.mkv");
  const auto burned = row("Film.2020.2160p.HC.BluRay.x265-FGT.mkv");
  EXPECT_EQ(filenames(best.rank({burned, upscaled, hd, row(kPlain)}, std::nullopt, false)),
            (std::vector<std::string>{kPlain, upscaled.filename, hd.filename, burned.filename}));
}

TEST(StreamRanker, ReasonsExplainTheRow) {
  const auto ranker = rankerFor(QualityLevel::balanced);
  const auto everything = row("Film.2020.1080p.Upscaled.HC.BluRay.x265-Tigole.mkv", sizeFor(4.0), true, 50);
  EXPECT_EQ(
      ranker.reasons(everything, std::nullopt, {{"TIGOLE", 3}}),
      (std::vector<std::string>{"An efficient encode: good picture for its size",
                                "Tigole releases are known for consistent encodes", "A group you've chosen 3 times",
                                "Popular: 50 people share it", "Upscaled from a lower resolution, so it ranks last",
                                "Subtitles are burned into the picture, so it ranks below clean releases"}));
  EXPECT_TRUE(ranker.reasons(row(kPlain, {}, true, 49), std::nullopt, {{"FGT", 0}}).empty());
}

TEST(StreamRanker, RandomRowsNeverCrashAndComeOutInScoreOrder) {
  std::mt19937_64 rng(20240616);
  auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
  auto bytes = [&](size_t most) {
    std::string s(pick(most + 1), '\0');
    for (auto& c : s) c = static_cast<char>(rng());
    return s;
  };
  const std::vector<std::string> sizes = {
      "", "GB", "unknown", "1,4 GB", "..1.2.3 MB", std::string(400, '9') + " GB", "-0 GB", "1e400 GB", "0.000001 MB"};
  const std::vector<std::string> names = {kPlain, "Film.2020.2160p.UHD.BluRay.REMUX.HDR.DV.HEVC-FGT.mkv",
                                          "Film.2020.720p.Upscaled.HC.3D.WEB.AV1-TiGoLe", "Trailer.Sample", ""};
  const std::vector<int64_t> seeders = {
      0, -1, 1, 1023, std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()};
  for (int round = 0; round < 300; ++round) {
    std::vector<StreamCandidate> rows;
    for (size_t i = pick(40); i > 0; --i) {
      auto name = pick(3) ? names[pick(names.size())] : bytes(80);
      if (pick(2)) name.insert(pick(name.size() + 1), bytes(6));
      std::optional<std::string> size;
      if (pick(4)) size = pick(3) ? sizes[pick(sizes.size())] + bytes(3) : bytes(12);
      std::optional<int64_t> seed;
      if (pick(3)) seed = pick(2) ? seeders[pick(seeders.size())] : static_cast<int64_t>(rng());
      rows.push_back(row(std::move(name), std::move(size), pick(4) != 0, seed));
    }
    std::optional<int> runtime;
    if (pick(2)) runtime = static_cast<int>(rng());
    StreamRanker ranker{streamPreference(kLevels[pick(4)]), {{"FGT", static_cast<int64_t>(rng())}}};
    const bool uncached = pick(2);
    const auto ranked = ranker.rankScored(rows, runtime, uncached);
    ASSERT_LE(ranked.size(), rows.size());
    for (size_t i = 0; i < ranked.size(); ++i) {
      ASSERT_LT(ranked[i].index, rows.size());
      EXPECT_EQ(ranked[i].score, ranker.score(rows[ranked[i].index], runtime));
      if (i > 0) {
        ASSERT_GE(ranked[i - 1].score, ranked[i].score) << "round " << round;
      }
      const auto eff = StreamRanker::efficiencyScore(rows[ranked[i].index],
                                                     ReleaseParser::parse(rows[ranked[i].index].filename), runtime);
      ASSERT_TRUE(eff >= 0 && eff <= 150) << eff;
      ranker.reasons(rows[ranked[i].index], runtime, ranker.chosenGroups);
    }
    EXPECT_EQ(ranker.rank(rows, runtime, uncached).size(), ranked.size());
  }
}
