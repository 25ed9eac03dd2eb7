#pragma once

// What the rest of the application needs of the catalog of followed lists.
// The catalog subsystem implements it; a stand-in does until it exists.

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
};

}  // namespace vt
