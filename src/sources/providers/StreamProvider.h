#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <QUrl>

#include "platform/Url.h"  // parseAddonUrl
#include "sources/providers/StreamProviderKind.h"

namespace vt {

// A Stremio stream add-on: its family and its base address, which ends in
// "/" for the addresses built here. Two providers are equal when kind and
// base are equal.
struct StreamProvider {
  StreamProviderKind kind = StreamProviderKind::torrentio;
  QUrl base;

  // What Comet reads from the first path segment of its base. Encoded as
  // compact JSON with sorted keys.
  struct CometConfig {
    std::string debridService = "realdebrid";
    std::string debridApiKey;
    bool cachedOnly = true;
    bool removeTrash = true;
    int maxResultsPerResolution = 0;

    std::string json() const;
  };

  // The raw kind, a "|" and the absolute base.
  std::string identity() const;
  bool operator==(const StreamProvider& o) const { return kind == o.kind && base == o.base; }

  // Comet on `host` with the key in its path. `host` is a host name (the
  // address is https) or an origin with its own scheme. Nothing for an empty
  // key, or when the configuration's base64 holds "/" or "+": that address
  // can't be written and no URL-safe variant is used.
  static std::optional<StreamProvider> comet(std::string_view key, std::string_view host, bool cachedOnly);
  // A MediaFusion add-on from the address the user pasted: "stremio://" reads
  // as "https://", and "/manifest.json", "/configure" and a last "/" are cut.
  // Nothing for an empty text or one that isn't an http(s) address.
  static std::optional<StreamProvider> mediafusion(std::string_view text);
  // Wraps an add-on address by its host: "comet" or "mediafusion" in it give
  // those kinds, anything else is Torrentio.
  static StreamProvider classify(const QUrl& url);

  // The streams of a film ("movie", IMDb id) or an episode ("series",
  // "<imdb id>:<season>:<episode>"): "stream/<type>/<id>.json" under the base.
  QUrl streamsURL(std::string_view type, std::string_view id) const;
};

// "stream/<type>/<id>.json".
std::string streamsPath(std::string_view type, std::string_view id);

// The Real-Debrid key an add-on address carries: the rest of the first
// "|"-separated piece of a path component that begins with "realdebrid=" and
// has something after it.
std::optional<std::string> rdKey(const QUrl& addon);

}  // namespace vt
