#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fakes/FakeHttpServer.h"

namespace vt::test {

// A Plex Media Server on 127.0.0.1 for tests and the offline demonstration.
// It keeps sections, items with files and labels, collections (smart ones
// resolve their members from a label) and sessions, answers the HTTP API as
// Plex does in JSON, and rejects requests without the token with 401.
class FakePlexServer : public FakeHttpServer {
 public:
  struct Section {
    std::string key;
    std::string title;
    std::string type;  // "movie" or "show"; "" leaves the field out
    std::vector<std::string> locations;
    std::map<std::string, std::string> prefs;
    int refreshes = 0;
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
  };
  struct Collection {
    std::string ratingKey;
    std::string sectionKey;
    std::string title;
    bool smart = false;
    std::string labelId;  // for smart collections
    std::string uri;
  };

  explicit FakePlexServer(std::string token = "plex-test-token");

  std::string token;
  std::string machineIdentifier = "fake-machine-0001";
  std::optional<std::string> username = std::string("tester");
  std::map<std::string, Section> sections;
  std::map<std::string, Item> items;
  std::map<std::string, Collection> collections;
  Json sessionsReply = Json::object();  // the MediaContainer of /status/sessions
  std::map<std::string, std::string> serverPrefs;
  // Answers every request with this status when set (outages, 500s...).
  std::optional<int> forcedStatus;

  Section& addSection(const std::string& key, const std::string& title, const std::string& type,
                      std::vector<std::string> locations);
  Item& addItem(Item item);
  // The numeric id of a label in a section, as Plex reports it.
  std::string labelId(const std::string& label) const;
  std::vector<const Item*> itemsWithLabel(const std::string& sectionKey, const std::string& label) const;

 private:
  bool authorised(const Request& r) const;
  void routes();
  Json itemJson(const Item& item) const;
  std::string nextKey();

  int nextRatingKey_ = 1000;
  mutable std::map<std::string, int> labelIds_;
};

}  // namespace vt::test
