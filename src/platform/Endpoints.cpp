#include "platform/Endpoints.h"

#include <cstdlib>

namespace vt {

Endpoints Endpoints::fromEnvironment() {
  Endpoints e;
  auto take = [](const char* var, std::string& field) {
    if (const char* v = std::getenv(var); v && *v) field = v;
  };
  take("VT_ENDPOINT_RD_WEB_HOST", e.realDebridWebHost);
  take("VT_ENDPOINT_RD_API", e.realDebridApi);
  take("VT_ENDPOINT_POSTERS", e.posterImages);
  take("VT_ENDPOINT_CINEMETA", e.cinemeta);
  take("VT_ENDPOINT_PLEX_ACCOUNT", e.plexAccount);
  take("VT_ENDPOINT_PLEX_WEB", e.plexWebApp);
  take("VT_ENDPOINT_PLEX_DISCOVER", e.plexDiscover);
  take("VT_ENDPOINT_PLEX_LOCAL", e.plexLocalServer);
  take("VT_ENDPOINT_TORRENTIO", e.torrentio);
  take("VT_ENDPOINT_COMET", e.cometHost);
  take("VT_ENDPOINT_COMET_PLACEHOLDER", e.cometPlaceholderHost);
  take("VT_ENDPOINT_SLATE", e.slateHost);
  take("VT_ENDPOINT_SUBTITLE_SERVICE", e.subtitleService);
  return e;
}

const Endpoints& endpoints() {
  static const Endpoints e = Endpoints::fromEnvironment();
  return e;
}

}  // namespace vt
