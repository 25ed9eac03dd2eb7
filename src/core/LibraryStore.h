#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <QObject>

namespace simdjson::dom {
class element;
}

#include "core/LibraryTitle.h"
#include "platform/FlatIndex.h"
#include "platform/SerialFileWriter.h"
#include "platform/SharedChunkList.h"

namespace vt {

class Clock;

// The record of every published file, with three indexes and library.json.
// Titles are immutable once stored, and the list of them is kept in chunks
// that copies share: a background save's snapshot costs one pointer per
// thousand titles, and a change copies at most the chunk it touches. Main
// thread only.
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
  // Copies are cheap snapshots that later changes to the store leave alone.
  using RecordList = SharedChunkList<RecordRef>;

  // Loads `fileURL` synchronously; a missing or bad file gives an empty store.
  LibraryStore(std::string fileURL, Clock& clock);
  // Frees what loading keeps for the next load on this thread (the parser's
  // buffers, about three times the file).
  static void releaseLoadMemory();

  // Titles in insertion order.
  size_t size() const { return records_.size(); }
  const LibraryTitle& at(size_t i) const { return records_[i]->title; }
  const RecordList& records() const { return records_; }
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

  // library.json's bytes for `records`, written into `out` (its capacity kept).
  static void encode(const RecordList& records, std::string& out);

  const std::string& fileURL() const { return fileURL_; }
  // Blocks until every save handed to the writer is on disk (tests, tools).
  void waitForSaves() { writer_.waitUntilIdle(); }

 signals:
  void changed();

 private:
  static RecordRef makeRecord(LibraryTitle title);
  static std::optional<std::vector<RecordRef>> decodeRecords(const simdjson::dom::element& doc);
  void load();
  void keepUnreadableFile();
  void rebuildIndexes();
  void indexAppended(size_t index);
  void rebuildSeriesIndex();
  // The first title with the record's name or id; size() when none.
  size_t positionOf(const Record& r) const;
  void save();

  std::string fileURL_;
  Clock& clock_;
  SerialFileWriter writer_;
  RecordList records_;
  struct Indexes {
    FlatIndex byImdb;
    FlatIndex byEpisode;
    FlatIndex byName;    // first title of each name
    FlatIndex bySeries;  // series id to its group in seriesGroups
    std::vector<std::vector<uint32_t>> seriesGroups;
  };
  static void buildIndexes(const RecordList& records, Indexes& ix);
  static void buildSeriesIndex(const RecordList& records, Indexes& ix);
  static void sortSeriesGroup(const RecordList& records, std::vector<uint32_t>& list);
  Indexes ix_;
};

}  // namespace vt
