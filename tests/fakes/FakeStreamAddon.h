#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <QObject>

#include "fakes/FakeHttpServer.h"

namespace vt::test {

// A Stremio stream add-on on 127.0.0.1 in the row shapes of one family:
// Torrentio (the cache marker "[RD+]" or "[RD download]" in `name`, the size
// in `title`), Comet ("⚡" or "⬇️" in `name`, the hash at the end of
// `bingeGroup`, `description`) or MediaFusion ("⚡️" or "⏳" in `name`,
// `description`). It answers "stream/<type>/<id>.json" under any
// configuration prefix from a table the test fills, an empty list for an
// id it does not know, and misbehaves on demand.
class FakeStreamAddon : public FakeHttpServer {
 public:
  enum class Family { torrentio, comet, mediafusion };
  enum class Fault {
    none,
    slow,         // answers after `slowMs` of real time
    silent,       // never answers
    serverError,  // 503
    badJson,      // a body cut off in the middle
    wrongTypes,   // every field of every row of the wrong JSON type
  };

  // One release as the family lists it.
  struct Release {
    std::string filename;
    int64_t bytes = 0;
    std::string infoHash;  // 40 lowercase hex digits
    bool cached = true;
    int seeders = 12;
    std::string resolution = "1080p";
    std::string origin = "ThePirateBay";
  };

  explicit FakeStreamAddon(Family family);

  Family family;
  std::string config = "realdebrid=addon-cfg";  // the configuration path segment of `base()`
  std::string configuredKey() const;            // what follows "realdebrid=" in it
  int slowMs = 1500;

  // The add-on address the user would paste, without "manifest.json":
  // "http://127.0.0.1:<port>/<config>/".
  QUrl base() const;

  // Rows for a title in the family's shape, or as given.
  void setReleases(const std::string& type, const std::string& id, const std::vector<Release>& releases);
  void setRows(const std::string& type, const std::string& id, Json rows);
  // A fault for one title, or for every title.
  void setFault(const std::string& type, const std::string& id, Fault fault);
  void setFault(Fault fault) { allFault_ = fault; }

  // The row of one release, in the family's shape.
  Json row(const Release& release) const;
  // Comet's row when it has nothing: a link to a placeholder video on `host`.
  Json placeholderRow(const std::string& host) const;

  // Requests for streams, as "type/id", in order.
  std::vector<std::string> streamRequests() const;

 private:
  void handle(const Request& request, Reply& reply);

  std::map<std::string, Json> rows_;
  std::map<std::string, Fault> faults_;
  Fault allFault_ = Fault::none;
  std::unique_ptr<QObject> context_ = std::make_unique<QObject>();  // for delayed answers
};

}  // namespace vt::test
