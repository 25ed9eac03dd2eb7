#include "fakes/FakePlexServer.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <unordered_set>

#include <QUrlQuery>

namespace vt::test {

namespace {

namespace fs = std::filesystem;

Json container(Json inner) {
  Json j;
  j["MediaContainer"] = std::move(inner);
  return j;
}

std::vector<std::string> pathParts(const QString& path) {
  std::vector<std::string> parts;
  for (const auto& p : path.split('/', Qt::SkipEmptyParts)) parts.push_back(p.toStdString());
  return parts;
}

std::string q(const FakeHttpServer::Request& r, const char* name) {
  return r.query(QString::fromLatin1(name)).value_or(QString()).toStdString();
}

std::vector<std::string> splitList(const std::string& text, char sep = ',') {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= text.size()) {
    const auto end = std::min(text.find(sep, start), text.size());
    if (end > start) out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

// The value of `key` in a query string inside a URI ("...?a=1&label=500").
std::string uriQueryValue(const std::string& uri, const std::string& key) {
  const auto qmark = uri.find('?');
  if (qmark == std::string::npos) return {};
  for (const auto& pair : splitList(uri.substr(qmark + 1), '&'))
    if (pair.rfind(key + "=", 0) == 0) return pair.substr(key.size() + 1);
  return {};
}

bool isVideo(const fs::path& path) {
  static const std::set<std::string> kVideo = {".mkv", ".mp4", ".avi", ".m4v", ".ts", ".mov"};
  auto ext = path.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return kVideo.count(ext) > 0;
}

std::string trim(std::string s) {
  const auto first = s.find_first_not_of(" ._-");
  if (first == std::string::npos) return {};
  const auto last = s.find_last_not_of(" ._-");
  return s.substr(first, last - first + 1);
}

// Title and year from a name like "Heat (1995) {imdb-tt0113277}" or
// "Heat.1995.1080p": tags in braces or brackets go, a year in parentheses (or
// a bare year after the first word) ends the title.
std::pair<std::string, std::optional<int64_t>> titleAndYear(const std::string& stem) {
  std::string clean;
  int depth = 0;
  for (char c : stem) {
    if (c == '{' || c == '[') ++depth;
    if (depth == 0) clean += c;
    if ((c == '}' || c == ']') && depth > 0) --depth;
  }
  auto isYearAt = [&](size_t i) {
    if (i + 4 > clean.size()) return false;
    for (size_t k = i; k < i + 4; ++k)
      if (!std::isdigit(static_cast<unsigned char>(clean[k]))) return false;
    const bool before = i == 0 || !std::isalnum(static_cast<unsigned char>(clean[i - 1]));
    const bool after = i + 4 == clean.size() || !std::isalnum(static_cast<unsigned char>(clean[i + 4]));
    const int y = std::stoi(clean.substr(i, 4));
    return before && after && y >= 1880 && y <= 2100;
  };
  // A year in parentheses first ("Blade Runner 2049 (2017)"), then a bare one.
  for (const bool parenthesised : {true, false}) {
    for (size_t i = 1; i < clean.size(); ++i) {
      if (!isYearAt(i) || (parenthesised && clean[i - 1] != '(')) continue;
      auto title = trim(clean.substr(0, clean[i - 1] == '(' ? i - 1 : i));
      if (title.empty()) continue;
      std::replace(title.begin(), title.end(), '.', ' ');
      return {title, std::stoll(clean.substr(i, 4))};
    }
  }
  auto title = trim(clean);
  return {title.empty() ? stem : title, std::nullopt};
}

// Season and episode from "S01E02" anywhere in the name.
std::pair<std::optional<int64_t>, std::optional<int64_t>> seasonEpisode(const std::string& name) {
  for (size_t i = 0; i + 1 < name.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(name[i])) != 's') continue;
    size_t j = i + 1;
    int64_t season = 0;
    while (j < name.size() && std::isdigit(static_cast<unsigned char>(name[j])))
      season = season * 10 + (name[j++] - '0');
    if (j == i + 1 || j >= name.size() || std::tolower(static_cast<unsigned char>(name[j])) != 'e') continue;
    size_t k = j + 1;
    int64_t episode = 0;
    while (k < name.size() && std::isdigit(static_cast<unsigned char>(name[k])))
      episode = episode * 10 + (name[k++] - '0');
    if (k == j + 1) continue;
    return {season, episode};
  }
  return {};
}

}  // namespace

FakePlexServer::FakePlexServer(std::string tokenValue, Clock& clock) : token(std::move(tokenValue)), clock_(&clock) {
  routes();
}

FakePlexServer::Section& FakePlexServer::addSection(const std::string& key, const std::string& title,
                                                    const std::string& type, std::vector<std::string> locations) {
  auto& s = sections[key];
  s.key = key;
  s.title = title;
  s.type = type;
  s.locations = std::move(locations);
  return s;
}

FakePlexServer::Item& FakePlexServer::addItem(Item item) {
  if (item.ratingKey.empty()) item.ratingKey = nextKey();
  auto key = item.ratingKey;
  return items[key] = std::move(item);
}

std::string FakePlexServer::nextKey() { return std::to_string(nextRatingKey_++); }

int64_t FakePlexServer::unixNow() const { return static_cast<int64_t>(unixSecondsFromDate(clock_->now())); }

std::string FakePlexServer::labelId(const std::string& label) const {
  auto [it, inserted] = labelIds_.try_emplace(label, 500 + static_cast<int>(labelIds_.size()));
  return std::to_string(it->second);
}

std::set<std::string> FakePlexServer::labelNames(const std::string& ids) const {
  const auto wanted = splitList(ids);
  std::set<std::string> names;
  for (const auto& [name, id] : labelIds_)
    if (std::find(wanted.begin(), wanted.end(), std::to_string(id)) != wanted.end()) names.insert(name);
  return names;
}

std::vector<const FakePlexServer::Item*> FakePlexServer::itemsWithLabel(const std::string& sectionKey,
                                                                        const std::string& label) const {
  std::vector<const Item*> out;
  for (const auto& [k, item] : items)
    if (item.sectionKey == sectionKey && item.labels.count(label)) out.push_back(&item);
  return out;
}

std::vector<const FakePlexServer::Item*> FakePlexServer::itemsOf(const std::string& sectionKey,
                                                                 const std::string& type) const {
  std::vector<const Item*> out;
  for (const auto& [k, item] : items)
    if (item.sectionKey == sectionKey && (type.empty() || item.type == type)) out.push_back(&item);
  return out;
}

const FakePlexServer::Item* FakePlexServer::itemForFile(const std::string& path) const {
  for (const auto& [k, item] : items)
    if (std::find(item.files.begin(), item.files.end(), path) != item.files.end()) return &item;
  return nullptr;
}

bool FakePlexServer::readable(const std::string& path) const {
  if (canRead) return canRead(path);
  std::ifstream in(path, std::ios::binary);
  char byte = 0;
  return in && in.read(&byte, 1) && in.gcount() == 1;
}

void FakePlexServer::giveDuration(Item& item) const {
  for (const auto& file : item.files) {
    if (!readable(file)) continue;
    auto it = durations.find(file);
    item.duration = it != durations.end() ? it->second : defaultDuration;
    return;
  }
}

// Deleting a show takes its episodes along; a deleted item leaves the plain
// collections it was in. Files on disk are left alone, so a file that is still
// there is indexed again by the next scan.
void FakePlexServer::removeItem(const std::string& ratingKey) {
  auto it = items.find(ratingKey);
  if (it == items.end()) return;
  if (it->second.type == "show")
    std::erase_if(items, [&](const auto& entry) { return entry.second.grandparentRatingKey == ratingKey; });
  items.erase(ratingKey);
  for (auto& [k, c] : collections) std::erase(c.members, ratingKey);
}

// --- Scans ------------------------------------------------------------------

void FakePlexServer::requestScan(const std::string& sectionKey) {
  pendingScans_.push_back({clock_->now() + scanDelay, sectionKey});
}

int FakePlexServer::completeDueScans() {
  int ran = 0;
  // Earliest first; a scan requested earlier runs first at equal times.
  while (true) {
    auto due = pendingScans_.end();
    for (auto it = pendingScans_.begin(); it != pendingScans_.end(); ++it)
      if (it->due <= clock_->now() && (due == pendingScans_.end() || it->due < due->due)) due = it;
    if (due == pendingScans_.end()) return ran;
    const auto key = due->sectionKey;
    pendingScans_.erase(due);
    scan(key);
    ++ran;
  }
}

void FakePlexServer::scan(const std::string& sectionKey) {
  auto sit = sections.find(sectionKey);
  if (sit == sections.end()) return;
  Section& section = sit->second;
  ++section.scansCompleted;
  const bool shows = section.type == "show";

  // What the scan finds, and which folders it could look at: items under a
  // location that cannot be listed are left as they are (Plex does not trash
  // a library whose drive is offline).
  std::vector<std::string> found;
  std::vector<std::string> listed;
  if (section.fileList) {
    found = *section.fileList;
  } else {
    for (const auto& location : section.locations) {
      std::error_code ec;
      if (!fs::is_directory(location, ec)) continue;
      listed.push_back(location);
      fs::recursive_directory_iterator it(location, fs::directory_options::skip_permission_denied, ec);
      for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
        if (it->is_regular_file(ec) && isVideo(it->path())) found.push_back(it->path().string());
    }
    std::sort(found.begin(), found.end());
  }
  auto covered = [&](const Item& item) {
    if (section.fileList) return true;
    for (const auto& file : item.files)
      for (const auto& location : listed)
        if (file.rfind(location + "/", 0) == 0) return true;
    return false;
  };

  std::unordered_map<std::string, std::string> byFile;
  std::unordered_map<std::string, std::string> showByFolder;
  for (const auto& [rk, item] : items) {
    if (item.sectionKey != sectionKey) continue;
    for (const auto& f : item.files) byFile.emplace(f, rk);
    if (item.type == "show" && !item.folder.empty()) showByFolder.emplace(item.folder, rk);
  }

  const auto now = unixNow();
  std::unordered_set<std::string> present;
  for (const auto& file : found) {
    if (auto it = byFile.find(file); it != byFile.end()) {
      present.insert(it->second);
      continue;
    }
    const fs::path path(file);
    Item item;
    item.sectionKey = sectionKey;
    item.files = {file};
    item.addedAt = now;
    if (shows) {
      // The show is the first folder below the location; failing that, the
      // file's own folder.
      std::string folder = path.parent_path().string();
      for (const auto& location : section.locations) {
        if (file.rfind(location + "/", 0) != 0) continue;
        const auto rest = file.substr(location.size() + 1);
        const auto slash = rest.find('/');
        if (slash != std::string::npos) folder = location + "/" + rest.substr(0, slash);
        break;
      }
      auto show = showByFolder.find(folder);
      if (show == showByFolder.end()) {
        Item shell;
        shell.sectionKey = sectionKey;
        shell.type = "show";
        shell.folder = folder;
        std::tie(shell.title, shell.year) = titleAndYear(fs::path(folder).filename().string());
        shell.addedAt = now;
        auto& added = addItem(std::move(shell));
        show = showByFolder.emplace(folder, added.ratingKey).first;
      }
      present.insert(show->second);
      item.type = "episode";
      item.grandparentRatingKey = show->second;
      item.title = path.stem().string();
      std::tie(item.season, item.episode) = seasonEpisode(item.title);
    } else {
      item.type = "movie";
      std::tie(item.title, item.year) = titleAndYear(path.stem().string());
    }
    giveDuration(item);
    auto& added = addItem(std::move(item));
    byFile.emplace(file, added.ratingKey);
    present.insert(added.ratingKey);
  }

  for (auto& [rk, item] : items) {
    if (item.sectionKey != sectionKey || item.files.empty() || !covered(item)) continue;
    if (present.count(rk)) {
      item.trashed = false;
      item.deletedAt.reset();
    } else if (!item.trashed) {
      item.trashed = true;
      item.deletedAt = now;
    }
  }
}

// --- HTTP -------------------------------------------------------------------

bool FakePlexServer::authorised(const Request& r) const {
  const auto header = r.header("X-Plex-Token");
  if (header && header->toStdString() == token) return true;
  return q(r, "X-Plex-Token") == token;
}

const FakePlexServer::Fault* FakePlexServer::faultFor(const Request& r) const {
  const auto path = r.path.toStdString();
  const Fault* best = nullptr;
  size_t bestLength = 0;
  for (const auto& [key, fault] : faults) {
    const auto space = key.find(' ');
    if (space == std::string::npos) continue;
    const auto method = key.substr(0, space);
    const auto prefix = key.substr(space + 1);
    if (method != "*" && method != r.method.toStdString()) continue;
    if (path.rfind(prefix, 0) != 0 || (best && prefix.size() < bestLength)) continue;
    best = &fault;
    bestLength = prefix.size();
  }
  return best;
}

Json FakePlexServer::itemJson(const Item& item, std::optional<size_t> leafCount) const {
  Json j;
  j["ratingKey"] = item.ratingKey;
  j["key"] = "/library/metadata/" + item.ratingKey;
  j["type"] = item.type;
  j["title"] = item.title;
  if (item.year) j["year"] = *item.year;
  if (item.thumb) j["thumb"] = *item.thumb;
  if (item.grandparentRatingKey) j["grandparentRatingKey"] = *item.grandparentRatingKey;
  if (item.season) j["parentIndex"] = *item.season;
  if (item.episode) j["index"] = *item.episode;
  if (leafCount) j["leafCount"] = *leafCount;
  if (item.viewOffset) j["viewOffset"] = *item.viewOffset;
  if (item.duration) j["duration"] = *item.duration;
  if (item.addedAt) j["addedAt"] = *item.addedAt;
  if (item.deletedAt) j["deletedAt"] = *item.deletedAt;
  // Shows carry no media of their own.
  if (item.type != "show" || !item.files.empty()) {
    Json media = Json::object();
    if (item.duration) media["duration"] = *item.duration;
    Json parts = Json::array();
    for (const auto& f : item.files) {
      Json p;
      p["file"] = f;
      parts.push_back(p);
    }
    media["Part"] = parts;
    j["Media"] = Json::array({media});
  }
  if (!item.labels.empty()) {
    Json labels = Json::array();
    for (const auto& l : item.labels) labels.push_back(Json{{"tag", l}});
    j["Label"] = labels;
  }
  return j;
}

void FakePlexServer::routes() {
  onPrefix("*", "/", [this](const Request& r, Reply& reply) {
    completeDueScans();
    const bool open = r.path == "/identity" && r.method == "GET";
    if (!open && !authorised(r)) return reply.send(401, "<html>Unauthorized</html>", {}, "text/html");
    if (forcedStatus) return reply.send(*forcedStatus, "", {}, "text/plain");
    const Fault* fault = faultFor(r);
    if (!fault || fault->applied) {
      const auto answer = handle(r);
      if (!fault) return reply.send(answer.status, answer.body, {}, answer.contentType);
    }
    switch (fault->kind) {
      case Fault::Kind::status:
        return reply.send(fault->status, "", {}, "text/plain");
      case Fault::Kind::malformed:
        return reply.send(fault->status, R"({"MediaContainer":{"size":3,"Metadata":[{"ratingKey":)", {},
                          "application/json");
      case Fault::Kind::hold:
        return reply.hold();
    }
  });
}

FakePlexServer::Answer FakePlexServer::handle(const Request& r) {
  const auto parts = pathParts(r.path);
  const auto& m = r.method;
  auto asJson = [](const Json& value) {
    return Answer{200, QByteArray::fromStdString(json::encode(value)), "application/json"};
  };

  if (parts.empty() && m == "GET") {
    Json mc;
    mc["machineIdentifier"] = machineIdentifier;
    if (username) mc["myPlexUsername"] = *username;
    mc["version"] = version;
    return asJson(container(mc));
  }
  if (parts.size() == 1 && parts[0] == "identity" && m == "GET")
    return asJson(container(
        Json{{"size", 0}, {"claimed", true}, {"machineIdentifier", machineIdentifier}, {"version", version}}));
  if (parts.size() == 2 && parts[0] == ":" && parts[1] == "prefs" && m == "PUT") {
    QUrlQuery query(r.url);
    for (const auto& [k, v] : query.queryItems(QUrl::FullyDecoded))
      if (k != "X-Plex-Token") serverPrefs[k.toStdString()] = v.toStdString();
    return {};
  }
  if (parts.size() == 2 && parts[0] == "status" && parts[1] == "sessions" && m == "GET")
    return asJson(container(sessionsReply));
  if (parts.size() >= 2 && parts[0] == "library" && parts[1] == "sections") return handleSections(r, parts);
  if (parts.size() >= 3 && parts[0] == "library" && parts[1] == "metadata") return handleMetadata(r, parts);
  if (parts.size() >= 2 && parts[0] == "library" && parts[1] == "collections") return handleCollections(r, parts);
  return {404, "", "text/plain"};
}

FakePlexServer::Answer FakePlexServer::handleSections(const Request& r, const std::vector<std::string>& parts) {
  const auto& m = r.method;
  const Answer notFound{404, "", "text/plain"};
  auto asJson = [](const Json& value) {
    return Answer{200, QByteArray::fromStdString(json::encode(value)), "application/json"};
  };

  if (parts.size() == 2 && m == "GET") {
    Json dirs = Json::array();
    for (const auto& [k, s] : sections) {
      Json d;
      d["key"] = s.key;
      if (!s.type.empty()) d["type"] = s.type;
      d["title"] = s.title;
      Json locs = Json::array();
      for (size_t i = 0; i < s.locations.size(); ++i) locs.push_back(Json{{"id", i + 1}, {"path", s.locations[i]}});
      d["Location"] = locs;
      dirs.push_back(d);
    }
    Json mc;
    mc["size"] = dirs.size();
    mc["Directory"] = dirs;
    return asJson(container(mc));
  }
  if (parts.size() == 2 && m == "POST") {
    auto key = std::to_string(sections.size() + 1);
    while (sections.count(key)) key += "0";
    addSection(key, q(r, "name"), q(r, "type"), {q(r, "location")});
    // A new section is scanned at once, as Plex does.
    requestScan(key);
    completeDueScans();
    return {};
  }
  if (parts.size() < 3) return notFound;
  auto sit = sections.find(parts[2]);
  if (sit == sections.end()) return notFound;
  auto& section = sit->second;
  if (parts.size() == 3 && m == "DELETE") {
    const auto key = section.key;
    std::erase_if(items, [&](const auto& entry) { return entry.second.sectionKey == key; });
    std::erase_if(collections, [&](const auto& entry) { return entry.second.sectionKey == key; });
    sections.erase(sit);
    return {};
  }
  if (parts.size() < 4) return notFound;
  const auto& what = parts[3];
  if (what == "prefs" && m == "PUT") {
    QUrlQuery query(r.url);
    for (const auto& [k, v] : query.queryItems(QUrl::FullyDecoded))
      if (k != "X-Plex-Token") section.prefs[k.toStdString()] = v.toStdString();
    return {};
  }
  if (what == "refresh" && m == "GET") {
    ++section.refreshes;
    requestScan(section.key);
    completeDueScans();  // with no delay the scan is over before the answer
    return {};
  }
  if (what == "emptyTrash" && m == "PUT") {
    const auto key = section.key;
    std::erase_if(items, [&](const auto& entry) { return entry.second.sectionKey == key && entry.second.trashed; });
    // Shows left without episodes go too.
    std::unordered_set<std::string> withEpisodes;
    for (const auto& [rk, item] : items)
      if (item.sectionKey == key && item.grandparentRatingKey) withEpisodes.insert(*item.grandparentRatingKey);
    std::erase_if(items, [&](const auto& entry) {
      return entry.second.sectionKey == key && entry.second.type == "show" && !withEpisodes.count(entry.first);
    });
    return {};
  }
  if (what == "label" && m == "GET") {
    std::set<std::string> labels;
    for (const auto& [k, item] : items)
      if (item.sectionKey == section.key) labels.insert(item.labels.begin(), item.labels.end());
    Json dirs = Json::array();
    for (const auto& l : labels) {
      Json d;
      d["key"] = "/library/sections/" + section.key + "/all?label=" + labelId(l);
      d["title"] = l;
      dirs.push_back(d);
    }
    return asJson(container(Json{{"size", dirs.size()}, {"Directory", dirs}}));
  }
  if (what == "collections" && m == "GET") {
    // Smart collections count what their label filter lists: one pass over the
    // section's films gives every label's count.
    std::map<std::string, size_t> perLabel;
    for (const auto& [k, item] : items)
      if (item.sectionKey == section.key && item.type == "movie")
        for (const auto& l : item.labels) ++perLabel[l];
    Json rows = Json::array();
    for (const auto& [k, c] : collections) {
      if (c.sectionKey != section.key) continue;
      Json row;
      row["ratingKey"] = c.ratingKey;
      row["key"] = "/library/collections/" + c.ratingKey + "/children";
      row["type"] = "collection";
      row["title"] = c.title;
      row["smart"] = c.smart ? "1" : "0";
      size_t count = c.members.size();
      if (c.smart) {
        const auto names = labelNames(c.labelId);
        count = 0;
        if (names.size() == 1) {
          count = perLabel[*names.begin()];
        } else if (names.size() > 1) {
          for (const auto& [ik, item] : items)
            if (item.sectionKey == section.key && item.type == "movie")
              for (const auto& n : names)
                if (item.labels.count(n)) {
                  ++count;
                  break;
                }
        }
      }
      row["childCount"] = count;
      rows.push_back(row);
    }
    return asJson(container(Json{{"size", rows.size()}, {"Metadata", rows}}));
  }
  if (what == "all" && m == "GET") {
    const auto type = q(r, "type");
    const auto label = q(r, "label");
    const auto names = label.empty() ? std::set<std::string>{} : labelNames(label);
    // Plex lists the top level of a section by default: films or shows.
    const std::string wanted = type == "4" ? "episode" : type == "2" ? "show" : type == "1" ? "movie" : "";
    std::unordered_map<std::string, size_t> leaves;
    if (wanted == "show" || (wanted.empty() && section.type == "show"))
      for (const auto& [k, item] : items)
        if (item.sectionKey == section.key && item.grandparentRatingKey) ++leaves[*item.grandparentRatingKey];
    Json rows = Json::array();
    for (const auto& [k, item] : items) {
      if (item.sectionKey != section.key) continue;
      if (!wanted.empty() ? item.type != wanted : item.type == "episode") continue;
      if (!label.empty() &&
          std::none_of(names.begin(), names.end(), [&](const auto& n) { return item.labels.count(n); }))
        continue;
      std::optional<size_t> leafCount;
      if (item.type == "show") leafCount = leaves[item.ratingKey];
      rows.push_back(itemJson(item, leafCount));
    }
    return asJson(container(Json{{"size", rows.size()}, {"Metadata", rows}}));
  }
  if (what == "all" && m == "PUT") {
    const auto edits = labelEdits(r);
    for (const auto& id : splitList(q(r, "id"))) {
      auto it = items.find(id);
      if (it != items.end() && it->second.sectionKey == section.key) edits.apply(it->second);
    }
    return {};
  }
  return notFound;
}

// Label edits as Plex takes them: "label[0].tag.tag=A" adds, "label[].tag.tag-=A,B" removes.
FakePlexServer::LabelEdits FakePlexServer::labelEdits(const Request& r) const {
  LabelEdits edits;
  QUrlQuery query(r.url);
  for (const auto& [k, v] : query.queryItems(QUrl::FullyDecoded)) {
    const auto key = k.toStdString();
    if (key.rfind("label[", 0) != 0) continue;
    const auto value = v.toStdString();
    if (key.size() > 9 && key.compare(key.size() - 9, 9, ".tag.tag-") == 0) {
      for (const auto& l : splitList(value)) edits.removed.push_back(l);
    } else if (key.size() > 8 && key.compare(key.size() - 8, 8, ".tag.tag") == 0 && !value.empty()) {
      labelId(value);
      edits.added.push_back(value);
    }
  }
  return edits;
}

void FakePlexServer::LabelEdits::apply(Item& item) const {
  for (const auto& l : added) item.labels.insert(l);
  for (const auto& l : removed) item.labels.erase(l);
}

FakePlexServer::Answer FakePlexServer::handleMetadata(const Request& r, const std::vector<std::string>& parts) {
  const auto& m = r.method;
  const Answer notFound{404, "", "text/plain"};
  auto it = items.find(parts[2]);
  if (it == items.end()) return notFound;
  auto& item = it->second;
  if (parts.size() == 3 && m == "GET") {
    Json row = itemJson(item);
    return {200,
            QByteArray::fromStdString(json::encode(container(Json{{"size", 1}, {"Metadata", Json::array({row})}}))),
            "application/json"};
  }
  if (parts.size() == 3 && m == "PUT") {
    labelEdits(r).apply(item);
    return {};
  }
  if (parts.size() == 3 && m == "DELETE") {
    // Plex refuses with 400 when deleting media is not allowed.
    if (item.refuseDelete) return {400, "", "text/plain"};
    removeItem(item.ratingKey);
    return {};
  }
  if (parts.size() == 4 && parts[3] == "refresh") return {};
  if (parts.size() == 4 && parts[3] == "analyze" && m == "PUT") {
    ++analyzeRequests[item.ratingKey];
    if (!item.duration) giveDuration(item);
    return {};
  }
  return notFound;
}

FakePlexServer::Answer FakePlexServer::handleCollections(const Request& r, const std::vector<std::string>& parts) {
  const auto& m = r.method;
  const Answer notFound{404, "", "text/plain"};
  if (parts.size() == 2 && m == "POST") {
    Collection c;
    c.ratingKey = nextKey();
    c.title = q(r, "title");
    c.smart = q(r, "smart") == "1";
    c.sectionKey = q(r, "sectionId");
    c.uri = q(r, "uri");
    if (c.smart) {
      c.labelId = uriQueryValue(c.uri, "label");
    } else if (const auto at = c.uri.find("/library/metadata/"); at != std::string::npos) {
      c.members = splitList(c.uri.substr(at + 18));
    }
    collections[c.ratingKey] = c;
    Json row;
    row["ratingKey"] = c.ratingKey;
    row["key"] = "/library/collections/" + c.ratingKey + "/children";
    row["type"] = "collection";
    row["title"] = c.title;
    row["smart"] = c.smart ? "1" : "0";
    return {200,
            QByteArray::fromStdString(json::encode(container(Json{{"size", 1}, {"Metadata", Json::array({row})}}))),
            "application/json"};
  }
  if (parts.size() < 3) return notFound;
  auto cit = collections.find(parts[2]);
  if (cit == collections.end()) return notFound;
  if (parts.size() == 3 && m == "DELETE") {
    collections.erase(cit);
    return {};
  }
  if (parts.size() == 4 && parts[3] == "children" && m == "GET") {
    const auto& c = cit->second;
    Json rows = Json::array();
    if (c.smart) {
      const auto names = labelNames(c.labelId);
      for (const auto& [k, item] : items)
        if (item.sectionKey == c.sectionKey && item.type == "movie" &&
            std::any_of(names.begin(), names.end(), [&](const auto& n) { return item.labels.count(n); }))
          rows.push_back(itemJson(item));
    } else {
      for (const auto& rk : c.members)
        if (auto it = items.find(rk); it != items.end()) rows.push_back(itemJson(it->second));
    }
    return {200, QByteArray::fromStdString(json::encode(container(Json{{"size", rows.size()}, {"Metadata", rows}}))),
            "application/json"};
  }
  return notFound;
}

}  // namespace vt::test
