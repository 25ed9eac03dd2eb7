#include <ostream>

#include <qcoro/qcorotask.h>

#include "catalog/CatalogStore.h"
#include "catalog/StremioCatalogClient.h"
#include "cli/Verbs.h"
#include "platform/Clock.h"
#include "platform/Endpoints.h"
#include "platform/Http.h"
#include "platform/JsonWriter.h"
#include "platform/Log.h"
#include "platform/Text.h"
#include "platform/Url.h"

namespace vt::cli {

namespace {

constexpr char kVerb[] = "catalog";

template <class Range>
void writeIds(JsonWriter& w, std::string_view key, const Range& ids) {
  w.key(key);
  w.beginArray();
  for (const auto& id : ids) w.value(id);
  w.endArray();
}

}  // namespace

int listCatalog(const std::string& directory, std::ostream& out) {
  // Read-only: the repairs of the load happen in memory and are logged, and
  // nothing in the folder changes.
  const CatalogStore store(directory, systemClock(), nullptr, CatalogStoreOptions{.readOnly = true});
  for (const auto& c : store.collections()) {
    JsonWriter w;
    w.beginObject();
    w.field("id", c.id);
    w.field("name", c.name);
    w.key("source");
    catalogfile::writeSource(w, c.source);
    writeIds(w, "items", c.itemImdbIds);
    writeIds(w, "pinned", c.pinnedImdbIds);
    w.field("materialised", store.isMaterialised(c.id));
    w.field("staged", store.isStaging(c.id));
    w.endObject();
    out << w.str() << '\n';
  }
  return 0;
}

QCoro::Task<int> fetchCatalog(StremioCatalogClient& client, QUrl base, std::string type, std::string catalogId,
                              std::optional<std::string> genre, int limit, std::ostream& out) {
  // {"skip":N,"ids":[...]} for a page, {"ids":[...]} for the walk.
  const auto idsLine = [&out](std::optional<int> skip, const std::vector<CatalogMeta>& metas) {
    std::vector<std::string> ids;
    for (const auto& m : metas) ids.push_back(m.id);
    JsonWriter w;
    w.beginObject();
    if (skip) w.field("skip", static_cast<int64_t>(*skip));
    writeIds(w, "ids", ids);
    w.endObject();
    out << w.str() << '\n';
  };
  client.onPage = [&idsLine](int skip, const std::vector<CatalogMeta>& page) { idsLine(skip, page); };
  auto metas = co_await client.metas(base, type, catalogId, genre, limit);
  client.onPage = nullptr;
  if (!metas) {
    out << json::encode(Json{{"error", "the catalog couldn't be read to the end; a store would keep its members"}})
        << '\n';
    co_return 1;
  }
  idsLine(std::nullopt, *metas);
  co_return 0;
}

Verb catalogVerb() {
  return {kVerb,
          "list the followed collections as the application would load them",
          "Loads the catalog of the data folder as the application does at start, without writing anything,\n"
          "and prints one JSON line per collection in store order: \"id\", \"name\", \"source\" (as stored),\n"
          "\"items\", \"pinned\", \"materialised\" (published to Plex) and \"staged\" (still being published in\n"
          "waves). What the load repairs is logged on standard error; the files stay as they are.\n"
          "With --fetch ADDON_BASE TYPE ID it reads that add-on catalog instead, as a refresh would: one\n"
          "line per page read, {\"skip\":N,\"ids\":[...]}, then {\"ids\":[...]}, the members a list of\n"
          "--limit titles would get (exit 0), or {\"error\":...} when a page failed (exit 1).",
          {{"--fetch", "ADDON_BASE", "read this add-on's catalog TYPE ID (the words after the flags)"},
           {"--genre", "GENRE", "the catalog's genre, with --fetch"},
           {"--limit", "N", "how many titles to read, with --fetch (default 50)"}},
          [](const Arguments& args, Io& io) {
            ScopedLogSink toStandardError([&io](std::string_view line) { io.err << line << '\n'; });
            const auto base = args.value("--fetch");
            if (!base) {
              if (!args.operands.empty()) return usageError(io, kVerb, "TYPE and ID go with --fetch");
              return listCatalog(dataFolder(args.home), io.out);
            }
            if (args.operands.size() != 2) return usageError(io, kVerb, "--fetch takes TYPE and ID, as in movie top");
            const auto url = parseUrl(*base);
            if (!url) return usageError(io, kVerb, "\"" + *base + "\" is no add-on address");
            int limit = 50;
            if (const auto text = args.value("--limit")) {
              const auto n = parseAsciiInt(*text);
              if (!n || *n < 1) return usageError(io, kVerb, "--limit takes a number of titles, not \"" + *text + "\"");
              limit = *n;
            }
            const VerbEventLoop loop;
            HttpClient http(systemClock(), HttpClient::Session::ephemeral);
            StremioCatalogClient client(http, QUrl(QString::fromStdString(endpoints().cinemeta)));
            return QCoro::waitFor(
                fetchCatalog(client, *url, args.operands[0], args.operands[1], args.value("--genre"), limit, io.out));
          },
          "[TYPE ID]"};
}

}  // namespace vt::cli
