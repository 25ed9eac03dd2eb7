#include "lab/LabPlexPage.h"

#include <algorithm>
#include <filesystem>

#include <QFile>
#include <QIODevice>

#include "fakes/FakeFileHost.h"

namespace vt::lab {

namespace {

using test::FakeHttpServer;
using test::FakePlexServer;

std::string html(const std::string& text) { return QString::fromStdString(text).toHtmlEscaped().toStdString(); }

// `count` bytes of a file from `first`, read as the client takes them.
class FileSpanDevice final : public QIODevice {
 public:
  FileSpanDevice(const QString& path, int64_t first, int64_t count) : file_(path), first_(first), count_(count) {
    if (file_.open(QIODevice::ReadOnly)) open(QIODevice::ReadOnly | QIODevice::Unbuffered);
  }
  bool isSequential() const override { return false; }
  qint64 size() const override { return count_; }

 protected:
  qint64 readData(char* data, qint64 maxSize) override {
    const qint64 n = std::min<qint64>(maxSize, count_ - pos());
    if (n <= 0) return -1;
    if (!file_.seek(first_ + pos())) return -1;
    return file_.read(data, n);
  }
  qint64 writeData(const char*, qint64) override { return -1; }

 private:
  QFile file_;
  int64_t first_;
  int64_t count_;
};

void serveFile(const std::string& path, const FakeHttpServer::Request& request, FakeHttpServer::Reply& reply) {
  std::error_code ec;
  const auto size = static_cast<int64_t>(std::filesystem::file_size(path, ec));
  if (ec) return reply.send(404, "the file cannot be read: " + QByteArray::fromStdString(ec.message()));
  const QByteArray length = QByteArray::number(static_cast<qlonglong>(size));
  const QByteArray type = videoType(path);
  if (request.method == "HEAD")
    return reply.send(200, {}, {{"Content-Length", length}, {"Accept-Ranges", "bytes"}}, type);
  const QString file = QString::fromStdString(path);
  const auto range = test::requestedRange(request, size);
  if (range && !range->satisfiable) return reply.send(416, {}, {{"Content-Range", test::contentRange(*range, size)}});
  const int64_t first = range ? range->first : 0;
  const int64_t count = range ? range->last - range->first + 1 : size;
  auto* device = new FileSpanDevice(file, first, count);
  if (!device->isOpen()) {
    delete device;
    return reply.send(503, "the file cannot be opened");
  }
  if (!range) return reply.stream(200, device, {"Accept-Ranges", "bytes"}, type);
  reply.stream(206, device, {"Content-Range", test::contentRange(*range, size)}, type);
}

Json itemJson(const FakePlexServer::Item& item) {
  Json j;
  j["ratingKey"] = item.ratingKey;
  j["type"] = item.type;
  j["title"] = item.title;
  if (item.year) j["year"] = *item.year;
  if (item.season) j["season"] = *item.season;
  if (item.episode) j["episode"] = *item.episode;
  if (item.grandparentRatingKey) j["show"] = *item.grandparentRatingKey;
  j["files"] = item.files;
  j["labels"] = Json(std::vector<std::string>(item.labels.begin(), item.labels.end()));
  j["trashed"] = item.trashed;
  if (!item.files.empty()) j["stream"] = "/lab/file/" + item.ratingKey;
  return j;
}

Json state(const FakePlexServer& plex) {
  Json sections = Json::array();
  for (const auto& [key, section] : plex.sections) {
    Json items = Json::array();
    for (const auto* item : plex.itemsOf(key)) items.push_back(itemJson(*item));
    sections.push_back(Json{{"key", key},
                            {"title", section.title},
                            {"type", section.type},
                            {"locations", section.locations},
                            {"scans", section.scansCompleted},
                            {"items", items}});
  }
  Json collections = Json::array();
  for (const auto& [key, c] : plex.collections)
    collections.push_back(Json{{"ratingKey", key},
                               {"title", c.title},
                               {"section", c.sectionKey},
                               {"smart", c.smart},
                               {"members", collectionMembers(plex, c)}});
  return Json{{"server", plex.machineIdentifier}, {"sections", sections}, {"collections", collections}};
}

std::string page(const FakePlexServer& plex) {
  std::string out =
      "<!doctype html><html><head><meta charset=\"utf-8\"><title>Vantory lab: Plex</title><style>"
      "body{font-family:sans-serif;margin:2em}td,th{padding:2px 10px;text-align:left}"
      ".trashed{color:#999;text-decoration:line-through}</style></head><body>"
      "<h1>Simulated Plex</h1><p>What the server has indexed, as its clients would see it. "
      "A link plays the file from the mounted library (also in <code>mpv</code>).</p>";
  out += "<h2>Collections</h2><table><tr><th>Title</th><th>Kind</th><th>Section</th><th>Films</th></tr>";
  for (const auto& [key, c] : plex.collections) {
    out += "<tr><td>" + html(c.title) + "</td><td>" + (c.smart ? "smart" : "plain") + "</td><td>" + html(c.sectionKey) +
           "</td><td>" + std::to_string(collectionMembers(plex, c).size()) + "</td></tr>";
  }
  out += "</table>";
  for (const auto& [key, section] : plex.sections) {
    const auto items = plex.itemsOf(key);
    out += "<h2>" + html(section.title) + " (" + html(section.type) + ", " + std::to_string(items.size()) +
           " items)</h2><p>";
    for (const auto& location : section.locations) out += "<code>" + html(location) + "</code> ";
    out += "</p><table><tr><th>Title</th><th>Year</th><th>Labels</th><th>File</th></tr>";
    for (const auto* item : items) {
      std::string labels;
      for (const auto& l : item->labels) labels += (labels.empty() ? "" : ", ") + l;
      std::string title = item->title;
      if (item->season && item->episode)
        title += " (S" + std::to_string(*item->season) + "E" + std::to_string(*item->episode) + ")";
      out += std::string("<tr") + (item->trashed ? " class=\"trashed\"" : "") + "><td>" + html(title) + "</td><td>" +
             (item->year ? std::to_string(*item->year) : "") + "</td><td>" + html(labels) + "</td><td>";
      if (!item->files.empty())
        out += "<a href=\"/lab/file/" + item->ratingKey + "\">" +
               html(std::filesystem::path(item->files.front()).filename().string()) + "</a>";
      out += "</td></tr>";
    }
    out += "</table>";
  }
  out += "</body></html>";
  return out;
}

}  // namespace

std::vector<std::string> collectionMembers(const FakePlexServer& plex, const FakePlexServer::Collection& collection) {
  if (!collection.smart) return collection.members;
  std::vector<std::string> wanted;
  for (const auto& id : QString::fromStdString(collection.labelId).split(',', Qt::SkipEmptyParts))
    wanted.push_back(id.toStdString());
  std::vector<std::string> out;
  for (const auto* item : plex.itemsOf(collection.sectionKey, "movie")) {
    const bool labelled = std::any_of(item->labels.begin(), item->labels.end(), [&](const std::string& label) {
      return std::find(wanted.begin(), wanted.end(), plex.labelId(label)) != wanted.end();
    });
    if (labelled) out.push_back(item->ratingKey);
  }
  return out;
}

QByteArray videoType(const std::string& path) {
  const auto ext = std::filesystem::path(path).extension().string();
  if (ext == ".mp4" || ext == ".m4v") return "video/mp4";
  if (ext == ".mkv") return "video/x-matroska";
  return "application/octet-stream";
}

void addLabPages(FakePlexServer& plex) {
  const auto showPage = [&plex](const FakeHttpServer::Request&, FakeHttpServer::Reply& reply) {
    plex.completeDueScans();
    reply.send(200, QByteArray::fromStdString(page(plex)), {}, "text/html; charset=utf-8");
  };
  plex.on("GET", "/lab", showPage);
  // The lab stands in for the Plex web app: the links of the watch button's
  // notifications ("<web app>/desktop/#!/server/...") open this page.
  plex.onPrefix("GET", "/lab/desktop", showPage);
  plex.on("GET", "/lab.json", [&plex](const FakeHttpServer::Request&, FakeHttpServer::Reply& reply) {
    plex.completeDueScans();
    reply.json(state(plex));
  });
  plex.onPrefix("GET", "/lab/file/", [&plex](const FakeHttpServer::Request& request, FakeHttpServer::Reply& reply) {
    const auto key = request.path.mid(10).toStdString();
    const auto it = plex.items.find(key);
    if (it == plex.items.end() || it->second.files.empty()) return reply.send(404, "no such item");
    serveFile(it->second.files.front(), request, reply);
  });
}

}  // namespace vt::lab
