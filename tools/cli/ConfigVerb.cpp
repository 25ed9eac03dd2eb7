#include <istream>
#include <ostream>
#include <sstream>

#include "cli/Verbs.h"
#include "core/AppConfig.h"
#include "core/UserSettings.h"
#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/Settings.h"
#include "sources/StreamProviders.h"

namespace vt::cli {

namespace {

constexpr char kVerb[] = "config";
constexpr char kMask[] = "********";
constexpr char kOperands[] = "show | get KEY | set KEY VALUE | unset KEY";

std::string shown(const UserSetting& setting, const AppConfig& config, bool reveal) {
  auto value = setting.read(config);
  if (setting.secret && !reveal && !value.empty()) return kMask;
  return value;
}

int refused(Io& io, const std::string& reason) {
  io.err << kToolName << ' ' << kVerb << ": " << reason << '\n';
  return kUsageError;
}

std::string description() {
  std::ostringstream s;
  s << "Shows and changes the settings of the application, or of --home:\n"
       "  show             every setting below as key=value, in this order\n"
       "  get KEY          the value of one setting\n"
       "  set KEY VALUE    checks VALUE and stores it; VALUE \"-\" reads it from standard input\n"
       "  unset KEY        back to the default\n"
       "set and unset print nothing. A refused value gives the reason on standard error and exit status 2.\n"
       "Secrets are masked unless --reveal is given, and set takes them only from standard input (\"-\"),\n"
       "so that they stay out of the process list and the shell history. The application reads its\n"
       "settings when it starts: set them while it isn't running, or restart it.\n\n"
       "Settings, in the order to set them:\n";
  for (const auto& setting : userSettings()) {
    s << "  " << setting.key << "  (" << typeDescription(setting);
    if (*setting.defaultText) s << ", default " << setting.defaultText;
    if (setting.secret) s << ", secret";
    s << ")\n      " << setting.description << '\n';
  }
  s << "Other keys of the settings file belong to the application and are left alone.";
  return s.str();
}

}  // namespace

int configCommand(const Arguments& args, Io& io) {
  const auto& words = args.operands;
  if (words.empty()) return usageError(io, kVerb, "say what to do: show, get KEY, set KEY VALUE or unset KEY");
  const auto& action = words.front();
  const size_t wanted = action == "show" ? 1 : action == "get" || action == "unset" ? 2 : action == "set" ? 3 : 0;
  if (!wanted) return usageError(io, kVerb, "unknown action \"" + action + "\"; use show, get, set or unset");
  if (words.size() != wanted)
    return usageError(io, kVerb,
                      action + (wanted == 1   ? " takes nothing more"
                                : wanted == 2 ? " takes one KEY"
                                              : " takes a KEY and a VALUE"));

  const UserSetting* setting = nullptr;
  if (wanted >= 2) {
    setting = findUserSetting(words[1]);
    if (!setting)
      return usageError(io, kVerb, "unknown setting \"" + words[1] + "\"; the settings are listed by --help");
  }
  const bool reveal = args.has("--reveal");
  if (reveal && (action == "set" || action == "unset")) return usageError(io, kVerb, "--reveal is for show and get");

  std::string value;
  if (action == "set") {
    value = words[2];
    if (value == "-") {
      if (!std::getline(io.in, value)) return refused(io, "no value on standard input for " + words[1]);
      if (!value.empty() && value.back() == '\r') value.pop_back();
    } else if (setting->secret) {
      return refused(io, words[1] + " is a secret: give it on standard input, as \"" + kToolName + ' ' + kVerb +
                             " set " + words[1] + " -\", so it stays out of the process list and the shell history");
    }
    // Refused before the settings are opened, so a refusal changes nothing.
    if (const auto checked = checkUserSetting(*setting, value); !checked) return refused(io, message(checked.error()));
  }

  const auto access = action == "set" || action == "unset" ? HomeAccess::write : HomeAccess::read;
  const auto store = openSettings(args.home, access);
  // A stored value that doesn't read is reported by the store as a log line;
  // here that line goes to standard error.
  ScopedLogSink toStandardError([&io](std::string_view line) { io.err << line << '\n'; });
  AppConfig config(*store, [](const AppConfig& c) { syncStreamProviders(c); });

  if (action == "show") {
    for (const auto& s : userSettings()) io.out << s.key << '=' << shown(s, config, reveal) << '\n';
    return 0;
  }
  if (action == "get") {
    io.out << shown(*setting, config, reveal) << '\n';
    return 0;
  }
  if (action == "unset") {
    unsetUserSetting(config, *setting);
    return 0;
  }
  const auto result = setUserSetting(config, *setting, value);
  if (!result) return refused(io, message(result.error()));
  return 0;
}

Verb configVerb() {
  Verb verb{kVerb,
            "show and change the settings (Plex address and token, Real-Debrid key, quality, ...)",
            description(),
            {{"--reveal", "", "show secrets (token, rdKey) in clear"}},
            configCommand};
  verb.operands = kOperands;
  return verb;
}

}  // namespace vt::cli
