#include "fakes/FakePlexServer.h"

#include <QUrlQuery>

namespace vt::test {

namespace {

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

}  // namespace

FakePlexServer::FakePlexServer(std::string tokenValue) : token(std::move(tokenValue)) { routes(); }

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

std::string FakePlexServer::labelId(const std::string& label) const {
  auto [it, inserted] = labelIds_.try_emplace(label, 500 + static_cast<int>(labelIds_.size()));
  return std::to_string(it->second);
}

std::vector<const FakePlexServer::Item*> FakePlexServer::itemsWithLabel(const std::string& sectionKey,
                                                                        const std::string& label) const {
  std::vector<const Item*> out;
  for (const auto& [k, item] : items)
    if (item.sectionKey == sectionKey && item.labels.count(label)) out.push_back(&item);
  return out;
}

bool FakePlexServer::authorised(const Request& r) const {
  const auto header = r.header("X-Plex-Token");
  if (header && header->toStdString() == token) return true;
  return q(r, "X-Plex-Token") == token;
}

Json FakePlexServer::itemJson(const Item& item) const {
  Json j;
  j["ratingKey"] = item.ratingKey;
  j["type"] = item.type;
  j["title"] = item.title;
  if (item.year) j["year"] = *item.year;
  if (item.thumb) j["thumb"] = *item.thumb;
  if (item.grandparentRatingKey) j["grandparentRatingKey"] = *item.grandparentRatingKey;
  if (item.viewOffset) j["viewOffset"] = *item.viewOffset;
  if (item.duration) j["duration"] = *item.duration;
  if (item.addedAt) j["addedAt"] = *item.addedAt;
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
  if (!item.labels.empty()) {
    Json labels = Json::array();
    for (const auto& l : item.labels) labels.push_back(Json{{"tag", l}});
    j["Label"] = labels;
  }
  return j;
}

void FakePlexServer::routes() {
  onPrefix("*", "/", [this](const Request& r, Reply& reply) {
    if (!authorised(r)) return reply.send(401, "<html>Unauthorized</html>", {}, "text/html");
    if (forcedStatus) return reply.send(*forcedStatus, "", {}, "text/plain");
    const auto parts = pathParts(r.path);
    const auto& m = r.method;
    auto notFound = [&] { reply.send(404, "", {}, "text/plain"); };
    auto ok = [&] { reply.send(200, "", {}, "text/plain"); };

    if (parts.empty() && m == "GET") {
      Json mc;
      mc["machineIdentifier"] = machineIdentifier;
      if (username) mc["myPlexUsername"] = *username;
      mc["version"] = "1.40.0.0000";
      return reply.json(container(mc));
    }
    if (parts.size() == 2 && parts[0] == ":" && parts[1] == "prefs" && m == "PUT") {
      QUrlQuery query(r.url);
      for (const auto& [k, v] : query.queryItems(QUrl::FullyDecoded))
        if (k != "X-Plex-Token") serverPrefs[k.toStdString()] = v.toStdString();
      return ok();
    }
    if (parts.size() == 2 && parts[0] == "status" && parts[1] == "sessions" && m == "GET")
      return reply.json(container(sessionsReply));

    if (parts.size() >= 2 && parts[0] == "library" && parts[1] == "sections") {
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
        return reply.json(container(mc));
      }
      if (parts.size() == 2 && m == "POST") {
        auto key = std::to_string(sections.size() + 1);
        while (sections.count(key)) key += "0";
        addSection(key, q(r, "name"), q(r, "type"), {q(r, "location")});
        return ok();
      }
      if (parts.size() < 4) return notFound();
      auto sit = sections.find(parts[2]);
      if (sit == sections.end()) return notFound();
      auto& section = sit->second;
      const auto& what = parts[3];
      if (what == "prefs" && m == "PUT") {
        QUrlQuery query(r.url);
        for (const auto& [k, v] : query.queryItems(QUrl::FullyDecoded))
          if (k != "X-Plex-Token") section.prefs[k.toStdString()] = v.toStdString();
        return ok();
      }
      if (what == "refresh" && m == "GET") {
        ++section.refreshes;
        return ok();
      }
      if (what == "emptyTrash" && m == "PUT") return ok();
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
        return reply.json(container(Json{{"Directory", dirs}}));
      }
      if (what == "collections" && m == "GET") {
        Json rows = Json::array();
        for (const auto& [k, c] : collections) {
          if (c.sectionKey != section.key) continue;
          Json row;
          row["ratingKey"] = c.ratingKey;
          row["title"] = c.title;
          row["smart"] = c.smart ? "1" : "0";
          size_t count = 0;
          if (c.smart)
            for (const auto& [ik, item] : items)
              for (const auto& l : item.labels)
                if (item.sectionKey == c.sectionKey && labelId(l) == c.labelId) ++count;
          row["childCount"] = count;
          rows.push_back(row);
        }
        return reply.json(container(Json{{"Metadata", rows}}));
      }
      if (what == "all" && m == "GET") {
        const auto type = q(r, "type");
        const auto label = q(r, "label");
        Json rows = Json::array();
        for (const auto& [k, item] : items) {
          if (item.sectionKey != section.key) continue;
          // Plex lists the top level of a section by default: films or shows.
          const std::string wanted = type == "4" ? "episode" : type == "2" ? "show" : type == "1" ? "movie" : "";
          if (!wanted.empty() ? item.type != wanted : item.type == "episode") continue;
          if (!label.empty()) {
            bool has = false;
            for (const auto& l : item.labels) has = has || labelId(l) == label;
            if (!has) continue;
          }
          rows.push_back(itemJson(item));
        }
        return reply.json(container(Json{{"size", rows.size()}, {"Metadata", rows}}));
      }
      if (what == "all" && m == "PUT") {
        const auto label = q(r, "label[0].tag.tag");
        for (const auto& id : QString::fromStdString(q(r, "id")).split(',', Qt::SkipEmptyParts)) {
          auto it = items.find(id.toStdString());
          if (it != items.end() && !label.empty()) it->second.labels.insert(label);
        }
        return ok();
      }
      return notFound();
    }

    if (parts.size() >= 3 && parts[0] == "library" && parts[1] == "metadata") {
      auto it = items.find(parts[2]);
      if (it == items.end()) return notFound();
      if (parts.size() == 3 && m == "GET")
        return reply.json(container(Json{{"Metadata", Json::array({itemJson(it->second)})}}));
      if (parts.size() == 3 && m == "PUT") {
        const auto removed = q(r, "label[0].tag.tag-");
        if (!removed.empty()) it->second.labels.erase(removed);
        return ok();
      }
      if (parts.size() == 3 && m == "DELETE") {
        items.erase(it);
        return ok();
      }
      if (parts.size() == 4 && (parts[3] == "refresh" || parts[3] == "analyze")) return ok();
      return notFound();
    }

    if (parts.size() >= 2 && parts[0] == "library" && parts[1] == "collections") {
      if (parts.size() == 2 && m == "POST") {
        Collection c;
        c.ratingKey = nextKey();
        c.title = q(r, "title");
        c.smart = q(r, "smart") == "1";
        c.sectionKey = q(r, "sectionId");
        c.uri = q(r, "uri");
        const auto labelAt = c.uri.find("label=");
        if (labelAt != std::string::npos) {
          const auto end = c.uri.find('&', labelAt);
          c.labelId = c.uri.substr(labelAt + 6, end == std::string::npos ? std::string::npos : end - labelAt - 6);
        }
        collections[c.ratingKey] = c;
        Json row;
        row["ratingKey"] = c.ratingKey;
        row["title"] = c.title;
        row["smart"] = true;
        return reply.json(container(Json{{"Metadata", Json::array({row})}}));
      }
      if (parts.size() == 3 && m == "DELETE") {
        if (!collections.erase(parts[2])) return notFound();
        return ok();
      }
    }
    notFound();
  });
}

}  // namespace vt::test
