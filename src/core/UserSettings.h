#pragma once

// The settings a user may set by hand, in one table: what the command-line
// tool shows, checks and writes, and what its help and the README explain.
// Writes go through AppConfig so that its side effects hold.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/Result.h"
#include "sources/release/Quality.h"

namespace vt {

class AppConfig;

enum class UserSettingType {
  text,      // any one line
  url,       // must parse as an absolute URL
  addonUrl,  // an add-on address ("|" and the like allowed in it), or empty for none
  boolean,   // true/false (also yes/no, on/off, 1/0)
  integer,   // a whole number within [min, max]
  quality,   // fast, balanced, high or best (or its stored number)
};

// A checked value, ready for AppConfig.
using UserSettingValue = std::variant<std::string, bool, int64_t, QualityLevel>;

struct UserSetting {
  const char* key;
  UserSettingType type;
  const char* defaultText;  // as `show` prints it
  const char* description;  // one line
  bool secret = false;      // masked unless asked for
  int64_t min = 0;          // integer only
  int64_t max = 0;
  std::function<std::string(const AppConfig&)> read;               // the value in effect, as text
  std::function<void(AppConfig&, const UserSettingValue&)> write;  // through the setter
};

// Every user setting, in the order a user sets them.
const std::vector<UserSetting>& userSettings();
const UserSetting* findUserSetting(std::string_view key);

// "text", "URL", "true or false", "whole number 8 to 128", ...
std::string typeDescription(const UserSetting& setting);

// Why a value was refused.
struct SettingRefusal {
  std::string reason;
  bool operator==(const SettingRefusal&) const = default;
};
std::string message(const SettingRefusal& refusal);

// Checks `text` against the setting's type and range; the value to write.
Result<UserSettingValue, SettingRefusal> checkUserSetting(const UserSetting& setting, std::string_view text);
// Checks and writes through AppConfig.
Result<void, SettingRefusal> setUserSetting(AppConfig& config, const UserSetting& setting, std::string_view text);
// Back to the default: written through AppConfig (so its side effects hold),
// then the key is removed, so that a later default applies too.
void unsetUserSetting(AppConfig& config, const UserSetting& setting);

std::optional<QualityLevel> qualityLevelFromName(std::string_view name);
const char* qualityLevelName(QualityLevel level);

}  // namespace vt
