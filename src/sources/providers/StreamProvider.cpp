#include "sources/providers/StreamProvider.h"

#include <QByteArray>
#include <QStringList>
#include <map>

#include <nlohmann/json.hpp>

#include "platform/Text.h"

namespace vt {

namespace {

bool cutSuffix(std::string& s, std::string_view suffix) {
  if (s.size() < suffix.size() || s.compare(s.size() - suffix.size(), suffix.size(), suffix) != 0) return false;
  s.resize(s.size() - suffix.size());
  return true;
}

}  // namespace

std::string_view rawValue(StreamProviderKind kind) {
  switch (kind) {
    case StreamProviderKind::comet:
      return "comet";
    case StreamProviderKind::mediafusion:
      return "mediafusion";
    case StreamProviderKind::torrentio:
      break;
  }
  return "torrentio";
}

StreamProviderKind streamProviderKindFromRaw(std::string_view raw) {
  if (raw == "comet") return StreamProviderKind::comet;
  if (raw == "mediafusion") return StreamProviderKind::mediafusion;
  return StreamProviderKind::torrentio;
}

std::string_view displayName(StreamProviderKind kind) {
  switch (kind) {
    case StreamProviderKind::comet:
      return "Comet";
    case StreamProviderKind::mediafusion:
      return "MediaFusion";
    case StreamProviderKind::torrentio:
      break;
  }
  return "Torrentio";
}

double streamRequestTimeLimit(StreamProviderKind kind) {
  switch (kind) {
    case StreamProviderKind::comet:
      return 120;
    case StreamProviderKind::mediafusion:
      return 60;
    case StreamProviderKind::torrentio:
      break;
  }
  return 30;
}

std::string StreamProvider::CometConfig::json() const {
  // nlohmann::json (not the ordered flavour) keeps object keys sorted.
  nlohmann::json j = {{"debridService", debridService},
                      {"debridApiKey", debridApiKey},
                      {"cachedOnly", cachedOnly},
                      {"removeTrash", removeTrash},
                      {"maxResultsPerResolution", maxResultsPerResolution}};
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string StreamProvider::identity() const {
  return std::string(rawValue(kind)) + "|" + base.toString(QUrl::FullyEncoded).toStdString();
}

std::optional<StreamProvider> StreamProvider::comet(std::string_view key, std::string_view host, bool cachedOnly) {
  if (key.empty()) return std::nullopt;
  CometConfig config;
  config.debridApiKey = std::string(key);
  config.cachedOnly = cachedOnly;
  const auto json = config.json();
  const auto encoded = QByteArray::fromRawData(json.data(), static_cast<qsizetype>(json.size())).toBase64();
  if (encoded.contains('/') || encoded.contains('+')) return std::nullopt;

  std::string origin(trimmedView(host));
  if (origin.find("://") == std::string::npos) origin = "https://" + origin;
  while (!origin.empty() && origin.back() == '/') origin.pop_back();
  auto base = parseAddonUrl(origin + "/" + encoded.toStdString() + "/");
  if (!base) return std::nullopt;
  return StreamProvider{StreamProviderKind::comet, *base};
}

std::optional<StreamProvider> StreamProvider::mediafusion(std::string_view text) {
  std::string s(trimmedView(text));
  if (s.empty()) return std::nullopt;
  for (size_t at = s.find("stremio://"); at != std::string::npos; at = s.find("stremio://", at + 8))
    s.replace(at, 10, "https://");
  cutSuffix(s, "/manifest.json");
  cutSuffix(s, "/configure");
  cutSuffix(s, "/");
  auto url = parseAddonUrl(s);
  if (!url || !url->scheme().startsWith(QLatin1String("http"))) return std::nullopt;
  return StreamProvider{StreamProviderKind::mediafusion, *url};
}

StreamProvider StreamProvider::classify(const QUrl& url) {
  const auto host = url.host().toLower();
  if (host.contains(QLatin1String("comet"))) return {StreamProviderKind::comet, url};
  if (host.contains(QLatin1String("mediafusion"))) return {StreamProviderKind::mediafusion, url};
  return {StreamProviderKind::torrentio, url};
}

std::string streamsPath(std::string_view type, std::string_view id) {
  std::string path = "stream/";
  path += type;
  path += '/';
  path += id;
  path += ".json";
  return path;
}

QUrl StreamProvider::streamsURL(std::string_view type, std::string_view id) const {
  QUrl url = base;
  QString path = url.path(QUrl::FullyEncoded);
  if (!path.endsWith('/')) path += '/';
  path += QString::fromStdString(streamsPath(type, id));
  url.setPath(path, QUrl::TolerantMode);
  return url;
}

std::optional<std::string> rdKey(const QUrl& addon) {
  const auto components = addon.path(QUrl::FullyDecoded).split('/', Qt::SkipEmptyParts);
  for (const auto& component : components) {
    for (const auto& piece : component.split('|')) {
      if (piece.startsWith(QLatin1String("realdebrid=")) && piece.size() > 11) return piece.mid(11).toStdString();
    }
  }
  return std::nullopt;
}

}  // namespace vt
