#include "sources/release/Quality.h"

#include "platform/Json.h"

namespace vt {

std::optional<QualityLevel> qualityLevelFromRaw(long long raw) {
  if (raw < 0 || raw > 3) return std::nullopt;
  return static_cast<QualityLevel>(raw);
}

StreamPreference streamPreference(QualityLevel level) {
  switch (level) {
    case QualityLevel::fast:
      return {8.0, {"1080p", "720p"}};
    case QualityLevel::balanced:
      return {15.0, {"1080p", "4K", "720p"}};
    case QualityLevel::high:
      return {25.0, {"4K", "1080p", "720p"}};
    case QualityLevel::best:
      return {std::nullopt, {"4K", "1080p", "720p"}};
  }
  return streamPreference(kDefaultQualityLevel);
}

bool companionVersions(QualityLevel level) {
  const auto order = streamPreference(level).resolutionOrder;
  return !order.empty() && order.front() == "4K";
}

std::optional<QualityLevelLegacy> QualityLevelLegacy::decode(std::string_view record) {
  const auto j = json::parse(record);
  if (!j) return std::nullopt;
  try {
    return QualityLevelLegacy{json::optional<double>(*j, "maxSizeGB"),
                              json::required<std::vector<std::string>>(*j, "resolutionOrder")};
  } catch (const DecodeError&) {
    return std::nullopt;
  }
}

QualityLevel QualityLevelLegacy::level() const {
  if (!resolutionOrder.empty() && resolutionOrder.front() == "4K")
    return maxSizeGB ? QualityLevel::high : QualityLevel::best;
  return (!maxSizeGB || *maxSizeGB > 5.0) ? QualityLevel::balanced : QualityLevel::fast;
}

QualityLevel qualityLevelFromLegacy(std::string_view legacyRecord) {
  const auto legacy = QualityLevelLegacy::decode(legacyRecord);
  return legacy ? legacy->level() : kDefaultQualityLevel;
}

}  // namespace vt
