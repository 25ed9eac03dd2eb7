#include "app/ControlSocket.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>
#include <algorithm>

#include "app/Publishing.h"
#include "app/VantoryApp.h"
#include "catalog/CatalogStore.h"
#include "catalog/CatalogSync.h"
#include "catalog/StremioCatalogClient.h"
#include "engine/EngineSupervisor.h"
#include "platform/Endpoints.h"
#include "platform/Http.h"
#include "platform/Log.h"

namespace vt {

// A request line longer than this is refused, so that a client can't make
// the application hold what it sends without end.
constexpr qsizetype kMaxRequestBytes = 64 << 10;

// One connection --------------------------------------------------------------

struct ControlReply::State {
  QPointer<QLocalSocket> socket;
  bool ended = false;
  std::vector<std::function<void()>> gone;
};

ControlReply::ControlReply(QLocalSocket* socket) : state_(std::make_shared<State>()) {
  state_->socket = socket;
  std::weak_ptr<State> weak = state_;
  QObject::connect(socket, &QLocalSocket::disconnected, socket, [weak] {
    const auto state = weak.lock();
    if (!state || state->ended) return;
    state->ended = true;
    for (const auto& fn : std::exchange(state->gone, {})) fn();
  });
}

bool ControlReply::isOpen() const { return !state_->ended && state_->socket; }

void ControlReply::send(const Json& line) const {
  if (!isOpen()) return;
  state_->socket->write(QByteArray::fromStdString(json::encode(line) + "\n"));
  state_->socket->flush();
}

void ControlReply::end() const {
  if (!isOpen()) return;
  state_->ended = true;
  state_->gone.clear();
  state_->socket->disconnectFromServer();
}

void ControlReply::onGone(std::function<void()> fn) const {
  if (!isOpen()) {
    fn();
    return;
  }
  state_->gone.push_back(std::move(fn));
}

ControlServer::ControlServer(std::string path, Handler handler)
    : path_(std::move(path)), server_(std::make_unique<QLocalServer>()) {
  const auto name = QString::fromStdString(path_);
  // A socket file left by an application that crashed would block listening.
  QLocalServer::removeServer(name);
  server_->setSocketOptions(QLocalServer::UserAccessOption);
  if (!server_->listen(name)) {
    logLine("[Vantory] no control socket at " + path_ + ": " + server_->errorString().toStdString());
    return;
  }
  QObject::connect(server_.get(), &QLocalServer::newConnection, server_.get(),
                   [server = server_.get(), handler = std::move(handler)] {
                     while (auto* socket = server->nextPendingConnection()) {
                       QObject::connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
                       auto buffer = std::make_shared<QByteArray>();
                       QObject::connect(socket, &QLocalSocket::readyRead, socket, [socket, buffer, handler] {
                         buffer->append(socket->readAll());
                         // One request a connection: the first full line.
                         const auto newline = buffer->indexOf('\n');
                         if (newline < 0 && buffer->size() > kMaxRequestBytes) {
                           QObject::disconnect(socket, &QLocalSocket::readyRead, nullptr, nullptr);
                           const ControlReply reply(socket);
                           reply.send(Json{{"ok", false}, {"error", "the request is too long"}});
                           reply.end();
                           return;
                         }
                         if (newline < 0) return;
                         const auto line = buffer->left(newline).toStdString();
                         QObject::disconnect(socket, &QLocalSocket::readyRead, nullptr, nullptr);
                         const ControlReply reply(socket);
                         const auto request = json::parse(line);
                         if (!request || !request->is_object()) {
                           reply.send(Json{{"ok", false}, {"error", "the request is not a JSON object"}});
                           reply.end();
                           return;
                         }
                         try {
                           handler(*request, reply);
                         } catch (const std::exception& e) {
                           reply.send(Json{{"ok", false}, {"error", std::string("the request failed: ") + e.what()}});
                           reply.end();
                         }
                       });
                     }
                   });
}

ControlServer::~ControlServer() {
  if (server_->isListening()) server_->close();
}

bool ControlServer::isListening() const { return server_->isListening(); }

// The requests --------------------------------------------------------------------

namespace {

Json failure(const std::string& text) { return Json{{"ok", false}, {"error", text}}; }

const char* stateName(EngineState s) {
  switch (s) {
    case EngineState::stopped:
      return "stopped";
    case EngineState::starting:
      return "starting";
    case EngineState::running:
      return "running";
    case EngineState::stopping:
      return "stopping";
    case EngineState::failed:
      return "failed";
  }
  return "stopped";
}

const char* stageName(WatchNowService::Phase::Kind k) {
  using K = WatchNowService::Phase::Kind;
  switch (k) {
    case K::failed:
      return "failed";
    case K::resolving:
      return "resolving";
    case K::publishing:
      return "publishing";
    case K::ready:
      return "ready";
  }
  return "failed";
}

bool isDigits(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A request's text field; empty when it is missing or not text.
std::string textOf(const Json& request, const char* key) {
  const auto it = request.find(key);
  return it != request.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// A film's IMDb id, or an episode key with unpadded numbers.
struct WatchId {
  std::string imdb;
  std::optional<EpisodeNumber> episode;
};
std::optional<WatchId> readWatchId(const std::string& text) {
  std::vector<std::string> parts;
  size_t from = 0;
  while (true) {
    const auto colon = text.find(':', from);
    parts.push_back(text.substr(from, colon == std::string::npos ? std::string::npos : colon - from));
    if (colon == std::string::npos) break;
    from = colon + 1;
  }
  if (parts[0].size() < 3 || !parts[0].starts_with("tt") || !isDigits(std::string_view(parts[0]).substr(2)))
    return std::nullopt;
  if (parts.size() == 1) return WatchId{parts[0], std::nullopt};
  if (parts.size() != 3 || !isDigits(parts[1]) || !isDigits(parts[2]) || parts[1].size() > 4 || parts[2].size() > 5)
    return std::nullopt;
  // Unpadded numbers, as every episode key is written.
  if ((parts[1].size() > 1 && parts[1][0] == '0') || (parts[2].size() > 1 && parts[2][0] == '0')) return std::nullopt;
  return WatchId{parts[0], EpisodeNumber{std::stoi(parts[1]), std::stoi(parts[2])}};
}

}  // namespace

ControlRequests::ControlRequests(VantoryApp& app) : app_(app) {}

ControlRequests::~ControlRequests() {
  *alive_ = false;
  jobs_.cancelAll();
}

void ControlRequests::handle(const Json& request, ControlReply reply) {
  const std::string verb = textOf(request, "verb");
  if (verb == "watch") {
    watch(textOf(request, "id"), reply);
  } else if (verb == "status") {
    reply.send(Json{{"ok", true}, {"status", status()}});
    reply.end();
  } else if (verb == "subscribe") {
    subscribe(request, reply);
  } else if (verb == "unsubscribe") {
    unsubscribe(textOf(request, "collection"), reply);
  } else {
    reply.send(failure("unknown request '" + verb + "'"));
    reply.end();
  }
}

void ControlRequests::watch(const std::string& text, ControlReply reply) {
  auto fail = [&](const std::string& why) {
    reply.send(Json{{"stage", "failed"}, {"text", why}});
    reply.end();
  };
  const auto id = readWatchId(text);
  if (!id) return fail("'" + text + "' is neither an IMDb id (tt0111161) nor an episode key (tt0944947:1:1)");
  auto* service = app_.watchNow();
  if (!service) return fail("the watch button is not part of this build");
  if (!service->isConnected())
    return fail("Vantory isn't connected yet: it needs the Plex token, the Plex server's name and a Real-Debrid key");

  // The name the notification shows: the catalog's record, else Cinemeta's.
  jobs_.start([this, id = *id, reply, alive = alive_](CancelToken token) -> QCoro::Task<> {
    const bool episode = id.episode.has_value();
    std::string name;
    if (auto* catalog = dynamic_cast<CatalogStore*>(&app_.catalog()))
      if (const auto* meta = catalog->meta(id.imdb); meta && !meta->name.empty()) name = meta->name;
    if (name.empty()) {
      StremioCatalogClient client(app_.http(), QUrl(QString::fromStdString(endpoints().cinemeta)));
      std::string type = episode ? "series" : "movie";
      std::string imdb = id.imdb;
      const auto meta = co_await client.meta(std::move(type), std::move(imdb), token);
      if (token.isCancelled() || !*alive) co_return;
      if (meta && !meta->name.empty()) name = meta->name;
    }
    if (name.empty()) name = id.imdb;
    auto* service = app_.watchNow();
    if (!service) co_return;
    std::string key = id.imdb;
    if (episode) {
      key += ":" + std::to_string(id.episode->season) + ":" + std::to_string(id.episode->episode);
      service->watch(WatchNowService::Episode{{id.imdb, name}, *id.episode});
    } else {
      service->watch(WatchNowService::Film{id.imdb, name});
    }
    followJob(key, reply);
  });
}

void ControlRequests::followJob(const std::string& id, ControlReply reply) {
  auto* service = app_.watchNow();
  struct Seen {
    std::optional<WatchNowService::Phase> phase;
    QMetaObject::Connection connection;
  };
  auto seen = std::make_shared<Seen>();
  auto report = [service, id, reply, seen] {
    const auto* job = service->job(id);
    if (!job) {
      reply.send(Json{{"stage", "failed"},
                      {"text", "the press was dropped (no engine to publish through, or it was removed)"}});
      reply.end();
    } else if (!seen->phase || *seen->phase != job->phase) {
      seen->phase = job->phase;
      Json line{{"stage", stageName(job->phase.kind)}, {"text", message(job->phase)}};
      if (job->phase.kind == WatchNowService::Phase::Kind::ready) {
        line["text"] = job->displayName + " is ready to watch.";
        if (job->openURL) line["url"] = *job->openURL;
      }
      reply.send(line);
      if (!job->phase.isActive()) reply.end();
    }
    if (!reply.isOpen()) QObject::disconnect(seen->connection);
  };
  seen->connection = QObject::connect(service, &WatchNowService::jobsChanged, service, report);
  reply.onGone([seen] { QObject::disconnect(seen->connection); });
  report();
}

Json ControlRequests::status() const {
  Json out = Json::object();
  auto* engine = dynamic_cast<EngineSupervisor*>(&app_.engine());
  Json engines = Json::array();
  if (engine) {
    auto row = [&](const char* kind, const EngineInstance* instance, EngineKind k) {
      Json e{{"kind", kind}, {"state", instance ? stateName(instance->state) : "stopped"}};
      const auto problem = engine->mediaServerAccessProblem(k);
      e["plexCanRead"] = !problem.has_value();
      if (problem) e["plexAccessProblem"] = *problem;
      return e;
    };
    engines.push_back(row("movie", &engine->movie(), EngineKind::movie));
    engines.push_back(row("tv", engine->tvInstanceIfAny(), EngineKind::tv));
    out["engines"] = engines;
    out["lastError"] = engine->lastError() ? Json(*engine->lastError()) : Json(nullptr);
  } else {
    out["engines"] = Json::array({Json{{"kind", "movie"}, {"state", stateName(app_.engine().movieState())}}});
    out["lastError"] = nullptr;
  }
  auto& vm = app_.viewModel();
  out["plex"] = Json{{"reachable", vm.reachable()},
                     {"needsReauth", vm.needsReauth()},
                     {"lastError", vm.lastError() ? Json(*vm.lastError()) : Json(nullptr)}};
  Json collections = Json::array();
  if (auto* catalog = dynamic_cast<CatalogStore*>(&app_.catalog())) {
    const auto& library = app_.library();
    for (const auto& c : catalog->collections()) {
      Json source{{"kind", std::string(kindName(c.source.kind))}, {"name", c.source.displayName()}};
      if (c.source.kind == CollectionSource::Kind::stremioCatalog) {
        source["addon"] = c.source.addonBaseURL;
        source["type"] = c.source.type;
        source["catalog"] = c.source.catalogId;
        if (c.source.genre) source["genre"] = *c.source.genre;
      }
      const auto delivery = catalog->delivery(c.id);
      Json row{{"id", c.id},
               {"name", c.name},
               {"source", source},
               {"items", c.itemImdbIds.size()},
               {"inLibrary", catalog->resolvedCount(c, library)},
               {"published", catalog->isMaterialised(c.id)},
               {"staging", catalog->isStaging(c.id)},
               {"delivery", Json{{"playable", delivery && delivery->playable},
                                 {"metadataReady", delivery && delivery->metadataReady}}}};
      collections.push_back(row);
    }
  }
  out["collections"] = collections;
  Json watching = Json::array();
  if (auto* service = app_.watchNow())
    for (const auto& [id, job] : service->jobs())
      watching.push_back(Json{{"id", id}, {"stage", stageName(job.phase.kind)}, {"text", message(job.phase)}});
  out["watch"] = watching;
  return out;
}

void ControlRequests::subscribe(const Json& request, ControlReply reply) {
  auto* catalog = dynamic_cast<CatalogStore*>(&app_.catalog());
  auto* publishing = dynamic_cast<Publishing*>(app_.publishing());
  if (!catalog || !catalog->sync() || !publishing) {
    reply.send(failure("following lists is not part of this build"));
    reply.end();
    return;
  }
  const std::string addon = textOf(request, "addon");
  const std::string type = textOf(request, "type");
  const std::string catalogId = textOf(request, "catalog");
  if (addon.empty() || type.empty() || catalogId.empty()) {
    reply.send(failure("a subscription needs the add-on's address, the type and the catalog id"));
    reply.end();
    return;
  }
  std::optional<std::string> genre;
  if (request.contains("genre") && request["genre"].is_string()) genre = request["genre"].get<std::string>();
  int maxItems = CatalogCollection{}.maxItems;
  if (request.contains("max") && request["max"].is_number_integer())
    maxItems = static_cast<int>(std::clamp<int64_t>(request["max"].get<int64_t>(), 0, 100000));
  if (maxItems < 1) {
    reply.send(failure("--max must be at least 1"));
    reply.end();
    return;
  }
  const auto source = CollectionSource::stremioCatalog(addon, type, catalogId, genre);
  for (const auto& c : catalog->collections())
    if (c.source == source) {
      reply.send(failure("already subscribed as \"" + c.name + "\""));
      reply.end();
      return;
    }
  CatalogCollection collection{.id = newCollectionId(),
                               .name = catalog->uniqueName(source.displayName()),
                               .source = source,
                               .maxItems = maxItems};
  catalog->upsert(collection);
  jobs_.start([this, id = collection.id, reply, alive = alive_](CancelToken token) -> QCoro::Task<> {
    auto* catalog = dynamic_cast<CatalogStore*>(&app_.catalog());
    const bool filled = co_await catalog->sync()->syncCatalog(id, false, token);
    if (token.isCancelled() || !*alive) co_return;
    const auto* stored = catalog->collection(id);
    if (!filled || !stored) {
      catalog->deleteCollection(id);
      reply.send(failure("the catalog couldn't be fetched; nothing was subscribed"));
      reply.end();
      co_return;
    }
    const CatalogCollection filledCollection = *stored;
    catalog->materialise(filledCollection);
    auto* publishing = dynamic_cast<Publishing*>(app_.publishing());
    publishing->passes().resolveAndPublish({filledCollection}, {}, true);
    reply.send(Json{{"ok", true},
                    {"id", filledCollection.id},
                    {"name", filledCollection.name},
                    {"items", filledCollection.itemImdbIds.size()}});
    reply.end();
  });
}

void ControlRequests::unsubscribe(const std::string& nameOrId, ControlReply reply) {
  auto* catalog = dynamic_cast<CatalogStore*>(&app_.catalog());
  const CatalogCollection* found = nullptr;
  if (catalog) {
    found = catalog->collection(nameOrId);
    if (!found)
      for (const auto& c : catalog->collections())
        if (c.name == nameOrId) found = &c;
  }
  if (!found) {
    reply.send(failure("no collection is named or has the id '" + nameOrId + "'"));
    reply.end();
    return;
  }
  if (found->source.kind == CollectionSource::Kind::library ||
      found->source.kind == CollectionSource::Kind::watchlist) {
    reply.send(failure("\"" + found->name + "\" is a system collection and can't be removed"));
    reply.end();
    return;
  }
  const CatalogCollection removed = *found;
  catalog->deleteCollection(removed.id);
  if (catalog->collection(removed.id)) {
    reply.send(failure("the catalog kept \"" + removed.name + "\""));
    reply.end();
    return;
  }
  // Plex follows: the list's collection and what nothing holds any more go.
  app_.engine().kickPlexSync();
  reply.send(Json{{"ok", true}, {"id", removed.id}, {"name", removed.name}});
  reply.end();
}

}  // namespace vt
