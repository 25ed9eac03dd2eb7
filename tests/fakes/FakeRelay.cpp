#include "fakes/FakeRelay.h"

namespace vt::test {

namespace {

std::optional<Json> record(const FakeHttpServer::Request& r) {
  auto j = json::parse(std::string_view(r.body.constData(), r.body.size()));
  if (!j || !j->is_object()) return std::nullopt;
  return j;
}

bool isText(const Json& j, const char* key) { return j.contains(key) && j[key].is_string(); }

}  // namespace

bool FakeRelay::misbehave(Reply& reply) {
  switch (mode) {
    case Mode::normal:
      return false;
    case Mode::budget:
      reply.send(429, budgetBody, {}, "application/json");
      return true;
    case Mode::tooMany:
      reply.send(429, tooManyBody, {}, "application/json");
      return true;
    case Mode::serverError:
      reply.send(503, "upstream unavailable");
      return true;
    case Mode::slow:
      reply.hold();
      return true;
    case Mode::malformed:
      reply.send(200, R"({"asset": {"kind": )", {}, "application/json");
      return true;
  }
  return false;
}

FakeRelay::FakeRelay() {
  on("POST", "/subtitles/lookup", [this](const Request& r, Reply& reply) {
    if (misbehave(reply)) return;
    auto j = record(r);
    if (!j || !isText(*j, "asset") || !j->contains("targets") || !(*j)["targets"].is_array()) {
      ++rejected;
      reply.send(400, "bad lookup");
      return;
    }
    Json out = Json::object();
    Json found = Json::object();
    auto asset = assets.find((*j)["asset"].get<std::string>());
    if (asset != assets.end()) {
      out["asset"] = asset->second;
      const auto& winner = asset->second.contains("winner") ? asset->second["winner"] : Json();
      if (winner.is_object() && isText(winner, "fileId")) {
        for (const auto& target : (*j)["targets"]) {
          if (!target.is_string()) continue;
          auto t = translations.find(winner["fileId"].get<std::string>() + "|" + target.get<std::string>());
          if (t != translations.end()) found[target.get<std::string>()] = t->second;
        }
      }
    }
    out["translations"] = std::move(found);
    reply.json(out);
  });
  on("POST", "/subtitles/store/asset", [this](const Request& r, Reply& reply) {
    if (misbehave(reply)) return;
    auto j = record(r);
    if (!j || !isText(*j, "asset") || !j->contains("entry") || !(*j)["entry"].is_object()) {
      ++rejected;
      reply.send(400, "bad asset record");
      return;
    }
    assets[(*j)["asset"].get<std::string>()] = (*j)["entry"];
    reply.json(Json{{"ok", true}});
  });
  on("POST", "/subtitles/store/translation", [this](const Request& r, Reply& reply) {
    if (misbehave(reply)) return;
    auto j = record(r);
    if (!j || !isText(*j, "fileId") || !isText(*j, "target") || !j->contains("entry") || !(*j)["entry"].is_object()) {
      ++rejected;
      reply.send(400, "bad translation record");
      return;
    }
    translations[(*j)["fileId"].get<std::string>() + "|" + (*j)["target"].get<std::string>()] = (*j)["entry"];
    reply.json(Json{{"ok", true}});
  });
  auto service = [this](const Request&, Reply& reply) {
    if (misbehave(reply)) return;
    reply.json(serviceReply);
  };
  onPrefix("*", "/subtitles/opensubtitles/", service);
  on("*", "/subtitles/asr", service);
  on("*", "/subtitles/llm", service);
}

}  // namespace vt::test
