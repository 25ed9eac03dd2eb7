#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/CatalogPort.h"

namespace vt::test {

// The catalog as the coordinator sees it: published lists and the names of
// the collections this application made.
class ListCatalog : public CatalogPort {
 public:
  std::vector<PlexGrouping> lists;
  std::set<std::string> owned;
  std::set<std::string> heldBack;  // library names staging keeps out

  void deferRefresh(Date) override {}
  QCoro::Task<> materialiseExisting() override { co_return; }
  std::vector<std::string> takeRetiredPlexGroupings() override { return {}; }
  std::set<std::string> protectedIds() const override { return {}; }
  std::vector<MaterialisedCollection> materialisedCollections() const override { return {}; }
  bool isStaging(const std::string&) const override { return false; }
  void finishStaging(const std::string&) override {}
  bool holdsBack(const LibraryTitle& t) const override { return heldBack.count(t.name) > 0; }
  std::vector<PlexGrouping> plexGroupings() const override { return lists; }
  const std::set<std::string>& ownedGroupings() const override { return owned; }
  void setPlexRatingKey(std::optional<std::string> key, const std::string& id) override {
    for (auto& l : lists)
      if (l.id == id) l.plexRatingKey = key;
  }
  void addOwnedGrouping(const std::string& name) override { owned.insert(name); }
  void removeOwnedGrouping(const std::string& name) override { owned.erase(name); }
};

}  // namespace vt::test
