#pragma once

#include <optional>
#include <string>

namespace vt {

// Where the application keeps its files. Normally the XDG folders; under a
// test home (VT_UITEST_HOME) everything lies inside that folder, so that a
// test run never touches the user's data.
// The local socket on which the running application takes requests from
// vantory-cli, in the data folder.
inline constexpr const char* kControlSocketFileName = "control.sock";

struct AppPaths {
  std::optional<std::string> homeOverride;
  std::string dataDirectory;  // $XDG_DATA_HOME/Vantory, or the test home
  std::string settingsPath;   // $XDG_CONFIG_HOME/Vantory/settings.ini, or <home>/settings.ini
  std::string httpCacheDirectory;

  static AppPaths fromEnvironment();
  static AppPaths forTestHome(const std::string& home);
  // Another user's folders at their XDG defaults under `userHome` (a tool
  // run through sudo can't see that user's environment).
  static AppPaths forUserHome(const std::string& userHome);

  bool isTestHome() const { return homeOverride.has_value(); }
  // Creates the data folder with its parents; false when that failed.
  bool ensureDataDirectory() const;
  // A path inside the data folder.
  std::string data(const std::string& relative) const;
  std::string controlSocket() const { return data(kControlSocketFileName); }
};

// The process-wide paths, read from the environment once.
const AppPaths& appPaths();

}  // namespace vt
