#include "plex/PlexWebLink.h"

#include "core/LibraryFolders.h"
#include "core/LibraryStore.h"
#include "platform/Endpoints.h"
#include "platform/ProcessTable.h"

namespace vt {

std::string plexWebAddress(const std::string& webAppBase, const std::string& machineIdentifier,
                           const std::string& ratingKey) {
  // Only letters and digits stay plain in the key, "/" and "-._~" included.
  const QByteArray key =
      QByteArray::fromStdString("/library/metadata/" + ratingKey).toPercentEncoding(QByteArray(), "-._~");
  std::string base = webAppBase;
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base + "/desktop/#!/server/" + machineIdentifier + "/details?key=" + key.toStdString();
}

QCoro::Task<PlexWebLink> plexWebLink(PMSClient client, const LibraryStore& library, std::string dataDirectory,
                                     std::string imdbId, bool isSeries) {
  const LibraryTitle* title = nullptr;
  if (isSeries) {
    const auto episodes = library.titlesBySeries(imdbId);
    if (!episodes.empty()) title = episodes.front();
  } else {
    title = library.titleByImdb(imdbId);
  }
  if (!title)
    co_return PlexWebLink{std::nullopt, "the library has no " + std::string(isSeries ? "series " : "film ") + imdbId};
  const std::string file = lastPathComponent(title->name);
  const std::string location = dataDirectory + "/" + libraryFolderName(isSeries);

  auto index = co_await client.fileIndex(location);
  if (!index) co_return PlexWebLink{std::nullopt, message(index.error())};
  const auto item = index.value().find(file);
  if (item == index.value().end() || !item->second.ratingKey)
    co_return PlexWebLink{std::nullopt, "Plex has not indexed \"" + file + "\" yet"};
  auto machine = co_await client.machineInfo();
  if (!machine) co_return PlexWebLink{std::nullopt, message(machine.error())};
  const std::string& id = machine.value().first;
  if (id.empty() || id == "—") co_return PlexWebLink{std::nullopt, "the Plex server does not say who it is"};
  co_return PlexWebLink{plexWebAddress(endpoints().plexWebApp, id, *item->second.ratingKey), {}};
}

}  // namespace vt
