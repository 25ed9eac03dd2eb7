#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "fakes/FakeHttpServer.h"
#include "platform/Clock.h"

namespace vt::test {

// A Plex Media Server on 127.0.0.1 for tests and the offline demonstration.
// It is a small simulation, not a script: sections index the files that a scan
// finds on disk (or in a list the test gives), items whose files have gone go
// to the trash, deletion and analysis change the library, labels feed smart
// collections. It answers the HTTP API as Plex does in JSON and rejects
// requests without the token with 401 (except /identity, as Plex does).
//
// Nothing runs on a timer: a requested scan falls due `scanDelay` seconds
// later on the clock handed in, and every request first completes the scans
// that are due. A test on a ManualClock advances the clock and the next
// request sees the result.
class FakePlexServer : public FakeHttpServer {
 public:
  struct Section {
    std::string key;
    std::string title;
    std::string type;  // "movie" or "show"; "" leaves the field out
    std::vector<std::string> locations;
    std::map<std::string, std::string> prefs;
    int refreshes = 0;       // scans requested through the API
    int scansCompleted = 0;  // scans that have run, requested or not
    // When set, a scan sees these full paths (any extension, on disk or not)
    // instead of listing the location folders.
    std::optional<std::vector<std::string>> fileList;
  };
  struct Item {
    std::string ratingKey;
    std::string sectionKey;
    std::string type = "movie";  // movie, show, episode
    std::string title;
    std::optional<int64_t> year;
    std::optional<std::string> thumb;
    std::optional<std::string> grandparentRatingKey;
    std::vector<std::string> files;
    std::set<std::string> labels;
    std::optional<int64_t> duration;  // of the media; none: not analysed yet
    std::optional<int64_t> viewOffset;
    std::optional<int64_t> addedAt;
    // All files were missing at a scan; still listed, with `deletedAt`, until
    // the trash is emptied or a file comes back.
    bool trashed = false;
    std::optional<int64_t> deletedAt;
    // DELETE answers 400, as Plex does when deleting media is not allowed.
    bool refuseDelete = false;
    std::string folder;             // shows: the top folder that a scan made the show for
    std::optional<int64_t> season;  // episodes: parsed from "S01E02"
    std::optional<int64_t> episode;
  };
  struct Collection {
    std::string ratingKey;
    std::string sectionKey;
    std::string title;
    bool smart = false;
    std::string labelId;  // for smart collections: the label filter of `uri`
    std::string uri;
    std::vector<std::string> members;  // plain collections: rating keys
  };
  // A reply that replaces the normal one for requests whose "METHOD /path"
  // starts with the key in `faults` ("*" as the method matches any).
  struct Fault {
    enum class Kind { status, malformed, hold };
    Kind kind = Kind::status;
    int status = 500;
    bool applied = false;  // the request still takes effect before the fault answers

    static Fault withStatus(int status, bool applied = false) { return {Kind::status, status, applied}; }
    static Fault malformedBody(bool applied = false) { return {Kind::malformed, 200, applied}; }
    static Fault hang(bool applied = false) { return {Kind::hold, 0, applied}; }
  };

  explicit FakePlexServer(std::string token = "plex-test-token", Clock& clock = systemClock());

  std::string token;
  std::string machineIdentifier = "fake-machine-0001";
  std::string version = "1.40.0.0000";
  std::optional<std::string> username = std::string("tester");
  std::map<std::string, Section> sections;
  std::map<std::string, Item> items;
  std::map<std::string, Collection> collections;
  Json sessionsReply = Json::object();  // the MediaContainer of /status/sessions
  std::map<std::string, std::string> serverPrefs;
  // Answers every request with this status when set (outages, 500s...).
  std::optional<int> forcedStatus;
  std::map<std::string, Fault> faults;

  // Seconds between a scan request and the scan.
  double scanDelay = 0;
  // Duration given to a readable file, unless `durations` names its path.
  int64_t defaultDuration = 5'400'000;
  std::map<std::string, int64_t> durations;
  // Whether a file can be read; by default, whether its first byte can be read
  // from disk. Unreadable files are indexed without a duration.
  std::function<bool(const std::string& path)> canRead;
  // Analysis requests per rating key.
  std::map<std::string, int> analyzeRequests;

  void setClock(Clock& clock) { clock_ = &clock; }

  Section& addSection(const std::string& key, const std::string& title, const std::string& type,
                      std::vector<std::string> locations);
  Item& addItem(Item item);
  // The numeric id of a label in a section, as Plex reports it.
  std::string labelId(const std::string& label) const;
  std::vector<const Item*> itemsWithLabel(const std::string& sectionKey, const std::string& label) const;

  // Requests a scan as GET /library/sections/<key>/refresh does (without
  // counting a refresh); it runs once `scanDelay` has passed.
  void requestScan(const std::string& sectionKey);
  // Scans a section at once, as a due scan does.
  void scan(const std::string& sectionKey);
  // Runs every requested scan whose time has come; returns how many ran.
  int completeDueScans();
  size_t pendingScans() const { return pendingScans_.size(); }
  // Items of a section by type ("" for all), trashed ones included.
  std::vector<const Item*> itemsOf(const std::string& sectionKey, const std::string& type = "") const;
  const Item* itemForFile(const std::string& path) const;

 private:
  struct Answer {
    int status = 200;
    QByteArray body;
    QByteArray contentType = "text/plain";
  };
  struct PendingScan {
    Date due;
    std::string sectionKey;
  };

  bool authorised(const Request& r) const;
  void routes();
  Answer handle(const Request& r);
  Answer handleSections(const Request& r, const std::vector<std::string>& parts);
  Answer handleMetadata(const Request& r, const std::vector<std::string>& parts);
  Answer handleCollections(const Request& r, const std::vector<std::string>& parts);
  const Fault* faultFor(const Request& r) const;
  Json itemJson(const Item& item, std::optional<size_t> leafCount = std::nullopt) const;
  std::string nextKey();
  int64_t unixNow() const;
  bool readable(const std::string& path) const;
  void giveDuration(Item& item) const;
  void removeItem(const std::string& ratingKey);
  // Names of the labels whose ids are in a comma-separated list.
  std::set<std::string> labelNames(const std::string& ids) const;
  struct LabelEdits {
    std::vector<std::string> added, removed;
    void apply(Item& item) const;
  };
  LabelEdits labelEdits(const Request& r) const;

  Clock* clock_;
  std::vector<PendingScan> pendingScans_;
  int nextRatingKey_ = 1000;
  mutable std::map<std::string, int> labelIds_;
};

}  // namespace vt::test
