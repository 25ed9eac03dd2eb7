#include "engine/contract/EngineContract.h"

#include "platform/Crypto.h"
#include "platform/Json.h"
#include "platform/JsonWriter.h"

namespace vt {

std::string encodeEngineConfig(const std::vector<EngineEntry>& entries) {
  std::string out;
  encodeEngineConfig(entries, out);
  return out;
}

void encodeEngineConfig(const std::vector<EngineEntry>& entries, std::string& out) {
  if (out.capacity() < entries.size() * 384) out.reserve(entries.size() * 384 + 16);
  JsonWriter w(std::move(out));
  w.beginObject();
  w.key("entries");
  w.beginArray();
  for (const auto& e : entries) {
    w.beginObject();
    w.field("name", e.name);
    w.field("url", e.url);
    w.field("size", e.size);
    w.field("mtime", e.mtime);
    w.field("rd_link", e.rd_link);
    w.field("resolve_url", e.resolve_url);
    w.field("local", e.local);
    w.field("hidden", e.hidden);
    w.field("size_verified", e.size_verified);
    w.field("lazy", e.lazy);
    if (e.alt_sources) {
      w.key("alt_sources");
      w.beginArray();
      for (const auto& a : *e.alt_sources) {
        w.beginObject();
        w.field("resolve_url", a.resolve_url);
        w.endObject();
      }
      w.endArray();
    }
    w.endObject();
  }
  w.endArray();
  w.endObject();
  out = w.take();
}

std::optional<std::vector<EngineEntry>> decodeEngineConfig(std::string_view text) {
  auto doc = json::parse(text);
  if (!doc || !doc->is_object()) return std::nullopt;
  try {
    const auto it = doc->find("entries");
    if (it == doc->end() || !it->is_array()) return std::nullopt;
    std::vector<EngineEntry> out;
    for (const auto& j : *it) {
      EngineEntry e;
      e.name = json::required<std::string>(j, "name");
      e.url = json::required<std::string>(j, "url");
      e.size = json::required<int64_t>(j, "size");
      e.mtime = json::required<int64_t>(j, "mtime");
      e.rd_link = json::required<std::string>(j, "rd_link");
      e.resolve_url = json::required<std::string>(j, "resolve_url");
      e.local = json::required<std::string>(j, "local");
      e.hidden = json::required<bool>(j, "hidden");
      e.size_verified = json::required<bool>(j, "size_verified");
      e.lazy = json::required<bool>(j, "lazy");
      if (auto a = j.find("alt_sources"); a != j.end() && a->is_array()) {
        std::vector<EngineAltSource> alts;
        for (const auto& s : *a) alts.push_back({json::required<std::string>(s, "resolve_url")});
        e.alt_sources = std::move(alts);
      }
      out.push_back(std::move(e));
    }
    return out;
  } catch (const DecodeError&) {
    return std::nullopt;
  }
}

std::optional<EngineStatusPayload> decodeEngineStatus(std::string_view text) {
  auto doc = json::parse(text);
  if (!doc || !doc->is_object()) return std::nullopt;
  try {
    const auto it = doc->find("entries");
    if (it == doc->end() || !it->is_array()) return std::nullopt;
    EngineStatusPayload p;
    for (const auto& j : *it) {
      EngineStatusEntry e;
      e.name = json::required<std::string>(j, "name");
      e.size = json::optional<int64_t>(j, "size");
      e.size_verified = json::optional<bool>(j, "size_verified");
      e.warmed = json::optional<bool>(j, "warmed");
      e.probe_ready = json::optional<bool>(j, "probe_ready");
      e.bytes_served = json::optional<int64_t>(j, "bytes_served");
      p.entries.push_back(std::move(e));
    }
    return p;
  } catch (const DecodeError&) {
    return std::nullopt;
  }
}

std::string encodeEngineStatus(const EngineStatusPayload& payload) {
  JsonWriter w;
  w.beginObject();
  w.key("entries");
  w.beginArray();
  for (const auto& e : payload.entries) {
    w.beginObject();
    w.field("name", e.name);
    w.field("size", e.size);
    w.field("size_verified", e.size_verified);
    w.field("warmed", e.warmed);
    w.field("probe_ready", e.probe_ready);
    w.field("bytes_served", e.bytes_served);
    w.endObject();
  }
  w.endArray();
  w.endObject();
  return w.take();
}

std::optional<EngineAdoption> decodeEngineAdoption(std::string_view text) {
  auto doc = json::parse(text);
  if (!doc || !doc->is_object()) return std::nullopt;
  try {
    EngineAdoption a;
    a.pid = json::optional<int>(*doc, "pid");
    a.version = json::required<std::string>(*doc, "version");
    a.rd_key_sha256 = json::required<std::string>(*doc, "rd_key_sha256");
    return a;
  } catch (const DecodeError&) {
    return std::nullopt;
  }
}

std::string engineKeyHash(std::string_view rdKey) { return sha256Hex(rdKey); }

}  // namespace vt
