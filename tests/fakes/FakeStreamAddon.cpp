#include "fakes/FakeStreamAddon.h"

#include <QTimer>
#include <cstdio>

namespace vt::test {

namespace {

std::string sizeText(int64_t bytes) {
  char buf[32];
  if (bytes >= 1'000'000'000)
    std::snprintf(buf, sizeof buf, "%.2f GB", static_cast<double>(bytes) / 1e9);
  else
    std::snprintf(buf, sizeof buf, "%.0f MB", static_cast<double>(bytes) / 1e6);
  return buf;
}

std::string encoded(const std::string& text) {
  return QUrl::toPercentEncoding(QString::fromStdString(text)).toStdString();
}

// "<type>/<id>" of a path ".../stream/<type>/<id>.json"; empty when it isn't one.
std::string streamKey(const QString& path) {
  const auto at = path.lastIndexOf(QStringLiteral("/stream/"));
  if (at < 0 || !path.endsWith(QStringLiteral(".json"))) return {};
  const QString rest = path.mid(at + 8, path.size() - at - 8 - 5);
  const auto slash = rest.indexOf('/');
  if (slash <= 0 || slash == rest.size() - 1) return {};
  return rest.toStdString();
}

}  // namespace

FakeStreamAddon::FakeStreamAddon(Family f) : family(f) {
  onPrefix("GET", "/", [this](const Request& r, Reply& reply) { handle(r, reply); });
}

QUrl FakeStreamAddon::base() const { return url("/" + QString::fromStdString(config) + "/"); }

void FakeStreamAddon::setReleases(const std::string& type, const std::string& id,
                                  const std::vector<Release>& releases) {
  Json rows = Json::array();
  for (const auto& r : releases) rows.push_back(row(r));
  setRows(type, id, std::move(rows));
}

void FakeStreamAddon::setRows(const std::string& type, const std::string& id, Json rows) {
  rows_[type + "/" + id] = std::move(rows);
}

void FakeStreamAddon::setFault(const std::string& type, const std::string& id, Fault fault) {
  faults_[type + "/" + id] = fault;
}

std::string FakeStreamAddon::configuredKey() const {
  const auto equals = config.find('=');
  return equals == std::string::npos ? config : config.substr(equals + 1);
}

Json FakeStreamAddon::row(const Release& r) const {
  const std::string host = baseUrl().toString().toStdString() + "/" + config + "/";
  const std::string size = sizeText(r.bytes);
  Json j;
  switch (family) {
    case Family::torrentio:
      j["name"] = std::string(r.cached ? "[RD+] Torrentio" : "[RD download] Torrentio") + "\n" + r.resolution;
      j["title"] = r.filename + "\n👤 " + std::to_string(r.seeders) + " 💾 " + size + " ⚙️ " + r.origin;
      // As Torrentio's own: the key of the configuration, then the torrent.
      j["url"] = baseUrl().toString().toStdString() + "/resolve/realdebrid/" + configuredKey() + "/" + r.infoHash +
                 "/null/0/" + encoded(r.filename);
      j["behaviorHints"] = Json{{"bingeGroup", "torrentio|" + r.resolution + "|BluRay"}, {"filename", r.filename}};
      break;
    case Family::comet:
      j["name"] = std::string(r.cached ? "[RD⚡] Comet " : "[RD⬇️] Comet ") + r.resolution;
      j["description"] = r.filename + "\n💾 " + size + " 👤 " + std::to_string(r.seeders) + " 🔎 " + r.origin;
      j["url"] = host + "playback/" + r.infoHash + "/0/" + encoded(r.filename);
      j["behaviorHints"] =
          Json{{"filename", r.filename}, {"bingeGroup", "comet|" + r.infoHash}, {"videoSize", r.bytes}};
      break;
    case Family::mediafusion:
      j["name"] = "MediaFusion | RD " + r.resolution + (r.cached ? " ⚡️" : " ⏳");
      j["description"] = "📂 " + r.filename + "\n💾 " + size + " 👤 " + std::to_string(r.seeders) + "\n🔗 " + r.origin;
      j["url"] = host + "streaming_provider/playback/" + r.infoHash;
      j["behaviorHints"] =
          Json{{"bingeGroup", "MediaFusion-| RD-" + r.resolution}, {"filename", r.filename}, {"videoSize", r.bytes}};
      break;
  }
  return j;
}

Json FakeStreamAddon::placeholderRow(const std::string& host) const {
  Json j;
  j["name"] = "[⚠️] Comet";
  j["description"] = "No cached results found for this title.";
  j["url"] = "https://" + host + "/placeholder.mp4";
  return j;
}

std::vector<std::string> FakeStreamAddon::streamRequests() const {
  std::vector<std::string> out;
  for (const auto& r : requests())
    if (auto key = streamKey(r.path); !key.empty()) out.push_back(key);
  return out;
}

void FakeStreamAddon::handle(const Request& r, Reply& reply) {
  const std::string key = streamKey(r.path);
  if (key.empty()) {
    reply.send(404, "Not Found");
    return;
  }
  Fault fault = allFault_;
  if (auto it = faults_.find(key); it != faults_.end()) fault = it->second;
  Json body;
  body["streams"] = rows_.count(key) ? rows_.at(key) : Json::array();
  switch (fault) {
    case Fault::none:
      reply.json(body);
      return;
    case Fault::slow: {
      Reply later = reply;
      later.hold();
      QTimer::singleShot(slowMs, context_.get(), [later, body]() mutable { later.json(body); });
      return;
    }
    case Fault::silent:
      reply.hold();
      return;
    case Fault::serverError:
      reply.send(503, "<html><body>Service Unavailable</body></html>", {}, "text/html");
      return;
    case Fault::badJson:
      reply.send(200, R"({"streams":[{"name":"[RD+] Torrentio\n1080p","title":"Film.2020)", {}, "application/json");
      return;
    case Fault::wrongTypes: {
      Json bad = Json::array();
      bad.push_back(Json{{"name", 5},
                         {"title", Json::array({"x"})},
                         {"description", false},
                         {"url", Json{{"href", "x"}}},
                         {"behaviorHints", Json{{"filename", 3}, {"videoSize", "big"}, {"bingeGroup", 1.5}}}});
      bad.push_back(Json{{"name", nullptr}, {"behaviorHints", "none"}});
      bad.push_back(7);
      bad.push_back("row");
      reply.json(Json{{"streams", bad}});
      return;
    }
  }
}

}  // namespace vt::test
