#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <QUrl>

#include "platform/Date.h"
#include "sources/providers/StreamProvider.h"

namespace vt {

class Clock;

// The extra providers and the Real-Debrid key in force, as the settings last
// gave them. Read from resolve tasks and written from the main thread; every
// access takes the lock and hands out copies.
class StreamProviderRegistry {
 public:
  static StreamProviderRegistry& shared();

  void update(std::vector<StreamProvider> stored, std::string key);
  std::vector<StreamProvider> stored() const;
  // Empty when there is none.
  std::string key() const;

 private:
  mutable std::mutex lock_;
  std::vector<StreamProvider> stored_;
  std::string key_;
};

// Takes an add-on family out of rotation for a while after it keeps failing:
// three failures without a success in between trip it for 300 seconds.
class ProviderHealth {
 public:
  static constexpr int kTripAfterFailures = 3;
  static constexpr double kTripSeconds = 300;

  explicit ProviderHealth(const Clock& clock);
  // Runs on the system clock.
  static ProviderHealth& shared();

  // A success clears the count and any trip. A failure counts; from the third
  // on the kind is tripped until now plus 300 seconds.
  void record(StreamProviderKind kind, bool success);
  // Whether the kind is tripped now. A trip whose time has passed is removed
  // here, with its failure count.
  bool checkTripped(StreamProviderKind kind);

  int failures(StreamProviderKind kind) const;
  std::optional<Date> trippedUntil(StreamProviderKind kind) const;

 private:
  const Clock& clock_;
  mutable std::mutex lock_;
  std::map<StreamProviderKind, int> failures_;
  std::map<StreamProviderKind, Date> trippedUntil_;
};

// The providers to ask for one resolve: the primary add-on first, then the
// stored extras of other kinds in stored order, without tripped kinds. When
// everything is tripped the primary is still tried.
std::vector<StreamProvider> providersInOrder(const QUrl& addon, const StreamProviderRegistry& registry,
                                             ProviderHealth& health);
std::vector<StreamProvider> providersInOrder(const QUrl& addon);

}  // namespace vt
