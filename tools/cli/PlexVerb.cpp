#include <ostream>

#include "cli/Verbs.h"
#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "plex/PlexWebLink.h"

namespace vt::cli {

namespace {
constexpr char kVerb[] = "plex-link";
}

Verb plexLinkVerb() {
  return {kVerb,
          "print the Plex web address of a title in the library",
          "Prints where the Plex web app shows a film of the library (by its IMDb id, \"tt0111161\"), or with\n"
          "--series the first episode of a series. Asks the configured Plex server; exit status 1, with the\n"
          "reason on standard error, when the library lacks the title or Plex has not indexed it yet.",
          {{"--series", "", "the id is a series'"}},
          [](const Arguments& args, Io& io) {
            if (args.operands.size() != 1) return usageError(io, kVerb, "give one IMDb id");
            const VerbEventLoop loop;
            const auto store = openSettings(args.home, HomeAccess::read);
            AppConfig config(*store);
            HttpClient http(systemClock(), HttpClient::Session::ephemeral);
            const auto client = PMSClient::fromConfig(config, http);
            if (!client) {
              io.err << "vantory-cli " << kVerb << ": no Plex server is configured (pmsURLString and token)\n";
              return 1;
            }
            const std::string folder = dataFolder(args.home);
            LibraryStore library(folder + "/library.json", systemClock());
            const auto link =
                QCoro::waitFor(plexWebLink(*client, library, folder, args.operands[0], args.has("--series")));
            if (!link.url) {
              io.err << "vantory-cli " << kVerb << ": " << link.why << '\n';
              return 1;
            }
            io.out << *link.url << '\n';
            return 0;
          },
          "ID"};
}

}  // namespace vt::cli
