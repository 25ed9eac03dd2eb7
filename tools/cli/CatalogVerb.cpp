#include <ostream>

#include "catalog/CatalogStore.h"
#include "cli/Verbs.h"
#include "platform/Clock.h"
#include "platform/JsonWriter.h"
#include "platform/Log.h"

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

Verb catalogVerb() {
  return {kVerb,
          "list the followed collections as the application would load them",
          "Loads the catalog of the data folder as the application does at start, without writing anything,\n"
          "and prints one JSON line per collection in store order: \"id\", \"name\", \"source\" (as stored),\n"
          "\"items\", \"pinned\", \"materialised\" (published to Plex) and \"staged\" (still being published in\n"
          "waves). What the load repairs is logged on standard error; the files stay as they are.",
          {},
          [](const Arguments& args, Io& io) {
            ScopedLogSink toStandardError([&io](std::string_view line) { io.err << line << '\n'; });
            return listCatalog(dataFolder(args.home), io.out);
          }};
}

}  // namespace vt::cli
