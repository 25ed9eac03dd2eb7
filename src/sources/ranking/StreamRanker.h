#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sources/StreamCandidate.h"
#include "sources/release/Quality.h"
#include "sources/release/ReleaseParser.h"

namespace vt {

// Uppercase release group -> how often the user picked it by hand.
using ChosenGroups = std::map<std::string, int64_t, std::less<>>;

// Puts the candidates of one title in the order in which they should be
// tried. Every picker goes through it, so all of them agree on what a good
// release is. An immutable value, safe on any thread.
class StreamRanker {
 public:
  struct Scored {
    size_t index;  // position in the list given to rankScored
    int score;
  };

  StreamPreference preference;
  ChosenGroups chosenGroups;

  static constexpr int kResolutionStep = 1000;
  static constexpr int kMaxEfficiency = 150;
  static constexpr int kMaxSeedersBonus = 80;
  static constexpr int kChosenGroupStep = 30;
  static constexpr int64_t kChosenGroupMaxCount = 5;
  // The assumed length of a film whose runtime is unknown.
  static constexpr double kDefaultDurationSeconds = 6600;

  // Filter, score and sort: uncached rows go unless `includeUncached`; rows
  // that aren't the film or are 3D go; rows above the bit-rate ceiling go
  // (an unknown size stays, one exactly at the ceiling stays). The rest in
  // score order, highest first; equal scores keep their input order.
  std::vector<StreamCandidate> rank(const std::vector<StreamCandidate>& candidates, std::optional<int> runtimeMinutes,
                                    bool includeUncached) const;
  // The same, as positions in `candidates` with their scores.
  std::vector<Scored> rankScored(const std::vector<StreamCandidate>& candidates, std::optional<int> runtimeMinutes,
                                 bool includeUncached) const;

  int score(const StreamCandidate& candidate, std::optional<int> runtimeMinutes) const;
  int score(const StreamCandidate& candidate, const ReleaseInfo& info, std::optional<int> runtimeMinutes) const;

  // How close the bit rate is to the right one for the resolution, 0 to 150:
  // starving by a factor of two costs 200, bloat by a factor of two 100.
  static int efficiencyScore(const StreamCandidate& candidate, const ReleaseInfo& info,
                             std::optional<int> runtimeMinutes);

  // The picker's explanation lines for one candidate.
  std::vector<std::string> reasons(const StreamCandidate& candidate, std::optional<int> runtimeMinutes,
                                   const ChosenGroups& chosenGroups) const;

  // Groups known for consistent encodes (uppercase).
  static bool isKnownGroup(std::string_view upperGroup);
};

// The candidate's size text as bytes: only its digits and "." are read, then
// "GB" in the text means 10^9, "MB" 10^6, else bytes. Absent, unreadable or
// out-of-range text is 0.
double sizeBytes(const StreamCandidate& candidate);
double sizeBytes(std::string_view sizeText);

// Seconds of the film: the runtime (at least a minute), else 6600.
double durationSeconds(std::optional<int> runtimeMinutes);

// A group as the ranker and the pick history key it.
std::string upperGroup(std::string_view group);

}  // namespace vt
