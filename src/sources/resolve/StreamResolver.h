#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <QUrl>
#include <qcoro/qcorotask.h>

#include "core/LibraryTitle.h"
#include "platform/Cancellation.h"
#include "platform/Date.h"
#include "sources/ranking/StreamRanker.h"
#include "sources/resolve/StremioResolver.h"

namespace vt {

// What resolving a title came to. The four kinds are the whole contract
// towards callers: each remembers them its own way (cooling for noStream,
// the release gate for unreleased, attempt counts for transient).
struct ResolveOutcome {
  enum class Kind { resolved, noStream, unreleased, transient };
  Kind kind = Kind::transient;
  std::optional<LibraryTitle> title;    // resolved
  int streamsSeen = 0;                  // noStream: raw rows, 0 for none, -1 when every pick failed
  std::optional<std::string> released;  // unreleased
  std::string year;                     // unreleased
  std::optional<ResolveError> cause;    // what ended the search, when an error did (for messages)

  static ResolveOutcome resolved(LibraryTitle title);
  static ResolveOutcome noStream(int streamsSeen, std::optional<ResolveError> cause = std::nullopt);
  static ResolveOutcome unreleased(std::optional<std::string> released, std::string year);
  static ResolveOutcome transient(std::optional<ResolveError> cause = std::nullopt);
  // The outcome a resolver error stands for.
  static ResolveOutcome of(const ResolveError& error);
};

const char* name(ResolveOutcome::Kind kind);

// The pause between the items of one batch: it doubles after a passing
// failure (up to 8 s) and eases by 8 % after a verdict (down to 0.45 s), so
// a long batch slows down while hosts struggle. Shared by films and shows.
class ResolvePace {
 public:
  static constexpr double kMin = 0.45;
  static constexpr double kMax = 8.0;
  static constexpr double kEase = 0.92;

  explicit ResolvePace(double delay = 0.7) : delay(delay) {}
  void note(ResolveOutcome::Kind outcome);
  // The pause to take now; a negative delay is none.
  double pause() const { return delay > 0 ? delay : 0; }

  double delay;
};

// The four lists of a batch, each in the order the ids were given.
struct ResolveBatch {
  struct NoStream {
    std::string id;
    int streamsSeen = 0;
    bool operator==(const NoStream&) const = default;
  };
  struct Unreleased {
    std::string id;
    std::optional<std::string> released;
    std::string year;
    bool operator==(const Unreleased&) const = default;
  };
  std::vector<LibraryTitle> resolved;
  std::vector<NoStream> noStream;
  std::vector<std::string> transient;
  std::vector<Unreleased> unreleased;
};

// A title id in, one of four outcomes out: ranks what the add-ons offer,
// tries the best picks one after the other and turns the resolver's many
// failures into the four words of ResolveOutcome. One per application: it
// keeps the memo of `readiness`.
class StreamResolver {
 public:
  static constexpr size_t kCachedPicks = 4;
  static constexpr size_t kUncachedPicks = 1;
  static constexpr double kReadinessMemoSeconds = 180;
  static constexpr int64_t kCompanionFallbackBytes = 1'610'612'736;
  // Films that every working add-on has streams for.
  static const std::vector<std::string>& wellKnownFilms();

  explicit StreamResolver(const ResolverServices& services) : services_(services) {}

  const ResolverServices& services() const { return services_; }

  // Seen by the resolve verb: what the add-ons offered, before any pick.
  std::function<void(const StremioResolver::Resolution&)> onResolution;

  QCoro::Task<ResolveOutcome> resolveMovie(std::string id, QUrl addon, StreamRanker ranker, bool allowTS,
                                           bool allowUncachedFallback, CancelToken token = CancelToken::none());
  // One episode of `series`: its skeleton gives the release gate and the
  // file name. An `existing` title keeps its name (the file Plex knows).
  QCoro::Task<ResolveOutcome> resolveEpisode(SeriesSkeleton series, int season, int episode, QUrl addon,
                                             StreamRanker ranker, bool allowTS,
                                             std::optional<LibraryTitle> existing = std::nullopt,
                                             CancelToken token = CancelToken::none());
  // The same with the show's skeleton from the skeleton cache.
  QCoro::Task<ResolveOutcome> resolveEpisode(std::string seriesId, int season, int episode, QUrl addon,
                                             StreamRanker ranker, bool allowTS,
                                             CancelToken token = CancelToken::none());
  // A 1080p companion for a 4K title: the first 1080p row of the ranked pool.
  QCoro::Task<std::optional<AltStreamVersion>> companion(std::string id, QUrl addon, StreamRanker ranker,
                                                         CancelToken token = CancelToken::none());
  // Whether the whole path (the account, the add-ons) is alive, so that a
  // title without streams can be told from a dead path. Asks the add-ons
  // live, never the resolve cache. The answer, false too, is remembered 180 s.
  QCoro::Task<bool> readiness(QUrl addon, CancelToken token = CancelToken::none());

  // Films one at a time, in order: the stop check before each item, the
  // pace's pause before every item from the second on, `onResolved` as each
  // title comes in. The library is not touched: the caller adds the titles,
  // and the library's upsert keeps the name a published title already has.
  QCoro::Task<ResolveBatch> resolveBatch(std::vector<std::string> ids, QUrl addon, StreamRanker ranker, bool allowTS,
                                         ResolvePace* pace, std::function<bool()> shouldStop,
                                         std::function<void(const LibraryTitle&)> onResolved,
                                         CancelToken token = CancelToken::none());

 private:
  QCoro::Task<ResolveOutcome> pickAndMaterialise(StremioResolver resolver, StremioResolver::Resolution resolution,
                                                 StreamRanker ranker, bool allowUncachedFallback, bool episode,
                                                 CancelToken token);
  std::optional<AltStreamVersion> companionFrom(const std::vector<StreamCandidate>& ranked,
                                                const StremioResolver::Resolution& resolution) const;

  const ResolverServices& services_;
  std::optional<std::pair<Date, bool>> readiness_;  // when, and what
};

}  // namespace vt
