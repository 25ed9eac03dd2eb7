#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// How a store may touch its file.
enum class SettingsAccess {
  readWrite,  // every write reaches the file before the call returns
  readOnly,   // writes stay in memory; the file is never created or changed
};

// The persistent key-value store of the settings: a plain text file that a
// person can read and edit, one "key=value" a line, values as written:
//
//   rdKey=ABC
//   useComet=true
//   cacheLimitGB=32
//
// The file holds no types; whoever reads a key says what it expects through
// the typed getters, which parse the text. A value that doesn't read as the
// asked type reads as absent, and the store logs one line that names the key
// (never the value, which may be a secret). An absent key and a false or 0
// value stay different: contains() and the getters' none tell them apart.
//
// Structured values (JSON records, binary data) are stored as their exact
// bytes; a backslash, a line break, a control byte, a byte that isn't UTF-8
// and white space at either end are written as escapes (\\ \n \r \t \xHH),
// so every value round-trips. Lines starting with '#' or ';' are comments.
//
// A file in the older format, written with type tags ("s:", "i:", "b:") under
// a "[General]" section, is read once and rewritten plainly. The file is
// readable by the user only (0600). Changes made to the file by another
// process (the command-line tool) are merged before each write. Main thread
// only.
class SettingsStore {
 public:
  // Opens (or, on the first write, creates) the store at `iniPath`.
  explicit SettingsStore(const std::string& iniPath, SettingsAccess access = SettingsAccess::readWrite);
  ~SettingsStore();
  SettingsStore(const SettingsStore&) = delete;
  SettingsStore& operator=(const SettingsStore&) = delete;

  // The store of a test home: erased once when the marker ".settings-owned"
  // is missing from `testHome`, and the marker is then created, so that every
  // new test home starts empty while a second start in it keeps its settings.
  static std::unique_ptr<SettingsStore> openForTestHome(const std::string& testHome);

  bool contains(const std::string& key) const;
  // The text as stored.
  std::optional<std::string> string(const std::string& key) const;
  // A whole number in decimal ASCII digits with an optional sign.
  std::optional<int64_t> integer(const std::string& key) const;
  // true/false (also yes/no, on/off, 1/0), any case.
  std::optional<bool> boolean(const std::string& key) const;
  // The exact bytes of a structured value.
  std::optional<std::string> data(const std::string& key) const;

  void setString(const std::string& key, const std::string& value);
  void setInteger(const std::string& key, int64_t value);
  void setBoolean(const std::string& key, bool value);
  void setData(const std::string& key, const std::string& bytes);
  void remove(const std::string& key);
  void clear();

  // The keys in file order.
  std::vector<std::string> keys() const;
  std::string path() const { return path_; }

 private:
  struct Line {
    bool entry = false;
    std::string key;    // entry: the key
    std::string value;  // entry: the value
    std::string text;   // otherwise: the line as it stands (comment, blank, unreadable)
  };
  struct FileStamp {
    bool exists = false;
    int64_t size = 0;
    timespec mtime{};
    uint64_t inode = 0;
    bool operator==(const FileStamp& o) const;
  };

  void load(bool reportLines);
  bool loadLegacy();
  void put(const std::string& key, std::string value);
  void refreshIfChangedOnDisk();
  void write();
  FileStamp stamp() const;
  const Line* find(const std::string& key) const;
  void reportUnreadable(const std::string& key, const char* what) const;

  std::string path_;
  SettingsAccess access_;
  std::vector<Line> lines_;
  FileStamp seen_;
  mutable std::set<std::string> reported_;
};

// The readings of a settings text that the typed getters use, for callers
// that check a value before they store it.
std::optional<int64_t> parseSettingInteger(std::string_view text);
std::optional<bool> parseSettingBoolean(std::string_view text);

}  // namespace vt
