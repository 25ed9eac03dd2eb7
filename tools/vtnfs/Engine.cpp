#include "Engine.h"

#include <unistd.h>

#include <QFile>
#include <QHostAddress>
#include <QUrlQuery>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string_view>

#include "platform/Log.h"
#include "platform/Redaction.h"
#include "platform/Clock.h"
#include "platform/Json.h"
#include "platform/SerialFileWriter.h"

#ifndef VT_VERSION
#define VT_VERSION "0.0.0"
#endif

namespace vtnfs {

namespace {

// Whether two entries read the same bytes from the same place.
bool sameSource(const vt::EngineEntry& a, const vt::EngineEntry& b) {
  return a.url == b.url && a.local == b.local && a.resolve_url == b.resolve_url;
}

constexpr int64_t kProbeBytes = 1 << 20;  // the first and the last MiB

bool splitAddress(const std::string& text, std::string& host, quint16& port) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);  // [::1]
  bool ok = false;
  const int p = QString::fromStdString(text.substr(colon + 1)).toInt(&ok);
  if (!ok || p <= 0 || p > 65535) return false;
  port = static_cast<quint16>(p);
  return true;
}

ControlReply jsonReply(const vt::Json& j, int status = 200) { return ControlReply::json(j, status); }

// Limits of the control port's hints.
constexpr double kDefaultExpectSeconds = 120;
constexpr double kMaxExpectSeconds = 86400;
constexpr double kMaxCacheGigabytes = 1e6;
constexpr char kNamesExpected[] = "expected {\"names\": [<text>...]}";

// A body that doesn't read or has the wrong types is answered 400 with the
// reason; the application ignores hint replies, but a person with curl sees it.
ControlReply badRequest(const std::string& reason) { return jsonReply(vt::Json{{"error", reason}}, 400); }

std::string_view bodyText(const ControlRequest& req) {
  return std::string_view(req.body.constData(), static_cast<size_t>(req.body.size()));
}

std::optional<vt::Json> bodyObject(const ControlRequest& req) {
  auto body = vt::json::parse(bodyText(req));
  if (!body || !body->is_object()) return std::nullopt;
  return body;
}

// The "names" list of a hint; none when the body isn't {"names": [text...]}.
std::optional<std::vector<std::string>> namesOf(const ControlRequest& req) {
  const auto body = bodyObject(req);
  if (!body) return std::nullopt;
  const auto it = body->find("names");
  if (it == body->end() || !it->is_array()) return std::nullopt;
  std::vector<std::string> names;
  for (const auto& n : *it) {
    if (!n.is_string()) return std::nullopt;
    names.push_back(n.get<std::string>());
  }
  return names;
}

// Control characters as escapes: "\n", "\r", "\t", "\xHH", and the C1
// characters (U+0080 to U+009F, NEL among them) as "\uHHHH".
std::string escapeControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  char hex[8];
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else if (c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
               static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
      std::snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned char>(text[++i]));
      out += hex;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

}  // namespace

std::string message(const ManifestError& error) {
  switch (error.kind) {
    case ManifestError::Kind::unreadable:
      return "manifest " + error.path + " could not be read";
    case ManifestError::Kind::invalid:
      return "manifest " + error.path + " is not a valid manifest";
  }
  return "manifest " + error.path + " was not taken";
}

std::optional<Options> parseArguments(const std::vector<std::string>& args, std::string& error) {
  Options o;
  std::map<std::string, std::string> values;
  for (size_t i = 0; i < args.size(); ++i) {
    const auto& a = args[i];
    if (a == "-config" || a == "-nfs" || a == "-control" || a == "-mount" || a == "-log") {
      if (i + 1 >= args.size()) {
        error = "missing value after " + a;
        return std::nullopt;
      }
      values[a] = args[++i];
    } else {
      error = "unknown argument " + a;
      return std::nullopt;
    }
  }
  for (const char* required : {"-config", "-nfs", "-control", "-mount", "-log"}) {
    if (!values.count(required)) {
      error = std::string("missing ") + required;
      return std::nullopt;
    }
  }
  o.config = values["-config"];
  o.mount = values["-mount"];
  o.log = values["-log"];
  if (!splitAddress(values["-nfs"], o.nfsHost, o.nfsPort)) {
    error = "bad -nfs address " + values["-nfs"];
    return std::nullopt;
  }
  if (!splitAddress(values["-control"], o.controlHost, o.controlPort)) {
    error = "bad -control address " + values["-control"];
    return std::nullopt;
  }
  for (auto* host : {&o.nfsHost, &o.controlHost})
    if (*host == "localhost") *host = "127.0.0.1";
  return o;
}

namespace {

// The probe cache lies beside the manifest.
std::string probeCacheFor(const std::string& manifest) {
  const auto slash = manifest.rfind('/');
  return (slash == std::string::npos ? std::string(".") : manifest.substr(0, slash)) + "/probe-cache";
}

}  // namespace

Engine::Engine(Options options, vt::Clock& clock)
    : options_(std::move(options)),
      control_(clock),
      http_(vt::systemClock(), vt::HttpClient::Session::ephemeral),
      reader_(http_, probeCacheFor(options_.config),
              SourceReader::Hooks{[this](const std::string& line) { log(line); },
                                  [this](const std::string& name, int64_t size) { confirmSize(name, size); }}),
      service_(*this, static_cast<uint32_t>(::getuid()), static_cast<uint32_t>(::getgid())),
      nfs_(service_, clock) {}

Engine::~Engine() = default;

void Engine::log(const std::string& line) {
  const auto text = vt::logStamp(vt::wallClockNow()) + " " + escapeControls(vt::redact(line)) + "\n";
  if (std::FILE* f = std::fopen(options_.log.c_str(), "a")) {
    std::fputs(text.c_str(), f);
    std::fclose(f);
  }
}

bool Engine::start(std::string& error) {
  // Neither port has any authentication: they must not be reachable from
  // another machine. Refused here, so that the reason reaches the log.
  for (const auto* host : {&options_.nfsHost, &options_.controlHost}) {
    if (!QHostAddress(QString::fromStdString(*host)).isLoopback()) {
      error = "refusing to listen on " + *host + ": not a loopback address";
      return false;
    }
  }
  if (!nfs_.listen(QHostAddress(QString::fromStdString(options_.nfsHost)), options_.nfsPort)) {
    error = "cannot listen for NFS on " + options_.nfsHost + ":" + std::to_string(options_.nfsPort) + ": " +
            nfs_.errorString().toStdString();
    return false;
  }
  routes();
  if (!control_.listen(QHostAddress(QString::fromStdString(options_.controlHost)), options_.controlPort)) {
    error = "cannot listen for control on " + options_.controlHost + ":" + std::to_string(options_.controlPort);
    return false;
  }
  static_cast<void>(reload());  // a manifest that doesn't read is logged, and the engine serves none
  log("vtnfs " VT_VERSION " serving " + std::to_string(entries_.size()) + " entries (pid " +
      std::to_string(::getpid()) + ")");
  jobs_.start([this](vt::CancelToken token) { return warmLoop(token); });
  return true;
}

bool Engine::inUse(const std::string& name) const { return playback_ && boosted_.count(name) > 0; }

std::vector<vt::EngineEntry> Engine::validated(std::vector<vt::EngineEntry> manifest) {
  // Every folder the paths imply. A file of the same name would hide the
  // folder and all below it, so the folder wins.
  std::set<std::string, std::less<>> folders;
  for (const auto& e : manifest)
    for (size_t slash = e.name.find('/'); slash != std::string::npos; slash = e.name.find('/', slash + 1))
      folders.insert(e.name.substr(0, slash));
  std::vector<vt::EngineEntry> kept;
  kept.reserve(manifest.size());
  std::set<std::string> seen;  // copies: the entries move on below
  for (auto& e : manifest) {
    if (std::any_of(e.name.begin(), e.name.end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; })) {
      log("refused entry \"" + e.name + "\": a control character in its name");
      continue;
    }
    if (!seen.insert(e.name).second) {
      log("refused entry \"" + e.name + "\": named twice in the manifest; the first one stands");
      continue;
    }
    if (folders.count(e.name)) {
      log("refused entry \"" + e.name + "\": a folder of that name holds other entries");
      continue;
    }
    kept.push_back(std::move(e));
  }
  return kept;
}

vt::Result<int, ManifestError> Engine::reload() {
  auto text = vt::readFile(options_.config);
  auto decoded = text ? vt::decodeEngineConfig(*text) : std::nullopt;
  if (!decoded) {
    ManifestError error;
    error.kind = text ? ManifestError::Kind::invalid : ManifestError::Kind::unreadable;
    error.path = options_.config;
    log(message(error) + "; keeping " + std::to_string(entries_.size()) + " entries");
    return vt::Failure(std::move(error));
  }
  const std::vector<vt::EngineEntry> manifest = validated(std::move(*decoded));
  int deferred = 0;
  std::map<std::string, EntryState> next;
  for (auto& e : manifest) {
    auto old = entries_.find(e.name);
    if (old != entries_.end()) {
      if (old->second.entry == e) {
        next[e.name] = old->second;
        continue;
      }
      if (inUse(e.name)) {
        ++deferred;
        next[e.name] = old->second;
        continue;
      }
      // A new source means what was learnt of the old one no longer holds.
      EntryState s = sameSource(old->second.entry, e) ? old->second : EntryState{};
      s.entry = e;
      next[e.name] = std::move(s);
      continue;
    }
    EntryState s;
    s.entry = e;
    next[e.name] = std::move(s);
  }
  for (auto& [name, state] : entries_) {
    if (!next.count(name) && inUse(name)) {
      ++deferred;
      next[name] = state;
    }
  }
  for (const auto& [name, state] : entries_) {
    auto kept = next.find(name);
    // A change of `hidden` (every wave) keeps what the reader learnt.
    if (kept == next.end() || !sameSource(kept->second.entry, state.entry)) reader_.forget(name);
  }
  entries_ = std::move(next);
  for (const auto& [name, s] : entries_) expected_.erase(name);

  std::vector<NfsTree::File> files;
  for (const auto& [name, s] : entries_)
    if (!s.entry.hidden) files.push_back({name, s.size.value_or(s.entry.size), s.entry.mtime});
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now).count();
  const auto nanos =
      static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() % 1000000000);
  for (const auto& bad : tree_.rebuild(files, seconds, nanos)) log("not serving \"" + bad + "\": not a usable path");
  return deferred;
}

QCoro::Task<ReadResult> Engine::read(std::string entry, uint64_t offset, uint32_t count, std::string& out,
                                     FileSpan* span, vt::CancelToken token) {
  auto it = entries_.find(entry);
  if (it == entries_.end()) co_return readFailed(ReadError::Kind::notFound, entry);
  const vt::EngineEntry source = it->second.entry;
  const int64_t known = it->second.size.value_or(source.size);
  const size_t before = out.size();
  ReadResult got = co_await reader_.read(source, known, offset, count, out, span, token);
  if (token.isCancelled()) co_return readFailed(ReadError::Kind::cancelled, entry);
  it = entries_.find(entry);
  if (got && it != entries_.end() && it->second.entry == source) {
    it->second.bytesServed += static_cast<int64_t>(out.size() - before + (span ? span->length() : 0));
  }
  co_return got;
}

void Engine::confirmSize(const std::string& name, int64_t size) {
  auto it = entries_.find(name);
  if (it != entries_.end()) it->second.size = size;
  tree_.setSize(name, size);
}

void Engine::queueWarm(const std::vector<std::string>& names) {
  for (const auto& n : names)
    if (entries_.count(n) && std::find(warmQueue_.begin(), warmQueue_.end(), n) == warmQueue_.end())
      warmQueue_.push_back(n);
  warmWake_.fire();
}

QCoro::Task<> Engine::warmLoop(vt::CancelToken token) {
  while (!token.isCancelled()) {
    if (warmQueue_.empty()) {
      warmWake_ = vt::Completion();
      if (!co_await warmWake_.wait(token)) co_return;
      continue;
    }
    // Playback comes first: background warming holds back while it lasts.
    if (playback_) {
      if (!co_await vt::systemClock().sleep(1, token)) co_return;
      continue;
    }
    const auto name = warmQueue_.front();
    warmQueue_.erase(warmQueue_.begin());
    co_await warmOne(name, token);
  }
}

QCoro::Task<bool> Engine::warmOne(std::string name, vt::CancelToken token) {
  auto it = entries_.find(name);
  if (it == entries_.end() || it->second.warming) co_return false;
  it->second.warming = true;
  const auto entry = it->second.entry;
  std::optional<int64_t> size;
  bool ok = false;
  std::string why;

  if (!entry.local.empty()) {
    QFile file(QString::fromStdString(entry.local));
    if (file.open(QIODevice::ReadOnly)) {
      const int64_t total = file.size();
      const QByteArray head = file.read(std::min(total, kProbeBytes));
      file.seek(std::max<int64_t>(0, total - kProbeBytes));
      const QByteArray tail = file.read(kProbeBytes);
      ok = head.size() == std::min(total, kProbeBytes) && tail.size() == std::min(total, kProbeBytes);
      if (ok) size = total;
    }
  } else {
    // Through the reader, so the ends land in the probe cache and a failing
    // source fails over as it would for a player.
    std::string sink;
    const int64_t known = it->second.size.value_or(entry.size);
    const ReadResult head =
        co_await reader_.read(entry, known, 0, static_cast<uint32_t>(kProbeBytes), sink, nullptr, token);
    if (token.isCancelled()) co_return false;
    if (head && head->size) {
      ok = true;
      const int64_t total = *head->size;
      if (total > kProbeBytes) {
        sink.clear();
        const ReadResult tail = co_await reader_.read(entry, total, static_cast<uint64_t>(total - kProbeBytes),
                                                      static_cast<uint32_t>(kProbeBytes), sink, nullptr, token);
        if (token.isCancelled()) co_return false;
        ok = tail && static_cast<int64_t>(sink.size()) == kProbeBytes;
      }
      if (ok) size = total;
    } else if (!head) {
      why = message(head.error());
    }
  }

  it = entries_.find(name);  // the manifest may have changed meanwhile
  if (it == entries_.end() || !(it->second.entry == entry)) co_return false;
  it->second.warming = false;
  if (ok) {
    // In the listing at once, as a size a source confirms is.
    if (size) confirmSize(name, *size);
    it->second.warmed = true;
    it->second.probeReady = true;
  } else {
    log("warming " + name + " failed" + (why.empty() ? "" : " (" + why + ")"));
  }
  co_return ok;
}

void Engine::routes() {
  using Method = ControlServer::Method;
  control_.route("/healthz", Method::get, [] { return ControlReply::text("ok"); });

  control_.route("/status", Method::get, [this] {
    vt::EngineStatusPayload p;
    for (const auto& [name, s] : entries_) {
      vt::EngineStatusEntry e;
      e.name = name;
      e.size = s.size.value_or(s.entry.size);
      e.size_verified = s.size.has_value() || s.entry.size_verified;
      e.warmed = s.warmed;
      e.probe_ready = s.probeReady;
      e.bytes_served = s.bytesServed;
      p.entries.push_back(std::move(e));
    }
    return ControlReply{200, "application/json", vt::encodeEngineStatus(p)};
  });

  control_.route("/control/adopt", Method::post, [this](const ControlRequest& req) {
    auto body = vt::json::parse(bodyText(req));
    if (body && body->is_object() && body->contains("pid") && (*body)["pid"].is_number_integer())
      log("adopted by application pid " + std::to_string((*body)["pid"].get<int64_t>()));
    vt::Json reply;
    reply["pid"] = static_cast<int>(::getpid());
    reply["version"] = VT_VERSION;
    reply["rd_key_sha256"] = vt::engineKeyHash(options_.rdKey);
    return jsonReply(reply);
  });

  control_.route("/control/reload", Method::post, [this] {
    const auto loaded = reload();
    if (!loaded) {
      // The entries stay as they were; the caller learns why.
      vt::Json reply;
      reply["error"] = message(loaded.error());
      return jsonReply(reply, loaded.error().kind == ManifestError::Kind::invalid ? 422 : 500);
    }
    log("reloaded manifest: " + std::to_string(entries_.size()) + " entries, " + std::to_string(*loaded) + " deferred");
    vt::Json reply;
    reply["deferred"] = *loaded;
    return jsonReply(reply);
  });

  control_.route("/control/warm-pending", Method::post, [this](const ControlRequest& req) {
    const auto names = namesOf(req);
    if (!names) return badRequest(kNamesExpected);
    queueWarm(*names);
    return jsonReply(vt::Json::object());
  });
  control_.route("/control/prewarm", Method::post, [this](const ControlRequest& req) {
    const auto names = namesOf(req);
    if (!names) return badRequest(kNamesExpected);
    queueWarm(*names);
    return jsonReply(vt::Json::object());
  });
  for (const char* path : {"/control/boost", "/control/touch"}) {
    control_.route(path, Method::post, [this](const ControlRequest& req) {
      const auto names = namesOf(req);
      if (!names) return badRequest(kNamesExpected);
      boosted_.insert(names->begin(), names->end());
      return jsonReply(vt::Json::object());
    });
  }
  control_.route("/control/expect", Method::post, [this](const ControlRequest& req) {
    const QUrlQuery query(req.url);
    bool ok = false;
    const double ttl = std::clamp(query.queryItemValue("ttl").toDouble(&ok), 0.0, kMaxExpectSeconds);
    const double now = vt::wallClockNow();
    // Announcements whose time ran out go, so that the map can't grow for ever.
    std::erase_if(expected_, [now](const auto& e) { return e.second <= now; });
    for (const auto& n : query.allQueryItemValues("name", QUrl::FullyDecoded))
      expected_[n.toStdString()] = now + (ok ? ttl : kDefaultExpectSeconds);
    return jsonReply(vt::Json::object());
  });
  control_.route("/control/budget", Method::post, [this](const ControlRequest& req) {
    const auto body = bodyObject(req);
    const auto it = body ? body->find("cache_gb") : vt::Json::const_iterator();
    if (!body || it == body->end() || !it->is_number()) return badRequest("expected {\"cache_gb\": <number>}");
    // Clamped before the conversion: 1e10 GB would overflow the byte count.
    const double gigabytes = std::clamp(it->get<double>(), 0.0, kMaxCacheGigabytes);
    reader_.setBudgetBytes(static_cast<int64_t>(gigabytes * 1e9));
    return jsonReply(vt::Json::object());
  });
  control_.route("/control/playback", Method::post, [this](const ControlRequest& req) {
    const auto body = bodyObject(req);
    const auto it = body ? body->find("active") : vt::Json::const_iterator();
    if (!body || it == body->end() || !it->is_boolean()) return badRequest("expected {\"active\": <boolean>}");
    playback_ = it->get<bool>();
    if (!playback_) boosted_.clear();
    return jsonReply(vt::Json::object());
  });
}

}  // namespace vtnfs
