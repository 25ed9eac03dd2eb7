#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <QUrl>
#include <QUrlQuery>
#include <qcoro/qcorotask.h>

namespace vt {

class AppConfig;
class HttpClient;

// The two engine instances: films and episodes.
enum class EngineKind { movie, tv };

// Everything fixed per instance: where it listens, its files, its log label.
struct EngineInstancePaths {
  EngineKind kind;
  std::string label;       // "[supervisor]" or "[tv-supervisor]"
  std::string nfsAddress;  // "127.0.0.1:12049" / "127.0.0.1:12051"
  std::optional<QUrl> controlURL;
  std::string controlAddress;  // host:port the engine listens on
  std::string mountPoint;
  std::string configURL;  // the manifest
  std::string pidFile;
  std::string logFile;
  std::string probeCache;

  static EngineInstancePaths forKind(EngineKind kind, const std::string& dataDirectory, const AppConfig& config);
};

struct EngineAltSource {
  std::string resolve_url;
  bool operator==(const EngineAltSource&) const = default;
};

// One file of the engine's folder.
struct EngineEntry {
  std::string name;
  std::string url;
  int64_t size = 0;
  int64_t mtime = 1;
  std::string rd_link;
  std::string resolve_url;
  std::string local;
  bool hidden = false;
  bool size_verified = false;
  bool lazy = false;
  std::optional<std::vector<EngineAltSource>> alt_sources;

  bool operator==(const EngineEntry&) const = default;
};

// The manifest: {"entries":[...]}, compact, keys in declared order,
// alt_sources left out when absent.
std::string encodeEngineConfig(const std::vector<EngineEntry>& entries);
// Reads a manifest; none when it does not decode.
std::optional<std::vector<EngineEntry>> decodeEngineConfig(std::string_view text);

struct EngineStatusEntry {
  std::string name;
  std::optional<int64_t> size;
  std::optional<bool> size_verified;
  std::optional<bool> warmed;
  std::optional<bool> probe_ready;
  std::optional<int64_t> bytes_served;
  bool operator==(const EngineStatusEntry&) const = default;
};
struct EngineStatusPayload {
  std::vector<EngineStatusEntry> entries;
};
// None when the reply does not decode; one malformed entry spoils it whole.
std::optional<EngineStatusPayload> decodeEngineStatus(std::string_view text);
std::string encodeEngineStatus(const EngineStatusPayload& payload);

struct EngineAdoption {
  std::optional<int32_t> pid;
  std::string version;
  std::string rd_key_sha256;
};
// Requires version and rd_key_sha256; pid may be missing.
std::optional<EngineAdoption> decodeEngineAdoption(std::string_view text);

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

  QCoro::Task<bool> healthz(std::optional<QUrl> controlURL) const;
  QCoro::Task<std::optional<EngineAdoption>> adopt(std::optional<QUrl> controlURL, int32_t pid) const;
  QCoro::Task<std::optional<EngineStatusPayload>> status(std::optional<QUrl> controlURL) const;
  // The reload's reply: none when the request failed; otherwise the number of
  // deferred entries when the reply says so.
  struct ReloadReply {
    bool answered = false;
    std::optional<int64_t> deferred;
  };
  QCoro::Task<ReloadReply> reload(std::optional<QUrl> controlURL) const;

  QCoro::Task<> warmPending(std::optional<QUrl> controlURL, std::vector<std::string> names) const;
  QCoro::Task<> prewarm(std::optional<QUrl> controlURL, std::vector<std::string> names,
                        std::map<std::string, double> resume) const;
  QCoro::Task<> boost(std::optional<QUrl> controlURL, std::vector<std::string> names) const;
  QCoro::Task<> touch(std::optional<QUrl> controlURL, std::vector<std::string> names) const;
  QCoro::Task<> expect(std::optional<QUrl> controlURL, std::vector<std::string> names, int ttl) const;
  QCoro::Task<> setBudget(std::optional<QUrl> controlURL, double gigabytes) const;
  QCoro::Task<> setPlayback(std::optional<QUrl> controlURL, bool active) const;

  // Lowercase hex SHA-256 of the key, as the engine reports it.
  static std::string keyHash(std::string_view rdKey);

 private:
  QCoro::Task<> postNames(std::optional<QUrl> controlURL, const char* path, std::vector<std::string> names) const;
  HttpClient& http_;
};

}  // namespace vt
