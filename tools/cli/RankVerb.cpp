#include <cmath>
#include <istream>
#include <limits>
#include <ostream>

#include "cli/Verbs.h"
#include "core/UserSettings.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "sources/ranking/PickHistory.h"
#include "sources/ranking/RankingSettings.h"

namespace vt::cli {

namespace {

std::optional<int64_t> wholeNumber(const Json& v) {
  constexpr auto kMax = std::numeric_limits<int64_t>::max();
  if (v.is_number_unsigned()) return static_cast<int64_t>(std::min<uint64_t>(v.get<uint64_t>(), kMax));
  if (v.is_number_integer()) return v.get<int64_t>();
  if (v.is_number_float()) {
    const double d = v.get<double>();
    if (!std::isfinite(d)) return std::nullopt;
    if (d >= 9.2e18) return kMax;
    if (d <= -9.2e18) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(d);
  }
  return std::nullopt;
}

}  // namespace

std::optional<QualityLevel> qualityLevelFromName(const std::string& name) { return vt::qualityLevelFromName(name); }

std::optional<StreamCandidate> candidateFromRow(const Json& row) {
  if (!row.is_object()) return std::nullopt;
  StreamCandidate c;
  auto text = [&](const char* key) -> std::optional<std::string> {
    const auto it = row.find(key);
    if (it == row.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
  };
  c.filename = text("filename").value_or("");
  c.url = text("url").value_or("");
  c.size = text("size");
  c.infoHash = text("infoHash");
  if (const auto provider = text("provider")) c.provider = streamProviderKindFromRaw(*provider);
  if (const auto it = row.find("isCached"); it != row.end() && it->is_boolean()) c.isCached = it->get<bool>();
  if (const auto it = row.find("seeders"); it != row.end()) c.seeders = wholeNumber(*it);
  return c;
}

int rankRows(const RankOptions& options, std::istream& in, std::ostream& out, std::ostream& err) {
  ChosenGroups chosen;
  QualityLevel level = options.level.value_or(kDefaultQualityLevel);
  if (options.home) {
    if (const auto store = openHomeSettings(*options.home, HomeAccess::read)) {
      chosen = PickHistory::readMap(*store, PickHistory::kGroupsKey);
      if (!options.level) level = storedQualityLevel(*store);
    }
  }
  const auto ranker = rankerFor(level, std::move(chosen));

  std::vector<Json> rows;
  std::vector<StreamCandidate> candidates;
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    auto row = json::parse(line);
    std::optional<StreamCandidate> candidate;
    if (row) candidate = candidateFromRow(*row);
    if (!candidate) {
      err << kToolName << " rank: line " << number << " skipped: " << (row ? "not a JSON object" : "not JSON") << '\n';
      continue;
    }
    rows.push_back(std::move(*row));
    candidates.push_back(std::move(*candidate));
  }

  for (const auto& ranked : ranker.rankScored(candidates, options.runtimeMinutes, options.includeUncached)) {
    const auto& candidate = candidates[ranked.index];
    Json row = std::move(rows[ranked.index]);
    for (const char* key : {"score", "efficiencyScore", "reasons"}) row.erase(key);
    row["score"] = ranked.score;
    row["efficiencyScore"] =
        StreamRanker::efficiencyScore(candidate, ReleaseParser::parse(candidate.filename), options.runtimeMinutes);
    row["reasons"] = ranker.reasons(candidate, options.runtimeMinutes, ranker.chosenGroups);
    out << json::encode(row) << '\n';
  }
  return 0;
}

Verb rankVerb() {
  return {"rank",
          "rank candidate rows the way the resolver orders them",
          "Reads candidate rows as JSON lines on standard input (\"filename\", \"size\" as the add-on's text,\n"
          "\"isCached\", \"seeders\"; other keys are kept) and prints the rows the ranker keeps, best first, each\n"
          "with \"score\", \"efficiencyScore\" and \"reasons\" added. Groups picked before come from the pick\n"
          "history of --home. A line that doesn't read is skipped with a message on standard error.",
          {{"--level", "LEVEL", "fast, balanced, high or best (default: the quality setting of --home, else balanced)"},
           {"--runtime", "MINUTES", "the film's runtime (default: unknown, counted as 110 minutes)"},
           {"--include-uncached", "", "keep rows Real-Debrid doesn't hold yet"}},
          [](const Arguments& args, Io& io) {
            RankOptions options;
            options.home = args.home;
            options.includeUncached = args.has("--include-uncached");
            if (const auto name = args.value("--level")) {
              options.level = qualityLevelFromName(*name);
              if (!options.level)
                return usageError(io, "rank", "--level must be fast, balanced, high or best, not \"" + *name + "\"");
            }
            if (const auto minutes = args.value("--runtime")) {
              options.runtimeMinutes = parseAsciiInt(*minutes);
              if (!options.runtimeMinutes)
                return usageError(io, "rank", "--runtime takes whole minutes, not \"" + *minutes + "\"");
            }
            return rankRows(options, io.in, io.out, io.err);
          }};
}

}  // namespace vt::cli
