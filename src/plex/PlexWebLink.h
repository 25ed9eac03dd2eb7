#pragma once

#include <optional>
#include <string>

#include <qcoro/qcorotask.h>

#include "plex/PMSClient.h"

namespace vt {

class LibraryStore;

// Where the Plex web app shows a library title ("open in Plex"): the film
// with this IMDb id, or the series' first episode in the library. None when
// the library lacks it, Plex hasn't indexed its file yet, or the server's
// identity is unknown; `why` then says which.
struct PlexWebLink {
  std::optional<std::string> url;
  std::string why;
};
QCoro::Task<PlexWebLink> plexWebLink(PMSClient client, const LibraryStore& library, std::string dataDirectory,
                                     std::string imdbId, bool isSeries);

// "<web app>/desktop/#!/server/<machine>/details?key=<encoded metadata path>".
std::string plexWebAddress(const std::string& webAppBase, const std::string& machineIdentifier,
                           const std::string& ratingKey);

}  // namespace vt
