#include "platform/FolderAccess.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/Mounts.h"
#include "platform/SerialFileWriter.h"

namespace vt {

namespace {

constexpr char kServerProcess[] = "Plex Media Server";
constexpr char kServerAccount[] = "plex";

std::optional<Account> fromPasswd(const passwd* pw) {
  if (!pw) return std::nullopt;
  Account a{pw->pw_name, pw->pw_uid, pw->pw_gid, {}};
  int count = 64;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  if (::getgrouplist(pw->pw_name, pw->pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<size_t>(count));
    ::getgrouplist(pw->pw_name, pw->pw_gid, groups.data(), &count);
  }
  groups.resize(static_cast<size_t>(std::max(count, 0)));
  a.groups = std::move(groups);
  if (std::find(a.groups.begin(), a.groups.end(), a.gid) == a.groups.end()) a.groups.push_back(a.gid);
  return a;
}

bool inGroup(const Account& a, gid_t gid) { return std::find(a.groups.begin(), a.groups.end(), gid) != a.groups.end(); }

// POSIX ACL as Linux stores it in "system.posix_acl_access": a version word,
// then entries of tag, permissions and id.
struct AclEntry {
  uint16_t tag;
  uint16_t perm;
  uint32_t id;
};
constexpr uint16_t kUserObj = 0x01, kUser = 0x02, kGroupObj = 0x04, kGroup = 0x08, kMask = 0x10, kOther = 0x20;
constexpr uint16_t kExecute = 0x01;

std::optional<std::vector<AclEntry>> accessAcl(const std::string& path) {
  char buf[4096];
  const ssize_t n = ::getxattr(path.c_str(), "system.posix_acl_access", buf, sizeof buf);
  if (n < 4) return std::nullopt;
  std::vector<AclEntry> entries;
  for (ssize_t at = 4; at + 8 <= n; at += 8) {
    AclEntry e{};
    std::memcpy(&e.tag, buf + at, 2);
    std::memcpy(&e.perm, buf + at + 2, 2);
    std::memcpy(&e.id, buf + at + 4, 4);
    entries.push_back(e);
  }
  return entries;
}

// The access check of an ACL for the execute bit, in the kernel's order.
bool aclAllows(const std::vector<AclEntry>& acl, const struct stat& st, const Account& a) {
  uint16_t mask = 0x07;
  for (const auto& e : acl)
    if (e.tag == kMask) mask = e.perm;
  for (const auto& e : acl)
    if (e.tag == kUserObj && a.uid == st.st_uid) return e.perm & kExecute;
  for (const auto& e : acl)
    if (e.tag == kUser && e.id == a.uid) return e.perm & mask & kExecute;
  bool groupMatched = false;
  for (const auto& e : acl) {
    const bool matches = (e.tag == kGroupObj && inGroup(a, st.st_gid)) || (e.tag == kGroup && inGroup(a, e.id));
    if (!matches) continue;
    groupMatched = true;
    if (e.perm & mask & kExecute) return true;
  }
  if (groupMatched) return false;
  for (const auto& e : acl)
    if (e.tag == kOther) return e.perm & kExecute;
  return false;
}

// The mount at `folder` in mountinfo: its type and super options.
std::optional<std::pair<std::string, std::string>> mountAt(const std::string& folder, const std::string& mountinfo) {
  std::istringstream lines(mountinfo);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string id, parent, dev, root, point;
    fields >> id >> parent >> dev >> root >> point;
    if (unescapeMountField(point) != folder) continue;
    const auto dash = line.find(" - ");
    if (dash == std::string::npos) continue;
    std::istringstream tail(line.substr(dash + 3));
    std::string type, source, options;
    tail >> type >> source >> options;
    return std::make_pair(type, options);
  }
  return std::nullopt;
}

std::optional<uint32_t> optionValue(const std::string& options, const std::string& key) {
  std::istringstream parts(options);
  for (std::string part; std::getline(parts, part, ',');)
    if (part.rfind(key + "=", 0) == 0)
      return static_cast<uint32_t>(std::strtoul(part.c_str() + key.size() + 1, nullptr, 10));
  return std::nullopt;
}

}  // namespace

std::optional<Account> accountByUid(uid_t uid) { return fromPasswd(::getpwuid(uid)); }

std::optional<Account> mediaServerAccount(const std::string& procRoot) {
  std::error_code ec;
  for (const auto& dir : std::filesystem::directory_iterator(procRoot, ec)) {
    const auto name = dir.path().filename().string();
    if (name.empty() || !std::all_of(name.begin(), name.end(), ::isdigit)) continue;
    // comm is cut at 15 characters; the command line holds the whole name.
    const auto cmdline = readFile(dir.path().string() + "/cmdline").value_or("");
    const std::string program = cmdline.substr(0, cmdline.find('\0'));
    if (std::filesystem::path(program).filename() != kServerProcess) continue;
    struct stat st {};
    if (::stat(dir.path().c_str(), &st) == 0)
      if (auto a = accountByUid(st.st_uid)) return a;
  }
  return fromPasswd(::getpwnam(kServerAccount));
}

bool mayEnter(const std::string& folder, const Account& a) {
  struct stat st {};
  if (::stat(folder.c_str(), &st) != 0) return false;
  if (a.uid == 0) return true;
  if (const auto acl = accessAcl(folder)) return aclAllows(*acl, st, a);
  if (a.uid == st.st_uid) return st.st_mode & S_IXUSR;
  if (inGroup(a, st.st_gid)) return st.st_mode & S_IXGRP;
  return st.st_mode & S_IXOTH;
}

std::optional<AccessProblem> readProblem(const std::string& folder, const Account& account,
                                         const std::string& mountinfo) {
  const std::filesystem::path target = std::filesystem::path(folder).lexically_normal();
  // Every folder from the root down to the mount point's parent; the mount
  // point itself is the mounted file system's to answer (below).
  std::filesystem::path walked = "/";
  for (const auto& part : target.parent_path().relative_path()) {
    if (!mayEnter(walked.string(), account)) return AccessProblem{AccessProblem::Kind::cannotEnter, walked.string()};
    walked /= part;
  }
  if (!mayEnter(walked.string(), account)) return AccessProblem{AccessProblem::Kind::cannotEnter, walked.string()};

  const std::string info = mountinfo.empty() ? readFile("/proc/self/mountinfo").value_or("") : mountinfo;
  if (const auto mount = mountAt(target.string(), info)) {
    const auto& [type, options] = *mount;
    if (type.rfind("fuse", 0) == 0 && options.find("allow_other") == std::string::npos &&
        optionValue(options, "user_id") != account.uid && account.uid != 0)
      return AccessProblem{AccessProblem::Kind::fuseWithoutAllowOther, target.string()};
  }
  return std::nullopt;
}

namespace {

std::vector<AclEntry> aclOrModeBits(const std::string& folder, const struct stat& st) {
  if (auto acl = accessAcl(folder)) return *acl;
  const auto bits = [&](int shift) { return static_cast<uint16_t>((st.st_mode >> shift) & 7); };
  return {{kUserObj, bits(6), 0}, {kGroupObj, bits(3), 0}, {kOther, bits(0), 0}};
}

// Writes an ACL in the kernel's order, with the mask the union of the group
// class (named users, owning group, named groups), as setfacl recomputes it.
bool writeAcl(const std::string& folder, std::vector<AclEntry> acl, std::string& error) {
  acl.erase(std::remove_if(acl.begin(), acl.end(), [](const AclEntry& e) { return e.tag == kMask; }), acl.end());
  const bool named =
      std::any_of(acl.begin(), acl.end(), [](const AclEntry& e) { return e.tag == kUser || e.tag == kGroup; });
  if (!named) {
    // Plain mode bits again: the owning group's rights go back in place of the mask.
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0 ||
        (::removexattr(folder.c_str(), "system.posix_acl_access") != 0 && errno != ENODATA)) {
      error = std::strerror(errno);
      return false;
    }
    mode_t mode = st.st_mode & 07777 & ~mode_t(070);
    for (const auto& e : acl)
      if (e.tag == kGroupObj) mode |= static_cast<mode_t>(e.perm) << 3;
    if (::chmod(folder.c_str(), mode) != 0) {
      error = std::strerror(errno);
      return false;
    }
    return true;
  }
  uint16_t mask = 0;
  for (const auto& e : acl)
    if (e.tag == kUser || e.tag == kGroup || e.tag == kGroupObj) mask |= e.perm;
  acl.push_back({kMask, mask, 0});
  std::sort(acl.begin(), acl.end(),
            [](const AclEntry& a, const AclEntry& b) { return a.tag != b.tag ? a.tag < b.tag : a.id < b.id; });
  std::string blob(4, '\0');
  const uint32_t version = 2;
  std::memcpy(blob.data(), &version, 4);
  for (const auto& e : acl) {
    char raw[8];
    std::memcpy(raw, &e.tag, 2);
    std::memcpy(raw + 2, &e.perm, 2);
    std::memcpy(raw + 4, &e.id, 4);
    blob.append(raw, 8);
  }
  if (::setxattr(folder.c_str(), "system.posix_acl_access", blob.data(), blob.size(), 0) != 0) {
    error = std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace

bool grantEnter(const std::string& folder, const Account& account, std::string& error) {
  struct stat st {};
  if (::stat(folder.c_str(), &st) != 0) {
    error = std::strerror(errno);
    return false;
  }
  auto acl = aclOrModeBits(folder, st);
  auto it =
      std::find_if(acl.begin(), acl.end(), [&](const AclEntry& e) { return e.tag == kUser && e.id == account.uid; });
  if (it == acl.end())
    acl.push_back({kUser, kExecute, account.uid});
  else
    it->perm |= kExecute;
  return writeAcl(folder, std::move(acl), error);
}

bool revokeEnter(const std::string& folder, const Account& account, std::string& error) {
  struct stat st {};
  if (::stat(folder.c_str(), &st) != 0) {
    error = std::strerror(errno);
    return false;
  }
  auto acl = aclOrModeBits(folder, st);
  acl.erase(
      std::remove_if(acl.begin(), acl.end(), [&](const AclEntry& e) { return e.tag == kUser && e.id == account.uid; }),
      acl.end());
  return writeAcl(folder, std::move(acl), error);
}

std::string AccessProblem::describe(const Account& account) const {
  switch (kind) {
    case Kind::cannotEnter:
      return "the account \"" + account.name + "\" may not enter " + folder +
             ". One-time fix: sudo setfacl -m u:" + account.name + ":x \"" + folder + "\"";
    case Kind::fuseWithoutAllowOther:
      return "the folder " + folder +
             " is mounted for this user only. One-time fix: add the line user_allow_other to " +
             "/etc/fuse.conf, then restart Vantory";
  }
  return "the account \"" + account.name + "\" can't read " + folder;
}

}  // namespace vt
