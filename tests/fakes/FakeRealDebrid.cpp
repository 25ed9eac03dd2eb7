#include "fakes/FakeRealDebrid.h"

#include <QUrlQuery>
#include <cstdio>

#include "fakes/FakeFileHost.h"

namespace vt::test {

namespace {

const QString kRest = QStringLiteral("/rest/1.0/");

// The fields of a form body, decoded.
QUrlQuery form(const FakeHttpServer::Request& r) { return QUrlQuery(QString::fromUtf8(r.body)); }

std::optional<std::string> field(const QUrlQuery& q, const char* name) {
  const QString key = QString::fromLatin1(name);
  if (!q.hasQueryItem(key)) return std::nullopt;
  return q.queryItemValue(key, QUrl::FullyDecoded).toStdString();
}

bool isHex40(const std::string& s) {
  if (s.size() != 40) return false;
  for (char c : s)
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

std::string lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string baseName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::vector<FakeRealDebrid::Stage> FakeRealDebrid::cachedStages() {
  return {{"waiting_files_selection", 0}, {"downloaded", 0}};
}

std::vector<FakeRealDebrid::Stage> FakeRealDebrid::fullStages() {
  return {
      {"magnet_conversion", 1}, {"waiting_files_selection", 0}, {"queued", 1}, {"downloading", 2}, {"downloaded", 0}};
}

std::vector<FakeRealDebrid::Stage> FakeRealDebrid::failingStages(const std::string& status, int after) {
  return {{"magnet_conversion", after}, {status, 0}};
}

FakeRealDebrid::FakeRealDebrid(std::string keyValue) : key(std::move(keyValue)) {
  defaultRelease.filename = "Film.2020.1080p.BluRay.x264-GRP";
  defaultRelease.files = {{1, "/Film.2020.1080p.BluRay.x264-GRP/Sample/sample.mkv", 48'000'000},
                          {2, "/Film.2020.1080p.BluRay.x264-GRP/Film.2020.1080p.BluRay.x264-GRP.mkv", 8'400'000'000},
                          {3, "/Film.2020.1080p.BluRay.x264-GRP/Film.nfo", 4'000}};
  defaultRelease.stages = fullStages();
  onPrefix("*", kRest, [this](const Request& r, Reply& reply) { handle(r, reply); });
}

QUrl FakeRealDebrid::restBase() const { return url(kRest); }

void FakeRealDebrid::fail(const QString& prefix, int status, int times) {
  faults_.push_back({prefix, status, {}, times, false, false});
}

void FakeRealDebrid::answer(const QString& prefix, QByteArray body, int status, int times) {
  faults_.push_back({prefix, status, std::move(body), times, false, true});
}

void FakeRealDebrid::hang(const QString& prefix) { faults_.push_back({prefix, 0, {}, -1, true, false}); }

const FakeRealDebrid::Torrent* FakeRealDebrid::torrentFor(const std::string& hash) const {
  const Torrent* found = nullptr;
  for (const auto& [id, t] : torrents)
    if (t.hash == lower(hash) && (!found || t.id > found->id)) found = &t;
  return found;
}

std::string FakeRealDebrid::nextCode(const char* prefix) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%s%09d", prefix, ++counter_);
  return buf;
}

void FakeRealDebrid::error(Reply& reply, int status, const char* code, int number) {
  Json body;
  body["error"] = code;
  body["error_code"] = number;
  reply.json(body, status);
}

Json FakeRealDebrid::infoJson(Torrent& t) {
  const std::string status = t.status();
  const bool listed = status != "magnet_conversion" && status != "magnet_error";
  // Files the user did not choose stay out of the download.
  auto chosen = [&](const File& f) {
    if (!t.selection || *t.selection == "all") return t.selection.has_value() || status == "downloaded";
    for (const auto& part : QString::fromStdString(*t.selection).split(','))
      if (part.toLongLong() == f.id) return true;
    return false;
  };
  if (status == "downloaded" && t.links.empty()) {
    for (const auto& f : t.files)
      if (chosen(f)) t.links.push_back(linkHost + "/d/" + nextCode("L"));
  }
  Json files = Json::array();
  int64_t total = 0, original = 0;
  if (listed) {
    for (const auto& f : t.files) {
      files.push_back(Json{{"id", f.id}, {"path", f.path}, {"bytes", f.bytes}, {"selected", chosen(f) ? 1 : 0}});
      original += f.bytes;
      if (chosen(f)) total += f.bytes;
    }
  }
  Json j;
  j["id"] = t.id;
  j["filename"] = listed ? t.filename : "Magnet";
  j["original_filename"] = listed ? t.filename : "Magnet";
  j["hash"] = t.hash;
  j["bytes"] = total;
  j["original_bytes"] = original;
  j["host"] = "real-debrid.com";
  j["split"] = 2000;
  j["progress"] = status == "downloaded" ? 100 : (status == "downloading" ? 42 : 0);
  j["status"] = status;
  j["added"] = "2024-03-01T12:00:00.000Z";
  j["files"] = files;
  j["links"] = t.links;
  if (status == "downloaded") j["ended"] = "2024-03-01T12:01:00.000Z";
  if (status == "downloading") {
    j["speed"] = 12'500'000;
    j["seeders"] = 17;
  }
  return j;
}

void FakeRealDebrid::handle(const Request& r, Reply& reply) {
  const QString path = r.path.mid(kRest.size());
  for (auto it = faults_.rbegin(); it != faults_.rend(); ++it) {
    if (!path.startsWith(it->prefix) || it->times == 0) continue;
    if (it->times > 0) --it->times;
    if (it->hang) {
      reply.hold();
    } else if (it->raw) {
      reply.send(it->status, it->body, {}, "application/json");
    } else if (it->status == 429) {
      error(reply, 429, "too_many_requests", 34);
    } else if (it->status == 401) {
      error(reply, 401, "bad_token", 8);
    } else if (it->status == 403) {
      error(reply, 403, "permission_denied", 9);
    } else if (it->status == 404) {
      error(reply, 404, "unknown_ressource", 7);
    } else if (it->status >= 500) {
      error(reply, it->status, it->status == 503 ? "service_unavailable" : "internal_error",
            it->status == 503 ? 25 : -1);
    } else {
      error(reply, it->status, "parameter_invalid", 2);
    }
    return;
  }

  const auto auth = r.header("Authorization");
  if (!auth || *auth != "Bearer " + QByteArray::fromStdString(key)) {
    error(reply, 401, "bad_token", 8);
    return;
  }

  const auto idAfter = [&](const QString& prefix) { return path.mid(prefix.size()).toStdString(); };

  if (path == "user" && r.method == "GET") {
    Json j;
    j["id"] = 4242;
    j["username"] = "tester";
    j["email"] = "t***@example.com";
    j["points"] = 1000;
    j["locale"] = "en";
    j["avatar"] = "https://fcdn.real-debrid.com/images/forum/empty.png";
    j["type"] = userType;
    j["premium"] = premiumSeconds;
    j["expiration"] = expiration;
    reply.json(j);
    return;
  }

  if (path == "torrents/addMagnet" && r.method == "POST") {
    const auto magnet = field(form(r), "magnet");
    if (!magnet) return error(reply, 400, "parameter_missing", 1);
    // "magnet:?xt=urn:btih:<hash>", perhaps with more parameters after "&".
    const QString text = QString::fromStdString(*magnet);
    const QString prefix = QStringLiteral("magnet:?xt=urn:btih:");
    const std::string hash =
        text.startsWith(prefix) ? lower(text.mid(prefix.size()).section('&', 0, 0).toStdString()) : std::string();
    if (!isHex40(hash)) return error(reply, 400, "parameter_invalid", 2);
    const auto rel = releases.count(hash) ? releases.at(hash) : defaultRelease;
    Torrent t;
    t.id = nextCode("TR");
    t.hash = hash;
    t.filename = rel.filename;
    t.files = rel.files;
    t.stages = rel.stages.empty() ? fullStages() : rel.stages;
    const std::string id = t.id;
    torrents[id] = std::move(t);
    reply.json(Json{{"id", id}, {"uri", restBase().toString().toStdString() + "torrents/info/" + id}}, 201);
    return;
  }

  if (path.startsWith("torrents/selectFiles/") && r.method == "POST") {
    auto it = torrents.find(idAfter("torrents/selectFiles/"));
    if (it == torrents.end()) return error(reply, 404, "unknown_ressource", 7);
    Torrent& t = it->second;
    ++t.selectCalls;
    const auto files = field(form(r), "files");
    if (!files) return error(reply, 400, "parameter_missing", 1);
    if (*files != "all") {
      for (const auto& part : QString::fromStdString(*files).split(',')) {
        bool ok = false;
        const auto n = part.toLongLong(&ok);
        bool known = false;
        for (const auto& f : t.files) known = known || f.id == n;
        if (!ok || !known) return error(reply, 400, "parameter_invalid", 2);
      }
    }
    if (t.status() != "waiting_files_selection") {
      reply.send(202);  // action already done
      return;
    }
    t.selection = *files;
    if (t.stages[t.stage].infoCalls == 0 && t.stage + 1 < t.stages.size()) {
      ++t.stage;
      t.callsInStage = 0;
    }
    reply.send(204);
    return;
  }

  if (path.startsWith("torrents/info/") && r.method == "GET") {
    auto it = torrents.find(idAfter("torrents/info/"));
    if (it == torrents.end()) return error(reply, 404, "unknown_ressource", 7);
    Torrent& t = it->second;
    ++t.infoCalls;
    reply.json(infoJson(t));
    const auto& stage = t.stages[t.stage];
    if (stage.infoCalls > 0 && ++t.callsInStage >= stage.infoCalls && t.stage + 1 < t.stages.size()) {
      ++t.stage;
      t.callsInStage = 0;
    }
    return;
  }

  if (path.startsWith("torrents/delete/") && r.method == "DELETE") {
    const auto id = idAfter("torrents/delete/");
    if (!torrents.erase(id)) return error(reply, 404, "unknown_ressource", 7);
    deleted.push_back(id);
    reply.send(204);
    return;
  }

  if (path == "unrestrict/link" && r.method == "POST") {
    const auto link = field(form(r), "link");
    if (!link) return error(reply, 400, "parameter_missing", 1);
    for (const auto& [id, t] : torrents) {
      size_t n = 0;
      for (const auto& f : t.files) {
        const bool selected = !t.selection || *t.selection == "all" ||
                              QString::fromStdString(*t.selection).split(',').contains(QString::number(f.id));
        if (!selected) continue;
        if (n < t.links.size() && t.links[n] == *link) {
          const std::string name = baseName(f.path);
          const std::string code = nextCode("D");
          const QString filePath = QString::fromStdString("/d/" + code + "/" + name);
          if (serveFile)
            serveFile(files_, filePath, f);
          else
            serveGenerated(files_, filePath, f.bytes);
          const std::string download = files_.baseUrl().toString().toStdString() + "/d/" + code + "/" +
                                       QUrl::toPercentEncoding(QString::fromStdString(name)).toStdString();
          Json j;
          j["id"] = code;
          j["filename"] = name;
          j["mimeType"] = "video/x-matroska";
          j["filesize"] = f.bytes;
          j["link"] = *link;
          j["host"] = "real-debrid.com";
          j["chunks"] = 32;
          j["crc"] = 1;
          j["download"] = download;
          j["streamable"] = 1;
          Json row = j;
          row["generated"] = "2024-03-01T12:02:00.000Z";
          downloadRows.insert(downloadRows.begin(), row);
          reply.json(j);
          return;
        }
        ++n;
      }
    }
    return error(reply, 503, "unavailable_file", 24);
  }

  if (path == "downloads" && r.method == "GET") {
    const int limit = r.query("limit").value_or("100").toInt();
    const int offset = r.query("offset").value_or("0").toInt();
    Json rows = Json::array();
    for (int i = std::max(0, offset); i < static_cast<int>(downloadRows.size()) && rows.size() < size_t(limit); ++i)
      rows.push_back(downloadRows[static_cast<size_t>(i)]);
    reply.json(rows);
    return;
  }

  error(reply, 404, "unknown_method", 3);
}

}  // namespace vt::test
