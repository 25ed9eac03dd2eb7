// vantory-lab: the services Vantory talks to, on this machine, seeded with a
// generated world of films and shows, and a data folder for the application
// that points at them. See --help.

#include <QCoreApplication>
#include <QDate>
#include <QElapsedTimer>
#include <QFile>
#include <QLockFile>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "lab/Lab.h"
#include "lab/LabClips.h"
#include "lab/LabWorld.h"
#include "platform/Mounts.h"
#include "platform/Signals.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kUsage =
    "Usage: vantory-lab [--home DIR] [--cache DIR] [--port-base N] [--list-size N] [--keep-home]\n"
    "Starts on 127.0.0.1 everything Vantory talks to (Cinemeta, a catalog add-on, Torrentio,\n"
    "Comet, MediaFusion, Real-Debrid with its file host, Plex, the subtitle relay) over a\n"
    "generated world, and prepares a data folder whose settings point at them. Then:\n"
    "  source DIR/lab.env && vantory --headless     (or simply: ./run --lab)\n"
    "\n"
    "  --home DIR       the application's data folder (default $XDG_DATA_HOME/vantory-lab/home);\n"
    "                   emptied at start unless --keep-home\n"
    "  --cache DIR      where the video clips are made once (default $XDG_CACHE_HOME/vantory-lab)\n"
    "  --port-base N    listen on N, N+1, ... instead of free ports\n"
    "  --list-size N    films in the subscribed list (default 40)\n"
    "  --keep-home      keep what the data folder holds from the last run\n";

// Marks a folder as the lab's own, so that emptying it never touches
// anything else.
constexpr const char* kMarker = ".vantory-lab";

std::string xdg(const char* var, const char* fallback) {
  const char* v = std::getenv(var);
  if (v && *v == '/') return v;
  const char* home = std::getenv("HOME");
  return (fs::path(home ? home : "/tmp") / fallback).string();
}

struct Options {
  std::string home;
  std::string cache;
  int portBase = 0;
  int listSize = 40;
  bool keepHome = false;
};

// The whole text as a decimal number, or none ("12x" is none).
std::optional<int> wholeNumber(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

int say(const std::string& line) {
  std::printf("[lab] %s\n", line.c_str());
  std::fflush(stdout);
  return 0;
}

int fail(const std::string& line) {
  std::fprintf(stderr, "vantory-lab: %s\n", line.c_str());
  return 1;
}

// Empties the data folder of an earlier run. Refuses folders that are not
// the lab's and folders with a library still mounted in them.
std::optional<std::string> freshHome(const std::string& home) {
  std::error_code ec;
  if (fs::exists(home, ec) && !fs::is_empty(home, ec)) {
    if (!fs::exists(fs::path(home) / kMarker, ec))
      return home + " holds files that are not the lab's; give another --home";
    for (const char* folder : {"Library", "Library TV"}) {
      const auto path = (fs::path(home) / folder).string();
      if (vt::mountedFileSystem(path))
        return "a library is still mounted at " + path + " (is vantory running?); stop it or run: fusermount3 -u '" +
               path + "'";
    }
    fs::remove_all(home, ec);
    if (ec) return "cannot empty " + home + ": " + ec.message();
  }
  fs::create_directories(home, ec);
  QFile marker(QString::fromStdString((fs::path(home) / kMarker).string()));
  if (!marker.open(QIODevice::WriteOnly)) return "cannot write in " + home;
  return std::nullopt;
}

bool writeAtomically(const std::string& path, const std::string& text) {
  const std::string partial = path + ".partial";
  QFile file(QString::fromStdString(partial));
  if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
  if (file.write(text.data(), static_cast<qint64>(text.size())) != static_cast<qint64>(text.size())) return false;
  file.close();
  std::error_code ec;
  fs::rename(partial, path, ec);
  return !ec;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.home = (fs::path(xdg("XDG_DATA_HOME", ".local/share")) / "vantory-lab" / "home").string();
  options.cache = (fs::path(xdg("XDG_CACHE_HOME", ".cache")) / "vantory-lab").string();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if ((arg == "--home" || arg == "--cache") && hasValue) {
      const std::string value = argv[++i];
      if (value.empty()) return fail(arg + " takes a folder");
      (arg == "--home" ? options.home : options.cache) = fs::absolute(value).string();
    } else if (arg == "--port-base" && hasValue) {
      const auto port = wholeNumber(argv[++i]);
      if (!port || *port < 1024 || *port > 65000) return fail("--port-base takes a port from 1024 to 65000");
      options.portBase = *port;
    } else if (arg == "--list-size" && hasValue) {
      const auto size = wholeNumber(argv[++i]);
      if (!size || *size < 1 || *size > 100000) return fail("--list-size takes a number from 1 to 100000");
      options.listSize = *size;
    } else if (arg == "--keep-home") {
      options.keepHome = true;
    } else {
      return fail("unknown option '" + arg + "'; see 'vantory-lab --help'");
    }
  }

  QCoreApplication app(argc, argv);
  QCoreApplication::setApplicationName("vantory-lab");
  vt::onTerminationSignal([] { QCoreApplication::quit(); });
  QElapsedTimer started;
  started.start();

  std::error_code ec;
  if (fs::exists(options.home, ec) && !fs::is_empty(options.home, ec) &&
      !fs::exists(fs::path(options.home) / kMarker, ec))
    return fail(options.home + " holds files that are not the lab's; give another --home");
  // One lab per data folder: a second would empty the first one's folder.
  fs::create_directories(fs::path(options.home).parent_path(), ec);
  QLockFile lock(QString::fromStdString(options.home + ".lock"));
  if (!lock.tryLock(0)) return fail("another vantory-lab runs on " + options.home);
  const std::string env = (fs::path(options.home) / "lab.env").string();
  fs::remove(env, ec);  // a waiting script must not take an old one
  if (!options.keepHome) {
    if (auto problem = freshHome(options.home)) return fail(*problem);
  } else {
    fs::create_directories(options.home, ec);
    QFile(QString::fromStdString((fs::path(options.home) / kMarker).string())).open(QIODevice::WriteOnly);
  }

  auto clips = vt::lab::ensureClips(options.cache, [](const std::string& line) { say(line); });
  if (!clips) return fail(message(clips.error()));

  const auto world = vt::lab::generateWorld(QDate::currentDate().year());
  std::unique_ptr<vt::lab::Lab> lab;
  try {
    lab = std::make_unique<vt::lab::Lab>(world, std::move(*clips), options.home,
                                         vt::lab::LabOptions{.portBase = options.portBase});
  } catch (const std::exception& e) {
    return fail(e.what());
  }
  const auto& a = lab->addresses();
  if (auto seeded = vt::lab::seedHome(options.home, world, a, options.listSize); !seeded)
    return fail(message(seeded.error()));
  // The lab's own process id last: a script that started this lab waits for
  // a file that names it, never for one an earlier lab left behind.
  const std::string envText = vt::lab::labEnvironment(options.home, a) +
                              "export VT_LAB_PID=" + std::to_string(QCoreApplication::applicationPid()) + "\n";
  if (!writeAtomically(env, envText)) return fail("cannot write " + env);

  size_t episodes = 0;
  for (const auto& s : world.shows) episodes += s.episodes.size();
  say("a world of " + std::to_string(world.catalogFilms().size()) + " films and " + std::to_string(world.shows.size()) +
      " shows (" + std::to_string(episodes) + " episodes, " + std::to_string(world.releases().size()) +
      " releases), ready in " + std::to_string(started.elapsed()) + " ms");
  say("Cinemeta            " + a.cinemeta);
  say("catalog add-on      " + a.catalogAddon + "manifest.json");
  say("Torrentio           " + a.torrentio);
  say("Comet               " + a.comet);
  say("MediaFusion         " + a.mediafusionAddon);
  say("Real-Debrid         " + a.realDebrid + "/rest/1.0/");
  say("file host           " + a.fileHost);
  say("Plex                " + a.plex + "   (see " + a.plex + "/lab)");
  say("Plex account        " + a.plexAccount);
  say("subtitle relay      " + a.relay);
  say("engine control      http://127.0.0.1:" + std::to_string(a.controlPort) + " and +2");
  say("data folder         " + options.home);
  say("clips               " + options.cache);
  say("start the application: source '" + env + "' && vantory --headless   (Ctrl-C stops the lab)");

  const int rc = app.exec();
  fs::remove(env, ec);
  lab.reset();
  say("stopped");
  return rc;
}
