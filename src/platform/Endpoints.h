#pragma once

#include <string>

namespace vt {

// The addresses of the outside services that the application chooses itself.
// Each can be replaced through the environment variable named beside it, and
// tests always point them at local servers on 127.0.0.1.
struct Endpoints {
  std::string realDebridWebHost = "real-debrid.com";               // VT_ENDPOINT_RD_WEB_HOST
  std::string realDebridApi = "https://api.real-debrid.com";       // VT_ENDPOINT_RD_API
  std::string posterImages = "https://images.metahub.space";       // VT_ENDPOINT_POSTERS
  std::string cinemeta = "https://v3-cinemeta.strem.io";           // VT_ENDPOINT_CINEMETA
  std::string plexAccount = "https://plex.tv/api/v2";              // VT_ENDPOINT_PLEX_ACCOUNT
  std::string plexWebApp = "https://app.plex.tv";                  // VT_ENDPOINT_PLEX_WEB
  std::string plexDiscover = "https://discover.provider.plex.tv";  // VT_ENDPOINT_PLEX_DISCOVER
  // A Plex Media Server on this machine, asked for its identity at discovery.
  std::string plexLocalServer = "http://127.0.0.1:32400";  // VT_ENDPOINT_PLEX_LOCAL
  std::string torrentio = "https://torrentio.strem.fun";   // VT_ENDPOINT_TORRENTIO
  // A host name (the add-on is reached over https) or an origin with a scheme.
  std::string cometHost = "comet.elfhosted.com";  // VT_ENDPOINT_COMET
  // Hosts that serve a stand-in instead of a film: the one Comet links when it
  // has nothing cached, and the slate video a dead debrid link lands on.
  // Rows and probes that reach them are not playable.
  std::string cometPlaceholderHost = "comet.elfhosted.com/placeholder";  // VT_ENDPOINT_COMET_PLACEHOLDER
  std::string slateHost = "static.real-debrid.com";                      // VT_ENDPOINT_SLATE
  // Our own service for subtitle work: it carries the speech-to-text and
  // model calls and shares proven results between installations. Empty means
  // this installation has no such service (a deployment sets it).
  std::string subtitleService;  // VT_ENDPOINT_SUBTITLE_SERVICE

  static Endpoints fromEnvironment();
};

// The process-wide table, read from the environment once.
const Endpoints& endpoints();

}  // namespace vt
