#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QSettings;

namespace vt {

// The persistent key-value store of the settings. Every write reaches the
// file before the call returns. Reads tell an absent key from false or 0, and
// a value of the wrong type reads as absent. Main thread only.
class SettingsStore {
 public:
  // Opens (or creates) the store at `iniPath`.
  explicit SettingsStore(const std::string& iniPath);
  ~SettingsStore();
  SettingsStore(const SettingsStore&) = delete;
  SettingsStore& operator=(const SettingsStore&) = delete;

  // The store of a test home: erased once when the marker ".settings-owned"
  // is missing from `testHome`, and the marker is then created, so that every
  // new test home starts empty while a second start in it keeps its settings.
  static std::unique_ptr<SettingsStore> openForTestHome(const std::string& testHome);

  bool contains(const std::string& key) const;
  std::optional<std::string> string(const std::string& key) const;
  std::optional<int64_t> integer(const std::string& key) const;
  std::optional<bool> boolean(const std::string& key) const;
  std::optional<std::string> data(const std::string& key) const;

  void setString(const std::string& key, const std::string& value);
  void setInteger(const std::string& key, int64_t value);
  void setBoolean(const std::string& key, bool value);
  void setData(const std::string& key, const std::string& bytes);
  void remove(const std::string& key);
  void clear();

  std::string path() const;

 private:
  std::unique_ptr<QSettings> settings_;
};

}  // namespace vt
