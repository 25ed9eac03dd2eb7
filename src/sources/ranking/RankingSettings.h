#pragma once

#include "sources/ranking/StreamRanker.h"
#include "sources/release/Quality.h"

namespace vt {

class SettingsStore;

// The quality level a settings store holds, read as the settings object loads
// it but without writing anything: a valid "quality" value, else the level of
// the old "streamPreference" record, else balanced.
QualityLevel storedQualityLevel(const SettingsStore& store);

// The ranker of a level, with the groups the user chose before.
StreamRanker rankerFor(QualityLevel level, ChosenGroups chosenGroups = {});

}  // namespace vt
