#include "sources/resolve/SeriesSkeletonCache.h"

#include "platform/Http.h"

namespace vt {

SeriesSkeletonCache& SeriesSkeletonCache::shared() {
  static SeriesSkeletonCache cache;
  return cache;
}

std::optional<SeriesSkeleton> SeriesSkeletonCache::cached(const std::string& seriesId) const {
  const auto it = entries_.find(seriesId);
  if (it == entries_.end()) return std::nullopt;
  return it->second;
}

QCoro::Task<SeriesSkeletonCache::Loaded> SeriesSkeletonCache::skeleton(std::string seriesId, QUrl cinemetaBase,
                                                                       HttpClient& http, CancelToken token) {
  if (const auto it = entries_.find(seriesId); it != entries_.end()) {
    SeriesSkeleton copy = it->second;
    co_return copy;
  }
  std::shared_ptr<Load> slot;
  if (const auto it = inFlight_.find(seriesId); it != inFlight_.end()) {
    slot = it->second;
  } else {
    // The load is a job of the cache, not of this caller: a caller that
    // gives up leaves it running for the others.
    slot = std::make_shared<Load>();
    inFlight_[seriesId] = slot;
    HttpClient* client = &http;
    jobs_.start([this, slot, seriesId, cinemetaBase, client](CancelToken jobToken) {
      return load(this, slot, seriesId, cinemetaBase, client, jobToken);
    });
  }
  const bool finished = co_await slot->done.wait(token);
  if (!finished || !slot->result) co_return Failure{ResolveError::of(ResolveError::Kind::cancelled)};
  Loaded copy = *slot->result;
  co_return copy;
}

QCoro::Task<> SeriesSkeletonCache::load(SeriesSkeletonCache* cache, std::shared_ptr<Load> slot, std::string seriesId,
                                        QUrl cinemetaBase, HttpClient* http, CancelToken token) {
  auto meta = co_await StremioResolver::fetchMeta(*http, cinemetaBase, "series", seriesId, token);
  Loaded result = meta ? Loaded(SeriesSkeleton::decode(seriesId, *meta)) : Loaded(Failure{meta.error()});
  // A cancelled job belongs to a cache that is going: it is not touched.
  if (!token.isCancelled()) {
    if (result) cache->entries_[seriesId] = *result;
    if (const auto it = cache->inFlight_.find(seriesId); it != cache->inFlight_.end() && it->second == slot)
      cache->inFlight_.erase(it);
  }
  slot->result = std::move(result);
  slot->done.fire();
}

}  // namespace vt
