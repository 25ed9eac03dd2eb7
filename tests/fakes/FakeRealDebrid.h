#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fakes/FakeHttpServer.h"

namespace vt::test {

// Real-Debrid's REST API, version 1.0, under "/rest/1.0/" on 127.0.0.1, as
// its public documentation describes it: the account, magnets walking
// through their statuses on a schedule the test sets, file selection, link
// unrestriction onto a local file host whose files are generated (several
// GB, never stored), deletion and the downloads list. Every request needs
// "Authorization: Bearer <key>" (401 otherwise). Errors carry the service's
// body {"error": ..., "error_code": ...}. Faults (429, 5xx, odd bodies,
// silence) are scripted per path.
class FakeRealDebrid : public FakeHttpServer {
 public:
  struct File {
    int64_t id = 0;
    std::string path;  // as RD lists it, with a leading "/"
    int64_t bytes = 0;
  };
  // One stage of a torrent's life: the status `torrents/info` reports for
  // `infoCalls` calls before the next stage. 0 holds the stage: a
  // "waiting_files_selection" stage until files are selected, any other for
  // good (the last stage always holds).
  struct Stage {
    std::string status;
    int infoCalls = 1;
  };
  // What a magnet turns into.
  struct Release {
    std::string filename;
    std::vector<File> files;
    std::vector<Stage> stages;
  };
  struct Torrent {
    std::string id, hash, filename;
    std::vector<File> files;
    std::vector<Stage> stages;
    size_t stage = 0;
    int callsInStage = 0;
    std::optional<std::string> selection;  // `files` of the accepted selection
    int selectCalls = 0;
    int infoCalls = 0;
    std::vector<std::string> links;  // one per selected file once downloaded
    const std::string& status() const { return stages[stage].status; }
  };

  // A cached release: files to choose at once, then downloaded.
  static std::vector<Stage> cachedStages();
  // The whole walk: magnet_conversion, waiting_files_selection, queued,
  // downloading (twice), downloaded.
  static std::vector<Stage> fullStages();
  // A release that ends in `status` (magnet_error, virus, dead...) after
  // `after` calls in magnet_conversion.
  static std::vector<Stage> failingStages(const std::string& status, int after = 1);

  explicit FakeRealDebrid(std::string key = "rdk-6f1c0e9a2b7d4");

  std::string key;
  std::string linkHost = "https://real-debrid.com";  // torrent links point here, as on the service
  std::string userType = "premium";
  int64_t premiumSeconds = 2592000;
  std::string expiration = "2031-01-01T00:00:00.000Z";

  // By lowercase info hash; other hashes get `defaultRelease`.
  std::map<std::string, Release> releases;
  Release defaultRelease;
  std::map<std::string, Torrent> torrents;  // by id
  std::vector<std::string> deleted;         // ids, in order
  std::vector<Json> downloadRows;           // newest first

  // "http://127.0.0.1:<port>/rest/1.0/"
  QUrl restBase() const;
  // The host that unrestricted links point at.
  FakeHttpServer& fileHost() { return files_; }

  // Faults for paths below the REST base, matched by prefix ("torrents/info/"),
  // checked before the key. The latest one that matches applies.
  // The next `times` requests (all for times < 0) get `status` with the
  // service's error body.
  void fail(const QString& prefix, int status, int times = 1);
  // ... get `body` as it is, with `status`.
  void answer(const QString& prefix, QByteArray body, int status = 200, int times = -1);
  // ... are held open and never answered.
  void hang(const QString& prefix);
  void clearFaults() { faults_.clear(); }

  // The torrent made from `hash`, the latest if several.
  const Torrent* torrentFor(const std::string& hash) const;

 private:
  struct Fault {
    QString prefix;
    int status = 0;
    QByteArray body;
    int times = -1;
    bool hang = false;
    bool raw = false;
  };
  void handle(const Request& request, Reply& reply);
  Json infoJson(Torrent& t);
  void error(Reply& reply, int status, const char* code, int number);
  std::string nextCode(const char* prefix);

  FakeHttpServer files_;
  std::vector<Fault> faults_;
  int counter_ = 0;
};

}  // namespace vt::test
