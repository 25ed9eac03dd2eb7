#include <QCoreApplication>
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
#include "sources/StreamProviders.h"
#include "sources/providers/ProviderRegistry.h"
#include "sources/ranking/PickHistory.h"
#include "sources/ranking/RankingSettings.h"

namespace vt::cli {

namespace {

constexpr char kVerb[] = "resolve";
// The picks tried in rank order, as the collection passes try them.
constexpr size_t kPicks = 4;

void printError(std::ostream& out, const std::string& text) { out << json::encode(Json{{"error", text}}) << '\n'; }

}  // namespace

QCoro::Task<int> resolveLink(StremioResolver resolver, StreamRanker ranker, std::string link, std::ostream& out) {
  auto resolution = co_await resolver.resolve(link);
  if (!resolution) {
    printError(out, message(resolution.error()));
    co_return 1;
  }
  const auto pickable = resolution->pickable();
  for (const auto& scored : ranker.rankScored(pickable, resolution->runtimeMinutes, true)) {
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
  if (resolution->streams.empty()) {
    const bool onlyRecordings = resolution->recordings > 0 && !resolver.allowTS();
    printError(out, message(ResolveError::of(onlyRecordings ? ResolveError::Kind::onlyRecordings
                                                            : ResolveError::Kind::noPlayableStream)));
    co_return 1;
  }

  // Cached picks first; with none, the best uncached one.
  auto picks = ranker.rank(pickable, resolution->runtimeMinutes, false);
  if (picks.size() > kPicks) picks.resize(kPicks);
  if (picks.empty()) {
    picks = ranker.rank(pickable, resolution->runtimeMinutes, true);
    if (picks.size() > 1) picks.resize(1);
  }
  ResolveError last = ResolveError::of(ResolveError::Kind::noPlayableStream);
  for (const auto& pick : picks) {
    auto title = co_await resolver.materialise(pick, *resolution);
    if (title) {
      title->mirrorURLs = StremioResolver::alternates(pick, resolution->streams);
      JsonWriter w;
      w.beginObject();
      w.key("title");
      writeLibraryTitle(w, *title);
      w.endObject();
      out << w.str() << '\n';
      co_return 0;
    }
    last = title.error();
    // A bad candidate lets the next one try; anything else ends the search.
    if (last.kind != ResolveError::Kind::noPlayableStream) break;
  }
  printError(out, message(last));
  co_return 1;
}

Verb resolveVerb() {
  return {
      kVerb,
      "resolve a title the way the library would, without adding it",
      "Resolves a Stremio link or IMDb id (\"tt0111161\", \"tt0903747:1:2\") with the configured add-ons,\n"
      "Real-Debrid key and quality, and prints JSON lines: one per candidate in rank order (\"filename\",\n"
      "\"size\", \"isCached\", \"provider\", \"seeders\", \"score\"), then {\"title\":{...}} with the title as the\n"
      "library would hold it, or {\"error\":\"...\"}. What the resolver does is logged on standard error.\n"
      "Nothing is added to the library. Exit status 0 for a title, 1 otherwise.",
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

        // The coroutines need an event loop; a test process brings its own.
        int argc = 1;
        char name[] = "vantory-cli";
        char* argv[] = {name, nullptr};
        std::optional<QCoreApplication> app;
        if (!QCoreApplication::instance()) app.emplace(argc, argv);

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
        StremioResolver resolver(services, *addon, args.has("--allow-recordings") || config.allowTS());
        return QCoro::waitFor(resolveLink(resolver, ranker, args.operands[0], io.out));
      },
      "LINK"};
}

}  // namespace vt::cli
