#pragma once

// What the rest of the application needs of the catalog of followed lists.
// The catalog subsystem implements it; a stand-in does until it exists.

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <qcoro/qcorotask.h>

#include "core/LibraryTitle.h"
#include "platform/Date.h"

namespace vt {

struct MaterialisedCollection {
  std::string id;
  bool resolvePaused = false;
};

// A published catalog list as Plex shows it: a label on its members and a
// smart collection of that label.
struct PlexGrouping {
  std::string id;
  std::string name;
  // The IMDb ids to label; none while staging has revealed none of them, and
  // then the list is left as it stands in Plex.
  std::optional<std::vector<std::string>> members;
  std::optional<std::string> plexRatingKey;
};

// The catalog of followed lists.
class CatalogPort {
 public:
  virtual ~CatalogPort() = default;
  // Holds the scheduled refreshes back until `until`.
  virtual void deferRefresh(Date until) = 0;
  // The start-up pass over published lists.
  virtual QCoro::Task<> materialiseExisting() = 0;
  // Hands over, and clears, the names of Plex collections to delete.
  virtual std::vector<std::string> takeRetiredPlexGroupings() = 0;
  virtual std::set<std::string> protectedIds() const = 0;
  virtual std::vector<MaterialisedCollection> materialisedCollections() const = 0;
  virtual bool isStaging(const std::string& collectionId) const = 0;
  virtual void finishStaging(const std::string& collectionId) = 0;
  // Whether staging keeps the title out of the folder Plex reads: a title
  // only in lists still published in waves that haven't revealed it.
  virtual bool holdsBack(const LibraryTitle&) const { return false; }

  // ---- What the Plex sync reads and writes. ----
  // The published add-on catalogs, in catalog order.
  virtual std::vector<PlexGrouping> plexGroupings() const { return {}; }
  // Names of the Plex collections this application created.
  virtual const std::set<std::string>& ownedGroupings() const {
    static const std::set<std::string> none;
    return none;
  }
  virtual void setPlexRatingKey(std::optional<std::string> /*key*/, const std::string& /*id*/) {}
  virtual void addOwnedGrouping(const std::string& /*name*/) {}
  virtual void removeOwnedGrouping(const std::string& /*name*/) {}
  // Called when a published list loses members, so that Plex follows.
  virtual void setOnPublishedMembershipShrunk(std::function<void()> /*fn*/) {}
};

}  // namespace vt
