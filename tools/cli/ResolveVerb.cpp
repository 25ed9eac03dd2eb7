#include <ostream>

#include <qcoro/qcorotask.h>

#include "cli/Verbs.h"
#include "core/AppConfig.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/JsonWriter.h"
#include "platform/Log.h"
#include "platform/Redaction.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "sources/StreamProviders.h"
#include "sources/providers/ProviderRegistry.h"
#include "sources/ranking/PickHistory.h"
#include "sources/ranking/RankingSettings.h"

namespace vt::cli {

namespace {

constexpr char kVerb[] = "resolve";
// As the collection passes resolve: cached releases only, so that what this
// prints is what the library would get.
constexpr bool kUncachedFallback = false;

void printError(std::ostream& out, const std::string& text) { out << json::encode(Json{{"error", text}}) << '\n'; }

std::string outcomeLine(const ResolveOutcome& o) {
  JsonWriter w;
  w.beginObject();
  w.key("outcome");
  w.value(name(o.kind));
  switch (o.kind) {
    case ResolveOutcome::Kind::resolved:
      w.key("title");
      writeLibraryTitle(w, *o.title);
      break;
    case ResolveOutcome::Kind::noStream:
      w.key("streamsSeen");
      w.value(static_cast<int64_t>(o.streamsSeen));
      break;
    case ResolveOutcome::Kind::unreleased:
      if (o.released) {
        w.key("released");
        w.value(*o.released);
      }
      w.key("year");
      w.value(o.year);
      break;
    case ResolveOutcome::Kind::transient:
      break;
  }
  w.endObject();
  return w.str();
}

}  // namespace

QCoro::Task<int> resolveLink(StreamResolver& resolver, QUrl addon, bool allowTS, StreamRanker ranker, std::string link,
                             std::ostream& out, std::ostream& err) {
  std::optional<ResolveOutcome> outcome;
  std::optional<std::string> seriesId;
  std::optional<int> season, episode;
  const auto parsed = StremioResolver::parseLink(link);
  if (!parsed) {
    outcome = ResolveOutcome::of(ResolveError::of(ResolveError::Kind::badLink));
  } else if (parsed->first == "series") {
    const auto parts = splitAny(parsed->second, ":");
    if (parts.size() == 3) {
      seriesId = parts[0];
      season = parseAsciiInt(parts[1]);
      episode = parseAsciiInt(parts[2]);
    }
    if (!season || !episode) outcome = ResolveOutcome::of(ResolveError::of(ResolveError::Kind::episodeRequired));
  }

  if (!outcome) {
    // The candidates as the resolver found them, before any pick.
    resolver.onResolution = [&out, &ranker](const StremioResolver::Resolution& resolution) {
      const auto pickable = resolution.pickable();
      for (const auto& scored : ranker.rankScored(pickable, resolution.runtimeMinutes, true)) {
        const auto& c = pickable[scored.index];
        Json row = Json::object();
        row["filename"] = c.filename;
        json::put(row, "size", c.size);
        row["isCached"] = c.isCached;
        row["provider"] = std::string(rawValue(c.provider));
        json::put(row, "seeders", c.seeders);
        row["score"] = scored.score;
        out << json::encode(row) << '\n';
      }
    };
    if (seriesId)
      outcome = co_await resolver.resolveEpisode(*seriesId, *season, *episode, addon, ranker, allowTS);
    else
      outcome = co_await resolver.resolveMovie(parsed->second, addon, ranker, allowTS, kUncachedFallback);
    resolver.onResolution = nullptr;
  }
  if (outcome->cause) err << "why: " << message(*outcome->cause) << '\n';
  out << outcomeLine(*outcome) << '\n';
  co_return outcome->kind == ResolveOutcome::Kind::resolved ? 0 : 1;
}

Verb resolveVerb() {
  return {
      kVerb,
      "resolve a title the way the library would, without adding it",
      "Resolves a Stremio link or IMDb id (\"tt0111161\", \"tt0903747:1:2\") with the configured add-ons,\n"
      "Real-Debrid key and quality, and prints JSON lines: one per candidate in rank order (\"filename\",\n"
      "\"size\", \"isCached\", \"provider\", \"seeders\", \"score\"), then one line for the outcome:\n"
      "{\"outcome\":\"resolved\",\"title\":{...}} with the title as the library would hold it,\n"
      "{\"outcome\":\"noStream\",\"streamsSeen\":N}, {\"outcome\":\"unreleased\",\"released\":...,\"year\":...} or\n"
      "{\"outcome\":\"transient\"} (try again later). What the resolver does, and why it ended, is logged on\n"
      "standard error. Nothing is added to the library; the add-on rows are kept in the resolve cache of\n"
      "--home. Exit status 0 for a title, 1 otherwise.",
      {{"--level", "LEVEL", "fast, balanced, high or best (default: the quality setting)"},
       {"--allow-recordings", "", "accept camera recordings (default: the allowTS setting)"}},
      [](const Arguments& args, Io& io) {
        if (args.operands.size() != 1) return usageError(io, kVerb, "give one link or id");
        std::optional<QualityLevel> level;
        if (const auto name = args.value("--level")) {
          level = qualityLevelFromName(*name);
          if (!level)
            return usageError(io, kVerb, "--level must be fast, balanced, high or best, not \"" + *name + "\"");
        }

        const VerbEventLoop loop;

        ScopedLogSink toStandardError([&io](std::string_view line) { io.err << redact(line) << '\n'; });
        const auto store = openSettings(args.home, HomeAccess::read);
        AppConfig config(*store, [](const AppConfig& c) { syncStreamProviders(c); });
        const auto addon = addonURL(config);
        if (!addon) {
          printError(io.out, "No stream add-on is configured: set rdKey or streamAddonOverride");
          return 1;
        }
        const auto ranker =
            rankerFor(level.value_or(config.quality()), PickHistory::readMap(*store, PickHistory::kGroupsKey));

        HttpClient http(systemClock(), HttpClient::Session::ephemeral);
        ResolveCache cache(dataFolder(args.home) + "/" + ResolveCache::kFileName, systemClock());
        const auto services = ResolverServices::standard(http, cache, ProviderHealth::shared(),
                                                         StreamProviderRegistry::shared(), nullptr);
        StreamResolver resolver(services);
        const int status =
            QCoro::waitFor(resolveLink(resolver, *addon, args.has("--allow-recordings") || config.allowTS(), ranker,
                                       args.operands[0], io.out, io.err));
        cache.flushNow();
        return status;
      },
      "LINK"};
}

}  // namespace vt::cli
