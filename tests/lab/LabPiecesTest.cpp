// The lab's pieces in one process: the generated world, the file host's
// clip-then-filler files, the services wired to each other, the Plex pages
// and the data folder it seeds.

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include <QDate>
#include <QUrlQuery>

#include <gtest/gtest.h>

#include "catalog/CatalogStore.h"
#include "core/AppConfig.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakePlexServer.h"
#include "lab/Lab.h"
#include "lab/LabPlexPage.h"
#include "lab/LabWorld.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Regex.h"
#include "platform/Settings.h"
#include "sources/release/ReleaseParser.h"
#include "support/TestKit.h"

using namespace vt;
using namespace vt::lab;

namespace {

constexpr int kYear = 2026;

std::string extensionOf(const std::string& name) {
  const auto dot = name.find_last_of('.');
  return dot == std::string::npos ? "" : name.substr(dot + 1);
}

bool isHex40(const std::string& s) {
  return s.size() == 40 && std::all_of(s.begin(), s.end(), [](char c) { return std::isxdigit(c) && !std::isupper(c); });
}

HttpResponse fetch(HttpClient& http, const std::string& url, std::optional<std::pair<int64_t, int64_t>> range = {},
                   QByteArray method = "GET", bool follow = true) {
  HttpRequest request;
  request.url = QUrl(QString::fromStdString(url));
  request.method = method;
  request.followRedirects = follow;
  request.timeoutSeconds = 10;
  if (range) request.range = std::make_pair(range->first, std::optional<int64_t>(range->second));
  return test::runTask(http.send(request));
}

std::optional<QByteArray> header(const HttpResponse& r, const QByteArray& name) {
  for (const auto& [k, v] : r.headers)
    if (k.compare(name, Qt::CaseInsensitive) == 0) return v;
  return std::nullopt;
}

// Small stand-ins for the ffmpeg clips: distinct bytes per clip.
std::map<std::string, QByteArray> fakeClips() {
  std::map<std::string, QByteArray> clips;
  int n = 0;
  for (const auto& spec : clipSpecs()) {
    clips[spec.name] = QByteArray(1000 + 100 * n, static_cast<char>('A' + n));
    ++n;
  }
  return clips;
}

}  // namespace

// --- The generated world -----------------------------------------------------

TEST(LabWorld, IsTheSameForASeedAndDiffersForAnother) {
  const auto a = generateWorld(kYear);
  const auto b = generateWorld(kYear);
  const auto c = generateWorld(kYear, kDefaultSeed + 1);
  ASSERT_EQ(a.films.size(), b.films.size());
  for (size_t i = 0; i < a.films.size(); ++i) {
    EXPECT_EQ(a.films[i].id, b.films[i].id);
    EXPECT_EQ(a.films[i].title, b.films[i].title);
    ASSERT_EQ(a.films[i].releases.size(), b.films[i].releases.size());
    for (size_t k = 0; k < a.films[i].releases.size(); ++k) {
      EXPECT_EQ(a.films[i].releases[k].hash, b.films[i].releases[k].hash);
      EXPECT_EQ(a.films[i].releases[k].bytes, b.films[i].releases[k].bytes);
    }
  }
  EXPECT_NE(a.films.front().id, c.films.front().id);
  EXPECT_NE(a.films.front().title, c.films.front().title);
}

TEST(LabWorld, HoldsTheCasesTheApplicationMustMeet) {
  const auto world = generateWorld(kYear);
  const auto catalog = world.catalogFilms();
  ASSERT_EQ(catalog.size(), static_cast<size_t>(kCatalogFilms));
  ASSERT_EQ(world.shows.size(), static_cast<size_t>(kShows));

  std::set<std::string> ids, titles, hashes;
  for (const auto& f : world.films) {
    EXPECT_TRUE(Regex("tt\\d{7}").fullMatch(f.id)) << f.id;
    EXPECT_TRUE(ids.insert(f.id).second) << "twice: " << f.id;
    EXPECT_TRUE(titles.insert(f.title).second) << "twice: " << f.title;
    EXPECT_FALSE(f.genres.empty()) << f.title;
    EXPECT_TRUE(Regex("\\d+ min|\\dh \\d+min").fullMatch(f.runtime)) << f.runtime;
  }
  for (const auto* r : world.releases()) {
    EXPECT_TRUE(isHex40(r->hash)) << r->hash;
    EXPECT_TRUE(hashes.insert(r->hash).second) << "twice: " << r->hash;
    EXPECT_GT(r->bytes, 100'000'000) << r->filename << ": at or under the probe's floor";
  }

  // The three classics the add-on health check asks for, with sources.
  for (const char* id : {"tt0110912", "tt0111161", "tt0068646"}) {
    const auto* f = world.film(id);
    ASSERT_NE(f, nullptr) << id;
    EXPECT_EQ(f->kind, LabFilm::Kind::wellKnown);
    EXPECT_FALSE(f->releases.empty()) << id;
  }
  EXPECT_EQ(std::count(catalog.begin(), catalog.end(), world.film("tt0110912")), 0) << "classics are not listed";

  // One film with nothing anywhere, inside the first page of the list.
  const auto* none = world.firstOfKind(LabFilm::Kind::noSource);
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none, catalog[kNoSourceIndex]);
  EXPECT_TRUE(none->releases.empty());
  EXPECT_LT(std::stoi(none->year), kYear);

  // Unreleased films: next year, recordings only.
  const auto* soon = world.firstOfKind(LabFilm::Kind::unreleased);
  ASSERT_EQ(soon, catalog[kUnreleasedIndex]);
  for (const auto* f : catalog) {
    if (f->kind != LabFilm::Kind::unreleased) continue;
    EXPECT_EQ(f->year, std::to_string(kYear + 1));
    EXPECT_EQ(f->released.substr(0, 4), std::to_string(kYear + 1));
    ASSERT_FALSE(f->releases.empty());
    for (const auto& r : f->releases) {
      const auto info = ReleaseParser::parse(r.filename);
      EXPECT_TRUE(info.source == "CAM" || info.source == "TS") << r.filename;
    }
  }

  // A show with a season that Cinemeta lists and nobody has.
  const auto gap =
      std::find_if(world.shows.begin(), world.shows.end(), [](const LabShow& s) { return s.missingSeason; });
  ASSERT_NE(gap, world.shows.end());
  bool listed = false, othersHave = true;
  for (const auto& e : gap->episodes) {
    if (e.season == gap->missingSeason) {
      listed = true;
      EXPECT_TRUE(e.releases.empty()) << "S" << e.season << "E" << e.episode;
    } else {
      othersHave = othersHave && !e.releases.empty();
    }
  }
  EXPECT_TRUE(listed);
  EXPECT_TRUE(othersHave);
}

// Every film that is out can be published with the default quality: its
// Blu-ray row is cached and under the default cap of 15 Mbit/s.
TEST(LabWorld, EveryFilmThatIsOutHasACachedRowTheDefaultQualityTakes) {
  const auto world = generateWorld(kYear);
  for (const auto& f : world.films) {
    if (f.kind != LabFilm::Kind::normal && f.kind != LabFilm::Kind::wellKnown) continue;
    const auto minutes = f.runtime.find('h') != std::string::npos
                             ? std::stoi(f.runtime) * 60 + std::stoi(f.runtime.substr(f.runtime.find(' ') + 1))
                             : std::stoi(f.runtime);
    const bool light = std::any_of(f.releases.begin(), f.releases.end(), [&](const LabRelease& r) {
      const double mbps = static_cast<double>(r.bytes) * 8 / (minutes * 60.0) / 1e6;
      return r.cached && r.resolution == "1080p" && !r.clip.empty() && mbps < 15 &&
             !ReleaseParser::parse(r.filename).source.value_or("").starts_with("CAM");
    });
    EXPECT_TRUE(light) << f.title << " (" << f.runtime << ")";
  }
}

TEST(LabWorld, ReleaseNamesClaimWhatTheirClipsAre) {
  const auto world = generateWorld(kYear);
  std::set<std::string> junk, families, resolutions;
  int cached = 0, uncached = 0;
  for (const auto* r : world.releases()) {
    families.insert(std::to_string(static_cast<int>(r->family)));
    (r->cached ? cached : uncached)++;
    EXPECT_EQ(r->filename.find(':'), std::string::npos) << r->filename << ": release groups drop ':'";
    const auto info = ReleaseParser::parse(r->filename);
    if (r->clip.empty()) {
      junk.insert(extensionOf(r->filename));
      EXPECT_FALSE(info.container) << r->filename << " is no video, yet reads as one";
      continue;
    }
    resolutions.insert(r->resolution);
    // The clip "2160p.mkv" behind a name that says 4K and .mkv, and so on.
    const std::string claimed =
        (info.resolution == "4K" ? "2160p" : info.resolution.value_or("?")) + "." + info.container.value_or("?");
    EXPECT_EQ(claimed, r->clip) << r->filename;
    EXPECT_EQ(r->resolution + "." + extensionOf(r->filename), r->clip) << r->filename;
  }
  EXPECT_EQ(families.size(), 3u) << "Torrentio, Comet and MediaFusion rows";
  EXPECT_EQ(resolutions, (std::set<std::string>{"1080p", "2160p"}));
  EXPECT_GT(cached, 0);
  EXPECT_GT(uncached, 0);
  EXPECT_GE(junk.size(), 3u) << "several kinds of files that are no video";
}

// --- Clip, then filler -------------------------------------------------------

TEST(LabFileHost, ServesTheClipThenFillerWithRangesAcrossTheSeam) {
  test::FakeHttpServer host;
  const QByteArray clip = "0123456789abcdef";
  const int64_t size = 5'000'000'000;
  test::serveHeadThenFiller(host, "/d/film.mkv", clip, size, "video/x-matroska");
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);
  const std::string url = host.url("/d/film.mkv").toString().toStdString();

  const auto head = fetch(http, url, std::nullopt, "HEAD");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(header(head, "Content-Length"), QByteArray("5000000000"));
  EXPECT_EQ(header(head, "Content-Type"), QByteArray("video/x-matroska"));

  // Inside the clip, across its end into the filler, far into the filler, at the very end.
  for (const auto& [first, last] : std::vector<std::pair<int64_t, int64_t>>{
           {0, 15}, {3, 9}, {10, 40}, {16, 16}, {4'000'000'000, 4'000'000'999}, {size - 10, size - 1}}) {
    const auto r = fetch(http, url, std::make_pair(first, last));
    ASSERT_EQ(r.status, 206) << first;
    EXPECT_EQ(r.body, test::headThenFillerBytes(clip, first, last - first + 1)) << first << "-" << last;
    EXPECT_EQ(header(r, "Content-Range"), "bytes " + QByteArray::number(static_cast<qlonglong>(first)) + "-" +
                                              QByteArray::number(static_cast<qlonglong>(last)) + "/5000000000");
  }
  EXPECT_EQ(test::headThenFillerBytes(clip, 0, 16), clip);
  EXPECT_EQ(test::headThenFillerBytes(clip, 20, 5), test::generatedBytes(20, 5)) << "filler is the generated bytes";
  EXPECT_EQ(fetch(http, url, std::make_pair(size, size + 5)).status, 416);
}

// --- The services wired to each other ----------------------------------------

class LabServices : public ::testing::Test {
 protected:
  void SetUp() override {
    world = generateWorld(kYear);
    lab = std::make_unique<Lab>(world, fakeClips(), home.path());
  }
  const LabFilm& filmWith(Family family, bool cached) {
    for (const auto* f : world.catalogFilms())
      for (const auto& r : f->releases)
        if (r.family == family && r.cached == cached && !r.clip.empty()) return *f;
    throw std::runtime_error("no such film");
  }
  Json streams(const std::string& origin, const std::string& prefix, const std::string& id) {
    const auto r = fetch(http, origin + prefix + "stream/movie/" + id + ".json");
    EXPECT_EQ(r.status, 200);
    return json::parse(r.body.toStdString()).value_or(Json())["streams"];
  }
  // A link's bytes from the start past the end of its clip.
  void expectClipThenFiller(const std::string& url, const LabRelease& release) {
    const QByteArray clip = fakeClips().at(release.clip);
    const auto r = fetch(http, url, std::make_pair(int64_t{0}, int64_t{clip.size() + 99}));
    ASSERT_EQ(r.status, 206) << release.filename;
    EXPECT_EQ(r.body, test::headThenFillerBytes(clip, 0, clip.size() + 100)) << release.filename;
    EXPECT_TRUE(header(r, "Content-Range")->endsWith("/" + QByteArray::number(static_cast<qlonglong>(release.bytes))));
  }

  test::TestHome home;
  LabWorld world;
  std::unique_ptr<Lab> lab;
  HttpClient http{systemClock(), HttpClient::Session::ephemeral};
};

TEST_F(LabServices, EachFamilysLinkLandsOnTheFileHostWithTheClipTheNameClaims) {
  const auto& a = lab->addresses();
  const auto& film = filmWith(Family::torrentio, true);
  const auto rows = streams(a.torrentioAddon, "", film.id);
  ASSERT_TRUE(rows.is_array());
  size_t torrentioReleases = 0;
  for (const auto& r : film.releases) torrentioReleases += r.family == Family::torrentio;
  EXPECT_EQ(rows.size(), torrentioReleases);
  const auto& first = film.releases.front();
  ASSERT_EQ(first.family, Family::torrentio);
  const std::string link = rows[0]["url"];
  EXPECT_NE(link.find(a.rdKey), std::string::npos) << "Torrentio's links carry the account's key";
  expectClipThenFiller(link, first);
  // A link made for another account is refused.
  std::string foreign = link;
  foreign.replace(foreign.find(a.rdKey), a.rdKey.size(), "someone-else");
  EXPECT_EQ(fetch(http, foreign).status, 403);

  for (const Family family : {Family::comet, Family::mediafusion}) {
    const auto& f = filmWith(family, true);
    const std::string origin = family == Family::comet
                                   ? a.comet + "/realdebrid=addon-cfg/"
                                   : a.mediafusionAddon.substr(0, a.mediafusionAddon.size() - strlen("manifest.json"));
    const auto found = streams(origin, "", f.id);
    const auto release = std::find_if(f.releases.begin(), f.releases.end(),
                                      [&](const LabRelease& r) { return r.family == family && r.cached; });
    bool checked = false;
    for (const auto& row : found) {
      if (row["behaviorHints"]["filename"] != release->filename) continue;
      expectClipThenFiller(row["url"], *release);
      checked = true;
    }
    EXPECT_TRUE(checked) << "no row for " << release->filename;
  }

  // The film without a source has nothing on any add-on; the classics have rows.
  const auto* none = world.firstOfKind(LabFilm::Kind::noSource);
  EXPECT_TRUE(streams(a.torrentioAddon, "", none->id).empty());
  EXPECT_FALSE(streams(a.torrentioAddon, "", "tt0111161").empty());
  EXPECT_EQ(fetch(http, a.cinemeta + "/meta/movie/" + none->id + ".json").status, 200);
}

TEST_F(LabServices, RealDebridTurnsAHashIntoALinkToTheSameBytes) {
  const auto& a = lab->addresses();
  const auto& film = filmWith(Family::comet, true);
  const auto release = *std::find_if(film.releases.begin(), film.releases.end(),
                                     [](const LabRelease& r) { return r.family == Family::comet && r.cached; });
  auto call = [&](QByteArray method, const std::string& path, const QByteArray& form = {}) {
    HttpRequest request;
    request.url = QUrl(QString::fromStdString(a.realDebrid + "/rest/1.0/" + path));
    request.method = method;
    request.body = form;
    request.headers = {{"Authorization", "Bearer " + QByteArray::fromStdString(a.rdKey)},
                       {"Content-Type", "application/x-www-form-urlencoded"}};
    const auto r = test::runTask(http.send(request));
    return std::make_pair(r.status, json::parse(r.body.toStdString()).value_or(Json()));
  };
  const auto [added, torrent] =
      call("POST", "torrents/addMagnet", "magnet=magnet:?xt=urn:btih:" + QByteArray::fromStdString(release.hash));
  ASSERT_EQ(added, 201);
  const std::string id = torrent["id"];
  auto info = call("GET", "torrents/info/" + id).second;
  ASSERT_EQ(info["status"], "waiting_files_selection");
  ASSERT_EQ(info["files"].size(), 3u) << "the film, a sample and the notes";
  EXPECT_EQ(info["files"][0]["path"],
            "/" + std::filesystem::path(release.filename).stem().string() + "/" + release.filename);
  ASSERT_EQ(call("POST", "torrents/selectFiles/" + id, "files=1").first, 204);
  info = call("GET", "torrents/info/" + id).second;
  ASSERT_EQ(info["status"], "downloaded");
  const std::string link = info["links"][0];
  const auto [status, unrestricted] =
      call("POST", "unrestrict/link", "link=" + QUrl::toPercentEncoding(QString::fromStdString(link)));
  ASSERT_EQ(status, 200);
  EXPECT_EQ(unrestricted["filesize"], release.bytes);
  expectClipThenFiller(unrestricted["download"], release);
}

// --- Plex's pages ------------------------------------------------------------

TEST(LabPlexPages, ListWhatPlexIndexedAndPlayItsFilesWithRanges) {
  test::TestHome home;
  const std::string library = home.file("Library");
  std::filesystem::create_directories(library);
  const std::string name = "Fox & Hound <Redux> (2001) {imdb-tt0000001}.mkv";
  QByteArray bytes;
  for (int i = 0; i < 300'000; ++i) bytes.append(static_cast<char>(i * 7));
  std::ofstream(library + "/" + name, std::ios::binary).write(bytes.constData(), bytes.size());

  test::FakePlexServer plex("secret-token");
  plex.addSection("1", "Vantory", "movie", {library});
  addLabPages(plex);
  plex.scan("1");
  ASSERT_EQ(plex.items.size(), 1u);
  auto& item = plex.items.begin()->second;
  item.labels.insert("Lab Top Films");
  const std::string label = plex.labelId("Lab Top Films");
  plex.collections["77"] = {.ratingKey = "77",
                            .sectionKey = "1",
                            .title = "Lab Top Films",
                            .smart = true,
                            .labelId = label,
                            .uri = "/library/sections/1/all?label=" + label};

  HttpClient http(systemClock(), HttpClient::Session::ephemeral);
  const std::string base = plex.baseUrl().toString().toStdString();
  const auto state = fetch(http, base + "/lab.json");
  ASSERT_EQ(state.status, 200) << "no token needed";
  const auto j = json::parse(state.body.toStdString()).value_or(Json());
  ASSERT_EQ(j["sections"][0]["items"].size(), 1u);
  EXPECT_EQ(j["sections"][0]["items"][0]["labels"], Json::array({"Lab Top Films"}));
  EXPECT_EQ(j["collections"][0]["members"], Json::array({item.ratingKey}));
  EXPECT_EQ(j["collections"][0]["smart"], true);

  const auto html = fetch(http, base + "/lab");
  ASSERT_EQ(html.status, 200);
  EXPECT_TRUE(html.body.contains("Fox &amp; Hound &lt;Redux&gt;")) << "names are escaped";
  EXPECT_TRUE(html.body.contains("href=\"/lab/file/" + QByteArray::fromStdString(item.ratingKey) + "\""));
  EXPECT_FALSE(html.body.contains("secret-token"));
  // The watch button's link, made with the lab's page as the Plex web app, lands on the page.
  EXPECT_EQ(fetch(http, base + "/lab/desktop/").status, 200);

  const std::string file = base + "/lab/file/" + item.ratingKey;
  const auto whole = fetch(http, file);
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body, bytes);
  EXPECT_EQ(header(whole, "Content-Type"), QByteArray("video/x-matroska"));
  const auto part = fetch(http, file, std::make_pair(int64_t{123'456}, int64_t{200'000}));
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, bytes.mid(123'456, 200'000 - 123'456 + 1));
  EXPECT_EQ(header(part, "Content-Range"), QByteArray("bytes 123456-200000/300000"));
  EXPECT_EQ(fetch(http, file, std::make_pair(int64_t{300'000}, int64_t{300'001})).status, 416);
  EXPECT_EQ(fetch(http, base + "/lab/file/999999").status, 404);
  // The server's own API still wants the token.
  EXPECT_EQ(fetch(http, base + "/library/sections").status, 401);
}

// --- The data folder ---------------------------------------------------------

TEST(LabHome, SettingsReachTheLabAndOneListIsSubscribedAndPublished) {
  test::TestHome home;
  const auto world = generateWorld(kYear);
  LabAddresses a;
  a.cinemeta = "http://127.0.0.1:1001";
  a.catalogAddon = "http://127.0.0.1:1002/";
  a.torrentioAddon = "http://127.0.0.1:1003/realdebrid=k3y/";
  a.mediafusionAddon = "http://127.0.0.1:1004/cfg/manifest.json";
  a.plex = "http://127.0.0.1:1005";
  a.controlPort = 1010;
  a.rdKey = "k3y";
  a.plexToken = "t0ken";
  a.serverName = "Vantory Lab";
  ASSERT_TRUE(seedHome(home.path(), world, a, 12));

  std::string listId;
  {
    const auto settings = SettingsStore::openForTestHome(home.path());
    AppConfig config(*settings);
    EXPECT_EQ(config.rdKey(), "k3y");
    EXPECT_EQ(config.pmsURLString(), a.plex);
    EXPECT_EQ(config.token(), "t0ken");
    EXPECT_EQ(config.plexServerName(), "Vantory Lab");
    EXPECT_EQ(config.streamAddonOverride(), a.torrentioAddon);
    EXPECT_EQ(config.mediafusionURL(), a.mediafusionAddon);
    EXPECT_EQ(config.controlURLString(), "http://127.0.0.1:1010");
    EXPECT_TRUE(config.isConfigured());

    CatalogStore catalog(home.path(), systemClock(), &config, {.readOnly = true});
    const auto lists = catalog.publishedLists();
    ASSERT_EQ(lists.size(), 1u);
    const auto& list = lists.front();
    listId = list.id;
    EXPECT_EQ(list.name, kLabListName);
    EXPECT_EQ(list.source.kind, CollectionSource::Kind::stremioCatalog);
    EXPECT_EQ(list.source.addonBaseURL, a.catalogAddon);
    EXPECT_EQ(list.source.catalogId, kLabCatalogId);
    ASSERT_EQ(list.itemImdbIds.size(), 12u);
    EXPECT_EQ(list.itemImdbIds[kNoSourceIndex], world.firstOfKind(LabFilm::Kind::noSource)->id);
    EXPECT_EQ(list.itemImdbIds[kUnreleasedIndex], world.firstOfKind(LabFilm::Kind::unreleased)->id);
    EXPECT_TRUE(catalog.isStaging(list.id));
    ASSERT_NE(catalog.meta(list.itemImdbIds[0]), nullptr);
    EXPECT_EQ(catalog.meta(list.itemImdbIds[0])->name, world.catalogFilms()[0]->title);
  }

  // A later start moves the list to the add-on's new address and keeps it,
  // at that start's size.
  a.catalogAddon = "http://127.0.0.1:2002/";
  ASSERT_TRUE(seedHome(home.path(), world, a, 20));
  const auto settings = SettingsStore::openForTestHome(home.path());
  AppConfig config(*settings);
  CatalogStore catalog(home.path(), systemClock(), &config, {.readOnly = true});
  ASSERT_EQ(catalog.publishedLists().size(), 1u);
  EXPECT_EQ(catalog.publishedLists().front().id, listId);
  EXPECT_EQ(catalog.publishedLists().front().source.addonBaseURL, a.catalogAddon);
  EXPECT_EQ(catalog.publishedLists().front().maxItems, 20);
}

TEST(LabHome, TheEnvironmentFileNamesEveryServiceAndNoSecret) {
  LabAddresses a;
  a.cinemeta = "http://127.0.0.1:1001";
  a.realDebrid = "http://127.0.0.1:1002";
  a.torrentio = "http://127.0.0.1:1003";
  a.comet = "http://127.0.0.1:1004";
  a.plex = "http://127.0.0.1:1005";
  a.plexAccount = "http://127.0.0.1:1006/api/v2";
  a.relay = "http://127.0.0.1:1007/subtitles";
  a.rdKey = "rd-secret-key";
  a.plexToken = "plex-secret-token";
  a.nfsPort = 1008;
  const auto text = labEnvironment("/tmp/it's home", a);
  EXPECT_NE(text.find("export VT_UITEST_HOME='/tmp/it'\\''s home'\n"), std::string::npos) << text;
  for (const char* line :
       {"export VT_ENDPOINT_CINEMETA='http://127.0.0.1:1001'\n", "export VT_ENDPOINT_RD_API='http://127.0.0.1:1002'\n",
        "export VT_ENDPOINT_TORRENTIO='http://127.0.0.1:1003'\n", "export VT_ENDPOINT_COMET='http://127.0.0.1:1004'\n",
        "export VT_ENDPOINT_PLEX_LOCAL='http://127.0.0.1:1005'\n",
        "export VT_ENDPOINT_PLEX_ACCOUNT='http://127.0.0.1:1006/api/v2'\n",
        "export VT_ENDPOINT_SUBTITLE_SERVICE='http://127.0.0.1:1007/subtitles'\n", "export VT_TEST_NFS_PORT='1008'\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line;
  EXPECT_EQ(text.find("secret"), std::string::npos) << text;
}
