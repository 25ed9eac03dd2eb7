#pragma once

// The stream add-ons, Real-Debrid and its file host, and Cinemeta as the
// resolver meets them: Torrentio rows whose links carry the account key,
// each link redirecting to the film's bytes on the debrid file host; Comet,
// asked too, has nothing cached.

#include <algorithm>
#include <string>

#include <QByteArray>
#include <QUrl>

#include "fakes/FakeCinemeta.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakeRealDebrid.h"
#include "fakes/FakeStreamAddon.h"
#include "platform/Endpoints.h"

namespace vt::test {

inline std::string withoutTrailingSlash(const QUrl& url) {
  std::string s = url.toString().toStdString();
  while (!s.empty() && s.back() == '/') s.pop_back();
  return s;
}

struct FilmSources {
  static constexpr int64_t kFilmBytes = 4'200'000'000;  // far above the probe's floor

  FakeRealDebrid rd;
  FakeStreamAddon torrentio{FakeStreamAddon::Family::torrentio};
  FakeStreamAddon comet{FakeStreamAddon::Family::comet};
  FakeCinemeta cinemeta;

  FilmSources() {
    torrentio.config = "realdebrid=" + rd.key;
    torrentio.onPrefix("GET", "/resolve/realdebrid/", [this](const auto& request, auto& reply) {
      const auto parts = request.path.split('/');
      const QString hash = parts.size() > 4 ? parts[4] : QString();
      reply.send(302, {}, {{"Location", rd.fileHost().url("/d/" + hash).toEncoded()}});
    });
  }

  // Points the application's endpoint table here. The table is read once per
  // process, from the environment: false when it was read before.
  bool becomeEndpoints() {
    qputenv("VT_ENDPOINT_CINEMETA", QByteArray::fromStdString(withoutTrailingSlash(cinemeta.baseUrl())));
    qputenv("VT_ENDPOINT_RD_API", QByteArray::fromStdString(withoutTrailingSlash(rd.baseUrl())));
    qputenv("VT_ENDPOINT_COMET", QByteArray::fromStdString(withoutTrailingSlash(comet.baseUrl())));
    return endpoints().cinemeta == withoutTrailingSlash(cinemeta.baseUrl());
  }

  // A film Cinemeta knows; with a stream, one cached 1080p Torrentio row.
  void film(const std::string& id, const std::string& name, const std::string& year, const std::string& hash,
            bool withStream = true) {
    cinemeta.addMovie(id, name, year, "100 min", year + "-03-01T00:00:00.000Z");
    if (!withStream) return;  // the add-on answers with an empty list
    std::string release = name + "." + year + ".1080p.BluRay.x264-GRP.mkv";
    std::replace(release.begin(), release.end(), ' ', '.');
    const FakeStreamAddon::Release r{release, kFilmBytes, hash};
    Json row = torrentio.row(r);
    // Torrentio's links name the account they were made for.
    row["url"] =
        withoutTrailingSlash(torrentio.baseUrl()) + "/resolve/realdebrid/" + rd.key + "/" + hash + "/null/0/" + release;
    torrentio.setRows("movie", id, Json::array({row}));
    serveGenerated(rd.fileHost(), QString::fromStdString("/d/" + hash), kFilmBytes);
  }
};

}  // namespace vt::test
