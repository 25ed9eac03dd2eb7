#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>

#include "cli/Verbs.h"
#include "core/AppConfig.h"
#include "engine/EngineInstancePaths.h"
#include "platform/FolderAccess.h"
#include "platform/Mounts.h"
#include "platform/Paths.h"
#include "platform/SerialFileWriter.h"
#include "platform/Settings.h"

namespace vt::cli {

namespace {

constexpr char kVerb[] = "setup-mount";
constexpr char kStateFile[] = "mount-setup.json";

// Rewrites a system file in place, so that its owner and mode stay.
bool writeInPlace(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out.flush());
}

std::vector<std::string> foldersAbove(const std::string& folder) {
  std::vector<std::string> out;
  std::filesystem::path walked = "/";
  out.push_back(walked.string());
  for (const auto& part : std::filesystem::path(folder).lexically_normal().parent_path().relative_path()) {
    walked /= part;
    out.push_back(walked.string());
  }
  return out;
}

int failed(Io& io, const std::string& what) {
  io.err << kToolName << ' ' << kVerb << ": " << what << '\n';
  return 1;
}

}  // namespace

int setupMount(const MountSetup& setup, Io& io) {
  const std::string statePath = setup.paths.data(kStateFile);
  const std::string fstabText = readFile(setup.fstab).value_or("");

  if (setup.remove) {
    const auto state = json::parse(readFile(statePath).value_or(""));
    if (!state || !state->is_object()) {
      io.out << "nothing to undo: " << statePath << " is missing\n";
      return 0;
    }
    const std::string block = state->value("fstab", std::string());
    if (!block.empty()) {
      const auto at = fstabText.find(block);
      if (at == std::string::npos) {
        io.out << "the lines added to " << setup.fstab << " are no longer there; left it as it is\n";
      } else {
        if (!writeInPlace(setup.fstab, fstabText.substr(0, at) + fstabText.substr(at + block.size())))
          return failed(io, "cannot write " + setup.fstab);
        io.out << "removed from " << setup.fstab << ": the entries for " << setup.user.name << '\n';
      }
    }
    for (const auto& grant : state->value("acl", Json::array())) {
      const auto folder = grant.value("folder", std::string());
      const Account account{grant.value("account", std::string()), grant.value("uid", uid_t{0}), 0, {}};
      std::string error;
      if (revokeEnter(folder, account, error))
        io.out << "took back the right of " << account.name << " to enter " << folder << '\n';
      else
        io.err << kToolName << ' ' << kVerb << ": " << folder << ": " << error << '\n';
    }
    std::filesystem::remove(statePath);
    return 0;
  }

  if (std::filesystem::exists(statePath)) {
    io.out << "already set up (" << statePath << "); undo it first with --remove\n";
    return 0;
  }
  // The fstab entries: one per instance, with its own port.
  std::string block;
  const auto store = openSettingsAt(setup.paths, HomeAccess::read);
  AppConfig config(*store);
  std::vector<std::string> mountPoints;
  for (const auto kind : {EngineKind::movie, EngineKind::tv}) {
    const auto paths = EngineInstancePaths::forKind(kind, setup.paths.dataDirectory, config);
    const auto colon = paths.nfsAddress.rfind(':');
    const int port = std::atoi(paths.nfsAddress.c_str() + colon + 1);
    mountPoints.push_back(paths.mountPoint);
    std::error_code ec;
    if (std::filesystem::create_directories(paths.mountPoint, ec))
      static_cast<void>(::chown(paths.mountPoint.c_str(), setup.user.uid, setup.user.gid));
    if (fstabLetsUsersMount(fstabText, paths.mountPoint, port)) {
      io.out << setup.fstab << " already lets users mount " << paths.mountPoint << '\n';
      continue;
    }
    const std::string line = fstabEntry(port, paths.mountPoint);
    block += line + "\n";
    io.out << "added to " << setup.fstab << ": " << line << '\n';
  }
  if (!block.empty()) {
    block = "# vantory-cli setup-mount for " + setup.user.name + "\n" + block;
    if (!fstabText.empty() && fstabText.back() != '\n') block = "\n" + block;
    if (!writeInPlace(setup.fstab, fstabText + block)) return failed(io, "cannot write " + setup.fstab);
  }

  // Rights for the media server's account on the folders above the mount points.
  Json grants = Json::array();
  if (!setup.mediaServer) {
    io.out << "no Plex Media Server account on this machine: folder rights left as they are\n";
  } else {
    std::set<std::string> seen;
    for (const auto& point : mountPoints) {
      for (const auto& folder : foldersAbove(point)) {
        if (!seen.insert(folder).second || mayEnter(folder, *setup.mediaServer)) continue;
        std::string error;
        if (!grantEnter(folder, *setup.mediaServer, error)) return failed(io, folder + ": " + error);
        grants.push_back(
            Json{{"folder", folder}, {"account", setup.mediaServer->name}, {"uid", setup.mediaServer->uid}});
        io.out << "let " << setup.mediaServer->name << " enter " << folder << '\n';
      }
    }
  }
  const Json state{{"fstab", block}, {"acl", grants}};
  if (!writeFileAtomically(statePath, json::encode(state))) return failed(io, "cannot write " + statePath);
  static_cast<void>(::chown(statePath.c_str(), setup.user.uid, setup.user.gid));
  if (block.empty() && grants.empty()) io.out << "nothing to change\n";
  return 0;
}

int checkMountAccess(const AppPaths& paths, const std::optional<Account>& mediaServer, Io& io,
                     const std::string& mountinfo) {
  if (!mediaServer) {
    io.out << json::encode(Json{{"error", "no Plex Media Server runs here and there is no \"plex\" account"}}) << '\n';
    return 1;
  }
  const auto store = openSettingsAt(paths, HomeAccess::read);
  AppConfig config(*store);
  bool readable = true;
  for (const auto kind : {EngineKind::movie, EngineKind::tv}) {
    const auto folder = EngineInstancePaths::forKind(kind, paths.dataDirectory, config).mountPoint;
    Json line{{"folder", folder}, {"account", mediaServer->name}};
    const auto problem = readProblem(folder, *mediaServer, mountinfo);
    line["readable"] = !problem;
    if (problem) {
      line["problem"] = problem->describe(*mediaServer);
      readable = false;
    }
    io.out << json::encode(line) << '\n';
  }
  return readable ? 0 : 1;
}

Verb setupMountVerb() {
  return {kVerb,
          "let the kernel NFS client mount the library as you, readable by Plex (run once with sudo)",
          "Adds /etc/fstab entries with the options \"user\" and \"noauto\" for the two library folders\n"
          "(\"Library\" and \"Library TV\" in the data folder) at the engines' ports, so that Vantory mounts\n"
          "them through the kernel's NFS client without root, and gives the Plex Media Server's account the\n"
          "right to enter the folders above them (an ACL entry u:plex:x). Prints what it changed; --remove\n"
          "undoes exactly that. The user is --user, else the one who ran sudo.\n"
          "--check prints, for each library folder, whether the Plex Media Server's account can read it\n"
          "(\"readable\") and, when not, what stops it and the fix (\"problem\"); exit status 0 when both\n"
          "are readable.",
          {{"--user", "NAME", "whose library folders (default: $SUDO_USER)"},
           {"--remove", "", "undo what an earlier run changed"},
           {"--check", "", "say whether Plex can read the library folders now; no sudo needed"},
           {"--fstab", "FILE", "the file to change instead of /etc/fstab"}},
          [](const Arguments& args, Io& io) {
            if (args.has("--check")) {
              const passwd* me = ::getpwuid(::getuid());
              const auto paths = args.home ? AppPaths::forTestHome(*args.home)
                                           : AppPaths::forUserHome(me ? me->pw_dir : std::getenv("HOME"));
              return checkMountAccess(paths, mediaServerAccount(), io);
            }
            std::string name = args.value("--user").value_or("");
            if (name.empty())
              if (const char* sudoUser = std::getenv("SUDO_USER")) name = sudoUser;
            if (name.empty()) return usageError(io, kVerb, "say whose folders with --user (or run it through sudo)");
            const passwd* pw = ::getpwnam(name.c_str());
            if (!pw) return usageError(io, kVerb, "there is no user \"" + name + "\"");
            MountSetup setup{*accountByUid(pw->pw_uid),
                             args.home ? AppPaths::forTestHome(*args.home) : AppPaths::forUserHome(pw->pw_dir),
                             args.value("--fstab").value_or("/etc/fstab"), mediaServerAccount(), args.has("--remove")};
            return setupMount(setup, io);
          }};
}

}  // namespace vt::cli
