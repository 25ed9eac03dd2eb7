#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <QObject>

namespace simdjson {
struct padded_string;
}

#include "core/LibraryTitle.h"
#include "platform/FlatIndex.h"
#include "platform/SerialFileWriter.h"

namespace vt {

class Clock;

// The record of every published file, with three indexes and library.json.
// Titles are immutable once stored and shared with background saves, so a
// save's snapshot costs one pointer copy per title. Main thread only.
class LibraryStore : public QObject {
  Q_OBJECT
 public:
  // A stored title together with the ids derived from its name, computed once.
  struct Record {
    LibraryTitle title;
    std::optional<std::string> imdbId;      // from the name
    std::optional<std::string> episodeKey;  // from the name
    std::optional<std::string> seriesId;    // seriesImdbId, else from the key
    // Hashes of the strings above, so that rebuilding the indexes hashes nothing.
    size_t nameHash = 0, imdbHash = 0, episodeHash = 0, seriesHash = 0;

    const std::optional<std::string>& id() const { return episodeKey ? episodeKey : imdbId; }
  };
  using RecordRef = std::shared_ptr<const Record>;

  // Loads `fileURL` synchronously; a missing or bad file gives an empty store.
  LibraryStore(std::string fileURL, Clock& clock);

  // Titles in insertion order.
  size_t size() const { return records_.size(); }
  const LibraryTitle& at(size_t i) const { return records_[i]->title; }
  const std::vector<RecordRef>& records() const { return records_; }
  std::vector<LibraryTitle> titles() const;

  // Index lookups. Films (names without an episode key) by IMDb id; episodes
  // by episode key; a series' episodes sorted by season, then episode.
  const LibraryTitle* titleByImdb(std::string_view imdbId) const;
  const LibraryTitle* titleByEpisodeKey(std::string_view key) const;
  std::vector<const LibraryTitle*> titlesBySeries(std::string_view seriesId) const;
  const LibraryTitle* titleNamed(std::string_view name) const;
  size_t imdbIndexSize() const { return ix_.byImdb.size(); }
  size_t episodeIndexSize() const { return ix_.byEpisode.size(); }
  size_t seriesIndexSize() const { return ix_.bySeries.size(); }
  // Whether the indexes equal a rebuild from the list (tests).
  bool indexesMatchRebuild() const;

  void upsert(LibraryTitle title);
  void remove(const std::string& name);
  // Sizes confirmed by the engine, by file name. True when anything changed.
  bool applyVerifiedSizes(const std::map<std::string, int64_t>& sizes);

  const std::string& fileURL() const { return fileURL_; }
  // Blocks until every save handed to the writer is on disk (tests, tools).
  void waitForSaves() { writer_.waitUntilIdle(); }

 signals:
  void changed();

 private:
  static RecordRef makeRecord(LibraryTitle title);
  static std::optional<std::vector<RecordRef>> decodeRecords(const simdjson::padded_string& text);
  void load();
  void keepUnreadableFile();
  void rebuildIndexes();
  void indexAppended(size_t index);
  void save();

  std::string fileURL_;
  Clock& clock_;
  SerialFileWriter writer_;
  std::vector<RecordRef> records_;
  struct Indexes {
    FlatIndex byImdb;
    FlatIndex byEpisode;
    FlatIndex byName;    // first title of each name
    FlatIndex bySeries;  // series id to its group in seriesGroups
    std::vector<std::vector<uint32_t>> seriesGroups;
  };
  static void buildIndexes(const std::vector<RecordRef>& records, Indexes& ix);
  static void sortSeriesGroup(const std::vector<RecordRef>& records, std::vector<uint32_t>& list);
  Indexes ix_;
};

}  // namespace vt
