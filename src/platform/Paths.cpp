#include "platform/Paths.h"

#include <cstdlib>
#include <filesystem>

namespace vt {

namespace {

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v ? std::string(v) : std::string();
}

std::string xdg(const char* var, const char* fallbackUnderHome) {
  auto v = env(var);
  // The XDG rules ignore relative paths.
  if (!v.empty() && v.front() == '/') return v;
  auto home = env("HOME");
  if (home.empty()) home = "/tmp";
  return (std::filesystem::path(home) / fallbackUnderHome).string();
}

}  // namespace

AppPaths AppPaths::fromEnvironment() {
  const auto home = env("VT_UITEST_HOME");
  if (!home.empty()) return forTestHome(home);
  AppPaths p;
  p.dataDirectory = (std::filesystem::path(xdg("XDG_DATA_HOME", ".local/share")) / "Vantory").string();
  p.settingsPath = (std::filesystem::path(xdg("XDG_CONFIG_HOME", ".config")) / "Vantory" / "settings.ini").string();
  p.httpCacheDirectory = (std::filesystem::path(xdg("XDG_CACHE_HOME", ".cache")) / "Vantory" / "http").string();
  return p;
}

AppPaths AppPaths::forTestHome(const std::string& home) {
  AppPaths p;
  p.homeOverride = home;
  p.dataDirectory = home;
  p.settingsPath = (std::filesystem::path(home) / "settings.ini").string();
  p.httpCacheDirectory = (std::filesystem::path(home) / ".cache" / "http").string();
  return p;
}

AppPaths AppPaths::forUserHome(const std::string& userHome) {
  const std::filesystem::path home(userHome);
  AppPaths p;
  p.dataDirectory = (home / ".local/share" / "Vantory").string();
  p.settingsPath = (home / ".config" / "Vantory" / "settings.ini").string();
  p.httpCacheDirectory = (home / ".cache" / "Vantory" / "http").string();
  return p;
}

bool AppPaths::ensureDataDirectory() const {
  std::error_code ec;
  std::filesystem::create_directories(dataDirectory, ec);
  return std::filesystem::is_directory(dataDirectory, ec);
}

std::string AppPaths::data(const std::string& relative) const {
  return (std::filesystem::path(dataDirectory) / relative).string();
}

const AppPaths& appPaths() {
  static const AppPaths paths = AppPaths::fromEnvironment();
  return paths;
}

}  // namespace vt
