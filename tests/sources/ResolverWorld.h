#pragma once

// The local world a resolver test runs in: Real-Debrid, two add-ons,
// Cinemeta and a CDN, with the resolver's stores.

#include "fakes/FakeCinemeta.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakeRealDebrid.h"
#include "fakes/FakeStreamAddon.h"
#include "platform/Http.h"
#include "platform/Log.h"
#include "platform/SerialFileWriter.h"
#include "sources/providers/ProviderRegistry.h"
#include "sources/resolve/SeriesSkeletonCache.h"
#include "sources/resolve/StremioResolver.h"
#include "support/PauseClock.h"
#include "support/TestKit.h"

namespace vt::test::resolver {

using Family = FakeStreamAddon::Family;

inline const std::string kHashA = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
inline const std::string kHashB = "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb";
constexpr int64_t kFilm = 4'200'000'000;

// Three local services, a CDN, and the resolver's stores; the add-on address carries the RD key.
struct World {
  FakeRealDebrid rd;
  FakeStreamAddon torrentio{Family::torrentio};
  FakeStreamAddon comet{Family::comet};
  FakeCinemeta cinemeta;
  test::FakeHttpServer cdn;
  test::TestHome home;
  test::PauseClock clock;
  ManualClock cacheClock;
  HttpClient http{clock, HttpClient::Session::ephemeral};
  ResolveCache cache{home.file("resolve-cache.json"), cacheClock};
  ProviderHealth health{clock};
  StreamProviderRegistry registry;
  SeriesSkeletonCache skeletons;  // the world's own: shows of one test don't leak into the next
  ResolverServices services{http,
                            cache,
                            health,
                            registry,
                            nullptr,
                            cinemeta.base(),
                            rd.restBase(),
                            comet.baseUrl().toString().toStdString(),
                            "placeholder.invalid",
                            "slate.invalid",
                            &skeletons};
  std::vector<std::string> lines;
  ScopedLogSink sink{[this](std::string_view l) { lines.emplace_back(l); }};

  World() { torrentio.config = "realdebrid=" + rd.key; }

  StremioResolver resolver(bool allowTS = false) { return StremioResolver(services, torrentio.base(), allowTS); }
  void useComet() { registry.update({*StreamProvider::comet(rd.key, services.cometHost, true)}, rd.key); }

  template <class T>
  T run(QCoro::Task<T> task, int limitMs = 10000) {
    return test::drive(clock, std::move(task), limitMs);
  }

  // A film file on the CDN and an add-on link that redirects to it.
  std::string cdnFilm(const std::string& name, int64_t size = kFilm) {
    const QString path = QString::fromStdString("/films/" + name);
    test::serveGenerated(cdn, path, size);
    const QString link = QString::fromStdString("/links/" + name);
    test::redirect(cdn, link, cdn.url(path).toString());
    return cdn.url(link).toString().toStdString();
  }

  bool logged(std::string_view needle) const {
    return std::any_of(lines.begin(), lines.end(), [&](const auto& l) { return l.find(needle) != std::string::npos; });
  }
};

inline CachedStream row(std::string name, std::string filename, std::string provider = "torrentio",
                        std::optional<int64_t> bytes = std::nullopt, std::optional<std::string> title = std::nullopt) {
  return {std::move(name), std::move(title), "https://addon.invalid/x", std::move(filename),
          bytes,           std::nullopt,     std::move(provider)};
}
template <class T>
inline std::string why(const Result<T, ResolveError>& r) {
  return r ? std::string("ok") : message(r.error());
}

}  // namespace vt::test::resolver
