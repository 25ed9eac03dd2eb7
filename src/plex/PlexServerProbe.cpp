#include "plex/PlexServerProbe.h"

namespace vt {

namespace {
PlexProbeFailure toProbeFailure(const PMSError& e) {
  PlexProbeFailure f;
  if (e.kind == PMSError::Kind::badStatus) f.httpStatus = e.status;
  f.description = message(e);
  return f;
}
}  // namespace

PlexServerProbe::PlexServerProbe(PMSClient client, std::string movieLocation)
    : client_(std::move(client)), movieLocation_(std::move(movieLocation)) {}

QCoro::Task<std::optional<PlexProbeFailure>> PlexServerProbe::probe() {
  // Both reads start at once; both are awaited before anything changes.
  auto root = client_.httpRequest("GET", "/", PMSClient::Query(), PMSClient::kReadTimeout);
  auto sections = client_.httpRequest("GET", "/library/sections", PMSClient::Query(), PMSClient::kReadTimeout);
  auto rootResult = co_await root;
  auto sectionsResult = co_await sections;
  if (!rootResult.has_value()) co_return toProbeFailure(rootResult.error());
  if (!sectionsResult.has_value()) co_return toProbeFailure(sectionsResult.error());
  co_return std::nullopt;
}

QCoro::Task<bool> PlexServerProbe::ensureMovieSection(std::string name, std::string location) {
  auto r = co_await client_.createSection(std::move(name), false, std::move(location));
  co_return r.has_value();
}

QCoro::Task<bool> PlexServerProbe::refreshSection(std::string location) {
  auto r = co_await client_.refreshSection(std::move(location));
  co_return r.has_value();
}

QCoro::Task<bool> PlexServerProbe::deleteCollectionNamed(std::string title) {
  auto r = co_await client_.deleteCollectionNamed(std::move(title), movieLocation_);
  co_return r.has_value();
}

PlexAccessFactory PlexServerProbe::factory(const PMSClientFactory& clients, std::string movieLocation) {
  return [clients, movieLocation](CancelToken token) -> std::unique_ptr<PlexServerAccess> {
    auto client = clients.make();
    if (!client) return nullptr;
    return std::make_unique<PlexServerProbe>(client->cancelledBy(std::move(token)), movieLocation);
  };
}

}  // namespace vt
