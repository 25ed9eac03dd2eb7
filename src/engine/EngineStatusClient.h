#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <QUrl>
#include <qcoro/qcorotask.h>

#include "engine/contract/EngineContract.h"
#include "platform/Cancellation.h"

namespace vt {

class HttpClient;

// The client of an engine's control port. No state; every call with no
// control URL returns at once. Lists of names are sent sorted. Hints drop
// their replies and errors: the next tick sends them again if they still
// matter.
class EngineStatusClient {
 public:
  static constexpr double kHealthTimeout = 1;
  static constexpr double kStatusTimeout = 10;
  static constexpr double kAdoptTimeout = 5;
  static constexpr double kReloadTimeout = 40;
  static constexpr double kHintTimeout = 10;

  explicit EngineStatusClient(HttpClient& http);

  QCoro::Task<bool> healthz(std::optional<QUrl> controlURL, CancelToken token = CancelToken::none()) const;
  QCoro::Task<std::optional<EngineAdoption>> adopt(std::optional<QUrl> controlURL, int32_t pid,
                                                   CancelToken token = CancelToken::none()) const;
  QCoro::Task<std::optional<EngineStatusPayload>> status(std::optional<QUrl> controlURL,
                                                         CancelToken token = CancelToken::none()) const;
  // The reload's reply: none when the request failed; otherwise the number of
  // deferred entries when the reply says so.
  struct ReloadReply {
    bool answered = false;
    std::optional<int64_t> deferred;
  };
  QCoro::Task<ReloadReply> reload(std::optional<QUrl> controlURL, CancelToken token = CancelToken::none()) const;

  QCoro::Task<> warmPending(std::optional<QUrl> controlURL, std::vector<std::string> names,
                            CancelToken token = CancelToken::none()) const;
  QCoro::Task<> prewarm(std::optional<QUrl> controlURL, std::vector<std::string> names,
                        std::map<std::string, double> resume, CancelToken token = CancelToken::none()) const;
  QCoro::Task<> boost(std::optional<QUrl> controlURL, std::vector<std::string> names,
                      CancelToken token = CancelToken::none()) const;
  QCoro::Task<> touch(std::optional<QUrl> controlURL, std::vector<std::string> names,
                      CancelToken token = CancelToken::none()) const;
  QCoro::Task<> expect(std::optional<QUrl> controlURL, std::vector<std::string> names, int ttl,
                       CancelToken token = CancelToken::none()) const;
  QCoro::Task<> setBudget(std::optional<QUrl> controlURL, double gigabytes,
                          CancelToken token = CancelToken::none()) const;
  QCoro::Task<> setPlayback(std::optional<QUrl> controlURL, bool active, CancelToken token = CancelToken::none()) const;

  static std::string keyHash(std::string_view rdKey) { return engineKeyHash(rdKey); }

 private:
  QCoro::Task<> postNames(std::optional<QUrl> controlURL, const char* path, std::vector<std::string> names,
                          CancelToken token) const;
  HttpClient& http_;
};

}  // namespace vt
