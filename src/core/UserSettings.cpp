#include "core/UserSettings.h"

#include "core/AppConfig.h"
#include "platform/Settings.h"
#include "platform/Url.h"

namespace vt {

namespace {

std::string text(const UserSettingValue& v) { return std::get<std::string>(v); }

UserSetting textSetting(const char* key, UserSettingType type, const char* defaultText, const char* description,
                        bool secret, const std::string& (AppConfig::*get)() const,
                        void (AppConfig::*set)(const std::string&)) {
  return {key,
          type,
          defaultText,
          description,
          secret,
          0,
          0,
          [get](const AppConfig& c) { return (c.*get)(); },
          [set](AppConfig& c, const UserSettingValue& v) { (c.*set)(text(v)); }};
}

UserSetting booleanSetting(const char* key, const char* defaultText, const char* description,
                           bool (AppConfig::*get)() const, void (AppConfig::*set)(bool)) {
  return {key,
          UserSettingType::boolean,
          defaultText,
          description,
          false,
          0,
          0,
          [get](const AppConfig& c) { return std::string((c.*get)() ? "true" : "false"); },
          [set](AppConfig& c, const UserSettingValue& v) { (c.*set)(std::get<bool>(v)); }};
}

std::string_view trimmed(std::string_view s) {
  const char* ws = " \t\n\r\f\v";
  const auto b = s.find_first_not_of(ws);
  if (b == std::string_view::npos) return {};
  return s.substr(b, s.find_last_not_of(ws) - b + 1);
}

Failure<SettingRefusal> refuse(std::string reason) { return Failure(SettingRefusal{std::move(reason)}); }

}  // namespace

const std::vector<UserSetting>& userSettings() {
  using T = UserSettingType;
  static const std::vector<UserSetting> table = {
      textSetting("pmsURLString", T::url, "http://127.0.0.1:32400", "address of the Plex Media Server", false,
                  &AppConfig::pmsURLString, &AppConfig::setPmsURLString),
      textSetting("token", T::text, "", "Plex account token (X-Plex-Token) the server accepts", true, &AppConfig::token,
                  &AppConfig::setToken),
      textSetting("rdKey", T::text, "", "Real-Debrid API key (real-debrid.com/apitoken)", true, &AppConfig::rdKey,
                  &AppConfig::setRdKey),
      {"quality", T::quality, "balanced", "how good a release to pick: fast, balanced, high or best", false, 0, 0,
       [](const AppConfig& c) { return std::string(qualityLevelName(c.quality())); },
       [](AppConfig& c, const UserSettingValue& v) { c.setQuality(std::get<QualityLevel>(v)); }},
      {"cacheLimitGB", T::integer, "32", "disk cache of the engine, in gigabytes", false, AppConfig::kCacheLimitMinGB,
       AppConfig::kCacheLimitMaxGB, [](const AppConfig& c) { return std::to_string(c.cacheLimitGB()); },
       [](AppConfig& c, const UserSettingValue& v) { c.setCacheLimitGB(std::get<int64_t>(v)); }},
      booleanSetting("useComet", "true", "ask the Comet add-on for streams as well", &AppConfig::useComet,
                     &AppConfig::setUseComet),
      textSetting("mediafusionURL", T::addonUrl, "", "address of a MediaFusion add-on to ask as well", false,
                  &AppConfig::mediafusionURL, &AppConfig::setMediafusionURL),
      textSetting("streamAddonOverride", T::addonUrl, "", "add-on address that replaces the primary add-on", false,
                  &AppConfig::streamAddonOverride, &AppConfig::setStreamAddonOverride),
      booleanSetting("allowTS", "false", "accept camera recordings (CAM, TS)", &AppConfig::allowTS,
                     &AppConfig::setAllowTS),
      booleanSetting("rerankExisting", "true", "let upkeep replace published releases with better ones",
                     &AppConfig::rerankExisting, &AppConfig::setRerankExisting),
      textSetting("controlURLString", T::url, "http://127.0.0.1:12050",
                  "control address of the movie engine; the TV engine uses the port two above", false,
                  &AppConfig::controlURLString, &AppConfig::setControlURLString),
  };
  return table;
}

const UserSetting* findUserSetting(std::string_view key) {
  for (const auto& s : userSettings())
    if (key == s.key) return &s;
  return nullptr;
}

std::string typeDescription(const UserSetting& setting) {
  switch (setting.type) {
    case UserSettingType::text:
      return "text";
    case UserSettingType::url:
      return "URL";
    case UserSettingType::addonUrl:
      return "URL or empty";
    case UserSettingType::boolean:
      return "true or false";
    case UserSettingType::integer:
      return "whole number " + std::to_string(setting.min) + " to " + std::to_string(setting.max);
    case UserSettingType::quality:
      return "fast, balanced, high or best";
  }
  return "text";
}

std::string message(const SettingRefusal& refusal) { return refusal.reason; }

// gcc 12 with AddressSanitizer warns that the string of the value variant
// "may be used uninitialized" when a bool or integer alternative is moved
// into the result; the string alternative isn't active there.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
Result<UserSettingValue, SettingRefusal> checkUserSetting(const UserSetting& setting, std::string_view given) {
  // Blanks around a value are a slip of the paste, never part of it.
  const auto value = trimmed(given);
  const std::string key = setting.key;
  // A refused secret is never repeated back.
  std::string shown = "the value";
  if (!setting.secret) {
    shown.assign(1, '"');
    shown.append(value);
    shown.push_back('"');
  }
  switch (setting.type) {
    case UserSettingType::text:
      for (const char c : value)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return refuse(key + " takes one line of text");
      return UserSettingValue(std::in_place_type<std::string>, value);
    case UserSettingType::addonUrl:
      // Add-on configurations put "|" and the like in the path, which the
      // strict reading refuses; the add-on code reads these leniently too.
      if (value.empty()) return UserSettingValue(std::in_place_type<std::string>);
      if (!parseAddonUrl(value))
        return refuse(key + " takes an add-on address such as https://host/path, and " + shown +
                      " doesn't read as one");
      return UserSettingValue(std::in_place_type<std::string>, value);
    case UserSettingType::url:
      if (!parseUrl(value))
        return refuse(key + " takes a URL such as http://host:port, and " + shown + " doesn't read as one");
      return UserSettingValue(std::in_place_type<std::string>, value);
    case UserSettingType::boolean:
      if (const auto b = parseSettingBoolean(value)) return UserSettingValue(std::in_place_type<bool>, *b);
      return refuse(key + " takes true or false, not " + shown);
    case UserSettingType::integer: {
      const auto n = parseSettingInteger(value);
      if (!n || *n < setting.min || *n > setting.max)
        return refuse(key + " takes a whole number from " + std::to_string(setting.min) + " to " +
                      std::to_string(setting.max) + ", not " + shown);
      return UserSettingValue(std::in_place_type<int64_t>, *n);
    }
    case UserSettingType::quality: {
      auto level = qualityLevelFromName(value);
      if (!level)
        if (const auto raw = parseSettingInteger(value)) level = qualityLevelFromRaw(*raw);
      if (!level) return refuse(key + " takes fast, balanced, high or best, not " + shown);
      return UserSettingValue(std::in_place_type<QualityLevel>, *level);
    }
  }
  return refuse(key + " can't be set");
}
#pragma GCC diagnostic pop

Result<void, SettingRefusal> setUserSetting(AppConfig& config, const UserSetting& setting, std::string_view text) {
  auto value = checkUserSetting(setting, text);
  if (!value) return Failure(value.error());
  setting.write(config, *value);
  return {};
}

void unsetUserSetting(AppConfig& config, const UserSetting& setting) {
  if (auto value = checkUserSetting(setting, setting.defaultText)) setting.write(config, *value);
  config.store().remove(setting.key);
}

std::optional<QualityLevel> qualityLevelFromName(std::string_view name) {
  for (const auto level : {QualityLevel::fast, QualityLevel::balanced, QualityLevel::high, QualityLevel::best})
    if (name == qualityLevelName(level)) return level;
  return std::nullopt;
}

const char* qualityLevelName(QualityLevel level) {
  switch (level) {
    case QualityLevel::fast:
      return "fast";
    case QualityLevel::balanced:
      return "balanced";
    case QualityLevel::high:
      return "high";
    case QualityLevel::best:
      return "best";
  }
  return "balanced";
}

}  // namespace vt
