#include "cli/Cli.h"

#include <QCoreApplication>

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <sstream>

#include "platform/Paths.h"
#include "platform/Settings.h"

namespace vt::cli {

namespace {

const Flag kHomeFlag{"--home", "DIR", "the data and settings folder, as VT_UITEST_HOME gives it"};
const Flag kHelpFlag{"--help", "", "show this help"};

std::string padded(std::string s, size_t width) {
  if (s.size() < width) s.append(width - s.size(), ' ');
  return s;
}

const Flag* findFlag(const Verb& verb, const std::string& name) {
  for (const auto& f : verb.flags)
    if (f.name == name) return &f;
  if (name == kHomeFlag.name) return &kHomeFlag;
  return nullptr;
}

}  // namespace

std::optional<std::string> Arguments::value(const std::string& flag) const {
  const auto it = values.find(flag);
  if (it == values.end()) return std::nullopt;
  return it->second;
}

std::string toolHelp(const std::vector<Verb>& table) {
  std::ostringstream s;
  s << "Usage: " << kToolName << " VERB [flags]\n\nVerbs:\n";
  size_t width = 0;
  for (const auto& v : table) width = std::max(width, v.name.size());
  for (const auto& v : table) s << "  " << padded(v.name, width + 2) << v.summary << '\n';
  s << "\nEvery verb takes --home DIR and --help. Run \"" << kToolName << " VERB --help\" for a verb's flags.\n";
  return s.str();
}

std::string verbHelp(const Verb& verb) {
  std::ostringstream s;
  s << "Usage: " << kToolName << ' ' << verb.name << (verb.operands.empty() ? "" : " " + verb.operands)
    << " [flags]\n\n"
    << verb.description << "\n\nFlags:\n";
  std::vector<Flag> all = verb.flags;
  all.push_back(kHomeFlag);
  all.push_back(kHelpFlag);
  size_t width = 0;
  auto left = [](const Flag& f) { return f.valueName.empty() ? f.name : f.name + ' ' + f.valueName; };
  for (const auto& f : all) width = std::max(width, left(f).size());
  for (const auto& f : all) s << "  " << padded(left(f), width + 2) << f.help << '\n';
  return s.str();
}

int usageError(Io& io, const std::string& verb, const std::string& message) {
  io.err << kToolName << ' ' << verb << ": " << message << "\nRun \"" << kToolName << ' ' << verb
         << " --help\" for its flags.\n";
  return kUsageError;
}

int run(const std::vector<std::string>& args, Io& io, const std::vector<Verb>& table) {
  if (args.empty()) {
    io.err << toolHelp(table);
    return kUsageError;
  }
  const auto& name = args.front();
  if (name == "--help" || name == "-h" || name == "help") {
    io.out << toolHelp(table);
    return 0;
  }
  const auto verb = std::find_if(table.begin(), table.end(), [&](const Verb& v) { return v.name == name; });
  if (verb == table.end()) {
    io.err << kToolName << ": unknown verb \"" << name << "\"\nRun \"" << kToolName
           << " --help\" for the list of verbs.\n";
    return kUsageError;
  }

  Arguments parsed;
  bool onlyOperands = false;
  for (size_t i = 1; i < args.size(); ++i) {
    std::string flag = args[i];
    std::optional<std::string> inlineValue;
    if (!onlyOperands && (flag == "--help" || flag == "-h")) {
      io.out << verbHelp(*verb);
      return 0;
    }
    if (!onlyOperands && flag == "--" && !verb->operands.empty()) {
      onlyOperands = true;
      continue;
    }
    if (onlyOperands || flag.rfind("--", 0) != 0) {
      if (verb->operands.empty()) return usageError(io, verb->name, "unexpected argument \"" + flag + "\"");
      parsed.operands.push_back(flag);
      continue;
    }
    if (const auto eq = flag.find('='); eq != std::string::npos) {
      inlineValue = flag.substr(eq + 1);
      flag.resize(eq);
    }
    const Flag* spec = findFlag(*verb, flag);
    if (!spec) return usageError(io, verb->name, "unknown flag " + flag);
    if (spec->valueName.empty()) {
      if (inlineValue) return usageError(io, verb->name, flag + " takes no value");
      parsed.switches.insert(flag);
      continue;
    }
    if (!inlineValue) {
      if (i + 1 >= args.size()) return usageError(io, verb->name, flag + " needs a value (" + spec->valueName + ")");
      inlineValue = args[++i];
    }
    if (flag == kHomeFlag.name) {
      if (inlineValue->empty()) return usageError(io, verb->name, "--home needs a folder");
      parsed.home = *inlineValue;
    } else {
      parsed.values[flag] = *inlineValue;
    }
  }
  return verb->run(parsed, io);
}

std::unique_ptr<SettingsStore> openHomeSettings(const std::string& home, HomeAccess access) {
  if (access == HomeAccess::write) return SettingsStore::openForTestHome(home);
  std::error_code ec;
  if (!std::filesystem::exists(std::filesystem::path(home) / ".settings-owned", ec)) return nullptr;
  return std::make_unique<SettingsStore>(AppPaths::forTestHome(home).settingsPath, SettingsAccess::readOnly);
}

std::unique_ptr<SettingsStore> openSettings(const std::optional<std::string>& home, HomeAccess access) {
  std::optional<std::string> folder = home;
  const auto paths = AppPaths::fromEnvironment();
  if (!folder && paths.isTestHome()) folder = paths.homeOverride;
  if (folder) {
    if (auto store = openHomeSettings(*folder, access)) return store;
    return std::make_unique<SettingsStore>(std::string(), SettingsAccess::readOnly);
  }
  return std::make_unique<SettingsStore>(
      paths.settingsPath, access == HomeAccess::write ? SettingsAccess::readWrite : SettingsAccess::readOnly);
}

std::unique_ptr<SettingsStore> openSettingsAt(const AppPaths& paths, HomeAccess access) {
  if (paths.homeOverride) return openSettings(paths.homeOverride, access);
  return std::make_unique<SettingsStore>(
      paths.settingsPath, access == HomeAccess::write ? SettingsAccess::readWrite : SettingsAccess::readOnly);
}

std::string dataFolder(const std::optional<std::string>& home) {
  return home ? AppPaths::forTestHome(*home).dataDirectory : AppPaths::fromEnvironment().dataDirectory;
}

VerbEventLoop::VerbEventLoop() {
  if (!QCoreApplication::instance()) app_ = std::make_unique<QCoreApplication>(argc_, argv_);
}

VerbEventLoop::~VerbEventLoop() = default;

}  // namespace vt::cli
