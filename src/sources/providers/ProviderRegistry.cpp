#include "sources/providers/ProviderRegistry.h"

#include "platform/Clock.h"

namespace vt {

StreamProviderRegistry& StreamProviderRegistry::shared() {
  static StreamProviderRegistry registry;
  return registry;
}

void StreamProviderRegistry::update(std::vector<StreamProvider> stored, std::string key) {
  std::lock_guard guard(lock_);
  stored_ = std::move(stored);
  key_ = std::move(key);
}

std::vector<StreamProvider> StreamProviderRegistry::stored() const {
  std::lock_guard guard(lock_);
  return stored_;
}

std::string StreamProviderRegistry::key() const {
  std::lock_guard guard(lock_);
  return key_;
}

ProviderHealth::ProviderHealth(const Clock& clock) : clock_(clock) {}

ProviderHealth& ProviderHealth::shared() {
  static ProviderHealth health(systemClock());
  return health;
}

void ProviderHealth::record(StreamProviderKind kind, bool success) {
  const Date now = clock_.now();
  std::lock_guard guard(lock_);
  if (success) {
    failures_[kind] = 0;
    trippedUntil_.erase(kind);
    return;
  }
  const int count = ++failures_[kind];
  if (count >= kTripAfterFailures) trippedUntil_[kind] = now + kTripSeconds;
}

bool ProviderHealth::checkTripped(StreamProviderKind kind) {
  const Date now = clock_.now();
  std::lock_guard guard(lock_);
  const auto it = trippedUntil_.find(kind);
  if (it == trippedUntil_.end()) return false;
  if (it->second > now) return true;
  trippedUntil_.erase(it);
  failures_[kind] = 0;
  return false;
}

int ProviderHealth::failures(StreamProviderKind kind) const {
  std::lock_guard guard(lock_);
  const auto it = failures_.find(kind);
  return it == failures_.end() ? 0 : it->second;
}

std::optional<Date> ProviderHealth::trippedUntil(StreamProviderKind kind) const {
  std::lock_guard guard(lock_);
  const auto it = trippedUntil_.find(kind);
  if (it == trippedUntil_.end()) return std::nullopt;
  return it->second;
}

std::vector<StreamProvider> providersInOrder(const QUrl& addon, const StreamProviderRegistry& registry,
                                             ProviderHealth& health) {
  const auto primary = StreamProvider::classify(addon);
  std::vector<StreamProvider> candidates{primary};
  for (auto& extra : registry.stored())
    if (extra.kind != primary.kind) candidates.push_back(std::move(extra));

  std::vector<StreamProvider> out;
  out.reserve(candidates.size());
  for (auto& provider : candidates)
    if (!health.checkTripped(provider.kind)) out.push_back(std::move(provider));
  if (out.empty()) out.push_back(primary);
  return out;
}

std::vector<StreamProvider> providersInOrder(const QUrl& addon) {
  return providersInOrder(addon, StreamProviderRegistry::shared(), ProviderHealth::shared());
}

}  // namespace vt
