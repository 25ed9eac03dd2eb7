#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "sources/ranking/StreamRanker.h"

namespace vt {

class SettingsStore;

// What the user chose by hand before: release groups and picker cells, two
// counting maps kept in the settings store under "pickedReleaseGroups" and
// "pickedGridCells". Each map is one stored value (a JSON object), so a "/"
// in a group name is just a character. The lock covers every
// read-change-write of a map; the store itself belongs to the main thread.
// The application owns one and installs it as the shared instance, so that
// every picker goes through the same lock.
class PickHistory {
 public:
  static constexpr const char* kGroupsKey = "pickedReleaseGroups";
  static constexpr const char* kCellsKey = "pickedGridCells";

  struct Cell {
    std::string resolution;
    int band = 0;
    bool operator==(const Cell&) const = default;
  };

  explicit PickHistory(SettingsStore& store);

  // The running application's history; none before it is installed (tests,
  // the command-line tool). Installed once at start, before any job runs.
  static PickHistory* shared();
  static void setShared(PickHistory* history);

  // Parses the name and counts its group, uppercased, when it has one.
  void recordPick(std::string_view filename);
  // Counts the cell "<resolution>|<band>".
  void recordCell(std::string_view resolution, int band);
  // The cell with the highest count, when that count is above 1; on a tie,
  // the first in key order.
  std::optional<Cell> usualCell() const;

  // What a ranker gets as its chosen groups.
  ChosenGroups chosenGroups() const;
  ChosenGroups cells() const;

  // A stored map; entries that aren't whole numbers are left out and a value
  // that doesn't decode reads as empty.
  static ChosenGroups readMap(const SettingsStore& store, const char* key);

 private:
  void increment(const char* key, const std::string& entry);

  SettingsStore& store_;
  mutable std::mutex lock_;
};

}  // namespace vt
