#include "sources/ranking/StreamRanker.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include "platform/Regex.h"

namespace vt {

namespace {

// Sorted, so that a lookup is a binary search.
constexpr std::array<std::string_view, 23> kKnownGroups = {
    "AMIABLE", "BYNDR",  "CAKES",   "DEFLATE", "DON",      "EDITH",  "FLUX",    "FRAMESTOR",
    "GECKOS",  "HONE",   "KOGI",    "MZABI",   "NTB",      "NTG",    "PLAYWEB", "QXR",
    "RARBG",   "SPARKS", "SURCODE", "SWTYBLZ", "TERMINAL", "TIGOLE", "TOMBDOC"};
static_assert(std::is_sorted(kKnownGroups.begin(), kKnownGroups.end()));

double targetMbps(const ReleaseInfo& info) {
  const bool efficient = info.codec == "H.265" || info.codec == "AV1";
  if (!info.resolution) return efficient ? 2.0 : 3.0;
  const auto& r = *info.resolution;
  if (r == "4K") return efficient ? 12.0 : 16.0;
  if (r == "1080p") return efficient ? 4.0 : 7.0;
  if (r == "720p") return efficient ? 2.5 : 4.0;
  return efficient ? 2.0 : 3.0;
}

double mbpsOf(double bytes, std::optional<int> runtimeMinutes) {
  return bytes * 8 / durationSeconds(runtimeMinutes) / 1'000'000;
}

int seedersBonus(const std::optional<int64_t>& seeders) {
  if (!seeders || *seeders < 1) return 0;
  const double bonus = std::log2(static_cast<double>(*seeders) + 1) * 10;
  return bonus >= StreamRanker::kMaxSeedersBonus ? StreamRanker::kMaxSeedersBonus : static_cast<int>(bonus);
}

int64_t chosenCount(const ChosenGroups& groups, std::string_view upper) {
  const auto it = groups.find(upper);
  return it == groups.end() ? 0 : it->second;
}

}  // namespace

double durationSeconds(std::optional<int> runtimeMinutes) {
  if (!runtimeMinutes) return StreamRanker::kDefaultDurationSeconds;
  return static_cast<double>(std::max(*runtimeMinutes, 1)) * 60;
}

double sizeBytes(std::string_view text) {
  std::string number;
  number.reserve(text.size());
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(std::min<size_t>(text.size(), INT32_MAX));
  for (int32_t i = 0; i < length;) {
    const uint8_t b = bytes[i];
    if (b < 0x80) {
      if ((b >= '0' && b <= '9') || b == '.') number.push_back(static_cast<char>(b));
      ++i;
      continue;
    }
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    // A digit of another script is a digit the number can't be read with.
    if (c >= 0) {
      const auto type = u_charType(c);
      if (type == U_DECIMAL_DIGIT_NUMBER || type == U_LETTER_NUMBER || type == U_OTHER_NUMBER) return 0;
    }
  }
  if (number.empty()) return 0;
  double value = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  if (error != std::errc() || end != number.data() + number.size() || !std::isfinite(value)) return 0;
  if (text.find("GB") != std::string_view::npos)
    value *= 1'000'000'000;
  else if (text.find("MB") != std::string_view::npos)
    value *= 1'000'000;
  return std::isfinite(value) ? value : 0;
}

double sizeBytes(const StreamCandidate& candidate) { return candidate.size ? sizeBytes(*candidate.size) : 0; }

std::string upperGroup(std::string_view group) {
  if (std::all_of(group.begin(), group.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    std::string out(group);
    for (auto& c : out)
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return out;
  }
  return toUpper(group);
}

bool StreamRanker::isKnownGroup(std::string_view upper) {
  return std::binary_search(kKnownGroups.begin(), kKnownGroups.end(), upper);
}

int StreamRanker::efficiencyScore(const StreamCandidate& candidate, const ReleaseInfo& info,
                                  std::optional<int> runtimeMinutes) {
  const double size = sizeBytes(candidate);
  if (!(size > 0)) return 0;
  const double l = std::log2(mbpsOf(size, runtimeMinutes) / targetMbps(info));
  const double penalty = l >= 0 ? l * 100 : -l * 2 * 100;
  // Compared before the cut to an integer, so that a penalty beyond any
  // integer (a size far off the scale) is simply the lowest score.
  if (!(penalty < kMaxEfficiency)) return 0;
  return kMaxEfficiency - static_cast<int>(penalty);
}

int StreamRanker::score(const StreamCandidate& candidate, std::optional<int> runtimeMinutes) const {
  return score(candidate, ReleaseParser::parse(candidate.filename), runtimeMinutes);
}

int StreamRanker::score(const StreamCandidate& candidate, const ReleaseInfo& info,
                        std::optional<int> runtimeMinutes) const {
  int s = 0;
  if (info.resolution) {
    const auto& order = preference.resolutionOrder;
    const auto n = static_cast<int>(order.size());
    for (int i = 0; i < n; ++i) {
      if (order[static_cast<size_t>(i)] == *info.resolution) {
        s += (n - i) * kResolutionStep;
        break;
      }
    }
  }
  if (info.dolbyVisionOnly)
    s -= 50;
  else if (preference.allowHDR && info.hdr)
    s += 100;
  if (preference.preferH264 && info.codec == "H.264") s += 50;
  if (info.codec == "AV1" || info.codec == "VP9") s -= 300;
  if (info.repack) s += 20;
  if (info.proper) s += 15;
  if (info.upscaled) s -= 1500;
  if (info.burnedSubs) s -= 2500;
  if (!info.group) s -= 150;
  s += efficiencyScore(candidate, info, runtimeMinutes);
  if (info.bitDepth == 10) s += 20;
  if (info.group) {
    const auto upper = upperGroup(*info.group);
    if (isKnownGroup(upper)) s += 100;
    const auto count = std::clamp<int64_t>(chosenCount(chosenGroups, upper), 0, kChosenGroupMaxCount);
    s += static_cast<int>(count) * kChosenGroupStep;
  }
  s += seedersBonus(candidate.seeders);
  return s;
}

std::vector<StreamRanker::Scored> StreamRanker::rankScored(const std::vector<StreamCandidate>& candidates,
                                                           std::optional<int> runtimeMinutes,
                                                           bool includeUncached) const {
  std::vector<Scored> kept;
  kept.reserve(candidates.size());
  for (size_t i = 0; i < candidates.size(); ++i) {
    const auto& candidate = candidates[i];
    if (!includeUncached && !candidate.isCached) continue;
    const auto info = ReleaseParser::parse(candidate.filename);
    if (info.notTheFilm || info.stereo3D) continue;
    if (preference.maxMbps) {
      const double size = sizeBytes(candidate);
      if (size > 0 && mbpsOf(size, runtimeMinutes) > *preference.maxMbps) continue;
    }
    kept.push_back({i, score(candidate, info, runtimeMinutes)});
  }
  std::stable_sort(kept.begin(), kept.end(), [](const Scored& a, const Scored& b) { return a.score > b.score; });
  return kept;
}

std::vector<StreamCandidate> StreamRanker::rank(const std::vector<StreamCandidate>& candidates,
                                                std::optional<int> runtimeMinutes, bool includeUncached) const {
  std::vector<StreamCandidate> out;
  const auto ranked = rankScored(candidates, runtimeMinutes, includeUncached);
  out.reserve(ranked.size());
  for (const auto& r : ranked) out.push_back(candidates[r.index]);
  return out;
}

std::vector<std::string> StreamRanker::reasons(const StreamCandidate& candidate, std::optional<int> runtimeMinutes,
                                               const ChosenGroups& groups) const {
  const auto info = ReleaseParser::parse(candidate.filename);
  std::vector<std::string> out;
  if (efficiencyScore(candidate, info, runtimeMinutes) >= 100)
    out.emplace_back("An efficient encode: good picture for its size");
  if (info.group) {
    const auto upper = upperGroup(*info.group);
    if (isKnownGroup(upper)) out.push_back(*info.group + " releases are known for consistent encodes");
    if (const auto count = chosenCount(groups, upper); count >= 1)
      out.push_back("A group you've chosen " + std::to_string(count) + " time" + (count == 1 ? "" : "s"));
  }
  if (candidate.seeders && *candidate.seeders >= 50)
    out.push_back("Popular: " + std::to_string(*candidate.seeders) + " people share it");
  if (info.upscaled) out.emplace_back("Upscaled from a lower resolution, so it ranks last");
  if (info.burnedSubs) out.emplace_back("Subtitles are burned into the picture, so it ranks below clean releases");
  return out;
}

}  // namespace vt
