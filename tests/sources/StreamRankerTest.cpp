#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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

std::string bytesText(double bytes) { return std::to_string(static_cast<int64_t>(bytes)); }

// The size in bytes that has exactly `mbps` over `seconds`.
std::string sizeFor(double mbps, double seconds = 6600) { return bytesText(mbps * seconds * 1'000'000 / 8); }

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
                                         {".5 GB", 0.5e9},
                                         {"-3 MB", 3e6},
                                         {"2 gb", 2},       // the units are matched as written
                                         {"1,4 GB", 14e9},  // a decimal comma is lost
                                         {"1.2.3 GB", 0},
                                         {"\xd9\xa2 GB", 0},  // an Arabic-Indic digit
                                         {std::nullopt, 0}}) {
    EXPECT_DOUBLE_EQ(sizeBytes(row("x", k.text)), k.bytes) << k.text.value_or("(absent)");
  }
  const std::string tooLong = std::string("1") + std::string(400, '0');
  EXPECT_EQ(sizeBytes(tooLong), 0) << "a number beyond any double is unreadable";

  // The duration is the runtime in minutes, or 6600 seconds.
  EXPECT_EQ(durationSeconds(std::nullopt), 6600);
  EXPECT_EQ(durationSeconds(120), 7200);
  EXPECT_EQ(durationSeconds(-40), 60);
  EXPECT_EQ(durationSeconds(std::numeric_limits<int>::max()), 60.0 * std::numeric_limits<int>::max());
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
  // One row per family; the smaller bonuses are summed in the 720p row further down.
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

  // The preference flags switch their terms off.
  StreamRanker ranker{streamPreference(QualityLevel::best), {}};
  ranker.preference.allowHDR = false;
  ranker.preference.preferH264 = false;
  const int base = ranker.score(row(kPlain), std::nullopt);
  EXPECT_EQ(ranker.score(row("Film.2020.1080p.HDR.BluRay.x265-FGT.mkv"), std::nullopt), base);
  EXPECT_EQ(ranker.score(row("Film.2020.1080p.BluRay.x264-FGT.mkv"), std::nullopt), base);
  EXPECT_EQ(ranker.score(row("Film.2020.1080p.DV.BluRay.x265-FGT.mkv"), std::nullopt), base - 50);
}

TEST(StreamRanker, ChosenGroupsAddThirtyAPickUpToFive) {
  for (const auto& [count, bonus] : std::vector<std::pair<int64_t, int>>{{2, 60}, {5, 150}, {6, 150}, {-3, 0}}) {
    StreamRanker ranker{streamPreference(QualityLevel::balanced), {{"FGT", count}}};
    const int without = rankerFor(QualityLevel::balanced).score(row(kPlain), std::nullopt);
    EXPECT_EQ(ranker.score(row(kPlain), std::nullopt) - without, bonus) << count;
    EXPECT_EQ(ranker.score(row("Film.2020.1080p.BluRay.x265-fgt.mkv"), std::nullopt) - without, bonus) << count;
  }
  // A chosen group that is also a known one earns both.
  StreamRanker ranker{streamPreference(QualityLevel::balanced), {{"SPARKS", 2}}};
  EXPECT_EQ(ranker.score(row("Film.2020.1080p.BluRay.x265-SPARKS.mkv"), std::nullopt),
            rankerFor(QualityLevel::balanced).score(row(kPlain), std::nullopt) + 100 + 60);
}

TEST(StreamRanker, EfficiencyMeasuresTheBitRateAgainstTheResolutionsTarget) {
  struct Case {
    std::string name;
    double target;
  };
  for (const auto& k :
       std::vector<Case>{{"Film.2020.2160p.BluRay.x265-FGT.mkv", 12.0}, {"Film.2020.BluRay.x264-FGT.mkv", 3.0}}) {
    const auto info = ReleaseParser::parse(k.name);
    auto eff = [&](double mbps, std::optional<int> runtime = std::nullopt) {
      const double seconds = durationSeconds(runtime);
      return StreamRanker::efficiencyScore(row(k.name, sizeFor(mbps, seconds)), info, runtime);
    };
    EXPECT_EQ(eff(k.target), 150) << k.name;
    EXPECT_EQ(eff(k.target * 2), 50) << k.name << ": bloat by two costs 100";
    EXPECT_EQ(eff(k.target / 2), 0) << k.name << ": starving by two costs 200";
    EXPECT_EQ(eff(k.target * 0.75), 150 - 83) << k.name;
    EXPECT_EQ(eff(k.target * 1.5), 150 - 58) << k.name;
  }
  const auto info = ReleaseParser::parse(kPlain);
  // 3.3 GB over the assumed 6600 s is exactly the 1080p H.265 target; over
  // 5400 s it is bloated by 6600/5400.
  EXPECT_EQ(StreamRanker::efficiencyScore(row(kPlain, "3.3 GB"), info, std::nullopt), 150);
  EXPECT_EQ(StreamRanker::efficiencyScore(row(kPlain, "3.3 GB"), info, 90), 150 - 28);
  EXPECT_EQ(StreamRanker::efficiencyScore(row(kPlain, "3.3 GB"), info, 110), 150);
  EXPECT_EQ(StreamRanker::efficiencyScore(row(kPlain, "0.0 GB"), info, std::nullopt), 0);
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
}

TEST(StreamRanker, BitRateCeilingDropsOnlyWhatIsAboveIt) {
  const auto fast = rankerFor(QualityLevel::fast);  // 8 Mbps
  // 6.6 GB over the assumed 6600 s is exactly 8 Mbps: it stays; a byte more goes.
  EXPECT_EQ(fast.rank({row(kPlain, "6.6 GB")}, std::nullopt, false).size(), 1u);
  EXPECT_TRUE(fast.rank({row(kPlain, "6600000001")}, std::nullopt, false).empty());
  EXPECT_EQ(fast.rank({row(kPlain, "6000000000")}, 100, false).size(), 1u);
  EXPECT_TRUE(fast.rank({row(kPlain, "6000000001")}, 100, false).empty());
  // Best has no ceiling.
  EXPECT_EQ(rankerFor(QualityLevel::best).rank({row(kPlain, "50 GB")}, std::nullopt, false).size(), 1u);
  // An unknown size stays at every level.
  for (const auto level : kLevels)
    EXPECT_EQ(rankerFor(level).rank({row(kPlain, "unknown"), row(kPlain)}, std::nullopt, false).size(), 2u);
}

TEST(StreamRanker, OneResolutionStepOutweighsAllButUpscalesAndBurnedSubtitles) {
  // Every bonus at once on a 720p row: HDR, H.264, repack, proper, 10 bit, a
  // known group, a perfect bit rate, 80 for seeders and 150 for a chosen group.
  const std::string loaded = "Film.2020.720p.HDR.REPACK.PROPER.10bit.BluRay.x264-SPARKS.mkv";
  for (const auto level : kLevels) {
    StreamRanker ranker{streamPreference(level), {{"SPARKS", 9}}};
    const auto top = row(loaded, sizeFor(4.0), true, 5000);
    EXPECT_EQ(ranker.score(top, std::nullopt), 1000 + 100 + 50 + 20 + 15 + 20 + 100 + 150 + 80 + 150);
    const auto plain1080 = row(kPlain);
    EXPECT_GT(ranker.score(plain1080, std::nullopt), ranker.score(top, std::nullopt));
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
  EXPECT_EQ(ranker.reasons(row("Film.2020.1080p.BluRay.x265-fgt.mkv", {}, true, 49), std::nullopt, {{"FGT", 1}}),
            std::vector<std::string>{"A group you've chosen 1 time"});
  EXPECT_TRUE(ranker.reasons(row(kPlain, {}, true, 49), std::nullopt, {{"FGT", 0}}).empty());
  // 100 is the threshold of an efficient encode: bloat by 2^0.505 scores 100.
  const auto at100 = row(kPlain, sizeFor(4.0 * std::pow(2.0, 0.505)));
  EXPECT_EQ(StreamRanker::efficiencyScore(at100, ReleaseParser::parse(kPlain), std::nullopt), 100);
  EXPECT_EQ(ranker.reasons(at100, std::nullopt, {}).size(), 1u);
  const auto at99 = row(kPlain, sizeFor(4.0 * std::pow(2.0, 0.515)));
  EXPECT_TRUE(ranker.reasons(at99, std::nullopt, {}).empty());
}

// Random rows, hostile names and sizes included: rank never fails, keeps only
// what its filters allow, and orders by score with ties in input order.
TEST(StreamRanker, FuzzedRowsRankConsistently) {
  std::mt19937_64 rng(16016);
  const std::vector<std::string> words = {"Film", "2020", "1080p", "2160p", "720p", "x264",    "x265",  "AV1",
                                          "HDR",  "DV",   "REMUX", "HC",    "3D",   "Trailer", "10bit", "-SPARKS",
                                          "-FGT", ".mkv", "Фильм", "💾",     "|",    "\n"};
  const std::vector<std::string> sizes = {"1.4 GB", "850 MB", "unknown",       "1,4 GB", "", std::string(400, '7'),
                                          "0",      "3 MB",   "99999999999 GB"};
  const int64_t seederPool[] = {
      0, -1, 49, 1023, std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()};
  const int runtimePool[] = {0, -5, 90, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()};
  auto randomName = [&] {
    std::string name;
    const size_t n = 1 + rng() % 8;
    if (rng() % 4 == 0) {
      for (size_t i = 0; i < 5 * n; ++i) name.push_back(static_cast<char>(rng() % 256));
    } else {
      for (size_t i = 0; i < n; ++i) name += (i ? "." : "") + words[rng() % words.size()];
    }
    return name;
  };
  for (int round = 0; round < 60; ++round) {
    std::vector<StreamCandidate> rows;
    const size_t count = rng() % 40;
    for (size_t i = 0; i < count; ++i) {
      auto r = row(randomName());
      r.id = std::to_string(i);
      if (rng() % 5) r.size = rng() % 3 ? sizes[rng() % sizes.size()] : std::to_string(rng());
      r.isCached = rng() % 3 != 0;
      if (rng() % 4) r.seeders = seederPool[rng() % std::size(seederPool)];
      rows.push_back(std::move(r));
    }
    const auto level = kLevels[rng() % 4];
    StreamRanker ranker{streamPreference(level), {{"FGT", static_cast<int64_t>(rng() % 9) - 2}}};
    std::optional<int> runtime;
    if (rng() % 2) runtime = runtimePool[rng() % std::size(runtimePool)];
    const bool includeUncached = rng() % 2;

    const auto ranked = ranker.rankScored(rows, runtime, includeUncached);
    for (size_t i = 0; i < ranked.size(); ++i) {
      const auto& c = rows[ranked[i].index];
      EXPECT_TRUE(includeUncached || c.isCached);
      const auto info = ReleaseParser::parse(c.filename);
      EXPECT_FALSE(info.notTheFilm || info.stereo3D);
      EXPECT_EQ(ranked[i].score, ranker.score(c, runtime));
      const int eff = StreamRanker::efficiencyScore(c, info, runtime);
      EXPECT_GE(eff, 0);
      EXPECT_LE(eff, 150);
      if (level != QualityLevel::best && sizeBytes(c) > 0) {
        EXPECT_LE(sizeBytes(c) * 8 / durationSeconds(runtime) / 1e6, *ranker.preference.maxMbps);
      }
      ranker.reasons(c, runtime, ranker.chosenGroups);
      if (i > 0) {
        EXPECT_GE(ranked[i - 1].score, ranked[i].score);
        if (ranked[i - 1].score == ranked[i].score) {
          EXPECT_LT(ranked[i - 1].index, ranked[i].index) << "ties keep the order they came in";
        }
      }
    }
    EXPECT_EQ(ranker.rank(rows, runtime, includeUncached).size(), ranked.size());
  }
}
