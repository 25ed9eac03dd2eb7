#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <QUrl>
#include <qcoro/qcorotask.h>

#include "core/LibraryTitle.h"
#include "platform/Cancellation.h"
#include "platform/Json.h"
#include "platform/Result.h"
#include "sources/StreamCandidate.h"
#include "sources/providers/StreamProvider.h"
#include "sources/release/ReleaseParser.h"
#include "sources/resolve/ResolveCache.h"
#include "sources/resolve/SeriesSkeleton.h"

namespace vt {

class HttpClient;
struct HttpResponse;
class ProviderHealth;
class SeriesSkeletonCache;
class StreamProviderRegistry;
class UnrecognizedReleaseWords;

// Why a title could not be resolved. The causes are told apart because the
// callers' retry decisions rest on them: a verdict (badLink, noMeta, ...), a
// bad candidate (noPlayableStream: the next may be good), or a passing
// trouble (metaNetworkError, catalogUnavailable, cdnUnavailable,
// stillDownloading, cancelled).
struct ResolveError {
  enum class Kind {
    notReleasedYet,
    badLink,
    episodeRequired,
    noMeta,
    noPlayableStream,
    metaNetworkError,
    catalogUnavailable,
    cdnUnavailable,
    stillDownloading,
    onlyRecordings,
    cancelled,  // the job's token stopped the resolve; callers treat it as passing
  };
  Kind kind = Kind::noPlayableStream;
  std::optional<std::string> released;  // notReleasedYet
  std::string year;                     // notReleasedYet

  static ResolveError of(Kind kind) { return {kind, std::nullopt, {}}; }
  bool operator==(const ResolveError&) const = default;
};

std::string message(const ResolveError& error);

// What the resolver needs from the application: the clients, the shared
// stores, and the service addresses (from the endpoint table in the app,
// local servers in tests).
struct ResolverServices {
  HttpClient& http;
  ResolveCache& cache;
  ProviderHealth& health;
  StreamProviderRegistry& registry;
  UnrecognizedReleaseWords* releaseWords = nullptr;  // the census; none: not counted
  QUrl cinemeta;                                     // the Cinemeta add-on base, ending in "/"
  QUrl rdBase;                                       // the Real-Debrid REST base
  std::string cometHost;                             // where the last-resort Comet is asked
  std::string cometPlaceholderHost;                  // rows linking here are not playable
  std::string slateHost;                             // a probe landing here found no film
  SeriesSkeletonCache* skeletons = nullptr;          // none: the application's shared cache

  SeriesSkeletonCache& skeletonCache() const;

  // The addresses from the endpoint table.
  static ResolverServices standard(HttpClient& http, ResolveCache& cache, ProviderHealth& health,
                                   StreamProviderRegistry& registry, UnrecognizedReleaseWords* releaseWords);
};

// Turns a Stremio link or IMDb id into candidate rows (from Cinemeta and the
// stream add-ons), and one candidate into a playable title (through
// Real-Debrid and a probe of the link). A value: cheap to build per resolve.
class StremioResolver {
 public:
  static constexpr double kMetaTimeout = 15;
  static constexpr double kMetaRetryPause = 1.5;
  static constexpr double kProbeTimeout = 25;
  static constexpr double kRangedProbeTimeout = 45;
  static constexpr int64_t kMinFilmBytes = 100'000'000;
  static constexpr double kCachedDebridBudget = 2;
  static constexpr double kUncachedDebridBudget = 45;
  static constexpr size_t kMaxTextBytes = 64 * 1024;  // add-on text fields are cut here when read
  static constexpr size_t kMaxMirrors = 5;

  struct MetaInfo {
    std::string title;
    std::string year;
    std::optional<std::string> released;
    std::optional<int> runtimeMinutes;
    std::optional<std::string> country;
  };

  struct Candidates {
    std::vector<StreamCandidate> streams;
    int recordings = 0;
    bool earlyRelease = false;
    std::set<std::string> recordingGroups;
    std::vector<ReleaseInfo> droppedRecordings;
    int fakes = 0;
  };

  struct Resolution {
    std::string title, year, id;
    std::string showTitle;  // an episode's series title, as its file name needs it; films: empty
    std::vector<StreamCandidate> streams;
    int rawStreamCount = 0;
    std::optional<int> runtimeMinutes;
    int recordings = 0;
    bool earlyRelease = false;
    std::set<std::string> recordingGroups;
    std::vector<ReleaseInfo> droppedRecordings;
    int fakes = 0;
    std::optional<std::string> originalLanguage;

    // What a ranker is given: without the recording groups of an early
    // release, and only the dominant language when there is one.
    std::vector<StreamCandidate> pickable() const;
  };

  struct Probe {
    QUrl finalURL;
    std::optional<int64_t> bytes;  // none: the host wouldn't say
  };

  StremioResolver(const ResolverServices& services, QUrl addonURL, bool allowTS);

  const QUrl& addonURL() const { return addonURL_; }
  bool allowTS() const { return allowTS_; }
  // Rows only from add-ons that answer now, never from the resolve cache:
  // for checks of whether the path itself is alive.
  void setLiveOnly(bool liveOnly) { liveOnly_ = liveOnly; }

  // ("movie" or "series", id) from a Stremio link, a "tt…:season:episode"
  // or an IMDb id; percent-encoding is removed first.
  static std::optional<std::pair<std::string, std::string>> parseLink(std::string_view text);

  // A film, or an episode by its link (the episode's date then comes from
  // the show's skeleton).
  QCoro::Task<Result<Resolution, ResolveError>> resolve(std::string link, CancelToken token = CancelToken::none());
  QCoro::Task<Result<Resolution, ResolveError>> resolveEpisode(std::string seriesId, int season, int episode,
                                                               SeriesSkeleton skeleton,
                                                               CancelToken token = CancelToken::none());
  QCoro::Task<Result<MetaInfo, ResolveError>> metaInfo(std::string type, std::string id,
                                                       CancelToken token = CancelToken::none());
  // Whether the season has any playable row, asked of one episode of it.
  // Fails as streamPool fails.
  QCoro::Task<Result<bool, ResolveError>> seasonHasSource(std::string seriesId, int season, int episode,
                                                          CancelToken token = CancelToken::none());
  // The playable rows of a title, through the resolve cache: the first
  // provider that answers with playable rows ends the search.
  QCoro::Task<Result<std::vector<CachedStream>, ResolveError>> streamPool(std::string type, std::string id,
                                                                          CancelToken token = CancelToken::none());
  // Rows to candidates: junk file types, recordings and the year filter.
  // No year: the filter is off.
  Candidates candidates(const std::vector<CachedStream>& rows, const std::optional<std::string>& year,
                        const std::optional<std::string>& title) const;

  // The playable link of a candidate, tested, as a new library title.
  QCoro::Task<Result<LibraryTitle, ResolveError>> materialise(StreamCandidate candidate, Resolution resolution,
                                                              CancelToken token = CancelToken::none());
  // The same for an existing title, whose identity (name, series, season,
  // episode) is kept.
  QCoro::Task<Result<LibraryTitle, ResolveError>> refresh(StreamCandidate candidate, LibraryTitle title,
                                                          Resolution resolution,
                                                          CancelToken token = CancelToken::none());
  // Whether a link leads to a film: its final address and length.
  QCoro::Task<Result<Probe, ResolveError>> probe(std::string url, CancelToken token = CancelToken::none());

  // Mirror links for the winner: other cached, non-Comet rows of the same
  // file. None when there is no other.
  static std::optional<std::vector<std::string>> alternates(const StreamCandidate& winner,
                                                            const std::vector<StreamCandidate>& pool);

  // One add-on answer body as rows; none when it does not decode.
  static std::optional<std::vector<CachedStream>> decodeStreams(std::string_view body, std::string_view provider);
  // Whether a row can be served through Real-Debrid.
  bool isPlayable(const CachedStream& row) const;
  // The original language of a Cinemeta country text.
  static std::optional<std::string> originalLanguage(const std::optional<std::string>& country);
  // Cinemeta's "meta" object of a title at `cinemeta`, with a "name":
  // 15 seconds, one retry after 1.5 s; 404 or an unreadable record is noMeta,
  // a second failure of the service metaNetworkError.
  static QCoro::Task<Result<Json, ResolveError>> fetchMeta(HttpClient& http, QUrl cinemeta, std::string type,
                                                           std::string id, CancelToken token);
  // "1h 30min" → 90, "142 min" → 142.
  static std::optional<int> runtimeMinutes(std::string_view text);

 private:
  struct Asked {
    bool answered = false;
    std::vector<CachedStream> rows;
  };
  enum class DebridTry { cached, uncached, fallback };
  QCoro::Task<Asked> ask(StreamProvider provider, std::string type, std::string id, CancelToken token);
  QCoro::Task<Result<LibraryTitle, ResolveError>> fromDebrid(StreamCandidate candidate, std::string hash, double budget,
                                                             DebridTry kind, CancelToken token);
  QCoro::Task<HttpResponse> rangedProbe(QUrl url, double timeout, CancelToken token);
  QCoro::Task<std::optional<std::string>> stableLink(QUrl finalURL, std::string filename, CancelToken token);
  std::optional<std::string> addonKey() const;

  const ResolverServices& services_;
  QUrl addonURL_;
  bool allowTS_;
  bool liveOnly_ = false;
};

}  // namespace vt
