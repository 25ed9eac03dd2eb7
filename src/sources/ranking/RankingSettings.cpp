#include "sources/ranking/RankingSettings.h"

#include "platform/Settings.h"

namespace vt {

QualityLevel storedQualityLevel(const SettingsStore& store) {
  if (const auto raw = store.integer("quality"))
    if (const auto level = qualityLevelFromRaw(*raw)) return *level;
  if (const auto legacy = store.data("streamPreference")) return qualityLevelFromLegacy(*legacy);
  if (const auto legacy = store.string("streamPreference")) return qualityLevelFromLegacy(*legacy);
  return kDefaultQualityLevel;
}

StreamRanker rankerFor(QualityLevel level, ChosenGroups chosenGroups) {
  return StreamRanker{streamPreference(level), std::move(chosenGroups)};
}

}  // namespace vt
