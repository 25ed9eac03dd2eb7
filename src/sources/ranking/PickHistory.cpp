#include "sources/ranking/PickHistory.h"

#include <atomic>
#include <limits>

#include "platform/Json.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "sources/release/ReleaseParser.h"

namespace vt {

namespace {
std::atomic<PickHistory*> g_shared{nullptr};
}  // namespace

PickHistory::PickHistory(SettingsStore& store) : store_(store) {}

PickHistory* PickHistory::shared() { return g_shared.load(); }
void PickHistory::setShared(PickHistory* history) { g_shared.store(history); }

ChosenGroups PickHistory::readMap(const SettingsStore& store, const char* key) {
  ChosenGroups out;
  auto text = store.string(key);
  if (!text) text = store.data(key);
  if (!text) return out;
  const auto j = json::parse(*text);
  if (!j || !j->is_object()) return out;
  for (const auto& [name, value] : j->items()) {
    if (value.is_number_unsigned() && value.get<uint64_t>() > 0)
      out[name] = static_cast<int64_t>(std::min<uint64_t>(value.get<uint64_t>(), std::numeric_limits<int64_t>::max()));
    else if (value.is_number_integer() && value.get<int64_t>() > 0)
      out[name] = value.get<int64_t>();  // a count below 1 was never written by us: not a pick
  }
  return out;
}

void PickHistory::increment(const char* key, const std::string& entry) {
  std::lock_guard guard(lock_);
  auto map = readMap(store_, key);
  auto& count = map[entry];
  if (count < std::numeric_limits<int64_t>::max()) ++count;
  Json j = Json::object();
  for (const auto& [name, value] : map) j[name] = value;
  store_.setString(key, json::encode(j));
}

void PickHistory::recordPick(std::string_view filename) {
  const auto group = ReleaseParser::parse(filename).group;
  if (!group || group->empty()) return;
  increment(kGroupsKey, upperGroup(*group));
}

void PickHistory::recordCell(std::string_view resolution, int band) {
  increment(kCellsKey, std::string(resolution) + "|" + std::to_string(band));
}

std::optional<PickHistory::Cell> PickHistory::usualCell() const {
  // The entry with the largest count decides; one that doesn't read as
  // "<resolution>|<band>" gives none rather than the runner-up.
  const std::string* bestKey = nullptr;
  int64_t bestCount = 1;
  const auto all = cells();
  for (const auto& [key, count] : all) {
    if (count <= bestCount) continue;
    bestKey = &key;
    bestCount = count;
  }
  if (!bestKey) return std::nullopt;
  const auto bar = bestKey->find('|');
  if (bar == std::string::npos || bestKey->find('|', bar + 1) != std::string::npos) return std::nullopt;
  const auto band = parseAsciiInt(std::string_view(*bestKey).substr(bar + 1));
  if (!band) return std::nullopt;
  return Cell{bestKey->substr(0, bar), *band};
}

ChosenGroups PickHistory::chosenGroups() const {
  std::lock_guard guard(lock_);
  return readMap(store_, kGroupsKey);
}

ChosenGroups PickHistory::cells() const {
  std::lock_guard guard(lock_);
  return readMap(store_, kCellsKey);
}

}  // namespace vt
