#pragma once

// What crosses between the application and the engine: the manifest, the
// status and adoption replies, and the key hash the engine reports. Plain
// records and their codecs; the engine links this and platform alone.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// The two engine instances: films and episodes.
enum class EngineKind { movie, tv };

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
// The same into `out`, replacing what it holds but keeping its capacity, for
// a caller that writes manifests again and again.
void encodeEngineConfig(const std::vector<EngineEntry>& entries, std::string& out);
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

// Lowercase hex SHA-256 of the key, as the engine reports it.
std::string engineKeyHash(std::string_view rdKey);

}  // namespace vt
