#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// The user's quality choice, persisted as its integer raw value.
enum class QualityLevel : int { fast = 0, balanced = 1, high = 2, best = 3 };

inline constexpr QualityLevel kDefaultQualityLevel = QualityLevel::balanced;

// A level from its stored raw value; none for an unknown value.
std::optional<QualityLevel> qualityLevelFromRaw(long long raw);

// What a level means to the ranking.
struct StreamPreference {
  std::optional<double> maxMbps;
  std::vector<std::string> resolutionOrder;
  bool preferH264 = true;
  bool allowHDR = true;

  bool operator==(const StreamPreference&) const = default;
};

StreamPreference streamPreference(QualityLevel level);
// Levels whose order starts with "4K" also publish a 1080p companion.
bool companionVersions(QualityLevel level);

// The record that profiles from before quality levels kept under
// "streamPreference".
struct QualityLevelLegacy {
  std::optional<double> maxSizeGB;
  std::vector<std::string> resolutionOrder;

  // None when the JSON is not the record.
  static std::optional<QualityLevelLegacy> decode(std::string_view record);
  // The level that stands for it.
  QualityLevel level() const;
};

// The level of a legacy record; a record that does not decode gives the
// default level.
QualityLevel qualityLevelFromLegacy(std::string_view legacyRecord);

}  // namespace vt
