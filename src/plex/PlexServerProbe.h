#pragma once

#include <memory>
#include <string>

#include "core/PlexPort.h"
#include "plex/PMSClient.h"

namespace vt {

// What the start-up spine asks of the Plex server, answered by PMSClient.
class PlexServerProbe final : public PlexServerAccess {
 public:
  // `movieLocation` is the folder of the movie section ("<data>/Library").
  PlexServerProbe(PMSClient client, std::string movieLocation);

  QCoro::Task<std::optional<PlexProbeFailure>> probe() override;
  QCoro::Task<bool> ensureMovieSection(std::string name, std::string location) override;
  QCoro::Task<bool> refreshSection(std::string location) override;
  QCoro::Task<bool> deleteCollectionNamed(std::string title) override;

  // The factory the spine uses: none when the settings can't make a client.
  static PlexAccessFactory factory(const PMSClientFactory& clients, std::string movieLocation);

 private:
  PMSClient client_;
  std::string movieLocation_;
};

}  // namespace vt
