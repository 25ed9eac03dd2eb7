#include "lab/Lab.h"

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <set>

#include <QRandomGenerator>
#include <QTcpServer>

#include "catalog/CatalogStore.h"
#include "core/AppConfig.h"
#include "fakes/FakeCatalogAddon.h"
#include "fakes/FakeCinemeta.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakePlexAccount.h"
#include "fakes/FakePlexServer.h"
#include "fakes/FakeRealDebrid.h"
#include "fakes/FakeRelay.h"
#include "fakes/FakeStreamAddon.h"
#include "lab/LabPlexPage.h"
#include "platform/Clock.h"
#include "platform/Settings.h"

namespace vt::lab {

namespace {

namespace fs = std::filesystem;
using test::FakeHttpServer;

std::string origin(const FakeHttpServer& server) { return server.baseUrl().toString().toStdString(); }

std::string randomHex(int bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < bytes; ++i) {
    const auto b = QRandomGenerator::system()->generate() & 0xff;
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

// A port on 127.0.0.1 that is free, with the one two above it free too
// (the series engine's: control and NFS ports come in such pairs).
int freeControlPort(int besides = 0) {
  for (int tries = 0; tries < 50; ++tries) {
    QTcpServer first;
    if (!first.listen(QHostAddress::LocalHost, 0)) continue;
    if (besides && std::abs(first.serverPort() - besides) <= 2) continue;
    QTcpServer second;
    if (second.listen(QHostAddress::LocalHost, first.serverPort() + 2)) return first.serverPort();
  }
  return 0;
}

test::FakeStreamAddon::Release addonRelease(const LabRelease& r) {
  test::FakeStreamAddon::Release out;
  out.filename = r.filename;
  out.bytes = r.bytes;
  out.infoHash = r.hash;
  out.cached = r.cached;
  out.seeders = r.seeders;
  out.resolution = r.resolution;
  return out;
}

Json filmMeta(const LabFilm& f) {
  Json m;
  m["id"] = f.id;
  m["imdb_id"] = f.id;
  m["type"] = "movie";
  m["name"] = f.title;
  m["year"] = f.year;
  m["releaseInfo"] = f.year;
  m["released"] = f.released;
  m["runtime"] = f.runtime;
  m["genres"] = f.genres;
  m["country"] = "United States";
  return m;
}

// The row a catalog lists, as Cinemeta-backed catalogs send it.
Json catalogRow(const LabFilm& f) {
  return Json{{"id", f.id},        {"imdb_id", f.id},       {"type", "movie"},
              {"name", f.title},   {"releaseInfo", f.year}, {"released", f.released},
              {"genres", f.genres}};
}

}  // namespace

// --- ServerThread -------------------------------------------------------------

ServerThread::ServerThread(const char* name) : context_(std::make_unique<QObject>()) {
  thread_.setObjectName(QString::fromLatin1(name));
  context_->moveToThread(&thread_);
  thread_.start();
}

ServerThread::~ServerThread() {
  thread_.quit();
  thread_.wait();
}

void ServerThread::run(const std::function<void()>& work) {
  // A server that can't listen throws: the caller hears of it, the thread goes on.
  std::exception_ptr failure;
  QMetaObject::invokeMethod(
      context_.get(),
      [&] {
        try {
          work();
        } catch (...) {
          failure = std::current_exception();
        }
      },
      Qt::BlockingQueuedConnection);
  if (failure) std::rethrow_exception(failure);
}

// --- Lab ----------------------------------------------------------------------

std::string Lab::filePath(const LabRelease& release) { return "/d/" + release.hash + "/" + release.filename; }

Lab::Lab(const LabWorld& world, std::map<std::string, QByteArray> clips, const std::string& home, LabOptions options)
    : world_(world), clips_(std::move(clips)) {
  // With a port base the addresses stay the same from one start to the next,
  // in this order: Real-Debrid, its file host, Plex, the Plex account,
  // Cinemeta, the catalog add-on, Torrentio, Comet, MediaFusion, the relay,
  // then the engines' control ports (base+10 and base+12) and NFS ports (base+14 and base+16).
  FakeHttpServer::listenFrom(static_cast<quint16>(options.portBase));
  addresses_.rdKey = "lab" + randomHex(16);
  addresses_.plexToken = "lab" + randomHex(12);
  addresses_.serverName = "Vantory Lab";
  startFiles();
  startPlex(home);
  cinemeta_ = std::make_unique<test::FakeCinemeta>();
  catalog_ = std::make_unique<test::FakeCatalogAddon>();
  torrentio_ = std::make_unique<test::FakeStreamAddon>(test::FakeStreamAddon::Family::torrentio);
  comet_ = std::make_unique<test::FakeStreamAddon>(test::FakeStreamAddon::Family::comet);
  mediafusion_ = std::make_unique<test::FakeStreamAddon>(test::FakeStreamAddon::Family::mediafusion);
  relay_ = std::make_unique<test::FakeRelay>();
  FakeHttpServer::listenFrom(0);
  addresses_.controlPort = options.portBase ? options.portBase + 10 : freeControlPort();
  // Away from 12049 and 12051, where the user's own Vantory serves.
  addresses_.nfsPort = options.portBase ? options.portBase + 14 : freeControlPort(addresses_.controlPort);

  torrentio_->config = "realdebrid=" + addresses_.rdKey;
  fillAddons();
  fillCinemeta();
  fillCatalog();

  addresses_.cinemeta = origin(*cinemeta_);
  addresses_.catalogAddon = catalog_->base().toString().toStdString();
  addresses_.torrentio = origin(*torrentio_);
  addresses_.torrentioAddon = torrentio_->base().toString().toStdString();
  addresses_.comet = origin(*comet_);
  addresses_.mediafusionAddon = mediafusion_->base().toString().toStdString() + "manifest.json";
  addresses_.relay = relay_->base().toString().toStdString();
}

Lab::~Lab() {
  plexThread_.run([this] {
    plex_.reset();
    account_.reset();
  });
  filesThread_.run([this] { rd_.reset(); });
}

void Lab::startFiles() {
  // What the file host serves for a file name: the clip the name claims.
  std::map<std::string, const LabRelease*> byName;
  for (const auto* r : world_.releases()) byName[r->filename] = r;
  filesThread_.run([&] {
    rd_ = std::make_unique<test::FakeRealDebrid>(addresses_.rdKey);
    auto& rd = *rd_;
    auto& host = rd.fileHost();
    for (const auto* r : world_.releases()) {
      const QByteArray clip = r->clip.empty() ? QByteArray() : clips_.at(r->clip);
      test::serveHeadThenFiller(host, QString::fromStdString(filePath(*r)), clip, r->bytes, videoType(r->filename));
      // The torrent as Real-Debrid has it: a folder with the film, a sample
      // and the release's notes.
      const std::string folder = fs::path(r->filename).stem().string();
      test::FakeRealDebrid::Release release;
      release.filename = folder;
      release.files = {{1, "/" + folder + "/" + r->filename, r->bytes},
                       {2, "/" + folder + "/Sample/sample.mkv", 48'000'000},
                       {3, "/" + folder + "/" + folder + ".nfo", 4'000}};
      release.stages = r->cached ? test::FakeRealDebrid::cachedStages() : test::FakeRealDebrid::fullStages();
      rd.releases[r->hash] = std::move(release);
    }
    // Unrestricted links serve the same bytes as the add-ons' links.
    std::map<std::string, std::pair<QByteArray, QByteArray>> heads;
    for (const auto& [name, r] : byName)
      heads[name] = {r->clip.empty() ? QByteArray() : clips_.at(r->clip), videoType(name)};
    rd.serveFile = [heads](FakeHttpServer& files, const QString& path, const test::FakeRealDebrid::File& file) {
      const auto name = fs::path(file.path).filename().string();
      const auto it = heads.find(name);
      if (it == heads.end()) return test::serveGenerated(files, path, file.bytes);
      test::serveHeadThenFiller(files, path, it->second.first, file.bytes, it->second.second);
    };
    addresses_.realDebrid = origin(rd);
    addresses_.fileHost = origin(host);
  });
}

void Lab::startPlex(const std::string& home) {
  plexThread_.run([&] {
    plex_ = std::make_unique<test::FakePlexServer>(addresses_.plexToken, systemClock());
    auto& plex = *plex_;
    plex.machineIdentifier = "vantory-lab-0001";
    plex.username = "lab";
    plex.addSection("1", "Vantory", "movie", {(fs::path(home) / "Library").string()});
    plex.addSection("2", "Vantory TV", "show", {(fs::path(home) / "Library TV").string()});
    addLabPages(plex);
    account_ = std::make_unique<test::FakePlexAccount>(addresses_.plexToken);
    account_->localMachineIdentifier = plex.machineIdentifier;
    test::FakePlexAccount::Device device;
    device.name = addresses_.serverName;
    device.clientIdentifier = plex.machineIdentifier;
    device.connections = {{origin(plex), true}};
    account_->devices = {device};
    addresses_.plex = origin(plex);
    addresses_.plexAccount = account_->accountBase();
  });
}

void Lab::fillAddons() {
  for (const auto* r : world_.releases()) {
    QUrl target(QString::fromStdString(addresses_.fileHost));
    target.setPath(QString::fromStdString(filePath(*r)));
    landing_[r->hash] = target.toString(QUrl::FullyEncoded).toStdString();
  }
  auto rowsOf = [](const test::FakeStreamAddon& addon, const std::vector<LabRelease>& releases, Family family) {
    Json rows = Json::array();
    for (const auto& r : releases)
      if (r.family == family) rows.push_back(addon.row(addonRelease(r)));
    return rows;
  };
  const std::vector<std::pair<test::FakeStreamAddon*, Family>> addons = {
      {torrentio_.get(), Family::torrentio}, {comet_.get(), Family::comet}, {mediafusion_.get(), Family::mediafusion}};
  for (const auto& [addon, family] : addons) {
    for (const auto& f : world_.films) addon->setRows("movie", f.id, rowsOf(*addon, f.releases, family));
    for (const auto& s : world_.shows)
      for (const auto& e : s.episodes)
        addon->setRows("series", s.id + ":" + std::to_string(e.season) + ":" + std::to_string(e.episode),
                       rowsOf(*addon, e.releases, family));
  }

  // Each family's link: the add-on does the debrid work and redirects to the
  // file; a link made for another account is refused, as Torrentio does.
  auto land = [this](const std::string& hash, FakeHttpServer::Reply& reply) {
    const auto it = landing_.find(hash);
    if (it == landing_.end()) return reply.send(404, "unknown torrent");
    reply.send(302, {}, {{"Location", QByteArray::fromStdString(it->second)}});
  };
  torrentio_->onPrefix("GET", "/resolve/realdebrid/", [this, land](const auto& request, auto& reply) {
    const auto parts = request.path.split('/');  // "", resolve, realdebrid, key, hash, ...
    if (parts.size() < 5 || parts[3].toStdString() != addresses_.rdKey) return reply.send(403, "bad key");
    land(parts[4].toStdString(), reply);
  });
  comet_->onPrefix("GET", QString::fromStdString("/" + comet_->config + "/playback/"),
                   [land](const auto& request, auto& reply) {
                     const auto parts = request.path.split('/');  // "", config, playback, hash, ...
                     land(parts.size() > 3 ? parts[3].toStdString() : std::string(), reply);
                   });
  mediafusion_->onPrefix(
      "GET", QString::fromStdString("/" + mediafusion_->config + "/streaming_provider/playback/"),
      [land](const auto& request, auto& reply) { land(request.path.section('/', -1).toStdString(), reply); });
  // MediaFusion's address is pasted with its manifest.
  mediafusion_->on("GET", QString::fromStdString("/" + mediafusion_->config + "/manifest.json"),
                   [](const auto&, auto& reply) {
                     reply.json(Json{{"id", "stremio.addons.mediafusion"},
                                     {"name", "MediaFusion"},
                                     {"version", "4.0.0"},
                                     {"resources", Json::array({"stream"})},
                                     {"types", Json::array({"movie", "series"})},
                                     {"catalogs", Json::array()}});
                   });
}

void Lab::fillCinemeta() {
  Json top = Json::array();
  for (const auto& f : world_.films) {
    cinemeta_->setMeta("movie", f.id, filmMeta(f));
    if (f.kind != LabFilm::Kind::wellKnown) top.push_back(catalogRow(f));
  }
  cinemeta_->setCatalog("movie", "top", std::nullopt, top);
  for (const auto& s : world_.shows) {
    Json videos = Json::array();
    for (const auto& e : s.episodes) {
      Json v = test::FakeCinemeta::video(s.id, e.season, e.episode, e.released);
      v["name"] = "Episode " + std::to_string(e.episode);
      videos.push_back(v);
    }
    cinemeta_->addSeries(s.id, s.title, s.year, videos, s.runtime);
    cinemeta_->metas["series/" + s.id]["genres"] = s.genres;
  }
}

void Lab::fillCatalog() {
  Json films = Json::array();
  std::set<std::string> genres;
  for (const auto* f : world_.catalogFilms()) {
    films.push_back(catalogRow(*f));
    genres.insert(f->genres.begin(), f->genres.end());
  }
  catalog_->setCatalog("movie", kLabCatalogId, std::nullopt, films);
  catalog_->setGenres("movie", kLabCatalogId, std::vector<std::string>(genres.begin(), genres.end()));
  for (const auto& genre : genres) {
    Json rows = Json::array();
    for (const auto& row : films)
      for (const auto& g : row["genres"])
        if (g == genre) rows.push_back(row);
    catalog_->setCatalog("movie", kLabCatalogId, genre, rows);
  }
  Json shows = Json::array();
  for (const auto& s : world_.shows)
    shows.push_back(Json{{"id", s.id}, {"type", "series"}, {"name", s.title}, {"releaseInfo", s.year}});
  catalog_->setCatalog("series", "lab-shows", std::nullopt, shows);
}

// --- The application's side ---------------------------------------------------

std::string labEnvironment(const std::string& home, const LabAddresses& a) {
  auto quoted = [](const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
  };
  const std::vector<std::pair<const char*, std::string>> lines = {
      {"VT_UITEST_HOME", home},
      {"VT_TEST_NFS_PORT", std::to_string(a.nfsPort)},
      {"VT_ENDPOINT_CINEMETA", a.cinemeta},
      {"VT_ENDPOINT_POSTERS", a.cinemeta},
      {"VT_ENDPOINT_RD_API", a.realDebrid},
      {"VT_ENDPOINT_TORRENTIO", a.torrentio},
      {"VT_ENDPOINT_COMET", a.comet},
      {"VT_ENDPOINT_PLEX_LOCAL", a.plex},
      {"VT_ENDPOINT_PLEX_ACCOUNT", a.plexAccount},
      {"VT_ENDPOINT_PLEX_WEB", a.plex + "/lab"},
      {"VT_ENDPOINT_PLEX_DISCOVER", a.plexAccount},
      {"VT_ENDPOINT_SUBTITLE_SERVICE", a.relay},
  };
  std::string out = "# The Vantory lab: source this file, then start vantory.\n";
  for (const auto& [name, value] : lines) out += std::string("export ") + name + "=" + quoted(value) + "\n";
  return out;
}

Result<void, LabError> seedHome(const std::string& home, const LabWorld& world, const LabAddresses& a, int listSize) {
  std::error_code ec;
  fs::create_directories(home, ec);
  if (!fs::is_directory(home, ec)) return Failure{LabError{"cannot create the lab's data folder " + home}};
  const auto settings = SettingsStore::openForTestHome(home);
  AppConfig config(*settings);
  config.setRdKey(a.rdKey);
  config.setPmsURLString(a.plex);
  config.setToken(a.plexToken);
  config.setPlexServerName(a.serverName);
  config.setPlexUsername("lab");
  config.setStreamAddonOverride(a.torrentioAddon);
  config.setUseComet(true);
  config.setMediafusionURL(a.mediafusionAddon);
  config.setControlURLString("http://127.0.0.1:" + std::to_string(a.controlPort));

  CatalogStore catalog(home, systemClock(), &config);
  const auto source = CollectionSource::stremioCatalog(a.catalogAddon, "movie", kLabCatalogId);
  std::optional<CatalogCollection> existing;
  for (const auto& c : catalog.collections())
    if (c.name == kLabListName) existing = c;
  if (existing) {
    // The add-on's address changes with its port; the size is this start's.
    existing->source = source;
    existing->maxItems = listSize;
    catalog.upsert(*existing);
  } else {
    CatalogCollection list;
    list.id = newCollectionId();
    list.name = kLabListName;
    list.source = source;
    list.lastSyncedAt = systemClock().now();
    list.maxItems = listSize;
    std::vector<CatalogMeta> metas;
    for (const auto* f : world.catalogFilms()) {
      if (static_cast<int>(list.itemImdbIds.size()) >= listSize) break;
      list.itemImdbIds.push_back(f->id);
      metas.push_back(
          CatalogMeta{.id = f->id, .name = f->title, .year = f->year, .released = f->released, .mediaType = "movie"});
    }
    catalog.mergeMeta(metas);
    catalog.upsert(list);
    catalog.materialise(list);
  }
  catalog.waitForSaves();
  return {};
}

}  // namespace vt::lab
