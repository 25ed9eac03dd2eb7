#pragma once

// vantory-cli: one tool, a verb per job. Each verb is a row of the verb table
// with its flags and a function that does the work on the streams it is
// given, so the work can be tested without a process.
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

class QCoreApplication;

namespace vt {
class SettingsStore;
struct AppPaths;
}  // namespace vt

namespace vt::cli {

inline constexpr const char* kToolName = "vantory-cli";
// Exit status of a command line that can't be understood.
inline constexpr int kUsageError = 2;

struct Io {
  std::istream& in;
  std::ostream& out;
  std::ostream& err;
};

struct Flag {
  std::string name;       // "--level"
  std::string valueName;  // "LEVEL"; empty for a switch
  std::string help;
};

// What the command line gave a verb. --home is common to every verb.
struct Arguments {
  std::optional<std::string> home;
  std::vector<std::string> operands;  // the words that are not flags, in order
  std::map<std::string, std::string> values;
  std::set<std::string> switches;

  bool has(const std::string& flag) const { return switches.count(flag) || values.count(flag); }
  std::optional<std::string> value(const std::string& flag) const;
};

struct Verb {
  std::string name;
  std::string summary;      // one line for the verb list
  std::string description;  // the body of the verb's --help
  std::vector<Flag> flags;  // besides --home and --help
  std::function<int(const Arguments&, Io&)> run;
  // The operands in the usage line ("show | get KEY"); empty for a verb that
  // takes none, which then refuses a word that isn't a flag. After "--"
  // every word is an operand.
  std::string operands;
};

// Every verb the tool has, in the order --help lists them.
const std::vector<Verb>& verbs();

// Runs a command line (without the program name) against a verb table.
int run(const std::vector<std::string>& args, Io& io, const std::vector<Verb>& table = verbs());

// The help texts.
std::string toolHelp(const std::vector<Verb>& table);
std::string verbHelp(const Verb& verb);

// Reports a usage error of a verb with a hint and gives the exit status.
int usageError(Io& io, const std::string& verb, const std::string& message);

// The settings of a home folder (the folder VT_UITEST_HOME names). For
// reading, a home the application never opened counts as empty settings and
// nothing is created: none; otherwise the store is opened read-only, so a
// look changes nothing. For writing, the store is opened the way the
// application opens a test home.
enum class HomeAccess { read, write };
std::unique_ptr<SettingsStore> openHomeSettings(const std::string& home, HomeAccess access);

// The settings a verb works on: those of --home, or without it the
// application's own, found the way it finds them. A home the application
// never opened reads as empty settings, and nothing is created.
std::unique_ptr<SettingsStore> openSettings(const std::optional<std::string>& home, HomeAccess access);

// The settings of a set of paths: a test home's or a user's own.
std::unique_ptr<SettingsStore> openSettingsAt(const AppPaths& paths, HomeAccess access);

// The data folder of --home, or the application's own.
std::string dataFolder(const std::optional<std::string>& home);

// An event loop for a verb that runs coroutines, unless the process has one
// already (a test does). Lives for the verb's run.
class VerbEventLoop {
 public:
  VerbEventLoop();
  ~VerbEventLoop();
  VerbEventLoop(const VerbEventLoop&) = delete;
  VerbEventLoop& operator=(const VerbEventLoop&) = delete;

 private:
  int argc_ = 1;
  char name_[12] = "vantory-cli";
  char* argv_[2] = {name_, nullptr};
  std::unique_ptr<QCoreApplication> app_;
};

}  // namespace vt::cli
